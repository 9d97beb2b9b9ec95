// Metadata, tokenizer, graph bytes and chat template.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "container/bytes.h"
#include "support/hexdump.h"
#include "writer_fixture.h"

namespace zel {
namespace {

using test::bytesOfDump;
using test::containerOf;
using test::IsOk;

std::string section(OKV2Writer& writer, unsigned type) {
  test::addBytes(writer, "w", "x");
  const std::string file = containerOf(writer);
  const char* entry = file.data() + 64 + 24 * (type - 1);
  return file.substr(loadU64(entry + 8), loadU64(entry + 16));
}
std::string metadata(OKV2Writer& writer) { return section(writer, 1); }
std::string tokenizer(OKV2Writer& writer) { return section(writer, 2); }
std::string graph(OKV2Writer& writer) { return section(writer, 3); }
std::string chatTemplate(OKV2Writer& writer) { return section(writer, 7); }

TEST(OKV2WriterMetadata, KeepsTheOrderOfAdditionAndDuplicates) {
  OKV2Writer writer;
  EXPECT_THAT(writer.addMetaU32("z", 1), IsOk());
  EXPECT_THAT(writer.addMetaU32("a", 2), IsOk());
  EXPECT_THAT(writer.addMetaU64("z", 3), IsOk());
  EXPECT_EQ(metadata(writer), bytesOfDump(R"(03 00 00 00
                                             01 00 "z" 00 01 00 00 00
                                             01 00 "a" 00 02 00 00 00
                                             01 00 "z" 03 03 00 00 00 00 00 00 00)"));
}

TEST(OKV2WriterMetadata, AnEmptyStringIsAFourByteZeroLength) {
  OKV2Writer writer;
  EXPECT_THAT(writer.addMetaStr("k", ""), IsOk());
  EXPECT_EQ(metadata(writer), bytesOfDump(R"(01 00 00 00  01 00 "k" 04 00 00 00 00)"));
}

TEST(OKV2WriterMetadata, AnEmptyArrayIsAFourByteZeroCount) {
  OKV2Writer writer;
  EXPECT_THAT(writer.addMetaU32Array("k", nullptr, 0), IsOk());
  EXPECT_EQ(metadata(writer), bytesOfDump(R"(01 00 00 00  01 00 "k" 05 00 00 00 00)"));
}

TEST(OKV2WriterMetadata, StringsKeepTheirNulBytes) {
  OKV2Writer writer;
  EXPECT_THAT(writer.addMetaStr("k", std::string("a\0b", 3)), IsOk());
  EXPECT_EQ(metadata(writer), bytesOfDump(R"(01 00 00 00  01 00 "k" 04 03 00 00 00 61 00 62)"));
}

TEST(OKV2WriterMetadata, ExtremeNumbersKeepTheirBitPatterns) {
  OKV2Writer writer;
  EXPECT_THAT(writer.addMetaI32("a", std::numeric_limits<std::int32_t>::min()), IsOk());
  EXPECT_THAT(writer.addMetaU64("b", std::numeric_limits<std::uint64_t>::max()), IsOk());
  EXPECT_THAT(writer.addMetaF32("c", -0.0F), IsOk());
  EXPECT_THAT(writer.addMetaF32("d", std::numeric_limits<float>::denorm_min()), IsOk());
  EXPECT_EQ(metadata(writer), bytesOfDump(R"(04 00 00 00
                                             01 00 "a" 01 00 00 00 80
                                             01 00 "b" 03 FF*8
                                             01 00 "c" 02 00 00 00 80
                                             01 00 "d" 02 01 00 00 00)"));
}

TEST(OKV2WriterMetadata, CopiesValuesAtOnce) {
  OKV2Writer writer;
  std::uint32_t array[] = {7};
  std::string key = "k";
  EXPECT_THAT(writer.addMetaU32Array(key.c_str(), array, 1), IsOk());
  array[0] = 8;
  key = "l";
  EXPECT_EQ(metadata(writer), bytesOfDump(R"(01 00 00 00  01 00 "k" 05 01 00 00 00 07 00 00 00)"));
}

TEST(OKV2WriterMetadata, AnEmptyKeyIsTaken) {
  OKV2Writer writer;
  EXPECT_THAT(writer.addMetaU32("", 5), IsOk());
  EXPECT_EQ(metadata(writer), bytesOfDump("01 00 00 00  00 00  00  05 00 00 00"));
}

TEST(OKV2WriterMetadata, AKeyOf65535BytesHasItsWholeLength) {
  OKV2Writer writer;
  const std::string key(65535, 'k');
  EXPECT_THAT(writer.addMetaU32(key.c_str(), 5), IsOk());
  EXPECT_EQ(metadata(writer), bytesOfDump("01 00 00 00 FF FF") + key + bytesOfDump("00 05 00 00 00"));
}

// The length field is cut to 16 bits, the key is not: such an item cannot be read back.
TEST(OKV2WriterMetadata, AKeyOver65535BytesIsWrittenWholeUnderItsLengthCutTo16Bits) {
  OKV2Writer writer;
  const std::string key(65536 + 3, 'k');
  EXPECT_THAT(writer.addMetaU32(key.c_str(), 5), IsOk());
  EXPECT_EQ(metadata(writer), bytesOfDump("01 00 00 00 03 00") + key + bytesOfDump("00 05 00 00 00"));
}

TEST(OKV2WriterTokenizer, IsWrittenEmptyWhenNoneWasSet) {
  OKV2Writer writer;
  EXPECT_EQ(tokenizer(writer), bytesOfDump(R"("TKNZ" 00*4  00*4 00*4 00*4 00*4  FF*16  01)"));
}

TEST(OKV2WriterTokenizer, CountsFollowEachListAloneAndAddBosIsTheLastByte) {
  TokenizerData data;
  data.scores = {1.0F, 2.0F};
  data.merges = {"", "x y"};
  data.addBos = false;
  OKV2Writer writer;
  writer.setTokenizer(data);
  EXPECT_EQ(tokenizer(writer), bytesOfDump(R"("TKNZ" 00*4
      00*4                                          ; no token, but
      02 00 00 00  00 00 80 3F  00 00 00 40         ; two scores
      00*4
      02 00 00 00  00 00 00 00  03 00 00 00 "x y"
      FF*16 00)"));
}

TEST(OKV2WriterTokenizer, IdsAreSignedAndInTheOrderBosEosUnkPad) {
  TokenizerData data;
  data.bosId = 0x01020304;
  data.eosId = -2;
  data.unkId = std::numeric_limits<std::int32_t>::min();
  data.padId = std::numeric_limits<std::int32_t>::max();
  OKV2Writer writer;
  writer.setTokenizer(data);
  EXPECT_EQ(tokenizer(writer), bytesOfDump(R"("TKNZ" 00*20  04 03 02 01  FE FF FF FF
                                              00 00 00 80  FF FF FF 7F  01)"));
}

// The template of the tokenizer and that of the container are two fields, and both are written.
TEST(OKV2WriterTokenizer, KeepsItsOwnChatTemplateBesideThatOfTheContainer) {
  TokenizerData data;
  data.chatTemplate = "inner";
  OKV2Writer writer;
  writer.setTokenizer(data);
  writer.setChatTemplate("outer");
  EXPECT_EQ(tokenizer(writer).substr(0, 13), bytesOfDump(R"("TKNZ" 05 00 00 00 "inner")"));
  EXPECT_EQ(chatTemplate(writer), bytesOfDump(R"(05 00*7 "outer")"));
}

TEST(OKV2WriterGraph, IsOpaqueAndReplacedByTheNextSet) {
  OKV2Writer writer;
  writer.setGraphBytes("first, longer", 13);
  writer.setGraphBytes("\0\xFF", 2);
  EXPECT_EQ(graph(writer), std::string("\0\xFF", 2));
}

TEST(OKV2WriterGraph, IsEmptyByDefaultWithAnEntryInTheTable) {
  OKV2Writer writer;
  EXPECT_EQ(graph(writer), "");
}

TEST(OKV2WriterChatTemplate, IsEightZeroBytesWhenNoneWasSet) {
  OKV2Writer writer;
  EXPECT_EQ(chatTemplate(writer), std::string(8, '\0'));
}

TEST(OKV2WriterChatTemplate, IsReplacedByTheNextSet) {
  OKV2Writer writer;
  writer.setChatTemplate("first, longer");
  writer.setChatTemplate("x");
  EXPECT_EQ(chatTemplate(writer), bytesOfDump("01 00*7 \"x\""));
}

TEST(OKV2WriterSections, AllSevenHaveTheirEntryInAContainerWithoutGraphAndTemplate) {
  OKV2Writer writer;
  test::addBytes(writer, "w", "x");
  const std::string file = containerOf(writer);
  EXPECT_EQ(loadU32(file.data() + 12), 7U);
  for (unsigned type = 1; type <= 7; ++type) {
    const char* entry = file.data() + 64 + 24 * (type - 1);
    EXPECT_EQ(loadU32(entry), type);
    EXPECT_EQ(loadU64(entry + 8) % 64, 0U) << type;
  }
  EXPECT_EQ(loadU64(file.data() + 64 + 24 * 2 + 16), 0U) << "graph";
  EXPECT_EQ(loadU64(file.data() + 64 + 24 * 6 + 16), 8U) << "chat template";
}

// Sections that end exactly on a multiple of 64 get no padding; one byte more costs 64.
TEST(OKV2WriterSections, PadOnlyUpToTheNextMultipleOf64) {
  for (const std::size_t size : {63U, 64U, 65U, 128U}) {
    OKV2Writer writer;
    test::addBytes(writer, "w", "x");
    writer.setGraphBytes(std::string(size, 'g').data(), size);
    const std::string file = containerOf(writer);
    const std::uint64_t graphAt = loadU64(file.data() + 64 + 24 * 2 + 8);
    const std::uint64_t indexAt = loadU64(file.data() + 64 + 24 * 3 + 8);
    EXPECT_EQ(indexAt - graphAt, (size + 63) / 64 * 64) << size;
  }
}

}  // namespace
}  // namespace zel
