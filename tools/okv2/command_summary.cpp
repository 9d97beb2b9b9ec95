// summary: adds up the records that imports have left.
#include <fmt/format.h>

#include <limits>
#include <map>
#include <optional>

#include "okv2/commands.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/failure.h"
#include "okv2/json_output.h"
#include "okv2/text_file.h"

namespace zel::tool {
namespace {

struct Totals {
  std::uint64_t reports = 0, good = 0, skipped = 0, failed = 0;
  std::uint64_t tensors = 0, bytes = 0, peakMemory = 0;
  double seconds = 0;
  std::map<std::string, std::uint64_t> findings;  // reports in which each occurs
  std::vector<Json> failures;
};

// An exit code of the command; nothing when the value is none.
std::optional<int> exitCodeOf(const Json& value) {
  constexpr int kGreatest = 255;
  if (!value.is_number_unsigned() || value.get<std::uint64_t>() > kGreatest) return std::nullopt;
  return static_cast<int>(value.get<std::uint64_t>());
}

// The record that `text` is, or a null.
Json parseRecord(const std::string& text) {
  Json record = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  const bool isRecord = record.is_object() && record.value("command", Json()) == "import" &&
                        record.value("schema", Json()) == kJsonSchema && record.contains("result") &&
                        record["result"].is_object() &&
                        exitCodeOf(record["result"].value("code", Json())).has_value();
  return isRecord ? record : Json(nullptr);
}

// Sums of what stands in files end at the greatest number instead of wrapping.
void addTo(std::uint64_t& sum, std::uint64_t value) {
  if (__builtin_add_overflow(sum, value, &sum)) sum = std::numeric_limits<std::uint64_t>::max();
}

std::uint64_t number(const Json& record, const char* key) {
  const auto it = record.find(key);
  return it != record.end() && it->is_number_unsigned() ? it->get<std::uint64_t>() : 0;
}

std::string text(const Json& record, const char* key) {
  const auto it = record.find(key);
  return it != record.end() && it->is_string() ? it->get<std::string>() : "";
}

void add(const Json& record, Totals& totals) {
  const Json& result = record["result"];
  const int code = exitCodeOf(result["code"]).value();
  ++totals.reports;
  totals.peakMemory = std::max(totals.peakMemory, number(record, "peak_memory_bytes"));
  if (const auto times = record.find("times"); times != record.end() && times->is_object()) {
    const Json seconds = times->value("total_seconds", Json());
    if (seconds.is_number()) totals.seconds += seconds.get<double>();
  }
  std::map<std::string, bool> seen;
  if (const auto findings = record.find("findings"); findings != record.end() && findings->is_array()) {
    for (const Json& finding : *findings) {
      if (finding.is_object() && finding.value("severity", Json()) != "note")
        seen[text(finding, "id")] = true;
    }
  }
  for (const auto& [id, yes] : seen)
    ++totals.findings[id];
  if (code != kExitOk) {
    ++totals.failed;
    totals.failures.push_back(
        {{"directory", text(record, "directory")}, {"code", code}, {"message", text(result, "message")}});
    return;
  }
  ++(result.value("skipped", Json()) == true ? totals.skipped : totals.good);
  addTo(totals.tensors, number(record, "tensors"));
  addTo(totals.bytes, number(record, "bytes"));
}

void printText(const Totals& totals) {
  fmt::print("{} reports: {} imported, {} skipped, {} failed\n", totals.reports, totals.good, totals.skipped,
             totals.failed);
  fmt::print("{} tensors, {} bytes, {:.1f} seconds, at most {} bytes of memory\n", totals.tensors,
             totals.bytes, totals.seconds, totals.peakMemory);
  if (!totals.failures.empty()) fmt::print("\nfailed\n");
  for (const Json& failure : totals.failures) {
    fmt::print("  {:>3}  {}: {}\n", failure["code"].get<int>(),
               escaped(failure["directory"].get<std::string>()),
               escaped(failure["message"].get<std::string>()));
  }
  if (!totals.findings.empty())
    fmt::print("\nfatal findings and losses, and the number of reports with them\n");
  for (const auto& [id, count] : totals.findings)
    fmt::print("  {:>6}  {}\n", count, escaped(id));
}

void printJson(const Totals& totals) {
  Json out = newDocument("summary");
  out["reports"] = totals.reports;
  out["imported"] = totals.good;
  out["skipped"] = totals.skipped;
  out["failed"] = totals.failed;
  out["tensors"] = totals.tensors;
  out["bytes"] = totals.bytes;
  out["seconds"] = totals.seconds;
  out["peak_memory_bytes"] = totals.peakMemory;
  out["failures"] = totals.failures;
  out["findings"] = totals.findings;
  print(out);
}

}  // namespace

int runSummary(const SummaryOptions& options) {
  Totals totals;
  for (const std::string& path : options.reports) {
    std::string text;
    if (const int code = readText(options.json, "summary", path, text); code != kExitOk) return code;
    const Json record = parseRecord(text);
    if (record.is_null()) {
      return fail(options.json, "summary", kExitInvalid, escaped(path) + ": not the report of an import");
    }
    add(record, totals);
  }
  options.json ? printJson(totals) : printText(totals);
  return kExitOk;
}

}  // namespace zel::tool
