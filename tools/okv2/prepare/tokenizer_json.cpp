#include "okv2/prepare/tokenizer_json.h"

#include <fmt/format.h>

#include <optional>
#include <set>
#include <utility>

#include "hf/hf_importer.h"
#include "okv2/exit_codes.h"
#include "okv2/explain/finding_table.h"
#include "okv2/prepare/json_tree.h"
#include "okv2/prepare/model_texts.h"

namespace zel::tool::prepare {
namespace {

using explain::Id;

constexpr char kFile[] = "tokenizer.json";
constexpr char kFetchAgain[] = "Fetch tokenizer.json again, or use another that belongs to the model.";

[[noreturn]] void refuse(int code, Id id, const std::string& what, const char* remedy = kFetchAgain) {
  throw Refused(code, explain::rowOf(id).name, fmt::format("{}: {}", kFile, what), remedy);
}

const char* nameOf(Id id) { return explain::rowOf(id).name; }

// Merges, vocabulary and added tokens of one file, each mended in place.
class TokenizerJson {
 public:
  TokenizerJson(std::string_view text, Changes& changes) : text_(text), changes_(changes) {
    refuseManyValues(kFile, text);
    std::string reason;
    if (!parseTree(text, root_, reason)) refuse(kExitCorrupted, Id::TokenizerJsonBadJson, reason);
    model_ = findMember(root_, "model");
    if (model_ == nullptr || !model_->is_object())
      refuse(kExitCorrupted, Id::TokenizerJsonNoModel, "$.model is no object");
  }

  Tokenizer run(const std::vector<AddedToken>& alsoAdded) {
    const std::size_t changesBefore = changes_.size();
    mendMerges();
    const std::vector<Token> published = readVocabulary();
    gatherAdded(alsoAdded, published);
    const JoinedVocabulary joined =
        joinVocabulary(published, added_, {kFile, "$.model.vocab", nameOf(Id::TokenizerJsonIdGap)}, changes_);
    const bool isChanged = changes_.size() != changesBefore;
    if (isChanged) write(joined);
    return resultOf(isChanged, joined);
  }

 private:
  void mendMerges();
  std::vector<Token> readVocabulary();
  std::vector<Token> readUnigram(const Json& vocabulary);
  void gatherAdded(const std::vector<AddedToken>& alsoAdded, const std::vector<Token>& published);
  void write(const JoinedVocabulary& joined);
  Tokenizer resultOf(bool isChanged, const JoinedVocabulary& joined) const;

