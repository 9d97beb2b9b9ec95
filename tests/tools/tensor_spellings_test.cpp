// What becomes of the tensors of public architectures: from the names as published to those in the container.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "convert/name_mapping.h"
#include "okv2/prepare/tensor_names.h"
#include "okv2/prepare/weights.h"
#include "prepare_weights.h"
#include "support/safetensors_builder.h"

namespace zel::tool::prepare {
namespace {

using test::SafetensorsBuilder;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

struct NamePair {
  const char* published;
  const char* stored;  // parts of a fused one with a space between them
};
struct ArchitectureRow {
  const char* name;
  std::vector<std::string> types;  // each alone settles it
  std::vector<NamePair> tensors;
};

std::vector<std::string> publishedOf(const ArchitectureRow& row) {
  std::vector<std::string> names;
  for (const NamePair& tensor : row.tensors)
    names.emplace_back(tensor.published);
  return names;
}

std::vector<std::string> storedOf(const ArchitectureRow& row) {
  std::vector<std::string> names;
  for (const NamePair& tensor : row.tensors)
    names.emplace_back(tensor.stored);
  return names;
}

// As an import stores what is prepared for a model of this type.
std::vector<std::string> storedAs(const std::string& type, const std::vector<std::string>& published,
                                  bool normsFirst = true) {
  ModelKind kind;
  kind.architecture = type;
  kind.types = {type};
  kind.normsFirst = normsFirst;
  std::vector<std::string> stored;
  for (const KnownName& known : bringToKnownNames(published, kind)) {
    const adapter::MappedName mapped = adapter::toOkvName(type, known.name);
    std::string text = mapped.name;
    for (const adapter::Slice& slice : mapped.slices)
      text += (text.empty() ? "" : " ") + slice.name;
    stored.push_back(text);
  }
  return stored;
}

// The names of one layer and of what is around the layers.
const ArchitectureRow kArchitectures[] = {
    {"Gpt2",
     {"gpt2", "GPT2LMHeadModel", "GPT2Model", "gpt_bigcode", "GPTBigCodeForCausalLM"},
     {{"transformer.wte.weight", "token_embd.weight"},
      {"transformer.wpe.weight", "transformer.wpe.weight"},
      {"transformer.h.7.ln_1.weight", "blk.7.attn_norm.weight"},
      {"transformer.h.7.ln_1.bias", "blk.7.ln_1.bias"},
      {"transformer.h.7.attn.c_attn.weight", "blk.7.attn_q.weight blk.7.attn_k.weight blk.7.attn_v.weight"},
      {"transformer.h.7.attn.c_proj.weight", "blk.7.attn_output.weight"},
      {"transformer.h.7.attn.c_proj.bias", "blk.7.attn.c_proj.bias"},
      {"transformer.h.7.ln_2.weight", "blk.7.ffn_norm.weight"},
      {"transformer.h.7.mlp.c_fc.weight", "blk.7.ffn_up.weight"},
      {"transformer.h.7.mlp.c_proj.weight", "blk.7.ffn_down.weight"},
      {"transformer.ln_f.weight", "output_norm.weight"}}},
    {"Gpt2WithoutItsHead",
     {"gpt2"},
     {{"wte.weight", "token_embd.weight"},
      {"h.7.attn.c_proj.weight", "blk.7.attn_output.weight"},
      {"h.7.ln_1.weight", "blk.7.attn_norm.weight"},
      {"h.7.mlp.c_proj.weight", "blk.7.ffn_down.weight"}}},
    {"GptNeo",
     {"gpt_neo", "GPTNeoForCausalLM", "GPTNeoModel"},
     {{"transformer.wte.weight", "token_embd.weight"},
      {"transformer.h.7.ln_1.weight", "blk.7.attn_norm.weight"},
      {"transformer.h.7.attn.attention.q_proj.weight", "blk.7.attn_q.weight"},
      {"transformer.h.7.attn.attention.k_proj.weight", "blk.7.attn_k.weight"},
      {"transformer.h.7.attn.attention.v_proj.weight", "blk.7.attn_v.weight"},
      {"transformer.h.7.attn.attention.out_proj.weight", "blk.7.attn_output.weight"},
      {"transformer.h.7.attn.attention.out_proj.bias", "blk.7.attn.attention.out_proj.bias"},
      {"transformer.h.7.ln_2.weight", "blk.7.ffn_norm.weight"},
      {"transformer.h.7.mlp.c_fc.weight", "blk.7.ffn_up.weight"},
      {"transformer.h.7.mlp.c_proj.weight", "blk.7.ffn_down.weight"},
      {"transformer.ln_f.weight", "output_norm.weight"}}},
    {"GptJ",
     {"gptj", "GPTJForCausalLM"},
     {{"transformer.wte.weight", "token_embd.weight"},
      {"transformer.h.7.ln_1.weight", "blk.7.attn_norm.weight"},
      {"transformer.h.7.attn.q_proj.weight", "blk.7.attn_q.weight"},
      {"transformer.h.7.attn.k_proj.weight", "blk.7.attn_k.weight"},
      {"transformer.h.7.attn.v_proj.weight", "blk.7.attn_v.weight"},
      {"transformer.h.7.attn.out_proj.weight", "blk.7.attn_output.weight"},
      {"transformer.h.7.mlp.fc_in.weight", "blk.7.ffn_up.weight"},
      {"transformer.h.7.mlp.fc_in.bias", "blk.7.mlp.fc_in.bias"},
      {"transformer.h.7.mlp.fc_out.weight", "blk.7.ffn_down.weight"},
      {"transformer.ln_f.weight", "output_norm.weight"},
      {"lm_head.weight", "output.weight"},
      {"lm_head.bias", "lm_head.bias"}}},
    {"CodeGen",
     {"codegen", "CodeGenForCausalLM"},
     {{"transformer.h.7.ln_1.weight", "blk.7.attn_norm.weight"},
      {"transformer.h.7.attn.qkv_proj.weight", "blk.7.attn.qkv_proj.weight"},
      {"transformer.h.7.attn.out_proj.weight", "blk.7.attn_output.weight"},
      {"transformer.h.7.mlp.fc_in.weight", "blk.7.ffn_up.weight"},
      {"transformer.h.7.mlp.fc_out.weight", "blk.7.ffn_down.weight"}}},
    {"GptNeoX",
     {"gpt_neox", "GPTNeoXForCausalLM", "GPTNeoXModel"},
     {{"gpt_neox.embed_in.weight", "token_embd.weight"},
      {"gpt_neox.layers.7.input_layernorm.weight", "blk.7.attn_norm.weight"},
      {"gpt_neox.layers.7.post_attention_layernorm.weight", "blk.7.ffn_norm.weight"},
      {"gpt_neox.layers.7.attention.query_key_value.weight", "blk.7.attention.query_key_value.weight"},
      {"gpt_neox.layers.7.attention.dense.weight", "blk.7.attn_output.weight"},
      {"gpt_neox.layers.7.attention.dense.bias", "blk.7.attention.dense.bias"},
      {"gpt_neox.layers.7.mlp.dense_h_to_4h.weight", "blk.7.ffn_up.weight"},
      {"gpt_neox.layers.7.mlp.dense_4h_to_h.weight", "blk.7.ffn_down.weight"},
      {"gpt_neox.final_layer_norm.weight", "output_norm.weight"},
      {"embed_out.weight", "output.weight"}}},
    {"GptNeoXWithoutItsHead",
     {"gpt_neox"},
     {{"embed_in.weight", "token_embd.weight"},
      {"layers.7.input_layernorm.weight", "blk.7.attn_norm.weight"},
      {"layers.7.attention.dense.weight", "blk.7.attn_output.weight"},
      {"final_layer_norm.weight", "output_norm.weight"}}},
    {"Bloom",
     {"bloom", "BloomForCausalLM"},
     {{"transformer.word_embeddings.weight", "token_embd.weight"},
      {"transformer.word_embeddings_layernorm.weight", "transformer.word_embeddings_layernorm.weight"},
      {"transformer.h.7.input_layernorm.weight", "blk.7.attn_norm.weight"},
      {"transformer.h.7.self_attention.query_key_value.weight",
       "blk.7.self_attention.query_key_value.weight"},
      {"transformer.h.7.self_attention.dense.weight", "blk.7.attn_output.weight"},
      {"transformer.h.7.post_attention_layernorm.weight", "blk.7.ffn_norm.weight"},
      {"transformer.h.7.mlp.dense_h_to_4h.weight", "blk.7.ffn_up.weight"},
      {"transformer.h.7.mlp.dense_4h_to_h.weight", "blk.7.ffn_down.weight"},
      {"transformer.ln_f.weight", "output_norm.weight"}}},
    {"BloomWithoutItsHead",
     {"bloom"},
     {{"word_embeddings.weight", "token_embd.weight"},
      {"h.7.input_layernorm.weight", "blk.7.attn_norm.weight"},
      {"h.7.self_attention.dense.weight", "blk.7.attn_output.weight"},
      {"ln_f.weight", "output_norm.weight"}}},
    {"Falcon",
     {"falcon", "FalconForCausalLM", "RefinedWeb", "RefinedWebModel", "RWForCausalLM"},
     {{"transformer.word_embeddings.weight", "token_embd.weight"},
      {"transformer.h.7.input_layernorm.weight", "blk.7.attn_norm.weight"},
      {"transformer.h.7.self_attention.query_key_value.weight",
       "blk.7.self_attention.query_key_value.weight"},
      {"transformer.h.7.self_attention.dense.weight", "blk.7.attn_output.weight"},
      {"transformer.h.7.mlp.dense_h_to_4h.weight", "blk.7.ffn_up.weight"},
      {"transformer.h.7.mlp.dense_4h_to_h.weight", "blk.7.ffn_down.weight"},
      {"transformer.h.8.ln_attn.weight", "blk.8.attn_norm.weight"},
      {"transformer.h.8.ln_mlp.weight", "blk.8.ffn_norm.weight"},
      {"transformer.ln_f.weight", "output_norm.weight"},
      {"lm_head.weight", "output.weight"}}},
    {"InternLm2",
     {"internlm2", "InternLM2ForCausalLM"},
     {{"model.tok_embeddings.weight", "token_embd.weight"},
      {"model.layers.7.attention_norm.weight", "blk.7.attn_norm.weight"},
      {"model.layers.7.attention.wqkv.weight", "blk.7.attention.wqkv.weight"},
      {"model.layers.7.attention.wo.weight", "blk.7.attn_output.weight"},
      {"model.layers.7.ffn_norm.weight", "blk.7.ffn_norm.weight"},
      {"model.layers.7.feed_forward.w1.weight", "blk.7.ffn_gate.weight"},
      {"model.layers.7.feed_forward.w2.weight", "blk.7.ffn_down.weight"},
      {"model.layers.7.feed_forward.w3.weight", "blk.7.ffn_up.weight"},
      {"model.norm.weight", "output_norm.weight"},
      {"output.weight", "output.weight"}}},
    {"InternLm2InsideAnotherModel",
     {"internlm2"},
     {{"language_model.model.tok_embeddings.weight", "token_embd.weight"},
      {"language_model.model.layers.7.attention.wo.weight", "blk.7.attn_output.weight"},
      {"language_model.model.norm.weight", "output_norm.weight"},
      {"language_model.output.weight", "output.weight"}}},
    {"Phi",
     {"phi", "PhiForCausalLM", "PhiModel"},
     {{"model.embed_tokens.weight", "token_embd.weight"},
      {"model.layers.7.input_layernorm.weight", "blk.7.attn_norm.weight"},
      {"model.layers.7.self_attn.q_proj.weight", "blk.7.attn_q.weight"},
      {"model.layers.7.self_attn.dense.weight", "blk.7.attn_output.weight"},
      {"model.layers.7.self_attn.dense.bias", "blk.7.self_attn.dense.bias"},
      {"model.layers.7.mlp.fc1.weight", "blk.7.ffn_up.weight"},
      {"model.layers.7.mlp.fc2.weight", "blk.7.ffn_down.weight"},
      {"model.final_layernorm.weight", "output_norm.weight"},
      {"lm_head.weight", "output.weight"}}},
    {"Opt",
     {"opt", "OPTForCausalLM"},
     {{"model.decoder.embed_tokens.weight", "token_embd.weight"},
      {"model.decoder.embed_positions.weight", "model.embed_positions.weight"},
      {"model.decoder.layers.7.self_attn_layer_norm.weight", "blk.7.attn_norm.weight"},
      {"model.decoder.layers.7.self_attn.k_proj.weight", "blk.7.attn_k.weight"},
      {"model.decoder.layers.7.self_attn.out_proj.weight", "blk.7.attn_output.weight"},
      {"model.decoder.layers.7.final_layer_norm.weight", "blk.7.ffn_norm.weight"},
      {"model.decoder.layers.7.fc1.weight", "blk.7.ffn_up.weight"},
      {"model.decoder.layers.7.fc2.weight", "blk.7.ffn_down.weight"},
      {"model.decoder.layers.7.fc2.bias", "blk.7.fc2.bias"},
      {"model.decoder.final_layer_norm.weight", "output_norm.weight"},
      {"lm_head.weight", "output.weight"}}},
    {"OptWithoutItsHead",
     {"opt", "OPTModel"},
     {{"decoder.embed_tokens.weight", "token_embd.weight"},
      {"decoder.layers.7.self_attn.k_proj.weight", "blk.7.attn_k.weight"},
      {"decoder.layers.7.fc1.weight", "blk.7.ffn_up.weight"},
      {"decoder.final_layer_norm.weight", "output_norm.weight"}}},
    {"OptInsideAnotherModel",
     {"opt"},
     {{"language_model.model.decoder.layers.7.self_attn.k_proj.weight", "blk.7.attn_k.weight"},
      {"language_model.model.decoder.layers.7.fc1.weight", "blk.7.ffn_up.weight"},
      {"language_model.lm_head.weight", "output.weight"}}},
    {"Mpt",
     {"mpt", "MPTForCausalLM", "MptForCausalLM"},
     {{"transformer.wte.weight", "token_embd.weight"},
      {"transformer.blocks.7.norm_1.weight", "blk.7.attn_norm.weight"},
      {"transformer.blocks.7.attn.Wqkv.weight", "blk.7.attn.Wqkv.weight"},
      {"transformer.blocks.7.attn.out_proj.weight", "blk.7.attn_output.weight"},
      {"transformer.blocks.7.norm_2.weight", "blk.7.ffn_norm.weight"},
      {"transformer.blocks.7.ffn.up_proj.weight", "blk.7.ffn_up.weight"},
      {"transformer.blocks.7.ffn.down_proj.weight", "blk.7.ffn_down.weight"},
      {"transformer.norm_f.weight", "output_norm.weight"}}},
    {"InternLm2InsideAnotherModelWithoutItsNorm",
     {"internlm2"},
     {{"language_model.model.tok_embeddings.weight", "token_embd.weight"},
      {"language_model.output.weight", "output.weight"}}},
    {"Starcoder2",
     {"starcoder2", "Starcoder2ForCausalLM"},
     {{"model.layers.7.self_attn.o_proj.weight", "blk.7.attn_output.weight"},
      {"model.layers.7.mlp.c_fc.weight", "blk.7.ffn_up.weight"},
      {"model.layers.7.mlp.c_proj.weight", "blk.7.ffn_down.weight"}}},
    {"Baichuan",
     {"baichuan", "BaichuanForCausalLM", "BaiChuanForCausalLM"},
     {{"model.layers.7.self_attn.W_pack.weight",
       "blk.7.attn_q.weight blk.7.attn_k.weight blk.7.attn_v.weight"},
      {"model.layers.7.self_attn.o_proj.weight", "blk.7.attn_output.weight"}}},
};

class Architectures : public testing::TestWithParam<ArchitectureRow> {};
TEST_P(Architectures, HaveTheirNamesInTheContainer) {
  for (const std::string& type : GetParam().types)
    EXPECT_THAT(storedAs(type, publishedOf(GetParam())), ElementsAreArray(storedOf(GetParam()))) << type;
}
INSTANTIATE_TEST_SUITE_P(All, Architectures, testing::ValuesIn(kArchitectures),
                         [](const auto& row) { return row.param.name; });

// Spellings that mean something else in other models, or are not known to mean the same.
TEST(TensorSpellings, BelongToTheirArchitecture) {
  const std::vector<std::string> names = {
      "transformer.h.7.attn.c_proj.weight",
      "transformer.h.7.mlp.c_proj.weight",
      "transformer.h.7.attn.out_proj.weight",
      "model.layers.7.attention.dense.weight",
      "model.layers.7.self_attn.dense.weight",
      "model.layers.7.attention.wo.weight",
      "model.layers.7.feed_forward.w2.weight",
      "model.layers.7.mlp.fc1.weight",
      "model.layers.7.fc2.weight",
      "model.layers.7.final_layer_norm.weight",
      "model.layers.7.self_attn.W_pack.weight",
      "model.final_layernorm.weight",
      "transformer.word_embeddings.weight",
      "model.decoder.layers.7.self_attn.q_proj.weight",
      "transformer.blocks.7.norm_1.weight",
      "embed_out.weight",
  };
  for (const char* type : {"llama", "phi3", "Phi3ForCausalLM", "gpt_neox_japanese", "opts", "optimus", "bart",
                           "falcon_mamba", "internlm", "gpt_neo_x"}) {
    ModelKind kind;
    kind.types = {type};
    std::vector<std::string> after;
    for (const KnownName& known : bringToKnownNames(names, kind))
      after.push_back(known.name);
    EXPECT_THAT(after, ElementsAreArray(names)) << type;
  }
}

TEST(TensorSpellings, OfOptLeaveNormsAloneThatStandBehind) {
  const std::vector<std::string> names = {
      "model.decoder.layers.7.self_attn_layer_norm.weight", "model.decoder.layers.7.final_layer_norm.weight",
      "model.decoder.layers.7.self_attn.out_proj.weight", "model.decoder.layers.7.self_attn.q_proj.weight"};
  EXPECT_THAT(storedAs("opt", names, false),
              ElementsAre("blk.7.self_attn_layer_norm.weight", "blk.7.final_layer_norm.weight",
                          "blk.7.attn_output.weight", "blk.7.attn_q.weight"));
}

// ---- the container's own names

TEST(ContainerNames, AreThoseThatTheMappingGives) {
  for (const char* name : {"model.embed_tokens.weight",
                           "lm_head.weight",
                           "model.norm.weight",
                           "model.rope_freqs.weight",
                           "model.per_layer_token_embd.weight",
                           "model.per_layer_model_proj.weight",
                           "model.per_layer_proj_norm.weight",
                           "model.layers.12.self_attn.q_proj.weight",
                           "model.layers.12.self_attn.k_proj.weight",
                           "model.layers.12.self_attn.v_proj.weight",
                           "model.layers.12.self_attn.o_proj.weight",
                           "model.layers.12.self_attn.q_norm.weight",
                           "model.layers.12.self_attn.k_norm.weight",
                           "model.layers.12.mlp.gate_proj.weight",
                           "model.layers.12.mlp.up_proj.weight",
                           "model.layers.12.mlp.down_proj.weight",
                           "model.layers.12.input_layernorm.weight",
                           "model.layers.12.post_attention_layernorm.weight",
                           "model.layers.12.post_feedforward_layernorm.weight",
                           "model.layers.12.inp_gate_proj.weight",
                           "model.layers.12.proj.weight",
                           "model.layers.12.post_norm.weight",
                           "model.layers.12.layer_output_scale.weight"}) {
    for (const char* architecture : {"llama", "gemma2"})
      EXPECT_TRUE(isContainerName(adapter::toOkvName(architecture, name).name)) << name;
  }
  for (const char* name : {"model.layers.0.self_attn.c_attn.weight", "model.layers.0.attn.c_attn.bias"}) {
    for (const adapter::Slice& slice : adapter::toOkvName("", name).slices)
      EXPECT_TRUE(isContainerName(slice.name)) << slice.name;
  }
}

TEST(ContainerNames, AreNoOthers) {
  for (const char* name : {"", "blk.", "blk.7", "blk..attn_q.weight", "blk.7x.attn_q.weight", "blk.7.attn_q",
                           "blk.7.attn_q.weight.x", "7.attn_q.weight", "attn_q.weight", "lm_head.weight",
                           "token_embd", "blk.7.token_embd.weight", "blk.7.attn_output.bias"})
    EXPECT_FALSE(isContainerName(name)) << name;
}

TEST(FusedNames, AreToldByOneOfTheirParts) {
  for (const char* name :
       {"gpt_neox.layers.0.attention.query_key_value.weight", "query_key_value",
        "model.layers.0.attention.wqkv.weight", "transformer.blocks.0.attn.Wqkv.bias",
        "model.layers.0.self_attn.qkv_proj.weight", "model.layers.0.mlp.gate_up_proj.weight"})
    EXPECT_TRUE(isFusedName(name)) << name;
  for (const char* name : {"", ".", "model.layers.0.query_key_values.weight", "model.layers.0.xwqkv.weight",
                           "model.layers.0.self_attn.q_proj.weight"})
    EXPECT_FALSE(isFusedName(name)) << name;
}

// ---- what is left

class UnmappedNames : public WeightsTest {
 protected:
  // "FINDING: SUBJECT: DETAIL" of each that is left.
  [[nodiscard]] std::vector<std::string> left() const {
    Changes changes;
    std::vector<std::string> texts;
    for (const explain::Finding& finding : prepareWeights(in(), out(), {}, changes)) {
      texts.push_back(std::string(explain::rowOf(finding.id).name) + ": " + finding.subject + ": " +
                      finding.detail);
    }
    return texts;
  }
};

TEST_F(UnmappedNames, AreCountedAndTheFirstAreNamed) {
  SafetensorsBuilder shard;
  for (const char* name : {"a", "b", "model.layers.0.c", "d", "model.norm.weight"})
    shard.tensor(name, "F32", {2});
  write("model.safetensors", shard.bytes());
  EXPECT_THAT(left(),
              ElementsAre("tensor.unmapped: 4 tensors: a; b; model.layers.0.c becomes blk.0.c; 1 more"));
}

TEST_F(UnmappedNames, AreToldWithTheNameThatIsStored) {
  write("model.safetensors", SafetensorsBuilder().tensor("model.layers.0.c", "F32", {2}).bytes());
  EXPECT_THAT(left(), ElementsAre("tensor.unmapped: 1 tensor: model.layers.0.c becomes blk.0.c"));
}

TEST_F(UnmappedNames, AreNotThoseThatTheContainerHasAMeaningFor) {
  write("config.json", R"({"model_type":"gpt2","n_embd":2})");
  write("model.safetensors", SafetensorsBuilder()
                                 .tensor("transformer.h.0.attn.c_attn.weight", "F32", {2, 6})
                                 .tensor("transformer.h.0.attn.c_attn.bias", "F32", {6})
                                 .tensor("transformer.h.0.mlp.c_fc.weight", "F32", {2, 8})
                                 .bytes());
  EXPECT_THAT(left(), IsEmpty());
}

TEST_F(UnmappedNames, OfFusedProjectionsAreCountedApart) {
  write("config.json", R"({"model_type":"gpt_neox"})");
  const std::string layer = "gpt_neox.layers.0.";
  write("model.safetensors", SafetensorsBuilder()
                                 .tensor(layer + "attention.dense.bias", "F32", {2})
                                 .tensor(layer + "attention.query_key_value.bias", "F32", {6})
                                 .tensor(layer + "attention.query_key_value.weight", "F32", {6, 2})
                                 .tensor(layer + "input_layernorm.weight", "F32", {2})
                                 .bytes());
  EXPECT_THAT(
      left(),
      ElementsAre(
          "tensor.unmapped: 2 fused projections, left whole: model.layers.0.attention.query_key_value.bias "
          "becomes blk.0.attention.query_key_value.bias; model.layers.0.attention.query_key_value.weight "
          "becomes blk.0.attention.query_key_value.weight",
          "tensor.unmapped: 1 tensor: model.layers.0.attention.dense.bias becomes "
          "blk.0.attention.dense.bias"));
  EXPECT_THAT(tensorsIn("model.safetensors"),
              testing::Contains("model.layers.0.attention.query_key_value.weight F32 [6,2]"));
}

TEST_F(UnmappedNames, OfOptFollowTheOrderOfItsNorms) {
  const auto leftWith = [this](const std::string& setting) {
    write("config.json", R"({"model_type":"opt")" + setting + "}");
    write("model.safetensors", SafetensorsBuilder()
                                   .tensor("model.decoder.layers.0.self_attn.q_proj.weight", "F32", {2, 2})
                                   .tensor("model.decoder.layers.0.self_attn_layer_norm.weight", "F32", {2})
                                   .bytes());
    std::vector<std::string> texts = left();
    std::filesystem::remove(out() + "/model.safetensors");
    return texts;
  };
  EXPECT_THAT(leftWith(""), IsEmpty());
  EXPECT_THAT(leftWith(R"(,"do_layer_norm_before":true)"), IsEmpty());
  const auto isLeft = ElementsAre(
      "tensor.unmapped: 1 tensor: model.layers.0.self_attn_layer_norm.weight becomes "
      "blk.0.self_attn_layer_norm.weight");
  EXPECT_THAT(leftWith(R"(,"do_layer_norm_before":false)"), isLeft);
  EXPECT_THAT(leftWith(R"(,"text_config":{"do_layer_norm_before":false})"), isLeft);
}

}  // namespace
}  // namespace zel::tool::prepare
