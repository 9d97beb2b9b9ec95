#include "okv2/container_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace zel::tool {
namespace {

ContainerFile::Result mapRegularFile(int fd, std::string_view& bytes, std::string& reason) {
  struct stat status;
  if (::fstat(fd, &status) != 0) {
    reason = std::strerror(errno);
    return ContainerFile::Result::OsRefused;
  }
  if (!S_ISREG(status.st_mode)) {
    reason = "not a regular file";
    return ContainerFile::Result::NotARegularFile;
  }
  if (status.st_size == 0) return ContainerFile::Result::Ok;  // an empty mapping cannot be had
  const auto size = static_cast<std::size_t>(status.st_size);
  void* base = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  if (base == MAP_FAILED) {
    reason = std::strerror(errno);
    return ContainerFile::Result::OsRefused;
  }
  bytes = {static_cast<const char*>(base), size};
  return ContainerFile::Result::Ok;
}

}  // namespace

ContainerFile::~ContainerFile() {
  if (!bytes_.empty()) ::munmap(const_cast<char*>(bytes_.data()), bytes_.size());
}

ContainerFile::Result ContainerFile::open(const std::string& path, std::string& reason) {
  // O_NONBLOCK: opening a FIFO must not wait for a writer.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    reason = std::strerror(errno);
    return Result::OsRefused;
  }
  const Result result = mapRegularFile(fd, bytes_, reason);
  ::close(fd);
  return result;
}

}  // namespace zel::tool
