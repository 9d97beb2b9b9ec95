// Tensors whose data are read from a stream while the container is written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include <stdio.h>
#include <unistd.h>

#include "container/bytes.h"
#include "writer_fixture.h"

namespace zel {
namespace {

using test::containerOf;
using test::File;
using test::IsOk;
using test::StatusIs;
using test::TempDir;

constexpr std::uint64_t kOneExtent[] = {1};

std::string weights(const std::string& file) { return file.substr(loadU64(file.data() + 64 + 24 * 4 + 8)); }

std::string patterned(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t k = 0; k < size; ++k)
    bytes[k] = char(k * 7 + k / 4096);
  return bytes;
}

class OKV2WriterFileSource : public testing::Test {
 protected:
  File open(const std::string& bytes) { return File(std::fopen(dir.write("source", bytes).c_str(), "rb")); }

  Status writeOne(std::FILE* file, std::uint64_t offset, std::uint64_t size) {
    OKV2Writer writer;
    test::addOk(writer.addTensorFrom(file, "w", 0, kOneExtent, 1, offset, size));
    return writer.write(out.c_str());
  }

  TempDir dir;
  std::string out = dir / "out";
};

TEST_F(OKV2WriterFileSource, GivesTheBytesAtItsOffset) {
  const File source = open("0123456789");
  ASSERT_THAT(writeOne(source.get(), 3, 4), IsOk());
  EXPECT_EQ(weights(test::readWholeFile(out)), "3456" + std::string(60, '\0'));
}

TEST_F(OKV2WriterFileSource, MayEndExactlyAtTheEndOfTheFile) {
  const File source = open("0123456789");
  ASSERT_THAT(writeOne(source.get(), 9, 1), IsOk());
  EXPECT_EQ(weights(test::readWholeFile(out)), "9" + std::string(63, '\0'));
}

TEST_F(OKV2WriterFileSource, ThatEndsOneByteEarlyCannotBeRead) {
  const File source = open("0123456789");
  EXPECT_THAT(writeOne(source.get(), 9, 2), StatusIs(Code::InvalidFormat, "OKV2: read source failed"));
}

TEST_F(OKV2WriterFileSource, ThatBeginsBehindTheEndCannotBeRead) {
  const File source = open("0123456789");
  EXPECT_THAT(writeOne(source.get(), 1000, 1), StatusIs(Code::InvalidFormat, "OKV2: read source failed"));
}

TEST_F(OKV2WriterFileSource, OpenedOnlyForWritingCannotBeRead) {
  const File source(std::fopen((dir / "source").c_str(), "wb"));
  EXPECT_THAT(writeOne(source.get(), 0, 1), StatusIs(Code::InvalidFormat, "OKV2: read source failed"));
}

TEST_F(OKV2WriterFileSource, OfAPipeCannotBeSought) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const File writeEnd(fdopen(ends[1], "wb"));
  const File source(fdopen(ends[0], "rb"));
  EXPECT_THAT(writeOne(source.get(), 0, 1), StatusIs(Code::InvalidFormat, "OKV2: seek source failed"));
}

TEST_F(OKV2WriterFileSource, WithAnOffsetBeyondTheLargestFilePositionCannotBeSought) {
  const File source = open("0123456789");
  EXPECT_THAT(writeOne(source.get(), std::uint64_t{1} << 63, 1),
              StatusIs(Code::InvalidFormat, "OKV2: seek source failed"));
}

TEST_F(OKV2WriterFileSource, LeavesTheBytesBeforeItOnDiskWhenItFails) {
  const File source = open("0123456789");
  OKV2Writer writer;
  test::addBytes(writer, "a", "whole");
  test::addOk(writer.addTensorFrom(source.get(), "b", 0, kOneExtent, 1, 5, 6));
  ASSERT_THAT(writer.write(out.c_str()), StatusIs(Code::InvalidFormat, "OKV2: read source failed"));
  const std::string left = test::readWholeFile(out);
  EXPECT_EQ(left.substr(0, 4), "OKV2");
  EXPECT_EQ(left.substr(56, 8), std::string(8, '\0'))
      << "the checksum is missing: this is no whole container";
  EXPECT_EQ(weights(left), "whole" + std::string(59, '\0'));
}

// The data pass through a buffer of 1 MiB.
TEST_F(OKV2WriterFileSource, OfMoreThanOneBufferArrivesWhole) {
  for (const std::size_t size : {1048575U, 1048576U, 1048577U, 2097152U, 2097157U}) {
    const std::string bytes = patterned(size);
    const File source = open("skip me" + bytes);
    ASSERT_THAT(writeOne(source.get(), 7, size), IsOk());
    EXPECT_TRUE(weights(test::readWholeFile(out)) == bytes + std::string((64 - size % 64) % 64, '\0'))
        << size;
  }
}

