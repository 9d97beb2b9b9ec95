// What `okv2 explain` finds in a directory that a test describes.
#pragma once

#include <string>
#include <vector>

#include "okv2/explain/explanation.h"
#include "support/model_dir_builder.h"
#include "support/temp_dir.h"

namespace zel::explain {

inline Explanation explained(const test::ModelDirBuilder& builder) {
  const test::TempDir dir;
  return explainDirectory(builder.write(dir));
}

// "subject: detail" of every finding of this kind.
inline std::vector<std::string> found(const Explanation& explanation, Id id) {
  std::vector<std::string> out;
  for (const Finding& finding : explanation.findings) {
    if (finding.id == id) out.push_back(finding.subject + ": " + finding.detail);
  }
  return out;
}
inline std::vector<std::string> found(const test::ModelDirBuilder& builder, Id id) {
  return found(explained(builder), id);
}

inline std::vector<std::string> subjects(const test::ModelDirBuilder& builder, Id id) {
  std::vector<std::string> out;
  for (const Finding& finding : explained(builder).findings) {
    if (finding.id == id) out.push_back(finding.subject);
  }
  return out;
}

}  // namespace zel::explain
