// Decides what a sample model consists of: its extents and its list of tensors.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "container/dtype.h"
#include "okv2/sample/sample.h"

namespace zel::sample {

struct PlannedTensor {
  std::string name;
  DType dtype = DType::F32;  // F32, F16 or BF16
  std::vector<std::uint64_t> shape;
  std::uint64_t bytes = 0;
};

struct Plan {
  Arch arch = Arch::Llama;
  std::uint64_t hidden = 0;
  std::uint64_t layers = 0;
  std::uint64_t headDim = 0;
  std::uint64_t heads = 0;
  std::uint64_t kvHeads = 0;
  std::uint64_t intermediate = 0;
  std::uint64_t perLayerInput = 0;  // gemma4
  std::uint64_t context = 0;
  std::uint64_t vocab = 0;
  std::vector<PlannedTensor> tensors;  // in checkpoint order
  std::uint64_t weightBytes = 0;
};

// Pure. `options.vocab` and so on must be within the limits that writeModelDirectory() checks.
[[nodiscard]] Plan makePlan(const Options& options);

}  // namespace zel::sample
