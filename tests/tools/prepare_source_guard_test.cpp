// Weight files that become shorter while they are read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "container/descriptor.h"
#include "okv2/prepare/safetensors_writer.h"
#include "okv2/prepare/source_guard.h"
#include "okv2/prepare/weight_file.h"
#include "prepare_weights.h"
#include "readers/mapped_file.h"
#include "support/torch_builder.h"

namespace zel::tool::prepare {
namespace {

using test::bytesOf;
using test::SavedPickle;
using testing::ElementsAre;

const std::uint64_t kPage = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));

// A source of three pages, and a tensor that is all of it.
struct ShrinkingSource {
  explicit ShrinkingSource(const std::string& file) : path(file) {
    EXPECT_EQ(mapping.open(path.c_str(), 1), MapResult::Ok);
    descriptor.reset(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    data = {path, descriptor.get(), mapping.bytes()};
    tensor.name = "w";
    tensor.type = "F32";
    tensor.bytes = data.bytes.size();
    tensor.elementBytes = 4;
    tensor.shape = tensor.extents = {tensor.bytes / 4};
    tensor.data = &data;
  }
  void shrinkTo(std::uint64_t bytes) const {
    ASSERT_EQ(::ftruncate(descriptor.get(), static_cast<off_t>(bytes)), 0);
  }
  std::string path;
  MappedFile mapping;
  Descriptor descriptor;
  DataFile data;
  OutputTensor tensor;
};

Refusal refusalOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Refused& refused) {
    return {refused.exitCode(), refused.finding(), refused.what(), refused.remedy()};
  }
  return {};
}

void expectUnreadable(const Refusal& refused, const std::string& path) {
  EXPECT_EQ(refused.code, 6);
  EXPECT_EQ(refused.finding, "weights.partial");
  EXPECT_EQ(refused.message, path + ": cannot be read: it is shorter than it was");
  EXPECT_EQ(refused.remedy, "Leave the directory alone while it is prepared.");
}

class ShrinkingWeights : public WeightsTest {
 protected:
  // Written while it is whole, and refused when it is shorter: by a byte, which leaves its page, and by whole
  // pages.
  void expectRefusedWhenShorter(const ShrinkingSource& source, const std::string& expected) const {
    writeSafetensors(out() + "/good.safetensors", {source.tensor});
    EXPECT_EQ(dataOf("good.safetensors", "w"), expected);
    for (const std::uint64_t left : {3 * kPage - 1, kPage}) {
      source.shrinkTo(left);
      expectUnreadable(refusalOf([&] { writeSafetensors(out() + "/bad.safetensors", {source.tensor}); }),
                       source.path);
    }
    EXPECT_THAT(outNames(), ElementsAre("good.safetensors"));
  }
};

TEST_F(ShrinkingWeights, AreNotCopied) {
  const std::string bytes = test::patternBytes(3 * kPage);
  expectRefusedWhenShorter(ShrinkingSource(write("source", bytes)), bytes);
}

TEST_F(ShrinkingWeights, AreNotCast) {
  const std::size_t count = 3 * kPage / sizeof(double);
  std::vector<double> wide;
  std::vector<float> narrow;
  for (std::size_t k = 0; k < count; ++k) {
    wide.push_back(double(k) / 4);
    narrow.push_back(float(k) / 4);
  }
  ShrinkingSource source(write("source", bytesOf(wide)));
  source.tensor.elementBytes = sizeof(double);
  source.tensor.shape = source.tensor.extents = {count};
  source.tensor.bytes = count * sizeof(float);
  source.tensor.castFrom = findElementType("F64");
  expectRefusedWhenShorter(source, bytesOf(narrow));
}

TEST_F(ShrinkingWeights, AreNotGathered) {
  // [2, count / 2], stored as [count / 2, 2].
  const std::size_t count = 3 * kPage / sizeof(float);
  std::vector<float> stored, gathered;
  for (std::size_t k = 0; k < count; ++k)
    stored.push_back(float(k));
  for (std::size_t row = 0; row < 2; ++row) {
    for (std::size_t k = row; k < count; k += 2)
      gathered.push_back(float(k));
  }
  ShrinkingSource source(write("source", bytesOf(stored)));
  source.tensor.shape = source.tensor.extents = {2, count / 2};
  source.tensor.strides = {1, 2};
  expectRefusedWhenShorter(source, bytesOf(gathered));
}

TEST_F(ShrinkingWeights, AreNotUnpacked) {
  // Stored blocks, which are as long as what they unpack to.
  const std::size_t count = 3 * kPage / sizeof(float);
  const std::string path = write(
      "pytorch_model.bin", test::savedZip(SavedPickle().stateDict({{"w", {count}, {1}, "0", count}}).stop(),
                                          {{"0", test::patternBytes(3 * kPage)}}, "archive", true)
                               .build());
  for (const bool isWhole : {true, false}) {
    WeightFile file;
    file.open(in(), "pytorch_model.bin", false);
    if (isWhole) {
      file.unpack({0}, out());
      const SourceTensor& tensor = file.tensors()[0];
      EXPECT_EQ(file.dataOf(tensor).bytes.substr(file.offsetOf(tensor)), test::patternBytes(3 * kPage));
    } else {
      ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(kPage)), 0);
      expectUnreadable(refusalOf([&] { file.unpack({0}, out()); }), path);
    }
  }
}

