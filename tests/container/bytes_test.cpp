#include "container/bytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace zel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

TEST(CheckedMul, GivesTheProductUpToTheLastOneThatFits) {
  std::uint64_t product = 7;
  EXPECT_TRUE(checkedMul(0x100000000U, 0xFFFFFFFFU, product));
  EXPECT_EQ(product, 0xFFFFFFFF00000000U);
  EXPECT_TRUE(checkedMul(kMax, 1, product));
  EXPECT_EQ(product, kMax);
  EXPECT_TRUE(checkedMul(kMax, 0, product));
  EXPECT_EQ(product, 0U);
}

TEST(CheckedMul, RefusesAProductOf65BitsAndLeavesTheResultAlone) {
  std::uint64_t product = 7;
  EXPECT_FALSE(checkedMul(0x100000000U, 0x100000000U, product));
  EXPECT_FALSE(checkedMul(kMax, 2, product));
  EXPECT_EQ(product, 7U);
}

TEST(CheckedAdd, AcceptsTheLargestSumAndRefusesOneMore) {
  std::uint64_t sum = 0;
  EXPECT_TRUE(checkedAdd(kMax - 1, 1, sum));
  EXPECT_EQ(sum, kMax);
  EXPECT_FALSE(checkedAdd(kMax, 2, sum));
  EXPECT_EQ(sum, kMax) << "left alone";
}

TEST(Load, ReadsLowByteFirstAtAnyAlignment) {
  const char bytes[] = "\x00\x88\x77\x66\x55\x44\x33\x22\x11";
  EXPECT_EQ(loadU16(bytes + 1), 0x7788U);
  EXPECT_EQ(loadU32(bytes + 1), 0x55667788U);
  EXPECT_EQ(loadU64(bytes + 1), 0x1122334455667788U);
}

TEST(Load, DoesNotSignExtendHighBytes) {
  const char bytes[] = "\xFF\xFF\xFF\xFF\x00\x00\x00\x00";
  EXPECT_EQ(loadU16(bytes), 0xFFFFU);
  EXPECT_EQ(loadU32(bytes), 0xFFFFFFFFU);
  EXPECT_EQ(loadU64(bytes), 0xFFFFFFFFU);
}

constexpr std::string_view kFifteen("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F", 15);

TEST(ByteReader, ReadsEachWidthInTurn) {
  ByteReader in(kFifteen);
  std::uint8_t u8 = 0;
  std::uint16_t u16 = 0;
  std::uint32_t u32 = 0;
  std::uint64_t u64 = 0;
  ASSERT_TRUE(in.readU8(u8));
  ASSERT_TRUE(in.readU16(u16));
  ASSERT_TRUE(in.readU32(u32));
  ASSERT_TRUE(in.readU64(u64));
  EXPECT_EQ(u8, 0x01U);
  EXPECT_EQ(u16, 0x0302U);
  EXPECT_EQ(u32, 0x07060504U);
  EXPECT_EQ(u64, 0x0F0E0D0C0B0A0908U);
  EXPECT_TRUE(in.atEnd());
}

TEST(ByteReader, ConsumesNothingWhenOneByteIsMissing) {
  std::uint8_t u8 = 9;
  std::uint16_t u16 = 9;
  std::uint32_t u32 = 9;
  std::uint64_t u64 = 9;
  ByteReader none(kFifteen.substr(0, 0));
  EXPECT_FALSE(none.readU8(u8));
  ByteReader one(kFifteen.substr(0, 1));
  EXPECT_FALSE(one.readU16(u16));
  EXPECT_EQ(one.position(), 0U);
  ByteReader three(kFifteen.substr(0, 3));
  EXPECT_FALSE(three.readU32(u32));
  EXPECT_EQ(three.remaining(), 3U);
  ByteReader seven(kFifteen.substr(0, 7));
  EXPECT_FALSE(seven.readU64(u64));
  EXPECT_EQ(seven.remaining(), 7U);
  EXPECT_EQ(u8 + u16 + u32 + u64, 36U) << "nothing is stored either";
}

