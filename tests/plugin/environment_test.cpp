// What the host has set up (locale, rounding mode, threads) neither changes a container nor is changed.
#include <gtest/gtest.h>

#include <cfenv>
#include <clocale>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <locale.h>

#include "convert/container_view.h"
#include "plugin/plugin_host.h"
#include "support/model_dir_builder.h"

namespace zel::test {
namespace {

// Numbers that are no sums of few powers of two, wherever numbers are read, narrowed or multiplied.
ModelDirBuilder modelFullOfFractions() {
  return ModelDirBuilder()
      .config(R"({"model_type":"gemma4","hidden_size":8.0,"rope_theta":1000000.1,"rms_norm_eps":1.1e-6,)"
              R"("final_logit_softcapping":30.3,"num_hidden_layers":2e0,"swa_pattern":[1.0,0.5]})")
      .tokenizer(R"({"model":{"vocab":{"a":0,"b":1},"scores":[0.1,-2.7e-5,[-3.3,1],1e-45,3.4e38]}})")
      .shard("m.safetensors",
             SafetensorsBuilder()
                 .member("w", R"({"dtype":"F32","shape":[2.0,0.3e1],"data_offsets":[0.0,2.4e1]})")
                 .dataBytes(24));
}

class Environment : public testing::Test {
 protected:
  std::string import(const std::string& name) {
    const ImportAnswer answer = importDir(source_, dir_ / name);
    EXPECT_EQ(answer.code, 0) << answer.message;
    return answer.code == 0 ? readWholeFile(dir_ / name) : "";
  }

  TempDir dir_;
  std::string source_ = modelFullOfFractions().write(dir_);
};

TEST_F(Environment, TheModelIsReadAsItsNumbersSay) {
  const ContainerView container(import("out"));
  EXPECT_EQ(container.find("model.rope_theta")->number, 1000000.1f);
  EXPECT_EQ(container.find("model.rms_norm_eps")->number, 1.1e-6f);
  EXPECT_EQ(container.find("gemma4.final_logit_softcapping")->number, 30.3f);
  EXPECT_EQ(container.find("gemma4.rope.freq_base_swa")->number, 1000000.1f * 0.01f);
  EXPECT_EQ(container.scores, (std::vector<float>{0.1f, -2.7e-5f, -3.3f, 1e-45f, 3.4e38f}));
  EXPECT_EQ(container.tensors.at(0).dims, (std::vector<std::uint64_t>{2, 3}));
}

// ---- rounding modes

class RoundingMode : public Environment, public testing::WithParamInterface<int> {};

TEST_P(RoundingMode, GivesTheSameBytesAndIsStillSet) {
  const std::string expected = import("nearest");
  ASSERT_EQ(std::fesetround(GetParam()), 0);
  const ImportAnswer answer = importDir(source_, dir_ / "rounded");
  const int after = std::fegetround();
  std::fesetround(FE_TONEAREST);
  EXPECT_EQ(after, GetParam());
  ASSERT_EQ(answer.code, 0) << answer.message;
  EXPECT_EQ(readWholeFile(dir_ / "rounded"), expected);
}

TEST_P(RoundingMode, IsStillSetAfterInspectProbeAndFailures) {
  ASSERT_EQ(std::fesetround(GetParam()), 0);
  inspectDir(source_);
  const int afterInspect = std::fegetround();
  probeConfidence(source_);
  const int afterProbe = std::fegetround();
  importDir(dir_ / "missing", dir_ / "out");
  const int afterFailure = std::fegetround();
  std::fesetround(FE_TONEAREST);
  EXPECT_EQ(afterInspect, GetParam());
  EXPECT_EQ(afterProbe, GetParam());
  EXPECT_EQ(afterFailure, GetParam());
}

INSTANTIATE_TEST_SUITE_P(All, RoundingMode,
                         testing::Values(FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO));

// ---- locale

// True when setlocale() finds a locale with a decimal comma; compiled for this process, once, when the
// machine does not have it.
bool haveGermanLocale() {
  static const TempDir folder;
  static const bool available = [] {
    const auto isThere = [] {
      const bool found = std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
      std::setlocale(LC_ALL, "C");
      return found;
    };
    if (isThere()) return true;
    const std::string command =
        "localedef -i de_DE -f UTF-8 '" + (folder / "de_DE.UTF-8") + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) return false;
    setenv("LOCPATH", folder.path().c_str(), 1);
    return isThere();
  }();
  return available;
}

class DecimalComma : public Environment {
 protected:
  void SetUp() override {
    if (!haveGermanLocale()) {
      GTEST_SKIP() << "needs the locale de_DE.UTF-8, or localedef with the sources of the locales";
    }
  }
  void TearDown() override { std::setlocale(LC_ALL, "C"); }
};

TEST_F(DecimalComma, InTheProcessLocaleGivesTheSameBytesAndStays) {
  const std::string expected = import("c");
  ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr);
  ASSERT_STREQ(std::localeconv()->decimal_point, ",");
  const std::string actual = import("de");
  EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "de_DE.UTF-8");
  EXPECT_STREQ(std::localeconv()->decimal_point, ",");
  EXPECT_EQ(actual, expected);
}