  std::string_view text_;
  Changes& changes_;
  Json root_;
  Json* model_ = nullptr;
  std::optional<Json> objectForm_;    // of a Unigram vocabulary
  std::vector<double> scores_;        // likewise
  std::vector<AddedToken> added_;     // those of the file first
  std::vector<Json*> addedElements_;  // the file's own elements, one for each of its added tokens
};

void TokenizerJson::mendMerges() {
  Json* merges = findMember(*model_, "merges");
  if (merges == nullptr) return;
  if (merges->is_null() || (merges->is_object() && merges->empty())) {
    changes_.push_back({kFile, "$.model.merges", merges->dump(), "[]", "it stands for no merges",
                        nameOf(Id::TokenizerJsonBadMerges)});
    *merges = Json::array();
    return;
  }
  if (!merges->is_array()) refuse(kExitCorrupted, Id::TokenizerJsonBadMerges, "$.model.merges is no array");
  std::size_t pairs = 0;
  for (std::size_t k = 0; k < merges->size(); ++k) {
    Json& merge = (*merges)[k];
    if (merge.is_string()) continue;
    if (!merge.is_array() || merge.size() != 2 || !merge[0].is_string() || !merge[1].is_string()) {
      refuse(kExitCorrupted, Id::TokenizerJsonBadMerges,
             fmt::format("$.model.merges[{}] is neither a text nor a pair of texts", k));
    }
    const std::string& left = merge[0].get_ref<const std::string&>();
    const std::string& right = merge[1].get_ref<const std::string&>();
    if (left.find(' ') != std::string::npos || right.find(' ') != std::string::npos) {
      refuse(kExitUnsupported, Id::TokenizerJsonMergePairs,
             fmt::format("$.model.merges[{}] joins \"{}\" and \"{}\": a part with a space cannot be said in "
                         "one text",
                         k, left, right),
             "Use a tokenizer.model of the same vocabulary, if there is one, and remove tokenizer.json.");
    }
    merge = Json(fmt::format("{} {}", left, right));
    ++pairs;
  }
  if (pairs == 0) return;
  changes_.push_back({kFile, "$.model.merges", fmt::format("{} pairs", pairs), fmt::format("{} texts", pairs),
                      "merges are read as texts of two parts with a space between them",
                      nameOf(Id::TokenizerJsonMergePairs)});
}

// Unigram models list pieces and scores; the position is the id.
std::vector<Token> TokenizerJson::readUnigram(const Json& vocabulary) {
  std::vector<Token> tokens;
  tokens.reserve(vocabulary.size());
  objectForm_ = Json::object();
  for (const Json& piece : vocabulary) {
    const std::size_t k = tokens.size();
    if (!piece.is_array() || piece.size() != 2 || !piece[0].is_string() || !piece[1].is_number()) {
      refuse(kExitCorrupted, Id::TokenizerJsonNoVocab,
             fmt::format("$.model.vocab[{}] is no pair of a text and a score", k));
    }
    tokens.push_back({static_cast<std::int64_t>(k), piece[0].get<std::string>()});
    scores_.push_back(piece[1].get<double>());
    appendMember(*objectForm_, tokens.back().text, tokens.back().id);
  }
  changes_.push_back({kFile, "$.model.vocab", fmt::format("a list of {} pieces and scores", tokens.size()),
                      "an object of ids, and $.model.scores", "the vocabulary is read from an object",
                      nameOf(Id::TokenizerJsonNoVocab)});
  return tokens;
}

std::vector<Token> TokenizerJson::readVocabulary() {
  Json* vocabulary = findMember(*model_, "vocab");
  if (vocabulary == nullptr) refuse(kExitCorrupted, Id::TokenizerJsonNoVocab, "$.model.vocab is absent");
  if (vocabulary->is_array()) return readUnigram(*vocabulary);
  if (!vocabulary->is_object())
    refuse(kExitCorrupted, Id::TokenizerJsonNoVocab, "$.model.vocab is neither an object nor a list");
  std::vector<Token> tokens;
  tokens.reserve(vocabulary->size());
  for (const auto& [text, value] : vocabulary->items()) {
    const std::optional<std::int64_t> id = wholeNumber(value);
    if (!id || *id < 0) {
      refuse(kExitCorrupted, Id::TokenizerJsonBadId,
             fmt::format("$.model.vocab[\"{}\"] is no whole number of at least 0", text));
    }
    tokens.push_back({*id, text});
  }
  return tokens;
}

void TokenizerJson::gatherAdded(const std::vector<AddedToken>& alsoAdded,
                                const std::vector<Token>& published) {
  Json* elements = findMember(root_, "added_tokens");
  if (elements == nullptr) {
    elements = &appendMember(root_, "added_tokens", Json::array());
    model_ = findMember(root_, "model");  // its place has changed
  } else if (elements->is_null()) {
    *elements = Json::array();
    changes_.push_back({kFile, "$.added_tokens", "null", "[]", "null stands for no added tokens",
                        nameOf(Id::TokenizerJsonBadAddedTokens)});
  } else if (!elements->is_array()) {
    refuse(kExitCorrupted, Id::TokenizerJsonBadAddedTokens, "$.added_tokens is no array");
  }
  if (elements->size() > kMaxAddedTokens) {
    refuse(kExitUnsupported, Id::TokenizerAddedOutside,
           fmt::format("{} added tokens are more than the {} of any vocabulary", elements->size(),
                       kMaxAddedTokens),
           "Use the tokenizer files that belong to the model.");
  }
  std::set<std::string> known;
  for (Json& element : *elements) {
    // Elements that an import skips are left as they are.
    const std::optional<std::int64_t> id = wholeMember(element, "id");
    if (!id) continue;
    const std::string* content = textMember(element, "content");
    added_.push_back({*id, content == nullptr ? "" : *content, true});
    addedElements_.push_back(&element);
    known.insert(added_.back().text);
  }
  std::set<std::string_view> pieces;
  for (const Token& token : published)
    pieces.insert(token.text);
  for (const AddedToken& token : alsoAdded) {
    const bool isPiece = pieces.count(token.text) != 0;
    if (token.text.empty() || (!token.hasId && isPiece)) continue;
    if (!known.insert(token.text).second) continue;
    added_.push_back(token);
    if (!isPiece) continue;  // joining the vocabulary is a change that is listed
    changes_.push_back({kFile, fmt::format("$.added_tokens[\"{}\"]", token.text), "",
                        token.special ? "special" : "normal",
                        fmt::format("{} adds the token when the tokenizer is loaded", token.source),
                        nameOf(Id::TokenizerAddedOutside)});
  }
}

void TokenizerJson::write(const JoinedVocabulary& joined) {
  const std::size_t own = addedElements_.size();
  for (std::size_t k = 0; k < own; ++k) {
    if (joined.addedIds[k] != added_[k].id) setMember(*addedElements_[k], "id", joined.addedIds[k]);
  }
  Json& vocabulary = *findMember(*model_, "vocab");
  const std::size_t publishedScores = scores_.size();
  if (objectForm_) vocabulary = std::move(*objectForm_);
  for (const auto* tokens : {&joined.joined, &joined.fillers}) {
    for (const Token& token : *tokens)
      appendMember(vocabulary, token.text, token.id);
  }
  // From here on the elements' addresses do not hold.
  Json& elements = *findMember(root_, "added_tokens");
  const auto addElement = [&](std::int64_t id, const std::string& text, bool special) {
    elements.push_back({{"id", id}, {"content", text}, {"special", special}});
  };
  for (std::size_t k = own; k < added_.size(); ++k)
    addElement(joined.addedIds[k], added_[k].text, added_[k].special);
  // Special: a reserved name is never to come out of a text.
  for (const Token& token : joined.fillers)
    addElement(token.id, token.text, true);

  const auto size = static_cast<std::size_t>(joined.size);
  Json* scores = findMember(*model_, "scores");
  if (publishedScores > 0) {
    scores_.resize(size, 0.0);  // the library gives an added token no score
    setMember(*model_, "scores", scores_);
  } else if (scores != nullptr && scores->is_array() &&
             scores->size() + joined.joined.size() + joined.fillers.size() == size) {
    while (scores->size() < size)
      scores->push_back(0.0);
  }
}

Tokenizer TokenizerJson::resultOf(bool isChanged, const JoinedVocabulary& joined) const {
  Tokenizer out;
  out.file = kFile;
  out.bytes = isChanged ? textOfTree(root_) : std::string(text_);
  out.idOf = joined.idOf;
  out.size = joined.size;
  TokenizerData data;
  if (const Status status = readTokenizerJson(out.bytes, json::Value(), data); !status.ok()) {
    refuse(kExitUnsupported, Id::TokenizerJsonBadJson, status.message());
  }
  out.ids = {data.bosId, data.eosId, data.unkId, data.padId};
  if (const std::string* unknown = textMember(*model_, "unk_token"); unknown != nullptr) {
    if (const auto known = out.idOf.find(*unknown); known != out.idOf.end()) out.modelUnk = known->second;
  } else if (const std::optional<std::int64_t> id = wholeMember(*model_, "unk_id"); id) {
    if (*id >= 0 && *id < out.size) out.modelUnk = *id;
  }
  return out;
}

}  // namespace

Tokenizer mendTokenizerJson(std::string_view text, const std::vector<AddedToken>& alsoAdded,
                            Changes& changes) {
  return TokenizerJson(text, changes).run(alsoAdded);
}

}  // namespace zel::tool::prepare
