// What the tokenizer tests share.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "container/tokenizer_data.h"
#include "hf/hf_importer.h"
#include "json_support.h"
#include "support/status_matchers.h"

namespace zel::test {

inline json::Value configFrom(std::string_view text) {
  json::Value config;
  EXPECT_THAT(parseJson(text, config), IsOk()) << text;
  return config;
}

inline Status tokenizerJson(std::string_view text, TokenizerData& out, std::string_view config = "{}") {
  const std::string exact(text);  // a sanitizer then sees every read beyond the end
  return readTokenizerJson(exact, configFrom(config), out);
}
inline Status tokenizerJson(std::string_view text) {
  TokenizerData ignored;
  return tokenizerJson(text, ignored);
}
inline TokenizerData goodTokenizerJson(std::string_view text, std::string_view config = "{}") {
  TokenizerData out;
  EXPECT_THAT(tokenizerJson(text, out, config), IsOk()) << text;
  return out;
}

// Every field as text, so that a difference shows where it is.
inline std::string describe(const TokenizerData& data) {
  std::string out = "tokens";
  for (const std::string& token : data.tokens)
    out += " " + std::to_string(token.size()) + ":" + token;
  out += "\nscores";
  for (const float score : data.scores) {
    char text[32];
    std::snprintf(text, sizeof text, " %a", double(score));
    out += text;
  }
  out += "\ntypes";
  for (const std::int32_t type : data.types)
    out += " " + std::to_string(type);
  out += "\nmerges";
  for (const std::string& merge : data.merges)
    out += " " + std::to_string(merge.size()) + ":" + merge;
  out += "\nids " + std::to_string(data.bosId) + " " + std::to_string(data.eosId) + " " +
         std::to_string(data.unkId) + " " + std::to_string(data.padId);
  return out + (data.addBos ? "\nadds bos" : "\nno bos") + "\ntemplate " + data.chatTemplate;
}

}  // namespace zel::test
