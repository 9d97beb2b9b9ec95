// Real .safetensors files: the reader's verdict and list for each row of the corpus table.
#include <gtest/gtest.h>

#include <string>

#include "readers/safetensors_importer.h"
#include "support/corpus.h"
#include "support/status_matchers.h"

namespace zel::test {
namespace {

Code codeNamed(const std::string& name) {
  for (const Code code : {Code::OK, Code::InvalidFormat, Code::Unsupported, Code::Corrupted, Code::IOError}) {
    if (name == Status(code, "").codeName()) return code;
  }
  throw std::runtime_error("no status is named " + name);
}

TEST(SafetensorsCorpus, EveryFileHasTheVerdictOfItsRow) {
  OKV2_REQUIRE_CORPUS();
  const std::vector<CorpusRow> rows = readCorpusTable("safetensors/safetensors.tsv");
  ASSERT_EQ(rows.size(), 21u);
  for (const CorpusRow& row : rows) {
    SCOPED_TRACE(row.at("file"));
    const std::string path = corpusPath(row.at("file"));
    ASSERT_EQ(std::to_string(std::filesystem::file_size(path)), row.at("bytes"));
    SafetensorsImporter importer;
    const Status status = importer.open(path.c_str());
    EXPECT_THAT(status, StatusIs(codeNamed(row.at("status")), row.at("message")));
    if (!status.ok() || row.at("status") != "OK") continue;

    const std::vector<StTensorInfo>& tensors = importer.tensors();
    EXPECT_EQ(std::to_string(tensors.size()), row.at("tensors"));
    ASSERT_FALSE(tensors.empty());
    EXPECT_EQ(tensors.front().name, row.at("first_name"));
    EXPECT_EQ(tensors.back().name, row.at("last_name"));
    EXPECT_EQ(std::to_string(importer.dataRegion().size()), row.at("data_bytes"));
    bool hasScalar = false;
    bool hasEmpty = false;
    for (const StTensorInfo& each : tensors) {
      hasScalar |= each.ndim == 0;
      hasEmpty |= each.size == 0;
    }
    EXPECT_EQ(hasScalar ? "True" : "False", row.at("has_scalar"));
    EXPECT_EQ(hasEmpty ? "True" : "False", row.at("has_empty_tensor"));
  }
}

}  // namespace
}  // namespace zel::test
