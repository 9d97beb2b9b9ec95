/* Stands between the loaded module and the C library's file functions: counts calls while armed and makes
 * one of them fail. Linked into a test executable, whose symbols the module finds before the library's.
 * For one thread at a time. */
#ifndef OKV2_TESTS_FAULT_SHIM_H
#define OKV2_TESTS_FAULT_SHIM_H

#ifdef __cplusplus
extern "C" {
#endif

enum FaultCall {
  FAULT_OPEN,
  FAULT_FSTAT,
  FAULT_STAT,
  FAULT_READ,
  FAULT_MMAP,
  FAULT_MUNMAP,
  FAULT_MADVISE,
  FAULT_OPENDIR,
  FAULT_READDIR,
  FAULT_CLOSEDIR,
  FAULT_FTRUNCATE,
  FAULT_WRITEV,
  FAULT_WRITE,
  FAULT_LSEEK,
  FAULT_CLOSE,
  FAULT_FREAD,
  FAULT_FSEEKO,
  FAULT_PIPE2,
  FAULT_FCNTL,
  FAULT_FALLOCATE,
  FAULT_SPLICE,
  FAULT_CALLS
};

/* The functions' names, in the order of the enumeration. */
extern const char* const kFaultCallNames[FAULT_CALLS];

struct FaultPlan {
  enum FaultCall call;
  int nth; /* counted from 1; 0: none fails */
  /* What the call reports: this error, or, unless `limit` is -1, success with at most `limit` bytes moved
   * (read, write, writev, splice) or the position `limit` (lseek). */
  int error;
  long limit;
  int errorAfter; /* not 0: after a limited call, the next one of the same kind fails with this error */
};

void armFaults(const struct FaultPlan* plan);
void disarmFaults(void);
/* Calls of each kind since armFaults(). */
int faultCallCount(enum FaultCall call);
/* The end of the last room that a file was asked to have, in bytes, since armFaults(); 0 when none was. */
long long faultRoomEnd(void);

#ifdef __cplusplus
}
#endif

#endif
