// SafetensorsImporter::open: what the path leads to. The content of headers: safetensors_header_test.cpp.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "readers/safetensors_importer.h"
#include "support/safetensors_builder.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel::test {
namespace {

std::string oneTensorFile() { return SafetensorsBuilder().tensor("w", "F32", {2}).bytes(); }

TEST(SafetensorsFile, OpensAGoodFile) {
  const TempDir dir;
  SafetensorsImporter importer;
  ASSERT_THAT(importer.open(dir.write("f", oneTensorFile()).c_str()), IsOk());
  EXPECT_TRUE(importer.isOpen());
  ASSERT_EQ(importer.tensors().size(), 1u);
  EXPECT_EQ(importer.tensors()[0].name, "w");
  EXPECT_EQ(importer.dataRegion(), patternBytes(8, 0));
}

TEST(SafetensorsFile, RefusesANullPath) {
  SafetensorsImporter importer;
  EXPECT_THAT(importer.open(nullptr), StatusIs(Code::InvalidFormat, "safetensors: null path"));
}

TEST(SafetensorsFile, ReportsAMissingFile) {
  const TempDir dir;
  SafetensorsImporter importer;
  EXPECT_THAT(importer.open((dir / "missing").c_str()), StatusIs(Code::IOError, "safetensors: open failed"));
}

TEST(SafetensorsFile, ReportsAnEmptyPathAsOpenFailed) {
  SafetensorsImporter importer;
  EXPECT_THAT(importer.open(""), StatusIs(Code::IOError, "safetensors: open failed"));
}

TEST(SafetensorsFile, ReportsADanglingSymbolicLinkAsOpenFailed) {
  const TempDir dir;
  std::filesystem::create_symlink(dir / "missing", dir / "link");
  SafetensorsImporter importer;
  EXPECT_THAT(importer.open((dir / "link").c_str()), StatusIs(Code::IOError, "safetensors: open failed"));
}

TEST(SafetensorsFile, FollowsASymbolicLink) {
  const TempDir dir;
  dir.write("f", oneTensorFile());
  std::filesystem::create_symlink(dir / "f", dir / "link");
  SafetensorsImporter importer;
  EXPECT_THAT(importer.open((dir / "link").c_str()), IsOk());
}

TEST(SafetensorsFile, ReportsAFileThatMayNotBeReadAsOpenFailed) {
  const TempDir dir;
  const std::string path = dir.write("f", oneTensorFile());
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  // Permissions do not bind the superuser: act as "nobody" for the one call.
  const bool isRoot = geteuid() == 0;
  if (isRoot) {
    std::filesystem::permissions(dir.path(), std::filesystem::perms(0755));
    ASSERT_EQ(seteuid(65534), 0);
  }
  SafetensorsImporter importer;
  const Status status = importer.open(path.c_str());
  if (isRoot) {
    ASSERT_EQ(seteuid(0), 0);
  }
  EXPECT_THAT(status, StatusIs(Code::IOError, "safetensors: open failed"));
}

TEST(SafetensorsFile, ReportsAFifoAtOnceAsTooSmall) {
  const TempDir dir;
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  SafetensorsImporter importer;
  EXPECT_THAT(importer.open((dir / "pipe").c_str()),
              StatusIs(Code::Corrupted, "safetensors: file too small"));
}

TEST(SafetensorsFile, ReportsADeviceAsTooSmall) {
  SafetensorsImporter importer;
  EXPECT_THAT(importer.open("/dev/null"), StatusIs(Code::Corrupted, "safetensors: file too small"));
}

TEST(SafetensorsFile, ReportsADirectoryByTheOrderOfItsChecks) {
  const TempDir dir;
  dir.write("some-content", "so that no file system calls the folder empty");
  struct stat info {};
  ASSERT_EQ(stat(dir.path().c_str(), &info), 0);
  SafetensorsImporter importer;
  // A few file systems give directories a size below 8, and the size is looked at before the mapping.
  EXPECT_THAT(importer.open(dir.path().c_str()),
              info.st_size < 8 ? StatusIs(Code::Corrupted, "safetensors: file too small")
                               : StatusIs(Code::IOError, "safetensors: mmap failed"));
}

TEST(SafetensorsFile, RefusesAFileOfSevenBytesAndReadsOneOfEight) {
  const TempDir dir;
  SafetensorsImporter importer;
  EXPECT_THAT(importer.open(dir.write("seven", std::string(7, '\0')).c_str()),
              StatusIs(Code::Corrupted, "safetensors: file too small"));
  EXPECT_THAT(importer.open(dir.write("eight", std::string(8, '\0')).c_str()),
              StatusIs(Code::Corrupted, "safetensors: header JSON"));
}

TEST(SafetensorsFile, ReadsAHeaderOfOneGiBAndRefusesOneByteMore) {
  const TempDir dir;
  const std::string path = dir.write("sparse", littleEndian64(1073741824));
  std::filesystem::resize_file(path, 8 + 1073741824 + 1);
  SafetensorsImporter importer;
  // The header's first byte is NUL, so the reader stops there.
  EXPECT_THAT(importer.open(path.c_str()), StatusIs(Code::Corrupted, "safetensors: header JSON"));
  dir.write("sparse", littleEndian64(1073741825));
  std::filesystem::resize_file(path, 8 + 1073741824 + 1);
  EXPECT_THAT(importer.open(path.c_str()), StatusIs(Code::Corrupted, "safetensors: bad header length"));
}

TEST(SafetensorsFile, IsClosedAfterAFailureAndOpensAgain) {
  const TempDir dir;
  const std::string good = dir.write("good", oneTensorFile());
  const std::string bad = dir.write("bad", SafetensorsBuilder().headerJson("[]").bytes());
  SafetensorsImporter importer;
  ASSERT_THAT(importer.open(good.c_str()), IsOk());
  ASSERT_THAT(importer.open(bad.c_str()), StatusIs(Code::Corrupted, "safetensors: header not an object"));
  EXPECT_FALSE(importer.isOpen());
  EXPECT_TRUE(importer.tensors().empty());
  EXPECT_TRUE(importer.dataRegion().empty());
  EXPECT_EQ(importer.findTensor("w"), nullptr);
  ASSERT_THAT(importer.open(good.c_str()), IsOk());
  EXPECT_NE(importer.findTensor("w"), nullptr);
}

TEST(SafetensorsFile, IsClosedAfterANullPath) {
  const TempDir dir;
  SafetensorsImporter importer;
  ASSERT_THAT(importer.open(dir.write("f", oneTensorFile()).c_str()), IsOk());
  ASSERT_THAT(importer.open(nullptr), StatusIs(Code::InvalidFormat, "safetensors: null path"));
  EXPECT_FALSE(importer.isOpen());
  EXPECT_EQ(importer.findTensor("w"), nullptr);
}

TEST(SafetensorsFile, DropsTheEarlierListWhenOpenedAgain) {
  const TempDir dir;
  const std::string first = dir.write("first", oneTensorFile());
  const std::string second = dir.write("second", SafetensorsBuilder().tensor("v", "F16", {3}).bytes());
  SafetensorsImporter importer;
  ASSERT_THAT(importer.open(first.c_str()), IsOk());
  ASSERT_THAT(importer.open(second.c_str()), IsOk());
  ASSERT_EQ(importer.tensors().size(), 1u);
  EXPECT_EQ(importer.tensors()[0].name, "v");
  EXPECT_EQ(importer.findTensor("w"), nullptr);
}

TEST(SafetensorsFile, FindsNothingAfterClose) {
  const TempDir dir;
  SafetensorsImporter importer;
  ASSERT_THAT(importer.open(dir.write("f", oneTensorFile()).c_str()), IsOk());
  ASSERT_NE(importer.findTensor("w"), nullptr);
  importer.close();
  EXPECT_EQ(importer.findTensor("w"), nullptr);
  EXPECT_FALSE(importer.isOpen());
  EXPECT_TRUE(importer.tensors().empty());
  importer.close();
}

// An importer whose open() failed is kept for as long as the host lives.
TEST(SafetensorsFile, KeepsNoMemoryAfterClose) {
  SafetensorsImporter importer;
  const std::string file = oneTensorFile();
  ASSERT_THAT(importer.openBytes(file), IsOk());
  importer.close();
  EXPECT_EQ(importer.tensors().capacity(), 0u);
}

TEST(SafetensorsFile, FindsNothingBeforeTheFirstOpen) {
  const SafetensorsImporter importer;
  EXPECT_EQ(importer.findTensor("w"), nullptr);
  EXPECT_FALSE(importer.isOpen());
}

TEST(SafetensorsFile, TellsTheIdentityOfTheMappedFile) {
  const TempDir dir;
  const std::string path = dir.write("f", oneTensorFile());
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  SafetensorsImporter importer;
  ASSERT_THAT(importer.open(path.c_str()), IsOk());
  EXPECT_EQ(importer.fileId(), (FileId{info.st_dev, info.st_ino}));
}

TEST(SafetensorsFile, GivesTheVerdictOfTheBytesForEveryLengthOfAGoodFile) {
  const std::string good = SafetensorsBuilder().tensor("a", "F32", {2}).tensor("b", "BF16", {3}).bytes();
  const TempDir dir;
  for (std::size_t length = 0; length <= good.size(); ++length) {
    const std::string cut = good.substr(0, length);
    SafetensorsImporter fromFile;
    SafetensorsImporter fromBytes;
    const Status file = fromFile.open(dir.write("f", cut).c_str());
    const Status bytes = fromBytes.openBytes(cut);
    EXPECT_THAT(file, StatusIs(bytes.code(), bytes.message())) << length << " bytes";
  }
}

}  // namespace
}  // namespace zel::test
