// okv2 sample: every kind of model that it writes is imported, verified and looked into.
#include "okv2/sample/sample.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <tuple>

#include "okv2/container_reader.h"
#include "tools/cli.h"

namespace zel::tool {
namespace {

namespace fs = std::filesystem;
using test::CommandResult;
using test::readWholeFile;
using test::TempDir;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Ge;
using testing::Le;

// The container that comes out of the model directory, verified.
std::string imported(const std::string& model) {
  const std::string file = model + ".okv2";
  const CommandResult result = okv2Run({"import", model, "-o", file, "-q"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  const CommandResult verdict = okv2Run({"verify", file});
  EXPECT_EQ(verdict.exitCode, 0);
  EXPECT_EQ(verdict.err, "");
  return result.exitCode == 0 ? readWholeFile(file) : "";
}

std::string sampleAt(const std::string& model, std::vector<std::string> options) {
  options.insert(options.begin(), {"sample", model});
  const CommandResult result = okv2Run(options);
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, "");
  return model;
}

struct ArchRow {
  const char* name;
  std::uint32_t archId;
  std::uint64_t tensors;  // in the container, fused ones split; two layers
  const char* tensor;     // one that only this architecture has, or has under this name
};

constexpr ArchRow kArchs[] = {
    {"llama", 0, 3 + 2 * 9, "output.weight"},
    {"qwen2", 0, 3 + 2 * 12, "blk.1.self_attn.q_proj.bias"},
    {"gemma4", 1, 6 + 2 * 17, "blk.1.post_attention_norm.weight"},
    {"gpt2", 0, 4 + 2 * (12 + 4), "blk.1.attn_k.bias"},
};

class SampleOf : public testing::TestWithParam<std::tuple<ArchRow, const char*, const char*>> {};

INSTANTIATE_TEST_SUITE_P(Every, SampleOf,
                         testing::Combine(testing::ValuesIn(kArchs),
                                          testing::Values("safetensors", "pytorch"),
                                          testing::Values("json", "model", "none")),
                         [](const auto& row) {
                           return std::string(std::get<0>(row.param).name) + "_" + std::get<1>(row.param) +
                                  "_" + std::get<2>(row.param);
                         });

TEST_P(SampleOf, ImportsAndVerifies) {
  const auto& [arch, format, tokenizer] = GetParam();
  const TempDir dir;
  const std::string model = sampleAt(dir / "m", {"--arch", arch.name, "--format", format, "--tokenizer",
                                                 tokenizer, "--size", "60K", "--vocab", "300"});
  const std::string bytes = imported(model);
  ContainerView view;
  ASSERT_TRUE(parseContainer(bytes, view));
  EXPECT_EQ(view.archId, arch.archId);
  EXPECT_EQ(view.vocabSize, 300U);
  EXPECT_EQ(view.tensors.size(), arch.tensors);
  EXPECT_THAT(view.tensors, Contains(testing::Field(&TensorView::name, arch.tensor)));
  const std::string kind = tokenizer;
  EXPECT_EQ(view.tokenizer.tokens.size(), kind == "none" ? 0U : 300U);
  EXPECT_EQ(view.tokenizer.scoreCount(), kind == "model" ? 300U : 0U);
  EXPECT_EQ(view.tokenizer.merges.empty(), kind != "json");
  EXPECT_EQ(view.chatTemplate.empty(), kind == "none");
}

TEST(Sample, UsesAllThreeElementTypes) {
  const TempDir dir;
  const std::string bytes = imported(sampleAt(dir / "m", {"--size", "60K"}));
  ContainerView view;
  ASSERT_TRUE(parseContainer(bytes, view));
  std::map<std::uint16_t, int> byType;
  for (const TensorView& tensor : view.tensors)
    ++byType[tensor.dtype];
  EXPECT_EQ(byType.size(), 3U);
  EXPECT_EQ(byType[0], 5);   // the norms
  EXPECT_EQ(byType[1], 1);   // the embedding
  EXPECT_EQ(byType[2], 15);  // all other matrices
}

class SampleTwin : public testing::TestWithParam<ArchRow> {};
INSTANTIATE_TEST_SUITE_P(Every, SampleTwin, testing::ValuesIn(kArchs),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(SampleTwin, InBothWeightFormatsGivesTheSameContainer) {
  const TempDir dir;
  const std::string first = sampleAt(dir / "a", {"--arch", GetParam().name, "--size", "200K"});
  const std::string second =
      sampleAt(dir / "b", {"--arch", GetParam().name, "--size", "200K", "--format", "pytorch"});
  EXPECT_TRUE(fs::exists(second + "/pytorch_model.bin"));
  const std::string container = imported(first);
  EXPECT_TRUE(container == imported(second));
}

TEST_P(SampleTwin, InShardsGivesTheSameContainer) {
  const TempDir dir;
  const std::string whole = sampleAt(dir / "a", {"--arch", GetParam().name, "--size", "200K"});
  const std::string shards =
      sampleAt(dir / "b", {"--arch", GetParam().name, "--size", "200K", "--shards", "3"});
  const std::string container = imported(whole);
  EXPECT_TRUE(container == imported(shards));
}

TEST_P(SampleTwin, WrittenTwiceIsTheSame) {
  const TempDir dir;
  const std::string first = sampleAt(dir / "a", {"--arch", GetParam().name});
  const std::string second = sampleAt(dir / "b", {"--arch", GetParam().name});
  ASSERT_EQ(namesIn(first), namesIn(second));
  for (const std::string& name : namesIn(first)) {
    EXPECT_TRUE(readWholeFile(first + "/" + name) == readWholeFile(second + "/" + name)) << name;
  }
}

TEST(Sample, NamesItsShards) {
  const TempDir dir;
  const std::string model = sampleAt(dir / "m", {"--shards", "2", "--tokenizer", "model"});
  EXPECT_THAT(namesIn(model),
              ElementsAre("config.json", "generation_config.json", "model-00001-of-00002.safetensors",
                          "model-00002-of-00002.safetensors", "model.safetensors.index.json",
                          "special_tokens_map.json", "tokenizer.model", "tokenizer_config.json"));
}

TEST(Sample, FillsEveryShardWhenThereAreAsManyAsTensors) {
  const TempDir dir;
  const std::string model = sampleAt(dir / "m", {"--size", "60K", "--shards", "21"});
  for (const std::string& name : namesIn(model)) {
    if (name.find(".safetensors") == std::string::npos || name.find("index") != std::string::npos) continue;
    EXPECT_GT(fs::file_size(model + "/" + name), 100U) << name;
  }
  imported(model);
}

TEST(Sample, ComesCloseToTheSizeThatIsAskedFor) {
  for (const std::uint64_t size : {300000U, 1000000U, 5000000U, 20000000U}) {
    const TempDir dir;
    sample::Options options;
    options.size = size;
    sample::Summary summary;
    std::string error;
    ASSERT_EQ(sample::writeModelDirectory(dir / "m", options, summary, error), sample::Result::Ok) << error;
    EXPECT_THAT(summary.weightBytes, AllOf(Ge(size * 9 / 10), Le(size)));
  }
}

TEST(Sample, HasExactlyTheTensorsThatAreAskedFor) {
  for (const std::uint64_t count : {1U, 2U, 3U, 4U, 12U, 13U, 500U}) {
    const TempDir dir;
    sample::Options options;
    options.tensors = count;
    sample::Summary summary;
    std::string error;
    ASSERT_EQ(sample::writeModelDirectory(dir / "m", options, summary, error), sample::Result::Ok) << error;
    EXPECT_EQ(summary.tensors, count);
    const std::string bytes = imported(dir / "m");
    ContainerView view;
    ASSERT_TRUE(parseContainer(bytes, view));
    EXPECT_EQ(view.tensors.size(), count);
  }
}

TEST(Sample, HasExactlyTheMergesThatAreAskedFor) {
  // 4 special tokens, 94 characters and 700 words: 676 of two letters with one split each, 24 of three with
  // two.
  for (const std::uint64_t merges : {0U, 1U, 700U, 724U}) {
    const TempDir dir;
    const std::string model =
        sampleAt(dir / "m", {"--size", "60K", "--vocab", "798", "--merges", std::to_string(merges)});
    const std::string bytes = imported(model);
    ContainerView view;
    ASSERT_TRUE(parseContainer(bytes, view));
    EXPECT_EQ(view.tokenizer.merges.size(), merges);
  }
}

struct Refusal {
  const char* name;
  std::vector<std::string> options;
  const char* message;
};

class SampleRefusal : public testing::TestWithParam<Refusal> {};

INSTANTIATE_TEST_SUITE_P(
    Options, SampleRefusal,
    testing::Values(
        Refusal{"TooManyMerges",
                {"--vocab", "798", "--merges", "725"},
                "a vocabulary of 798 tokens has at most 724 merges"},
        Refusal{"NoShards", {"--shards", "0"}, "there must be at least one shard"},
        Refusal{"MoreShardsThanTensors", {"--shards", "22"}, "21 tensors do not fill 22 shards"},
        Refusal{"PyTorchShards",
                {"--format", "pytorch", "--shards", "2"},
                "a PyTorch checkpoint is one file: it cannot have shards"},
        Refusal{"PyTorchTensors",
                {"--format", "pytorch", "--tensors", "65534"},
                "a PyTorch checkpoint holds at most 65533 tensors"},
        Refusal{"PyTorchSize",
                {"--format", "pytorch", "--size", "5G"},
                "a PyTorch checkpoint must stay below 4 GiB: larger zip files are not read"},
        Refusal{"SmallVocab", {"--vocab", "3"}, "the vocabulary must have 4 to 10000000 tokens"},
        Refusal{"HugeSize", {"--size", "17592186044417"}, "a sample has at most 16 TiB of weights"},
        Refusal{"TooManyTensors", {"--tensors", "10000001"}, "a sample has at most 10000000 tensors"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_P(SampleRefusal, IsWrongUsageAndWritesNothing) {
  const TempDir dir;
  std::vector<std::string> line = {"sample", dir / "m"};
  line.insert(line.end(), GetParam().options.begin(), GetParam().options.end());
  const CommandResult result = okv2Run(line);
  EXPECT_EQ(result.exitCode, 64);
  EXPECT_EQ(result.err, std::string("okv2: ") + GetParam().message + "\n");
  EXPECT_FALSE(fs::exists(dir / "m"));
}

TEST(Sample, HasRoomForTheMostTensorsThatAZipFileHolds) {
  const TempDir dir;
  const std::string model = sampleAt(dir / "m", {"--format", "pytorch", "--tensors", "65533"});
  // The total entry count lies 10 bytes into the end record, which is the last 22 bytes.
  const std::string bytes = readWholeFile(model + "/pytorch_model.bin");
  EXPECT_EQ(bytes.substr(bytes.size() - 12, 2), "\xFF\xFF");
}

TEST(Sample, RefusesADirectoryThatHoldsAnything) {
  const TempDir dir;
  dir.write("m/config.json", "precious");
  const CommandResult result = okv2Run({"sample", dir / "m"});
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(result.err, "okv2: " + dir / "m" + " is not empty; a sample needs a directory of its own\n");
  EXPECT_THAT(namesIn(dir / "m"), ElementsAre("config.json"));
}

TEST(Sample, TakesAnEmptyDirectoryAndCreatesParents) {
  const TempDir dir;
  fs::create_directory(dir / "m");
  sampleAt(dir / "m", {"--size", "60K"});
  sampleAt(dir / "a/b/c", {"--size", "60K"});
}

TEST(Sample, SaysWhyItCannotCreateTheDirectory) {
  const TempDir dir;
  const CommandResult result = okv2Run({"sample", dir.write("file", "x") + "/m"});
  EXPECT_EQ(result.exitCode, 6);
  EXPECT_EQ(result.err, "okv2: cannot create the directory " + dir / "file/m" + ": Not a directory\n");
}

// Python's zip reader checks what the plug-in does not: every checksum and every local header.
TEST(Sample, WritesArchivesThatPythonFindsNoFaultWith) {
  if (!fs::exists("/usr/bin/python3")) GTEST_SKIP() << "needs /usr/bin/python3";
  const TempDir dir;
  const std::string model = sampleAt(dir / "m", {"--format", "pytorch", "--size", "200K"});
  const CommandResult result =
      test::runCommand({"/usr/bin/python3", "-m", "zipfile", "-t", model + "/pytorch_model.bin"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "Done testing\n");
}

}  // namespace
}  // namespace zel::tool
