// verify: a container against its format, and against the directory that it was made from.
#include <fmt/format.h>

#include <cstring>

#include "okv2/commands.h"
#include "okv2/container_json.h"
#include "okv2/container_text.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/failure.h"
#include "okv2/messages.h"
#include "okv2/plan/import_plan.h"
#include "okv2/prepare/compare_weights.h"
#include "okv2/prepare/outcome.h"

namespace zel::tool {
namespace {

constexpr std::size_t kMaxDifferences = 100;

std::string storedName(const std::string& name) { return name.substr(0, okv2::kTensorNameBytes - 1); }

// What is different between one tensor and the one it was made from; empty when nothing is.
std::string difference(const ContainerView& view, const TensorView& tensor,
                       const plan::PlannedTensor& source) {
  if (tensor.name != storedName(source.name)) {
    return fmt::format("tensor '{}', expected '{}'", escaped(tensor.name), escaped(source.name));
  }
  const std::string label = fmt::format("tensor '{}': ", escaped(tensor.name));
  if (tensor.dtype != source.dtype) {
    return label + fmt::format("type {}, expected {}", dtypeName(tensor.dtype), dtypeName(source.dtype));
  }
  if (tensor.ndim != source.ndim || std::memcmp(tensor.dims, source.dims, sizeof tensor.dims) != 0) {
    return label + "another shape";
  }
  if (tensor.size != source.size)
    return label + fmt::format("{} bytes, expected {}", tensor.size, source.size);
  const std::string_view data = view.tensorData(tensor);
  if (data.size() != source.size) return label + "its bytes do not lie in the file";
  if (std::memcmp(data.data(), source.data, data.size()) == 0) return "";
  std::size_t at = 0;
  while (data[at] == source.data[at])
    ++at;
  return label + fmt::format("byte {} differs", at);
}

std::vector<std::string> compare(const ContainerView& view, const plan::ImportPlan& plan) {
  std::vector<std::string> out;
  if (view.tensors.size() != plan.tensors.size()) {
    out.push_back(fmt::format("{} tensors, expected {}", view.tensors.size(), plan.tensors.size()));
    return out;
  }
  for (const plan::PlannedSection& section : plan.sections) {
    const std::uint64_t size = view.section(section.type).size;
    if (size == section.size) continue;
    out.push_back(
        fmt::format("{} section of {} bytes, expected {}", sectionName(section.type), size, section.size));
  }
  for (std::size_t k = 0; k < plan.tensors.size() && out.size() < kMaxDifferences; ++k) {
    if (std::string text = difference(view, view.tensors[k], plan.tensors[k]); !text.empty())
      out.push_back(std::move(text));
  }
  return out;
}

int finish(const VerifyOptions& options, const ContainerView& view, int code,
           const std::vector<std::string>& differences) {
  if (options.json) {
    Json out = newDocument("verify");
    out["exit_code"] = code;
    out["file"] = options.file;
    out["good"] = code == kExitOk;
    out["tensors"] = view.tensors.size();
    out["bytes"] = view.file.size();
    out["findings"] = findingsJson(view.findings);
    out["dropped_findings"] = view.findings.dropped();
    if (!options.against.empty()) out["differences"] = differences;
    print(out);
  } else if (code == kExitOk) {
    fmt::print("{}: good, {} tensors, {} bytes{}\n", escaped(options.file), view.tensors.size(),
               view.file.size(), options.against.empty() ? "" : ", equal to " + escaped(options.against));
  }
  return code;
}

int differences(const VerifyOptions& options, const ContainerView& view,
                const std::vector<std::string>& texts) {
  for (const std::string& text : texts)
    complain("{}: {}", escaped(options.file), text);
  return finish(options, view, texts.empty() ? kExitOk : kExitDifferent, texts);
}

int comparePrepared(const VerifyOptions& options, const ContainerView& view) {
  try {
    return differences(options, view, prepare::compareWeights(view, options.against, options.weights));
  } catch (const prepare::Refused& refused) {
    return fail(options.json, "verify", refused.exitCode(),
                fmt::format("{}: {}", escaped(options.against), escaped(refused.what())));
  }
}

}  // namespace

int runVerify(const VerifyOptions& options) {
  ContainerFile file;
  if (const int code = openContainer(options.json, "verify", options.file, file); code != kExitOk)
    return code;
  ContainerView view;
  const bool good = verifyContainer(file.bytes(), view);
  printFindings(options.file, view.findings);
  if (!good) return finish(options, view, kExitBadContainer, {});
  if (options.against.empty()) return finish(options, view, kExitOk, {});
  if (options.prepare) return comparePrepared(options, view);
  const plan::ImportPlan plan = plan::planImport(options.against);
  if (!plan.status.ok()) {
    return fail(options.json, "verify", plan::hostCodeOf(plan.status),
                fmt::format("{}: {}", escaped(options.against), escaped(plan.status.message())));
  }
  return differences(options, view, compare(view, plan));
}

}  // namespace zel::tool
