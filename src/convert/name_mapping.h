// Tensor names: from a checkpoint's spelling to the container's.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace zel::adapter {

// One part of a fused tensor. The parts are equal consecutive row blocks, in slice order.
struct Slice {
  std::string name;
  std::uint64_t offset = 0;
  std::uint64_t length = std::numeric_limits<std::uint64_t>::max();  // an equal share
};

struct MappedName {
  bool ok = false;            // false only for an empty source name
  std::string name;           // empty when `slices` is used
  std::vector<Slice> slices;  // query, key, value for a fused projection; else empty
};

// Pure; never fails but for an empty name. `arch` is the architecture that the configuration settled.
[[nodiscard]] MappedName toOkvName(const std::string& arch, const std::string& srcName);

}  // namespace zel::adapter
