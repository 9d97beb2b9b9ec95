// What SafetensorsImporter lists, which of several failures it reports, and its printed listing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

#include "readers/safetensors_importer.h"
#include "support/safetensors_builder.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel::test {
namespace {

using Builder = SafetensorsBuilder;
using testing::ElementsAre;

std::vector<std::string> names(const SafetensorsImporter& importer) {
  std::vector<std::string> out;
  for (const StTensorInfo& each : importer.tensors())
    out.push_back(each.name);
  return out;
}

Status verdict(const Builder& builder) {
  const std::string file = builder.bytes();
  SafetensorsImporter importer;
  return importer.openBytes(file);
}

Status verdictOfEntry(const std::string& json) { return verdict(Builder().member("w", json).dataBytes(8)); }

// ---- the list

TEST(SafetensorsEntries, FillEveryFieldOfAFloatTensor) {
  const std::string file = Builder().tensor("first", "F32", {1}).tensor("w", "BF16", {2, 3}).bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  ASSERT_THAT(names(importer), ElementsAre("first", "w"));
  const StTensorInfo& w = importer.tensors()[1];
  EXPECT_EQ(w.dtype, DType::BF16);
  EXPECT_EQ(w.ndim, 2u);
  EXPECT_THAT(w.dims, ElementsAre(2u, 3u, 0u, 0u));
  EXPECT_EQ(w.dataBegin, 4u);
  EXPECT_EQ(w.dataEnd, 16u);
  EXPECT_EQ(w.size, 12u);
  EXPECT_EQ(w.quant.dtype, 0u);
  EXPECT_EQ(w.quant.blockElements, 0u);
  EXPECT_EQ(w.quant.blockBytes, 0u);
  EXPECT_THAT(w.quant.layout, ElementsAre(0u, 0u, 0u));
  EXPECT_EQ(importer.dataRegion(), patternBytes(4, 0) + patternBytes(12, 1));
}

TEST(SafetensorsEntries, CarryTheBlockLayoutOfABlockTensor) {
  const std::string file = Builder().tensor("w", "Q6_K", {256}).bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  const QuantInfo& quant = importer.tensors().at(0).quant;
  EXPECT_EQ(quant.dtype, 7u);
  EXPECT_EQ(quant.blockElements, 256u);
  EXPECT_EQ(quant.blockBytes, 210u);
  EXPECT_THAT(quant.layout, ElementsAre(0u, 192u, 208u));
}

TEST(SafetensorsEntries, KeepAScalarWithoutExtents) {
  const std::string file = Builder().tensor("s", "F32", {}).bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  EXPECT_EQ(importer.tensors().at(0).ndim, 0u);
  EXPECT_THAT(importer.tensors()[0].dims, ElementsAre(0u, 0u, 0u, 0u));
  EXPECT_EQ(importer.tensors()[0].size, 4u);
}

TEST(SafetensorsEntries, AreSortedByteWiseWithTheShorterOfACommonPrefixFirst) {
  Builder builder;
  for (const char* name : {"b", "a.b", "\xC3\xA9", "a", "B", "a0", "", "~"})
    builder.tensor(name, "F32", {1});
  const std::string file = builder.bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  EXPECT_THAT(names(importer), ElementsAre("", "B", "a", "a.b", "a0", "b", "~", "\xC3\xA9"));
}

TEST(SafetensorsEntries, WithEscapedNamesAreSortedAmongTheOthers) {
  const std::string entry = R"({"dtype":"F32","shape":[1],"data_offsets":[0,4]})";
  const std::string file = Builder()
                               .rawMember(R"("model.layers.1.a\u0074tention.weight")", entry)
                               .rawMember(R"("model.layers.0.attention.weight")", entry)
                               .rawMember(R"("\u00e9\n")", entry)
                               .rawMember(R"("model.layers.1.attention.bia\u0073")", entry)
                               .rawMember(R"("a\/b")", entry)
                               .dataBytes(4)
                               .bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  EXPECT_THAT(names(importer),
              ElementsAre("a/b", "model.layers.0.attention.weight", "model.layers.1.attention.bias",
                          "model.layers.1.attention.weight", "\xC3\xA9\n"));
}

TEST(SafetensorsEntries, ByTheHundredWithEveryOtherNameEscapedAreSorted) {
  Builder builder;
  for (int k = 499; k >= 0; --k) {
    const std::string number = std::to_string(1000 + k);
    builder.rawMember(k % 2 == 0 ? R"("model.\u006cayers.)" + number + R"(.weight")"
                                 : R"("model.layers.)" + number + R"(.weight")",
                      R"({"dtype":"F32","shape":[)" + number + R"(],"data_offsets":[0,)" +
                          std::to_string(4 * (1000 + k)) + "]}");
  }
  const std::string file = builder.dataBytes(6000).bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  ASSERT_EQ(importer.tensors().size(), 500U);
  for (std::size_t k = 0; k < 500; ++k) {
    const StTensorInfo& tensor = importer.tensors()[k];
    EXPECT_EQ(tensor.name, "model.layers." + std::to_string(1000 + k) + ".weight");
    EXPECT_EQ(tensor.dims[0], 1000 + k);
    EXPECT_EQ(tensor.size, 4 * (1000 + k));
  }
}

TEST(SafetensorsEntries, OfOneNameAreBothKeptInDocumentOrder) {
  Builder builder;
  builder.tensor("w", "F32", {1}).tensor("a", "F32", {1}).tensor("w", "F16", {3}).tensor("w", "F32", {2});
  const std::string file = builder.bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  ASSERT_THAT(names(importer), ElementsAre("a", "w", "w", "w"));
  EXPECT_EQ(importer.tensors()[1].dims[0], 1u);
  EXPECT_EQ(importer.tensors()[2].dims[0], 3u);
  EXPECT_EQ(importer.tensors()[3].dims[0], 2u);
}

TEST(SafetensorsEntries, OfManyEqualNamesStayInDocumentOrder) {
  Builder builder;
  for (std::uint64_t k = 1; k <= 100; ++k)
    builder.tensor(k % 2 ? "odd" : "even", "F16", {k});
  const std::string file = builder.bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  ASSERT_EQ(importer.tensors().size(), 100u);
  for (std::size_t k = 0; k < 100; ++k) {
    const std::uint64_t expected = k < 50 ? 2 * k + 2 : 2 * (k - 50) + 1;
    EXPECT_EQ(importer.tensors()[k].dims[0], expected) << k;
  }
}

TEST(SafetensorsEntries, MayShareAndOverlapTheirBytes) {
  EXPECT_THAT(verdict(Builder()
                          .tensor("a", "F32", {2}, {0, 8})
                          .tensor("b", "F32", {2}, {0, 8})
                          .tensor("c", "F16", {2}, {3, 7})
                          .dataBytes(8)),
              IsOk());
}

TEST(SafetensorsEntries, NeedNotCoverTheData) {
  EXPECT_THAT(verdict(Builder().tensor("a", "F32", {1}, {4, 8}).dataBytes(100)), IsOk());
}

TEST(SafetensorsEntries, AreFoundByTheirExactName) {
  const std::string file = Builder().tensor("b", "F32", {1}).tensor("d", "F32", {1}).bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  EXPECT_EQ(importer.findTensor("b"), &importer.tensors()[0]);
  EXPECT_EQ(importer.findTensor("d"), &importer.tensors()[1]);
  for (const char* absent : {"", "a", "B", "bb", "c", "e"})
    EXPECT_EQ(importer.findTensor(absent), nullptr);
}

TEST(SafetensorsEntries, WithNulBytesInTheNameAreFoundByTheWholeName) {
  const std::string name("a\0b", 3);
  const std::string file = Builder().tensor(name, "F32", {1}).tensor("a", "F32", {1}).bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  ASSERT_NE(importer.findTensor(name), nullptr);
  EXPECT_EQ(importer.findTensor(name)->name, name);
  EXPECT_EQ(importer.findTensor("a"), &importer.tensors()[0]);
}

// ---- "__metadata__" and keys

class SafetensorsMetadata : public testing::TestWithParam<const char*> {};

TEST_P(SafetensorsMetadata, IsSkippedWhateverItIs) {
  const std::string file =
      Builder().tensor("a", "F32", {1}).member("__metadata__", GetParam()).tensor("b", "F32", {1}).bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  EXPECT_THAT(names(importer), ElementsAre("a", "b"));
}

INSTANTIATE_TEST_SUITE_P(Kinds, SafetensorsMetadata,
                         testing::Values("{\"format\":\"pt\"}", "{}", "null", "true", "1", "\"text\"",
                                         "[1,2]", R"({"dtype":"I64","shape":[-1],"data_offsets":[9,1]})"));

TEST(SafetensorsKeys, MetadataIsRecognisedInAnEscapedSpelling) {
  const std::string file = Builder().rawMember(R"("\u005f_metadata\u005F_")", "1").bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  EXPECT_TRUE(importer.tensors().empty());
}

TEST(SafetensorsKeys, MetadataMayBeRepeated) {
  EXPECT_THAT(verdict(Builder().member("__metadata__", "1").member("__metadata__", "[]")), IsOk());
}

TEST(SafetensorsKeys, MetadataInOtherCaseIsATensor) {
  EXPECT_THAT(verdict(Builder().member("__Metadata__", "{}")),
              StatusIs(Code::Corrupted, "safetensors: bad tensor entry '__Metadata__'"));
}

TEST(SafetensorsKeys, MetadataWithANulBehindItIsATensor) {
  const std::string name("__metadata__\0", 13);
  EXPECT_THAT(verdict(Builder().member(name, "{}")),
              StatusIs(Code::Corrupted, "safetensors: bad tensor entry '" + name + "'"));
}

TEST(SafetensorsKeys, OfAnEntryMayBeSpelledWithEscapes) {
  EXPECT_THAT(verdictOfEntry(R"({"\u0064type":"F32","sha\u0070e":[2],"data\u005foffsets":[0,8]})"), IsOk());
}

TEST(SafetensorsKeys, DtypeTextMayBeSpelledWithEscapes) {
  EXPECT_THAT(verdictOfEntry(R"({"dtype":"\u0046\u00332","shape":[2],"data_offsets":[0,8]})"), IsOk());
}

TEST(SafetensorsKeys, TheFirstOfTwoDtypesCounts) {
  EXPECT_THAT(verdictOfEntry(R"({"dtype":"F32","dtype":"I64","shape":[2],"data_offsets":[0,8]})"), IsOk());
  EXPECT_THAT(verdictOfEntry(R"({"dtype":"I64","dtype":"F32","shape":[2],"data_offsets":[0,8]})"),
              StatusIs(Code::Unsupported, "safetensors: unsupported dtype 'I64'"));
}

TEST(SafetensorsKeys, AFirstDtypeOfTheWrongKindIsNotReplacedByASecond) {
  EXPECT_THAT(verdictOfEntry(R"({"dtype":1,"dtype":"F32","shape":[2],"data_offsets":[0,8]})"),
              StatusIs(Code::Corrupted, "safetensors: bad tensor entry 'w'"));
}

TEST(SafetensorsKeys, ASecondDtypeOfTheWrongKindDoesNoHarm) {
  EXPECT_THAT(verdictOfEntry(R"({"dtype":"F32","dtype":{},"shape":[2],"data_offsets":[0,8]})"), IsOk());
}

TEST(SafetensorsKeys, TheFirstOfTwoDtypesCountsInAnEscapedSpellingToo) {
  EXPECT_THAT(verdictOfEntry(R"({"\u0064type":"F16","dtype":"F32","shape":[4],"data_offsets":[0,8]})"),
              IsOk());
}

TEST(SafetensorsKeys, TheFirstOfTwoShapesCounts) {
  EXPECT_THAT(verdictOfEntry(R"({"dtype":"F32","shape":[2],"shape":[-1,{}],"data_offsets":[0,8]})"), IsOk());
  EXPECT_THAT(verdictOfEntry(R"({"dtype":"F32","shape":[-1],"shape":[2],"data_offsets":[0,8]})"),
              StatusIs(Code::Corrupted, "safetensors: bad shape"));
  EXPECT_THAT(verdictOfEntry(R"({"dtype":"F32","shape":2,"shape":[2],"data_offsets":[0,8]})"),
              StatusIs(Code::Corrupted, "safetensors: bad tensor entry 'w'"));
}

TEST(SafetensorsKeys, TheFirstOfTwoOffsetPairsCounts) {
  EXPECT_THAT(verdictOfEntry(R"({"dtype":"F32","shape":[2],"data_offsets":[0,8],"data_offsets":[9]})"),
              IsOk());
  EXPECT_THAT(verdictOfEntry(R"({"dtype":"F32","shape":[2],"data_offsets":[9],"data_offsets":[0,8]})"),
              StatusIs(Code::Corrupted, "safetensors: bad tensor entry 'w'"));
  EXPECT_THAT(verdictOfEntry(R"({"dtype":"F32","shape":[2],"data_offsets":[8,4],"data_offsets":[0,8]})"),
              StatusIs(Code::Corrupted, "safetensors: bad offsets"));
}

// ---- which failure is reported

TEST(SafetensorsPrecedence, AJsonErrorBehindABadEntryWins) {
  EXPECT_THAT(verdict(Builder().member("w", "1").member("v", "tru")),
              StatusIs(Code::Corrupted, "safetensors: header JSON"));
}

TEST(SafetensorsPrecedence, TrailingBytesBehindABadEntryWin) {
  EXPECT_THAT(
      verdict(Builder().member("w", R"({"dtype":"I64","shape":[],"data_offsets":[0,0]})").afterHeader("x")),
      StatusIs(Code::Corrupted, "safetensors: header JSON"));
}

TEST(SafetensorsPrecedence, AJsonErrorInsideTheBadEntryWins) {
  EXPECT_THAT(verdictOfEntry(R"({"dtype":1,"shape":2,"data_offsets":[3],"x":"\q"})"),
              StatusIs(Code::Corrupted, "safetensors: header JSON"));
}

TEST(SafetensorsPrecedence, AJsonErrorInAFurtherMemberOfAGoodEntryWins) {
  EXPECT_THAT(verdictOfEntry(R"({"dtype":"F32","shape":[2],"data_offsets":[0,8],"x":[1,]})"),
              StatusIs(Code::Corrupted, "safetensors: header JSON"));
}

TEST(SafetensorsPrecedence, AJsonErrorInMetadataIsStillAnError) {
  EXPECT_THAT(verdict(Builder().member("__metadata__", "{\"a\":\"\t\"}")),
              StatusIs(Code::Corrupted, "safetensors: header JSON"));
}

TEST(SafetensorsPrecedence, TheEarlierOfTwoBadEntriesIsReported) {
  EXPECT_THAT(verdict(Builder().member("z", "1").member("a", "2")),
              StatusIs(Code::Corrupted, "safetensors: bad tensor entry 'z'"));
}

TEST(SafetensorsPrecedence, AnEarlierDtypeFailureWinsOverALaterBadEntry) {
  EXPECT_THAT(
      verdict(Builder().member("z", R"({"dtype":"I64","shape":[],"data_offsets":[0,0]})").member("a", "2")),
      StatusIs(Code::Unsupported, "safetensors: unsupported dtype 'I64'"));
}

TEST(SafetensorsPrecedence, AnEarlierSizeMismatchWinsOverALaterBadEntry) {
  EXPECT_THAT(verdict(Builder().tensor("z", "F32", {1}, {0, 0}).member("a", "2")),
              StatusIs(Code::Corrupted, "safetensors: size mismatch 'z' (expected 4 got 0)"));
}

// Each line breaks everything from one check on; the checks of one entry run in this order.
struct OrderCase {
  const char* name;
  const char* entry;
  Code code;
  const char* message;
};

class SafetensorsCheckOrder : public testing::TestWithParam<OrderCase> {};

TEST_P(SafetensorsCheckOrder, ReportsTheFirst) {
  EXPECT_THAT(verdictOfEntry(GetParam().entry), StatusIs(GetParam().code, std::string(GetParam().message)));
}

std::string orderCaseName(const testing::TestParamInfo<OrderCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(
    Of, SafetensorsCheckOrder,
    testing::Values(
        OrderCase{"FormBeforeDtype", R"({"dtype":"I64","shape":[0,0,0,0,-1],"data_offsets":[9]})",
                  Code::Corrupted, "safetensors: bad tensor entry 'w'"},
        OrderCase{"DtypeBeforeExtentCount", R"({"dtype":"I64","shape":[0,0,0,0,-1],"data_offsets":[9,-1]})",
                  Code::Unsupported, "safetensors: unsupported dtype 'I64'"},
        OrderCase{"ExtentCountBeforeShape", R"({"dtype":"Q4_K","shape":[0,0,0,0,-1],"data_offsets":[9,-1]})",
                  Code::Corrupted, "safetensors: ndim > 4"},
        OrderCase{"ShapeBeforeOffsets", R"({"dtype":"Q4_K","shape":[0,0,0,-1],"data_offsets":[9,-1]})",
                  Code::Corrupted, "safetensors: bad shape"},
        OrderCase{"OffsetsBeforeRange", R"({"dtype":"Q4_K","shape":[0],"data_offsets":[99,98]})",
                  Code::Corrupted, "safetensors: bad offsets"},
        OrderCase{"RangeBeforeZeroRows", R"({"dtype":"Q4_K","shape":[0],"data_offsets":[0,9]})",
                  Code::Corrupted, "safetensors: offset out of range 'w'"},
        OrderCase{"ZeroRowsBeforeSize", R"({"dtype":"Q4_K","shape":[0],"data_offsets":[0,8]})",
                  Code::Corrupted, "safetensors: zero rows"},
        OrderCase{"SizeLast", R"({"dtype":"Q4_K","shape":[1],"data_offsets":[0,8]})", Code::Corrupted,
                  "safetensors: size mismatch 'w' (expected 144 got 8)"}),
    orderCaseName);

// ---- element types

TEST(SafetensorsDtype, MapsTheSixKnownTexts) {
  struct Row {
    const char* text;
    DType dtype;
    QuantInfo quant;
  };
  const Row rows[] = {
      {"F32", DType::F32, {0, 0, 0, {0, 0, 0}}},       {"F16", DType::F16, {0, 0, 0, {0, 0, 0}}},
      {"BF16", DType::BF16, {0, 0, 0, {0, 0, 0}}},     {"Q4_K", DType::Q4_K, {5, 256, 144, {0, 4, 2}}},
      {"Q5_K", DType::Q5_K, {6, 256, 176, {0, 4, 2}}}, {"Q6_K", DType::Q6_K, {7, 256, 210, {0, 192, 208}}},
  };
  for (const Row& row : rows) {
    DType dtype = DType::Block256x290;
    QuantInfo quant{9, 9, 9, {9, 9, 9}};
    ASSERT_THAT(SafetensorsImporter::mapDtype(row.text, dtype, quant), IsOk()) << row.text;
    EXPECT_EQ(dtype, row.dtype) << row.text;
    EXPECT_EQ(quant.dtype, row.quant.dtype) << row.text;
    EXPECT_EQ(quant.blockElements, row.quant.blockElements) << row.text;
    EXPECT_EQ(quant.blockBytes, row.quant.blockBytes) << row.text;
    EXPECT_THAT(quant.layout, testing::ElementsAreArray(row.quant.layout)) << row.text;
  }
}

TEST(SafetensorsDtype, RefusesEveryOtherText) {
  for (const char* text :
       {"",    "F64",  "I64",  "I32", "I16",  "I8",   "U8",   "BOOL", "F8_E4M3", "F8_E5M2",
        "f32", "F32 ", " F32", "F3",  "F322", "q4_k", "Q4_0", "Q8_K", "BF1",     "Q4_K\n"}) {
    DType dtype{};
    QuantInfo quant;
    EXPECT_THAT(SafetensorsImporter::mapDtype(text, dtype, quant),
                StatusIs(Code::Unsupported, "safetensors: unsupported dtype '" + std::string(text) + "'"));
  }
}

TEST(SafetensorsDtype, RefusesAKnownTextWithANulBehindIt) {
  DType dtype{};
  QuantInfo quant;
  const std::string text("F32\0", 4);
  EXPECT_THAT(SafetensorsImporter::mapDtype(text, dtype, quant),
              StatusIs(Code::Unsupported, "safetensors: unsupported dtype '" + text + "'"));
}

// ---- the listing

// What `importer` prints, taken from the descriptor, not from a stream object of this process.
std::string captureDump(const SafetensorsImporter& importer) {
  const TempDir dir;
  std::fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  std::FILE* const sink = std::fopen((dir / "out").c_str(), "wb");
  dup2(fileno(sink), STDOUT_FILENO);
  importer.dump();
  std::fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  std::fclose(sink);
  return readWholeFile(dir / "out");
}

TEST(SafetensorsDump, PrintsOneLineForTheFileAndOneForEachTensorInNameOrder) {
  const std::string file = Builder()
                               .tensor("w.weight", "Q4_K", {300, 2})
                               .tensor("a", "BF16", {1, 2, 3, 4})
                               .tensor("scalar", "F32", {})
                               .dataBytes(1000)
                               .bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  EXPECT_EQ(
      captureDump(importer),
      "safetensors: 3 tensors, data 1000 bytes\n"
      "  a                                        dtype=2 ndim=4 shape=[1,2,3,4] off=[576,624) size=48\n"
      "  scalar                                   dtype=0 ndim=0 shape=[] off=[624,628) size=4\n"
      "  w.weight                                 dtype=5 ndim=2 shape=[300,2] off=[0,576) size=576\n");
}

TEST(SafetensorsDump, PrintsANameLongerThanItsColumnWhole) {
  const std::string name(45, 'n');
  const std::string file = Builder().tensor(name, "F16", {2}).bytes();
  SafetensorsImporter importer;
  ASSERT_THAT(importer.openBytes(file), IsOk());
  EXPECT_EQ(captureDump(importer), "safetensors: 1 tensors, data 4 bytes\n  " + name +
                                       " dtype=1 ndim=1 shape=[2] off=[0,4) size=4\n");
}

TEST(SafetensorsDump, PrintsZeroTensorsWhenClosed) {
  EXPECT_EQ(captureDump(SafetensorsImporter()), "safetensors: 0 tensors, data 0 bytes\n");
}

// ---- truncation

TEST(SafetensorsTruncation, EveryPrefixOfAGoodFileHasTheVerdictOfTheFirstThingThatIsMissing) {
  const Builder builder =
      Builder().tensor("a", "F32", {2}).tensor("b", "BF16", {3}).member("__metadata__", "{}");
  const std::string good = builder.bytes();
  const std::size_t headerEnd = 8 + builder.header().size();
  for (std::size_t length = 0; length < good.size(); ++length) {
    const std::string cut = good.substr(0, length);
    SafetensorsImporter importer;
    const char* expected = length < 8               ? "safetensors: file too small"
                           : length < headerEnd     ? "safetensors: bad header length"
                           : length < headerEnd + 8 ? "safetensors: offset out of range 'a'"
                                                    : "safetensors: offset out of range 'b'";
    EXPECT_THAT(importer.openBytes(cut), StatusIs(Code::Corrupted, std::string(expected)))
        << length << " bytes";
  }
}

TEST(SafetensorsTruncation, EveryPrefixOfTheHeaderWithAnHonestLengthIsAJsonError) {
  const std::string header =
      Builder().tensor("a\"b", "F32", {2, 3}).member("__metadata__", "[true]").header();
  for (std::size_t length = 0; length < header.size(); ++length) {
    EXPECT_THAT(verdict(Builder().headerJson(header.substr(0, length)).dataBytes(24)),
                StatusIs(Code::Corrupted, "safetensors: header JSON"))
        << length << " bytes";
  }
}

}  // namespace
}  // namespace zel::test
