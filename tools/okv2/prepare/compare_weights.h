// A container's tensors against the directory that was prepared for it.
#pragma once

#include <string>
#include <vector>

#include "okv2/container_reader.h"
#include "okv2/prepare/weights.h"

namespace zel::tool::prepare {

// Prepares the weights of `dir` once more, without writing them, and compares name, type, shape and every
// byte. One text for each difference, escaped, at most 100 of them; empty when there is none. Throws Refused
// as prepareWeights() does.
[[nodiscard]] std::vector<std::string> compareWeights(const ContainerView& view, const std::string& dir,
                                                      const WeightOptions& options);

}  // namespace zel::tool::prepare
