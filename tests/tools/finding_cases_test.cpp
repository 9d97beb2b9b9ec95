// Every finding: exactly it is found in the smallest directory that has it, in its full words, and not in the
// directory beside that one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "support/unprivileged.h"
#include "tools/finding_cases.h"

namespace zel::explain {
namespace {

using test::ModelDirBuilder;
using test::TempDir;

std::vector<FindingCase> allCases() {
  std::vector<FindingCase> out;
  for (const auto& cases : {configCases(), tokenizerCases(), templateCases(), fileCases(), weightCases(),
                            checkpointCases(), tensorCases()})
    out.insert(out.end(), cases.begin(), cases.end());
  return out;
}

std::vector<std::string> idsOf(const Explanation& explanation) {
  std::vector<std::string> out;
  for (const Finding& finding : explanation.findings)
    out.emplace_back(rowOf(finding.id).name);
  return out;
}

// The findings of this kind as the command prints them.
std::string told(const Explanation& explanation, Id id) {
  std::string out;
  for (const Finding& finding : explanation.findings) {
    if (finding.id != id) continue;
    const FindingRow& row = rowOf(id);
    const bool isDirectory = finding.subject == explanation.directory;
    out += std::string(severityName(row.severity)) + " " + row.name + ": ";
    out += (isDirectory ? "DIR" : finding.subject) + "\n";
    if (!finding.detail.empty()) out += "  " + finding.detail + "\n";
    out += std::string("  ") + row.what + "\n  Why: " + row.why + "\n  Do:  " + adviceFor(finding) + "\n";
  }
  return out;
}

Explanation explained(const ModelDirBuilder& model) {
  const TempDir temp;
  return explainDirectory(model.write(temp));
}

class FindingCases : public testing::TestWithParam<FindingCase> {};

TEST_P(FindingCases, FindsItAndSaysWhatWhyAndWhatToDo) {
  EXPECT_EQ(told(explained(GetParam().has), GetParam().id), GetParam().told);
}

TEST_P(FindingCases, FindsNothingElse) {
  std::vector<std::string> expected = GetParam().company;
  expected.emplace_back(rowOf(GetParam().id).name);
  std::vector<std::string> found = idsOf(explained(GetParam().has));
  for (const Id id : {Id::ConfigSizeMissing, Id::ConfigSettingMissing}) {
    if (GetParam().id != id)
      found.erase(std::remove(found.begin(), found.end(), rowOf(id).name), found.end());
  }
  EXPECT_THAT(found, testing::UnorderedElementsAreArray(expected));
}

TEST_P(FindingCases, FindsItNotOnTheOtherSideOfTheEdge) {
  EXPECT_THAT(idsOf(explained(GetParam().lacks)), testing::Not(testing::Contains(rowOf(GetParam().id).name)));
}

TEST_P(FindingCases, IsFatalExactlyWhenAnImportFails) {
  for (const ModelDirBuilder* model : {&GetParam().has, &GetParam().lacks}) {
    const Explanation explanation = explained(*model);
    EXPECT_EQ(explanation.count(Severity::Fatal) > 0, explanation.importCode != 0)
        << explanation.importMessage;
  }
}

INSTANTIATE_TEST_SUITE_P(Findings, FindingCases, testing::ValuesIn(allCases()), [](const auto& row) {
  std::string name = std::string(rowOf(row.param.id).name) + "_" + row.param.label;
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == '.' || c == '-'; }, '_');
  return name;
});

TEST(FindingCaseTable, HasEveryFinding) {
  std::set<Id> covered = {
      Id::DirectoryUnreadable,  // no content of a directory gives it; below
      Id::TensorTypeCodeZero,   // no weight file gives it; below
      Id::FileNoPermission,     // nor this; below
      Id::WeightsNoPermission,
  };
  for (const FindingCase& row : allCases())
    covered.insert(row.id);
  for (const FindingRow& row : kFindings)
    EXPECT_EQ(covered.count(row.id), 1U) << row.name << " has no case";
}

TEST(GoodModel, GivesNoFinding) { EXPECT_THAT(idsOf(explained(goodModel())), testing::IsEmpty()); }

