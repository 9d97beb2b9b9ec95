#include <algorithm>
#include <bit>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "hf/hf_importer.h"
#include "hf/json.h"
#include "promises/promises.h"
#include "promises/same_tokenizer.h"

namespace zel::fuzz {
namespace {

// ---- the plain reader: over the tree, in the order of the rules

bool isInteger(const json::Value* value, std::int64_t& out) {
  if (value == nullptr || !value->isNumber()) return false;
  const double number = value->number;
  if (!(number >= -0x1p63 && number < 0x1p63)) return false;
  out = std::int64_t(number);
  return double(out) == number;
}

Status readPlainVocab(const json::Value& model, TokenizerData& out) {
  const json::Value* const vocab = model.get("vocab");
  if (vocab == nullptr || !vocab->isObject()) return corrupted("hf: tokenizer.json has no vocab");
  std::vector<std::pair<std::int64_t, std::string>> pairs;
  for (const auto& [text, value] : vocab->members) {
    std::int64_t id = 0;
    if (!isInteger(&value, id) || id < 0) return corrupted("hf: bad vocab id");
    pairs.emplace_back(id, text);
  }
  std::sort(pairs.begin(), pairs.end());
  for (std::size_t k = 0; k < pairs.size(); ++k) {
    if (pairs[k].first != std::int64_t(k)) return corrupted("hf: vocab ids not contiguous");
    out.tokens.push_back(pairs[k].second);
  }
  return {};
}

Status readPlainMerges(const json::Value& model, TokenizerData& out) {
  const json::Value* const merges = model.get("merges");
  if (merges == nullptr) return {};
  if (!merges->isArray()) return corrupted("hf: bad merges");
  for (const json::Value& merge : merges->items) {
    if (!merge.isString()) return corrupted("hf: bad merge entry");
    out.merges.push_back(merge.text);
  }
  return {};
}

void readPlainAddedToken(const json::Value& element, TokenizerData& out) {
  std::int64_t id = 0;
  if (!element.isObject() || !isInteger(element.get("id"), id)) return;
  const json::Value* const contentMember = element.get("content");
  const std::string content =
      contentMember != nullptr && contentMember->isString() ? contentMember->text : "";
  const json::Value* const specialMember = element.get("special");
  const bool special = specialMember == nullptr || (specialMember->isBool() && specialMember->boolean);
  if (id >= 0 && std::uint64_t(id) < out.types.size()) out.types[std::size_t(id)] = special ? 3 : 1;
  if (content == "<bos>" || content == "<s>") out.bosId = std::int32_t(id);
  if (content == "<eos>" || content == "</s>") out.eosId = std::int32_t(id);
  if (content == "<unk>") out.unkId = std::int32_t(id);
  if (content == "<pad>") out.padId = std::int32_t(id);
}

void applyPlainConfig(const json::Value& config, TokenizerData& out) {
  std::int64_t id = 0;
  if (isInteger(config.get("bos_token_id"), id)) out.bosId = std::int32_t(id);
  if (isInteger(config.get("unk_token_id"), id)) out.unkId = std::int32_t(id);
  if (isInteger(config.get("pad_token_id"), id)) out.padId = std::int32_t(id);
  const json::Value* eos = config.get("eos_token_id");
  if (eos != nullptr && eos->isArray()) eos = eos->items.empty() ? nullptr : &eos->items[0];
  if (isInteger(eos, id)) out.eosId = std::int32_t(id);
  const json::Value* const chat = config.get("chat_template");
  if (chat != nullptr && chat->isString()) out.chatTemplate = chat->text;
}

void readPlainScores(const json::Value& model, TokenizerData& out) {
  const json::Value* const scores = model.get("scores");
  if (scores == nullptr || !scores->isArray()) return;
  for (const json::Value& score : scores->items) {
    const json::Value* number = &score;
    if (score.isArray() && !score.items.empty()) number = &score.items[0];
    out.scores.push_back(number->isNumber() ? float(number->number) : 0.0F);
  }
}

Status readPlainly(std::string_view text, const json::Value& config, TokenizerData& out) {
  json::Value root;
  if (!json::parse(text.data(), text.size(), root).ok()) return corrupted("hf: bad tokenizer.json");
  const json::Value* const model = root.get("model");
  if (model == nullptr || !model->isObject()) return corrupted("hf: tokenizer.json has no model object");
  ZEL_RETURN_IF_ERROR(readPlainVocab(*model, out));
  ZEL_RETURN_IF_ERROR(readPlainMerges(*model, out));
  out.types.assign(out.tokens.size(), 1);
  if (const json::Value* const added = root.get("added_tokens"); added != nullptr) {
    if (!added->isArray()) return corrupted("hf: bad added_tokens");
    for (const json::Value& element : added->items)
      readPlainAddedToken(element, out);
  }
  applyPlainConfig(config, out);
  readPlainScores(*model, out);
  return {};
}

}  // namespace

void checkTokenizerJson(std::string_view input) {
  const std::size_t nul = input.find('\0');
  const std::string_view text = input.substr(0, nul);
  json::Value config;
  if (nul != std::string_view::npos) {
    const std::string_view rest = input.substr(nul + 1);
    if (!json::parse(rest.data(), rest.size(), config).ok()) config = json::Value();
  }

  TokenizerData expected;
  const Status plain = readPlainly(text, config, expected);
  TokenizerData actual;
  actual.merges = {"untouched"};
  const Status status = readTokenizerJson(text, config, actual);
  promiseKnownStatus(status, {Code::Corrupted}, "hf: ");
  promiseSame(status, plain);
  if (!status.ok()) {
    promise(actual.tokens.empty() && actual.merges == std::vector<std::string>{"untouched"},
            "a failure leaves the tokenizer as it was");
    return;
  }
  promiseSame(actual, expected);
  promise(actual.types.size() == actual.tokens.size(), "every token has a type");
}

}  // namespace zel::fuzz
