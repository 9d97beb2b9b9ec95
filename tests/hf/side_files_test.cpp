#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <sys/stat.h>

#include "hf/hf_importer.h"
#include "support/temp_dir.h"

namespace zel {
namespace {

using test::TempDir;

HfImporter withTokenizerConfig(const std::string& text) {
  const TempDir dir;
  dir.write("tokenizer_config.json", text);
  HfImporter importer;
  importer.parseExtras(dir.path());
  EXPECT_EQ(importer.tokenizerConfig, text) << "the raw text is kept whatever it holds";
  return importer;
}

TEST(SideFiles, AreKeptAsTheirRawBytes) {
  const TempDir dir;
  dir.write("tokenizer_config.json", " {\"a\" : 1}\r\n");
  dir.write("special_tokens_map.json", std::string("not json \0\xFF", 11));
  dir.write("generation_config.json", "{}");
  HfImporter importer;
  importer.parseExtras(dir.path());
  EXPECT_EQ(importer.tokenizerConfig, " {\"a\" : 1}\r\n");
  EXPECT_EQ(importer.specialTokensMap, std::string("not json \0\xFF", 11));
  EXPECT_EQ(importer.generationConfig, "{}");
}

TEST(SideFiles, ThatAreMissingOrEmptyLeaveTheirFieldsAsTheyWere) {
  const TempDir dir;
  dir.write("special_tokens_map.json", "");
  HfImporter importer;
  importer.tokenizerConfig = "{\"add_bos_token\":true}";
  importer.specialTokensMap = "b";
  importer.generationConfig = "c";
  importer.parseExtras(dir.path());
  EXPECT_EQ(importer.tokenizerConfig, "{\"add_bos_token\":true}");
  EXPECT_EQ(importer.specialTokensMap, "b");
  EXPECT_EQ(importer.generationConfig, "c");
  EXPECT_EQ(importer.addBos, 1) << "what the field holds is read, wherever it came from";
}

TEST(SideFiles, ThatAreNoRegularFilesCountAsMissingAndDoNotBlock) {
  const TempDir dir;
  std::filesystem::create_directory(dir / "tokenizer_config.json");
  ASSERT_EQ(mkfifo((dir / "special_tokens_map.json").c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/zero", dir / "generation_config.json");
  HfImporter importer;
  importer.parseExtras(dir.path());
  EXPECT_EQ(importer.tokenizerConfig + importer.specialTokensMap + importer.generationConfig, "");
}

// ---- add_bos_token

struct AddBosCase {
  const char* name;
  const char* config;
  int addBos;
};

class SideFilesAddBos : public testing::TestWithParam<AddBosCase> {};

TEST_P(SideFilesAddBos, FollowsTheFirstMemberOfItsKey) {
  EXPECT_EQ(withTokenizerConfig(GetParam().config).addBos, GetParam().addBos);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SideFilesAddBos,
    testing::Values(AddBosCase{"True", R"({"add_bos_token":true})", 1},
                    AddBosCase{"False", R"({"add_bos_token":false})", 0},
                    AddBosCase{"Two", R"({"add_bos_token":2})", 1},
                    AddBosCase{"Zero", R"({"add_bos_token":0})", 0},
                    AddBosCase{"Half", R"({"add_bos_token":0.5})", 1},
                    AddBosCase{"Tiny", R"({"add_bos_token":5e-324})", 1},
                    AddBosCase{"Negative", R"({"add_bos_token":-1})", 0},
                    AddBosCase{"MinusZero", R"({"add_bos_token":-0})", 0},
                    AddBosCase{"Infinite", R"({"add_bos_token":1e999})", 1},
                    AddBosCase{"Text", R"({"add_bos_token":"true"})", -1},
                    AddBosCase{"Null", R"({"add_bos_token":null})", -1},
                    AddBosCase{"Array", R"({"add_bos_token":[true]})", -1},
                    AddBosCase{"Absent", R"({"add_eos_token":true})", -1},
                    AddBosCase{"FirstOfTwo", R"({"add_bos_token":false,"add_bos_token":true})", 0},
                    AddBosCase{"FirstOfTwoEvenIfOdd", R"({"add_bos_token":"x","add_bos_token":true})", -1},
                    AddBosCase{"Nested", R"({"a":{"add_bos_token":true}})", -1},
                    AddBosCase{"NoObject", R"([{"add_bos_token":true}])", -1},
                    AddBosCase{"BadJson", R"({"add_bos_token":true)", -1},
                    AddBosCase{"BadJsonBehind", R"({"add_bos_token":true} x)", -1}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(SideFiles, AnOddAddBosTokenLeavesTheEarlierValue) {
  const TempDir dir;
  dir.write("tokenizer_config.json", R"({"add_bos_token":"yes"})");
  HfImporter importer;
  importer.addBos = 0;
  importer.parseExtras(dir.path());
  EXPECT_EQ(importer.addBos, 0);
}

// ---- chat_template

TEST(SideFiles, GiveTheChatTemplateWhenTheTokenizerHasNone) {
  EXPECT_EQ(withTokenizerConfig(R"({"chat_template":"{{ x }}\n"})").tokenizer.chatTemplate, "{{ x }}\n");
}

TEST(SideFiles, DoNotReplaceTheChatTemplateOfTheConfiguration) {
  const TempDir dir;
  dir.write("tokenizer_config.json", R"({"chat_template":"side"})");
  HfImporter importer;
  importer.tokenizer.chatTemplate = "config";
  importer.parseExtras(dir.path());
  EXPECT_EQ(importer.tokenizer.chatTemplate, "config");
}

TEST(SideFiles, IgnoreAChatTemplateThatIsAListOfNamedOnes) {
  EXPECT_EQ(withTokenizerConfig(R"({"chat_template":[{"name":"a","template":"b"}]})").tokenizer.chatTemplate,
            "");
}

TEST(SideFiles, TakeOnlyTheFirstChatTemplateMember) {
  EXPECT_EQ(withTokenizerConfig(R"({"chat_template":1,"chat_template":"b"})").tokenizer.chatTemplate, "");
  EXPECT_EQ(withTokenizerConfig(R"({"chat_template":"a","chat_template":"b"})").tokenizer.chatTemplate, "a");
}

TEST(SideFiles, OfBadJsonGiveNoTemplate) {
  EXPECT_EQ(withTokenizerConfig(R"({"chat_template":"a",})").tokenizer.chatTemplate, "");
  EXPECT_EQ(withTokenizerConfig(R"("chat_template")").tokenizer.chatTemplate, "");
}

TEST(SideFiles, OtherThanTheTokenizersAreNotParsedAtAll) {
  const TempDir dir;
  dir.write("special_tokens_map.json", R"({"add_bos_token":true,"chat_template":"a"})");
  dir.write("generation_config.json", R"({"add_bos_token":true,"chat_template":"a"})");
  HfImporter importer;
  importer.parseExtras(dir.path());
  EXPECT_EQ(importer.addBos, -1);
  EXPECT_EQ(importer.tokenizer.chatTemplate, "");
}

}  // namespace
}  // namespace zel
