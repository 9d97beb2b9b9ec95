// Real model directories through the loaded plug-in: each row of the two tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "convert/container_view.h"
#include "convert/sha256.h"
#include "plugin/output_capture.h"
#include "plugin/plugin_host.h"
#include "support/corpus.h"
#include "support/temp_dir.h"

namespace zel::test {
namespace {

// Returns how many rows were imported whole.
int checkTable(const std::string& folder, std::size_t expectedRows) {
  const std::vector<CorpusRow> rows = readCorpusTable(folder + "/" + folder + ".tsv");
  EXPECT_EQ(rows.size(), expectedRows);
  const TempDir dir;
  int imported = 0;
  for (const CorpusRow& row : rows) {
    SCOPED_TRACE(row.at("dir"));
    const std::string source = corpusPath(folder + "/" + row.at("dir"));
    EXPECT_EQ(std::to_string(probeConfidence(source)), row.at("probe_confidence"));

    OutputCapture capture;
    const InspectAnswer inspected = inspectDir(source);
    const std::string destination = dir / "out.okv2";
    std::filesystem::remove(destination);
    const ImportAnswer answer = importDir(source, destination);
    EXPECT_EQ(capture.stop(), "");

    EXPECT_EQ(std::to_string(inspected.code), row.at("inspect_code"));
    EXPECT_EQ(inspected.architecture, row.at("arch"));
    EXPECT_EQ(inspected.count, inspected.code == 0 ? "" : "0");
    EXPECT_EQ(std::to_string(answer.code), row.at("import_code"));
    EXPECT_EQ(answer.message, row.at("import_message"));
    EXPECT_EQ(std::filesystem::exists(destination), answer.code == 0);
    if (answer.code != 0) continue;

    const std::string container = readWholeFile(destination);
    EXPECT_EQ(std::to_string(answer.tensors), row.at("tensors"));
    EXPECT_EQ(std::to_string(answer.fileSize), row.at("container_bytes"));
    EXPECT_EQ(std::to_string(container.size()), row.at("container_bytes"));
    EXPECT_EQ(sha256Hex(container), row.at("container_sha256"));
    const ContainerView view(container);
    EXPECT_EQ(std::to_string(view.metadata.size()), row.at("metadata_items"));
    EXPECT_EQ(view.find("general.architecture")->text, row.at("arch"));
    EXPECT_EQ(view.find("general.name")->text, row.at("name"));
    ++imported;
  }
  return imported;
}

TEST(ModelDirsCorpus, EveryDirectoryAnswersAsItsRowSays) {
  OKV2_REQUIRE_CORPUS();
  EXPECT_EQ(checkTable("model-dirs", 15), 2);
}

TEST(ModelDirsCorpus, EveryLoneConfigurationAnswersAsItsRowSays) {
  OKV2_REQUIRE_CORPUS();
  EXPECT_EQ(checkTable("configs", 12), 0);
}

}  // namespace
}  // namespace zel::test
