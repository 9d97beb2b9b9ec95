// The tokenizer and the chat template: which file won, and why the other did not.
#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "hf/read_file.h"
#include "okv2/explain/steps.h"
#include "okv2/explain/tokenizer_walk.h"

namespace zel::explain {
namespace {

constexpr char kJson[] = "tokenizer.json";
constexpr char kModel[] = "tokenizer.model";

// Empty when the file counts as unreadable.
std::string contentOf(const std::string& path) {
  std::vector<std::uint8_t> bytes;
  if (!readFile(path, bytes)) return {};
  return {bytes.begin(), bytes.end()};
}

std::string at(const Place& place) {
  return fmt::format("{}: {} is {}, {} (byte {})", kJson, place.path, place.kind, place.value, place.offset);
}

void refusedJson(const std::string& message, const TokenizerJsonWalk& walk, Explanation& out) {
  const std::string because = fmt::format(" [{}]", message);
  const auto add = [&](Id id, const std::string& detail) { out.add(id, kJson, detail + because); };
  if (message == "hf: bad tokenizer.json") {
    add(Id::TokenizerJsonBadJson,
        fmt::format("{}: byte {}: {}", kJson, walk.fault.offset, walk.fault.message));
    if (walk.fault.cutShort) out.add(Id::FilePartial, kJson, "the text ends in the middle");
  } else if (message == "hf: tokenizer.json has no model object") {
    add(Id::TokenizerJsonNoModel, walk.model ? at(*walk.model) : "tokenizer.json: $.model is absent");
  } else if (message == "hf: tokenizer.json has no vocab") {
    add(Id::TokenizerJsonNoVocab,
        (walk.vocab ? at(*walk.vocab) : std::string("tokenizer.json: $.model.vocab is absent")) +
            (walk.modelType.empty() ? "" : ", model type " + walk.modelType));
  } else if (message == "hf: bad vocab id" && walk.badId) {
    add(Id::TokenizerJsonBadId, at(*walk.badId));
  } else if (message == "hf: vocab ids not contiguous") {
    add(Id::TokenizerJsonIdGap, "tokenizer.json: $.model.vocab: " + walk.idFault);
  } else if (message == "hf: bad merges" && walk.merges) {
    add(Id::TokenizerJsonBadMerges, at(*walk.merges));
  } else if (message == "hf: bad merge entry" && walk.badMerge) {
    add(walk.badMerge->kind == kindName(json::Kind::Array) ? Id::TokenizerJsonMergePairs
                                                           : Id::TokenizerJsonBadMerges,
        at(*walk.badMerge));
  } else if (message == "hf: bad added_tokens" && walk.addedTokens) {
    add(Id::TokenizerJsonBadAddedTokens, at(*walk.addedTokens));
  }
}

void addedTokens(const TokenizerJsonWalk& walk, Explanation& out) {
  out.tokenizer.addedTokens = walk.addedIds.size();
  std::string first;
  for (std::size_t k = 0; k < walk.addedIds.size(); ++k) {
    const std::int64_t id = walk.addedIds[k];
    if (id >= 0 && static_cast<std::uint64_t>(id) < out.tokenizer.tokens) continue;
    if (out.tokenizer.addedOutside++ == 0) first = fmt::format("\"{}\" with id {}", walk.addedTexts[k], id);
  }
  if (out.tokenizer.addedOutside == 0) return;
  out.add(Id::TokenizerAddedOutside, kJson,
          fmt::format("{} of {} added tokens lie outside the {} tokens of $.model.vocab, the first is {}",
                      out.tokenizer.addedOutside, out.tokenizer.addedTokens, out.tokenizer.tokens, first));
}

void specialIds(const TokenizerData& data, Explanation& out) {
  const std::pair<const char*, std::int32_t> ids[] = {
      {"bos", data.bosId}, {"eos", data.eosId}, {"unk", data.unkId}, {"pad", data.padId}};
  for (const auto& [name, id] : ids) {
    if (id >= -1 && id < static_cast<std::int64_t>(data.tokens.size())) continue;
    out.add(Id::TokenizerSpecialIdOutside, name,
            fmt::format("{} id {} with {} tokens", name, id, data.tokens.size()));
  }
}

// The keys of config.json that only a tokenizer.json takes.
constexpr struct {
  const char* key;
  std::int32_t TokenizerData::*id;
} kIdKeys[] = {{"bos_token_id", &TokenizerData::bosId},
               {"eos_token_id", &TokenizerData::eosId},
               {"unk_token_id", &TokenizerData::unkId},
               {"pad_token_id", &TokenizerData::padId}};

// A special id as a tokenizer.json takes it: of a list the first.
const json::Value* givenId(const json::Value& config, const char* key) {
  const json::Value* value = config.get(key);
  const bool isList = value != nullptr && value->isArray() && std::string_view(key) == "eos_token_id";
  if (isList) return value->items.empty() ? nullptr : &value->items.front();
  return value == nullptr || value->kind == json::Kind::Null ? nullptr : value;
}

// Whether a model's own id is what config.json means: a negative one stands for none, and any of a list will
// do.
bool agrees(const json::Value& given, std::int32_t id) {
  const auto isIt = [&](const json::Value& item) { return item.isNumber() && item.number == id; };
  if (given.isArray()) return std::any_of(given.items.begin(), given.items.end(), isIt);
  return isIt(given) || given.number < 0;
}

// What becomes of the special ids in config.json.
void configIds(const json::Value& config, const TokenizerData& data, Explanation& out) {
  const bool isEmpty = data.tokens.empty();
  const bool areRead = out.tokenizer.winner == kJson;
  for (const auto& [key, field] : kIdKeys) {
    const json::Value* id = givenId(config, key);
    if (id == nullptr) continue;
    out.config.push_back({key, shortJson(*config.get(key)),
                          isEmpty   ? "not written: the tokenizer is empty"
                          : areRead ? "tokenizer"
                                    : "not read: tokenizer.model has ids of its own"});
    if (isEmpty) continue;
    std::int64_t integer = 0;
    if (!id->isNumber() || !json::toInt64(id->number, integer)) {
      out.add(Id::ConfigWrongKind, key, fmt::format("config.json: $.{} is {}", key, shortJson(*id)));
    } else if (integer != data.*field && (areRead || !agrees(*config.get(key), data.*field))) {
      out.add(Id::ConfigIdNotKept, key,
              fmt::format("config.json: $.{} is {}, the container gets {}", key, integer, data.*field));
    }
  }
  if (const json::Value* chat = config.get("chat_template"); chat != nullptr && chat->isString()) {
    out.config.push_back(
        {"chat_template", shortJson(*chat), isEmpty ? "not written: the tokenizer is empty" : "tokenizer"});
  }
}

// Tokens that tokenizer_config.json adds where the vocabulary has another text.
void addedElsewhere(const Directory& directory, const TokenizerData& data, Explanation& out) {
  const std::string text = contentOf(directory.pathOf("tokenizer_config.json"));
  json::Value root;
  if (text.empty() || !json::parse(text.data(), text.size(), root).ok()) return;
  const json::Value* decoder = root.get("added_tokens_decoder");
  if (decoder == nullptr || !decoder->isObject()) return;
  std::uint64_t count = 0;
  std::string first;
  for (const auto& [key, value] : decoder->members) {
    const json::Value* content = value.get("content");
    if (key.empty() || key.size() > 10 || key.find_first_not_of("0123456789") != key.npos) continue;
    const auto id = std::stoull(key);
    if (content == nullptr || !content->isString() || content->text.empty() || id >= data.tokens.size() ||
        data.tokens[id] == content->text) {
      continue;
    }
    if (count++ == 0) {
      first = fmt::format("\"{}\" with id {}, which is \"{}\"", content->text, id, data.tokens[id]);
    }
  }
  if (count == 0) return;
  out.add(Id::TokenizerAddedElsewhere, "tokenizer_config.json",
          fmt::format("{} of {} added tokens, the first is {}", count, decoder->members.size(), first));
}

// True when tokenizer.json is the tokenizer.
bool explainJson(const Directory& directory, const json::Value& config, Explanation& out) {
  const std::string text = contentOf(directory.pathOf(kJson));
  if (text.empty()) return false;
  const TokenizerJsonWalk walk = walkTokenizerJson(text);
  TokenizerData data;
  if (const Status status = readTokenizerJson(text, config, data); !status.ok()) {
    refusedJson(status.message(), walk, out);
    return false;
  }
  out.tokenizer.winner = kJson;
  addedTokens(walk, out);
  if (!walk.ignoredParts.empty()) out.add(Id::TokenizerJsonPartsIgnored, kJson, walk.ignoredParts);
  return true;
}

// True when the tokens are the model's.
bool explainModel(const Directory& directory, const json::Value& config, Explanation& out) {
  const std::string bytes = contentOf(directory.pathOf(kModel));
  if (bytes.empty()) return false;
  TokenizerData data;
  if (const Status status = readTokenizerModel(bytes, config, data); !status.ok()) {
    out.add(isTiktoken(bytes) ? Id::TokenizerModelTiktoken : Id::TokenizerModelRefused, kModel,
            "tokenizer.model: " + status.message());
    return false;
  }
  out.tokenizer.winner = kModel;
  if (data.tokens.empty() && isTiktoken(bytes)) {
    out.add(Id::TokenizerModelTiktoken, kModel, "tokenizer.model: it can be walked and gives no token");
    return false;
  }
  std::uint64_t pieces = 0;
  if (!hasUsualFieldNumbers(bytes, pieces)) return true;
  out.add(Id::TokenizerModelFieldNumbers, kModel,
          fmt::format("{} pieces in field 1 give {} token{}{}", pieces, data.tokens.size(),
                      data.tokens.size() == 1 ? "" : "s",
                      data.tokens.empty() ? "" : fmt::format(", the first is \"{}\"", data.tokens[0])));
  return false;
}

// The template of a file of its own, unless nothing of it is missing.
void explainJinja(const Directory& directory, const std::string& kept, Explanation& out) {
  constexpr char kJinja[] = "chat_template.jinja";
  const auto file = directory.files.find(kJinja);
  if (file == directory.files.end() || file->second.bytes == 0) return;
  // Never read for its own sake: a file of another length is another text.
  if (file->second.bytes == kept.size() && contentOf(directory.pathOf(kJinja)) == kept) return;
  out.add(Id::TemplateJinjaFile, kJinja, fmt::format("{} bytes", file->second.bytes));
}

}  // namespace

void explainTokenizer(const Directory& directory, const plan::ImportPlan& plan, Explanation& out) {
  const TokenizerData& data = plan.model.tokenizer;
  TokenizerUse& use = out.tokenizer;
  use.tokens = data.tokens.size();
  use.scores = data.scores.size();
  use.merges = data.merges.size();
  use.special = static_cast<std::uint64_t>(std::count(data.types.begin(), data.types.end(), 3));
  use.bos = data.bosId, use.eos = data.eosId, use.unk = data.unkId, use.pad = data.padId;
  if (explainJson(directory, plan.model.config, out)) {
    if (directory.has(kModel)) out.add(Id::TokenizerModelIgnored, kModel);
    addedElsewhere(directory, data, out);
  } else if (explainModel(directory, plan.model.config, out)) {
    addedElsewhere(directory, data, out);
  }
  configIds(plan.model.config, data, out);
  if (!directory.has(kJson) && !directory.has(kModel)) out.add(Id::TokenizerNone, kJson);
  if (use.tokens == 0) {
    out.add(
        Id::TokenizerEmpty, use.winner.empty() ? kJson : use.winner,
        use.winner.empty() ? "neither tokenizer.json nor tokenizer.model could be read" : "it has no token");
    return;
  }
  specialIds(data, out);
  if (out.vocabSize != static_cast<std::int64_t>(use.tokens)) {
    out.add(Id::TokenizerVocabSize, "vocab_size",
            fmt::format("vocab_size is {}, the vocabulary has {} tokens", out.vocabSize, use.tokens));
  }
  if (use.scores != 0 && use.scores != use.tokens) {
    out.add(Id::TokenizerScoreCount, use.winner, fmt::format("{} scores, {} tokens", use.scores, use.tokens));
  }
}

void explainTemplate(const Directory& directory, const plan::ImportPlan& plan, Explanation& out) {
  const json::Value* inConfig = plan.model.config.get("chat_template");
  const bool configHasText = inConfig != nullptr && inConfig->isString() && !inConfig->text.empty();
  json::Value side;
  const std::string sideText = contentOf(directory.pathOf("tokenizer_config.json"));
  if (!sideText.empty()) {
    const Status status = json::parse(sideText.data(), sideText.size(), side);
    if (!status.ok() || !side.isObject()) {
      out.add(Id::SideBadJson, "tokenizer_config.json",
              status.ok() ? std::string("$ is ") + kindName(side.kind) : status.message());
      if (jsonFaultOf(sideText).cutShort) {
        out.add(Id::FilePartial, "tokenizer_config.json", "the text ends in the middle");
      }
      side = json::Value();
    }
  }
  const json::Value* inSide = side.get("chat_template");
  const std::string& kept = plan.model.tokenizer.chatTemplate;
  // config.json's template is taken by the tokenizer readers only.
  const bool fromConfig = configHasText && !out.tokenizer.winner.empty();
  if (!kept.empty()) out.chatTemplate.source = fromConfig ? "config.json" : "tokenizer_config.json";
  out.chatTemplate.bytes = kept.size();
  out.chatTemplate.stored = !kept.empty() && out.tokenizer.tokens > 0;
  for (const auto& [value, file] : {std::pair(inConfig, "config.json"), {inSide, "tokenizer_config.json"}}) {
    if (value == nullptr || value->isString() || value->kind == json::Kind::Null) continue;
    out.add(value->isArray() ? Id::TemplateList : Id::TemplateNotText, file,
            value->isArray() || value->isObject()
                ? fmt::format("{}: $.chat_template is {} of {} entries", file, kindName(value->kind),
                              value->items.size() + value->members.size())
                : fmt::format("{}: $.chat_template is {}", file, shortJson(*value)));
  }
  if (fromConfig && inSide != nullptr && inSide->isString() && !inSide->text.empty() &&
      inSide->text != kept) {
    out.add(Id::TemplateConfigWins, "tokenizer_config.json",
            fmt::format("$.chat_template of {} bytes", inSide->text.size()));
  }
  explainJinja(directory, kept, out);
  if (!out.chatTemplate.stored && (!kept.empty() || configHasText)) {
    out.add(Id::TemplateDropped, kept.empty() || fromConfig ? "config.json" : out.chatTemplate.source,
            fmt::format("$.chat_template of {} bytes", kept.empty() ? inConfig->text.size() : kept.size()));
  }
}

}  // namespace zel::explain
