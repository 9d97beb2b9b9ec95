// config.json: which keys are read, which look as if they should be, and what becomes of them.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <iterator>
#include <string_view>

#include "hf/read_file.h"
#include "okv2/explain/config_values.h"
#include "okv2/explain/steps.h"
#include "okv2/explain/tokenizer_walk.h"

namespace zel::explain {
namespace {

using json::Kind;
using json::Value;

// Spellings of other architectures and the key that is read instead.
struct OtherSpelling {
  const char* key;
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
    {"n_head", "num_attention_heads"},
    {"n_heads", "num_attention_heads"},
    {"num_heads", "num_attention_heads"},
    {"decoder_attention_heads", "num_attention_heads"},
    {"encoder_attention_heads", "num_attention_heads"},
    {"n_head_kv", "num_key_value_heads"},
    {"n_kv_heads", "num_key_value_heads"},
    {"num_kv_heads", "num_key_value_heads"},
    {"multi_query_group_num", "num_key_value_heads"},
    {"n_inner", "intermediate_size"},
    {"d_ff", "intermediate_size"},
    {"ffn_dim", "intermediate_size"},
    {"ffn_hidden_size", "intermediate_size"},
    {"decoder_ffn_dim", "intermediate_size"},
    {"encoder_ffn_dim", "intermediate_size"},
    {"n_positions", "max_position_embeddings"},
    {"n_ctx", "max_position_embeddings"},
    {"seq_length", "max_position_embeddings"},
    {"max_seq_len", "max_position_embeddings"},
    {"max_sequence_length", "max_position_embeddings"},
    {"padded_vocab_size", "vocab_size"},
    {"n_vocab", "vocab_size"},
    {"rotary_emb_base", "rope_theta"},
    {"rope_base", "rope_theta"},
    {"layer_norm_eps", "rms_norm_eps"},
    {"layer_norm_epsilon", "rms_norm_eps"},
    {"layernorm_epsilon", "rms_norm_eps"},
    {"norm_epsilon", "rms_norm_eps"},
    {"norm_eps", "rms_norm_eps"},
};

constexpr const char* kNestedObjects[] = {
    "text_config",    "text_config_dict", "llm_config",    "language_config", "decoder",
    "thinker_config", "encoder",          "vision_config", "audio_config",
};
// The first of them describe the text model.
constexpr std::size_t kTextModels = 6;

bool isGiven(const Value* value) { return value != nullptr && value->kind != Kind::Null; }

// Whether the field that `key` fills ends up with something in it.
bool fillsField(const Value& config, std::string_view key) {
  const Value* value = config.get(std::string(key).c_str());
  return value != nullptr && value->isNumber() && value->number != 0;
}

// What a field that `key` does not fill ends up with. Only vocab_size gets a value from elsewhere.
struct Unfilled {
  std::string becomes;  // "stays 0"
  bool isLost;
};
Unfilled unfilled(const char* key, const Value& given, const Explanation& out) {
  if (std::string_view(key) != "vocab_size" || out.vocabSize == 0) return {"stays 0", true};
  return {fmt::format("becomes the number of tokens, {}", out.vocabSize),
          !given.isNumber() || given.number != static_cast<double>(out.vocabSize)};
}

void otherSpellings(const Value& config, Explanation& out) {
  for (const OtherSpelling& row : kOtherSpellings) {
    const Value* value = config.get(row.key);
    if (!isGiven(value) || fillsField(config, row.read)) continue;
    const Unfilled field = unfilled(row.read, *value, out);
    if (!field.isLost) continue;
    out.add(Id::ConfigKeyNotRead, row.key,
            fmt::format("config.json: $.{} is {}; $.{} is read, and {}", row.key, shortJson(*value), row.read,
                        field.becomes));
  }
}

void nestedObjects(const Value& config, Explanation& out) {
  for (const char* name : kNestedObjects) {
    const Value* nested = config.get(name);
    if (nested == nullptr || !nested->isObject()) continue;
    std::string lost;
    for (const ReadKey& row : kReadKeys) {
      const Value* value = nested->get(row.key);
      if (!isGiven(value) || fillsField(config, row.key) || !unfilled(row.key, *value, out).isLost) continue;
      lost += fmt::format("{}$.{}.{} is {}", lost.empty() ? "" : ", ", name, row.key, shortJson(*value));
    }
    if (!lost.empty()) out.add(Id::ConfigNested, name, "config.json: " + lost);
  }
}

void unreadSettings(const Value& config, Explanation& out) {
  for (const char* key : {"rope_scaling", "rope_parameters"}) {
    if (const Value* value = config.get(key); isGiven(value)) {
      out.add(Id::ConfigRopeScaling, key, fmt::format("config.json: $.{} is {}", key, shortJson(*value)));
    }
  }
  for (const char* key : {"quantization_config", "compression_config"}) {
    if (const Value* value = config.get(key); isGiven(value)) {
      out.add(Id::ConfigQuantization, key, fmt::format("config.json: $.{} is {}", key, shortJson(*value)));
    }
  }
  if (const Value* eos = config.get("eos_token_id");
      eos != nullptr && eos->isArray() && (eos->items.size() != 1 || !eos->items[0].isNumber())) {
    out.add(Id::ConfigEosList, "eos_token_id", "config.json: $.eos_token_id is " + shortJson(*eos));
  }
  const auto both = [&](Id id, const char* lost, const char* kept) {
    const Value* first = config.get(lost);
    const Value* second = config.get(kept);
    if (first == nullptr || second == nullptr || !first->isNumber() || !second->isNumber() ||
        first->number == second->number)
      return;
    out.add(id, lost,
            fmt::format("config.json: $.{} is {}, and $.{} replaces it by {}", lost, shortJson(*first), kept,
                        shortJson(*second)));
  };
  both(Id::ConfigSoftcapOverwritten, "final_logit_softcapping", "attn_logit_softcapping");
  both(Id::ConfigHeadDimOverwritten, "head_dim", "key_length");
}

// The sizes that every reader of a container asks for.
struct Size {
  const char* key;
  std::int64_t HfImporter::*field;
};
constexpr Size kSizes[] = {
    {"hidden_size", &HfImporter::hiddenSize},
    {"num_hidden_layers", &HfImporter::numLayers},
    {"num_attention_heads", &HfImporter::numHeads},
    {"num_key_value_heads", &HfImporter::numKvHeads},
    {"intermediate_size", &HfImporter::intermediateSize},
    {"vocab_size", &HfImporter::vocabSize},
};

// Whether some other finding tells already that the value is there, where it is not read.
bool isGivenElsewhere(const Value& config, std::string_view key) {
  for (const OtherSpelling& row : kOtherSpellings) {
    if (row.read == key && isGiven(config.get(row.key))) return true;
  }
  return std::any_of(kNestedObjects, kNestedObjects + kTextModels, [&](const char* name) {
    const Value* nested = config.get(name);
    return nested != nullptr && isGiven(nested->get(std::string(key).c_str()));
  });
}

void missingSizes(const HfImporter& model, Explanation& out) {
  for (const Size& size : kSizes) {
    if (model.*size.field != 0 || isGivenElsewhere(model.config, size.key)) continue;
    out.add(Id::ConfigSizeMissing, size.key,
            fmt::format("config.json: $.{} gives no number, and stays 0", size.key));
  }
}

// A setting of the text model, wherever the description is.
const Value* gemma4Setting(const Value& config, std::initializer_list<const char*> path) {
  for (const Value* at : {config.get("text_config"), &config}) {
    for (const char* key : path)
      at = at == nullptr ? nullptr : at->get(key);
    if (isGiven(at)) return at;
  }
  return nullptr;
}

void gemma4Settings(const HfImporter& model, Explanation& out) {
  const Value& config = model.config;
  for (const char* key :
       {"num_global_key_value_heads", "attention_k_eq_v", "use_double_wide_mlp", "enable_moe_block"}) {
    const Value* value = gemma4Setting(config, {key});
    if (value == nullptr || (value->kind == Kind::Bool && !value->boolean)) continue;
    out.add(Id::ConfigNotCarried, key, fmt::format("config.json: {} is {}", key, shortJson(*value)));
  }
  if (const Value* period = gemma4Setting(config, {"sliding_window_pattern"});
      period != nullptr && model.swaPattern.empty() && gemma4Setting(config, {"layer_types"}) == nullptr) {
    out.add(Id::ConfigNotCarried, "sliding_window_pattern",
            fmt::format("config.json: sliding_window_pattern is {}", shortJson(*period)));
  }
  const char* key = "rope_parameters.sliding_attention.rope_theta";
  const Value* sliding = gemma4Setting(config, {"rope_parameters", "sliding_attention", "rope_theta"});
  if (sliding == nullptr) {
    key = "rope_local_base_freq";
    sliding = gemma4Setting(config, {key});
  }
  // The factor by which an import derives it.
  const double derived = double(model.ropeTheta) * 0.01;
  if (sliding == nullptr || !sliding->isNumber() || derived == 0) return;
  if (std::abs(derived - sliding->number) <= 1e-6 * std::abs(sliding->number)) return;
  out.add(Id::ConfigSwaRope, key,
          fmt::format("config.json: {} is {}, and {} is written", key, shortJson(*sliding), derived));
}

// Where the JSON of config.json breaks off.
void badJson(const std::string& path, Explanation& out) {
  std::vector<std::uint8_t> bytes;
  if (!readFile(path, bytes)) return;
  const JsonFault fault = jsonFaultOf({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  out.add(Id::ConfigBadJson, "config.json", fmt::format("byte {}: {}", fault.offset, fault.message));
  if (fault.cutShort) out.add(Id::FilePartial, "config.json", "the text ends in the middle");
}

}  // namespace

void explainConfig(const Directory& directory, const plan::ImportPlan& plan, Explanation& out) {
  const std::string& message = plan.status.message();
  const std::string path = directory.pathOf("config.json");
  if (message == "hf: no config.json in directory") {
    out.add(Id::ConfigMissing, "config.json");
  } else if (message == "hf: bad config.json") {
    badJson(path, out);
  } else if (message == "hf: config.json not an object") {
    out.add(Id::ConfigNotObject, "config.json", std::string("$ is ") + kindName(plan.model.config.kind));
  } else if (message == "hf: config.json has no model_type") {
    out.add(Id::ConfigNoModelType, "config.json");
  }
  if (!plan.model.hasConfig) return;
  out.architecture = plan.model.arch;
  out.vocabSize = plan.model.vocabSize;
  explainConfigValues(plan.model, out);
  otherSpellings(plan.model.config, out);
  nestedObjects(plan.model.config, out);
  unreadSettings(plan.model.config, out);
  missingSizes(plan.model, out);
  if (plan.model.arch == "gemma4") gemma4Settings(plan.model, out);
}

}  // namespace zel::explain
