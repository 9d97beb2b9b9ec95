// The command as a host: with plug-ins that fail, wait or lie, and where it looks for its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "tools/cli.h"

namespace zel::tool {
namespace {

namespace fs = std::filesystem;
using test::Command;
using test::CommandResult;
using test::readWholeFile;
using test::TempDir;
using testing::ElementsAre;
using testing::HasSubstr;

CommandResult importWith(const std::string& plugin, const std::string& source, const std::string& file,
                         const std::string& option = "-q") {
  return okv2Run({"import", source, "-o", file, "--plugin", plugin, option});
}

TEST(OkvHost, PassesTheNumbersOfThePluginOn) {
  const TempDir dir;
  const CommandResult result = okv2Run({"import", "/ok", "-o", dir / "out.okv2", "--plugin", FAKE_PLUGIN});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "wrote " + dir / "out.okv2" + ": 3 tensors, 4 bytes\n");
  EXPECT_EQ(readWholeFile(dir / "out.okv2"), "part");
}

class OkvHostFailure : public testing::TestWithParam<int> {};

TEST_P(OkvHostFailure, BecomesTheExitCodeWithTheEscapedText) {
  const TempDir dir;
  const std::string order = "/" + std::to_string(GetParam());
  const CommandResult result = importWith(FAKE_PLUGIN, order, dir / "out.okv2");
  EXPECT_EQ(result.exitCode, GetParam());
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: " + order + ": fake: bad\\nnews\n");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre());
}

INSTANTIATE_TEST_SUITE_P(HostCodes, OkvHostFailure, testing::Values(1, 2, 3, 6, 7));

struct Meaning {
  int code;
  const char* text;
};

class OkvHostSilentFailure : public testing::TestWithParam<Meaning> {};

TEST_P(OkvHostSilentFailure, IsPutIntoWords) {
  const TempDir dir;
  const std::string order = "/" + std::to_string(GetParam().code) + "-silent";
  const CommandResult result = importWith(FAKE_PLUGIN, order, dir / "out.okv2");
  EXPECT_EQ(result.exitCode, GetParam().code);
  EXPECT_EQ(result.err, "okv2: " + order + ": " + GetParam().text + "\n");
}

TEST_P(OkvHostSilentFailure, OfProbeIsPutIntoWords) {
  const std::string order = "/" + std::to_string(GetParam().code);
  const CommandResult result = okv2Run({"probe", order, "--plugin", FAKE_PLUGIN});
  EXPECT_EQ(result.exitCode, GetParam().code);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "okv2: " + order + ": " + GetParam().text + "\n");
}

INSTANTIATE_TEST_SUITE_P(HostCodes, OkvHostSilentFailure,
                         testing::Values(Meaning{1, "the importer failed"},
                                         Meaning{2, "not a usable model directory"},
                                         Meaning{3, "unsupported input"},
                                         Meaning{6, "the operating system refused to read it"},
                                         Meaning{7, "damaged input"}));

TEST(OkvHost, EscapesTextsOfThePlugin) {
  const CommandResult result = okv2Run({"inspect", "/0", "--plugin", FAKE_PLUGIN});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "format: hf\narchitecture: evil\\x1B[2J\n");
}

TEST(OkvHost, DoesNotReplaceAFileThatAppearedMeanwhile) {
  const TempDir dir;
  const CommandResult result = importWith(FAKE_PLUGIN, "/race", dir / "out.okv2");
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(result.err, "okv2: cannot create " + dir / "out.okv2" + ": File exists\n");
  EXPECT_EQ(readWholeFile(dir / "out.okv2"), "the other's");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("out.okv2"));
}

TEST(OkvHost, ReplacesAFileThatAppearedMeanwhileWhenForced) {
  const TempDir dir;
  EXPECT_EQ(importWith(FAKE_PLUGIN, "/race", dir / "out.okv2", "--force").exitCode, 0);
  EXPECT_EQ(readWholeFile(dir / "out.okv2"), "part");
}

// ---- signals

