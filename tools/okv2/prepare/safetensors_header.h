// The header of any .safetensors file, whatever its element types; what follows the published format and not
// only what the plug-in takes. Format: README of the safetensors library.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"

namespace zel::tool::prepare {

inline constexpr std::size_t kHeaderLengthBytes = 8;  // the number at the start of the file

struct HeaderTensor {
  std::string name;
  std::string type;  // as spelled; may be one that is not in kElementTypes
  std::vector<std::uint64_t> shape;
  std::uint64_t offset = 0;  // from the start of the file
  std::uint64_t bytes = 0;
};

// Replaces `out` by the tensors in document order. Every range lies inside the file, and agrees with the
// shape where the type is known. Failures begin "safetensors: ":
//   Corrupted    the header does not fit the file or the format
//   Unsupported  more than kMaxFileTensors tensors
Status readSafetensorsHeader(std::string_view file, std::vector<HeaderTensor>& out);

}  // namespace zel::tool::prepare
