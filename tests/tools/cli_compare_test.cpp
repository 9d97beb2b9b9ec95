// list's options, verify --against, hash and diff.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/container_builder.h"
#include "support/model_dir_builder.h"
#include "tools/json_documents.h"

namespace zel::tool {
namespace {

using test::CommandResult;
using test::fullContainer;
using test::TempDir;
using testing::HasSubstr;

std::string full(const TempDir& dir) { return dir.write("c.okv2", fullContainer().build().bytes); }

TEST(OkvListMeta, PrintsTheValueAsItIs) {
  const TempDir dir;
  EXPECT_EQ(okv2Run({"list", full(dir), "--meta", "a.str"}).out, "llama\n");
  EXPECT_EQ(okv2Run({"list", full(dir), "--meta", "a.u64"}).out, "4294967298\n");
  EXPECT_EQ(okv2Run({"list", full(dir), "--meta", "a.arr"}).out, "[1,300]\n");
}

TEST(OkvListMeta, MissesAKeyInPlainWords) {
  const TempDir dir;
  const Answer answer = okv2Answer({"list", full(dir), "--meta", "none"});
  EXPECT_EQ(answer.exitCode, 2);
  EXPECT_EQ(answer.document["error"], dir / "c.okv2" + ": no metadata item none");
}

TEST(OkvListTemplate, PrintsTheTemplateAsItIs) {
  const TempDir dir;
  EXPECT_EQ(okv2Run({"list", full(dir), "--template"}).out.size(), 5U);
}

TEST(OkvListTensors, LeavesEverythingElseOut) {
  const TempDir dir;
  const CommandResult result = okv2Run({"list", full(dir), "--tensors"});
  EXPECT_EQ(result.out.rfind("\ntensors: 3\n", 0), 0U) << result.out;
}

TEST(OkvListMarkdown, EscapesWhatEndsACell) {
  const TempDir dir;
  const std::string file = dir.write(
      "c.okv2",
      test::ContainerBuilder().meta("k|", 4, test::str32("a|b")).tensor("t|", 1, {1}, "xx").build().bytes);
  const CommandResult result = okv2Run({"list", file, "--markdown"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.out, HasSubstr("| k\\| | string | \"a\\|b\" |\n"));
  EXPECT_THAT(result.out, HasSubstr("| t\\| | F16 | [1] | 2 |\n"));
}

TEST(OkvListJson, HasEverything) {
  const TempDir dir;
  const json document = okv2Answer({"list", full(dir)}).document;
  EXPECT_EQ(document["schema"], 1);
  EXPECT_EQ(document["bytes"], 1600);
  EXPECT_EQ(document["metadata"][2], json({{"key", "a.f32"}, {"type", "f32"}, {"value", 0.5}}));
  EXPECT_EQ(document["tokenizer"]["tokens"].size(), 3U);
  EXPECT_EQ(document["tensors"][1], json({{"name", "beta"},
                                          {"name_bytes", 4},
                                          {"type", "BF16"},
                                          {"shape", {5}},
                                          {"bytes", 10},
                                          {"offset", 1216}}));
}

TEST(OkvListJson, IsOneDocumentAlsoForADamagedFile) {
  const TempDir dir;
  const Answer answer = okv2Answer({"list", dir.write("c.okv2", "OKV")});
  EXPECT_EQ(answer.exitCode, 8);
  EXPECT_EQ(answer.document["exit_code"], 8);
}

TEST(OkvVerifyJson, HoldsTheFindings) {
  const TempDir dir;
  const std::string file = dir.write("c.okv2", fullContainer().build().with(20, "x").bytes);
  const Answer answer = okv2Answer({"verify", file});
  EXPECT_EQ(answer.exitCode, 8);
  EXPECT_EQ(answer.document["good"], false);
  EXPECT_EQ(answer.document["findings"],
            json({{{"severity", "error"}, {"offset", 20}, {"text", "reserved header field is not zero"}}}));
}

// A byte of the last tensor's data changed: the container keeps its format, the bytes are others.
TEST(OkvVerifyAgainst, FindsTheByteThatDiffers) {
  const TempDir dir;
  const std::string model = test::ModelDirBuilder().write(dir), file = dir / "c.okv2";
  ASSERT_EQ(okv2Run({"import", model, "-o", file, "-q"}).exitCode, 0);
  const CommandResult equal = okv2Run({"verify", file, "--against", model});
  EXPECT_EQ(equal.exitCode, 0);
  EXPECT_THAT(equal.out, HasSubstr(", equal to " + model + "\n"));
  // The one tensor of 8 floats is the last 64 bytes of the file.
  std::string bytes = test::readWholeFile(file);
  bytes[bytes.size() - 64 + 5] ^= 1;
  dir.write("c.okv2", bytes);
  EXPECT_EQ(okv2Run({"verify", file}).exitCode, 0);
  const CommandResult other = okv2Run({"verify", file, "--against", model});
  EXPECT_EQ(other.exitCode, 10);
  EXPECT_EQ(other.out, "");
  EXPECT_EQ(other.err, "okv2: " + file + ": tensor 'output_norm.weight': byte 5 differs\n");
}

// sha256sum of "xx": from coreutils.
TEST(OkvHash, PrintsTheSumsOfSha256sum) {
  const TempDir dir;
  const std::string file = dir.write(
      "c.okv2", test::ContainerBuilder().tensor("t", 1, {1}, "xx").tensor("u\n", 1, {1}, "xx").build().bytes);
  const test::CommandResult expected =
      test::runCommand({"/bin/sh", "-c", "printf xx | sha256sum | cut -c1-64"});
  const std::string sum = expected.out.substr(0, 64);
  ASSERT_EQ(sum.size(), 64U);
  const CommandResult result = okv2Run({"hash", file});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, sum + "  t\n\\" + sum + "  u\\n\n");
  const std::string sums = dir.write("sums", result.out);
  EXPECT_EQ(okv2Run({"hash", file, "--check", sums}).out, "t: OK\nu\\n: OK\n");
}

TEST(OkvHashCheck, TellsChangedMissingAndUnlistedTensors) {
  const TempDir dir;
  const std::string zeros(64, '0');
  const std::string file = dir.write(
      "c.okv2", test::ContainerBuilder().tensor("a", 1, {1}, "xx").tensor("b", 1, {1}, "yy").build().bytes);
  const std::string sums = dir.write("sums", zeros + "  a\n" + zeros + "  c\n");
  const CommandResult result = okv2Run({"hash", file, "--check", sums});
  EXPECT_EQ(result.exitCode, 10);
  EXPECT_EQ(result.out, "a: FAILED\nc: MISSING\nb: NOT LISTED\n");
  EXPECT_EQ(okv2Answer({"hash", file, "--check", sums}).document["tensors"][1],
            json({{"name", "c"}, {"result", "MISSING"}}));
}

TEST(OkvHashCheck, RefusesWhatIsNoListOfSums) {
  const TempDir dir;
  const std::string sums = dir.write("sums", "nonsense\n");
  const CommandResult result = okv2Run({"hash", full(dir), "--check", sums});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.err, "okv2: " + sums + ": not a list of sums\n");
  EXPECT_EQ(okv2Run({"hash", full(dir), "--check", "/nowhere"}).exitCode, 6);
}

TEST(OkvDiff, SaysNothingAboutEqualContainers) {
  const TempDir dir;
  const CommandResult result = okv2Run({"diff", full(dir), full(dir)});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
}

TEST(OkvDiff, NamesEveryKindOfDifference) {
  const TempDir dir;
  const auto build = [&](const char* name, std::uint32_t number, const char* extra, const char* data) {
    return dir.write(name, test::ContainerBuilder()
                               .meta("n", 0, test::u32(number))
                               .meta(extra, 0, test::u32(1))
                               .tensor("t", 1, {1}, data)
                               .build()
                               .bytes);
  };
  const std::string a = build("a.okv2", 1, "only-a", "xx"), b = build("b.okv2", 2, "only-b", "yy");
  const CommandResult result = okv2Run({"diff", a, b});
  EXPECT_EQ(result.exitCode, 10);
  EXPECT_EQ(result.out,
            "metadata n: u32 1 and u32 2\n"
            "metadata only-a: only in the first\n"
            "metadata only-b: only in the second\n"
            "tensor t: the bytes differ\n");
  const Answer answer = okv2Answer({"diff", a, b});
  EXPECT_EQ(answer.exitCode, 10);
  EXPECT_EQ(answer.document["differences"][3],
            json({{"part", "tensor"}, {"name", "t"}, {"text", "the bytes differ"}}));
}

TEST(OkvDiff, FailsWhenOneCannotBeRead) {
  const TempDir dir;
  EXPECT_EQ(okv2Run({"diff", full(dir), "/nowhere"}).exitCode, 6);
}

}  // namespace
}  // namespace zel::tool
