// Findings that the corpus has no example of, each in the smallest directory that has it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/model_dir_builder.h"
#include "support/proto_builder.h"
#include "support/zip_builder.h"
#include "tools/explain_support.h"

namespace zel::explain {
namespace {

using test::ModelDirBuilder;
using test::SafetensorsBuilder;

constexpr char kLlama[] = R"({"model_type":"llama")";

ModelDirBuilder withConfig(const std::string& members) {
  return ModelDirBuilder().config(std::string(kLlama) + "," + members + "}").tokenizer();
}
ModelDirBuilder withTokenizer(const std::string& json) { return ModelDirBuilder().tokenizer(json); }
ModelDirBuilder withTensor(const std::string& name, const std::string& type,
                           const std::vector<std::uint64_t>& shape) {
  return ModelDirBuilder().tokenizer().shard("model.safetensors",
                                             SafetensorsBuilder().tensor(name, type, shape));
}

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kSizes[] =
    R"("hidden_size":8,"num_hidden_layers":2,"num_attention_heads":2,"num_key_value_heads":1,)"
    R"("intermediate_size":16,"vocab_size":4)";

TEST(Explain, SaysNothingFatalAboutAGoodDirectory) {
  const Explanation explanation = explained(withConfig(kSizes));
  EXPECT_EQ(explanation.importCode, 0);
  EXPECT_EQ(explanation.count(Severity::Fatal), 0U);
  EXPECT_EQ(explanation.count(Severity::Loss), 0U);
}

TEST(ExplainConfig, NamesAFractionInAnIntegerPlace) {
  EXPECT_THAT(found(withConfig(R"("hidden_size":4096.5)"), Id::ConfigWrongKind),
              ElementsAre("hidden_size: config.json: $.hidden_size is 4096.5"));
  EXPECT_THAT(found(withConfig(R"("hidden_size":4096.0)"), Id::ConfigWrongKind), IsEmpty());
}

TEST(ExplainConfig, NamesATextInANumbersPlace) {
  EXPECT_THAT(found(withConfig(R"("rope_theta":"1e6")"), Id::ConfigWrongKind),
              ElementsAre("rope_theta: config.json: $.rope_theta is \"1e6\""));
}

TEST(ExplainConfig, IsQuietAboutAnotherSpellingWhenTheRightOneIsThere) {
  EXPECT_THAT(found(withConfig(R"("n_embd":8)"), Id::ConfigKeyNotRead),
              ElementsAre("n_embd: config.json: $.n_embd is 8; $.hidden_size is read, and stays 0"));
  EXPECT_THAT(found(withConfig(R"("n_embd":8,"hidden_size":8)"), Id::ConfigKeyNotRead), IsEmpty());
}

TEST(ExplainConfig, NamesTheKeysOfANestedObjectThatStayZero) {
  EXPECT_THAT(found(withConfig(R"("hidden_size":8,"text_config":{"hidden_size":9,"num_hidden_layers":4})"),
                    Id::ConfigNested),
              ElementsAre("text_config: config.json: $.text_config.num_hidden_layers is 4"));
}

TEST(ExplainConfig, KnowsThatSomeKeysAreWrittenForOneArchitectureOnly) {
  EXPECT_THAT(found(withConfig(R"("head_dim":64)"), Id::ConfigReadNotWritten),
              ElementsAre("head_dim: config.json: $.head_dim is 64"));
  EXPECT_THAT(
      found(ModelDirBuilder().config(R"({"model_type":"gemma4","head_dim":64})"), Id::ConfigReadNotWritten),
      IsEmpty());
}

TEST(ExplainConfig, NamesAHeadDimensionThatIsReplaced) {
  EXPECT_THAT(found(withConfig(R"("head_dim":64,"key_length":128)"), Id::ConfigHeadDimOverwritten),
              ElementsAre("head_dim: config.json: $.head_dim is 64, and $.key_length replaces it by 128"));
}

// What the explanation says that a key becomes; "absent" when it does not list the key.
std::string becomes(const ModelDirBuilder& builder, const std::string& key) {
  const Explanation explanation = explained(builder);
  for (const ConfigUse& use : explanation.config) {
    if (use.key == key) return use.field;
  }
  return "absent";
}

struct ChangedValue {
  const char* name;
  const char* modelType;
  const char* key;
  const char* value;  // as it stands in config.json, and as it is shown
  const char* becomes;
  const char* changed;  // what the finding says after the value; empty when there is none
};

class ExplainValue : public testing::TestWithParam<ChangedValue> {};

TEST_P(ExplainValue, SaysWhatAnImportWrites) {
  const ChangedValue& row = GetParam();
  const ModelDirBuilder model = ModelDirBuilder().tokenizer().config(
      std::string(R"({"model_type":")") + row.modelType + R"(",")" + row.key + "\":" + row.value + "}");
  EXPECT_EQ(becomes(model, row.key), row.becomes);
  const std::string finding =
      std::string(row.key) + ": config.json: $." + row.key + " is " + row.value + ", and " + row.changed;
  EXPECT_THAT(found(model, Id::ConfigValueChanged),
              *row.changed == 0 ? std::vector<std::string>{} : std::vector<std::string>{finding});
}

// Two to the power of 64, 33, 32 and 8 by hand: 18446744073709551616, 8589934592, 4294967296 and 256.
INSTANTIATE_TEST_SUITE_P(
    Edges, ExplainValue,
    testing::Values(
        ChangedValue{"Size", "llama", "hidden_size", "1", "model.hidden_size", ""},
        ChangedValue{"SizeOfZero", "llama", "hidden_size", "0", "not written", ""},
        ChangedValue{"SizeOfAWrongKind", "llama", "hidden_size", R"("8")", "not written", ""},
        ChangedValue{"SizeWithAFraction", "llama", "hidden_size", "8.5", "not written", ""},
        ChangedValue{"NegativeSize", "llama", "hidden_size", "-8",
                     "model.hidden_size as 18446744073709551608",
                     "model.hidden_size is written as 18446744073709551608"},
        ChangedValue{"LargeSize", "llama", "hidden_size", "8589934592", "model.hidden_size", ""},
        ChangedValue{"LargestOfTheHeader", "llama", "num_hidden_layers", "4294967295", "model.num_layers",
                     ""},
        ChangedValue{"OneMoreThanTheHeaderHolds", "llama", "num_hidden_layers", "4294967296",
                     "model.num_layers, the header's number of layers as 0",
                     "the header's number of layers is written as 0"},
        ChangedValue{"Vocabulary", "llama", "vocab_size", "0", "not written: the number of tokens is, 4", ""},
        ChangedValue{"RopeBase", "llama", "rope_theta", "10000", "model.rope_theta", ""},
        ChangedValue{"RoundedFloat", "llama", "rms_norm_eps", "1e-05", "model.rms_norm_eps", ""},
        ChangedValue{"RopeBaseOfZero", "llama", "rope_theta", "0", "not written", ""},
        ChangedValue{"NegativeRopeBase", "llama", "rope_theta", "-1", "not written",
                     "model.rope_theta is left out"},
        ChangedValue{"TooSmallAFloat", "llama", "rms_norm_eps", "1e-60", "not written",
                     "model.rms_norm_eps is left out"},
        ChangedValue{"TooLargeAFloat", "llama", "rope_theta", "1e+60", "model.rope_theta as inf",
                     "model.rope_theta is written as inf"},
        ChangedValue{"Gemma4Size", "gemma4", "hidden_size", "4294967295",
                     "model.hidden_size, gemma4.embedding_length", ""},
        ChangedValue{"Gemma4SizeOfZero", "gemma4", "hidden_size", "0", "gemma4.embedding_length", ""},
        ChangedValue{"Gemma4LargeSize", "gemma4", "hidden_size", "8589934592",
                     "model.hidden_size, gemma4.embedding_length as 0",
                     "gemma4.embedding_length is written as 0"},
        ChangedValue{"Gemma4NegativeSize", "gemma4", "hidden_size", "-8",
                     "model.hidden_size as 18446744073709551608, gemma4.embedding_length as 4294967288",
                     "model.hidden_size is written as 18446744073709551608, gemma4.embedding_length as "
                     "4294967288"},
        ChangedValue{"Gemma4ShortContext", "gemma4", "max_position_embeddings", "256", "model.context_length",
                     ""},
        ChangedValue{"Gemma4Context", "gemma4", "max_position_embeddings", "257",
                     "model.context_length, gemma4.context_length", ""},
        ChangedValue{"Gemma4RopeBase", "gemma4", "rope_theta", "-1", "not written",
                     "model.rope_theta is left out, gemma4.rope.freq_base is left out"},
        ChangedValue{"Gemma4NoWindow", "gemma4", "sliding_window", "0", "not written", ""},
        ChangedValue{"Gemma4NegativeWindow", "gemma4", "sliding_window", "-1",
                     "gemma4.attention.sliding_window as 4294967295",
                     "gemma4.attention.sliding_window is written as 4294967295"},
        ChangedValue{"Gemma4Cap", "gemma4", "final_logit_softcapping", "30", "gemma4.final_logit_softcapping",
                     ""},
        ChangedValue{"Gemma4Pattern", "gemma4", "swa_pattern", "[1, 0, 255]", "gemma4.swa_pattern", ""},
        ChangedValue{"Gemma4NoPattern", "gemma4", "swa_pattern", "[]", "not written", ""},
        ChangedValue{"Gemma4CutPattern", "gemma4", "swa_pattern", R"([1, "x", 300])",
                     "gemma4.swa_pattern as [1, 0, 44]", "gemma4.swa_pattern is written as [1, 0, 44]"}),
    [](const auto& row) { return row.param.name; });

TEST(ExplainConfig, SaysThatAReplacedKeyIsNotWritten) {
  const ModelDirBuilder both = ModelDirBuilder().config(
      R"({"model_type":"gemma4","head_dim":-64,"key_length":128,"final_logit_softcapping":30})");
  EXPECT_EQ(becomes(both, "head_dim"), "not written: key_length replaces it");
  EXPECT_EQ(becomes(both, "key_length"), "gemma4.attention.key_length");
  EXPECT_EQ(becomes(both, "final_logit_softcapping"), "gemma4.final_logit_softcapping");
  EXPECT_THAT(found(both, Id::ConfigValueChanged), IsEmpty());
}

TEST(ExplainConfig, SaysThatATextOfAWrongKindIsNotWritten) {
  const ModelDirBuilder model =
      ModelDirBuilder().config(R"({"model_type":7,"architectures":["x"],"_name_or_path":""})");
  EXPECT_EQ(becomes(model, "model_type"), "not written");
  EXPECT_EQ(becomes(model, "architectures"), "general.architecture");
  EXPECT_EQ(becomes(model, "_name_or_path"), "not written");
  EXPECT_EQ(becomes(withConfig(R"("_name_or_path":"a/b")"), "_name_or_path"), "general.name");
}

TEST(ExplainConfig, NamesASizeThatIsGivenNowhere) {
  EXPECT_THAT(found(withConfig(kSizes), Id::ConfigSizeMissing), IsEmpty());
  EXPECT_THAT(found(withConfig(std::string(kSizes) + R"(,"num_key_value_heads":0)"), Id::ConfigSizeMissing),
              IsEmpty());  // the first of equal keys holds
  EXPECT_THAT(
      found(withConfig(R"("hidden_size":8,"num_hidden_layers":2,"num_attention_heads":2,)"
                       R"("num_key_value_heads":null,"intermediate_size":16)"),
            Id::ConfigSizeMissing),
      ElementsAre("num_key_value_heads: config.json: $.num_key_value_heads gives no number, and stays 0"));
}

TEST(ExplainConfig, NamesNoSizeAsMissingThatLiesElsewhere) {
  EXPECT_THAT(found(withConfig(R"("n_embd":8,"n_layer":2,"text_config":{"num_attention_heads":2,)"
                               R"("num_key_value_heads":1,"intermediate_size":16,"vocab_size":4})"),
                    Id::ConfigSizeMissing),
              IsEmpty());
  EXPECT_THAT(
      found(withConfig(R"("n_embd":8,"n_layer":2,"n_head":2,"n_kv_heads":1,)"
                       R"("vision_config":{"intermediate_size":16})"),
            Id::ConfigSizeMissing),
      ElementsAre("intermediate_size: config.json: $.intermediate_size gives no number, and stays 0"));
}

TEST(ExplainConfig, NamesSettingsThatAreGivenNowhere) {
  EXPECT_THAT(
      found(withConfig(R"("rms_norm_eps":0,"rope_theta":null)"), Id::ConfigSettingMissing),
      ElementsAre("max_position_embeddings: config.json: $.max_position_embeddings gives no number, and "
                  "model.context_length is left out",
                  "rope_theta: config.json: $.rope_theta gives no number, and model.rope_theta is left out",
                  "rms_norm_eps: config.json: $.rms_norm_eps gives no number, and model.rms_norm_eps is "
                  "left out"));
  EXPECT_THAT(subjects(withConfig(R"("max_position_embeddings":1,"rope_theta":1,"rms_norm_eps":1)"),
                       Id::ConfigSettingMissing),
              IsEmpty());
}

TEST(ExplainConfig, NamesNoSettingAsMissingThatLiesElsewhere) {
  EXPECT_THAT(subjects(withConfig(R"("n_positions":8,"layer_norm_eps":1e-5,)"
                                  R"("text_config":{"rope_parameters":{"rope_theta":10000}})"),
                       Id::ConfigSettingMissing),
              IsEmpty());
  // These have findings of their own.
  EXPECT_THAT(subjects(withConfig(R"("max_position_embeddings":"8","rope_theta":-1,"rms_norm_eps":1e-60)"),
                       Id::ConfigSettingMissing),
              IsEmpty());
}

TEST(ExplainConfig, NamesTheBaseOfRotaryPositionsInAnObject) {
  EXPECT_THAT(
      found(withConfig(R"("rope_parameters":{"rope_theta":10000,"rope_type":"default"})"),
            Id::ConfigKeyNotRead),
      ElementsAre(
          "rope_parameters.rope_theta: config.json: $.rope_parameters.rope_theta is 10000; $.rope_theta "
          "is read, and stays 0"));
  EXPECT_THAT(
      found(withConfig(R"("rope_theta":10000,"rope_parameters":{"rope_theta":10000})"), Id::ConfigKeyNotRead),
      IsEmpty());
}

TEST(ExplainConfig, TakesNoPlainRotaryPositionsForScaling) {
  const auto scaling = [](const std::string& parameters) {
    return subjects(withConfig(R"("rope_theta":10000,"rope_parameters":)" + parameters),
                    Id::ConfigRopeScaling);
  };
  EXPECT_THAT(scaling(R"({"rope_theta":10000,"rope_type":"default"})"), IsEmpty());
  EXPECT_THAT(scaling(R"({"full_attention":{"rope_theta":10000,"rope_type":"default"}})"), IsEmpty());
  EXPECT_THAT(scaling(R"({"rope_theta":20000,"rope_type":"default"})"), ElementsAre("rope_parameters"));
  EXPECT_THAT(scaling(R"({"rope_theta":10000,"rope_type":"yarn"})"), ElementsAre("rope_parameters"));
  EXPECT_THAT(scaling(R"({"rope_theta":10000,"mrope_section":[1]})"), ElementsAre("rope_parameters"));
  EXPECT_THAT(scaling(R"({"full_attention":{"full_attention":{}}})"), ElementsAre("rope_parameters"));
  EXPECT_THAT(scaling(R"({"sliding_attention":{"rope_theta":10000}})"), ElementsAre("rope_parameters"));
}

TEST(ExplainConfig, KnowsWhenTheBaseOfRotaryPositionsIsOfNoUse) {
  EXPECT_THAT(
      found(withConfig(R"("attn_config":{"rope_theta":10000})"), Id::ConfigKeyNotRead),
      ElementsAre("attn_config.rope_theta: config.json: $.attn_config.rope_theta is 10000; $.rope_theta is "
                  "read, and stays 0"));
  EXPECT_THAT(found(withConfig(R"("attn_config":{"rope":false,"rope_theta":10000})"), Id::ConfigKeyNotRead),
              IsEmpty());
}

TEST(ExplainConfig, NamesOtherSpellingsInANestedTextModel) {
  EXPECT_THAT(found(withConfig(R"("decoder":{"n_embd":8},"encoder":{"n_layer":2})"), Id::ConfigNested),
              ElementsAre("decoder: config.json: $.decoder.n_embd is 8"));
  EXPECT_THAT(found(withConfig(R"("hidden_size":8,"decoder":{"n_embd":8})"), Id::ConfigNested), IsEmpty());
}

TEST(ExplainConfig, NamesASettingTwoObjectsDeep) {
  EXPECT_THAT(
      found(withConfig(R"("thinker_config":{"text_config":{"hidden_size":8}})"), Id::ConfigNested),
      ElementsAre("thinker_config.text_config: config.json: $.thinker_config.text_config.hidden_size is 8"));
}

TEST(ExplainConfig, NamesSpecialIdsThatOnlyANestedTextModelGives) {
  EXPECT_THAT(found(withConfig(R"("text_config":{"bos_token_id":0,"pad_token_id":2,"unk_token_id":-1})"),
                    Id::ConfigNested),
              ElementsAre("text_config: config.json: $.text_config.pad_token_id is 2"));  // <s> is 0 already
  EXPECT_THAT(found(withConfig(R"("pad_token_id":3,"text_config":{"pad_token_id":2})"), Id::ConfigNested),
              IsEmpty());
}

ModelDirBuilder gemma4(const std::string& members) {
  return ModelDirBuilder().config(R"({"model_type":"gemma4",)" + members + "}").tokenizer();
}

TEST(ExplainConfig, NamesARopeBaseOfTheSlidingWindowThatIsNotAHundredth) {
  EXPECT_THAT(found(gemma4(R"("rope_theta":1000000.0,"rope_local_base_freq":10000.0)"), Id::ConfigSwaRope),
              IsEmpty());
  EXPECT_THAT(
      found(gemma4(R"("rope_theta":1000000.0,"rope_local_base_freq":20000.0)"), Id::ConfigSwaRope),
      ElementsAre("rope_local_base_freq: config.json: rope_local_base_freq is 20000, and 10000 is written"));
  EXPECT_THAT(
      found(withConfig(R"("rope_theta":1000000.0,"rope_local_base_freq":20000.0)"), Id::ConfigSwaRope),
      IsEmpty());
}

TEST(ExplainConfig, NamesSettingsOfGemma4WithoutAnItem) {
  EXPECT_THAT(found(gemma4(R"("text_config":{"num_global_key_value_heads":2})"), Id::ConfigNotCarried),
              ElementsAre("num_global_key_value_heads: config.json: num_global_key_value_heads is 2"));
  EXPECT_THAT(found(gemma4(R"("use_double_wide_mlp":false)"), Id::ConfigNotCarried), IsEmpty());
  EXPECT_THAT(found(withConfig(R"("use_double_wide_mlp":true)"), Id::ConfigNotCarried), IsEmpty());
}

TEST(ExplainTokenizer, NamesIdsThatDifferFromThoseOfTheConfiguration) {
  // The settings lie in field 1, with the end of the text in field 6; a piece in field 3.
  const auto with = [](const std::string& member) {
    return ModelDirBuilder()
        .config(std::string(kLlama) + "," + member + "}")
        .file("tokenizer.model", test::ProtoBuilder()
                                     .message(1, test::ProtoBuilder().varint(6, 0))
                                     .message(3, test::ProtoBuilder().bytes(1, "</s>"))
                                     .message(3, test::ProtoBuilder().bytes(1, "a"))
                                     .str());
  };
  EXPECT_THAT(found(with(R"("eos_token_id":1,"bos_token_id":-1)"), Id::ConfigIdNotKept),
              ElementsAre("eos_token_id: config.json: $.eos_token_id is 1, the container gets 0"));
  EXPECT_THAT(found(with(R"("eos_token_id":[1,0])"), Id::ConfigIdNotKept), IsEmpty());
  EXPECT_THAT(found(with(R"("eos_token_id":[1,3])"), Id::ConfigIdNotKept),
              ElementsAre("eos_token_id: config.json: $.eos_token_id is 1, the container gets 0"));
}

TEST(ExplainTokenizer, NamesAddedTokensThatHaveTheIdOfAnother) {
  const auto with = [](const char* decoder) {
    return ModelDirBuilder().tokenizer().file("tokenizer_config.json",
                                              R"({"added_tokens_decoder":)" + std::string(decoder) + "}");
  };
  EXPECT_THAT(found(with(R"({"0":{"content":"<s>"},"1":{"content":"<x>"},"2":{"content":"<y>"}})"),
                    Id::TokenizerAddedElsewhere),
              ElementsAre("tokenizer_config.json: 2 of 3 added tokens, the first is \"<x>\" with id 1, which "
                          "is \"a\""));
  EXPECT_THAT(found(with(R"({"3":{"content":"ab"},"4":{"content":"<x>"},"-1":{"content":"<y>"},"x":1})"),
                    Id::TokenizerAddedElsewhere),
              IsEmpty());
}

struct TokenizerFault {
  const char* name;
  const char* json;
  Id id;
  const char* detail;
};

class ExplainTokenizer : public testing::TestWithParam<TokenizerFault> {};

TEST_P(ExplainTokenizer, GivesPlaceAndValueOfTheFault) {
  EXPECT_THAT(found(withTokenizer(GetParam().json), GetParam().id),
              ElementsAre("tokenizer.json: " + std::string(GetParam().detail)));
}

// Byte offsets counted by hand in the text.
INSTANTIATE_TEST_SUITE_P(
    Faults, ExplainTokenizer,
    testing::Values(
        TokenizerFault{"Syntax", R"({"model":})", Id::TokenizerJsonBadJson,
                       "tokenizer.json: byte 9: json: unexpected char [hf: bad tokenizer.json]"},
        TokenizerFault{
            "NoModel", R"({"model":[1]})", Id::TokenizerJsonNoModel,
            "tokenizer.json: $.model is an array, [1] (byte 9) [hf: tokenizer.json has no model object]"},
        TokenizerFault{"AbsentModel", "{}", Id::TokenizerJsonNoModel,
                       "tokenizer.json: $.model is absent [hf: tokenizer.json has no model object]"},
        TokenizerFault{"ArrayVocab", R"({"model":{"type":"Unigram","vocab":[]}})", Id::TokenizerJsonNoVocab,
                       "tokenizer.json: $.model.vocab is an array, [] (byte 35), model type Unigram [hf: "
                       "tokenizer.json has no vocab]"},
        TokenizerFault{"BadId", R"({"model":{"vocab":{"a":0,"b":1.5}}})", Id::TokenizerJsonBadId,
                       "tokenizer.json: $.model.vocab[\"b\"] is a number, 1.5 (byte 29) [hf: bad vocab id]"},
        TokenizerFault{"Gap", R"({"model":{"vocab":{"a":0,"b":2}}})", Id::TokenizerJsonIdGap,
                       "tokenizer.json: $.model.vocab: id 1 is missing, the next one is 2 [hf: vocab ids not "
                       "contiguous]"},
        TokenizerFault{"Twice", R"({"model":{"vocab":{"a":0,"b":0}}})", Id::TokenizerJsonIdGap,
                       "tokenizer.json: $.model.vocab: id 0 is given twice [hf: vocab ids not contiguous]"},
        TokenizerFault{"Merges", R"({"model":{"vocab":{"a":0},"merges":{}}})", Id::TokenizerJsonBadMerges,
                       "tokenizer.json: $.model.merges is an object, {} (byte 35) [hf: bad merges]"},
        TokenizerFault{
            "Pairs", R"({"model":{"vocab":{"a":0},"merges":["a a",["a","a"]]}})", Id::TokenizerJsonMergePairs,
            "tokenizer.json: $.model.merges[1] is an array, [\"a\",\"a\"] (byte 42) [hf: bad merge entry]"},
        TokenizerFault{"NumberMerge", R"({"model":{"vocab":{"a":0},"merges":[7]}})",
                       Id::TokenizerJsonBadMerges,
                       "tokenizer.json: $.model.merges[0] is a number, 7 (byte 36) [hf: bad merge entry]"},
        TokenizerFault{"Added", R"({"model":{"vocab":{"a":0}},"added_tokens":1})",
                       Id::TokenizerJsonBadAddedTokens,
                       "tokenizer.json: $.added_tokens is a number, 1 (byte 42) [hf: bad added_tokens]"}),
    [](const auto& row) { return row.param.name; });

TEST(ExplainTokenizerFile, ThatEndsInTheMiddleIsAPartialDownload) {
  EXPECT_THAT(found(withTokenizer(R"({"model":{"vocab":{"a)"), Id::FilePartial),
              ElementsAre("tokenizer.json: the text ends in the middle"));
  EXPECT_THAT(found(withTokenizer(R"({"model":})"), Id::FilePartial), IsEmpty());
}

TEST(ExplainTemplate, NamesAListOfTemplates) {
  EXPECT_THAT(
      found(ModelDirBuilder().tokenizer().file("tokenizer_config.json",
                                               R"({"chat_template":[{"name":"default","template":"x"}]})"),
            Id::TemplateList),
      ElementsAre("tokenizer_config.json: tokenizer_config.json: $.chat_template is an array of 1 entries"));
}

TEST(ExplainTemplate, NamesTheTemplateThatIsPassedOver) {
  const ModelDirBuilder both =
      withConfig(R"("chat_template":"first")").file("tokenizer_config.json", R"({"chat_template":"second"})");
  EXPECT_THAT(found(both, Id::TemplateConfigWins),
              ElementsAre("tokenizer_config.json: $.chat_template of 6 bytes"));
  EXPECT_EQ(explained(both).chatTemplate.source, "config.json");
}

TEST(ExplainTemplate, NamesTheJinjaFileUnlessItsTextIsKept) {
  const auto with = [](const char* text) {
    return ModelDirBuilder()
        .tokenizer()
        .file("tokenizer_config.json", R"({"chat_template":"same"})")
        .file("chat_template.jinja", text);
  };
  EXPECT_THAT(found(with("other"), Id::TemplateJinjaFile), ElementsAre("chat_template.jinja: 5 bytes"));
  EXPECT_THAT(found(with("same"), Id::TemplateJinjaFile), IsEmpty());
}

TEST(ExplainTemplate, ListsTheTemplatesOfAFolder) {
  const auto with = [](int count) {
    ModelDirBuilder model = ModelDirBuilder().folder("additional_chat_templates");
    for (int k = 0; k < count; ++k)
      model.file("additional_chat_templates/" + std::to_string(k) + ".jinja", "");
    return model;
  };
  EXPECT_THAT(found(with(0), Id::TemplateFolder), IsEmpty());
  EXPECT_THAT(found(with(3), Id::TemplateFolder),
              ElementsAre("additional_chat_templates: 0.jinja, 1.jinja, 2.jinja"));
  EXPECT_THAT(found(with(5), Id::TemplateFolder),
              ElementsAre("additional_chat_templates: 0.jinja, 1.jinja, 2.jinja, 2 more"));
}

TEST(ExplainSideFiles, NamesOneThatIsNoJson) {
  EXPECT_THAT(found(ModelDirBuilder().tokenizer().file("tokenizer_config.json", "{"), Id::SideBadJson),
              ElementsAre("tokenizer_config.json: json: object key"));
}

TEST(ExplainTensors, NamesOneWhoseNameIsCut) {
  const std::string name63(63, 'n'), name64(64, 'n');
  EXPECT_THAT(found(withTensor(name63, "F32", {1}), Id::TensorNameCut), IsEmpty());
  EXPECT_THAT(found(withTensor(name64, "F32", {1}), Id::TensorNameCut),
              ElementsAre(name64 + ": 64 bytes, stored as " + name63));
}

TEST(ExplainTensors, NamesTwoThatAreEqualOnceCut) {
  const std::string stem(63, 'n');
  EXPECT_THAT(found(ModelDirBuilder().shard(
                        "model.safetensors",
                        SafetensorsBuilder().tensor(stem + "a", "F32", {1}).tensor(stem + "b", "F32", {1})),
                    Id::TensorNameCollision),
              ElementsAre(stem + ": " + stem + "a, " + stem + "b"));
}

TEST(ExplainTensors, NamesOneThatTwoShardsHold) {
  const SafetensorsBuilder shard = SafetensorsBuilder().tensor("lm_head.weight", "F32", {1});
  EXPECT_THAT(found(ModelDirBuilder().shard("a.safetensors", shard).shard("b.safetensors", shard),
                    Id::TensorDuplicate),
              ElementsAre("output.weight: in a.safetensors, b.safetensors"));
}

TEST(ExplainTensors, NamesRowsThatAFusedProjectionLoses) {
  const std::string name = "transformer.h.0.attn.c_attn.weight";
  EXPECT_THAT(found(withTensor(name, "F32", {6, 2}), Id::TensorFusedRemainder), IsEmpty());
  EXPECT_THAT(found(withTensor(name, "F32", {8, 2}), Id::TensorFusedRemainder),
              ElementsAre(name + ": 2 of 8 rows are dropped"));
  EXPECT_THAT(found(withTensor(name, "F32", {6, 2}), Id::TensorFused), ElementsAre("1 tensor: " + name));
}

TEST(ExplainTensors, NamesAFusedProjectionWhosePartsLieSideBySide) {
  EXPECT_THAT(found(withTensor("transformer.h.0.attn.c_attn.weight", "F32", {3, 9}), Id::TensorFusedColumns),
              ElementsAre("transformer.h.0.attn.c_attn.weight: [3, 9] is cut into parts of 1 rows"));
}

TEST(ExplainTensors, NamesOnesThatNoTableKnows) {
  EXPECT_THAT(found(withTensor("model.layers.3.mlp.router.weight", "F32", {1}), Id::TensorUnmapped),
              ElementsAre("1 tensor: model.layers.3.mlp.router.weight becomes blk.3.mlp.router.weight"));
  EXPECT_THAT(found(withTensor("model.layers.3.proj.weight", "F32", {1}), Id::TensorUnmapped), IsEmpty());
}

TEST(ExplainTensors, NamesAScalar) {
  EXPECT_THAT(found(withTensor("s", "F32", {}), Id::TensorRefused),
              ElementsAre("s: model.safetensors: 0 dimensions, 4 bytes"));
}

TEST(ExplainWeights, NamesAWebPageAndAPartialDownload) {
  EXPECT_THAT(
      found(ModelDirBuilder().noWeights().file("model.safetensors", "<html>Sign in"), Id::WeightsWebPage),
      ElementsAre("model.safetensors: 13 bytes"));
  std::string cut = SafetensorsBuilder().tensor("w", "F32", {2}).bytes();
  cut.pop_back();
  EXPECT_THAT(found(ModelDirBuilder().noWeights().file("model.safetensors", cut), Id::WeightsPartial),
              ElementsAre("model.safetensors: " + std::to_string(cut.size()) +
                          " bytes [safetensors: offset out of range 'w']"));
}

TEST(ExplainWeights, NamesAFileThatTheIndexDoesNot) {
  EXPECT_THAT(found(ModelDirBuilder().file("model.safetensors.index.json",
                                           R"({"weight_map":{"x":"other.safetensors"}})"),
                    Id::WeightsIndexMissing),
              ElementsAre("other.safetensors: model.safetensors.index.json names it for 1 tensors"));
}

TEST(ExplainWeights, NamesOtherFormatsAndAnAdapter) {
  EXPECT_THAT(found(ModelDirBuilder().file("model.onnx", "x"), Id::WeightsOtherFormat),
              ElementsAre("model.onnx: 1 bytes"));
  EXPECT_THAT(found(ModelDirBuilder().file("adapter_config.json", "{}"), Id::WeightsAdapter),
              ElementsAre("adapter_config.json: "));
  EXPECT_THAT(found(ModelDirBuilder().file("pytorch_model.bin", "x"), Id::WeightsBinIgnored),
              ElementsAre("pytorch_model.bin: "));
  EXPECT_THAT(found(ModelDirBuilder().file("model.SafeTensors", "x"), Id::WeightsSuffixCase),
              ElementsAre("model.SafeTensors: "));
}

std::vector<std::string> readFiles(const ModelDirBuilder& builder) {
  std::vector<std::string> out;
  for (const FileUse& file : explained(builder).files) {
    if (file.read) out.push_back(file.name);
  }
  return out;
}

TEST(ExplainFiles, ShowsNoneAsReadBehindAConfigurationThatEndsTheImport) {
  const ModelDirBuilder whole =
      ModelDirBuilder().tokenizer().file("tokenizer_config.json", "{}").file("generation_config.json", "{");
  EXPECT_THAT(readFiles(whole), ElementsAre("config.json", "generation_config.json", "model.safetensors",
                                            "tokenizer.json", "tokenizer_config.json"));
  EXPECT_THAT(readFiles(ModelDirBuilder(whole).config("{")), ElementsAre("config.json"));
  const ModelDirBuilder without = ModelDirBuilder(whole).without("config.json");
  EXPECT_THAT(readFiles(without), IsEmpty());
  EXPECT_EQ(explained(without).files[0].use, "not read: an import ends at config.json");
  EXPECT_THAT(subjects(without, Id::SideTextNotJson), IsEmpty());  // nothing carries it
}

TEST(ExplainWeights, SurvivesAFifo) {
  EXPECT_THAT(found(ModelDirBuilder().noWeights().fifo("model.safetensors"), Id::FileNotRegular),
              ElementsAre("model.safetensors: "));
}

}  // namespace
}  // namespace zel::explain
