// Where the container goes: destinations that are refused, and what is left of them.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "writer_fixture.h"

namespace zel {
namespace {

using test::containerOf;
using test::IsOk;
using test::StatusIs;
using test::TempDir;
namespace fs = std::filesystem;

const auto kCannotOpen = StatusIs(Code::InvalidFormat, "OKV2: cannot open output file");

class OKV2WriterDestination : public testing::Test {
 protected:
  OKV2WriterDestination() { test::fillMinimal(writer); }

  Status writeTo(const std::string& path) const { return writer.write(path.c_str()); }

  OKV2Writer writer;
  TempDir dir;
};

TEST(OKV2WriterWithoutTensors, RefusesToWriteAndMakesNoFile) {
  const OKV2Writer writer;
  const TempDir dir;
  const std::string path = dir / "out";
  EXPECT_THAT(writer.write(path.c_str()), StatusIs(Code::InvalidFormat, "OKV2: no tensors to write"));
  EXPECT_FALSE(fs::exists(path));
}

TEST(OKV2WriterWithoutTensors, LeavesAnExistingFileAlone) {
  const OKV2Writer writer;
  const TempDir dir;
  const std::string path = dir.write("out", "precious");
  EXPECT_THAT(writer.write(path.c_str()), StatusIs(Code::InvalidFormat, "OKV2: no tensors to write"));
  EXPECT_EQ(test::readWholeFile(path), "precious");
}

TEST_F(OKV2WriterDestination, ANullPathHasTheMessageOfNoTensors) {
  EXPECT_THAT(writer.write(nullptr), StatusIs(Code::InvalidFormat, "OKV2: no tensors to write"));
}

TEST_F(OKV2WriterDestination, AMissingDirectoryCannotBeOpened) {
  EXPECT_THAT(writeTo(dir / "missing/out"), kCannotOpen);
  EXPECT_FALSE(fs::exists(dir / "missing"));
}

TEST_F(OKV2WriterDestination, AnEmptyPathCannotBeOpened) { EXPECT_THAT(writeTo(""), kCannotOpen); }

TEST_F(OKV2WriterDestination, ADirectoryCannotBeOpened) {
  EXPECT_THAT(writeTo(dir.path()), kCannotOpen);
  EXPECT_TRUE(fs::is_directory(dir.path()));
}

TEST_F(OKV2WriterDestination, AFileBelowAFileCannotBeOpened) {
  EXPECT_THAT(writeTo(dir.write("file", "x") + "/out"), kCannotOpen);
}

TEST_F(OKV2WriterDestination, AReadOnlyFileCannotBeOpenedAndIsLeftIntact) {
  const std::string path = dir.write("out", "precious");
  ASSERT_EQ(chmod(path.c_str(), 0444), 0);
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  // The superuser may write to any file, so step aside for the one call.
  const bool superuser = geteuid() == 0;
  if (superuser) {
    ASSERT_EQ(seteuid(65534), 0);
  }
  const Status status = writeTo(path);
  if (superuser) {
    ASSERT_EQ(seteuid(0), 0);
  }
  EXPECT_THAT(status, kCannotOpen);
  EXPECT_EQ(test::readWholeFile(path), "precious");
}

TEST_F(OKV2WriterDestination, AFifoThatNobodyReadsIsRefusedAtOnceInsteadOfWaitedFor) {
  const std::string path = dir / "fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_THAT(writeTo(path), kCannotOpen);
}

TEST_F(OKV2WriterDestination, APipeWithAReaderHasNoPositionAndIsALayoutError) {
  const std::string path = dir / "fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  EXPECT_THAT(writeTo(path), StatusIs(Code::InvalidFormat, "OKV2: layout error"));
  char got[512];
  EXPECT_EQ(read(reader, got, sizeof got), 0)
      << "nothing was written, so no reader that goes away can raise SIGPIPE";
  close(reader);
}

TEST_F(OKV2WriterDestination, AFullDeviceFailsAtTheHeader) {
  EXPECT_THAT(writeTo("/dev/full"), StatusIs(Code::InvalidFormat, "OKV2: write header failed"));
}

TEST_F(OKV2WriterDestination, ADanglingSymbolicLinkIsFilledIn) {
  fs::create_symlink(dir / "target", dir / "link");
  EXPECT_THAT(writeTo(dir / "link"), IsOk());
  EXPECT_EQ(test::readWholeFile(dir / "target"), containerOf(writer));
}

TEST_F(OKV2WriterDestination, AFailedWriteChangesNothingInTheWriter) {
  ASSERT_THAT(writeTo("/dev/full"), StatusIs(Code::InvalidFormat, "OKV2: write header failed"));
  ASSERT_THAT(writeTo(dir / "missing/out"), kCannotOpen);
  OKV2Writer fresh;
  test::fillMinimal(fresh);
  EXPECT_EQ(containerOf(writer), containerOf(fresh));
}

// ---- protected inputs

class OKV2WriterProtectedInput : public OKV2WriterDestination {
 protected:
  OKV2WriterProtectedInput() : input(dir.write("input", "tensor bytes")) {
    struct stat info {};
    EXPECT_EQ(stat(input.c_str(), &info), 0);
    writer.protectInput({info.st_dev, info.st_ino});
  }

  std::string input;
};

TEST_F(OKV2WriterProtectedInput, IsRefusedAsDestinationAndLeftIntact) {
  EXPECT_THAT(writeTo(input), kCannotOpen);
  EXPECT_EQ(test::readWholeFile(input), "tensor bytes");
}

TEST_F(OKV2WriterProtectedInput, IsRecognisedThroughAnotherSpellingOfItsPath) {
  EXPECT_THAT(writeTo(dir / "./../" + fs::path(dir.path()).filename().string() + "/input"), kCannotOpen);
  EXPECT_EQ(test::readWholeFile(input), "tensor bytes");
}

TEST_F(OKV2WriterProtectedInput, IsRecognisedThroughASymbolicLink) {
  fs::create_symlink(input, dir / "link");
  EXPECT_THAT(writeTo(dir / "link"), kCannotOpen);
  EXPECT_EQ(test::readWholeFile(input), "tensor bytes");
}

TEST_F(OKV2WriterProtectedInput, IsRecognisedThroughAHardLink) {
  fs::create_hard_link(input, dir / "link");
  EXPECT_THAT(writeTo(dir / "link"), kCannotOpen);
  EXPECT_EQ(test::readWholeFile(input), "tensor bytes");
}

TEST_F(OKV2WriterProtectedInput, EveryProtectedFileIsRefusedNotOnlyTheLast) {
  const std::string second = dir.write("second", "more bytes");
  struct stat info {};
  ASSERT_EQ(stat(second.c_str(), &info), 0);
  writer.protectInput({info.st_dev, info.st_ino});
  EXPECT_THAT(writeTo(input), kCannotOpen);
  EXPECT_THAT(writeTo(second), kCannotOpen);
  EXPECT_EQ(test::readWholeFile(second), "more bytes");
}

TEST_F(OKV2WriterProtectedInput, ACopyOfItMayBeOverwritten) {
  const std::string copy = dir.write("copy", "tensor bytes");
  EXPECT_THAT(writeTo(copy), IsOk());
  EXPECT_EQ(test::readWholeFile(copy), containerOf(writer));
}

}  // namespace
}  // namespace zel
