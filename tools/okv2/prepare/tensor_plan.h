// What becomes of every tensor: kept, renamed, cast, made contiguous, split or left out.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "okv2/prepare/model_kind.h"
#include "okv2/prepare/outcome.h"
#include "okv2/prepare/weight_file.h"
#include "okv2/prepare/weights.h"

namespace zel::tool::prepare {

// A tensor that is written, or stays in a shard that is linked.
struct PlannedOutput {
  OutputTensor tensor;     // `data` and `offset` are settled when it is written
  std::size_t source = 0;  // position in WeightFile::tensors()
  std::uint64_t skip = 0;  // bytes from the source's first element to this tensor's
};

struct PlannedShard {
  WeightFile* file = nullptr;
  std::string outputName;
  bool link = false;  // it is fine as it is
  std::vector<PlannedOutput> tensors;
};

// Decides about the tensors of all files, which belong to a model of the kind `kind`. Appends what it changes
// to `changes`, and every expression of --drop that matches nothing. Throws Refused where something would be
// lost that no option asks to lose: element types, tensors without elements, rows of fused tensors, names
// that collide in the container.
[[nodiscard]] std::vector<PlannedShard> planShards(const std::vector<WeightFile*>& files,
                                                   const ModelKind& kind, const WeightOptions& options,
                                                   Changes& changes);

// The name under which a shard is written: "model-00001-of-00002.safetensors" for a torch shard.
[[nodiscard]] std::string outputNameOf(const std::string& sourceName);

}  // namespace zel::tool::prepare
