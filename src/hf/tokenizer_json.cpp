// tokenizer.json, read straight from the parser into the vectors that the container stores: the tree of a
// large vocabulary would take eight times the file's size and most of the time.
#include <optional>
#include <utility>

#include "hf/hf_importer.h"
#include "hf/json_parser.h"
#include "hf/read_file.h"

namespace zel {
namespace {

using json::Kind;
using json::detail::appendEstimated;
using json::detail::kOneListBytes;
using json::detail::Parser;
using json::detail::reserveEstimated;

constexpr std::int32_t kNormalToken = 1;
constexpr std::int32_t kSpecialToken = 3;

struct SpecialName {
  std::string_view content;
  std::int32_t TokenizerData::*id;
};
constexpr SpecialName kSpecialNames[] = {
    {"<bos>", &TokenizerData::bosId}, {"<s>", &TokenizerData::bosId},   {"<eos>", &TokenizerData::eosId},
    {"</s>", &TokenizerData::eosId},  {"<unk>", &TokenizerData::unkId}, {"<pad>", &TokenizerData::padId},
};

struct AddedToken {
  std::optional<std::int64_t> id;  // nothing: the element is to be skipped
  bool special = true;             // unless it says otherwise
  std::int32_t TokenizerData::*role = nullptr;
};

// A member that counts once, the first time its key occurs, and is useful only if it is of one kind.
enum class Found { Absent, WrongKind, Yes };

// Gathers while the text is parsed and judges afterwards: a syntax error anywhere in the file outranks
// whatever is wrong with its content.
class TokenizerJson {
 public:
  explicit TokenizerJson(std::string_view text) : parser_(text.data(), text.size()) {}

  Status read(TokenizerData& out);

 private:
  bool readRoot();
  bool readModel();
  bool readVocab();
  // Of the last token.
  void setId(std::int64_t id) {
    if (!ids_.empty() || id != std::int64_t(tokens_.size() - 1)) setOddId(id);
  }
  void setOddId(std::int64_t id);
  bool readMerges();
  bool readAddedToken();
  bool readScore();
  template <class Read>
  bool readOnce(Found& found, Kind kind, std::size_t depth, Read read);
  bool readInteger(std::optional<std::int64_t>& out, std::size_t depth);
  bool placeTokens(std::vector<std::string>& out);
  void applyAddedTokens(TokenizerData& out) const;

