// Tokens that files beside the vocabulary add to it, and special tokens that they name.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>
#include <system_error>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "okv2/explain/special_ids.h"
#include "okv2/explain/steps.h"
#include "okv2/explain/tokenizer_walk.h"

namespace zel::explain {
namespace {

using json::Value;

constexpr char kSide[] = "tokenizer_config.json";
constexpr char kMap[] = "special_tokens_map.json";
constexpr char kAdded[] = "added_tokens.json";

// Null when the file is absent or no JSON.
Value valueOf(const Directory& directory, const char* name) {
  const std::string text = contentOf(directory.pathOf(name));
  Value root;
  if (!text.empty() && !json::parse(text.data(), text.size(), root).ok()) root = Value();
  return root;
}

struct AddedToken {
  std::uint64_t id = 0;
  std::string text;
  bool operator<(const AddedToken& other) const {
    return std::tie(id, text) < std::tie(other.id, other.text);
  }
};

// Those of one file.
struct AddedTokens {
  const char* file;
  std::size_t count;  // in the file, whatever they are
  std::vector<AddedToken> tokens;
};

AddedTokens ofTokenizerJson(const TokenizerJsonWalk& walk) {
  AddedTokens out{kTokenizerJson, walk.addedIds.size(), {}};
  for (std::size_t k = 0; k < walk.addedIds.size(); ++k) {
    if (walk.addedIds[k] >= 0)
      out.tokens.push_back({static_cast<std::uint64_t>(walk.addedIds[k]), walk.addedTexts[k]});
  }
  return out;
}

// The ids are the keys.
AddedTokens ofTokenizerConfig(const Directory& directory) {
  const Value root = valueOf(directory, kSide);
  const Value* decoder = root.get("added_tokens_decoder");
  if (decoder == nullptr) return {kSide, 0, {}};
  AddedTokens out{kSide, decoder->members.size(), {}};
  for (const auto& [key, value] : decoder->members) {
    const Value* content = value.get("content");
    if (key.empty() || key.find_first_not_of("0123456789") != key.npos) continue;
    if (content == nullptr || !content->isString()) continue;
    std::uint64_t id = 0;
    const auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), id);
    if (error == std::errc()) out.tokens.push_back({id, content->text});
  }
  return out;
}

// The texts are the keys.
AddedTokens ofAddedTokensFile(const Directory& directory) {
  const Value root = valueOf(directory, kAdded);
  AddedTokens out{kAdded, root.members.size(), {}};
  for (const auto& [text, value] : root.members) {
    std::int64_t id = 0;
    if (value.isNumber() && json::toInt64(value.number, id) && id >= 0)
      out.tokens.push_back({static_cast<std::uint64_t>(id), text});
  }
  return out;
}

// Added tokens of one file to which the same thing happens.
class TokenGroup {
 public:
  void add(const std::string& text) {
    if (count_++ == 0) first_ = text;
  }
  void report(Id id, const AddedTokens& added, const std::string& where, Explanation& out) const {
    if (count_ == 0) return;
    out.add(id, added.file,
            fmt::format("{} of {} added tokens{}, the first is {}", count_, added.count, where, first_));
  }

 private:
  std::size_t count_ = 0;
  std::string first_;
};

// Tokens whose id is that of another text.
void addedElsewhere(const AddedTokens& added, const std::set<AddedToken>& told, const TokenizerData& data,
                    Explanation& out) {
  TokenGroup group;
  for (const AddedToken& token : added.tokens) {
    if (token.text.empty() || token.id >= data.tokens.size() || data.tokens[token.id] == token.text) continue;
    if (told.count(token) != 0) continue;
    group.add(fmt::format("\"{}\" with id {}, which is \"{}\"", token.text, token.id, data.tokens[token.id]));
  }
  group.report(Id::TokenizerAddedElsewhere, added, "", out);
}

// Tokens beyond the vocabulary, unless it has their text under an id of its own.
void addedOutside(const AddedTokens& added, const std::set<AddedToken>& told, const TokenizerData& data,
                  const std::unordered_set<std::string_view>& vocabulary, Explanation& out) {
  TokenGroup group;
  for (const AddedToken& token : added.tokens) {
    if (token.text.empty() || token.id < data.tokens.size() || vocabulary.count(token.text) != 0) continue;
    if (told.count(token) != 0) continue;
    group.add(fmt::format("\"{}\" with id {}", token.text, token.id));
  }
  group.report(Id::TokenizerAddedOutside, added,
               fmt::format(" lie outside the {} tokens of the vocabulary", data.tokens.size()), out);
}

