// The model directories that the fault tests import: one for each road through the plug-in, all small.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/model_dir_builder.h"
#include "support/pickle_builder.h"
#include "support/proto_builder.h"
#include "support/safetensors_builder.h"
#include "support/zip_builder.h"

namespace zel::test {

inline SafetensorsBuilder llamaShard(int layer) {
  const std::string prefix = "model.layers." + std::to_string(layer) + ".";
  return SafetensorsBuilder()  // not in the order of their names, so that the reader has to sort
      .tensor(prefix + "self_attn.q_proj.weight", "F32", {2, 4})
      .tensor(prefix + "input_layernorm.weight", "F16", {5})
      .tensor(prefix + "mlp.down_proj.weight", "Q4_K", {256, 2});
}

inline ModelDirBuilder shardsInput() {
  return ModelDirBuilder()
      .shard("model-00001-of-00002.safetensors", llamaShard(0))
      .shard("model-00002-of-00002.safetensors", llamaShard(1));
}

// Three tensors over two storages.
inline ModelDirBuilder pytorchInput() {
  return ModelDirBuilder().noWeights().file(
      "pytorch_model.bin",
      ZipBuilder()
          .add("data.pkl", stateDict({{"model.norm.weight", {2}, "archive/data/first-storage"},
                                      {"model.layers.0.input_layernorm.weight",
                                       {3},
                                       "archive/data/first-storage",
                                       "FloatStorage",
                                       2},
                                      {"lm_head.weight", {2, 2}, "second", "HalfStorage"}}))
          .add("archive/data/first-storage", patternBytes(20))
          .add("second", patternBytes(8, 2))
          .build());
}

inline ModelDirBuilder tokenizerJsonInput() {
  return ModelDirBuilder()
      .tokenizer(R"({"model":{"vocab":{"<s>":0,"a token beyond small strings":2,"escaped \u00e9\n":1},)"
                 R"("merges":["a b","first-half-of-a-merge second-half-of-a-merge"],"scores":[0,-1,[-2.5]]},)"
                 R"("added_tokens":[{"id":0,"content":"<s>","special":true}]})")
      .file("tokenizer_config.json",
            R"({"chat_template":"{{ messages }} and a little more","add_bos_token":true})")
      .file("special_tokens_map.json", R"({"bos_token":"<s>","eos_token":"</s>"})")
      .file("generation_config.json", R"({"temperature":0.5,"top_p":0.9,"do_sample":true})");
}

inline ModelDirBuilder tokenizerModelInput() {
  ProtoBuilder model;
  for (const std::string_view piece : {"<unk>", "<s>", "</s>", "a sentence piece of some length"}) {
    model.message(1, ProtoBuilder().bytes(1, piece).number(2, -1.5F).varint(3, 1));
  }
  model.message(2, ProtoBuilder().varint(5, 1).varint(6, 2).varint(7, 0));
  return ModelDirBuilder().file("tokenizer.model", model.str());
}

inline ModelDirBuilder gemma4Input() {
  return ModelDirBuilder()
      .config(R"({"architectures":["Gemma4ForCausalLM"],"_name_or_path":"somebody/a-model-with-a-long-name",)"
              R"("hidden_size":4,"num_hidden_layers":2,"swa_pattern":[1,1,0],"sliding_window":512,)"
              R"("rope_theta":10000.0,"rms_norm_eps":1e-6,"chat_template":"a chat template of the config"})")
      .tokenizer()
      .shard("model.safetensors", SafetensorsBuilder()
                                      .tensor("model.layers.0.post_attention_layernorm.weight", "F32", {4})
                                      .tensor("model.embed_tokens.weight", "BF16", {4, 4}));
}

inline ModelDirBuilder fusedInput() {
  return ModelDirBuilder().modelType("gpt2").shard(
      "model.safetensors", SafetensorsBuilder()
                               .tensor("transformer.h.0.attn.c_attn.weight", "F32", {6, 4})
                               .tensor("transformer.h.0.attn.c_attn.bias", "F32", {6})
                               .tensor("transformer.wte.weight", "F32", {3, 4}));
}

struct NamedInput {
  const char* name;
  ModelDirBuilder (*builder)();
  std::size_t shards;  // files whose mapping the plug-in keeps after an import
  const char* architecture;
};

inline constexpr NamedInput kInputs[] = {
    {"Shards", shardsInput, 2, "llama"},
    {"PyTorch", pytorchInput, 0, "llama"},
    {"TokenizerJson", tokenizerJsonInput, 1, "llama"},
    {"TokenizerModel", tokenizerModelInput, 1, "llama"},
    {"Gemma4", gemma4Input, 1, "gemma4"},
    {"FusedProjections", fusedInput, 1, "gpt2"},
};

}  // namespace zel::test
