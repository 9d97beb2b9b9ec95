#include "okv2/escape.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace zel::tool {
namespace {

struct Row {
  const char* name;
  std::string_view text;
  std::string_view shown;
};

class EscapedText : public testing::TestWithParam<Row> {};

INSTANTIATE_TEST_SUITE_P(
    Escape, EscapedText,
    testing::Values(Row{"Plain", "blk.0.attn_q.weight", "blk.0.attn_q.weight"}, Row{"Empty", "", ""},
                    Row{"LineBreaks", "a\nb\rc\td", "a\\nb\\rc\\td"},
                    Row{"Nul", std::string_view("a\0b", 3), "a\\x00b"}, Row{"Escape", "\x1B[2J", "\\x1B[2J"},
                    Row{"LastC0", "\x1F ", "\\x1F "}, Row{"Delete", "~\x7F", "~\\x7F"},
                    Row{"Backslash", "a\\nb", "a\\\\nb"}, Row{"TwoBytes", "\xC3\xA9", "\xC3\xA9"},
                    Row{"LastC1", "\xC2\x9F", "\\xC2\\x9F"}, Row{"FirstAfterC1", "\xC2\xA0", "\xC2\xA0"},
                    Row{"ThreeBytes", "\xE2\x82\xAC", "\xE2\x82\xAC"},
                    Row{"FourBytes", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
                    Row{"LoneContinuation", "\x80", "\\x80"}, Row{"CutSequence", "\xE2\x82", "\\xE2\\x82"},
                    Row{"Overlong", "\xC0\xAF", "\\xC0\\xAF"},
                    Row{"Overlong3", "\xE0\x9F\xBF", "\\xE0\\x9F\\xBF"},
                    Row{"Surrogate", "\xED\xA0\x80", "\\xED\\xA0\\x80"},
                    Row{"LastBeforeSurrogates", "\xED\x9F\xBF", "\xED\x9F\xBF"},
                    Row{"BeyondUnicode", "\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_P(EscapedText, IsShown) { EXPECT_EQ(escaped(GetParam().text), GetParam().shown); }

TEST(Escape, CutsAfterTheGivenBytesOnly) {
  EXPECT_EQ(escapedCut("abcd", 4), "abcd");
  EXPECT_EQ(escapedCut("abcde", 4), "abcd...");
}

TEST(Escape, DoesNotCutThroughACharacter) { EXPECT_EQ(escapedCut("abc\xC3\xA9", 4), "abc..."); }

}  // namespace
}  // namespace zel::tool
