// The plug-in: exported functions, the callbacks of its one importer, and the conversion of a directory.
#include <algorithm>
#include <cerrno>
#include <cfenv>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <dirent.h>
#include <pthread.h>
#include <sys/stat.h>

#include "container/okv2_writer.h"
#include "container/status.h"
#include "convert/convert_weights.h"
#include "convert/st_source.h"
#include "convert/weight_source.h"
#include "hf/hf_importer.h"
#include "plugin/host_abi.h"
#include "readers/pytorch_importer.h"

namespace zel {
namespace {

constexpr char kHf[] = "hf";
constexpr std::uint32_t kCapabilities = 3;
constexpr std::uint32_t kMatch = 100;

// ---- weight files

// A PyTorch checkpoint as a WeightSource. Data pointers lie in its mapping and die with it.
class PtSource final : public WeightSource {
 public:
  Status open(const char* path) { return importer_.open(path); }
  [[nodiscard]] FileId fileId() const { return importer_.fileId(); }
  [[nodiscard]] std::string_view mapping() const { return importer_.mapping(); }

  [[nodiscard]] std::size_t count() const override { return importer_.tensors().size(); }

  [[nodiscard]] const std::string* nameAt(std::size_t i) const override {
    return i < count() ? &importer_.tensors()[i].name : nullptr;
  }

  [[nodiscard]] bool tensorAt(std::size_t i, WeightTensor& out) const override {
    if (i >= count()) return false;
    const PtTensorInfo& tensor = importer_.tensors()[i];
    out.name = tensor.name;
    out.dtype = DType(tensor.dtype);
    out.ndim = tensor.ndim;
    std::copy_n(tensor.shape, std::min<std::size_t>(tensor.ndim, std::size(tensor.shape)), out.dims);
    out.data = dataOf(tensor);
    out.nbytes = tensor.nbytes;
    return out.data != nullptr;
  }

 private:
  // Null when the range does not lie inside the file: an entry's uncompressed size, against which the
  // importer measured the tensor, is only what the archive says of itself.
  [[nodiscard]] const void* dataOf(const PtTensorInfo& tensor) const {
    const std::string_view data = importer_.bytes().substr(tensor.dataOffset);
    if (tensor.offset > data.size() || tensor.nbytes > data.size() - tensor.offset) return nullptr;
    return data.data() + tensor.offset;
  }

