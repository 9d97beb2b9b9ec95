#include "hf/read_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/leased_file.h"
#include "support/temp_dir.h"

namespace zel {
namespace {

using test::TempDir;
namespace fs = std::filesystem;

std::string content(const std::string& path) {
  std::vector<std::uint8_t> bytes;
  EXPECT_TRUE(readFile(path, bytes)) << path;
  return {bytes.begin(), bytes.end()};
}
bool readable(const std::string& path) {
  std::vector<std::uint8_t> bytes;
  return readFile(path, bytes);
}

TEST(ReadFile, GivesEveryByteOfTheFile) {
  const TempDir dir;
  const std::string bytes("a\0\r\n\x1A\xFF", 6);
  EXPECT_EQ(content(dir.write("f", bytes)), bytes);
  EXPECT_EQ(content(dir.write("one", "x")), "x");
}

TEST(ReadFile, ReplacesWhatTheBufferHeldBefore) {
  const TempDir dir;
  const std::string path = dir.write("f", "short");
  std::vector<std::uint8_t> bytes(100, 'x');
  ASSERT_TRUE(readFile(path, bytes));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "short");
}

TEST(ReadFile, ReadsALargeFileWhole) {
  const TempDir dir;
  const std::string bytes(5'000'003, 'z');
  EXPECT_TRUE(content(dir.write("f", bytes)) == bytes);
}

TEST(ReadFile, GivesAFileThatAnotherProcessHasALeaseOn) {
  const TempDir dir;
  const std::string path = dir.write("f", "leased");
  const test::LeasedFile leased(path, F_WRLCK);
  if (!leased.isLeased()) GTEST_SKIP() << "no leases on the file system of " << path;
  EXPECT_EQ(content(path), "leased");
}

TEST(ReadFile, FollowsSymbolicLinks) {
  const TempDir dir;
  fs::create_symlink(dir.write("f", "linked"), dir / "link");
  EXPECT_EQ(content(dir / "link"), "linked");
}

// Deliberate: nothing that is read may be empty, so empty counts as missing.
TEST(ReadFile, RefusesAnEmptyFile) {
  const TempDir dir;
  EXPECT_FALSE(readable(dir.write("f", "")));
}

TEST(ReadFile, RefusesAMissingFileAndADanglingLink) {
  const TempDir dir;
  fs::create_symlink(dir / "nowhere", dir / "link");
  EXPECT_FALSE(readable(dir / "missing"));
  EXPECT_FALSE(readable(dir / "link"));
  EXPECT_FALSE(readable(""));
}

TEST(ReadFile, RefusesALinkToItself) {
  const TempDir dir;
  fs::create_symlink(dir / "loop", dir / "loop");
  EXPECT_FALSE(readable(dir / "loop"));
}

TEST(ReadFile, RefusesADirectory) {
  const TempDir dir;
  EXPECT_FALSE(readable(dir.path()));
}

TEST(ReadFile, RefusesAFifoAtOnceInsteadOfWaitingForAWriter) {
  const TempDir dir;
  const std::string path = dir / "fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_FALSE(readable(path));
}

TEST(ReadFile, RefusesDevicesTheEndlessOnesToo) {
  EXPECT_FALSE(readable("/dev/null"));
  EXPECT_FALSE(readable("/dev/zero"));
  EXPECT_FALSE(readable("/dev/full"));
  EXPECT_FALSE(readable("/dev/tty"));
}

TEST(ReadFile, RefusesASocket) {
  const TempDir dir;
  const std::string path = dir / "socket";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  path.copy(address.sun_path, path.size());
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_FALSE(readable(path));
  close(listener);
}

TEST(ReadFile, RefusesAFileWithoutReadPermission) {
  const TempDir dir;
  const std::string path = dir.write("f", "secret");
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  // The superuser may read any file, so step aside for the one call.
  const bool superuser = geteuid() == 0;
  if (superuser) {
    ASSERT_EQ(seteuid(65534), 0);
  }
  const bool read = readable(path);
  if (superuser) {
    ASSERT_EQ(seteuid(0), 0);
  }
  EXPECT_FALSE(read);
}

TEST(ReadFile, LeavesNoDescriptorOpen) {
  const auto openDescriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const TempDir dir;
  const std::string good = dir.write("f", "x");
  const std::string empty = dir.write("e", "");
  const auto before = openDescriptors();
  (void)readable(good);
  (void)readable(empty);
  (void)readable(dir.path());
  (void)readable("/dev/null");
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace zel
