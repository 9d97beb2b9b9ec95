// Each call into the kernel fails at its n-th time with each error that it can give: the answer is in the
// tables below, worked out from what the call is for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "elf_module.h"
#include "fault_shim.h"
#include "model_inputs.h"
#include "plugin/plugin_host.h"
#include "support/test_conditions.h"

namespace zel {
namespace {

using test::ModelDirBuilder;
using test::SafetensorsBuilder;
using test::TempDir;

// ---- the directories, and the order in which an import goes through them

// Opened in this order: config.json 1, tokenizer.json 2, tokenizer_config.json 3, special_tokens_map.json 4,
// generation_config.json 5, a.safetensors 6, b.safetensors 7, the container 8, both shards again 9 and 10, to
// see whether they have been cut short.
ModelDirBuilder shardsDir() {
  // 262146 bytes: more than one write, and 62 bytes of padding behind them.
  static const std::string kLargeShard =
      SafetensorsBuilder().tensor("lm_head.weight", "F16", {131073}).bytes();
  return test::tokenizerJsonInput()
      .shard("a.safetensors", SafetensorsBuilder()
                                  .tensor("model.norm.weight", "F32", {8})
                                  .tensor("model.embed_tokens.weight", "F32", {2, 8}))
      .file("b.safetensors", kLargeShard);
}

// Opened in this order: config.json 1, tokenizer.json and .model (absent) 2 and 3, the side files (absent)
// 4 to 6, the checkpoint 7, the container 8, the checkpoint again 9.
ModelDirBuilder checkpointDir() { return test::pytorchInput(); }

// Opened in this order: config.json 1, tokenizer.json and .model (absent) 2 and 3, the side files (absent)
// 4 to 6, the shard 7, the container 8, the shard again 9, which the kernel copies the long tensor from.
ModelDirBuilder longTensorDir() {
  return ModelDirBuilder().shard("model.safetensors", SafetensorsBuilder()
                                                          .tensor("lm_head.weight", "F32", {512, 1024})
                                                          .tensor("model.norm.weight", "F32", {8}));
}

enum class Dir { Shards, Checkpoint, LongTensor };

struct Row {
  const char* name;
  Dir dir;
  FaultCall call;
  int nth;
  std::vector<int> errors;
  std::int32_t code;
  const char* message;
  const char* asWithout = "";  // a success that equals the import of a directory without this file
};

const std::vector<int> kOpenErrors = {EACCES, EINTR,        EIO,    ELOOP,   EMFILE,
                                      ENFILE, ENAMETOOLONG, ENOENT, ENOTDIR, ENOMEM};
const std::vector<int> kCreateErrors = {EACCES, EDQUOT, EEXIST, EINTR,  EIO,   EISDIR, ELOOP, EMFILE,
                                        ENFILE, ENOENT, ENOMEM, ENOSPC, ENXIO, EPERM,  EROFS, ETXTBSY};
const std::vector<int> kStatErrors = {EACCES, EIO, ENOMEM, EOVERFLOW};
const std::vector<int> kReadErrors = {EIO, EAGAIN, EISDIR, ESTALE};
const std::vector<int> kMapErrors = {EACCES, EAGAIN, ENFILE, ENODEV, ENOMEM, EPERM, EOVERFLOW};
const std::vector<int> kUnmapErrors = {EINVAL, ENOMEM};
const std::vector<int> kAdviceErrors = {EAGAIN, EBADF, EFAULT, EINVAL, ENOMEM, EPERM};
const std::vector<int> kOpendirErrors = {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR, EIO};
const std::vector<int> kReaddirErrors = {EIO, ENOENT, EOVERFLOW, EBADF};
const std::vector<int> kTruncateErrors = {EFBIG, EINVAL, EIO, EPERM, EROFS, ETXTBSY};
const std::vector<int> kWriteErrors = {EAGAIN, EDQUOT, EFAULT, EFBIG, EIO, ENOSPC, EPERM, EPIPE};
const std::vector<int> kCopyErrors = {EAGAIN, EBADF,  EFAULT, EINVAL,    EIO,   ENOMEM,
                                      ENOSPC, ENOSYS, EPERM,  EOVERFLOW, ESPIPE};
const std::vector<int> kRoomErrors = {EBADF,  EFBIG,  EINTR, EINVAL,     EIO,   ENODEV,
                                      ENOSPC, ENOSYS, EPERM, EOPNOTSUPP, ESPIPE};
const std::vector<int> kSeekErrors = {EINVAL, EIO, EOVERFLOW, ESPIPE};
const std::vector<int> kCloseErrors = {EDQUOT, EINTR, EIO, ENOSPC};
const std::vector<int> kInterrupted = {EINTR};
const std::vector<int> kLeased = {EWOULDBLOCK};

constexpr char kNoConfig[] = "hf: no config.json in directory";
constexpr char kNoOutput[] = "OKV2: cannot open output file";
constexpr char kNoList[] = "convert: cannot open directory";

const Row kRows[] = {
    // Reading the model description: only config.json counts, everything else is as though it were missing.
    {"OpenConfig", Dir::Shards, FAULT_OPEN, 1, kOpenErrors, OKV_INVALID, kNoConfig},
    {"OpenTokenizer", Dir::Shards, FAULT_OPEN, 2, kOpenErrors, OKV_OK, "", "tokenizer.json"},
    {"LeasedConfig", Dir::Shards, FAULT_OPEN, 1, kLeased, OKV_OK, ""},
    {"LeasedTokenizer", Dir::Shards, FAULT_OPEN, 2, kLeased, OKV_OK, ""},
    {"OpenTokenizerConfig", Dir::Shards, FAULT_OPEN, 3, kOpenErrors, OKV_OK, "", "tokenizer_config.json"},
    {"OpenSpecialTokens", Dir::Shards, FAULT_OPEN, 4, kOpenErrors, OKV_OK, "", "special_tokens_map.json"},
    {"OpenGeneration", Dir::Shards, FAULT_OPEN, 5, kOpenErrors, OKV_OK, "", "generation_config.json"},
    {"StatConfig", Dir::Shards, FAULT_FSTAT, 1, kStatErrors, OKV_INVALID, kNoConfig},
    {"StatTokenizer", Dir::Shards, FAULT_FSTAT, 2, kStatErrors, OKV_OK, "", "tokenizer.json"},
    {"StatTokenizerConfig", Dir::Shards, FAULT_FSTAT, 3, kStatErrors, OKV_OK, "", "tokenizer_config.json"},
    {"StatSpecialTokens", Dir::Shards, FAULT_FSTAT, 4, kStatErrors, OKV_OK, "", "special_tokens_map.json"},
    {"StatGeneration", Dir::Shards, FAULT_FSTAT, 5, kStatErrors, OKV_OK, "", "generation_config.json"},
    {"ReadConfig", Dir::Shards, FAULT_READ, 1, kReadErrors, OKV_INVALID, kNoConfig},
    {"ReadTokenizer", Dir::Shards, FAULT_READ, 2, kReadErrors, OKV_OK, "", "tokenizer.json"},
    {"ReadTokenizerConfig", Dir::Shards, FAULT_READ, 3, kReadErrors, OKV_OK, "", "tokenizer_config.json"},
    {"ReadSpecialTokens", Dir::Shards, FAULT_READ, 4, kReadErrors, OKV_OK, "", "special_tokens_map.json"},
    {"ReadGeneration", Dir::Shards, FAULT_READ, 5, kReadErrors, OKV_OK, "", "generation_config.json"},
    {"InterruptedReadConfig", Dir::Shards, FAULT_READ, 1, kInterrupted, OKV_OK, ""},
    {"InterruptedReadTokenizer", Dir::Shards, FAULT_READ, 2, kInterrupted, OKV_OK, ""},
    {"CloseConfig", Dir::Shards, FAULT_CLOSE, 1, kCloseErrors, OKV_OK, ""},
    {"CloseGeneration", Dir::Shards, FAULT_CLOSE, 5, kCloseErrors, OKV_OK, ""},

    // Choosing the weight files: a listing that breaks off is no listing.
    {"Opendir", Dir::Shards, FAULT_OPENDIR, 1, kOpendirErrors, OKV_IO_ERROR, kNoList},
    {"ReaddirFirst", Dir::Shards, FAULT_READDIR, 1, kReaddirErrors, OKV_IO_ERROR, kNoList},
    {"ReaddirMiddle", Dir::Shards, FAULT_READDIR, 5, kReaddirErrors, OKV_IO_ERROR, kNoList},
    {"ReaddirEnd", Dir::Shards, FAULT_READDIR, 10, kReaddirErrors, OKV_IO_ERROR, kNoList},
    {"Closedir", Dir::Shards, FAULT_CLOSEDIR, 1, {EBADF, EINTR}, OKV_OK, ""},
    {"StatCheckpointChoice", Dir::Checkpoint, FAULT_STAT, 1, kStatErrors, OKV_INVALID,
     "convert: HF directory has no safetensors or pytorch_model.bin"},

    // Opening the weight files.
    {"OpenFirstShard", Dir::Shards, FAULT_OPEN, 6, kOpenErrors, OKV_IO_ERROR, "safetensors: open failed"},
    {"LeasedFirstShard", Dir::Shards, FAULT_OPEN, 6, kLeased, OKV_OK, ""},
    {"OpenLastShard", Dir::Shards, FAULT_OPEN, 7, kOpenErrors, OKV_IO_ERROR, "safetensors: open failed"},
    {"StatFirstShard", Dir::Shards, FAULT_FSTAT, 6, kStatErrors, OKV_CORRUPTED,
     "safetensors: file too small"},
    {"StatLastShard", Dir::Shards, FAULT_FSTAT, 7, kStatErrors, OKV_CORRUPTED, "safetensors: file too small"},
    {"MapFirstShard", Dir::Shards, FAULT_MMAP, 1, kMapErrors, OKV_IO_ERROR, "safetensors: mmap failed"},
    {"MapLastShard", Dir::Shards, FAULT_MMAP, 2, kMapErrors, OKV_IO_ERROR, "safetensors: mmap failed"},
    {"CloseFirstShard", Dir::Shards, FAULT_CLOSE, 6, kCloseErrors, OKV_OK, ""},
    {"CloseLastShard", Dir::Shards, FAULT_CLOSE, 7, kCloseErrors, OKV_OK, ""},
    {"OpenCheckpoint", Dir::Checkpoint, FAULT_OPEN, 7, kOpenErrors, OKV_IO_ERROR, "torch: open failed"},
    {"StatCheckpoint", Dir::Checkpoint, FAULT_FSTAT, 2, kStatErrors, OKV_IO_ERROR, "torch: stat failed"},
    {"MapCheckpoint", Dir::Checkpoint, FAULT_MMAP, 1, kMapErrors, OKV_IO_ERROR, "torch: mmap failed"},
    {"UnmapCheckpoint", Dir::Checkpoint, FAULT_MUNMAP, 1, kUnmapErrors, OKV_OK, ""},

    // Writing the container: the text names the first part that could not be written whole. The first write
    // carries all up to 256 KiB, the second the rest of the large tensor, the third begins with its padding.
    {"PopulateFirstPiece", Dir::Shards, FAULT_MADVISE, 1, kAdviceErrors, OKV_OK, ""},
    {"PopulateLastPiece", Dir::Shards, FAULT_MADVISE, 2, kAdviceErrors, OKV_OK, ""},
    {"ReleaseTensor", Dir::Shards, FAULT_MADVISE, 3, kAdviceErrors, OKV_OK, ""},
    {"PopulateShortTensors", Dir::Shards, FAULT_MADVISE, 4, kAdviceErrors, OKV_OK, ""},
    {"OpenContainer", Dir::Shards, FAULT_OPEN, 8, kCreateErrors, OKV_INVALID, kNoOutput},
    {"StatContainer", Dir::Shards, FAULT_FSTAT, 8, kStatErrors, OKV_INVALID, kNoOutput},
    {"WriteHeader", Dir::Shards, FAULT_WRITEV, 1, kWriteErrors, OKV_INVALID, "OKV2: write header failed"},
    {"WriteTensor", Dir::Shards, FAULT_WRITEV, 2, kWriteErrors, OKV_INVALID, "OKV2: write weights failed"},
    {"WriteWeightPadding", Dir::Shards, FAULT_WRITEV, 3, kWriteErrors, OKV_INVALID,
     "OKV2: pad weights failed"},
    {"InterruptedWriteHeader", Dir::Shards, FAULT_WRITEV, 1, kInterrupted, OKV_OK, ""},
    {"InterruptedWriteTensor", Dir::Shards, FAULT_WRITEV, 2, kInterrupted, OKV_OK, ""},
    {"InterruptedWriteRest", Dir::Shards, FAULT_WRITEV, 3, kInterrupted, OKV_OK, ""},
    // A long tensor that cannot be copied from file to file is written from the mapping.
    {"OpenShardAgain", Dir::LongTensor, FAULT_OPEN, 9, kOpenErrors, OKV_OK, ""},
    {"StatShardAgain", Dir::LongTensor, FAULT_FSTAT, 4, kStatErrors, OKV_OK, ""},
    {"MakePipe", Dir::LongTensor, FAULT_PIPE2, 1, {EMFILE, ENFILE, ENOMEM}, OKV_OK, ""},
    {"WidenPipe", Dir::LongTensor, FAULT_FCNTL, 1, {EBUSY, EINVAL, ENOMEM, EPERM}, OKV_OK, ""},
    {"AskForRoom", Dir::LongTensor, FAULT_FALLOCATE, 1, kRoomErrors, OKV_OK, ""},
    {"CopyIntoPipe", Dir::LongTensor, FAULT_SPLICE, 1, kCopyErrors, OKV_OK, ""},
    {"CopyOutOfPipe", Dir::LongTensor, FAULT_SPLICE, 2, kCopyErrors, OKV_OK, ""},
    {"CopyMoreIntoPipe", Dir::LongTensor, FAULT_SPLICE, 3, kCopyErrors, OKV_OK, ""},
    {"CopyMoreOutOfPipe", Dir::LongTensor, FAULT_SPLICE, 4, kCopyErrors, OKV_OK, ""},
    {"InterruptedCopyIntoPipe", Dir::LongTensor, FAULT_SPLICE, 1, kInterrupted, OKV_OK, ""},
    {"InterruptedCopyOutOfPipe", Dir::LongTensor, FAULT_SPLICE, 2, kInterrupted, OKV_OK, ""},
    {"CloseShardAgain", Dir::LongTensor, FAULT_CLOSE, 3, kCloseErrors, OKV_OK, ""},
    {"CloseOnePipeEnd", Dir::LongTensor, FAULT_CLOSE, 5, kCloseErrors, OKV_OK, ""},
    {"CloseOtherPipeEnd", Dir::LongTensor, FAULT_CLOSE, 6, kCloseErrors, OKV_OK, ""},
    // What cannot be known of the shards at the end is no failure.
    {"OpenFirstShardAtTheEnd", Dir::Shards, FAULT_OPEN, 9, kOpenErrors, OKV_OK, ""},
    {"OpenLastShardAtTheEnd", Dir::Shards, FAULT_OPEN, 10, kOpenErrors, OKV_OK, ""},
    {"StatFirstShardAtTheEnd", Dir::Shards, FAULT_FSTAT, 9, kStatErrors, OKV_OK, ""},
    {"StatFirstShardForItsSize", Dir::Shards, FAULT_FSTAT, 10, kStatErrors, OKV_OK, ""},
    {"StatLongTensorsShardForItsSize", Dir::LongTensor, FAULT_FSTAT, 5, kStatErrors, OKV_OK, ""},
    {"CloseFirstShardAtTheEnd", Dir::Shards, FAULT_CLOSE, 8, kCloseErrors, OKV_OK, ""},
    {"CloseLastShardAtTheEnd", Dir::Shards, FAULT_CLOSE, 9, kCloseErrors, OKV_OK, ""},
    {"AskPosition", Dir::Shards, FAULT_LSEEK, 1, kSeekErrors, OKV_INVALID, "OKV2: layout error"},
    {"SeekToStart", Dir::Shards, FAULT_LSEEK, 2, kSeekErrors, OKV_INVALID, "OKV2: patch header failed"},
    {"PatchHeader", Dir::Shards, FAULT_WRITE, 1, kWriteErrors, OKV_INVALID, "OKV2: patch header failed"},
    {"InterruptedPatchHeader", Dir::Shards, FAULT_WRITE, 1, kInterrupted, OKV_OK, ""},
    {"CloseContainer", Dir::Shards, FAULT_CLOSE, 10, kCloseErrors, OKV_INVALID, "OKV2: close failed"},
};

// At one go: unoptimised stream iterators would take most of the time of these tests.
std::string contentOf(const std::string& path) {
  std::string bytes(std::filesystem::file_size(path), '\0');
  std::ifstream(path, std::ios::binary).read(bytes.data(), std::streamsize(bytes.size()));
  return bytes;
}

ModelDirBuilder builderOf(Dir dir) {
  switch (dir) {
    case Dir::Shards: return shardsDir();
    case Dir::Checkpoint: return checkpointDir();
    case Dir::LongTensor: break;
  }
  return longTensorDir();
}

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return std::size_t(std::distance(begin(entries), end(entries)));
}

// Imports under `plan`; no descriptor may stay open.
test::ImportAnswer importUnder(const FaultPlan& plan, const std::string& dir, const std::string& out) {
  (void)test::importer();  // loaded before the faults begin
  const std::size_t descriptors = openDescriptors();
  armFaults(&plan);
  const test::ImportAnswer answer = test::importDir(dir, out);
  disarmFaults();
  EXPECT_EQ(openDescriptors(), descriptors);
  return answer;
}

std::string goodContainer(const std::string& dir, const TempDir& temp) {
  const std::string path = temp / "good.okv2";
  EXPECT_EQ(test::importDir(dir, path).code, OKV_OK);
  return contentOf(path);
}

class SystemCallFaults : public testing::TestWithParam<Row> {};

TEST_P(SystemCallFaults, GiveTheDocumentedAnswerForEveryError) {
  const Row& row = GetParam();
  const TempDir temp;
  const std::string dir = builderOf(row.dir).write(temp);
  const std::string likeDir = builderOf(row.dir).without(row.asWithout).write(temp, "like");
  const std::string expected = row.code == OKV_OK ? goodContainer(likeDir, temp) : "";
  const std::string out = temp / "out.okv2";
  for (const int error : row.errors) {
    SCOPED_TRACE(std::strerror(error));
    std::filesystem::remove(out);
    const test::ImportAnswer answer = importUnder({row.call, row.nth, error, -1, 0}, dir, out);
    ASSERT_GE(faultCallCount(row.call), row.nth) << "the call that was to fail never came";
    EXPECT_EQ(answer.code, row.code);
    EXPECT_EQ(answer.message, row.message);
    if (row.code == OKV_OK) {
      EXPECT_EQ(contentOf(out), expected);
      EXPECT_EQ(answer.fileSize, expected.size());
    } else {
      EXPECT_EQ(answer.tensors, test::kUnwritten);
      EXPECT_EQ(answer.fileSize, test::kUnwritten);
      const bool touched = std::string_view(row.message).substr(0, 5) == "OKV2:";
      EXPECT_TRUE(touched || !std::filesystem::exists(out));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, SystemCallFaults, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

// The numbers in the table above count the calls of these imports; they must not drift.
TEST(SystemCalls, AreAsManyAsTheTableOfFaultsCounts) {
  const TempDir temp;
  const FaultPlan none{FAULT_OPEN, 0, 0, -1, 0};
  const auto expectCounts = [](const std::vector<int>& expected) {
    for (int k = 0; k < FAULT_SPLICE; ++k) {  // how much a splice moves is the kernel's choice
      EXPECT_EQ(faultCallCount(FaultCall(k)), expected[std::size_t(k)]) << kFaultCallNames[k];
    }
  };
  // open fstat stat read mmap munmap madvise opendir readdir closedir ftruncate writev write lseek close
  // fread fseeko pipe2 fcntl fallocate
  ASSERT_EQ(importUnder(none, shardsDir().write(temp, "s"), temp / "s.okv2").code, OKV_OK);
  expectCounts({10, 12, 1, 5, 2, 0, 4, 1, 10, 1, 0, 3, 1, 2, 10, 0, 0, 0, 0, 0});
  ASSERT_EQ(importUnder(none, checkpointDir().write(temp, "c"), temp / "c.okv2").code, OKV_OK);
  expectCounts({9, 5, 2, 1, 1, 1, 1, 1, 5, 1, 0, 1, 1, 2, 4, 0, 0, 0, 0, 0});
  ASSERT_EQ(importUnder(none, longTensorDir().write(temp, "l"), temp / "l.okv2").code, OKV_OK);
  expectCounts({9, 5, 1, 1, 1, 0, 1, 1, 5, 1, 0, 2, 1, 2, 6, 0, 0, 1, 1, 1});
}

TEST(SystemCalls, CopyATensorOfOneMiBFromFileToFileAndNoShorterOne) {
  const TempDir temp;
  const auto copiesOf = [&](std::uint64_t elements) {
    const std::string dir =
        ModelDirBuilder()
            .shard("model.safetensors", SafetensorsBuilder().tensor("model.norm.weight", "F32", {elements}))
            .write(temp);
    EXPECT_EQ(importUnder({FAULT_OPEN, 0, 0, -1, 0}, dir, temp / "out.okv2").code, OKV_OK);
    return faultCallCount(FAULT_SPLICE);
  };
  EXPECT_EQ(copiesOf((1 << 18) - 1), 0);
  EXPECT_GE(copiesOf(1 << 18), 2);  // into the pipe and out of it
}

constexpr std::uint64_t kMiB = 1 << 20;

// A container of somewhat more than the tensor's `bytes`, and what became of its file.
std::uintmax_t sizeOfContainerWith(std::uint64_t bytes, const FaultPlan& plan) {
  const TempDir temp;
  const std::string dir =
      ModelDirBuilder()
          .shard("model.safetensors", SafetensorsBuilder().tensor("model.norm.weight", "F32", {bytes / 4}))
          .write(temp);
  EXPECT_EQ(importUnder(plan, dir, temp / "out.okv2").code, OKV_OK);
  return std::filesystem::file_size(temp / "out.okv2");
}

TEST(SystemCalls, AskForRoomInAContainerOfOneMiBAndInNoShorterOne) {
  const FaultPlan none{FAULT_OPEN, 0, 0, -1, 0};
  const std::uintmax_t around = sizeOfContainerWith(kMiB / 2, none) - kMiB / 2;
  EXPECT_EQ(faultCallCount(FAULT_FALLOCATE), 0);
  EXPECT_EQ(sizeOfContainerWith(kMiB - around - 64, none), kMiB - 64);
  EXPECT_EQ(faultCallCount(FAULT_FALLOCATE), 0);
  EXPECT_EQ(sizeOfContainerWith(kMiB - around, none), kMiB);
  EXPECT_EQ(faultCallCount(FAULT_FALLOCATE), 1);
}

// Ahead of the start, of the first piece beyond 8 MiB, and of the first beyond 17.
TEST(SystemCalls, AskForRoomEightMiBAheadAndNotBeyondTheEnd) {
  const std::uintmax_t size = sizeOfContainerWith(20 * kMiB, {FAULT_OPEN, 0, 0, -1, 0});
  EXPECT_EQ(faultCallCount(FAULT_FALLOCATE), 3);
  EXPECT_EQ(faultRoomEnd(), (long long)size);
}

TEST(SystemCalls, AskForNoMoreRoomWhereThereIsNone) {
  const std::uintmax_t size = sizeOfContainerWith(20 * kMiB, {FAULT_FALLOCATE, 2, ENOSPC, -1, 0});
  EXPECT_EQ(faultCallCount(FAULT_FALLOCATE), 2);
  EXPECT_GT(size, 20 * kMiB);
}

TEST(SystemCalls, WriteALongTensorThatCannotBeCopiedInPiecesOf256KiB) {
  const TempDir temp;
  const std::string dir = ModelDirBuilder()
                              .shard("model.safetensors", test::SafetensorsBuilder().tensor(
                                                              "model.norm.weight", "F32", {1024, 1024}))
                              .write(temp);
  ASSERT_EQ(importUnder({FAULT_SPLICE, 1, EINVAL, -1, 0}, dir, temp / "out.okv2").code, OKV_OK);
  // What lies before the tensor; the first piece, which ends at 256 KiB; 15 more of the 16 that 4 MiB are,
  // and the rest.
  EXPECT_EQ(faultCallCount(FAULT_WRITEV), 1 + 1 + 15 + 1);
}

// 3,000 tensors of 64 bytes in the order of their names.
ModelDirBuilder smallTensorsDir() {
  SafetensorsBuilder tensors;
  for (int k = 1000; k < 4000; ++k)
    tensors.tensor("t" + std::to_string(k), "F32", {16});
  return ModelDirBuilder().shard("model.safetensors", tensors);
}

TEST(SystemCalls, GatherManySmallTensorsIntoEachWrite) {
  const TempDir temp;
  const std::string dir = smallTensorsDir().write(temp);
  ASSERT_EQ(importUnder({FAULT_OPEN, 0, 0, -1, 0}, dir, temp / "out.okv2").code, OKV_OK);
  // The first 256 KB of the index; what follows, up to 1,024 pieces each: the other tables and 3,000 tensors.
  EXPECT_EQ(faultCallCount(FAULT_WRITEV), 4);
}

TEST(SystemCalls, GatherSmallTensorsUpToEachMiBOfTheFile) {
  const TempDir temp;
  SafetensorsBuilder tensors;
  for (int k = 10; k < 28; ++k)
    tensors.tensor("t" + std::to_string(k), "F32", {49984});
  const std::string dir = ModelDirBuilder().shard("model.safetensors", tensors).write(temp);
  ASSERT_EQ(importUnder({FAULT_OPEN, 0, 0, -1, 0}, dir, temp / "out.okv2").code, OKV_OK);
  const std::uintmax_t size = std::filesystem::file_size(temp / "out.okv2");
  EXPECT_EQ(size / kMiB, 3U);
  EXPECT_EQ(faultCallCount(FAULT_WRITEV), 4);  // three, were a MiB counted from where a write begins
}

// One call for 64 KiB of neighbours, not one a tensor: 192,000 bytes lie in three or four such windows.
TEST(SystemCalls, BringInThePagesOfSmallTensorsByWindows) {
  const TempDir temp;
  const std::string dir = smallTensorsDir().write(temp);
  ASSERT_EQ(importUnder({FAULT_OPEN, 0, 0, -1, 0}, dir, temp / "out.okv2").code, OKV_OK);
  EXPECT_GE(faultCallCount(FAULT_MADVISE), 3);
  EXPECT_LE(faultCallCount(FAULT_MADVISE), 4);
}

// The order of names goes through the file eleven times, as "layers.10" comes before "layers.2".
TEST(SystemCalls, BringInAWindowOfSmallTensorsOnceHoweverOftenItIsComeBackTo) {
  const TempDir temp;
  SafetensorsBuilder tensors;
  for (int k = 0; k < 3000; ++k)
    tensors.tensor("t" + std::to_string(1000 + k % 11) + "." + std::to_string(1000 + k), "F32", {16});
  const std::string dir = ModelDirBuilder().shard("model.safetensors", tensors).write(temp);
  ASSERT_EQ(importUnder({FAULT_OPEN, 0, 0, -1, 0}, dir, temp / "out.okv2").code, OKV_OK);
  EXPECT_GE(faultCallCount(FAULT_MADVISE), 3);
  EXPECT_LE(faultCallCount(FAULT_MADVISE), 4);
}

TEST(SystemCalls, ReachEveryErrorRowOfEveryCallThatAnImportMakes) {
  std::set<int> covered = {FAULT_FREAD, FAULT_FSEEKO};  // for tensors in files, which no import has
  for (const Row& row : kRows)
    covered.insert(row.call);
  covered.insert(FAULT_FTRUNCATE);  // the test of existing outputs below
  EXPECT_EQ(covered.size(), std::size_t(FAULT_CALLS));
}

TEST(SystemCalls, FailedTruncationOfAnExistingOutputLeavesItAsItWas) {
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  const std::string out = temp.write("out.okv2", "what was there");
  for (const int error : kTruncateErrors) {
    SCOPED_TRACE(std::strerror(error));
    const test::ImportAnswer answer = importUnder({FAULT_FTRUNCATE, 1, error, -1, 0}, dir, out);
    EXPECT_EQ(faultCallCount(FAULT_FTRUNCATE), 1);
    EXPECT_EQ(answer.code, OKV_INVALID);
    EXPECT_EQ(answer.message, kNoOutput);
    EXPECT_EQ(contentOf(out), "what was there");
  }
}

TEST(SystemCalls, InterruptedTruncationIsTriedAgain) {
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  const std::string out = temp.write("out.okv2", std::string(1 << 20, 'x'));
  EXPECT_EQ(importUnder({FAULT_FTRUNCATE, 1, EINTR, -1, 0}, dir, out).code, OKV_OK);
  EXPECT_EQ(contentOf(out), goodContainer(dir, temp));
}

TEST(SystemCalls, FailedStatAfterTheImportLeavesOnlyTheFileSizeUnwritten) {
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  for (const int error : kStatErrors) {
    const test::ImportAnswer answer = importUnder({FAULT_STAT, 1, error, -1, 0}, dir, temp / "out.okv2");
    EXPECT_EQ(answer.code, OKV_OK);
    EXPECT_EQ(answer.tensors, 3u);
    EXPECT_EQ(answer.fileSize, test::kUnwritten);
  }
}

TEST(SystemCalls, AFailedStatMeansNoMatchToProbe) {
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  (void)test::importer();
  for (const int nth : {1, 2}) {  // the directory, its config.json
    for (const int error : {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}) {
      const FaultPlan plan{FAULT_STAT, nth, error, -1, 0};
      armFaults(&plan);
      const std::uint32_t confidence = test::probeConfidence(dir);
      disarmFaults();
      EXPECT_EQ(confidence, 0u);
      EXPECT_EQ(faultCallCount(FAULT_STAT), nth);
    }
  }
}

TEST(SystemCalls, AnUnreadableConfigIsInvalidToInspect) {
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  (void)test::importer();
  for (const FaultCall call : {FAULT_OPEN, FAULT_FSTAT, FAULT_READ}) {
    const FaultPlan plan{call, 1, EIO, -1, 0};
    armFaults(&plan);
    const test::InspectAnswer answer = test::inspectDir(dir);
    disarmFaults();
    EXPECT_EQ(answer.code, OKV_INVALID);
    EXPECT_EQ(answer.architecture, "invalid");
    EXPECT_EQ(answer.count, "0");
  }
}

// ---- calls that succeed, but in part

TEST(PartialCalls, AShortReadIsContinued) {
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  const std::string expected = goodContainer(dir, temp);
  for (int file = 1; file <= 5; ++file) {
    for (const long bytes : {1L, 7L}) {
      const std::string out = temp / "out.okv2";
      EXPECT_EQ(importUnder({FAULT_READ, file, 0, bytes, 0}, dir, out).code, OKV_OK);
      EXPECT_EQ(faultCallCount(FAULT_READ), 6);
      EXPECT_EQ(contentOf(out), expected);
    }
  }
}

TEST(PartialCalls, AConfigThatEndsEarlyCountsAsUnreadable) {
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  const test::ImportAnswer answer = importUnder({FAULT_READ, 1, 0, 0, 0}, dir, temp / "out.okv2");
  EXPECT_EQ(answer.code, OKV_INVALID);
  EXPECT_EQ(answer.message, kNoConfig);
}

TEST(PartialCalls, AShortWriteIsContinued) {
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  const std::string expected = goodContainer(dir, temp);
  for (int write = 1; write <= 3; ++write) {
    for (const long bytes : {1L, 63L, 64L, 65L, 100L}) {
      const std::string out = temp / "out.okv2";
      EXPECT_EQ(importUnder({FAULT_WRITEV, write, 0, bytes, 0}, dir, out).code, OKV_OK);
      EXPECT_EQ(faultCallCount(FAULT_WRITEV), 4);
      EXPECT_EQ(contentOf(out), expected);
    }
  }
}

TEST(PartialCalls, AShortCopyIsContinued) {
  const TempDir temp;
  const std::string dir = longTensorDir().write(temp);
  const std::string expected = goodContainer(dir, temp);
  for (int call = 1; call <= 4; ++call) {  // into the pipe and out of it by turns
    for (const long bytes : {1L, 4096L, 60'000L}) {
      const std::string out = temp / "out.okv2";
      EXPECT_EQ(importUnder({FAULT_SPLICE, call, 0, bytes, 0}, dir, out).code, OKV_OK);
      EXPECT_GT(faultCallCount(FAULT_SPLICE), call);
      EXPECT_EQ(faultCallCount(FAULT_WRITEV), 2);  // nothing but what lies around the tensor
      EXPECT_TRUE(contentOf(out) == expected);
    }
  }
}

TEST(PartialCalls, ACopyThatBreaksOffIsContinuedFromTheMapping) {
  const TempDir temp;
  const std::string dir = longTensorDir().write(temp);
  const std::string expected = goodContainer(dir, temp);
  for (int call = 1; call <= 4; ++call) {
    for (const long bytes : {0L, 1L, 4096L, 60'000L}) {
      SCOPED_TRACE(std::to_string(call) + ": " + std::to_string(bytes));
      const std::string out = temp / "out.okv2";
      EXPECT_EQ(importUnder({FAULT_SPLICE, call, 0, bytes, EIO}, dir, out).code, OKV_OK);
      EXPECT_EQ(faultCallCount(FAULT_SPLICE), bytes == 0 ? call : call + 1);
      EXPECT_GT(faultCallCount(FAULT_WRITEV), 2);
      EXPECT_TRUE(contentOf(out) == expected);
    }
  }
}

// What has stuck in the pipe must not come before the next long tensor.
TEST(PartialCalls, ACopyThatBreaksOffLeavesNothingBeforeTheNextTensor) {
  const TempDir temp;
  const std::string dir =
      ModelDirBuilder()
          .shard("model.safetensors", SafetensorsBuilder()
                                          .tensor("lm_head.weight", "F32", {512, 1024})
                                          .tensor("model.norm.weight", "F32", {512, 1024}))
          .write(temp);
  const std::string expected = goodContainer(dir, temp);
  const std::string out = temp / "out.okv2";
  EXPECT_EQ(importUnder({FAULT_SPLICE, 2, 0, 4096, EIO}, dir, out).code, OKV_OK);
  // Into the pipe, out of it in part, and no more: the pipe is gone.
  EXPECT_EQ(faultCallCount(FAULT_SPLICE), 3);
  EXPECT_TRUE(contentOf(out) == expected);
}

// Short writes and then none: the message names the part that the missing byte belongs to.
TEST(PartialCalls, AShortWriteBeforeAFullDiskNamesThePartThatIsMissing) {
  struct Case {
    int write;
    long bytes;
    const char* message;
  };
  const Case cases[] = {
      {1, 1, "OKV2: write header failed"},
      {1, 63, "OKV2: write header failed"},
      {1, 64, "OKV2: write section table failed"},
      {1, 231, "OKV2: write section table failed"},
      {1, 232, "OKV2: pad failed"},
      {1, 255, "OKV2: pad failed"},
      {1, 256, "OKV2: write section failed"},
      {1, 262143, "OKV2: write weights failed"},
      {2, 1, "OKV2: write weights failed"},
      {3, 61, "OKV2: pad weights failed"},
      {3, 62, "OKV2: write weights failed"},  // so is that behind 262146 bytes
      {3, 62 + 31, "OKV2: write weights failed"},
      {3, 62 + 32, "OKV2: pad weights failed"},  // output_norm.weight, 32 bytes
      {3, 62 + 64 + 63, "OKV2: write weights failed"},
  };
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  for (const Case& each : cases) {
    SCOPED_TRACE(std::to_string(each.write) + ": " + std::to_string(each.bytes));
    const FaultPlan plan{FAULT_WRITEV, each.write, 0, each.bytes, ENOSPC};
    const test::ImportAnswer answer = importUnder(plan, dir, temp / "out.okv2");
    EXPECT_EQ(answer.code, OKV_INVALID);
    EXPECT_EQ(answer.message, each.message);
  }
}

TEST(PartialCalls, AWriteOfNothingFails) {
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  const test::ImportAnswer answer = importUnder({FAULT_WRITEV, 1, 0, 0, 0}, dir, temp / "out.okv2");
  EXPECT_EQ(answer.message, "OKV2: write header failed");
}

TEST(PartialCalls, AShortPatchOfTheHeaderFails) {
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  for (const long bytes : {0L, 1L, 63L}) {
    const test::ImportAnswer answer = importUnder({FAULT_WRITE, 1, 0, bytes, 0}, dir, temp / "out.okv2");
    EXPECT_EQ(answer.code, OKV_INVALID);
    EXPECT_EQ(answer.message, "OKV2: patch header failed");
  }
}

// The file's position is asked before the header and its table, 232 bytes, are written.
TEST(PartialCalls, APositionThatPutsTheFirstSectionTooFarIsALayoutError) {
  const TempDir temp;
  const std::string dir = shardsDir().write(temp);
  const test::ImportAnswer beyond =
      importUnder({FAULT_LSEEK, 1, 0, 256 - 232 + 1, 0}, dir, temp / "out.okv2");
  EXPECT_EQ(beyond.code, OKV_INVALID);
  EXPECT_EQ(beyond.message, "OKV2: layout error");
  EXPECT_EQ(importUnder({FAULT_LSEEK, 1, 0, 256 - 232, 0}, dir, temp / "out.okv2").message, "");
}

// ---- nothing is left out

TEST(ImportedFunctions, OfFilesAreExactlyThoseThatTheShimMakesFail) {
  if (OKV2_COVERAGE) GTEST_SKIP() << "what counts the coverage calls file functions of its own";
  // What the module may take from the C library beside them: none of it touches a file of the import.
  static constexpr std::string_view kHarmless[] = {
      "memcpy",         "memmove",       "memset",           "memcmp",
      "bcmp",           "memchr",        "strlen",           "free",
      "malloc",         "abort",         "stderr",           "snprintf",
      "__snprintf_chk", "printf",        "fprintf",          "__fprintf_chk",
      "puts",           "putchar",       "__printf_chk",     "__errno_location",
      "fegetenv",       "fesetenv",      "__stack_chk_fail", "__tls_get_addr",
      "__memcpy_chk",   "__memmove_chk", "strcmp",           "fputc",
      "fwrite",         "sysconf",       "nanosleep",        "pthread_setcancelstate"};
  // The language's runtime, and what sanitizers and coverage put in.
  static constexpr std::string_view kRuntime[] = {
      "_Z",       "__cxa_",       "_Unwind_",  "_ITM_",   "__gmon_start__", "__gxx_", "__asan_",
      "__ubsan_", "__sanitizer_", "__sancov_", "__tsan_", "__lsan_",        "__gcov"};
  std::vector<std::string> files;
  for (const std::string& name : test::ElfModule(OKV2_MODULE).imports()) {
    const auto begins = [&](std::string_view prefix) {
      return std::string_view(name).substr(0, prefix.size()) == prefix;
    };
    if (std::any_of(std::begin(kRuntime), std::end(kRuntime), begins)) continue;
    if (std::find(std::begin(kHarmless), std::end(kHarmless), name) != std::end(kHarmless)) continue;
    files.push_back(name);
  }
  EXPECT_THAT(files,
              testing::UnorderedElementsAreArray(std::begin(kFaultCallNames), std::end(kFaultCallNames)));
}

}  // namespace
}  // namespace zel
