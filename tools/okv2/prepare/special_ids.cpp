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

// A text, or an object with the text as "content".
const std::string* contentOf(const Json& file, const char* key) {
  const Json* member = findMember(file, key);
  if (member == nullptr) return nullptr;
  if (member->is_string()) return &member->get_ref<const std::string&>();
  return textMember(*member, "content");
}

// An id; the end-of-sequence id may be a list, of which the first counts.
std::optional<std::int64_t> idIn(const Json& file, const char* key) {
  const Json* member = findMember(file, key);
  if (member == nullptr) return std::nullopt;
  if (member->is_array() && std::string_view(key) == "eos_token_id")
    return member->empty() ? std::nullopt : wholeNumber(member->front());
  return wholeNumber(*member);
}

class Settler {
 public:
  Settler(const ModelTexts& texts, const Tokenizer& tokenizer) : texts_(texts), tokenizer_(tokenizer) {}

  // By what the tokenizer's own files say.
  bool byText(const Role& role, Settled& out) const {
    const bool mapFirst = findMember(texts_.tokenizerConfig.root, "added_tokens_decoder") == nullptr;
    const JsonFile* first = mapFirst ? &texts_.specialTokensMap : &texts_.tokenizerConfig;
    const JsonFile* second = mapFirst ? &texts_.tokenizerConfig : &texts_.specialTokensMap;
    for (const JsonFile* file : {first, second}) {
      const std::string* text = contentOf(file->root, role.token);
      if (text == nullptr) continue;
      const auto known = tokenizer_.idOf.find(*text);
      if (known == tokenizer_.idOf.end()) return false;  // a token that the vocabulary does not hold
      out = {known->second, fmt::format("{} names \"{}\" as {}", file->name, *text, role.token)};
      return true;
    }
    return false;
  }

  bool byModel(const Role& role, Settled& out) const {
    if (role.field != &SpecialIds::unk || tokenizer_.modelUnk < 0) return false;
    out = {tokenizer_.modelUnk, "the tokenizer's model names it"};
    return true;
  }

  bool byId(const Json& file, const std::string& where, const Role& role, Settled& out) const {
    const std::optional<std::int64_t> id = idIn(file, role.id);
    if (!id || *id < 0 || *id >= tokenizer_.size) return false;
    out = {*id, fmt::format("{} has {}", where, role.id)};
    return true;
  }

  bool byNestedConfig(const Role& role, Settled& out) const {
    std::string path;
    const Json* nested = nestedTextConfig(texts_.config.root, path);
    return nested != nullptr && byId(*nested, path + " of config.json", role, out);
  }

 private:
  const ModelTexts& texts_;
  const Tokenizer& tokenizer_;
};

void settleForJson(ModelTexts& texts, const Tokenizer& tokenizer, Changes& changes) {
  for (const Role& role : kRoles) {
    if (idIn(texts.config.root, role.id)) continue;  // given
    const Settler settler(texts, tokenizer);
    Settled settled;
    const bool found = settler.byText(role, settled) || settler.byModel(role, settled) ||
                       settler.byId(texts.generationConfig.root, "generation_config.json", role, settled) ||
                       (tokenizer.ids.*role.field < 0 && settler.byNestedConfig(role, settled));
    const std::int64_t before = tokenizer.ids.*role.field;
    if (!found || settled.id == before) continue;
    texts.config.set(role.id, settled.id);
    changes.push_back({"config.json", fmt::format("$.{}", role.id), before < 0 ? "" : std::to_string(before),
                       std::to_string(settled.id), settled.why,
                       explain::rowOf(explain::Id::TokenizerSpecialIdOutside).name});
  }
}

void settleForModel(const ModelTexts& texts, Tokenizer& tokenizer, Changes& changes) {
  const Settler settler(texts, tokenizer);
  SpecialIds found;
  for (const Role& role : kRoles) {
    if (tokenizer.ids.*role.field >= 0) continue;
    Settled settled;
    if (!settler.byText(role, settled) &&
        !settler.byId(texts.generationConfig.root, "generation_config.json", role, settled) &&
        !settler.byId(texts.config.root, "config.json", role, settled) &&
        !settler.byNestedConfig(role, settled)) {
      continue;
    }
    found.*role.field = settled.id;
    changes.push_back({"tokenizer.model", fmt::format("{} in the settings", role.id), "",
                       std::to_string(settled.id), settled.why,
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
