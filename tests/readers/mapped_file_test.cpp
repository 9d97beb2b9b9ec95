#include "readers/mapped_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "support/temp_dir.h"

namespace zel::test {
namespace {

TEST(MappedFile, IsEmptyBeforeTheFirstOpen) {
  const MappedFile file;
  EXPECT_TRUE(file.bytes().empty());
  EXPECT_EQ(file.id(), FileId{});
}

TEST(MappedFile, ShowsTheBytesOfTheFile) {
  const TempDir dir;
  const std::string content("abc\0def", 7);
  MappedFile file;
  ASSERT_EQ(file.open(dir.write("f", content).c_str(), 1), MapResult::Ok);
  EXPECT_EQ(file.bytes(), content);
}

TEST(MappedFile, OpensAFileOfExactlyTheLeastSize) {
  const TempDir dir;
  MappedFile file;
  EXPECT_EQ(file.open(dir.write("f", "12345678").c_str(), 8), MapResult::Ok);
  EXPECT_EQ(file.bytes(), "12345678");
}

TEST(MappedFile, RefusesAFileOneByteBelowTheLeastSize) {
  const TempDir dir;
  MappedFile file;
  EXPECT_EQ(file.open(dir.write("f", "1234567").c_str(), 8), MapResult::StatFailed);
  EXPECT_TRUE(file.bytes().empty());
}

TEST(MappedFile, RefusesAnEmptyFileWhenOneByteIsNeeded) {
  const TempDir dir;
  MappedFile file;
  EXPECT_EQ(file.open(dir.write("f", "").c_str(), 1), MapResult::StatFailed);
}

TEST(MappedFile, ReportsAMissingFileAsOpenFailed) {
  const TempDir dir;
  MappedFile file;
  EXPECT_EQ(file.open((dir / "missing").c_str(), 1), MapResult::OpenFailed);
}

TEST(MappedFile, ReportsADirectoryAsMapFailed) {
  const TempDir dir;
  MappedFile file;
  EXPECT_EQ(file.open(dir.path().c_str(), 0), MapResult::MapFailed);
}

TEST(MappedFile, ReportsAFifoAtOnceAsTooSmallAlthoughNobodyWritesToIt) {
  const TempDir dir;
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  MappedFile file;
  EXPECT_EQ(file.open((dir / "pipe").c_str(), 1), MapResult::StatFailed);
}

TEST(MappedFile, ReportsADeviceAsTooSmall) {
  MappedFile file;
  EXPECT_EQ(file.open("/dev/zero", 1), MapResult::StatFailed);
}

TEST(MappedFile, HoldsNothingAfterAFailedSecondOpen) {
  const TempDir dir;
  MappedFile file;
  ASSERT_EQ(file.open(dir.write("f", "content").c_str(), 1), MapResult::Ok);
  ASSERT_EQ(file.open((dir / "missing").c_str(), 1), MapResult::OpenFailed);
  EXPECT_TRUE(file.bytes().empty());
}

TEST(MappedFile, ShowsTheSecondFileAfterASecondOpen) {
  const TempDir dir;
  MappedFile file;
  ASSERT_EQ(file.open(dir.write("f", "first").c_str(), 1), MapResult::Ok);
  ASSERT_EQ(file.open(dir.write("g", "the second").c_str(), 1), MapResult::Ok);
  EXPECT_EQ(file.bytes(), "the second");
}

TEST(MappedFile, ClosesTwiceWithoutHarm) {
  const TempDir dir;
  MappedFile file;
  ASSERT_EQ(file.open(dir.write("f", "content").c_str(), 1), MapResult::Ok);
  file.close();
  file.close();
  EXPECT_TRUE(file.bytes().empty());
}

TEST(MappedFile, KeepsTheBytesWhenTheNameIsRemoved) {
  const TempDir dir;
  const std::string path = dir.write("f", "content");
  MappedFile file;
  ASSERT_EQ(file.open(path.c_str(), 1), MapResult::Ok);
  std::filesystem::remove(path);
  EXPECT_EQ(file.bytes(), "content");
}

TEST(MappedFile, HandsItsMappingOverWhenMoved) {
  const TempDir dir;
  MappedFile first;
  ASSERT_EQ(first.open(dir.write("f", "content").c_str(), 1), MapResult::Ok);
  const char* const address = first.bytes().data();
  MappedFile second(std::move(first));
  EXPECT_EQ(second.bytes(), "content");
  EXPECT_EQ(static_cast<const void*>(second.bytes().data()), static_cast<const void*>(address));
}

TEST(MappedFile, TellsTheDeviceAndInodeOfTheFile) {
  const TempDir dir;
  const std::string path = dir.write("f", "content");
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  MappedFile file;
  ASSERT_EQ(file.open(path.c_str(), 1), MapResult::Ok);
  EXPECT_EQ(file.id(), (FileId{info.st_dev, info.st_ino}));
}

TEST(MappedFile, TellsTheSameIdentityThroughASymbolicAndAHardLink) {
  const TempDir dir;
  const std::string path = dir.write("f", "content");
  std::filesystem::create_symlink(path, dir / "soft");
  std::filesystem::create_hard_link(path, dir / "hard");
  MappedFile file;
  ASSERT_EQ(file.open(path.c_str(), 1), MapResult::Ok);
  MappedFile soft;
  ASSERT_EQ(soft.open((dir / "soft").c_str(), 1), MapResult::Ok);
  MappedFile hard;
  ASSERT_EQ(hard.open((dir / "hard").c_str(), 1), MapResult::Ok);
  EXPECT_EQ(soft.id(), file.id());
  EXPECT_EQ(hard.id(), file.id());
}

TEST(MappedFile, LeavesNoDescriptorOpen) {
  const TempDir dir;
  const std::string path = dir.write("f", "content");
  const auto countDescriptors = [] {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& each : std::filesystem::directory_iterator("/proc/self/fd"))
      ++count;
    return count;
  };
  const std::size_t before = countDescriptors();
  MappedFile file;
  ASSERT_EQ(file.open(path.c_str(), 1), MapResult::Ok);
  EXPECT_EQ(countDescriptors(), before);
  EXPECT_EQ(MappedFile().open(dir.path().c_str(), 0), MapResult::MapFailed);
  EXPECT_EQ(MappedFile().open(path.c_str(), 100), MapResult::StatFailed);
  EXPECT_EQ(countDescriptors(), before);
}

}  // namespace
}  // namespace zel::test
