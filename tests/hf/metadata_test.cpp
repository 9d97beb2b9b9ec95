#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "captured_metadata.h"
#include "hf/hf_importer.h"
#include "support/status_matchers.h"

namespace zel {
namespace {

using test::IsOk;
using test::StatusIs;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Not;
using testing::StartsWith;

std::vector<std::string> emitted(const HfImporter& importer) {
  OKV2Writer writer;
  EXPECT_THAT(importer.applyMeta(writer), IsOk());
  return test::metadataLines(writer);
}

// What open() leaves of a configuration that says nothing but its model type.
HfImporter opened(const char* arch) {
  HfImporter importer;
  importer.arch = arch;
  importer.opened = true;
  return importer;
}

TEST(Metadata, BeforeASuccessfulOpenIsRefusedAndWritesNothing) {
  HfImporter importer;
  importer.arch = "llama";
  OKV2Writer writer;
  EXPECT_THAT(importer.applyMeta(writer), StatusIs(Code::InvalidFormat, "hf: not opened"));
  EXPECT_THAT(test::metadataLines(writer), ElementsAre());
}

TEST(Metadata, OfAModelWithoutSettingsIsTheTwoRowsThatAlwaysHold) {
  EXPECT_THAT(emitted(opened("llama")),
              ElementsAre("general.architecture str llama", "hf.source_format str huggingface"));
}

TEST(Metadata, OfAGemma4WithoutSettingsHasItsSixRowsThatAlwaysHold) {
  EXPECT_THAT(emitted(opened("gemma4")),
              ElementsAre("general.architecture str gemma4", "hf.source_format str huggingface",
                          "gemma4.block_count u32 0", "gemma4.embedding_length u32 0",
                          "gemma4.attention.head_count u32 0", "gemma4.attention.head_count_kv u32 0",
                          "gemma4.feed_forward_length u32 0", "gemma4.rope.freq_base_swa f32 10000"));
}

// Every field set, so that every row holds.
HfImporter everything(const char* arch) {
  HfImporter importer = opened(arch);
  importer.tokenizerConfig = "{tc}";
  importer.specialTokensMap = "{stm}";
  importer.generationConfig = "{gc}";
  importer.addBos = 1;
  importer.name = "the name";
  importer.hiddenSize = 11;
  importer.numLayers = 12;
  importer.numHeads = 13;
  importer.numKvHeads = 14;
  importer.intermediateSize = 15;
  importer.vocabSize = 16;
  importer.contextLength = 1017;
  importer.ropeTheta = 500;
  importer.rmsNormEps = 0.25F;
  importer.logitSoftcap = 30;
  importer.headDim = 21;
  importer.headDimSwa = 22;
  importer.perLayerInputDim = 23;
  importer.sharedKvLayers = 24;
  importer.slidingWindow = 25;
  importer.swaPattern = {1, 0, 255};
  return importer;
}

const std::vector<std::string> kGenericRows = {
    "hf.source_format str huggingface",
    "hf.tokenizer_config str {tc}",
    "hf.special_tokens_map str {stm}",
    "hf.generation_config str {gc}",
    "model.add_bos u32 1",
    "general.name str the name",
    "model.hidden_size u64 11",
    "model.num_layers u64 12",
    "model.num_heads u64 13",
    "model.num_kv_heads u64 14",
    "model.intermediate_size u64 15",
    "model.vocab_size u64 16",
    "model.context_length u64 1017",
    "model.rope_theta f32 500",
    "model.rms_norm_eps f32 0.25",
};
const std::vector<std::string> kGemma4Rows = {
    "gemma4.block_count u32 12",
    "gemma4.embedding_length u32 11",
    "gemma4.attention.head_count u32 13",
    "gemma4.attention.head_count_kv u32 14",
    "gemma4.feed_forward_length u32 15",
    "gemma4.attention.key_length u32 21",
    "gemma4.attention.key_length_swa u32 22",
    "gemma4.embedding_length_per_layer_input u32 23",
    "gemma4.attention.sliding_window u32 25",
    "gemma4.attention.shared_kv_layers u32 24",
    "gemma4.context_length u32 1017",
    "gemma4.rope.freq_base f32 500",
    "gemma4.rope.freq_base_swa f32 5",
    "gemma4.attention.layer_norm_rms_epsilon f32 0.25",
    "gemma4.final_logit_softcapping f32 30",
    "gemma4.swa_pattern u32[] 1 0 255",
};

TEST(Metadata, OfAModelWithAllSettingsIsTheSixteenGenericRowsInOrder) {
  std::vector<std::string> rows = {"general.architecture str llama"};
  rows.insert(rows.end(), kGenericRows.begin(), kGenericRows.end());
  EXPECT_THAT(emitted(everything("llama")), ElementsAreArray(rows));
}

TEST(Metadata, OfAGemma4WithAllSettingsCarriesBothSpellingsInOrder) {
  std::vector<std::string> rows = {"general.architecture str gemma4"};
  rows.insert(rows.end(), kGenericRows.begin(), kGenericRows.end());
  rows.insert(rows.end(), kGemma4Rows.begin(), kGemma4Rows.end());
  EXPECT_THAT(emitted(everything("gemma4")), ElementsAreArray(rows));
}

TEST(Metadata, OfNamesThatOnlyResembleGemma4HasNoGemma4Rows) {
  for (const char* arch : {"gemma", "gemma4_text", "Gemma4", "gemma4 ", "gemma3"}) {
    EXPECT_THAT(emitted(everything(arch)), Not(Contains(StartsWith("gemma4.")))) << arch;
  }
}

// ---- the condition of each row: the field just outside and just inside it

struct ConditionRow {
  const char* name;
  std::function<void(HfImporter&)> outside;
  std::function<void(HfImporter&)> inside;
  const char* line;  // what `inside` brings and `outside` does not
};

class MetadataCondition : public testing::TestWithParam<ConditionRow> {};

TEST_P(MetadataCondition, DecidesWhetherTheRowIsThere) {
  const ConditionRow& row = GetParam();
  const std::string key = std::string(row.line).substr(0, std::string(row.line).find(' ') + 1);
  HfImporter without = everything("gemma4");
  row.outside(without);
  EXPECT_THAT(emitted(without), Not(Contains(StartsWith(key))));
  HfImporter with = everything("gemma4");
  row.inside(with);
  EXPECT_THAT(emitted(with), Contains(row.line));
}

template <class Field, class Value>
std::function<void(HfImporter&)> set(Field HfImporter::*field, Value value) {
  return [=](HfImporter& importer) { importer.*field = value; };
}

constexpr float kTiny = std::numeric_limits<float>::denorm_min();

INSTANTIATE_TEST_SUITE_P(
    Rows, MetadataCondition,
    testing::Values(
        ConditionRow{"TokenizerConfig", set(&HfImporter::tokenizerConfig, ""),
                     set(&HfImporter::tokenizerConfig, " "), "hf.tokenizer_config str  "},
        ConditionRow{"SpecialTokensMap", set(&HfImporter::specialTokensMap, ""),
                     set(&HfImporter::specialTokensMap, "x"), "hf.special_tokens_map str x"},
        ConditionRow{"GenerationConfig", set(&HfImporter::generationConfig, ""),
                     set(&HfImporter::generationConfig, "x"), "hf.generation_config str x"},
        ConditionRow{"AddBos", set(&HfImporter::addBos, -1), set(&HfImporter::addBos, 0),
                     "model.add_bos u32 0"},
        ConditionRow{"Name", set(&HfImporter::name, ""), set(&HfImporter::name, "n"), "general.name str n"},
        ConditionRow{"HiddenSize", set(&HfImporter::hiddenSize, 0), set(&HfImporter::hiddenSize, 1),
                     "model.hidden_size u64 1"},
        ConditionRow{"NegativeHiddenSize", set(&HfImporter::hiddenSize, 0), set(&HfImporter::hiddenSize, -1),
                     "model.hidden_size u64 18446744073709551615"},
        ConditionRow{"NumLayers", set(&HfImporter::numLayers, 0), set(&HfImporter::numLayers, 1),
                     "model.num_layers u64 1"},
        ConditionRow{"NumHeads", set(&HfImporter::numHeads, 0), set(&HfImporter::numHeads, 1),
                     "model.num_heads u64 1"},
        ConditionRow{"NumKvHeads", set(&HfImporter::numKvHeads, 0), set(&HfImporter::numKvHeads, 1),
                     "model.num_kv_heads u64 1"},
        ConditionRow{"IntermediateSize", set(&HfImporter::intermediateSize, 0),
                     set(&HfImporter::intermediateSize, 1), "model.intermediate_size u64 1"},
        ConditionRow{"VocabSize", set(&HfImporter::vocabSize, 0), set(&HfImporter::vocabSize, 1),
                     "model.vocab_size u64 1"},
        ConditionRow{"ContextLength", set(&HfImporter::contextLength, 0), set(&HfImporter::contextLength, 1),
                     "model.context_length u64 1"},
        ConditionRow{"RopeTheta", set(&HfImporter::ropeTheta, 0), set(&HfImporter::ropeTheta, kTiny),
                     "model.rope_theta f32 1.40129846e-45"},
        ConditionRow{"NegativeRopeTheta", set(&HfImporter::ropeTheta, -1), set(&HfImporter::ropeTheta, 1),
                     "model.rope_theta f32 1"},
        ConditionRow{"RmsNormEps", set(&HfImporter::rmsNormEps, 0), set(&HfImporter::rmsNormEps, kTiny),
                     "model.rms_norm_eps f32 1.40129846e-45"},
        ConditionRow{"NegativeRmsNormEps", set(&HfImporter::rmsNormEps, -1), set(&HfImporter::rmsNormEps, 1),
                     "model.rms_norm_eps f32 1"},
        ConditionRow{"Gemma4KeyLength", set(&HfImporter::headDim, 0), set(&HfImporter::headDim, 1),
                     "gemma4.attention.key_length u32 1"},
        ConditionRow{"Gemma4KeyLengthSwa", set(&HfImporter::headDimSwa, 0), set(&HfImporter::headDimSwa, 1),
                     "gemma4.attention.key_length_swa u32 1"},
        ConditionRow{"Gemma4PerLayerInput", set(&HfImporter::perLayerInputDim, 0),
                     set(&HfImporter::perLayerInputDim, 1), "gemma4.embedding_length_per_layer_input u32 1"},
        ConditionRow{"Gemma4SlidingWindow", set(&HfImporter::slidingWindow, 0),
                     set(&HfImporter::slidingWindow, 1), "gemma4.attention.sliding_window u32 1"},
        ConditionRow{"Gemma4SharedKvLayers", set(&HfImporter::sharedKvLayers, 0),
                     set(&HfImporter::sharedKvLayers, -2),
                     "gemma4.attention.shared_kv_layers u32 4294967294"},
        ConditionRow{"Gemma4ContextLength", set(&HfImporter::contextLength, 256),
                     set(&HfImporter::contextLength, 257), "gemma4.context_length u32 257"},
        ConditionRow{"Gemma4RopeFreqBase", set(&HfImporter::ropeTheta, 0), set(&HfImporter::ropeTheta, 1),
                     "gemma4.rope.freq_base f32 1"},
        ConditionRow{"Gemma4RmsEpsilon", set(&HfImporter::rmsNormEps, 0), set(&HfImporter::rmsNormEps, 1),
                     "gemma4.attention.layer_norm_rms_epsilon f32 1"},
        ConditionRow{"Gemma4Softcap", set(&HfImporter::logitSoftcap, 0),
                     set(&HfImporter::logitSoftcap, kTiny),
                     "gemma4.final_logit_softcapping f32 1.40129846e-45"},
        ConditionRow{"Gemma4NegativeSoftcap", set(&HfImporter::logitSoftcap, -30),
                     set(&HfImporter::logitSoftcap, 30), "gemma4.final_logit_softcapping f32 30"},
        ConditionRow{"Gemma4SwaPattern", set(&HfImporter::swaPattern, std::vector<std::uint8_t>()),
                     set(&HfImporter::swaPattern, std::vector<std::uint8_t>{0}),
                     "gemma4.swa_pattern u32[] 0"}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- values

TEST(Metadata, Gemma4IntegersAreTheLowThirtyTwoBits) {
  HfImporter importer = opened("gemma4");
  importer.numLayers = (std::int64_t{1} << 32) + 5;
  importer.hiddenSize = std::int64_t{1} << 32;
  importer.headDim = std::int64_t{3} << 32;  // not 0, so the row is there, with nothing left of the value
  importer.contextLength = (std::int64_t{1} << 32) + 1;
  const std::vector<std::string> rows = emitted(importer);
  EXPECT_THAT(rows, Contains("gemma4.block_count u32 5"));
  EXPECT_THAT(rows, Contains("gemma4.embedding_length u32 0"));
  EXPECT_THAT(rows, Contains("gemma4.attention.key_length u32 0"));
  EXPECT_THAT(rows, Contains("gemma4.context_length u32 1"));
  EXPECT_THAT(rows, Contains("model.num_layers u64 4294967301"));
}

TEST(Metadata, TheGemma4ContextLengthIsComparedUnsignedWith256) {
  HfImporter importer = opened("gemma4");
  importer.contextLength = -1;
  EXPECT_THAT(emitted(importer), Contains("gemma4.context_length u32 4294967295"));
}

TEST(Metadata, TheSlidingWindowRopeBaseIsAHundredthOfTheGlobalOne) {
  HfImporter importer = opened("gemma4");
  importer.ropeTheta = 1000000;
  EXPECT_THAT(emitted(importer), Contains("gemma4.rope.freq_base_swa f32 10000"));
  // The product of singles: 0.01f is 0.00999999977648258209..., so 3 of them are 0.0299999993294477...
  importer.ropeTheta = 3;
  EXPECT_THAT(emitted(importer), Contains("gemma4.rope.freq_base_swa f32 0.0299999993"));
}

TEST(Metadata, TheSlidingWindowRopeBaseFallsBackTo10000) {
  HfImporter importer = opened("gemma4");
  importer.ropeTheta = 0;
  EXPECT_THAT(emitted(importer), Contains("gemma4.rope.freq_base_swa f32 10000"));
  importer.ropeTheta = -5;
  EXPECT_THAT(emitted(importer), Contains("gemma4.rope.freq_base_swa f32 10000"));
  EXPECT_THAT(emitted(importer), Not(Contains(StartsWith("gemma4.rope.freq_base "))));
}

TEST(Metadata, AppliedTwiceIsThereTwice) {
  const HfImporter importer = opened("llama");
  OKV2Writer writer;
  EXPECT_THAT(importer.applyMeta(writer), IsOk());
  EXPECT_THAT(importer.applyMeta(writer), IsOk());
  EXPECT_EQ(test::metadataLines(writer).size(), 4U);
}

}  // namespace
}  // namespace zel
