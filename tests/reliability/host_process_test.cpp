// What a host may have set up in its process, or do with the module: none of it changes an answer, and none
// of it is changed by a call.
#include <gtest/gtest.h>

#include <cfenv>
#include <clocale>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <pthread.h>

#include "child_process.h"
#include "model_inputs.h"
#include "plugin/plugin_host.h"

namespace zel {
namespace {

using test::importDir;
using test::ModelDirBuilder;
using test::TempDir;

// Numbers whose reading depends on the decimal point, on rounding, and on overflow and underflow; names
// whose case and letters depend on the language.
ModelDirBuilder numbersInput() {
  return test::tokenizerJsonInput()
      .config(R"({"model_type":"INITIAL","rope_theta":10000.1,"rms_norm_eps":1.00000000000000000001e-5,)"
              R"("final_logit_softcapping":1e999,"hidden_size":0.1,"num_hidden_layers":1e300,)"
              R"("head_dim":1e-999,"vocab_size":9223372036854775807,"sliding_window":-1e400,)"
              R"("max_position_embeddings":16777217.0000000001})")
      .file("tokenizer.json", R"({"model":{"vocab":{"I":0,"\u0131":1},"merges":[],"scores":)"
                              R"([0.1,3.3333333333333333333,1e-46,16777217,3.4028236e38]}})");
}

std::string containerOf(const std::string& dir, const TempDir& temp) {
  const std::string out = temp / "out.okv2";
  std::filesystem::remove(out);
  const test::ImportAnswer answer = importDir(dir, out);
  EXPECT_EQ(answer.code, OKV_OK) << answer.message;
  return test::readWholeFile(out);
}

class HostLocale : public testing::TestWithParam<const char*> {
 protected:
  ~HostLocale() override { std::setlocale(LC_ALL, "C"); }
};

TEST_P(HostLocale, ChangesNoByteOfAContainer) {
  const TempDir temp;
  const std::string dir = numbersInput().write(temp);
  ASSERT_STREQ(std::setlocale(LC_ALL, "C"), "C");
  const std::string expected = containerOf(dir, temp);
  if (std::setlocale(LC_ALL, GetParam()) == nullptr) {
    GTEST_SKIP() << "the locale " << GetParam() << " is not installed (scripts/install-deps test)";
  }
  if (std::string_view(GetParam()) != "C") {
    ASSERT_STREQ(std::localeconv()->decimal_point, ",");
  }
  EXPECT_EQ(containerOf(dir, temp), expected);
  EXPECT_STREQ(std::setlocale(LC_NUMERIC, nullptr), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Locales, HostLocale, testing::Values("C", "de_DE.UTF-8", "tr_TR.UTF-8"),
                         [](const auto& row) { return std::string(row.param).substr(0, 2); });

struct Rounding {
  const char* name;
  int mode;
};

class HostRounding : public testing::TestWithParam<Rounding> {
 protected:
  ~HostRounding() override { std::fesetround(FE_TONEAREST); }
};

TEST_P(HostRounding, ChangesNoByteOfAContainerAndIsKept) {
  const TempDir temp;
  const std::string dir = numbersInput().write(temp);
  const std::string expected = containerOf(dir, temp);
  ASSERT_EQ(std::fesetround(GetParam().mode), 0);
  const std::string actual = containerOf(dir, temp);
  EXPECT_EQ(std::fegetround(), GetParam().mode);
  const test::InspectAnswer answer = test::inspectDir(dir);
  EXPECT_EQ(std::fegetround(), GetParam().mode);
  (void)test::probeConfidence(dir);
  EXPECT_EQ(std::fegetround(), GetParam().mode);
  EXPECT_EQ(answer.architecture, "INITIAL");
  EXPECT_EQ(actual, expected);
}

INSTANTIATE_TEST_SUITE_P(Modes, HostRounding,
                         testing::Values(Rounding{"Nearest", FE_TONEAREST}, Rounding{"Down", FE_DOWNWARD},
                                         Rounding{"Up", FE_UPWARD}, Rounding{"TowardZero", FE_TOWARDZERO}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(HostFloatingPoint, TrapsAreNotSprungAndAreKept) {
  const TempDir temp;
  const std::string dir = numbersInput().write(temp);
  (void)containerOf(dir, temp);
  const int traps = FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW | FE_UNDERFLOW;
  const test::ChildResult result = test::inChild([&] {
    std::feclearexcept(FE_ALL_EXCEPT);
    if (feenableexcept(traps) < 0) return std::string("no traps");
    const test::ImportAnswer import = importDir(dir, temp / "trapped.okv2");
    const test::InspectAnswer inspect = test::inspectDir(dir);
    const bool kept = fegetexcept() == traps;
    return std::to_string(import.code) + std::to_string(inspect.code) + (kept ? " kept" : " lost");
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.text, "00 kept");
}

TEST(HostFloatingPoint, FlagsAreKept) {
  const TempDir temp;
  const std::string dir = numbersInput().write(temp);
  (void)test::importer();
  for (const int flags : {0, FE_INEXACT, FE_OVERFLOW | FE_DIVBYZERO}) {
    std::feclearexcept(FE_ALL_EXCEPT);
    std::feraiseexcept(flags);
    const test::ImportAnswer answer = importDir(dir, temp / "out.okv2");
    const int after = std::fetestexcept(FE_ALL_EXCEPT);
    EXPECT_EQ(answer.code, OKV_OK);
    EXPECT_EQ(after & (FE_OVERFLOW | FE_DIVBYZERO | FE_INVALID), flags & (FE_OVERFLOW | FE_DIVBYZERO));
  }
  std::feclearexcept(FE_ALL_EXCEPT);
}

// ---- small stacks

// Runs `work` on a thread with a stack of 256 KiB.
void onSmallStack(std::function<void()> work) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
  pthread_t thread;
  const auto body = [](void* function) -> void* {
    (*static_cast<std::function<void()>*>(function))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, body, &work), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

std::string nested(int depth) {
  return std::string(std::size_t(depth), '[') + std::string(std::size_t(depth), ']');
}

TEST(SmallStack, IsEnoughForTheDeepestJson) {
  const TempDir temp;
  // The value of a member lies at depth 1, so 64 brackets reach the deepest level that is read.
  const std::string deep = R"({"model_type":"llama","x":)" + nested(64) + "}";
  const std::string dir =
      ModelDirBuilder()
          .config(deep)
          .tokenizer(R"({"model":{"vocab":{"a":0},"merges":[]},"x":)" + nested(64) + "}")
          .file("tokenizer_config.json", R"({"add_bos_token":true,"x":)" + nested(64) + "}")
          .shard("model.safetensors",
                 test::SafetensorsBuilder().tensor("w", "F32", {2}).member("__metadata__", nested(64)))
          .write(temp);
  onSmallStack([&] {
    EXPECT_EQ(test::probeConfidence(dir), 100u);
    EXPECT_EQ(test::inspectDir(dir).code, OKV_OK);
    const test::ImportAnswer answer = importDir(dir, temp / "out.okv2");
    EXPECT_EQ(answer.code, OKV_OK) << answer.message;
  });
}

TEST(SmallStack, IsEnoughToRefuseJsonThatIsTooDeep) {
  const TempDir temp;
  const std::string dir =
      ModelDirBuilder().config(R"({"model_type":"llama","x":)" + nested(1000000) + "}").write(temp);
  onSmallStack([&] {
    EXPECT_EQ(test::inspectDir(dir).code, OKV_CORRUPTED);
    EXPECT_EQ(importDir(dir, temp / "out.okv2").message, "hf: bad config.json");
  });
}

TEST(SmallStack, IsEnoughForAPickleOfAMillionNestedTuples) {
  const TempDir temp;
  using test::Op;
  std::string program = test::PickleBuilder()
                            .proto(2)
                            .op(Op::EMPTY_TUPLE)
                            .repeat(1000000, std::string(1, char(Op::TUPLE1)))
                            .op(Op::POP)
                            .bytes();
  program += test::stateDict({{"w", {2}, "s"}});
  const std::string dir =
      ModelDirBuilder()
          .noWeights()
          .file("pytorch_model.bin",
                test::ZipBuilder().add("data.pkl", program).add("s", std::string(8, 'x')).build())
          .write(temp);
  onSmallStack([&] {
    const test::ImportAnswer answer = importDir(dir, temp / "out.okv2");
    EXPECT_EQ(answer.code, OKV_OK) << answer.message;
    EXPECT_EQ(answer.tensors, 1u);
  });
}

}  // namespace
}  // namespace zel
