// What the tests of prepare have in common: how refusals and changes are looked at.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "okv2/prepare/outcome.h"

namespace zel::tool::prepare {

// One line a change: file, what, from, to, finding. The reason is for people.
inline std::vector<std::string> linesOf(const Changes& changes) {
  std::vector<std::string> lines;
  for (const Change& change : changes) {
    lines.push_back(change.file + " | " + change.what + " | " + change.from + " | " + change.to + " | " +
                    change.finding);
  }
  return lines;
}

struct Refusal {
  int exitCode = 0;
  std::string finding, message, remedy;

  bool operator==(const Refusal&) const = default;
};

inline void PrintTo(const Refusal& refusal, std::ostream* out) {
  *out << refusal.exitCode << " [" << refusal.finding << "] " << refusal.message << " / " << refusal.remedy;
}

// What `call` is refused with; a test that expects one fails when it is not refused.
template <class Call>
Refusal refusalOf(Call call) {
  try {
    (void)call();
  } catch (const Refused& refused) {
    return {refused.exitCode(), refused.finding(), refused.what(), refused.remedy()};
  }
  return {};
}

}  // namespace zel::tool::prepare
