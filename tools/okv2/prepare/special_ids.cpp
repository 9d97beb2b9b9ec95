#include "okv2/prepare/special_ids.h"

#include <fmt/format.h>

#include <optional>
#include <string_view>

#include "okv2/explain/finding_table.h"
#include "okv2/prepare/sentencepiece_model.h"

namespace zel::tool::prepare {
namespace {

struct Role {
  const char* token;  // member of tokenizer_config.json and special_tokens_map.json
  const char* id;     // member of config.json and generation_config.json
  std::int64_t SpecialIds::*field;
};
constexpr Role kRoles[] = {
    {"bos_token", "bos_token_id", &SpecialIds::bos},
    {"eos_token", "eos_token_id", &SpecialIds::eos},
    {"unk_token", "unk_token_id", &SpecialIds::unk},
    {"pad_token", "pad_token_id", &SpecialIds::pad},
};

struct Settled {
  std::int64_t id = -1;
  std::string why;
};

// The id that a member gives, if it is a possible one: a negative one stands for none, as null does. The
// end-of-sequence id may be a list, of which the first possible one counts.
std::optional<std::int64_t> idIn(const Json* member, std::string_view key) {
  if (member == nullptr) return std::nullopt;
  if (member->is_array() && key == "eos_token_id") {
    const Json* first = firstTokenId(*member);
    return first == nullptr ? std::nullopt : wholeNumber(*first);
  }
  const std::optional<std::int64_t> id = wholeNumber(*member);
  return id && *id >= 0 ? id : std::nullopt;
}

// What an import would store: a whole number in config.json, even a negative one, outranks what the tokenizer
// says of itself.
std::int64_t storedId(const Json* given, std::string_view key, std::int64_t own) {
  if (given == nullptr) return own;
  if (given->is_array() && key == "eos_token_id")
    return given->empty() ? own : wholeNumber(given->front()).value_or(own);
  return wholeNumber(*given).value_or(own);
}

class Settler {
 public:
  Settler(const ModelTexts& texts, const Tokenizer& tokenizer) : texts_(texts), tokenizer_(tokenizer) {}

  // By what the tokenizer's own files say.
  bool byText(const Role& role, Settled& out) const {
    const JsonFile* file = fileThatNames(texts_, role.token);
    if (file == nullptr) return false;
    const std::string& text = *tokenText(*file, role.token);
    const auto known = tokenizer_.idOf.find(text);
    if (known == tokenizer_.idOf.end()) return false;  // a token that the vocabulary does not hold
    out = {known->second, fmt::format("{} names \"{}\" as {}", file->name, text, role.token)};
    return true;
  }

  bool byModel(const Role& role, Settled& out) const {
    if (role.field != &SpecialIds::unk || tokenizer_.modelUnk < 0) return false;
    out = {tokenizer_.modelUnk, "the tokenizer's model names it"};
    return true;
  }

  bool byId(const Json* member, const std::string& where, const Role& role, Settled& out) const {
    const std::optional<std::int64_t> id = idIn(member, role.id);
    if (!id || *id >= tokenizer_.size) return false;
    out = {*id, fmt::format("{} has {}", where, role.id)};
    return true;
  }

  bool byFile(const JsonFile& file, const Role& role, Settled& out) const {
    return byId(file.find(role.id), file.name, role, out);
  }

  bool byNestedConfig(const Role& role, Settled& out) const {
    std::string path;
    const Json* nested = nestedTextConfig(texts_.config.published(), path);
    return nested != nullptr && byId(findMember(*nested, role.id), path + " of config.json", role, out);
  }

 private:
  const ModelTexts& texts_;
  const Tokenizer& tokenizer_;
};

void settleForJson(ModelTexts& texts, const Tokenizer& tokenizer, Changes& changes) {
  for (const Role& role : kRoles) {
    const Json* given = texts.config.find(role.id);
    if (idIn(given, role.id)) continue;
    const std::int64_t before = storedId(given, role.id, tokenizer.ids.*role.field);
    const Settler settler(texts, tokenizer);
    Settled settled;
    const bool found = settler.byText(role, settled) || settler.byModel(role, settled) ||
                       settler.byFile(texts.generationConfig, role, settled) ||
                       (before < 0 && settler.byNestedConfig(role, settled));
    if (!found || settled.id == before) continue;
    const std::string from = given != nullptr ? given->dump() : before < 0 ? "" : std::to_string(before);
    changes.push_back({"config.json", fmt::format("$.{}", role.id), from, std::to_string(settled.id),
                       settled.why, explain::rowOf(explain::Id::TokenizerSpecialIdOutside).name});
    texts.config.set(role.id, settled.id);
  }
}

void settleForModel(const ModelTexts& texts, Tokenizer& tokenizer, Changes& changes) {
  const Settler settler(texts, tokenizer);
  SpecialIds found;
  for (const Role& role : kRoles) {
    const std::int64_t before = tokenizer.ids.*role.field;
    Settled settled;
    if (!settler.byText(role, settled) &&
        (before >= 0 ||
         !(settler.byFile(texts.generationConfig, role, settled) ||
           settler.byFile(texts.config, role, settled) || settler.byNestedConfig(role, settled)))) {
      continue;
    }
    if (settled.id == before) continue;
    found.*role.field = settled.id;
    changes.push_back({"tokenizer.model", fmt::format("{} in the settings", role.id),
                       before < 0 ? "" : std::to_string(before), std::to_string(settled.id), settled.why,
                       explain::rowOf(explain::Id::TokenizerModelFieldNumbers).name});
  }
  if (found.bos >= 0 || found.eos >= 0 || found.unk >= 0 || found.pad >= 0) {
    appendSpecialIds(found, tokenizer.bytes);
  }
}

}  // namespace

void settleSpecialIds(ModelTexts& texts, Tokenizer& tokenizer, Changes& changes) {
  if (tokenizer.file == "tokenizer.json") {
    settleForJson(texts, tokenizer, changes);
  } else if (tokenizer.file == "tokenizer.model" && !tokenizer.isKept) {
    settleForModel(texts, tokenizer, changes);
  }
}

}  // namespace zel::tool::prepare