// ---- the guard itself

TEST_F(ShrinkingWeights, AreReadAsZerosInsideAGuard) {
  const ShrinkingSource source(write("source", std::string(3 * kPage, 'x')));
  source.shrinkTo(kPage);
  const ReadGuard guard(source.data.bytes);
  EXPECT_EQ(source.data.bytes[kPage - 1], 'x');
  EXPECT_FALSE(guard.failed());
  EXPECT_EQ(source.data.bytes[kPage], 0);
  EXPECT_TRUE(guard.failed());
  EXPECT_EQ(source.data.bytes[kPage - 1], 'x');
  EXPECT_EQ(source.data.bytes[3 * kPage - 1], 0);
}

TEST_F(ShrinkingWeights, FailTheGuardThatIsTheirs) {
  const ShrinkingSource first(write("first", std::string(3 * kPage, 'x')));
  const ShrinkingSource second(write("second", std::string(3 * kPage, 'x')));
  first.shrinkTo(kPage);
  const ReadGuard outer(first.data.bytes);
  const ReadGuard inner(second.data.bytes);
  EXPECT_EQ(first.data.bytes[kPage], 0);
  EXPECT_TRUE(outer.failed());
  EXPECT_FALSE(inner.failed());
}

TEST_F(ShrinkingWeights, AreRefusedThoughWhatReadsThemFindsAnotherFault) {
  const ShrinkingSource source(write("source", std::string(3 * kPage, 'x')));
  const auto readAt = [&](std::uint64_t at) {
    return refusalOf([&] {
      readGuarded(source.data, [&] {
        if (source.data.bytes[at] == 'x') return;
        throw Refused(7, "other", "found zeros", "Do not.");
      });
    });
  };
  EXPECT_EQ(readAt(kPage).code, 0);
  source.shrinkTo(kPage);
  expectUnreadable(readAt(kPage), source.path);
}

TEST_F(ShrinkingWeights, LetOtherFaultsPassWhereEverythingCouldBeRead) {
  const ShrinkingSource source(write("source", "x"));
  const Refusal refused =
      refusalOf([&] { readGuarded(source.data, [] { throw Refused(7, "other", "a fault", "Mend it."); }); });
  EXPECT_EQ(refused.code, 7);
  EXPECT_EQ(refused.finding, "other");
  EXPECT_EQ(refused.message, "a fault");
  EXPECT_EQ(refused.remedy, "Mend it.");
}

TEST_F(ShrinkingWeights, SayWhenTheDiskAndNotTheLengthIsToBlame) {
  const ShrinkingSource source(write("source", std::string(3 * kPage, 'x')));
  source.shrinkTo(kPage);
  const Refusal refused = refusalOf([&] {
    readGuarded(source.data, [&] {
      EXPECT_EQ(source.data.bytes[kPage], 0);
      source.shrinkTo(3 * kPage);  // grown again: only the guard knows
    });
  });
  EXPECT_EQ(refused.code, 6);
  EXPECT_EQ(refused.finding, "weights.partial");
  EXPECT_EQ(refused.message, source.path + ": cannot be read: Input/output error");
  EXPECT_EQ(refused.remedy, "Leave the directory alone while it is prepared.");
}

void handled(int) {}

TEST_F(ShrinkingWeights, LeaveTheSignalsActionAsItWas) {
  struct sigaction ours {
  }, before{}, now{};
  ours.sa_handler = handled;
  ASSERT_EQ(::sigaction(SIGBUS, &ours, &before), 0);
  {
    const ReadGuard outer("outer");
    const ReadGuard inner("inner");
  }
  ASSERT_EQ(::sigaction(SIGBUS, &before, &now), 0);
  EXPECT_EQ(now.sa_handler, handled);
}

using ReadGuardDeathTest = ShrinkingWeights;
TEST_F(ReadGuardDeathTest, EndsTheProcessForPagesOfNobody) {
  const ShrinkingSource source(write("source", std::string(3 * kPage, 'x')));
  source.shrinkTo(kPage);
  const auto readOutside = [&] {
    ::signal(SIGBUS, SIG_DFL);
    const ReadGuard guard(source.data.bytes.substr(0, kPage));
    const char read = *static_cast<const volatile char*>(source.data.bytes.data() + kPage);
    ::_exit(read);
  };
  EXPECT_EXIT(readOutside(), testing::KilledBySignal(SIGBUS), "");
}

}  // namespace
}  // namespace zel::tool::prepare
