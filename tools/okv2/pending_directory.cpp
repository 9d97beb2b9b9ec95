#include "okv2/pending_directory.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "okv2/interruption.h"

namespace zel::tool {
namespace {

mode_t newDirectoryMode() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0777 & ~mask;
}

}  // namespace

PendingDirectory::~PendingDirectory() {
  if (path_.empty()) return;
  const SignalsBlocked blocked;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
  keepOnSignal(Pending::Directory);
}

bool PendingDirectory::create(const std::string& destination, std::string& reason) {
  std::string pattern = std::filesystem::path(destination).replace_filename(".okv2-prepare-XXXXXX").native();
  const SignalsBlocked blocked;
  if (::mkdtemp(pattern.data()) == nullptr) {
    reason = std::strerror(errno);
    return false;
  }
  if (!removeOnSignal(Pending::Directory, pattern)) {
    ::rmdir(pattern.c_str());
    reason = std::strerror(ENAMETOOLONG);
    return false;
  }
  ::chmod(pattern.c_str(), newDirectoryMode());
  destination_ = destination;
  path_ = pattern;
  return true;
}

bool PendingDirectory::commit(std::string& reason) {
  const SignalsBlocked blocked;
  if (::rename(path_.c_str(), destination_.c_str()) != 0) {
    reason = std::strerror(errno);
    return false;
  }
  keepOnSignal(Pending::Directory);
  path_.clear();
  return true;
}

}  // namespace zel::tool
