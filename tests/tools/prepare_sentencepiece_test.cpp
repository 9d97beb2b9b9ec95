// tokenizer.model: genuine models are encoded anew, the layout that is read stays, everything else is
// refused.
#include <string>
#include <vector>

#include "hf/hf_importer.h"
#include "okv2/prepare/sentencepiece_model.h"
#include "prepare_tokenizers.h"
#include "support/proto_builder.h"

namespace zel::tool::prepare {
namespace {

using test::ProtoBuilder;
using testing::ElementsAre;
using testing::IsEmpty;

// Types of pieces, as the public format numbers them.
enum PieceType : std::uint64_t {
  kNormal = 1,
  kUnknown = 2,
  kControl = 3,
  kUserDefined = 4,
  kUnused = 5,
  kByte = 6
};

ProtoBuilder piece(std::string_view text, float score, std::uint64_t type) {
  return ProtoBuilder().bytes(1, text).number(2, score).varint(3, type);
}

// A genuine model: pieces in field 1, trainer settings in field 2, the normaliser in field 3.
class ModelBuilder {
 public:
  ModelBuilder& add(const ProtoBuilder& record) {
    pieces_.message(1, record);
    return *this;
  }
  ModelBuilder& named(std::uint64_t field, std::string_view name) {
    trainer_.bytes(field, name);
    return *this;
  }
  [[nodiscard]] std::string bytes() const {
    ProtoBuilder out = pieces_;
    return out.message(2, trainer_).message(3, ProtoBuilder().bytes(1, "identity")).str();
  }

