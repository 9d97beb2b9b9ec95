#include "okv2/prepare/weights.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <unordered_set>

#include "hf/hf_importer.h"
#include "okv2/exit_codes.h"
#include "okv2/prepare/safetensors_writer.h"
#include "okv2/prepare/tensor_plan.h"
#include "okv2/prepare/weight_file.h"
#include "okv2/prepare/weight_refusals.h"
#include "okv2/prepare/weight_sources.h"

namespace zel::tool::prepare {
namespace {

namespace fs = std::filesystem;
using explain::Id;

// Only the names of Gemma's norms depend on it; a configuration that cannot be read is somebody else's to
// report.
std::string architectureOf(const std::string& dir) {
  HfImporter model;
  return model.parseConfig(dir).ok() ? model.arch : "";
}

// A tensor that the index names and its shard lacks is lost; --drop says that it is not missed.
void compareWithIndex(const WeightSources& sources, const std::vector<std::unique_ptr<WeightFile>>& files) {
  for (const auto& file : files) {
    const auto listed = sources.indexed.find(file->name());
    if (listed == sources.indexed.end()) continue;
    std::unordered_set<std::string_view> present;
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

// Settles where the bytes of the tensors that are written lie.
void placeTensors(PlannedShard& shard, const std::string& out) {
  WeightFile& file = *shard.file;
  std::vector<std::size_t> used;
  used.reserve(shard.tensors.size());
  for (const PlannedOutput& output : shard.tensors)
    used.push_back(output.source);
  file.unpack(used, out);
  for (PlannedOutput& output : shard.tensors) {
    const SourceTensor& source = file.tensors()[output.source];
    output.tensor.data = &file.dataOf(source);
    output.tensor.offset = file.offsetOf(source) + output.skip;
  }
}

void refuseOverflows(const PlannedShard& shard) {
  NameList names;
  for (const PlannedOutput& output : shard.tensors) {
    if (output.tensor.cast && !fitsFloat32(output.tensor)) names.add("'" + output.tensor.name + "'");
  }
  if (names.count() == 0) return;
  refuseWeights(kExitUnsupported, Id::WeightsType, shard.file->name(),
                "64-bit floats too large for 32 bits are in " + names.text(),
                "Pass --drop REGEX for the tensors that inference does not need.");
}

void linkShard(const PlannedShard& shard, const std::string& out) {
  const std::string target = fs::absolute(shard.file->path()).lexically_normal().native();
  const std::string link = out + "/" + shard.outputName;
  if (::symlink(target.c_str(), link.c_str()) == 0) return;
  throw Refused(kExitIoError, "", link + ": cannot be created: " + std::strerror(errno),
                "Choose another OUT.");
}

void writeShard(const PlannedShard& shard, const std::string& out) {
  std::vector<OutputTensor> tensors;
  tensors.reserve(shard.tensors.size());
  for (const PlannedOutput& output : shard.tensors)
    tensors.push_back(output.tensor);
  writeSafetensors(out + "/" + shard.outputName, tensors);
}

}  // namespace

void prepareWeights(const std::string& dir, const std::string& out, const WeightOptions& options,
                    Changes& changes) {
  const WeightSources sources = findWeightSources(dir, changes);
  std::vector<std::unique_ptr<WeightFile>> files;
  std::vector<WeightFile*> views;
  for (const std::string& name : sources.names) {
    files.push_back(std::make_unique<WeightFile>());
    files.back()->open(dir, name, sources.safetensors);
    views.push_back(files.back().get());
  }
  compareWithIndex(sources, files);
  std::vector<PlannedShard> shards = planShards(views, architectureOf(dir), options, changes);
  for (PlannedShard& shard : shards) {
    if (shard.link) continue;
    placeTensors(shard, out);
    refuseOverflows(shard);
  }
  for (const PlannedShard& shard : shards)
    shard.link ? linkShard(shard, out) : writeShard(shard, out);
}

}  // namespace zel::tool::prepare
