#include "container/status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>

#include "support/status_matchers.h"

namespace zel {
namespace {

using test::IsOk;
using test::StatusIs;

TEST(Status, IsSuccessWithoutAMessageByDefault) {
  const Status status;
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(status.code(), Code::OK);
  EXPECT_EQ(status.message(), "");
}

struct NamedCode {
  unsigned value;
  const char* name;
};

class CodeName : public testing::TestWithParam<NamedCode> {};

TEST_P(CodeName, IsTheNameInTheTable) {
  const auto code = static_cast<Code>(GetParam().value);
  EXPECT_STREQ(Status(code, "x").codeName(), GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(AllKnownAndSomeUnknown, CodeName,
                         testing::Values(NamedCode{0, "OK"}, NamedCode{1, "InvalidFormat"},
                                         NamedCode{2, "Unsupported"}, NamedCode{3, "Corrupted"},
                                         NamedCode{4, "IOError"}, NamedCode{5, "Unknown"},
                                         NamedCode{128, "Unknown"}, NamedCode{255, "Unknown"}),
                         [](const auto& row) { return "code" + std::to_string(row.param.value); });

TEST(Status, FactoriesSetTheirCodeAndKeepTheWholeMessage) {
  EXPECT_THAT(invalidFormat("hf: a"), StatusIs(Code::InvalidFormat, "hf: a"));
  EXPECT_THAT(unsupported("json: b"), StatusIs(Code::Unsupported, "json: b"));
  EXPECT_THAT(corrupted("torch: c"), StatusIs(Code::Corrupted, "torch: c"));
  EXPECT_THAT(ioError("OKV2: d"), StatusIs(Code::IOError, "OKV2: d"));
}

TEST(Status, CodeTakesOneByte) {
  static_assert(sizeof(Code) == 1);
  static_assert(std::is_same_v<std::underlying_type_t<Code>, std::uint8_t>);
}

TEST(Status, MovesWithoutThrowing) {
  static_assert(std::is_nothrow_move_constructible_v<Status>);
  static_assert(std::is_nothrow_move_assignable_v<Status>);
  Status from = corrupted("a message that is too long for any small-string buffer there is");
  const Status to = std::move(from);
  EXPECT_THAT(to,
              StatusIs(Code::Corrupted, "a message that is too long for any small-string buffer there is"));
}

Status failAtTheSecond(int& reached) {
  ZEL_RETURN_IF_ERROR(Status());
  reached = 1;
  ZEL_RETURN_IF_ERROR(ioError("x: second"));
  reached = 2;
  return {};
}

TEST(ReturnIfError, PassesTheFirstFailureOnUnchangedAndStops) {
  int reached = 0;
  EXPECT_THAT(failAtTheSecond(reached), StatusIs(Code::IOError, "x: second"));
  EXPECT_EQ(reached, 1);
}

}  // namespace
}  // namespace zel
