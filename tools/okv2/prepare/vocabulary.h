// A vocabulary as the container holds it: ids 0, 1, 2 and so on, each with one text.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "okv2/prepare/outcome.h"

namespace zel::tool::prepare {

struct Token {
  std::int64_t id = 0;
  std::string text;
};

// A token that is matched before the model runs. Public tokenizers keep these apart from the vocabulary.
struct AddedToken {
  std::int64_t id = 0;
  std::string text;
  bool special = false;
  const char* source = "";  // the file that adds it, unless it is the tokenizer's own
  bool hasId = true;        // else it is known by its text only, and `id` says nothing
};

// More added tokens than this are no vocabulary: the largest published ones have about as many tokens
// altogether. A file may add as many, too.
inline constexpr std::size_t kMaxAddedTokens = std::size_t{1} << 18;

// More ids without a token than this are no vocabulary that somebody forgot to fill: the largest published
// ones have about as many tokens altogether.
inline constexpr std::int64_t kMaxFilledIds = std::int64_t{1} << 18;
// The container holds ids as signed 32-bit integers.
inline constexpr std::int64_t kMaxTokenId = INT32_MAX;

// Trees, not hash tables: whoever writes the file could choose texts and ids that all fall into one bucket.
using TokenIds = std::map<std::string, std::int64_t, std::less<>>;

struct JoinedVocabulary {
  std::vector<Token> joined;           // added tokens that were in no place before
  std::vector<Token> fillers;          // reserved names for the ids that were left
  std::vector<std::int64_t> addedIds;  // of every added token, as given
  TokenIds idOf;                       // every token; the lowest id of equal texts
  std::int64_t size = 0;
};

// How a file's parts are called in what is reported.
struct VocabularyPlace {
  std::string_view file;
  std::string_view vocabulary;  // a JSON path, say
  std::string_view idFinding;   // ids that are missing or given twice
};

// Gives every added token a place in the vocabulary. One whose text is there already has the id that it has
// there; one whose id belongs to another text is put behind the last token, as the public `tokenizers`
// library does, and so is one that has no id of its own; all others keep their id. Ids that are left below
// the highest get a name that no token has. Appends what it did to `changes`. Throws Refused when two tokens
// of `vocabulary` have one id, or when there are more ids to fill than kMaxFilledIds, or more added tokens
// than kMaxAddedTokens. Ids of `vocabulary` are not negative.
[[nodiscard]] JoinedVocabulary joinVocabulary(const std::vector<Token>& vocabulary,
                                              const std::vector<AddedToken>& added,
                                              const VocabularyPlace& place, Changes& changes);

}  // namespace zel::tool::prepare
