#include "container/page_advice.h"

#include <cstdint>

#include <sys/mman.h>
#include <unistd.h>

namespace zel {
namespace {

std::uintptr_t pageMask() noexcept {
  static const std::uintptr_t mask = std::uintptr_t(::sysconf(_SC_PAGESIZE)) - 1;
  return mask;
}

// About the pages that lie wholly inside the range.
void adviseInside(const void* data, std::size_t size, int advice) noexcept {
  const auto begin = reinterpret_cast<std::uintptr_t>(data);
  const std::uintptr_t first = (begin + pageMask()) & ~pageMask();
  const std::uintptr_t last = (begin + size) & ~pageMask();
  if (first < last) (void)::madvise(reinterpret_cast<void*>(first), last - first, advice);
}

}  // namespace

void populatePages([[maybe_unused]] const void* data, [[maybe_unused]] std::size_t size) noexcept {
#ifdef MADV_POPULATE_READ
  const auto begin = reinterpret_cast<std::uintptr_t>(data);
  const std::uintptr_t first = begin & ~pageMask();
  (void)::madvise(reinterpret_cast<void*>(first), begin + size - first, MADV_POPULATE_READ);
#endif
}

void releasePages(const void* data, std::size_t size) noexcept { adviseInside(data, size, MADV_DONTNEED); }

void preferLargePages([[maybe_unused]] const void* data, [[maybe_unused]] std::size_t size) noexcept {
#ifdef MADV_HUGEPAGE
  constexpr std::size_t kLargePageBytes = 2 << 20;  // the smallest of the common processors
  if (size >= kLargePageBytes) adviseInside(data, size, MADV_HUGEPAGE);
#endif
}

}  // namespace zel
