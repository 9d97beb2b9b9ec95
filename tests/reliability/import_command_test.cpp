// The okv2 command leaves nothing or a verified container, whatever happens to it.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/resource.h>
#include <time.h>

#include "container_layout.h"
#include "model_inputs.h"
#include "support/run_command.h"
#include "support/test_conditions.h"

namespace zel {
namespace {

using test::Command;
using test::CommandResult;
using test::ModelDirBuilder;
using test::SafetensorsBuilder;
using test::TempDir;

constexpr int kExitNoOutput = 73;

// Four megabytes in two shards: long enough for a signal to find it at work.
ModelDirBuilder largerModel() {
  const std::string data(std::size_t{1} << 21, 'w');
  ModelDirBuilder builder = test::tokenizerJsonInput();
  for (const char* name : {"a", "b"}) {
    builder.shard(std::string(name) + ".safetensors",
                  SafetensorsBuilder().tensorData(name, "F32", {std::uint64_t{1} << 19}, data));
  }
  return builder;
}

std::vector<std::string> importWords(const std::string& dir, const std::string& out) {
  return {OKV2_COMMAND, "import", "--plugin", OKV2_MODULE, dir, "-o", out};
}

bool verifies(const std::string& container) {
  return test::runCommand({OKV2_COMMAND, "verify", container}).exitCode == 0;
}

std::vector<std::string> namesIn(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir))
    names.push_back(entry.path().filename());
  return names;
}

bool isPendingName(const std::string& name) {
  return name.rfind(".okv2-import-", 0) == 0 && name.size() == std::string(".okv2-import-XXXXXX").size();
}

std::int64_t nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void sleepFor(std::int64_t wait) {
  const timespec pause{wait / 1000000000, wait % 1000000000};
  nanosleep(&pause, nullptr);
}

// Starts an import and sends `signal` at a random moment between its start and shortly after its end.
class InterruptedImports {
 public:
  InterruptedImports() {
    // The shortest of a few: anything longer would let most signals come too late.
    usual_ = std::numeric_limits<std::int64_t>::max();
    for (int k = 0; k < 5; ++k) {
      const std::int64_t begin = nanoseconds();
      EXPECT_EQ(test::runCommand(importWords(dir_, temp_ / ("measure" + std::to_string(k)))).exitCode, 0);
      usual_ = std::min(usual_, nanoseconds() - begin);
    }
  }

  CommandResult interrupt(const std::vector<std::string>& words, int signal) {
    Command command(words);
    sleepFor(std::uniform_int_distribution<std::int64_t>(0, usual_ * 6 / 5)(random_));
    command.send(signal);
    return command.wait();
  }

  [[nodiscard]] const std::string& dir() const { return dir_; }
  [[nodiscard]] const TempDir& temp() const { return temp_; }

 private:
  TempDir temp_;
  std::string dir_ = largerModel().write(temp_);
  std::int64_t usual_ = 0;
  std::mt19937_64 random_{20240501};
};

TEST(KilledImport, LeavesNoOutputOrAVerifiedOneAndRecognisableTemporaryFiles) {
  InterruptedImports imports;
  const std::string folder = imports.temp() / "out";
  int killed = 0;
  int written = 0;
  for (int round = 0; round < test::rounds(60, 200); ++round) {
    SCOPED_TRACE(round);
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    const std::string out = folder + "/model.okv2";
    if (imports.interrupt(importWords(imports.dir(), out), SIGKILL).signal == SIGKILL) ++killed;
    if (std::filesystem::exists(out)) {
      ++written;
      EXPECT_TRUE(verifies(out));
    }
    for (const std::string& name : namesIn(folder))
      EXPECT_TRUE(name == "model.okv2" || isPendingName(name)) << name;
  }
  EXPECT_GT(killed, 0) << "no signal came in time";
  RecordProperty("killed", killed);
  RecordProperty("written", written);
}

TEST(KilledImport, NeverHarmsAnOutputThatItWouldReplace) {
  InterruptedImports imports;
  const std::string out = imports.temp() / "model.okv2";
  const std::string before = "what was there";
  int kept = 0;
  for (int round = 0; round < test::rounds(20, 200); ++round) {
    SCOPED_TRACE(round);
    imports.temp().write("model.okv2", before);
    std::vector<std::string> words = importWords(imports.dir(), out);
    words.push_back("--force");
    (void)imports.interrupt(words, SIGKILL);
    if (test::readWholeFile(out) == before) {
      ++kept;
    } else {
      EXPECT_TRUE(verifies(out));
    }
  }
  EXPECT_GT(kept, 0) << "no signal came in time";
}

