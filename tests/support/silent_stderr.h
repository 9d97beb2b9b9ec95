// Sends standard error to nowhere while it lives; the sanitizers' reports still get out.
#pragma once

#include <cstdint>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

// Of the address and undefined-behaviour sanitizers, when they are there.
extern "C" [[gnu::weak]] void __sanitizer_set_report_fd(void* fd);

namespace zel::test {

class SilentStderr {
 public:
  SilentStderr() : saved_(::dup(STDERR_FILENO)) {
    std::fflush(stderr);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    (void)::dup2(null, STDERR_FILENO);
    (void)::close(null);
    reportTo(saved_);
  }
  SilentStderr(const SilentStderr&) = delete;
  SilentStderr& operator=(const SilentStderr&) = delete;
  ~SilentStderr() {
    std::fflush(stderr);
    (void)::dup2(saved_, STDERR_FILENO);
    (void)::close(saved_);
    reportTo(STDERR_FILENO);
  }

 private:
  static void reportTo(int fd) {
    if (__sanitizer_set_report_fd != nullptr) {
      __sanitizer_set_report_fd(reinterpret_cast<void*>(std::intptr_t(fd)));
    }
  }

  int saved_;
};

}  // namespace zel::test