TEST(ByteReader, GivesTheLastBytesAndRefusesOneMore) {
  ByteReader in(kFifteen);
  std::string_view bytes = "before";
  EXPECT_FALSE(in.readBytes(16, bytes));
  EXPECT_EQ(bytes, "before");
  EXPECT_EQ(in.position(), 0U);
  EXPECT_TRUE(in.readBytes(15, bytes));
  EXPECT_EQ(bytes, kFifteen);
  EXPECT_TRUE(in.readBytes(0, bytes));
  EXPECT_EQ(bytes, "");
}

TEST(ByteReader, ALengthNearThe64BitLimitDoesNotWrap) {
  ByteReader in(kFifteen);
  std::string_view bytes;
  ASSERT_TRUE(in.skip(3));
  EXPECT_FALSE(in.readBytes(kMax, bytes));
  EXPECT_FALSE(in.readBytes(kMax - 2, bytes));
  EXPECT_FALSE(in.skip(kMax));
  EXPECT_FALSE(in.skip(kMax - 2));
  EXPECT_FALSE(in.seek(kMax));
  EXPECT_EQ(in.position(), 3U);
}

TEST(ByteReader, SkipsToTheEndAndNotBeyond) {
  ByteReader in(kFifteen);
  EXPECT_FALSE(in.skip(16));
  EXPECT_TRUE(in.skip(15));
  EXPECT_TRUE(in.atEnd());
  EXPECT_FALSE(in.skip(1));
}

TEST(ByteReader, SeeksBackAndToTheEndButNotBeyond) {
  ByteReader in(kFifteen);
  EXPECT_TRUE(in.seek(15));
  EXPECT_TRUE(in.atEnd());
  EXPECT_FALSE(in.seek(16));
  EXPECT_EQ(in.position(), 15U);
  EXPECT_TRUE(in.seek(14));
  std::uint8_t last = 0;
  EXPECT_TRUE(in.readU8(last));
  EXPECT_EQ(last, 0x0FU);
}

TEST(Put, AppendsLowByteFirst) {
  ByteVector out = {0xEE};
  putU8(out, 0x01);
  putU16(out, 0x0302);
  putU32(out, 0x07060504);
  EXPECT_THAT(out, ElementsAre(0xEE, 1, 2, 3, 4, 5, 6, 7));
  out.clear();
  putU64(out, 0x0807060504030201);
  EXPECT_THAT(out, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
}

TEST(Put, WritesTheFloatsBitPattern) {
  ByteVector out;
  putF32(out, 1.0F);
  EXPECT_THAT(out, ElementsAre(0x00, 0x00, 0x80, 0x3F));
  out.clear();
  putF32(out, -0.0F);
  EXPECT_THAT(out, ElementsAre(0x00, 0x00, 0x00, 0x80));
  out.clear();
  putF32(out, std::numeric_limits<float>::infinity());
  EXPECT_THAT(out, ElementsAre(0x00, 0x00, 0x80, 0x7F));
}

TEST(Put, BytesHaveNoLengthAndNoTerminator) {
  ByteVector out;
  putBytes(out, "");
  EXPECT_THAT(out, IsEmpty());
  putBytes(out, std::string_view("a\0b", 3));
  EXPECT_THAT(out, ElementsAre('a', 0, 'b'));
}

TEST(Put, AStringIsItsLengthAndItsBytes) {
  ByteVector out;
  putStr(out, std::string_view("a\0\xFF", 3));
  EXPECT_THAT(out, ElementsAre(3, 0, 0, 0, 'a', 0, 0xFF));
  out.clear();
  putStr(out, "");
  EXPECT_THAT(out, ElementsAre(0, 0, 0, 0));
  out.clear();
  putStr(out, std::string(258, 'x'));
  ASSERT_EQ(out.size(), 262U);
  EXPECT_THAT(ByteVector(out.begin(), out.begin() + 5), ElementsAre(2, 1, 0, 0, 'x'));
}

}  // namespace
}  // namespace zel
