// explain as a user runs it: text, JSON, exit codes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/model_dir_builder.h"
#include "support/test_conditions.h"
#include "tools/json_documents.h"

namespace zel::tool {
namespace {

using test::CommandResult;
using test::ModelDirBuilder;
using test::TempDir;
using testing::HasSubstr;

TEST(OkvExplain, TellsWhatAnImportWrites) {
  const TempDir dir;
  const std::string model = sampleModel(dir);
  const CommandResult result = okv2Run({"explain", model});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, HasSubstr(model + ": an import writes 21 tensors, "));
  EXPECT_THAT(result.out, HasSubstr("tokenizer: tokenizer.json\n"));
  EXPECT_THAT(result.out, HasSubstr("\nfindings: 0 fatal, 0 losses, 0 notes\n"));
}

TEST(OkvExplain, GivesEachFindingWhatWhyAndRemedy) {
  const TempDir dir;
  const std::string model = ModelDirBuilder()
                                .noWeights()
                                .file("model.safetensors", "version https://git-lfs.example/v1\n")
                                .write(dir);
  const CommandResult result = okv2Run({"explain", model});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.out, HasSubstr("an import fails with code 7: safetensors: bad header length\n"));
  EXPECT_THAT(result.out, HasSubstr("\nfatal weights.lfs-pointer: model.safetensors\n"
                                    "  35 bytes\n"
                                    "  A weight file is a Git LFS pointer and not its content.\n"
                                    "  Why: The directory was cloned without Git LFS.\n"
                                    "  Do:  git lfs pull --include 'model.safetensors'\n"));
}

TEST(OkvExplain, EscapesNamesFromTheDirectory) {
  const TempDir dir;
  const std::string model = ModelDirBuilder().noWeights().file("\x1B[2J.safetensors", "").write(dir);
  const CommandResult result = okv2Run({"explain", model});
  EXPECT_EQ(result.out.find('\x1B'), std::string::npos);
  EXPECT_THAT(result.out, HasSubstr("\\x1B[2J.safetensors"));
}

TEST(OkvExplain, PrintsNoColourOffATerminal) {
  const TempDir dir;
  EXPECT_EQ(okv2Run({"explain", ModelDirBuilder().noWeights().write(dir)}).out.find('\x1B'),
            std::string::npos);
}

// A .safetensors file of a gigabyte of zeros, which takes no room on disk.
void writeLargeShard(const std::string& path, const std::string& tensor) {
  constexpr std::uint64_t kBytes = std::uint64_t{1} << 30;
  const std::string whole =
      test::SafetensorsBuilder().tensor(tensor, "F32", {kBytes / 4}, {0, kBytes}).bytes();
  std::ofstream(path, std::ios::binary) << whole;
  std::filesystem::resize_file(path, whole.size() + kBytes);
}

TEST(OkvExplain, TakesNoMoreAddressSpaceThanAnImport) {
  if (test::kSanitized) GTEST_SKIP() << "sanitizers take address space of their own";
  const TempDir dir;
  const std::string model = ModelDirBuilder().noWeights().write(dir);
  writeLargeShard(model + "/a.safetensors", "lm_head.weight");
  writeLargeShard(model + "/b.safetensors", "model.norm.weight");
  // Two and a half gigabytes: room for both shards and the program, and not for one of them twice.
  const CommandResult result = test::runCommand(
      {"/bin/sh", "-c", "ulimit -v 2621440 && exec \"$0\" explain \"$1\"", OKV2_COMMAND, model});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, HasSubstr(model + ": an import writes 2 tensors, "));
  EXPECT_THAT(result.out, HasSubstr("\nfindings: 0 fatal, "));
}

TEST(OkvExplainStrict, TellsLossFailureAndSuccessApart) {
  const TempDir dir;
  EXPECT_EQ(okv2Run({"explain", "--strict", sampleModel(dir)}).exitCode, 0);
  EXPECT_EQ(okv2Run({"explain", "--strict", ModelDirBuilder().write(dir, "no-tokenizer")}).exitCode, 9);
  EXPECT_EQ(okv2Run({"explain", "--strict", ModelDirBuilder().config("{").write(dir, "bad")}).exitCode, 7);
}

TEST(OkvExplainJson, HasTheSchemaOfThePage) {
  const TempDir dir;
  const std::string model =
      ModelDirBuilder()
          .config(R"({"model_type":"llama","hidden_size":8,"num_hidden_layers":2,"num_attention_heads":2,)"
                  R"("num_key_value_heads":1,"intermediate_size":16,"vocab_size":4,)"
                  R"("max_position_embeddings":64,"rope_theta":10000.0,"rms_norm_eps":1e-05})")
          .write(dir);
  const Answer answer = okv2Answer({"explain", model, "--strict"});
  EXPECT_EQ(answer.exitCode, 9);
  const json& document = answer.document;
  EXPECT_EQ(document["schema"], 1);
  EXPECT_EQ(document["command"], "explain");
  EXPECT_EQ(document["exit_code"], 9);
  EXPECT_EQ(document["directory"], model);
  EXPECT_EQ(document["import"]["code"], 0);
  EXPECT_EQ(document["import"]["tensors"], 1);
  EXPECT_EQ(document["counts"], json({{"fatal", 0}, {"loss", 2}, {"note", 0}}));
  EXPECT_EQ(document["files"][0]["name"], "config.json");
  EXPECT_EQ(document["files"][0]["read"], true);
  EXPECT_EQ(document["config"][1],
            json({{"key", "hidden_size"}, {"value", "8"}, {"becomes", "model.hidden_size"}}));
  EXPECT_EQ(document["tokenizer"]["file"], "");
  EXPECT_EQ(document["tokenizer"]["bos"], -1);
  EXPECT_EQ(document["chat_template"], json({{"file", ""}, {"bytes", 0}, {"stored", false}}));
  EXPECT_EQ(document["types"], json({{{"type", "F32"}, {"tensors", 1}, {"code", 0}}}));
  EXPECT_EQ(document["findings"][0]["id"], "tokenizer.none");
  for (const char* key : {"severity", "subject", "detail", "what", "why", "todo"})
    EXPECT_TRUE(document["findings"][0][key].is_string()) << key;
}

TEST(OkvExplainJson, AnswersForWhatIsNoDirectory) {
  const Answer answer = okv2Answer({"explain", "/nowhere"});
  EXPECT_EQ(answer.exitCode, 2);
  EXPECT_EQ(
      answer.document,
      json(
          {{"schema", 1}, {"command", "explain"}, {"exit_code", 2}, {"error", "/nowhere: not a directory"}}));
  EXPECT_EQ(answer.err, "okv2: /nowhere: not a directory\n");
}

}  // namespace
}  // namespace zel::tool
