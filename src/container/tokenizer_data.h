// The tokenizer as both readers fill it and the container stores it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zel {

// Default-constructed: the empty tokenizer. An id of -1 means that there is no such token.
struct TokenizerData {
  std::vector<std::string> tokens;  // token texts, index = token id
  std::vector<float> scores;        // one per score read; not tied to the number of tokens
  std::vector<std::int32_t> types;  // per token id: 1 normal, 3 special (control)
  std::vector<std::string> merges;  // BPE rules, each the two parts separated by one space
  std::int32_t bosId = -1;
  std::int32_t eosId = -1;
  std::int32_t unkId = -1;
  std::int32_t padId = -1;
  bool addBos = true;  // whether a beginning-of-sequence token is to be prepended
  std::string chatTemplate;
};

}  // namespace zel
