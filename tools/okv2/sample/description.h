// config.json and the side files of a sample model.
#pragma once

#include <string>

#include "okv2/sample/plan.h"

namespace zel::sample {

[[nodiscard]] std::string configText(const Plan& plan);
[[nodiscard]] std::string tokenizerConfigText(const Plan& plan);
[[nodiscard]] std::string specialTokensMapText(const Plan& plan);
[[nodiscard]] std::string generationConfigText(const Plan& plan);

}  // namespace zel::sample
