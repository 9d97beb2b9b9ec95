// What reaches a terminal: no control bytes from outside, and no colours that were not asked for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "support/container_builder.h"
#include "support/model_dir_builder.h"
#include "tools/json_documents.h"

namespace zel::tool {
namespace {

using test::CommandResult;
using test::ContainerBuilder;
using test::ModelDirBuilder;
using test::TempDir;
using testing::HasSubstr;

bool isPlainAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); });
}

// DEL, U+0085 and U+009B are controls that JSON allows in a string as they are.
TEST(OkvJson, HasNoControlCharactersAndKeepsWhatTheyWere) {
  const std::string key = "k\x7F", value = "\xC2\x85 \xC2\x9B[2J", name = "t\x1B\xC3\xA9";
  const TempDir dir;
  const std::string file = dir.write(
      "c.okv2", ContainerBuilder().meta(key, 4, test::str32(value)).tensor(name, 1, {1}, "xx").build().bytes);
  const CommandResult result = okv2Run({"list", file, "--json"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_TRUE(isPlainAscii(result.out)) << result.out;
  const json document = json::parse(result.out);
  EXPECT_EQ(document["metadata"][0]["key"], key);
  EXPECT_EQ(document["metadata"][0]["value"], value);
  EXPECT_EQ(document["tensors"][0]["name"], name);
}

TEST(OkvImportReport, HasNoControlCharacters) {
  const TempDir dir;
  const std::string model = ModelDirBuilder().write(dir, "m\x7F\xC2\x9B");
  ASSERT_EQ(okv2Run({"import", model, "-o", dir / "c.okv2", "-q", "--report", dir / "r.json"}).exitCode, 0);
  const std::string text = test::readWholeFile(dir / "r.json");
  EXPECT_TRUE(isPlainAscii(text)) << text;
  EXPECT_EQ(json::parse(text)["directory"], model);
}

struct WrongLine {
  std::vector<std::string> words;
  std::string complaint;
};

class OkvWrongUsage : public testing::TestWithParam<WrongLine> {};

TEST_P(OkvWrongUsage, IsToldWithTheWordsEscaped) {
  const CommandResult result = okv2Run(GetParam().words);
  EXPECT_EQ(result.exitCode, 64);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, GetParam().complaint + "\nRun with --help for more information.\n");
}

TEST_P(OkvWrongUsage, IsOneDocumentInJson) {
  std::vector<std::string> words = GetParam().words;
  const std::string command = words.empty() || words[0][0] == '-' ? "okv2" : words[0];
  words.emplace_back("--json");
  const CommandResult result = okv2Run(words);
  EXPECT_EQ(result.exitCode, 64);
  const json document = json::parse(result.out);  // throws when there is anything else
  EXPECT_EQ(document.size(), 4U);
  EXPECT_EQ(document["schema"], 1);
  EXPECT_EQ(document["command"], command);
  EXPECT_EQ(document["exit_code"], 64);
  EXPECT_EQ(document["error"].get<std::string>() + "\nRun with --help for more information.\n", result.err);
}

TEST(OkvList, HasOneForm) {
  const CommandResult result = okv2Run({"list", "c", "--json", "--markdown"});
  EXPECT_EQ(result.exitCode, 64);
  EXPECT_EQ(json::parse(result.out)["error"], "--json excludes --markdown");
}

using Words = std::vector<std::string>;
INSTANTIATE_TEST_SUITE_P(
    Lines, OkvWrongUsage,
    testing::Values(
        WrongLine{{}, "A subcommand is required"}, WrongLine{{"lst"}, "there is no subcommand 'lst'"},
        WrongLine{{"import", "m", "-o", "x", "--report", ""}, "--report: must not be empty"},
        WrongLine{{"import", "m", "-o", "x", "--plugin", ""}, "--plugin: must not be empty"},
        WrongLine{{"verify", "c", "--against", ""}, "--against: must not be empty"},
        WrongLine{{"hash", "c", "--check", ""}, "--check: must not be empty"},
        WrongLine{{"sample", "m", "--tensors", "0"}, "--tensors: must be a whole number above 0"},
        WrongLine{{"sample", "m", "--vocab", "-4"}, "--vocab: must be a whole number above 0"},
        WrongLine{{"list"}, "FILE is required"},
        WrongLine{{"verify", "a", "b"}, "The following argument was not expected: b"},
        WrongLine{{"list", "a", "b\x1B[2J\n"}, "The following argument was not expected: b\\x1B[2J\\n"},
        WrongLine{{"hash", "a", "--\x7F\xC2\x9B"},
                  "The following argument was not expected: --\\x7F\\xC2\\x9B"},
        WrongLine{{"prepare", "a", "b", "--drop", "(\x07"}, "--drop: not a regular expression: (\\x07"},
        WrongLine{{"verify", "a", "--prepare"}, "--prepare requires --against"}));

// script(1) gives the command a terminal.
class OkvOnATerminal : public testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists("/usr/bin/script")) GTEST_SKIP() << "needs script(1)";
  }
  // What explain prints about a directory without weights, with these settings of the environment.
  [[nodiscard]] std::string explained(const std::string& environment) const {
    const std::string model = ModelDirBuilder().noWeights().write(dir_);
    const CommandResult result =
        test::runCommand({"/usr/bin/script", "-qec",
                          "env " + environment + " " + OKV2_COMMAND + " explain " + model, "/dev/null"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.out, HasSubstr("weights.none: "));
    return result.out;
  }

  TempDir dir_;
};

TEST_F(OkvOnATerminal, ExplainColoursSeverities) {
  EXPECT_THAT(explained("-u NO_COLOR TERM=xterm"), HasSubstr("\x1B[1;31mfatal\x1B[0m weights.none: "));
}

TEST_F(OkvOnATerminal, ExplainTakesAnEmptyWishForNone) {
  EXPECT_THAT(explained("NO_COLOR= TERM=xterm"), HasSubstr("\x1B[1;31mfatal\x1B[0m weights.none: "));
}

TEST_F(OkvOnATerminal, ExplainColoursNothingWhenAskedNotTo) {
  EXPECT_EQ(explained("NO_COLOR=1 TERM=xterm").find('\x1B'), std::string::npos);
}

TEST_F(OkvOnATerminal, ExplainColoursNothingWhereItCannot) {
  EXPECT_EQ(explained("-u NO_COLOR TERM=dumb").find('\x1B'), std::string::npos);
  EXPECT_EQ(explained("-u NO_COLOR TERM=").find('\x1B'), std::string::npos);
  EXPECT_EQ(explained("-u NO_COLOR -u TERM").find('\x1B'), std::string::npos);
}

TEST_F(OkvOnATerminal, ImportWritesLinesWhereABarCannotBe) {
  const std::string model = ModelDirBuilder().write(dir_), file = dir_ / "c.okv2";
  const CommandResult result = test::runCommand(
      {"/usr/bin/script", "-qec",
       std::string("TERM=dumb ") + OKV2_COMMAND + " import " + model + " -o " + file, "/dev/null"});
  EXPECT_EQ(result.exitCode, 0);
  // A terminal sends CR LF for every line feed.
  EXPECT_EQ(result.out, "1 of 1: model.safetensors: 1 tensors, 32 bytes\r\nwrote " + file + ": 1 tensors, " +
                            std::to_string(std::filesystem::file_size(file)) + " bytes\r\n");
}

}  // namespace
}  // namespace zel::tool
