// Tensors whose names say nothing to a reader of the container.
#pragma once

#include <vector>

#include "okv2/explain/explanation.h"
#include "okv2/prepare/model_kind.h"
#include "okv2/prepare/tensor_plan.h"

namespace zel::tool::prepare {

// What an import of the planned shards would store under names that are not the container's own: one finding
// that counts the tensors, and one that counts the fused projections among them, which stay whole.
[[nodiscard]] std::vector<explain::Finding> findUnmappedNames(const std::vector<PlannedShard>& shards,
                                                              const ModelKind& kind);

}  // namespace zel::tool::prepare
