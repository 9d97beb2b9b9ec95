// A disk that is full after n bytes, for every n: the writer gathers its output, but the message is that of
// the step whose bytes could not be written.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <string>

#include <sys/resource.h>

#include "writer_fixture.h"

namespace zel {
namespace {

using test::StatusIs;
using test::TempDir;

// While it lives no file of this process can grow beyond `bytes`: writes beyond are short or fail.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : oldHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &old_), 0);
    rlimit limit = old_;
    limit.rlim_cur = bytes;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    std::signal(SIGXFSZ, oldHandler_);
  }

 private:
  rlimit old_{};
  void (*oldHandler_)(int);
};

struct Step {
  std::uint64_t end;  // the first byte of the next step
  const char* message;
};

void expectEachByteToFailInItsStep(const OKV2Writer& writer, const std::string& whole, const Step* step) {
  ASSERT_EQ(whole.substr(56, 8).size(), 8U);
  std::string partial = whole;
  partial.replace(56, 8, std::string(8, '\0'));  // the checksum is only known, and patched in, at the end
  const TempDir dir;
  const std::string path = dir / "out";
  for (std::uint64_t limit = 0; limit < whole.size(); ++limit) {
    while (limit >= step->end)
      ++step;
    std::filesystem::remove(path);  // truncating an old file instead makes some file systems flush it
    Status status;
    {
      const FileSizeLimit full(limit);
      status = writer.write(path.c_str());
    }
    ASSERT_THAT(status, StatusIs(Code::InvalidFormat, step->message)) << "disk full after byte " << limit;
    ASSERT_EQ(test::readWholeFile(path), partial.substr(0, limit)) << "what is left on disk";
  }
  {
    const FileSizeLimit full(whole.size());
    ASSERT_THAT(writer.write(path.c_str()), test::IsOk());
  }
  EXPECT_EQ(test::readWholeFile(path), whole);
}

constexpr const char* kHeader = "OKV2: write header failed";
constexpr const char* kTable = "OKV2: write section table failed";
constexpr const char* kPad = "OKV2: pad failed";
constexpr const char* kSection = "OKV2: write section failed";
constexpr const char* kWeights = "OKV2: write weights failed";
constexpr const char* kPadWeights = "OKV2: pad weights failed";

TEST(OKV2WriterShortWrite, NamesTheStepOfEveryByteOfTheSmallestContainer) {
  OKV2Writer writer;
  test::fillMinimal(writer);
  constexpr Step steps[] = {{64, kHeader},   {232, kTable},   {256, kPad},
                            {640, kSection}, {648, kWeights}, {704, kPadWeights}};
  expectEachByteToFailInItsStep(writer, test::containerOf(writer), steps);
}

TEST(OKV2WriterShortWrite, NamesTheStepOfEveryByteOfAContainerWithEverything) {
  OKV2Writer writer;
  test::fillFull(writer);
  constexpr Step steps[] = {{64, kHeader},    {232, kTable},       {256, kPad},      {1152, kSection},
                            {1362, kWeights}, {1408, kPadWeights}, {1473, kWeights}, {1536, kPadWeights},
                            {1542, kWeights}, {1600, kPadWeights}};
  expectEachByteToFailInItsStep(writer, test::containerOf(writer), steps);
}

TEST(OKV2WriterShortWrite, NamesTheSameStepsForBorrowedMemory) {
  const std::string data(65, 'd');
  const std::uint64_t dims[] = {65};
  OKV2Writer writer;
  test::addOk(writer.addTensorFromMem(data.data(), "w", 0, dims, 1, data.size()));
  constexpr Step steps[] = {{64, kHeader},   {232, kTable},   {256, kPad},
                            {640, kSection}, {705, kWeights}, {768, kPadWeights}};
  expectEachByteToFailInItsStep(writer, test::containerOf(writer), steps);
}

TEST(OKV2WriterShortWrite, NamesTheSameStepsForAFileSource) {
  const TempDir dir;
  const std::string source = dir.write("source", std::string(65, 'd'));
  std::FILE* file = std::fopen(source.c_str(), "rb");
  ASSERT_NE(file, nullptr);
  const std::uint64_t dims[] = {65};
  OKV2Writer writer;
  test::addOk(writer.addTensorFrom(file, "w", 0, dims, 1, 0, 65));
  constexpr Step steps[] = {{64, kHeader},   {232, kTable},   {256, kPad},
                            {640, kSection}, {705, kWeights}, {768, kPadWeights}};
  expectEachByteToFailInItsStep(writer, test::containerOf(writer), steps);
  std::fclose(file);
}

// Large tensors leave in several writes; a failure in the middle of one is still the weights'.
TEST(OKV2WriterShortWrite, NamesTheWeightsInTheMiddleOfALargeTensor) {
  const std::string data(std::size_t{3} << 20, 'd');
  const std::uint64_t dims[] = {data.size()};
  OKV2Writer writer;
  test::addOk(writer.addTensorFromMem(data.data(), "w", 0, dims, 1, data.size()));
  const TempDir dir;
  const std::string path = dir / "out";
  for (const std::uint64_t limit : {262143U, 262144U, 262145U, 1048576U, 3145728U, 3146367U}) {
    Status status;
    {
      const FileSizeLimit full(limit);
      status = writer.write(path.c_str());
    }
    EXPECT_THAT(status, StatusIs(Code::InvalidFormat, kWeights)) << limit;
    EXPECT_EQ(std::filesystem::file_size(path), limit);
  }
}

