// list, verify and the command line itself, run as a user runs them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/container_builder.h"
#include "tools/cli.h"

namespace zel::tool {
namespace {

using test::Command;
using test::CommandResult;
using test::fullContainer;
using test::TempDir;
using testing::HasSubstr;
using testing::StartsWith;

// Worked out from the format: metadata 4 + 3 x 12 + 16 + 17 + 20 bytes at 256; tokenizer 4 + 6 + 21 + 8 + 16
// + 11 + 16 + 1 at 384; graph 5 at 512; index 3 x 128 at 576; layout 3 x 32 at 960; chat template 8 + 5 at
// 1088; weights 64 + 64 + 320 at 1152.
constexpr char kListing[] =
    "OKV2 container, 1600 bytes\n"
    "  architecture id 1, hidden size 64, layers 2, vocabulary size 3\n"
    "\n"
    "sections\n"
    "  name                     offset             size\n"
    "  metadata                    256               93\n"
    "  tokenizer                   384               83\n"
    "  graph                       512                5\n"
    "  tensor index                576              384\n"
    "  tensor layout               960               96\n"
    "  chat template              1088               13\n"
    "  weights                    1152              448\n"
    "\n"
    "metadata: 6 items\n"
    "  a.u32                                      u32    7\n"
    "  a.i32                                      i32    -2\n"
    "  a.f32                                      f32    0.5\n"
    "  a.u64                                      u64    4294967298\n"
    "  a.str                                      string \"llama\"\n"
    "  a.arr                                      u32[]  [1, 300]\n"
    "\n"
    "tokenizer: 3 tokens, 1 scores, 3 types, 1 merges\n"
    "  special ids: bos 0, eos 2, unk -1, pad -1; add bos: yes\n"
    "\n"
    "chat template: 5 bytes; in the tokenizer section: 2 bytes\n"
    "\n"
    "tensors: 3\n"
    "  name                                             type   shape                         bytes      file "
    "offset\n"
    "  alpha                                            F32    [2, 3]                           24           "
    "  1152\n"
    "  beta                                             BF16   [5]                              10           "
    "  1216\n"
    "  gamma                                            Q4_K   [256, 2]                        288           "
    "  1280\n";

TEST(OkvList, ShowsEverything) {
  const TempDir dir;
  const CommandResult result = okv2Run({"list", dir.write("c.okv2", fullContainer().build().bytes)});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, kListing);
  EXPECT_EQ(result.err, "");
}

TEST(OkvList, CutsLongTextsAndArraysAndEscapesThem) {
  std::string array = test::u32(9);
  for (std::uint32_t k = 0; k < 9; ++k)
    array += test::u32(k);
  const TempDir dir;
  const std::string bytes = test::ContainerBuilder()
                                .meta("long\n", 4, test::str32("\x1B" + std::string(60, 'x')))
                                .meta("array", 5, array)
                                .tensor("t\x1B", 1, {1}, "xx")
                                .build()
                                .bytes;
  const CommandResult result = okv2Run({"list", dir.write("c.okv2", bytes)});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.out, HasSubstr("long\\n                                     string \"\\x1B" +
                                    std::string(59, 'x') + "...\" (61 bytes)\n"));
  EXPECT_THAT(result.out, HasSubstr("[0, 1, 2, 3, 4, 5, 6, 7, ... 9 values]\n"));
  EXPECT_THAT(result.out, HasSubstr("  t\\x1B  "));
}

TEST(OkvList, SaysNothingOnStdoutAboutADamagedFile) {
  const TempDir dir;
  const std::string file = dir.write("c.okv2", fullContainer().build().with(4, test::u32(3)).bytes);
  const CommandResult result = okv2Run({"list", file});
  EXPECT_EQ(result.exitCode, 8);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: " + file + ": offset 4: container version 3, expected 2\n");
}

// The bytes can be read, but nobody knows whether they are those that were written.
TEST(OkvList, SaysThatTheChecksumIsWrong) {
  const TempDir dir;
  const std::string file = dir.write("c.okv2", fullContainer().build().withUnsealed(24, "\x07").bytes);
  const CommandResult result = okv2Run({"list", file});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "okv2: " + file + ": the header checksum is wrong; see okv2 verify\n");
  EXPECT_NE(result.out, "");
}

TEST(OkvVerify, SaysThatAContainerIsGood) {
  const TempDir dir;
  const std::string file = dir.write("c.okv2", fullContainer().build().bytes);
  const CommandResult result = okv2Run({"verify", file});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, file + ": good, 3 tensors, 1600 bytes\n");
  EXPECT_EQ(result.err, "");
}

TEST(OkvVerify, PrintsOneLineForEveryFinding) {
  const TempDir dir;
  const auto built = fullContainer().build();
  const std::string file = dir.write("c.okv2", built.with(20, "x").with(255, "y").bytes);
  const CommandResult result = okv2Run({"verify", file});
  EXPECT_EQ(result.exitCode, 8);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: " + file + ": offset 20: reserved header field is not zero\n" +
                            "okv2: " + file + ": offset 255: padding after the section table is not zero\n");
}