  PyTorchImporter importer_;
};

struct WeightFiles {
  std::vector<std::string> safetensors;  // sorted
  std::string pytorch;                   // used only when there is no safetensors file
};

bool isSafetensorsName(std::string_view name) {
  constexpr std::string_view kSuffix = ".safetensors";
  return name.size() >= kSuffix.size() && name.substr(name.size() - kSuffix.size()) == kSuffix;
}

bool isRegularFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// The shards are what the directory holds; an index file is not asked.
Status findWeightFiles(const std::string& dir, WeightFiles& out) {
  const auto cannotList = [] { return ioError("convert: cannot open directory"); };
  const auto closeDir = [](DIR* opened) { (void)::closedir(opened); };
  const std::unique_ptr<DIR, decltype(closeDir)> listing(::opendir(dir.c_str()), closeDir);
  if (listing == nullptr) return cannotList();
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(listing.get());
    // A listing that breaks off is no list: going on would lose shards without a word.
    if (entry == nullptr && errno != 0) return cannotList();
    if (entry == nullptr) break;
    if (isSafetensorsName(entry->d_name)) out.safetensors.push_back(dir + "/" + entry->d_name);
  }
  std::sort(out.safetensors.begin(), out.safetensors.end());
  if (!out.safetensors.empty()) return {};
  out.pytorch = dir + "/pytorch_model.bin";
  if (!isRegularFile(out.pytorch)) {
    return invalidFormat("convert: HF directory has no safetensors or pytorch_model.bin");
  }
  return {};
}

// ---- one directory into one container

// Opens one weight file and adds its tensors; the source joins `sources`, which outlive the writing.
template <class Source>
Status addWeightFile(const std::string& path, const std::string& arch, OKV2Writer& writer, WeightStats* stats,
                     std::vector<std::unique_ptr<WeightSource>>& sources) {
  auto source = std::make_unique<Source>();
  ZEL_RETURN_IF_ERROR(source->open(path.c_str()));
  writer.protectInput(source->fileId());
  writer.borrowMapping(source->mapping(), source->fileId(), path);
  ZEL_RETURN_IF_ERROR(convertWeights(*source, arch, writer, stats));
  sources.push_back(std::move(source));
  return {};
}

Status convertHfDir(const std::string& srcDir, const std::string& dstPath, WeightStats* stats) {
  HfImporter importer;
  ZEL_RETURN_IF_ERROR(importer.open(srcDir));
  WeightFiles files;
  ZEL_RETURN_IF_ERROR(findWeightFiles(srcDir, files));

  std::vector<std::unique_ptr<WeightSource>> sources;  // destroyed after the writer, which borrows from them
  OKV2Writer writer;
  writer.setModelInfo(importer.arch == "gemma4" ? 1 : 0, std::uint64_t(importer.hiddenSize),
                      std::uint32_t(importer.numLayers), std::uint32_t(importer.vocabSize));
  ZEL_RETURN_IF_ERROR(importer.applyMeta(writer));
  // Without a vocabulary the chat template is not handed over either, on purpose.
  if (!importer.tokenizer.tokens.empty()) {
    writer.setChatTemplate(importer.tokenizer.chatTemplate);
    writer.setTokenizer(std::move(importer.tokenizer));
  }
  if (!files.pytorch.empty()) {
    ZEL_RETURN_IF_ERROR(addWeightFile<PtSource>(files.pytorch, importer.arch, writer, stats, sources));
  }
  for (const std::string& path : files.safetensors) {
    ZEL_RETURN_IF_ERROR(addWeightFile<StSource>(path, importer.arch, writer, stats, sources));
  }
  return writer.write(dstPath.c_str());
}

// ---- the boundary

std::int32_t hostCode(Code code) {
  // Indexed by the Status code.
  static constexpr std::int32_t kHostCodes[] = {OKV_OK, OKV_INVALID, OKV_UNSUPPORTED, OKV_CORRUPTED,
                                                OKV_IO_ERROR};
  static_assert(std::size(kHostCodes) == std::size_t(Code::IOError) + 1);
  const auto index = std::size_t(code);
  return index < std::size(kHostCodes) ? kHostCodes[index] : OKV_FAILED;
}

// Numbers are read and rounded alike whatever floating-point mode the host's thread is in, and a host that
// traps floating-point exceptions sees none of ours. Restores mode and flags.
class FloatingPointScope {
 public:
  FloatingPointScope() noexcept : saved_(std::fegetenv(&environment_) == 0) {
    if (saved_) std::fesetenv(FE_DFL_ENV);
  }
  FloatingPointScope(const FloatingPointScope&) = delete;
  FloatingPointScope& operator=(const FloatingPointScope&) = delete;
  ~FloatingPointScope() {
    if (saved_) std::fesetenv(&environment_);
  }

 private:
  std::fenv_t environment_;
  bool saved_;
};

// A host may cancel its thread while we are in a call that is a cancellation point: the C library would
// unwind through us like an exception that must not be caught. It takes effect behind the callback instead.
class CancellationScope {
 public:
  CancellationScope() noexcept { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &saved_); }
  CancellationScope(const CancellationScope&) = delete;
  CancellationScope& operator=(const CancellationScope&) = delete;
  ~CancellationScope() { (void)pthread_setcancelstate(saved_, nullptr); }

 private:
  int saved_ = PTHREAD_CANCEL_ENABLE;
};