// Waits until the import in `dir` has written a part of its file.
void awaitPart(const TempDir& dir) {
  for (int round = 0; round < 3000; ++round) {
    for (const auto& entry : fs::directory_iterator(dir.path())) {
      if (entry.path().filename() != "out.okv2" && fs::is_regular_file(entry) && fs::file_size(entry) == 4)
        return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  FAIL() << "the import has not begun";
}

class OkvSignal : public testing::TestWithParam<int> {};

TEST_P(OkvSignal, RemovesThePartAndLeavesTheOldFile) {
  const TempDir dir;
  const std::string file = dir.write("out.okv2", "precious");
  Command command({OKV2_COMMAND, "import", "/wait", "-o", file, "--plugin", FAKE_PLUGIN, "--force"});
  awaitPart(dir);
  command.send(GetParam());
  const CommandResult result = command.wait();
  EXPECT_EQ(result.signal, GetParam());
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(readWholeFile(file), "precious");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("out.okv2"));
}

INSTANTIATE_TEST_SUITE_P(Signals, OkvSignal, testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST(OkvSignals, ThatWereIgnoredStayIgnored) {
  const TempDir dir;
  Command command({"/bin/sh", "-c", "trap '' HUP; exec \"$0\" import /wait -o \"$1\" --plugin \"$2\"",
                   OKV2_COMMAND, dir / "out.okv2", FAKE_PLUGIN});
  awaitPart(dir);
  command.send(SIGHUP);
  command.send(SIGTERM);
  EXPECT_EQ(command.wait().signal, SIGTERM);
  EXPECT_THAT(namesIn(dir.path()), ElementsAre());
}

// ---- loading

struct BadPlugin {
  const char* path;
  const char* why;
};

class OkvBadPlugin : public testing::TestWithParam<BadPlugin> {};

TEST_P(OkvBadPlugin, IsRefused) {
  const CommandResult result = okv2Run({"probe", "/0", "--plugin", GetParam().path});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "okv2: cannot load the plug-in " + std::string(GetParam().path) + ": " + GetParam().why + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Plugins, OkvBadPlugin,
    testing::Values(BadPlugin{FAKE_PLUGIN_NO_EXPORTS, "it does not export the plug-in functions"},
                    BadPlugin{FAKE_PLUGIN_DESCRIPTOR_ABI, "it has ABI version 2, this command needs 1"},
                    BadPlugin{FAKE_PLUGIN_IMPORTER_ABI,
                              "its importer has ABI version 2, this command needs 1"},
                    BadPlugin{FAKE_PLUGIN_COUNT, "it offers no importer"},
                    BadPlugin{"/nowhere.so", "not a regular file"}, BadPlugin{"/tmp", "not a regular file"}));

TEST(OkvPlugin, ThatIsAFifoDoesNotBlock) {
  const TempDir dir;
  ASSERT_EQ(mkfifo((dir / "p.so").c_str(), 0600), 0);
  EXPECT_EQ(okv2Run({"probe", "/0", "--plugin", dir / "p.so"}).exitCode, 69);
}

TEST(OkvPlugin, ThatIsNoLibraryIsRefusedInTheLoadersWords) {
  const TempDir dir;
  const std::string file = dir.write("p.so", "text");
  const CommandResult result = okv2Run({"probe", "/0", "--plugin", file});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_THAT(result.err, HasSubstr("okv2: cannot load the plug-in " + file + ": "));
}

TEST(OkvPlugin, IsFoundInTheLibraryFolderOfTheInstallation) {
  const TempDir dir;
  const std::string bin = dir / "prefix/bin", lib = bin + "/" OKV2_PLUGIN_FROM_BINDIR;
  fs::create_directories(bin);
  fs::create_directories(lib);
  fs::copy_file(OKV2_COMMAND, bin + "/okv2");
  fs::copy_file(FAKE_PLUGIN, lib + "/importer_hf.so");
  const CommandResult result = test::runCommand({bin + "/okv2", "inspect", "/0"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("evil"));
}

TEST(OkvPlugin, IsMissedInPlainWords) {
  const TempDir dir;
  fs::copy_file(OKV2_COMMAND, dir / "okv2");
  const CommandResult result = test::runCommand({dir / "okv2", "inspect", "/0"});
  EXPECT_EQ(result.exitCode, 69);
  EXPECT_EQ(result.err,
            "okv2: cannot find the plug-in importer_hf.so beside this command; name it with --plugin\n");
}

}  // namespace
}  // namespace zel::tool
