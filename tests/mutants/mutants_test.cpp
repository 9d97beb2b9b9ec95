// One reader (OKV2_MUTANTS_TARGET) against all mutants of its seeds: no crash, and every promise kept.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "promises/promises.h"
#include "seeds.h"
#include "support/silent_stderr.h"
#include "support/test_conditions.h"

namespace zel::fuzz {

void PrintTo(const Seed& seed, std::ostream* os);
void PrintTo(const Seed& seed, std::ostream* os) { *os << seed.name; }

namespace {

constexpr std::string_view kTarget = OKV2_MUTANTS_TARGET;
constexpr std::size_t kMaxSeedBytes = 2048;

using Check = void (*)(std::string_view);

Check checkOfTarget() {
  if (kTarget == "json") return checkJson;
  if (kTarget == "safetensors") return checkSafetensors;
  if (kTarget == "pytorch") return checkPyTorch;
  if (kTarget == "pickle") return checkPickle;
  if (kTarget == "tokenizer_json") return checkTokenizerJson;
  if (kTarget == "tokenizer_model") return checkTokenizerModel;
  if (kTarget == "sentencepiece") return checkSentencePiece;
  if (kTarget == "container") return checkContainer;
  if (kTarget == "torch_zip") return checkTorchZip;
  if (kTarget == "torch_legacy") return checkTorchLegacy;
  throw std::logic_error("no such target");
}

std::vector<Seed> seedsOfTarget() {
  std::vector<Seed> seeds;
  for (SeedSet& set : allSeeds()) {
    if (set.target != kTarget) continue;
    std::copy_if(set.seeds.begin(), set.seeds.end(), std::back_inserter(seeds),
                 [](const Seed& seed) { return seed.mutants && seed.bytes.size() < kMaxSeedBytes; });
  }
  return seeds;
}

class Mutants : public testing::TestWithParam<Seed> {
 protected:
  // Empty when every promise is kept. In memory of its own size, so that the address sanitizer sees a read of
  // one byte too many.
  static std::string brokenBy(std::string_view input) {
    static const Check check = checkOfTarget();
    const std::unique_ptr<char[]> exact(new char[input.size()]);
    std::copy(input.begin(), input.end(), exact.get());
    try {
      check({exact.get(), input.size()});
      return "";
    } catch (const BrokenPromise& broken) {
      return broken.what();
    }
  }

  const test::SilentStderr silent_;  // damaged checkpoints are commented on, one line each
};

TEST_P(Mutants, EveryPrefixKeepsThePromises) {
  const std::string& seed = GetParam().bytes;
  for (std::size_t size = 0; size <= seed.size(); ++size) {
    ASSERT_EQ(brokenBy(std::string_view(seed).substr(0, size)), "") << "the first " << size << " bytes";
  }
}

TEST_P(Mutants, EveryChangeOfOneByteKeepsThePromises) {
  // Under sanitizers every change costs twenty times as much: each place then gets a sixteenth of the values.
  const auto stride = std::size_t(test::kSanitized ? test::rounds(16, 1) : 1);
  std::string mutant = GetParam().bytes;
  for (std::size_t at = 0; at < mutant.size(); ++at) {
    const char original = mutant[at];
    for (int value = 0; value < 256; ++value) {
      mutant[at] = char(value);
      if (mutant[at] == original || (std::size_t(value) + at) % stride != 0) continue;
      ASSERT_EQ(brokenBy(mutant), "") << "byte " << at << " set to " << value;
    }
    mutant[at] = original;
  }
}

INSTANTIATE_TEST_SUITE_P(OfSeeds, Mutants, testing::ValuesIn(seedsOfTarget()),
                         [](const testing::TestParamInfo<Seed>& seed) { return seed.param.name; });

}  // namespace
}  // namespace zel::fuzz