 private:
  ProtoBuilder pieces_;
  ProtoBuilder trainer_;
};

ModelBuilder smallModel() {
  return ModelBuilder()
      .add(piece("<unk>", 0, kUnknown))
      .add(piece("<s>", 0, kControl))
      .add(piece("</s>", 0, kControl))
      .add(piece("a", -1.5F, kNormal));
}

Mended mendModel(const std::string& bytes, const std::vector<AddedToken>& added = {}) {
  return mendWith<mendTokenizerModel, readTokenizerModel>(bytes, added);
}

Refusal modelRefusal(const std::string& bytes) { return refusalOfMending<mendTokenizerModel>(bytes); }

TEST(MendTokenizerModel, CarriesPiecesScoresTypesAndIdsOver) {
  const Mended mended = mendModel(smallModel()
                                      .add(piece("<u>", -2, kUserDefined))
                                      .add(piece("<0x0A>", -3, kByte))
                                      .add(piece("<r>", -4, kUnused))
                                      .bytes());
  EXPECT_THAT(mended.data.tokens, ElementsAre("<unk>", "<s>", "</s>", "a", "<u>", "<0x0A>", "<r>"));
  EXPECT_THAT(mended.data.scores, ElementsAre(0.0F, 0.0F, 0.0F, -1.5F, -2.0F, -3.0F, -4.0F));
  EXPECT_THAT(mended.data.types, ElementsAre(2, 3, 3, 1, 4, 6, 5));
  EXPECT_EQ(mended.data.bosId, 1);
  EXPECT_EQ(mended.data.eosId, 2);
  EXPECT_EQ(mended.data.unkId, 0);
  EXPECT_EQ(mended.data.padId, -1);
  EXPECT_THAT(
      mended.changes,
      ElementsAre("tokenizer.model | the numbering of its fields | pieces in field 1, settings in field 2 | "
                  "pieces in field 3, special ids in field 1 | tokenizer.model-field-numbers"));
}

TEST(MendTokenizerModel, FindsSpecialPiecesByTheNamesInTheTrainerSettings) {
  const Mended mended = mendModel(ModelBuilder()
                                      .add(piece("[P]", 0, kControl))
                                      .add(piece("[B]", 0, kControl))
                                      .add(piece("[E]", 0, kControl))
                                      .add(piece("[U]", 0, kUnknown))
                                      .named(45, "[U]")
                                      .named(46, "[B]")
                                      .named(47, "[E]")
                                      .named(48, "[P]")
                                      .bytes());
  EXPECT_EQ(mended.data.padId, 0);
  EXPECT_EQ(mended.data.bosId, 1);
  EXPECT_EQ(mended.data.eosId, 2);
  EXPECT_EQ(mended.data.unkId, 3);
}

TEST(MendTokenizerModel, TakesNoPieceOfAnotherTypeForASpecialOne) {
  const Mended mended =
      mendModel(ModelBuilder().add(piece("<unk>", 0, kUnknown)).add(piece("<s>", 0, kUserDefined)).bytes());
  EXPECT_EQ(mended.data.bosId, -1);
  EXPECT_EQ(mended.data.unkId, 0);
}

TEST(MendTokenizerModel, GivesAPieceWithoutScoreAndTypeTheirDefaults) {
  const Mended mended = mendModel(smallModel().add(ProtoBuilder().bytes(1, "b")).bytes());
  EXPECT_EQ(mended.data.tokens[4], "b");
  EXPECT_EQ(mended.data.scores[4], 0.0F);
  EXPECT_EQ(mended.data.types[4], 1);
}

TEST(MendTokenizerModel, KeepsBytesThatAreNoUtf8) {
  EXPECT_EQ(mendModel(smallModel().add(piece("\xFF", -9, kNormal)).bytes()).data.tokens[4], "\xFF");
}

TEST(MendTokenizerModel, AppendsTokensThatLieBehindTheModel) {
  const Mended mended =
      mendModel(smallModel().bytes(), {{1, "<s>", true}, {4, "<tool>", false}, {6, "<end>", true}});
  EXPECT_THAT(mended.data.tokens,
              ElementsAre("<unk>", "<s>", "</s>", "a", "<tool>", "<|reserved_5|>", "<end>"));
  EXPECT_THAT(mended.data.types, ElementsAre(2, 3, 3, 1, 4, 5, 3));
  EXPECT_EQ(mended.data.scores.size(), 7U);
}

TEST(MendTokenizerModel, KeepsAFileInTheLayoutThatIsRead) {
  const std::string bytes = ProtoBuilder()
                                .message(3, piece("<s>", 0, kControl))
                                .message(3, piece("a", -1, kNormal))
                                .message(1, ProtoBuilder().varint(5, 0))
                                .str();
  const Mended mended = mendModel(bytes);
  EXPECT_EQ(mended.tokenizer.bytes, bytes);
  EXPECT_TRUE(mended.tokenizer.isKept);
  EXPECT_EQ(mended.tokenizer.size, 2);
  EXPECT_THAT(mended.changes, IsEmpty());
}

TEST(MendTokenizerModel, NamesTheAddedTokensThatAKeptFileLacks) {
  const std::string bytes = ProtoBuilder()
                                .message(3, piece("<s>", 0, kControl))
                                .message(3, piece("a", -1, kNormal))
                                .message(1, ProtoBuilder().varint(5, 0))
                                .str();
  const char* file = "added_tokens.json";
  const Mended mended = mendModel(bytes, {{0, "<s>", true, file},
                                          {1, "b", true, file},
                                          {1, "c", true, "tokenizer_config.json"},  // explain names it
                                          {2, "d", true, file},
                                          {-1, "a", true, file, false},
                                          {-1, "e", true, file, false}});
  std::vector<std::string> losses;
  for (const explain::Finding& loss : mended.tokenizer.losses)
    losses.push_back(loss.subject + " | " + loss.detail);
  EXPECT_THAT(
      losses,
      ElementsAre(
          R"(added_tokens.json["b"] | added_tokens.json: "b" has id 1, which is "a")",
          R"(added_tokens.json["d"] | added_tokens.json: the 2 pieces of tokenizer.model stay as they are)",
          R"(added_tokens.json["e"] | added_tokens.json: the 2 pieces of tokenizer.model stay as they are)"));
}

TEST(MendTokenizerModel, AddsSettledIdsToTheSettings) {
  Mended mended = mendModel(smallModel().bytes());
  SpecialIds ids;
  ids.pad = 3;
  appendSpecialIds(ids, mended.tokenizer.bytes);
  TokenizerData data;
  EXPECT_EQ(readTokenizerModel(mended.tokenizer.bytes, json::Value(), data).message(), "");
  EXPECT_EQ(data.padId, 3);
  EXPECT_EQ(data.bosId, 1);
  EXPECT_EQ(data.tokens.size(), 4U);
}

TEST(MendTokenizerModel, RefusesAListOfTokensAndRanks) {
  EXPECT_EQ(
      modelRefusal("aGVsbG8gd28= 0\ncmxk 1\n"),
      (Refusal{3, "tokenizer.model-tiktoken", "tokenizer.model: it is a list of base64 tokens and ranks",
               "Put a tokenizer.json there, or the SentencePiece model of that name."}));
}

TEST(MendTokenizerModel, RefusesEveryTruncationOfAModel) {
  const std::string bytes = smallModel().bytes();
  const Refusal expected{7, "tokenizer.model-refused", "tokenizer.model: it is no SentencePiece model",
                         "Fetch tokenizer.model again, or put a tokenizer.json there."};
  // A cut between two fields leaves a shorter message that is whole.
  std::size_t whole = 0;
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    const Refusal actual = modelRefusal(bytes.substr(0, length));
    if (actual == Refusal{}) {
      ++whole;
    } else {
      EXPECT_EQ(actual, expected) << length;
    }
  }
  EXPECT_EQ(whole, 5U);  // behind each of four pieces, and behind the trainer settings
}

TEST(MendTokenizerModel, RefusesAMessageWithoutPieces) {
  EXPECT_EQ(modelRefusal(ProtoBuilder().message(2, ProtoBuilder().varint(40, 0)).str()).finding,
            "tokenizer.model-refused");
}

TEST(MendTokenizerModel, RefusesAFileThatIsTooLong) {
  std::string bytes = smallModel().bytes();
  const std::size_t rest = kMaxModelBytes - bytes.size();
  // One unknown field brings it to the limit: a key of two bytes and a length of four.
  bytes += ProtoBuilder().bytes(100, std::string(rest - 6, 'x')).str();
  ASSERT_EQ(bytes.size(), kMaxModelBytes);
  EXPECT_EQ(mendModel(bytes).tokenizer.size, 4);
  EXPECT_EQ(modelRefusal(bytes + "x"),
            (Refusal{3, "tokenizer.model-refused",
                     "tokenizer.model: 16777217 bytes are more than the 16777216 of any SentencePiece model",
                     "Put the model's own tokenizer.model or tokenizer.json there."}));
}

}  // namespace
}  // namespace zel::tool::prepare
