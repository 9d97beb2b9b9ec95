// Takes standard output and standard error away from the process for a while, by descriptor, so that no
// way of writing escapes.
#pragma once

#include <cstdio>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "support/temp_dir.h"

namespace zel::test {

class OutputCapture {
 public:
  OutputCapture() : savedOut_(dup(STDOUT_FILENO)), savedErr_(dup(STDERR_FILENO)) {
    flush();
    redirect("out", STDOUT_FILENO);
    redirect("err", STDERR_FILENO);
  }
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;
  ~OutputCapture() { stop(); }

  // Gives the streams back and returns what went to both.
  std::string stop() {
    if (savedOut_ < 0) return "";
    flush();
    dup2(savedOut_, STDOUT_FILENO);
    dup2(savedErr_, STDERR_FILENO);
    close(savedOut_);
    close(savedErr_);
    savedOut_ = -1;
    return readWholeFile(dir_ / "out") + readWholeFile(dir_ / "err");
  }

 private:
  static void flush() {
    std::cout.flush();
    std::fflush(nullptr);
  }
  void redirect(const char* name, int target) const {
    const int fd = open((dir_ / name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(fd, target);
    close(fd);
  }

  TempDir dir_;
  int savedOut_;
  int savedErr_;
};

}  // namespace zel::test
