// Real .safetensors files: each row's single-file container, byte for byte by its SHA-256.
#include <gtest/gtest.h>

#include <string>

#include "convert/container_view.h"
#include "convert/convert_weights.h"
#include "convert/sha256.h"
#include "support/corpus.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel::test {
namespace {

TEST(ConvertCorpus, EveryFileGivesTheContainerOfItsRow) {
  OKV2_REQUIRE_CORPUS();
  const std::vector<CorpusRow> rows = readCorpusTable("safetensors/safetensors.tsv");
  ASSERT_EQ(rows.size(), 21u);
  const TempDir dir;
  int converted = 0;
  for (const CorpusRow& row : rows) {
    SCOPED_TRACE(row.at("file"));
    const std::string destination = dir / "out";
    std::filesystem::remove(destination);
    WeightStats stats;
    const Status status = convertSafetensorsFile(corpusPath(row.at("file")), destination, &stats);
    EXPECT_EQ(status.codeName(), row.at("single_file_convert_status"));
    // A source that does not open fails with the reader's own message.
    const std::string& own = row.at("single_file_convert_message");
    EXPECT_EQ(status.message(), own.empty() ? row.at("message") : own);
    EXPECT_EQ(std::filesystem::exists(destination), status.ok());
    if (!status.ok()) continue;

    const std::string container = readWholeFile(destination);
    EXPECT_EQ(std::to_string(container.size()), row.at("container_bytes"));
    EXPECT_EQ(sha256Hex(container), row.at("container_sha256"));
    EXPECT_EQ(ContainerView(container).tensors.size(), stats.tensors);
    EXPECT_EQ(std::to_string(stats.tensors), row.at("tensors"));
    ++converted;
  }
  EXPECT_EQ(converted, 7);
}

}  // namespace
}  // namespace zel::test
