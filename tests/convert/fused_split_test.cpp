// convertWeights on fused projections: how query, key and value are cut out of one tensor.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "convert/container_view.h"
#include "convert/convert_weights.h"
#include "convert/fake_source.h"
#include "support/safetensors_builder.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel::test {
namespace {

using testing::ElementsAre;

constexpr const char* kFused = "transformer.h.5.attn.c_attn.weight";

struct SplitCase {
  const char* name;
  unsigned dtype;
  std::vector<std::uint64_t> dims;
  std::size_t tensorBytes;
  std::vector<std::uint64_t> sliceDims;
  std::size_t sliceBytes;
  std::size_t offsets[3];
  unsigned code;
};

class FusedSplit : public testing::TestWithParam<SplitCase> {};

TEST_P(FusedSplit, CutsThreeRowBlocks) {
  const SplitCase& param = GetParam();
  const std::string bytes = patternBytes(param.tensorBytes);
  FakeSource source;
  source.add(kFused, DType(param.dtype), param.dims, bytes);
  OKV2Writer writer;
  WeightStats stats;
  ASSERT_THAT(convertWeights(source, "gpt2", writer, &stats), IsOk());
  EXPECT_EQ(stats.tensors, 3u);
  EXPECT_EQ(stats.bytes, 3 * param.sliceBytes);

  const TempDir dir;
  ASSERT_THAT(writer.write((dir / "out").c_str()), IsOk());
  const ContainerView container(readWholeFile(dir / "out"));
  ASSERT_THAT(container.tensorNames(),
              ElementsAre("blk.5.attn_k.weight", "blk.5.attn_q.weight", "blk.5.attn_v.weight"));
  const char* const inSliceOrder[] = {"blk.5.attn_q.weight", "blk.5.attn_k.weight", "blk.5.attn_v.weight"};
  for (std::size_t k = 0; k < 3; ++k) {
    const ContainerView::Tensor& slice = *container.tensor(inSliceOrder[k]);
    EXPECT_EQ(slice.dtype, param.code);
    EXPECT_EQ(slice.dims, param.sliceDims);
    EXPECT_EQ(slice.data, bytes.substr(param.offsets[k], param.sliceBytes)) << slice.name;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FusedSplit,
    testing::Values(SplitCase{"F32", 0, {6, 4}, 96, {2, 4}, 32, {0, 32, 64}, 0},
                    SplitCase{"F16", 1, {6, 4}, 48, {2, 4}, 16, {0, 16, 32}, 1},
                    SplitCase{"BF16", 2, {6, 4}, 48, {2, 4}, 16, {0, 16, 32}, 2},
                    SplitCase{"OneDimensionalBias", 0, {6}, 24, {2}, 8, {0, 8, 16}, 0},
                    SplitCase{"OneRowEach", 1, {3, 5}, 30, {1, 5}, 10, {0, 10, 20}, 1},
                    SplitCase{"OneRemainderRowIsDropped", 0, {7, 2}, 56, {2, 2}, 16, {0, 16, 32}, 0},
                    SplitCase{"TwoRemainderRowsAreDropped", 0, {8, 2}, 64, {2, 2}, 16, {0, 16, 32}, 0},
                    // A third or fourth extent is declared but not multiplied in.
                    SplitCase{"ThirdExtentDoesNotCount", 0, {6, 4, 5}, 480, {2, 4, 5}, 32, {0, 32, 64}, 0},
                    SplitCase{
                        "FourthExtentDoesNotCount", 1, {3, 2, 9, 7}, 756, {1, 2, 9, 7}, 4, {0, 4, 8}, 1},
                    SplitCase{"Q4KWholeBlocks", 5, {768, 3}, 1296, {256, 3}, 432, {0, 432, 864}, 5},
                    SplitCase{"Q5KWholeBlocks", 6, {768, 3}, 1584, {256, 3}, 528, {0, 528, 1056}, 6},
                    SplitCase{"Q6KWholeBlocks", 7, {768, 3}, 1890, {256, 3}, 630, {0, 630, 1260}, 7},
                    SplitCase{"Q4KTwoBlocksEach", 5, {1536}, 864, {512}, 288, {0, 288, 576}, 5},
                    // 300 rows each: both divisions by 256 drop their remainder.
                    SplitCase{"Q4KPartialBlocksAreTruncated", 5, {900}, 576, {300}, 144, {0, 144, 288}, 5},
                    // 500 rows each: the starts 500 and 1000 lie in blocks 1 and 3.
                    SplitCase{"Q4KUnevenStarts", 5, {1500}, 864, {500}, 144, {0, 144, 432}, 5},
                    // The other block formats are cut as if they held four-byte elements, on purpose.
                    SplitCase{"Type3", 3, {6, 4}, 96, {2, 4}, 32, {0, 32, 64}, 0},
                    SplitCase{"Type4", 4, {6, 4}, 96, {2, 4}, 32, {0, 32, 64}, 0},
                    SplitCase{"Type8", 8, {6, 4}, 96, {2, 4}, 32, {0, 32, 64}, 0},
                    SplitCase{"UnknownType9", 9, {6, 4}, 96, {2, 4}, 32, {0, 32, 64}, 0},
                    SplitCase{"UnknownType65535", 65535, {6, 4}, 96, {2, 4}, 32, {0, 32, 64}, 0}),
    [](const testing::TestParamInfo<SplitCase>& each) { return std::string(each.param.name); });

// ---- slices that leave their tensor, and tensors that the writer refuses

Status convertFused(DType dtype, const std::vector<std::uint64_t>& dims, std::size_t bytes) {
  FakeSource source;
  source.add(kFused, dtype, dims, patternBytes(bytes));
  OKV2Writer writer;
  return convertWeights(source, "gpt2", writer, nullptr);
}

TEST(FusedSplitRange, TakesALastSliceThatEndsWithTheTensor) {
  EXPECT_THAT(convertFused(DType::F16, {6, 4}, 48), IsOk());
}

TEST(FusedSplitRange, RefusesALastSliceThatEndsOneByteBehindTheTensor) {
  EXPECT_THAT(convertFused(DType::F16, {6, 4}, 47), StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

TEST(FusedSplitRange, RefusesAFirstSliceThatIsLargerThanTheTensor) {
  EXPECT_THAT(convertFused(DType::F16, {6, 4}, 15), StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

TEST(FusedSplitRange, RefusesASliceThatBeginsBehindTheTensor) {
  EXPECT_THAT(convertFused(DType::F16, {6, 4}, 16), StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

TEST(FusedSplitRange, RefusesABlockSliceBehindTheTensor) {
  EXPECT_THAT(convertFused(DType::Q4_K, {768, 3}, 1296), IsOk());
  EXPECT_THAT(convertFused(DType::Q4_K, {768, 3}, 1295),
              StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

TEST(FusedSplitRange, RefusesASizeThatOverflows64Bits) {
  EXPECT_THAT(convertFused(DType::F32, {3ULL << 61, 8}, 64),
              StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

TEST(FusedSplitRange, RefusesASizeThatWouldWrapToOneThatFits) {
  // rows = 2^62 + 1, so that rows * 4 is 4 modulo 2^64.
  EXPECT_THAT(convertFused(DType::F32, {3 * ((1ULL << 62) + 1)}, 64),
              StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

TEST(FusedSplitRange, RefusesABlockSizeThatOverflows) {
  EXPECT_THAT(convertFused(DType::Q6_K, {768, ~0ULL}, 2000),
              StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

// The product of the whole shape is 0, so a file may hold this entry; the slice has no third extent to be 0.
TEST(FusedSplitRange, RefusesAnOverflowBehindAnEmptyThirdExtent) {
  FakeSource source;
  source.add(kFused, DType::F32, {3, 1ULL << 62, 0}, "").last().nbytes = 0;
  OKV2Writer writer;
  EXPECT_THAT(convertWeights(source, "gpt2", writer, nullptr),
              StatusIs(Code::Corrupted, "convert: cannot read tensor"));
}

TEST(FusedSplitRange, LeavesTheRefusalOfAScalarToTheWriter) {
  EXPECT_THAT(convertFused(DType::F32, {}, 4),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor memory source"));
}

TEST(FusedSplitRange, LeavesTheRefusalOfAScalarToTheWriterWhateverItsRecordHolds) {
  FakeSource source;
  source.add(kFused, DType::F32, {}, patternBytes(4));
  source.last().dims[0] = 3ULL << 61;
  OKV2Writer writer;
  EXPECT_THAT(convertWeights(source, "gpt2", writer, nullptr),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor memory source"));
}

TEST(FusedSplitRange, LeavesTheRefusalOfFiveExtentsToTheWriter) {
  EXPECT_THAT(convertFused(DType::F32, {6, 4, 1, 1, 1}, 96),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor memory source"));
}

TEST(FusedSplitRange, LeavesTheRefusalOfFewerRowsThanSlicesToTheWriter) {
  EXPECT_THAT(convertFused(DType::F32, {2, 4}, 32),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor memory source"));
}

TEST(FusedSplitRange, LeavesTheRefusalOfBlockSlicesBelowOneBlockToTheWriter) {
  // 255 rows each are no whole block of 256.
  EXPECT_THAT(convertFused(DType::Q4_K, {765}, 432),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor memory source"));
}

TEST(FusedSplitRange, LeavesTheRefusalOfZeroColumnsToTheWriter) {
  EXPECT_THAT(convertFused(DType::F32, {6, 0}, 4),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor memory source"));
}

}  // namespace
}  // namespace zel::test
