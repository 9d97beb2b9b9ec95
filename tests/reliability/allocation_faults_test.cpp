// Every single allocation of probe, inspect and import fails once, and then once with all that follow it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "allocator_shim.h"
#include "model_inputs.h"
#include "plugin/plugin_host.h"
#include "readers/safetensors_importer.h"
#include "support/temp_dir.h"
#include "support/test_conditions.h"

namespace zel {
namespace {

using test::AllocationKind;
using test::AllocationReport;
using test::importer;
using test::LiveBlock;

// The importers of opened shards live until the process ends, on purpose: they, and what they lead to, are
// no leak. Everything else is. `keptImporters` receives the number of importers.
std::vector<LiveBlock> leakedBlocks(const std::vector<LiveBlock>& blocks, std::size_t& keptImporters) {
  std::map<const void*, std::size_t> unreached;
  for (const LiveBlock& block : blocks)
    unreached[block.address] = block.size;
  std::vector<LiveBlock> toScan;
  for (const LiveBlock& block : blocks) {
    if (block.size == sizeof(SafetensorsImporter)) toScan.push_back(block);
  }
  keptImporters = toScan.size();
  for (const LiveBlock& block : toScan)
    unreached.erase(block.address);
  while (!toScan.empty()) {
    const LiveBlock block = toScan.back();
    toScan.pop_back();
    for (std::size_t at = 0; at + sizeof(void*) <= block.size; at += sizeof(void*)) {
      void* pointer;
      std::memcpy(&pointer, static_cast<const char*>(block.address) + at, sizeof pointer);
      if (const auto found = unreached.find(pointer); found != unreached.end()) {
        toScan.push_back({pointer, found->second});
        unreached.erase(found);
      }
    }
  }
  std::vector<LiveBlock> leaked;
  for (const auto& [address, size] : unreached)
    leaked.push_back({const_cast<void*>(address), size});
  return leaked;
}

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return std::size_t(std::distance(begin(entries), end(entries)));
}

// `threadText` is a text that inspect has handed out, which lives until the thread's next call.
void expectNothingLeaked(std::size_t descriptorsBefore, std::size_t mostKeptImporters,
                         const char* threadText) {
  std::size_t kept = 0;
  std::vector<LiveBlock> leaked = leakedBlocks(test::takeLiveBlocks(), kept);
  std::erase_if(leaked, [&](const LiveBlock& block) { return block.address == threadText; });
  EXPECT_TRUE(leaked.empty()) << leaked.size() << " blocks, the first of " << leaked.front().size << " bytes";
  EXPECT_LE(kept, mostKeptImporters);
  EXPECT_EQ(openDescriptors(), descriptorsBefore);
}

struct FaultCase {
  test::NamedInput input;
  bool fromThereOn;
};

class AllocationFaults : public testing::TestWithParam<FaultCase> {
 protected:
  AllocationFaults() : dir_(GetParam().input.builder().write(temp_)) {
    // The first inspection on a thread registers destructors of thread-local texts with the C library, which
    // ends the process itself when it has no memory for that. A host's thread that has come so far survives.
    const test::InspectAnswer answer = test::inspectDir(dir_);
    EXPECT_EQ(answer.code, OKV_OK);
    EXPECT_EQ(answer.architecture, GetParam().input.architecture);
  }

  // Calls `run` with the n-th allocation failing, for n = 1, 2, ... until none is left to fail;
  // `check` judges each answer.
  template <class Run, class Check>
  void failEachAllocation(Run run, Check check, std::size_t mostKeptImporters) {
    std::uint64_t n = 1;
    for (;; ++n) {
      SCOPED_TRACE("allocation " + std::to_string(n));
      const std::size_t descriptors = openDescriptors();
      test::armAllocator(n, GetParam().fromThereOn);
      run();
      const AllocationReport report = test::disarmAllocator();
      expectNothingLeaked(descriptors, mostKeptImporters, info_.architecture);
      check(report.decisive);
      if (!report.failedAny || HasFailure()) break;
    }
    RecordProperty("allocations", std::to_string(n - 1));
    EXPECT_GT(n, 1u) << "nothing was allocated: the allocator is not the one that the module uses";
  }

