// tokenizer.json: what is refused, in which order the rules are judged, vocabulary, merges and scores.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>

#include <sys/stat.h>

#include "support/temp_dir.h"
#include "tokenizer_support.h"

namespace zel {
namespace {

using test::goodTokenizerJson;
using test::IsOk;
using test::StatusIs;
using test::TempDir;
using test::tokenizerJson;
using testing::ElementsAre;
using testing::IsEmpty;

// ---- the file

TEST(TokenizerJsonFile, ThatCannotBeReadIsInvalidFormat) {
  const auto unreadable = StatusIs(Code::InvalidFormat, "hf: cannot read tokenizer.json");
  const TempDir dir;
  HfImporter importer;
  EXPECT_THAT(importer.parseTokenizerJson(dir / "missing"), unreadable);
  EXPECT_THAT(importer.parseTokenizerJson(dir.write("empty", "")), unreadable);
  EXPECT_THAT(importer.parseTokenizerJson(dir.path()), unreadable);
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_THAT(importer.parseTokenizerJson(dir / "fifo"), unreadable);
}

TEST(TokenizerJsonFile, FillsTheImporterWithTheHelpOfItsConfiguration) {
  const TempDir dir;
  HfImporter importer;
  importer.config = test::configFrom(R"({"pad_token_id":9,"chat_template":"t"})");
  ASSERT_THAT(importer.parseTokenizerJson(dir.write("t", R"({"model":{"vocab":{"a":0}}})")), IsOk());
  EXPECT_THAT(importer.tokenizer.tokens, ElementsAre("a"));
  EXPECT_EQ(importer.tokenizer.padId, 9);
  EXPECT_EQ(importer.tokenizer.chatTemplate, "t");
}

TEST(TokenizerJsonFile, ThatIsBadLeavesTheImportersTokenizerAsItWas) {
  const TempDir dir;
  HfImporter importer;
  importer.tokenizer.tokens = {"before"};
  importer.tokenizer.bosId = 5;
  const auto before = test::describe(importer.tokenizer);
  for (const char* bad : {"{", "{}", R"({"model":{"vocab":{"a":0},"merges":["x",1]}})",
                          R"({"model":{"vocab":{"a":0}},"added_tokens":{}})"}) {
    EXPECT_EQ(importer.parseTokenizerJson(dir.write("t", bad)).code(), Code::Corrupted) << bad;
    EXPECT_EQ(test::describe(importer.tokenizer), before) << bad;
  }
}

// ---- refusals

struct RefusedCase {
  const char* name;
  const char* text;
  const char* message;
};

class TokenizerJsonRefused : public testing::TestWithParam<RefusedCase> {};

TEST_P(TokenizerJsonRefused, IsCorruptedWithItsMessage) {
  TokenizerData out;
  out.tokens = {"before"};
  EXPECT_THAT(tokenizerJson(GetParam().text, out), StatusIs(Code::Corrupted, GetParam().message));
  EXPECT_THAT(out.tokens, ElementsAre("before")) << "the output is only touched by success";
}

constexpr const char* kBadJson = "hf: bad tokenizer.json";
constexpr const char* kNoModel = "hf: tokenizer.json has no model object";
constexpr const char* kNoVocab = "hf: tokenizer.json has no vocab";
constexpr const char* kBadId = "hf: bad vocab id";
constexpr const char* kGap = "hf: vocab ids not contiguous";
constexpr const char* kBadMerges = "hf: bad merges";
constexpr const char* kBadMerge = "hf: bad merge entry";
constexpr const char* kBadAdded = "hf: bad added_tokens";

INSTANTIATE_TEST_SUITE_P(
    Json, TokenizerJsonRefused,
    testing::Values(RefusedCase{"Nothing", "", kBadJson}, RefusedCase{"Spaces", "  ", kBadJson},
                    RefusedCase{"NotJson", "x", kBadJson}, RefusedCase{"TwoRoots", "{} {}", kBadJson},
                    RefusedCase{"TrailingComma", R"({"model":{"vocab":{"a":0,}}})", kBadJson},
                    RefusedCase{"CutOff", R"({"model":{"vocab":{"a":0}})", kBadJson},
                    RefusedCase{"BadMemberNobodyReads", R"({"x":[1,],"model":{"vocab":{"a":0}}})", kBadJson},
                    RefusedCase{"BadEscapeInAToken", R"({"model":{"vocab":{"\x":0}}})", kBadJson},
                    RefusedCase{"BadNumberAsId", R"({"model":{"vocab":{"a":-}}})", kBadJson}),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Structure, TokenizerJsonRefused,
    testing::Values(RefusedCase{"RootArray", R"([{"model":{"vocab":{}}}])", kNoModel},
                    RefusedCase{"RootNull", "null", kNoModel}, RefusedCase{"RootText", "\"model\"", kNoModel},
                    RefusedCase{"NoModel", "{}", kNoModel},
                    RefusedCase{"ModelArray", R"({"model":[]})", kNoModel},
                    RefusedCase{"ModelNull", R"({"model":null})", kNoModel},
                    RefusedCase{"ModelText", R"({"model":"vocab"})", kNoModel},
                    RefusedCase{"ModelOneLevelDown", R"({"a":{"model":{"vocab":{}}}})", kNoModel},
                    RefusedCase{"KeyCaseMatters", R"({"Model":{"vocab":{}}})", kNoModel},
                    RefusedCase{"NoVocab", R"({"model":{}})", kNoVocab},
                    RefusedCase{"VocabArray", R"({"model":{"vocab":[["a",0]]}})", kNoVocab},
                    RefusedCase{"VocabNull", R"({"model":{"vocab":null}})", kNoVocab},
                    RefusedCase{"VocabAtTheRoot", R"({"model":{},"vocab":{"a":0}})", kNoVocab}),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Vocabulary, TokenizerJsonRefused,
    testing::Values(RefusedCase{"Fraction", R"({"model":{"vocab":{"a":3.5}}})", kBadId},
                    RefusedCase{"Negative", R"({"model":{"vocab":{"a":-1}}})", kBadId},
                    RefusedCase{"Text", R"({"model":{"vocab":{"a":"0"}}})", kBadId},
                    RefusedCase{"Null", R"({"model":{"vocab":{"a":null}}})", kBadId},
                    RefusedCase{"Bool", R"({"model":{"vocab":{"a":false}}})", kBadId},
                    RefusedCase{"Array", R"({"model":{"vocab":{"a":[0]}}})", kBadId},
                    RefusedCase{"Object", R"({"model":{"vocab":{"a":{"id":0}}}})", kBadId},
                    RefusedCase{"TwoTo63", R"({"model":{"vocab":{"a":9223372036854775808}}})", kBadId},
                    RefusedCase{"Infinity", R"({"model":{"vocab":{"a":1e999}}})", kBadId},
                    RefusedCase{"LastOfMany", R"({"model":{"vocab":{"a":0,"b":1,"c":0.5}}})", kBadId},
                    RefusedCase{"BadIdOutranksAGapBeforeIt", R"({"model":{"vocab":{"a":7,"b":-1}}})", kBadId},
                    RefusedCase{"NoZero", R"({"model":{"vocab":{"a":1,"b":2}}})", kGap},
                    RefusedCase{"Gap", R"({"model":{"vocab":{"a":0,"b":2}}})", kGap},
                    RefusedCase{"Twice", R"({"model":{"vocab":{"a":0,"b":1,"c":1}}})", kGap},
                    RefusedCase{"TwiceZero", R"({"model":{"vocab":{"a":0,"b":0}}})", kGap},
                    RefusedCase{"SameTokenTwice", R"({"model":{"vocab":{"a":0,"a":0}}})", kGap},
                    RefusedCase{"JustBelowTwoTo63", R"({"model":{"vocab":{"a":9223372036854774784}}})",
                                kGap}),
    [](const auto& row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    MergesAndAddedTokens, TokenizerJsonRefused,
    testing::Values(RefusedCase{"MergesObject", R"({"model":{"vocab":{},"merges":{}}})", kBadMerges},
                    RefusedCase{"MergesNull", R"({"model":{"vocab":{},"merges":null}})", kBadMerges},
                    RefusedCase{"MergesText", R"({"model":{"vocab":{},"merges":"a b"}})", kBadMerges},
                    RefusedCase{"MergePairs", R"({"model":{"vocab":{},"merges":[["a","b"]]}})", kBadMerge},
                    RefusedCase{"MergeNumber", R"({"model":{"vocab":{},"merges":["a b",1]}})", kBadMerge},
                    RefusedCase{"MergeNull", R"({"model":{"vocab":{},"merges":[null]}})", kBadMerge},
                    RefusedCase{"AddedObject", R"({"model":{"vocab":{}},"added_tokens":{}})", kBadAdded},
                    RefusedCase{"AddedNull", R"({"model":{"vocab":{}},"added_tokens":null})", kBadAdded},
                    RefusedCase{"AddedText", R"({"added_tokens":"<s>","model":{"vocab":{}}})", kBadAdded}),
    [](const auto& row) { return std::string(row.param.name); });

// Several things wrong at once: the rules are judged in a fixed order, whatever the order in the file, and
// a syntax error outranks them all.
INSTANTIATE_TEST_SUITE_P(
    Precedence, TokenizerJsonRefused,
    testing::Values(RefusedCase{"SyntaxLateInTheFileBeforeAll", R"({"model":[],"added_tokens":{},"x":tru})",
                                kBadJson},
                    RefusedCase{"SyntaxBehindTheRootBeforeAll", R"({"model":{"vocab":{"a":-1}}}])", kBadJson},
                    RefusedCase{"SyntaxAfterABadId", R"({"model":{"vocab":{"a":-1,"b":}}})", kBadJson},
                    RefusedCase{"SyntaxInARootThatIsNoObject", "[1,]", kBadJson},
                    RefusedCase{"SyntaxInASecondModel",
                                R"({"model":{"vocab":{"a":0}},"model":{"vocab":{"a" 0}}})", kBadJson},
                    RefusedCase{"ModelBeforeAddedTokens", R"({"added_tokens":1,"model":1})", kNoModel},
                    RefusedCase{"VocabBeforeMerges", R"({"added_tokens":1,"model":{"merges":1}})", kNoVocab},
                    RefusedCase{"IdBeforeMerges", R"({"model":{"merges":1,"vocab":{"a":0.5}}})", kBadId},
                    RefusedCase{"GapBeforeMerges", R"({"model":{"merges":1,"vocab":{"a":1}}})", kGap},
                    RefusedCase{"GapBeforeMergeEntry", R"({"model":{"merges":[1],"vocab":{"a":1}}})", kGap},
                    RefusedCase{"MergesBeforeAddedTokens",
                                R"({"added_tokens":1,"model":{"merges":1,"vocab":{}}})", kBadMerges},
                    RefusedCase{"MergeEntryBeforeAddedTokens",
                                R"({"added_tokens":1,"model":{"merges":[1],"vocab":{}}})", kBadMerge}),
    [](const auto& row) { return std::string(row.param.name); });

// Of equal keys the first counts, even when it is of the wrong kind and the second is not.
INSTANTIATE_TEST_SUITE_P(
    FirstOfEqualKeys, TokenizerJsonRefused,
    testing::Values(
        RefusedCase{"Model", R"({"model":1,"model":{"vocab":{"a":0}}})", kNoModel},
        RefusedCase{"ModelSpelledWithAnEscape", R"({"\u006dodel":1,"model":{"vocab":{"a":0}}})", kNoModel},
        RefusedCase{"Vocab", R"({"model":{"vocab":[],"vocab":{"a":0}}})", kNoVocab},
        RefusedCase{"VocabIsNotJoined", R"({"model":{"vocab":{"b":1},"vocab":{"a":0}}})", kGap},
        RefusedCase{"VocabInASecondModel", R"({"model":{},"model":{"vocab":{"a":0}}})", kNoVocab},
        RefusedCase{"Merges", R"({"model":{"vocab":{},"merges":null,"merges":[]}})", kBadMerges},
        RefusedCase{"MergeEntry", R"({"model":{"vocab":{},"merges":[1],"merges":[]}})", kBadMerge},
        RefusedCase{"AddedTokens", R"({"model":{"vocab":{}},"added_tokens":1,"added_tokens":[]})",
                    kBadAdded}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(TokenizerJson, IgnoresTheSecondOfEqualKeysWhateverItHolds) {
  const TokenizerData data = goodTokenizerJson(R"({
      "model":{"vocab":{"a":0},"vocab":[],"merges":["a a"],"merges":1,"scores":[1],"scores":[2,3]},
      "model":{"vocab":{"z":5}},
      "added_tokens":[{"id":0,"content":"<s>"}],"added_tokens":5})");
  EXPECT_THAT(data.tokens, ElementsAre("a"));
  EXPECT_THAT(data.merges, ElementsAre("a a"));
  EXPECT_THAT(data.scores, ElementsAre(1.0F));
  EXPECT_EQ(data.bosId, 0);
}

TEST(TokenizerJson, KnowsItsKeysInAnySpelling) {
  const TokenizerData data = goodTokenizerJson(
      R"({"\u006dodel":{"v\u006Fcab":{"\u0061":0},"merge\u0073":["a b"],"\u0073cores":[2]},
          "added\u005ftokens":[{"\u0069d":0,"con\u0074ent":"\u003cs>","specia\u006c":false}]})");
  EXPECT_THAT(data.tokens, ElementsAre("a"));
  EXPECT_THAT(data.merges, ElementsAre("a b"));
  EXPECT_THAT(data.scores, ElementsAre(2.0F));
  EXPECT_THAT(data.types, ElementsAre(1));
  EXPECT_EQ(data.bosId, 0);
}

// ---- the vocabulary

TEST(TokenizerJson, PutsTheTokensInTheOrderOfTheirIds) {
  EXPECT_THAT(goodTokenizerJson(R"({"model":{"vocab":{"a":0,"c":2,"b":1}}})").tokens,
              ElementsAre("a", "b", "c"));
  EXPECT_THAT(goodTokenizerJson(R"({"model":{"vocab":{"c":2,"b":1,"a":0}}})").tokens,
              ElementsAre("a", "b", "c"));
}

TEST(TokenizerJson, OfAnEmptyVocabularyHasNoTokens) {
  const TokenizerData data = goodTokenizerJson(R"({"model":{"vocab":{}}})");
  EXPECT_THAT(data.tokens, IsEmpty());
  EXPECT_THAT(data.types, IsEmpty());
  EXPECT_TRUE(data.addBos);
}

TEST(TokenizerJson, KeepsTokensOfEqualTextUnderTheirOwnIds) {
  EXPECT_THAT(goodTokenizerJson(R"({"model":{"vocab":{"a":1,"a":0}}})").tokens, ElementsAre("a", "a"));
}

TEST(TokenizerJson, TakesIdsInEveryIntegralSpelling) {
  EXPECT_THAT(goodTokenizerJson(R"({"model":{"vocab":{"a":-0,"b":1.0,"c":20e-1,"d":003}}})").tokens,
              ElementsAre("a", "b", "c", "d"));
}

TEST(TokenizerJson, KeepsTokenTextsAsTheyAreDecoded) {
  EXPECT_THAT(goodTokenizerJson(R"({"model":{"vocab":{"":0,"\u0000":1,"\u0120the":2,"\n\"":3}}})").tokens,
              ElementsAre("", std::string("\0", 1), "\xC4\xA0the", "\n\""));
}

