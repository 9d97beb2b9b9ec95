// Checkpoints as people have them: the verdict on every file of the corpus.
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "pickle_machine.h"
#include "readers/pytorch_importer.h"
#include "support/corpus.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel {
namespace {

using test::CorpusRow;

std::string statusText(const Status& status) {
  return std::string(status.codeName()) + ": " + status.message();
}
std::string cellText(const CorpusRow& row, const std::string& column) {
  return row.at(column + "_status") + ": " + row.at(column + "_message");
}

std::string corpusFile(const CorpusRow& row) { return test::corpusPath("torch/" + row.at("file")); }

TEST(PyTorchCorpus, HasEveryFileJudgedAsACheckpoint) {
  OKV2_REQUIRE_CORPUS();
  std::size_t rows = 0;
  for (const CorpusRow& row : test::readCorpusTable("torch/torch.tsv")) {
    PyTorchImporter importer;
    EXPECT_EQ(statusText(importer.open(corpusFile(row).c_str())), cellText(row, "as_checkpoint"))
        << row.at("file");
    ++rows;
  }
  EXPECT_EQ(rows, 79u);
}

TEST(PyTorchCorpus, HasEveryFileJudgedAsAProgram) {
  OKV2_REQUIRE_CORPUS();
  for (const CorpusRow& row : test::readCorpusTable("torch/torch.tsv")) {
    const std::string bytes = test::readWholeFile(corpusFile(row));
    EXPECT_EQ(bytes.size(), std::stoull(row.at("bytes"))) << row.at("file");
    EXPECT_EQ(statusText(test::judgePickle(bytes).status), cellText(row, "as_data_pkl")) << row.at("file");
  }
}

// The bytes of the first stored entry whose name ends in "/data.pkl", found by its local header.
std::string innerProgram(std::string_view zip) {
  const auto number = [&](std::size_t at, unsigned bytes) {
    std::uint64_t out = 0;
    for (unsigned k = bytes; k-- > 0;)
      out = out << 8 | std::uint8_t(zip.at(at + k));
    return out;
  };
  for (std::size_t at = zip.find("PK\x01\x02"); at != std::string_view::npos;
       at = zip.find("PK\x01\x02", at + 1)) {
    if (!zip.substr(at + 46, number(at + 28, 2)).ends_with("/data.pkl")) continue;
    const std::size_t local = number(at + 42, 4);
    const std::size_t data = local + 30 + number(local + 26, 2) + number(local + 28, 2);
    return std::string(zip.substr(data, number(at + 20, 4)));
  }
  throw std::runtime_error("no data.pkl in the archive");
}

TEST(PyTorchCorpus, HasEveryInnerProgramJudged) {
  OKV2_REQUIRE_CORPUS();
  std::size_t programs = 0;
  for (const CorpusRow& row : test::readCorpusTable("torch/torch.tsv")) {
    if (row.at("inner_pickle_status").empty()) continue;
    const std::string program = innerProgram(test::readWholeFile(corpusFile(row)));
    EXPECT_EQ(statusText(test::judgePickle(program).status), cellText(row, "inner_pickle")) << row.at("file");
    ++programs;
  }
  EXPECT_GT(programs, 50u);
}

}  // namespace
}  // namespace zel
