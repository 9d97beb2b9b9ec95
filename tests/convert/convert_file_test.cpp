// convertSafetensorsFile: one weight file into one container.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <sys/stat.h>

#include "convert/container_view.h"
#include "convert/convert_weights.h"
#include "support/safetensors_builder.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel::test {
namespace {

using testing::ElementsAre;

TEST(ConvertFile, WritesTensorsOneMetadataItemAndNothingElse) {
  const TempDir dir;
  const std::string source = dir.write("in", SafetensorsBuilder()
                                                 .tensor("lm_head.weight", "F16", {2, 3})
                                                 .tensor("model.layers.1.ln_2.weight", "F32", {2})
                                                 .tensor("transformer.h.0.attn.c_attn.bias", "BF16", {6})
                                                 .bytes());
  WeightStats stats;
  ASSERT_THAT(convertSafetensorsFile(source, dir / "out", &stats), IsOk());
  EXPECT_EQ(stats.tensors, 5u);
  EXPECT_EQ(stats.bytes, 12u + 8u + 12u);

  const ContainerView container(readWholeFile(dir / "out"));
  EXPECT_EQ(container.archId, 0u);
  EXPECT_EQ(container.hiddenSize, 0u);
  EXPECT_EQ(container.numLayers, 0u);
  EXPECT_EQ(container.vocabSize, 0u);
  ASSERT_EQ(container.metadata.size(), 1u);
  EXPECT_EQ(container.metadata[0].key, "general.architecture");
  EXPECT_EQ(container.metadata[0].type, 4u);
  EXPECT_EQ(container.metadata[0].text, "generic");
  EXPECT_TRUE(container.tokens.empty());
  EXPECT_THAT(container.specialIds, ElementsAre(-1, -1, -1, -1));
  EXPECT_EQ(container.addBos, 1u);
  EXPECT_EQ(container.chatTemplate, "");

  ASSERT_THAT(container.tensorNames(),
              ElementsAre("blk.0.attn_k.bias", "blk.0.attn_q.bias", "blk.0.attn_v.bias",
                          "blk.1.ffn_norm.weight", "output.weight"));
  const std::string bias = patternBytes(12, 2);
  EXPECT_EQ(container.tensors[0].data, bias.substr(4, 4));
  EXPECT_EQ(container.tensors[1].data, bias.substr(0, 4));
  EXPECT_EQ(container.tensors[2].data, bias.substr(8, 4));
  EXPECT_EQ(container.tensors[3].data, patternBytes(8, 1));
  EXPECT_EQ(container.tensors[4].data, patternBytes(12, 0));
}

TEST(ConvertFile, WorksWithoutCounters) {
  const TempDir dir;
  const std::string source = dir.write("in", SafetensorsBuilder().tensor("w", "F32", {1}).bytes());
  EXPECT_THAT(convertSafetensorsFile(source, dir / "out", nullptr), IsOk());
  EXPECT_THAT(ContainerView(readWholeFile(dir / "out")).tensorNames(), ElementsAre("w"));
}

TEST(ConvertFile, GivesEqualBytesForEqualInput) {
  const TempDir dir;
  const std::string source = dir.write(
      "in",
      SafetensorsBuilder().tensor("w", "F32", {1}).tensor("w", "F32", {2}).tensor("w", "F16", {1}).bytes());
  ASSERT_THAT(convertSafetensorsFile(source, dir / "first", nullptr), IsOk());
  ASSERT_THAT(convertSafetensorsFile(source, dir / "second", nullptr), IsOk());
  EXPECT_EQ(readWholeFile(dir / "first"), readWholeFile(dir / "second"));
}

TEST(ConvertFile, ReplacesAnExistingDestination) {
  const TempDir dir;
  const std::string source = dir.write("in", SafetensorsBuilder().tensor("w", "F32", {1}).bytes());
  const std::string destination = dir.write("out", std::string(100000, 'x'));
  ASSERT_THAT(convertSafetensorsFile(source, destination, nullptr), IsOk());
  EXPECT_THAT(ContainerView(readWholeFile(destination)).tensorNames(), ElementsAre("w"));
}

// ---- failures, none of which touches the destination

class ConvertFileFailure : public testing::Test {
 protected:
  void expectFailure(const std::string& source, Code code, const std::string& message) {
    const std::string destination = dir_.write("out", "as it was");
    EXPECT_THAT(convertSafetensorsFile(source, destination, nullptr), StatusIs(code, message));
    EXPECT_EQ(readWholeFile(destination), "as it was");
  }

