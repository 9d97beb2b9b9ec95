#include "okv2/explain/config_places.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "okv2/explain/config_values.h"
#include "okv2/explain/special_ids.h"
#include "okv2/explain/steps.h"

namespace zel::explain {
namespace {

using json::Value;

// Spellings of other architectures and the key that is read instead.
struct OtherSpelling {
  const char* key;  // a full stop leads into an object
  const char* read;
};
constexpr OtherSpelling kOtherSpellings[] = {
    {"n_embd", "hidden_size"},
    {"n_embed", "hidden_size"},
    {"d_model", "hidden_size"},
    {"dim", "hidden_size"},
    {"hidden_dim", "hidden_size"},
    {"n_layer", "num_hidden_layers"},
    {"n_layers", "num_hidden_layers"},
    {"num_layers", "num_hidden_layers"},
    {"encoder_layers", "num_hidden_layers"},
    {"n_head", "num_attention_heads"},
    {"n_heads", "num_attention_heads"},
    {"num_heads", "num_attention_heads"},
    {"decoder_attention_heads", "num_attention_heads"},
    {"encoder_attention_heads", "num_attention_heads"},
    {"n_head_kv", "num_key_value_heads"},
    {"n_kv_heads", "num_key_value_heads"},
    {"num_kv_heads", "num_key_value_heads"},
    {"multi_query_group_num", "num_key_value_heads"},
    {"attn_config.kv_n_heads", "num_key_value_heads"},
    {"n_inner", "intermediate_size"},
    {"d_ff", "intermediate_size"},
    {"ffn_dim", "intermediate_size"},
    {"ffn_hidden_size", "intermediate_size"},
    {"inner_hidden_size", "intermediate_size"},
    {"ffn_config.ffn_hidden_size", "intermediate_size"},
    {"decoder_ffn_dim", "intermediate_size"},
    {"encoder_ffn_dim", "intermediate_size"},
    {"n_positions", "max_position_embeddings"},
    {"n_ctx", "max_position_embeddings"},
    {"seq_length", "max_position_embeddings"},
    {"max_seq_len", "max_position_embeddings"},
    {"max_sequence_length", "max_position_embeddings"},
    {"padded_vocab_size", "vocab_size"},
    {"n_vocab", "vocab_size"},
    {"rope_parameters.rope_theta", "rope_theta"},
    {"rope_parameters.full_attention.rope_theta", "rope_theta"},
    {"attn_config.rope_theta", "rope_theta"},
    {"rotary_emb_base", "rope_theta"},
    {"rope_base", "rope_theta"},
    {"layer_norm_eps", "rms_norm_eps"},
    {"layer_norm_epsilon", "rms_norm_eps"},
    {"layernorm_epsilon", "rms_norm_eps"},
    {"norm_epsilon", "rms_norm_eps"},
    {"norm_eps", "rms_norm_eps"},
};

constexpr const char* kTextModels[] = {
    "text_config",    "text_config_dict",           "llm_config", "language_config", "decoder",
    "thinker_config", "thinker_config.text_config",
};
constexpr const char* kOtherModels[] = {"encoder", "vision_config", "audio_config"};

// Whether the field that `key` fills ends up with something in it.
bool fillsField(const Value& config, std::string_view key) {
  const Value* value = memberAt(config, key);
  return value != nullptr && ((value->isNumber() && value->number != 0) || !value->items.empty());
}

// The value of another spelling, unless the model has no use for it: MPT keeps the base of rotary positions
// beside the switch that turns them off.
const Value* spelled(const Value& config, const OtherSpelling& row) {
  const Value* value = memberAt(config, row.key);
  if (!isGiven(value) || value->isObject()) return nullptr;
  const Value* rotary = memberAt(config, "attn_config.rope");
  const bool isOff = rotary != nullptr && rotary->isBool() && !rotary->boolean;
  return isOff && std::string_view(row.key) == "attn_config.rope_theta" ? nullptr : value;
}

// What a field that `key` does not fill ends up with. Only vocab_size gets a value from elsewhere.
struct Unfilled {
  std::string becomes;  // "stays 0"
  bool isLost;
};
Unfilled unfilled(std::string_view key, const Value& given, const Explanation& out) {
  if (key != "vocab_size" || out.vocabSize == 0) return {"stays 0", true};
  return {fmt::format("becomes the number of tokens, {}", out.vocabSize),
          !given.isNumber() || given.number != static_cast<double>(out.vocabSize)};
}

void otherSpellings(const Value& config, Explanation& out) {
  for (const OtherSpelling& row : kOtherSpellings) {
    const Value* value = spelled(config, row);
    if (value == nullptr || fillsField(config, row.read)) continue;
    const Unfilled field = unfilled(row.read, *value, out);
    if (!field.isLost) continue;
    out.add(Id::ConfigKeyNotRead, row.key,
            fmt::format("config.json: $.{} is {}; $.{} is read, and {}", row.key, shortJson(*value), row.read,
                        field.becomes));
  }
}

// The values of one nested object that reach no field, as one text.
class Lost {
 public:
  explicit Lost(std::string path) : path_(std::move(path)) {}
  void add(const char* key, const Value& value) {
    text_ += fmt::format("{}$.{}.{} is {}", text_.empty() ? "" : ", ", path_, key, shortJson(value));
  }
  void report(Explanation& out) const {
    if (!text_.empty()) out.add(Id::ConfigNested, path_, "config.json: " + text_);
  }

