#include "okv2/prepare/source_guard.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "okv2/exit_codes.h"

namespace zel::tool::prepare {
namespace {

ReadGuard* innermost = nullptr;  // read by the signal handler

}  // namespace

ReadGuard::ReadGuard(std::string_view mapped) : mapped_(mapped), outer_(innermost) {
  innermost = this;
  struct sigaction action {};
  action.sa_sigaction = onSigbus;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGBUS, &action, &before_);
}

ReadGuard::~ReadGuard() {
  ::sigaction(SIGBUS, &before_, nullptr);
  innermost = outer_;
}

bool ReadGuard::failed() const noexcept {
  // Reads of the mapping stay before this one.
  std::atomic_signal_fence(std::memory_order_seq_cst);
  return failed_ != 0;
}

void ReadGuard::onSigbus(int signal, siginfo_t* info, void*) {
  const int error = errno;
  for (ReadGuard* guard = innermost; guard != nullptr; guard = guard->outer_) {
    if (info->si_code <= 0 || !guard->replacePages(info->si_addr)) continue;
    errno = error;
    return;  // to the instruction that could not read, which tries again
  }
  // Nobody's pages, or sent by a process: what would have happened without guards.
  struct sigaction before {};
  for (const ReadGuard* guard = innermost; guard != nullptr; guard = guard->outer_)
    before = guard->before_;
  ::sigaction(signal, &before, nullptr);
  ::raise(signal);
  errno = error;
}

// All pages from here on, or else a file of gigabytes would take a signal for each.
bool ReadGuard::replacePages(const void* address) noexcept {
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  const auto begin = reinterpret_cast<std::uintptr_t>(mapped_.data());
  if (at < begin || at - begin >= mapped_.size()) return false;
  const auto pageBytes = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t page = at / pageBytes * pageBytes;
  void* const zeros = ::mmap(reinterpret_cast<void*>(page), begin + mapped_.size() - page, PROT_READ,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0);
  if (zeros == MAP_FAILED) return false;
  failed_ = 1;
  return true;
}

void refuseUnreadable(const std::string& path, const std::string& reason) {
  throw Refused(kExitIoError, "weights.partial", path + ": cannot be read: " + reason,
                "Leave the directory alone while it is prepared.");
}

void refuseShorter(const DataFile& file) {
  struct stat info {};
  if (::fstat(file.descriptor, &info) != 0) refuseUnreadable(file.path, std::strerror(errno));
  if (static_cast<std::uint64_t>(info.st_size) < file.bytes.size()) refuseUnreadable(file.path, kShorter);
}

void refuseUnreadPage(const DataFile& file) {
  refuseShorter(file);
  refuseUnreadable(file.path, std::strerror(EIO));
}

}  // namespace zel::tool::prepare
