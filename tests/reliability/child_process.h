// Runs a piece of code in a forked child and tells how that ended: exit, signal, and a line of text.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

namespace zel::test {

struct ChildResult {
  int signal = 0;  // that ended it
  int exitCode = -1;
  std::string text;
};

class ForkedChild {
 public:
  // `work` returns what the parent shall read; it must not come back by exception.
  explicit ForkedChild(const std::function<std::string()>& work) {
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      close(ends[0]);
      const std::string text = work();
      const bool sent = write(ends[1], text.data(), text.size()) == ssize_t(text.size());
      _exit(sent ? 0 : 99);
    }
    close(ends[1]);
    reader_ = ends[0];
  }
  ForkedChild(const ForkedChild&) = delete;
  ForkedChild& operator=(const ForkedChild&) = delete;
  ~ForkedChild() {
    if (pid_ > 0) (void)wait();
  }

  ChildResult wait() {
    ChildResult result;
    char buffer[4096];
    for (ssize_t n; (n = read(reader_, buffer, sizeof buffer)) > 0;)
      result.text.append(buffer, std::size_t(n));
    close(reader_);
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) throw std::runtime_error("waitpid failed");
    pid_ = -1;
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
  }
  // True as soon as the child has ended; wait() still tells how.
  [[nodiscard]] bool ended() const {
    siginfo_t info{};
    return waitid(P_PID, id_t(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid_;
  }

 private:
  pid_t pid_ = -1;
  int reader_ = -1;
};

inline ChildResult inChild(const std::function<std::string()>& work) { return ForkedChild(work).wait(); }

}  // namespace zel::test
