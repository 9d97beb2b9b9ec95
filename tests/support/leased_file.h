// A file on which another process holds a lease, as a file server's: fcntl(2), F_SETLEASE.
#pragma once

#include <csignal>
#include <string>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zel::test {

// The other process gives its lease up 50 ms after it has been asked to.
class LeasedFile {
 public:
  // `type` is F_RDLCK, which keeps writers away, or F_WRLCK, which keeps everybody away.
  LeasedFile(const std::string& path, int type) {
    int ready[2];
    if (::pipe(ready) != 0) return;
    holder_ = ::fork();
    if (holder_ == 0) hold(path.c_str(), type, ready[1]);
    ::close(ready[1]);
    char answer = 'n';
    isLeased_ = ::read(ready[0], &answer, 1) == 1 && answer == 'y';
    ::close(ready[0]);
  }
  LeasedFile(const LeasedFile&) = delete;
  LeasedFile& operator=(const LeasedFile&) = delete;
  ~LeasedFile() {
    if (holder_ <= 0) return;
    ::kill(holder_, SIGKILL);
    ::waitpid(holder_, nullptr, 0);
  }

  // False where the file system has no leases.
  [[nodiscard]] bool isLeased() const { return isLeased_; }

 private:
  [[noreturn]] static void hold(const char* path, int type, int ready) {
    sigset_t asked;
    sigemptyset(&asked);
    sigaddset(&asked, SIGIO);
    sigprocmask(SIG_BLOCK, &asked, nullptr);
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    const bool held = ::fcntl(file, F_SETLEASE, type) == 0;
    (void)!::write(ready, held ? "y" : "n", 1);
    int signal;
    sigwait(&asked, &signal);
    ::usleep(50'000);
    ::fcntl(file, F_SETLEASE, F_UNLCK);
    for (;;)
      ::pause();
  }

  pid_t holder_ = -1;
  bool isLeased_ = false;
};

}  // namespace zel::test
