// Added tokens, repeated ids and gaps: what becomes of them in a joined vocabulary.
#include <chrono>
#include <string>
#include <vector>

#include "okv2/prepare/vocabulary.h"
#include "prepare_support.h"

namespace zel::tool::prepare {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr VocabularyPlace kPlace{"file", "vocab", "ids"};

std::vector<std::string> textsOf(const std::vector<Token>& tokens) {
  std::vector<std::string> out;
  for (const Token& token : tokens)
    out.push_back(std::to_string(token.id) + " " + token.text);
  return out;
}

TEST(JoinVocabulary, ChangesNothingWhereNothingIsMissing) {
  Changes changes;
  const JoinedVocabulary joined = joinVocabulary({{1, "b"}, {0, "a"}}, {{1, "b", true}}, kPlace, changes);
  EXPECT_EQ(joined.size, 2);
  EXPECT_THAT(joined.joined, IsEmpty());
  EXPECT_THAT(joined.fillers, IsEmpty());
  EXPECT_THAT(joined.addedIds, ElementsAre(1));
  EXPECT_THAT(changes, IsEmpty());
}

TEST(JoinVocabulary, LetsAnAddedTokenKeepItsId) {
  Changes changes;
  const JoinedVocabulary joined = joinVocabulary({{0, "a"}}, {{1, "<end>", true}}, kPlace, changes);
  EXPECT_EQ(joined.size, 2);
  EXPECT_THAT(textsOf(joined.joined), ElementsAre("1 <end>"));
  EXPECT_EQ(joined.idOf.at("<end>"), 1);
  EXPECT_THAT(linesOf(changes), ElementsAre("file | vocab[\"<end>\"] |  | 1 | tokenizer.added-outside"));
}

TEST(JoinVocabulary, GivesAKnownTextTheIdThatTheVocabularyGivesIt) {
  Changes changes;
  const JoinedVocabulary joined =
      joinVocabulary({{0, "a"}, {1, "<end>"}}, {{7, "<end>", true}}, kPlace, changes);
  EXPECT_EQ(joined.size, 2);
  EXPECT_THAT(joined.addedIds, ElementsAre(1));
  EXPECT_THAT(linesOf(changes),
              ElementsAre("file | id of the added token \"<end>\" | 7 | 1 | tokenizer.added-outside"));
}

TEST(JoinVocabulary, PutsATokenWhoseIdIsTakenBehindTheLast) {
  Changes changes;
  const JoinedVocabulary joined =
      joinVocabulary({{0, "a"}, {1, "b"}}, {{0, "<x>", true}, {2, "<y>", true}}, kPlace, changes);
  EXPECT_THAT(joined.addedIds, ElementsAre(3, 2));
  EXPECT_THAT(textsOf(joined.joined), ElementsAre("2 <y>", "3 <x>"));
  EXPECT_EQ(joined.size, 4);
}

TEST(JoinVocabulary, PutsATokenWithoutAProperIdBehindTheLast) {
  Changes changes;
  const JoinedVocabulary joined = joinVocabulary({{0, "a"}}, {{-1, "<x>", true}}, kPlace, changes);
  EXPECT_THAT(joined.addedIds, ElementsAre(1));
  EXPECT_EQ(joined.size, 2);
}

TEST(JoinVocabulary, TakesTwoAddedTokensOfOneTextForOne) {
  Changes changes;
  const JoinedVocabulary joined =
      joinVocabulary({{0, "a"}}, {{0, "<x>", true}, {0, "<x>", false}}, kPlace, changes);
  EXPECT_THAT(joined.addedIds, ElementsAre(1, 1));
  EXPECT_EQ(joined.size, 2);
}

TEST(JoinVocabulary, LeavesAnAddedTokenWithoutTextAlone) {
  Changes changes;
  const JoinedVocabulary joined = joinVocabulary({{0, "a"}}, {{9, "", true}}, kPlace, changes);
  EXPECT_EQ(joined.size, 1);
  EXPECT_THAT(joined.addedIds, ElementsAre(9));
  EXPECT_THAT(changes, IsEmpty());
}

TEST(JoinVocabulary, FillsEveryGapWithNamesThatNoTokenHas) {
  Changes changes;
  const JoinedVocabulary joined =
      joinVocabulary({{1, "a"}, {5, "<|reserved_3|>"}}, {{2, "b", false}}, kPlace, changes);
  EXPECT_EQ(joined.size, 6);
  EXPECT_THAT(textsOf(joined.fillers),
              ElementsAre("0 <|reserved_0|>", "3 <|reserved_3|>_", "4 <|reserved_4|>"));
  EXPECT_THAT(linesOf(changes),
              ElementsAre("file | vocab[\"b\"] |  | 2 | tokenizer.added-outside",
                          "file | id 0 of vocab |  | <|reserved_0|> | ids",
                          "file | ids 3 to 4 of vocab |  | <|reserved_3|>_ to <|reserved_4|> | ids"));
}

TEST(JoinVocabulary, FillsAsManyIdsAsTheLimitAllows) {
  Changes changes;
  const JoinedVocabulary joined = joinVocabulary({{kMaxFilledIds, "a"}}, {}, kPlace, changes);
  EXPECT_EQ(joined.fillers.size(), std::size_t(kMaxFilledIds));
  EXPECT_EQ(joined.size, kMaxFilledIds + 1);
}

TEST(JoinVocabulary, RefusesToFillOneIdMore) {
  EXPECT_EQ(refusalOf([] {
              Changes changes;
              return joinVocabulary({{kMaxFilledIds + 1, "a"}}, {}, kPlace, changes);
            }),
            (Refusal{3, "ids",
                     "file: 1 tokens lie on ids up to 262145; at most 262144 ids without a token are filled",
                     "Use the tokenizer files that belong to the model, complete."}));
}

TEST(JoinVocabulary, RefusesTheHighestIdThatThereIs) {
  EXPECT_EQ(
      refusalOf([] {
        Changes changes;
        return joinVocabulary({}, {{INT64_MAX, "a", true}}, kPlace, changes);
      }),
      (Refusal{3, "ids",
               "file: 1 tokens lie on ids up to 9223372036854775807; at most 262144 ids without a token "
               "are filled",
               "Use the tokenizer files that belong to the model, complete."}));
}

TEST(JoinVocabulary, CountsNoTokenUpFromTheHighestIdThatThereIs) {
  EXPECT_EQ(
      refusalOf([] {
        Changes changes;
        return joinVocabulary({}, {{INT64_MAX, "a", true}, {-1, "b", true}}, kPlace, changes);
      }),
      (Refusal{3, "ids",
               "file: 1 tokens lie on ids up to 9223372036854775807; at most 262144 ids without a token "
               "are filled",
               "Use the tokenizer files that belong to the model, complete."}));
}

TEST(JoinVocabulary, PutsATokenWithoutAnIdBehindTheLastUnlessItIsThere) {
  Changes changes;
  const JoinedVocabulary joined = joinVocabulary(
      {{0, "a"}}, {{-1, "<x>", true, "f", false}, {-1, "a", true, "f", false}, {1, "<y>", true}}, kPlace,
      changes);
  EXPECT_THAT(joined.addedIds, ElementsAre(2, 0, 1));
  EXPECT_EQ(joined.size, 3);
  EXPECT_EQ(changes.size(), 2U);  // neither has an id that moves
}

TEST(JoinVocabulary, TakesAsManyAddedTokensAsTheLargestHave) {
  Changes changes;
  const std::vector<AddedToken> added(kMaxAddedTokens, {0, "a", true});
  EXPECT_EQ(joinVocabulary({{0, "a"}}, added, kPlace, changes).size, 1);
}

TEST(JoinVocabulary, RefusesOneAddedTokenMore) {
  EXPECT_EQ(refusalOf([] {
              Changes changes;
              const std::vector<AddedToken> added(kMaxAddedTokens + 1, {0, "a", true});
              return joinVocabulary({{0, "a"}}, added, kPlace, changes);
            }),
            (Refusal{3, "tokenizer.added-outside",
                     "file: 262145 added tokens are more than the 262144 of any vocabulary",
                     "Use the tokenizer files that belong to the model."}));
}

// Ids a multiple of a hash table's buckets apart: hundreds of thousands of steps each, were there one.
TEST(JoinVocabulary, TakesAsLongForIdsThatShareABucket) {
  constexpr std::int64_t kTokens = 200'000, kBuckets = 351'061;  // of libstdc++ for so many elements
  std::vector<Token> tokens;
  for (std::int64_t k = 0; k < kTokens; ++k)
    tokens.push_back({k * kBuckets, std::to_string(k)});
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(refusalOf([&] {
              Changes changes;
              return joinVocabulary(tokens, {}, kPlace, changes);
            }).exitCode,
            3);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
}

TEST(JoinVocabulary, RefusesTwoTokensOfOneId) {
  EXPECT_EQ(refusalOf([] {
              Changes changes;
              return joinVocabulary({{0, "a"}, {0, "b"}}, {}, kPlace, changes);
            }),
            (Refusal{7, "ids", "file: vocab gives id 0 to two tokens, the second is \"b\"",
                     "Fetch file again, or give each token an id of its own."}));
}

}  // namespace
}  // namespace zel::tool::prepare
