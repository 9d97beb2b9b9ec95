// import --report and --skip-verified, summary, and what an import shows while it runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "okv2/import_progress.h"
#include "support/model_dir_builder.h"
#include "tools/json_documents.h"

namespace zel::tool {
namespace {

namespace fs = std::filesystem;
using test::CommandResult;
using test::TempDir;
using testing::ElementsAre;
using testing::HasSubstr;

json recordOf(const std::string& path) { return json::parse(test::readWholeFile(path)); }

TEST(OkvImportReport, RecordsASuccess) {
  const TempDir dir;
  const std::string file = dir / "out.okv2", model = sampleModel(dir);
  EXPECT_EQ(okv2Run({"import", model, "-o", file, "-q", "--report", dir / "r.json"}).exitCode, 0);
  const json record = recordOf(dir / "r.json");
  EXPECT_EQ(record["schema"], 1);
  EXPECT_EQ(record["command"], "import");
  EXPECT_EQ(record["directory"], model);
  EXPECT_EQ(record["output"], file);
  EXPECT_EQ(record["result"], json({{"code", 0}, {"message", ""}, {"skipped", false}}));
  EXPECT_EQ(record["tensors"], 21);
  EXPECT_EQ(record["bytes"], fs::file_size(file));
  EXPECT_EQ(record["sections"], okv2Answer({"list", file}).document["sections"]);
  EXPECT_EQ(record["inputs"][0],
            json({{"name", "config.json"}, {"bytes", fs::file_size(model + "/config.json")}}));
  EXPECT_EQ(record["findings"], json::array());
  EXPECT_GT(record["peak_memory_bytes"], 100000);
  EXPECT_GE(record["times"]["total_seconds"], record["times"]["import_seconds"]);
}

TEST(OkvImportReport, RecordsAFailureAndWhatExplainsIt) {
  const TempDir dir;
  const std::string model = test::ModelDirBuilder().noWeights().write(dir);
  EXPECT_EQ(okv2Run({"import", model, "-o", dir / "out.okv2", "--report", dir / "r.json"}).exitCode, 2);
  const json record = recordOf(dir / "r.json");
  EXPECT_EQ(record["result"]["code"], 2);
  EXPECT_EQ(record["result"]["message"], "convert: HF directory has no safetensors or pytorch_model.bin");
  EXPECT_EQ(record["findings"][0]["id"], "weights.none");
  EXPECT_EQ(record["sections"], json::array());
}

TEST(OkvImportReport, NeverReplacesAnInputOrTheContainer) {
  const TempDir dir;
  const std::string model = sampleModel(dir), file = dir / "out.okv2";
  const CommandResult onInput = okv2Run({"import", model, "-o", file, "--report", model + "/config.json"});
  EXPECT_EQ(onInput.exitCode, 73);
  EXPECT_EQ(onInput.err, "okv2: the report: " + model +
                             "/config.json is one of the files to be imported; it is never overwritten\n");
  const CommandResult onOutput = okv2Run({"import", model, "-o", file, "--report", file});
  EXPECT_EQ(onOutput.exitCode, 73);
  EXPECT_EQ(onOutput.err, "okv2: the report: " + file + " is the container\n");
  EXPECT_FALSE(fs::exists(file));
}

TEST(OkvImportSkipVerified, LeavesAGoodContainerAlone) {
  const TempDir dir;
  const std::string model = sampleModel(dir), file = dir / "out.okv2";
  ASSERT_EQ(okv2Run({"import", model, "-o", file, "-q"}).exitCode, 0);
  const auto before = fs::last_write_time(file);
  const CommandResult again =
      okv2Run({"import", model, "-o", file, "--skip-verified", "--force", "--report", dir / "r.json"});
  EXPECT_EQ(again.exitCode, 0);
  EXPECT_EQ(again.err, file + " is there already, and good\n");
  EXPECT_EQ(fs::last_write_time(file), before);
  EXPECT_EQ(recordOf(dir / "r.json")["result"]["skipped"], true);
}

TEST(OkvImportSkipVerified, RedoesADamagedOneWhenForced) {
  const TempDir dir;
  const std::string model = sampleModel(dir), file = dir.write("out.okv2", "OKV2 and then nothing");
  EXPECT_EQ(okv2Run({"import", model, "-o", file, "--skip-verified"}).exitCode, 73);
  EXPECT_EQ(okv2Run({"import", model, "-o", file, "--skip-verified", "--force", "-q"}).exitCode, 0);
  EXPECT_EQ(okv2Run({"verify", file}).exitCode, 0);
}

TEST(OkvSummary, AddsTheReportsUp) {
  const TempDir dir;
  const std::string good = sampleModel(dir), bad = test::ModelDirBuilder().noWeights().write(dir, "bad");
  okv2Run({"import", good, "-o", dir / "a.okv2", "-q", "--report", dir / "1.json"});
  okv2Run({"import", good, "-o", dir / "a.okv2", "-q", "--report", dir / "2.json", "--skip-verified"});
  okv2Run({"import", bad, "-o", dir / "b.okv2", "-q", "--report", dir / "3.json"});
  const Answer sum = okv2Answer({"summary", dir / "1.json", dir / "2.json", dir / "3.json"});
  EXPECT_EQ(sum.exitCode, 0);
  EXPECT_EQ(sum.document["reports"], 3);
  EXPECT_EQ(sum.document["imported"], 1);
  EXPECT_EQ(sum.document["skipped"], 1);
  EXPECT_EQ(sum.document["failed"], 1);
  EXPECT_EQ(sum.document["tensors"], 42);
  EXPECT_EQ(sum.document["bytes"], 2 * fs::file_size(dir / "a.okv2"));
  EXPECT_EQ(sum.document["findings"]["weights.none"], 1);
  EXPECT_EQ(sum.document["failures"],
            json({{{"directory", bad},
                   {"code", 2},
                   {"message", "convert: HF directory has no safetensors or pytorch_model.bin"}}}));
  const CommandResult text = okv2Run({"summary", dir / "1.json", dir / "2.json", dir / "3.json"});
  EXPECT_THAT(text.out, HasSubstr("3 reports: 1 imported, 1 skipped, 1 failed\n"));
}

class OkvSummaryOf : public testing::TestWithParam<const char*> {};

TEST_P(OkvSummaryOf, AnythingElseIsRefused) {
  const TempDir dir;
  const std::string file = dir.write("r.json", GetParam());
  const Answer answer = okv2Answer({"summary", file});
  EXPECT_EQ(answer.exitCode, 2);
  EXPECT_EQ(answer.document["error"], file + ": not the report of an import");
}

INSTANTIATE_TEST_SUITE_P(
    Texts, OkvSummaryOf,
    testing::Values("", "[]", "{}", "{\"schema\":1,\"command\":\"import\",\"result\":1}",
                    "{\"schema\":2,\"command\":\"import\",\"result\":{\"code\":0}}",
                    "{\"schema\":1,\"command\":\"import\",\"result\":{\"code\":\"x\"}}"));

TEST(OkvImport, SaysALineForEveryShardOffATerminal) {
  const TempDir dir;
  const CommandResult result =
      okv2Run({"import", sampleModel(dir, {"--shards", "3"}), "-o", dir / "out.okv2"});
  EXPECT_THAT(result.err, HasSubstr("1 of 3: model-0000"));
  EXPECT_THAT(result.err, HasSubstr("\n3 of 3: model-0000"));
  EXPECT_EQ(result.err.find('\r'), std::string::npos);
  EXPECT_EQ(result.err.find('\x1B'), std::string::npos);
}

// script(1) gives the command a terminal.
TEST(OkvImport, WipesTheBarAwayOnATerminal) {
  const TempDir dir;
  const std::string command =
      std::string("TERM=xterm ") + OKV2_COMMAND + " import " + sampleModel(dir) + " -o " + dir / "out.okv2";
  if (!fs::exists("/usr/bin/script")) GTEST_SKIP() << "needs script(1)";
  const CommandResult result = test::runCommand({"/usr/bin/script", "-qec", command, "/dev/null"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.out, HasSubstr("\r\x1B[Kwrote "));
  EXPECT_EQ(result.out.find("1 of 1"), std::string::npos);
}

TEST(ProgressBar, ShowsPartRateAndTimeLeft) {
  EXPECT_EQ(progressBar(2000000000, 4000000000, 500000000, 60),
            "[#####------]  50.0%  2.0 GB of 4.0 GB  500 MB/s  0:04 left");
}

TEST(ProgressBar, IsFullAtTheEndAndEmptyAtTheStart) {
  EXPECT_EQ(progressBar(0, 1000, 0, 40), "[---------------]   0.0%  0 B of 1.0 kB");
  EXPECT_EQ(progressBar(1000, 1000, 0, 40), "[############] 100.0%  1.0 kB of 1.0 kB");
}

TEST(ProgressBar, FitsIntoANarrowTerminal) {
  for (std::size_t columns = 0; columns < 90; ++columns)
    EXPECT_LE(progressBar(123456, 1234567, 1234, columns).size(), columns);
}

TEST(HumanBytes, GoesFromUnitToUnit) {
  EXPECT_EQ(humanBytes(999), "999 B");
  EXPECT_EQ(humanBytes(1000), "1.0 kB");
  EXPECT_EQ(humanBytes(99900), "99.9 kB");
  EXPECT_EQ(humanBytes(999400), "999 kB");
  EXPECT_EQ(humanBytes(1e15), "1.0 PB");
}

}  // namespace
}  // namespace zel::tool
