#include "okv2/host.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <system_error>

#include "okv2/escape.h"

namespace zel::tool {
namespace {

constexpr char kPluginFile[] = "importer_hf.so";

bool isRegularFile(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

const char* lastLoaderError() {
  const char* text = ::dlerror();
  return text != nullptr ? text : "unknown reason";
}

template <typename Function>
Function findFunction(void* module, const char* name) {
  return reinterpret_cast<Function>(::dlsym(module, name));
}

}  // namespace

std::string findPlugin(const std::string& named) {
  if (!named.empty()) return named;
  std::error_code ec;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return {};
  const std::filesystem::path folder = self.parent_path();
  for (const std::filesystem::path& candidate :
       {folder / kPluginFile, folder / OKV2_PLUGIN_FROM_BINDIR / kPluginFile}) {
    if (isRegularFile(candidate)) return candidate.lexically_normal();
  }
  return {};
}

const OKVImporter* loadImporter(const std::string& path, std::string& error) {
  const auto fail = [&](const std::string& why) -> const OKVImporter* {
    error = fmt::format("cannot load the plug-in {}: {}", escaped(path), escaped(why));
    return nullptr;
  };
  if (path.empty()) {
    error = fmt::format("cannot find the plug-in {} beside this command; name it with --plugin", kPluginFile);
    return nullptr;
  }
  // Also keeps the loader from waiting on a FIFO.
  if (!isRegularFile(path)) return fail("not a regular file");
  // A bare name would send the loader through its search path.
  const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
  void* module = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) return fail(lastLoaderError());

  const auto init = findFunction<okv_plugin_init_fn>(module, "okv_plugin_init");
  const auto importers = findFunction<okv_plugin_importers_fn>(module, "okv_plugin_importers");
  if (init == nullptr || importers == nullptr) return fail("it does not export the plug-in functions");
  const OKVPluginDescriptor* descriptor = init();
  if (descriptor == nullptr) return fail("it has no descriptor");
  if (descriptor->abi_version != OKV_ABI_VERSION) {
    return fail(fmt::format("it has ABI version {}, this command needs {}", descriptor->abi_version,
                            OKV_ABI_VERSION));
  }
  std::uint32_t count = 0;
  const OKVImporter* importer = importers(&count);
  if (importer == nullptr || count == 0) return fail("it offers no importer");
  if (importer->abi_version != OKV_ABI_VERSION) {
    return fail(fmt::format("its importer has ABI version {}, this command needs {}", importer->abi_version,
                            OKV_ABI_VERSION));
  }
  return importer;
}

const char* hostCodeMeaning(int code) noexcept {
  switch (code) {
    case OKV_INVALID: return "not a usable model directory";
    case OKV_UNSUPPORTED: return "unsupported input";
    case OKV_IO_ERROR: return "the operating system refused to read it";
    case OKV_CORRUPTED: return "damaged input";
    default: return "the importer failed";
  }
}

}  // namespace zel::tool
