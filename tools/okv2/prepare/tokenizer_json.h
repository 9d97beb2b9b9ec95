// tokenizer.json: brought to the forms that an import reads (src/hf/tokenizer_json.cpp).
#pragma once

#include <string_view>
#include <vector>

#include "okv2/prepare/outcome.h"
#include "okv2/prepare/tokenizer.h"

namespace zel::tool::prepare {

// `text` is the file as published, in the format that the public `tokenizers` library writes; `alsoAdded` are
// added tokens that other files know, each with its source: users of that library add them when they load the
// file. Those without an id are added only where the file does not know their text.
//   - merges that are pairs become texts of two parts with a space between them
//   - the list of a Unigram model becomes an object of ids, and its scores an array "scores" beside it
//   - added tokens join the vocabulary, gaps are filled (vocabulary.h)
// A file that needs nothing of that is given back byte for byte. Appends what it changed to `changes`.
// Throws Refused when the file is damaged, and when a merge cannot be said as one text.
[[nodiscard]] Tokenizer mendTokenizerJson(std::string_view text, const std::vector<AddedToken>& alsoAdded,
                                          Changes& changes);

}  // namespace zel::tool::prepare
