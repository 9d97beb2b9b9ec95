// verify --against DIR: equal means that an import of DIR would write the same file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/container_builder.h"
#include "support/model_dir_builder.h"
#include "tools/json_documents.h"

namespace zel::tool {
namespace {

using test::CommandResult;
using test::ModelDirBuilder;
using test::SafetensorsBuilder;
using test::TempDir;
using testing::HasSubstr;

constexpr char kConfig[] =
    R"({"model_type":"llama","hidden_size":8,"num_hidden_layers":2,"eos_token_id":1,"rope_theta":10000})";
constexpr char kTemplate[] = R"({"chat_template":"one {{ x }}"})";

ModelDirBuilder describedModel() {
  return ModelDirBuilder().config(kConfig).tokenizer().file("tokenizer_config.json", kTemplate);
}

// Imports one directory and compares with another.
class OkvVerifyAgainst : public testing::Test {
 protected:
  [[nodiscard]] std::string import(const ModelDirBuilder& model) const {
    const std::string file = dir_ / "c.okv2";
    EXPECT_EQ(okv2Run({"import", model.write(dir_, "imported"), "-o", file, "-q", "--force"}).exitCode, 0);
    return file;
  }
  // The lines of the differences, each without "okv2: FILE: ".
  std::vector<std::string> differences(const ModelDirBuilder& imported, const ModelDirBuilder& other) const {
    return differencesOf(import(imported), other.write(dir_, "other"));
  }
  static std::vector<std::string> differencesOf(const std::string& file, const std::string& model) {
    const Answer answer = okv2Answer({"verify", file, "--against", model});
    EXPECT_EQ(answer.exitCode, 10) << answer.err;
    EXPECT_EQ(answer.document["exit_code"], 10);
    EXPECT_EQ(answer.document["good"], false);
    auto texts = answer.document["differences"].get<std::vector<std::string>>();
    std::string err;
    for (const std::string& text : texts)
      err.append("okv2: ").append(file).append(": ").append(text).append("\n");
    EXPECT_EQ(answer.err, err);
    return texts;
  }

