// The faster way through long lists: what it takes, and what it leaves to the general way. That both together
// read what the general way reads alone is for tokenizer_json_reference_test.cpp.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "json_support.h"

namespace zel {
namespace {

using json::Kind;
using json::detail::Parser;

// Keeps whatever is tested within reach: the last 64 bytes of a text are left to the general way.
const std::string kTail = "," + std::string(200, ' ') + "\"end\"]";

// Inside a list, before its first element: the opening bracket and the separators are the caller's.
class Walk {
 public:
  explicit Walk(std::string_view text)
      : text_(text.begin(), text.end()), parser_(text_.data(), text_.size()) {}

  std::vector<std::string> elements() {
    std::vector<std::string> out;
    parser_.plainElements([&](std::string_view text, std::size_t left) {
      out.emplace_back(text);
      EXPECT_EQ(left, std::size_t(text_.data() + text_.size() - text.data()));
      EXPECT_GE(left, Parser::kShortText);
    });
    return out;
  }
  std::vector<std::pair<std::string, std::int64_t>> members() {
    std::vector<std::pair<std::string, std::int64_t>> out;
    parser_.plainMembers([&](std::string_view key, std::size_t left, std::int64_t value) {
      out.emplace_back(key, value);
      EXPECT_EQ(left, std::size_t(text_.data() + text_.size() - key.data()));
    });
    return out;
  }
  std::string_view rest() const {
    return {text_.data() + text_.size() - parser_.remaining(), parser_.remaining()};
  }

