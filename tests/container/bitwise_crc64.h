// The container's checksum worked bit by bit, with no table: a second pen beside okv2::crc64.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zel::test {

// Divides the bits, least significant first, by 0x42F0E1EBA9EA3693 taken as it stands.
inline std::uint64_t bitwiseCrc64(std::string_view bytes) {
  std::uint64_t remainder = 0;
  for (const char byte : bytes) {
    for (int bit = 0; bit < 8; ++bit) {
      const std::uint64_t in = static_cast<unsigned char>(byte) >> bit & 1U;
      const bool odd = ((remainder ^ in) & 1U) != 0;
      remainder >>= 1;
      if (odd) remainder ^= 0x42F0E1EBA9EA3693U;
    }
  }
  return remainder;
}

// What belongs at offset 56 of a container: the checksum of the 56 bytes before it and of the section table.
inline std::uint64_t headerChecksum(std::string_view container) {
  return bitwiseCrc64(std::string(container.substr(0, 56)) + std::string(container.substr(64, 168)));
}

}  // namespace zel::test
