// Opening checkpoints by path, closing them, and finding tensors.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <sys/stat.h>

#include "readers/pytorch_importer.h"
#include "support/pickle_builder.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"
#include "support/zip_builder.h"

namespace zel {
namespace {

using test::IsOk;
using test::StatusIs;
using test::TempDir;
using test::ZipBuilder;

// Tensors "a.weight" and "b" over one storage, and the entry that makes hasConstants() true.
std::string twoTensors() {
  return ZipBuilder()
      .add("data.pkl", test::stateDict({{"b", {2}, "s", "FloatStorage", 1}, {"a.weight", {1}, "s"}}))
      .add("s", std::string(12, 'x'))
      .add("constants.pkl", "")
      .build();
}

void expectClosed(const PyTorchImporter& importer) {
  EXPECT_FALSE(importer.isOpen());
  EXPECT_TRUE(importer.bytes().empty());
  EXPECT_TRUE(importer.mapping().empty());
  EXPECT_TRUE(importer.entries().empty());
  EXPECT_TRUE(importer.tensors().empty());
  EXPECT_FALSE(importer.hasConstants());
  EXPECT_EQ(importer.fileId(), FileId());
  EXPECT_EQ(importer.findTensor("a.weight"), nullptr);
  EXPECT_EQ(importer.findEntry("data.pkl"), nullptr);
}

TEST(PyTorchImporter, IsClosedBeforeTheFirstOpen) { expectClosed(PyTorchImporter()); }

TEST(PyTorchImporter, OpensAFileAndKeepsItMapped) {
  const TempDir dir;
  const std::string path = dir.write("pytorch_model.bin", twoTensors());
  PyTorchImporter importer;
  ASSERT_THAT(importer.open(path.c_str()), IsOk());
  std::filesystem::remove(path);
  EXPECT_TRUE(importer.isOpen());
  EXPECT_EQ(importer.bytes(), twoTensors());
  EXPECT_EQ(importer.tensors().size(), 2u);
  EXPECT_EQ(importer.entries().size(), 3u);
  EXPECT_TRUE(importer.hasConstants());
}

TEST(PyTorchImporter, TellsWhichFileIsMapped) {
  const TempDir dir;
  const std::string path = dir.write("pytorch_model.bin", twoTensors());
  std::filesystem::create_hard_link(path, dir / "link");
  struct stat info = {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  PyTorchImporter importer;
  ASSERT_THAT(importer.open((dir / "link").c_str()), IsOk());
  EXPECT_EQ(importer.fileId(), (FileId{std::uint64_t(info.st_dev), std::uint64_t(info.st_ino)}));
}

TEST(PyTorchImporter, MapsNothingWhenItIsGivenTheBytes) {
  const std::string bytes = twoTensors();
  const TempDir dir;
  PyTorchImporter importer;
  ASSERT_THAT(importer.open(dir.write("file", bytes).c_str()), IsOk());
  EXPECT_EQ(importer.mapping().data(), importer.bytes().data());
  EXPECT_EQ(importer.mapping(), bytes);
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_TRUE(importer.mapping().empty());
  EXPECT_EQ(importer.bytes().data(), bytes.data());
  EXPECT_EQ(importer.fileId(), FileId());
}

TEST(PyTorchImporter, RefusesANullPath) {
  PyTorchImporter importer;
  EXPECT_THAT(importer.open(nullptr), StatusIs(Code::InvalidFormat, "torch: null path"));
  expectClosed(importer);
}

TEST(PyTorchImporter, RefusesAMissingFile) {
  const TempDir dir;
  PyTorchImporter importer;
  EXPECT_THAT(importer.open((dir / "none").c_str()), StatusIs(Code::IOError, "torch: open failed"));
}

TEST(PyTorchImporter, RefusesAnEmptyPath) {
  PyTorchImporter importer;
  EXPECT_THAT(importer.open(""), StatusIs(Code::IOError, "torch: open failed"));
}

TEST(PyTorchImporter, RefusesAnEmptyFile) {
  const TempDir dir;
  PyTorchImporter importer;
  EXPECT_THAT(importer.open(dir.write("empty", "").c_str()), StatusIs(Code::IOError, "torch: stat failed"));
}

TEST(PyTorchImporter, RefusesAFileOfOneByteByItsContent) {
  const TempDir dir;
  PyTorchImporter importer;
  EXPECT_THAT(importer.open(dir.write("one", "P").c_str()),
              StatusIs(Code::Corrupted, "torch: file too small"));
}

TEST(PyTorchImporter, RefusesAFifoWithoutWaitingForAWriter) {
  const TempDir dir;
  const std::string path = dir / "fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  PyTorchImporter importer;
  EXPECT_THAT(importer.open(path.c_str()), StatusIs(Code::IOError, "torch: stat failed"));
}

TEST(PyTorchImporter, RefusesADevice) {
  PyTorchImporter importer;
  EXPECT_THAT(importer.open("/dev/null"), StatusIs(Code::IOError, "torch: stat failed"));
}

TEST(PyTorchImporter, RefusesADirectory) {
  const TempDir dir;
  dir.write("file", "gives the directory a size");
  PyTorchImporter importer;
  EXPECT_THAT(importer.open(dir.path().c_str()), StatusIs(Code::IOError, "torch: mmap failed"));
}

TEST(PyTorchImporter, IsClosedAfterEveryKindOfFailure) {
  const TempDir dir;
  const std::string good = dir.write("good", twoTensors());
  const std::string badZip =
      dir.write("zip", ZipBuilder().add("w", "").lieCentral(test::zip_central::kMethod, 8).build());
  const std::string badPickle =
      dir.write("pickle", ZipBuilder().add("data.pkl", ".").add("constants.pkl", "").build());
  const std::string missing = dir / "none";
  for (const char* path :
       {badZip.c_str(), badPickle.c_str(), missing.c_str(), static_cast<const char*>(nullptr)}) {
    PyTorchImporter importer;
    ASSERT_THAT(importer.open(good.c_str()), IsOk());
    EXPECT_FALSE(importer.open(path).ok());
    expectClosed(importer);
  }
}

TEST(PyTorchImporter, StartsCleanOnEveryOpen) {
  const TempDir dir;
  const std::string first = dir.write("first", twoTensors());
  const std::string second = dir.write(
      "second", ZipBuilder().add("data.pkl", test::stateDict({{"z", {1}, "t"}})).add("t", "1234").build());
  PyTorchImporter importer;
  ASSERT_THAT(importer.open(first.c_str()), IsOk());
  ASSERT_THAT(importer.open(second.c_str()), IsOk());
  ASSERT_EQ(importer.tensors().size(), 1u);
  EXPECT_EQ(importer.tensors()[0].name, "z");
  EXPECT_EQ(importer.entries().size(), 2u);
  EXPECT_FALSE(importer.hasConstants());
}

TEST(PyTorchImporter, ClosesAnyNumberOfTimes) {
  const TempDir dir;
  PyTorchImporter importer;
  importer.close();
  ASSERT_THAT(importer.open(dir.write("good", twoTensors()).c_str()), IsOk());
  importer.close();
  expectClosed(importer);
  importer.close();
  expectClosed(importer);
}

TEST(PyTorchImporter, FindsATensorByItsWholeNameOnly) {
  const std::string bytes = twoTensors();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.findTensor("a.weight"), &importer.tensors()[0]);
  EXPECT_EQ(importer.findTensor("b"), &importer.tensors()[1]);
  for (const char* name : {"", "a", "a.weigh", "a.weight.", "A.weight", "bb", "c"}) {
    EXPECT_EQ(importer.findTensor(name), nullptr) << name;
  }
}

TEST(PyTorchImporter, FindsATensorWithAnEmptyName) {
  const std::string bytes = ZipBuilder()
                                .add("data.pkl", test::stateDict({{"", {1}, "s"}, {"a", {1}, "s"}}))
                                .add("s", "1234")
                                .build();
  PyTorchImporter importer;
  ASSERT_THAT(importer.openBytes(bytes), IsOk());
  EXPECT_EQ(importer.findTensor(""), &importer.tensors()[0]);
}

}  // namespace
}  // namespace zel
