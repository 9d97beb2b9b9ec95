#include "okv2/prepare/sentencepiece_model.h"

#include <fmt/format.h>

#include <bit>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "hf/hf_importer.h"
#include "okv2/exit_codes.h"
#include "okv2/explain/finding_table.h"
#include "okv2/explain/tokenizer_walk.h"
#include "sentencepiece_model.pb.h"

namespace zel::tool::prepare {
namespace {

using explain::Id;
using Piece = sentencepiece::ModelProto::SentencePiece;

constexpr char kModelFile[] = "tokenizer.model";

[[noreturn]] void refuseModel(int code, Id id, const std::string& what, const char* remedy) {
  throw Refused(code, explain::rowOf(id).name, fmt::format("{}: {}", kModelFile, what), remedy);
}

// ---- the numbering that an import reads

constexpr std::uint64_t kSettings = 1, kPiece = 3;
constexpr std::uint64_t kPieceText = 1, kPieceScore = 2, kPieceType = 3;
constexpr std::uint64_t kBos = 5, kEos = 6, kUnk = 7, kPad = 8;

void putVarint(std::uint64_t value, std::string& out) {
  for (; value >= 0x80; value >>= 7)
    out += static_cast<char>(0x80 | (value & 0x7F));
  out += static_cast<char>(value);
}

void putNumber(std::uint64_t field, std::uint64_t value, std::string& out) {
  putVarint(field << 3, out);
  putVarint(value, out);
}

void putBytes(std::uint64_t field, std::string_view bytes, std::string& out) {
  putVarint(field << 3 | 2, out);
  putVarint(bytes.size(), out);
  out += bytes;
}

void putScore(float score, std::string& out) {
  putVarint(kPieceScore << 3 | 5, out);
  const auto bits = std::bit_cast<std::uint32_t>(score);
  for (unsigned k = 0; k < 4; ++k)
    out += static_cast<char>(bits >> (8 * k) & 0xFF);
}

void putPiece(std::string_view text, float score, std::int32_t type, std::string& out) {
  std::string piece;
  putBytes(kPieceText, text, piece);
  putScore(score, piece);
  putNumber(kPieceType, static_cast<std::uint64_t>(type), piece);
  putBytes(kPiece, piece, out);
}

std::string settingsOf(const SpecialIds& ids) {
  std::string settings;
  for (const auto& [field, id] :
       {std::pair(kBos, ids.bos), {kEos, ids.eos}, {kUnk, ids.unk}, {kPad, ids.pad}}) {
    if (id >= 0) putNumber(field, static_cast<std::uint64_t>(id), settings);
  }
  return settings;
}

// ---- the genuine model

// As the public library answers: the piece of that text, when it is of that type.
std::int64_t idOfPiece(const sentencepiece::ModelProto& model, const TokenIds& idOf, const std::string& text,
                       Piece::Type type) {
  const auto known = idOf.find(text);
  if (known == idOf.end() || known->second >= model.pieces_size()) return -1;
  return model.pieces(static_cast<int>(known->second)).type() == type ? known->second : -1;
}

// The tokens of tokenizer_config.json are not named here: the file is in the prepared directory, where an
// import's explanation compares them with the vocabulary.
void loseToAnotherPiece(const AddedToken& token, const std::string& piece, Tokenizer& out) {
  if (token.text.empty() || std::string_view(token.source) == "tokenizer_config.json") return;
  out.losses.push_back(
      {Id::TokenizerAddedElsewhere, fmt::format("{}[\"{}\"]", token.source, token.text),
       fmt::format("{}: \"{}\" has id {}, which is \"{}\"", token.source, token.text, token.id, piece)});
}

Tokenizer encodeAnew(const sentencepiece::ModelProto& model, const std::vector<AddedToken>& added,
                     Changes& changes) {
  changes.push_back({kModelFile, "the numbering of its fields", "pieces in field 1, settings in field 2",
                     "pieces in field 3, special ids in field 1",
                     fmt::format("the {} pieces are read from there", model.pieces_size()),
                     explain::rowOf(Id::TokenizerModelFieldNumbers).name});
  std::vector<Token> published;
  published.reserve(static_cast<std::size_t>(model.pieces_size()));
  for (const Piece& piece : model.pieces())
    published.push_back({static_cast<std::int64_t>(published.size()), piece.piece()});
  Tokenizer out;
  // Wrappers around a model may number its pieces in another way; only what lies behind them is sure.
  std::vector<AddedToken> beyond;
  std::set<std::string_view> lost;
  for (const AddedToken& token : added) {
    if (!token.hasId || token.id >= model.pieces_size()) {
      // What is known by its text only gets no second place when another piece has its own.
      if (token.hasId || lost.count(token.text) == 0) beyond.push_back(token);
    } else if (const std::string& piece = model.pieces(static_cast<int>(token.id)).piece();
               piece != token.text) {
      loseToAnotherPiece(token, piece, out);
      lost.insert(token.text);
    }
  }
  const JoinedVocabulary joined = joinVocabulary(
      published, beyond, {kModelFile, "pieces", explain::rowOf(Id::TokenizerAddedOutside).name}, changes);

  out.file = kModelFile;
  out.idOf = joined.idOf;
  out.size = joined.size;
  const sentencepiece::TrainerSpec& trainer = model.trainer_spec();
  out.ids.bos = idOfPiece(model, out.idOf, trainer.bos_piece(), Piece::CONTROL);
  out.ids.eos = idOfPiece(model, out.idOf, trainer.eos_piece(), Piece::CONTROL);
  out.ids.unk = idOfPiece(model, out.idOf, trainer.unk_piece(), Piece::UNKNOWN);
  out.ids.pad = idOfPiece(model, out.idOf, trainer.pad_piece(), Piece::CONTROL);
  out.modelUnk = out.ids.unk;
  putBytes(kSettings, settingsOf(out.ids), out.bytes);
  for (const Piece& piece : model.pieces())
    putPiece(piece.piece(), piece.score(), piece.type(), out.bytes);

  // What follows the pieces, in the order of the ids.
  std::vector<std::pair<std::string, std::int32_t>> rest(
      static_cast<std::size_t>(joined.size - model.pieces_size()));
  const auto place = [&](const Token& token, std::int32_t type) {
    rest[static_cast<std::size_t>(token.id - model.pieces_size())] = {token.text, type};
  };
  std::map<std::string, bool> isSpecial;
  for (const AddedToken& token : beyond)
    isSpecial.emplace(token.text, token.special);
  for (const Token& token : joined.joined)
    place(token, isSpecial.at(token.text) ? Piece::CONTROL : Piece::USER_DEFINED);
  for (const Token& token : joined.fillers)
    place(token, Piece::UNUSED);
  for (const auto& [text, type] : rest)
    putPiece(text, 0, type, out.bytes);
  return out;
}

// The file as an import takes it; the tokens are its result. False when it cannot be walked.
bool readAsImported(std::string_view bytes, TokenizerData& data) {
  return readTokenizerModel(bytes, json::Value(), data).ok();
}

Tokenizer keep(std::string_view bytes, const TokenizerData& data, const std::vector<AddedToken>& added) {
  Tokenizer out;
  out.file = kModelFile;
  out.bytes = bytes;
  out.isKept = true;
  for (std::size_t k = 0; k < data.tokens.size(); ++k)
    out.idOf.emplace(data.tokens[k], static_cast<std::int64_t>(k));
  out.size = static_cast<std::int64_t>(data.tokens.size());
  out.ids = {data.bosId, data.eosId, data.unkId, data.padId};
  for (const AddedToken& token : added) {
    const bool isInside = token.hasId && token.id < out.size;
    if (isInside && data.tokens[static_cast<std::size_t>(token.id)] != token.text) {
      loseToAnotherPiece(token, data.tokens[static_cast<std::size_t>(token.id)], out);
    } else if (!isInside && !token.text.empty() && out.idOf.count(token.text) == 0) {
      out.losses.push_back(
          {Id::TokenizerAddedOutside, fmt::format("{}[\"{}\"]", token.source, token.text),
           fmt::format("{}: the {} pieces of {} stay as they are", token.source, out.size, kModelFile)});
    }
  }
  return out;
}

}  // namespace

void appendSpecialIds(const SpecialIds& ids, std::string& bytes) {
  putBytes(kSettings, settingsOf(ids), bytes);
}

Tokenizer mendTokenizerModel(std::string_view bytes, const std::vector<AddedToken>& added, Changes& changes) {
  if (bytes.size() > kMaxModelBytes) {
    refuseModel(
        kExitUnsupported, Id::TokenizerModelRefused,
        fmt::format("{} bytes are more than the {} of any SentencePiece model", bytes.size(), kMaxModelBytes),
        "Put the model's own tokenizer.model or tokenizer.json there.");
  }
  std::uint64_t pieces = 0;
  if (explain::hasUsualFieldNumbers(bytes, pieces)) {
    sentencepiece::ModelProto model;
    if (model.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
      return encodeAnew(model, added, changes);
    }
  } else if (TokenizerData data; readAsImported(bytes, data) && !data.tokens.empty()) {
    return keep(bytes, data, added);
  }
  if (explain::isTiktoken(bytes)) {
    refuseModel(kExitUnsupported, Id::TokenizerModelTiktoken, "it is a list of base64 tokens and ranks",
                "Put a tokenizer.json there, or the SentencePiece model of that name.");
  }
  refuseModel(kExitCorrupted, Id::TokenizerModelRefused, "it is no SentencePiece model",
              "Fetch tokenizer.model again, or put a tokenizer.json there.");
}

}  // namespace zel::tool::prepare
