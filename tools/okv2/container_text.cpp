#include "okv2/container_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/failure.h"
#include "okv2/messages.h"

namespace zel::tool {
namespace {

using okv2::MetaType;

constexpr std::size_t kShownTextBytes = 60;
constexpr std::size_t kShownArrayItems = 8;

std::string quoted(std::string_view text) {
  const std::string shown = '"' + escapedCut(text, kShownTextBytes) + '"';
  return text.size() <= kShownTextBytes ? shown : fmt::format("{} ({} bytes)", shown, text.size());
}

std::string arrayText(const MetaView& item) {
  std::string out = "[";
  const std::size_t shown = std::min(item.arraySize(), kShownArrayItems);
  for (std::size_t k = 0; k < shown; ++k)
    out += fmt::format("{}{}", k > 0 ? ", " : "", item.arrayItem(k));
  if (shown < item.arraySize()) out += fmt::format(", ... {} values", item.arraySize());
  return out + "]";
}

}  // namespace

int openContainer(bool json, const char* command, const std::string& path, ContainerFile& file) {
  std::string reason;
  switch (file.open(path, reason)) {
    case ContainerFile::Result::Ok: return kExitOk;
    case ContainerFile::Result::NotARegularFile:
      return fail(json, command, kExitInvalid, fmt::format("{}: {}", escaped(path), reason));
    case ContainerFile::Result::OsRefused: break;
  }
  return fail(json, command, kExitIoError, fmt::format("cannot read {}: {}", escaped(path), reason));
}

int readContainer(bool json, const char* command, const std::string& path, ContainerFile& file,
                  ContainerView& view) {
  if (const int code = openContainer(json, command, path, file); code != kExitOk) return code;
  if (parseContainer(file.bytes(), view)) {
    // It can be read, but what it says may be wrong.
    if (!hasGoodChecksum(view)) complain("{}: the header checksum is wrong; see okv2 verify", escaped(path));
    return kExitOk;
  }
  printFindings(path, view.findings);
  const std::string why = view.findings.items().empty() ? "" : ": " + view.findings.items()[0].text;
  return failDocument(json, command, kExitBadContainer, escaped(path) + " breaks the format" + why);
}

int requireTensorData(bool json, const char* command, const std::string& path, const ContainerView& view) {
  const std::uint64_t room = view.section(okv2::SectionType::Weights).bytes.size();
  std::uint64_t total = 0;
  for (const TensorView& tensor : view.tensors) {
    if (view.tensorData(tensor).size() != tensor.size) {
      return fail(json, command, kExitBadContainer,
                  fmt::format("{}: tensor '{}' does not lie inside the weights section", escaped(path),
                              escaped(tensor.name)));
    }
    // Overlapping tensors: a file of a few megabytes could name terabytes.
    if (tensor.size > room - total) {
      return fail(json, command, kExitBadContainer,
                  fmt::format("{}: the tensors up to '{}' have more bytes than the weights section, {}",
                              escaped(path), escaped(tensor.name), room));
    }
    total += tensor.size;
  }
  return kExitOk;
}

void printFindings(const std::string& path, const Findings& findings) {
  for (const Finding& finding : findings.items()) {
    complain("{}: {}offset {}: {}", escaped(path), finding.isError ? "" : "note: ", finding.offset,
             finding.text);
  }
  if (findings.dropped() > 0) complain("{}: {} further findings", escaped(path), findings.dropped());
}

std::pair<const char*, std::string> describe(const MetaView& item) {
  switch (item.type) {
    case MetaType::U32: return {"u32", std::to_string(item.u32())};
    case MetaType::I32: return {"i32", std::to_string(item.i32())};
    case MetaType::F32: return {"f32", fmt::format("{}", item.f32())};
    case MetaType::U64: return {"u64", std::to_string(item.u64())};
    case MetaType::Str: return {"string", quoted(item.value)};
    case MetaType::U32Array: return {"u32[]", arrayText(item)};
  }
  return {"?", ""};
}

std::string shapeText(const TensorView& tensor) {
  std::string out = "[";
  const std::uint16_t shown = std::min<std::uint16_t>(tensor.ndim, okv2::kMaxDims);
  for (std::uint16_t k = 0; k < shown; ++k)
    out += fmt::format("{}{}", k > 0 ? ", " : "", tensor.dims[k]);
  return out + "]";
}

}  // namespace zel::tool
