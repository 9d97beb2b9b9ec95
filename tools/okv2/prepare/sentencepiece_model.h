// tokenizer.model: a genuine SentencePiece model, encoded anew in the numbering that an import reads.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "okv2/prepare/outcome.h"
#include "okv2/prepare/tokenizer.h"

namespace zel::tool::prepare {

// The library that reads the message builds an object a piece, up to forty times the piece's size in the
// file. The largest published models have 5 MB.
inline constexpr std::size_t kMaxModelBytes = std::size_t{16} << 20;

// `bytes` is the file as published. A genuine model (pieces in field 1, trainer settings in field 2, as in
// the public sentencepiece_model.proto) is encoded anew as src/hf/tokenizer_model.cpp reads it: every piece
// with its score and type, and the ids of the four special pieces as the public library finds them, by the
// pieces that the trainer settings name. A file that is in that layout already is given back byte for byte.
// `added` are added tokens, each with its source. Those that lie beyond the model join it (vocabulary.h) as
// user-defined or control pieces; one that has the id of another piece is among the losses, unless an
// import's explanation finds it itself, and so is one that a file in the layout that is read lacks. Appends
// what it changed to `changes`. Throws Refused when the file is neither, and when it is longer than
// kMaxModelBytes.
[[nodiscard]] Tokenizer mendTokenizerModel(std::string_view bytes, const std::vector<AddedToken>& added,
                                           Changes& changes);

// Adds settings to a model that mendTokenizerModel() encoded: the ids that are not -1. Settings may occur
// more than once, and the last value of each id counts.
void appendSpecialIds(const SpecialIds& ids, std::string& bytes);

}  // namespace zel::tool::prepare
