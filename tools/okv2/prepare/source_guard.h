// Reading mapped weight files that somebody may shorten meanwhile.
//
// A page of a mapping that lies behind the file's end by now, or that the disk does not give, ends a process
// that reads it with SIGBUS. To read the files with pread() instead would take a call for each element of a
// transposed tensor.
#pragma once

#include <csignal>
#include <string>
#include <string_view>

#include "okv2/prepare/outcome.h"
#include "okv2/prepare/tensor_data.h"

namespace zel::tool::prepare {

// While one lives, a page of `mapped` that cannot be read, and all behind it, are zeros instead, and stay so
// until the mapping goes: what was read must not be used then. Guards may be nested. Only for the thread that
// made them, and for one thread at a time.
class ReadGuard {
 public:
  explicit ReadGuard(std::string_view mapped);
  ~ReadGuard();
  ReadGuard(const ReadGuard&) = delete;
  ReadGuard& operator=(const ReadGuard&) = delete;

  // Whether a page could not be read.
  [[nodiscard]] bool failed() const noexcept;

 private:
  static void onSigbus(int signal, siginfo_t* info, void* context);
  [[nodiscard]] bool replacePages(const void* address) noexcept;

  std::string_view mapped_;
  ReadGuard* outer_;
  struct sigaction before_ {};
  volatile std::sig_atomic_t failed_ = 0;
};

// Throws Refused: the file at `path` cannot be read.
[[noreturn]] void refuseUnreadable(const std::string& path, const std::string& reason);
inline constexpr char kShorter[] = "it is shorter than it was";

// Throws Refused when the file has fewer bytes than are mapped: what was cut off the last page reads as
// zeros.
void refuseShorter(const DataFile& file);

// Throws Refused for a file of which a page could not be read.
[[noreturn]] void refuseUnreadPage(const DataFile& file);

// Calls `read`, which reads the mapping of `file`. Throws Refused, whatever became of the call, when it could
// not read all that it wanted.
template <class Read>
void readGuarded(const DataFile& file, Read read) {
  const ReadGuard guard(file.bytes);
  try {
    read();
  } catch (const Refused&) {
    if (!guard.failed()) throw;  // or else it found fault with the zeros
  }
  if (guard.failed()) refuseUnreadPage(file);
}

}  // namespace zel::tool::prepare
