// probe, inspect and import, run as a user runs them, with the real plug-in.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tools/cli.h"

namespace zel::tool {
namespace {

namespace fs = std::filesystem;
using test::CommandResult;
using test::readWholeFile;
using test::TempDir;
using testing::ElementsAre;

TEST(OkvProbe, AnswersForAModelDirectory) {
  const TempDir dir;
  const CommandResult result = okv2Run({"probe", sampleModel(dir)});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "confidence: 100\nformat: hf\nreason: directory with config.json\n");
  EXPECT_EQ(result.err, "");
}

TEST(OkvProbe, AnswersForAnythingElse) {
  const TempDir dir;
  const CommandResult result = okv2Run({"probe", dir.path()});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "confidence: 0\n");
  EXPECT_EQ(result.err, "");
}

TEST(OkvInspect, NamesTheArchitecture) {
  const TempDir dir;
  const CommandResult result = okv2Run({"inspect", sampleModel(dir, {"--arch", "qwen2"})});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "format: hf\narchitecture: qwen2\n");
  EXPECT_EQ(result.err, "");
}

TEST(OkvInspect, SaysNothingOnStdoutWhenItFails) {
  const TempDir dir;
  dir.write("config.json", "{");
  const CommandResult result = okv2Run({"inspect", dir.path()});
  EXPECT_EQ(result.exitCode, 7);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: " + dir.path() + ": damaged input; an import tells more\n");
}

TEST(OkvImport, WritesTheContainerAndSaysSoOnStderr) {
  const TempDir dir;
  const std::string file = dir / "out.okv2", model = dir / "model";
  // "wrote DIR: 21 tensors, N weight bytes"
  const std::string made = okv2Run({"sample", model, "--size", "50K"}).err;
  const std::string counts = made.substr(made.find(": ") + 2, made.find(" weight") - made.find(": ") - 2);
  const CommandResult result = okv2Run({"import", model, "-o", file});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "1 of 1: model-00001-of-00001.safetensors: " + counts + " bytes\nwrote " + file +
                            ": 21 tensors, " + std::to_string(fs::file_size(file)) + " bytes\n");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("model", "out.okv2"));
  EXPECT_EQ(okv2Run({"verify", file}).exitCode, 0);
}

TEST(OkvImport, SaysNothingWhenQuiet) {
  const TempDir dir;
  const CommandResult result = okv2Run({"import", sampleModel(dir), "-o", dir / "out.okv2", "-q"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
}

TEST(OkvImport, WritesToAFileNamedWithoutAFolder) {
  const TempDir dir;
  const std::string model = sampleModel(dir);
  const CommandResult result =
      test::runCommand({"/bin/sh", "-c", "cd \"$1\" && exec \"$2\" import model -o out.okv2 -q", "sh",
                        dir.path(), OKV2_COMMAND});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("model", "out.okv2"));
}

TEST(OkvImport, GivesTheFileThePermissionsOfAnyNewFile) {
  const TempDir dir;
  const std::string file = dir / "out.okv2";
  const mode_t mask = umask(027);
  okv2Run({"import", sampleModel(dir), "-o", file});
  umask(mask);
  struct stat status;
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0640U);
}

TEST(OkvImport, RefusesAnExistingFile) {
  const TempDir dir;
  const std::string file = dir.write("out.okv2", "precious");
  const CommandResult result = okv2Run({"import", sampleModel(dir), "-o", file});
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: " + file + " already exists; --force overwrites it\n");
  EXPECT_EQ(readWholeFile(file), "precious");
}

TEST(OkvImport, ReplacesAnExistingFileWhenForced) {
  const TempDir dir;
  const std::string file = dir.write("out.okv2", "precious");
  EXPECT_EQ(okv2Run({"import", sampleModel(dir), "-o", file, "--force"}).exitCode, 0);
  EXPECT_EQ(okv2Run({"verify", file}).exitCode, 0);
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("model", "out.okv2"));
}

TEST(OkvImport, LeavesAnExistingFileUntouchedWhenItFails) {
  const TempDir dir;
  const std::string file = dir.write("out.okv2", "precious");
  const std::string model = sampleModel(dir);
  // The index names more data than the file has.
  fs::resize_file(model + "/model-00001-of-00001.safetensors",
                  fs::file_size(model + "/model-00001-of-00001.safetensors") - 1);
  const CommandResult result = okv2Run({"import", model, "-o", file, "--force"});
  EXPECT_EQ(result.exitCode, 7);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err.rfind("okv2: " + model + ": safetensors: offset out of range '", 0), 0U) << result.err;
  EXPECT_EQ(readWholeFile(file), "precious");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("model", "out.okv2"));
}

TEST(OkvImport, SaysThatADirectoryIsNoModel) {
  const TempDir dir;
  const CommandResult result = okv2Run({"import", dir / "nowhere", "-o", dir / "out.okv2"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: " + dir / "nowhere" + ": hf: no config.json in directory\n");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre());
}

TEST(OkvImport, RefusesASymbolicLink) {
  const TempDir dir;
  const std::string target = dir.write("target", "precious");
  fs::create_symlink("target", dir / "out.okv2");
  const std::string file = dir / "out.okv2";
  const CommandResult result = okv2Run({"import", sampleModel(dir), "-o", file});
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(result.err, "okv2: " + file + " is a symbolic link; --force replaces the link\n");
  EXPECT_EQ(readWholeFile(target), "precious");
}

TEST(OkvImport, ReplacesALinkAndNotItsTargetWhenForced) {
  const TempDir dir;
  const std::string target = dir.write("target", "precious");
  fs::create_symlink("target", dir / "out.okv2");
  EXPECT_EQ(okv2Run({"import", sampleModel(dir), "-o", dir / "out.okv2", "--force"}).exitCode, 0);
  EXPECT_EQ(readWholeFile(target), "precious");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(dir / "out.okv2")));
}

