#include "okv2/prepare/weights.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "okv2/exit_codes.h"
#include "okv2/prepare/safetensors_writer.h"
#include "okv2/prepare/weight_refusals.h"
#include "okv2/prepare/weights_plan.h"

namespace zel::tool::prepare {
namespace {

namespace fs = std::filesystem;
using explain::Id;

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
  WeightsPlan plan;
  plan.open(dir, options, changes);
  for (PlannedShard& shard : plan.shards()) {
    if (shard.link) continue;
    WeightsPlan::place(shard, out);
    refuseOverflows(shard);
  }
  for (const PlannedShard& shard : plan.shards())
    shard.link ? linkShard(shard, out) : writeShard(shard, out);
}

}  // namespace zel::tool::prepare
