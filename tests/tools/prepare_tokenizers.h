// What the tests of both tokenizer forms have in common.
#pragma once

#include <string>
#include <vector>

#include "hf/hf_importer.h"
#include "okv2/prepare/tokenizer.h"
#include "prepare_support.h"

namespace zel::tool::prepare {

struct Mended {
  Tokenizer tokenizer;
  std::vector<std::string> changes;
  TokenizerData data;  // as an import reads it
};

template <auto mend, auto read>
Mended mendWith(const std::string& bytes, const std::vector<AddedToken>& added) {
  Mended out;
  Changes changes;
  out.tokenizer = mend(bytes, added, changes);
  out.changes = linesOf(changes);
  const Status status = read(out.tokenizer.bytes, json::Value(), out.data);
  EXPECT_TRUE(status.ok()) << status.message() << "\n" << out.tokenizer.bytes;
  return out;
}

template <auto mend>
Refusal refusalOfMending(const std::string& bytes) {
  return refusalOf([&] {
    Changes changes;
    return mend(bytes, {}, changes);
  });
}

}  // namespace zel::tool::prepare