TEST(TerminatedImport, LeavesNothingOrAVerifiedContainer) {
  InterruptedImports imports;
  const std::string folder = imports.temp() / "out";
  for (int round = 0; round < test::rounds(20, 200); ++round) {
    SCOPED_TRACE(round);
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    const std::string out = folder + "/model.okv2";
    const int signal = std::vector{SIGTERM, SIGINT, SIGHUP}[std::size_t(round) % 3];
    const CommandResult result = imports.interrupt(importWords(imports.dir(), out), signal);
    EXPECT_TRUE(result.signal == signal || result.exitCode == 0);
    const std::vector<std::string> names = namesIn(folder);
    if (names.empty()) continue;
    EXPECT_EQ(names, std::vector<std::string>{"model.okv2"});
    EXPECT_TRUE(verifies(out));
  }
}

// The limit is inherited by the command; SIGXFSZ takes its default action there unless it looks after it.
class InheritedFileSizeLimit {
 public:
  explicit InheritedFileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    const rlimit limit{bytes, saved_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  InheritedFileSizeLimit(const InheritedFileSizeLimit&) = delete;
  InheritedFileSizeLimit& operator=(const InheritedFileSizeLimit&) = delete;
  ~InheritedFileSizeLimit() { setrlimit(RLIMIT_FSIZE, &saved_); }

 private:
  rlimit saved_{};
};

TEST(ImportOntoAFullDisk, LeavesNothingAndKeepsAnExistingOutput) {
  const TempDir temp;
  const std::string dir = test::shardsInput().write(temp);
  const std::string whole = temp / "whole.okv2";
  ASSERT_EQ(test::runCommand(importWords(dir, whole)).exitCode, 0);
  const std::string good = test::readWholeFile(whole);
  const test::ContainerLayout layout(good);
  // The command's own message needs some room as well, so the first bytes are not worth looking at.
  for (const std::uint64_t bytes : {good.size() - 1, good.size() - 65, good.size() / 2, std::size_t{600}}) {
    for (const bool replaces : {false, true}) {
      SCOPED_TRACE(std::to_string(bytes) + (replaces ? " replacing" : ""));
      const std::string folder = temp / "out";
      std::filesystem::remove_all(folder);
      std::filesystem::create_directory(folder);
      if (replaces) temp.write("out/model.okv2", "what was there");
      std::vector<std::string> words = importWords(dir, folder + "/model.okv2");
      words.push_back("--force");
      const auto result = [&] {
        const InheritedFileSizeLimit limit(bytes);
        return test::runCommand(words);
      }();
      EXPECT_EQ(result.exitCode, 2);
      EXPECT_NE(result.err.find(layout.messageWhenFullAt(bytes)), std::string::npos) << result.err;
      ASSERT_EQ(namesIn(folder).size(), replaces ? 1u : 0u);
      if (replaces) {
        EXPECT_EQ(test::readWholeFile(folder + "/model.okv2"), "what was there");
      }
    }
  }
}

TEST(ImportDestination, MayBeNoFileThatIsReadOnAnyRoad) {
  const TempDir temp;
  const std::string dir = test::tokenizerJsonInput().file("tokenizer.model", "x").write(temp);
  for (const std::string& name : namesIn(dir)) {
    const std::string input = dir + "/" + name;
    const std::string before = test::readWholeFile(input);
    std::filesystem::create_symlink(input, temp / (name + ".soft"));
    std::filesystem::create_hard_link(input, temp / (name + ".hard"));
    for (const std::string& road : {input, temp / (name + ".soft"), temp / (name + ".hard")}) {
      SCOPED_TRACE(road);
      std::vector<std::string> words = importWords(dir, road);
      words.push_back("--force");
      EXPECT_EQ(test::runCommand(words).exitCode, kExitNoOutput);
      EXPECT_EQ(test::readWholeFile(input), before);
    }
  }
}

TEST(ImportDestination, OfAnotherKindThanAFileIsRefusedAndLeftAlone) {
  const TempDir temp;
  const std::string dir = test::shardsInput().write(temp);
  std::filesystem::create_directory(temp / "folder");
  ASSERT_EQ(mkfifo((temp / "fifo").c_str(), 0600), 0);
  for (const std::string& out : {temp / "folder", temp / "fifo", std::string("/dev/full")}) {
    SCOPED_TRACE(out);
    std::vector<std::string> words = importWords(dir, out);
    words.push_back("--force");
    EXPECT_EQ(test::runCommand(words).exitCode, kExitNoOutput);
  }
  EXPECT_TRUE(std::filesystem::is_directory(temp / "folder"));
  EXPECT_TRUE(std::filesystem::is_fifo(temp / "fifo"));
}

}  // namespace
}  // namespace zel
