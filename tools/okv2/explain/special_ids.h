// The special ids of a model and the members that give them.
#pragma once

#include <cstdint>
#include <string_view>

#include "container/tokenizer_data.h"
#include "hf/json.h"

namespace zel::explain {

struct SpecialId {
  const char* key;  // of config.json, which a tokenizer.json takes and a tokenizer.model does not
  std::int32_t TokenizerData::*id;
};
inline constexpr SpecialId kSpecialIds[] = {{"bos_token_id", &TokenizerData::bosId},
                                            {"eos_token_id", &TokenizerData::eosId},
                                            {"unk_token_id", &TokenizerData::unkId},
                                            {"pad_token_id", &TokenizerData::padId}};

// A special id as a tokenizer.json takes it: of a list the first.
[[nodiscard]] inline const json::Value* givenSpecialId(const json::Value& config, const char* key) {
  const json::Value* value = config.get(key);
  const bool isList = value != nullptr && value->isArray() && std::string_view(key) == "eos_token_id";
  if (isList) return value->items.empty() ? nullptr : &value->items.front();
  return value == nullptr || value->kind == json::Kind::Null ? nullptr : value;
}

}  // namespace zel::explain
