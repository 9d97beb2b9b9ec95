#include "container/open_file.h"

#include <gtest/gtest.h>

#include <string>

#include <fcntl.h>
#include <sys/stat.h>

#include "container/descriptor.h"
#include "support/leased_file.h"
#include "support/temp_dir.h"

namespace zel {
namespace {

using test::LeasedFile;
using test::TempDir;

TEST(OpenFile, OpensAtOnceWhateverThePathLeadsTo) {
  const TempDir dir;
  EXPECT_TRUE(Descriptor(openFile(dir.write("f", "x").c_str(), O_RDONLY)).isOpen());
  EXPECT_TRUE(Descriptor(openFile((dir / "new").c_str(), O_WRONLY | O_CREAT, 0600)).isOpen());
  EXPECT_FALSE(Descriptor(openFile((dir / "absent").c_str(), O_RDONLY)).isOpen());
  const std::string fifo = dir / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_TRUE(Descriptor(openFile(fifo.c_str(), O_RDONLY)).isOpen());
  EXPECT_FALSE(Descriptor(openFile(fifo.c_str(), O_WRONLY)).isOpen());
}

TEST(OpenFile, WaitsForALeaseOnTheFileThatItReads) {
  const TempDir dir;
  const std::string path = dir.write("f", "x");
  const LeasedFile leased(path, F_WRLCK);
  if (!leased.isLeased()) GTEST_SKIP() << "no leases on the file system of " << path;
  EXPECT_TRUE(Descriptor(openFile(path.c_str(), O_RDONLY)).isOpen());
}

TEST(OpenFile, WaitsForALeaseOnTheFileThatItWrites) {
  const TempDir dir;
  const std::string path = dir.write("f", "x");
  const LeasedFile leased(path, F_RDLCK);
  if (!leased.isLeased()) GTEST_SKIP() << "no leases on the file system of " << path;
  EXPECT_TRUE(Descriptor(openFile(path.c_str(), O_WRONLY | O_CREAT, 0600)).isOpen());
}

}  // namespace
}  // namespace zel
