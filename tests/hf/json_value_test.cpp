#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

#include "json_support.h"
#include "support/status_matchers.h"

namespace zel::json {
namespace {

using test::IsOk;
using test::parseJson;

TEST(JsonValue, IsNullAndEmptyByDefault) {
  const Value value;
  EXPECT_EQ(value.kind, Kind::Null);
  EXPECT_EQ(value.text, "");
  EXPECT_TRUE(value.members.empty());
  EXPECT_TRUE(value.items.empty());
}

TEST(JsonValue, IsMovedAndNeverCopied) {
  static_assert(!std::is_copy_constructible_v<Value>);
  static_assert(!std::is_copy_assignable_v<Value>);
  static_assert(std::is_nothrow_move_constructible_v<Value>);
}

TEST(JsonValue, GetFindsTheFirstOfEqualKeys) {
  Value value;
  ASSERT_THAT(parseJson(R"({"b":0,"a":1,"a":2})", value), IsOk());
  EXPECT_EQ(value.members.size(), 3U);
  ASSERT_NE(value.get("a"), nullptr);
  EXPECT_EQ(value.get("a")->number, 1);
}

TEST(JsonValue, GetComparesWholeKeysByCase) {
  Value value;
  ASSERT_THAT(parseJson(R"({"key":1,"":2,"ke\u0079s":3})", value), IsOk());
  EXPECT_EQ(value.get("ke"), nullptr);
  EXPECT_EQ(value.get("Key"), nullptr);
  EXPECT_EQ(value.get("key "), nullptr);
  EXPECT_EQ(value.get("key")->number, 1);
  EXPECT_EQ(value.get("")->number, 2);
  EXPECT_EQ(value.get("keys")->number, 3) << "escapes are decoded before keys are compared";
}

// A key is compared by the length of the C string, so one with a NUL inside is never found by its front.
TEST(JsonValue, GetDoesNotStopAtANulInsideAKey) {
  Value value;
  ASSERT_THAT(parseJson(R"({"a\u0000b":1})", value), IsOk());
  EXPECT_EQ(value.members[0].first, std::string("a\0b", 3));
  EXPECT_EQ(value.get("a"), nullptr);
}

TEST(JsonValue, GetOfAnythingButAnObjectIsNull) {
  for (const char* text : {"null", "true", "1", "\"a\"", "[\"a\"]"}) {
    Value value;
    ASSERT_THAT(parseJson(text, value), IsOk());
    EXPECT_EQ(value.get("a"), nullptr) << text;
  }
}

TEST(JsonValue, StrGivesTheTextOfAStringAndOtherwiseTheOneEmptyString) {
  Value value;
  ASSERT_THAT(parseJson("\"text\"", value), IsOk());
  EXPECT_EQ(value.str(), "text");
  EXPECT_EQ(&value.str(), &value.text);
  for (const char* other : {"null", "true", "1", "{}", "[]"}) {
    Value number;
    ASSERT_THAT(parseJson(other, number), IsOk());
    EXPECT_EQ(&number.str(), &Value::kEmpty) << other;
  }
  EXPECT_EQ(Value::kEmpty, "");
}

// A text may have a list in every two of its bytes: room that none of them fills would be most of the memory.
TEST(JsonValue, OfOneElementHasRoomForOne) {
  json::Value value;
  const std::string text = R"([[1], {"a": 1}])";
  ASSERT_THAT(json::parse(text.data(), text.size(), value), test::IsOk());
  ASSERT_EQ(value.items.size(), 2U);
  EXPECT_EQ(value.items[0].items.capacity(), 1U);
  EXPECT_EQ(value.items[1].members.capacity(), 1U);
}

TEST(JsonValue, KindTestsAnswerForTheirKindAlone) {
  const auto answers = [](const char* text) {
    Value value;
    EXPECT_THAT(parseJson(text, value), IsOk());
    return std::string() + (value.isBool() ? 'b' : '-') + (value.isNumber() ? 'n' : '-') +
           (value.isString() ? 's' : '-') + (value.isObject() ? 'o' : '-') + (value.isArray() ? 'a' : '-');
  };
  EXPECT_EQ(answers("null"), "-----");
  EXPECT_EQ(answers("false"), "b----");
  EXPECT_EQ(answers("0"), "-n---");
  EXPECT_EQ(answers("\"\""), "--s--");
  EXPECT_EQ(answers("{}"), "---o-");
  EXPECT_EQ(answers("[]"), "----a");
}

// ---- toInt64

struct IntegerCase {
  const char* name;
  double number;
  bool integral;
  std::int64_t expected;
};

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

class JsonToInt64 : public testing::TestWithParam<IntegerCase> {};

TEST_P(JsonToInt64, ConvertsOnlyWhatComesBackTheSame) {
  std::int64_t out = -77;
  EXPECT_EQ(toInt64(GetParam().number, out), GetParam().integral);
  EXPECT_EQ(out, GetParam().integral ? GetParam().expected : -77);
}

INSTANTIATE_TEST_SUITE_P(
    BothSidesOfEachEdge, JsonToInt64,
    testing::Values(IntegerCase{"Zero", 0.0, true, 0}, IntegerCase{"MinusZero", -0.0, true, 0},
                    IntegerCase{"One", 1.0, true, 1}, IntegerCase{"MinusOne", -1.0, true, -1},
                    IntegerCase{"Half", 0.5, false, 0}, IntegerCase{"MinusHalf", -0.5, false, 0},
                    IntegerCase{"JustBelowOne", 0x1.fffffffffffffp-1, false, 0},
                    IntegerCase{"JustAboveOne", 0x1.0000000000001p0, false, 0},
                    IntegerCase{"Smallest", std::numeric_limits<double>::denorm_min(), false, 0},
                    IntegerCase{"TwoTo53", 0x1p53, true, 9007199254740992},
                    IntegerCase{"LastBelowTwoTo63", 0x1.fffffffffffffp62, true, 9223372036854774784},
                    IntegerCase{"TwoTo63", 0x1p63, false, 0},
                    IntegerCase{"MinusTwoTo63", -0x1p63, true, std::numeric_limits<std::int64_t>::min()},
                    IntegerCase{"NextBelowMinusTwoTo63", -0x1.0000000000001p63, false, 0},
                    IntegerCase{"TwoTo64", 0x1p64, false, 0},
                    IntegerCase{"Largest", 0x1.fffffffffffffp1023, false, 0},
                    IntegerCase{"Infinity", kInf, false, 0}, IntegerCase{"MinusInfinity", -kInf, false, 0},
                    IntegerCase{"NotANumber", kNan, false, 0}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace zel::json
