#include "support/hexdump.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace zel::test {
namespace {

TEST(HexDump, GivesPairsRepeatsAndTextInOrder) {
  EXPECT_EQ(bytesOfDump("@0 4f 4B ; O and K\n@2 00*3 \"a;b\"\n@8 ff"), std::string("OK\0\0\0a;b\xFF", 9));
}

TEST(HexDump, RefusesAWrongOffset) {
  EXPECT_THROW(bytesOfDump("@0 00 00\n@3 00"), std::invalid_argument);
  EXPECT_EQ(bytesOfDump("@0 00 00\n@2 00").size(), 3U);
}

TEST(HexDump, RefusesHalfAPairAndStrayLetters) {
  EXPECT_THROW(bytesOfDump("0"), std::invalid_argument);
  EXPECT_THROW(bytesOfDump("0g"), std::invalid_argument);
  EXPECT_THROW(bytesOfDump("\"abc"), std::invalid_argument);
  EXPECT_THROW(bytesOfDump("00*"), std::invalid_argument);
}

TEST(HexDump, LinesCarryTheirOffset) {
  EXPECT_EQ(hexLines(std::string(17, '\x7F')),
            "     0  7f 7f 7f 7f 7f 7f 7f 7f 7f 7f 7f 7f 7f 7f 7f 7f\n    16  7f\n");
}

}  // namespace
}  // namespace zel::test
