// tokenizer.model: a message in the protocol-buffers wire format
// (https://protobuf.dev/programming-guides/encoding), walked by hand for the few fields that are taken.
#include <bit>
#include <utility>

#include "container/bytes.h"
#include "hf/hf_importer.h"
#include "hf/read_file.h"

namespace zel {
namespace {

enum WireType : unsigned { kVarint = 0, kFixed64 = 1, kLengthDelimited = 2, kFixed32 = 5 };

// The layout that is read, top level and inside: these numbers are this reader's own on purpose and stay as
// they are, even where other producers number their fields differently.
constexpr std::uint64_t kSettingsField = 1;
constexpr std::uint64_t kPieceField = 3;
constexpr std::uint64_t kPieceTextField = 1;
constexpr std::uint64_t kPieceScoreField = 2;
constexpr std::uint64_t kPieceTypeField = 3;

struct SpecialIdField {
  std::uint64_t field;
  std::int32_t TokenizerData::*id;
};
constexpr SpecialIdField kSpecialIdFields[] = {
    {5, &TokenizerData::bosId},
    {6, &TokenizerData::eosId},
    {7, &TokenizerData::unkId},
    {8, &TokenizerData::padId},
};

struct Key {
  std::uint64_t field = 0;
  unsigned wireType = 0;

  [[nodiscard]] bool is(std::uint64_t wantedField, WireType wantedType) const {
    return field == wantedField && wireType == wantedType;
  }
};

bool readVarint(ByteReader& in, std::uint64_t& out) {
  constexpr unsigned kMaxBytes = 10;
  out = 0;
  for (unsigned k = 0; k < kMaxBytes; ++k) {
    std::uint8_t byte;
    if (!in.readU8(byte)) return false;
    out |= std::uint64_t(byte & 0x7F) << (7 * k);
    if (byte < 0x80) return true;
  }
  return false;
}

bool readKey(ByteReader& in, Key& key) {
  std::uint64_t raw;
  if (!readVarint(in, raw)) return false;
  key = {raw >> 3, unsigned(raw & 7)};
  return true;
}

bool readMessage(ByteReader& in, std::string_view& bytes) {
  std::uint64_t length;
  return readVarint(in, length) && in.readBytes(length, bytes);
}

bool skipField(ByteReader& in, unsigned wireType) {
  std::uint64_t ignored;
  std::string_view bytes;
  switch (wireType) {
    case kVarint: return readVarint(in, ignored);
    case kFixed64: return in.skip(8);
    case kLengthDelimited: return readMessage(in, bytes);
    case kFixed32: return in.skip(4);
    default: return false;  // groups and undefined types
  }
}

bool readSettings(std::string_view bytes, TokenizerData& out) {
  ByteReader in(bytes);
  while (!in.atEnd()) {
    Key key;
    if (!readKey(in, key)) return false;
    std::int32_t TokenizerData::*slot = nullptr;
    for (const SpecialIdField& row : kSpecialIdFields) {
      if (key.is(row.field, kVarint)) slot = row.id;
    }
    if (slot == nullptr) {
      if (!skipField(in, key.wireType)) return false;
      continue;
    }
    std::uint64_t id = 0;  // what a key with nothing behind it gives
    if (!in.atEnd() && !readVarint(in, id)) return false;
    out.*slot = std::int32_t(id);
  }
  return true;
}

bool readPiece(std::string_view bytes, TokenizerData& out) {
  std::string_view text;
  std::uint32_t score = 0;  // the bits of 0.0
  std::uint64_t type = 1;   // normal
  ByteReader in(bytes);
  while (!in.atEnd()) {
    Key key;
    if (!readKey(in, key)) return false;
    bool ok;
    if (key.is(kPieceTextField, kLengthDelimited)) {
      ok = readMessage(in, text);
    } else if (key.is(kPieceScoreField, kFixed32)) {
      ok = in.readU32(score);
    } else if (key.is(kPieceTypeField, kVarint)) {
      ok = readVarint(in, type);
    } else {
      ok = skipField(in, key.wireType);
    }
    if (!ok) return false;
  }
  out.tokens.emplace_back(text);
  out.scores.push_back(std::bit_cast<float>(score));
  out.types.push_back(std::int32_t(type));
  return true;
}

bool readModel(std::string_view bytes, TokenizerData& out) {
  ByteReader in(bytes);
  while (!in.atEnd()) {
    Key key;
    if (!readKey(in, key) || key.field == 0) return false;
    std::string_view message;
    if (key.is(kSettingsField, kLengthDelimited)) {
      if (!readMessage(in, message) || !readSettings(message, out)) return false;
    } else if (key.is(kPieceField, kLengthDelimited)) {
      if (!readMessage(in, message) || !readPiece(message, out)) return false;
    } else if (!skipField(in, key.wireType)) {
      return false;
    }
  }
  return true;
}

}  // namespace

Status readTokenizerModel(std::string_view bytes, const json::Value& config, TokenizerData& out) {
  TokenizerData data;
  if (!readModel(bytes, data)) return corrupted("hf: bad tokenizer.model (proto parse)");
  if (const json::Value* chat = config.get("chat_template"); chat != nullptr) data.chatTemplate = chat->str();
  out = std::move(data);
  return {};
}

Status HfImporter::parseTokenizerModel(const std::string& path) {
  std::vector<std::uint8_t> bytes;
  if (!readFile(path, bytes)) return invalidFormat("hf: cannot read tokenizer.model");
  return readTokenizerModel({reinterpret_cast<const char*>(bytes.data()), bytes.size()}, config, tokenizer);
}

}  // namespace zel
