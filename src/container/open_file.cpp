#include "container/open_file.h"

#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>

namespace zel {

int openFile(const char* path, int flags, mode_t mode) noexcept {
  constexpr timespec kPause{0, 10'000'000};  // 10 ms
  constexpr int kAttempts = 6000;
  for (int attempt = 1;; ++attempt) {
    const int file = ::open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
    if (file >= 0 || errno != EWOULDBLOCK || attempt == kAttempts) return file;
    // A busy device answers the same.
    struct stat info {};
    if (::stat(path, &info) != 0 || !S_ISREG(info.st_mode)) return -1;
    (void)::nanosleep(&kPause, nullptr);
  }
}

}  // namespace zel
