#include "okv2/pending_file.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace zel::tool {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// Read by the signal handler; changed only while the signals are blocked.
char pendingPath[PATH_MAX] = "";

extern "C" void removePendingFileAndDie(int signal) {
  if (pendingPath[0] != '\0') ::unlink(pendingPath);
  ::raise(signal);  // SA_RESETHAND has restored the default action, which follows when the handler returns
}

sigset_t signalSet() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : kSignals)
    sigaddset(&set, signal);
  return set;
}

class SignalsBlocked {
 public:
  SignalsBlocked() {
    const sigset_t set = signalSet();
    ::sigprocmask(SIG_BLOCK, &set, &before_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

void installHandlers() {
  for (const int signal : kSignals) {
    struct sigaction action = {};
    // A signal that the caller ignores (nohup does that) stays ignored.
    if (::sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = removePendingFileAndDie;
    action.sa_flags = SA_RESETHAND;
    action.sa_mask = signalSet();
    ::sigaction(signal, &action, nullptr);
  }
  // Beyond the file size limit writing shall fail, not kill.
  ::signal(SIGXFSZ, SIG_IGN);
}

mode_t newFileMode() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

bool renameWithoutReplacing(const char* from, const char* to) {
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  // The file system does not know the flag.
  struct stat status;
  if (::lstat(to, &status) == 0) {
    errno = EEXIST;
    return false;
  }
  return ::rename(from, to) == 0;
}

}  // namespace

PendingFile::~PendingFile() {
  if (path_.empty()) return;
  const SignalsBlocked blocked;
  ::unlink(path_.c_str());
  pendingPath[0] = '\0';
}

bool PendingFile::create(const std::string& destination, std::string& reason) {
  // The name ends in random letters, so it is never taken for a weight file of the folder.
  std::string pattern = std::filesystem::path(destination).replace_filename(".okv2-import-XXXXXX").native();
  if (pattern.size() >= sizeof pendingPath) {
    reason = std::strerror(ENAMETOOLONG);
    return false;
  }
  const SignalsBlocked blocked;
  const int fd = ::mkstemp(pattern.data());
  if (fd < 0) {
    reason = std::strerror(errno);
    return false;
  }
  ::fchmod(fd, newFileMode());
  ::close(fd);
  destination_ = destination;
  path_ = pattern;
  std::memcpy(pendingPath, pattern.c_str(), pattern.size() + 1);
  installHandlers();
  return true;
}

bool PendingFile::commit(bool replace, std::string& reason) {
  const SignalsBlocked blocked;
  const bool renamed = replace ? ::rename(path_.c_str(), destination_.c_str()) == 0
                               : renameWithoutReplacing(path_.c_str(), destination_.c_str());
  if (!renamed) {
    reason = std::strerror(errno);
    return false;
  }
  pendingPath[0] = '\0';
  path_.clear();
  return true;
}

}  // namespace zel::tool
