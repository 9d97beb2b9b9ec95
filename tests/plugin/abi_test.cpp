// Runs the checks that are written in C, and sees to it that the plug-in stays silent meanwhile.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "plugin/abi_checks.h"
#include "plugin/output_capture.h"
#include "support/model_dir_builder.h"

namespace zel::test {
namespace {

class HostAbi : public testing::Test {
 protected:
  void SetUp() override { ASSERT_STREQ(abi_load(&subject_, OKV2_MODULE), nullptr); }

  void run(const char* (*check)(const AbiSubject*)) {
    OutputCapture capture;
    const char* const failure = check(&subject_);
    EXPECT_EQ(capture.stop(), "");
    EXPECT_STREQ(failure, nullptr);
  }

  TempDir dir_;
  std::string good_ = ModelDirBuilder().write(dir_, "good");
  std::string slash_ = good_ + "/";
  std::string slashes_ = good_ + "//";
  std::string bad_ = ModelDirBuilder().config("{").write(dir_, "bad");
  std::string empty_ = ModelDirBuilder().without("config.json").write(dir_, "empty");
  std::string folder_ = ModelDirBuilder().without("config.json").folder("config.json").write(dir_, "folder");
  std::string pipe_ = ModelDirBuilder().without("config.json").fifo("config.json").write(dir_, "pipe");
  std::string regular_ = dir_.write("regular", "text");
  std::string missing_ = dir_ / "missing";
  std::string dst_ = dir_ / "out.okv2";
  AbiSubject subject_{nullptr,          nullptr,          good_.c_str(),    slash_.c_str(),
                      slashes_.c_str(), bad_.c_str(),     empty_.c_str(),   folder_.c_str(),
                      pipe_.c_str(),    regular_.c_str(), missing_.c_str(), dst_.c_str()};
};

TEST_F(HostAbi, TheDescriptorIsRightByteByByte) { run(abi_check_descriptor); }
TEST_F(HostAbi, TheImporterRecordIsRightByteByByte) { run(abi_check_importer); }
TEST_F(HostAbi, TheTableHasOneImporterAndTakesANullCounter) { run(abi_check_importer_count); }
TEST_F(HostAbi, ProbeAnswersForEveryKindOfPath) { run(abi_check_probe); }
TEST_F(HostAbi, ProbeDropsOneTrailingSlashAndNeverTwo) { run(abi_check_probe_slashes); }
TEST_F(HostAbi, ProbeRefusesNullArgumentsAndWritesNothing) { run(abi_check_probe_null); }
TEST_F(HostAbi, InspectTellsTheArchitectureOrInvalid) { run(abi_check_inspect); }
TEST_F(HostAbi, InspectRefusesNullArgumentsAndWritesNothing) { run(abi_check_inspect_null); }
TEST_F(HostAbi, ImportRefusesNullArgumentsAndWritesNothing) { run(abi_check_import_null); }
TEST_F(HostAbi, ImportRefusesARecordOf47BytesAndTakesOneOf48) { run(abi_check_import_struct_size); }
TEST_F(HostAbi, ImportReadsOnlyTheSizeOfAShortRecord) { run(abi_check_import_short_record); }
TEST_F(HostAbi, ImportNeedsADestination) { run(abi_check_import_null_dst); }
TEST_F(HostAbi, ImportCutsItsErrorTextToTheBuffer) { run(abi_check_import_error_text); }
TEST_F(HostAbi, ImportReportsTensorsAndFileSizeOnSuccess) { run(abi_check_import_success); }

TEST_F(HostAbi, ARefusedImportLeavesNoFile) {
  run(abi_check_import_null);
  run(abi_check_import_null_dst);
  run(abi_check_import_error_text);
  EXPECT_FALSE(std::filesystem::exists(dst_));
}

TEST_F(HostAbi, InspectTextsOfOneThreadSurviveAnInspectOfAnother) {
  const std::string other = ModelDirBuilder().modelType("qwen2").write(dir_, "other");
  const OKVImporter* const importer = subject_.importers(nullptr);
  OKVImportInfo mine{};
  ASSERT_EQ(importer->inspect(good_.c_str(), &mine), 0);
  std::thread([&] {
    OKVImportInfo theirs{};
    EXPECT_EQ(importer->inspect(other.c_str(), &theirs), 0);
    EXPECT_STREQ(theirs.architecture, "qwen2");
    EXPECT_NE(static_cast<const void*>(theirs.architecture), static_cast<const void*>(mine.architecture));
    EXPECT_NE(static_cast<const void*>(theirs.count), static_cast<const void*>(mine.count));
    EXPECT_EQ(importer->inspect(bad_.c_str(), &theirs), 7);
    EXPECT_STREQ(theirs.architecture, "invalid");
    EXPECT_STREQ(theirs.count, "0");
  }).join();
  EXPECT_STREQ(mine.architecture, "llama");
  EXPECT_STREQ(mine.count, "");
}

TEST_F(HostAbi, InspectTextsStayValidUntilTheNextInspectWhateverElseIsCalled) {
  const OKVImporter* const importer = subject_.importers(nullptr);
  OKVImportInfo info{};
  ASSERT_EQ(importer->inspect(good_.c_str(), &info), 0);
  run(abi_check_probe);
  run(abi_check_import_success);
  EXPECT_STREQ(info.architecture, "llama");
  EXPECT_STREQ(info.count, "");
}

}  // namespace
}  // namespace zel::test
