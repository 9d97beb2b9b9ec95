// Tensor descriptors: what is refused when they are added, what is stored, and in which order.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "container/bytes.h"
#include "container/dtype.h"
#include "writer_fixture.h"

namespace zel {
namespace {

using test::containerOf;
using test::File;
using test::IsOk;
using test::StatusIs;

constexpr std::uint64_t kDims[] = {1, 2, 3, 4};
constexpr char kByte = 'x';

std::uint64_t sectionOffset(const std::string& file, unsigned type) {
  return loadU64(file.data() + 64 + 24 * (type - 1) + 8);
}
std::uint64_t sectionSize(const std::string& file, unsigned type) {
  return loadU64(file.data() + 64 + 24 * (type - 1) + 16);
}
std::string indexEntry(const std::string& file, std::size_t n) {
  return file.substr(sectionOffset(file, 4) + 128 * n, 128);
}
// The name field up to its first zero byte.
std::string storedName(const std::string& file, std::size_t n) { return indexEntry(file, n).c_str(); }
std::string tensorData(const std::string& file, std::size_t n) {
  const std::string entry = indexEntry(file, n);
  return file.substr(sectionOffset(file, 5) + loadU64(entry.data() + 104), loadU64(entry.data() + 112));
}

// ---- addTensor

TEST(OKV2WriterAddTensor, RefusesANullName) {
  OKV2Writer writer;
  EXPECT_THAT(writer.addTensor(nullptr, 0, kDims, 1, &kByte, 1),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor descriptor"));
}

TEST(OKV2WriterAddTensor, RefusesNullData) {
  OKV2Writer writer;
  EXPECT_THAT(writer.addTensor("w", 0, kDims, 1, nullptr, 1),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor descriptor"));
}

TEST(OKV2WriterAddTensor, RefusesNoDimensionAndFive) {
  OKV2Writer writer;
  EXPECT_THAT(writer.addTensor("w", 0, kDims, 0, &kByte, 1),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor descriptor"));
  EXPECT_THAT(writer.addTensor("w", 0, kDims, 5, &kByte, 1),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor descriptor"));
  EXPECT_THAT(writer.addTensor("w", 0, kDims, 65535, &kByte, 1),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor descriptor"));
}

TEST(OKV2WriterAddTensor, TakesOneToFourDimensions) {
  for (std::uint16_t ndim = 1; ndim <= 4; ++ndim) {
    OKV2Writer writer;
    ASSERT_THAT(writer.addTensor("w", 0, kDims, ndim, &kByte, 1), IsOk()) << ndim;
    const std::string entry = indexEntry(containerOf(writer), 0);
    EXPECT_EQ(loadU16(entry.data() + 68), ndim);
    for (std::uint16_t k = 0; k < 4; ++k) {
      EXPECT_EQ(loadU64(entry.data() + 72 + 8 * k), k < ndim ? k + 1U : 0U) << ndim << " " << k;
    }
  }
}

TEST(OKV2WriterAddTensor, RefusesSizeZeroAndTakesOneByte) {
  OKV2Writer writer;
  EXPECT_THAT(writer.addTensor("w", 0, kDims, 1, &kByte, 0),
              StatusIs(Code::InvalidFormat, "OKV2: bad tensor descriptor"));
  EXPECT_THAT(writer.addTensor("w", 0, kDims, 1, &kByte, 1), IsOk());
}

TEST(OKV2WriterAddTensor, CopiesTheDataAtOnce) {
  OKV2Writer writer;
  std::string data = "before";
  ASSERT_THAT(writer.addTensor("w", 0, kDims, 1, data.data(), data.size()), IsOk());
  data = "after!";
  EXPECT_EQ(tensorData(containerOf(writer), 0), "before");
}

// ---- addTensorFrom

File fileHolding(const std::string& bytes) {
  File file(std::tmpfile());
  std::fwrite(bytes.data(), 1, bytes.size(), file.get());
  return file;
}

TEST(OKV2WriterAddTensorFrom, RefusesWhateverIsMissing) {
  const File file = fileHolding("x");
  OKV2Writer writer;
  const auto refused = StatusIs(Code::InvalidFormat, "OKV2: bad tensor source");
  EXPECT_THAT(writer.addTensorFrom(nullptr, "w", 0, kDims, 1, 0, 1), refused);
  EXPECT_THAT(writer.addTensorFrom(file.get(), nullptr, 0, kDims, 1, 0, 1), refused);
  EXPECT_THAT(writer.addTensorFrom(file.get(), "w", 0, kDims, 0, 0, 1), refused);
  EXPECT_THAT(writer.addTensorFrom(file.get(), "w", 0, kDims, 5, 0, 1), refused);
  EXPECT_THAT(writer.addTensorFrom(file.get(), "w", 0, kDims, 1, 0, 0), refused);
}

TEST(OKV2WriterAddTensorFrom, TakesOneByteAndFourDimensions) {
  const File file = fileHolding("xyz");
  OKV2Writer writer;
  ASSERT_THAT(writer.addTensorFrom(file.get(), "w", 0, kDims, 4, 1, 1), IsOk());
  EXPECT_EQ(tensorData(containerOf(writer), 0), "y");
}

// ---- addTensorFromMem

TEST(OKV2WriterAddTensorFromMem, RefusesWhateverIsMissing) {
  OKV2Writer writer;
  const auto refused = StatusIs(Code::InvalidFormat, "OKV2: bad tensor memory source");
  EXPECT_THAT(writer.addTensorFromMem(nullptr, "w", 0, kDims, 1, 1), refused);
  EXPECT_THAT(writer.addTensorFromMem(&kByte, nullptr, 0, kDims, 1, 1), refused);
  EXPECT_THAT(writer.addTensorFromMem(&kByte, "w", 0, kDims, 0, 1), refused);
  EXPECT_THAT(writer.addTensorFromMem(&kByte, "w", 0, kDims, 5, 1), refused);
  EXPECT_THAT(writer.addTensorFromMem(&kByte, "w", 0, kDims, 1, 0), refused);
}

TEST(OKV2WriterAddTensorFromMem, BorrowsTheDataUntilItIsWritten) {
  OKV2Writer writer;
  std::string data = "before";
  ASSERT_THAT(writer.addTensorFromMem(data.data(), "w", 0, kDims, 4, data.size()), IsOk());
  data = "after!";
  EXPECT_EQ(tensorData(containerOf(writer), 0), "after!");
}

TEST(OKV2WriterTensors, ARefusedTensorIsNotAdded) {
  OKV2Writer writer;
  (void)writer.addTensor("w", 0, kDims, 0, &kByte, 1);
  (void)writer.addTensorFrom(nullptr, "w", 0, kDims, 1, 0, 1);
  (void)writer.addTensorFromMem(nullptr, "w", 0, kDims, 1, 1);
  const test::TempDir dir;
  EXPECT_THAT(writer.write((dir / "out").c_str()),
              StatusIs(Code::InvalidFormat, "OKV2: no tensors to write"));
}

// ---- element types

TEST(OKV2WriterTensors, EveryKnownElementTypeHasItsLayoutRow) {
  OKV2Writer writer;
  for (std::uint16_t dtype = 0; dtype <= 8; ++dtype) {
    const std::string name(1, char('a' + dtype));
    ASSERT_THAT(writer.addTensor(name.c_str(), dtype, kDims, 1, &kByte, 1), IsOk());
  }
  const std::string file = containerOf(writer);
  ASSERT_EQ(sectionSize(file, 6), 9U * 32);
  // dtype, elements, bytes, and the three layout values.
  constexpr std::uint32_t rows[9][6] = {
      {0, 1, 4, 0, 0, 0},      {1, 1, 2, 0, 0, 0},          {2, 1, 2, 0, 0, 0},
      {3, 32, 18, 2, 0, 0},    {4, 32, 34, 2, 0, 0},        {5, 256, 144, 12, 4, 2},
      {6, 256, 176, 12, 4, 2}, {7, 256, 210, 16, 192, 208}, {8, 256, 290, 2, 0, 65535},
  };
  for (std::size_t k = 0; k < 9; ++k) {
    const char* entry = file.data() + sectionOffset(file, 6) + 32 * k;
    EXPECT_EQ(loadU16(indexEntry(file, k).data() + 66), rows[k][0]);
    EXPECT_EQ(loadU16(entry), rows[k][0]);
    EXPECT_EQ(loadU16(entry + 2), rows[k][1]) << k;
    EXPECT_EQ(loadU32(entry + 4), rows[k][2]) << k;
    EXPECT_EQ(loadU32(entry + 8), rows[k][3]) << k;
    EXPECT_EQ(loadU32(entry + 12), rows[k][4]) << k;
    EXPECT_EQ(loadU32(entry + 16), rows[k][5]) << k;
    EXPECT_EQ(std::string(entry + 20, 12), std::string(12, '\0')) << k;
  }
}

TEST(OKV2WriterTensors, AnElementTypeAboveEightIsRefusedOnlyByWriteAndBeforeAnyFileIsMade) {
  for (const std::uint16_t dtype : {9, 255, 256, 65535}) {
    OKV2Writer writer;
    EXPECT_THAT(writer.addTensor("w", dtype, kDims, 1, &kByte, 1), IsOk());
    const test::TempDir dir;
    const std::string path = dir / "out";
    EXPECT_THAT(writer.write(path.c_str()), StatusIs(Code::InvalidFormat, "OKV2: unsupported dtype"));
    EXPECT_FALSE(std::filesystem::exists(path)) << dtype;
  }
}

// ---- order and names

TEST(OKV2WriterTensors, AddedAsBThenAAreStoredAsAThenB) {
  OKV2Writer writer;
  test::addBytes(writer, "b", "data of b");
  test::addBytes(writer, "a", "data of a");
  const std::string file = containerOf(writer);
  EXPECT_EQ(storedName(file, 0), "a");
  EXPECT_EQ(storedName(file, 1), "b");
  EXPECT_EQ(tensorData(file, 0), "data of a");
  EXPECT_EQ(tensorData(file, 1), "data of b");
  EXPECT_LT(file.find("data of a"), file.find("data of b"));
}

TEST(OKV2WriterTensors, APrefixSortsBeforeTheLongerName) {
  OKV2Writer writer;
  test::addBytes(writer, "blk.1.w", "3");
  test::addBytes(writer, "blk.1", "1");
  test::addBytes(writer, "blk.1.", "2");
  const std::string file = containerOf(writer);
  EXPECT_EQ(storedName(file, 0), "blk.1");
  EXPECT_EQ(storedName(file, 1), "blk.1.");
  EXPECT_EQ(storedName(file, 2), "blk.1.w");
}

TEST(OKV2WriterTensors, NamesSortByBytesSoThatHighBytesComeLastAndDigitsBeforeLetters) {
  OKV2Writer writer;
  test::addBytes(writer, "\xC3\xA9", "4");
  test::addBytes(writer, "z", "3");
  test::addBytes(writer, "Z", "2");
  test::addBytes(writer, "10", "0");
  test::addBytes(writer, "9", "1");
  const std::string file = containerOf(writer);
  EXPECT_EQ(storedName(file, 0), "10");
  EXPECT_EQ(storedName(file, 1), "9");
  EXPECT_EQ(storedName(file, 2), "Z");
  EXPECT_EQ(storedName(file, 3), "z");
  EXPECT_EQ(storedName(file, 4), "\xC3\xA9");
}

TEST(OKV2WriterTensors, EqualNamesAreAllKeptInTheOrderOfTheirAddition) {
  OKV2Writer writer;
  test::addBytes(writer, "b", "b");
  for (int k = 0; k < 100; ++k)
    test::addBytes(writer, "a", "copy " + std::to_string(k));
  const std::string file = containerOf(writer);
  EXPECT_EQ(loadU64(file.data() + 40), 101U);
  for (int k = 0; k < 100; ++k)
    EXPECT_EQ(tensorData(file, std::size_t(k)), "copy " + std::to_string(k));
  EXPECT_EQ(tensorData(file, 100), "b");
}

TEST(OKV2WriterTensors, AnEmptyNameIsTaken) {
  OKV2Writer writer;
  test::addBytes(writer, "", "x");
  const std::string entry = indexEntry(containerOf(writer), 0);
  EXPECT_EQ(entry.substr(0, 66), std::string(66, '\0'));
}

struct NameLength {
  std::size_t length;
  std::size_t stored;
  unsigned lengthField;
};

class LongName : public testing::TestWithParam<NameLength> {};

TEST_P(LongName, IsCutToItsFieldWithItsFullLengthBeside) {
  const auto& [length, stored, lengthField] = GetParam();
  std::string name(length, 'n');
  name.back() = 'E';
  OKV2Writer writer;
  test::addBytes(writer, name.c_str(), "x");
  const std::string entry = indexEntry(containerOf(writer), 0);
  EXPECT_EQ(entry.substr(0, 64), name.substr(0, stored) + std::string(64 - stored, '\0'));
  EXPECT_EQ(loadU16(entry.data() + 64), lengthField);
}

// The last byte of the field stays zero; the length is taken modulo 65536.
INSTANTIATE_TEST_SUITE_P(BothSidesOfEachEdge, LongName,
                         testing::Values(NameLength{62, 62, 62}, NameLength{63, 63, 63},
                                         NameLength{64, 63, 64}, NameLength{70, 63, 70},
                                         NameLength{65535, 63, 65535}, NameLength{65536, 63, 0},
                                         NameLength{65541, 63, 5}),
                         [](const auto& row) { return "bytes" + std::to_string(row.param.length); });

TEST(OKV2WriterTensors, NamesThatDifferOnlyBeyondTheFieldStillSortByTheWholeName) {
  const std::string common(63, 'n');
  OKV2Writer writer;
  test::addBytes(writer, (common + "b").c_str(), "second");
  test::addBytes(writer, (common + "a").c_str(), "first");
  const std::string file = containerOf(writer);
  EXPECT_EQ(tensorData(file, 0), "first");
  EXPECT_EQ(storedName(file, 0), storedName(file, 1));
}

// ---- sizes and padding

struct Padding {
  std::size_t size;
  std::size_t taken;
};

class TensorPadding : public testing::TestWithParam<Padding> {};

TEST_P(TensorPadding, IsZerosUpToTheNextMultipleOf64) {
  const auto& [size, taken] = GetParam();
  OKV2Writer writer;
  test::addBytes(writer, "a", std::string(size, '\xFF'));
  test::addBytes(writer, "b", "next");
  const std::string file = containerOf(writer);
  const std::uint64_t weights = sectionOffset(file, 5);
  EXPECT_EQ(sectionSize(file, 5), taken + 64);
  EXPECT_EQ(loadU64(indexEntry(file, 1).data() + 104), taken) << "offset of the next tensor";
  EXPECT_EQ(file.substr(weights, taken), std::string(size, '\xFF') + std::string(taken - size, '\0'));
  EXPECT_EQ(file.size(), weights + taken + 64);
}

INSTANTIATE_TEST_SUITE_P(BothSidesOfEachEdge, TensorPadding,
                         testing::Values(Padding{1, 64}, Padding{63, 64}, Padding{64, 64}, Padding{65, 128},
                                         Padding{100, 128}, Padding{128, 128}, Padding{129, 192}),
                         [](const auto& row) { return "bytes" + std::to_string(row.param.size); });

TEST(OKV2WriterTensors, DimensionsAreStoredAsGivenWhateverTheSize) {
  constexpr std::uint64_t dims[] = {0, 0xFFFFFFFFFFFFFFFFU, 1};
  OKV2Writer writer;
  ASSERT_THAT(writer.addTensor("w", 0, dims, 3, &kByte, 1), IsOk());
  const std::string entry = indexEntry(containerOf(writer), 0);
  EXPECT_EQ(loadU64(entry.data() + 72), 0U);
  EXPECT_EQ(loadU64(entry.data() + 80), 0xFFFFFFFFFFFFFFFFU);
  EXPECT_EQ(loadU64(entry.data() + 88), 1U);
  EXPECT_EQ(loadU64(entry.data() + 96), 0U);
}

// More pieces than one gathering write takes, and more bytes than are queued at once.
TEST(OKV2WriterTensors, ManyTensorsOfEverySizeAllArrive) {
  OKV2Writer writer;
  std::string expected;
  char name[16];
  for (int k = 0; k < 3000; ++k) {
    std::snprintf(name, sizeof name, "t%05d", k);
    const std::string data(std::size_t(k % 257 + 1), char('A' + k % 23));
    test::addBytes(writer, name, data);
    expected += data + std::string((64 - data.size() % 64) % 64, '\0');
  }
  const std::string big(700001, 'Z');
  ASSERT_THAT(writer.addTensorFromMem(big.data(), "u", 0, kDims, 1, big.size()), IsOk());
  expected += big + std::string((64 - big.size() % 64) % 64, '\0');
  const std::string file = containerOf(writer);
  EXPECT_EQ(sectionSize(file, 5), expected.size());
  EXPECT_TRUE(file.substr(sectionOffset(file, 5)) == expected);
}

// The tables are written 256 KB at a time: 2,048 entries of the index, 8,192 of the layout.
class LongTables : public testing::TestWithParam<std::size_t> {};

TEST_P(LongTables, HoldEveryTensorOnceInOrder) {
  const std::size_t count = GetParam();
  OKV2Writer writer;
  for (std::size_t k = count; k-- > 0;) {
    char name[32];
    std::snprintf(name, sizeof name, "t%05zu", k);
    const std::uint64_t dims[] = {k + 1};
    const std::string data(k % 3 + 1, kByte);
    ASSERT_THAT(writer.addTensor(name, std::uint16_t(k % 9), dims, 1, data.data(), data.size()), IsOk());
  }
  const std::string file = containerOf(writer);
  ASSERT_EQ(sectionSize(file, 4), 128 * count);
  ASSERT_EQ(sectionSize(file, 6), 32 * count);
  const std::uint64_t index = sectionOffset(file, 4);
  const std::uint64_t layout = sectionOffset(file, 6);
  EXPECT_EQ(layout, index + 128 * count);
  for (std::size_t k = 0; k < count; ++k) {
    char name[32];
    std::snprintf(name, sizeof name, "t%05zu", k);
    const char* const entry = file.data() + index + 128 * k;
    ASSERT_STREQ(entry, name);
    ASSERT_EQ(loadU16(entry + 66), k % 9) << k;
    ASSERT_EQ(loadU64(entry + 72), k + 1);
    ASSERT_EQ(loadU64(entry + 104), 64 * k) << "each tensor takes 64 bytes";
    ASSERT_EQ(loadU64(entry + 112), k % 3 + 1);
    ASSERT_EQ(loadU16(file.data() + layout + 32 * k), k % 9) << k;
  }
}

INSTANTIATE_TEST_SUITE_P(BothSidesOfABatch, LongTables,
                         testing::Values(2047U, 2048U, 2049U, 4097U, 8191U, 8192U, 8193U));

}  // namespace
}  // namespace zel
