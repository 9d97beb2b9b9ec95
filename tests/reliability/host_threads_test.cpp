// Sixteen threads of one host, each calling what it likes.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>

#include "model_inputs.h"
#include "plugin/plugin_host.h"
#include "support/test_conditions.h"

namespace zel {
namespace {

using test::importDir;
using test::TempDir;

struct Model {
  std::string dir;
  std::string architecture;
  std::string container;
};

std::vector<Model> modelsIn(const TempDir& temp) {
  std::vector<Model> models;
  for (const test::NamedInput& input : test::kInputs) {
    const std::string out = temp / (std::string(input.name) + ".okv2");
    const std::string dir = input.builder().write(temp, input.name);
    EXPECT_EQ(importDir(dir, out).code, OKV_OK);
    models.push_back({dir, input.architecture, test::readWholeFile(out)});
  }
  return models;
}

// One thread's share: every answer is what a single thread gets. Returns the number of wrong ones.
int callAtRandom(const std::vector<Model>& models, unsigned seed, int calls, const std::string& out) {
  std::mt19937 random(seed);
  int wrong = 0;
  for (int k = 0; k < calls; ++k) {
    const Model& model = models[random() % models.size()];
    OKVImportInfo info{};
    switch (random() % 4) {
      case 0: wrong += test::probeConfidence(model.dir) != 100; break;
      case 1: wrong += test::probeConfidence(model.dir + "/config.json") != 0; break;
      case 2:
        // The texts are this thread's own: no other thread's call may change them.
        wrong += test::importer().inspect(model.dir.c_str(), &info) != OKV_OK;
        std::this_thread::yield();
        wrong += model.architecture != info.architecture;
        break;
      default:
        std::filesystem::remove(out);
        wrong += importDir(model.dir, out).code != OKV_OK;
        wrong += test::readWholeFile(out) != model.container;
    }
  }
  return wrong;
}

TEST(HostThreads, MixedCallsGiveEachThreadTheAnswersOfASingleOne) {
  constexpr int kThreads = 16;
  const TempDir temp;
  const std::vector<Model> models = modelsIn(temp);
  const int calls = test::rounds(2000, 10000) / kThreads;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (unsigned k = 0; k < kThreads; ++k) {
    threads.emplace_back(
        [&, k] { wrong += callAtRandom(models, k, calls, temp / ("out" + std::to_string(k))); });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(wrong, 0);
}

// Cancelled beforehand, so that the first call that is a cancellation point would be the end of the thread.
struct CancelledImport {
  std::string dir, out;
  int code = -1;
  bool reached = false;  // what stands behind the callback and a cancellation point
};
void* cancelledThread(void* data) {
  auto& import = *static_cast<CancelledImport*>(data);
  pthread_cancel(pthread_self());
  char text[64];
  OKVImportContext context = {};
  context.struct_size = sizeof context;
  context.dst_path = import.out.c_str();
  context.error_buf = text;
  context.error_buf_size = sizeof text;
  import.code = test::importer().import(import.dir.c_str(), &context);
  pthread_testcancel();
  import.reached = true;
  return nullptr;
}

TEST(HostThreads, ACancelledThreadEndsBehindTheCallbackAndNotInIt) {
  const TempDir temp;
  CancelledImport import{modelsIn(temp).front().dir, temp / "cancelled.okv2"};
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, cancelledThread, &import), 0);
  void* answer = nullptr;
  ASSERT_EQ(pthread_join(thread, &answer), 0);
  EXPECT_EQ(answer, PTHREAD_CANCELED);
  EXPECT_EQ(import.code, OKV_OK);
  EXPECT_FALSE(import.reached);
  EXPECT_EQ(test::readWholeFile(import.out), modelsIn(temp).front().container);
}

TEST(HostThreads, TextsOfInspectOutliveTheCallsOfOtherThreads) {
  const TempDir temp;
  const std::vector<Model> models = modelsIn(temp);
  OKVImportInfo info{};
  ASSERT_EQ(test::importer().inspect(models[4].dir.c_str(), &info), OKV_OK);
  std::thread([&] { (void)test::inspectDir(models[5].dir); }).join();
  EXPECT_STREQ(info.architecture, "gemma4");
}

}  // namespace
}  // namespace zel
