// verify: a container against its format, and against the directory that it was made from.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "okv2/commands.h"
#include "okv2/container_compare.h"
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

constexpr std::size_t kMaxDifferences = 100;  // told; a hostile file has room for millions

std::string storedName(const std::string& name) { return name.substr(0, okv2::kTensorNameBytes - 1); }

// What is different between one tensor and the one it was made from; empty when nothing is.
std::string difference(const ContainerView& view, const TensorView& tensor,
                       const plan::PlannedTensor& source) {
  if (tensor.name != storedName(source.name)) {
    return fmt::format("tensor '{}', expected '{}'", escaped(tensor.name), escaped(source.name));
  }
  const std::string label = fmt::format("tensor '{}': ", escaped(tensor.name));
  // What the container has cut off a name is known by its length only, modulo 65536.
  if (const auto bytes = static_cast<std::uint16_t>(source.name.size()); tensor.fullNameBytes != bytes) {
    return label +
           fmt::format("name of {} bytes before it was cut, expected {}", tensor.fullNameBytes, bytes);
  }
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

// What of the header and of the sections that describe the model is not as an import would write it.
std::vector<std::string> compareDescription(const ContainerView& view, const ContainerView& expected) {
  Differences found;
  compareDescriptions(view, expected, kFromExpected, found);
  std::vector<std::string> out;
  for (const Difference& each : found)
    out.push_back(lineOf(each));
  for (const okv2::SectionType type : {okv2::SectionType::Metadata, okv2::SectionType::Tokenizer,
                                       okv2::SectionType::Graph, okv2::SectionType::ChatTemplate}) {
    const std::string_view name = sectionName(type);
    const auto isOfSection = [name](const Difference& each) { return each.part == name; };
    // Equal items in another order, say: still another file than an import writes.
    if (view.section(type).bytes != expected.section(type).bytes &&
        std::none_of(found.begin(), found.end(), isOfSection)) {
      out.push_back(fmt::format("{} section: the same content in other bytes", name));
    }
  }
  return out;
}

std::vector<std::string> compare(const ContainerView& view, const plan::ImportPlan& plan) {
  std::vector<std::string> out = compareDescription(view, plan.description);
  const bool sameCount = view.tensors.size() == plan.tensors.size();
  if (!sameCount)
    out.push_back(fmt::format("{} tensors, expected {}", view.tensors.size(), plan.tensors.size()));
  for (std::size_t k = 0; sameCount && k < plan.tensors.size() && out.size() <= kMaxDifferences; ++k) {
    if (std::string text = difference(view, view.tensors[k], plan.tensors[k]); !text.empty())
      out.push_back(std::move(text));
  }
  if (out.size() > kMaxDifferences) {
    out.resize(kMaxDifferences);
    out.emplace_back("further differences are not listed");
  }
  return out;
}

std::string whatIsEqual(const VerifyOptions& options) {
  if (options.against.empty()) return "";
  return (options.prepare ? ", tensors equal to what is prepared of " : ", equal to ") +
         escaped(options.against);
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
               view.file.size(), whatIsEqual(options));
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
  std::error_code error;
  if (!std::filesystem::is_directory(options.against, error)) {
    return fail(options.json, "verify", kExitInvalid, escaped(options.against) + ": not a directory");
  }
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
