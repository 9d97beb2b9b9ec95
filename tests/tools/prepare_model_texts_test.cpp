// The JSON files around a model: what is read of them, how long they may be, and that a change leaves the
// rest.
#include <string>
#include <string_view>

#include "okv2/prepare/model_texts.h"
#include "prepare_directory_support.h"

namespace zel::tool::prepare {
namespace {

using test::ModelDirBuilder;
using testing::ElementsAre;

TEST(ReadModelTexts, TakesTheNumbersOfPythonForNull) {
  const PreparedDirectory directory(
      withConfig(R"({"model_type":"x","a\"NaN":"NaN","b":[NaN,Infinity,-Infinity]})"));
  EXPECT_EQ(directory.text("config.json"), R"({"model_type":"x","a\"NaN":"NaN","b":[null,null,null]})");
  EXPECT_THAT(directory.changes(), ElementsAre("config.json | byte 38 | NaN | null | config.bad-json",
                                               "config.json | byte 42 | Infinity | null | config.bad-json",
                                               "config.json | byte 51 | -Infinity | null | config.bad-json"));
}

TEST(ReadModelTexts, TakesThemForNullInEveryFile) {
  for (const char* name : {"tokenizer_config.json", "special_tokens_map.json", "generation_config.json"}) {
    const PreparedDirectory directory(withConfig(completeConfig()).file(name, R"({"a":NaN})"));
    EXPECT_EQ(directory.text(name), R"({"a":null})");
    EXPECT_THAT(directory.changes(),
                ElementsAre(std::string(name) + " | byte 5 | NaN | null | side.bad-json"));
  }
}

TEST(ReadModelTexts, RefusesMoreOfThemThanAnybodyWrites) {
  const auto withMany = [](std::size_t count) {
    std::string list = "NaN";
    for (std::size_t k = 1; k < count; ++k)
      list += ",NaN";
    return withConfig(completeConfig("\"a\":[" + list + "]"));
  };
  EXPECT_EQ(PreparedDirectory(withMany(kMaxLiftedNumbers)).changes().size(), kMaxLiftedNumbers);
  EXPECT_EQ(refusalOfDirectory(withMany(kMaxLiftedNumbers + 1)),
            (Refusal{7, "config.bad-json", "config.json: byte 147: json: unexpected char",
                     "Mend config.json, or fetch it again."}));
}

// A file of `bytes` bytes, the first of which no reader takes: reading ends there.
Refusal refusalOfLength(const std::string& name, std::size_t bytes) {
  std::string text(bytes, ' ');
  text[0] = '\xFF';
  return refusalOfDirectory(withConfig(completeConfig()).file(name, text));
}

TEST(ReadModelTexts, RefusesDescriptionsThatAreTooLong) {
  for (const std::string name :
       {"config.json", "tokenizer_config.json", "special_tokens_map.json", "generation_config.json",
        "added_tokens.json", "chat_template.json", "chat_template.jinja"}) {
    EXPECT_EQ(
        refusalOfLength(name, kMaxConfigBytes + 1),
        (Refusal{3, "file.not-regular", name + ": 8388609 bytes are more than the 8388608 of any description",
                 "Put the model's own " + name + " there."}));
  }
}

TEST(ReadModelTexts, ReadsDescriptionsAsLongAsTheLimit) {
  for (const std::string name : {"config.json", "tokenizer_config.json", "special_tokens_map.json",
                                 "generation_config.json", "added_tokens.json", "chat_template.json"}) {
    const std::string finding = name == "config.json" ? "config.bad-json" : "side.bad-json";
    EXPECT_EQ(refusalOfLength(name, kMaxConfigBytes),
              (Refusal{7, finding, name + ": byte 0: json: unexpected char",
                       "Mend " + name + ", or fetch it again."}));
  }
  EXPECT_EQ(refusalOfLength("chat_template.jinja", kMaxConfigBytes),
            (Refusal{7, "template.jinja-file", "chat_template.jinja: it is not in UTF-8",
                     "Fetch chat_template.jinja again."}));
}

TEST(ReadModelTexts, RefusesTextsOfTooManyValues) {
  const auto listOf = [](std::size_t count) {  // the list is a value itself
    std::string text = "[0";
    for (std::size_t k = 2; k < count; ++k)
      text += ",0";
    return text + "]";
  };
  const auto refusalFor = [](const std::string& text) {
    return refusalOf([&] {
      refuseManyValues("a.json", text);
      return 0;
    });
  };
  EXPECT_EQ(refusalFor(listOf(kMaxValues)), Refusal{});
  EXPECT_EQ(
      refusalFor(listOf(kMaxValues + 1)),
      (Refusal{3, "file.not-regular", "a.json: 4194305 values are more than the 4194304 of any description",
               "Put the model's own a.json there."}));
  EXPECT_EQ(refusalFor("\"\\\"" + listOf(kMaxValues + 1) + "\""), Refusal{});  // one text
}

TEST(ReadModelTexts, RefusesATokenizerOfTooManyValues) {
  std::string text = R"({"model":{"vocab":{"a":0}},"x":[0)";
  for (std::size_t k = 0; k < kMaxValues; ++k)
    text += ",0";
  EXPECT_EQ(refusalOfDirectory(withConfig(completeConfig()).file("tokenizer.json", text + "]}")),
            (Refusal{3, "file.not-regular",
                     "tokenizer.json: 4194310 values are more than the 4194304 of any description",
                     "Put the model's own tokenizer.json there."}));
}

TEST(JsonFile, WritesWhatIsNotChangedAsItWas) {
  const PreparedDirectory directory(
      withConfig(completeConfig())
          .file("tokenizer_config.json",
                R"({ "model_max_length" : 1000000000000000019884624838656, "chat_template": [)"
                R"({"name":"default","template":"D"}], "x":{"y": 1.50} })"));
  EXPECT_EQ(directory.text("tokenizer_config.json"),
            "{\n  \"model_max_length\": 1000000000000000019884624838656,\n  \"chat_template\": \"D\",\n"
            "  \"x\": {\"y\": 1.50}\n}\n");
}

TEST(JsonFile, KeepsTheFirstOfEqualKeysAndRemovesThemAll) {
  JsonFile file("a.json");
  std::string reason;
  ASSERT_TRUE(file.read(R"({"a":1,"b":2,"a":3,"b":4,"c":1e2,"c":5})", reason));
  EXPECT_EQ(file.find("a")->get<int>(), 1);
  file.set("a", 7);
  file.remove("b");
  EXPECT_EQ(file.find("a")->get<int>(), 7);
  EXPECT_EQ(file.find("b"), nullptr);
  EXPECT_EQ(file.bytes(), "{\n  \"a\": 7,\n  \"c\": 1e2,\n  \"c\": 5\n}\n");
}

TEST(JsonFile, IsMadeByItsFirstMember) {
  JsonFile file("a.json");
  EXPECT_FALSE(file.exists);
  EXPECT_EQ(file.bytes(), "");
  file.set("a", 7);
  EXPECT_TRUE(file.exists);
  EXPECT_EQ(file.bytes(), "{\n  \"a\": 7\n}\n");
}

TEST(JsonFile, MayLoseItsLastMember) {
  JsonFile file("a.json");
  std::string reason;
  ASSERT_TRUE(file.read(R"({"a":1})", reason));
  file.remove("a");
  EXPECT_EQ(file.bytes(), "{\n}\n");
}

}  // namespace
}  // namespace zel::tool::prepare
