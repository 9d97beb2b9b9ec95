// docs/findings.md is what the table of findings says.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "okv2/explain/explanation.h"
#include "support/temp_dir.h"

namespace zel::explain {
namespace {

// After a change of the table: okv2 findings --markdown >docs/findings.md
TEST(FindingsPage, IsMadeFromTheTable) {
  EXPECT_EQ(test::readWholeFile(OKV2_FINDINGS_PAGE), findingsMarkdown());
}

TEST(FindingTable, GivesEveryFindingANameOfItsOwn) {
  std::set<std::string> names;
  for (const FindingRow& row : kFindings)
    EXPECT_TRUE(names.insert(row.name).second) << row.name;
}

TEST(FindingTable, SaysWhatAndWhyInOneSentenceEach) {
  for (const FindingRow& row : kFindings) {
    for (const std::string text : {row.what, row.why}) {
      EXPECT_EQ(text.back(), '.') << row.name;
      EXPECT_EQ(text.find(". "), std::string::npos) << row.name;
    }
    EXPECT_NE(std::string(row.todo), "") << row.name;
  }
}

TEST(FindingAdvice, QuotesTheFileForTheShell) {
  EXPECT_EQ(adviceFor({Id::WeightsLfsPointer, "a b.safetensors", ""}),
            "git lfs pull --include 'a b.safetensors'");
  EXPECT_EQ(adviceFor({Id::WeightsLfsPointer, "it's", ""}),
            R"(git lfs pull --include 'it'"'"'s')");  // no backslash, which would be escaped on its way out
  EXPECT_EQ(adviceFor({Id::WeightsLfsPointer, "-rf", ""}), "git lfs pull --include './-rf'");
}

}  // namespace
}  // namespace zel::explain
