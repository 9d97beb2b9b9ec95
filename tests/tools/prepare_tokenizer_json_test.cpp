// tokenizer.json: each form that an import does not read, and what it becomes.
#include <string>
#include <vector>

#include "hf/hf_importer.h"
#include "okv2/prepare/tokenizer_json.h"
#include "prepare_tokenizers.h"

namespace zel::tool::prepare {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kRemedy[] = "Fetch tokenizer.json again, or use another that belongs to the model.";

Mended mend(const std::string& text, const std::vector<AddedToken>& alsoAdded = {}) {
  return mendWith<mendTokenizerJson, readTokenizerJson>(text, alsoAdded);
}

Refusal refusal(const std::string& text) { return refusalOfMending<mendTokenizerJson>(text); }

TEST(MendTokenizerJson, GivesACompleteFileBackByteForByte) {
  const std::string text =
      R"( {"model": {"type":"BPE", "vocab":{"a":0,"b":1,"ab":2}, "merges":["a b"]}, "added_tokens":[]} )";
  const Mended mended = mend(text);
  EXPECT_EQ(mended.tokenizer.bytes, text);
  EXPECT_THAT(mended.changes, IsEmpty());
}

TEST(MendTokenizerJson, LeavesWordPieceAndWordLevelAsTheyAre) {
  for (const char* type : {"WordPiece", "WordLevel"}) {
    const std::string text = R"({"model":{"type":")" + std::string(type) +
                             R"(","unk_token":"[UNK]","vocab":{"[UNK]":0,"##a":1}}})";
    const Mended mended = mend(text);
    EXPECT_EQ(mended.tokenizer.bytes, text);
    EXPECT_EQ(mended.tokenizer.modelUnk, 0);
    EXPECT_THAT(mended.changes, IsEmpty());
  }
}

TEST(MendTokenizerJson, JoinsThePartsOfPairMerges) {
  const Mended mended =
      mend(R"({"model":{"vocab":{"a":0,"b":1,"ab":2,"abb":3},"merges":[["a","b"],"ab b"]}})");
  EXPECT_THAT(mended.data.merges, ElementsAre("a b", "ab b"));
  EXPECT_THAT(
      mended.changes,
      ElementsAre("tokenizer.json | $.model.merges | 1 pairs | 1 texts | tokenizer.json-merge-pairs"));
}

TEST(MendTokenizerJson, RefusesAPartThatHoldsASpace) {
  constexpr char kUseModel[] =
      "Use a tokenizer.model of the same vocabulary, if there is one, and remove tokenizer.json.";
  EXPECT_EQ(
      refusal(R"({"model":{"vocab":{},"merges":[["a","b"],["a ","b"]]}})"),
      (Refusal{3, "tokenizer.json-merge-pairs",
               "tokenizer.json: $.model.merges[1] joins \"a \" and \"b\": a part with a space cannot be "
               "said in one text",
               kUseModel}));
  EXPECT_EQ(refusal(R"({"model":{"vocab":{},"merges":[["a"," b"]]}})").finding, "tokenizer.json-merge-pairs");
}

TEST(MendTokenizerJson, RefusesAMergeThatIsNoPairOfTexts) {
  for (const char* merge : {R"(["a"])", R"(["a","b","c"])", R"(["a",1])", "1", "null", "{}"}) {
    EXPECT_EQ(refusal(R"({"model":{"vocab":{},"merges":["a b",)" + std::string(merge) + "]}}"),
              (Refusal{7, "tokenizer.json-bad-merges",
                       "tokenizer.json: $.model.merges[1] is neither a text nor a pair of texts", kRemedy}))
        << merge;
  }
}

TEST(MendTokenizerJson, TakesNullAndAnEmptyObjectForNoMerges) {
  for (const char* merges : {"null", "{}"}) {
    const Mended mended = mend(R"({"model":{"vocab":{"a":0},"merges":)" + std::string(merges) + "}}");
    EXPECT_THAT(mended.data.merges, IsEmpty());
    EXPECT_THAT(mended.changes, ElementsAre("tokenizer.json | $.model.merges | " + std::string(merges) +
                                            " | [] | tokenizer.json-bad-merges"));
  }
}

