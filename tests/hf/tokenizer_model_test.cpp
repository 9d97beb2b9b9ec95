#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include <sys/stat.h>

#include "support/proto_builder.h"
#include "support/temp_dir.h"
#include "tokenizer_support.h"

namespace zel {
namespace {

using test::IsOk;
using test::ProtoBuilder;
using test::StatusIs;
using test::TempDir;
using test::WireType;
using testing::ElementsAre;
using testing::IsEmpty;

const auto kBad = StatusIs(Code::Corrupted, "hf: bad tokenizer.model (proto parse)");

Status read(const std::string& bytes, TokenizerData& out, std::string_view config = "{}") {
  const std::string exact(bytes);
  return readTokenizerModel(exact, test::configFrom(config), out);
}
Status read(const std::string& bytes) {
  TokenizerData ignored;
  return read(bytes, ignored);
}
Status read(const ProtoBuilder& message) { return read(message.str()); }
TokenizerData good(const ProtoBuilder& message, std::string_view config = "{}") {
  TokenizerData out;
  EXPECT_THAT(read(message.str(), out, config), IsOk());
  return out;
}
ProtoBuilder settings(const ProtoBuilder& inner) { return ProtoBuilder().message(1, inner); }
ProtoBuilder piece(const ProtoBuilder& inner) { return ProtoBuilder().message(3, inner); }

// ---- the file

TEST(TokenizerModelFile, ThatCannotBeReadIsInvalidFormat) {
  const auto unreadable = StatusIs(Code::InvalidFormat, "hf: cannot read tokenizer.model");
  const TempDir dir;
  HfImporter importer;
  EXPECT_THAT(importer.parseTokenizerModel(dir / "missing"), unreadable);
  EXPECT_THAT(importer.parseTokenizerModel(dir.write("empty", "")), unreadable);
  EXPECT_THAT(importer.parseTokenizerModel(dir.path()), unreadable);
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_THAT(importer.parseTokenizerModel(dir / "fifo"), unreadable);
}

TEST(TokenizerModelFile, FillsTheImporterWithTheHelpOfItsConfiguration) {
  const TempDir dir;
  HfImporter importer;
  importer.config = test::configFrom(R"({"chat_template":"t","bos_token_id":9})");
  const std::string path = dir.write("m", piece(ProtoBuilder().bytes(1, "a")).str());
  ASSERT_THAT(importer.parseTokenizerModel(path), IsOk());
  EXPECT_THAT(importer.tokenizer.tokens, ElementsAre("a"));
  EXPECT_EQ(importer.tokenizer.chatTemplate, "t");
  EXPECT_EQ(importer.tokenizer.bosId, -1) << "only the template comes from the configuration";
}

TEST(TokenizerModelFile, ThatIsBadLeavesTheImportersTokenizerAsItWas) {
  const TempDir dir;
  HfImporter importer;
  importer.tokenizer.tokens = {"before"};
  const auto before = test::describe(importer.tokenizer);
  const ProtoBuilder bad = piece(ProtoBuilder().bytes(1, "a")).key(3, WireType::StartGroup);
  EXPECT_THAT(importer.parseTokenizerModel(dir.write("m", bad.str())), kBad);
  EXPECT_EQ(test::describe(importer.tokenizer), before);
}

// ---- what is taken

TEST(TokenizerModel, OfSettingsAloneHasIdsAndNoTokens) {
  const TokenizerData data = good(settings(ProtoBuilder().varint(5, 1).varint(6, 2)));
  EXPECT_EQ(data.bosId, 1);
  EXPECT_EQ(data.eosId, 2);
  EXPECT_EQ(data.unkId, -1);
  EXPECT_EQ(data.padId, -1);
  EXPECT_THAT(data.tokens, IsEmpty());
  EXPECT_TRUE(data.addBos);
}

// Field numbers of this reader's own: other producers of such files number these fields differently.
TEST(TokenizerModel, TakesIdsFromFields5To8OfField1) {
  const TokenizerData data = good(settings(
      ProtoBuilder().varint(4, 40).varint(5, 50).varint(6, 60).varint(7, 70).varint(8, 80).varint(9, 90)));
  EXPECT_EQ(data.bosId, 50);
  EXPECT_EQ(data.eosId, 60);
  EXPECT_EQ(data.unkId, 70);
  EXPECT_EQ(data.padId, 80);
}

TEST(TokenizerModel, TakesPiecesFromField3InFileOrder) {
  const TokenizerData data =
      good(ProtoBuilder()
               .message(3, ProtoBuilder().bytes(1, "<s>").number(2, -1.5F).varint(3, 3))
               .message(3, ProtoBuilder().bytes(1, "b"))
               .message(3, ProtoBuilder().bytes(1, "a").number(2, 0.25F)));
  EXPECT_THAT(data.tokens, ElementsAre("<s>", "b", "a"));
  EXPECT_THAT(data.scores, ElementsAre(-1.5F, 0.0F, 0.25F));
  EXPECT_THAT(data.types, ElementsAre(3, 1, 1));
  EXPECT_THAT(data.merges, IsEmpty());
}

TEST(TokenizerModel, GivesAPieceWithoutAnyFieldEmptyTextScoreZeroAndTypeOne) {
  const TokenizerData data = good(piece(ProtoBuilder()));
  EXPECT_THAT(data.tokens, ElementsAre(""));
  EXPECT_THAT(data.scores, ElementsAre(0.0F));
  EXPECT_THAT(data.types, ElementsAre(1));
}

TEST(TokenizerModel, KeepsTypesAsTheyAreStored) {
  const TokenizerData data = good(ProtoBuilder()
                                      .message(3, ProtoBuilder().varint(3, 0))
                                      .message(3, ProtoBuilder().varint(3, 6))
                                      .message(3, ProtoBuilder().negative(3, -1))
                                      .message(3, ProtoBuilder().varint(3, 0x100000002)));
  EXPECT_THAT(data.types, ElementsAre(0, 6, -1, 2)) << "the low 32 bits";
}

TEST(TokenizerModel, KeepsTheLowThirtyTwoBitsOfIds) {
  const TokenizerData data = good(settings(
      ProtoBuilder().negative(5, -1).varint(6, 0xFFFFFFFF).varint(7, 0x100000005).varint(8, 0x80000000)));
  EXPECT_EQ(data.bosId, -1);
  EXPECT_EQ(data.eosId, -1);
  EXPECT_EQ(data.unkId, 5);
  EXPECT_EQ(data.padId, std::numeric_limits<std::int32_t>::min());
}

TEST(TokenizerModel, TheLastOfRepeatedFieldsCounts) {
  const TokenizerData data = good(ProtoBuilder()
                                      .message(1, ProtoBuilder().varint(5, 1).varint(5, 2).varint(6, 3))
                                      .message(3, ProtoBuilder()
                                                      .bytes(1, "first")
                                                      .bytes(1, "last")
                                                      .number(2, 1)
                                                      .number(2, 2)
                                                      .varint(3, 4)
                                                      .varint(3, 5))
                                      .message(1, ProtoBuilder().varint(5, 9)));
  EXPECT_EQ(data.bosId, 9);
  EXPECT_EQ(data.eosId, 3) << "a second settings message adds to the first";
  EXPECT_THAT(data.tokens, ElementsAre("last"));
  EXPECT_THAT(data.scores, ElementsAre(2.0F));
  EXPECT_THAT(data.types, ElementsAre(5));
}

TEST(TokenizerModel, TextMayHoldAnyBytes) {
  const TokenizerData data = good(piece(ProtoBuilder().bytes(1, std::string("\0\xFF\n", 3))));
  EXPECT_THAT(data.tokens, ElementsAre(std::string("\0\xFF\n", 3)));
}

TEST(TokenizerModel, ScoreKeepsItsBitPattern) {
  EXPECT_EQ(good(piece(ProtoBuilder().fixed32(2, 0x7F800000))).scores[0],
            std::numeric_limits<float>::infinity());
  EXPECT_EQ(good(piece(ProtoBuilder().fixed32(2, 1))).scores[0], std::numeric_limits<float>::denorm_min());
}

TEST(TokenizerModel, TakesTheChatTemplateOfTheConfigurationWhenItIsText) {
  EXPECT_EQ(good(piece(ProtoBuilder()), R"({"chat_template":"x"})").chatTemplate, "x");
  EXPECT_EQ(good(piece(ProtoBuilder()), R"({"chat_template":["x"]})").chatTemplate, "");
  EXPECT_EQ(good(piece(ProtoBuilder()), R"({"chat_template":1,"chat_template":"x"})").chatTemplate, "");
  EXPECT_EQ(good(piece(ProtoBuilder()), R"(["chat_template"])").chatTemplate, "");
}

// A key with nothing behind it, in the settings only.
TEST(TokenizerModel, AnIdWhoseKeyIsTheLastByteOfTheSettingsIsZero) {
  for (std::uint64_t field = 5; field <= 8; ++field) {
    const TokenizerData data = good(settings(ProtoBuilder().varint(field, 9).key(field, WireType::Varint)));
    EXPECT_EQ(field == 5 ? data.bosId : field == 6 ? data.eosId : field == 7 ? data.unkId : data.padId, 0);
  }
  EXPECT_THAT(read(settings(ProtoBuilder().key(4, WireType::Varint))), kBad);
  EXPECT_THAT(read(settings(ProtoBuilder().key(9, WireType::Varint))), kBad);
  EXPECT_THAT(read(piece(ProtoBuilder().key(3, WireType::Varint))), kBad);
  EXPECT_THAT(read(ProtoBuilder().key(5, WireType::Varint)), kBad);
}

TEST(TokenizerModel, AnIdCutInsideItsVarintIsBad) {
  EXPECT_THAT(read(settings(ProtoBuilder().key(5, WireType::Varint).raw("\x80"))), kBad);
}

// ---- what is skipped

struct SkippedField {
  const char* name;
  ProtoBuilder message;
};

class TokenizerModelSkips : public testing::TestWithParam<SkippedField> {
 protected:
  // The field between two pieces of one level.
  static std::vector<std::string> atTheTop(const ProtoBuilder& field) {
    return good(piece(ProtoBuilder().bytes(1, "a")).raw(field.str()).message(3, ProtoBuilder().bytes(1, "b")))
        .tokens;
  }
};

TEST_P(TokenizerModelSkips, TheFieldAtTheTop) {
  EXPECT_THAT(atTheTop(GetParam().message), ElementsAre("a", "b"));
}
TEST_P(TokenizerModelSkips, TheFieldInsideThePieces) {
  const ProtoBuilder inner =
      ProtoBuilder().raw(GetParam().message.str()).bytes(1, "a").raw(GetParam().message.str());
  EXPECT_THAT(good(piece(inner)).tokens, ElementsAre("a"));
}
TEST_P(TokenizerModelSkips, TheFieldInsideTheSettings) {
  const ProtoBuilder inner =
      ProtoBuilder().raw(GetParam().message.str()).varint(5, 1).raw(GetParam().message.str());
  EXPECT_EQ(good(settings(inner)).bosId, 1);
}

INSTANTIATE_TEST_SUITE_P(
    AnyOtherField, TokenizerModelSkips,
    testing::Values(SkippedField{"Varint", ProtoBuilder().varint(9, 300)},
                    SkippedField{"LongestVarint", ProtoBuilder().varint(9, ~std::uint64_t{0})},
                    SkippedField{"Fixed64", ProtoBuilder().fixed64(9, 7)},
                    SkippedField{"Fixed32", ProtoBuilder().fixed32(9, 7)},
                    SkippedField{"Bytes", ProtoBuilder().bytes(9, "skipped")},
                    SkippedField{"NoBytes", ProtoBuilder().bytes(9, "")},
                    SkippedField{"LargeFieldNumber", ProtoBuilder().varint((std::uint64_t{1} << 61) - 1, 1)},
                    SkippedField{"NumberThatIsThreeOnlyIn32Bits",
                                 ProtoBuilder().varint((std::uint64_t{1} << 32) + 3, 1)}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(TokenizerModel, FieldsOfAnotherWireTypeAreSkippedToo) {
  const TokenizerData data =
      good(ProtoBuilder()
               .varint(1, 5)
               .fixed32(1, 5)
               .varint(3, 5)
               .fixed64(3, 5)
               .message(1, ProtoBuilder().fixed32(5, 1).bytes(6, "x").fixed64(7, 2))
               .message(3, ProtoBuilder().varint(1, 5).varint(2, 5).bytes(3, "x").fixed64(2, 9)));
  EXPECT_EQ(data.bosId, -1);
  EXPECT_EQ(data.eosId, -1);
  EXPECT_EQ(data.unkId, -1);
  EXPECT_THAT(data.tokens, ElementsAre(""));
  EXPECT_THAT(data.scores, ElementsAre(0.0F));
  EXPECT_THAT(data.types, ElementsAre(1));
}

TEST(TokenizerModel, FieldNumberZeroIsBadAtTheTopOnly) {
  EXPECT_THAT(read(ProtoBuilder().varint(0, 1)), kBad);
  EXPECT_THAT(read(ProtoBuilder().bytes(0, "x")), kBad);
  EXPECT_THAT(good(piece(ProtoBuilder().varint(0, 1).bytes(1, "a"))).tokens, ElementsAre("a"));
  EXPECT_EQ(good(settings(ProtoBuilder().bytes(0, "x").varint(5, 1))).bosId, 1);
}

// ---- violations

TEST(TokenizerModel, GroupsAndUndefinedWireTypesAreBadAtEveryLevel) {
  for (const unsigned wireType : {3U, 4U, 6U, 7U}) {
    for (const std::uint64_t field : {1U, 2U, 3U, 5U, 9U}) {
      const ProtoBuilder bad = ProtoBuilder().key(field, wireType).raw("\x01\x01\x01\x01\x01\x01\x01\x01");
      EXPECT_THAT(read(bad), kBad) << wireType << " " << field;
      EXPECT_THAT(read(settings(bad)), kBad) << wireType << " " << field;
      EXPECT_THAT(read(piece(bad)), kBad) << wireType << " " << field;
    }
  }
}

TEST(TokenizerModel, ALengthMayReachTheEndOfItsMessageAndNoByteFurther) {
  EXPECT_THAT(read(ProtoBuilder().bytesClaiming(9, 3, "abc")), IsOk());
  EXPECT_THAT(read(ProtoBuilder().bytesClaiming(9, 4, "abc")), kBad);
  EXPECT_THAT(read(ProtoBuilder().bytesClaiming(3, 1, "")), kBad);
  EXPECT_THAT(read(ProtoBuilder().bytesClaiming(1, 1, "")), kBad);
  // The text would fit the file, but not its piece.
  EXPECT_THAT(read(piece(ProtoBuilder().bytesClaiming(1, 4, "abc")).varint(9, 1).varint(9, 1)), kBad);
  EXPECT_THAT(read(piece(ProtoBuilder().bytesClaiming(7, 4, "abc")).varint(9, 1).varint(9, 1)), kBad);
}

TEST(TokenizerModel, ALengthNearThe64BitLimitDoesNotWrap) {
  for (const std::uint64_t length : {~std::uint64_t{0}, ~std::uint64_t{0} - 10, std::uint64_t{1} << 63}) {
    EXPECT_THAT(read(ProtoBuilder().bytesClaiming(3, length, "abc")), kBad);
    EXPECT_THAT(read(ProtoBuilder().bytesClaiming(9, length, "abc")), kBad);
    EXPECT_THAT(read(piece(ProtoBuilder().bytesClaiming(1, length, "abc"))), kBad);
  }
}

TEST(TokenizerModel, FixedFieldsNeedAllTheirBytes) {
  EXPECT_THAT(read(ProtoBuilder().key(9, WireType::Fixed32).raw("abcd")), IsOk());
  EXPECT_THAT(read(ProtoBuilder().key(9, WireType::Fixed32).raw("abc")), kBad);
  EXPECT_THAT(read(ProtoBuilder().key(9, WireType::Fixed64).raw("abcdefgh")), IsOk());
  EXPECT_THAT(read(ProtoBuilder().key(9, WireType::Fixed64).raw("abcdefg")), kBad);
  EXPECT_THAT(read(piece(ProtoBuilder().key(2, WireType::Fixed32).raw("abc"))), kBad);
}

TEST(TokenizerModel, AVarintHasUpToTenBytes) {
  for (std::size_t length = 1; length <= 10; ++length) {
    EXPECT_EQ(good(settings(ProtoBuilder().key(5, WireType::Varint).rawVarintOfLength(77, length))).bosId, 77)
        << length;
    EXPECT_THAT(read(ProtoBuilder().key(9, WireType::Varint).rawVarintOfLength(77, length)), IsOk())
        << length;
  }
  EXPECT_THAT(read(settings(ProtoBuilder().key(5, WireType::Varint).rawVarintOfLength(77, 11))), kBad);
  EXPECT_THAT(read(ProtoBuilder().key(9, WireType::Varint).rawVarintOfLength(77, 11)), kBad);
}

TEST(TokenizerModel, KeysAndLengthsAreVarintsUnderTheSameRules) {
  // A key of two bytes, padded: field 3, wire type 2, and a length of three bytes.
  EXPECT_THAT(
      good(ProtoBuilder().rawVarintOfLength(3 << 3 | 2, 2).rawVarintOfLength(3, 3).raw("\x0A\x01x")).tokens,
      ElementsAre("x"));
  EXPECT_THAT(read(ProtoBuilder().rawVarintOfLength(9 << 3, 10).rawVarint(1)), IsOk());
  EXPECT_THAT(read(ProtoBuilder().rawVarintOfLength(9 << 3, 11).rawVarint(1)), kBad);
  EXPECT_THAT(read(ProtoBuilder().key(9, WireType::Bytes).rawVarintOfLength(0, 11)), kBad);
}

TEST(TokenizerModel, ABadPieceSpoilsTheWholeFile) {
  EXPECT_THAT(read(piece(ProtoBuilder().bytes(1, "good")).message(3, ProtoBuilder().key(1, WireType::Bytes))),
              kBad);
}

TEST(TokenizerModel, IsBadWhenItIsCutAnywhereButBetweenFields) {
  const std::string first = settings(ProtoBuilder().varint(5, 1).varint(6, 300)).str();
  const std::string second = piece(ProtoBuilder().bytes(1, "abc").number(2, 1).varint(3, 3)).str();
  const std::string third = ProtoBuilder().fixed64(9, 1).str();
  const std::string whole = first + second + third;
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const bool between =
        size == 0 || size == first.size() || size == first.size() + second.size() || size == whole.size();
    if (between) {
      EXPECT_THAT(read(whole.substr(0, size)), IsOk()) << size;
    } else {
      EXPECT_THAT(read(whole.substr(0, size)), kBad) << size;
    }
  }
}

// Every byte string of up to two bytes: nothing but these two verdicts.
TEST(TokenizerModel, JudgesEveryShortInput) {
  std::size_t accepted = 0;
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string bytes{char(first), char(second)};
      // Field 1 to 15 as a varint of one byte, or as no bytes at all.
      const int field = first >> 3;
      const bool good = first < 0x80 && field > 0 &&
                        (((first & 7) == 0 && second < 0x80) || ((first & 7) == 2 && second == 0));
      const Status status = read(bytes);
      if (good) {
        ASSERT_THAT(status, IsOk()) << first << " " << second;
        ++accepted;
      } else {
        ASSERT_THAT(status, kBad) << first << " " << second;
      }
    }
  }
  EXPECT_EQ(accepted, 15U * 128 + 15);
}

}  // namespace
}  // namespace zel
