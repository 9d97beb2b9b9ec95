#include "allocator_shim.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>

#include "support/test_conditions.h"

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

namespace zel::test {
namespace {

constexpr std::size_t kMaxLive = 1 << 16;

bool armed = false;
bool fromThereOnward = false;
std::uint64_t failAt = 0;
AllocationReport report;
#if !OKV2_SANITIZED
AllocationKind caller = AllocationKind::C;  // who is asking malloc
#endif
LiveBlock live[kMaxLive];
std::size_t liveCount = 0;
std::uint64_t liveBytes = 0;

// False when the allocation has to fail.
bool admit(AllocationKind kind) {
  if (!armed) return true;
  ++report.count;
  const bool fails = failAt != 0 && (report.count == failAt || (fromThereOnward && report.count > failAt));
  if (!fails) return true;
  report.failedAny = true;
  if (report.decisive == AllocationKind::None && kind != AllocationKind::Nothrow) report.decisive = kind;
  errno = ENOMEM;
  return false;
}

void* remember(void* block, std::size_t size) {
  if (armed && block != nullptr) {
    if (liveCount == kMaxLive) std::abort();
    live[liveCount++] = {block, size};
    liveBytes += size;
    report.peakBytes = std::max(report.peakBytes, liveBytes);
  }
  return block;
}

void forget(const void* block) {
  for (std::size_t k = liveCount; k-- > 0;) {  // the youngest die first
    if (live[k].address != block) continue;
    liveBytes -= live[k].size;
    live[k] = live[--liveCount];
    return;
  }
}

void* allocateFor(AllocationKind kind, std::size_t size) {
#if OKV2_SANITIZED
  return admit(kind) ? remember(std::malloc(size), size) : nullptr;
#else
  caller = kind;
  void* const block = std::malloc(size);
  caller = AllocationKind::C;
  return block;
#endif
}

void release(void* block) {
#if OKV2_SANITIZED
  forget(block);
#endif
  std::free(block);
}

}  // namespace

void armAllocator(std::uint64_t n, bool fromThereOn) {
  failAt = n;
  fromThereOnward = fromThereOn;
  report = {};
  armed = true;
}

AllocationReport disarmAllocator() {
  armed = false;
  return report;
}

std::vector<LiveBlock> takeLiveBlocks() {
  std::vector<LiveBlock> blocks(live, live + liveCount);
  liveCount = 0;
  liveBytes = 0;
  return blocks;
}

}  // namespace zel::test

using zel::test::AllocationKind;

void* operator new(std::size_t size) {
  void* const block = zel::test::allocateFor(AllocationKind::Throwing, size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return zel::test::allocateFor(AllocationKind::Nothrow, size);
}
void operator delete(void* block) noexcept { zel::test::release(block); }
void operator delete(void* block, std::size_t) noexcept { zel::test::release(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { zel::test::release(block); }

#if !OKV2_SANITIZED
extern "C" {

void* malloc(std::size_t size) noexcept {
  using namespace zel::test;
  return admit(caller) ? remember(__libc_malloc(size), size) : nullptr;
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  using namespace zel::test;
  return admit(AllocationKind::C) ? remember(__libc_calloc(count, size), count * size) : nullptr;
}
void* realloc(void* block, std::size_t size) noexcept {
  using namespace zel::test;
  if (!admit(AllocationKind::C)) return nullptr;
  forget(block);
  return remember(__libc_realloc(block, size), size);
}
void* memalign(std::size_t alignment, std::size_t size) noexcept {
  using namespace zel::test;
  return admit(AllocationKind::C) ? remember(__libc_memalign(alignment, size), size) : nullptr;
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept { return memalign(alignment, size); }
int posix_memalign(void** out, std::size_t alignment, std::size_t size) noexcept {
  void* const block = memalign(alignment, size);
  if (block == nullptr) return ENOMEM;
  *out = block;
  return 0;
}
void free(void* block) noexcept {
  zel::test::forget(block);
  __libc_free(block);
}

}  // extern "C"
#endif