 private:
  const std::vector<char> text_;  // of the text's size: a sanitizer then sees every read beyond its end
  Parser parser_;
};

using Members = std::vector<std::pair<std::string, std::int64_t>>;
using Elements = std::vector<std::string>;

TEST(JsonPlainElements, AreTakenUpToTheLast) {
  Walk walk("\"a\",\"\",\"\xC3\xA9 \x7F/\",\"b\"" + kTail);
  EXPECT_EQ(walk.elements(), (Elements{"a", "", "\xC3\xA9 \x7F/", "b"}));
  EXPECT_EQ(walk.rest(), "\"end\"]");
}

// Around what the walk looks at in one step: 16 and 64 bytes.
TEST(JsonPlainElements, HaveAnyLength) {
  for (std::size_t length = 0; length < 300; ++length) {
    const std::string text(length, 'x');
    Walk walk("\"" + text + "\",\"y\",\"" + text + "\"" + kTail);
    ASSERT_EQ(walk.elements(), (Elements{text, "y", text})) << length;
    ASSERT_EQ(walk.rest(), "\"end\"]") << length;
  }
}

TEST(JsonPlainElements, MayHaveAnySpaceBehindTheComma) {
  for (std::size_t spaces = 0; spaces < 200; ++spaces) {
    const std::string space = std::string(spaces, ' ');
    Walk walk("\"a\"," + space + "\"b\",\n\t\r " + space + "\"c\"" + kTail);
    ASSERT_EQ(walk.elements(), (Elements{"a", "b", "c"})) << spaces;
  }
}

// There is no byte behind the space to look at.
TEST(JsonPlainElements, EndBeforeAnElementThatOnlySpaceFollows) {
  const std::string text = "\"a\"," + std::string(80, ' ');
  Walk walk(text);
  EXPECT_EQ(walk.elements(), Elements{});
  EXPECT_EQ(walk.rest(), text);
}

// Wherever it lies in the 64 bytes that are looked at together.
TEST(JsonPlainElements, EndBeforeAnyOtherKindOfElement) {
  for (const char* other : {"\"\\n\"", "\"abc\\\"\"", "\"a\tb\"", "\"a\x1F\"", "\"a\" ", "\"a\":1", "\"a\"]",
                            "\"a\"\"b\"", "\"a\"x"}) {
    for (std::size_t length = 0; length < 130; ++length) {
      const std::string before(length, 'x');
      const std::string rest = other + kTail;
      Walk walk("\"p\",\"" + before + "\"," + rest);
      ASSERT_EQ(walk.elements(), (Elements{"p", before})) << other << length;
      ASSERT_EQ(walk.rest(), rest) << other << length;
    }
  }
}

// An element is taken when a string follows, which the caller then reads.
TEST(JsonPlainElements, EndBeforeTheElementThatNoStringFollows) {
  for (const char* next : {"1", "[\"b\"]", "{}", "]", "", ",\"b\"", "null", "x"}) {
    const std::string rest = std::string("\"b\", ") + next + kTail;
    Walk walk("\"a\"," + rest);
    ASSERT_EQ(walk.elements(), Elements{"a"}) << next;
    ASSERT_EQ(walk.rest(), rest) << next;
  }
}

// 64 bytes from its closing quote on are needed to take one.
TEST(JsonPlainElements, EndWhereTheTextIsNearItsEnd) {
  const auto taken = [](std::size_t behind) {
    return Walk("\"" + std::string(100, 'x') + "\",\"" + std::string(behind - 3, 'y')).elements().size();
  };
  EXPECT_EQ(taken(64), 1U);
  EXPECT_EQ(taken(63), 0U);
  EXPECT_EQ(Walk("\"a\",\"" + std::string(59, 'y')).elements().size(),
            0U);  // 64 bytes in all, 62 from the quote
  EXPECT_EQ(Walk("\"a\",\"b\"").elements().size(), 0U);
  EXPECT_EQ(Walk("\"").elements().size(), 0U);
}

TEST(JsonPlainElements, AreNotTakenFromATextWithoutAnEnd) {
  for (std::size_t length = 0; length < 300; ++length) {
    const std::string text = "\"" + std::string(length, 'x');
    Walk walk(text);
    ASSERT_EQ(walk.elements(), Elements{}) << length;
    ASSERT_EQ(walk.rest(), text) << length;
  }
}

TEST(JsonPlainMembers, AreTakenWithAValueOfUpToSevenDigits) {
  Walk walk("\"a\":0,\"b\":1234567,\n  \"\": 90,\"c\":007" + kTail);
  EXPECT_EQ(walk.members(), (Members{{"a", 0}, {"b", 1234567}, {"", 90}, {"c", 7}}));
  EXPECT_EQ(walk.rest(), "\"end\"]");
}

TEST(JsonPlainMembers, EndBeforeAMemberOfAnyOtherKind) {
  for (const char* other :
       {"\"b\":12345678", "\"b\":-1", "\"b\":1.0", "\"b\":1e0", "\"b\":", "\"b\":  1", "\"b\" :1",
        "\"b\":\t1", "\"b\":1 ", "\"b\":\"1\"", "\"b\":null", "\"b\":[1]", "\"b\"", "\"b\":1}",
        "\"b\":1:", "\"\\u0062\":1", "\"b\n\":1", "\"b\":1a", "\"b\":0x1"}) {
    const std::string rest = other + kTail;
    Walk walk("\"a\":5," + rest);
    ASSERT_EQ(walk.members(), (Members{{"a", 5}})) << other;
    ASSERT_EQ(walk.rest(), rest) << other;
  }
}

// How many elements were taken before each that was read in the general way.
std::vector<std::size_t> takenBeforeEach(const std::string& list) {
  const std::string text = "[" + list;
  Parser parser(text.data(), text.size());
  std::vector<std::size_t> out;
  Kind kind;
  EXPECT_TRUE(parser.peek(kind, 0));
  EXPECT_TRUE(parser.elements([&] {
    std::size_t count = 0;
    std::string ignored;
    if (!parser.peek(kind, 1)) return false;
    parser.plainElements([&](std::string_view, std::size_t) { ++count; });
    out.push_back(count);
    return parser.string(ignored);
  })) << list;
  return out;
}

// Looking for plain texts behind each of many escapes would cost more than it gains.
TEST(JsonPlainElements, AreNotLookedForDuringSixteenElementsWhereFewerThanEightCameAtOnce) {
  const auto list = [](std::size_t plain) {
    std::string out;
    for (std::size_t k = 0; k < plain; ++k)
      out += "\"p\",";
    out += "\"\\n\"";
    for (std::size_t k = 0; k < 20; ++k)
      out += ",\"q\"";
    return out + kTail;
  };
  std::vector<std::size_t> expected(18, 0);
  expected.front() = 7;
  expected.back() = 4;
  EXPECT_EQ(takenBeforeEach(list(7)), expected);
  EXPECT_EQ(takenBeforeEach(list(8)), (std::vector<std::size_t>{8, 20}));
}

TEST(JsonLiterally, ConsumesWhatItNamesAndNothingElse) {
  const std::string text = "{\"dtype\":";
  Parser parser(text.data(), text.size());
  EXPECT_FALSE(parser.literally("{\"dtype\": "));
  EXPECT_FALSE(parser.literally("{\"Dtype\":"));
  EXPECT_EQ(parser.remaining(), text.size());
  EXPECT_TRUE(parser.literally("{\"dtype\""));
  EXPECT_EQ(parser.remaining(), 1U);
  EXPECT_TRUE(parser.literally(":"));
  EXPECT_TRUE(parser.literally(""));
  EXPECT_FALSE(parser.literally(":"));
}

// The next three give the parser a block of the text's own size, so that a sanitizer sees a read behind it.
TEST(JsonLiterally, ReadsNothingBehindTheEnd) {
  const std::vector<char> text = {'{', '"', 'd'};
  Parser parser(text.data(), text.size());
  EXPECT_FALSE(parser.literally("{\"dtype\":"));
  EXPECT_EQ(parser.remaining(), text.size());
  EXPECT_TRUE(parser.literally("{\"d"));
}

TEST(JsonPlainText, ReadsNothingBehindTheEnd) {
  const std::vector<char> text = {'B', 'F', '1', '6'};
  Parser parser(text.data(), text.size());
  std::string_view out;
  EXPECT_FALSE(parser.plainText(out));
}

TEST(JsonShortIntegers, ReadNothingBehindTheEnd) {
  const std::vector<char> text = {'1', ',', '2'};
  Parser parser(text.data(), text.size());
  std::uint64_t values[2];
  std::size_t count;
  EXPECT_FALSE(parser.shortIntegers(values, 2, count));
}

TEST(JsonPlainText, EndsAtItsQuote) {
  const std::string text = "BF16\",";
  Parser parser(text.data(), text.size());
  std::string_view out;
  EXPECT_TRUE(parser.plainText(out));
  EXPECT_EQ(out, "BF16");
  EXPECT_EQ(parser.remaining(), 1U);
}

TEST(JsonPlainText, IsNoneWithAnEscapeAControlByteOrNoEnd) {
  for (const std::string text : {"a\\u0062\"", "a\n\"", "a", ""}) {
    Parser parser(text.data(), text.size());
    std::string_view out;
    EXPECT_FALSE(parser.plainText(out)) << text;
  }
}

// The first two, and how many there are.
struct Integers {
  bool ok = false;
  std::size_t count = 0;
  std::uint64_t values[2] = {};
  std::size_t left = 0;
};
Integers integersOf(const std::string& text) {
  Parser parser(text.data(), text.size());
  Integers out;
  out.ok = parser.shortIntegers(out.values, 2, out.count);
  out.left = parser.remaining();
  return out;
}

TEST(JsonShortIntegers, AreStoredAsFarAsThereIsRoomAndAllCounted) {
  const Integers three = integersOf("7,123456789012345,9],");
  EXPECT_TRUE(three.ok);
  EXPECT_EQ(three.count, 3U);
  EXPECT_EQ(three.values[0], 7U);
  EXPECT_EQ(three.values[1], 123456789012345U);
  EXPECT_EQ(three.left, 1U);
  const Integers none = integersOf("]");
  EXPECT_TRUE(none.ok);
  EXPECT_EQ(none.count, 0U);
}

TEST(JsonShortIntegers, AreNoneOfAnotherSpelling) {
  for (const char* text : {"", "1", "1,", "1,]", "-1]", "1.0]", "1e0]", "1234567890123456]", "1 ]", "1, 2]",
                           " 1]", "1}", "null]", "\"1\"]", "[1]]", ",1]"}) {
    EXPECT_FALSE(integersOf(text).ok) << text;
  }
}

// What a machine without registers of sixteen bytes does.
TEST(JsonEndsOfRuns, AreTheSameByteByByte) {
  for (unsigned byte = 0; byte < 256; ++byte) {
    for (std::size_t at = 0; at < 16; ++at) {
      char text[] = "0123456789abcdef";
      text[at] = char(byte);
      const bool ends = byte < 0x20 || byte == '"' || byte == '\\';
      ASSERT_EQ(json::detail::endsOfRuns16(text), ends ? 1U << at : 0U) << byte << " at " << at;
      ASSERT_EQ(json::detail::endsOfRuns16ByteByByte(text), ends ? 1U << at : 0U) << byte << " at " << at;
    }
  }
}

}  // namespace
}  // namespace zel
