// Tensor ranges whose arithmetic does not fit 64 bits, and names that a program multiplies.
#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <ostream>
#include <string>
#include <vector>

#include "readers/pytorch_importer.h"
#include "support/pickle_builder.h"
#include "support/status_matchers.h"
#include "support/zip_builder.h"

namespace zel {
namespace {

using test::IsOk;
using test::Op;
using test::PickleBuilder;
using test::PickleTensor;
using test::StatusIs;
using test::ZipBuilder;

std::string checkpoint(const std::string& program) {
  return ZipBuilder().add("data.pkl", program).add("s", std::string(16, 'x')).build();
}

struct WrappingRow {
  const char* name;
  PickleTensor tensor;
  const char* diagnostic;  // the values as they are kept: wrapped to 64 bits
};

void PrintTo(const WrappingRow& row, std::ostream* os) { *os << row.name; }

class PyTorchWrapping : public testing::TestWithParam<WrappingRow> {};

// Each of these would lie inside the 16 bytes of its storage if any sum or product wrapped on its way into
// the comparison.
TEST_P(PyTorchWrapping, NeverMakesATensorFit) {
  const std::string bytes = checkpoint(test::stateDict({GetParam().tensor}));
  PyTorchImporter importer;
  testing::internal::CaptureStderr();
  EXPECT_THAT(importer.openBytes(bytes), StatusIs(Code::Corrupted, "torch: tensor exceeds storage"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), GetParam().diagnostic);
}

constexpr std::uint64_t kTwoTo32 = std::uint64_t(1) << 32;
constexpr std::uint64_t kTwoTo62 = std::uint64_t(1) << 62;
constexpr std::uint64_t kTwoTo63 = std::uint64_t(1) << 63;
constexpr std::uint64_t kMinusOne = ~std::uint64_t(0);

INSTANTIATE_TEST_SUITE_P(
    Rows, PyTorchWrapping,
    testing::Values(
        WrappingRow{"ElementsTimesFour",
                    {"w", {kTwoTo62}, "s"},
                    "  DBG: w numel=4611686018427387904 es=4 bo=0 usize=16\n"},
        WrappingRow{"ElementsTimesTwo",
                    {"w", {kTwoTo63}, "s", "HalfStorage"},
                    "  DBG: w numel=9223372036854775808 es=2 bo=0 usize=16\n"},
        WrappingRow{"BytesPlusOffset",
                    {"w", {1}, "s", "FloatStorage", kTwoTo62 - 1},
                    "  DBG: w numel=1 es=4 bo=18446744073709551612 usize=16\n"},
        WrappingRow{"ANegativeOffset",
                    {"w", {2}, "s", "FloatStorage", kMinusOne},
                    "  DBG: w numel=2 es=4 bo=18446744073709551612 usize=16\n"},
        WrappingRow{"TheOffsetItself",
                    {"w", {1}, "s", "FloatStorage", kTwoTo62},
                    "  DBG: w numel=1 es=4 bo=0 usize=16\n"},
        WrappingRow{"TheOffsetItselfOfHalves",
                    {"w", {1}, "s", "BFloat16Storage", kTwoTo63 + 1},
                    "  DBG: w numel=1 es=2 bo=2 usize=16\n"},
        WrappingRow{"TheOffsetOfAnEmptyTensor",
                    {"w", {0}, "s", "FloatStorage", kTwoTo62},
                    "  DBG: w numel=0 es=4 bo=0 usize=16\n"},
        WrappingRow{"TwoExtents", {"w", {kTwoTo32, kTwoTo32}, "s"}, "  DBG: w numel=0 es=4 bo=0 usize=16\n"},
        // 3 * 0xAAAAAAAAAAAAAAAB = 2^65 + 1
        WrappingRow{
            "TwoExtentsToOne", {"w", {3, 0xAAAAAAAAAAAAAAAB}, "s"}, "  DBG: w numel=1 es=4 bo=0 usize=16\n"},
        WrappingRow{"FourExtents",
                    {"w", {1 << 16, 1 << 16, 1 << 16, 1 << 16}, "s"},
                    "  DBG: w numel=0 es=4 bo=0 usize=16\n"},
        WrappingRow{"TwoNegativeExtents",
                    {"w", {kMinusOne, kMinusOne}, "s"},
                    "  DBG: w numel=1 es=4 bo=0 usize=16\n"},
        WrappingRow{"OneNegativeExtent",
                    {"w", {kMinusOne}, "s"},
                    "  DBG: w numel=18446744073709551615 es=4 bo=0 usize=16\n"}),
    [](const testing::TestParamInfo<WrappingRow>& row) { return row.param.name; });

TEST(PyTorchRanges, AnEmptyTensorIsEmptyWhateverItsOtherExtents) {
  for (const std::vector<std::uint64_t>& shape : {std::vector<std::uint64_t>{0, kTwoTo63, kTwoTo63},
                                                  {kTwoTo63, kTwoTo63, 0},
                                                  {kMinusOne, 0, kMinusOne, 3}}) {
    const std::string bytes = checkpoint(test::stateDict({{"w", shape, "s"}}));
    PyTorchImporter importer;
    ASSERT_THAT(importer.openBytes(bytes), IsOk());
    EXPECT_EQ(importer.tensors()[0].nbytes, 0u);
    EXPECT_EQ(importer.tensors()[0].shape[0], shape[0]);
  }
}

TEST(PyTorchRanges, TheLargestStorageOfAZipIsMeasuredWithoutWrapping) {
  const auto withElements = [](std::uint64_t elements) {
    return ZipBuilder()
        .add("data.pkl", test::stateDict({{"w", {elements}, "s", "HalfStorage", 1}}))
        .add("s", "")
        .lieCentral(test::zip_central::kUncompressedSize, 0xFFFFFFFF)
        .build();
  };
  // 2 * (n + 1) <= 2^32 - 1
  const std::string fits = withElements(0x7FFFFFFE);
  const std::string tooLong = withElements(0x7FFFFFFF);
  PyTorchImporter importer;
  EXPECT_THAT(importer.openBytes(fits), IsOk());
  testing::internal::CaptureStderr();
  EXPECT_THAT(importer.openBytes(tooLong), StatusIs(Code::Corrupted, "torch: tensor exceeds storage"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "  DBG: w numel=2147483647 es=2 bo=2 usize=4294967295\n");
}

// ---- names taken from the memo again and again

constexpr std::size_t kFreeBytes = std::size_t(1) << 24;

// `pairs` tensors under one name and over one storage, each of a few bytes of program.
std::string sharedNames(const std::string& name, const std::string& storage, std::size_t pairs) {
  PickleBuilder program;
  program.binunicode(name).op(Op::MEMOIZE).tensor({"", {1}, storage}).op(Op::MEMOIZE).op(Op::EMPTY_DICT);
  const std::string pair = PickleBuilder().binget(0).binget(1).op(Op::SETITEM).bytes();
  return program.repeat(pairs, pair).stop();
}

std::string sharedNamesCheckpoint(const std::string& name, const std::string& storage, std::size_t pairs) {
  return ZipBuilder().add("data.pkl", sharedNames(name, storage, pairs)).add(storage, "1234").build();
}

TEST(PyTorchNames, MayBeSharedByManyPairs) {
  const std::string bytes = sharedNamesCheckpoint("a name", "s", 100000);
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.tensors().size(), 100000u);
  EXPECT_EQ(importer.tensors().back().name, "a name");
}

TEST(PyTorchNames, CannotMultiplyALongNameBeyondTheProgramAndSixteenMebibytes) {
  // 1 KiB a pair: every pair adds 1024 bytes of names and 5 of program.
  const std::string name(1024, 'n');
  const std::size_t head = sharedNames(name, "s", 0).size();
  std::size_t pairs = 1;
  while (pairs * (1024 + 1) <= head + 5 * pairs + kFreeBytes)
    ++pairs;
  const std::string tooMany = sharedNamesCheckpoint(name, "s", pairs + 64);
  PyTorchImporter importer;
  EXPECT_THROW((void)importer.openBytes(tooMany), std::bad_alloc);
  EXPECT_FALSE(importer.isOpen());
  const std::string fits = sharedNamesCheckpoint(name, "s", pairs - 64);
  ASSERT_THAT(importer.openBytes(fits), IsOk());
  EXPECT_EQ(importer.tensors().size(), pairs - 64);
}

}  // namespace
}  // namespace zel