Explanation explainedWithMode(mode_t mode) {
  const TempDir temp;
  const std::string model = goodModel().write(temp);
  EXPECT_EQ(chmod(temp.path().c_str(), 0755), 0);
  EXPECT_EQ(chmod(model.c_str(), mode), 0);
  Explanation explanation;
  {
    const test::Unprivileged user;
    explanation = explainDirectory(model);
  }
  EXPECT_EQ(chmod(model.c_str(), 0755), 0);
  return explanation;
}

TEST(UnreadableDirectory, IsFatal) {
  const Explanation explanation = explainedWithMode(0311);
  EXPECT_EQ(explanation.importMessage, "convert: cannot open directory");
  EXPECT_THAT(idsOf(explanation), testing::Contains("directory.unreadable"));
  EXPECT_EQ(told(explanation, Id::DirectoryUnreadable),
            "fatal directory.unreadable: DIR\n"
            "  The directory cannot be listed.\n"
            "  Why: The weight files are found by listing it.\n"
            "  Do:  chmod u+rx '" +
                explanation.directory + "'\n");
}

TEST(UnreadableDirectory, IsNoneThatCanBeListed) {
  EXPECT_THAT(idsOf(explainedWithMode(0755)), testing::IsEmpty());
}

// goodModel() with `name`, which nobody may open.
Explanation explainedWithout(const std::string& name, const ModelDirBuilder& model) {
  const TempDir temp;
  const std::string path = model.write(temp);
  test::sealFile(temp.path(), path, name);
  const test::Unprivileged user;
  return explainDirectory(path);
}

TEST(FileWithoutPermission, IsToldFromOneThatIsNotRegular) {
  const Explanation explanation =
      explainedWithout("generation_config.json", goodModel().file("generation_config.json", "{}"));
  EXPECT_THAT(idsOf(explanation), testing::ElementsAre("file.no-permission"));
  EXPECT_EQ(told(explanation, Id::FileNoPermission),
            "loss file.no-permission: generation_config.json\n"
            "  A file may not be read.\n"
            "  Why: A file that cannot be opened counts as absent.\n"
            "  Do:  chmod u+r 'generation_config.json'\n");
  EXPECT_EQ(explanation.files[1].name, "generation_config.json");
  EXPECT_FALSE(explanation.files[1].read);
  EXPECT_EQ(explanation.files[1].use, "not read: permission is denied");
}

TEST(FileWithoutPermission, IsNoneThatIsNotLookedFor) {
  EXPECT_THAT(idsOf(explainedWithout("README.md", goodModel().file("README.md", "x"))), testing::IsEmpty());
}

TEST(WeightFileWithoutPermission, IsFatal) {
  const Explanation explanation = explainedWithout("model.safetensors", goodModel());
  EXPECT_NE(explanation.importCode, 0);
  EXPECT_THAT(idsOf(explanation), testing::ElementsAre("weights.no-permission"));
  EXPECT_EQ(told(explanation, Id::WeightsNoPermission),
            "fatal weights.no-permission: model.safetensors\n"
            "  A weight file may not be read.\n"
            "  Why: Every weight file is opened, and an import ends at the first that cannot be.\n"
            "  Do:  chmod u+r 'model.safetensors'\n");
}

TEST(WeightFileWithoutPermission, IsFatalAsACheckpointToo) {
  const Explanation explanation =
      explainedWithout("pytorch_model.bin", goodModel().noWeights().file("pytorch_model.bin", "x"));
  EXPECT_THAT(idsOf(explanation), testing::ElementsAre("weights.no-permission"));
}

// The types without a code of their own, which the writer knows, are in no weight file that is read.
TEST(TypeCodeZero, IsDeclaredForNoTypeThatIsReadButF32) {
  for (const char* type : {"F16", "BF16", "Q4_K", "Q5_K", "Q6_K"}) {
    const Explanation explanation = explained(goodModel().shard(
        "model.safetensors", test::SafetensorsBuilder().tensor("lm_head.weight", type, {256, 1})));
    EXPECT_THAT(idsOf(explanation), testing::IsEmpty()) << type;
    ASSERT_EQ(explanation.types.size(), 1U) << type;
    EXPECT_EQ(explanation.types[0].type, type);
    EXPECT_NE(explanation.types[0].code, 0) << type;
  }
}

}  // namespace
}  // namespace zel::explain
