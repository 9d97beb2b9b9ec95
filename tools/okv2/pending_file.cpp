#include "okv2/pending_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "okv2/interruption.h"

namespace zel::tool {
namespace {

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
  keepOnSignal(Pending::File);
}

bool PendingFile::create(const std::string& destination, std::string& reason) {
  // The name ends in random letters, so it is never taken for a weight file of the folder.
  std::string pattern = std::filesystem::path(destination).replace_filename(".okv2-import-XXXXXX").native();
  const SignalsBlocked blocked;
  const int fd = ::mkstemp(pattern.data());
  if (fd < 0) {
    reason = std::strerror(errno);
    return false;
  }
  ::fchmod(fd, newFileMode());
  ::close(fd);
  if (!removeOnSignal(Pending::File, pattern)) {
    ::unlink(pattern.c_str());
    reason = std::strerror(ENAMETOOLONG);
    return false;
  }
  destination_ = destination;
  path_ = pattern;
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
  keepOnSignal(Pending::File);
  path_.clear();
  return true;
}

}  // namespace zel::tool
