// Full disks and odd destinations, through the loaded module.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "container_layout.h"
#include "model_inputs.h"
#include "plugin/plugin_host.h"

namespace zel {
namespace {

using test::importDir;
using test::TempDir;

constexpr char kNoOutput[] = "OKV2: cannot open output file";

void expectRefused(const test::ImportAnswer& answer, const char* message) {
  EXPECT_EQ(answer.code, OKV_INVALID);
  EXPECT_EQ(answer.message, message);
  EXPECT_EQ(answer.tensors, test::kUnwritten);
  EXPECT_EQ(answer.fileSize, test::kUnwritten);
}

// No file may grow beyond `bytes`: writing there fails as it does on a full disk.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    savedAction_ = std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &saved_);
    const rlimit limit{bytes, saved_.rlim_max};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) throw std::runtime_error("setrlimit failed");
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, savedAction_);
  }

 private:
  rlimit saved_{};
  void (*savedAction_)(int);
};

// The rights of a user who owns nothing, for as long as it lives.
class Unprivileged {
 public:
  Unprivileged() {
    if (geteuid() == 0 && seteuid(kNobody) != 0) throw std::runtime_error("seteuid failed");
  }
  Unprivileged(const Unprivileged&) = delete;
  Unprivileged& operator=(const Unprivileged&) = delete;
  ~Unprivileged() {
    if (getuid() == 0 && seteuid(0) != 0) std::abort();
  }

 private:
  static constexpr uid_t kNobody = 65534;
};

class FullDisk : public testing::TestWithParam<test::NamedInput> {};

TEST_P(FullDisk, NamesThePartThatTheFirstMissingByteBelongsToAtEveryByte) {
  const TempDir temp;
  const std::string dir = GetParam().builder().write(temp);
  const std::string out = temp / "out.okv2";
  ASSERT_EQ(importDir(dir, out).code, OKV_OK);
  const std::string good = test::readWholeFile(out);
  const test::ContainerLayout layout(good);
  for (std::uint64_t bytes = 0; bytes <= good.size() + 1; ++bytes) {
    SCOPED_TRACE(bytes);
    std::filesystem::remove(out);
    const auto answer = [&] {
      const FileSizeLimit limit(bytes);
      return importDir(dir, out);
    }();
    const std::string expected = layout.messageWhenFullAt(bytes);
    EXPECT_EQ(answer.message, expected);
    EXPECT_EQ(answer.code, expected.empty() ? OKV_OK : OKV_INVALID);
    // What was written stays; only the checksum of the header comes last.
    const std::string left = test::readWholeFile(out);
    EXPECT_EQ(left.size(), std::min<std::uint64_t>(bytes, good.size()));
    EXPECT_EQ(left.substr(0, 56), good.substr(0, std::min<std::uint64_t>(bytes, 56)));
    EXPECT_EQ(left.size() > 64 ? left.substr(64) : "", bytes > 64 ? good.substr(64, bytes - 64) : "");
    if (HasFailure()) break;
  }
}

INSTANTIATE_TEST_SUITE_P(Inputs, FullDisk,
                         testing::Values(test::kInputs[0], test::kInputs[1], test::kInputs[2]),
                         [](const auto& row) { return std::string(row.param.name); });

// From 1 MiB on the kernel copies a tensor from file to file, and stops where the disk is full.
TEST(FullDiskBelowALongTensor, NamesTheWeightsAndKeepsWhatFits) {
  constexpr std::uint64_t kTensorBytes = std::uint64_t{3} << 20;
  const TempDir temp;
  const std::string dir = test::ModelDirBuilder()
                              .shard("model.safetensors", test::SafetensorsBuilder().tensor(
                                                              "model.norm.weight", "F32", {kTensorBytes / 4}))
                              .write(temp);
  const std::string out = temp / "out.okv2";
  ASSERT_EQ(importDir(dir, out).code, OKV_OK);
  const std::string good = test::readWholeFile(out);
  const std::uint64_t begin = good.size() - kTensorBytes;
  for (const std::uint64_t bytes : {begin, begin + 1, begin + 4096, begin + (1 << 20) + 3, good.size() - 1}) {
    SCOPED_TRACE(bytes);
    std::filesystem::remove(out);
    {
      const FileSizeLimit limit(bytes);
      expectRefused(importDir(dir, out), "OKV2: write weights failed");
    }
    const std::string left = test::readWholeFile(out);
    EXPECT_EQ(left.size(), bytes);
    EXPECT_TRUE(left.compare(64, bytes - 64, good, 64, bytes - 64) == 0);
  }
}

TEST(FullDevice, FailsAtTheHeader) {
  const TempDir temp;
  expectRefused(importDir(test::shardsInput().write(temp), "/dev/full"), "OKV2: write header failed");
}

