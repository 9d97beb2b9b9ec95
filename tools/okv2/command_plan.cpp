// plan: what an import would write, to the byte, without writing it.
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/statvfs.h>

#include <filesystem>
#include <optional>

#include "okv2/commands.h"
#include "okv2/container_reader.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/failure.h"
#include "okv2/json_output.h"
#include "okv2/messages.h"
#include "okv2/plan/import_plan.h"

namespace zel::tool {
namespace {

using plan::ImportPlan;
using plan::PlannedTensor;

// Of the file system that `output` would lie on, for this user; nothing when it cannot be had.
std::optional<std::uint64_t> freeSpace(const std::string& output) {
  const std::string folder = std::filesystem::path(output).parent_path().native();
  struct statvfs status;
  if (::statvfs(folder.empty() ? "." : folder.c_str(), &status) != 0) return std::nullopt;
  return static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize;
}

// Nothing when it is unlimited.
std::optional<std::uint64_t> addressSpaceLimit() {
  struct rlimit limit;
  if (::getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return std::nullopt;
  return limit.rlim_cur;
}

std::uint64_t weightsOffset(const ImportPlan& plan) { return plan.sections.back().offset; }

std::string shapeText(const PlannedTensor& tensor) {
  std::string out = "[";
  for (std::uint16_t k = 0; k < tensor.ndim; ++k)
    out += fmt::format("{}{}", k > 0 ? ", " : "", tensor.dims[k]);
  return out + "]";
}

void printText(const PlanOptions& options, const ImportPlan& plan) {
  fmt::print("{}: {} tensors, {} bytes\n", escaped(options.directory), plan.tensors.size(), plan.fileBytes);
  const auto free = freeSpace(options.output);
  fmt::print("  free space {}, address space for the weight files {}\n\n",
             free ? std::to_string(*free) : "unknown", plan.addressSpace);
  fmt::print("weight files\n");
  for (const plan::InputFile& file : plan.weights)
    fmt::print("  {:>16}  {}\n", file.bytes, escaped(file.name));
  fmt::print("\nsections\n  {:<14} {:>16} {:>16}\n", "name", "offset", "size");
  for (const plan::PlannedSection& section : plan.sections) {
    fmt::print("  {:<14} {:>16} {:>16}\n", sectionName(section.type), section.offset, section.size);
  }
  fmt::print("\ntensors: {}\n  {:<48} {:<6} {:<20} {:>14} {:>16}\n", plan.tensors.size(), "name", "type",
             "shape", "bytes", "file offset");
  for (const PlannedTensor& tensor : plan.tensors) {
    fmt::print("  {:<48} {:<6} {:<20} {:>14} {:>16}\n", escaped(tensor.name), dtypeName(tensor.dtype),
               shapeText(tensor), tensor.size, weightsOffset(plan) + tensor.dataOffset);
  }
}

void printJson(const PlanOptions& options, const ImportPlan& plan) {
  Json out = newDocument("plan");
  out["directory"] = options.directory;
  out["bytes"] = plan.fileBytes;
  out["tensor_bytes"] = plan.tensorBytes;
  const auto free = freeSpace(options.output);
  out["free_bytes"] = free ? Json(*free) : Json(nullptr);
  out["address_space_bytes"] = plan.addressSpace;
  const auto limit = addressSpaceLimit();
  out["address_space_limit"] = limit ? Json(*limit) : Json(nullptr);
  out["weights"] = Json::array();
  for (const plan::InputFile& file : plan.weights)
    out["weights"].push_back({{"name", file.name}, {"bytes", file.bytes}});
  out["sections"] = Json::array();
  for (const plan::PlannedSection& section : plan.sections) {
    out["sections"].push_back(
        {{"name", sectionName(section.type)}, {"offset", section.offset}, {"size", section.size}});
  }
  out["tensors"] = Json::array();
  for (const PlannedTensor& tensor : plan.tensors) {
    Json shape = Json::array();
    for (std::uint16_t k = 0; k < tensor.ndim; ++k)
      shape.push_back(tensor.dims[k]);
    out["tensors"].push_back({{"name", tensor.name},
                              {"source", tensor.sourceName},
                              {"file", plan.weights[tensor.file].name},
                              {"type", dtypeName(tensor.dtype)},
                              {"shape", std::move(shape)},
                              {"bytes", tensor.size},
                              {"offset", weightsOffset(plan) + tensor.dataOffset}});
  }
  print(out);
}

}  // namespace

int runPlan(const PlanOptions& options) {
  const ImportPlan plan = plan::planImport(options.directory);
  // Said also when the plan cannot be made: too little of it is why a weight file cannot be mapped.
  if (const auto limit = addressSpaceLimit(); limit && *limit < plan.addressSpace) {
    complain("note: address space is limited to {} bytes, {} are needed", *limit, plan.addressSpace);
  }
  if (!plan.status.ok()) {
    return fail(options.json, "plan", plan::hostCodeOf(plan.status),
                fmt::format("{}: {}", escaped(options.directory), escaped(plan.status.message())));
  }
  options.json ? printJson(options, plan) : printText(options, plan);
  if (const auto free = freeSpace(options.output); free && *free < plan.fileBytes) {
    complain("note: {} bytes are free, {} are needed", *free, plan.fileBytes);
  }
  return kExitOk;
}

}  // namespace zel::tool
