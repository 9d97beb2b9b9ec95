// The plug-in as a host sees it: loaded from its file, called through its two exported functions.
#pragma once

#include <dlfcn.h>

#include <cstdint>
#include <string>
#include <utility>

#include "plugin/host_abi.h"

namespace zel::bench {

// Null when the module does not load. It stays loaded.
inline const OKVImporter* loadImporter(const char* plugin) {
  void* const library = dlopen(plugin, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return nullptr;
  const auto importers = reinterpret_cast<okv_plugin_importers_fn>(dlsym(library, "okv_plugin_importers"));
  return importers != nullptr ? importers(nullptr) : nullptr;
}

// Imports one directory into one container, as often as asked.
class PluginImport {
 public:
  PluginImport(const OKVImporter& importer, std::string directory, std::string container)
      : importer_(importer), directory_(std::move(directory)), container_(std::move(container)) {}

  // The reason of a failure is in error().
  bool run() {
    OKVImportContext context{};
    context.struct_size = sizeof context;
    context.dst_path = container_.c_str();
    context.error_buf = error_;
    context.error_buf_size = sizeof error_;
    context.out_tensor_count = &tensors_;
    context.out_file_size = &bytes_;
    return importer_.import(directory_.c_str(), &context) == OKV_OK;
  }

  const char* error() const { return error_; }
  std::uint64_t tensors() const { return tensors_; }  // of the last success
  std::uint64_t bytes() const { return bytes_; }      // the container's size, likewise

 private:
  const OKVImporter& importer_;
  std::string directory_;
  std::string container_;
  char error_[256] = "";
  std::uint64_t tensors_ = 0;
  std::uint64_t bytes_ = 0;
};

}  // namespace zel::bench
