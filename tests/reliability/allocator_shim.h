// The allocator of the executable that links allocator_shim.cpp: malloc and its relatives, and operator new,
// for the whole process and so for the loaded module too. While armed it can fail, and it remembers every
// block that it handed out. For executables with one thread.
//
// The sanitizers bring a malloc of their own, so in their builds only operator new is replaced.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zel::test {

enum class AllocationKind {
  None,
  Throwing,  // operator new
  Nothrow,   // operator new (std::nothrow), whose callers live without the memory
  C,         // malloc and its relatives, as called inside the C library
};

struct AllocationReport {
  std::uint64_t count = 0;      // allocations that were asked for
  std::uint64_t peakBytes = 0;  // the most that was allocated at one time, of what this report counts
  bool failedAny = false;
  AllocationKind decisive = AllocationKind::None;  // the first failed one that was not Nothrow
};

struct LiveBlock {
  void* address;
  std::size_t size;
};

// Lets the n-th allocation from now on fail, n counted from 1, and with `fromThereOn` all that follow.
// 0 fails nothing.
void armAllocator(std::uint64_t n, bool fromThereOn);
AllocationReport disarmAllocator();
// What was allocated while armed and has not been freed; forgets it.
std::vector<LiveBlock> takeLiveBlocks();

}  // namespace zel::test