TEST(MendTokenizerJson, RefusesMergesOfAnotherKind) {
  for (const char* merges : {R"("a b")", R"({"a":"b"})", "1"}) {
    EXPECT_EQ(
        refusal(R"({"model":{"vocab":{},"merges":)" + std::string(merges) + "}}"),
        (Refusal{7, "tokenizer.json-bad-merges", "tokenizer.json: $.model.merges is no array", kRemedy}))
        << merges;
  }
}

TEST(MendTokenizerJson, TurnsAUnigramListIntoIdsAndScores) {
  const Mended mended =
      mend(R"({"model":{"type":"Unigram","unk_id":1,"vocab":[["<pad>",0],["<unk>",0.0],["\u2581a",-2.5]]}})");
  EXPECT_THAT(mended.data.tokens, ElementsAre("<pad>", "<unk>",
                                              "\xE2\x96\x81"
                                              "a"));
  EXPECT_THAT(mended.data.scores, ElementsAre(0.0F, 0.0F, -2.5F));
  EXPECT_EQ(mended.tokenizer.modelUnk, 1);
  EXPECT_THAT(
      mended.changes,
      ElementsAre("tokenizer.json | $.model.vocab | a list of 3 pieces and scores | an object of ids, and "
                  "$.model.scores | tokenizer.json-no-vocab"));
}

TEST(MendTokenizerJson, GivesATokenThatJoinsAUnigramModelTheScoreZero) {
  const Mended mended =
      mend(R"({"model":{"vocab":[["a",-1.0]]},"added_tokens":[{"id":1,"content":"<m>","special":true}]})");
  EXPECT_THAT(mended.data.tokens, ElementsAre("a", "<m>"));
  EXPECT_THAT(mended.data.scores, ElementsAre(-1.0F, 0.0F));
}

TEST(MendTokenizerJson, KeepsScoresThatAreGivenInStepWithTheVocabulary) {
  const Mended mended =
      mend(R"({"model":{"vocab":{"a":0},"scores":[-1.0]},"added_tokens":[{"id":1,"content":"<m>"}]})");
  EXPECT_THAT(mended.data.scores, ElementsAre(-1.0F, 0.0F));
}

TEST(MendTokenizerJson, RefusesAPieceThatIsNoPair) {
  for (const char* piece : {R"(["a"])", R"(["a",1,2])", R"(["a","b"])", R"([1,1])", R"("a")"}) {
    EXPECT_EQ(refusal(R"({"model":{"vocab":[["x",0],)" + std::string(piece) + "]}}"),
              (Refusal{7, "tokenizer.json-no-vocab",
                       "tokenizer.json: $.model.vocab[1] is no pair of a text and a score", kRemedy}))
        << piece;
  }
}

TEST(MendTokenizerJson, MovesAddedTokensIntoTheVocabularyWithTheirType) {
  const Mended mended =
      mend(R"({"added_tokens":[{"id":2,"content":"<x>","special":false},{"id":1,"content":"<y>"}],)"
           R"("model":{"vocab":{"a":0}}})");
  EXPECT_THAT(mended.data.tokens, ElementsAre("a", "<y>", "<x>"));
  EXPECT_THAT(mended.data.types, ElementsAre(1, 3, 1));
}

TEST(MendTokenizerJson, WritesTheIdThatAnAddedTokenReallyHas) {
  const Mended mended =
      mend(R"({"model":{"vocab":{"0":0,"<s>":1}},"added_tokens":)"
           R"([{"id":0,"content":"<unk>","special":true},{"id":5,"content":"<s>","special":true}]})");
  EXPECT_THAT(mended.data.tokens, ElementsAre("0", "<s>", "<unk>"));
  EXPECT_THAT(mended.data.types, ElementsAre(1, 3, 3));
  EXPECT_EQ(mended.tokenizer.ids.bos, 1);
  EXPECT_EQ(mended.tokenizer.ids.unk, 2);
}

