// The tokenizer: which file won, and why the other did not.
#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "okv2/explain/special_ids.h"
#include "okv2/explain/steps.h"
#include "okv2/explain/tokenizer_walk.h"

namespace zel::explain {
namespace {

constexpr char kModel[] = "tokenizer.model";

std::string at(const Place& place) {
  return fmt::format("{}: {} is {}, {} (byte {})", kTokenizerJson, place.path, place.kind, place.value,
                     place.offset);
}

void refusedJson(const std::string& message, const TokenizerJsonWalk& walk, Explanation& out) {
  const std::string because = fmt::format(" [{}]", message);
  const auto add = [&](Id id, const std::string& detail) { out.add(id, kTokenizerJson, detail + because); };
  if (message == "hf: bad tokenizer.json") {
    add(Id::TokenizerJsonBadJson,
        fmt::format("{}: byte {}: {}", kTokenizerJson, walk.fault.offset, walk.fault.message));
    if (walk.fault.cutShort) out.add(Id::FilePartial, kTokenizerJson, "the text ends in the middle");
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

void specialIds(const TokenizerData& data, Explanation& out) {
  const std::pair<const char*, std::int32_t> ids[] = {
      {"bos", data.bosId}, {"eos", data.eosId}, {"unk", data.unkId}, {"pad", data.padId}};
  for (const auto& [name, id] : ids) {
    if (id >= -1 && id < static_cast<std::int64_t>(data.tokens.size())) continue;
    out.add(Id::TokenizerSpecialIdOutside, name,
            fmt::format("{} id {} with {} tokens", name, id, data.tokens.size()));
  }
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
  const bool areRead = out.tokenizer.winner == kTokenizerJson;
  for (const auto& [key, field] : kSpecialIds) {
    const json::Value* id = givenSpecialId(config, key);
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

// True when tokenizer.json is the tokenizer.
bool explainJson(const Directory& directory, const HfImporter& model, Explanation& out) {
  const std::string text = contentOf(directory.pathOf(kTokenizerJson));
  if (text.empty()) return false;
  const TokenizerJsonWalk walk = walkTokenizerJson(text);
  TokenizerData data;
  if (const Status status = readTokenizerJson(text, model.config, data); !status.ok()) {
    refusedJson(status.message(), walk, out);
    return false;
  }
  out.tokenizer.winner = kTokenizerJson;
  explainAddedTokens(directory, model.tokenizer, &walk, out);
  explainSpecialTokens(directory, model, walk.unkToken, out);
  if (!walk.ignoredParts.empty()) out.add(Id::TokenizerJsonPartsIgnored, kTokenizerJson, walk.ignoredParts);
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

}  // namespace

void explainTokenizer(const Directory& directory, const plan::ImportPlan& plan, Explanation& out) {
  const TokenizerData& data = plan.model.tokenizer;
  TokenizerUse& use = out.tokenizer;
  use.tokens = data.tokens.size();
  use.scores = data.scores.size();
  use.merges = data.merges.size();
  use.special = static_cast<std::uint64_t>(std::count(data.types.begin(), data.types.end(), 3));
  use.bos = data.bosId, use.eos = data.eosId, use.unk = data.unkId, use.pad = data.padId;
  if (explainJson(directory, plan.model, out)) {
    if (directory.has(kModel)) out.add(Id::TokenizerModelIgnored, kModel);
  } else if (explainModel(directory, plan.model.config, out)) {
    explainAddedTokens(directory, data, nullptr, out);
    explainSpecialTokens(directory, plan.model, "", out);
  }
  configIds(plan.model.config, data, out);
  if (!directory.has(kTokenizerJson) && !directory.has(kModel)) out.add(Id::TokenizerNone, kTokenizerJson);
  if (use.tokens == 0) {
    out.add(
        Id::TokenizerEmpty, use.winner.empty() ? kTokenizerJson : use.winner,
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

}  // namespace zel::explain
