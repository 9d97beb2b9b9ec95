// Which weight files of a directory an import takes.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"
#include "okv2/plan/mapped_weights.h"

namespace zel::plan {

struct WeightFiles {
  MappedWeights::Format format = MappedWeights::Format::Safetensors;
  std::vector<std::string> names;  // without the directory, in the order of the import
};

[[nodiscard]] bool isSafetensorsName(std::string_view name);

// Every name ending in ".safetensors", in byte order, or else the regular file pytorch_model.bin.
//   IOError        the directory cannot be listed
//   InvalidFormat  there is neither
Status findWeightFiles(const std::string& directory, WeightFiles& out);

}  // namespace zel::plan
