// An executable of its own: nothing in it has used the checksum before the threads do.
#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>
#include <thread>
#include <vector>

#include "container/okv2_format.h"

namespace zel::okv2 {
namespace {

// CRC-64 of "123456789" by hand, as in the tests of the checksum itself.
constexpr std::string_view kText = "123456789";
constexpr std::uint64_t kCrc = 0x4DB9A9F87EC10C59;

TEST(Crc64FirstUse, MayComeFromManyThreads) {
  std::vector<std::uint64_t> values(8);
  std::vector<std::thread> threads;
  for (std::uint64_t& value : values) {
    threads.emplace_back([&value] { value = crc64(kText.data(), kText.size()); });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (const std::uint64_t value : values)
    EXPECT_EQ(value, kCrc);
}

}  // namespace
}  // namespace zel::okv2
