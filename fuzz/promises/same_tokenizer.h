#pragma once

#include <bit>
#include <cstdint>

#include "container/tokenizer_data.h"
#include "promises/promise.h"

namespace zel::fuzz {

// Every field equal; scores are compared bit by bit.
inline void promiseSame(const TokenizerData& actual, const TokenizerData& expected) {
  promise(actual.tokens == expected.tokens, "tokens are the reference's");
  promise(actual.types == expected.types, "types are the reference's");
  promise(actual.merges == expected.merges, "merges are the reference's");
  promise(actual.bosId == expected.bosId && actual.eosId == expected.eosId &&
              actual.unkId == expected.unkId && actual.padId == expected.padId,
          "special ids are the reference's");
  promise(actual.addBos == expected.addBos, "the add-BOS flag is the reference's");
  promise(actual.chatTemplate == expected.chatTemplate, "the chat template is the reference's");
  promise(
      std::equal(actual.scores.begin(), actual.scores.end(), expected.scores.begin(), expected.scores.end(),
                 [](float a, float b) {
                   return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
                 }),
      "scores are the reference's");
}

}  // namespace zel::fuzz