void outsideOfTokenizerJson(const TokenizerJsonWalk& walk, Explanation& out) {
  out.tokenizer.addedTokens = walk.addedIds.size();
  std::string first;
  for (std::size_t k = 0; k < walk.addedIds.size(); ++k) {
    const std::int64_t id = walk.addedIds[k];
    if (id >= 0 && static_cast<std::uint64_t>(id) < out.tokenizer.tokens) continue;
    if (out.tokenizer.addedOutside++ == 0) first = fmt::format("\"{}\" with id {}", walk.addedTexts[k], id);
  }
  if (out.tokenizer.addedOutside == 0) return;
  out.add(Id::TokenizerAddedOutside, kTokenizerJson,
          fmt::format("{} of {} added tokens lie outside the {} tokens of $.model.vocab, the first is {}",
                      out.tokenizer.addedOutside, out.tokenizer.addedTokens, out.tokenizer.tokens, first));
}

// The text of a token, which may stand alone or in an object; empty when there is none.
std::string tokenText(const Value& root, const char* member) {
  const Value* token = root.get(member);
  if (token != nullptr && token->isObject()) token = token->get("content");
  return token != nullptr && token->isString() ? token->text : "";
}

struct NamedToken {
  std::string text;
  const char* where;  // the file and the member's parent
};

// By the first file that counts: special_tokens_map.json, unless tokenizer_config.json is of the newer kind,
// which has everything in itself.
NamedToken namedToken(const Value& side, const Value& map, const char* member) {
  const bool isAlone = side.get("added_tokens_decoder") != nullptr;
  if (std::string text = tokenText(map, member); !isAlone && !text.empty())
    return {std::move(text), "special_tokens_map.json: $"};
  return {tokenText(side, member), "tokenizer_config.json: $"};
}

}  // namespace

void explainAddedTokens(const Directory& directory, const TokenizerData& data, const TokenizerJsonWalk* walk,
                        Explanation& out) {
  std::set<AddedToken> told;
  if (walk != nullptr) {
    outsideOfTokenizerJson(*walk, out);
    const AddedTokens added = ofTokenizerJson(*walk);
    addedElsewhere(added, told, data, out);
    told.insert(added.tokens.begin(), added.tokens.end());
  }
  const std::unordered_set<std::string_view> vocabulary(data.tokens.begin(), data.tokens.end());
  for (const AddedTokens& added : {ofTokenizerConfig(directory), ofAddedTokensFile(directory)}) {
    addedOutside(added, told, data, vocabulary, out);
    addedElsewhere(added, told, data, out);
    told.insert(added.tokens.begin(), added.tokens.end());
  }
}

void explainSpecialTokens(const Directory& directory, const HfImporter& model, const std::string& modelUnk,
                          Explanation& out) {
  const TokenizerData& data = model.tokenizer;
  if (data.tokens.empty()) return;  // no id is stored at all, which has a finding of its own
  const Value side = valueOf(directory, kSide);
  const Value map = valueOf(directory, kMap);
  for (const auto& [key, field] : kSpecialIds) {
    const std::string member(key, std::string_view(key).size() - std::string_view("_id").size());
    NamedToken token = namedToken(side, map, member.c_str());
    if (token.text.empty() && member == "unk_token") token = {modelUnk, "tokenizer.json: $.model"};
    const std::int32_t id = data.*field;
    if (token.text.empty() || id < -1 || id >= static_cast<std::int64_t>(data.tokens.size())) continue;
    // An id that config.json gives is what its author wants.
    const Value* given = out.tokenizer.winner == kTokenizerJson ? givenSpecialId(model.config, key) : nullptr;
    if (given != nullptr && given->isNumber() && given->number >= 0) continue;
    if (id >= 0 && data.tokens[static_cast<std::size_t>(id)] == token.text) continue;
    const bool isKnown = std::find(data.tokens.begin(), data.tokens.end(), token.text) != data.tokens.end();
    const std::string kept = id < 0 ? "" : fmt::format(", \"{}\"", data.tokens[static_cast<std::size_t>(id)]);
    out.add(Id::TokenizerSpecialNotRead, member,
            fmt::format("{}.{} is \"{}\"{}, the container gets {}{}", token.where, member, token.text,
                        isKnown ? "" : ", which the vocabulary lacks", id, kept));
  }
}

}  // namespace zel::explain
