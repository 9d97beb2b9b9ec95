// Added tokens, special ids and what config.json overrides.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tokenizer_support.h"

namespace zel {
namespace {

using test::goodTokenizerJson;
using testing::ElementsAre;

// Six tokens, and whatever was added.
TokenizerData withAdded(const std::string& elements, std::string_view config = "{}") {
  return goodTokenizerJson(
      R"({"model":{"vocab":{"a":0,"b":1,"c":2,"d":3,"e":4,"f":5}},"added_tokens":[)" + elements + "]}",
      config);
}

TEST(AddedTokens, AreSpecialUnlessTheySayOtherwise) {
  const TokenizerData data = withAdded(R"({"id":5,"content":"<eos>"})");
  EXPECT_THAT(data.types, ElementsAre(1, 1, 1, 1, 1, 3));
  EXPECT_EQ(data.eosId, 5);
}

TEST(AddedTokens, ThatAreNotSpecialKeepTheNormalTypeAndStillSetTheirId) {
  const TokenizerData data = withAdded(R"({"id":5,"content":"<eos>","special":false})");
  EXPECT_THAT(data.types, ElementsAre(1, 1, 1, 1, 1, 1));
  EXPECT_EQ(data.eosId, 5);
}

TEST(AddedTokens, WithASpecialThatIsNoBoolAreNotSpecial) {
  for (const char* special : {"1", "\"true\"", "null", "[true]", "{}"}) {
    const TokenizerData data = withAdded(std::string(R"({"id":0,"special":)") + special + "}");
    EXPECT_EQ(data.types[0], 1) << special;
  }
  EXPECT_EQ(withAdded(R"({"id":0,"special":true})").types[0], 3);
}

TEST(AddedTokens, TheLastOneForAnIdDecidesItsType) {
  EXPECT_EQ(withAdded(R"({"id":0},{"id":0,"special":false})").types[0], 1);
  EXPECT_EQ(withAdded(R"({"id":0,"special":false},{"id":0})").types[0], 3);
}

TEST(AddedTokens, OutsideTheVocabularyChangeNoTypeAndAreNotAppended) {
  for (const char* id : {"6", "10", "-1", "4294967296", "9223372036854774784", "-9223372036854775808"}) {
    const TokenizerData data = withAdded(std::string(R"({"id":)") + id + R"(,"content":"new"})");
    EXPECT_THAT(data.types, ElementsAre(1, 1, 1, 1, 1, 1)) << id;
    EXPECT_EQ(data.tokens.size(), 6U) << id;
  }
}

TEST(AddedTokens, OutsideTheVocabularyCanStillBeASpecialId) {
  EXPECT_EQ(withAdded(R"({"id":10,"content":"<pad>"})").padId, 10);
  EXPECT_EQ(withAdded(R"({"id":-7,"content":"<pad>"})").padId, -7);
}

TEST(AddedTokens, KeepTheLowThirtyTwoBitsOfASpecialId) {
  EXPECT_EQ(withAdded(R"({"id":4294967301,"content":"<pad>"})").padId, 5);
  EXPECT_EQ(withAdded(R"({"id":2147483648,"content":"<pad>"})").padId, -2147483647 - 1);
}

struct SpecialContent {
  const char* name;
  const char* content;
  std::int32_t TokenizerData::*id;
};

class AddedTokenContent : public testing::TestWithParam<SpecialContent> {};

TEST_P(AddedTokenContent, SetsItsIdAndNoOther) {
  const TokenizerData data = withAdded(std::string(R"({"id":4,"content":")") + GetParam().content + "\"}");
  for (const auto id :
       {&TokenizerData::bosId, &TokenizerData::eosId, &TokenizerData::unkId, &TokenizerData::padId}) {
    EXPECT_EQ(data.*id, id == GetParam().id ? 4 : -1);
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, AddedTokenContent,
                         testing::Values(SpecialContent{"Bos", "<bos>", &TokenizerData::bosId},
                                         SpecialContent{"S", "<s>", &TokenizerData::bosId},
                                         SpecialContent{"Eos", "<eos>", &TokenizerData::eosId},
                                         SpecialContent{"EndS", "</s>", &TokenizerData::eosId},
                                         SpecialContent{"Unk", "<unk>", &TokenizerData::unkId},
                                         SpecialContent{"Pad", "<pad>", &TokenizerData::padId},
                                         SpecialContent{"CaseMatters", "<BOS>", nullptr},
                                         SpecialContent{"WholeTextOnly", "<s> ", nullptr},
                                         SpecialContent{"Empty", "", nullptr},
                                         SpecialContent{"EndOfText", "<|endoftext|>", nullptr}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(AddedTokens, ALaterOneOfTheSameContentOverridesAnEarlierOne) {
  EXPECT_EQ(withAdded(R"({"id":1,"content":"<s>"},{"id":2,"content":"<s>"})").bosId, 2);
  EXPECT_EQ(withAdded(R"({"id":1,"content":"<s>"},{"id":2,"content":"<bos>"})").bosId, 2);
  EXPECT_EQ(withAdded(R"({"id":2,"content":"<bos>"},{"id":1,"content":"<s>"})").bosId, 1);
}

TEST(AddedTokens, ThatAreNoObjectsOrHaveNoIntegralIdAreSkipped) {
  const TokenizerData data = withAdded(R"(null,true,1,"<s>",[],[{"id":0,"content":"<s>"}],{},
      {"content":"<s>"},{"id":"0","content":"<s>"},{"id":0.5,"content":"<s>"},{"id":1e999,"content":"<s>"},
      {"id":null,"content":"<s>"},{"id":9223372036854775808,"content":"<s>"},{"id":3,"content":"<unk>"})");
  EXPECT_EQ(data.bosId, -1);
  EXPECT_EQ(data.unkId, 3) << "those behind them count";
  EXPECT_THAT(data.types, ElementsAre(1, 1, 1, 3, 1, 1));
}

TEST(AddedTokens, ContentOfAnotherKindCountsAsEmpty) {
  EXPECT_EQ(withAdded(R"({"id":0,"content":["<s>"]})").bosId, -1);
  EXPECT_EQ(withAdded(R"({"id":0,"content":["<s>"]})").types[0], 3);
}

TEST(AddedTokens, OfEqualKeysTheFirstCounts) {
  EXPECT_EQ(withAdded(R"({"id":1,"id":2,"content":"<s>"})").bosId, 1);
  EXPECT_EQ(withAdded(R"({"id":"x","id":2,"content":"<s>"})").bosId, -1);
  EXPECT_EQ(withAdded(R"({"id":1,"content":"<s>","content":"</s>"})").eosId, -1);
  EXPECT_EQ(withAdded(R"({"id":1,"content":7,"content":"</s>"})").eosId, -1);
  EXPECT_EQ(withAdded(R"({"id":1,"special":false,"special":true})").types[1], 1);
  EXPECT_EQ(withAdded(R"({"id":1,"special":0,"special":true})").types[1], 1);
}

TEST(AddedTokens, MayHaveTheirMembersInAnyOrder) {
  const TokenizerData data = withAdded(R"({"special":false,"content":"<s>","lstrip":true,"id":1})");
  EXPECT_EQ(data.bosId, 1);
  EXPECT_EQ(data.types[1], 1);
}

TEST(AddedTokens, MayStandInFrontOfTheModel) {
  const TokenizerData data =
      goodTokenizerJson(R"({"added_tokens":[{"id":1,"content":"<s>"}],"model":{"vocab":{"a":0,"b":1}}})");
  EXPECT_THAT(data.types, ElementsAre(1, 3));
  EXPECT_EQ(data.bosId, 1);
}

// ---- config.json

TEST(TokenizerConfigOverrides, WinOverTheAddedTokens) {
  const TokenizerData data =
      withAdded(R"({"id":1,"content":"<s>"},{"id":2,"content":"</s>"},{"id":3,"content":"<unk>"},
                   {"id":4,"content":"<pad>"})",
                R"({"bos_token_id":11,"eos_token_id":12,"unk_token_id":13,"pad_token_id":14})");
  EXPECT_EQ(data.bosId, 11);
  EXPECT_EQ(data.eosId, 12);
  EXPECT_EQ(data.unkId, 13);
  EXPECT_EQ(data.padId, 14);
}

TEST(TokenizerConfigOverrides, OfAListOfEndsTakeTheFirst) {
  EXPECT_EQ(withAdded(R"({"id":2,"content":"</s>"})", R"({"eos_token_id":[1,107]})").eosId, 1);
}

TEST(TokenizerConfigOverrides, OfAListWhoseFirstIsNoIntegerChangeNothing) {
  for (const char* list : {"[]", "[\"1\",2]", "[0.5,2]", "[null,2]", "[[1],2]"}) {
    EXPECT_EQ(withAdded(R"({"id":2,"content":"</s>"})", std::string("{\"eos_token_id\":") + list + "}").eosId,
              2)
        << list;
  }
}

TEST(TokenizerConfigOverrides, TakeAListForTheEndOnly) {
  const TokenizerData data = withAdded("", R"({"bos_token_id":[1],"unk_token_id":[2],"pad_token_id":[3]})");
  EXPECT_EQ(data.bosId, -1);
  EXPECT_EQ(data.unkId, -1);
  EXPECT_EQ(data.padId, -1);
}

TEST(TokenizerConfigOverrides, TakeNegativeIdsAsTheyAre) {
  const TokenizerData data =
      withAdded(R"({"id":1,"content":"<s>"})", R"({"bos_token_id":-1,"pad_token_id":-5})");
  EXPECT_EQ(data.bosId, -1);
  EXPECT_EQ(data.padId, -5);
}

TEST(TokenizerConfigOverrides, KeepTheLowThirtyTwoBits) {
  EXPECT_EQ(withAdded("", R"({"pad_token_id":4294967303})").padId, 7);
}

TEST(TokenizerConfigOverrides, ThatAreNoIntegralNumbersChangeNothing) {
  for (const char* value : {"null", "\"7\"", "7.5", "true", "{}", "1e999", "9223372036854775808"}) {
    const TokenizerData data =
        withAdded(R"({"id":1,"content":"<s>"},{"id":2,"content":"</s>"})",
                  std::string("{\"bos_token_id\":") + value + ",\"eos_token_id\":" + value + "}");
    EXPECT_EQ(data.bosId, 1) << value;
    EXPECT_EQ(data.eosId, 2) << value;
  }
}

TEST(TokenizerConfigOverrides, MayPointOutsideTheVocabulary) {
  EXPECT_EQ(withAdded("", R"({"pad_token_id":32000})").padId, 32000);
}

TEST(TokenizerConfigOverrides, GiveTheChatTemplateWhenItIsText) {
  EXPECT_EQ(withAdded("", R"({"chat_template":"{{ x }}"})").chatTemplate, "{{ x }}");
  EXPECT_EQ(withAdded("", R"({"chat_template":["{{ x }}"]})").chatTemplate, "");
  EXPECT_EQ(withAdded("", R"({"chat_template":1,"chat_template":"x"})").chatTemplate, "");
}

TEST(TokenizerConfigOverrides, AreNotLookedForInATreeThatIsNoObject) {
  EXPECT_EQ(withAdded(R"({"id":1,"content":"<s>"})", R"([{"bos_token_id":9}])").bosId, 1);
}

// Whether to prepend the beginning-of-sequence token is settled elsewhere: both readers leave it true.
TEST(TokenizerConfigOverrides, LeaveAddBosTrue) {
  EXPECT_TRUE(withAdded("", R"({"add_bos_token":false})").addBos);
}

}  // namespace
}  // namespace zel
