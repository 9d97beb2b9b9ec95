// Directories that are prepared in a test, and what an import makes of the result.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "hf/hf_importer.h"
#include "okv2/prepare/prepare.h"
#include "prepare_support.h"
#include "support/model_dir_builder.h"
#include "support/temp_dir.h"

namespace zel::tool::prepare {

// Members of config.json for every size of which a missing one is named.
inline constexpr char kAllSizes[] =
    R"("hidden_size":8,"num_hidden_layers":2,"num_attention_heads":2,"num_key_value_heads":1,)"
    R"("intermediate_size":16,"vocab_size":4)";

// A configuration of those and of `more` members.
inline std::string completeConfig(const std::string& more = "") {
  return R"({"model_type":"x",)" + std::string(kAllSizes) + (more.empty() ? "" : ",") + more + "}";
}

inline test::ModelDirBuilder withConfig(std::string_view json) {
  return test::ModelDirBuilder().config(json).tokenizer();
}

// A model directory, prepared.
class PreparedDirectory {
 public:
  explicit PreparedDirectory(const test::ModelDirBuilder& builder, const WeightOptions& options = {})
      : source(builder.write(scratch)), out(scratch / "out") {
    std::filesystem::create_directory(out);
    prepared = prepareDirectory(source, out, options);
    const Status status = model.open(out);
    EXPECT_TRUE(status.ok()) << status.message();
  }

  [[nodiscard]] std::vector<std::string> changes() const { return linesOf(prepared.changes); }
  [[nodiscard]] std::string text(const std::string& name) const {
    return test::readWholeFile(out + "/" + name);
  }
  [[nodiscard]] bool has(const std::string& name) const { return std::filesystem::exists(out + "/" + name); }
  // One line a loss: finding, subject, detail.
  [[nodiscard]] std::vector<std::string> losses() const {
    std::vector<std::string> lines;
    for (const explain::Finding& finding : prepared.explanation.findings) {
      const explain::FindingRow& row = explain::rowOf(finding.id);
      if (row.severity == explain::Severity::Note) continue;
      lines.push_back(std::string(row.name) + " | " + finding.subject + " | " + finding.detail);
    }
    return lines;
  }
  // Names of the findings that are losses or worse.
  [[nodiscard]] std::vector<std::string> remaining() const {
    std::vector<std::string> names;
    for (const explain::Finding& finding : prepared.explanation.findings) {
      const explain::FindingRow& row = explain::rowOf(finding.id);
      if (row.severity != explain::Severity::Note) names.emplace_back(row.name);
    }
    return names;
  }

  test::TempDir scratch;
  std::string source;
  std::string out;
  Prepared prepared;
  HfImporter model;  // as an import reads the prepared directory
};

inline Refusal refusalOfDirectory(const test::ModelDirBuilder& builder) {
  const test::TempDir scratch;
  const std::string source = builder.write(scratch);
  std::filesystem::create_directory(scratch / "out");
  return refusalOf([&] { return prepareDirectory(source, scratch / "out", {}); });
}

}  // namespace zel::tool::prepare
