// Tensors that one family spells or cuts in a way of its own, over whole directories.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "prepare_weights.h"
#include "support/safetensors_builder.h"
#include "support/torch_builder.h"

namespace zel::tool::prepare {
namespace {

using test::bytesOf;
using test::SafetensorsBuilder;
using test::SavedPickle;
using testing::ElementsAre;
using testing::IsEmpty;

// `count` floats: first, first + 1, ...
std::string floats(int first, int count) {
  std::vector<float> values;
  for (int k = 0; k < count; ++k)
    values.push_back(float(first + k));
  return bytesOf(values);
}

// ---- spellings

TEST_F(WeightsTest, TakesTheSecondProjectionOfQwenForTheGate) {
  write("config.json", R"({"architectures":["QWenLMHeadModel"],"model_type":"qwen"})");
  const std::string layer = "transformer.h.0.";
  write("model.safetensors", SafetensorsBuilder()
                                 .tensorData(layer + "attn.c_proj.weight", "F32", {1}, floats(1, 1))
                                 .tensorData(layer + "mlp.c_proj.weight", "F32", {1}, floats(2, 1))
                                 .tensorData(layer + "mlp.w1.weight", "F32", {1}, floats(3, 1))
                                 .tensorData(layer + "mlp.w2.weight", "F32", {1}, floats(4, 1))
                                 .bytes());
  const Changes changes = prepare();
  ASSERT_EQ(changes.size(), 4u);
  EXPECT_EQ(changes[3].to, "transformer.h.0.mlp.gate_proj.weight");
  EXPECT_EQ(changes[3].why, "The name mapping knows the tensor by this name.");
  EXPECT_EQ(dataOf("model.safetensors", layer + "self_attn.o_proj.weight"), floats(1, 1));
  EXPECT_EQ(dataOf("model.safetensors", layer + "mlp.down_proj.weight"), floats(2, 1));
  EXPECT_EQ(dataOf("model.safetensors", layer + "mlp.up_proj.weight"), floats(3, 1));
  EXPECT_EQ(dataOf("model.safetensors", layer + "mlp.gate_proj.weight"), floats(4, 1));
}

TEST_F(WeightsTest, KnowsTheFirstQwenByItsTypeAlone) {
  write("config.json", R"({"model_type":"qwen"})");
  write("model.safetensors", SafetensorsBuilder()
                                 .tensorData("transformer.h.0.mlp.w1.weight", "F32", {1}, floats(3, 1))
                                 .tensorData("transformer.h.0.mlp.w2.weight", "F32", {1}, floats(4, 1))
                                 .bytes());
  prepare();
  EXPECT_EQ(dataOf("model.safetensors", "transformer.h.0.mlp.up_proj.weight"), floats(3, 1));
  EXPECT_EQ(dataOf("model.safetensors", "transformer.h.0.mlp.gate_proj.weight"), floats(4, 1));
}

TEST_F(WeightsTest, LeavesTheFirstProjectionOfOthersTheGate) {
  write("config.json", R"({"architectures":["Qwen2ForCausalLM"],"model_type":"qwen2"})");
  write("model.safetensors",
        SafetensorsBuilder().tensor("transformer.h.0.mlp.w1.weight", "F32", {1}).bytes());
  EXPECT_THAT(prepare(), IsEmpty());
}

TEST_F(WeightsTest, KeepsAllNormsOfAGemmaInsideAnotherModel) {
  write("config.json", R"({"model_type":"paligemma","text_config":{"model_type":"gemma2"}})");
  const std::string from = "language_model.model.layers.0.";
  write("model.safetensors",
        SafetensorsBuilder()
            .tensorData(from + "post_attention_layernorm.weight", "F32", {1}, floats(1, 1))
            .tensorData(from + "pre_feedforward_layernorm.weight", "F32", {1}, floats(2, 1))
            .bytes());
  const Changes changes = prepare();
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_EQ(changes[0].to, "blk.0.post_attention_norm.weight");
  EXPECT_EQ(changes[0].why, "The name mapping would take the tensor for another norm of its layer.");
  EXPECT_EQ(changes[0].finding, "tensor.duplicate");
  EXPECT_EQ(dataOf("model.safetensors", "blk.0.post_attention_norm.weight"), floats(1, 1));
  EXPECT_EQ(dataOf("model.safetensors", "model.layers.0.pre_feedforward_layernorm.weight"), floats(2, 1));
}

TEST_F(WeightsTest, LooksForTheTextModelPastWhatIsNoObject) {
  const std::string bytes = SafetensorsBuilder()
                                .tensor("model.layers.0.post_attention_layernorm.weight", "F32", {2})
                                .tensor("model.layers.0.pre_feedforward_layernorm.weight", "F32", {2})
                                .bytes();
  write("model.safetensors", bytes);
  for (const char* description : {"null", "[]", "7", R"("gemma2")"}) {
    write("config.json", std::string(R"({"model_type":"xvl","text_config":)") + description +
                             R"(,"thinker_config":)" + description +
                             R"(,"decoder":{"model_type":"gemma2"}})");
    prepare();
    EXPECT_THAT(tensorsIn("model.safetensors"),
                ElementsAre("blk.0.post_attention_norm.weight F32 [2]",
                            "model.layers.0.pre_feedforward_layernorm.weight F32 [2]"))
        << description;
    std::filesystem::remove(out() + "/model.safetensors");
  }
}

TEST_F(WeightsTest, TakesTheFirstObjectForTheTextModel) {
  write("config.json", R"({"model_type":"xvl","text_config":{},"llm_config":{"model_type":"gemma2"}})");
  write("model.safetensors", SafetensorsBuilder()
                                 .tensor("model.layers.0.post_attention_layernorm.weight", "F32", {2})
                                 .tensor("model.layers.0.pre_feedforward_layernorm.weight", "F32", {2})
                                 .bytes());
  const Refusal refused = refusal();
  EXPECT_EQ(refused.code, 2);
  EXPECT_EQ(refused.finding, "tensor.duplicate");
  EXPECT_EQ(refused.message,
            "model.safetensors: tensors 'model.layers.0.pre_feedforward_layernorm.weight' and "
            "'model.layers.0.post_attention_layernorm.weight' (model.safetensors) both get the name "
            "'blk.0.ffn_norm.weight'");
  EXPECT_EQ(refused.remedy, "Rename one of them: no name can stand for both.");
}

TEST_F(WeightsTest, TakesTheConfigurationThatAnImportWillRead) {
  // The prepared configuration names an architecture that the original hides.
  write("config.json", R"({"x":NaN})");
  dir_.write("out/config.json", R"({"model_type":"gemma2"})");
  write("model.safetensors", SafetensorsBuilder()
                                 .tensor("model.layers.0.post_attention_layernorm.weight", "F32", {2})
                                 .tensor("model.layers.0.pre_feedforward_layernorm.weight", "F32", {2})
                                 .bytes());
  EXPECT_THAT(prepare(), IsEmpty());
}

// ---- fused projections

constexpr char kFused[] = "transformer.h.0.attn.c_attn.weight";
constexpr char kFusedBias[] = "transformer.h.0.attn.c_attn.bias";

class FusedWeights : public WeightsTest {
 protected:
  [[nodiscard]] std::string part(const char* name) const {
    return dataOf("model.safetensors", std::string("blk.0.attn_") + name);
  }
  void config(const char* text) const { write("config.json", text); }
  // Refused with this shape, a text.
  void expectRefused(const std::string& shape) const {
    const Refusal refused = refusal();
    EXPECT_EQ(refused.code, 3);
    EXPECT_EQ(refused.finding, "tensor.fused-remainder");
    EXPECT_EQ(refused.message, std::string("model.safetensors: the fused projection '") + kFused + "' " +
                                   shape + " cannot be cut into query, key and value");
    EXPECT_EQ(refused.remedy,
              "Split it into three tensors; for GPTBigCode, n_head in config.json tells how it is cut.");
  }
};

TEST_F(FusedWeights, OfEqualRowsAreLeftToTheImport) {
  write("model.safetensors", SafetensorsBuilder().tensor(kFused, "F32", {6, 2}).bytes());
  EXPECT_THAT(prepare(), IsEmpty());
}

TEST_F(FusedWeights, AreRefusedWhereRowsWouldBeLeftOver) {
  write("model.safetensors", SafetensorsBuilder().tensor(kFused, "F32", {7, 2}).bytes());
  expectRefused("[7, 2]");
}

TEST_F(FusedWeights, InBlocksAreCutByWholeBlocksOrRefused) {
  write("model.safetensors", SafetensorsBuilder().tensor(kFused, "Q4_K", {768, 2}).bytes());
  EXPECT_EQ(refusal().code, 0);
  std::filesystem::remove_all(out());
  std::filesystem::create_directory(out());
  write("model.safetensors", SafetensorsBuilder().tensor(kFused, "Q4_K", {771, 2}).bytes());
  expectRefused("[771, 2]");
}

TEST_F(FusedWeights, InBlocksBySideAreRefused) {
  write("model.safetensors", SafetensorsBuilder().tensor(kFused, "Q4_K", {768, 2304}).bytes());
  expectRefused("[768, 2304]");
}

TEST_F(FusedWeights, InBlocksOfATurnedGpt2AreRefused) {
  config(R"({"model_type":"gpt2","n_embd":256})");
  write("model.safetensors", SafetensorsBuilder().tensor(kFused, "Q4_K", {768, 256}).bytes());
  expectRefused("[768, 256]");
}

TEST_F(FusedWeights, ByColumnsAreSplitAndKeepTheirOrientation) {
  // Rows of [q q | k k | v v].
  write("model.safetensors",
        SafetensorsBuilder().tensorData("h.0.attn.c_attn.weight", "F32", {2, 6}, floats(0, 12)).bytes());
  const Changes changes = prepare();
  EXPECT_EQ(changes.back().finding, "tensor.fused-columns");
  EXPECT_EQ(changes.back().to, "blk.0.attn_q.weight, blk.0.attn_k.weight, blk.0.attn_v.weight");
  EXPECT_EQ(changes.back().why,
            "An import would cut the fused projection along its other extent; the parts stay [in, out].");
  EXPECT_EQ(part("q.weight"), bytesOf<float>({0, 1, 6, 7}));
  EXPECT_EQ(part("k.weight"), bytesOf<float>({2, 3, 8, 9}));
  EXPECT_EQ(part("v.weight"), bytesOf<float>({4, 5, 10, 11}));
}

TEST_F(FusedWeights, OfPrunedGpt2AreCutByColumns) {
  // Six inputs; one of two heads of three is left, so that nine columns are.
  config(R"({"model_type":"gpt2","n_embd":6})");
  write("model.safetensors", SafetensorsBuilder()
                                 .tensorData(kFusedBias, "F32", {9}, floats(100, 9))
                                 .tensorData(kFused, "F32", {6, 9}, floats(0, 54))
                                 .bytes());
  prepare();
  EXPECT_THAT(tensorsIn("model.safetensors"),
              ElementsAre("blk.0.attn_k.weight F32 [6,3]", "blk.0.attn_q.weight F32 [6,3]",
                          "blk.0.attn_v.weight F32 [6,3]", std::string(kFusedBias) + " F32 [9]"));
  EXPECT_EQ(part("q.weight"),
            bytesOf<float>({0, 1, 2, 9, 10, 11, 18, 19, 20, 27, 28, 29, 36, 37, 38, 45, 46, 47}));
  EXPECT_EQ(part("v.weight"),
            bytesOf<float>({6, 7, 8, 15, 16, 17, 24, 25, 26, 33, 34, 35, 42, 43, 44, 51, 52, 53}));
}

TEST_F(FusedWeights, OfTheFirstQwenAreCutByRowsWhateverTheirColumns) {
  config(R"({"model_type":"qwen"})");
  write("model.safetensors", SafetensorsBuilder().tensor(kFused, "F32", {6, 9}).bytes());
  EXPECT_THAT(prepare(), IsEmpty());
}

struct DirectionRow {
  const char* name;
  const char* config;
  std::vector<std::uint64_t> shape;
  const char* parts;  // the shape of each; null where the tensor is refused, empty where an import cuts it
};
class FusedDirections : public FusedWeights, public testing::WithParamInterface<DirectionRow> {};
TEST_P(FusedDirections, AreKnownOrRefused) {
  const DirectionRow& row = GetParam();
  config(row.config);
  write("model.safetensors", SafetensorsBuilder().tensor(kFused, "F32", row.shape).bytes());
  if (row.parts == nullptr) {
    std::string shape;
    for (const std::uint64_t extent : row.shape)
      shape += (shape.empty() ? "[" : ", ") + std::to_string(extent);
    expectRefused(shape + "]");
    return;
  }
  prepare();
  const std::string parts = row.parts;
  if (parts.empty()) {
    EXPECT_TRUE(std::filesystem::is_symlink(out() + "/model.safetensors"));
    return;
  }
  EXPECT_THAT(tensorsIn("model.safetensors"),
              ElementsAre("blk.0.attn_k.weight F32 " + parts, "blk.0.attn_q.weight F32 " + parts,
                          "blk.0.attn_v.weight F32 " + parts));
}
constexpr char kGpt2[] = R"({"model_type":"gpt2","n_embd":6})";
INSTANTIATE_TEST_SUITE_P(
    All, FusedDirections,
    testing::Values(
        DirectionRow{"Gpt2", kGpt2, {6, 18}, "[6,6]"}, DirectionRow{"Gpt2Turned", kGpt2, {18, 6}, ""},
        DirectionRow{"Gpt2TurnedOfOtherColumns", R"({"model_type":"gpt2","n_embd":4})", {12, 4}, ""},
        DirectionRow{"Gpt2TurnedOneRowMore", kGpt2, {19, 6}, nullptr},
        DirectionRow{"Gpt2TurnedOneRowLess", kGpt2, {17, 6}, nullptr},
        DirectionRow{"Gpt2TurnedAndPruned", kGpt2, {9, 6}, nullptr},
        DirectionRow{"Gpt2TurnedOfAnotherWidth", R"({"model_type":"gpt2","n_embd":7})", {18, 6}, nullptr},
        DirectionRow{"Gpt2PrunedToAThird", R"({"model_type":"gpt2","n_embd":18})", {18, 6}, "[18,2]"},
        DirectionRow{"FirstGptTurned", R"({"model_type":"openai-gpt","n_embd":6})", {18, 6}, ""},
        DirectionRow{"Gpt2OneColumnMore", kGpt2, {6, 10}, nullptr},
        DirectionRow{"Gpt2OneRowMore", kGpt2, {7, 9}, nullptr},
        DirectionRow{
            "Gpt2ByItsClass", R"({"architectures":["GPT2LMHeadModel"],"hidden_size":6})", {6, 9}, "[6,3]"},
        DirectionRow{"Gpt2OfUnknownWidth", R"({"model_type":"gpt2"})", {6, 9}, "[6,3]"},
        DirectionRow{"Gpt2OfUnknownWidthMaybeTurned", R"({"model_type":"gpt2"})", {9, 3}, nullptr},
        DirectionRow{"Gpt2ThreeExtents", kGpt2, {6, 9, 1}, nullptr},
        DirectionRow{"FirstGpt", R"({"model_type":"openai-gpt","n_embd":6})", {6, 9}, "[6,3]"},
        DirectionRow{"ImageGpt", R"({"model_type":"imagegpt","n_embd":6})", {6, 9}, "[6,3]"},
        DirectionRow{"OtherByColumns", R"({"model_type":"x"})", {3, 9}, "[3,3]"},
        DirectionRow{"OtherByRows", R"({"model_type":"x"})", {9, 3}, ""},
        DirectionRow{"OtherByRowsThatColumnsCannotBe", R"({"model_type":"x"})", {6, 8}, ""},
        DirectionRow{"OtherOfEither", R"({"model_type":"x"})", {6, 9}, nullptr}),
    [](const auto& row) { return row.param.name; });

constexpr char kMultiQuery[] = R"({"model_type":"gpt_bigcode","n_head":2,"multi_query":true})";
constexpr char kMultiHead[] = R"({"model_type":"gpt_bigcode","n_head":2,"multi_query":false})";

TEST_F(FusedWeights, OfMultiQueryAttentionHaveOneKeyHeadAndOneValueHead) {
  // Two heads of two: four rows of queries, two of keys, two of values, four columns.
  config(kMultiQuery);
  write("model.safetensors", SafetensorsBuilder()
                                 .tensorData(kFusedBias, "F32", {8}, floats(100, 8))
                                 .tensorData(kFused, "F32", {8, 4}, floats(0, 32))
                                 .bytes());
  const Changes changes = prepare();
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_EQ(changes[1].to, "blk.0.attn_q.weight, blk.0.attn_k.weight, blk.0.attn_v.weight");
  EXPECT_EQ(changes[1].why,
            "An import would cut the fused projection into three equal parts, which these are not.");
  EXPECT_EQ(changes[1].finding, "tensor.fused-remainder");
  EXPECT_THAT(tensorsIn("model.safetensors"),
              ElementsAre("blk.0.attn_k.bias F32 [2]", "blk.0.attn_k.weight F32 [2,4]",
                          "blk.0.attn_q.bias F32 [4]", "blk.0.attn_q.weight F32 [4,4]",
                          "blk.0.attn_v.bias F32 [2]", "blk.0.attn_v.weight F32 [2,4]"));
  EXPECT_EQ(part("q.weight"), floats(0, 16));
  EXPECT_EQ(part("k.weight"), floats(16, 8));
  EXPECT_EQ(part("v.weight"), floats(24, 8));
  EXPECT_EQ(part("q.bias"), floats(100, 4));
  EXPECT_EQ(part("k.bias"), floats(104, 2));
  EXPECT_EQ(part("v.bias"), floats(106, 2));
}

TEST_F(FusedWeights, OfGptBigCodeAreMultiQueryWhereNothingElseIsSaid) {
  config(R"({"architectures":["GPTBigCodeForCausalLM"],"num_attention_heads":2})");
  write("model.safetensors", SafetensorsBuilder().tensorData(kFused, "F32", {8, 4}, floats(0, 32)).bytes());
  prepare();
  EXPECT_EQ(part("k.weight"), floats(16, 8));
}

TEST_F(FusedWeights, OfMultiQueryAttentionMayBeTransposedAndCast) {
  config(kMultiQuery);
  std::vector<double> columns;  // of the stored [4, 8]
  for (int k = 0; k < 32; ++k)
    columns.push_back(k);
  write("pytorch_model.bin",
        test::savedZip(SavedPickle().stateDict({{kFused, {8, 4}, {1, 8}, "0", 32, "DoubleStorage"}}).stop(),
                       {{"0", bytesOf(columns)}})
            .build());
  prepare({true, {}, false});
  EXPECT_EQ(part("k.weight"), bytesOf<float>({4, 12, 20, 28, 5, 13, 21, 29}));
  EXPECT_EQ(part("v.weight"), bytesOf<float>({6, 14, 22, 30, 7, 15, 23, 31}));
}

TEST_F(FusedWeights, OfGptBigCodeWithAllHeadsLieHeadByHead) {
  // Two heads of one: query, key and value of the first, then of the second; two columns.
  config(kMultiHead);
  write("model.safetensors", SafetensorsBuilder()
                                 .tensorData(kFusedBias, "F32", {6}, floats(100, 6))
                                 .tensorData(kFused, "F32", {6, 2}, floats(0, 12))
                                 .bytes());
  prepare();
  EXPECT_THAT(tensorsIn("model.safetensors"),
              ElementsAre("blk.0.attn_k.bias F32 [2]", "blk.0.attn_k.weight F32 [2,2]",
                          "blk.0.attn_q.bias F32 [2]", "blk.0.attn_q.weight F32 [2,2]",
                          "blk.0.attn_v.bias F32 [2]", "blk.0.attn_v.weight F32 [2,2]"));
  EXPECT_EQ(part("q.weight"), bytesOf<float>({0, 1, 6, 7}));
  EXPECT_EQ(part("k.weight"), bytesOf<float>({2, 3, 8, 9}));
  EXPECT_EQ(part("v.weight"), bytesOf<float>({4, 5, 10, 11}));
  EXPECT_EQ(part("q.bias"), bytesOf<float>({100, 103}));
  EXPECT_EQ(part("k.bias"), bytesOf<float>({101, 104}));
  EXPECT_EQ(part("v.bias"), bytesOf<float>({102, 105}));
}

struct BigCodeRow {
  const char* name;
  const char* config;
  std::vector<std::uint64_t> shape;
  const char* shapeText;
};
class BigCodeRefusals : public FusedWeights, public testing::WithParamInterface<BigCodeRow> {};
TEST_P(BigCodeRefusals, NameTheTensor) {
  config(GetParam().config);
  write("model.safetensors", SafetensorsBuilder().tensor(kFused, "F32", GetParam().shape).bytes());
  expectRefused(GetParam().shapeText);
}
INSTANTIATE_TEST_SUITE_P(
    All, BigCodeRefusals,
    testing::Values(
        BigCodeRow{"NoHeads", R"({"model_type":"gpt_bigcode"})", {8, 4}, "[8, 4]"},
        BigCodeRow{"NegativeHeads", R"({"model_type":"gpt_bigcode","n_head":-2})", {8, 4}, "[8, 4]"},
        BigCodeRow{"MoreHeadsThanCanBe",
                   R"({"model_type":"gpt_bigcode","n_head":9223372036854774784,"multi_query":false})",
                   {8, 4},
                   "[8, 4]"},
        BigCodeRow{"OneRowMore", kMultiQuery, {9, 4}, "[9, 4]"},
        BigCodeRow{"OneColumnMore", kMultiQuery, {8, 5}, "[8, 5]"},
        BigCodeRow{"OneRowMoreOfAllHeads", kMultiHead, {7, 2}, "[7, 2]"},
        BigCodeRow{"OneColumnMoreOfAllHeads", kMultiHead, {6, 3}, "[6, 3]"},
        BigCodeRow{"ThreeExtents", kMultiQuery, {8, 4, 1}, "[8, 4, 1]"}),
    [](const auto& row) { return row.param.name; });

TEST_F(FusedWeights, InBlocksOfGptBigCodeAreRefused) {
  config(kMultiQuery);
  write("model.safetensors", SafetensorsBuilder().tensor(kFused, "Q4_K", {1024, 512}).bytes());
  expectRefused("[1024, 512]");
}

}  // namespace
}  // namespace zel::tool::prepare
