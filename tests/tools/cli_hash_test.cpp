// hash and hash --check: sums of tensors, as sha256sum writes and reads them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cctype>
#include <filesystem>
#include <string>
#include <string_view>

#include "support/container_builder.h"
#include "tools/json_documents.h"

namespace zel::tool {
namespace {

using test::CommandResult;
using test::ContainerBuilder;
using test::TempDir;

// Of "xx"; from coreutils' sha256sum.
constexpr char kSumOfXx[] = "5dde896887f6754c9b15bfe3a441ae4806df2fde94001311e08bf110622e0bbe";

// sha256sum of "xx": from coreutils.
TEST(OkvHash, PrintsTheSumsOfSha256sum) {
  const TempDir dir;
  const std::string file = dir.write(
      "c.okv2", test::ContainerBuilder().tensor("t", 1, {1}, "xx").tensor("u\n", 1, {1}, "xx").build().bytes);
  const test::CommandResult expected =
      test::runCommand({"/bin/sh", "-c", "printf xx | sha256sum | cut -c1-64"});
  const std::string sum = expected.out.substr(0, 64);
  ASSERT_EQ(sum.size(), 64U);
  const CommandResult result = okv2Run({"hash", file});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, sum + "  t\n\\" + sum + "  u\\n\n");
  const std::string sums = dir.write("sums", result.out);
  EXPECT_EQ(okv2Run({"hash", file, "--check", sums}).out, "t: OK\nu\\n: OK\n");
}

TEST(OkvHashCheck, TellsChangedMissingAndUnlistedTensors) {
  const TempDir dir;
  const std::string zeros(64, '0');
  const std::string file = dir.write(
      "c.okv2", test::ContainerBuilder().tensor("a", 1, {1}, "xx").tensor("b", 1, {1}, "yy").build().bytes);
  const std::string sums = dir.write("sums", zeros + "  a\n" + zeros + "  c\n");
  const CommandResult result = okv2Run({"hash", file, "--check", sums});
  EXPECT_EQ(result.exitCode, 10);
  EXPECT_EQ(result.out, "a: FAILED\nc: MISSING\nb: NOT LISTED\n");
  EXPECT_EQ(okv2Answer({"hash", file, "--check", sums}).document["tensors"][1],
            json({{"name", "c"}, {"result", "MISSING"}}));
}

TEST(OkvHashCheck, RefusesWhatIsNoListOfSums) {
  const TempDir dir;
  const std::string sums = dir.write("sums", "nonsense\n");
  const CommandResult result = okv2Run({"hash", writeFullContainer(dir), "--check", sums});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.err, "okv2: " + sums + ": not a list of sums\n");
}

// A container of one tensor "xx" of this name.
std::string containerOf(const TempDir& dir, std::string_view name) {
  return dir.write("c.okv2", ContainerBuilder().tensor(name, 1, {1}, "xx").build().bytes);
}
CommandResult checkSums(const TempDir& dir, std::string_view name, const std::string& sums) {
  return okv2Run({"hash", containerOf(dir, name), "--check", dir.write("sums", sums)});
}

TEST(OkvHashCheck, EscapesNamesThatOnlyTheSumsHave) {
  const TempDir dir;
  const std::string sum(kSumOfXx);
  const CommandResult result =
      checkSums(dir, "t", sum + "  t\n" + sum + "  a\x1B[2Jb\n" + "\\" + sum + "  c\x7F\\nd\n");
  EXPECT_EQ(result.exitCode, 10);
  EXPECT_EQ(result.out, "t: OK\na\\x1B[2Jb: MISSING\nc\\x7F\\nd: MISSING\n");
  EXPECT_EQ(result.err, "");
}

TEST(OkvHashCheck, TakesBackEveryEscapeOfAName) {
  const std::string name = std::string("b\\s\nn\rr\tt\x7F") + "\xC2\x85" + "\xFF";
  const TempDir dir;
  const CommandResult hashed = okv2Run({"hash", containerOf(dir, name)});
  EXPECT_EQ(hashed.out, std::string("\\") + kSumOfXx + "  b\\\\s\\nn\\rr\\tt\\x7F\\xC2\\x85\\xFF\n");
  const CommandResult result = checkSums(dir, name, hashed.out);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "b\\\\s\\nn\\rr\\tt\\x7F\\xC2\\x85\\xFF: OK\n");
}

class OkvHashCheckOfTheEscape : public testing::TestWithParam<const char*> {};

TEST_P(OkvHashCheckOfTheEscape, RefusesTheList) {
  const TempDir dir;
  const CommandResult result = checkSums(dir, "t", std::string("\\") + kSumOfXx + "  " + GetParam() + "\n");
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: " + dir / "sums" + ": not a list of sums\n");
}

