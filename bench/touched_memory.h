// Fresh memory that costs what it costs on a machine of one's own.
#pragma once

#include <cstddef>

#include <sys/mman.h>

namespace zel::bench {

// Uses and frees so much memory before a timed run. A virtual machine gives free pages back to its host
// within seconds, and the first use of such a page is many times slower than the work that is measured. A
// page fault each is still paid for by whoever is timed.
//
// By large pages, since what is given back are blocks of that size.
inline void touchMemory(std::size_t bytes) {
  constexpr std::size_t kPageBytes = 4096;
  void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return;
  (void)madvise(memory, bytes, MADV_HUGEPAGE);
  for (std::size_t offset = 0; offset < bytes; offset += kPageBytes)
    static_cast<volatile char*>(memory)[offset] = 1;
  (void)munmap(memory, bytes);
}

}  // namespace zel::bench
