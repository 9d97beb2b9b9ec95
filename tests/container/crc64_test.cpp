#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bitwise_crc64.h"
#include "container/okv2_format.h"

namespace zel::okv2 {
namespace {

std::uint64_t crcOf(std::string_view bytes) { return crc64(bytes.data(), bytes.size()); }

TEST(Crc64, OfTheNineDigitsIsTheCheckValue) {
  EXPECT_EQ(crcOf("123456789"), 0x4DB9A9F87EC10C59U);
  EXPECT_EQ(test::bitwiseCrc64("123456789"), 0x4DB9A9F87EC10C59U) << "the tests' own pen";
}

TEST(Crc64, OfNothingIsZero) {
  EXPECT_EQ(crc64("x", 0), 0U);
  EXPECT_EQ(crc64(nullptr, 0), 0U);
}

// The polynomial is used as it stands although the bits go out on the right; the usual reflected form
// (0xC96C5795D7870F42) gives another value.
TEST(Crc64, UsesThePolynomialUnreflectedInTheRightShiftingForm) {
  // 0x80 has only its last bit set, so the division meets it once: exactly the polynomial remains.
  EXPECT_EQ(crcOf("\x80"), 0x42F0E1EBA9EA3693U);
  // 0x40 is met one step earlier, and the remainder's odd bit brings the polynomial in a second time:
  // (0x42F0E1EBA9EA3693 >> 1) ^ 0x42F0E1EBA9EA3693.
  EXPECT_EQ(crcOf("\x40"), 0x217870F5D4F51B49U ^ 0x42F0E1EBA9EA3693U);
}

TEST(Crc64, LeadingZeroBytesDoNotShowBecauseItStartsAtZero) {
  EXPECT_EQ(crcOf(std::string_view("\0\0\0\0", 4)), 0U);
  EXPECT_EQ(crcOf(std::string_view("\0\0a", 3)), crcOf("a"));
}

TEST(Crc64, ContinuesFromAnEarlierPartAtEverySplit) {
  constexpr std::string_view text = "123456789";
  for (std::size_t cut = 0; cut <= text.size(); ++cut) {
    const std::uint64_t head = crc64(text.data(), cut);
    EXPECT_EQ(crc64(text.data() + cut, text.size() - cut, head), 0x4DB9A9F87EC10C59U) << cut;
  }
}

TEST(Crc64, AgreesWithBitByBitDivisionForEveryByteValueAndLength) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string one(1, char(byte));
    EXPECT_EQ(crcOf(one), test::bitwiseCrc64(one)) << byte;
  }
  std::mt19937 random(20);
  std::string bytes;
  for (int length = 0; length < 300; ++length) {
    EXPECT_EQ(crcOf(bytes), test::bitwiseCrc64(bytes)) << length;
    bytes += char(random() & 0xFF);
  }
}

TEST(Align, RoundsUpToTheNextMultipleOf64) {
  EXPECT_EQ(align(0), 0U);
  EXPECT_EQ(align(1), 64U);
  EXPECT_EQ(align(63), 64U);
  EXPECT_EQ(align(64), 64U);
  EXPECT_EQ(align(65), 128U);
}

}  // namespace
}  // namespace zel::okv2
