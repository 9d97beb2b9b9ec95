// The bytes of one tensor that is to be written: where they lie, and how they become contiguous elements.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "okv2/prepare/element_type.h"

namespace zel::tool::prepare {

// A file that tensors lie in. Both members belong to somebody else.
inline constexpr std::size_t kPieceBytes = std::size_t{256} * 1024;  // of tensor data, at once

struct DataFile {
  std::string path;  // for messages
  int descriptor = -1;
  std::string_view bytes;  // all of it, mapped
};

struct OutputTensor {
  std::string name;
  std::string type;                  // as the header will spell it
  std::vector<std::uint64_t> shape;  // as the header will have it
  std::uint64_t bytes = 0;           // that will be written
  const DataFile* data = nullptr;
  std::uint64_t offset = 0;               // of the first element, from the start of `data`
  std::uint32_t elementBytes = 0;         // in `data`; 0 for block types, which are contiguous
  std::vector<std::uint64_t> extents;     // that the strides belong to
  std::vector<std::uint64_t> strides;     // in elements; empty when the elements lie one after the other
  const ElementType* castFrom = nullptr;  // elements of this type become 32-bit floats; null for none
};

// Whether `strides` are those of elements that lie one after the other, the last extent fastest.
[[nodiscard]] bool isContiguous(const std::vector<std::uint64_t>& extents,
                                const std::vector<std::uint64_t>& strides) noexcept;

// Walks the elements of a tensor in the order of its extents. Every element must lie in `data->bytes`.
class ElementReader {
 public:
  explicit ElementReader(const OutputTensor& tensor);

  // Copies the next elements, at most `room` bytes of them, to `out`; the bytes copied, 0 at the end.
  [[nodiscard]] std::size_t next(char* out, std::size_t room);

 private:
  void advance();

  const char* base_;
  std::uint32_t elementBytes_;
  std::vector<std::uint64_t> extents_;
  std::vector<std::uint64_t> strides_;
  std::vector<std::uint64_t> index_;
  std::uint64_t at_ = 0;    // of the next element, in elements
  std::uint64_t left_ = 0;  // elements
};

// The bytes of a tensor as they are to be written, where they do not lie in the file so: gathered, and cast.
class ConvertedBytes {
 public:
  explicit ConvertedBytes(const OutputTensor& tensor);

  // The next ones; empty at the end. They are gone with the next call.
  [[nodiscard]] std::string_view next();

 private:
  ElementReader reader_;
  const ElementType* castFrom_;
  std::vector<char> gathered_;
  std::vector<char> cast_;
};

// Whether its elements lie in the file as they are to be written.
[[nodiscard]] inline bool isWrittenAsItLies(const OutputTensor& tensor) noexcept {
  return tensor.strides.empty() && tensor.castFrom == nullptr;
}

// Whether 32-bit floats can stand for the elements of a tensor that is cast: every integer is the same
// number, and every finite 64-bit float stays finite.
[[nodiscard]] bool fitsFloat32(const OutputTensor& tensor);

// Turns `count` elements at `from` into 32-bit floats at `to`, rounding 64-bit floats to nearest. A boolean
// is 1 unless all its bits are 0. `type` is one that --cast or --cast-integers takes.
void castToFloat32(const ElementType& type, const char* from, std::size_t count, char* to) noexcept;

}  // namespace zel::tool::prepare
