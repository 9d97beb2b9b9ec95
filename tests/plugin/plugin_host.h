// The built module, loaded once, and its callbacks in the clothes of C++ tests.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include <dlfcn.h>

#include "plugin/host_abi.h"

namespace zel::test {

inline const OKVImporter& importer() {
  static const OKVImporter* const instance = [] {
    void* const module = dlopen(OKV2_MODULE, RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) throw std::runtime_error(dlerror());
    const auto importers = reinterpret_cast<okv_plugin_importers_fn>(dlsym(module, "okv_plugin_importers"));
    if (importers == nullptr) throw std::runtime_error(dlerror());
    return importers(nullptr);
  }();
  return *instance;
}

inline std::uint32_t probeConfidence(const std::string& path) {
  OKVProbeResult result{};
  if (importer().probe(path.c_str(), &result) != OKV_OK) throw std::runtime_error("probe failed");
  return result.confidence;
}

struct InspectAnswer {
  std::int32_t code;
  std::string architecture;
  std::string count;
};

inline InspectAnswer inspectDir(const std::string& path) {
  OKVImportInfo info{};
  const std::int32_t code = importer().inspect(path.c_str(), &info);
  return {code, info.architecture, info.count};
}

struct ImportAnswer {
  std::int32_t code;
  std::string message;  // empty when the plug-in wrote none
  std::uint64_t tensors;
  std::uint64_t fileSize;
};

inline constexpr std::uint64_t kUnwritten = 0xA5A5A5A5A5A5A5A5;

// The two numbers stay kUnwritten where the plug-in does not write them.
inline ImportAnswer importDir(const std::string& source, const std::string& destination) {
  char text[4096] = "";
  ImportAnswer answer{0, "", kUnwritten, kUnwritten};
  OKVImportContext context{};
  context.struct_size = sizeof context;
  context.dst_path = destination.c_str();
  context.error_buf = text;
  context.error_buf_size = sizeof text;
  context.out_tensor_count = &answer.tensors;
  context.out_file_size = &answer.fileSize;
  answer.code = importer().import(source.c_str(), &context);
  answer.message = text;
  return answer;
}

}  // namespace zel::test