TEST(TokenizerJson, GivesEveryTokenTheNormalType) {
  EXPECT_THAT(goodTokenizerJson(R"({"model":{"vocab":{"a":0,"b":1}}})").types, ElementsAre(1, 1));
}

TEST(TokenizerJson, OrdersALargeShuffledVocabulary) {
  // 7919 and 20011 are prime, so k -> 7919 k mod 20011 visits every id once.
  std::string vocab;
  for (int k = 0; k < 20011; ++k) {
    const int id = int(std::int64_t{7919} * k % 20011);
    vocab += (k == 0 ? "\"t" : ",\"t") + std::to_string(id) + "\":" + std::to_string(id);
  }
  const TokenizerData data = goodTokenizerJson("{\"model\":{\"vocab\":{" + vocab + "}}}");
  ASSERT_EQ(data.tokens.size(), 20011U);
  for (std::size_t id = 0; id < data.tokens.size(); ++id)
    ASSERT_EQ(data.tokens[id], "t" + std::to_string(id));
}

// ---- merges

TEST(TokenizerJson, KeepsMergesAsTheyStand) {
  EXPECT_THAT(goodTokenizerJson(R"({"model":{"merges":["a b","","no space","a  b"],"vocab":{}}})").merges,
              ElementsAre("a b", "", "no space", "a  b"));
}