  test::TempDir temp_;
  std::string dir_;
  OKVImportInfo info_ = {};
};

TEST_P(AllocationFaults, LeaveProbeWithItsCodeAndAnEmptyRecord) {
  std::int32_t code = 0;
  OKVProbeResult result;
  const auto run = [&] {
    result = {7, "x", "x", "x"};
    code = importer().probe(dir_.c_str(), &result);
  };
  const auto check = [&](AllocationKind failed) {
    EXPECT_EQ(code, failed == AllocationKind::None ? OKV_OK : OKV_FAILED);
    EXPECT_EQ(result.confidence, failed == AllocationKind::None ? 100u : 0u);
    EXPECT_EQ(result.reason == nullptr, failed != AllocationKind::None);
  };
  failEachAllocation(run, check, 0);
}

TEST_P(AllocationFaults, LeaveInspectWithItsCodeAndItsTexts) {
  std::int32_t code = 0;
  const auto run = [&] {
    info_ = {};
    code = importer().inspect(dir_.c_str(), &info_);
  };
  const auto check = [&](AllocationKind failed) {
    const bool ok = failed == AllocationKind::None;
    EXPECT_EQ(code, ok ? OKV_OK : OKV_FAILED);
    EXPECT_STREQ(info_.format, "hf");
    EXPECT_STREQ(info_.architecture, ok ? GetParam().input.architecture : "invalid");
    EXPECT_STREQ(info_.count, ok ? "" : "0");
    const test::InspectAnswer next = test::inspectDir(dir_);
    EXPECT_EQ(next.code, OKV_OK);
    EXPECT_EQ(next.architecture, GetParam().input.architecture);
  };
  failEachAllocation(run, check, 0);
}

TEST_P(AllocationFaults, LeaveImportWithItsCodeAndATextAndTheNextImportWorks) {
  const std::string good = temp_ / "good.okv2";
  ASSERT_EQ(test::importDir(dir_, good).code, OKV_OK);
  const std::string goodBytes = test::readWholeFile(good);

  const std::string out = temp_ / "out.okv2";
  char text[64];
  std::uint64_t tensors, fileSize;
  std::int32_t code = 0;
  const auto run = [&] {
    std::strcpy(text, "untouched");
    tensors = fileSize = test::kUnwritten;
    OKVImportContext context{sizeof context, out.c_str(), text, sizeof text, &tensors, &fileSize};
    code = importer().import(dir_.c_str(), &context);
  };
  const auto check = [&](AllocationKind failed) {
    if (failed == AllocationKind::None) {  // also when only a caller without need of the memory went without
      EXPECT_EQ(code, OKV_OK);
      EXPECT_STREQ(text, "untouched");
      EXPECT_EQ(test::readWholeFile(out), goodBytes);
      EXPECT_EQ(fileSize, goodBytes.size());
    } else if (failed == AllocationKind::C && !GetParam().fromThereOn) {
      // The C library allocates for opendir() only, which then fails. When nothing can be allocated from
      // there on, there is no memory for that text either.
      EXPECT_EQ(code, OKV_IO_ERROR);
      EXPECT_STREQ(text, "convert: cannot open directory");
      EXPECT_EQ(tensors, test::kUnwritten);
    } else {
      EXPECT_EQ(code, OKV_FAILED);
      EXPECT_STREQ(text, "hf convert failed");
      EXPECT_EQ(tensors, test::kUnwritten);
      EXPECT_EQ(fileSize, test::kUnwritten);
    }
    std::filesystem::remove(out);
    EXPECT_EQ(test::importDir(dir_, out).code, OKV_OK);
    EXPECT_EQ(test::readWholeFile(out), goodBytes);
    std::filesystem::remove(out);
  };
  failEachAllocation(run, check, GetParam().input.shards);
}

std::vector<FaultCase> faultCases() {
  std::vector<FaultCase> cases;
  for (const test::NamedInput& input : test::kInputs) {
    cases.push_back({input, false});
    cases.push_back({input, true});
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Inputs, AllocationFaults, testing::ValuesIn(faultCases()), [](const auto& row) {
  return std::string(row.param.input.name) + (row.param.fromThereOn ? "FromThereOn" : "Once");
});

// The kept importers that the tests above allow are really there: a success keeps one for each shard.
TEST(AllocationBalance, KeepsOneImporterForEachShardAndNothingForACheckpoint) {
  for (const test::NamedInput& input : test::kInputs) {
    SCOPED_TRACE(input.name);
    const test::TempDir temp;
    const std::string dir = input.builder().write(temp);
    const std::string out = temp / "out.okv2";
    OKVImportContext context{sizeof context, out.c_str(), nullptr, 0, nullptr, nullptr};
    const OKVImporter& loaded = importer();
    test::armAllocator(0, false);
    const std::int32_t code = loaded.import(dir.c_str(), &context);
    test::disarmAllocator();
    EXPECT_EQ(code, OKV_OK);
    std::size_t kept = 0;
    EXPECT_TRUE(leakedBlocks(test::takeLiveBlocks(), kept).empty());
    EXPECT_EQ(kept, input.shards);
  }
}

}  // namespace
}  // namespace zel