// No exception leaves the plug-in: `onException` answers instead.
template <class Call, class OnException>
std::int32_t guarded(Call call, OnException onException) noexcept {
  const CancellationScope cancellation;
  const FloatingPointScope floatingPoint;
  try {
    return call();
  } catch (...) {
    onException();
    return OKV_FAILED;
  }
}

void writeError(const OKVImportContext* ctx, const char* text) noexcept {
  if (ctx->error_buf == nullptr || ctx->error_buf_size == 0) return;
  (void)std::snprintf(ctx->error_buf, ctx->error_buf_size, "%s", text);
}

std::int32_t impProbe(const char* path, OKVProbeResult* out) noexcept {
  if (path == nullptr || out == nullptr) return OKV_INVALID;
  *out = {};
  const auto probe = [&]() -> std::int32_t {
    struct stat info {};
    if (::stat(path, &info) != 0 || !S_ISDIR(info.st_mode)) return OKV_OK;
    std::string file = path;
    if (file.back() == '/') file.pop_back();  // one only
    file += "/config.json";
    if (isRegularFile(file)) *out = {kMatch, kHf, "", "directory with config.json"};
    return OKV_OK;
  };
  return guarded(probe, [] {});
}

std::int32_t impInspect(const char* path, OKVImportInfo* out) noexcept {
  if (path == nullptr || out == nullptr) return OKV_INVALID;
  *out = {};
  // The texts handed out live here until the next call on this thread, or its end.
  thread_local std::string countStore;
  thread_local std::string archStore;
  out->format = kHf;
  const auto answer = [&] {
    out->architecture = archStore.c_str();
    out->count = countStore.c_str();
  };
  const auto invalid = [&] {
    archStore = "invalid";
    countStore = "0";
    answer();
  };
  const auto inspect = [&] {
    HfImporter importer;
    const Status status = importer.open(path);
    if (!status.ok()) {
      invalid();
    } else {
      archStore = std::move(importer.arch);
      countStore.clear();  // no weights are read, so there is no count to give
      answer();
    }
    return hostCode(status.code());
  };
  return guarded(inspect, invalid);
}

std::int32_t impImport(const char* path, OKVImportContext* ctx) noexcept {
  if (path == nullptr || ctx == nullptr || ctx->struct_size < sizeof(OKVImportContext)) return OKV_INVALID;
  if (ctx->dst_path == nullptr) {
    writeError(ctx, "hf: dst_path is required");
    return OKV_INVALID;
  }
  const auto import = [&] {
    const std::string dstPath = ctx->dst_path;
    WeightStats stats;
    const Status status = convertHfDir(path, dstPath, &stats);
    if (!status.ok()) {
      writeError(ctx, status.message().c_str());
      return hostCode(status.code());
    }
    if (ctx->out_tensor_count != nullptr) *ctx->out_tensor_count = stats.tensors;
    struct stat info {};
    if (ctx->out_file_size != nullptr && ::stat(dstPath.c_str(), &info) == 0) {
      *ctx->out_file_size = std::uint64_t(info.st_size);
    }
    return hostCode(status.code());
  };
  return guarded(import, [&] { writeError(ctx, "hf convert failed"); });
}

constexpr OKVPluginDescriptor kDescriptor = {
    OKV_ABI_VERSION, 1, "importer_hf", "Real HuggingFace importer plugin (S22-7)", nullptr, nullptr};

constexpr OKVImporter kImporter = {
    OKV_ABI_VERSION, kHf,      "HuggingFace directory importer (config + tokenizer + shards)",
    kCapabilities,   kHf,      impProbe,
    impInspect,      impImport};

}  // namespace
}  // namespace zel

extern "C" {

[[gnu::visibility("default")]] const OKVPluginDescriptor* okv_plugin_init(void) { return &zel::kDescriptor; }

[[gnu::visibility("default")]] const OKVImporter* okv_plugin_importers(uint32_t* count) {
  if (count != nullptr) *count = 1;
  return &zel::kImporter;
}

}  // extern "C"
