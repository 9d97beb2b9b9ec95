#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "hf/hf_importer.h"
#include "okv2/prepare/sentencepiece_model.h"
#include "promises/promises.h"

namespace zel::fuzz {
namespace {

using tool::prepare::AddedToken;
using tool::prepare::Changes;
using tool::prepare::Refused;
using tool::prepare::Tokenizer;

struct Outcome {
  bool refused = false;
  int exitCode = 0;
  std::string finding, message;
  Tokenizer tokenizer;
  std::size_t changes = 0;
};

Outcome prepareModel(std::string_view input, const std::vector<AddedToken>& added) {
  Outcome out;
  Changes changes;
  try {
    out.tokenizer = tool::prepare::mendTokenizerModel(input, added, changes);
  } catch (const Refused& refused) {
    out.refused = true;
    out.exitCode = refused.exitCode();
    out.finding = refused.finding();
    out.message = refused.what();
    promise(!refused.remedy().empty(), "a refusal has a remedy");
  }
  out.changes = changes.size();
  return out;
}

void promiseKnownRefusal(const Outcome& outcome) {
  struct Known {
    int exitCode;
    std::string_view finding, message;
  };
  static constexpr std::array<Known, 2> kKnown = {
      {{3, "tokenizer.model-tiktoken", "tokenizer.model: it is a list of base64 tokens and ranks"},
       {7, "tokenizer.model-refused", "tokenizer.model: it is no SentencePiece model"}}};
  for (const Known& known : kKnown) {
    if (outcome.exitCode == known.exitCode && outcome.finding == known.finding &&
        outcome.message == known.message)
      return;
  }
  breakPromise("a refusal is a known one: " + std::to_string(outcome.exitCode) + " " + outcome.message);
}

// ---- a plain reader of the one fact that is compared: the records of top-level field 1

bool takeLooseVarint(std::string_view& in, std::uint64_t& out) {
  out = 0;
  for (unsigned shift = 0; shift < 70; shift += 7) {
    if (in.empty()) return false;
    const auto byte = static_cast<unsigned char>(in[0]);
    in.remove_prefix(1);
    out |= std::uint64_t(byte & 0x7FU) << shift;
    if ((byte & 0x80U) == 0) return true;
  }
  return false;
}

std::size_t countPieces(std::string_view in) {
  std::size_t pieces = 0;
  std::uint64_t key = 0, value = 0;
  while (!in.empty() && takeLooseVarint(in, key)) {
    std::size_t length = 0;
    switch (key & 7) {
      case 0: (void)takeLooseVarint(in, value); break;
      case 1: length = 8; break;
      case 2:
        if (!takeLooseVarint(in, value)) return pieces;
        length = value;
        pieces += (key >> 3) == 1;
        break;
      case 5: length = 4; break;
      default: return pieces;
    }
    if (length > in.size()) return pieces;
    in.remove_prefix(length);
  }
  return pieces;
}

void promiseReadable(const Outcome& outcome, std::string_view input, std::size_t pieces) {
  const Tokenizer& tokenizer = outcome.tokenizer;
  TokenizerData data;
  promise(readTokenizerModel(tokenizer.bytes, json::Value(), data).ok(), "what was encoded can be read");
  promise(std::int64_t(data.tokens.size()) == tokenizer.size, "an import reads as many tokens as there are");
  promise(data.scores.size() == data.tokens.size() && data.types.size() == data.tokens.size(),
          "every token has a score and a type");
  if (tokenizer.isKept) {
    promise(tokenizer.bytes == input && outcome.changes == 0, "a model that stays is not touched");
    return;
  }
  promise(outcome.changes > 0, "a model that was encoded anew is reported");
  promise(data.tokens.size() >= pieces, "no piece is lost");
  for (const std::int64_t id : {data.bosId, data.eosId, data.unkId, data.padId})
    promise(id >= -1 && id < std::int64_t(pieces),
            "a special id is one of the model's pieces, or there is none");
}

}  // namespace

void checkSentencePiece(std::string_view input) {
  const std::size_t pieces = countPieces(input);
  const Outcome plain = prepareModel(input, {});
  const Outcome again = prepareModel(input, {});
  promise(plain.refused == again.refused && plain.message == again.message &&
              plain.tokenizer.bytes == again.tokenizer.bytes,
          "equal inputs give equal bytes");
  if (plain.refused) return promiseKnownRefusal(plain);
  promiseReadable(plain, input, pieces);
  promise(plain.tokenizer.isKept || std::size_t(plain.tokenizer.size) == pieces,
          "there are as many tokens as pieces");
  // Tokens beyond the model: one at its end, one with a gap before it.
  const auto end = std::int64_t(pieces);
  const Outcome joined = prepareModel(input, {{end, "\x01one", true}, {end + 3, "\x01two", false}});
  promise(!joined.refused, "tokens behind a model join it");
  promiseReadable(joined, input, pieces);
}

}  // namespace zel::fuzz
