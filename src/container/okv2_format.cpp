#include "container/okv2_format.h"

namespace zel::okv2 {
namespace {

std::array<std::uint64_t, 256> makeCrcTable() noexcept {
  // The polynomial of CRC-64/ECMA-182, shifted right without being bit-reversed: not the usual reflected
  // form, but OKV2 checksums are defined by this variant.
  constexpr std::uint64_t kPolynomial = 0x42F0E1EBA9EA3693;
  std::array<std::uint64_t, 256> table{};
  for (std::uint64_t byte = 0; byte < table.size(); ++byte) {
    std::uint64_t crc = byte;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? kPolynomial : 0);
    table[byte] = crc;
  }
  return table;
}

}  // namespace

std::uint64_t crc64(const void* data, std::size_t size, std::uint64_t crc) noexcept {
  // Local, so that two threads may both come here first.
  static const std::array<std::uint64_t, 256> table = makeCrcTable();
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < size; ++i)
    crc = (crc >> 8) ^ table[(crc ^ bytes[i]) & 0xFF];
  return crc;
}

}  // namespace zel::okv2
