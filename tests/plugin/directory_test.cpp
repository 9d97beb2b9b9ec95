// The import of a whole directory: what ends up in the container.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "convert/container_view.h"
#include "plugin/output_capture.h"
#include "plugin/plugin_host.h"
#include "support/model_dir_builder.h"

namespace zel::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

class ImportedDirectory : public testing::Test {
 protected:
  ContainerView import(const ModelDirBuilder& model) {
    const std::string source = model.write(dir_);
    OutputCapture capture;
    answer_ = importDir(source, dir_ / "out.okv2");
    EXPECT_EQ(capture.stop(), "");
    EXPECT_EQ(answer_.code, 0) << answer_.message;
    EXPECT_EQ(answer_.message, "");
    std::string bytes = readWholeFile(dir_ / "out.okv2");
    EXPECT_EQ(answer_.fileSize, bytes.size());
    return ContainerView(std::move(bytes));
  }

  TempDir dir_;
  ImportAnswer answer_{};
};

// "key=value" for every metadata item, in the container's order.
std::vector<std::string> listed(const std::vector<ContainerView::Meta>& metadata) {
  std::vector<std::string> out;
  for (const ContainerView::Meta& each : metadata) {
    std::string value;
    switch (each.type) {
      case 0: value = "u32 " + std::to_string(each.integer); break;
      case 2: {
        char text[32];
        std::snprintf(text, sizeof text, "f32 %.9g", double(each.number));
        value = text;
        break;
      }
      case 3: value = "u64 " + std::to_string(each.integer); break;
      case 4: value = each.text; break;
      case 5:
        for (const std::uint32_t element : each.array)
          value += " " + std::to_string(element);
        break;
      default: value = "type " + std::to_string(each.type);
    }
    out.push_back(each.key + "=" + value);
  }
  return out;
}

TEST_F(ImportedDirectory, HoldsEverythingThatTheModelHas) {
  const ContainerView container = import(
      ModelDirBuilder()
          .config(R"({"model_type":"llama","_name_or_path":"org/model","hidden_size":4294967298,)"
                  R"("num_hidden_layers":2,"num_attention_heads":4,"num_key_value_heads":2,)"
                  R"("intermediate_size":16,"vocab_size":4,"max_position_embeddings":2048,)"
                  R"("rope_theta":10000.0,"rms_norm_eps":0.5,"bos_token_id":0,"eos_token_id":[3,1]})")
          .tokenizer()
          .file("tokenizer_config.json", R"({"chat_template":"{{ m }}","add_bos_token":true})")
          .file("special_tokens_map.json", "not even JSON")
          .file("generation_config.json", "{}")
          .shard("model.safetensors", SafetensorsBuilder()
                                          .tensor("model.embed_tokens.weight", "F32", {4, 2})
                                          .tensor("model.layers.1.self_attn.o_proj.weight", "BF16", {2, 2})));
  EXPECT_EQ(container.archId, 0u);
  EXPECT_EQ(container.hiddenSize, 4294967298u);
  EXPECT_EQ(container.numLayers, 2u);
  EXPECT_EQ(container.vocabSize, 4u);
  EXPECT_THAT(
      listed(container.metadata),
      ElementsAre("general.architecture=llama", "hf.source_format=huggingface",
                  R"(hf.tokenizer_config={"chat_template":"{{ m }}","add_bos_token":true})",
                  "hf.special_tokens_map=not even JSON", "hf.generation_config={}", "model.add_bos=u32 1",
                  "general.name=org/model", "model.hidden_size=u64 4294967298", "model.num_layers=u64 2",
                  "model.num_heads=u64 4", "model.num_kv_heads=u64 2", "model.intermediate_size=u64 16",
                  "model.vocab_size=u64 4", "model.context_length=u64 2048", "model.rope_theta=f32 10000",
                  "model.rms_norm_eps=f32 0.5"));
  EXPECT_THAT(container.tokens, ElementsAre("<s>", "a", "b", "ab"));
  EXPECT_THAT(container.types, ElementsAre(3u, 1u, 1u, 1u));
  EXPECT_THAT(container.merges, ElementsAre("a b"));
  EXPECT_THAT(container.specialIds, ElementsAre(0, 3, -1, -1));
  EXPECT_EQ(container.addBos, 1u);
  EXPECT_TRUE(container.scores.empty());
  EXPECT_EQ(container.chatTemplate, "{{ m }}");
  EXPECT_EQ(container.tokenizerChatTemplate, "{{ m }}");
  ASSERT_THAT(container.tensorNames(), ElementsAre("blk.1.attn_output.weight", "token_embd.weight"));
  EXPECT_EQ(container.tensors[0].dtype, 2u);
  EXPECT_EQ(container.tensors[0].data, patternBytes(8, 1));
  EXPECT_THAT(container.tensors[1].dims, ElementsAre(4u, 2u));
  EXPECT_EQ(container.tensors[1].data, patternBytes(32, 0));
  EXPECT_EQ(answer_.tensors, 2u);
}

