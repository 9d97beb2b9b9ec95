// Whole directories through open().
#include "hf/hf_importer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <sys/stat.h>

#include "captured_metadata.h"
#include "support/proto_builder.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel {
namespace {

using test::IsOk;
using test::ProtoBuilder;
using test::StatusIs;
using test::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kTokenizerJson = R"({"model":{"vocab":{"a":0,"b":1,"c":2}}})";

std::string tokenizerModel() {
  return ProtoBuilder()
      .message(1, ProtoBuilder().varint(5, 1).varint(6, 2))
      .message(3, ProtoBuilder().bytes(1, "from the model"))
      .str();
}

TEST(HfImporterOpen, ReadsADirectoryWithEverything) {
  const TempDir dir;
  dir.write("config.json",
            R"({"model_type":"llama2","hidden_size":8,"eos_token_id":[2,1],"rope_theta":10000})");
  dir.write("tokenizer.json", kTokenizerJson);
  dir.write("tokenizer.model", tokenizerModel());
  dir.write("tokenizer_config.json", R"({"add_bos_token":false,"chat_template":"{{ m }}"})");
  dir.write("special_tokens_map.json", "{}");
  dir.write("generation_config.json", "[]");
  HfImporter importer;
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_TRUE(importer.opened);
  EXPECT_TRUE(importer.hasConfig);
  EXPECT_THAT(importer.tokenizer.tokens, ElementsAre("a", "b", "c"));
  EXPECT_EQ(importer.tokenizer.eosId, 2);
  EXPECT_EQ(importer.tokenizer.chatTemplate, "{{ m }}");
  OKV2Writer writer;
  ASSERT_THAT(importer.applyMeta(writer), IsOk());
  EXPECT_THAT(test::metadataLines(writer),
              ElementsAre("general.architecture str llama", "hf.source_format str huggingface",
                          R"(hf.tokenizer_config str {"add_bos_token":false,"chat_template":"{{ m }}"})",
                          "hf.special_tokens_map str {}", "hf.generation_config str []",
                          "model.add_bos u32 0", "general.name str llama2", "model.hidden_size u64 8",
                          "model.vocab_size u64 3", "model.rope_theta f32 10000"));
}

TEST(HfImporterOpen, WithoutSideFilesEmitsNoRawItemAndNoAddBos) {
  const TempDir dir;
  dir.write("config.json", R"({"model_type":"llama"})");
  HfImporter importer;
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  OKV2Writer writer;
  ASSERT_THAT(importer.applyMeta(writer), IsOk());
  EXPECT_THAT(test::metadataLines(writer),
              ElementsAre("general.architecture str llama", "hf.source_format str huggingface",
                          "general.name str llama"));
}

TEST(HfImporterOpen, EmitsATokenizerConfigThatIsNotJsonAllTheSame) {
  const TempDir dir;
  dir.write("config.json", R"({"model_type":"llama"})");
  dir.write("tokenizer_config.json", "{broken");
  HfImporter importer;
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  OKV2Writer writer;
  ASSERT_THAT(importer.applyMeta(writer), IsOk());
  EXPECT_THAT(test::metadataLines(writer), testing::Contains("hf.tokenizer_config str {broken"));
}

TEST(HfImporterOpen, OfAMissingDirectoryHasNoConfig) {
  const TempDir dir;
  HfImporter importer;
  EXPECT_THAT(importer.open(dir / "missing"),
              StatusIs(Code::InvalidFormat, "hf: no config.json in directory"));
  EXPECT_FALSE(importer.opened);
}

TEST(HfImporterOpen, ReadsNothingElseWhenTheConfigIsBad) {
  const TempDir dir;
  dir.write("config.json", "{");
  dir.write("tokenizer.json", kTokenizerJson);
  dir.write("generation_config.json", "{}");
  HfImporter importer;
  EXPECT_THAT(importer.open(dir.path()), StatusIs(Code::Corrupted, "hf: bad config.json"));
  EXPECT_FALSE(importer.opened);
  EXPECT_FALSE(importer.hasConfig);
  EXPECT_THAT(importer.tokenizer.tokens, IsEmpty());
  EXPECT_EQ(importer.generationConfig, "");
}

// ---- which tokenizer

class HfImporterTokenizer : public testing::Test {
 protected:
  HfImporterTokenizer() { dir.write("config.json", R"({"model_type":"llama"})"); }

