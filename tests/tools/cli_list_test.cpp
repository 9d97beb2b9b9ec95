// list's options, and the document of verify.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/container_builder.h"
#include "tools/json_documents.h"

namespace zel::tool {
namespace {

using test::CommandResult;
using test::fullContainer;
using test::TempDir;
using testing::HasSubstr;

TEST(OkvListMeta, PrintsTheValueAsItIs) {
  const TempDir dir;
  EXPECT_EQ(okv2Run({"list", writeFullContainer(dir), "--meta", "a.str"}).out, "llama\n");
  EXPECT_EQ(okv2Run({"list", writeFullContainer(dir), "--meta", "a.u64"}).out, "4294967298\n");
  EXPECT_EQ(okv2Run({"list", writeFullContainer(dir), "--meta", "a.arr"}).out, "[1,300]\n");
}

TEST(OkvListMeta, MissesAKeyInPlainWords) {
  const TempDir dir;
  const Answer answer = okv2Answer({"list", writeFullContainer(dir), "--meta", "none"});
  EXPECT_EQ(answer.exitCode, 2);
  EXPECT_EQ(answer.document["error"], dir / "c.okv2" + ": no metadata item none");
}

TEST(OkvListTemplate, PrintsTheTemplateAsItIs) {
  const TempDir dir;
  EXPECT_EQ(okv2Run({"list", writeFullContainer(dir), "--template"}).out.size(), 5U);
}

TEST(OkvListTensors, LeavesEverythingElseOut) {
  const TempDir dir;
  const CommandResult result = okv2Run({"list", writeFullContainer(dir), "--tensors"});
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
  const json document = okv2Answer({"list", writeFullContainer(dir)}).document;
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

// The tokenizer part of the listing whose places are worked out at the top of cli_container_test.cpp.
TEST(OkvListTokenizer, LeavesEverythingElseOut) {
  const TempDir dir;
  const CommandResult result = okv2Run({"list", writeFullContainer(dir), "--tokenizer"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "\ntokenizer: 3 tokens, 1 scores, 3 types, 1 merges\n"
            "  special ids: bos 0, eos 2, unk -1, pad -1; add bos: yes\n"
            "\nchat template: 5 bytes; in the tokenizer section: 2 bytes\n");
}

TEST(OkvListTokenizer, IsAMemberOfItsOwnInJson) {
  const TempDir dir;
  const Answer answer = okv2Answer({"list", writeFullContainer(dir), "--tokenizer"});
  EXPECT_EQ(answer.exitCode, 0);
  EXPECT_EQ(answer.document, json({{"schema", 1},
                                   {"command", "list"},
                                   {"tokenizer",
                                    {{"tokens", {"<s>", "a", "b"}},
                                     {"scores", 1},
                                     {"types", 3},
                                     {"merges", {"a b"}},
                                     {"bos", 0},
                                     {"eos", 2},
                                     {"unk", -1},
                                     {"pad", -1},
                                     {"add_bos", true}}}}));
}

TEST(OkvListTokenizer, IsALineOfMarkdown) {
  const TempDir dir;
  EXPECT_EQ(okv2Run({"list", writeFullContainer(dir), "--tokenizer", "--markdown"}).out,
            "\nTokenizer: 3 tokens, 1 scores, 3 types, 1 merges; bos 0, eos 2, unk -1, pad -1\n");
}

}  // namespace
}  // namespace zel::tool
