// A second look at tokenizer.json and tokenizer.model: not what they give, but what is wrong with them,
// where.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zel::explain {

inline constexpr char kTokenizerJson[] = "tokenizer.json";

// Where a JSON text goes wrong.
struct JsonFault {
  std::string message;  // empty when the text is JSON
  std::uint64_t offset = 0;
  bool cutShort = false;  // the error is that the text ends
};

[[nodiscard]] JsonFault jsonFaultOf(std::string_view text);

// A value in a JSON text.
struct Place {
  std::string path;  // "$.model.merges[3]"
  std::uint64_t offset = 0;
  std::string value;  // its text, cut when long
  std::string kind;   // "an array"
};

struct TokenizerJsonWalk {
  JsonFault fault;
  std::optional<Place> model, vocab, merges, addedTokens;
  bool modelIsObject = false, vocabIsObject = false, mergesIsArray = false, addedTokensIsArray = false;
  std::string modelType;
  std::string unkToken;  // of the model
  std::optional<Place> badId, badMerge;
  std::string idFault;  // "id 3 is missing" or "id 3 is given twice"; empty when ids are 0, 1, 2, ...
  std::vector<std::int64_t> addedIds;
  std::vector<std::string> addedTexts;
  std::string ignoredParts;  // "normalizer, decoder"
};

[[nodiscard]] TokenizerJsonWalk walkTokenizerJson(std::string_view text);

// True when the message holds piece records under the usual number, top-level field 1: text, score and type
// in fields 1, 2 and 3. `pieces` gets their number.
[[nodiscard]] bool hasUsualFieldNumbers(std::string_view message, std::uint64_t& pieces);

// A first line of base64, a space and a rank. The space may be missing where the base64 ends in "=".
[[nodiscard]] bool isTiktoken(std::string_view text);

}  // namespace zel::explain