 private:
  std::string path_, text_;
};

void readKeysOf(const Value& nested, const Value& config, const Explanation& out, Lost& lost) {
  for (const ReadKey& row : kReadKeys) {
    const Value* value = nested.get(row.key);
    if (isGiven(value) && !fillsField(config, row.key) && unfilled(row.key, *value, out).isLost)
      lost.add(row.key, *value);
  }
}

void otherSpellingsOf(const Value& nested, const Value& config, const Explanation& out, Lost& lost) {
  for (const OtherSpelling& row : kOtherSpellings) {
    const Value* value = spelled(nested, row);
    if (value != nullptr && !isGiven(nested.get(row.read)) && !fillsField(config, row.read) &&
        unfilled(row.read, *value, out).isLost)
      lost.add(row.key, *value);
  }
}

void specialIdsOf(const Value& nested, const HfImporter& model, Lost& lost) {
  if (model.tokenizer.tokens.empty()) return;
  for (const auto& [key, field] : kSpecialIds) {
    const Value* value = nested.get(key);
    // A negative id stands for none.
    if (value == nullptr || !value->isNumber() || value->number < 0 || isGiven(model.config.get(key)))
      continue;
    if (value->number != model.tokenizer.*field) lost.add(key, *value);
  }
}

}  // namespace

const Value* memberAt(const Value& object, std::string_view path) {
  const Value* at = &object;
  while (at != nullptr && !path.empty()) {
    const std::size_t stop = std::min(path.find('.'), path.size());
    at = at->get(std::string(path.substr(0, stop)).c_str());
    path.remove_prefix(std::min(stop + 1, path.size()));
  }
  return at;
}

std::vector<TextModel> nestedTextModels(const Value& config) {
  std::vector<TextModel> out;
  for (const char* path : kTextModels) {
    const Value* nested = memberAt(config, path);
    if (nested != nullptr && nested->isObject()) out.push_back({std::string(path) + ".", nested});
  }
  return out;
}

bool isGivenElsewhere(const Value& config, std::string_view key) {
  const auto isSpelledIn = [&](const Value& object) {
    return std::any_of(std::begin(kOtherSpellings), std::end(kOtherSpellings), [&](const OtherSpelling& row) {
      return row.read == key && spelled(object, row) != nullptr;
    });
  };
  const std::vector<TextModel> nested = nestedTextModels(config);
  return isSpelledIn(config) || std::any_of(nested.begin(), nested.end(), [&](const TextModel& model) {
           return isGiven(memberAt(*model.config, key)) || isSpelledIn(*model.config);
         });
}

void explainConfigPlaces(const HfImporter& model, Explanation& out) {
  otherSpellings(model.config, out);
  for (const char* path : kTextModels) {
    const Value* nested = memberAt(model.config, path);
    if (nested == nullptr || !nested->isObject()) continue;
    Lost lost(path);
    readKeysOf(*nested, model.config, out, lost);
    otherSpellingsOf(*nested, model.config, out, lost);
    specialIdsOf(*nested, model, lost);
    lost.report(out);
  }
  for (const char* path : kOtherModels) {
    const Value* nested = model.config.get(path);
    if (nested == nullptr) continue;
    Lost lost(path);
    readKeysOf(*nested, model.config, out, lost);
    lost.report(out);
  }
}

}  // namespace zel::explain
