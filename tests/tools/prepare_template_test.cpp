// The chat template: where it may lie, and which one is meant.
#include <string>

#include "prepare_directory_support.h"

namespace zel::tool::prepare {
namespace {

using test::ModelDirBuilder;
using testing::ElementsAre;
using testing::IsEmpty;

ModelDirBuilder small() { return ModelDirBuilder().config(completeConfig()).tokenizer(); }

TEST(MendChatTemplate, LeavesATextThatIsRead) {
  const std::string text = R"({ "chat_template": "T" })";
  const PreparedDirectory directory(small().file("tokenizer_config.json", text));
  EXPECT_EQ(directory.text("tokenizer_config.json"), text);
  EXPECT_THAT(directory.changes(), IsEmpty());
}

TEST(MendChatTemplate, TakesTheTextOfAFileOfItsOwn) {
  const std::string jinja = "{% if x %}\r\n\"\xC3\xA4\"\n{% endif %}\n";
  const PreparedDirectory directory(small().file("chat_template.jinja", jinja));
  EXPECT_EQ(directory.model.tokenizer.chatTemplate, jinja);
  EXPECT_THAT(directory.changes(),
              ElementsAre("tokenizer_config.json | $.chat_template |  | 29 bytes | template.jinja-file"));
  EXPECT_THAT(directory.remaining(), IsEmpty());
}

TEST(MendChatTemplate, PrefersThatFileToTheTokenizersConfiguration) {
  const PreparedDirectory directory(
      small()
          .file("chat_template.jinja", "J")
          .file("tokenizer_config.json", R"({"a":1,"chat_template":"T","b":2})"));
  EXPECT_EQ(directory.model.tokenizer.chatTemplate, "J");
  EXPECT_EQ(Json::parse(directory.text("tokenizer_config.json")),
            Json::parse(R"({"a":1,"chat_template":"J","b":2})"));
}

TEST(MendChatTemplate, RefusesATemplateThatIsNoUtf8) {
  EXPECT_EQ(refusalOfDirectory(small().file("chat_template.jinja", "\xFF")),
            (Refusal{7, "template.jinja-file", "chat_template.jinja: it is not in UTF-8",
                     "Fetch chat_template.jinja again."}));
}

TEST(MendChatTemplate, TakesTheDefaultOfAList) {
  const PreparedDirectory directory(small().file("tokenizer_config.json",
                                                 R"({"chat_template":[{"name":"tool_use","template":"U"},)"
                                                 R"({"name":"default","template":"D"}]})"));
  EXPECT_EQ(directory.model.tokenizer.chatTemplate, "D");
  EXPECT_THAT(
      directory.changes(),
      ElementsAre("tokenizer_config.json | $.chat_template | a list of 2 entries | 1 bytes | template.list"));
}

TEST(MendChatTemplate, LeavesAListWithoutDefault) {
  const std::string text = R"({"chat_template":[{"name":"tool_use","template":"U"}]})";
  const PreparedDirectory directory(small().file("tokenizer_config.json", text));
  EXPECT_EQ(directory.text("tokenizer_config.json"), text);
  EXPECT_THAT(directory.remaining(), ElementsAre("template.list"));
}

TEST(MendChatTemplate, TakesTheTextOfAJsonFileLast) {
  const auto builder = small().file("chat_template.json", R"({"chat_template":"P"})");
  const PreparedDirectory prepared(builder);
  EXPECT_EQ(prepared.model.tokenizer.chatTemplate, "P");
  EXPECT_THAT(prepared.changes(),
              ElementsAre("tokenizer_config.json | $.chat_template |  | 1 bytes | template.json-file"));
  EXPECT_EQ(
      PreparedDirectory(ModelDirBuilder(builder).file("tokenizer_config.json", R"({"chat_template":"T"})"))
          .model.tokenizer.chatTemplate,
      "T");
}

TEST(MendChatTemplate, RefusesADamagedJsonFileThatItNeeds) {
  const std::string text = R"({"chat_template": "hello)";
  EXPECT_EQ(refusalOfDirectory(small().file("chat_template.json", text)),
            (Refusal{7, "side.bad-json", "chat_template.json: byte 18: json: unterminated string",
                     "Mend chat_template.json, or fetch it again."}));
  EXPECT_EQ(refusalOfDirectory(small().file("chat_template.json", R"(["hello"])")),
            (Refusal{7, "side.bad-json", "chat_template.json: $ is no object",
                     "Mend chat_template.json, or fetch it again."}));
  EXPECT_EQ(PreparedDirectory(small().file("chat_template.json", text).file("chat_template.jinja", "J"))
                .model.tokenizer.chatTemplate,
            "J");
}

TEST(MendChatTemplate, NamesWhatIsNoTemplateInAJsonFile) {
  const auto lossesFor = [](const std::string& value) {
    return PreparedDirectory(small().file("chat_template.json", R"({"chat_template":)" + value + "}"))
        .losses();
  };
  EXPECT_THAT(lossesFor(R"([{"name":"tool","template":"x"}])"),
              ElementsAre("template.list | chat_template.json | "
                          "chat_template.json: $.chat_template is a list of 1 entries"));
  EXPECT_THAT(lossesFor(R"({"tool":"x"})"),
              ElementsAre("template.not-text | chat_template.json | "
                          "chat_template.json: $.chat_template is an object of 1 entries"));
  EXPECT_THAT(
      lossesFor("5"),
      ElementsAre("template.not-text | chat_template.json | chat_template.json: $.chat_template is 5"));
  EXPECT_THAT(lossesFor("null"), IsEmpty());
  EXPECT_THAT(lossesFor(R"([{"name":"default","template":"x"}])"), IsEmpty());
}

TEST(MendChatTemplate, RemovesATemplateThatAnImportWouldPrefer) {
  const PreparedDirectory directory(small()
                                        .config(completeConfig(R"("chat_template":"C")"))
                                        .file("tokenizer_config.json", R"({"chat_template":"T"})"));
  EXPECT_EQ(directory.model.tokenizer.chatTemplate, "T");
  EXPECT_THAT(directory.changes(),
              ElementsAre("config.json | $.chat_template | 1 bytes |  | template.config-wins"));
  EXPECT_THAT(directory.remaining(), IsEmpty());
}

TEST(MendChatTemplate, KeepsTheOnlyTemplateInTheConfiguration) {
  const PreparedDirectory directory(small().config(R"({"model_type":"x","chat_template":"C"})"));
  EXPECT_EQ(directory.model.tokenizer.chatTemplate, "C");
  EXPECT_THAT(directory.changes(), IsEmpty());
}

}  // namespace
}  // namespace zel::tool::prepare
