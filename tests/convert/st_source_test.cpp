#include "convert/st_source.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <sys/stat.h>

#include "support/safetensors_builder.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel::test {
namespace {

using testing::ElementsAre;

std::string bytesOf(const WeightTensor& tensor) {
  return {static_cast<const char*>(tensor.data), static_cast<std::size_t>(tensor.nbytes)};
}

// A record whose fields a source must leave alone when it answers false.
WeightTensor markedRecord() {
  WeightTensor out;
  out.name = "before";
  out.dtype = DType::Q6_K;
  out.ndim = 4;
  for (std::uint64_t k = 0; k < 4; ++k)
    out.dims[k] = 91 + k;
  out.data = &kBlockGeometry;
  out.nbytes = 77;
  return out;
}

void expectMarked(const WeightTensor& record) {
  EXPECT_EQ(record.name, "before");
  EXPECT_EQ(record.dtype, DType::Q6_K);
  EXPECT_EQ(record.ndim, 4u);
  EXPECT_THAT(record.dims, ElementsAre(91u, 92u, 93u, 94u));
  EXPECT_EQ(record.data, static_cast<const void*>(&kBlockGeometry));
  EXPECT_EQ(record.nbytes, 77u);
}

TEST(StSource, IsEmptyBeforeTheFirstOpen) {
  const StSource source;
  WeightTensor out = markedRecord();
  EXPECT_EQ(source.count(), 0u);
  EXPECT_FALSE(source.tensorAt(0, out));
  expectMarked(out);
  EXPECT_EQ(source.nameAt(0), nullptr);
  EXPECT_EQ(source.fileId(), FileId{});
}

TEST(StSource, DescribesEveryTensorInNameOrder) {
  const TempDir dir;
  const std::string path = dir.write(
      "f", SafetensorsBuilder().tensor("b", "Q4_K", {256, 2}).tensor("a", "BF16", {1, 2, 3, 4}).bytes());
  StSource source;
  ASSERT_THAT(source.open(path.c_str()), IsOk());
  ASSERT_EQ(source.count(), 2u);
  ASSERT_NE(source.nameAt(0), nullptr);
  EXPECT_EQ(*source.nameAt(0), "a");
  EXPECT_EQ(*source.nameAt(1), "b");

  WeightTensor out;
  ASSERT_TRUE(source.tensorAt(0, out));
  EXPECT_EQ(out.name, "a");
  EXPECT_EQ(out.dtype, DType::BF16);
  EXPECT_EQ(out.ndim, 4u);
  EXPECT_THAT(out.dims, ElementsAre(1u, 2u, 3u, 4u));
  EXPECT_EQ(out.nbytes, 48u);
  EXPECT_EQ(bytesOf(out), patternBytes(48, 1));

  ASSERT_TRUE(source.tensorAt(1, out));
  EXPECT_EQ(out.name, "b");
  EXPECT_EQ(out.dtype, DType::Q4_K);
  EXPECT_EQ(out.ndim, 2u);
  EXPECT_EQ(bytesOf(out), patternBytes(288, 0));
}

TEST(StSource, KeepsTheExtentsOfAReusedRecordThatATensorDoesNotHave) {
  const TempDir dir;
  StSource source;
  ASSERT_THAT(source.open(dir.write("f", SafetensorsBuilder().tensor("a", "F32", {5, 6}).bytes()).c_str()),
              IsOk());
  WeightTensor out = markedRecord();
  ASSERT_TRUE(source.tensorAt(0, out));
  EXPECT_THAT(out.dims, ElementsAre(5u, 6u, 93u, 94u));
}

TEST(StSource, WritesNoExtentsForAScalar) {
  const TempDir dir;
  StSource source;
  ASSERT_THAT(source.open(dir.write("f", SafetensorsBuilder().tensor("a", "F32", {}).bytes()).c_str()),
              IsOk());
  WeightTensor out = markedRecord();
  ASSERT_TRUE(source.tensorAt(0, out));
  EXPECT_EQ(out.ndim, 0u);
  EXPECT_THAT(out.dims, ElementsAre(91u, 92u, 93u, 94u));
  EXPECT_EQ(out.nbytes, 4u);
}

TEST(StSource, LeavesTheRecordAloneForAnIndexOutOfRange) {
  const TempDir dir;
  StSource source;
  ASSERT_THAT(source.open(dir.write("f", SafetensorsBuilder().tensor("a", "F32", {1}).bytes()).c_str()),
              IsOk());
  for (const std::size_t index : {std::size_t{1}, std::size_t{2}, ~std::size_t{0}}) {
    WeightTensor out = markedRecord();
    EXPECT_FALSE(source.tensorAt(index, out));
    expectMarked(out);
    EXPECT_EQ(source.nameAt(index), nullptr);
  }
}

TEST(StSource, AcceptsATensorThatEndsWithTheDataRegion) {
  const TempDir dir;
  const std::string path =
      dir.write("f", SafetensorsBuilder().tensor("a", "F32", {2}, {8, 16}).dataBytes(16).bytes());
  StSource source;
  ASSERT_THAT(source.open(path.c_str()), IsOk());
  WeightTensor out;
  EXPECT_TRUE(source.tensorAt(0, out));
}

TEST(StSource, PassesTheReadersFailureOnAndHoldsNoTensorsAfterIt) {
  const TempDir dir;
  const std::string path =
      dir.write("f", SafetensorsBuilder().tensor("a", "F32", {2}, {8, 16}).dataBytes(15).bytes());
  StSource source;
  EXPECT_THAT(source.open(path.c_str()), StatusIs(Code::Corrupted, "safetensors: offset out of range 'a'"));
  WeightTensor out = markedRecord();
  EXPECT_EQ(source.count(), 0u);
  EXPECT_FALSE(source.tensorAt(0, out));
  expectMarked(out);
  EXPECT_EQ(source.nameAt(0), nullptr);
  EXPECT_EQ(source.fileId(), FileId{});
}

TEST(StSource, RefusesANullPath) {
  StSource source;
  EXPECT_THAT(source.open(nullptr), StatusIs(Code::InvalidFormat, "safetensors: null path"));
  EXPECT_EQ(source.count(), 0u);
}

TEST(StSource, ShowsTheSecondFileAfterASecondOpen) {
  const TempDir dir;
  const std::string first = dir.write("first", SafetensorsBuilder().tensor("a", "F32", {1}).bytes());
  const std::string second =
      dir.write("second", SafetensorsBuilder().tensor("b", "F32", {1}).tensor("c", "F32", {1}).bytes());
  StSource source;
  ASSERT_THAT(source.open(first.c_str()), IsOk());
  ASSERT_THAT(source.open(second.c_str()), IsOk());
  ASSERT_EQ(source.count(), 2u);
  EXPECT_EQ(*source.nameAt(0), "b");
}

TEST(StSource, HoldsNothingAfterAFailedSecondOpen) {
  const TempDir dir;
  const std::string first = dir.write("first", SafetensorsBuilder().tensor("a", "F32", {1}).bytes());
  StSource source;
  ASSERT_THAT(source.open(first.c_str()), IsOk());
  EXPECT_THAT(source.open((dir / "missing").c_str()), StatusIs(Code::IOError, "safetensors: open failed"));
  EXPECT_EQ(source.count(), 0u);
}

TEST(StSource, TellsTheIdentityOfItsFile) {
  const TempDir dir;
  const std::string path = dir.write("f", SafetensorsBuilder().tensor("a", "F32", {1}).bytes());
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  StSource source;
  ASSERT_THAT(source.open(path.c_str()), IsOk());
  EXPECT_EQ(source.fileId(), (FileId{info.st_dev, info.st_ino}));
}

TEST(StSource, LeavesItsMappingReadableAfterItsDestruction) {
  const TempDir dir;
  const std::string path = dir.write("f", SafetensorsBuilder().tensor("a", "F32", {1000}).bytes());
  WeightTensor out;
  {
    StSource source;
    ASSERT_THAT(source.open(path.c_str()), IsOk());
    ASSERT_TRUE(source.tensorAt(0, out));
  }
  EXPECT_EQ(bytesOf(out), patternBytes(4000, 0));
}

TEST(StSource, LeavesItsMappingReadableWhenDeletedThroughItsBase) {
  const TempDir dir;
  const std::string path = dir.write("f", SafetensorsBuilder().tensor("a", "F32", {1000}).bytes());
  auto owned = std::make_unique<StSource>();
  ASSERT_THAT(owned->open(path.c_str()), IsOk());
  std::unique_ptr<WeightSource> source = std::move(owned);
  WeightTensor out;
  ASSERT_TRUE(source->tensorAt(0, out));
  source.reset();
  EXPECT_EQ(bytesOf(out), patternBytes(4000, 0));
}

}  // namespace
}  // namespace zel::test