TEST(OkvVerify, ANoteDoesNotMakeItBad) {
  const TempDir dir;
  const auto built = fullContainer().build();
  const std::string file =
      dir.write("c.okv2", built.with(built.offset[2] + built.size[2] - 17, test::u32(3)).bytes);
  const CommandResult result = okv2Run({"verify", file});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.out, StartsWith(file + ": good"));
  EXPECT_EQ(result.err, "okv2: " + file + ": note: offset " +
                            std::to_string(built.offset[2] + built.size[2] - 17) +
                            ": bos token id 3 is outside the vocabulary of 3 tokens\n");
}

TEST(OkvVerify, CountsTheFindingsThatItDoesNotPrint) {
  test::ContainerBuilder builder;
  for (int k = 0; k < 101; ++k)
    builder.tensor("t", 9, {1}, "xx");
  const TempDir dir;
  const std::string file = dir.write("c.okv2", builder.build().bytes);
  // 101 unknown types and 100 repeated names.
  const CommandResult result = okv2Run({"verify", file});
  EXPECT_EQ(result.exitCode, 8);
  EXPECT_THAT(result.err, HasSubstr("okv2: " + file + ": 101 further findings\n"));
}

class OkvContainerCommand : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Commands, OkvContainerCommand, testing::Values("list", "verify"));

TEST_P(OkvContainerCommand, RefusesAnEmptyFile) {
  const TempDir dir;
  const std::string file = dir.write("c.okv2", "");
  const CommandResult result = okv2Run({GetParam(), file});
  EXPECT_EQ(result.exitCode, 8);
  EXPECT_EQ(result.err, "okv2: " + file + ": offset 0: file of 0 bytes is too small for a container\n");
}

TEST_P(OkvContainerCommand, SaysThatAFileIsMissing) {
  const TempDir dir;
  const CommandResult result = okv2Run({GetParam(), dir / "c.okv2"});
  EXPECT_EQ(result.exitCode, 6);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: cannot read " + dir / "c.okv2" + ": No such file or directory\n");
}

TEST_P(OkvContainerCommand, RefusesADirectory) {
  const TempDir dir;
  const CommandResult result = okv2Run({GetParam(), dir.path()});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.err, "okv2: " + dir.path() + ": not a regular file\n");
}

TEST_P(OkvContainerCommand, RefusesAFifoAtOnce) {
  const TempDir dir;
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  const CommandResult result = okv2Run({GetParam(), dir / "fifo"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.err, "okv2: " + dir / "fifo" + ": not a regular file\n");
}

TEST_P(OkvContainerCommand, NoticesThatStdoutIsFull) {
  const TempDir dir;
  const std::string file = dir.write("c.okv2", fullContainer().build().bytes);
  const CommandResult result = Command({OKV2_COMMAND, GetParam(), file}, "/dev/full").wait();
  EXPECT_EQ(result.exitCode, 74);
  EXPECT_EQ(result.err, "okv2: cannot write standard output: No space left on device\n");
}

// More than a buffer: printing itself notices, and not only the end of the command.
TEST(OkvList, NoticesThatStdoutIsFullWhilePrinting) {
  test::ContainerBuilder builder;
  for (int k = 0; k < 200; ++k)
    builder.tensor("t" + std::to_string(1000 + k), 1, {1}, "xx");
  const TempDir dir;
  const std::string file = dir.write("c.okv2", builder.build().bytes);
  const CommandResult result = Command({OKV2_COMMAND, "list", file}, "/dev/full").wait();
  EXPECT_EQ(result.exitCode, 74);
  EXPECT_EQ(result.err, "okv2: cannot write standard output: No space left on device\n");
}

TEST(OkvCommandLine, NamesItsVersion) {
  const CommandResult result = okv2Run({"--version"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "okv2 " OKV2_VERSION "\n");
  EXPECT_EQ(result.err, "");
}

TEST(OkvCommandLine, HelpNamesEveryCommandAndExitCode) {
  const CommandResult result = okv2Run({"--help"});
  EXPECT_EQ(result.exitCode, 0);
  for (const char* word : {"probe", "inspect", "import", "list", "verify", "sample"}) {
    EXPECT_THAT(result.out, HasSubstr(std::string("\n  ") + word + " "));
  }
  for (const char* code : {" 0", " 1", " 2", " 3", " 6", " 7", " 8", "64", "69", "73", "74"}) {
    EXPECT_THAT(result.out, HasSubstr(std::string("\n  ") + code + "  "));
  }
}

TEST(OkvCommandLine, WrongUsageIsExitCode64AndNothingOnStdout) {
  const std::vector<std::vector<std::string>> lines = {
      {},       {"frobnicate"},       {"import", "/x"},
      {"list"}, {"verify", "a", "b"}, {"sample", "/x", "--arch", "vax"}};
  for (const std::vector<std::string>& line : lines) {
    const CommandResult result = okv2Run(line);
    EXPECT_EQ(result.exitCode, 64) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err, "");
  }
}

}  // namespace
}  // namespace zel::tool
