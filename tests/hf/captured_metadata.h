// The metadata items of a writer as text, read back from the container that it writes.
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "container/bytes.h"
#include "container/okv2_writer.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel::test {

struct CapturedItem {
  std::string key;
  std::string type;   // "u32", "i32", "f32", "u64", "str" or "u32[]"
  std::string value;  // floats with all their digits, strings as they are, arrays with spaces between
};

// "key type value": what tests compare.
inline std::string lineOf(const CapturedItem& item) { return item.key + " " + item.type + " " + item.value; }

inline std::vector<CapturedItem> metadataItems(OKV2Writer& writer) {
  // A container needs a tensor; its name sorts last and nobody looks at it.
  const std::uint64_t dims[] = {1};
  EXPECT_THAT(writer.addTensor("~", 0, dims, 1, "x", 1), IsOk());
  const TempDir dir;
  const std::string path = dir / "captured.okv2";
  EXPECT_THAT(writer.write(path.c_str()), IsOk());
  const std::string file = readWholeFile(path);
  const std::string section = file.substr(loadU64(file.data() + 72), loadU64(file.data() + 80));

  ByteReader in(section);
  const auto u8 = [&in] {
    std::uint8_t out = 0;
    EXPECT_TRUE(in.readU8(out));
    return out;
  };
  const auto u32 = [&in] {
    std::uint32_t out = 0;
    EXPECT_TRUE(in.readU32(out));
    return out;
  };
  const auto text = [&in](std::uint64_t size) {
    std::string_view out;
    EXPECT_TRUE(in.readBytes(size, out));
    return std::string(out);
  };
  std::vector<CapturedItem> items(u32());
  for (CapturedItem& item : items) {
    std::uint16_t keyLength = 0;
    EXPECT_TRUE(in.readU16(keyLength));
    item.key = text(keyLength);
    const unsigned type = u8();
    static constexpr const char* kNames[] = {"u32", "i32", "f32", "u64", "str", "u32[]"};
    EXPECT_LT(type, 6U);
    if (type >= 6) return items;
    item.type = kNames[type];
    switch (type) {
      case 0: item.value = std::to_string(u32()); break;
      case 1: item.value = std::to_string(static_cast<std::int32_t>(u32())); break;
      case 2: {
        char number[32];
        std::snprintf(number, sizeof number, "%.9g", double(std::bit_cast<float>(u32())));
        item.value = number;
        break;
      }
      case 3: {
        std::uint64_t out = 0;
        EXPECT_TRUE(in.readU64(out));
        item.value = std::to_string(out);
        break;
      }
      case 4: item.value = text(u32()); break;
      default:
        for (std::uint32_t left = u32(); left > 0; --left) {
          item.value += (item.value.empty() ? "" : " ") + std::to_string(u32());
        }
    }
  }
  EXPECT_TRUE(in.atEnd());
  return items;
}

inline std::vector<std::string> metadataLines(OKV2Writer& writer) {
  std::vector<std::string> lines;
  for (const CapturedItem& item : metadataItems(writer))
    lines.push_back(lineOf(item));
  return lines;
}

}  // namespace zel::test
