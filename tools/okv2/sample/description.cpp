#include "okv2/sample/description.h"

#include <nlohmann/json.hpp>

#include "okv2/sample/vocabulary.h"

namespace zel::sample {
namespace {

using Json = nlohmann::ordered_json;

constexpr char kChatTemplate[] =
    "{% for message in messages %}<|{{ message['role'] }}|>\n{{ message['content'] }}\n{% endfor %}"
    "{% if add_generation_prompt %}<|assistant|>\n{% endif %}";

std::string textOf(const Json& json) { return json.dump(2) + "\n"; }

struct Naming {
  const char* modelType;
  const char* className;
  const char* sampleName;
};

Naming namingOf(Arch arch) {
  switch (arch) {
    case Arch::Llama: return {"llama", "LlamaForCausalLM", "okv2-sample/llama"};
    case Arch::Qwen2: return {"qwen2", "Qwen2ForCausalLM", "okv2-sample/qwen2"};
    case Arch::Gemma4: return {"gemma4", "Gemma4ForCausalLM", "okv2-sample/gemma4"};
    case Arch::Gpt2: break;
  }
  return {"gpt2", "GPT2LMHeadModel", "okv2-sample/gpt2"};
}

void addSpecialIds(Json& config, const Specials& specials) {
  if (specials.bos >= 0) config["bos_token_id"] = specials.bos;
  if (specials.eos >= 0) config["eos_token_id"] = specials.eos;
  if (specials.unk >= 0) config["unk_token_id"] = specials.unk;
  if (specials.pad >= 0) config["pad_token_id"] = specials.pad;
}

void addSpecialTexts(Json& config, const Specials& specials) {
  const auto text = [&](int id) { return specials.texts[static_cast<std::size_t>(id)]; };
  if (specials.bos >= 0) config["bos_token"] = text(specials.bos);
  if (specials.eos >= 0) config["eos_token"] = text(specials.eos);
  if (specials.unk >= 0) config["unk_token"] = text(specials.unk);
  if (specials.pad >= 0) config["pad_token"] = text(specials.pad);
}

void addCommonKeys(Json& config, const Plan& plan) {
  config["hidden_act"] = plan.arch == Arch::Gemma4 ? "gelu_pytorch_tanh" : "silu";
  config["hidden_size"] = plan.hidden;
  config["intermediate_size"] = plan.intermediate;
  config["max_position_embeddings"] = plan.context;
  config["num_attention_heads"] = plan.heads;
  config["num_hidden_layers"] = plan.layers;
  config["num_key_value_heads"] = plan.kvHeads;
  config["rms_norm_eps"] = plan.arch == Arch::Llama ? 1e-5 : 1e-6;
  config["rope_theta"] = plan.arch == Arch::Llama ? 10000.0 : 1000000.0;
  config["tie_word_embeddings"] = plan.arch == Arch::Gemma4;
}

void addGemma4Keys(Json& config, const Plan& plan) {
  config["head_dim"] = plan.headDim;
  config["key_length"] = plan.headDim;
  config["key_length_swa"] = plan.headDim;
  config["embedding_length_per_layer_input"] = plan.perLayerInput;
  config["shared_kv_layers"] = plan.layers / 2;
  config["sliding_window"] = plan.context / 4;
  config["final_logit_softcapping"] = 30.0;
  Json pattern = Json::array();  // every sixth layer attends to everything
  for (std::uint64_t layer = 0; layer < plan.layers; ++layer)
    pattern.push_back(layer % 6 == 5 ? 0 : 1);
  config["swa_pattern"] = pattern;
}

void addGpt2Keys(Json& config, const Plan& plan) {
  config["activation_function"] = "gelu_new";
  config["layer_norm_epsilon"] = 1e-5;
  config["n_ctx"] = plan.context;
  config["n_embd"] = plan.hidden;
  config["n_head"] = plan.heads;
  config["n_inner"] = plan.intermediate;
  config["n_layer"] = plan.layers;
  config["n_positions"] = plan.context;
}

}  // namespace

std::string configText(const Plan& plan) {
  const Naming naming = namingOf(plan.arch);
  Json config;
  config["_name_or_path"] = naming.sampleName;
  config["architectures"] = Json::array({naming.className});
  config["model_type"] = naming.modelType;
  addSpecialIds(config, specialsOf(plan.arch));
  if (plan.arch == Arch::Gpt2) {
    addGpt2Keys(config, plan);
  } else {
    addCommonKeys(config, plan);
  }
  if (plan.arch == Arch::Gemma4) addGemma4Keys(config, plan);
  config["torch_dtype"] = "bfloat16";
  config["vocab_size"] = plan.vocab;
  return textOf(config);
}

std::string tokenizerConfigText(const Plan& plan) {
  Json config;
  config["add_bos_token"] = plan.arch == Arch::Llama || plan.arch == Arch::Gemma4;
  config["add_eos_token"] = false;
  addSpecialTexts(config, specialsOf(plan.arch));
  config["chat_template"] = kChatTemplate;
  config["model_max_length"] = plan.context;
  config["tokenizer_class"] = "PreTrainedTokenizerFast";
  return textOf(config);
}

std::string specialTokensMapText(const Plan& plan) {
  Json map;
  addSpecialTexts(map, specialsOf(plan.arch));
  return textOf(map);
}

std::string generationConfigText(const Plan& plan) {
  Json config;
  config["_from_model_config"] = true;
  addSpecialIds(config, specialsOf(plan.arch));
  config["do_sample"] = true;
  config["temperature"] = 0.7;
  config["top_p"] = 0.9;
  return textOf(config);
}

}  // namespace zel::sample
