#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>

#include <sys/stat.h>

#include "hf/hf_importer.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel {
namespace {

using test::IsOk;
using test::StatusIs;
using test::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;

Status parse(const std::string& config, HfImporter& importer) {
  const TempDir dir;
  dir.write("config.json", config);
  return importer.parseConfig(dir.path());
}

// A configuration that names its model type and has `members` besides.
HfImporter configured(const std::string& members) {
  HfImporter importer;
  EXPECT_THAT(parse("{\"model_type\":\"x\"" + (members.empty() ? "" : "," + members) + "}", importer),
              IsOk());
  return importer;
}

// ---- the file

TEST(Config, MissingIsInvalidFormat) {
  const TempDir dir;
  HfImporter importer;
  EXPECT_THAT(importer.parseConfig(dir.path()),
              StatusIs(Code::InvalidFormat, "hf: no config.json in directory"));
  EXPECT_FALSE(importer.hasConfig);
}

TEST(Config, OfNoBytesCountsAsMissing) {
  HfImporter importer;
  EXPECT_THAT(parse("", importer), StatusIs(Code::InvalidFormat, "hf: no config.json in directory"));
}

TEST(Config, ThatIsADirectoryCountsAsMissing) {
  const TempDir dir;
  std::filesystem::create_directory(dir / "config.json");
  HfImporter importer;
  EXPECT_THAT(importer.parseConfig(dir.path()),
              StatusIs(Code::InvalidFormat, "hf: no config.json in directory"));
}

TEST(Config, ThatIsAFifoCountsAsMissingAndDoesNotBlock) {
  const TempDir dir;
  ASSERT_EQ(mkfifo((dir / "config.json").c_str(), 0600), 0);
  HfImporter importer;
  EXPECT_THAT(importer.parseConfig(dir.path()),
              StatusIs(Code::InvalidFormat, "hf: no config.json in directory"));
}

TEST(Config, ThatIsNotJsonIsCorruptedWithoutTheReadersMessage) {
  HfImporter importer;
  EXPECT_THAT(parse("{\"model_type\":\"x\",}", importer), StatusIs(Code::Corrupted, "hf: bad config.json"));
  EXPECT_THAT(parse(" ", importer), StatusIs(Code::Corrupted, "hf: bad config.json"));
  EXPECT_THAT(parse("{} {}", importer), StatusIs(Code::Corrupted, "hf: bad config.json"));
}

TEST(Config, ThatIsNoObjectIsCorrupted) {
  for (const char* text : {"[]", "null", "1", "true", "\"model_type\"", "[{\"model_type\":\"x\"}]"}) {
    HfImporter importer;
    EXPECT_THAT(parse(text, importer), StatusIs(Code::Corrupted, "hf: config.json not an object")) << text;
  }
}

// ---- architecture and name

TEST(Config, WithoutAModelTypeIsInvalidFormat) {
  for (const char* text : {"{}", "{\"model_type\":1}", "{\"model_type\":null}", "{\"architectures\":[]}",
                           "{\"architectures\":[1,\"LlamaForCausalLM\"]}", "{\"architectures\":[\"\"]}",
                           "{\"architectures\":\"\"}", "{\"architectures\":{\"0\":\"LlamaForCausalLM\"}}",
                           "{\"architectures\":null}", "{\"Model_Type\":\"llama\"}",
                           "{\"text_config\":{\"model_type\":\"llama\"}}"}) {
    HfImporter importer;
    EXPECT_THAT(parse(text, importer), StatusIs(Code::InvalidFormat, "hf: config.json has no model_type"))
        << text;
    EXPECT_FALSE(importer.hasConfig);
  }
}

TEST(Config, WithAnEmptyModelTypeDoesNotFallBackToTheArchitectures) {
  HfImporter importer;
  EXPECT_THAT(parse(R"({"model_type":"","architectures":["LlamaForCausalLM"]})", importer),
              StatusIs(Code::InvalidFormat, "hf: config.json has no model_type"));
}

struct ArchRow {
  const char* name;
  const char* config;
  const char* arch;
  const char* modelName;
};

class ConfigArchitecture : public testing::TestWithParam<ArchRow> {};

TEST_P(ConfigArchitecture, IsMappedAfterTheNameWasTaken) {
  HfImporter importer;
  ASSERT_THAT(parse(GetParam().config, importer), IsOk());
  EXPECT_EQ(importer.arch, GetParam().arch);
  EXPECT_EQ(importer.name, GetParam().modelName);
  EXPECT_TRUE(importer.hasConfig);
  EXPECT_FALSE(importer.opened);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ConfigArchitecture,
    testing::Values(
        ArchRow{"Llama2", R"({"model_type":"llama2"})", "llama", "llama2"},
        ArchRow{"LlamaClass", R"({"model_type":"LlamaForCausalLM"})", "llama", "LlamaForCausalLM"},
        ArchRow{"Qwen2Class", R"({"model_type":"Qwen2ForCausalLM"})", "qwen2", "Qwen2ForCausalLM"},
        ArchRow{"Gemma4Class", R"({"model_type":"Gemma4ForCausalLM"})", "gemma4", "Gemma4ForCausalLM"},
        ArchRow{"LlamaPasses", R"({"model_type":"llama"})", "llama", "llama"},
        ArchRow{"Qwen2Passes", R"({"model_type":"qwen2"})", "qwen2", "qwen2"},
        ArchRow{"Gemma4Passes", R"({"model_type":"gemma4"})", "gemma4", "gemma4"},
        ArchRow{"UnknownPasses", R"({"model_type":"bert"})", "bert", "bert"},
        ArchRow{"CaseMatters", R"({"model_type":"LLAMA2"})", "LLAMA2", "LLAMA2"},
        ArchRow{"WholeNamesOnly", R"({"model_type":"llama2x"})", "llama2x", "llama2x"},
        ArchRow{"Gemma4TextIsNotGemma4", R"({"model_type":"gemma4_text"})", "gemma4_text", "gemma4_text"},
        ArchRow{"FromArchitectures", R"({"architectures":["Qwen2ForCausalLM"]})", "qwen2",
                "Qwen2ForCausalLM"},
        ArchRow{"FirstOfArchitectures", R"({"architectures":["A","LlamaForCausalLM"]})", "A", "A"},
        ArchRow{"ArchitecturesAsText", R"({"architectures":"LlamaForCausalLM"})", "llama",
                "LlamaForCausalLM"},
        ArchRow{"ModelTypeWins", R"({"architectures":["LlamaForCausalLM"],"model_type":"qwen2"})", "qwen2",
                "qwen2"},
        ArchRow{"OddModelTypeFallsBack", R"({"model_type":7,"architectures":["LlamaForCausalLM"]})", "llama",
                "LlamaForCausalLM"},
        ArchRow{"FirstModelTypeCounts", R"({"model_type":"a","model_type":"b"})", "a", "a"},
        ArchRow{"NameOrPath", R"({"model_type":"llama2","_name_or_path":"org/model"})", "llama", "org/model"},
        ArchRow{"EmptyNameOrPathIsKept", R"({"model_type":"llama2","_name_or_path":""})", "llama", ""},
        ArchRow{"OddNameOrPathIsAbsent", R"({"model_type":"llama2","_name_or_path":null})", "llama",
                "llama2"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(Config, ANulByteIsPartOfTheModelType) {
  HfImporter importer;
  ASSERT_THAT(parse(R"({"model_type":"llama2\u0000"})", importer), IsOk());
  EXPECT_EQ(importer.arch, std::string("llama2\0", 7)) << "so it is not the name that is mapped";
}

// ---- integers

struct IntegerField {
  const char* key;
  std::int64_t HfImporter::*field;
};

class ConfigInteger : public testing::TestWithParam<IntegerField> {
 protected:
  static std::int64_t given(const std::string& value) {
    return configured("\"" + std::string(GetParam().key) + "\":" + value).*GetParam().field;
  }
};

TEST_P(ConfigInteger, IsReadFromItsKey) { EXPECT_EQ(given("4096"), 4096); }
TEST_P(ConfigInteger, MayBeWrittenWithAFractionOfZero) { EXPECT_EQ(given("4096.0"), 4096); }
TEST_P(ConfigInteger, MayBeNegative) { EXPECT_EQ(given("-3"), -3); }
TEST_P(ConfigInteger, OfAFractionIsZero) { EXPECT_EQ(given("4096.5"), 0); }
TEST_P(ConfigInteger, OfAnotherKindIsLeftAsItWas) {
  for (const char* value : {"\"4096\"", "true", "null", "[4096]", "{}"})
    EXPECT_EQ(given(value), 0) << value;
}
TEST_P(ConfigInteger, IsTheFirstOfEqualKeys) {
  const std::string key = "\"" + std::string(GetParam().key) + "\":";
  EXPECT_EQ(configured(key + "1," + key + "2").*GetParam().field, 1);
}
TEST_P(ConfigInteger, IsNotSearchedInNestedObjects) {
  EXPECT_EQ(configured("\"text_config\":{\"" + std::string(GetParam().key) + "\":5}").*GetParam().field, 0);
}
TEST_P(ConfigInteger, ReachesUpToTheLastDoubleBelowTwoTo63) {
  EXPECT_EQ(given("9223372036854774784"), 9223372036854774784);
  EXPECT_EQ(given("9223372036854775807"), 0) << "reads as 2^63, which does not fit";
  EXPECT_EQ(given("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(given("-9223372036854777856"), 0);
  EXPECT_EQ(given("1e999"), 0);
  EXPECT_EQ(given("-1e999"), 0);
}

INSTANTIATE_TEST_SUITE_P(EveryKey, ConfigInteger,
                         testing::Values(IntegerField{"hidden_size", &HfImporter::hiddenSize},
                                         IntegerField{"num_hidden_layers", &HfImporter::numLayers},
                                         IntegerField{"num_attention_heads", &HfImporter::numHeads},
                                         IntegerField{"num_key_value_heads", &HfImporter::numKvHeads},
                                         IntegerField{"intermediate_size", &HfImporter::intermediateSize},
                                         IntegerField{"vocab_size", &HfImporter::vocabSize},
                                         IntegerField{"max_position_embeddings", &HfImporter::contextLength},
                                         IntegerField{"head_dim", &HfImporter::headDim},
                                         IntegerField{"key_length", &HfImporter::headDim},
                                         IntegerField{"key_length_swa", &HfImporter::headDimSwa},
                                         IntegerField{"embedding_length_per_layer_input",
                                                      &HfImporter::perLayerInputDim},
                                         IntegerField{"shared_kv_layers", &HfImporter::sharedKvLayers},
                                         IntegerField{"sliding_window", &HfImporter::slidingWindow}),
                         [](const auto& row) { return std::string(row.param.key); });

TEST(Config, KeyLengthWinsOverHeadDimWhateverTheirOrder) {
  EXPECT_EQ(configured("\"head_dim\":128,\"key_length\":256").headDim, 256);
  EXPECT_EQ(configured("\"key_length\":256,\"head_dim\":128").headDim, 256);
}

TEST(Config, AFractionalKeyLengthClearsHeadDimAndAnOddOneDoesNot) {
  EXPECT_EQ(configured("\"head_dim\":128,\"key_length\":0.5").headDim, 0);
  EXPECT_EQ(configured("\"head_dim\":128,\"key_length\":\"256\"").headDim, 128);
}

// ---- floats

TEST(Config, FloatsAreReadFromTheirKeysAndRoundedToSingle) {
  const HfImporter importer = configured("\"rope_theta\":1000000,\"rms_norm_eps\":1e-5");
  EXPECT_EQ(importer.ropeTheta, 1000000.0F);
  EXPECT_EQ(importer.rmsNormEps, 1e-5F);
  EXPECT_EQ(importer.logitSoftcap, 0.0F);
}

TEST(Config, FloatsOfAnotherKindAreAbsent) {
  const HfImporter importer =
      configured("\"rope_theta\":\"1\",\"rms_norm_eps\":null,\"final_logit_softcapping\":true");
  EXPECT_EQ(importer.ropeTheta, 0.0F);
  EXPECT_EQ(importer.rmsNormEps, 0.0F);
  EXPECT_EQ(importer.logitSoftcap, 0.0F);
}

TEST(Config, FloatsBeyondASingleAreInfinite) {
  EXPECT_TRUE(std::isinf(configured("\"rope_theta\":1e300").ropeTheta));
  EXPECT_EQ(configured("\"rope_theta\":1e-300").ropeTheta, 0.0F);
}

TEST(Config, TheAttentionSoftcapWinsOverTheFinalOneWhateverTheirOrder) {
  EXPECT_EQ(configured("\"final_logit_softcapping\":30").logitSoftcap, 30.0F);
  EXPECT_EQ(configured("\"final_logit_softcapping\":30,\"attn_logit_softcapping\":50").logitSoftcap, 50.0F);
  EXPECT_EQ(configured("\"attn_logit_softcapping\":50,\"final_logit_softcapping\":30").logitSoftcap, 50.0F);
  EXPECT_EQ(configured("\"final_logit_softcapping\":30,\"attn_logit_softcapping\":null").logitSoftcap, 30.0F);
}

// ---- swa_pattern

TEST(Config, TheSwaPatternTakesIntegersAndMakesZeroOfTheRest) {
  EXPECT_THAT(configured("\"swa_pattern\":[1,1,0.5,true]").swaPattern, ElementsAre(1, 1, 0, 0));
  EXPECT_THAT(configured("\"swa_pattern\":[\"1\",null,[1],{}]").swaPattern, ElementsAre(0, 0, 0, 0));
}

TEST(Config, TheSwaPatternKeepsTheLowEightBits) {
  EXPECT_THAT(configured("\"swa_pattern\":[255,256,257,-1,1e999]").swaPattern,
              ElementsAre(255, 0, 1, 255, 0));
}

TEST(Config, ASwaPatternThatIsNoArrayIsAbsent) {
  EXPECT_THAT(configured("\"swa_pattern\":1").swaPattern, IsEmpty());
  EXPECT_THAT(configured("\"swa_pattern\":\"11\"").swaPattern, IsEmpty());
  EXPECT_THAT(configured("\"swa_pattern\":[]").swaPattern, IsEmpty());
}

TEST(Config, TheSwaPatternIsAppendedToWhatIsThere) {
  HfImporter importer;
  importer.swaPattern = {9};
  ASSERT_THAT(parse(R"({"model_type":"x","swa_pattern":[1]})", importer), IsOk());
  EXPECT_THAT(importer.swaPattern, ElementsAre(9, 1));
}

TEST(Config, MissingKeysLeaveZero) {
  const HfImporter importer = configured("");
  EXPECT_EQ(importer.hiddenSize, 0);
  EXPECT_EQ(importer.vocabSize, 0);
  EXPECT_EQ(importer.ropeTheta, 0.0F);
  EXPECT_EQ(importer.rmsNormEps, 0.0F);
  EXPECT_EQ(importer.addBos, -1);
  EXPECT_THAT(importer.swaPattern, IsEmpty());
}

TEST(Config, TheWholeTreeIsKept) {
  const HfImporter importer = configured("\"anything\":[1,{\"else\":\"text\"}]");
  ASSERT_NE(importer.config.get("anything"), nullptr);
  EXPECT_EQ(importer.config.get("anything")->items[1].get("else")->str(), "text");
}

}  // namespace
}  // namespace zel
