// Runs a built program as a user does, and keeps what it said.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_dir.h"

extern char** environ;

namespace zel::test {

struct CommandResult {
  int exitCode = -1;  // -1 when a signal ended the program
  int signal = 0;     // that signal
  std::string out;
  std::string err;
};

// One child process; its output goes to files, so that it never waits for a reader.
class Command {
 public:
  // `words[0]` is the path of the program. `stdoutPath` replaces the captured standard output, an open
  // descriptor `stderrFd` the captured standard error.
  explicit Command(const std::vector<std::string>& words, const std::string& stdoutPath = "",
                   int stderrFd = -1) {
    outPath_ = stdoutPath.empty() ? dir_ / "out" : stdoutPath;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const auto open = [&](int fd, const std::string& path, int flags) {
      posix_spawn_file_actions_addopen(&actions, fd, path.c_str(), flags, 0600);
    };
    open(STDIN_FILENO, "/dev/null", O_RDONLY);
    open(STDOUT_FILENO, outPath_, O_WRONLY | O_CREAT | O_TRUNC);
    open(STDERR_FILENO, dir_ / "err", O_WRONLY | O_CREAT | O_TRUNC);
    if (stderrFd >= 0) posix_spawn_file_actions_adddup2(&actions, stderrFd, STDERR_FILENO);
    std::vector<std::string> copies = words;
    std::vector<char*> argv;
    for (std::string& word : copies)
      argv.push_back(word.data());
    argv.push_back(nullptr);
    // A shell starts background jobs with some signals ignored, and a child inherits that: tests that
    // send a signal would then wait for an end that never comes.
    sigset_t defaults;
    sigemptyset(&defaults);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGUSR1, SIGUSR2, SIGXCPU, SIGALRM})
      sigaddset(&defaults, signal);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const int error = posix_spawn(&pid_, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot run " + words[0]);
  }
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;
  ~Command() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

  void send(int signal) const { ::kill(pid_, signal); }

  CommandResult wait() {
    int status = 0;
    if (::waitpid(pid_, &status, 0) != pid_) throw std::runtime_error("waitpid failed");
    pid_ = -1;
    CommandResult result;
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    if (outPath_ == dir_ / "out") result.out = readWholeFile(outPath_);
    result.err = readWholeFile(dir_ / "err");
    return result;
  }

 private:
  TempDir dir_;
  std::string outPath_;
  pid_t pid_ = -1;
};

inline CommandResult runCommand(const std::vector<std::string>& words) { return Command(words).wait(); }

}  // namespace zel::test