TEST_F(ImportedDirectory, OfGemma4CarriesBothSpellingsOfItsShape) {
  const ContainerView container = import(ModelDirBuilder().config(
      R"({"model_type":"gemma4","hidden_size":8,"num_hidden_layers":2,"num_attention_heads":4,)"
      R"("num_key_value_heads":1,"intermediate_size":16,"vocab_size":4,"max_position_embeddings":257,)"
      R"("rope_theta":1000000,"rms_norm_eps":0.25,"final_logit_softcapping":30,)"
      R"("attn_logit_softcapping":50,"head_dim":128,"key_length":256,"key_length_swa":64,)"
      R"("embedding_length_per_layer_input":32,"shared_kv_layers":3,"sliding_window":512,)"
      R"("swa_pattern":[1,1,0.5,true,257]})"));
  EXPECT_EQ(container.archId, 1u);
  EXPECT_THAT(
      listed(container.metadata),
      ElementsAre("general.architecture=gemma4", "hf.source_format=huggingface", "general.name=gemma4",
                  "model.hidden_size=u64 8", "model.num_layers=u64 2", "model.num_heads=u64 4",
                  "model.num_kv_heads=u64 1", "model.intermediate_size=u64 16", "model.vocab_size=u64 4",
                  "model.context_length=u64 257", "model.rope_theta=f32 1000000",
                  "model.rms_norm_eps=f32 0.25", "gemma4.block_count=u32 2", "gemma4.embedding_length=u32 8",
                  "gemma4.attention.head_count=u32 4", "gemma4.attention.head_count_kv=u32 1",
                  "gemma4.feed_forward_length=u32 16", "gemma4.attention.key_length=u32 256",
                  "gemma4.attention.key_length_swa=u32 64", "gemma4.embedding_length_per_layer_input=u32 32",
                  "gemma4.attention.sliding_window=u32 512", "gemma4.attention.shared_kv_layers=u32 3",
                  "gemma4.context_length=u32 257", "gemma4.rope.freq_base=f32 1000000",
                  "gemma4.rope.freq_base_swa=f32 10000", "gemma4.attention.layer_norm_rms_epsilon=f32 0.25",
                  "gemma4.final_logit_softcapping=f32 50", "gemma4.swa_pattern= 1 1 0 0 1"));
}

TEST_F(ImportedDirectory, HasArchitectureIdOneForExactlyGemma4) {
  for (const auto& [modelType, id] : {std::pair<const char*, unsigned>{"gemma4", 1},
                                      {"Gemma4ForCausalLM", 1},
                                      {"gemma4x", 0},
                                      {"gemma4 ", 0},
                                      {"Gemma4", 0},
                                      {"GEMMA4", 0},
                                      {"gemma", 0},
                                      {"gemma2", 0},
                                      {"llama", 0}}) {
    EXPECT_EQ(import(ModelDirBuilder().modelType(modelType)).archId, id) << modelType;
  }
}

TEST_F(ImportedDirectory, KeepsTheLow32BitsOfLayerAndVocabularyCounts) {
  const ContainerView container = import(ModelDirBuilder().config(
      R"({"model_type":"llama","num_hidden_layers":4294967299,"vocab_size":-1,"hidden_size":-2})"));
  EXPECT_EQ(container.numLayers, 3u);
  EXPECT_EQ(container.vocabSize, 0xFFFFFFFFu);
  EXPECT_EQ(container.hiddenSize, 0xFFFFFFFFFFFFFFFEu);
}

TEST_F(ImportedDirectory, HasZeroSizesWhereTheConfigurationHasNone) {
  const ContainerView container = import(ModelDirBuilder().modelType("llama"));
  EXPECT_EQ(container.hiddenSize, 0u);
  EXPECT_EQ(container.numLayers, 0u);
  EXPECT_EQ(container.vocabSize, 0u);
  EXPECT_THAT(listed(container.metadata), ElementsAre("general.architecture=llama",
                                                      "hf.source_format=huggingface", "general.name=llama"));
}

TEST_F(ImportedDirectory, TakesTheVocabularySizeFromTheTokenizerWhenTheConfigurationHasNone) {
  EXPECT_EQ(import(ModelDirBuilder().modelType("llama").tokenizer()).vocabSize, 4u);
}

TEST_F(ImportedDirectory, UsesTheArchitectureForTensorNames) {
  const SafetensorsBuilder weights =
      SafetensorsBuilder().tensor("model.layers.0.post_attention_layernorm.weight", "F32", {1});
  EXPECT_THAT(import(ModelDirBuilder().modelType("gemma2").shard("m.safetensors", weights)).tensorNames(),
              ElementsAre("blk.0.post_attention_norm.weight"));
  EXPECT_THAT(import(ModelDirBuilder().modelType("llama").shard("m.safetensors", weights)).tensorNames(),
              ElementsAre("blk.0.ffn_norm.weight"));
}

