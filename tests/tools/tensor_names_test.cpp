// Tensor names: from public spellings to those that the name mapping knows.
#include "okv2/prepare/tensor_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "convert/name_mapping.h"
#include "okv2/prepare/tensor_data.h"

namespace zel::tool::prepare {
namespace {

using testing::ElementsAre;

std::vector<std::string> namesOf(const std::vector<std::string>& published, const ModelKind& kind = {}) {
  std::vector<std::string> names;
  for (KnownName& known : bringToKnownNames(published, kind))
    names.push_back(std::move(known.name));
  return names;
}
std::vector<NameReason> reasonsOf(const std::vector<std::string>& published, const ModelKind& kind = {}) {
  std::vector<NameReason> reasons;
  for (const KnownName& known : bringToKnownNames(published, kind))
    reasons.push_back(known.reason);
  return reasons;
}

constexpr char kLayer[] = "layers.0.mlp.up_proj.weight";

TEST(TensorNames, KnowsNamesThatTheMappingChanges) {
  EXPECT_TRUE(mappingKnows("model.norm.weight"));
  EXPECT_TRUE(mappingKnows("model.layers.7.mlp.up_proj.weight"));
  EXPECT_TRUE(mappingKnows("transformer.h.0.attn.c_attn.weight"));
}
TEST(TensorNames, KnowsSuffixesThatAreTheContainersOwn) {
  EXPECT_TRUE(mappingKnows("model.layers.0.inp_gate.weight"));
}
TEST(TensorNames, DoesNotTakeAnyLayerForKnown) {
  EXPECT_FALSE(mappingKnows("model.layers.0.weight"));
  EXPECT_FALSE(mappingKnows("model.layers.0.attn.dense.weight"));
  EXPECT_FALSE(mappingKnows("fc.weight"));
}

struct PrefixRow {
  const char* name;
  const char* from;
  const char* to;
};
class TensorPrefixes : public testing::TestWithParam<PrefixRow> {};
TEST_P(TensorPrefixes, AreBroughtToKnownOnes) {
  EXPECT_THAT(namesOf({GetParam().from, "other"}), ElementsAre(GetParam().to, "other"));
}
INSTANTIATE_TEST_SUITE_P(
    All, TensorPrefixes,
    testing::Values(
        PrefixRow{"Gemma3", "model.language_model.layers.0.mlp.up_proj.weight",
                  "model.layers.0.mlp.up_proj.weight"},
        PrefixRow{"Llava", "language_model.model.layers.0.mlp.up_proj.weight",
                  "model.layers.0.mlp.up_proj.weight"},
        PrefixRow{"Idefics3", "model.text_model.layers.0.mlp.up_proj.weight",
                  "model.layers.0.mlp.up_proj.weight"},
        PrefixRow{"DeepSeekVl2", "language.model.layers.0.mlp.up_proj.weight",
                  "model.layers.0.mlp.up_proj.weight"},
        PrefixRow{"InternVl", "language_model.model.embed_tokens.weight", "model.embed_tokens.weight"},
        PrefixRow{"Thinker", "thinker.model.layers.0.mlp.up_proj.weight",
                  "model.layers.0.mlp.up_proj.weight"},
        PrefixRow{"Lightning", "model.model.layers.0.mlp.up_proj.weight",
                  "model.layers.0.mlp.up_proj.weight"},
        PrefixRow{"Gpt2", "h.0.ln_1.weight", "transformer.h.0.ln_1.weight"},
        PrefixRow{"LlamaModel", "layers.0.mlp.up_proj.weight", "model.layers.0.mlp.up_proj.weight"},
        PrefixRow{"KnownAlready", "model.layers.0.mlp.up_proj.weight", "model.layers.0.mlp.up_proj.weight"},
        PrefixRow{"NotALanguageModel", "layers.0.weight", "layers.0.weight"},
        PrefixRow{"HalfAPrefix", "language_models.model.norm.weight", "language_models.model.norm.weight"}),
    [](const auto& row) { return row.param.name; });

TEST(TensorNames, ChangesAllNamesOfAGroupAlike) {
  EXPECT_THAT(namesOf({kLayer, "layers.0.unknown", "norm.weight", "embed_tokens.weight"}),
              ElementsAre("model.layers.0.mlp.up_proj.weight", "model.layers.0.unknown", "model.norm.weight",
                          "model.embed_tokens.weight"));
}
TEST(TensorNames, LeavesANormAloneWithoutItsLayers) {
  EXPECT_THAT(namesOf({"norm.weight"}), ElementsAre("norm.weight"));
}
TEST(TensorNames, RemovesWrappersThatEveryNameHas) {
  EXPECT_THAT(namesOf({"module._orig_mod.a", "module._orig_mod.b"}), ElementsAre("a", "b"));
  EXPECT_THAT(namesOf({"module.a", "b"}), ElementsAre("module.a", "b"));
  EXPECT_THAT(namesOf({"module."}), ElementsAre("module."));
}
TEST(TensorNames, LooksBehindWrappersForPrefixes) {
  EXPECT_THAT(namesOf({"module.language_model.model.norm.weight"}), ElementsAre("model.norm.weight"));
}

TEST(TensorNames, TakesTheHeadOfDeepSeekVl2AlongWithItsModel) {
  EXPECT_THAT(namesOf({"language.model.norm.weight", "language.lm_head.weight"}),
              ElementsAre("model.norm.weight", "lm_head.weight"));
}

TEST(TensorNames, SayWhyTheyAreAsTheyAre) {
  EXPECT_THAT(reasonsOf({"module.layers.0.mlp.up_proj.weight", "module.layers.0.unknown", "module.other"}),
              ElementsAre(NameReason::Known, NameReason::Group, NameReason::Wrapper));
  EXPECT_THAT(reasonsOf({"model.norm.weight", "other"}), ElementsAre(NameReason::Same, NameReason::Same));
}
TEST(TensorNames, AreCalledKnownOnlyWhereTheMappingKnowsThem) {
  EXPECT_STREQ(nameReasonText(NameReason::Known), "The name mapping knows the tensor by this name.");
  EXPECT_STREQ(nameReasonText(NameReason::Group),
               "The name mapping knows others by this prefix; this tensor is in no table.");
  EXPECT_STREQ(nameReasonText(NameReason::Wrapper),
               "The prefix is that of a wrapper; the tensor is in no table.");
  EXPECT_STREQ(nameReasonText(NameReason::Own),
               "The name mapping would take the tensor for another norm of its layer.");
}

// ---- spellings of one family

ModelKind kindOf(const std::string& type) {
  ModelKind kind;
  kind.architecture = type;
  kind.types = {type};
  return kind;
}

struct SpellingRow {
  const char* name;
  const char* type;
  const char* from;
  const char* to;
  const char* stored;  // what the mapping makes of `to`
};
class TensorSpellings : public testing::TestWithParam<SpellingRow> {};
TEST_P(TensorSpellings, AreBroughtToWhatTheMappingKnows) {
  const SpellingRow& row = GetParam();
  EXPECT_THAT(namesOf({row.from}, kindOf(row.type)), ElementsAre(row.to));
  EXPECT_THAT(reasonsOf({row.from}, kindOf(row.type)), ElementsAre(NameReason::Known));
  EXPECT_EQ(adapter::toOkvName(row.type, row.to).name, row.stored);
}
TEST_P(TensorSpellings, AreLeftAloneInOtherModels) {
  EXPECT_THAT(namesOf({GetParam().from}, kindOf("llama")), ElementsAre(GetParam().from));
}
INSTANTIATE_TEST_SUITE_P(
    All, TensorSpellings,
    testing::Values(SpellingRow{"EmbeddingPerLayer", "gemma4", "model.embed_tokens_per_layer.weight",
                                "model.per_layer_token_embd.weight", "per_layer_token_embd.weight"},
                    SpellingRow{"ProjectionOfTheModel", "gemma4", "model.per_layer_model_projection.weight",
                                "model.per_layer_model_proj.weight", "per_layer_model_proj.weight"},
                    SpellingRow{"NormOfTheProjection", "gemma4", "model.per_layer_projection_norm.weight",
                                "model.per_layer_proj_norm.weight", "per_layer_proj_norm.weight"},
                    SpellingRow{"InputGate", "gemma4", "model.layers.12.per_layer_input_gate.weight",
                                "model.layers.12.inp_gate.weight", "blk.12.inp_gate.weight"},
                    SpellingRow{"Projection", "gemma4", "model.layers.12.per_layer_projection.weight",
                                "model.layers.12.proj.weight", "blk.12.proj.weight"},
                    SpellingRow{"NormBehindTheInput", "gemma4",
                                "model.layers.12.post_per_layer_input_norm.weight",
                                "model.layers.12.post_norm.weight", "blk.12.post_norm.weight"},
                    SpellingRow{"Scale", "gemma4", "model.layers.12.layer_scalar",
                                "model.layers.12.layer_output_scale.weight",
                                "blk.12.layer_output_scale.weight"},
                    SpellingRow{"Gemma3n", "gemma3n", "model.layers.0.per_layer_input_gate.weight",
                                "model.layers.0.inp_gate.weight", "blk.0.inp_gate.weight"},
                    SpellingRow{"QwenUp", "QWenLMHeadModel", "transformer.h.3.mlp.w1.weight",
                                "transformer.h.3.mlp.up_proj.weight", "blk.3.ffn_up.weight"},
                    SpellingRow{"QwenGate", "QWenLMHeadModel", "transformer.h.3.mlp.w2.weight",
                                "transformer.h.3.mlp.gate_proj.weight", "blk.3.ffn_gate.weight"},
                    SpellingRow{"QwenDown", "QWenLMHeadModel", "transformer.h.3.mlp.c_proj.weight",
                                "transformer.h.3.mlp.down_proj.weight", "blk.3.ffn_down.weight"},
                    SpellingRow{"QwenUpByItsType", "qwen", "transformer.h.3.mlp.w1.weight",
                                "transformer.h.3.mlp.up_proj.weight", "blk.3.ffn_up.weight"},
                    SpellingRow{"QwenGateByItsType", "qwen", "transformer.h.3.mlp.w2.weight",
                                "transformer.h.3.mlp.gate_proj.weight", "blk.3.ffn_gate.weight"},
                    SpellingRow{"QwenAttention", "QWenLMHeadModel", "transformer.h.3.attn.c_proj.weight",
                                "transformer.h.3.self_attn.o_proj.weight", "blk.3.attn_output.weight"}),
    [](const auto& row) { return row.param.name; });

TEST(TensorNames, SpellNoOtherSuffixAnew) {
  const ModelKind gemma = kindOf("gemma4");
  for (const char* name :
       {"model.layers.0.x.layer_scalar", "model.layers.layer_scalar", "model.layers..layer_scalar",
        "model.layers.0x.layer_scalar", "layer_scalar", "model.layers.0.layer_scalars"})
    EXPECT_THAT(namesOf({name}, gemma), ElementsAre(name));
}
TEST(TensorNames, SpellTheScaleOfGemma4OnlyThere) {
  EXPECT_THAT(namesOf({"model.layers.0.layer_scalar"}, kindOf("gemma3n")),
              ElementsAre("model.layers.0.layer_scalar"));
}
TEST(TensorNames, SpellTheFirstQwenAnewAndNoLaterOne) {
  for (const char* type : {"qwen2", "qwen3", "qwen2_moe", "QWen2LMHeadModel", "Qwen2ForCausalLM", "qwe"}) {
    EXPECT_THAT(namesOf({"transformer.h.3.mlp.w1.weight"}, kindOf(type)),
                ElementsAre("transformer.h.3.mlp.w1.weight"))
        << type;
  }
}
TEST(TensorNames, SpellTensorsBehindAPrefix) {
  EXPECT_THAT(namesOf({"model.language_model.layers.0.layer_scalar", "model.language_model.norm.weight",
                       "model.language_model.embed_tokens_per_layer.weight"},
                      kindOf("gemma4")),
              ElementsAre("model.layers.0.layer_output_scale.weight", "model.norm.weight",
                          "model.per_layer_token_embd.weight"));
}

// ---- Gemma's norms inside another model

const std::vector<std::string> kTwoNorms = {"model.layers.7.post_attention_layernorm.weight",
                                            "model.layers.7.pre_feedforward_layernorm.weight"};

TEST(TensorNames, GiveGemmasNormTheContainersNameInsideAnotherModel) {
  const ModelKind kind{"paligemma", {"paligemma", "gemma2"}, 0, true, 0};
  EXPECT_THAT(namesOf(kTwoNorms, kind), ElementsAre("blk.7.post_attention_norm.weight", kTwoNorms[1]));
  EXPECT_THAT(reasonsOf(kTwoNorms, kind), ElementsAre(NameReason::Own, NameReason::Same));
  EXPECT_EQ(adapter::toOkvName("paligemma", "blk.7.post_attention_norm.weight").name,
            "blk.7.post_attention_norm.weight");
}
TEST(TensorNames, LeaveGemmasNormToTheMappingOfAGemma) {
  EXPECT_THAT(namesOf(kTwoNorms, {"gemma3", {"gemma3", "gemma3_text"}, 0, true, 0}),
              testing::ElementsAreArray(kTwoNorms));
}
TEST(TensorNames, LeaveTheNormAloneOfATextModelThatIsNoGemma) {
  EXPECT_THAT(namesOf(kTwoNorms, {"llava", {"llava", "llama"}, 0, true, 0}),
              testing::ElementsAreArray(kTwoNorms));
}
TEST(TensorNames, LeaveTheOnlyNormBeforeTheFeedForwardAlone) {
  // The first Gemma: the norm that is called so stands where everybody else's does.
  const ModelKind kind{"paligemma", {"paligemma", "gemma"}, 0, true, 0};
  EXPECT_THAT(namesOf({kTwoNorms[0], "model.layers.8.pre_feedforward_layernorm.weight"}, kind),
              ElementsAre(kTwoNorms[0], "model.layers.8.pre_feedforward_layernorm.weight"));
}

TEST(TensorNames, TellsTowersFromTheTextModel) {
  for (const char* name : {"vision.blocks.0.x", "projector.layers.0.x", "view_seperator", "mlp1.0.weight",
                           "vision_tower.x", "model.vision_tower.x", "visual.x", "module.visual.x",
                           "model.multi_modal_projector.x", "thinker.audio_tower.x", "image_newline"})
    EXPECT_TRUE(isOtherTower(name)) << name;
  for (const char* name : {"model.layers.0.visual.x", "vision", "mlp1", "model.layers.0.mlp.x",
                           "projectors.x", "lm_head.weight", "model.language_model.x"})
    EXPECT_FALSE(isOtherTower(name)) << name;
}

TEST(TensorNames, ShortensBetweenCharacters) {
  // Byte 46 lies inside an é, which goes whole.
  const std::string name = std::string(45, 'n') + "\xC3\xA9" + std::string(30, 'x');
  const std::string shorter = shortenedName(name);
  EXPECT_EQ(shorter.substr(0, 46), std::string(45, 'n') + "~");
  EXPECT_EQ(shorter.size(), 62u);
}
TEST(TensorNames, HashesLikeFnv1a) {
  // FNV-1a of 64 bits over 70 times 'n', reckoned with a program of its own.
  EXPECT_EQ(shortenedName(std::string(70, 'n')), std::string(46, 'n') + "~c53b6490e9749cfd");
}

// ---- how elements become contiguous

std::string gathered(const OutputTensor& tensor, std::size_t room) {
  ElementReader reader(tensor);
  std::string out;
  std::string piece(room, '\0');
  for (std::size_t n; (n = reader.next(piece.data(), room)) > 0;)
    out += piece.substr(0, n);
  return out;
}

TEST(ElementReader, GivesTheSameInPiecesOfAnySize) {
  const std::string bytes = "ABCDEFGHIJKLMNOPQRSTUVWX";
  const DataFile data{"", -1, bytes};
  OutputTensor tensor;
  tensor.data = &data;
  tensor.elementBytes = 2;
  tensor.extents = {2, 3, 2};
  tensor.strides = {2, 4, 1};  // the first two extents of [3, 2, 2] exchanged
  const std::string expected = "ABCDIJKLQRSTEFGHMNOPUVWX";
  for (std::size_t room = 2; room <= 24; ++room)
    EXPECT_EQ(gathered(tensor, room), expected) << room;
}
TEST(ElementReader, ReadsEveryElementSize) {
  const std::string bytes = "0123456789abcdef0123456789ABCDEF";
  const DataFile data{"", -1, bytes};
  for (const std::uint32_t size : {1U, 2U, 4U, 8U, 16U}) {
    OutputTensor tensor;
    tensor.data = &data;
    tensor.elementBytes = size;
    tensor.extents = {2};
    tensor.strides = {16 / size};
    EXPECT_EQ(gathered(tensor, 64), bytes.substr(0, size) + bytes.substr(16, size)) << size;
  }
}
TEST(ElementReader, GivesNothingOfAnEmptyTensor) {
  const DataFile data{"", -1, ""};
  OutputTensor tensor;
  tensor.data = &data;
  tensor.elementBytes = 4;
  tensor.extents = {3, 0};
  tensor.strides = {1, 1};
  EXPECT_EQ(gathered(tensor, 64), "");
}
TEST(IsContiguous, LooksPastExtentsOfOne) {
  EXPECT_TRUE(isContiguous({2, 1, 3}, {3, 99, 1}));
  EXPECT_FALSE(isContiguous({2, 2, 3}, {3, 3, 1}));
  EXPECT_TRUE(isContiguous({}, {}));
  EXPECT_TRUE(isContiguous({5, 0}, {7, 7}));
}

}  // namespace
}  // namespace zel::tool::prepare
