// Commands that write files, when a signal ends them or nobody listens to what they say.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/model_dir_builder.h"
#include "tools/cli.h"

namespace zel::tool {
namespace {

using test::Command;
using test::CommandResult;
using test::ModelDirBuilder;
using test::SafetensorsBuilder;
using test::TempDir;
using testing::ElementsAre;

// The writing end of a pipe that nobody reads.
class BrokenPipe {
 public:
  BrokenPipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    ::close(ends[0]);
    end_ = ends[1];
  }
  BrokenPipe(const BrokenPipe&) = delete;
  BrokenPipe& operator=(const BrokenPipe&) = delete;
  ~BrokenPipe() { ::close(end_); }
  [[nodiscard]] int end() const { return end_; }

 private:
  int end_ = -1;
};

CommandResult runUnheard(std::vector<std::string> words) {
  words.insert(words.begin(), OKV2_COMMAND);
  const BrokenPipe pipe;
  return Command(words, "", pipe.end()).wait();
}

TEST(OkvImportUnheard, WritesTheContainer) {
  const TempDir dir;
  const std::string model = sampleModel(dir, {"--shards", "3"}), file = dir / "c.okv2";
  EXPECT_EQ(runUnheard({"import", model, "-o", file}).exitCode, 0);
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("c.okv2", "model"));
  EXPECT_EQ(okv2Run({"verify", file, "--against", model}).exitCode, 0);
}

TEST(OkvImportUnheard, PreparesAndWritesTheContainer) {
  const TempDir dir;
  // Merges as pairs are one change to tell.
  const std::string model =
      ModelDirBuilder()
          .tokenizer(R"({"model":{"type":"BPE","vocab":{"a":0,"b":1,"ab":2},"merges":[["a","b"]]}})")
          .write(dir);
  EXPECT_EQ(runUnheard({"import", "--prepare", model, "-o", dir / "c.okv2"}).exitCode, 0);
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("c.okv2", "model"));
}

TEST(OkvImportUnheard, FailsWithItsCodeAndItsReport) {
  const TempDir dir;
  const std::string model = ModelDirBuilder().noWeights().write(dir);
  EXPECT_EQ(runUnheard({"import", model, "-o", dir / "c.okv2", "--report", dir / "r.json"}).exitCode, 2);
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("model", "r.json"));
}

TEST(OkvPrepareUnheard, FailsWithItsCodeAndLeavesNothing) {
  const TempDir dir;
  const std::string model = ModelDirBuilder().noWeights().write(dir);
  const int heard = okv2Run({"prepare", model, dir / "out"}).exitCode;
  EXPECT_EQ(heard, 2);
  EXPECT_EQ(runUnheard({"prepare", model, dir / "out"}).exitCode, heard);
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("model"));
}

TEST(OkvImport, SucceedsWhenWhatItSaysCannotBeWritten) {
  const TempDir dir;
  const std::string model = sampleModel(dir), file = dir / "c.okv2";
  const CommandResult result = test::runCommand(
      {"/bin/sh", "-c", "exec \"$0\" import \"$1\" -o \"$2\" 2>/dev/full", OKV2_COMMAND, model, file});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(okv2Run({"verify", file}).exitCode, 0);
}

// Started without a standard error: what would have gone there goes into no file that was opened instead.
TEST(OkvImport, KeepsTheContainerWholeWithoutAStandardError) {
  const TempDir dir;
  const std::string model = sampleModel(dir, {"--shards", "3"}), file = dir / "c.okv2";
  const CommandResult result = test::runCommand(
      {"/bin/sh", "-c", "exec \"$0\" import \"$1\" -o \"$2\" <&- >&- 2>&-", OKV2_COMMAND, model, file});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(okv2Run({"verify", file, "--against", model}).exitCode, 0);
}

// A gigabyte of weights without a block on the disk: time enough for a signal.
std::string slowModel(const TempDir& dir) {
  constexpr std::uint64_t kBytes = std::uint64_t{1} << 30;
  const std::string model =
      ModelDirBuilder()
          .shard("model.safetensors", SafetensorsBuilder().tensor("t", "F32", {kBytes / 4}, {0, kBytes}))
          .write(dir);
  const std::string weights = model + "/model.safetensors";
  std::filesystem::resize_file(weights, std::filesystem::file_size(weights) + kBytes);
  return model;
}

// True when a name that begins so appears in the directory before the time is up.
bool waitForName(const std::string& directory, const std::string& beginning) {
  for (int k = 0; k < 20000; ++k) {
    for (const std::string& name : namesIn(directory)) {
      if (name.rfind(beginning, 0) == 0) return true;
    }
    const timespec pause{0, 500000};
    ::nanosleep(&pause, nullptr);
  }
  return false;
}

class OkvImportEndedBy : public testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    const rlimit none{0, 0};  // some of the signals write a core file otherwise
    ::setrlimit(RLIMIT_CORE, &none);
  }
  void expectNothingLeft(const std::vector<std::string>& words, const std::string& pending) {
    Command command(words);
    ASSERT_TRUE(waitForName(dir_.path(), pending));
    command.send(GetParam());
    const CommandResult result = command.wait();
    EXPECT_EQ(result.signal, GetParam()) << result.exitCode << result.err;
    EXPECT_THAT(namesIn(dir_.path()), ElementsAre("model"));
  }

  TempDir dir_;
};

TEST_P(OkvImportEndedBy, LeavesNothing) {
  expectNothingLeft({OKV2_COMMAND, "import", slowModel(dir_), "-o", dir_ / "c.okv2"}, ".okv2-import-");
}

TEST_P(OkvImportEndedBy, LeavesNoPreparedDirectory) {
  expectNothingLeft({OKV2_COMMAND, "import", "--prepare", slowModel(dir_), "-o", dir_ / "c.okv2"},
                    ".okv2-prepare-");
}

INSTANTIATE_TEST_SUITE_P(Signals, OkvImportEndedBy,
                         testing::Values(SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGXCPU,
                                         SIGALRM),
                         [](const auto& signal) { return std::string(::sigabbrev_np(signal.param)); });

}  // namespace
}  // namespace zel::tool
