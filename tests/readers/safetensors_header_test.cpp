// SafetensorsImporter::openBytes: every rule of the header, each edge from both sides.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "readers/safetensors_importer.h"
#include "support/safetensors_builder.h"
#include "support/status_matchers.h"

namespace zel::test {
namespace {

using Builder = SafetensorsBuilder;

struct HeaderCase {
  const char* name;
  std::string file;
  Code code;
  std::string message;
};

// One tensor "w" whose entry is `json`, over `dataBytes` bytes of data.
std::string oneEntry(const std::string& json, std::size_t dataBytes) {
  return Builder().member("w", json).dataBytes(dataBytes).bytes();
}

// One tensor "w" of the given shape text and offsets [0, dataBytes].
std::string shaped(const std::string& dtype, const std::string& shape, std::size_t dataBytes) {
  return oneEntry("{\"dtype\":\"" + dtype + "\",\"shape\":" + shape + ",\"data_offsets\":[0," +
                      std::to_string(dataBytes) + "]}",
                  dataBytes);
}

// One F32 tensor "w" of shape [2] with the given offsets text, over 16 bytes of data.
std::string withOffsets(const std::string& offsets) {
  return oneEntry(R"({"dtype":"F32","shape":[2],"data_offsets":)" + offsets + "}", 16);
}

std::string mismatch(const std::string& expected, const std::string& got) {
  return "safetensors: size mismatch 'w' (expected " + expected + " got " + got + ")";
}

class SafetensorsHeader : public testing::TestWithParam<HeaderCase> {};

TEST_P(SafetensorsHeader, GivesThisVerdict) {
  const HeaderCase& param = GetParam();
  SafetensorsImporter importer;
  EXPECT_THAT(importer.openBytes(param.file), StatusIs(param.code, param.message));
  EXPECT_EQ(importer.isOpen(), param.code == Code::OK);
  if (param.code != Code::OK) {
    EXPECT_TRUE(importer.tensors().empty());
  }
}

std::string caseName(const testing::TestParamInfo<HeaderCase>& info) { return info.param.name; }

const Code kBad = Code::Corrupted;
const char* const kTooSmall = "safetensors: file too small";
const char* const kBadLength = "safetensors: bad header length";
const char* const kJson = "safetensors: header JSON";
const char* const kEntry = "safetensors: bad tensor entry 'w'";
const char* const kShape = "safetensors: bad shape";
const char* const kBadOffsets = "safetensors: bad offsets";
const char* const kRange = "safetensors: offset out of range 'w'";

INSTANTIATE_TEST_SUITE_P(
    File, SafetensorsHeader,
    testing::Values(
        HeaderCase{"Empty", "", kBad, kTooSmall},
        HeaderCase{"SevenBytes", std::string(7, '\0'), kBad, kTooSmall},
        HeaderCase{"EightBytesOfLengthZero", std::string(8, '\0'), kBad, kJson},
        HeaderCase{"EmptyObject", Builder().bytes(), Code::OK, ""},
        HeaderCase{"EmptyObjectWithData", Builder().dataBytes(5).bytes(), Code::OK, ""},
        HeaderCase{"HeaderEndsOneByteAfterTheFile", Builder().headerLength(3).bytes(), kBad, kBadLength},
        HeaderCase{"HeaderLengthOfOneGiB", Builder().headerLength(1073741824).bytes(), kBad, kBadLength},
        HeaderCase{"HeaderLengthAboveOneGiB", Builder().headerLength(1073741825).bytes(), kBad, kBadLength},
        HeaderCase{"HeaderLengthThatWrapsWithTheEightBytes",
                   Builder().headerLength(0xFFFFFFFFFFFFFFF8).bytes(), kBad, kBadLength},
        HeaderCase{"HeaderLengthOfAllOnes", Builder().headerLength(~std::uint64_t{0}).bytes(), kBad,
                   kBadLength},
        HeaderCase{"HeaderLengthOneShort", Builder().headerLength(1).bytes(), kBad, kJson}),
    caseName);

INSTANTIATE_TEST_SUITE_P(
    Json, SafetensorsHeader,
    testing::Values(
        HeaderCase{"NotJson", Builder().headerJson("hello").bytes(), kBad, kJson},
        HeaderCase{"OnlySpaces", Builder().headerJson("   ").bytes(), kBad, kJson},
        HeaderCase{"SpacesAndNewlineAfterTheObject", Builder().afterHeader(" \t\r\n ").bytes(), Code::OK, ""},
        HeaderCase{"SpacesBeforeTheObject", Builder().headerJson(" \n{}").bytes(), Code::OK, ""},
        HeaderCase{"NulAfterTheObject", Builder().afterHeader(std::string(1, '\0')).bytes(), kBad, kJson},
        HeaderCase{"LetterAfterTheObject", Builder().afterHeader(" x").bytes(), kBad, kJson},
        HeaderCase{"VerticalTabAfterTheObject", Builder().afterHeader("\v").bytes(), kBad, kJson},
        HeaderCase{"SecondObjectAfterTheObject", Builder().afterHeader("{}").bytes(), kBad, kJson},
        HeaderCase{"TrailingComma", Builder().headerJson(R"({"__metadata__":{},})").bytes(), kBad, kJson},
        HeaderCase{"RootArray", Builder().headerJson("[]").bytes(), kBad,
                   "safetensors: header not an object"},
        HeaderCase{"RootNumber", Builder().headerJson("1").bytes(), kBad,
                   "safetensors: header not an object"},
        HeaderCase{"RootNull", Builder().headerJson("null").bytes(), kBad,
                   "safetensors: header not an object"},
        HeaderCase{"RootString", Builder().headerJson("\"{}\"").bytes(), kBad,
                   "safetensors: header not an object"},
        HeaderCase{"RootArrayWithTrailingData", Builder().headerJson("[]x").bytes(), kBad, kJson},
        HeaderCase{"BrokenRootArray", Builder().headerJson("[1,]").bytes(), kBad, kJson},
        // The root is depth 0 and a member's value depth 1, so the 64th array in it is at depth 64.
        HeaderCase{"MetadataNestedToTheLimit",
                   Builder().member("__metadata__", std::string(64, '[') + std::string(64, ']')).bytes(),
                   Code::OK, ""},
        HeaderCase{
            "MetadataNestedOneDeeper",
            Builder().member("__metadata__", std::string(64, '[') + "1" + std::string(64, ']')).bytes(), kBad,
            kJson},
        HeaderCase{"NumberOf64Bytes", Builder().member("__metadata__", std::string(64, '1')).bytes(), kBad,
                   kJson},
        HeaderCase{"NumberOf63Bytes", Builder().member("__metadata__", std::string(63, '1')).bytes(),
                   Code::OK, ""}),
    caseName);

INSTANTIATE_TEST_SUITE_P(
    Entry, SafetensorsHeader,
    testing::Values(
        HeaderCase{"Good", shaped("F32", "[2]", 8), Code::OK, ""},
        HeaderCase{"Number", oneEntry("1", 8), kBad, kEntry},
        HeaderCase{"Null", oneEntry("null", 8), kBad, kEntry},
        HeaderCase{"Array", oneEntry("[]", 8), kBad, kEntry},
        HeaderCase{"EmptyObject", oneEntry("{}", 8), kBad, kEntry},
        HeaderCase{"NoDtype", oneEntry(R"({"shape":[2],"data_offsets":[0,8]})", 8), kBad, kEntry},
        HeaderCase{"NoShape", oneEntry(R"({"dtype":"F32","data_offsets":[0,8]})", 8), kBad, kEntry},
        HeaderCase{"NoOffsets", oneEntry(R"({"dtype":"F32","shape":[2]})", 8), kBad, kEntry},
        HeaderCase{"DtypeNumber", oneEntry(R"({"dtype":1,"shape":[2],"data_offsets":[0,8]})", 8), kBad,
                   kEntry},
        HeaderCase{"DtypeNull", oneEntry(R"({"dtype":null,"shape":[2],"data_offsets":[0,8]})", 8), kBad,
                   kEntry},
        HeaderCase{"ShapeNumber", oneEntry(R"({"dtype":"F32","shape":2,"data_offsets":[0,8]})", 8), kBad,
                   kEntry},
        HeaderCase{"ShapeObject", oneEntry(R"({"dtype":"F32","shape":{},"data_offsets":[0,8]})", 8), kBad,
                   kEntry},
        HeaderCase{"OffsetsObject", withOffsets("{}"), kBad, kEntry},
        HeaderCase{"OffsetsEmpty", withOffsets("[]"), kBad, kEntry},
        HeaderCase{"OneOffset", withOffsets("[0]"), kBad, kEntry},
        HeaderCase{"TwoOffsets", withOffsets("[0,8]"), Code::OK, ""},
        HeaderCase{"ThreeOffsets", withOffsets("[0,8,8]"), kBad, kEntry},
        HeaderCase{"FurtherMembersAreIgnored",
                   oneEntry(R"({"x":[{}],"dtype":"F32","y":null,"shape":[2],"data_offsets":[0,8],"z":1})", 8),
                   Code::OK, ""},
        HeaderCase{"KeysInAnyOrder", oneEntry(R"({"data_offsets":[0,8],"shape":[2],"dtype":"F32"})", 8),
                   Code::OK, ""},
        HeaderCase{"KeyInOtherCase", oneEntry(R"({"Dtype":"F32","shape":[2],"data_offsets":[0,8]})", 8), kBad,
                   kEntry},
        HeaderCase{"KeyWithANulBehindIt",
                   oneEntry("{\"dtype\\u0000\":\"F32\",\"shape\":[2],\"data_offsets\":[0,8]}", 8), kBad,
                   kEntry},
        HeaderCase{"NameInTheMessageIsDecoded", Builder().rawMember(R"("a\u0062\"c")", "1").bytes(), kBad,
                   "safetensors: bad tensor entry 'ab\"c'"},
        HeaderCase{"EmptyName", Builder().member("", "1").bytes(), kBad, "safetensors: bad tensor entry ''"},
        HeaderCase{"NameWithANul", Builder().member(std::string("a\0b", 3), "1").bytes(), kBad,
                   "safetensors: bad tensor entry 'a" + std::string(1, '\0') + "b'"}),
    caseName);

INSTANTIATE_TEST_SUITE_P(
    Shape, SafetensorsHeader,
    testing::Values(
        HeaderCase{"FourExtents", shaped("F32", "[1,1,2,1]", 8), Code::OK, ""},
        HeaderCase{"FiveExtents", shaped("F32", "[1,1,2,1,1]", 8), kBad, "safetensors: ndim > 4"},
        HeaderCase{"FiveExtentsOfWrongKind", shaped("F32", "[1,1,2,1,{}]", 8), kBad, "safetensors: ndim > 4"},
        HeaderCase{"Fraction", shaped("F32", "[2.5]", 8), kBad, kShape},
        HeaderCase{"IntegralFraction", shaped("F32", "[2.0]", 8), Code::OK, ""},
        HeaderCase{"Exponent", shaped("F32", "[0.2e1]", 8), Code::OK, ""},
        HeaderCase{"LeadingZeros", shaped("F32", "[002]", 8), Code::OK, ""},
        HeaderCase{"MinusOne", shaped("F32", "[-1]", 8), kBad, kShape},
        HeaderCase{"MinusZero", shaped("F32", "[-0]", 0), Code::OK, ""},
        HeaderCase{"String", shaped("F32", "[\"2\"]", 8), kBad, kShape},
        HeaderCase{"Bool", shaped("F32", "[true]", 8), kBad, kShape},
        HeaderCase{"Null", shaped("F32", "[null]", 8), kBad, kShape},
        HeaderCase{"Nested", shaped("F32", "[[2]]", 8), kBad, kShape},
        HeaderCase{"BadSecondExtent", shaped("F32", "[2,-1]", 8), kBad, kShape},
        HeaderCase{"BadFourthExtent", shaped("F32", "[2,1,1,0.5]", 8), kBad, kShape},
        HeaderCase{"TwoToThe63", shaped("F32", "[9223372036854775808]", 8), kBad, kShape},
        // The largest double below 2^63 is 2^63 - 1024.
        HeaderCase{"LargestIntegralExtent", shaped("F32", "[9223372036854774784]", 8), kBad,
                   mismatch("18446744073709551615", "8")},
        HeaderCase{"OverflowToInfinity", shaped("F32", "[1e400]", 8), kBad, kShape},
        HeaderCase{"MinusInfinity", shaped("F32", "[-1e400]", 8), kBad, kShape},
        HeaderCase{"MinusTwoToThe63", shaped("F32", "[-9223372036854775808]", 8), kBad, kShape},
        HeaderCase{"TinyFraction", shaped("F32", "[1e-400]", 0), Code::OK, ""}),  // underflows to 0
    caseName);

INSTANTIATE_TEST_SUITE_P(
    Offsets, SafetensorsHeader,
    testing::Values(HeaderCase{"UpToTheLastByte", withOffsets("[8,16]"), Code::OK, ""},
                    HeaderCase{"OneByteBehindTheData", withOffsets("[9,17]"), kBad, kRange},
                    HeaderCase{"BeginAfterEnd", withOffsets("[8,4]"), kBad, kBadOffsets},
                    HeaderCase{"BeginEqualsEnd", withOffsets("[8,8]"), kBad, mismatch("8", "0")},
                    HeaderCase{"NegativeBegin", withOffsets("[-1,7]"), kBad, kBadOffsets},
                    HeaderCase{"BothNegative", withOffsets("[-8,-1]"), kBad, kBadOffsets},
                    HeaderCase{"FractionalBegin", withOffsets("[0.5,8]"), kBad, kBadOffsets},
                    HeaderCase{"FractionalEnd", withOffsets("[0,8.5]"), kBad, kBadOffsets},
                    HeaderCase{"IntegralFraction", withOffsets("[0.0,8.0]"), Code::OK, ""},
                    HeaderCase{"MinusZero", withOffsets("[-0,8]"), Code::OK, ""},
                    HeaderCase{"StringBegin", withOffsets(R"(["0",8])"), kBad, kBadOffsets},
                    HeaderCase{"NullEnd", withOffsets("[0,null]"), kBad, kBadOffsets},
                    HeaderCase{"NestedOffsets", withOffsets("[[0,8],[0,8]]"), kBad, kBadOffsets},
                    HeaderCase{"EndOfTwoToThe63", withOffsets("[0,9223372036854775808]"), kBad, kBadOffsets},
                    HeaderCase{"LargestIntegralEnd", withOffsets("[0,9223372036854774784]"), kBad, kRange},
                    HeaderCase{"InfiniteEnd", withOffsets("[0,1e400]"), kBad, kBadOffsets},
                    HeaderCase{"InfiniteBegin", withOffsets("[1e400,1e400]"), kBad, kBadOffsets},
                    HeaderCase{"NoDataAtAll",
                               oneEntry(R"({"dtype":"F32","shape":[1],"data_offsets":[0,4]})", 0), kBad,
                               kRange}),
    caseName);

INSTANTIATE_TEST_SUITE_P(
    Size, SafetensorsHeader,
    testing::Values(
        HeaderCase{"ScalarTakesOneElement", shaped("F32", "[]", 4), Code::OK, ""},
        HeaderCase{"ScalarWithTwoElements", shaped("F32", "[]", 8), kBad, mismatch("4", "8")},
        HeaderCase{"F32OneByteShort", shaped("F32", "[2,3]", 23), kBad, mismatch("24", "23")},
        HeaderCase{"F32Exact", shaped("F32", "[2,3]", 24), Code::OK, ""},
        HeaderCase{"F32OneByteMore", shaped("F32", "[2,3]", 25), kBad, mismatch("24", "25")},
        HeaderCase{"F16Exact", shaped("F16", "[2,3]", 12), Code::OK, ""},
        HeaderCase{"F16OneByteShort", shaped("F16", "[2,3]", 11), kBad, mismatch("12", "11")},
        HeaderCase{"F16Scalar", shaped("F16", "[]", 2), Code::OK, ""},
        HeaderCase{"BF16Exact", shaped("BF16", "[2,3]", 12), Code::OK, ""},
        HeaderCase{"BF16OneByteMore", shaped("BF16", "[2,3]", 13), kBad, mismatch("12", "13")},
        HeaderCase{"EmptyTensor", shaped("F32", "[0]", 0), Code::OK, ""},
        HeaderCase{"EmptyTensorWithData", shaped("F32", "[3,0]", 4), kBad, mismatch("0", "4")},
        HeaderCase{"Q4KOfThreeHundredRows", shaped("Q4_K", "[300,2]", 576), Code::OK, ""},
        HeaderCase{"Q4KOneByteShort", shaped("Q4_K", "[300,2]", 575), kBad, mismatch("576", "575")},
        HeaderCase{"Q4KOfOneRow", shaped("Q4_K", "[1]", 144), Code::OK, ""},
        HeaderCase{"Q4KOf256Rows", shaped("Q4_K", "[256,3]", 432), Code::OK, ""},
        HeaderCase{"Q4KOf257Rows", shaped("Q4_K", "[257,3]", 864), Code::OK, ""},
        HeaderCase{"Q4KBlocksRunAlongTheFirstExtentOnly", shaped("Q4_K", "[1,256]", 36864), Code::OK, ""},
        HeaderCase{"Q5KOf512Rows", shaped("Q5_K", "[512]", 352), Code::OK, ""},
        HeaderCase{"Q5KOf513Rows", shaped("Q5_K", "[513]", 528), Code::OK, ""},
        HeaderCase{"Q6KOf256Rows", shaped("Q6_K", "[256,2,2]", 840), Code::OK, ""},
        HeaderCase{"Q6KOneByteMore", shaped("Q6_K", "[256,2,2]", 841), kBad, mismatch("840", "841")},
        HeaderCase{"Q4KOfZeroRows", shaped("Q4_K", "[0,2]", 0), kBad, "safetensors: zero rows"},
        HeaderCase{"Q5KOfZeroRows", shaped("Q5_K", "[0]", 0), kBad, "safetensors: zero rows"},
        HeaderCase{"Q6KOfZeroRows", shaped("Q6_K", "[0,5]", 210), kBad, "safetensors: zero rows"},
        HeaderCase{"Q4KScalarHasNoRows", shaped("Q4_K", "[]", 144), kBad, "safetensors: zero rows"},
        HeaderCase{"Q4KOfZeroColumns", shaped("Q4_K", "[256,0]", 0), Code::OK, ""}),
    caseName);

INSTANTIATE_TEST_SUITE_P(
    SizeOverflow, SafetensorsHeader,
    testing::Values(
        // 2^32 * 2^32 elements: the product alone leaves 64 bits.
        HeaderCase{"ProductOf64Bits", shaped("F32", "[4294967296,4294967296]", 8), kBad,
                   mismatch("18446744073709551615", "8")},
        // 2^31 * 2^31 = 2^62 elements of 4 bytes: only the factor 4 leaves 64 bits; wrapped, it would be 0.
        HeaderCase{"OnlyTheElementSizeOverflows", shaped("F32", "[2147483648,2147483648]", 0), kBad,
                   mismatch("18446744073709551615", "0")},
        HeaderCase{"F16AtTwoToThe63Elements", shaped("F16", "[2147483648,4294967296]", 0), kBad,
                   mismatch("18446744073709551615", "0")},
        HeaderCase{"F16JustBelow", shaped("F16", "[2147483648,2147483648]", 8), kBad,
                   mismatch("9223372036854775808", "8")},
        HeaderCase{"F32JustBelow", shaped("F32", "[2147483648,1073741824]", 8), kBad,
                   mismatch("9223372036854775808", "8")},
        // (2^32 + 1) * (2^32 - 1) is -1 modulo 2^64 and its square 1: wrapped, this is one element.
        HeaderCase{"WrappedProductThatWouldFitTheData",
                   shaped("F16", "[4294967297,4294967295,4294967297,4294967295]", 2), kBad,
                   mismatch("18446744073709551615", "2")},
        HeaderCase{"Q4KOverflow", shaped("Q4_K", "[1,4294967296,4294967296]", 144), kBad,
                   mismatch("18446744073709551615", "144")},
        HeaderCase{"Q6KLargestRowCount", shaped("Q6_K", "[9223372036854774784]", 210), kBad,
                   // ceil((2^63 - 1024) / 256) = 2^55 - 4 blocks of 210 bytes
                   mismatch("7566047373982432440", "210")},
        // A zero anywhere makes the product exactly 0, whatever its neighbours overflow to.
        HeaderCase{"ZeroBehindHugeExtents", shaped("F32", "[4294967296,4294967296,4294967296,0]", 0),
                   Code::OK, ""},
        HeaderCase{"ZeroBeforeHugeExtents", shaped("F32", "[0,4294967296,4294967296,4294967296]", 0),
                   Code::OK, ""},
        HeaderCase{"ZeroBetweenHugeExtents", shaped("BF16", "[4294967296,0,4294967296,4294967296]", 0),
                   Code::OK, ""},
        HeaderCase{"ZeroBehindHugeExtentsWithData", shaped("F32", "[4294967296,4294967296,0]", 4), kBad,
                   mismatch("0", "4")},
        HeaderCase{"Q4KZeroBehindHugeExtents", shaped("Q4_K", "[1,4294967296,4294967296,0]", 0), Code::OK,
                   ""}),
    caseName);

}  // namespace
}  // namespace zel::test
