#include "okv2/import_record.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "okv2/container_file.h"
#include "okv2/container_reader.h"
#include "okv2/explain_json.h"
#include "okv2/prepare/prepare.h"

namespace zel::tool {
namespace {

// As the written file says, not as planned.
Json sectionsOf(const std::string& path) {
  Json out = Json::array();
  ContainerFile file;
  std::string reason;
  ContainerView view;
  if (file.open(path, reason) != ContainerFile::Result::Ok || !parseContainer(file.bytes(), view)) return out;
  for (const okv2::SectionType type : okv2::kFileOrder) {
    const SectionView& section = view.section(type);
    out.push_back({{"name", sectionName(type)}, {"offset", section.offset}, {"size", section.size}});
  }
  return out;
}

std::uint64_t peakMemory() {
  struct rusage usage {};
  return ::getrusage(RUSAGE_SELF, &usage) == 0 ? static_cast<std::uint64_t>(usage.ru_maxrss) * 1024 : 0;
}

Json documentOf(const ImportRecord& record) {
  Json out = newDocument("import");
  out["okv2_version"] = OKV2_VERSION;
  out["directory"] = record.directory;
  out["output"] = record.output;
  out["result"] = {{"code", record.code}, {"message", record.message}, {"skipped", record.skipped}};
  out["inputs"] = Json::array();
  for (const explain::FileUse& file : record.explanation.files) {
    if (file.read) out["inputs"].push_back({{"name", file.name}, {"bytes", file.bytes}});
  }
  out["tensors"] = record.tensors;
  out["bytes"] = record.bytes;
  out["sections"] = record.code == 0 ? sectionsOf(record.output) : Json::array();
  out["findings"] = findingsJson(record.explanation);
  if (record.changes) out["changes"] = prepare::changesJson(*record.changes);
  out["times"] = {{"started", fmt::format("{:%Y-%m-%dT%H:%M:%SZ}",
                                          fmt::gmtime(std::chrono::system_clock::to_time_t(record.started)))},
                  {"explain_seconds", record.explainSeconds},
                  {"import_seconds", record.importSeconds},
                  {"total_seconds", record.totalSeconds}};
  out["peak_memory_bytes"] = peakMemory();
  return out;
}

}  // namespace

bool writeRecord(const ImportRecord& record, const std::string& file, std::string& reason) {
  const std::string text = textOf(documentOf(record));
  const std::string part = fmt::format("{}.part{}", file, ::getpid());
  std::FILE* out = std::fopen(part.c_str(), "wbx");
  if (out == nullptr) {
    reason = std::strerror(errno);
    return false;
  }
  const bool written = std::fwrite(text.data(), 1, text.size(), out) == text.size();
  const bool closed = std::fclose(out) == 0;
  if (written && closed && ::rename(part.c_str(), file.c_str()) == 0) return true;
  reason = std::strerror(errno);
  ::unlink(part.c_str());
  return false;
}

}  // namespace zel::tool
