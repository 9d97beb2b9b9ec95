// config.json: which keys are read, which look as if they should be, and what becomes of them.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <string_view>
#include <utility>
#include <vector>

#include "hf/read_file.h"
#include "okv2/explain/config_places.h"
#include "okv2/explain/config_values.h"
#include "okv2/explain/steps.h"
#include "okv2/explain/tokenizer_walk.h"

namespace zel::explain {
namespace {

using json::Kind;
using json::Value;

// Whether rotary positions are as a model has them without this object: no scaling of any kind, and the base
// that is kept, or else one that is named as a key that is not read.
bool isPlainRope(const Value& value, const HfImporter& model, bool isOneKind) {
  return value.isObject() && std::all_of(value.members.begin(), value.members.end(), [&](const auto& member) {
           const auto& [key, setting] = member;
           if (key == "rope_theta") {
             return setting.isNumber() && (model.ropeTheta == 0 || float(setting.number) == model.ropeTheta);
           }
           if (key == "rope_type" || key == "type") return setting.isString() && setting.text == "default";
           if (isOneKind || !setting.isObject()) return false;
           if (key == "full_attention") return isPlainRope(setting, model, true);
           // The base of these layers is compared with the one that an import derives.
           return key == "sliding_attention" && model.arch == "gemma4" &&
                  std::all_of(setting.members.begin(), setting.members.end(), [](const auto& each) {
                    return each.first == "rope_theta" ||
                           (each.first == "rope_type" && each.second.str() == "default");
                  });
         });
}

bool isSeveralIds(const Value& eos) {
  return eos.isArray() && (eos.items.size() != 1 || !eos.items[0].isNumber());
}

// Settings without an item in the container, at the top level or, when they stand only there, in the
// description of the text model.
void unreadSettings(const HfImporter& model, Explanation& out) {
  std::vector<TextModel> places = nestedTextModels(model.config);
  places.insert(places.begin(), TextModel{"", &model.config});
  const auto first = [&](Id id, const char* key, const auto& isLost) {
    for (const TextModel& place : places) {
      const Value* value = place.config->get(key);
      if (!isGiven(value)) continue;
      if (isLost(*value)) {
        out.add(id, place.path + key,
                fmt::format("config.json: $.{}{} is {}", place.path, key, shortJson(*value)));
      }
      return;
    }
  };
  const auto always = [](const Value&) { return true; };
  first(Id::ConfigRopeScaling, "rope_scaling", always);
  first(Id::ConfigRopeScaling, "rope_parameters",
        [&](const Value& value) { return !isPlainRope(value, model, false); });
  first(Id::ConfigQuantization, "quantization_config", always);
  first(Id::ConfigQuantization, "compression_config", always);
  first(Id::ConfigEosList, "eos_token_id", isSeveralIds);
}

void overwrittenSettings(const Value& config, Explanation& out) {
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

void missingSizes(const HfImporter& model, Explanation& out) {
  for (const Size& size : kSizes) {
    if (model.*size.field != 0 || isGivenElsewhere(model.config, size.key)) continue;
    out.add(Id::ConfigSizeMissing, size.key,
            fmt::format("config.json: $.{} gives no number, and stays 0", size.key));
  }
}

// What a reader can do without, for some models.
constexpr std::pair<const char*, const char*> kSettings[] = {
    {"max_position_embeddings", "model.context_length"},
    {"rope_theta", "model.rope_theta"},
    {"rms_norm_eps", "model.rms_norm_eps"},
};

void missingSettings(const Value& config, Explanation& out) {
  for (const auto& [key, item] : kSettings) {
    const Value* value = config.get(key);
    const bool isAbsent = !isGiven(value) || (value->isNumber() && value->number == 0);
    if (!isAbsent || isGivenElsewhere(config, key)) continue;
    out.add(Id::ConfigSettingMissing, key,
            fmt::format("config.json: $.{} gives no number, and {} is left out", key, item));
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
  explainConfigPlaces(plan.model, out);
  unreadSettings(plan.model, out);
  overwrittenSettings(plan.model.config, out);
  missingSizes(plan.model, out);
  missingSettings(plan.model.config, out);
  if (plan.model.arch == "gemma4") gemma4Settings(plan.model, out);
}

}  // namespace zel::explain
