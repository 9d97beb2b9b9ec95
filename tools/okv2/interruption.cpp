#include "okv2/interruption.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace zel::tool {
namespace {

// What ends a process from outside and can be caught: by hand, by a batch system that warns before it kills
// (SIGUSR1, SIGUSR2), by a limit or an alarm that was set before this program began (SIGXCPU, SIGALRM).
constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGXCPU, SIGALRM};

// Read by the signal handler; changed only while the signals are blocked.
char pendingFile[PATH_MAX] = "";
char pendingDirectory[PATH_MAX] = "";

char* pathOf(Pending kind) { return kind == Pending::File ? pendingFile : pendingDirectory; }

// readdir() may allocate, which a handler must not; the system call does not. Its records (getdents64(2)):
// 8 bytes inode, 8 bytes offset, 2 bytes length of the record, 1 byte type, the name and a NUL.
constexpr std::size_t kLengthOffset = 16, kNameOffset = 19;

void removeEntries(int directory) {
  alignas(std::uint64_t) char records[8192];
  for (;;) {
    const long bytes = ::syscall(SYS_getdents64, directory, records, sizeof records);
    if (bytes <= 0) return;
    bool removed = false;
    for (long at = 0; at < bytes;) {
      std::uint16_t length = 0;
      std::memcpy(&length, records + at + kLengthOffset, sizeof length);
      removed = ::unlinkat(directory, records + at + kNameOffset, 0) == 0 || removed;
      at += length;
    }
    // What was removed may have moved the rest: from the start, as long as that helps.
    if (removed) ::lseek(directory, 0, SEEK_SET);
  }
}

extern "C" void removePendingAndDie(int signal) {
  const int error = errno;  // what was interrupted may look at it before the signal follows
  if (pendingFile[0] != '\0') ::unlink(pendingFile);
  if (pendingDirectory[0] != '\0') {
    const int directory = ::open(pendingDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (directory >= 0) removeEntries(directory);
    ::rmdir(pendingDirectory);
  }
  ::raise(signal);  // SA_RESETHAND has restored the default action, which follows when the handler returns
  errno = error;
}

sigset_t signalSet() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : kSignals)
    sigaddset(&set, signal);
  return set;
}

void installHandlers() {
  for (const int signal : kSignals) {
    struct sigaction action = {};
    if (::sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = removePendingAndDie;
    action.sa_flags = SA_RESETHAND;
    action.sa_mask = signalSet();
    ::sigaction(signal, &action, nullptr);
  }
  // Beyond the file size limit writing shall fail, not kill.
  ::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace

SignalsBlocked::SignalsBlocked() {
  const sigset_t set = signalSet();
  ::sigprocmask(SIG_BLOCK, &set, &before_);
}

SignalsBlocked::~SignalsBlocked() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

bool removeOnSignal(Pending kind, const std::string& path) {
  if (path.size() >= PATH_MAX) return false;
  std::memcpy(pathOf(kind), path.c_str(), path.size() + 1);
  installHandlers();
  return true;
}

void ignoreClosedPipes() { ::signal(SIGPIPE, SIG_IGN); }

void keepOnSignal(Pending kind) { pathOf(kind)[0] = '\0'; }

}  // namespace zel::tool
