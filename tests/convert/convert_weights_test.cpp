// convertWeights: single tensors, failures and counters. Fused tensors: fused_split_test.cpp.
#include "convert/convert_weights.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "convert/container_view.h"
#include "convert/fake_source.h"
#include "support/safetensors_builder.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel::test {
namespace {

using testing::ElementsAre;

ContainerView written(const OKV2Writer& writer) {
  const TempDir dir;
  EXPECT_THAT(writer.write((dir / "out").c_str()), IsOk());
  return ContainerView(readWholeFile(dir / "out"));
}

TEST(ConvertWeights, AddsATensorUnderItsContainerName) {
  FakeSource source;
  source.add("model.norm.weight", DType::F16, {2, 3}, patternBytes(12));
  OKV2Writer writer;
  ASSERT_THAT(convertWeights(source, "llama", writer, nullptr), IsOk());
  const ContainerView container = written(writer);
  ASSERT_THAT(container.tensorNames(), ElementsAre("output_norm.weight"));
  EXPECT_EQ(container.tensors[0].dtype, 1u);
  EXPECT_THAT(container.tensors[0].dims, ElementsAre(2u, 3u));
  EXPECT_EQ(container.tensors[0].data, patternBytes(12));
}

TEST(ConvertWeights, PassesTheArchitectureToTheNameMapping) {
  for (const auto& [arch, expected] : {std::pair<const char*, const char*>{"llama", "blk.0.ffn_norm.weight"},
                                       {"gemma2", "blk.0.post_attention_norm.weight"}}) {
    FakeSource source;
    source.add("model.layers.0.ln_2.weight", DType::F32, {1}, patternBytes(4));
    OKV2Writer writer;
    ASSERT_THAT(convertWeights(source, arch, writer, nullptr), IsOk());
    EXPECT_THAT(written(writer).tensorNames(), ElementsAre(expected));
  }
}

// Element types 3, 4, 8 and unknown ones keep their bytes but are declared as 0, on purpose.
TEST(ConvertWeights, DeclaresEveryElementTypeByItsTableRow) {
  constexpr std::pair<unsigned, unsigned> kRows[] = {{0, 0}, {1, 1}, {2, 2}, {3, 0}, {4, 0},   {5, 5},
                                                     {6, 6}, {7, 7}, {8, 0}, {9, 0}, {255, 0}, {65535, 0}};
  for (const auto& [source, code] : kRows) {
    FakeSource fake;
    fake.add("w", DType(source), {5}, patternBytes(23));
    OKV2Writer writer;
    ASSERT_THAT(convertWeights(fake, "llama", writer, nullptr), IsOk()) << source;
    const ContainerView container = written(writer);
    ASSERT_EQ(container.tensors.size(), 1u);
    EXPECT_EQ(container.tensors[0].dtype, code) << source;
    EXPECT_EQ(container.tensors[0].data, patternBytes(23)) << source;
  }
}

TEST(ConvertWeights, AddsNothingForASourceWithoutTensors) {
  FakeSource source;
  OKV2Writer writer;
  WeightStats stats;
  EXPECT_THAT(convertWeights(source, "llama", writer, &stats), IsOk());
  EXPECT_EQ(stats.tensors, 0u);
  EXPECT_EQ(stats.bytes, 0u);
  const TempDir dir;
  EXPECT_THAT(writer.write((dir / "out").c_str()),
              StatusIs(Code::InvalidFormat, "OKV2: no tensors to write"));
}

TEST(ConvertWeights, CountsTensorsAndBytesOnTopOfWhatIsThere) {
  FakeSource source;
  source.add("a", DType::F32, {1}, patternBytes(4)).add("b", DType::F32, {25}, patternBytes(100));
  OKV2Writer writer;
  WeightStats stats{10, 1000};
  ASSERT_THAT(convertWeights(source, "llama", writer, &stats), IsOk());
  EXPECT_EQ(stats.tensors, 12u);
  EXPECT_EQ(stats.bytes, 1104u);
}

TEST(ConvertWeights, WorksWithoutCounters) {
  FakeSource source;
  source.add("a", DType::F32, {1}, patternBytes(4))
      .add("transformer.h.0.attn.c_attn.weight", DType::F32, {3}, patternBytes(12));
  OKV2Writer writer;
  EXPECT_THAT(convertWeights(source, "gpt2", writer, nullptr), IsOk());
  EXPECT_EQ(written(writer).tensors.size(), 4u);
}

TEST(ConvertWeights, KeepsTwoTensorsOfOneNameInSourceOrder) {
  FakeSource source;
  source.add("w", DType::F32, {1}, patternBytes(4, 1)).add("w", DType::F32, {1}, patternBytes(4, 2));
  OKV2Writer writer;
  ASSERT_THAT(convertWeights(source, "llama", writer, nullptr), IsOk());
  const ContainerView container = written(writer);
  ASSERT_THAT(container.tensorNames(), ElementsAre("w", "w"));
  EXPECT_EQ(container.tensors[0].data, patternBytes(4, 1));
  EXPECT_EQ(container.tensors[1].data, patternBytes(4, 2));
}

TEST(ConvertWeights, CutsANameAtItsFirstNulByte) {
  FakeSource source;
  source.add(std::string("a\0b", 3), DType::F32, {1}, patternBytes(4));
  OKV2Writer writer;
  ASSERT_THAT(convertWeights(source, "llama", writer, nullptr), IsOk());
  const ContainerView container = written(writer);
  ASSERT_THAT(container.tensorNames(), ElementsAre("a"));
  EXPECT_EQ(container.tensors[0].fullNameLength, 1u);
}

TEST(ConvertWeights, GivesANameThatBeginsWithANulByteAsTheEmptyName) {
  FakeSource source;
  source.add(std::string("\0b", 2), DType::F32, {1}, patternBytes(4));
  OKV2Writer writer;
  ASSERT_THAT(convertWeights(source, "llama", writer, nullptr), IsOk());
  EXPECT_THAT(written(writer).tensorNames(), ElementsAre(""));
}

TEST(ConvertWeights, CutsALongNameToItsFieldAndKeepsItsLength) {
  FakeSource source;
  source.add(std::string(70, 'n'), DType::F32, {1}, patternBytes(4));
  OKV2Writer writer;
  ASSERT_THAT(convertWeights(source, "llama", writer, nullptr), IsOk());
  const ContainerView container = written(writer);
  EXPECT_THAT(container.tensorNames(), ElementsAre(std::string(63, 'n')));
  EXPECT_EQ(container.tensors[0].fullNameLength, 70u);
}

// ---- failures

TEST(ConvertWeightsFailure, ReportsATensorThatTheSourceCannotGive) {
  FakeSource source;
  source.add("w", DType::F32, {1}, patternBytes(4)).unreadable();
  OKV2Writer writer;
  EXPECT_THAT(convertWeights(source, "llama", writer, nullptr),
              StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

TEST(ConvertWeightsFailure, ReportsATensorWithoutData) {
  FakeSource source;
  source.add("w", DType::F32, {1}, patternBytes(4)).last().data = nullptr;
  OKV2Writer writer;
  EXPECT_THAT(convertWeights(source, "llama", writer, nullptr),
              StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

TEST(ConvertWeightsFailure, ReportsAFusedTensorWithoutData) {
  FakeSource source;
  source.add("model.layers.0.attn.c_attn.weight", DType::F32, {3}, patternBytes(12)).last().data = nullptr;
  OKV2Writer writer;
  EXPECT_THAT(convertWeights(source, "llama", writer, nullptr),
              StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

TEST(ConvertWeightsFailure, ReportsAnEmptyName) {
  FakeSource source;
  source.add("", DType::F32, {1}, patternBytes(4));
  OKV2Writer writer;
  EXPECT_THAT(convertWeights(source, "llama", writer, nullptr),
              StatusIs(Code::InvalidFormat, "convert: cannot map tensor ''"));
}

TEST(ConvertWeightsFailure, LooksAtTheDataBeforeTheName) {
  FakeSource source;
  source.add("", DType::F32, {1}, patternBytes(4)).unreadable();
  OKV2Writer writer;
  EXPECT_THAT(convertWeights(source, "llama", writer, nullptr),
              StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

TEST(ConvertWeightsFailure, LeavesTheRefusalOfAScalarToTheWriter) {
  FakeSource source;
  source.add("w", DType::F32, {}, patternBytes(4));
  OKV2Writer writer;
  EXPECT_THAT(convertWeights(source, "llama", writer, nullptr),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor memory source"));
}

TEST(ConvertWeightsFailure, LeavesTheRefusalOfAnEmptyTensorToTheWriter) {
  FakeSource source;
  source.add("w", DType::F32, {1, 0}, patternBytes(4)).last().nbytes = 0;
  OKV2Writer writer;
  EXPECT_THAT(convertWeights(source, "llama", writer, nullptr),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor memory source"));
}

TEST(ConvertWeightsFailure, LeavesTheRefusalOfFiveExtentsToTheWriter) {
  FakeSource source;
  source.add("w", DType::F32, {1, 1, 1, 1, 1}, patternBytes(4));
  OKV2Writer writer;
  EXPECT_THAT(convertWeights(source, "llama", writer, nullptr),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor memory source"));
}

TEST(ConvertWeightsFailure, KeepsWhatWasAddedAndCountedBeforeIt) {
  FakeSource source;
  source.add("a", DType::F32, {2}, patternBytes(8))
      .add("", DType::F32, {1}, patternBytes(4))
      .add("c", DType::F32, {1}, patternBytes(4));
  OKV2Writer writer;
  WeightStats stats;
  ASSERT_THAT(convertWeights(source, "llama", writer, &stats),
              StatusIs(Code::InvalidFormat, "convert: cannot map tensor ''"));
  EXPECT_EQ(stats.tensors, 1u);
  EXPECT_EQ(stats.bytes, 8u);
  EXPECT_THAT(written(writer).tensorNames(), ElementsAre("a"));
}

TEST(ConvertWeightsFailure, DoesNotCountATensorThatTheWriterRefuses) {
  FakeSource source;
  source.add("w", DType::F32, {}, patternBytes(4));
  OKV2Writer writer;
  WeightStats stats;
  ASSERT_THAT(convertWeights(source, "llama", writer, &stats),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor memory source"));
  EXPECT_EQ(stats.tensors, 0u);
  EXPECT_EQ(stats.bytes, 0u);
}

}  // namespace
}  // namespace zel::test
