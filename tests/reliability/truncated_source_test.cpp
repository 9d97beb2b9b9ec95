// Another process cuts a weight file short while its tensors are being written. Touching the missing part of
// a mapping is a SIGBUS, so no byte of a tensor may pass through this process; the kernel, which copies
// them, then reports a failed write.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include "child_process.h"
#include "model_inputs.h"
#include "plugin/plugin_host.h"
#include "support/test_conditions.h"

namespace zel {
namespace {

using test::SafetensorsBuilder;
using test::TempDir;

constexpr std::uint64_t kTensorBytes = std::uint64_t{4} << 20;
constexpr int kTensors = 4;

std::string shard() {
  SafetensorsBuilder builder;
  for (std::uint64_t k = 0; k < kTensors; ++k)
    builder.tensor("t" + std::to_string(k), "F32", {kTensorBytes / 4});
  return builder.bytes();
}

std::string checkpoint() {
  return test::ZipBuilder()
      .add("data.pkl", test::stateDict({{"t0", {kTensorBytes / 4}, "s"}, {"t1", {kTensorBytes / 4}, "s"}}))
      .add("s", test::patternBytes(kTensorBytes))
      .build();
}

std::string answerText(const test::ImportAnswer& answer) {
  return std::to_string(answer.code) + " " + answer.message;
}

struct Tally {
  int written = 0;
  int failed = 0;
};

// Imports of one weight file, cut short at a random moment after the output has begun to grow.
class CutImports {
 public:
  CutImports(const char* name, const std::string& weights, unsigned seed)
      : weights_(weights),
        dir_(test::ModelDirBuilder().noWeights().file(name, weights).write(temp_)),
        path_(dir_ + "/" + name),
        random_(seed) {
    (void)test::importer();
    EXPECT_EQ(answerText(test::importDir(dir_, out_)), "0 ");
    whole_ = contentOf(out_);
  }

  void round(Tally& tally) {
    std::filesystem::remove(out_);
    writeWeights();
    test::ForkedChild import([&] { return answerText(test::importDir(dir_, out_)); });
    const std::uint64_t until = upTo(256, weights_.size() / 2);
    // As often by less than a page as by more.
    const std::uint64_t cut =
        upTo(0, 1) == 0 ? upTo(0, weights_.size() / 2) : weights_.size() - upTo(1, 4095);
    struct stat info {};
    while ((stat(out_.c_str(), &info) != 0 || std::uint64_t(info.st_size) < until) && !import.ended())
      sched_yield();
    ASSERT_EQ(truncate(path_.c_str(), off_t(cut)), 0);
    const test::ChildResult result = import.wait();
    EXPECT_EQ(result.signal, 0) << "ended by " << strsignal(result.signal);
    if (result.text == "0 ") {
      EXPECT_TRUE(contentOf(out_) == whole_) << "an import of " << cut << " bytes";
      ++tally.written;
    } else {
      EXPECT_EQ(result.text, "2 OKV2: write weights failed");
      ++tally.failed;
    }
  }

 private:
  static std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void writeWeights() const {
    std::ofstream file(path_, std::ios::binary);
    file << weights_;
    ASSERT_TRUE(file.flush());
  }
  std::uint64_t upTo(std::uint64_t least, std::uint64_t most) {
    return std::uniform_int_distribution<std::uint64_t>(least, most)(random_);
  }

  const TempDir temp_;
  const std::string weights_;
  const std::string dir_;
  const std::string path_;
  const std::string out_ = temp_ / "out.okv2";
  std::string whole_;
  std::mt19937_64 random_;
};

TEST(TruncatedSource, OfSafetensorsEndsWithAFailedWriteAndNeverWithASignal) {
  CutImports imports("model.safetensors", shard(), 7);
  Tally tally;
  for (int round = 0; round < test::rounds(40, 500) && !HasFatalFailure(); ++round) {
    SCOPED_TRACE(round);
    imports.round(tally);
  }
  EXPECT_GT(tally.failed, 0) << "every import was faster than the truncation";
  RecordProperty("written", tally.written);
  RecordProperty("failed", tally.failed);
}

TEST(TruncatedSource, OfACheckpointEndsWithAFailedWriteAndNeverWithASignal) {
  CutImports imports("pytorch_model.bin", checkpoint(), 8);
  Tally tally;
  for (int round = 0; round < test::rounds(15, 500) && !HasFatalFailure(); ++round) {
    SCOPED_TRACE(round);
    imports.round(tally);
  }
  EXPECT_GT(tally.failed, 0) << "every import was faster than the truncation";
  RecordProperty("written", tally.written);
  RecordProperty("failed", tally.failed);
}

}  // namespace
}  // namespace zel
