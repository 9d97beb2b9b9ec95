// The tokenizer of a sample model.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "okv2/sample/sample.h"

namespace zel::sample {

struct Specials {
  std::vector<std::string> texts;  // token id = position
  int bos = -1, eos = -1, unk = -1, pad = -1;
};

[[nodiscard]] const Specials& specialsOf(Arch arch);

// A byte-pair vocabulary: special tokens first, then single characters, then words of growing length, each
// made by merging two shorter tokens.
struct Vocabulary {
  std::vector<std::string> tokens;
  std::vector<std::string> merges;  // "left right"
};

// Merge rules that a vocabulary of `vocab` tokens can have at most: every split of a word is one.
[[nodiscard]] std::uint64_t greatestMergeCount(Arch arch, std::uint64_t vocab);

// `merges` may be Options::kAllMerges: one for each word.
[[nodiscard]] Vocabulary makeVocabulary(Arch arch, std::uint64_t vocab, std::uint64_t merges);

// The text of tokenizer.json, with merges as strings.
[[nodiscard]] std::string tokenizerJsonText(Arch arch, const Vocabulary& vocabulary);

// The bytes of tokenizer.model, a protocol-buffers message in the field layout of docs/tokenizer-model.md.
[[nodiscard]] std::string tokenizerModelBytes(Arch arch, const Vocabulary& vocabulary);

}  // namespace zel::sample