  TempDir dir_;
};

using Lines = std::vector<std::string>;

// A byte of the last tensor's data changed: the container keeps its format, the bytes are others.
TEST_F(OkvVerifyAgainst, FindsTheByteThatDiffers) {
  const std::string model = ModelDirBuilder().write(dir_), file = dir_ / "c.okv2";
  ASSERT_EQ(okv2Run({"import", model, "-o", file, "-q"}).exitCode, 0);
  const CommandResult equal = okv2Run({"verify", file, "--against", model});
  EXPECT_EQ(equal.exitCode, 0);
  EXPECT_THAT(equal.out, HasSubstr(", equal to " + model + "\n"));
  // The one tensor of 8 floats is the last 64 bytes of the file.
  std::string bytes = test::readWholeFile(file);
  bytes[bytes.size() - 64 + 5] ^= 1;
  dir_.write("c.okv2", bytes);
  EXPECT_EQ(okv2Run({"verify", file}).exitCode, 0);
  const CommandResult other = okv2Run({"verify", file, "--against", model});
  EXPECT_EQ(other.exitCode, 10);
  EXPECT_EQ(other.out, "");
  EXPECT_EQ(other.err, "okv2: " + file + ": tensor 'output_norm.weight': byte 5 differs\n");
}

TEST_F(OkvVerifyAgainst, IsEqualToTheDirectoryOfTheImport) {
  const std::string file = import(describedModel());
  const CommandResult result = okv2Run({"verify", file, "--against", dir_ / "imported"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, file + ": good, 1 tensors, " + std::to_string(std::filesystem::file_size(file)) +
                            " bytes, equal to " + dir_ / "imported" + "\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(OkvVerifyAgainst, NamesASizeThatIsAnother) {
  ModelDirBuilder other = describedModel();
  other.config(
      R"({"model_type":"llama","hidden_size":9,"num_hidden_layers":2,"eos_token_id":1,"rope_theta":10000})");
  EXPECT_EQ(
      differences(describedModel(), other),
      (Lines{"header hidden size: 8, expected 9", "metadata model.hidden_size: u64 8, expected u64 9"}));
}

TEST_F(OkvVerifyAgainst, NamesAModelTypeThatIsAnother) {
  ModelDirBuilder other = describedModel();
  other.config(
      R"({"model_type":"qwen2","hidden_size":8,"num_hidden_layers":2,"eos_token_id":1,"rope_theta":10000})");
  EXPECT_EQ(differences(describedModel(), other),
            (Lines{"metadata general.architecture: string \"llama\", expected string \"qwen2\"",
                   "metadata general.name: string \"llama\", expected string \"qwen2\""}));
}

TEST_F(OkvVerifyAgainst, NamesAnEndTokenThatIsAnother) {
  ModelDirBuilder other = describedModel();
  other.config(
      R"({"model_type":"llama","hidden_size":8,"num_hidden_layers":2,"eos_token_id":2,"rope_theta":10000})");
  EXPECT_EQ(differences(describedModel(), other), (Lines{"tokenizer eos: 1, expected 2"}));
}

TEST_F(OkvVerifyAgainst, NamesItemsThatOneSideLacks) {
  ModelDirBuilder other = describedModel();
  other.config(R"({"model_type":"llama","hidden_size":8,"eos_token_id":1,"num_attention_heads":4,)"
               R"("rope_theta":10000})");
  EXPECT_EQ(differences(describedModel(), other),
            (Lines{"header layers: 2, expected 0", "metadata model.num_layers: not expected",
                   "metadata model.num_heads: missing"}));
}

TEST_F(OkvVerifyAgainst, NamesATokenOfTheSameLength) {
  ModelDirBuilder other = describedModel();
  other.tokenizer(R"({"model":{"type":"BPE","vocab":{"<s>":0,"a":1,"c":2,"ab":3},"merges":["a b"]},)"
                  R"("added_tokens":[{"id":0,"content":"<s>","special":true}]})");
  EXPECT_EQ(differences(describedModel(), other),
            (Lines{"tokenizer tokens: the first difference is at 2: \"b\", expected \"c\""}));
}

TEST_F(OkvVerifyAgainst, NamesAMergeAndATypeThatAreOthers) {
  ModelDirBuilder other = describedModel();
  other.tokenizer(
      R"({"model":{"type":"BPE","vocab":{"<s>":0,"a":1,"b":2,"ab":3},"merges":["b a"]},)"
      R"("added_tokens":[{"id":0,"content":"<s>","special":true},{"id":1,"content":"a","special":true}]})");
  EXPECT_EQ(differences(describedModel(), other),
            (Lines{"tokenizer merges: the first difference is at 0: \"a b\", expected \"b a\"",
                   "tokenizer types: the first difference is at 1: 1, expected 3"}));
}

TEST_F(OkvVerifyAgainst, NamesEveryPlaceOfAChatTemplate) {
  ModelDirBuilder other = describedModel();
  other.file("tokenizer_config.json", R"({"chat_template":"two {{ x }}"})");
  EXPECT_EQ(differences(describedModel(), other),
            (Lines{R"(metadata hf.tokenizer_config: string "{"chat_template":"one {{ x }}"}", )"
                   R"(expected string "{"chat_template":"two {{ x }}"}")",
                   R"(tokenizer chat template: "one {{ x }}", expected "two {{ x }}")",
                   R"(chat template: "one {{ x }}", expected "two {{ x }}")"}));
}

// The first two metadata items change places: nothing is lost, but no import writes that.
TEST_F(OkvVerifyAgainst, NamesASectionOfTheSameContentInOtherBytes) {
  const std::string file = import(describedModel());
  const auto item = [](const std::string& key, const std::string& value) {
    return test::u16(key.size()) + key + test::u8(4) + test::str32(value);
  };
  const std::string first = item("general.architecture", "llama"),
                    second = item("hf.source_format", "huggingface");
  std::string bytes = test::readWholeFile(file);
  ASSERT_EQ(bytes.substr(260, first.size() + second.size()), first + second);
  dir_.write("c.okv2", bytes.replace(260, first.size() + second.size(), second + first));
  EXPECT_EQ(okv2Run({"verify", file}).exitCode, 0);
  EXPECT_EQ(differencesOf(file, dir_ / "imported"),
            (Lines{"metadata section: the same content in other bytes"}));
}

TEST_F(OkvVerifyAgainst, TellsNamesThatAreCutToTheSameByTheirLength) {
  const auto model = [](std::size_t bytes) {
    return ModelDirBuilder().shard("a.safetensors",
                                   SafetensorsBuilder().tensor(std::string(bytes, 'n'), "F32", {1}));
  };
  const std::string cut(63, 'n');
  EXPECT_EQ(differences(model(70), model(71)),
            (Lines{"tensor '" + cut + "': name of 70 bytes before it was cut, expected 71"}));
}

TEST_F(OkvVerifyAgainst, CountsTensorsBesideTheDescription) {
  ModelDirBuilder other = ModelDirBuilder();
  other.modelType("qwen2").shard("a.safetensors",
                                 SafetensorsBuilder().tensor("a", "F32", {1}).tensor("b", "F32", {1}));
  EXPECT_EQ(
      differences(ModelDirBuilder().modelType("llama"), other),
      (Lines{"metadata general.architecture: string \"llama\", expected string \"qwen2\"",
             "metadata general.name: string \"llama\", expected string \"qwen2\"", "1 tensors, expected 2"}));
}

// 101 and 102 tensors of another type each.
TEST_F(OkvVerifyAgainst, ListsAHundredDifferencesAndSaysWhenThereAreMore) {
  const auto model = [](const char* type, std::size_t tensors) {
    SafetensorsBuilder weights;
    for (std::size_t k = 0; k < tensors; ++k)
      weights.tensor("t" + std::to_string(1000 + k), type, {1});
    return ModelDirBuilder().shard("a.safetensors", weights);
  };
  const Lines hundred = differences(model("F16", 100), model("BF16", 100));
  ASSERT_EQ(hundred.size(), 100U);
  EXPECT_EQ(hundred.back(), "tensor 't1099': type F16, expected BF16");
  const Lines more = differences(model("F16", 101), model("BF16", 101));
  ASSERT_EQ(more.size(), 101U);
  EXPECT_EQ(more.back(), "further differences are not listed");
}

TEST_F(OkvVerifyAgainst, OfAPreparedDirectorySpeaksOfTheTensorsOnly) {
  const std::string model = describedModel().write(dir_), file = dir_ / "c.okv2";
  ASSERT_EQ(okv2Run({"import", "--prepare", model, "-o", file, "-q"}).exitCode, 0);
  const CommandResult result = okv2Run({"verify", file, "--against", model, "--prepare"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.out, HasSubstr(" bytes, tensors equal to what is prepared of " + model + "\n"));
}

}  // namespace
}  // namespace zel::tool
