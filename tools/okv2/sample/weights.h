// The two weight formats of a sample model.
#pragma once

#include <cstdint>
#include <string>

#include "okv2/sample/plan.h"

namespace zel::sample {

// `shards` files model-0000K-of-0000N.safetensors of about equal size, in checkpoint order, and, when there
// is more than one, the index file that lists them. `shards` is at most the number of tensors.
[[nodiscard]] bool writeSafetensors(const std::string& directory, const Plan& plan, std::uint32_t shards,
                                    std::string& error);

// The size that pytorch_model.bin will have.
[[nodiscard]] std::uint64_t pytorchFileBytes(const Plan& plan);

// One file pytorch_model.bin in the dialect of docs/pytorch-dialect.md: a storage for each tensor.
[[nodiscard]] bool writePyTorch(const std::string& directory, const Plan& plan, std::string& error);

}  // namespace zel::sample