TEST(TokenizerJson, WithoutMergesHasNone) {
  EXPECT_THAT(goodTokenizerJson(R"({"model":{"vocab":{}}})").merges, IsEmpty());
  EXPECT_THAT(goodTokenizerJson(R"({"model":{"vocab":{},"merges":[]}})").merges, IsEmpty());
}

// ---- scores

std::vector<float> scores(const std::string& value) {
  return goodTokenizerJson("{\"model\":{\"vocab\":{},\"scores\":" + value + "}}").scores;
}

TEST(TokenizerJsonScores, AreNumbersOrTheFirstElementsOfArrays) {
  EXPECT_THAT(scores("[1,-0.5,[2,3],[4]]"), ElementsAre(1.0F, -0.5F, 2.0F, 4.0F));
}

TEST(TokenizerJsonScores, AreZeroForAnythingElse) {
  EXPECT_THAT(scores(R"([null,true,"1",{},{"0":1},[],["x",1],[[5]],[null,5]])"),
              ElementsAre(0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F));
}

TEST(TokenizerJsonScores, AreNotTiedToTheNumberOfTokens) {
  EXPECT_EQ(goodTokenizerJson(R"({"model":{"vocab":{"a":0},"scores":[1,2,3]}})").scores.size(), 3U);
}

TEST(TokenizerJsonScores, OfAnotherKindAreIgnored) {
  for (const char* value : {"null", "{}", "1", "\"x\"", "true"})
    EXPECT_THAT(scores(value), IsEmpty()) << value;
}

