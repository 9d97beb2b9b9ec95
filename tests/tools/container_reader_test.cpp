#include "okv2/container_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "support/container_builder.h"

namespace zel::tool {
namespace {

using okv2::MetaType;
using okv2::SectionType;
using test::BuiltContainer;
using test::ContainerBuilder;
using test::fullContainer;
using testing::ElementsAre;

// The one finding of a container that cannot be decoded.
std::string onlyFinding(std::string_view bytes) {
  ContainerView view;
  EXPECT_FALSE(parseContainer(bytes, view));
  EXPECT_EQ(view.findings.items().size(), 1U);
  if (view.findings.items().empty()) return "";
  const Finding& finding = view.findings.items()[0];
  EXPECT_TRUE(finding.isError);
  return std::to_string(finding.offset) + ": " + finding.text;
}

TEST(ContainerReader, ChecksumHasTheCheckValueOfTheFormat) {
  EXPECT_EQ(containerChecksum("123456789"), 0x4DB9A9F87EC10C59U);
  EXPECT_EQ(containerChecksum(""), 0U);
}

TEST(ContainerReader, ReadsTheModelInfoAndTheTensorCount) {
  const BuiltContainer built = fullContainer().modelInfo(1, 0x100000040, 32, 32000).build();
  ContainerView view;
  ASSERT_TRUE(parseContainer(built.bytes, view));
  EXPECT_EQ(view.archId, 1U);
  EXPECT_EQ(view.hiddenSize, 0x100000040U);
  EXPECT_EQ(view.numLayers, 32U);
  EXPECT_EQ(view.vocabSize, 32000U);
  EXPECT_EQ(view.tensorCount, 3U);
  EXPECT_EQ(view.storedChecksum, built.headerCrc);
}

TEST(ContainerReader, ReadsTheSectionTable) {
  const BuiltContainer built = fullContainer().build();
  ContainerView view;
  ASSERT_TRUE(parseContainer(built.bytes, view));
  EXPECT_EQ(view.section(SectionType::Metadata).offset, 256U);
  for (std::size_t type = 1; type <= 7; ++type) {
    const SectionView& section = view.section(SectionType(type));
    EXPECT_EQ(section.offset, built.offset[type]);
    EXPECT_EQ(section.size, built.size[type]);
    EXPECT_EQ(section.bytes, std::string_view(built.bytes).substr(built.offset[type], built.size[type]));
  }
  EXPECT_EQ(view.section(SectionType::Graph).bytes, "GRAPH");
}

TEST(ContainerReader, ReadsMetadataOfEveryType) {
  const BuiltContainer built = fullContainer().build();
  ContainerView view;
  ASSERT_TRUE(parseContainer(built.bytes, view));
  ASSERT_EQ(view.metadata.size(), 6U);
  EXPECT_EQ(view.metadata[0].key, "a.u32");
  EXPECT_EQ(view.metadata[0].type, MetaType::U32);
  EXPECT_EQ(view.metadata[0].u32(), 7U);
  EXPECT_EQ(view.metadata[1].type, MetaType::I32);
  EXPECT_EQ(view.metadata[1].i32(), -2);
  EXPECT_EQ(view.metadata[2].type, MetaType::F32);
  EXPECT_EQ(view.metadata[2].f32(), 0.5F);
  EXPECT_EQ(view.metadata[3].type, MetaType::U64);
  EXPECT_EQ(view.metadata[3].u64(), 0x100000002U);
  EXPECT_EQ(view.metadata[4].type, MetaType::Str);
  EXPECT_EQ(view.metadata[4].value, "llama");
  EXPECT_EQ(view.metadata[5].type, MetaType::U32Array);
  ASSERT_EQ(view.metadata[5].arraySize(), 2U);
  EXPECT_EQ(view.metadata[5].arrayItem(0), 1U);
  EXPECT_EQ(view.metadata[5].arrayItem(1), 300U);
}

TEST(ContainerReader, ReadsTheTokenizer) {
  const BuiltContainer built = fullContainer().build();
  ContainerView view;
  ASSERT_TRUE(parseContainer(built.bytes, view));
  EXPECT_EQ(view.tokenizer.chatTemplate, "TT");
  EXPECT_THAT(view.tokenizer.tokens, ElementsAre("<s>", "a", "b"));
  EXPECT_EQ(view.tokenizer.scoreCount(), 1U);
  EXPECT_EQ(view.tokenizer.scores, test::f32(1.5F));
  EXPECT_EQ(view.tokenizer.typeCount(), 3U);
  EXPECT_EQ(view.tokenizer.types, test::u32(3) + test::u32(1) + test::u32(1));
  EXPECT_THAT(view.tokenizer.merges, ElementsAre("a b"));
  EXPECT_THAT(view.tokenizer.specialIds, ElementsAre(0, 2, -1, -1));
  EXPECT_EQ(view.tokenizer.addBos, 1);
}

TEST(ContainerReader, ReadsTensorsAndTheirData) {
  const BuiltContainer built = fullContainer().build();
  ContainerView view;
  ASSERT_TRUE(parseContainer(built.bytes, view));
  ASSERT_EQ(view.tensors.size(), 3U);
  EXPECT_EQ(view.tensors[0].name, "alpha");
  EXPECT_EQ(view.tensors[0].dtype, 0);
  EXPECT_EQ(view.tensors[0].ndim, 2);
  EXPECT_THAT(view.tensors[0].dims, ElementsAre(2, 3, 0, 0));
  EXPECT_EQ(view.tensors[0].dataOffset, 0U);
  EXPECT_EQ(view.tensors[1].fullNameBytes, 4);
  EXPECT_EQ(view.tensors[1].dataOffset, 64U);
  EXPECT_EQ(view.tensors[2].size, 288U);
  EXPECT_EQ(view.tensorData(view.tensors[1]), "BBBBBBBBBB");
}

TEST(ContainerReader, ReadsTheChatTemplate) {
  ContainerView view;
  const BuiltContainer built = fullContainer().build();
  ASSERT_TRUE(parseContainer(built.bytes, view));
  EXPECT_EQ(view.chatTemplate, "hello");
}

TEST(ContainerReader, GivesNoDataForATensorThatEndsOneByteAfterTheWeights) {
  const BuiltContainer good = fullContainer().build();
  // 24, 10 and 288 bytes take 64 + 64 + 320 bytes; the last tensor begins at 128.
  const std::uint64_t sizeField = good.indexEntry(2) + 112;
  ContainerView view;
  const BuiltContainer fits = good.with(sizeField, test::u64(320));
  ASSERT_TRUE(parseContainer(fits.bytes, view));
  EXPECT_EQ(view.tensorData(view.tensors[2]).size(), 320U);
  const BuiltContainer exceeds = good.with(sizeField, test::u64(321));
  ASSERT_TRUE(parseContainer(exceeds.bytes, view));
  EXPECT_EQ(view.tensorData(view.tensors[2]).data(), nullptr);
}

TEST(ContainerReader, RefusesAFileThatEndsBeforeTheFirstSection) {
  const std::string bytes = fullContainer().build().bytes.substr(0, 255);
  EXPECT_EQ(onlyFinding(bytes), "255: file of 255 bytes is too small for a container");
  EXPECT_EQ(onlyFinding(""), "0: file of 0 bytes is too small for a container");
}

TEST(ContainerReader, RefusesOtherMagicBytes) {
  EXPECT_EQ(onlyFinding(fullContainer().build().with(3, "3").bytes),
            "0: not an OKV2 container: the magic bytes are missing");
}

TEST(ContainerReader, RefusesOtherVersions) {
  EXPECT_EQ(onlyFinding(fullContainer().build().with(4, test::u32(3)).bytes),
            "4: container version 3, expected 2");
}

TEST(ContainerReader, RefusesTheOtherByteOrder) {
  EXPECT_EQ(onlyFinding(fullContainer().build().with(8, test::u32(0x04030201)).bytes),
            "8: byte-order mark 0x04030201, expected 0x01020304");
}

TEST(ContainerReader, RefusesAnotherSectionCount) {
  EXPECT_EQ(onlyFinding(fullContainer().build().with(12, test::u32(8)).bytes), "12: 8 sections, expected 7");
}

TEST(ContainerReader, RefusesASectionTableInAnotherOrder) {
  EXPECT_EQ(onlyFinding(fullContainer().build().with(BuiltContainer::tableEntry(3), test::u32(4)).bytes),
            "112: section table entry 2 has type 4, expected 3");
}

TEST(ContainerReader, RefusesASectionThatEndsOneByteAfterTheFile) {
  const BuiltContainer good = fullContainer().build();
  const std::uint64_t entry = BuiltContainer::tableEntry(5);
  ContainerView view;
  EXPECT_TRUE(parseContainer(good.bytes, view));
  const std::uint64_t size = good.size[5] + 1;
  EXPECT_EQ(onlyFinding(good.with(entry + 16, test::u64(size)).bytes),
            "160: weights section (" + std::to_string(size) + " bytes at " + std::to_string(good.offset[5]) +
                ") does not lie inside the file");
}

TEST(ContainerReader, RefusesASectionWhoseEndWrapsAround) {
  const BuiltContainer good = fullContainer().build();
  EXPECT_EQ(
      onlyFinding(
          good.with(BuiltContainer::tableEntry(3) + 8, test::u64(~std::uint64_t{0}) + test::u64(2)).bytes),
      "112: graph section (2 bytes at 18446744073709551615) does not lie inside the file");
}

TEST(ContainerReader, RefusesAMetadataItemThatDoesNotFit) {
  const BuiltContainer good = fullContainer().build();
  // Seven items are announced, six are there.
  EXPECT_EQ(onlyFinding(good.with(256, test::u32(7)).bytes),
            std::to_string(256 + good.size[1]) + ": metadata item 6 does not fit its section");
}

TEST(ContainerReader, RefusesBytesAfterTheLastMetadataItem) {
  const BuiltContainer good = ContainerBuilder().meta("k", 0, test::u32(1)).tensor("t", 1, {1}, "xx").build();
  // One item is 2 + 1 + 1 + 4 bytes.
  EXPECT_EQ(onlyFinding(good.with(256, test::u32(0)).bytes),
            "260: 8 bytes left over at the end of the metadata section");
}

TEST(ContainerReader, RefusesAnUnknownMetadataType) {
  const BuiltContainer good = ContainerBuilder().meta("k", 0, test::u32(1)).tensor("t", 1, {1}, "xx").build();
  EXPECT_EQ(onlyFinding(good.with(256 + 4 + 3, test::u8(6)).bytes),
            "260: metadata item 0 has the unknown value type 6");
}

TEST(ContainerReader, RefusesAnArrayWhoseCountTimesFourWouldWrapIn32Bits) {
  const BuiltContainer good = ContainerBuilder().meta("k", 5, test::u32(0)).tensor("t", 1, {1}, "xx").build();
  EXPECT_EQ(onlyFinding(good.with(256 + 4 + 4, test::u32(0x40000000)).bytes),
            "260: metadata item 0 does not fit its section");
}

struct TokenizerCut {
  const char* name;
  std::uint64_t bytes;  // of the tokenizer section that are kept
  const char* finding;
};

class TokenizerCutShort : public testing::TestWithParam<TokenizerCut> {};

// One token "ab", one score, one type, one merge "x y". Sections: TKNZ 4, template 4 + 2, tokens 4 + 4 + 2,
// scores 4 + 4, types 4 + 4, merges 4 + 4 + 3, ids 16, flag 1.
INSTANTIATE_TEST_SUITE_P(
    ContainerReader, TokenizerCutShort,
    testing::Values(TokenizerCut{"Magic", 3, "the tokenizer section does not begin with TKNZ"},
                    TokenizerCut{"Template", 9, "the tokenizer section ends inside its chat template"},
                    TokenizerCut{"Tokens", 19, "the tokenizer section ends inside its tokens"},
                    TokenizerCut{"Scores", 27, "the tokenizer section ends inside its scores"},
                    TokenizerCut{"Types", 35, "the tokenizer section ends inside its types"},
                    TokenizerCut{"Merges", 46, "the tokenizer section ends inside its merges"},
                    TokenizerCut{"SpecialIds", 62, "the tokenizer section ends inside its special ids"},
                    TokenizerCut{"Flag", 63, "the tokenizer section ends inside its add-BOS flag"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_P(TokenizerCutShort, IsRefused) {
  const BuiltContainer good = ContainerBuilder()
                                  .tokenizerTemplate("TT")
                                  .token("ab")
                                  .score(0)
                                  .type(1)
                                  .merge("x y")
                                  .tensor("t", 1, {1}, "xx")
                                  .build();
  ASSERT_EQ(good.size[2], 64U);
  const std::string bytes = good.with(BuiltContainer::tableEntry(2) + 16, test::u64(GetParam().bytes)).bytes;
  ContainerView view;
  EXPECT_FALSE(parseContainer(bytes, view));
  ASSERT_EQ(view.findings.items().size(), 1U);
  EXPECT_EQ(view.findings.items()[0].text, GetParam().finding);
}

TEST(ContainerReader, RefusesBytesAfterTheTokenizer) {
  const BuiltContainer good = ContainerBuilder().tensor("t", 1, {1}, "xx").build();
  ASSERT_EQ(good.size[2], 41U);
  EXPECT_EQ(onlyFinding(good.with(BuiltContainer::tableEntry(2) + 16, test::u64(42)).bytes),
            std::to_string(good.offset[2] + 41) + ": 1 bytes left over at the end of the tokenizer section");
}

TEST(ContainerReader, RefusesAnIndexThatDoesNotHoldTheTensorsOfTheHeader) {
  const BuiltContainer good = fullContainer().build();
  EXPECT_EQ(onlyFinding(good.with(40, test::u64(4)).bytes),
            "40: the header counts 4 tensors, but the tensor index has 384 bytes");
  EXPECT_EQ(onlyFinding(good.with(BuiltContainer::tableEntry(4) + 16, test::u64(383)).bytes),
            "40: the header counts 3 tensors, but the tensor index has 383 bytes");
}

TEST(ContainerReader, RefusesAChatTemplateThatIsLongerOrShorterThanItsSection) {
  const BuiltContainer good = fullContainer().build();
  const std::string at = std::to_string(good.offset[7]);
  EXPECT_EQ(onlyFinding(good.with(good.offset[7], test::u64(6)).bytes),
            at + ": the chat template does not fit its section");
  EXPECT_EQ(
      onlyFinding(good.with(good.offset[7], test::u64(4)).bytes),
      std::to_string(good.offset[7] + 12) + ": 1 bytes left over at the end of the chat template section");
}

// Counts from the file must not decide how much is allocated.
TEST(ContainerReader, AllocatesNoMoreThanTheFileCanFillWhenACountLies) {
  const BuiltContainer good = fullContainer().build();
  const std::string metadata = good.with(256, test::u32(0xFFFFFFFF)).bytes;
  ContainerView view;
  EXPECT_FALSE(parseContainer(metadata, view));
  EXPECT_LE(view.metadata.capacity(), metadata.size());
  const std::string tokens = good.with(good.offset[2] + 10, test::u32(0xFFFFFFFF)).bytes;
  EXPECT_FALSE(parseContainer(tokens, view));
  EXPECT_LE(view.tokenizer.tokens.capacity(), tokens.size());
}

TEST(ContainerReader, KeepsOneHundredFindingsAndCountsTheRest) {
  Findings findings;
  for (int k = 0; k < 103; ++k)
    findings.error(0, "x");
  EXPECT_EQ(findings.items().size(), 100U);
  EXPECT_EQ(findings.dropped(), 3U);
  EXPECT_EQ(findings.errors(), 103U);
}

}  // namespace
}  // namespace zel::tool
