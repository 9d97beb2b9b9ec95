// Tensor names: from public spellings to those that the name mapping knows.
#include "okv2/prepare/tensor_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "okv2/prepare/tensor_data.h"

namespace zel::tool::prepare {
namespace {

using testing::ElementsAre;

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
  EXPECT_THAT(bringToKnownNames({GetParam().from, "other"}), ElementsAre(GetParam().to, "other"));
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
  EXPECT_THAT(bringToKnownNames({kLayer, "layers.0.unknown", "norm.weight", "embed_tokens.weight"}),
              ElementsAre("model.layers.0.mlp.up_proj.weight", "model.layers.0.unknown", "model.norm.weight",
                          "model.embed_tokens.weight"));
}
TEST(TensorNames, LeavesANormAloneWithoutItsLayers) {
  EXPECT_THAT(bringToKnownNames({"norm.weight"}), ElementsAre("norm.weight"));
}
TEST(TensorNames, RemovesWrappersThatEveryNameHas) {
  EXPECT_THAT(bringToKnownNames({"module._orig_mod.a", "module._orig_mod.b"}), ElementsAre("a", "b"));
  EXPECT_THAT(bringToKnownNames({"module.a", "b"}), ElementsAre("module.a", "b"));
  EXPECT_THAT(bringToKnownNames({"module."}), ElementsAre("module."));
}
TEST(TensorNames, LooksBehindWrappersForPrefixes) {
  EXPECT_THAT(bringToKnownNames({"module.language_model.model.norm.weight"}),
              ElementsAre("model.norm.weight"));
}

TEST(TensorNames, TellsTowersFromTheTextModel) {
  for (const char* name : {"vision_tower.x", "model.vision_tower.x", "visual.x", "module.visual.x",
                           "model.multi_modal_projector.x", "thinker.audio_tower.x", "image_newline"})
    EXPECT_TRUE(isOtherTower(name)) << name;
  for (const char* name : {"model.layers.0.visual.x", "vision", "lm_head.weight", "model.language_model.x"})
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