TEST_F(DecimalComma, InTheThreadLocaleGivesTheSameBytesAndStays) {
  const std::string expected = import("c");
  const locale_t german = newlocale(LC_ALL_MASK, "de_DE.UTF-8", nullptr);
  ASSERT_NE(german, nullptr);
  const locale_t before = uselocale(german);
  const std::string actual = import("de");
  EXPECT_EQ(uselocale(nullptr), german);
  uselocale(before);
  freelocale(german);
  EXPECT_EQ(actual, expected);
}

TEST_F(DecimalComma, DoesNotMakeACommaANumber) {
  ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr);
  const std::string source =
      ModelDirBuilder().config(R"({"model_type":"llama","rope_theta":1,5})").write(dir_, "comma");
  EXPECT_EQ(importDir(source, dir_ / "out").message, "hf: bad config.json");
}

// ---- threads

TEST(Threads, SixteenOfMixedInspectAndImportDoNotDisturbOneAnother) {
  constexpr int kThreads = 16;
  constexpr int kRounds = 12;
  const TempDir dir;
  struct Model {
    std::string type;
    std::string source;
    std::string container;
  };
  std::vector<Model> models;
  for (const char* type : {"llama", "qwen2", "gemma4", "gpt2"}) {
    Model model{type, "", ""};
    model.source = ModelDirBuilder()
                       .config("{\"model_type\":\"" + model.type + "\",\"rope_theta\":10000.5}")
                       .tokenizer()
                       .shard("m-1.safetensors", SafetensorsBuilder().tensor(model.type, "F32", {1000}))
                       .shard("m-2.safetensors", SafetensorsBuilder().tensor("shared", "BF16", {33, 7}))
                       .write(dir, type);
    ASSERT_EQ(importDir(model.source, dir / (model.type + ".okv2")).code, 0);
    model.container = readWholeFile(dir / (model.type + ".okv2"));
    models.push_back(std::move(model));
  }
  const std::string broken = ModelDirBuilder().config("{").write(dir, "broken");

  // A thread writes only to its own element; the assertions wait until all have ended.
  std::vector<std::string> failures(kThreads);
  const auto work = [&](int id) {
    const auto require = [&](bool condition, const char* what) {
      if (!condition && failures[std::size_t(id)].empty()) failures[std::size_t(id)] = what;
    };
    const std::string destination = dir / ("out-" + std::to_string(id));
    for (int round = 0; round < kRounds; ++round) {
      const Model& model = models[std::size_t(id + round) % models.size()];
      if ((id + round) % 3 == 0) {
        OKVImportInfo info{};
        require(importer().inspect(model.source.c_str(), &info) == 0, "inspect");
        require(probeConfidence(model.source) == 100, "probe");
        require(importDir(broken, destination).message == "hf: bad config.json", "broken import");
        require(info.architecture == model.type && info.count == std::string(), "inspect texts");
      } else {
        const ImportAnswer answer = importDir(model.source, destination);
        require(answer.code == 0 && answer.tensors == 2, "import");
        require(readWholeFile(destination) == model.container, "container");
      }
    }
  };
  std::vector<std::thread> threads;
  for (int id = 0; id < kThreads; ++id)
    threads.emplace_back(work, id);
  for (std::thread& each : threads)
    each.join();
  for (int id = 0; id < kThreads; ++id)
    EXPECT_EQ(failures[std::size_t(id)], "") << "thread " << id;
}

}  // namespace
}  // namespace zel::test
