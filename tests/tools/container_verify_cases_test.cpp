// Checks of verifyContainer() that one changed field cannot show alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "okv2/container_reader.h"
#include "support/container_builder.h"

namespace zel::tool {
namespace {

using test::BuiltContainer;
using test::ContainerBuilder;
using test::fullContainer;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> textsOf(const std::string& bytes, bool& good) {
  ContainerView view;
  good = verifyContainer(bytes, view);
  std::vector<std::string> texts;
  for (const Finding& finding : view.findings.items())
    texts.push_back(finding.text);
  return texts;
}

TEST(ContainerVerify, FindsAWrongChecksum) {
  const BuiltContainer good = fullContainer().build();
  ContainerView view;
  EXPECT_FALSE(verifyContainer(good.withUnsealed(56, test::u64(1)).bytes, view));
  ASSERT_EQ(view.findings.items().size(), 1U);
  EXPECT_EQ(view.findings.items()[0].offset, 56U);
  EXPECT_THAT(view.findings.items()[0].text, HasSubstr("header checksum 0x0000000000000001, computed 0x"));
}

TEST(ContainerVerify, FindsAChangedModelInfoByTheChecksumAlone) {
  bool good = true;
  const std::string bytes = fullContainer().build().withUnsealed(16, test::u32(99)).bytes;
  EXPECT_THAT(textsOf(bytes, good), ElementsAre(HasSubstr("header checksum")));
  EXPECT_FALSE(good);
}

TEST(ContainerVerify, ANameOf63BytesMayHaveBeenCutFromAnyLength) {
  const std::string name(63, 'n');
  for (const std::uint64_t full : {63, 64, 70, 65535}) {
    bool good = false;
    EXPECT_THAT(textsOf(ContainerBuilder().tensor(name, 1, {1}, "xx", full).build().bytes, good), IsEmpty());
    EXPECT_TRUE(good);
  }
}

TEST(ContainerVerify, ANameMustEndWithinItsField) {
  bool good = true;
  EXPECT_THAT(textsOf(ContainerBuilder().tensor(std::string(64, 'n'), 1, {1}, "xx").build().bytes, good),
              Contains(HasSubstr("has a name without a closing zero byte")));
  EXPECT_FALSE(good);
}

TEST(ContainerVerify, NotesTwoTensorsOfOneName) {
  bool good = false;
  const BuiltContainer built = ContainerBuilder().tensor("t", 1, {1}, "xx").tensor("t", 1, {1}, "yy").build();
  EXPECT_THAT(textsOf(built.bytes, good), ElementsAre("tensor 1 't' has the same name as its predecessor"));
  EXPECT_TRUE(good);
}

TEST(ContainerVerify, AShorterNameSortsBeforeOneThatItBegins) {
  bool good = false;
  textsOf(ContainerBuilder().tensor("t", 1, {1}, "xx").tensor("t.a", 1, {1}, "yy").build().bytes, good);
  EXPECT_TRUE(good);
  textsOf(ContainerBuilder().tensor("t.a", 1, {1}, "xx").tensor("t", 1, {1}, "yy").build().bytes, good);
  EXPECT_FALSE(good);
}

TEST(ContainerVerify, NamesAreComparedAsUnsignedBytes) {
  bool good = false;
  textsOf(ContainerBuilder().tensor("z", 1, {1}, "xx").tensor("\xC3\xA9", 1, {1}, "yy").build().bytes, good);
  EXPECT_TRUE(good);
}

TEST(ContainerVerify, EscapesControlBytesOfNames) {
  bool good = false;
  EXPECT_THAT(textsOf(ContainerBuilder().tensor("a\x1B[2Jb\n", 1, {2}, "xx").build().bytes, good),
              ElementsAre("tensor 0 'a\\x1B[2Jb\\n' has 2 bytes, its shape calls for 4"));
  EXPECT_FALSE(good);
}

TEST(ContainerVerify, FindsAnUnknownType) {
  bool good = true;
  EXPECT_THAT(textsOf(ContainerBuilder().tensor("t", 9, {1}, "xx").build().bytes, good),
              ElementsAre("tensor 0 't' has the unknown type 9"));
  EXPECT_FALSE(good);
}

TEST(ContainerVerify, FindsATensorWithoutData) {
  bool good = true;
  EXPECT_THAT(textsOf(ContainerBuilder().tensor("t", 1, {0}, "").build().bytes, good),
              ElementsAre("tensor 0 't' has no data"));
  EXPECT_FALSE(good);
}

TEST(ContainerVerify, FindsAContainerWithoutTensors) {
  bool good = true;
  EXPECT_THAT(textsOf(ContainerBuilder().build().bytes, good), ElementsAre("the container has no tensors"));
  EXPECT_FALSE(good);
}

TEST(ContainerVerify, AcceptsEveryTypeInItsOwnSize) {
  // 256 rows of two columns; 32 rows make a block of the types 3 and 4.
  const std::vector<std::size_t> bytes = {2048, 1024, 1024, 8 * 18 * 2, 8 * 34 * 2, 288, 352, 420, 580};
  for (std::uint16_t dtype = 0; dtype < bytes.size(); ++dtype) {
    bool good = false;
    const std::string data(bytes[dtype], 'd');
    EXPECT_THAT(textsOf(ContainerBuilder().tensor("t", dtype, {256, 2}, data).build().bytes, good),
                IsEmpty());
    EXPECT_TRUE(good) << dtype;
  }
}

TEST(ContainerVerify, FindsATensorBehindTheWeights) {
  const BuiltContainer built = ContainerBuilder().tensor("t", 1, {1}, "xx").build();
  bool good = true;
  EXPECT_THAT(textsOf(built.with(built.indexEntry(0) + 104, test::u64(63)).bytes, good),
              ElementsAre("tensor 0 't' (2 bytes at 63) does not lie inside the weights section"));
  EXPECT_FALSE(good);
  EXPECT_THAT(
      textsOf(built.with(built.indexEntry(0) + 104, test::u64(~std::uint64_t{0})).bytes, good),
      ElementsAre("tensor 0 't' (2 bytes at 18446744073709551615) does not lie inside the weights section"));
}

TEST(ContainerVerify, FindsTensorDataThatDoNotBeginWhereTheyShould) {
  bool good = true;
  const BuiltContainer built = ContainerBuilder().tensor("t", 1, {1}, std::string(2, '\0')).build();
  EXPECT_THAT(textsOf(built.with(built.indexEntry(0) + 104, test::u64(62)).bytes, good),
              ElementsAre("tensor 0 't' at 62, expected 0"));
  EXPECT_FALSE(good);
}

// An overlap moves what follows, too: the gap that it leaves is found as well.
TEST(ContainerVerify, FindsOverlappingTensors) {
  const BuiltContainer built = fullContainer().build();
  bool good = true;
  EXPECT_THAT(
      textsOf(built.with(built.indexEntry(1) + 104, test::u64(23)).bytes, good),
      ElementsAre("tensor 1 'beta' at 23 overlaps what ends at 24", "tensor 2 'gamma' at 128, expected 64"));
  EXPECT_FALSE(good);
}

TEST(ContainerVerify, FindsOverlappingSections) {
  const BuiltContainer built = fullContainer().build();
  bool good = true;
  const std::string bytes =
      built.with(BuiltContainer::tableEntry(3) + 8, test::u64(built.offset[2]) + test::u64(0)).bytes;
  EXPECT_THAT(textsOf(bytes, good),
              ElementsAre("graph section at " + std::to_string(built.offset[2]) + " overlaps what ends at " +
                              std::to_string(built.offset[2] + built.size[2]),
                          "tensor index section at " + std::to_string(built.offset[4]) + ", expected " +
                              std::to_string(built.offset[3])));
  EXPECT_FALSE(good);
}

TEST(ContainerVerify, FindsAWeightsSectionThatIsLargerThanItsTensors) {
  BuiltContainer built = ContainerBuilder().tensor("t", 1, {1}, "xx").build();
  built.bytes.append(64, '\0');
  bool good = true;
  EXPECT_THAT(textsOf(built.with(BuiltContainer::tableEntry(5) + 16, test::u64(128)).bytes, good),
              ElementsAre("weights section of 128 bytes, its tensors take 64"));
  EXPECT_FALSE(good);
}

TEST(ContainerVerify, FindsAGapBetweenSections) {
  const BuiltContainer good = ContainerBuilder().tensor("t", 1, {1}, "xx").build();
  // The weights, which are last, move by 64 bytes.
  BuiltContainer moved = good;
  moved.bytes.insert(good.offset[5], 64, '\0');
  bool isGood = true;
  EXPECT_THAT(
      textsOf(moved.with(BuiltContainer::tableEntry(5) + 8, test::u64(good.offset[5] + 64)).bytes, isGood),
      ElementsAre("weights section at " + std::to_string(good.offset[5] + 64) + ", expected " +
                  std::to_string(good.offset[5])));
  EXPECT_FALSE(isGood);
}

TEST(ContainerVerify, FindsALayoutTableOfAnotherLength) {
  const BuiltContainer good = fullContainer().build();
  bool isGood = true;
  EXPECT_THAT(textsOf(good.with(BuiltContainer::tableEntry(6) + 16, test::u64(64)).bytes, isGood),
              Contains("tensor layout section of 64 bytes, expected 96"));
  EXPECT_FALSE(isGood);
}

TEST(ContainerVerify, ReportsHeaderDamageOnceAndStops) {
  const BuiltContainer good = fullContainer().build();
  bool isGood = true;
  EXPECT_THAT(textsOf(good.withUnsealed(0, "ZIP!").bytes, isGood),
              ElementsAre("not an OKV2 container: the magic bytes are missing"));
  EXPECT_FALSE(isGood);
}

}  // namespace
}  // namespace zel::tool
