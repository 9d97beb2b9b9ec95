#include "okv2/prepare/model_kind.h"

#include <algorithm>

#include "hf/hf_importer.h"
#include "okv2/prepare/config_table.h"

namespace zel::tool::prepare {
namespace {

void addTypes(const json::Value& config, std::vector<std::string>& out) {
  if (const json::Value* type = config.get("model_type"); type != nullptr && type->isString())
    out.push_back(type->text);
  const json::Value* classes = config.get("architectures");
  if (classes == nullptr) return;
  for (const json::Value& name : classes->items) {
    if (name.isString()) out.push_back(name.text);
  }
  if (classes->isString()) out.push_back(classes->text);
}

// The same object that is looked for when the configuration is mended: one of another kind, such as null, is
// passed over.
const json::Value* textConfigOf(const json::Value& config) {
  for (const NestedRow& row : kNestedRows) {
    const json::Value* nested = config.get(row.outer);
    if (nested != nullptr && nested->isObject() && row.inner != nullptr) nested = nested->get(row.inner);
    if (nested != nullptr && nested->isObject()) return nested;
  }
  return nullptr;
}

std::uint64_t sizeAt(const json::Value& config, const char* key) {
  std::int64_t size = 0;
  const json::Value* value = config.get(key);
  if (value == nullptr || !value->isNumber() || !json::toInt64(value->number, size) || size < 0) return 0;
  return static_cast<std::uint64_t>(size);
}

// Leaves `out` as it is where the configuration does not say.
void readBool(const json::Value& config, const char* key, bool& out) {
  if (const json::Value* value = config.get(key); value != nullptr && value->isBool()) out = value->boolean;
}

}  // namespace

bool ModelKind::isOneOf(std::span<const std::string_view> families) const {
  return std::any_of(types.begin(), types.end(), [&](const std::string& type) {
    return std::any_of(families.begin(), families.end(), [&](std::string_view family) {
      return std::string_view(type).substr(0, family.size()) == family;
    });
  });
}

bool ModelKind::isExactly(std::span<const std::string_view> names) const {
  return std::any_of(types.begin(), types.end(), [&](const std::string& type) {
    return std::find(names.begin(), names.end(), type) != names.end();
  });
}

ModelKind readModelKind(const std::string& dir) {
  HfImporter model;
  ModelKind kind;
  // A configuration that cannot be read is somebody else's to report, and one that names no architecture may
  // still name its text model.
  const Status status = model.parseConfig(dir);
  if (status.code() == Code::Corrupted) return kind;
  if (status.ok()) kind.architecture = model.arch;
  addTypes(model.config, kind.types);
  const json::Value* const text = textConfigOf(model.config);
  if (text != nullptr) addTypes(*text, kind.types);
  kind.heads = sizeAt(model.config, "n_head");
  if (kind.heads == 0) kind.heads = sizeAt(model.config, "num_attention_heads");
  kind.width = sizeAt(model.config, "n_embd");
  if (kind.width == 0) kind.width = sizeAt(model.config, "hidden_size");
  readBool(model.config, "multi_query", kind.multiQuery);
  readBool(model.config, "do_layer_norm_before", kind.normsFirst);
  if (text != nullptr) readBool(*text, "do_layer_norm_before", kind.normsFirst);
  return kind;
}

}  // namespace zel::tool::prepare
