// config.json: the model's shape and architecture. Only the top level is read.
#include "hf/hf_importer.h"
#include "hf/read_file.h"

namespace zel {
namespace {

struct ArchName {
  const char* read;
  const char* kept;
};
constexpr ArchName kArchNames[] = {
    {"LlamaForCausalLM", "llama"},
    {"llama2", "llama"},
    {"Qwen2ForCausalLM", "qwen2"},
    {"Gemma4ForCausalLM", "gemma4"},
};

struct IntegerKey {
  const char* key;
  std::int64_t HfImporter::*field;
};
constexpr IntegerKey kShapeKeys[] = {
    {"hidden_size", &HfImporter::hiddenSize},
    {"num_hidden_layers", &HfImporter::numLayers},
    {"num_attention_heads", &HfImporter::numHeads},
    {"num_key_value_heads", &HfImporter::numKvHeads},
    {"intermediate_size", &HfImporter::intermediateSize},
    {"vocab_size", &HfImporter::vocabSize},
    {"max_position_embeddings", &HfImporter::contextLength},
};
constexpr IntegerKey kAttentionKeys[] = {
    {"head_dim", &HfImporter::headDim},
    {"key_length", &HfImporter::headDim},  // the same field on purpose: the later key wins
    {"key_length_swa", &HfImporter::headDimSwa},
    {"embedding_length_per_layer_input", &HfImporter::perLayerInputDim},
    {"shared_kv_layers", &HfImporter::sharedKvLayers},
    {"sliding_window", &HfImporter::slidingWindow},
};

struct FloatKey {
  const char* key;
  float HfImporter::*field;
};
constexpr FloatKey kFloatKeys[] = {
    {"rope_theta", &HfImporter::ropeTheta},
    {"rms_norm_eps", &HfImporter::rmsNormEps},
    {"final_logit_softcapping", &HfImporter::logitSoftcap},
    {"attn_logit_softcapping", &HfImporter::logitSoftcap},  // the same field on purpose: it wins
};

std::string readArch(const json::Value& config) {
  // An empty "model_type" is not replaced by "architectures".
  if (const json::Value* type = config.get("model_type"); type != nullptr && type->isString()) {
    return type->text;
  }
  const json::Value* architectures = config.get("architectures");
  if (architectures == nullptr) return {};
  if (architectures->isArray() && !architectures->items.empty()) return architectures->items.front().str();
  return architectures->str();
}

std::string mapArch(const std::string& arch) {
  for (const ArchName& row : kArchNames) {
    if (arch == row.read) return row.kept;
  }
  return arch;
}

void readInteger(const json::Value& config, const IntegerKey& row, HfImporter& importer) {
  const json::Value* member = config.get(row.key);
  if (member == nullptr || !member->isNumber()) return;
  std::int64_t integer = 0;  // what a fraction, or a number outside the 64-bit range, becomes
  (void)json::toInt64(member->number, integer);
  importer.*row.field = integer;
}

}  // namespace

Status HfImporter::parseConfig(const std::string& dir) {
  std::vector<std::uint8_t> text;
  if (!readFile(dir + "/config.json", text)) return invalidFormat("hf: no config.json in directory");
  if (!json::parse(reinterpret_cast<const char*>(text.data()), text.size(), config).ok()) {
    return corrupted("hf: bad config.json");
  }
  if (!config.isObject()) return corrupted("hf: config.json not an object");

  arch = readArch(config);
  if (arch.empty()) return invalidFormat("hf: config.json has no model_type");
  const json::Value* path = config.get("_name_or_path");
  name = path != nullptr && path->isString() ? path->text : arch;  // the spelling before the mapping
  arch = mapArch(arch);

  for (const IntegerKey& row : kShapeKeys)
    readInteger(config, row, *this);
  for (const FloatKey& row : kFloatKeys) {
    const json::Value* member = config.get(row.key);
    if (member != nullptr && member->isNumber()) this->*row.field = float(member->number);
  }
  for (const IntegerKey& row : kAttentionKeys)
    readInteger(config, row, *this);

  if (const json::Value* pattern = config.get("swa_pattern"); pattern != nullptr && pattern->isArray()) {
    for (const json::Value& item : pattern->items) {
      std::int64_t integer = 0;
      if (item.isNumber()) (void)json::toInt64(item.number, integer);
      swaPattern.push_back(std::uint8_t(integer));
    }
  }
  hasConfig = true;
  return {};
}

}  // namespace zel