TEST(Destination, ADirectoryIsRefused) {
  const TempDir temp;
  const std::string dir = test::shardsInput().write(temp);
  std::filesystem::create_directory(temp / "folder");
  expectRefused(importDir(dir, temp / "folder"), kNoOutput);
  expectRefused(importDir(dir, dir), kNoOutput);
}

TEST(Destination, AFifoThatNobodyReadsIsRefusedAtOnce) {
  const TempDir temp;
  const std::string dir = test::shardsInput().write(temp);
  ASSERT_EQ(mkfifo((temp / "fifo").c_str(), 0600), 0);
  expectRefused(importDir(dir, temp / "fifo"), kNoOutput);
}

TEST(Destination, AFifoThatIsReadHasNoPositionAndSoNoLayout) {
  const TempDir temp;
  const std::string dir = test::shardsInput().write(temp);
  ASSERT_EQ(mkfifo((temp / "fifo").c_str(), 0600), 0);
  const int reader = open((temp / "fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  expectRefused(importDir(dir, temp / "fifo"), "OKV2: layout error");
  close(reader);
}

TEST(Destination, AReadOnlyFileIsRefusedAndLeftAsItWas) {
  const TempDir temp;
  std::filesystem::permissions(temp.path(), std::filesystem::perms(0755));
  const std::string dir = test::shardsInput().write(temp);
  const std::string out = temp.write("out.okv2", "what was there");
  std::filesystem::permissions(out, std::filesystem::perms(0444));
  (void)test::importer();
  const auto answer = [&] {
    const Unprivileged nobody;
    return importDir(dir, out);
  }();
  expectRefused(answer, kNoOutput);
  EXPECT_EQ(test::readWholeFile(out), "what was there");
}

TEST(Destination, AFolderWithoutWriteRightsIsRefused) {
  const TempDir temp;
  const std::string dir = test::shardsInput().write(temp);
  std::filesystem::create_directory(temp / "sealed");
  std::filesystem::permissions(temp / "sealed", std::filesystem::perms(0555));
  std::filesystem::permissions(temp.path(), std::filesystem::perms(0755));
  (void)test::importer();
  const auto answer = [&] {
    const Unprivileged nobody;
    return importDir(dir, temp / "sealed/out.okv2");
  }();
  expectRefused(answer, kNoOutput);
  EXPECT_TRUE(std::filesystem::is_empty(temp / "sealed"));
}

TEST(Destination, AFileSystemWithoutFilesIsRefused) {
  const TempDir temp;
  expectRefused(importDir(test::shardsInput().write(temp), "/proc/out.okv2"), kNoOutput);
}

TEST(Destination, ADanglingLinkIsFollowedAndItsTargetCreated) {
  const TempDir temp;
  const std::string dir = test::shardsInput().write(temp);
  std::filesystem::create_symlink("target.okv2", temp / "link.okv2");
  EXPECT_EQ(importDir(dir, temp / "link.okv2").code, OKV_OK);
  EXPECT_TRUE(std::filesystem::is_symlink(temp / "link.okv2"));
  EXPECT_EQ(importDir(dir, temp / "other.okv2").code, OKV_OK);
  EXPECT_EQ(test::readWholeFile(temp / "target.okv2"), test::readWholeFile(temp / "other.okv2"));
}

TEST(Destination, ADanglingLinkIntoNowhereIsRefused) {
  const TempDir temp;
  const std::string dir = test::shardsInput().write(temp);
  std::filesystem::create_symlink("no/such/folder", temp / "link.okv2");
  expectRefused(importDir(dir, temp / "link.okv2"), kNoOutput);
}

// Every road to a weight file: its own path, a symbolic link, a hard link.
TEST(Destination, AWeightFileOfTheImportIsRefusedOnEveryRoadAndLeftAsItWas) {
  struct Case {
    test::NamedInput input;
    const char* weights;
  };
  for (const Case& each : {Case{test::kInputs[0], "model-00001-of-00002.safetensors"},
                           Case{test::kInputs[0], "model-00002-of-00002.safetensors"},
                           Case{test::kInputs[1], "pytorch_model.bin"}}) {
    SCOPED_TRACE(each.weights);
    const TempDir temp;
    const std::string dir = each.input.builder().write(temp);
    const std::string weights = dir + "/" + each.weights;
    const std::string before = test::readWholeFile(weights);
    std::filesystem::create_symlink(weights, temp / "soft");
    std::filesystem::create_hard_link(weights, temp / "hard");
    for (const std::string& road :
         {weights, temp / "soft", temp / "hard", dir + "/../model/" + each.weights}) {
      SCOPED_TRACE(road);
      expectRefused(importDir(dir, road), kNoOutput);
      EXPECT_EQ(test::readWholeFile(weights), before);
    }
  }
}

}  // namespace
}  // namespace zel