INSTANTIATE_TEST_SUITE_P(Unknown, OkvHashCheckOfTheEscape,
                         testing::Values("t\\", "t\\q", "t\\x", "t\\x1", "t\\xg1", "t\\x1g"));

TEST(OkvHashCheck, TakesLinesThatEndInTwoCharacters) {
  const TempDir dir;
  const CommandResult result = checkSums(dir, "t", std::string(kSumOfXx) + "  t\r\n");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "t: OK\n");
}

TEST(OkvHashCheck, TakesALastLineWithoutAnEndAndUpperCase) {
  const TempDir dir;
  std::string sum(kSumOfXx);
  for (char& c : sum)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const CommandResult result = checkSums(dir, "t", sum + " *t");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "t: OK\n");
}

TEST(OkvHashCheck, RefusesAFifoAtOnce) {
  const TempDir dir;
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  const CommandResult result = okv2Run({"hash", writeFullContainer(dir), "--check", dir / "fifo"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: " + dir / "fifo" + ": not a regular file\n");
}

TEST(OkvHashCheck, SaysWhyAListCannotBeRead) {
  const TempDir dir;
  const CommandResult result = okv2Run({"hash", writeFullContainer(dir), "--check", dir / "sums"});
  EXPECT_EQ(result.exitCode, 6);
  EXPECT_EQ(result.err, "okv2: cannot read " + dir / "sums" + ": No such file or directory\n");
}

// A pipe that the shell hands over is no FIFO that somebody has left in a folder.
TEST(OkvHashCheck, ReadsAPipeThatItIsGiven) {
  const TempDir dir;
  for (const char* script : {"\"$0\" hash \"$1\" | \"$0\" hash \"$1\" --check /dev/stdin",
                             "\"$0\" hash \"$1\" | \"$0\" hash \"$1\" --check /dev/fd/3 3<&0"}) {
    const CommandResult result =
        test::runCommand({"/bin/sh", "-c", script, OKV2_COMMAND, containerOf(dir, "t")});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "t: OK\n");
  }
}

// A list of 2^28 bytes is read, whatever it says; one byte more is not.
TEST(OkvHashCheck, RefusesAListThatIsTooLong) {
  const TempDir dir;
  const std::string sums = dir.write("sums", "");
  std::filesystem::resize_file(sums, std::uintmax_t{1} << 28);
  EXPECT_EQ(okv2Run({"hash", writeFullContainer(dir), "--check", sums}).err,
            "okv2: " + sums + ": not a list of sums\n");
  std::filesystem::resize_file(sums, (std::uintmax_t{1} << 28) + 1);
  const CommandResult result = okv2Run({"hash", writeFullContainer(dir), "--check", sums});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.err, "okv2: " + sums + ": more than 268435456 bytes\n");
}

// Two tensors of 64 bytes in a weights section of 128.
test::BuiltContainer twoTensors() {
  return ContainerBuilder()
      .tensor("a", 1, {32}, std::string(64, 'a'))
      .tensor("b", 1, {32}, std::string(64, 'b'))
      .build();
}
// Fields of a tensor's entry in the index.
constexpr std::uint64_t kDataOffsetField = 104, kSizeField = 112;

// Overlapping tensors would let a small file ask for any amount of work.
TEST(OkvHash, RefusesMoreTensorBytesThanTheWeightsSectionHas) {
  const TempDir dir;
  const test::BuiltContainer whole = twoTensors();
  const std::uint64_t first = whole.indexEntry(0), second = whole.indexEntry(1);
  const test::BuiltContainer full = whole.with(second + kDataOffsetField, test::u64(0));
  EXPECT_EQ(okv2Run({"hash", dir.write("c.okv2", full.bytes)}).exitCode, 0);
  const std::string file = dir.write("c.okv2", full.with(first + kSizeField, test::u64(65)).bytes);
  const Answer answer = okv2Answer({"hash", file});
  EXPECT_EQ(answer.exitCode, 8);
  const std::string message = file + ": the tensors up to 'b' have more bytes than the weights section, 128";
  EXPECT_EQ(answer.document,
            json({{"schema", 1}, {"command", "hash"}, {"exit_code", 8}, {"error", message}}));
  EXPECT_EQ(answer.err, "okv2: " + message + "\n");
}

TEST(OkvHash, RefusesATensorThatLeavesTheWeightsSection) {
  const TempDir dir;
  const test::BuiltContainer whole = twoTensors();
  const std::string file =
      dir.write("c.okv2", whole.with(whole.indexEntry(1) + kDataOffsetField, test::u64(65)).bytes);
  const CommandResult result = okv2Run({"hash", file});
  EXPECT_EQ(result.exitCode, 8);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: " + file + ": tensor 'b' does not lie inside the weights section\n");
}

}  // namespace
}  // namespace zel::tool