  Parser parser_;
  Found model_ = Found::Absent;
  Found vocab_ = Found::Absent;
  Found merges_ = Found::Absent;
  Found addedTokens_ = Found::Absent;
  Found scores_ = Found::Absent;
  std::vector<std::string> tokens_;  // in document order
  std::vector<std::int64_t> ids_;    // of tokens_; empty for as long as every id equals its position
  bool badId_ = false;
  bool badMerge_ = false;
  std::vector<std::string> mergeTexts_;
  std::vector<AddedToken> added_;
  std::vector<float> scoreValues_;
};

// Reads the value of a key with `read` when it is the key's first occurrence and of the right kind.
template <class Read>
bool TokenizerJson::readOnce(Found& found, Kind kind, std::size_t depth, Read read) {
  if (found != Found::Absent) return parser_.skip(depth);
  Kind actual;
  if (!parser_.peek(actual, depth)) return false;
  found = actual == kind ? Found::Yes : Found::WrongKind;
  return found == Found::Yes ? read() : parser_.skip(depth);
}

// Nothing unless the value is a number that is integral.
bool TokenizerJson::readInteger(std::optional<std::int64_t>& out, std::size_t depth) {
  Kind kind;
  if (!parser_.peek(kind, depth)) return false;
  return kind == Kind::Number ? parser_.integer(out) : parser_.skip(depth);
}

bool TokenizerJson::readRoot() {
  Kind kind;
  if (!parser_.peek(kind, 0)) return false;
  if (kind != Kind::Object) return parser_.skip(0);
  return parser_.object([this](std::string_view key) {
    if (key == "model") return readOnce(model_, Kind::Object, 1, [this] { return readModel(); });
    if (key == "added_tokens") {
      return readOnce(addedTokens_, Kind::Array, 1,
                      [this] { return parser_.elements([this] { return readAddedToken(); }); });
    }
    return parser_.skip(1);
  });
}

bool TokenizerJson::readModel() {
  return parser_.object([this](std::string_view key) {
    if (key == "vocab") return readOnce(vocab_, Kind::Object, 2, [this] { return readVocab(); });
    if (key == "merges") return readOnce(merges_, Kind::Array, 2, [this] { return readMerges(); });
    if (key == "scores") {
      return readOnce(scores_, Kind::Array, 2,
                      [this] { return parser_.elements([this] { return readScore(); }); });
    }
    return parser_.skip(2);
  });
}

// `left` as bytesLeft of reserveEstimated().
void appendText(std::vector<std::string>& out, std::string_view text, std::size_t before, std::size_t left) {
  reserveEstimated(out, before, left, kOneListBytes);
  // A copy of known size, cut: see Parser::assignRun().
  if (text.size() <= Parser::kShortText) {
    out.emplace_back(text.data(), Parser::kShortText).resize(text.size());
  } else {
    out.emplace_back(text);
  }
}

bool TokenizerJson::readVocab() {
  const std::size_t before = parser_.remaining();
  return parser_.members(
      [&] {
        parser_.plainMembers([&](std::string_view token, std::size_t left, std::int64_t id) {
          appendText(tokens_, token, before, left);
          setId(id);
        });
        return parser_.string(appendEstimated(tokens_, before, parser_.remaining(), kOneListBytes));
      },
      [this] {
        std::optional<std::int64_t> id;
        if (!readInteger(id, 3)) return false;
        if (!id || *id < 0) badId_ = true;
        setId(id.value_or(-1));
        return true;
      });
}

void TokenizerJson::setOddId(std::int64_t id) {
  while (ids_.size() + 1 < tokens_.size())
    ids_.push_back(std::int64_t(ids_.size()));
  ids_.push_back(id);
}

bool TokenizerJson::readMerges() {
  const std::size_t before = parser_.remaining();
  return parser_.elements([&] {
    Kind kind;
    if (!parser_.peek(kind, 3)) return false;
    if (kind == Kind::String) {
      parser_.plainElements(
          [&](std::string_view text, std::size_t left) { appendText(mergeTexts_, text, before, left); });
      return parser_.string(appendEstimated(mergeTexts_, before, parser_.remaining(), kOneListBytes));
    }
    badMerge_ = true;  // the two-element form is refused on purpose
    return parser_.skip(3);
  });
}

bool TokenizerJson::readAddedToken() {
  Kind kind;
  if (!parser_.peek(kind, 2)) return false;
  if (kind != Kind::Object) return parser_.skip(2);
  AddedToken token;
  Found id = Found::Absent;
  Found content = Found::Absent;
  Found special = Found::Absent;
  std::string_view text;
  std::string scratch;
  const auto readText = [&] { return parser_.stringView(text, scratch); };
  const bool ok = parser_.object([&](std::string_view key) {
    if (key == "id") return readOnce(id, Kind::Number, 3, [&] { return readInteger(token.id, 3); });
    if (key == "content") return readOnce(content, Kind::String, 3, readText);
    if (key == "special") {
      return readOnce(special, Kind::Bool, 3, [&] { return parser_.literal(Kind::Bool, token.special); });
    }
    return parser_.skip(3);
  });
  if (!ok) return false;
  if (special == Found::WrongKind) token.special = false;
  for (const SpecialName& name : kSpecialNames) {
    if (text == name.content) token.role = name.id;
  }
  if (token.id) added_.push_back(token);
  return true;
}

// A number, or an array whose first element is one: [score, ...]. Anything else counts as 0.
bool TokenizerJson::readScore() {
  double score = 0;
  Kind kind;
  if (!parser_.peek(kind, 3)) return false;
  if (kind == Kind::Number) {
    if (!parser_.number(score)) return false;
  } else if (kind == Kind::Array) {
    bool first = true;
    const bool ok = parser_.elements([&] {
      Kind elementKind;
      if (!parser_.peek(elementKind, 4)) return false;
      const bool wanted = std::exchange(first, false) && elementKind == Kind::Number;
      return wanted ? parser_.number(score) : parser_.skip(4);
    });
    if (!ok) return false;
  } else if (!parser_.skip(3)) {
    return false;
  }
  scoreValues_.push_back(float(score));
  return true;
}

// Moves the tokens into the order of their ids, which must be 0, 1, 2, ... each once.
bool TokenizerJson::placeTokens(std::vector<std::string>& out) {
  if (ids_.empty()) {
    out = std::move(tokens_);
    return true;
  }
  out.resize(tokens_.size());
  std::vector<bool> taken(tokens_.size());
  for (std::size_t k = 0; k < tokens_.size(); ++k) {
    const auto id = std::uint64_t(ids_[k]);
    if (id >= taken.size() || taken[id]) return false;
    taken[id] = true;
    out[id] = std::move(tokens_[k]);
  }
  return true;
}

void TokenizerJson::applyAddedTokens(TokenizerData& out) const {
  for (const AddedToken& token : added_) {
    // Never appended to the tokens: an id beyond the vocabulary changes no type.
    if (const auto id = std::uint64_t(*token.id); id < out.types.size()) {
      out.types[id] = token.special ? kSpecialToken : kNormalToken;
    }
    if (token.role != nullptr) out.*token.role = std::int32_t(*token.id);
  }
}

Status TokenizerJson::read(TokenizerData& out) {
  if (!readRoot() || !parser_.finish()) return corrupted("hf: bad tokenizer.json");
  if (model_ != Found::Yes) return corrupted("hf: tokenizer.json has no model object");
  if (vocab_ != Found::Yes) return corrupted("hf: tokenizer.json has no vocab");
  if (badId_) return corrupted("hf: bad vocab id");
  if (!placeTokens(out.tokens)) return corrupted("hf: vocab ids not contiguous");
  if (merges_ == Found::WrongKind) return corrupted("hf: bad merges");
  if (badMerge_) return corrupted("hf: bad merge entry");
  if (addedTokens_ == Found::WrongKind) return corrupted("hf: bad added_tokens");
  out.merges = std::move(mergeTexts_);
  out.scores = std::move(scoreValues_);
  out.types.assign(out.tokens.size(), kNormalToken);
  applyAddedTokens(out);
  return {};
}

bool integerMember(const json::Value* member, std::int32_t& id) {
  std::int64_t integer;
  if (member == nullptr || !member->isNumber() || !json::toInt64(member->number, integer)) return false;
  id = std::int32_t(integer);
  return true;
}

// The configuration wins over the added tokens.
void applyConfig(const json::Value& config, TokenizerData& out) {
  (void)integerMember(config.get("bos_token_id"), out.bosId);
  (void)integerMember(config.get("unk_token_id"), out.unkId);
  (void)integerMember(config.get("pad_token_id"), out.padId);
  const json::Value* eos = config.get("eos_token_id");
  if (eos != nullptr && eos->isArray() && !eos->items.empty()) eos = &eos->items.front();
  (void)integerMember(eos, out.eosId);
  if (const json::Value* chat = config.get("chat_template"); chat != nullptr && chat->isString()) {
    out.chatTemplate = chat->text;
  }
}

}  // namespace

Status readTokenizerJson(std::string_view text, const json::Value& config, TokenizerData& out) {
  TokenizerData data;
  ZEL_RETURN_IF_ERROR(TokenizerJson(text).read(data));
  applyConfig(config, data);
  out = std::move(data);
  return {};
}

Status HfImporter::parseTokenizerJson(const std::string& path) {
  std::vector<std::uint8_t> text;
  if (!readFile(path, text)) return invalidFormat("hf: cannot read tokenizer.json");
  return readTokenizerJson({reinterpret_cast<const char*>(text.data()), text.size()}, config, tokenizer);
}

}  // namespace zel
