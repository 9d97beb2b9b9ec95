// The entry points of one harness, for libFuzzer and for the plain main alike. The build names the target:
// OKV2_FUZZ_CHECK and OKV2_FUZZ_MUTATE.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include <unistd.h>

#include "targets.h"

extern "C" {
int LLVMFuzzerInitialize(int* argc, char*** argv);
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t capacity,
                                    unsigned seed);
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t capacity);
}

namespace {

int reportFd = STDERR_FILENO;

}  // namespace

// The readers may write to standard error, so that is closed while they run: reports go to a copy of it.
int LLVMFuzzerInitialize(int*, char***) {
  reportFd = ::dup(STDERR_FILENO);
  return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    zel::fuzz::OKV2_FUZZ_CHECK({reinterpret_cast<const char*>(data), size});
  } catch (const zel::fuzz::BrokenPromise& broken) {
    (void)dprintf(reportFd, "%s\n", broken.what());
    throw;  // nobody catches it: a crash, which the fuzzer keeps the input of
  }
  return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t capacity,
                                    unsigned seed) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string mutated = zel::fuzz::OKV2_FUZZ_MUTATE(input, seed, LLVMFuzzerMutate);
  if (mutated.empty() || mutated.size() > capacity) return LLVMFuzzerMutate(data, size, capacity);
  mutated.copy(reinterpret_cast<char*>(data), mutated.size());
  return mutated.size();
}