TEST_F(OKV2WriterFileSource, ThatEndsInItsSecondBufferCannotBeRead) {
  const File source = open(patterned(1048577));
  EXPECT_THAT(writeOne(source.get(), 0, 1048578), StatusIs(Code::InvalidFormat, "OKV2: read source failed"));
  EXPECT_EQ(std::filesystem::file_size(out), 640U + 1048576U) << "the first buffer is there";
}

TEST_F(OKV2WriterFileSource, IsReadAgainByTheNextWrite) {
  const std::string path = dir.write("source", "before");
  const File source(std::fopen(path.c_str(), "rb"));
  setvbuf(source.get(), nullptr, _IONBF, 0);
  OKV2Writer writer;
  test::addOk(writer.addTensorFrom(source.get(), "w", 0, kOneExtent, 1, 0, 6));
  EXPECT_EQ(weights(containerOf(writer)).substr(0, 6), "before");
  dir.write("source", "after!");
  EXPECT_EQ(weights(containerOf(writer)).substr(0, 6), "after!");
}

TEST_F(OKV2WriterFileSource, MayServeManyTensorsInAnyOrder) {
  const File source = open("aabbbbcc");
  OKV2Writer writer;
  test::addOk(writer.addTensorFrom(source.get(), "c", 0, kOneExtent, 1, 6, 2));
  test::addOk(writer.addTensorFrom(source.get(), "a", 0, kOneExtent, 1, 0, 2));
  test::addOk(writer.addTensorFrom(source.get(), "b", 0, kOneExtent, 1, 2, 4));
  const std::string data = weights(containerOf(writer));
  EXPECT_EQ(data.substr(0, 2) + data.substr(64, 4) + data.substr(128, 2), "aabbbbcc");
}

TEST_F(OKV2WriterFileSource, MixesWithCopiedAndBorrowedTensors) {
  const File source = open("from the file");
  const std::string memory = "from memory";
  OKV2Writer writer;
  test::addOk(writer.addTensorFromMem(memory.data(), "c", 0, kOneExtent, 1, memory.size()));
  test::addOk(writer.addTensorFrom(source.get(), "b", 0, kOneExtent, 1, 0, 13));
  test::addBytes(writer, "a", "copied");
  const std::string data = weights(containerOf(writer));
  EXPECT_EQ(data, "copied" + std::string(58, '\0') + "from the file" + std::string(51, '\0') + "from memory" +
                      std::string(53, '\0'));
}

TEST_F(OKV2WriterFileSource, IsNotClosedByTheWriter) {
  const File source = open("0123456789");
  ASSERT_THAT(writeOne(source.get(), 0, 1), IsOk());
  ASSERT_EQ(std::fseek(source.get(), 5, SEEK_SET), 0);
  EXPECT_EQ(std::fgetc(source.get()), '5');
}

// Any stream will do, one without a file descriptor too.
TEST_F(OKV2WriterFileSource, MayBeAStreamInMemory) {
  std::string bytes = "0123456789";
  const File source(fmemopen(bytes.data(), bytes.size(), "rb"));
  ASSERT_NE(source, nullptr);
  ASSERT_THAT(writeOne(source.get(), 4, 3), IsOk());
  EXPECT_EQ(weights(test::readWholeFile(out)).substr(0, 4), std::string("456\0", 4));
}

// ---- a destination that changes under the writer's hands

// A stream that, when it is read, puts a pipe in the place of the descriptor that holds `destination`: from
// then on the output still takes bytes but can no longer be sought.
struct PipeSwap {
  std::string destination;
  int pipeEnd;
  bool swapped = false;
};

ssize_t swapAndRead(void* cookie, char* out, size_t size) {
  auto& swap = *static_cast<PipeSwap*>(cookie);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    if (std::filesystem::read_symlink(entry.path(), ignored) == swap.destination) {
      swap.swapped = dup2(swap.pipeEnd, std::stoi(entry.path().filename().string())) >= 0;
      break;
    }
  }
  std::fill_n(out, size, 'x');
  return ssize_t(size);
}

int seekNowhere(void*, off64_t* offset, int) {
  *offset = 0;
  return 0;
}

TEST_F(OKV2WriterFileSource, ADestinationThatCannotBeSoughtAtTheEndIsAFailedPatchOfTheHeader) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  PipeSwap swap{std::filesystem::canonical(dir.path()).string() + "/out", ends[1]};
  const File source(fopencookie(&swap, "rb", {swapAndRead, nullptr, seekNowhere, nullptr}));
  ASSERT_NE(source, nullptr);
  EXPECT_THAT(writeOne(source.get(), 0, 1), StatusIs(Code::InvalidFormat, "OKV2: patch header failed"));
  EXPECT_TRUE(swap.swapped);
  EXPECT_EQ(std::filesystem::file_size(out), 640U) << "all before the weights, left as it was";
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
}  // namespace zel
