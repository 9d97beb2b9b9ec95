// Constants of the OKV2 container file. docs/container-format.md has the whole layout.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zel::okv2 {

inline constexpr std::string_view kMagic = "OKV2";
inline constexpr std::string_view kTknz = "TKNZ";
inline constexpr std::uint32_t kVersion = 2;
inline constexpr std::uint32_t kByteOrderMark = 0x01020304;

inline constexpr std::uint64_t kAlignment = 64;  // of every section and every tensor's data
inline constexpr std::size_t kHeaderBytes = 64;
inline constexpr std::size_t kHeaderChecksumOffset = 56;  // u64; the checksum covers the bytes before it
inline constexpr std::size_t kSectionEntryBytes = 24;
inline constexpr std::size_t kSectionCount = 7;
inline constexpr std::size_t kSectionTableBytes = kSectionCount * kSectionEntryBytes;
inline constexpr std::uint64_t kFirstSectionOffset = 256;
inline constexpr std::size_t kTensorEntryBytes = 128;
inline constexpr std::size_t kTensorNameBytes = 64;  // the name field; the last byte is always zero
inline constexpr std::size_t kMaxDims = 4;
inline constexpr std::size_t kLayoutEntryBytes = 32;

enum class SectionType : std::uint32_t {
  Metadata = 1,
  Tokenizer = 2,
  Graph = 3,
  TensorIndex = 4,
  Weights = 5,
  TensorLayout = 6,
  ChatTemplate = 7,
};

// The order of the sections in the file. The weights come last although their type is 5, so that
// everything a reader needs first lies together at the front.
inline constexpr std::array<SectionType, kSectionCount> kFileOrder = {
    SectionType::Metadata,     SectionType::Tokenizer,    SectionType::Graph,   SectionType::TensorIndex,
    SectionType::TensorLayout, SectionType::ChatTemplate, SectionType::Weights,
};

// Value tags of metadata items.
enum class MetaType : std::uint8_t { U32 = 0, I32 = 1, F32 = 2, U64 = 3, Str = 4, U32Array = 5 };

// `value` rounded up to a multiple of 64; the caller keeps it 63 below the 64-bit limit.
[[nodiscard]] constexpr std::uint64_t align(std::uint64_t value) noexcept {
  return (value + (kAlignment - 1)) & ~(kAlignment - 1);
}

// CRC-64 of `size` bytes, continuing from `crc` (0 at the start; no final XOR).
// Check value for "123456789": 0x4DB9A9F87EC10C59. Thread-safe.
[[nodiscard]] std::uint64_t crc64(const void* data, std::size_t size, std::uint64_t crc = 0) noexcept;

}  // namespace zel::okv2
