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
  constexpr int kCollapse = 25;  // MADV_COLLAPSE, which came with Linux 6.1 and is missing in older headers
  if (size < kLargePageBytes / 2) return;
  const auto begin = reinterpret_cast<std::uintptr_t>(data);
  const std::uintptr_t first = begin & ~pageMask();
  if (first % kLargePageBytes != 0) return adviseInside(data, size, MADV_HUGEPAGE);
  // A mapping of its own, or memory that was asked for on a large page. Of a mapping the allocator keeps the
  // first bytes, before the range: they would cost the first large page, and have been written already, so
  // that this page is begun as a small one.
  const std::uintptr_t last = (begin + size + pageMask()) & ~pageMask();
  (void)::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
  (void)::madvise(reinterpret_cast<void*>(first), kLargePageBytes, kCollapse);
#endif
}

std::size_t fillLargePages(std::size_t size) noexcept {
  constexpr std::size_t kAllocatorBytes = 64;
  if (size < kLargePageBytes / 2) return size;
  return (size + kAllocatorBytes + kLargePageBytes - 1) / kLargePageBytes * kLargePageBytes - kAllocatorBytes;
}

}  // namespace zel
