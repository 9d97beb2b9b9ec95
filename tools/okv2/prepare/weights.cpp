#include "okv2/prepare/weights.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "okv2/exit_codes.h"
#include "okv2/prepare/safetensors_writer.h"
#include "okv2/prepare/source_guard.h"
#include "okv2/prepare/weight_limits.h"
#include "okv2/prepare/weight_refusals.h"
#include "okv2/prepare/weights_plan.h"

namespace zel::tool::prepare {
namespace {

namespace fs = std::filesystem;
using explain::Id;

void refuseOverflows(const PlannedShard& shard) {
  NameList floats;
  NameList integers;
  for (const PlannedOutput& output : shard.tensors) {
    const OutputTensor& tensor = output.tensor;
    if (tensor.castFrom == nullptr) continue;
    readGuarded(*tensor.data, [&] {
      if (fitsFloat32(tensor)) return;
      (tensor.castFrom->carried == Carried::AsF32 ? floats : integers).add("'" + tensor.name + "'");
    });
  }
  const auto refuse = [&](const std::string& what) {
    refuseWeights(kExitUnsupported, Id::WeightsType, shard.file->name(), what,
                  "Pass --drop REGEX for the tensors that inference does not need.");
  };
  if (floats.count() > 0) refuse("64-bit floats too large for 32 bits are in " + floats.text());
  if (integers.count() > 0) refuse("integers that no 32-bit float equals are in " + integers.text());
}

std::vector<OutputTensor> tensorsOf(const PlannedShard& shard) {
  std::vector<OutputTensor> tensors;
  tensors.reserve(shard.tensors.size());
  for (const PlannedOutput& output : shard.tensors)
    tensors.push_back(output.tensor);
  return tensors;
}

void refuseLongHeader(const PlannedShard& shard) {
  if (safetensorsHeaderFits(tensorsOf(shard), kMaxSafetensorsHeaderBytes)) return;
  refuseWeights(kExitUnsupported, Id::WeightsRefused, shard.file->name(),
                "written anew, its header would be longer than " +
                    std::to_string(kMaxSafetensorsHeaderBytes) + " bytes",
                "Give its tensors shorter names.");
}

void linkShard(const std::string& dir, const PlannedShard& shard, const std::string& out) {
  const std::string link = out + "/" + shard.outputName;
  // Only the file system can tell what ".." means behind a symbolic link.
  std::error_code error;
  const fs::path folder = fs::canonical(dir, error);
  if (!error) {
    const fs::path target = folder / shard.file->name();
    if (::symlink(target.c_str(), link.c_str()) == 0) return;
    error = std::error_code(errno, std::generic_category());
  }
  throw Refused(kExitIoError, "", link + ": cannot be created: " + std::strerror(error.value()),
                "Choose another OUT.");
}

void writeShard(const PlannedShard& shard, const std::string& out) {
  writeSafetensors(out + "/" + shard.outputName, tensorsOf(shard));
}

}  // namespace

std::vector<explain::Finding> prepareWeights(const std::string& dir, const std::string& out,
                                             const WeightOptions& options, Changes& changes) {
  WeightsPlan plan;
  // As an import will read it, where it is prepared already.
  std::error_code ignored;
  plan.open(dir, fs::exists(out + "/config.json", ignored) ? out : dir, options, changes);
  for (PlannedShard& shard : plan.shards()) {
    if (shard.link) continue;
    WeightsPlan::place(shard, out);
    refuseOverflows(shard);
    refuseLongHeader(shard);
  }
  for (const PlannedShard& shard : plan.shards())
    shard.link ? linkShard(dir, shard, out) : writeShard(shard, out);
  return plan.unmappedNames();
}

}  // namespace zel::tool::prepare
