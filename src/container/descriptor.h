// An open file descriptor, closed when its owner goes.
#pragma once

#include <utility>

#include <unistd.h>

namespace zel {

class Descriptor {
 public:
  Descriptor() noexcept = default;
  explicit Descriptor(int fd) noexcept : fd_(fd) {}  // a negative one is none
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { (void)close(); }

  [[nodiscard]] bool isOpen() const noexcept { return fd_ >= 0; }
  [[nodiscard]] int get() const noexcept { return fd_; }
  void reset(int fd) noexcept {
    (void)close();
    fd_ = fd;
  }
  // False when the kernel reports a failure; nothing is open afterwards in either case.
  [[nodiscard]] bool close() noexcept {
    const int fd = std::exchange(fd_, -1);
    return fd < 0 || ::close(fd) == 0;
  }

 private:
  int fd_ = -1;
};

}  // namespace zel
