// Parser::skip() keeps nothing, but must judge every text as parse() does: same verdict, same message. The
// same holds for a walk member by member.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "json_support.h"
#include "support/corpus.h"
#include "support/status_matchers.h"

namespace zel {
namespace {

using json::Kind;
using json::detail::Parser;
using test::describe;
using test::IsOk;
using test::parseJson;
using test::skipJson;
using test::StatusIs;

// Builds the tree through peek() and the single readers instead of value().
bool walk(Parser& parser, json::Value& out, std::size_t depth) {
  if (!parser.peek(out.kind, depth)) return false;
  switch (out.kind) {
    case Kind::Null:
    case Kind::Bool: return parser.literal(out.kind, out.boolean);
    case Kind::Number: return parser.number(out.number);
    case Kind::String: {
      std::string_view view;
      std::string scratch;
      if (!parser.stringView(view, scratch)) return false;
      out.text = view;
      return true;
    }
    case Kind::Object:
      return parser.object([&](std::string_view key) {
        out.members.emplace_back(std::string(key), json::Value());
        return walk(parser, out.members.back().second, depth + 1);
      });
    case Kind::Array:
      return parser.elements([&] { return walk(parser, out.items.emplace_back(), depth + 1); });
  }
  return false;
}

Status walkJson(std::string_view text, json::Value& out) {
  const std::string exact(text);
  Parser parser(exact.data(), exact.size());
  if (walk(parser, out, 0)) (void)parser.finish();
  return parser.status();
}

void expectAllAgree(std::string_view text) {
  json::Value parsed;
  const Status status = parseJson(text, parsed);
  ASSERT_THAT(skipJson(text), StatusIs(status.code(), status.message())) << text;
  json::Value walked;
  ASSERT_THAT(walkJson(text, walked), StatusIs(status.code(), status.message())) << text;
  if (status.ok()) {
    ASSERT_EQ(describe(walked), describe(parsed));
  }
}

TEST(JsonSkip, JudgesEveryGrammarCaseAsParseDoes) {
  for (const test::JsonCase& row : test::kJsonCases) {
    expectAllAgree(row.text);
    expectAllAgree("[0, " + std::string(row.text) + " ]");
    expectAllAgree("{\"k\" : " + std::string(row.text) + " , \"l\": 1}");
    expectAllAgree("{" + std::string(row.text) + ": 1}");
    if (HasFatalFailure()) return;
  }
}

TEST(JsonSkip, ReportsTheMessageItselfForATable) {
  EXPECT_THAT(skipJson("{\"a\":[1,2,{\"b\":null}]} "), IsOk());
  EXPECT_THAT(skipJson("[1,]"), StatusIs(Code::InvalidFormat, "json: unexpected char"));
  EXPECT_THAT(skipJson("\"\\uD83D \""), StatusIs(Code::InvalidFormat, "json: surrogate pair"));
  EXPECT_THAT(skipJson("[1] 2"), StatusIs(Code::InvalidFormat, "json: trailing data"));
  EXPECT_THAT(skipJson(std::string(66, '[') + std::string(66, ']')),
              StatusIs(Code::InvalidFormat, "json: too deep"));
  EXPECT_THAT(skipJson(std::string(65, '[') + std::string(65, ']')), IsOk());
}

std::string randomDocument(std::mt19937& random, int depth) {
  static const std::vector<std::string> leaves = {"null",
                                                  "true",
                                                  "false",
                                                  "0",
                                                  "-1.5e3",
                                                  "007",
                                                  "1.",
                                                  "-.5",
                                                  "\"\"",
                                                  "\"a\"",
                                                  "\"\\n\"",
                                                  "\"\\u00e9\"",
                                                  "\"\\uD83D\\uDE00\"",
                                                  "\"plain text of some length\"",
                                                  "1e999",
                                                  "[]",
                                                  "{}"};
  static const std::vector<std::string> spaces = {"", "", "", " ", "\n", "\t \r\n"};
  const auto space = [&] { return spaces[random() % spaces.size()]; };
  const auto pick = random() % 4;
  if (depth == 0 || pick == 0) return space() + leaves[random() % leaves.size()] + space();
  std::string out = pick % 2 == 1 ? "[" : "{";
  const char* const close = pick % 2 == 1 ? "]" : "}";
  const auto count = random() % 4;
  for (unsigned k = 0; k < count; ++k) {
    if (k > 0) out += "," + space();
    if (pick % 2 == 0) out += "\"k" + std::to_string(random() % 3) + "\"" + space() + ":";
    out += randomDocument(random, depth - 1);
  }
  return space() + out + space() + close + space();
}

TEST(JsonSkip, JudgesGeneratedDocumentsAndTheirDamageAsParseDoes) {
  std::mt19937 random(1);
  static constexpr std::string_view kStray = "\"\\{}[]:,0-+.eEtfnu \n\x01\x80";
  for (int k = 0; k < 3000; ++k) {
    const std::string good = randomDocument(random, 5);
    ASSERT_THAT(parseJson(good), IsOk()) << good;
    expectAllAgree(good);
    for (int damage = 0; damage < 4; ++damage) {
      std::string bad = good;
      const std::size_t at = random() % bad.size();
      switch (random() % 4) {
        case 0: bad.resize(at); break;
        case 1: bad.erase(at, 1); break;
        case 2: bad[at] = kStray[random() % kStray.size()]; break;
        default: bad.insert(at, 1, kStray[random() % kStray.size()]); break;
      }
      expectAllAgree(bad);
      if (HasFatalFailure()) return;
    }
  }
}

TEST(JsonSkip, JudgesTheWholeTestSuiteAsParseDoes) {
  OKV2_REQUIRE_CORPUS();
  const auto rows = test::readCorpusTable("jsontestsuite/jsontestsuite.tsv");
  for (const test::CorpusRow& row : rows) {
    std::ifstream in(test::corpusPath("jsontestsuite/" + row.at("file")), std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    expectAllAgree(text);
    if (HasFatalFailure()) FAIL() << row.at("file");
  }
}

}  // namespace
}  // namespace zel
