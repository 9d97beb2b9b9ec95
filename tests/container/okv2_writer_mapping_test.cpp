// Where the bytes of a borrowed mapping come from. The mappings here are of another file than the one that
// the writer is told, so that the container shows which of the two was read.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "container/bytes.h"
#include "writer_fixture.h"

namespace zel {
namespace {

using test::IsOk;

constexpr std::size_t kLong = std::size_t{1} << 20;  // copied from file to file from this size on

FileId idOf(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(stat(path.c_str(), &info), 0);
  return {info.st_dev, info.st_ino};
}

// `size` bytes, no two of 251 neighbours alike.
std::string numbered(std::size_t size, unsigned first) {
  std::string out(size, '\0');
  for (std::size_t k = 0; k < size; ++k)
    out[k] = char((k + first) % 251);
  return out;
}

// A file with these bytes, mapped.
class Mapping {
 public:
  explicit Mapping(const std::string& path) : size_(std::filesystem::file_size(path)) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    void* const base = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, file, 0);
    close(file);
    if (base == MAP_FAILED) throw std::runtime_error("mmap failed");
    base_ = static_cast<char*>(base);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() { munmap(base_, size_); }
  [[nodiscard]] std::string_view bytes() const { return {base_, size_}; }

 private:
  std::size_t size_;
  char* base_ = nullptr;
};

class OKV2WriterMapping : public testing::Test {
 protected:
  void add(const char* name, std::string_view data) {
    const std::uint64_t dims[] = {data.size()};
    test::addOk(writer_.addTensorFromMem(data.data(), name, 0, dims, 1, data.size()));
  }
  // Whether the weights section holds `expected` at `offset`.
  [[nodiscard]] bool writes(std::string_view expected, std::uint64_t offset = 0) const {
    const std::string path = dir_ / "out.okv2";
    EXPECT_THAT(writer_.write(path.c_str()), IsOk());
    const std::string bytes = test::readWholeFile(path);
    constexpr std::size_t kRow = 64 + 24 * 4;  // of the weights in the section table
    const std::uint64_t section = loadU64(bytes.data() + kRow + 8);
    return std::string_view(bytes).substr(section + offset, expected.size()) == expected;
  }

