// The index file of a model in shards: which tensor lies in which file. An import does not read it.
#include <fmt/format.h>

#include <cstddef>
#include <map>

#include "okv2/explain/steps.h"
#include "okv2/explain/tokenizer_walk.h"
#include "okv2/plan/weight_files.h"

namespace zel::explain {
namespace {

constexpr char kSafetensorsIndex[] = "model.safetensors.index.json";

// What the index places in one file.
struct Placed {
  std::size_t tensors = 0;
  std::size_t lacking = 0;  // that no file holds
  std::string firstLacking;
};

// The object of tensor and file; null, with a finding, when there is none.
const json::Value* weightMap(const std::string& indexName, const std::string& text, json::Value& root,
                             Explanation& out) {
  if (!json::parse(text.data(), text.size(), root).ok()) {
    const JsonFault fault = jsonFaultOf(text);
    out.add(Id::WeightsIndexUnusable, indexName, fmt::format("byte {}: {}", fault.offset, fault.message));
    if (fault.cutShort) out.add(Id::FilePartial, indexName, "the text ends in the middle");
    return nullptr;
  }
  const json::Value* map = root.get("weight_map");
  if (map != nullptr && map->isObject()) return map;
  out.add(Id::WeightsIndexUnusable, indexName,
          !root.isObject() ? std::string("$ is ") + kindName(root.kind)
          : map == nullptr ? std::string("$.weight_map is absent")
                           : std::string("$.weight_map is ") + kindName(map->kind));
  return nullptr;
}

std::map<std::string, Placed> placedBy(const json::Value& map, const std::string& indexName,
                                       const OpenedWeights& opened, Explanation& out) {
  std::map<std::string, Placed> placed;
  std::size_t nameless = 0;
  std::string first;
  for (const auto& [tensor, file] : map.members) {
    if (file.str().empty()) {
      if (nameless++ == 0) first = fmt::format("$.weight_map[\"{}\"], {}", tensor, shortJson(file));
      continue;
    }
    Placed& entry = placed[file.str()];
    ++entry.tensors;
    if (opened.tensors.count(tensor) != 0) continue;
    if (entry.lacking++ == 0) entry.firstLacking = tensor;
  }
  if (nameless > 0) {
    out.add(
        Id::WeightsIndexUnusable, indexName,
        fmt::format("{} of {} entries name no file, the first is {}", nameless, map.members.size(), first));
  }
  return placed;
}

}  // namespace

void explainIndex(const Directory& directory, const std::string& indexName, const OpenedWeights& opened,
                  Explanation& out) {
  const auto look = directory.files.find(indexName);
  // What disguises it is reported with the other files.
  if (look == directory.files.end() || look->second.disguise != Disguise::None) return;
  json::Value root;
  const json::Value* map = weightMap(indexName, contentOf(directory.pathOf(indexName)), root, out);
  if (map == nullptr) return;
  const std::map<std::string, Placed> placed = placedBy(*map, indexName, opened, out);
  for (const auto& [file, entry] : placed) {
    if (!directory.has(file)) {
      out.add(Id::WeightsIndexMissing, file,
              fmt::format("{} names it for {} tensors", indexName, entry.tensors));
    } else if (opened.files.count(file) != 0 && entry.lacking > 0) {
      out.add(Id::WeightsIndexTensorMissing, file,
              fmt::format("{} places {} of {} tensors there that no file holds, the first is {}", indexName,
                          entry.lacking, entry.tensors, entry.firstLacking));
    }
  }
  for (const auto& [name, ignored] : directory.files) {
    if (plan::isSafetensorsName(name) && placed.count(name) == 0 && indexName == kSafetensorsIndex) {
      out.add(Id::WeightsIndexUnlisted, name, indexName);
    }
  }
}

}  // namespace zel::explain
