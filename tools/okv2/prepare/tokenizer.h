// What mending a tokenizer file gives, whichever file it is.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "okv2/explain/explanation.h"
#include "okv2/prepare/outcome.h"
#include "okv2/prepare/vocabulary.h"

namespace zel::tool::prepare {

struct SpecialIds {
  std::int64_t bos = -1, eos = -1, unk = -1, pad = -1;  // -1: there is none
};

struct Tokenizer {
  std::string file;     // "tokenizer.json" or "tokenizer.model"; empty when there is none
  std::string bytes;    // what shall be in it
  bool isKept = false;  // a tokenizer.model that was in the layout that is read already
  TokenIds idOf;
  std::int64_t size = 0;
  SpecialIds ids;                        // as an import takes them from this file alone
  std::int64_t modelUnk = -1;            // the unknown token that the file's own model names
  std::vector<explain::Finding> losses;  // added tokens for which there is no place
};

}  // namespace zel::tool::prepare
