// Settings of config.json that are given where an import does not look: under another spelling, or in the
// nested description of a model's text part.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "hf/hf_importer.h"
#include "okv2/explain/explanation.h"

namespace zel::explain {

// A nested object that describes the text model, or config.json itself.
struct TextModel {
  std::string path;  // "text_config." for members of that object; empty for config.json itself
  const json::Value* config = nullptr;
};

// Those that `config` has, itself not among them.
[[nodiscard]] std::vector<TextModel> nestedTextModels(const json::Value& config);

// The member that a path like "rope_parameters.rope_theta" leads to; null when there is none.
[[nodiscard]] const json::Value* memberAt(const json::Value& object, std::string_view path);

// Whether one of the places holds a value for the key that is read.
[[nodiscard]] bool isGivenElsewhere(const json::Value& config, std::string_view key);

// Names the values that are left there. `out.vocabSize` is set.
void explainConfigPlaces(const HfImporter& model, Explanation& out);

}  // namespace zel::explain
