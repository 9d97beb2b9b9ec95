#include "okv2/prepare_output.h"

#include <fmt/format.h>

#include <cstdio>

#include "okv2/escape.h"
#include "okv2/messages.h"

namespace zel::tool {
namespace {

// Long enough for a name, short enough for a line.
constexpr std::size_t kShownBytes = 200;

std::string shown(const std::string& text) {
  return text.empty() ? "nothing" : escapedCut(text, kShownBytes);
}

}  // namespace

void printPrepared(const prepare::Prepared& prepared) {
  for (const prepare::Change& change : prepared.changes) {
    say("{}: {}: {} -> {}: {}{}\n", escaped(change.file), escapedCut(change.what, kShownBytes),
        shown(change.from), shown(change.to), escaped(change.why),
        change.finding.empty() ? "" : " [" + change.finding + "]");
  }
  for (const explain::Finding& finding : prepared.explanation.findings) {
    if (!prepare::isNotMended(finding)) continue;
    const explain::FindingRow& row = explain::rowOf(finding.id);
    say("not mended: {}: {} [{}]\n", escapedCut(finding.subject, kShownBytes), row.what, row.name);
  }
}

int complainRefused(const std::string& directory, const prepare::Refused& refused, std::string& message) {
  message = fmt::format("{}: {}{}", escaped(directory), escaped(refused.what()),
                        refused.finding().empty() ? "" : " [" + refused.finding() + "]");
  complain("{}\n  Do: {}", message, escaped(refused.remedy()));
  return refused.exitCode();
}

}  // namespace zel::tool
