#include <gtest/gtest.h>

#include <string>

#include "json_support.h"
#include "support/status_matchers.h"

namespace zel {
namespace {

using test::describe;
using test::IsOk;
using test::JsonCase;
using test::parseJson;
using test::StatusIs;

class JsonGrammar : public testing::TestWithParam<JsonCase> {};

TEST_P(JsonGrammar, GivesItsVerdictAndWholeMessage) {
  const JsonCase& row = GetParam();
  if (*row.message == '\0') {
    EXPECT_THAT(parseJson(row.text), IsOk());
  } else {
    EXPECT_THAT(parseJson(row.text), StatusIs(Code::InvalidFormat, row.message));
  }
}

// A value reads the same as a member, except that what follows it is now the object's to report.
TEST_P(JsonGrammar, GivesTheSameVerdictAsTheValueOfAMember) {
  const JsonCase& row = GetParam();
  const std::string text = "{\"a\":" + std::string(row.text);
  const std::string alone = row.message;
  if (alone.empty()) {
    EXPECT_THAT(parseJson(text + "}"), IsOk());
  } else {
    const std::string expected = alone == "json: trailing data" ? "json: comma" : alone;
    EXPECT_THAT(parseJson(text), StatusIs(Code::InvalidFormat, expected));
  }
}

INSTANTIATE_TEST_SUITE_P(Rules, JsonGrammar, testing::ValuesIn(test::kJsonCases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(JsonParse, RefusesANullPointerWhateverTheSize) {
  json::Value value;
  EXPECT_THAT(json::parse(nullptr, 0, value), StatusIs(Code::InvalidFormat, "json: null input"));
  EXPECT_THAT(json::parse(nullptr, 5, value), StatusIs(Code::InvalidFormat, "json: null input"));
}

TEST(JsonParse, OfANonNullPointerAndSizeZeroIsAnUnexpectedEnd) {
  json::Value value;
  EXPECT_THAT(json::parse("1", 0, value), StatusIs(Code::InvalidFormat, "json: unexpected end"));
}

TEST(JsonParse, NeedsNoTerminatorAndReadsNotBeyondTheSize) {
  json::Value value;
  ASSERT_THAT(json::parse("[1]garbage", 3, value), IsOk());
  EXPECT_EQ(value.items.size(), 1U);
  ASSERT_THAT(json::parse("123", 2, value), IsOk());
  EXPECT_EQ(value.number, 12);
}

// ---- depth

std::string nested(std::size_t levels, const std::string& open, const std::string& inner,
                   const std::string& close) {
  std::string text;
  for (std::size_t k = 0; k < levels; ++k)
    text += open;
  text += inner;
  for (std::size_t k = 0; k < levels; ++k)
    text += close;
  return text;
}

TEST(JsonDepth, SixtyFourArraysInsideTheRootArrayParse) {
  EXPECT_THAT(parseJson(nested(65, "[", "", "]")), IsOk());
}

TEST(JsonDepth, AValueInsideTheSixtyFifthArrayIsTooDeep) {
  EXPECT_THAT(parseJson(nested(65, "[", "1", "]")), StatusIs(Code::InvalidFormat, "json: too deep"));
  EXPECT_THAT(parseJson(nested(66, "[", "", "]")), StatusIs(Code::InvalidFormat, "json: too deep"));
}

TEST(JsonDepth, AValueAtDepth64IsAccepted) { EXPECT_THAT(parseJson(nested(64, "[", "1", "]")), IsOk()); }

TEST(JsonDepth, CountsObjectsAsItCountsArrays) {
  EXPECT_THAT(parseJson(nested(64, "{\"a\":", "1", "}")), IsOk());
  EXPECT_THAT(parseJson(nested(64, "{\"a\":", "{}", "}")), IsOk());
  EXPECT_THAT(parseJson(nested(65, "{\"a\":", "1", "}")), StatusIs(Code::InvalidFormat, "json: too deep"));
}

TEST(JsonDepth, CountsAMixtureOfBoth) {
  EXPECT_THAT(parseJson(nested(32, "[{\"a\":", "1", "}]")), IsOk());
  EXPECT_THAT(parseJson(nested(32, "[{\"a\":", "[1]", "}]")),
              StatusIs(Code::InvalidFormat, "json: too deep"));
}

TEST(JsonDepth, IsJudgedBeforeTheEndOfInputIsSeen) {
  EXPECT_THAT(parseJson(std::string(64, '[')), StatusIs(Code::InvalidFormat, "json: unexpected end"));
  EXPECT_THAT(parseJson(std::string(65, '[') + " "), StatusIs(Code::InvalidFormat, "json: too deep"));
  EXPECT_THAT(parseJson(std::string(100000, '[')), StatusIs(Code::InvalidFormat, "json: too deep"));
}

TEST(JsonDepth, SiblingsDoNotAddUp) {
  std::string text = "[";
  for (int k = 0; k < 200; ++k)
    text += "[[]],";
  EXPECT_THAT(parseJson(text + "0]"), IsOk());
}

// ---- truncation

class JsonTruncation : public testing::TestWithParam<const char*> {};

TEST_P(JsonTruncation, IsRefusedAtEveryByte) {
  const std::string text = GetParam();
  ASSERT_THAT(parseJson(text), IsOk());
  for (std::size_t size = 0; size < text.size(); ++size) {
    const Status status = parseJson(text.substr(0, size));
    EXPECT_EQ(status.code(), Code::InvalidFormat) << text.substr(0, size);
    EXPECT_EQ(status.message().substr(0, 6), "json: ") << status.message();
  }
}

INSTANTIATE_TEST_SUITE_P(
    GoodDocuments, JsonTruncation,
    testing::Values("{\"a\": [1, -2.5e3, true, false, null], \"b\\u00e9\\n\": {\"c\": \"\"}}",
                    "[\"\\uD83D\\uDE00 \\\\ \\\" \xC3\xA9\", {}, [], [[]], {\"\": {}}]",
                    "{\"vocab\": {\"<s>\": 0, \"</s>\": 1}, \"merges\": [\"a b\"]}", "\"just a text\"",
                    "true", "null", "false"));

// ---- the tree

TEST(JsonTree, KeepsOrderDuplicatesAndEveryKind) {
  json::Value value;
  ASSERT_THAT(parseJson(R"({"b":1,"a":[true,false,null,"x",{}],"b":2})", value), IsOk());
  EXPECT_EQ(describe(value), "{1:b=0x1p+0;1:a=[true;false;null;1:x;{};];1:b=0x1p+1;}");
}

TEST(JsonTree, KindsHaveTheirNumbers) {
  const auto kindOf = [](const char* text) {
    json::Value value;
    EXPECT_THAT(parseJson(text, value), IsOk());
    return static_cast<int>(value.kind);
  };
  EXPECT_EQ(kindOf("null"), 0);
  EXPECT_EQ(kindOf("true"), 1);
  EXPECT_EQ(kindOf("1"), 2);
  EXPECT_EQ(kindOf("\"\""), 3);
  EXPECT_EQ(kindOf("{}"), 4);
  EXPECT_EQ(kindOf("[]"), 5);
}

TEST(JsonTree, LargeContainersKeepEveryElement) {
  std::string text = "[";
  for (int k = 0; k < 5000; ++k)
    text += std::to_string(k) + ",";
  json::Value value;
  ASSERT_THAT(parseJson(text + "5000]", value), IsOk());
  ASSERT_EQ(value.items.size(), 5001U);
  for (int k = 0; k <= 5000; ++k)
    ASSERT_EQ(value.items[std::size_t(k)].number, k);
}

}  // namespace
}  // namespace zel
