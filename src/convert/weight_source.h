// What weight conversion knows about a weight file, whatever its format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "container/dtype.h"

namespace zel {

// Filled by WeightSource::tensorAt(); the caller owns it and may reuse it for every index.
struct WeightTensor {
  std::string name;  // as stored in the source file
  DType dtype = DType::F32;
  std::uint16_t ndim = 0;      // a source may count more than the four extents that it stores
  std::uint64_t dims[4] = {};  // the first min(ndim, 4) are written, the rest keep what they held
  const void* data = nullptr;  // null when the data lie outside the mapped file
  std::uint64_t nbytes = 0;    // as the source file declares it
};

// An indexed, read-only list of named tensors whose data are in memory while the source lives.
class WeightSource {
 public:
  virtual ~WeightSource() = default;
  [[nodiscard]] virtual std::size_t count() const = 0;
  // Describes tensor `i`; true when `out.data` is usable. `out` is untouched when `i` is out of range.
  [[nodiscard]] virtual bool tensorAt(std::size_t i, WeightTensor& out) const = 0;
  // Null when `i` is out of range; the name lives as long as the source.
  [[nodiscard]] virtual const std::string* nameAt(std::size_t i) const = 0;
};

}  // namespace zel
