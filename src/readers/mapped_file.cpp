#include "readers/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "container/descriptor.h"
#include "container/open_file.h"

namespace zel {

MapResult MappedFile::open(const char* path, std::uint64_t minBytes) noexcept {
  close();
  // A FIFO without a writer opens at once; its size of 0 then refuses it.
  const Descriptor file(openFile(path, O_RDONLY));
  if (!file.isOpen()) return MapResult::OpenFailed;
  struct stat info {};
  if (::fstat(file.get(), &info) != 0 || info.st_size < 0 || std::uint64_t(info.st_size) < minBytes) {
    return MapResult::StatFailed;
  }
  const auto size = std::size_t(info.st_size);
  void* const base = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
  if (base == MAP_FAILED) return MapResult::MapFailed;
  bytes_ = {static_cast<const char*>(base), size};
  id_ = {info.st_dev, info.st_ino};
  return MapResult::Ok;
}

void MappedFile::close() noexcept {
  // munmap() takes the address back without its const; the pages themselves were never writable.
  if (!bytes_.empty()) ::munmap(const_cast<char*>(bytes_.data()), bytes_.size());
  bytes_ = {};
  id_ = {};
}

}  // namespace zel