  TempDir dir_;
};

TEST_F(ConvertFileFailure, OfAMissingSource) {
  expectFailure(dir_ / "missing", Code::IOError, "safetensors: open failed");
}

TEST_F(ConvertFileFailure, OfABadSource) {
  expectFailure(dir_.write("in", "short"), Code::Corrupted, "safetensors: file too small");
}

TEST_F(ConvertFileFailure, OfASourceWithoutTensors) {
  expectFailure(dir_.write("in", SafetensorsBuilder().bytes()), Code::InvalidFormat,
                "OKV2: no tensors to write");
}

TEST_F(ConvertFileFailure, OfAScalar) {
  expectFailure(dir_.write("in", SafetensorsBuilder().tensor("a", "F32", {1}).tensor("s", "F32", {}).bytes()),
                Code::InvalidFormat, "OKV2: bad tensor memory source");
}

TEST_F(ConvertFileFailure, OfAnEmptyTensor) {
  expectFailure(dir_.write("in", SafetensorsBuilder().tensor("e", "F32", {0}).dataBytes(4).bytes()),
                Code::InvalidFormat, "OKV2: bad tensor memory source");
}

// With no data at all, an empty tensor's address may lie just behind the mapping: it is still the writer's
// refusal that is reported.
TEST_F(ConvertFileFailure, OfAnEmptyTensorAtTheEndOfTheFile) {
  expectFailure(dir_.write("in", SafetensorsBuilder().tensor("e", "F32", {0}).bytes()), Code::InvalidFormat,
                "OKV2: bad tensor memory source");
}

TEST_F(ConvertFileFailure, OfATensorWithoutAName) {
  expectFailure(dir_.write("in", SafetensorsBuilder().tensor("", "F32", {1}).bytes()), Code::InvalidFormat,
                "convert: cannot map tensor ''");
}

TEST(ConvertFile, ReportsADestinationThatCannotBeCreated) {
  const TempDir dir;
  const std::string source = dir.write("in", SafetensorsBuilder().tensor("w", "F32", {1}).bytes());
  EXPECT_THAT(convertSafetensorsFile(source, dir / "no/such/folder", nullptr),
              StatusIs(Code::InvalidFormat, "OKV2: cannot open output file"));
}

// ---- a destination that is the source: its mapping would be written from itself

class ConvertFileOntoItself : public testing::Test {
 protected:
  void expectRefusal(const std::string& destination) {
    EXPECT_THAT(convertSafetensorsFile(source_, destination, nullptr),
                StatusIs(Code::InvalidFormat, "OKV2: cannot open output file"));
    EXPECT_EQ(readWholeFile(source_), content_);
  }

  TempDir dir_;
  std::string content_ = SafetensorsBuilder().tensor("w", "F32", {100}).bytes();
  std::string source_ = dir_.write("in.safetensors", content_);
};

TEST_F(ConvertFileOntoItself, IsRefusedByThePath) { expectRefusal(source_); }

TEST_F(ConvertFileOntoItself, IsRefusedByAnotherSpellingOfThePath) {
  expectRefusal(dir_ / "./in.safetensors");
}

TEST_F(ConvertFileOntoItself, IsRefusedThroughASymbolicLink) {
  std::filesystem::create_symlink(source_, dir_ / "soft");
  expectRefusal(dir_ / "soft");
}

TEST_F(ConvertFileOntoItself, IsRefusedThroughAHardLink) {
  std::filesystem::create_hard_link(source_, dir_ / "hard");
  expectRefusal(dir_ / "hard");
}

TEST_F(ConvertFileOntoItself, IsRefusedWhenTheSourceIsTheLink) {
  std::filesystem::create_symlink(source_, dir_ / "soft");
  EXPECT_THAT(convertSafetensorsFile(dir_ / "soft", source_, nullptr),
              StatusIs(Code::InvalidFormat, "OKV2: cannot open output file"));
  EXPECT_EQ(readWholeFile(source_), content_);
}

TEST_F(ConvertFileOntoItself, IsNotConfusedWithAnEqualCopy) {
  const std::string copy = dir_.write("copy", content_);
  EXPECT_THAT(convertSafetensorsFile(source_, copy, nullptr), IsOk());
  EXPECT_EQ(readWholeFile(source_), content_);
}

}  // namespace
}  // namespace zel::test
