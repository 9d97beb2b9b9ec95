#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "json_support.h"
#include "support/status_matchers.h"

namespace zel {
namespace {

using test::IsOk;
using test::parseJson;
using test::StatusIs;

std::string decoded(const std::string& text) {
  json::Value value;
  EXPECT_THAT(parseJson(text, value), IsOk()) << text;
  EXPECT_TRUE(value.isString());
  return value.text;
}

TEST(JsonString, DecodesTheEightShortEscapes) {
  EXPECT_EQ(decoded(R"("\"\\\/\b\f\n\r\t")"), "\x22\x5C\x2F\x08\x0C\x0A\x0D\x09");
}

TEST(JsonString, RefusesEveryOtherEscapedByte) {
  for (int byte = 0; byte < 256; ++byte) {
    if (byte == 'u' || std::string_view("\"\\/bfnrt").find(char(byte)) != std::string_view::npos) continue;
    EXPECT_THAT(parseJson(std::string("\"\\") + char(byte) + "\""),
                StatusIs(Code::InvalidFormat, "json: bad escape"))
        << byte;
  }
}

TEST(JsonString, CopiesEveryByteFrom20ToFFThatIsNeitherQuoteNorBackslash) {
  for (int byte = 0; byte < 256; ++byte) {
    if (byte == '"' || byte == '\\') continue;
    const std::string text = std::string("\"a") + char(byte) + "b\"";
    if (byte < 0x20) {
      EXPECT_THAT(parseJson(text), StatusIs(Code::InvalidFormat, "json: control char")) << byte;
    } else {
      EXPECT_EQ(decoded(text), std::string("a") + char(byte) + "b") << byte;
    }
  }
}

// Runs of plain bytes are looked at several at a time: every length and every place of what ends one.
TEST(JsonString, FindsWhatEndsAPlainRunAtEveryOffset) {
  for (const char filler : {'a', '\x7F', '\x80', '\xA2', '\xDC', '\xFF', ' ', '!', '#', '[', ']'}) {
    for (std::size_t before = 0; before < 36; ++before) {
      for (std::size_t after = 0; after < 20; ++after) {
        const std::string head = std::string(before, filler);
        const std::string tail = std::string(after, filler);
        EXPECT_EQ(decoded("\"" + head + "\\n" + tail + "\""), head + "\n" + tail);
        EXPECT_THAT(parseJson("\"" + head + "\x1F" + tail + "\""),
                    StatusIs(Code::InvalidFormat, "json: control char"));
        if (filler != ' ') {
          EXPECT_THAT(parseJson("\"" + head + "\"" + filler + tail),
                      StatusIs(Code::InvalidFormat, "json: trailing data"));
        }
      }
    }
  }
}

TEST(JsonString, EncodesEveryCodeUnitThatIsNoSurrogate) {
  for (unsigned unit = 0; unit < 0x10000; ++unit) {
    if (unit >= 0xD800 && unit <= 0xDFFF) continue;
    char text[16];
    std::snprintf(text, sizeof text, unit % 2 == 0 ? "\"\\u%04x\"" : "\"\\u%04X\"", unit);
    std::string utf8;
    if (unit < 0x80) {
      utf8 = {char(unit)};
    } else if (unit < 0x800) {
      utf8 = {char(0xC0 + unit / 64), char(0x80 + unit % 64)};
    } else {
      utf8 = {char(0xE0 + unit / 4096), char(0x80 + unit / 64 % 64), char(0x80 + unit % 64)};
    }
    ASSERT_EQ(decoded(text), utf8) << text;
  }
}

TEST(JsonString, EncodesTheEdgesOfEachUtf8Length) {
  EXPECT_EQ(decoded(R"("\u0000")"), std::string("\0", 1));
  EXPECT_EQ(decoded(R"("\u007F")"), "\x7F");
  EXPECT_EQ(decoded(R"("\u0080")"), "\xC2\x80");
  EXPECT_EQ(decoded(R"("\u07FF")"), "\xDF\xBF");
  EXPECT_EQ(decoded(R"("\u0800")"), "\xE0\xA0\x80");
  EXPECT_EQ(decoded(R"("\uFFFF")"), "\xEF\xBF\xBF");
}

TEST(JsonString, JoinsSurrogatePairsIntoFourBytes) {
  EXPECT_EQ(decoded(R"("\uD83D\uDE00")"), "\xF0\x9F\x98\x80");
  EXPECT_EQ(decoded(R"("\ud83d\ude00")"), "\xF0\x9F\x98\x80");
  EXPECT_EQ(decoded(R"("\uD800\uDC00")"), "\xF0\x90\x80\x80") << "U+10000";
  EXPECT_EQ(decoded(R"("\uDBFF\uDFFF")"), "\xF4\x8F\xBF\xBF") << "U+10FFFF";
  EXPECT_EQ(decoded(R"("a\uD83D\uDE00b")"),
            "a\xF0\x9F\x98\x80"
            "b");
}

TEST(JsonString, RefusesEveryLoneSurrogate) {
  for (unsigned unit = 0xD800; unit <= 0xDFFF; ++unit) {
    char text[16];
    std::snprintf(text, sizeof text, "\"\\u%04X\"", unit);
    ASSERT_THAT(parseJson(text), StatusIs(Code::InvalidFormat, unit < 0xDC00 ? "json: surrogate pair"
                                                                             : "json: lone low surrogate"));
  }
}

TEST(JsonString, EveryByteInPlaceOfAHexDigitThatIsNoneIsRefused) {
  for (int byte = 0; byte < 256; ++byte) {
    const bool hex = std::string_view("0123456789abcdefABCDEF").find(char(byte)) != std::string_view::npos;
    for (std::size_t place = 0; place < 4; ++place) {
      std::string text = R"("\u0000")";
      text[3 + place] = char(byte);
      if (hex && !(place == 0 && (byte == 'd' || byte == 'D'))) {
        EXPECT_THAT(parseJson(text), IsOk()) << byte;
      } else if (!hex) {
        EXPECT_THAT(parseJson(text), StatusIs(Code::InvalidFormat, "json: \\u")) << byte << " " << place;
      }
    }
  }
}

TEST(JsonString, DoesNotValidateUtf8) {
  for (const char* bytes : {"\xC3", "\xC0\x80", "\xED\xA0\x80", "\xF8\x88\x80\x80\x80", "\xFE\xFF", "\xE9"}) {
    EXPECT_EQ(decoded(std::string("\"") + bytes + "\""), bytes);
  }
}

TEST(JsonString, ManyEscapesInARowAllArrive) {
  std::string text = "\"";
  std::string expected;
  for (int k = 0; k < 1000; ++k) {
    text += "\\\\\\\"\\u0041";
    expected += "\\\"A";
  }
  EXPECT_EQ(decoded(text + "\""), expected);
}

TEST(JsonString, ReplacesWhatTheValueHeldBefore) {
  json::Value value;
  ASSERT_THAT(parseJson("\"a long first text with an \\n escape\"", value), IsOk());
  ASSERT_THAT(parseJson("\"\\t\"", value), IsOk());
  EXPECT_EQ(value.text, "\t");
}

// ---- strings that are borrowed

TEST(JsonStringView, BorrowsPlainTextAndUsesTheScratchForEscapes) {
  const std::string text = R"("plain")";
  json::detail::Parser plain(text.data(), text.size());
  std::string_view out;
  std::string scratch;
  json::Kind kind;
  ASSERT_TRUE(plain.peek(kind, 0));
  ASSERT_TRUE(plain.stringView(out, scratch));
  EXPECT_EQ(out, "plain");
  EXPECT_EQ(static_cast<const void*>(out.data()), text.data() + 1);

  const std::string withEscape = R"("a\u0062\n")";
  json::detail::Parser escaped(withEscape.data(), withEscape.size());
  ASSERT_TRUE(escaped.peek(kind, 0));
  ASSERT_TRUE(escaped.stringView(out, scratch));
  EXPECT_EQ(out, "ab\n");
  EXPECT_EQ(out.data(), scratch.data());
}

}  // namespace
}  // namespace zel