  test::TempDir dir_;
  OKV2Writer writer_;
  const Mapping mapping_{dir_.write("mapped", numbered(2 * kLong, 0))};
  const std::string_view memory_ = mapping_.bytes();
  const std::string content_ = numbered(2 * kLong, 100);
};

TEST_F(OKV2WriterMapping, ALongTensorIsCopiedFromTheFile) {
  const std::string path = dir_.write("shard", content_);
  writer_.borrowMapping(memory_, idOf(path), path);
  add("w", memory_);
  EXPECT_TRUE(writes(content_));
}

TEST_F(OKV2WriterMapping, ATensorIsCopiedFromWhereItLies) {
  const std::string path = dir_.write("shard", content_);
  writer_.borrowMapping(memory_, idOf(path), path);
  add("w", memory_.substr(5, kLong));
  EXPECT_TRUE(writes(content_.substr(5, kLong)));
}

TEST_F(OKV2WriterMapping, AShorterTensorIsWrittenFromMemory) {
  const std::string path = dir_.write("shard", content_);
  writer_.borrowMapping(memory_, idOf(path), path);
  add("w", memory_.substr(0, kLong - 1));
  EXPECT_TRUE(writes(memory_.substr(0, kLong - 1)));
}

TEST_F(OKV2WriterMapping, MemoryOutsideItIsWrittenAsItIs) {
  const std::string path = dir_.write("shard", content_);
  const std::string other = numbered(kLong, 50);
  writer_.borrowMapping(memory_, idOf(path), path);
  add("w", other);
  EXPECT_TRUE(writes(other));
}

TEST_F(OKV2WriterMapping, EachTensorComesFromItsOwnFile) {
  const std::string first = dir_.write("first", content_);
  const Mapping otherMapping(dir_.write("mapped too", numbered(kLong, 30)));
  const std::string_view otherMemory = otherMapping.bytes();
  const std::string otherContent = numbered(kLong, 60);
  const std::string second = dir_.write("second", otherContent);
  writer_.borrowMapping(memory_, idOf(first), first);
  writer_.borrowMapping(otherMemory, idOf(second), second);
  add("a", memory_.substr(0, kLong));
  add("b", otherMemory);
  add("c", memory_.substr(kLong));
  EXPECT_TRUE(writes(content_.substr(0, kLong)));
  EXPECT_TRUE(writes(otherContent, kLong));
  EXPECT_TRUE(writes(content_.substr(kLong), 2 * kLong));
}

// The mapping of such a file goes on in zeros up to the end of the page, which no write would notice.
TEST_F(OKV2WriterMapping, AFileThatLacksItsLastByteIsAFailedWrite) {
  const std::string path = dir_.write("shard", content_.substr(0, memory_.size() - 1));
  writer_.borrowMapping(memory_, idOf(path), path);
  add("long", memory_);
  add("short", memory_.substr(0, 100));
  EXPECT_THAT(writer_.write((dir_ / "out.okv2").c_str()),
              test::StatusIs(Code::InvalidFormat, "OKV2: write weights failed"));
}

TEST_F(OKV2WriterMapping, AFileThatLacksItsLastByteIsAFailedWriteOfShortTensorsToo) {
  const std::string path = dir_.write("shard", content_.substr(0, memory_.size() - 1));
  writer_.borrowMapping(memory_, idOf(path), path);
  add("w", memory_.substr(0, 100));
  EXPECT_THAT(writer_.write((dir_ / "out.okv2").c_str()),
              test::StatusIs(Code::InvalidFormat, "OKV2: write weights failed"));
}

TEST_F(OKV2WriterMapping, ACutFileAmongOthersIsAFailedWrite) {
  const std::string first = dir_.write("first", content_);
  const Mapping otherMapping(dir_.write("mapped too", numbered(100, 30)));
  const std::string second = dir_.write("second", numbered(99, 30));
  writer_.borrowMapping(memory_, idOf(first), first);
  writer_.borrowMapping(otherMapping.bytes(), idOf(second), second);
  add("w", memory_);
  EXPECT_THAT(writer_.write((dir_ / "out.okv2").c_str()),
              test::StatusIs(Code::InvalidFormat, "OKV2: write weights failed"));
}

TEST_F(OKV2WriterMapping, AFileThatHasGrownIsWritten) {
  const std::string path = dir_.write("shard", content_ + "x");
  writer_.borrowMapping(memory_, idOf(path), path);
  add("w", memory_);
  EXPECT_TRUE(writes(content_));
}

TEST_F(OKV2WriterMapping, IsWrittenWhenAnotherFileIsAtThePath) {
  const std::string path = dir_.write("shard", content_);
  const std::string other = dir_.write("other", content_);
  writer_.borrowMapping(memory_, idOf(path), other);
  add("w", memory_);
  EXPECT_TRUE(writes(memory_));
}

TEST_F(OKV2WriterMapping, IsWrittenWhenNoFileIsAtThePath) {
  const std::string path = dir_.write("shard", content_);
  writer_.borrowMapping(memory_, idOf(path), dir_ / "missing");
  add("w", memory_);
  EXPECT_TRUE(writes(memory_));
}

TEST_F(OKV2WriterMapping, IsWrittenWhenAFifoIsAtThePathAndNobodyWaits) {
  const std::string path = dir_ / "fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  writer_.borrowMapping(memory_, idOf(path), path);
  add("w", memory_);
  EXPECT_TRUE(writes(memory_));
}

TEST_F(OKV2WriterMapping, CanBeWrittenTwice) {
  const std::string path = dir_.write("shard", content_);
  writer_.borrowMapping(memory_, idOf(path), path);
  add("w", memory_);
  EXPECT_TRUE(writes(content_));
  EXPECT_TRUE(writes(content_));
}

}  // namespace
}  // namespace zel
