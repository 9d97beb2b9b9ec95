// import --report and --skip-verified, summary, and what an import shows while it runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
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

TEST(OkvImportReport, NeverReplacesALink) {
  const TempDir dir;
  const std::string model = sampleModel(dir), report = dir / "r.json";
  for (const std::string& target : {dir.write("old.json", "precious"), dir / "absent"}) {
    fs::remove(report);
    fs::create_symlink(target, report);
    const CommandResult result = okv2Run({"import", model, "-o", dir / "out.okv2", "--report", report});
    EXPECT_EQ(result.exitCode, 73);
    EXPECT_EQ(result.err, "okv2: the report: " + report + " is a symbolic link\n");
    EXPECT_EQ(fs::read_symlink(report), target);
    EXPECT_FALSE(fs::exists(dir / "out.okv2"));
  }
}

// The report takes the container's place whatever the two paths look like.
TEST(OkvImportReport, NeverReplacesTheContainerOnAnotherRoad) {
  const TempDir dir;
  const std::string model = sampleModel(dir), file = dir / "out.okv2";
  fs::create_directory(dir / "sub");
  fs::create_directory_symlink(dir.path(), dir / "link");
  const auto expectRefusal = [&](const std::string& report) {
    const CommandResult result = okv2Run({"import", model, "-o", file, "--force", "--report", report});
    EXPECT_EQ(result.exitCode, 73) << report;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "okv2: the report: " + report + " is the container\n");
  };
  for (const char* report : {"./out.okv2", "sub/../out.okv2", "link/out.okv2", "/out.okv2"}) {
    expectRefusal(dir / report);
    EXPECT_FALSE(fs::exists(file));
  }
  dir.write("out.okv2", "precious");
  fs::create_symlink(file, dir / "soft");
  fs::create_hard_link(file, dir / "hard");
  for (const char* report : {"./out.okv2", "soft", "hard"})
    expectRefusal(dir / report);
  EXPECT_EQ(test::readWholeFile(file), "precious");
}

TEST(OkvImportReport, NeverReplacesTheContainerInTheCurrentDirectory) {
  const TempDir dir;
  const CommandResult result =
      test::runCommand({"/bin/sh", "-c", "cd \"$1\" && exec \"$0\" import model -o z.okv2 --report ./z.okv2",
                        OKV2_COMMAND, fs::path(sampleModel(dir)).parent_path()});
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(result.err, "okv2: the report: ./z.okv2 is the container\n");
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"model"}));
}

TEST(OkvImportReport, MayHaveTheContainersNameElsewhere) {
  const TempDir dir;
  fs::create_directory(dir / "sub");
  EXPECT_EQ(
      okv2Run({"import", sampleModel(dir), "-o", dir / "out.okv2", "-q", "--report", dir / "sub/out.okv2"})
          .exitCode,
      0);
  EXPECT_EQ(okv2Run({"verify", dir / "out.okv2"}).exitCode, 0);
  EXPECT_EQ(recordOf(dir / "sub/out.okv2")["command"], "import");
}

// A batch is run again: the report is always that of the latest import.
TEST(OkvImportReport, ReplacesAnEarlierOneAfterSuccessAndFailure) {
  const TempDir dir;
  const std::string report = dir.write("r.json", "what was there");
  const std::string good = sampleModel(dir), bad = test::ModelDirBuilder().noWeights().write(dir, "bad");
  EXPECT_EQ(okv2Run({"import", good, "-o", dir / "a.okv2", "-q", "--report", report}).exitCode, 0);
  EXPECT_EQ(recordOf(report)["directory"], good);
  EXPECT_EQ(okv2Run({"import", bad, "-o", dir / "b.okv2", "--report", report}).exitCode, 2);
  EXPECT_EQ(recordOf(report)["directory"], bad);
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"a.okv2", "bad", "model", "r.json"}));
}

TEST(OkvImportReport, IsWrongUsageWhenNothingIsWritten) {
  const TempDir dir;
  const CommandResult result =
      okv2Run({"import", sampleModel(dir), "-o", dir / "out.okv2", "--dry-run", "--report", dir / "r.json"});
  EXPECT_EQ(result.exitCode, 64);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "--report excludes --dry-run\nRun with --help for more information.\n");
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"model"}));
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
                    "{\"schema\":1,\"command\":\"import\",\"result\":{\"code\":\"x\"}}",
                    "{\"schema\":1,\"command\":\"import\",\"result\":{\"code\":-1}}",
                    "{\"schema\":1,\"command\":\"import\",\"result\":{\"code\":0.5}}",
                    "{\"schema\":1,\"command\":\"import\",\"result\":{\"code\":256}}",
                    "{\"schema\":1,\"command\":\"import\",\"result\":{\"code\":4294967296}}",
                    "{\"schema\":1,\"command\":\"import\",\"result\":{\"code\":18446744073709551616}}"));

// The greatest code that a process can end with.
TEST(OkvSummary, CountsEveryOtherExitCodeAsAFailure) {
  const TempDir dir;
  const std::string file = dir.write(
      "r.json", R"({"schema":1,"command":"import","directory":"d","result":{"code":255,"message":"m"}})");
  const Answer answer = okv2Answer({"summary", file});
  EXPECT_EQ(answer.exitCode, 0);
  EXPECT_EQ(answer.document["imported"], 0);
  EXPECT_EQ(answer.document["failures"], json({{{"directory", "d"}, {"code", 255}, {"message", "m"}}}));
}

TEST(OkvSummary, StopsAtTheGreatestSumInsteadOfWrapping) {
  const TempDir dir;
  const auto report = [&](const char* name, const char* bytes) {
    return dir.write(
        name, std::string(R"({"schema":1,"command":"import","result":{"code":0},"bytes":)") + bytes + "}");
  };
  const std::string most = report("most.json", "18446744073709551614"), one = report("one.json", "1");
  EXPECT_EQ(okv2Answer({"summary", most, one}).document["bytes"], 18446744073709551615U);
  EXPECT_EQ(okv2Answer({"summary", most, one, one}).document["bytes"], 18446744073709551615U);
}

TEST(OkvSummary, RefusesAFifoAtOnce) {
  const TempDir dir;
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  const Answer answer = okv2Answer({"summary", dir / "fifo"});
  EXPECT_EQ(answer.exitCode, 2);
  EXPECT_EQ(answer.document["error"], dir / "fifo" + ": not a regular file");
  EXPECT_EQ(answer.err, "okv2: " + dir / "fifo" + ": not a regular file\n");
}

TEST(OkvSummary, SaysWhyAReportCannotBeRead) {
  const TempDir dir;
  const CommandResult result = okv2Run({"summary", dir / "r.json"});
  EXPECT_EQ(result.exitCode, 6);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: cannot read " + dir / "r.json" + ": No such file or directory\n");
}

TEST(OkvSummary, ReadsAPipeThatItIsGiven) {
  const TempDir dir;
  const std::string file = dir.write("r.json", R"({"schema":1,"command":"import","result":{"code":0}})");
  const CommandResult result =
      test::runCommand({"/bin/sh", "-c", "cat \"$1\" | \"$0\" summary /dev/stdin", OKV2_COMMAND, file});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("1 reports: 1 imported, 0 skipped, 0 failed\n"));
}

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
