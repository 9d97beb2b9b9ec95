// The weights of a directory, read and decided about; nothing is written yet.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "okv2/prepare/model_kind.h"
#include "okv2/prepare/outcome.h"
#include "okv2/prepare/tensor_plan.h"
#include "okv2/prepare/unmapped_names.h"
#include "okv2/prepare/weight_file.h"
#include "okv2/prepare/weights.h"

namespace zel::tool::prepare {

class WeightsPlan {
 public:
  // Opens every weight file of `dir` and settles what becomes of its tensors; called once. The directory
  // `configDir` has the config.json that an import will read. Appends what is changed to `changes`. Throws
  // Refused.
  void open(const std::string& dir, const std::string& configDir, const WeightOptions& options,
            Changes& changes);

  // As HfImporter names it; empty when the configuration does not tell.
  [[nodiscard]] const std::string& architecture() const noexcept { return kind_.architecture; }
  [[nodiscard]] std::vector<PlannedShard>& shards() noexcept { return shards_; }
  // What an import of the shards would leave under names that nobody knows.
  [[nodiscard]] std::vector<explain::Finding> unmappedNames() const {
    return findUnmappedNames(shards_, kind_);
  }

  // Settles where the bytes of the shard's tensors lie; packed ones are unpacked to a file without a name
  // in the directory `scratch`. Throws Refused when they are damaged.
  static void place(PlannedShard& shard, const std::string& scratch);

 private:
  ModelKind kind_;
  std::vector<std::unique_ptr<WeightFile>> files_;
  std::vector<PlannedShard> shards_;
};

}  // namespace zel::tool::prepare
