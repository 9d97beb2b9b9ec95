// Element types and their block geometry: the one table that the container writer, the safetensors reader
// and the fused split of weight conversion read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace zel {

// The values are stored in containers: append, never reorder.
enum class DType : std::uint16_t {
  F32 = 0,
  F16 = 1,
  BF16 = 2,
  Block32x18 = 3,  // 32 elements in 18 bytes; no reader produces it
  Block32x34 = 4,  // 32 elements in 34 bytes; no reader produces it
  Q4_K = 5,
  Q5_K = 6,
  Q6_K = 7,
  Block256x290 = 8,  // 256 elements in 290 bytes; no reader produces it
};

struct BlockGeometry {
  std::uint16_t blockElements;  // elements in one block; 1 for plain floats
  std::uint32_t blockBytes;     // bytes of one block
  std::uint32_t layout[3];      // the three layout values of the container's layout table
  std::uint32_t splitUnit;      // bytes per element (or per 256-row block) by which a fused tensor is cut
  std::uint16_t containerCode;  // the DType value under which weight conversion declares it
};

// Row n describes DType n.
// Types 3, 4 and 8 are declared as code 0 and cut by 4-byte units although their blocks are of other sizes;
// on purpose.
inline constexpr BlockGeometry kBlockGeometry[] = {
    {1, 4, {0, 0, 0}, 4, 0},             // F32
    {1, 2, {0, 0, 0}, 2, 1},             // F16
    {1, 2, {0, 0, 0}, 2, 2},             // BF16
    {32, 18, {2, 0, 0}, 4, 0},           // Block32x18
    {32, 34, {2, 0, 0}, 4, 0},           // Block32x34
    {256, 144, {12, 4, 2}, 144, 5},      // Q4_K
    {256, 176, {12, 4, 2}, 176, 6},      // Q5_K
    {256, 210, {16, 192, 208}, 210, 7},  // Q6_K
    {256, 290, {2, 0, 65535}, 4, 0},     // Block256x290
};
inline constexpr std::size_t kDTypeCount = std::size(kBlockGeometry);
static_assert(kDTypeCount == static_cast<std::size_t>(DType::Block256x290) + 1);

// The geometry of a DType value, or null when the value is above the last row.
[[nodiscard]] constexpr const BlockGeometry* findBlockGeometry(std::uint16_t dtype) noexcept {
  return dtype < kDTypeCount ? &kBlockGeometry[dtype] : nullptr;
}

}  // namespace zel