TEST_F(ImportedDirectory, CutsFusedProjectionsAndCountsTheirParts) {
  const ContainerView container = import(ModelDirBuilder().modelType("gpt2").shard(
      "m.safetensors", SafetensorsBuilder().tensor("transformer.h.0.attn.c_attn.weight", "F16", {6, 2})));
  EXPECT_THAT(container.tensorNames(),
              ElementsAre("blk.0.attn_k.weight", "blk.0.attn_q.weight", "blk.0.attn_v.weight"));
  EXPECT_EQ(answer_.tensors, 3u);
}

// ---- tokenizer and chat template

TEST_F(ImportedDirectory, HasTheEmptyTokenizerWithoutATokenizerFile) {
  const ContainerView container = import(ModelDirBuilder());
  EXPECT_TRUE(container.tokens.empty());
  EXPECT_TRUE(container.types.empty());
  EXPECT_TRUE(container.merges.empty());
  EXPECT_THAT(container.specialIds, ElementsAre(-1, -1, -1, -1));
  EXPECT_EQ(container.addBos, 1u);
  EXPECT_EQ(container.tokenizerChatTemplate, "");
  EXPECT_EQ(container.chatTemplate, "");
}

// On purpose: without a vocabulary there is no use for the template.
TEST_F(ImportedDirectory, LeavesTheChatTemplateOutWhenThereIsNoVocabulary) {
  const ContainerView container =
      import(ModelDirBuilder().file("tokenizer_config.json", R"({"chat_template":"{{ m }}"})"));
  EXPECT_EQ(container.chatTemplate, "");
  EXPECT_EQ(container.tokenizerChatTemplate, "");
  EXPECT_NE(container.find("hf.tokenizer_config"), nullptr);
}

TEST_F(ImportedDirectory, LeavesTheTokenizerOutWhenItsVocabularyIsEmpty) {
  const ContainerView container =
      import(ModelDirBuilder()
                 .config(R"({"model_type":"llama","bos_token_id":7,"chat_template":"{{ m }}"})")
                 .tokenizer(R"({"model":{"vocab":{},"merges":["a b"]}})"));
  EXPECT_EQ(container.chatTemplate, "");
  EXPECT_EQ(container.tokenizerChatTemplate, "");
  EXPECT_TRUE(container.merges.empty());
  EXPECT_THAT(container.specialIds, ElementsAre(-1, -1, -1, -1));
}

TEST_F(ImportedDirectory, HasTheEmptyTokenizerWhenTokenizerJsonIsBad) {
  EXPECT_TRUE(import(ModelDirBuilder().tokenizer("{")).tokens.empty());
}

TEST_F(ImportedDirectory, IgnoresSpecialFilesUnderTheNamesOfOptionalFiles) {
  const ContainerView container = import(ModelDirBuilder()
                                             .fifo("tokenizer.json")
                                             .fifo("tokenizer.model")
                                             .folder("tokenizer_config.json")
                                             .fifo("special_tokens_map.json")
                                             .symlink("generation_config.json", "/dev/zero"));
  EXPECT_TRUE(container.tokens.empty());
  EXPECT_EQ(container.find("hf.tokenizer_config"), nullptr);
  EXPECT_EQ(container.find("hf.special_tokens_map"), nullptr);
  EXPECT_EQ(container.find("hf.generation_config"), nullptr);
}

TEST_F(ImportedDirectory, TakesATrailingSlashInItsPath) {
  const std::string source = ModelDirBuilder().write(dir_);
  ASSERT_EQ(importDir(source, dir_ / "plain").code, 0);
  ASSERT_EQ(importDir(source + "/", dir_ / "slash").code, 0);
  EXPECT_EQ(readWholeFile(dir_ / "slash"), readWholeFile(dir_ / "plain"));
}

TEST_F(ImportedDirectory, GivesEqualBytesForEqualInput) {
  const std::string source = ModelDirBuilder().tokenizer().write(dir_);
  ASSERT_EQ(importDir(source, dir_ / "first").code, 0);
  ASSERT_EQ(importDir(source, dir_ / "second").code, 0);
  EXPECT_EQ(readWholeFile(dir_ / "first"), readWholeFile(dir_ / "second"));
}

TEST_F(ImportedDirectory, ReplacesALongerFileAtTheDestination) {
  const std::string source = ModelDirBuilder().write(dir_);
  ASSERT_EQ(importDir(source, dir_ / "fresh").code, 0);
  dir_.write("old", std::string(1000000, 'x'));
  ASSERT_EQ(importDir(source, dir_ / "old").code, 0);
  EXPECT_EQ(readWholeFile(dir_ / "old"), readWholeFile(dir_ / "fresh"));
}

}  // namespace
}  // namespace zel::test
