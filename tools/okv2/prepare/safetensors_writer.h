// Writes .safetensors files in constant memory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "okv2/prepare/tensor_data.h"

namespace zel::tool::prepare {

// Writes a shard of these tensors, in this order, to `path`, which appears only when it is complete. Bytes
// that lie one after the other are handed to the kernel where they are mapped. Throws Refused when the
// operating system does not read or write, or a source is shorter than it was.
void writeSafetensors(const std::string& path, const std::vector<OutputTensor>& tensors);

// The length, the JSON text and its padding, as they begin the file.
[[nodiscard]] std::string safetensorsHeader(const std::vector<OutputTensor>& tensors);

// Whether the header's text and padding have at most `most` bytes.
[[nodiscard]] bool safetensorsHeaderFits(const std::vector<OutputTensor>& tensors, std::uint64_t most);

}  // namespace zel::tool::prepare
