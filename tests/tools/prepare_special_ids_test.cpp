// The four special ids: who decides them, and that a vocabulary has to hold them.
#include <string>
#include <string_view>

#include "okv2/prepare/vocabulary.h"
#include "prepare_directory_support.h"
#include "support/proto_builder.h"

namespace zel::tool::prepare {
namespace {

using test::ModelDirBuilder;
using test::ProtoBuilder;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

// Ids 0 to 3, none of them known by its text.
constexpr char kFourTokens[] = R"({"model":{"vocab":{"A":0,"B":1,"C":2,"D":3}}})";

ModelDirBuilder withTokens(std::string_view config = R"({"model_type":"x"})") {
  return ModelDirBuilder().config(config).tokenizer(kFourTokens);
}

TEST(SettleSpecialIds, FollowsTheTextsOfTheTokenizersConfiguration) {
  const PreparedDirectory directory(
      withTokens().file("tokenizer_config.json",
                        R"({"bos_token":"A","eos_token":{"content":"B"},"unk_token":"C","pad_token":"D"})"));
  EXPECT_EQ(directory.model.tokenizer.bosId, 0);
  EXPECT_EQ(directory.model.tokenizer.eosId, 1);
  EXPECT_EQ(directory.model.tokenizer.unkId, 2);
  EXPECT_EQ(directory.model.tokenizer.padId, 3);
  EXPECT_THAT(directory.changes(),
              Contains("config.json | $.eos_token_id |  | 1 | tokenizer.special-id-outside"));
}

TEST(SettleSpecialIds, KeepsWhatTheConfigurationGives) {
  const PreparedDirectory directory(
      withTokens(R"({"model_type":"x","bos_token_id":3,"eos_token_id":[2]})")
          .file("tokenizer_config.json", R"({"bos_token":"A","eos_token":"B"})"));
  EXPECT_EQ(directory.model.tokenizer.bosId, 3);
  EXPECT_EQ(directory.model.tokenizer.eosId, 2);
}

TEST(SettleSpecialIds, PrefersTheMapToATokenizersConfigurationOfTheOlderKind) {
  const PreparedDirectory directory(withTokens()
                                        .file("tokenizer_config.json", R"({"bos_token":"A"})")
                                        .file("special_tokens_map.json", R"({"bos_token":"B"})"));
  EXPECT_EQ(directory.model.tokenizer.bosId, 1);
}

TEST(SettleSpecialIds, AsksOnlyATokenizersConfigurationThatListsItsTokens) {
  const PreparedDirectory directory(
      withTokens()
          .file("tokenizer_config.json", R"({"bos_token":"A","added_tokens_decoder":{}})")
          .file("special_tokens_map.json", R"({"bos_token":"B","pad_token":"C"})"));
  EXPECT_EQ(directory.model.tokenizer.bosId, 0);
  EXPECT_EQ(directory.model.tokenizer.padId, -1);
}

TEST(SettleSpecialIds, TakesANegativeIdForNone) {
  const PreparedDirectory directory(
      withTokens(R"({"model_type":"x","pad_token_id":-1,"bos_token_id":0})")
          .file("tokenizer_config.json", R"({"pad_token":"C","bos_token":"D"})"));
  EXPECT_EQ(directory.model.tokenizer.padId, 2);
  EXPECT_EQ(directory.model.tokenizer.bosId, 0);
  EXPECT_THAT(directory.changes(),
              ElementsAre("config.json | $.pad_token_id | -1 | 2 | tokenizer.special-id-outside"));
}

TEST(SettleSpecialIds, PrefersTheNamedTextToAFamiliarOne) {
  const PreparedDirectory directory(
      ModelDirBuilder()
          .tokenizer(R"({"model":{"vocab":{"</s>":0,"<end>":1}},"added_tokens":[{"id":0,"content":"</s>"}]})")
          .file("tokenizer_config.json", R"({"eos_token":"<end>"})"));
  EXPECT_EQ(directory.model.tokenizer.eosId, 1);
  EXPECT_THAT(directory.changes(),
              Contains("config.json | $.eos_token_id | 0 | 1 | tokenizer.special-id-outside"));
}

TEST(SettleSpecialIds, TakesTheModelsOwnUnknownTokenNext) {
  const PreparedDirectory directory(
      ModelDirBuilder().tokenizer(R"({"model":{"unk_token":"B","vocab":{"A":0,"B":1}}})"));
  EXPECT_EQ(directory.model.tokenizer.unkId, 1);
}

TEST(SettleSpecialIds, TakesTheGenerationConfigurationNext) {
  const PreparedDirectory directory(withTokens().file(
      "generation_config.json", R"({"eos_token_id":[3,2],"pad_token_id":1,"bos_token_id":4})"));
  EXPECT_EQ(directory.model.tokenizer.eosId, 3);
  EXPECT_EQ(directory.model.tokenizer.padId, 1);
  EXPECT_EQ(directory.model.tokenizer.bosId, -1);  // id 4 is no token
}

TEST(SettleSpecialIds, TakesTheNestedConfigurationLast) {
  const PreparedDirectory directory(
      withTokens(R"({"model_type":"x","text_config":{"bos_token_id":2,"eos_token_id":2}})")
          .file("generation_config.json", R"({"eos_token_id":1})"));
  EXPECT_EQ(directory.model.tokenizer.bosId, 2);
  EXPECT_EQ(directory.model.tokenizer.eosId, 1);
}

// Tokens with the names that an import knows, and a configuration that names them as well.
ModelDirBuilder withFamiliarTokens(const std::string& ids) {
  return ModelDirBuilder()
      .config(completeConfig(ids))
      .tokenizer(R"({"model":{"vocab":{"a":0,"<s>":1,"</s>":2,"<pad>":3}},"added_tokens":[)"
                 R"({"id":1,"content":"<s>"},{"id":2,"content":"</s>"},{"id":3,"content":"<pad>"}]})")
      .file("tokenizer_config.json", R"({"bos_token":"<s>","eos_token":"</s>","pad_token":"<pad>"})");
}

TEST(SettleSpecialIds, LetsNoNegativeIdOutrankAFamiliarToken) {
  const PreparedDirectory directory(
      withFamiliarTokens(R"("bos_token_id":-1,"eos_token_id":-1,"pad_token_id":-2)"));
  EXPECT_EQ(directory.model.tokenizer.bosId, 1);
  EXPECT_EQ(directory.model.tokenizer.eosId, 2);
  EXPECT_EQ(directory.model.tokenizer.padId, 3);
  EXPECT_THAT(directory.changes(),
              ElementsAre("config.json | $.bos_token_id | -1 | 1 | tokenizer.special-id-outside",
                          "config.json | $.eos_token_id | -1 | 2 | tokenizer.special-id-outside",
                          "config.json | $.pad_token_id | -2 | 3 | tokenizer.special-id-outside"));
  EXPECT_THAT(directory.remaining(), IsEmpty());
}

TEST(SettleSpecialIds, LeavesAFamiliarTokenThatNothingOutranks) {
  const PreparedDirectory directory(
      withFamiliarTokens(R"("bos_token_id":null,"eos_token_id":[],"pad_token_id":0)"));
  EXPECT_EQ(directory.model.tokenizer.bosId, 1);
  EXPECT_EQ(directory.model.tokenizer.eosId, 2);
  EXPECT_EQ(directory.model.tokenizer.padId, 0);
  EXPECT_THAT(directory.changes(), IsEmpty());
}

TEST(SettleSpecialIds, TakesAListOfNegativeIdsForNone) {
  const PreparedDirectory directory(withFamiliarTokens(R"("eos_token_id":[-1])"));
  EXPECT_EQ(directory.model.tokenizer.eosId, 2);
  EXPECT_THAT(directory.changes(),
              ElementsAre("config.json | $.eos_token_id | [-1] | 2 | tokenizer.special-id-outside"));
}

TEST(SettleSpecialIds, LeavesAnIdBeyondTheVocabularyAndNamesIt) {
  const PreparedDirectory directory(withFamiliarTokens(R"("eos_token_id":4)"));
  EXPECT_EQ(directory.model.tokenizer.eosId, 4);
  EXPECT_THAT(directory.changes(), IsEmpty());
  EXPECT_THAT(directory.remaining(), ElementsAre("tokenizer.special-id-outside"));
}

// ---- tokenizer.model

ProtoBuilder piece(std::string_view text, std::uint64_t type) {
  return ProtoBuilder().bytes(1, text).number(2, 0).varint(3, type);
}

ModelDirBuilder withModel(std::string_view config) {
  return ModelDirBuilder().config(config).file("tokenizer.model", ProtoBuilder()
                                                                      .message(1, piece("<unk>", 2))
                                                                      .message(1, piece("<s>", 3))
                                                                      .message(1, piece("</s>", 3))
                                                                      .message(1, piece("a", 1))
                                                                      .str());
}

TEST(SettleSpecialIdsOfAModel, FollowsTheTextsBeforeTheModel) {
  const PreparedDirectory directory(
      withModel(R"({"model_type":"x","eos_token_id":0})")
          .file("tokenizer_config.json",
                R"({"eos_token":"<|im_end|>","added_tokens_decoder":{"4":{"content":"<|im_end|>"}}})"));
  EXPECT_EQ(directory.model.tokenizer.eosId, 4);
  EXPECT_EQ(directory.model.tokenizer.bosId, 1);  // the model's own
  EXPECT_THAT(
      directory.changes(),
      Contains("tokenizer.model | eos_token_id in the settings | 2 | 4 | tokenizer.model-field-numbers"));
}

TEST(SettleSpecialIdsOfAModel, NamesAnIdOfTheConfigurationThatDiffers) {
  const auto remainingWith = [](const std::string& member) {
    return PreparedDirectory(withModel(completeConfig(member))).remaining();
  };
  EXPECT_THAT(remainingWith(R"("eos_token_id":3)"), ElementsAre("config.id-not-kept"));
  EXPECT_THAT(remainingWith(R"("eos_token_id":2)"), IsEmpty());
  EXPECT_THAT(remainingWith(R"("eos_token_id":-1)"), IsEmpty());
  EXPECT_THAT(remainingWith(R"("eos_token_id":null)"), IsEmpty());
}

TEST(SettleSpecialIdsOfAModel, KeepsTheModelsIdWhenNoTextIsNamed) {
  const PreparedDirectory directory(
      withModel(R"({"model_type":"x"})").file("tokenizer_config.json", R"({"eos_token":null})"));
  EXPECT_EQ(directory.model.tokenizer.eosId, 2);
}

TEST(SettleSpecialIdsOfAModel, FillsOnlyWhatTheModelLeavesOpen) {
  const PreparedDirectory directory(withModel(R"({"model_type":"x","bos_token_id":3})")
                                        .file("special_tokens_map.json", R"({"pad_token":"</s>"})"));
  EXPECT_EQ(directory.model.tokenizer.bosId, 1);
  EXPECT_EQ(directory.model.tokenizer.padId, 2);
  EXPECT_THAT(
      directory.changes(),
      Contains("tokenizer.model | pad_token_id in the settings |  | 2 | tokenizer.model-field-numbers"));
}

TEST(SettleSpecialIdsOfAModel, TakesGenerationBeforeConfiguration) {
  EXPECT_EQ(PreparedDirectory(withModel(R"({"model_type":"x","pad_token_id":3})")).model.tokenizer.padId, 3);
  EXPECT_EQ(PreparedDirectory(withModel(R"({"model_type":"x","pad_token_id":3})")
                                  .file("generation_config.json", R"({"pad_token_id":0})"))
                .model.tokenizer.padId,
            0);
  EXPECT_EQ(PreparedDirectory(withModel(R"({"model_type":"x","pad_token_id":-1})")).model.tokenizer.padId,
            -1);
}

// ---- added_tokens.json

constexpr char kAdded[] = R"({"<pad>":4,"<user>":5,"<bad>":"6"})";

TEST(AddedTokensFile, JoinsAModelsPieces) {
  const PreparedDirectory directory(withModel(R"({"model_type":"x"})")
                                        .file("added_tokens.json", kAdded)
                                        .file("tokenizer_config.json", R"({"pad_token":"<pad>"})"));
  const TokenizerData& data = directory.model.tokenizer;
  EXPECT_THAT(data.tokens, ElementsAre("<unk>", "<s>", "</s>", "a", "<pad>", "<user>"));
  EXPECT_THAT(data.types, ElementsAre(2, 3, 3, 1, 3, 4));  // control where it has a part, else user-defined
  EXPECT_EQ(data.padId, 4);
  EXPECT_FALSE(directory.has("added_tokens.json"));
}

TEST(AddedTokensFile, JoinsTheVocabularyOfTokenizerJson) {
  const PreparedDirectory directory(withTokens()
                                        .file("added_tokens.json", kAdded)
                                        .file("special_tokens_map.json", R"({"pad_token":"<pad>"})"));
  EXPECT_THAT(directory.model.tokenizer.tokens, ElementsAre("A", "B", "C", "D", "<pad>", "<user>"));
  EXPECT_EQ(directory.model.tokenizer.padId, 4);
}

TEST(AddedTokensFile, IsNotReadWhereTheTokenizersConfigurationListsTokens) {
  const PreparedDirectory directory(
      withTokens()
          .file("added_tokens.json", "[")
          .file("tokenizer_config.json", R"({"added_tokens_decoder":{"4":{"content":"<x>"}}})"));
  EXPECT_THAT(directory.model.tokenizer.tokens, ElementsAre("A", "B", "C", "D", "<x>"));
}

TEST(AddedTokensFile, IsRefusedWhenItIsNoObject) {
  EXPECT_EQ(refusalOfDirectory(withTokens().file("added_tokens.json", "[4]")),
            (Refusal{7, "side.bad-json", "added_tokens.json: $ is no object",
                     "Mend added_tokens.json, or fetch it again."}));
}

// ---- added tokens that would rename others

TEST(AddedTokens, ThatHaveTheIdOfAnotherPieceAreNamed) {
  const auto remainingFor = [](const std::string& text) {
    const PreparedDirectory directory(
        withModel(completeConfig())
            .file("tokenizer_config.json",
                  R"({"added_tokens_decoder":{"3":{"content":")" + text + R"("}}})"));
    EXPECT_EQ(directory.model.tokenizer.tokens.at(3), "a");
    return directory.remaining();
  };
  EXPECT_THAT(remainingFor("a"), IsEmpty());
  EXPECT_THAT(remainingFor("b"), ElementsAre("tokenizer.added-elsewhere"));
}

TEST(AddedTokensFile, NamesATokenThatHasTheIdOfAnotherPiece) {
  const PreparedDirectory directory(
      withModel(completeConfig()).file("added_tokens.json", R"({"<|im_end|>":3,"</s>":2})"));
  EXPECT_THAT(directory.model.tokenizer.tokens, ElementsAre("<unk>", "<s>", "</s>", "a"));
  EXPECT_THAT(directory.losses(),
              ElementsAre("tokenizer.added-elsewhere | added_tokens.json[\"<|im_end|>\"] | "
                          "added_tokens.json: \"<|im_end|>\" has id 3, which is \"a\""));
}

TEST(AddedTokensFile, NamesTokensWhoseIdsAreNone) {
  const PreparedDirectory directory(
      withModel(completeConfig())
          .file("added_tokens.json", R"({"n":-1,"h":1.5,"t":"q","g":9223372036854775808,"z":4})"));
  EXPECT_THAT(directory.model.tokenizer.tokens, ElementsAre("<unk>", "<s>", "</s>", "a", "z"));
  EXPECT_THAT(
      directory.losses(),
      ElementsAre(
          "tokenizer.added-outside | added_tokens.json[\"n\"] | added_tokens.json: the id of \"n\" is -1",
          "tokenizer.added-outside | added_tokens.json[\"h\"] | added_tokens.json: the id of \"h\" is 1.5",
          "tokenizer.added-outside | added_tokens.json[\"t\"] | added_tokens.json: the id of \"t\" is \"q\"",
          "tokenizer.added-outside | added_tokens.json[\"g\"] | "
          "added_tokens.json: the id of \"g\" is 9223372036854775808"));
}

TEST(AddedTokens, WhoseKeysAreNoIdsAreNamed) {
  const PreparedDirectory directory(
      withModel(completeConfig())
          .file("tokenizer_config.json",
                R"({"added_tokens_decoder":{"-1":{"content":"n"},"4":{"content":"z"},"x":{}}})"));
  EXPECT_THAT(directory.model.tokenizer.tokens, ElementsAre("<unk>", "<s>", "</s>", "a", "z"));
  EXPECT_THAT(directory.losses(), ElementsAre("tokenizer.added-outside | tokenizer_config.json[\"n\"] | "
                                              "tokenizer_config.json: the id of \"n\" is \"-1\""));
}

TEST(AddedTokens, AreRefusedWhereTheyAreTooMany) {
  const auto manyOf = [](std::size_t count) {
    std::string tokens = "{\"z\":4";
    for (std::size_t k = 1; k < count; ++k)
      tokens += ",\"\":4";
    return withModel(completeConfig()).file("added_tokens.json", tokens + "}");
  };
  EXPECT_EQ(PreparedDirectory(manyOf(kMaxAddedTokens)).model.tokenizer.tokens.size(), 5U);
  EXPECT_EQ(refusalOfDirectory(manyOf(kMaxAddedTokens + 1)),
            (Refusal{3, "tokenizer.added-outside",
                     "added_tokens.json: 262145 added tokens are more than the 262144 of any vocabulary",
                     "Use the tokenizer files that belong to the model."}));
}

TEST(AddedTokensFile, GivesNoSecondPlaceToATokenThatHasTheIdOfAnotherPiece) {
  const PreparedDirectory directory(withModel(completeConfig())
                                        .file("added_tokens.json", R"({"<|im_end|>":3})")
                                        .file("special_tokens_map.json", R"({"eos_token":"<|im_end|>"})"));
  EXPECT_THAT(directory.model.tokenizer.tokens, ElementsAre("<unk>", "<s>", "</s>", "a"));
  EXPECT_EQ(directory.model.tokenizer.eosId, 2);  // not the token that is named
  EXPECT_THAT(directory.remaining(), ElementsAre("tokenizer.special-not-read", "tokenizer.added-elsewhere"));
}

// ---- tokens that are known by their texts only

TEST(NamedTokens, AreJoinedWhereTheirIdIsNone) {
  for (const char* file : {"added_tokens.json", "tokenizer_config.json"}) {
    const bool isList = file == std::string("added_tokens.json");
    const PreparedDirectory directory(
        isList
            ? withModel(completeConfig())
                  .file(file, R"({"[PAD]":-1})")
                  .file("special_tokens_map.json", R"({"pad_token":"[PAD]"})")
            : withModel(completeConfig())
                  .file(file, R"({"pad_token":"[PAD]","added_tokens_decoder":{"-1":{"content":"[PAD]"}}})"));
    EXPECT_EQ(directory.model.tokenizer.padId, 4);
    EXPECT_THAT(directory.remaining(), IsEmpty());
  }
}

TEST(NamedTokens, JoinAModelBehindItsLastPiece) {
  const PreparedDirectory directory(
      withModel(completeConfig())
          .file("special_tokens_map.json", R"({"pad_token":"[PAD]","additional_special_tokens":["<x>","a"]})")
          .file("tokenizer_config.json", R"({"pad_token":"[OTHER]"})"));
  const TokenizerData& data = directory.model.tokenizer;
  EXPECT_THAT(data.tokens, ElementsAre("<unk>", "<s>", "</s>", "a", "[PAD]", "<x>"));
  EXPECT_THAT(data.types, ElementsAre(2, 3, 3, 1, 3, 3));
  EXPECT_EQ(data.padId, 4);
  EXPECT_EQ(directory.model.vocabSize, 4);  // that of the embedding, which gets no row
  EXPECT_THAT(
      directory.changes(),
      ElementsAre(testing::HasSubstr("the numbering of its fields"),
                  "tokenizer.model | pieces[\"[PAD]\"] |  | 4 | tokenizer.added-outside",
                  "tokenizer.model | pieces[\"<x>\"] |  | 5 | tokenizer.added-outside",
                  "tokenizer.model | pad_token_id in the settings |  | 4 | tokenizer.model-field-numbers"));
  EXPECT_EQ(directory.prepared.changes[1].why,
            "special_tokens_map.json names the token, which is added behind the last one when the tokenizer "
            "is loaded");
  EXPECT_THAT(directory.remaining(), IsEmpty());
}

TEST(NamedTokens, JoinTheVocabularyOfTokenizerJson) {
  const PreparedDirectory directory(
      withTokens(completeConfig())
          .file("tokenizer_config.json",
                R"({"bos_token":"A","pad_token":"[PAD]","additional_special_tokens":["<x>","[PAD]"]})"));
  const TokenizerData& data = directory.model.tokenizer;
  EXPECT_THAT(data.tokens, ElementsAre("A", "B", "C", "D", "[PAD]", "<x>"));
  EXPECT_THAT(data.types, ElementsAre(1, 1, 1, 1, 3, 3));
  EXPECT_EQ(data.padId, 4);
  EXPECT_EQ(directory.model.vocabSize, 4);
  EXPECT_THAT(directory.remaining(), IsEmpty());
}

TEST(NamedTokens, StandBehindThoseThatHaveAnId) {
  const PreparedDirectory directory(
      withTokens(completeConfig())
          .file("tokenizer_config.json",
                R"({"pad_token":"[PAD]","added_tokens_decoder":{"5":{"content":"<y>"}}})")
          .file("special_tokens_map.json", R"({"additional_special_tokens":["<not read>"]})"));
  EXPECT_THAT(directory.model.tokenizer.tokens,
              ElementsAre("A", "B", "C", "D", "<|reserved_4|>", "<y>", "[PAD]"));
  EXPECT_EQ(directory.model.tokenizer.padId, 6);
}

}  // namespace
}  // namespace zel::tool::prepare