  TempDir dir;
  HfImporter importer;
};

TEST_F(HfImporterTokenizer, JsonWinsOverModel) {
  dir.write("tokenizer.json", kTokenizerJson);
  dir.write("tokenizer.model", tokenizerModel());
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_THAT(importer.tokenizer.tokens, ElementsAre("a", "b", "c"));
}

TEST_F(HfImporterTokenizer, ModelIsReadWhenThereIsNoJson) {
  dir.write("tokenizer.model", tokenizerModel());
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_THAT(importer.tokenizer.tokens, ElementsAre("from the model"));
  EXPECT_EQ(importer.tokenizer.bosId, 1);
}

TEST_F(HfImporterTokenizer, ModelIsReadWhenTheJsonIsBroken) {
  for (const char* broken : {"{", "[]", R"({"model":{"vocab":{"a":1}}})", R"({"model":{"vocab":[]}})"}) {
    dir.write("tokenizer.json", broken);
    dir.write("tokenizer.model", tokenizerModel());
    HfImporter fresh;
    ASSERT_THAT(fresh.open(dir.path()), IsOk());
    EXPECT_THAT(fresh.tokenizer.tokens, ElementsAre("from the model")) << broken;
    EXPECT_EQ(fresh.vocabSize, 1);
  }
}

TEST_F(HfImporterTokenizer, IsEmptyWhenBothAreBroken) {
  dir.write("config.json", R"({"model_type":"llama","vocab_size":77,"bos_token_id":1,"chat_template":"t"})");
  dir.write("tokenizer.json", "{");
  dir.write("tokenizer.model", "\x1B");
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_TRUE(importer.opened);
  EXPECT_THAT(importer.tokenizer.tokens, IsEmpty());
  EXPECT_EQ(importer.tokenizer.bosId, -1) << "ids of the configuration come only with a tokenizer";
  EXPECT_EQ(importer.tokenizer.chatTemplate, "");
  EXPECT_EQ(importer.vocabSize, 77);
}

TEST_F(HfImporterTokenizer, IsEmptyWhenBothAreMissing) {
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_THAT(importer.tokenizer.tokens, IsEmpty());
  EXPECT_EQ(importer.vocabSize, 0);
}

TEST_F(HfImporterTokenizer, IsForgottenWhenTheNextDirectoryHasNone) {
  dir.write("tokenizer.json", kTokenizerJson);
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  std::filesystem::remove(dir / "tokenizer.json");
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_THAT(importer.tokenizer.tokens, IsEmpty());
}

TEST_F(HfImporterTokenizer, TakesTheTemplateOfTheSideFileWhenItHasNoneItself) {
  dir.write("tokenizer_config.json", R"({"chat_template":"side"})");
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_EQ(importer.tokenizer.chatTemplate, "side") << "even without a vocabulary";
}

TEST_F(HfImporterTokenizer, KeepsTheTemplateOfTheConfigurationOverThatOfTheSideFile) {
  dir.write("config.json", R"({"model_type":"llama","chat_template":"config"})");
  dir.write("tokenizer.json", kTokenizerJson);
  dir.write("tokenizer_config.json", R"({"chat_template":"side"})");
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_EQ(importer.tokenizer.chatTemplate, "config");
}

TEST_F(HfImporterTokenizer, NamedByADirectoryAFifoOrADeviceIsSkippedAtOnce) {
  std::filesystem::create_directory(dir / "tokenizer.json");
  ASSERT_EQ(mkfifo((dir / "tokenizer.model").c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/zero", dir / "tokenizer_config.json");
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_THAT(importer.tokenizer.tokens, IsEmpty());
  EXPECT_EQ(importer.tokenizerConfig, "");
}

// ---- vocabSize

TEST_F(HfImporterTokenizer, FillsTheVocabularySizeOnlyWhereTheConfigLeftZero) {
  dir.write("tokenizer.json", kTokenizerJson);
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_EQ(importer.vocabSize, 3);
  dir.write("config.json", R"({"model_type":"llama","vocab_size":1})");
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_EQ(importer.vocabSize, 1);
  dir.write("config.json", R"({"model_type":"llama","vocab_size":2.5})");
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_EQ(importer.vocabSize, 3) << "a fraction counts as 0";
}

TEST_F(HfImporterTokenizer, OfNoTokensLeavesTheVocabularySizeZero) {
  dir.write("tokenizer.json", R"({"model":{"vocab":{}}})");
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  EXPECT_EQ(importer.vocabSize, 0);
}

// ---- opening again

TEST(HfImporterReopen, ResetsEveryFieldButAddBos) {
  const TempDir full;
  full.write("config.json",
             R"({"model_type":"gemma4","_name_or_path":"n","hidden_size":1,"num_hidden_layers":2,
                 "num_attention_heads":3,"num_key_value_heads":4,"intermediate_size":5,"vocab_size":6,
                 "max_position_embeddings":7,"rope_theta":8,"rms_norm_eps":9,"final_logit_softcapping":10,
                 "head_dim":11,"key_length_swa":12,"embedding_length_per_layer_input":13,
                 "shared_kv_layers":14,"sliding_window":15,"swa_pattern":[1]})");
  full.write("tokenizer.json", kTokenizerJson);
  full.write("tokenizer_config.json", R"({"add_bos_token":true})");
  full.write("special_tokens_map.json", "{}");
  full.write("generation_config.json", "{}");
  const TempDir bare;
  bare.write("config.json", R"({"model_type":"llama"})");

  HfImporter importer;
  ASSERT_THAT(importer.open(full.path()), IsOk());
  ASSERT_THAT(importer.open(bare.path()), IsOk());
  OKV2Writer writer;
  ASSERT_THAT(importer.applyMeta(writer), IsOk());
  EXPECT_THAT(test::metadataLines(writer),
              ElementsAre("general.architecture str llama", "hf.source_format str huggingface",
                          "model.add_bos u32 1", "general.name str llama"));
  EXPECT_EQ(importer.logitSoftcap, 0.0F);
  EXPECT_EQ(importer.headDim + importer.headDimSwa + importer.perLayerInputDim + importer.sharedKvLayers +
                importer.slidingWindow,
            0);
  EXPECT_THAT(importer.swaPattern, IsEmpty());
  EXPECT_EQ(importer.config.get("swa_pattern"), nullptr);
}

TEST(HfImporterReopen, ThatFailsLeavesItNotOpened) {
  const TempDir dir;
  dir.write("config.json", R"({"model_type":"llama"})");
  HfImporter importer;
  ASSERT_THAT(importer.open(dir.path()), IsOk());
  ASSERT_THAT(importer.open(dir / "missing"),
              StatusIs(Code::InvalidFormat, "hf: no config.json in directory"));
  EXPECT_FALSE(importer.opened);
  OKV2Writer writer;
  EXPECT_THAT(importer.applyMeta(writer), StatusIs(Code::InvalidFormat, "hf: not opened"));
}

// ---- Gemma 4, from its configuration to its items

TEST(HfImporterGemma4, ContextOf256HasOnlyTheGenericItemAnd257Both) {
  const auto rows = [](const char* length) {
    const TempDir dir;
    dir.write("config.json",
              std::string(R"({"model_type":"gemma4","max_position_embeddings":)") + length + "}");
    HfImporter importer;
    EXPECT_THAT(importer.open(dir.path()), IsOk());
    OKV2Writer writer;
    EXPECT_THAT(importer.applyMeta(writer), IsOk());
    return test::metadataLines(writer);
  };
  EXPECT_THAT(rows("256"), testing::Contains("model.context_length u64 256"));
  EXPECT_THAT(rows("256"), testing::Not(testing::Contains(testing::StartsWith("gemma4.context_length"))));
  EXPECT_THAT(rows("257"),
              testing::IsSupersetOf({"model.context_length u64 257", "gemma4.context_length u32 257"}));
}

}  // namespace
}  // namespace zel