TEST(TokenizerJsonScores, AreRoundedToSingleAndMayBeInfinite) {
  const std::vector<float> values = scores("[0.1,1e300,-1e999]");
  EXPECT_EQ(values[0], 0.1F);
  EXPECT_TRUE(std::isinf(values[1]));
  EXPECT_EQ(values[2], -INFINITY);
}

// ---- depth

TEST(TokenizerJsonDepth, OfWhatIsReadAndWhatIsSkippedIsCountedFromTheRoot) {
  const auto nested = [](std::size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); };
  const auto with = [&](const std::string& before, std::size_t levels, const std::string& after) {
    return tokenizerJson(before + nested(levels) + after);
  };
  const auto bad = StatusIs(Code::Corrupted, kBadJson);
  // A member of the root is at depth 1, so 64 arrays inside it reach depth 64.
  EXPECT_THAT(with("{\"x\":", 64, ",\"model\":{\"vocab\":{}}}"), IsOk());
  EXPECT_THAT(with("{\"x\":", 65, ",\"model\":{\"vocab\":{}}}"), bad);
  EXPECT_THAT(with("{\"model\":{\"vocab\":{},\"x\":", 63, "}}"), IsOk());
  EXPECT_THAT(with("{\"model\":{\"vocab\":{},\"x\":", 64, "}}"), bad);
  EXPECT_THAT(with("{\"model\":{\"vocab\":{\"x\":", 62, "}}}"), StatusIs(Code::Corrupted, kBadId));
  EXPECT_THAT(with("{\"model\":{\"vocab\":{\"x\":", 63, "}}}"), bad);
  EXPECT_THAT(with("{\"model\":{\"vocab\":{},\"merges\":[", 62, "]}}"), StatusIs(Code::Corrupted, kBadMerge));
  EXPECT_THAT(with("{\"model\":{\"vocab\":{},\"merges\":[", 63, "]}}"), bad);
  EXPECT_THAT(with("{\"model\":{\"vocab\":{},\"scores\":[", 62, "]}}"), IsOk());
  EXPECT_THAT(with("{\"model\":{\"vocab\":{},\"scores\":[", 63, "]}}"), bad);
  EXPECT_THAT(with("{\"model\":{\"vocab\":{}},\"added_tokens\":[", 63, "]}"), IsOk());
  EXPECT_THAT(with("{\"model\":{\"vocab\":{}},\"added_tokens\":[", 64, "]}"), bad);
  EXPECT_THAT(with("{\"model\":{\"vocab\":{}},\"added_tokens\":[{\"id\":", 62, "}]}"), IsOk());
  EXPECT_THAT(with("{\"model\":{\"vocab\":{}},\"added_tokens\":[{\"id\":", 63, "}]}"), bad);
}

