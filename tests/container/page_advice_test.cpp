// Room on large pages: how much is asked for, and that what is put there stays.
#include "container/page_advice.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <malloc.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include "support/test_conditions.h"

namespace zel {
namespace {

constexpr std::size_t kMiB = 1 << 20;

TEST(FillLargePages, LeavesWhatIsShorterThanHalfALargePage) {
  EXPECT_EQ(fillLargePages(0), 0U);
  EXPECT_EQ(fillLargePages(1), 1U);
  EXPECT_EQ(fillLargePages(kMiB - 1), kMiB - 1);
}

TEST(FillLargePages, LeavesTheAllocatorSixtyFourBytes) {
  EXPECT_EQ(fillLargePages(kMiB), 2 * kMiB - 64);
  EXPECT_EQ(fillLargePages(2 * kMiB - 64), 2 * kMiB - 64);
  EXPECT_EQ(fillLargePages(2 * kMiB - 63), 4 * kMiB - 64);
  EXPECT_EQ(fillLargePages(4 * kMiB), 6 * kMiB - 64);
}

TEST(ReserveOnLargePages, HasRoomForAtLeastAsManyAsAskedFor) {
  for (const std::size_t count : {std::size_t{1}, kMiB / 24, kMiB / 24 + 1, 2 * kMiB / 24, kMiB}) {
    struct Element {
      char bytes[24];
    };
    std::vector<Element> elements;
    reserveOnLargePages(elements, count);
    EXPECT_GE(elements.capacity(), count);
    EXPECT_LE(elements.capacity() * sizeof(Element), count * sizeof(Element) + 2 * kMiB);
  }
}

TEST(ReserveOnLargePages, TakesNothingForWhatThereIsRoomFor) {
  std::vector<char> bytes;
  bytes.reserve(3 * kMiB);
  const char* const before = bytes.data();
  reserveOnLargePages(bytes, 3 * kMiB);
  EXPECT_EQ(bytes.data(), before);
  EXPECT_EQ(bytes.capacity(), 3 * kMiB);
}

TEST(ReserveOnLargePages, KeepsTheElementsThatAreThere) {
  std::vector<std::string> texts;
  for (int k = 0; k < 1000; ++k)
    texts.push_back("a text that is too long for its object " + std::to_string(k));
  reserveOnLargePages(texts, 8 * kMiB / sizeof(std::string));
  ASSERT_EQ(texts.size(), 1000U);
  for (int k = 0; k < 1000; ++k)
    EXPECT_EQ(texts[std::size_t(k)], "a text that is too long for its object " + std::to_string(k));
}

TEST(ReserveOnLargePages, RefusesWhatNoVectorCanHoldAsAnyReserve) {
  std::vector<std::string> texts;
  EXPECT_THROW(reserveOnLargePages(texts, texts.max_size() + 1), std::length_error);
  EXPECT_THROW(reserveOnLargePages(texts, std::numeric_limits<std::size_t>::max()), std::length_error);
}

template <class Work>
long pageFaultsOf(const Work& work) {
  rusage before{};
  rusage after{};
  getrusage(RUSAGE_SELF, &before);
  work();
  getrusage(RUSAGE_SELF, &after);
  return after.ru_minflt - before.ru_minflt;
}

constexpr long kSmallPagesInALargeOne = 512;

// Whether four large pages are to be had for the asking.
bool givesLargePages() {
  constexpr std::size_t kSize = 10 * kMiB;
  void* const memory = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return false;
  (void)madvise(memory, kSize, MADV_HUGEPAGE);
  const std::size_t offset = -reinterpret_cast<std::size_t>(memory) % (2 * kMiB);
  const long faults = pageFaultsOf([&] { std::memset(static_cast<char*>(memory) + offset, 'x', 8 * kMiB); });
  (void)munmap(memory, kSize);
  return faults < kSmallPagesInALargeOne;
}

// The first one too, in which the allocator has written before the advice comes.
TEST(ReserveOnLargePages, FillsNoLargePageBySmallOnes) {
  if (test::kSanitized) GTEST_SKIP() << "a sanitizer's allocator puts memory elsewhere";
  if (!givesLargePages()) GTEST_SKIP() << "this system gives out no large pages";
  // As in a fresh process, where a long vector has a mapping of its own.
  malloc_trim(0);
  mallopt(M_MMAP_THRESHOLD, int(kMiB));
  std::vector<char> bytes;
  reserveOnLargePages(bytes, 7 * kMiB);
  if (reinterpret_cast<std::size_t>(bytes.data()) % (2 * kMiB) >= 4096) {
    GTEST_SKIP() << "this system does not put memory of whole large pages where they can lie";
  }
  EXPECT_LT(pageFaultsOf([&] { bytes.resize(bytes.capacity(), 'x'); }), kSmallPagesInALargeOne);
}

using Bytes = std::vector<char, LargePageAllocator<char>>;

TEST(LargePageAllocator, BeginsOnALargePageFromHalfOfOneOn) {
  for (const std::size_t size : {kMiB, kMiB + 1, 2 * kMiB, 5 * kMiB}) {
    std::vector<Bytes> several;  // one might lie there by chance
    for (int k = 0; k < 4; ++k) {
      several.emplace_back(size, 'x');
      EXPECT_EQ(reinterpret_cast<std::size_t>(several.back().data()) % (2 * kMiB), 0U) << size;
    }
  }
  std::vector<Bytes> several;
  for (int k = 0; k < 4; ++k)
    several.emplace_back(kMiB - 1, 'x');
  EXPECT_NE(reinterpret_cast<std::size_t>(several[0].data()) % (2 * kMiB) +
                reinterpret_cast<std::size_t>(several[1].data()) % (2 * kMiB),
            0U);
}

TEST(LargePageAllocator, RefusesWhatNoAddressSpaceHolds) {
  LargePageAllocator<std::uint64_t> allocator;
  constexpr std::size_t kMost = std::numeric_limits<std::ptrdiff_t>::max() / sizeof(std::uint64_t);
  EXPECT_THROW((void)allocator.allocate(kMost + 1), std::bad_array_new_length);
  EXPECT_THROW((void)allocator.allocate(std::numeric_limits<std::size_t>::max() / sizeof(std::uint64_t) + 2),
               std::bad_array_new_length);
}

TEST(LargePageAllocator, KeepsTheElementsOfAVectorThatGrows) {
  std::vector<std::size_t, LargePageAllocator<std::size_t>> numbers;
  for (std::size_t k = 0; k < kMiB; ++k)
    numbers.push_back(k);
  for (std::size_t k = 0; k < kMiB; ++k)
    ASSERT_EQ(numbers[k], k);
}

// The other memory of a process leaves few places where whole large pages lie.
TEST(LargePageAllocator, FillsNoLargePageBySmallOnesWhereverTheAllocatorHasRoom) {
  if (test::kSanitized) GTEST_SKIP() << "a sanitizer's allocator puts memory elsewhere";
  if (!givesLargePages()) GTEST_SKIP() << "this system gives out no large pages";
  mallopt(M_MMAP_THRESHOLD, int(32 * kMiB));
  Bytes bytes;
  EXPECT_LT(pageFaultsOf([&] { bytes.resize(3 * kMiB / 2, 'x'); }), kSmallPagesInALargeOne / 2);
  mallopt(M_MMAP_THRESHOLD, int(kMiB));
}

}  // namespace
}  // namespace zel
