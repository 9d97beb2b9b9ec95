// The module is loaded and unloaded again and again; nothing else in this executable holds it.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>

#include <dlfcn.h>

#include "model_inputs.h"
#include "plugin/host_abi.h"

namespace zel {
namespace {

using test::TempDir;

TEST(Unloading, AfterAThreadThatInspectedHasEndedWorksAnyNumberOfTimes) {
  const TempDir temp;
  const std::string dir = test::gemma4Input().write(temp);
  for (int round = 0; round < 1000; ++round) {
    SCOPED_TRACE(round);
    void* const module = dlopen(OKV2_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    const auto importers = reinterpret_cast<okv_plugin_importers_fn>(dlsym(module, "okv_plugin_importers"));
    ASSERT_NE(importers, nullptr);
    std::int32_t code = -1;
    std::string architecture;
    std::thread thread([&] {
      OKVImportInfo info{};
      code = importers(nullptr)->inspect(dir.c_str(), &info);
      architecture = info.architecture;
    });
    thread.join();
    ASSERT_EQ(code, OKV_OK);
    ASSERT_EQ(architecture, "gemma4");
    ASSERT_EQ(dlclose(module), 0);
    ASSERT_EQ(dlopen(OKV2_MODULE, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the module was not unloaded";
  }
}

}  // namespace
}  // namespace zel
