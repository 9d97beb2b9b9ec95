#include "promises/mappings.h"

#include <algorithm>
#include <utility>
#include <vector>

#include <sys/mman.h>
#include <sys/types.h>

namespace {

using Mapping = std::pair<void*, std::size_t>;

std::vector<Mapping>& mappings() {
  static std::vector<Mapping> list;
  return list;
}

}  // namespace

extern "C" {

void* __real_mmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset);
int __real_munmap(void* address, std::size_t length);

void* __wrap_mmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset);
int __wrap_munmap(void* address, std::size_t length);

void* __wrap_mmap(void* address, std::size_t length, int protection, int flags, int fd, off_t offset) {
  void* const mapped = __real_mmap(address, length, protection, flags, fd, offset);
  if (mapped != MAP_FAILED && fd >= 0) mappings().emplace_back(mapped, length);
  return mapped;
}

int __wrap_munmap(void* address, std::size_t length) {
  std::vector<Mapping>& list = mappings();
  list.erase(std::remove(list.begin(), list.end(), Mapping(address, length)), list.end());
  return __real_munmap(address, length);
}

}  // extern "C"

namespace zel::fuzz {

void releaseMappings() {
  for (const auto& [address, length] : mappings())
    (void)__real_munmap(address, length);
  mappings().clear();
}

}  // namespace zel::fuzz