TEST(MendTokenizerJson, FillsGapsWithSpecialTokens) {
  const Mended mended = mend(R"({"model":{"vocab":{"a":0,"b":2}}})");
  EXPECT_THAT(mended.data.tokens, ElementsAre("a", "<|reserved_1|>", "b"));
  EXPECT_THAT(mended.data.types, ElementsAre(1, 3, 1));
  EXPECT_THAT(mended.changes, ElementsAre("tokenizer.json | id 1 of $.model.vocab |  | <|reserved_1|> | "
                                          "tokenizer.json-id-gap"));
}

TEST(MendTokenizerJson, AddsTheTokensThatTheTokenizersConfigurationAdds) {
  const Mended mended = mend(R"({"model":{"vocab":{"a":0,"<s>":1}}})",
                             {{1, "<s>", true, "f.json"}, {2, "<tool>", false, "f.json"}});
  EXPECT_THAT(mended.data.tokens, ElementsAre("a", "<s>", "<tool>"));
  EXPECT_THAT(mended.data.types, ElementsAre(1, 3, 1));
}

TEST(MendTokenizerJson, SaysWhichFileAddsAToken) {
  Changes changes;
  (void)mendTokenizerJson(R"({"model":{"vocab":{"a":0}}})",
                          {{0, "a", true, "added_tokens.json"}, {1, "<x>", false, "added_tokens.json"}},
                          changes);
  EXPECT_THAT(linesOf(changes),
              ElementsAre("tokenizer.json | $.added_tokens[\"a\"] |  | special | tokenizer.added-outside",
                          "tokenizer.json | $.model.vocab[\"<x>\"] |  | 1 | tokenizer.added-outside"));
  for (const Change& change : changes)
    EXPECT_EQ(change.why, "added_tokens.json adds the token when the tokenizer is loaded");
}

TEST(MendTokenizerJson, TakesAsManyAddedTokensAsTheLargestHave) {
  const auto withMany = [](std::size_t count) {
    std::string list = "1";  // an element that an import skips
    for (std::size_t k = 1; k < count; ++k)
      list += ",1";
    return R"({"model":{"vocab":{"a":0}},"added_tokens":[)" + list + "]}";
  };
  EXPECT_THAT(mend(withMany(kMaxAddedTokens)).changes, IsEmpty());
  EXPECT_EQ(refusal(withMany(kMaxAddedTokens + 1)),
            (Refusal{3, "tokenizer.added-outside",
                     "tokenizer.json: 262145 added tokens are more than the 262144 of any vocabulary",
                     "Use the tokenizer files that belong to the model."}));
}

TEST(MendTokenizerJson, PrefersTheFilesOwnWordOnAnAddedToken) {
  const std::string text =
      R"({"model":{"vocab":{"<s>":0}},"added_tokens":[{"id":0,"content":"<s>","special":false}]})";
  const Mended mended = mend(text, {{0, "<s>", true}});
  EXPECT_EQ(mended.tokenizer.bytes, text);
}

TEST(MendTokenizerJson, TakesNullForNoAddedTokens) {
  const Mended mended = mend(R"({"added_tokens":null,"model":{"vocab":{"a":0}}})");
  EXPECT_THAT(mended.changes,
              ElementsAre("tokenizer.json | $.added_tokens | null | [] | tokenizer.json-bad-added-tokens"));
}

TEST(MendTokenizerJson, SkipsElementsThatAnImportSkips) {
  const std::string text =
      R"({"model":{"vocab":{"a":0}},"added_tokens":[1,{"content":"x"},{"id":1.5,"content":"y"}]})";
  EXPECT_EQ(mend(text).tokenizer.bytes, text);
}