TEST(TokenizerJsonTruncation, IsBadJsonAtEveryByte) {
  const std::string text =
      R"({"version":"1.0","model":{"type":"BPE","vocab":{"a":0,"\u0062":1},"merges":["a b"],)"
      R"("scores":[1,[2]]},"added_tokens":[{"id":0,"content":"<s>","special":true}]})";
  EXPECT_THAT(tokenizerJson(text), IsOk());
  for (std::size_t size = 0; size < text.size(); ++size) {
    EXPECT_THAT(tokenizerJson(text.substr(0, size)), StatusIs(Code::Corrupted, kBadJson)) << size;
  }
}

// Around what a text holds without an allocation, and what is looked at in one step.
TEST(TokenizerJson, TakesTextsOfAnyLengthFromLongLists) {
  std::string vocab;
  std::string merges;
  std::vector<std::string> expected;
  for (std::size_t k = 0; k < 150; ++k) {
    expected.emplace_back(k, 'x');
    vocab += (k == 0 ? "\"" : ",\"") + expected.back() + "\":" + std::to_string(k);
    merges += (k == 0 ? "\"" : ",\"") + expected.back() + "\"";
  }
  const TokenizerData data =
      goodTokenizerJson(R"({"model":{"vocab":{)" + vocab + R"(},"merges":[)" + merges + "]}}");
  EXPECT_EQ(data.tokens, expected);
  EXPECT_EQ(data.merges, expected);
}

}  // namespace
}  // namespace zel
