#define _GNU_SOURCE
#include "fault_shim.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

const char* const kFaultCallNames[FAULT_CALLS] = {
    "open",    "fstat",   "stat",     "read",      "mmap",   "munmap",    "madvise",
    "opendir", "readdir", "closedir", "ftruncate", "writev", "write",     "lseek",
    "close",   "fread",   "fseeko",   "pipe2",     "fcntl",  "fallocate", "splice"};

static _Thread_local bool armed;
static _Thread_local struct FaultPlan plan;
static _Thread_local int counts[FAULT_CALLS];
static _Thread_local long long roomEnd;

void armFaults(const struct FaultPlan* wanted) {
  plan = *wanted;
  memset(counts, 0, sizeof counts);
  roomEnd = 0;
  armed = true;
}

void disarmFaults(void) { armed = false; }

int faultCallCount(enum FaultCall call) { return counts[call]; }

long long faultRoomEnd(void) { return roomEnd; }

/* The C library's own function behind ours. */
static void findReal(void* pointer, const char* name) {
  void* const symbol = dlsym(RTLD_NEXT, name);
  memcpy(pointer, &symbol, sizeof symbol);
}
#define REAL(name)               \
  static __typeof__(name)* real; \
  if (real == NULL) findReal(&real, #name)

/* True, with errno set, when this call has to fail. `limit` receives what it may move, or -1 for all. */
static bool fails(enum FaultCall call, long* limit) {
  *limit = -1;
  if (!armed) return false;
  const int n = ++counts[call];
  if (call != plan.call || plan.nth == 0) return false;
  if (n == plan.nth && plan.limit >= 0) {
    *limit = plan.limit;
    return false;
  }
  if (n == plan.nth || (plan.limit >= 0 && plan.errorAfter != 0 && n == plan.nth + 1)) {
    errno = plan.limit >= 0 ? plan.errorAfter : plan.error;
    return true;
  }
  return false;
}

static size_t atMost(size_t size, long limit) {
  return limit >= 0 && (size_t)limit < size ? (size_t)limit : size;
}

int open(const char* path, int flags, ...) {
  REAL(open);
  long limit;
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return fails(FAULT_OPEN, &limit) ? -1 : real(path, flags, mode);
}

int fstat(int fd, struct stat* info) {
  REAL(fstat);
  long limit;
  return fails(FAULT_FSTAT, &limit) ? -1 : real(fd, info);
}

int stat(const char* path, struct stat* info) {
  REAL(stat);
  long limit;
  return fails(FAULT_STAT, &limit) ? -1 : real(path, info);
}

ssize_t read(int fd, void* buffer, size_t size) {
  REAL(read);
  long limit;
  return fails(FAULT_READ, &limit) ? -1 : real(fd, buffer, atMost(size, limit));
}

void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
  REAL(mmap);
  long limit;
  return fails(FAULT_MMAP, &limit) ? MAP_FAILED : real(address, size, protection, flags, fd, offset);
}

int munmap(void* address, size_t size) {
  REAL(munmap);
  long limit;
  return fails(FAULT_MUNMAP, &limit) ? -1 : real(address, size);
}

int madvise(void* address, size_t size, int advice) {
  REAL(madvise);
  long limit;
  return fails(FAULT_MADVISE, &limit) ? -1 : real(address, size, advice);
}

DIR* opendir(const char* path) {
  REAL(opendir);
  long limit;
  return fails(FAULT_OPENDIR, &limit) ? NULL : real(path);
}

struct dirent* readdir(DIR* directory) {
  REAL(readdir);
  long limit;
  return fails(FAULT_READDIR, &limit) ? NULL : real(directory);
}

/* A close that fails has closed all the same. */
int closedir(DIR* directory) {
  REAL(closedir);
  long limit;
  const int result = real(directory);
  return fails(FAULT_CLOSEDIR, &limit) ? -1 : result;
}

int close(int fd) {
  REAL(close);
  long limit;
  const int result = real(fd);
  return fails(FAULT_CLOSE, &limit) ? -1 : result;
}

int ftruncate(int fd, off_t size) {
  REAL(ftruncate);
  long limit;
  return fails(FAULT_FTRUNCATE, &limit) ? -1 : real(fd, size);
}

ssize_t writev(int fd, const struct iovec* pieces, int count) {
  REAL(writev);
  long limit;
  if (fails(FAULT_WRITEV, &limit)) return -1;
  if (limit < 0) return real(fd, pieces, count);
  struct iovec cut[1024];
  int used = 0;
  for (long left = limit; used < count && left > 0; ++used) {
    cut[used] = pieces[used];
    cut[used].iov_len = atMost(cut[used].iov_len, left);
    left -= (long)cut[used].iov_len;
  }
  return used == 0 ? 0 : real(fd, cut, used);
}

ssize_t write(int fd, const void* buffer, size_t size) {
  REAL(write);
  long limit;
  return fails(FAULT_WRITE, &limit) ? -1 : real(fd, buffer, atMost(size, limit));
}

int pipe2(int ends[2], int flags) {
  REAL(pipe2);
  long limit;
  return fails(FAULT_PIPE2, &limit) ? -1 : real(ends, flags);
}

/* Only with commands that take a number. */
int fcntl(int fd, int command, ...) {
  REAL(fcntl);
  long limit;
  va_list arguments;
  va_start(arguments, command);
  const int argument = va_arg(arguments, int);
  va_end(arguments);
  return fails(FAULT_FCNTL, &limit) ? -1 : real(fd, command, argument);
}

int fallocate(int fd, int mode, off_t offset, off_t length) {
  REAL(fallocate);
  long limit;
  if (armed) roomEnd = offset + length;
  return fails(FAULT_FALLOCATE, &limit) ? -1 : real(fd, mode, offset, length);
}

/* A call that moves nothing is one that finds nothing to move. */
ssize_t splice(int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t size, unsigned flags) {
  REAL(splice);
  long limit;
  if (fails(FAULT_SPLICE, &limit)) return -1;
  return limit == 0 ? 0 : real(from, fromOffset, to, toOffset, atMost(size, limit), flags);
}

off_t lseek(int fd, off_t offset, int whence) {
  REAL(lseek);
  long limit;
  if (fails(FAULT_LSEEK, &limit)) return -1;
  return limit >= 0 ? limit : real(fd, offset, whence);
}

size_t fread(void* buffer, size_t size, size_t count, FILE* file) {
  REAL(fread);
  long limit;
  return fails(FAULT_FREAD, &limit) ? 0 : real(buffer, size, count, file);
}

int fseeko(FILE* file, off_t offset, int whence) {
  REAL(fseeko);
  long limit;
  return fails(FAULT_FSEEKO, &limit) ? -1 : real(file, offset, whence);
}