TEST(MendTokenizerJson, TakesTheFirstOfRepeatedKeysAsAnImportDoes) {
  const Mended mended = mend(
      R"({"model":{"vocab":{"a":0,"b":1},"merges":[["a","b"]],"merges":[["b","a"]],"vocab":{}},"model":1})");
  EXPECT_THAT(mended.data.tokens, ElementsAre("a", "b"));
  EXPECT_THAT(mended.data.merges, ElementsAre("a b"));
}

TEST(MendTokenizerJson, KeepsTwoTokensOfOneText) {
  const Mended mended = mend(R"({"model":{"vocab":{"a":0,"a":1},"merges":[["a","a"]]}})");
  EXPECT_THAT(mended.data.tokens, ElementsAre("a", "a"));
}

struct BadFile {
  const char* name;
  const char* text;
  const char* finding;
  const char* message;
};

void PrintTo(const BadFile& file, std::ostream* out) { *out << file.name; }

class MendTokenizerJsonRefuses : public testing::TestWithParam<BadFile> {};

TEST_P(MendTokenizerJsonRefuses, DamagedFiles) {
  EXPECT_EQ(refusal(GetParam().text),
            (Refusal{7, GetParam().finding, std::string("tokenizer.json: ") + GetParam().message, kRemedy}));
}

INSTANTIATE_TEST_SUITE_P(
    Each, MendTokenizerJsonRefuses,
    testing::Values(BadFile{"NoJson", "{", "tokenizer.json-bad-json", "byte 1: json: object key"},
                    BadFile{"NoUtf8", "{\"\xFF\":1}", "tokenizer.json-bad-json",
                            "byte 3: parse error at line 1, column 3: syntax error while parsing object key "
                            "- invalid string: "
                            "ill-formed UTF-8 byte"},
                    BadFile{"NoObject", "[]", "tokenizer.json-no-model", "$.model is no object"},
                    BadFile{"NoModel", "{}", "tokenizer.json-no-model", "$.model is no object"},
                    BadFile{"NoVocabulary", R"({"model":{}})", "tokenizer.json-no-vocab",
                            "$.model.vocab is absent"},
                    BadFile{"TextVocabulary", R"({"model":{"vocab":"a"}})", "tokenizer.json-no-vocab",
                            "$.model.vocab is neither an object nor a list"},
                    BadFile{"NegativeId", R"({"model":{"vocab":{"a":-1}}})", "tokenizer.json-bad-id",
                            "$.model.vocab[\"a\"] is no whole number of at least 0"},
                    BadFile{"FractionalId", R"({"model":{"vocab":{"a":0.5}}})", "tokenizer.json-bad-id",
                            "$.model.vocab[\"a\"] is no whole number of at least 0"},
                    BadFile{"HugeId", R"({"model":{"vocab":{"a":9223372036854775808}}})",
                            "tokenizer.json-bad-id", "$.model.vocab[\"a\"] is no whole number of at least 0"},
                    BadFile{"AddedTokensText", R"({"model":{"vocab":{}},"added_tokens":"x"})",
                            "tokenizer.json-bad-added-tokens", "$.added_tokens is no array"}),
    [](const auto& row) { return row.param.name; });

TEST(MendTokenizerJson, ReadsTextsAsDeepAsAnImportDoesAndNoDeeper) {
  const auto nested = [](std::size_t depth) {
    return R"({"model":{"vocab":{"a":0}},"x":)" + std::string(depth, '[') + std::string(depth, ']') + "}";
  };
  EXPECT_THAT(mend(nested(64)).changes, IsEmpty());  // the root is at depth 0
  EXPECT_EQ(refusal(nested(65)).message, "tokenizer.json: byte 95: json: too deep");
  EXPECT_EQ(refusal(nested(10'000'000)).message, "tokenizer.json: byte 95: json: too deep");
}

}  // namespace
}  // namespace zel::tool::prepare
