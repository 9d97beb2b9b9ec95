// Explanations as JSON.
#pragma once

#include "okv2/explain/explanation.h"
#include "okv2/json_output.h"

namespace zel::tool {

[[nodiscard]] Json findingsJson(const explain::Explanation& explanation);
[[nodiscard]] Json explanationJson(const explain::Explanation& explanation);

}  // namespace zel::tool
