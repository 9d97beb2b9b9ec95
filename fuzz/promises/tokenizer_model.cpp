#include <bit>
#include <cstdint>
#include <string>
#include <string_view>

#include "hf/hf_importer.h"
#include "hf/json.h"
#include "promises/promises.h"
#include "promises/same_tokenizer.h"

namespace zel::fuzz {
namespace {

// ---- the plain reader: takes pieces off the front of a view; false is a violation of the wire format

bool takeVarint(std::string_view& in, std::uint64_t& out) {
  out = 0;
  for (unsigned group = 0;; ++group) {
    if (group == 10 || in.empty()) return false;
    const auto byte = static_cast<unsigned char>(in[0]);
    in.remove_prefix(1);
    out |= std::uint64_t(byte & 0x7FU) << (7 * group);
    if ((byte & 0x80U) == 0) return true;
  }
}

bool takeBytes(std::string_view& in, std::uint64_t count, std::string_view& out) {
  if (count > in.size()) return false;
  out = in.substr(0, count);
  in.remove_prefix(count);
  return true;
}

struct PlainField {
  std::uint64_t number = 0;
  unsigned wireType = 0;
  std::uint64_t varint = 0;  // of wire type 0
  std::string_view bytes;    // of all others
};

// The key is taken already.
bool takeContent(std::string_view& in, PlainField& field) {
  std::uint64_t length = 0;
  switch (field.wireType) {
    case 0: return takeVarint(in, field.varint);
    case 1: return takeBytes(in, 8, field.bytes);
    case 2: return takeVarint(in, length) && takeBytes(in, length, field.bytes);
    case 5: return takeBytes(in, 4, field.bytes);
    default: return false;
  }
}

bool takeKey(std::string_view& in, PlainField& field) {
  std::uint64_t key = 0;
  if (!takeVarint(in, key)) return false;
  field.number = key >> 3;
  field.wireType = unsigned(key & 7);
  return true;
}

bool readPlainSettings(std::string_view in, TokenizerData& out) {
  while (!in.empty()) {
    PlainField field;
    if (!takeKey(in, field)) return false;
    const bool isId = field.wireType == 0 && field.number >= 5 && field.number <= 8;
    // A key that ends the message stands for the value 0.
    if (!(isId && in.empty()) && !takeContent(in, field)) return false;
    const auto id = std::int32_t(std::uint32_t(field.varint));
    if (isId && field.number == 5) out.bosId = id;
    if (isId && field.number == 6) out.eosId = id;
    if (isId && field.number == 7) out.unkId = id;
    if (isId && field.number == 8) out.padId = id;
  }
  return true;
}

bool readPlainPiece(std::string_view in, TokenizerData& out) {
  std::string text;
  std::uint32_t score = 0;
  std::int32_t type = 1;
  while (!in.empty()) {
    PlainField field;
    if (!takeKey(in, field) || !takeContent(in, field)) return false;
    if (field.number == 1 && field.wireType == 2) text = field.bytes;
    if (field.number == 2 && field.wireType == 5) {
      score = 0;
      for (std::size_t k = 4; k-- > 0;)
        score = score << 8 | static_cast<unsigned char>(field.bytes[k]);
    }
    if (field.number == 3 && field.wireType == 0) type = std::int32_t(std::uint32_t(field.varint));
  }
  out.tokens.push_back(text);
  out.scores.push_back(std::bit_cast<float>(score));
  out.types.push_back(type);
  return true;
}

bool readPlainly(std::string_view in, TokenizerData& out) {
  while (!in.empty()) {
    PlainField field;
    if (!takeKey(in, field) || field.number == 0 || !takeContent(in, field)) return false;
    if (field.number == 1 && field.wireType == 2 && !readPlainSettings(field.bytes, out)) return false;
    if (field.number == 3 && field.wireType == 2 && !readPlainPiece(field.bytes, out)) return false;
  }
  return true;
}

json::Value configWithTemplate() {
  static constexpr std::string_view kText = R"({"chat_template":"T"})";
  json::Value config;
  (void)json::parse(kText.data(), kText.size(), config);
  return config;
}

}  // namespace

void checkTokenizerModel(std::string_view input) {
  static const json::Value config = configWithTemplate();
  TokenizerData expected;
  expected.chatTemplate = "T";
  const bool good = readPlainly(input, expected);

  TokenizerData actual;
  actual.merges = {"untouched"};
  const Status status = readTokenizerModel(input, config, actual);
  promiseSame(status, good ? Status() : corrupted("hf: bad tokenizer.model (proto parse)"));
  if (!good) {
    promise(actual.tokens.empty() && actual.merges == std::vector<std::string>{"untouched"},
            "a failure leaves the tokenizer as it was");
    return;
  }
  promiseSame(actual, expected);
}

}  // namespace zel::fuzz
