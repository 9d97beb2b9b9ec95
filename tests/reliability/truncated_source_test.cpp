// Another process cuts a weight file short while its tensors are being written. Touching the missing part of
// a mapping is a SIGBUS, so no byte of a tensor may pass through this process; the kernel, which copies
// them, then reports a failed write.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
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

constexpr std::uint64_t kTensorBytes = std::uint64_t{8} << 20;
constexpr int kTensors = 4;

// The data region is a hole: quick to make, and as long to copy as any other.
std::string sparseShard() {
  SafetensorsBuilder builder;
  for (std::uint64_t k = 0; k < kTensors; ++k) {
    builder.tensor("t" + std::to_string(k), "F32", {kTensorBytes / 4},
                   SafetensorsBuilder::Offsets{k * kTensorBytes, (k + 1) * kTensorBytes});
  }
  return builder.bytes();
}

std::string sparseCheckpoint() {
  return test::ZipBuilder()
      .add("data.pkl", test::stateDict({{"t0", {kTensorBytes / 4}, "s"}, {"t1", {kTensorBytes / 4}, "s"}}))
      .add("s", std::string(kTensorBytes, '\0'))
      .build();
}

std::string answerText(const test::ImportAnswer& answer) {
  return std::to_string(answer.code) + " " + answer.message;
}

struct Tally {
  int written = 0;
  int failed = 0;
};

// One import, cut short at a random moment after its output has begun to grow.
void truncateDuringImport(const std::string& dir, const std::string& weights, const std::string& out,
                          std::mt19937_64& random, Tally& tally) {
  std::filesystem::remove(out);
  test::ForkedChild import([&] { return answerText(test::importDir(dir, out)); });
  const std::uint64_t whole = std::filesystem::file_size(weights);
  const std::uint64_t until = std::uniform_int_distribution<std::uint64_t>(256, whole / 2)(random);
  const std::uint64_t cut = std::uniform_int_distribution<std::uint64_t>(0, whole / 2)(random);
  struct stat info {};
  while ((stat(out.c_str(), &info) != 0 || std::uint64_t(info.st_size) < until) && !import.ended())
    sched_yield();
  ASSERT_EQ(truncate(weights.c_str(), off_t(cut)), 0);
  const test::ChildResult result = import.wait();
  EXPECT_EQ(result.signal, 0) << "ended by " << strsignal(result.signal);
  if (result.text == "0 ") {
    ++tally.written;
  } else {
    EXPECT_EQ(result.text, "2 OKV2: write weights failed");
    ++tally.failed;
  }
}

TEST(TruncatedSource, OfSafetensorsEndsWithAFailedWriteAndNeverWithASignal) {
  const TempDir temp;
  const std::string header = sparseShard();
  const std::string dir = test::ModelDirBuilder().noWeights().file("model.safetensors", header).write(temp);
  const std::string weights = dir + "/model.safetensors";
  (void)test::importer();
  std::mt19937_64 random(7);
  Tally tally;
  for (int round = 0; round < test::rounds(40, 500) && !HasFatalFailure(); ++round) {
    SCOPED_TRACE(round);
    temp.write("model/model.safetensors", header);
    ASSERT_EQ(truncate(weights.c_str(), off_t(header.size() + kTensors * kTensorBytes)), 0);
    truncateDuringImport(dir, weights, temp / "out.okv2", random, tally);
  }
  EXPECT_GT(tally.failed, 0) << "every import was faster than the truncation";
  RecordProperty("written", tally.written);
  RecordProperty("failed", tally.failed);
}

TEST(TruncatedSource, OfACheckpointEndsWithAFailedWriteAndNeverWithASignal) {
  const TempDir temp;
  const std::string checkpoint = sparseCheckpoint();
  const std::string dir = test::ModelDirBuilder().noWeights().file("pytorch_model.bin", "").write(temp);
  const std::string weights = dir + "/pytorch_model.bin";
  (void)test::importer();
  std::mt19937_64 random(8);
  Tally tally;
  for (int round = 0; round < test::rounds(15, 500) && !HasFatalFailure(); ++round) {
    SCOPED_TRACE(round);
    temp.write("model/pytorch_model.bin", checkpoint);
    truncateDuringImport(dir, weights, temp / "out.okv2", random, tally);
  }
  EXPECT_GT(tally.failed, 0) << "every import was faster than the truncation";
  RecordProperty("written", tally.written);
  RecordProperty("failed", tally.failed);
}

}  // namespace
}  // namespace zel
