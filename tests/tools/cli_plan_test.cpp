// plan and import --dry-run: what they say is what an import writes, to the byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/corpus.h"
#include "support/model_dir_builder.h"
#include "support/test_conditions.h"
#include "tools/json_documents.h"

namespace zel::tool {
namespace {

namespace fs = std::filesystem;
using test::TempDir;
using testing::ElementsAre;
using testing::HasSubstr;

// Sections and tensors of the plan against those that the independent reader finds in the file.
void expectPlanEqualsFile(const std::string& directory, const std::string& file) {
  const Answer plan = okv2Answer({"plan", directory});
  ASSERT_EQ(plan.exitCode, 0) << plan.err;
  ASSERT_EQ(okv2Run({"import", directory, "-o", file, "-q"}).exitCode, 0);
  EXPECT_EQ(plan.document["bytes"], fs::file_size(file));
  const Answer list = okv2Answer({"list", file});
  EXPECT_EQ(plan.document["sections"], list.document["sections"]);
  ASSERT_EQ(plan.document["tensors"].size(), list.document["tensors"].size());
  for (std::size_t k = 0; k < plan.document["tensors"].size(); ++k) {
    const json& planned = plan.document["tensors"][k];
    const json& listed = list.document["tensors"][k];
    EXPECT_EQ(planned["name"].get<std::string>().substr(0, 63), listed["name"]);
    for (const char* key : {"type", "shape", "bytes", "offset"})
      EXPECT_EQ(planned[key], listed[key]) << planned["name"] << " " << key;
  }
  EXPECT_EQ(okv2Run({"verify", file, "--against", directory}).exitCode, 0);
}

class OkvPlanOfASample : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(OkvPlanOfASample, EqualsTheFile) {
  const TempDir dir;
  expectPlanEqualsFile(sampleModel(dir, GetParam()), dir / "out.okv2");
}

using Words = std::vector<std::string>;
INSTANTIATE_TEST_SUITE_P(Variants, OkvPlanOfASample,
                         testing::Values(Words{}, Words{"--arch", "qwen2"}, Words{"--arch", "gemma4"},
                                         Words{"--arch", "gpt2"}, Words{"--shards", "3"},
                                         Words{"--format", "pytorch"},
                                         Words{"--format", "pytorch", "--arch", "gpt2"},
                                         Words{"--tokenizer", "model"}, Words{"--tokenizer", "none"},
                                         Words{"--tensors", "100"}, Words{"--vocab", "3000"}));

TEST(OkvPlan, EqualsTheFileForEveryCorpusDirectoryThatConverts) {
  OKV2_REQUIRE_CORPUS();
  std::size_t converted = 0;
  for (const test::CorpusRow& row : test::readCorpusTable("model-dirs/model-dirs.tsv")) {
    if (row.at("import_code") != "0") continue;
    const TempDir dir;
    const std::string model = test::corpusPath("model-dirs/" + row.at("dir"));
    expectPlanEqualsFile(model, dir / "out.okv2");
    EXPECT_EQ(okv2Answer({"plan", model}).document["bytes"].dump(), row.at("container_bytes"));
    ++converted;
  }
  EXPECT_EQ(converted, 2U);
}

// Fused blocks, a remainder, long names, names with a zero byte, equal names: all that moves sizes about.
TEST(OkvPlan, EqualsTheFileWhereTensorsAreCut) {
  const TempDir dir;
  const std::string model =
      test::ModelDirBuilder()
          .tokenizer()
          .shard("a.safetensors", test::SafetensorsBuilder()
                                      .tensor("transformer.h.0.attn.c_attn.weight", "F16", {8, 5})
                                      .tensor("transformer.h.1.attn.c_attn.weight", "Q4_K", {768, 2})
                                      .tensor("transformer.h.0.attn.c_attn.bias", "F32", {7})
                                      .tensor(std::string(80, 'n'), "BF16", {3})
                                      .tensor("twice", "F32", {1}))
          .shard("b.safetensors", test::SafetensorsBuilder().tensor("twice", "F32", {2}))
          .write(dir);
  expectPlanEqualsFile(model, dir / "out.okv2");
}

TEST(OkvPlan, ShowsTheTableAsText) {
  const TempDir dir;
  const test::CommandResult result = okv2Run({"plan", test::ModelDirBuilder().write(dir)});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, HasSubstr("/model: 1 tensors, "));
  EXPECT_THAT(result.out, HasSubstr("\nsections\n  name                     offset             size\n"));
  EXPECT_THAT(result.out, HasSubstr("  output_norm.weight                               F32    [8]  "));
}

// /proc has no room for anybody.
TEST(OkvPlan, TellsTheFreeSpaceWhereTheFileWouldLie) {
  const TempDir dir;
  const std::string model = test::ModelDirBuilder().write(dir);
  const auto weights = std::to_string(fs::file_size(model + "/model.safetensors"));
  const test::CommandResult none = okv2Run({"plan", model, "-o", "/proc/c.okv2"});
  EXPECT_EQ(none.exitCode, 0);
  EXPECT_THAT(none.out, HasSubstr("\n  free space 0, address space for the weight files " + weights + "\n"));
  const Answer answer = okv2Answer({"plan", model, "-o", "/proc/c.okv2"});
  EXPECT_EQ(answer.document["free_bytes"], 0);
  EXPECT_EQ(answer.document["address_space_bytes"].dump(), weights);
  const std::string needed = answer.document["bytes"].dump();
  EXPECT_EQ(none.err, "okv2: note: 0 bytes are free, " + needed + " are needed\n");
  const test::CommandResult unknown = okv2Run({"plan", model, "-o", dir / "nowhere/c.okv2"});
  EXPECT_THAT(unknown.out,
              HasSubstr("\n  free space unknown, address space for the weight files " + weights + "\n"));
  EXPECT_EQ(unknown.err, "");
  EXPECT_EQ(okv2Answer({"plan", model, "-o", dir / "nowhere/c.okv2"}).document["free_bytes"], nullptr);
  const Answer some = okv2Answer({"plan", model, "-o", dir / "c.okv2"});
  EXPECT_GT(some.document["free_bytes"], some.document["bytes"]);
  EXPECT_EQ(some.err, "");
}

// Runs the plan with the address space limited to `kilobytes`.
test::CommandResult planWithin(const std::string& kilobytes, const std::string& model) {
  return test::runCommand({"/bin/sh", "-c", "ulimit -v \"$1\" && exec \"$0\" plan \"$2\" --json",
                           OKV2_COMMAND, kilobytes, model});
}

// Three gigabytes of weights without a block on the disk.
TEST(OkvPlan, TellsTheLimitOfTheAddressSpace) {
  if (test::kSanitized) GTEST_SKIP() << "the sanitizers' shadow takes terabytes of address space";
  const TempDir dir;
  constexpr std::uint64_t kBytes = std::uint64_t{3} << 30;
  const std::string model =
      test::ModelDirBuilder()
          .shard("a.safetensors", test::SafetensorsBuilder().tensor("t", "F32", {kBytes / 4}, {0, kBytes}))
          .write(dir);
  const std::string weights = model + "/a.safetensors";
  fs::resize_file(weights, fs::file_size(weights) + kBytes);
  const std::uint64_t needed = fs::file_size(weights);
  const test::CommandResult enough = planWithin("8388608", model);
  EXPECT_EQ(enough.exitCode, 0);
  EXPECT_EQ(enough.err, "");
  EXPECT_EQ(json::parse(enough.out)["address_space_limit"], std::uint64_t{8} << 30);
  EXPECT_EQ(json::parse(enough.out)["address_space_bytes"], needed);
  const test::CommandResult less = planWithin("2097152", model);
  EXPECT_EQ(less.exitCode, 6);
  EXPECT_EQ(less.err, "okv2: note: address space is limited to 2147483648 bytes, " + std::to_string(needed) +
                          " are needed\nokv2: " + model + ": safetensors: mmap failed\n");
  EXPECT_EQ(json::parse(less.out)["error"], model + ": safetensors: mmap failed");
  EXPECT_EQ(okv2Answer({"plan", model}).document["address_space_limit"], nullptr);
}

TEST(OkvPlan, FailsAsTheImportWould) {
  const TempDir dir;
  const std::string model = test::ModelDirBuilder().noWeights().write(dir);
  const Answer plan = okv2Answer({"plan", model});
  EXPECT_EQ(plan.exitCode, 2);
  const std::string message = model + ": convert: HF directory has no safetensors or pytorch_model.bin";
  EXPECT_EQ(plan.document, json({{"schema", 1}, {"command", "plan"}, {"exit_code", 2}, {"error", message}}));
  EXPECT_EQ(plan.err, "okv2: " + message + "\n");
}

TEST(OkvImportDryRun, PrintsThePlanAndWritesNothing) {
  const TempDir dir;
  const std::string model = sampleModel(dir);
  const Answer dry = okv2Answer({"import", model, "-o", dir / "out.okv2", "--dry-run"});
  EXPECT_EQ(dry.exitCode, 0);
  EXPECT_EQ(dry.document["command"], "plan");
  EXPECT_EQ(dry.document["tensors"], okv2Answer({"plan", model}).document["tensors"]);
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("model"));
}

TEST(OkvImport, TakesJsonForADryRunOnly) {
  const TempDir dir;
  const Answer answer = okv2Answer({"import", "x", "-o", dir / "out.okv2"});
  EXPECT_EQ(answer.exitCode, 64);
  EXPECT_EQ(answer.document["command"], "import");
  EXPECT_EQ(answer.document["exit_code"], 64);
}

}  // namespace
}  // namespace zel::tool
