// diff: what two containers do not share.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/container_builder.h"
#include "tools/json_documents.h"

namespace zel::tool {
namespace {

using test::CommandResult;
using test::ContainerBuilder;
using test::fullContainer;
using test::TempDir;

std::string full(const TempDir& dir) { return dir.write("c.okv2", fullContainer().build().bytes); }

TEST(OkvDiff, SaysNothingAboutEqualContainers) {
  const TempDir dir;
  const CommandResult result = okv2Run({"diff", full(dir), full(dir)});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
}

TEST(OkvDiff, NamesEveryKindOfDifference) {
  const TempDir dir;
  const auto build = [&](const char* name, std::uint32_t number, const char* extra, const char* data) {
    return dir.write(name, test::ContainerBuilder()
                               .meta("n", 0, test::u32(number))
                               .meta(extra, 0, test::u32(1))
                               .tensor("t", 1, {1}, data)
                               .build()
                               .bytes);
  };
  const std::string a = build("a.okv2", 1, "only-a", "xx"), b = build("b.okv2", 2, "only-b", "yy");
  const CommandResult result = okv2Run({"diff", a, b});
  EXPECT_EQ(result.exitCode, 10);
  EXPECT_EQ(result.out,
            "metadata n: u32 1 and u32 2\n"
            "metadata only-a: only in the first\n"
            "metadata only-b: only in the second\n"
            "tensor t: the bytes differ\n");
  const Answer answer = okv2Answer({"diff", a, b});
  EXPECT_EQ(answer.exitCode, 10);
  EXPECT_EQ(answer.document["differences"][3],
            json({{"part", "tensor"}, {"name", "t"}, {"text", "the bytes differ"}}));
}

TEST(OkvDiff, FailsWhenOneCannotBeRead) {
  const TempDir dir;
  EXPECT_EQ(okv2Run({"diff", full(dir), "/nowhere"}).exitCode, 6);
}

// What diff prints about two containers that differ.
std::string differences(const ContainerBuilder& a, const ContainerBuilder& b) {
  const TempDir dir;
  const CommandResult result =
      okv2Run({"diff", dir.write("a.okv2", a.build().bytes), dir.write("b.okv2", b.build().bytes)});
  EXPECT_EQ(result.exitCode, 10);
  EXPECT_EQ(result.err, "");
  return result.out;
}
ContainerBuilder withItem(int type, std::string_view value) {
  return ContainerBuilder().meta("k", type, value).tensor("t", 1, {1}, "xx");
}
ContainerBuilder withText(std::string_view text) { return withItem(4, test::str32(text)); }

// The index has the first 63 bytes of a name and its length.
TEST(OkvDiff, TellsNamesThatAreCutToTheSameByTheirLength) {
  const std::string cut(63, 'n');
  EXPECT_EQ(differences(ContainerBuilder().tensor(cut, 1, {1}, "xx", 70),
                        ContainerBuilder().tensor(cut, 1, {1}, "xx", 71)),
            "tensor " + cut + ": name of 70 and 71 bytes before it was cut\n");
  const TempDir dir;
  const std::string file =
      dir.write("c.okv2", ContainerBuilder().tensor(cut, 1, {1}, "xx", 70).build().bytes);
  EXPECT_EQ(okv2Run({"diff", file, file}).exitCode, 0);
}

// 56 equal bytes: the texts are shown from their beginning. One more: from 20 bytes before the difference.
TEST(OkvDiff, ShowsLongTextsAroundTheirFirstDifference) {
  const std::string a(56, 'a');
  EXPECT_EQ(
      differences(withText(a + "xbcdef"), withText(a + "ybcdef")),
      "metadata k: string \"" + a + "xbcd...\" (62 bytes) and string \"" + a + "ybcd...\" (62 bytes)\n");
  const std::string before(20, 'a');
  EXPECT_EQ(differences(withText(a + "axb"), withText(a + "ayb")), "metadata k: string \"..." + before +
                                                                       "xb\" (59 bytes) and string \"..." +
                                                                       before + "yb\" (59 bytes)\n");
}

TEST(OkvDiff, ShowsATextThatGoesOnWhereTheOtherEnds) {
  const std::string a(100, 'a'), before(20, 'a');
  EXPECT_EQ(differences(withText(a), withText(a + "more")), "metadata k: string \"..." + before +
                                                                "\" (100 bytes) and string \"..." + before +
                                                                "more\" (104 bytes)\n");
}

// 20 bytes before the difference lies the second byte of U+00E9.
TEST(OkvDiff, BeginsNoTextInsideACharacter) {
  const std::string a(79, 'a'), e = "\xC3\xA9", rest(19, 'b');
  EXPECT_EQ(differences(withText(a + e + rest + "x"), withText(a + e + rest + "y")),
            "metadata k: string \"..." + e + rest + "x\" (101 bytes) and string \"..." + e + rest +
                "y\" (101 bytes)\n");
}

TEST(OkvDiff, FindsTheValueOfAnArrayThatIsNotShown) {
  const auto array = [](std::uint32_t last) {
    std::string out = test::u32(10);
    for (std::uint32_t k = 0; k < 9; ++k)
      out += test::u32(k);
    return out + test::u32(last);
  };
  EXPECT_EQ(differences(withItem(5, array(7)), withItem(5, array(8))),
            "metadata k: u32[] of 10 values, the first difference is at 9: 7 and 8\n");
}

TEST(OkvDiff, TellsNotANumbersApartByTheirBits) {
  EXPECT_EQ(differences(withItem(2, test::u32(0x7FC00000)), withItem(2, test::u32(0x7FC00001))),
            "metadata k: f32 bits 0x7FC00000 and 0x7FC00001\n");
}

TEST(OkvDiff, NamesAnotherType) {
  EXPECT_EQ(differences(withItem(0, test::u32(1)), withItem(1, test::u32(1))),
            "metadata k: u32 1 and i32 1\n");
}

TEST(OkvDiff, NamesEveryPartOfATokenizer) {
  const auto build = [](const char* token, float score, std::uint32_t type, const char* merge, int eos,
                        std::uint64_t addBos, const char* text) {
    return ContainerBuilder()
        .tokenizerTemplate(text)
        .token("a")
        .token(token)
        .score(0)
        .score(score)
        .type(1)
        .type(type)
        .merge(merge)
        .specialIds(-1, eos, -1, -1)
        .addBos(addBos)
        .tensor("t", 1, {1}, "xx");
  };
  EXPECT_EQ(differences(build("b", 0.5F, 1, "a b", 0, 0, "one"), build("c", 1, 3, "b a", 1, 1, "two")),
            "tokenizer tokens: the first difference is at 1: \"b\" and \"c\"\n"
            "tokenizer merges: the first difference is at 0: \"a b\" and \"b a\"\n"
            "tokenizer scores: the first difference is at 1: 0.5 and 1\n"
            "tokenizer types: the first difference is at 1: 1 and 3\n"
            "tokenizer eos: 0 and 1\n"
            "tokenizer add bos: 0 and 1\n"
            "tokenizer chat template: \"one\" and \"two\"\n");
}

TEST(OkvDiff, CountsListsOfAnotherLength) {
  EXPECT_EQ(differences(ContainerBuilder().token("a").score(1).type(1).tensor("t", 1, {1}, "xx"),
                        ContainerBuilder().token("a").token("b").tensor("t", 1, {1}, "xx")),
            "tokenizer tokens: 1 and 2\ntokenizer scores: 1 and 0\ntokenizer types: 1 and 0\n");
}

TEST(OkvDiff, ShowsHeaderTemplateAndGraph) {
  const auto build = [](std::uint32_t number, const char* text) {
    return ContainerBuilder()
        .modelInfo(number, number, number, number)
        .chatTemplate(text)
        .graph(text)
        .tensor("t", 1, {1}, "xx");
  };
  EXPECT_EQ(differences(build(0, "one"), build(1, "two")),
            "header architecture id: 0 and 1\n"
            "header hidden size: 0 and 1\n"
            "header layers: 0 and 1\n"
            "header vocabulary size: 0 and 1\n"
            "chat template: \"one\" and \"two\"\n"
            "graph: \"one\" and \"two\"\n");
}

// As hash does: bytes that overlap, or are not there, cannot be compared.
TEST(OkvDiff, RefusesTensorsThatTheWeightsSectionDoesNotHold) {
  const TempDir dir;
  const test::BuiltContainer whole = ContainerBuilder().tensor("t", 1, {32}, std::string(64, 'x')).build();
  const std::string good = dir.write("good.okv2", whole.bytes);
  const std::string bad = dir.write("bad.okv2", whole.with(whole.indexEntry(0) + 112, test::u64(65)).bytes);
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"diff", good, bad}, {"diff", bad, good}}) {
    const CommandResult result = okv2Run(words);
    EXPECT_EQ(result.exitCode, 8);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "okv2: " + bad + ": tensor 't' does not lie inside the weights section\n");
  }
}

}  // namespace
}  // namespace zel::tool
