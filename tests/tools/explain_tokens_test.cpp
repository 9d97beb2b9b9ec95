// Added and special tokens in the files beside the vocabulary.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "okv2/explain/tokenizer_walk.h"
#include "support/proto_builder.h"
#include "tools/explain_support.h"

namespace zel::explain {
namespace {

using test::ModelDirBuilder;
using test::ProtoBuilder;
using testing::ElementsAre;
using testing::IsEmpty;

// The small vocabulary of four tokens (<s>, a, b, ab) and these added ones.
ModelDirBuilder withAdded(const std::string& addedTokens) {
  return ModelDirBuilder().tokenizer(
      R"({"model":{"type":"BPE","vocab":{"<s>":0,"a":1,"b":2,"ab":3},"merges":["a b"]},"added_tokens":[)" +
      addedTokens + "]}");
}
ModelDirBuilder withDecoder(const std::string& members) {
  return withAdded("").file("tokenizer_config.json", R"({"added_tokens_decoder":{)" + members + "}}");
}

TEST(ExplainAddedTokens, OfTokenizerJsonThatHaveTheIdOfAnotherAreNamed) {
  EXPECT_THAT(
      found(withAdded(R"({"id":0,"content":"<s>"},{"id":3,"content":"<tool>"},{"id":4,"content":"x"})"),
            Id::TokenizerAddedElsewhere),
      ElementsAre("tokenizer.json: 1 of 3 added tokens, the first is \"<tool>\" with id 3, which is \"ab\""));
  EXPECT_THAT(found(withAdded(R"({"id":3,"content":"ab"},{"id":2},{"id":-1,"content":"x"})"),
                    Id::TokenizerAddedElsewhere),
              IsEmpty());
}

TEST(ExplainAddedTokens, AreNamedOnceWhenTwoFilesGiveThem) {
  const ModelDirBuilder same =
      withAdded(R"({"id":3,"content":"<tool>"},{"id":4,"content":"<x>"})")
          .file("tokenizer_config.json",
                R"({"added_tokens_decoder":{"3":{"content":"<tool>"},"4":{"content":"<x>"}}})")
          .file("added_tokens.json", R"({"<tool>":3,"<x>":4})");
  EXPECT_THAT(subjects(same, Id::TokenizerAddedElsewhere), ElementsAre("tokenizer.json"));
  EXPECT_THAT(subjects(same, Id::TokenizerAddedOutside), ElementsAre("tokenizer.json"));
}

TEST(ExplainAddedTokens, OfTokenizerConfigBeyondTheVocabularyAreNamed) {
  EXPECT_THAT(
      found(withDecoder(R"("3":{"content":"ab"},"4":{"content":"<x>"},"99999999999999999999":1)"),
            Id::TokenizerAddedOutside),
      ElementsAre("tokenizer_config.json: 1 of 3 added tokens lie outside the 4 tokens of the vocabulary, "
                  "the first is \"<x>\" with id 4"));
  EXPECT_THAT(found(withDecoder(R"("3":{"content":"ab"},"4":{"content":""},"x":{"content":"<x>"})"),
                    Id::TokenizerAddedOutside),
              IsEmpty());
  // The vocabulary has the text, so that nothing is added.
  EXPECT_THAT(found(withDecoder(R"("4":{"content":"ab"})"), Id::TokenizerAddedOutside), IsEmpty());
}

TEST(ExplainAddedTokens, OfTheirOwnFileAreNamedUnlessAnotherFileHasThem) {
  const std::string two = R"({"<x>":4,"<y>":5,"a":1,"bad":"6"})";
  EXPECT_THAT(
      found(withAdded("").file("added_tokens.json", two), Id::TokenizerAddedOutside),
      ElementsAre("added_tokens.json: 2 of 4 added tokens lie outside the 4 tokens of the vocabulary, the "
                  "first is \"<x>\" with id 4"));
  EXPECT_THAT(
      found(withDecoder(R"("4":{"content":"<x>"})").file("added_tokens.json", two),
            Id::TokenizerAddedOutside),
      ElementsAre("tokenizer_config.json: 1 of 1 added tokens lie outside the 4 tokens of the vocabulary, "
                  "the first is \"<x>\" with id 4",
                  "added_tokens.json: 1 of 4 added tokens lie outside the 4 tokens of the vocabulary, the "
                  "first is \"<y>\" with id 5"));
  EXPECT_THAT(
      found(withAdded("").file("added_tokens.json", R"({"<x>":3})"), Id::TokenizerAddedElsewhere),
      ElementsAre("added_tokens.json: 1 of 1 added tokens, the first is \"<x>\" with id 3, which is \"ab\""));
}

TEST(ExplainAddedTokens, BesideATokenizerModelAreNamedToo) {
  const ModelDirBuilder model =
      ModelDirBuilder()
          .file("tokenizer.model",
                ProtoBuilder().message(3, ProtoBuilder().bytes(1, "a").number(2, -1)).str())
          .file("added_tokens.json", R"({"<x>":1})");
  EXPECT_THAT(
      found(model, Id::TokenizerAddedOutside),
      ElementsAre("added_tokens.json: 1 of 1 added tokens lie outside the 1 tokens of the vocabulary, the "
                  "first is \"<x>\" with id 1"));
}

TEST(ExplainSpecialTokens, NamedInTokenizerConfigAreNamed) {
  EXPECT_THAT(found(withAdded("").file("tokenizer_config.json",
                                       R"({"bos_token":"a","eos_token":{"content":"b"},"pad_token":null})"),
                    Id::TokenizerSpecialNotRead),
              ElementsAre("bos_token: tokenizer_config.json: $.bos_token is \"a\", the container gets -1",
                          "eos_token: tokenizer_config.json: $.eos_token is \"b\", the container gets -1"));
  // "<s>" is one of the texts that give an id.
  EXPECT_THAT(
      found(withAdded(R"({"id":0,"content":"<s>"})").file("tokenizer_config.json", R"({"bos_token":"<s>"})"),
            Id::TokenizerSpecialNotRead),
      IsEmpty());
}

TEST(ExplainSpecialTokens, OutsideTheVocabularyAreSaidToBe) {
  EXPECT_THAT(
      found(withAdded("").file("tokenizer_config.json", R"({"bos_token":"<b>"})"),
            Id::TokenizerSpecialNotRead),
      ElementsAre("bos_token: tokenizer_config.json: $.bos_token is \"<b>\", which the vocabulary lacks, "
                  "the container gets -1"));
  EXPECT_THAT(found(ModelDirBuilder()
                        .tokenizer(R"({"model":{"vocab":{}}})")
                        .file("tokenizer_config.json", R"({"bos_token":"<b>"})"),
                    Id::TokenizerSpecialNotRead),
              IsEmpty());
}

TEST(ExplainSpecialTokens, AreComparedWithTheIdThatIsKept) {
  const ModelDirBuilder model =
      withAdded(R"({"id":0,"content":"<s>"})").file("tokenizer_config.json", R"({"bos_token":"a"})");
  EXPECT_THAT(
      found(model, Id::TokenizerSpecialNotRead),
      ElementsAre("bos_token: tokenizer_config.json: $.bos_token is \"a\", the container gets 0, \"<s>\""));
  // What config.json gives is meant.
  EXPECT_THAT(found(ModelDirBuilder(model).config(R"({"model_type":"x","bos_token_id":0})"),
                    Id::TokenizerSpecialNotRead),
              IsEmpty());
}

TEST(ExplainSpecialTokens, OfTheOlderFileComeFirst) {
  const auto with = [](const std::string& config) {
    return withAdded("")
        .file("special_tokens_map.json", R"({"pad_token":"a"})")
        .file("tokenizer_config.json", R"({"pad_token":"b")" + config + "}");
  };
  EXPECT_THAT(found(with(""), Id::TokenizerSpecialNotRead),
              ElementsAre("pad_token: special_tokens_map.json: $.pad_token is \"a\", the container gets -1"));
  EXPECT_THAT(found(with(R"(,"added_tokens_decoder":{})"), Id::TokenizerSpecialNotRead),
              ElementsAre("pad_token: tokenizer_config.json: $.pad_token is \"b\", the container gets -1"));
}

TEST(ExplainSpecialTokens, NamedByTheModelOfATokenizerJsonAreNamed) {
  const auto with = [](const char* unk, const char* config) {
    return ModelDirBuilder()
        .tokenizer(std::string(R"({"model":{"unk_token":)") + unk + R"(,"vocab":{"a":0,"b":1}}})")
        .config(config);
  };
  constexpr char kPlain[] = R"({"model_type":"x"})";
  EXPECT_THAT(found(with(R"("b")", kPlain), Id::TokenizerSpecialNotRead),
              ElementsAre("unk_token: tokenizer.json: $.model.unk_token is \"b\", the container gets -1"));
  EXPECT_THAT(found(with("null", kPlain), Id::TokenizerSpecialNotRead), IsEmpty());
  EXPECT_THAT(found(with(R"("b")", R"({"model_type":"x","unk_token_id":1})"), Id::TokenizerSpecialNotRead),
              IsEmpty());
}

TEST(Tiktoken, IsALineOfBase64AndARank) {
  EXPECT_TRUE(isTiktoken("IQ== 0\nIg== 1\n"));
  EXPECT_TRUE(isTiktoken("IQ== 0\r\n"));
  EXPECT_TRUE(isTiktoken("abcd 17"));
  EXPECT_TRUE(isTiktoken("IQ==0\n"));
  EXPECT_TRUE(isTiktoken("IQ== 99999999999999999999\n"));
}

TEST(Tiktoken, IsNoAnswerOfAServer) {
  EXPECT_FALSE(isTiktoken("Unauthorized"));
  EXPECT_FALSE(isTiktoken("Unauthorized 4o1"));
  EXPECT_FALSE(isTiktoken("Forbidden 403"));  // nine characters are no base64
  EXPECT_FALSE(isTiktoken("IQ=="));
  EXPECT_FALSE(isTiktoken("IQ== \n"));
  EXPECT_FALSE(isTiktoken("I=== 0\n"));
  EXPECT_FALSE(isTiktoken(""));
}

}  // namespace
}  // namespace zel::explain