TEST(OkvImport, NeverReplacesALinkToWhatIsNoRegularFile) {
  const TempDir dir;
  const std::string model = sampleModel(dir), file = dir / "out.okv2";
  const auto expectRefusal = [&](const fs::path& target, const char* why) {
    fs::remove(file);
    fs::create_symlink(target, file);
    const CommandResult result = okv2Run({"import", model, "-o", file, "--force"});
    EXPECT_EQ(result.exitCode, 73);
    EXPECT_EQ(result.err, "okv2: " + file + why);
    EXPECT_EQ(fs::read_symlink(file), target);
  };
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  expectRefusal(dir / "fifo", " is not a regular file\n");
  expectRefusal("/dev/null", " is not a regular file\n");
  expectRefusal(model, " is a directory\n");
}

TEST(OkvImport, RefusesADirectoryEvenWhenForced) {
  const TempDir dir;
  fs::create_directory(dir / "out.okv2");
  const CommandResult result = okv2Run({"import", sampleModel(dir), "-o", dir / "out.okv2", "--force"});
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(result.err, "okv2: " + dir / "out.okv2" + " is a directory\n");
}

TEST(OkvImport, RefusesAFifoEvenWhenForced) {
  const TempDir dir;
  ASSERT_EQ(mkfifo((dir / "out.okv2").c_str(), 0600), 0);
  const CommandResult result = okv2Run({"import", sampleModel(dir), "-o", dir / "out.okv2", "--force"});
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(result.err, "okv2: " + dir / "out.okv2" + " is not a regular file\n");
  EXPECT_TRUE(fs::is_fifo(dir / "out.okv2"));
}

class OkvImportOntoAnInput : public testing::TestWithParam<const char*> {
 protected:
  void expectRefusal(const std::string& file) const {
    const std::string before = readWholeFile(file);
    const CommandResult result = okv2Run({"import", model_, "-o", file, "--force"});
    EXPECT_EQ(result.exitCode, 73);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "okv2: " + file + " is one of the files to be imported; it is never overwritten\n");
    EXPECT_EQ(readWholeFile(file), before);
  }

  TempDir dir_;
  std::string model_ = sampleModel(dir_);
};

TEST_P(OkvImportOntoAnInput, IsRefusedEvenWhenForced) { expectRefusal(model_ + "/" + GetParam()); }

TEST_P(OkvImportOntoAnInput, IsRefusedThroughAHardLink) {
  fs::create_hard_link(model_ + "/" + GetParam(), dir_ / "out.okv2");
  expectRefusal(dir_ / "out.okv2");
}

TEST_P(OkvImportOntoAnInput, IsRefusedThroughASymbolicLink) {
  fs::create_symlink(model_ + "/" + GetParam(), dir_ / "out.okv2");
  expectRefusal(dir_ / "out.okv2");
  EXPECT_TRUE(fs::is_symlink(dir_ / "out.okv2"));
}

INSTANTIATE_TEST_SUITE_P(Inputs, OkvImportOntoAnInput,
                         testing::Values("config.json", "tokenizer.json", "tokenizer_config.json",
                                         "special_tokens_map.json", "generation_config.json",
                                         "model-00001-of-00001.safetensors"));

TEST(OkvImport, MayWriteIntoTheModelDirectoryAgainAndAgain) {
  const TempDir dir;
  const std::string model = sampleModel(dir);
  EXPECT_EQ(okv2Run({"import", model, "-o", model + "/out.okv2"}).exitCode, 0);
  EXPECT_EQ(okv2Run({"import", model, "-o", model + "/out.okv2", "--force"}).exitCode, 0);
}

TEST(OkvImport, SaysWhyItCannotCreateTheFile) {
  const TempDir dir;
  const CommandResult result = okv2Run({"import", sampleModel(dir), "-o", dir / "nowhere/out.okv2"});
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(result.err, "okv2: cannot create " + dir / "nowhere/out.okv2" + ": No such file or directory\n");
}

TEST(OkvImport, RefusesAnOutputWithoutAFileName) {
  const TempDir dir;
  const CommandResult result = okv2Run({"import", sampleModel(dir), "-o", dir / "new/"});
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(result.err, "okv2: " + dir / "new/" + ": the output must be a file name\n");
}

TEST(OkvImport, TakesTheLongestFileNameThatThereIs) {
  const TempDir dir;
  const std::string file = dir / std::string(255, 'n');
  EXPECT_EQ(okv2Run({"import", sampleModel(dir), "-o", file, "-q"}).exitCode, 0);
  EXPECT_TRUE(fs::is_regular_file(file));
}

// The file size limit ends writing with an error and not with a signal that would leave a part behind.
TEST(OkvImport, CleansUpWhenTheFileSizeLimitIsReached) {
  const TempDir dir;
  const std::string model = sampleModel(dir);
  const CommandResult result =
      test::runCommand({"/bin/sh", "-c", "ulimit -f 8 && exec \"$0\" import \"$1\" -o \"$2\"", OKV2_COMMAND,
                        model, dir / "out.okv2"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.err.rfind("okv2: " + model + ": OKV2: ", 0), 0U) << result.err;
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("model"));
}

}  // namespace
}  // namespace zel::tool