// What is longer than a gathered write fails at once, not with the pieces that follow it.
Status writeLimited(const OKV2Writer& writer, std::uint64_t limit) {
  const TempDir dir;
  const std::string path = dir / "out";
  const FileSizeLimit full(limit);
  return writer.write(path.c_str());
}

TEST(OKV2WriterShortWrite, NamesALongSectionAtOnce) {
  OKV2Writer writer;
  test::addOk(writer.addMetaStr("k", std::string(300000, 'm')));
  test::fillMinimal(writer);
  EXPECT_THAT(writeLimited(writer, 1000), StatusIs(Code::InvalidFormat, kSection));
}

// The index begins at 384 and takes 384,000 bytes, of which the first 262,144 leave by themselves; the layout
// takes 96,000 and the chat template 64.
TEST(OKV2WriterShortWrite, NamesTheSectionInTheMiddleOfALongTable) {
  OKV2Writer writer;
  for (int k = 0; k < 3000; ++k)
    test::addBytes(writer, ("t" + std::to_string(k)).c_str(), "four");
  std::string whole = test::containerOf(writer);
  whole.replace(56, 8, std::string(8, '\0'));  // the checksum is patched in at the end
  const TempDir dir;
  const std::string path = dir / "out";
  for (const std::uint64_t limit :
       {384U, 262527U, 262528U, 262529U, 384383U, 384384U, 480383U, 480384U, 480447U}) {
    Status status;
    {
      const FileSizeLimit full(limit);
      status = writer.write(path.c_str());
    }
    EXPECT_THAT(status, StatusIs(Code::InvalidFormat, kSection)) << limit;
    EXPECT_TRUE(test::readWholeFile(path) == whole.substr(0, limit)) << limit;
  }
  EXPECT_THAT(writeLimited(writer, 480448), StatusIs(Code::InvalidFormat, kWeights));
}

TEST(OKV2WriterShortWrite, NamesALongOwnedTensorAtOnce) {
  OKV2Writer writer;
  test::addBytes(writer, "w", std::string(1 << 20, 'd'));
  EXPECT_THAT(writeLimited(writer, 300000), StatusIs(Code::InvalidFormat, kWeights));
}

TEST(OKV2WriterShortWrite, NamesALongTensorOfAFileAtOnce) {
  const TempDir dir;
  const std::string source = dir.write("source", std::string(1 << 20, 'd'));
  std::FILE* file = std::fopen(source.c_str(), "rb");
  ASSERT_NE(file, nullptr);
  const std::uint64_t dims[] = {1 << 20};
  OKV2Writer writer;
  test::addOk(writer.addTensorFrom(file, "w", 0, dims, 1, 0, 1 << 20));
  EXPECT_THAT(writeLimited(writer, 300000), StatusIs(Code::InvalidFormat, kWeights));
  std::fclose(file);
}

// 1,024 pieces go into one write, so it is due at a tensor or, with one piece more before them, at its
// padding.
TEST(OKV2WriterShortWrite, TellsSmallTensorsFromTheirPaddingWhereverAWriteIsDue) {
  for (const bool onePieceMore : {false, true}) {
    OKV2Writer writer;
    for (int k = 0; k < 3000; ++k)
      test::addBytes(writer, ("t" + std::to_string(k)).c_str(), "four");
    if (onePieceMore) writer.setGraphBytes(std::string(64, 'g').data(), 64);
    // The weights are last; each tensor has 4 bytes and 60 of padding.
    const std::uint64_t thousandLeft = test::containerOf(writer).size() - std::uint64_t{64} * 1000;
    EXPECT_THAT(writeLimited(writer, thousandLeft + 2), StatusIs(Code::InvalidFormat, kWeights));
    EXPECT_THAT(writeLimited(writer, thousandLeft + 34), StatusIs(Code::InvalidFormat, kPadWeights));
  }
}

// The output's failure is older than the source's, so it is the one reported.
TEST(OKV2WriterShortWrite, ComesBeforeAFailureOfALaterSource) {
  std::FILE* empty = std::tmpfile();
  const std::uint64_t dims[] = {1};
  OKV2Writer writer;
  test::addOk(writer.addTensorFrom(empty, "w", 0, dims, 1, 0, 1));
  const TempDir dir;
  const std::string path = dir / "out";
  Status status;
  {
    const FileSizeLimit full(300);
    status = writer.write(path.c_str());
  }
  EXPECT_THAT(status, StatusIs(Code::InvalidFormat, kSection));
  EXPECT_THAT(writer.write(path.c_str()), StatusIs(Code::InvalidFormat, "OKV2: read source failed"));
  std::fclose(empty);
}

TEST(OKV2WriterShortWrite, NeverRemovesAPartlyWrittenFile) {
  OKV2Writer writer;
  test::fillMinimal(writer);
  const TempDir dir;
  const std::string path = dir / "out";
  {
    const FileSizeLimit full(500);
    ASSERT_THAT(writer.write(path.c_str()), StatusIs(Code::InvalidFormat, kSection));
  }
  ASSERT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(std::filesystem::file_size(path), 500U);
}

}  // namespace
}  // namespace zel
