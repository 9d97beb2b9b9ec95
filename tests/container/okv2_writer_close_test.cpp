#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "writer_fixture.h"

namespace {
bool closeFails = false;
}

extern "C" int __real_close(int fd);

// As on a network file system that notices only now that the disk is full: the descriptor is gone and an
// error is reported.
extern "C" int __wrap_close(int fd) {
  const int result = __real_close(fd);
  if (!closeFails) return result;
  errno = EIO;
  return -1;
}

namespace zel {
namespace {

TEST(OKV2WriterClose, ReportsAFailedCloseAndLeavesTheFile) {
  OKV2Writer writer;
  test::fillMinimal(writer);
  const test::TempDir dir;
  const std::string path = dir / "out.okv2";
  closeFails = true;
  const Status status = writer.write(path.c_str());
  closeFails = false;
  EXPECT_THAT(status, test::StatusIs(Code::InvalidFormat, "OKV2: close failed"));
  EXPECT_EQ(test::readWholeFile(path), test::containerOf(writer));
}

}  // namespace
}  // namespace zel
