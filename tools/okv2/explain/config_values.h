// The keys of config.json that an import reads as numbers, and what it writes for their values.
#pragma once

#include <cstdint>

#include "hf/hf_importer.h"
#include "okv2/explain/explanation.h"

namespace zel::explain {

// When the metadata item of a whole number is written (docs/metadata.md); judged before the number is cut.
enum class Written : std::uint8_t { Never, NotZero, Always, Above256 };

struct ReadKey {
  const char* key;
  json::Kind kind;
  bool integral;
  const char* item;         // of every architecture, or null; 64 bits for a whole number
  const char* headerField;  // of 32 bits, or null
  const char* gemma4Item;   // of 32 bits for a whole number, or null
  Written gemma4When;       // for whole numbers
  const char* replacedBy;   // the key that fills the same field and is read later, or null
};
inline constexpr ReadKey kReadKeys[] = {
    {"hidden_size", json::Kind::Number, true, "model.hidden_size", nullptr, "gemma4.embedding_length",
     Written::Always, nullptr},
    {"num_hidden_layers", json::Kind::Number, true, "model.num_layers", "the header's number of layers",
     "gemma4.block_count", Written::Always, nullptr},
    {"num_attention_heads", json::Kind::Number, true, "model.num_heads", nullptr,
     "gemma4.attention.head_count", Written::Always, nullptr},
    {"num_key_value_heads", json::Kind::Number, true, "model.num_kv_heads", nullptr,
     "gemma4.attention.head_count_kv", Written::Always, nullptr},
    {"intermediate_size", json::Kind::Number, true, "model.intermediate_size", nullptr,
     "gemma4.feed_forward_length", Written::Always, nullptr},
    {"vocab_size", json::Kind::Number, true, "model.vocab_size", "the header's vocabulary size", nullptr,
     Written::Never, nullptr},
    {"max_position_embeddings", json::Kind::Number, true, "model.context_length", nullptr,
     "gemma4.context_length", Written::Above256, nullptr},
    {"rope_theta", json::Kind::Number, false, "model.rope_theta", nullptr, "gemma4.rope.freq_base",
     Written::Never, nullptr},
    {"rms_norm_eps", json::Kind::Number, false, "model.rms_norm_eps", nullptr,
     "gemma4.attention.layer_norm_rms_epsilon", Written::Never, nullptr},
    {"final_logit_softcapping", json::Kind::Number, false, nullptr, nullptr, "gemma4.final_logit_softcapping",
     Written::Never, "attn_logit_softcapping"},
    {"attn_logit_softcapping", json::Kind::Number, false, nullptr, nullptr, "gemma4.final_logit_softcapping",
     Written::Never, nullptr},
    {"head_dim", json::Kind::Number, true, nullptr, nullptr, "gemma4.attention.key_length", Written::NotZero,
     "key_length"},
    {"key_length", json::Kind::Number, true, nullptr, nullptr, "gemma4.attention.key_length",
     Written::NotZero, nullptr},
    {"key_length_swa", json::Kind::Number, true, nullptr, nullptr, "gemma4.attention.key_length_swa",
     Written::NotZero, nullptr},
    {"embedding_length_per_layer_input", json::Kind::Number, true, nullptr, nullptr,
     "gemma4.embedding_length_per_layer_input", Written::NotZero, nullptr},
    {"shared_kv_layers", json::Kind::Number, true, nullptr, nullptr, "gemma4.attention.shared_kv_layers",
     Written::NotZero, nullptr},
    {"sliding_window", json::Kind::Number, true, nullptr, nullptr, "gemma4.attention.sliding_window",
     Written::NotZero, nullptr},
    {"swa_pattern", json::Kind::Array, false, nullptr, nullptr, "gemma4.swa_pattern", Written::Never,
     nullptr},
};

// Null is how configurations write that they say nothing.
[[nodiscard]] inline bool isGiven(const json::Value* value) {
  return value != nullptr && value->kind != json::Kind::Null;
}

// Lists the keys of `model.config` that are used, and names the values that an import does not take as they
// are. `out.vocabSize` is set.
void explainConfigValues(const HfImporter& model, Explanation& out);

}  // namespace zel::explain
