// What the JSON tests share: parsing from text, and texts with the verdict that each must get.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "hf/json_parser.h"

namespace zel::test {

inline Status parseJson(std::string_view text, json::Value& out) {
  // A copy of exactly the text's size: a sanitizer then sees every read beyond its end.
  const std::string exact(text);
  return json::parse(exact.data(), exact.size(), out);
}
inline Status parseJson(std::string_view text) {
  json::Value ignored;
  return parseJson(text, ignored);
}

// The verdict of the reader that keeps nothing.
inline Status skipJson(std::string_view text) {
  const std::string exact(text);
  json::detail::Parser parser(exact.data(), exact.size());
  if (parser.skip(0)) (void)parser.finish();
  return parser.status();
}

// A tree written out again, every field told apart: two trees are equal when these are.
inline std::string describe(const json::Value& value) {
  switch (value.kind) {
    case json::Kind::Null: return "null";
    case json::Kind::Bool: return value.boolean ? "true" : "false";
    case json::Kind::Number: {
      char text[40];
      std::snprintf(text, sizeof text, "%a", value.number);
      return text;
    }
    case json::Kind::String: return std::to_string(value.text.size()) + ":" + value.text;
    case json::Kind::Object: {
      std::string out = "{";
      for (const auto& [key, member] : value.members) {
        out += std::to_string(key.size()) + ":" + key + "=" + describe(member) + ";";
      }
      return out + "}";
    }
    case json::Kind::Array: {
      std::string out = "[";
      for (const json::Value& item : value.items)
        out += describe(item) + ";";
      return out + "]";
    }
  }
  return "?";
}

struct JsonCase {
  const char* name;
  std::string_view text;
  const char* message;  // "" when the text is accepted
};

// The edges of the grammar. A row's verdict follows from the rules alone; where two rows differ by one
// byte, they are the two sides of one edge.
inline constexpr JsonCase kJsonCases[] = {
    // whitespace and ends
    {"Empty", "", "json: unexpected end"},
    {"OnlyWhitespace", " \t\n\r", "json: unexpected end"},
    {"WhitespaceAround", " \t\n\r1 \t\n\r", ""},
    {"FormFeedIsNoWhitespace", "\f1", "json: unexpected char"},
    {"VerticalTabIsNoWhitespaceBehind", "1\v", "json: trailing data"},
    {"NulByteBehind", std::string_view("1\0", 2), "json: trailing data"},
    {"NulByteInFront", std::string_view("\0001", 2), "json: unexpected char"},
    {"ByteOrderMark", "\xEF\xBB\xBF{}", "json: unexpected char"},
    {"NoBreakSpace",
     "\xC2\xA0"
     "1",
     "json: unexpected char"},
    {"TwoValues", "1 2", "json: trailing data"},
    {"TrueFalse", "true false", "json: trailing data"},
    {"CommentBehind", "1 // one", "json: trailing data"},
    // bytes that start no value
    {"ClosingBracket", "]", "json: unexpected char"},
    {"ClosingBrace", "}", "json: unexpected char"},
    {"Comma", ",", "json: unexpected char"},
    {"Colon", ":", "json: unexpected char"},
    {"Plus", "+1", "json: unexpected char"},
    {"FullStop", ".5", "json: unexpected char"},
    {"Infinity", "Infinity", "json: unexpected char"},
    {"NotANumber", "NaN", "json: unexpected char"},
    {"LowerCaseInf", "inf", "json: unexpected char"},
    {"SingleQuote", "'a'", "json: unexpected char"},
    {"HighByte", "\xFF", "json: unexpected char"},
    // literals
    {"True", "true", ""},
    {"False", "false", ""},
    {"Null", "null", ""},
    {"TrueCutByOne", "tru", "json: bad literal"},
    {"FalseCutByOne", "fals", "json: bad literal"},
    {"NullCutByOne", "nul", "json: bad literal"},
    {"UpperCaseInside", "tRue", "json: bad literal"},
    {"UpperCaseInFront", "True", "json: unexpected char"},
    {"NanIsABadNull", "nan", "json: bad literal"},
    {"FalseSpelledFalsy", "falsy", "json: bad literal"},
    {"TrueWithATailAtTheTop", "truex", "json: trailing data"},
    {"TrueWithATailInAnArray", "[truex]", "json: comma"},
    {"TrueWithATailInAnObject", "{\"a\":truex}", "json: comma"},
    {"TrueCutInAnArray", "[tru]", "json: bad literal"},
    // arrays
    {"EmptyArray", "[]", ""},
    {"EmptyArrayWithSpace", "[ \t\n\r]", ""},
    {"OneElement", "[1]", ""},
    {"SpacesBeforeCommaAndBracket", "[1 , 2 ]", ""},
    {"ArrayWithoutEnd", "[", "json: unexpected end"},
    {"ArrayWithoutEndAfterSpace", "[ ", "json: unexpected end"},
    {"ArrayWithoutEndAfterElement", "[1", "json: comma"},
    {"ArrayWithoutEndAfterComma", "[1,", "json: unexpected end"},
    {"ArrayWithTrailingComma", "[1,]", "json: unexpected char"},
    {"ArrayWithLeadingComma", "[,1]", "json: unexpected char"},
    {"ArrayWithTwoCommas", "[1,,2]", "json: unexpected char"},
    {"ElementsWithoutComma", "[1 2]", "json: comma"},
    {"ElementsWithColon", "[1:2]", "json: comma"},
    {"ArrayClosedAsObject", "[1}", "json: comma"},
    {"EmptyArrayClosedAsObject", "[}", "json: unexpected char"},
    {"ArrayClosedTwice", "[]]", "json: trailing data"},
    // objects
    {"EmptyObject", "{}", ""},
    {"EmptyObjectWithSpaces", " { } ", ""},
    {"OneMember", "{\"a\":1}", ""},
    {"SpacesEverywhere", "{ \"a\" : 1 , \"b\" : 2 }", ""},
    {"EmptyKey", "{\"\":1}", ""},
    {"DuplicateKeys", "{\"a\":1,\"a\":2}", ""},
    {"ObjectWithoutEnd", "{", "json: object key"},
    {"ObjectWithoutEndAfterSpace", "{ ", "json: object key"},
    {"ObjectWithoutEndAfterKey", "{\"a\"", "json: colon"},
    {"ObjectWithoutEndInsideKey", "{\"a", "json: unterminated string"},
    {"ObjectWithoutEndAfterColon", "{\"a\":", "json: unexpected end"},
    {"ObjectWithoutEndAfterMember", "{\"a\":1", "json: comma"},
    {"ObjectWithoutEndAfterComma", "{\"a\":1,", "json: object key"},
    {"ObjectWithTrailingComma", "{\"a\":1,}", "json: object key"},
    {"ObjectWithLeadingComma", "{,\"a\":1}", "json: object key"},
    {"KeyWithoutColon", "{\"a\" 1}", "json: colon"},
    {"KeyWithCommaForColon", "{\"a\",1}", "json: colon"},
    {"KeyAlone", "{\"a\"}", "json: colon"},
    {"TwoColons", "{\"a\"::1}", "json: unexpected char"},
    {"MembersWithoutComma", "{\"a\":1 \"b\":2}", "json: comma"},
    {"NumberAsKey", "{1:1}", "json: object key"},
    {"UnquotedKey", "{a:1}", "json: object key"},
    {"SingleQuotedKey", "{'a':1}", "json: object key"},
    {"ObjectClosedAsArray", "{\"a\":1]", "json: comma"},
    {"EmptyObjectClosedAsArray", "{]", "json: object key"},
    {"MemberWithoutValue", "{\"a\":}", "json: unexpected char"},
    {"BadEscapeInAKey", "{\"\\x\":1}", "json: bad escape"},
    {"ControlByteInAKey", "{\"\n\":1}", "json: control char"},
    {"LoneSurrogateInAKey", "{\"\\uDC00\":1}", "json: lone low surrogate"},
    // numbers: the token
    {"Zero", "0", ""},
    {"MinusZero", "-0", ""},
    {"LeadingZeros", "007", ""},
    {"MinusLeadingZero", "-012", ""},
    {"BareFullStopAtTheEnd", "1.", ""},
    {"NoIntegerDigitsAfterMinus", "-.5", ""},
    {"FullStopBeforeExponent", "2.e3", ""},
    {"PlusInTheExponent", "1e+2", ""},
    {"CapitalExponent", "1E-2", ""},
    {"LeadingZerosInTheExponent", "1e0002", ""},
    {"OverflowIsAccepted", "1e999", ""},
    {"UnderflowIsAccepted", "1e-999", ""},
    {"LoneMinus", "-", "json: bad number"},
    {"MinusFullStop", "-.", "json: bad number"},
    {"MinusFullStopExponent", "-.e1", "json: bad number"},
    {"MinusExponent", "-e1", "json: bad number"},
    {"MinusLetter", "-a", "json: bad number"},
    {"MinusInfinity", "-Infinity", "json: bad number"},
    {"TwoMinuses", "--1", "json: bad number"},
    {"BareExponent", "1e", "json: bad number"},
    {"BareCapitalExponent", "1E", "json: bad number"},
    {"ExponentSignWithoutDigits", "1e+", "json: bad number"},
    {"ExponentMinusWithoutDigits", "1.5e-", "json: bad number"},
    {"Hexadecimal", "0x10", "json: trailing data"},
    {"TwoFullStops", "1.2.3", "json: trailing data"},
    {"TwoExponents", "1e2e3", "json: trailing data"},
    {"DigitSeparator", "1_000", "json: trailing data"},
    {"HexadecimalInAnArray", "[0x10]", "json: comma"},
    {"MinusInsideANumber", "1-2", "json: trailing data"},
    {"Digits63", "123456789012345678901234567890123456789012345678901234567890123", ""},
    {"Digits64", "1234567890123456789012345678901234567890123456789012345678901234", "json: number too long"},
    {"MinusAndDigits62", "-12345678901234567890123456789012345678901234567890123456789012", ""},
    {"MinusAndDigits63", "-123456789012345678901234567890123456789012345678901234567890123",
     "json: number too long"},
    // The length is judged before the form: 62 digits, an e and a minus without digits are 64 bytes.
    {"TooLongBeforeBad", "12345678901234567890123456789012345678901234567890123456789012e-",
     "json: number too long"},
    {"BadAt63", "1234567890123456789012345678901234567890123456789012345678901e-", "json: bad number"},
    {"ZerosAlone64", "0000000000000000000000000000000000000000000000000000000000000000",
     "json: number too long"},
    // strings: ends and control bytes
    {"EmptyString", "\"\"", ""},
    {"StringWithoutEnd", "\"", "json: unterminated string"},
    {"StringWithoutEndAfterText", "\"abc", "json: unterminated string"},
    {"StringWithoutEndAfterEscape", "\"\\n", "json: unterminated string"},
    {"StringWithoutEndAfterEscapedQuote", "\"\\\"", "json: unterminated string"},
    {"BackslashAtTheEnd", "\"\\", "json: escape"},
    {"BackslashAtTheEndAfterText", "\"abcdefgh\\", "json: escape"},
    {"RawTab", "\"\t\"", "json: control char"},
    {"RawNul", std::string_view("\"\0\"", 3), "json: control char"},
    {"Raw1F", "\"\x1F\"", "json: control char"},
    {"Raw20", "\"\x20\"", ""},
    {"Raw7F", "\"\x7F\"", ""},
    {"Raw80", "\"\x80\"", ""},
    {"RawFF", "\"\xFF\"", ""},
    {"RawUtf8", "\"\xC3\xA9\"", ""},
    {"TruncatedUtf8", "\"\xE2\x82\"", ""},
    {"ControlByteBehindEightPlainBytes", "\"abcdefgh\x01\"", "json: control char"},
    {"ControlByteBeforeABadEscape", "\"\x01\\x\"", "json: control char"},
    {"BadEscapeBeforeAControlByte", "\"\\x\x01\"", "json: bad escape"},
    // strings: escapes
    {"AllShortEscapes", R"("\"\\\/\b\f\n\r\t")", ""},
    {"EscapedA", R"("\a")", "json: bad escape"},
    {"EscapedV", R"("\v")", "json: bad escape"},
    {"EscapedZero", R"("\0")", "json: bad escape"},
    {"EscapedQuote", R"("\'")", "json: bad escape"},
    {"EscapedCapitalN", R"("\N")", "json: bad escape"},
    {"EscapedCapitalU", R"("\U0041")", "json: bad escape"},
    {"EscapedHighByte", "\"\\\xC3\xA9\"", "json: bad escape"},
    {"UnicodeEscape", R"("\u0041")", ""},
    {"UnicodeNul", R"("\u0000")", ""},
    {"UnicodeEscapeMixedCase", R"("\uaBcD")", ""},
    {"UnicodeEscapeTwoDigits", R"("\u12")", "json: \\u"},
    {"UnicodeEscapeThreeDigitsAndAQuote", R"("\u123")", "json: \\u"},
    {"UnicodeEscapeThreeDigitsAtTheEnd", R"("\u123)", "json: \\u"},
    {"UnicodeEscapeNoDigitsAtTheEnd", R"("\u)", "json: \\u"},
    {"UnicodeEscapeWithoutEnd", R"("\u1234)", "json: unterminated string"},
    {"UnicodeEscapeBadDigit", R"("\u12G4")", "json: \\u"},
    {"UnicodeEscapeSlash", R"("\u/041")", "json: \\u"},
    {"UnicodeEscapeColon", R"("\u:041")", "json: \\u"},
    {"UnicodeEscapeAt", R"("\u@041")", "json: \\u"},
    {"UnicodeEscapeBacktick", R"("\u`041")", "json: \\u"},
    {"UnicodeEscapeSmallG", R"("\ug041")", "json: \\u"},
    {"UnicodeEscapeSign", R"("\u+041")", "json: \\u"},
    {"UnicodeEscapeSpace", R"("\u 041")", "json: \\u"},
    // strings: surrogates
    {"SurrogatePair", R"("\uD83D\uDE00")", ""},
    {"LastBeforeTheHighSurrogates", R"("\uD7FF")", ""},
    {"FirstHighSurrogateAlone", R"("\uD800")", "json: surrogate pair"},
    {"LastHighSurrogateAlone", R"("\uDBFF")", "json: surrogate pair"},
    {"FirstLowSurrogateAlone", R"("\uDC00")", "json: lone low surrogate"},
    {"LastLowSurrogateAlone", R"("\uDFFF")", "json: lone low surrogate"},
    {"FirstAfterTheSurrogates", R"("\uE000")", ""},
    {"HighSurrogateAndSpace", R"("\uD83D ")", "json: surrogate pair"},
    {"HighSurrogateAndPlainText", R"("\uD83DuDE00")", "json: surrogate pair"},
    {"HighSurrogateAndOtherEscape", R"("\uD83D\n12345")", "json: surrogate pair"},
    {"HighSurrogateTwice", R"("\uD83D\uD83D")", "json: surrogate pair"},
    {"HighSurrogateAndBeforeTheLowOnes", R"("\uD83D\uDBFF")", "json: surrogate pair"},
    {"HighSurrogateAndBehindTheLowOnes", R"("\uD83D\uE000")", "json: surrogate pair"},
    {"HighSurrogateAndLetter", R"("\uD83D\u0041")", "json: surrogate pair"},
    {"HighSurrogateAndBadDigit", R"("\uD83D\uDE0G")", "json: surrogate pair"},
    {"HighSurrogateAtTheEnd", R"("\uD83D)", "json: surrogate pair"},
    {"HighSurrogateAndCutLowOne", R"("\uD83D\uDE0)", "json: surrogate pair"},
    {"HighSurrogateAndThreeDigitsThenAQuote", R"("\uD83D\uDE0")", "json: surrogate pair"},
    {"HighSurrogateAndWholeLowOneAtTheEnd", R"("\uD83D\uDE00)", "json: unterminated string"},
    // the first failure wins
    {"FirstOfTwoFailures", "[1,,\"\\x\"]", "json: unexpected char"},
    {"NestedFailureComesUpUnchanged", "[[[[{\"a\":[\"\\q\"]}]]]]", "json: bad escape"},
};

}  // namespace zel::test
