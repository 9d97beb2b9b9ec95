// The record of one import that `import --report FILE` writes and `summary` reads.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "okv2/explain/explanation.h"
#include "okv2/prepare/outcome.h"

namespace zel::tool {

struct ImportRecord {
  std::string directory;
  std::string output;
  int code = 0;
  std::string message;   // empty after a success
  bool skipped = false;  // the output was there already, and good
  std::uint64_t tensors = 0;
  std::uint64_t bytes = 0;
  explain::Explanation explanation;  // of the prepared directory, if it was prepared
  std::optional<prepare::Changes> changes;
  std::chrono::system_clock::time_point started;
  double explainSeconds = 0;
  double importSeconds = 0;
  double totalSeconds = 0;
};

// Replaces `file` in one step; false with a reason when it cannot.
[[nodiscard]] bool writeRecord(const ImportRecord& record, const std::string& file, std::string& reason);

}  // namespace zel::tool
