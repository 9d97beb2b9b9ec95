// Containers as JSON.
#pragma once

#include "okv2/container_reader.h"
#include "okv2/json_output.h"

namespace zel::tool {

struct JsonParts {
  bool head = true, metadata = true, tokenizer = true, tensors = true;
};

// The document of `list --json`, with the parts that are wanted. The tokenizer's texts are included.
[[nodiscard]] Json containerJson(const ContainerView& view, const JsonParts& parts);

// {"key", "type", "value"}
[[nodiscard]] Json metaJson(const MetaView& item);

[[nodiscard]] Json tensorJson(const ContainerView& view, const TensorView& tensor);

[[nodiscard]] Json findingsJson(const Findings& findings);

}  // namespace zel::tool
