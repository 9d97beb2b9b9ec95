#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "json_support.h"
#include "support/status_matchers.h"

namespace zel {
namespace {

using test::IsOk;
using test::parseJson;
using test::StatusIs;

double number(const std::string& text) {
  json::Value value;
  EXPECT_THAT(parseJson(text, value), IsOk()) << text;
  EXPECT_TRUE(value.isNumber()) << text;
  return value.number;
}

constexpr double kInf = std::numeric_limits<double>::infinity();

// Exact values, each worked out by hand: powers of two and what lies next to them.
TEST(JsonNumber, HasTheNearestDoublesValue) {
  EXPECT_EQ(number("0"), 0.0);
  EXPECT_EQ(number("1"), 1.0);
  EXPECT_EQ(number("-1"), -1.0);
  EXPECT_EQ(number("0.5"), 0x1p-1);
  EXPECT_EQ(number("-2.5e3"), -2500.0);
  EXPECT_EQ(number("1E2"), 100.0);
  EXPECT_EQ(number("1e+2"), 100.0);
  EXPECT_EQ(number("25e-2"), 0.25);
  EXPECT_EQ(number("999999999999999"), 999999999999999.0);
  EXPECT_EQ(number("9007199254740993"), 0x1p53) << "2^53 + 1 is a tie and goes to the even neighbour";
  EXPECT_EQ(number("9007199254740995"), 0x1p53 + 4);
  EXPECT_EQ(number("9223372036854775807"), 0x1p63);
  EXPECT_EQ(number("18446744073709551615"), 0x1p64);
  EXPECT_EQ(number("1e-05"), 0x1.4f8b588e368f1p-17);
}

// Up to seven digits are read at once where eight bytes are left, more and the last ones of a text singly.
TEST(JsonNumber, HasEveryCountOfDigits) {
  struct Row {
    const char* text;
    double value;
  };
  constexpr Row kRows[] = {
      {"9", 9},
      {"98", 98},
      {"987", 987},
      {"9876", 9876},
      {"98765", 98765},
      {"987654", 987654},
      {"9876543", 9876543},
      {"98765432", 98765432},
      {"987654321", 987654321},
      {"9876543210", 9876543210.0},
      {"98765432109876", 98765432109876.0},
      {"987654321098765", 987654321098765.0},
      {"9876543210987654", 9876543210987654.0},
      {"0000000", 0},
      {"0100000", 100000},
      {"0000001", 1},
  };
  for (const Row& row : kRows) {
    EXPECT_EQ(number(row.text), row.value);
    for (const char* behind : {" ", "\n", "\t\r", "       ", "        ", "               "}) {
      EXPECT_EQ(number(row.text + std::string(behind)), row.value) << row.text;
    }
    json::Value list;
    EXPECT_THAT(parseJson("[" + std::string(row.text) + "," + row.text + "]          ", list), IsOk());
    ASSERT_EQ(list.items.size(), 2U);
    EXPECT_EQ(list.items[0].number, row.value);
    EXPECT_EQ(list.items[1].number, row.value);
  }
}

// The bytes next to the digits of ASCII among them, '/' and ':'.
TEST(JsonNumber, EndsBeforeEveryByteThatIsNoPartOfOne) {
  for (int byte = 0; byte < 256; ++byte) {
    const char c = char(byte);
    if (std::string("0123456789.eE ,]\t\n\r").find(c) != std::string::npos) continue;
    for (const char* digits : {"7", "1234", "7654321"}) {
      json::Value list;
      const std::string text = "[" + std::string(digits) + c + std::string(8, ' ') + "]";
      EXPECT_THAT(parseJson(text, list), StatusIs(Code::InvalidFormat, "json: comma")) << text;
    }
  }
}

TEST(JsonNumber, ReadsLeadingZerosAsNothing) {
  EXPECT_EQ(number("007"), 7.0);
  EXPECT_EQ(number("-012"), -12.0);
  EXPECT_EQ(number("000000000000000000001"), 1.0);
  EXPECT_EQ(number("00.5"), 0.5);
}

TEST(JsonNumber, AcceptsABareFullStopAtTheEnd) {
  EXPECT_EQ(number("1."), 1.0);
  EXPECT_EQ(number("2.e3"), 2000.0);
  EXPECT_EQ(number("-0."), 0.0);
}

TEST(JsonNumber, AcceptsAFractionWithoutIntegerDigitsBehindAMinus) {
  EXPECT_EQ(number("-.5"), -0.5);
  EXPECT_EQ(number("-.5e1"), -5.0);
}

TEST(JsonNumber, KeepsTheSignOfZero) {
  EXPECT_TRUE(std::signbit(number("-0")));
  EXPECT_TRUE(std::signbit(number("-0.0")));
  EXPECT_TRUE(std::signbit(number("-0e5")));
  EXPECT_FALSE(std::signbit(number("0")));
}

TEST(JsonNumber, OverflowsToInfinity) {
  EXPECT_EQ(number("1e308"), 1e308);
  EXPECT_EQ(number("1.7976931348623157e308"), std::numeric_limits<double>::max());
  EXPECT_EQ(number("1.7976931348623158e308"), std::numeric_limits<double>::max());
  EXPECT_EQ(number("1.7976931348623159e308"), kInf);
  EXPECT_EQ(number("1e309"), kInf);
  EXPECT_EQ(number("-1e309"), -kInf);
  EXPECT_EQ(number("1e99999999999999999999999999999999999999999999999999999999999"), kInf);
  EXPECT_EQ(number("123456789e+400"), kInf);
}

TEST(JsonNumber, UnderflowsToZeroThroughTheSubnormals) {
  EXPECT_EQ(number("5e-324"), 0x1p-1074);
  EXPECT_EQ(number("2.4703282292062327e-324"), 0.0) << "just below half of the smallest";
  EXPECT_EQ(number("2.4703282292062328e-324"), 0x1p-1074) << "just above it";
  EXPECT_EQ(number("1e-999"), 0.0);
  EXPECT_TRUE(std::signbit(number("-1e-999")));
  EXPECT_EQ(number("1e-99999999999999999999999999999999999999999999999999999999999"), 0.0);
}

TEST(JsonNumber, OfZeroWithAnyExponentIsZero) {
  EXPECT_EQ(number("0e999999999"), 0.0);
  EXPECT_EQ(number("0.000e-999999999"), 0.0);
}

TEST(JsonNumber, OfSixtyThreeBytesIsRead) {
  EXPECT_EQ(number("1" + std::string(62, '0')), 1e62);
  EXPECT_EQ(number("0." + std::string(60, '0') + "1"), 1e-61);
  EXPECT_THAT(parseJson("1" + std::string(63, '0')), StatusIs(Code::InvalidFormat, "json: number too long"));
  EXPECT_THAT(parseJson(std::string(1000000, '7')), StatusIs(Code::InvalidFormat, "json: number too long"));
}

TEST(JsonNumber, TakesItsBytesFromTheScannedTokenOnly) {
  EXPECT_EQ(json::Value().number, 0.0);
  json::Value value;
  EXPECT_THAT(parseJson("[1,2.5,-3e1]", value), IsOk());
  ASSERT_EQ(value.items.size(), 3U);
  EXPECT_EQ(value.items[0].number, 1.0);
  EXPECT_EQ(value.items[1].number, 2.5);
  EXPECT_EQ(value.items[2].number, -30.0);
}

// ---- against strtod

// Every text is a token as the reader scans it, so that strtod sees the same bytes.
void expectAsStrtod(const std::string& token) {
  char* end = nullptr;
  const double expected = std::strtod(token.c_str(), &end);
  json::Value value;
  const Status status = parseJson(token, value);
  if (token.size() > 63) {
    ASSERT_THAT(status, StatusIs(Code::InvalidFormat, "json: number too long")) << token;
  } else if (end != token.c_str() + token.size()) {
    ASSERT_THAT(status, StatusIs(Code::InvalidFormat, "json: bad number")) << token;
  } else {
    ASSERT_THAT(status, IsOk()) << token;
    ASSERT_EQ(std::bit_cast<std::uint64_t>(value.number), std::bit_cast<std::uint64_t>(expected)) << token;
  }
}

TEST(JsonNumberAgainstStrtod, AgreesOnEveryCombinationOfParts) {
  const std::vector<std::string> integers = {"",
                                             "0",
                                             "00",
                                             "1",
                                             "9",
                                             "10",
                                             "123",
                                             "007",
                                             "255",
                                             "65536",
                                             "4294967296",
                                             "999999999999999",
                                             "1000000000000000",
                                             "9007199254740993",
                                             "18446744073709551616",
                                             "179769313486231580793728971405303415079934132710037826"};
  const std::vector<std::string> fractions = {
      "", ".", ".0", ".5", ".25", ".000001", ".1234567890123456789", ".99999999999999999999"};
  const std::vector<std::string> exponents = {
      "",      "e",      "E",     "e+",    "e-",    "e0",     "E5",           "e+22",         "e-22",
      "e23",   "e-307",  "e-308", "e-323", "e-324", "e-325",  "e307",         "e308",         "e309",
      "e0010", "e-0010", "e400",  "e-400", "e9999", "e-9999", "e99999999999", "e-99999999999"};
  std::size_t count = 0;
  for (const char* sign : {"", "-"}) {
    for (const std::string& integer : integers) {
      if (integer.empty() && *sign == '\0') continue;  // would start with something that is no number
      for (const std::string& fraction : fractions) {
        for (const std::string& exponent : exponents) {
          expectAsStrtod(sign + integer + fraction + exponent);
          if (HasFatalFailure()) return;
          ++count;
        }
      }
    }
  }
  EXPECT_GT(count, 6000U);
}

TEST(JsonNumberAgainstStrtod, AgreesOnRandomTokens) {
  std::mt19937_64 random(63);
  const auto upTo = [&random](std::uint64_t n) { return random() % (n + 1); };
  const auto digits = [&](std::uint64_t most) {
    std::string out;
    for (std::uint64_t k = upTo(most); k > 0; --k)
      out += char('0' + upTo(9));
    return out;
  };
  for (int k = 0; k < 20000; ++k) {
    std::string token = upTo(1) == 0 ? "-" : std::string(1, char('0' + upTo(9)));
    token += digits(upTo(4) == 0 ? 40 : 18);
    if (upTo(1) == 0) token += "." + digits(upTo(4) == 0 ? 25 : 17);
    if (upTo(1) == 0) {
      token += upTo(1) == 0 ? "e" : "E";
      if (upTo(2) != 0) token += upTo(1) == 0 ? "+" : "-";
      token += upTo(5) == 0 ? digits(5) : std::to_string(upTo(330));
    }
    expectAsStrtod(token);
    if (HasFatalFailure()) return;
  }
}

TEST(JsonNumberAgainstStrtod, AgreesOnRandomDoublesWrittenWithSeventeenDigits) {
  std::mt19937_64 random(17);
  for (int k = 0; k < 20000; ++k) {
    const double wanted = std::bit_cast<double>(random());
    if (!std::isfinite(wanted)) continue;
    char token[40];
    std::snprintf(token, sizeof token, "%.17g", wanted);
    expectAsStrtod(token);
    if (HasFatalFailure()) return;
    ASSERT_EQ(number(token), wanted) << token;
  }
}

// Half-way cases between neighbours, where a sloppy conversion rounds the wrong way.
TEST(JsonNumberAgainstStrtod, AgreesOnHardRoundingCases) {
  for (const char* token : {"9007199254740992.5",
                            "9007199254740993.0",
                            "9007199254740993.0000000000000000000000001",
                            "9007199254740992.99999999999999999999999999",
                            "1.00000000000000011102230246251565404",
                            "1.00000000000000011102230246251565405",
                            "1.00000000000000011102230246251565403",
                            "0.1",
                            "0.2",
                            "0.3",
                            "1e23",
                            "8.5e22",
                            "2.2250738585072014e-308",
                            "2.2250738585072011e-308",
                            "2.2250738585072012e-308",
                            "4.9406564584124654e-324",
                            "4.9406564584124653e-324",
                            "6.9294956446009195e15",
                            "3.7455744005952583e15",
                            "1.7976931348623158079372897140530341507993413271e308",
                            "1.7976931348623158079372897140530341508e308"}) {
    expectAsStrtod(token);
  }
}

}  // namespace
}  // namespace zel
