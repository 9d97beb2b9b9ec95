#include "okv2/prepare/weights_plan.h"

#include <set>
#include <string_view>

#include "okv2/exit_codes.h"
#include "okv2/prepare/weight_limits.h"
#include "okv2/prepare/weight_refusals.h"
#include "okv2/prepare/weight_sources.h"

namespace zel::tool::prepare {
namespace {

using explain::Id;

// A tensor that the index names and its shard lacks is lost, whatever --drop says: nobody can tell what it
// was.
void compareWithIndex(const WeightSources& sources, const std::vector<std::unique_ptr<WeightFile>>& files) {
  for (const auto& file : files) {
    const auto listed = sources.indexed.find(file->name());
    if (listed == sources.indexed.end()) continue;
    std::set<std::string_view> present;
    for (const SourceTensor& tensor : file->tensors())
      present.insert(tensor.name);
    NameList missing;
    for (const std::string& name : listed->second) {
      if (present.count(name) == 0) missing.add("'" + name + "'");
    }
    if (missing.count() == 0) continue;
    refuseWeights(kExitCorrupted, Id::WeightsPartial, file->name(),
                  sources.index + " names tensors that it does not hold: " + missing.text(),
                  "Fetch the shard and the index file again.");
  }
}

}  // namespace

void WeightsPlan::open(const std::string& dir, const std::string& configDir, const WeightOptions& options,
                       Changes& changes) {
  const WeightSources sources = findWeightSources(dir, changes);
  std::vector<WeightFile*> views;
  std::size_t tensors = 0;
  for (const std::string& name : sources.names) {
    files_.push_back(std::make_unique<WeightFile>());
    files_.back()->open(dir, name, sources.safetensors);
    views.push_back(files_.back().get());
    tensors += files_.back()->tensors().size();
    if (tensors > kMaxModelTensors) {
      refuseWeights(kExitUnsupported, Id::WeightsRefused, name,
                    "with it there are more than " + std::to_string(kMaxModelTensors) + " tensors",
                    "Move away the files that are not the model's.");
    }
  }
  compareWithIndex(sources, files_);
  kind_ = readModelKind(configDir);
  shards_ = planShards(views, kind_, options, changes);
}

void WeightsPlan::place(PlannedShard& shard, const std::string& scratch) {
  WeightFile& file = *shard.file;
  std::vector<std::size_t> used;
  used.reserve(shard.tensors.size());
  for (const PlannedOutput& output : shard.tensors)
    used.push_back(output.source);
  file.unpack(used, scratch);
  for (PlannedOutput& output : shard.tensors) {
    const SourceTensor& source = file.tensors()[output.source];
    output.tensor.data = &file.dataOf(source);
    output.tensor.offset = file.offsetOf(source) + output.skip;
  }
}

}  // namespace zel::tool::prepare
