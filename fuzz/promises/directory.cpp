#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "okv2/container_reader.h"
#include "plugin/host_abi.h"
#include "promises/archive.h"
#include "promises/mappings.h"
#include "promises/promises.h"

namespace zel::fuzz {
namespace {

// One temporary directory for all inputs of the process: in memory where there is such a file system.
class Workspace {
 public:
  Workspace() {
    std::error_code error;
    const std::filesystem::path shm = "/dev/shm";
    const bool inMemory = std::filesystem::is_directory(shm, error) && ::access(shm.c_str(), W_OK) == 0;
    std::string pattern = ((inMemory ? shm : std::filesystem::temp_directory_path()) / "okv2-fuzz-XXXXXX");
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = pattern;
    std::filesystem::create_directory(model());
  }
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;
  ~Workspace() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  [[nodiscard]] std::string model() const { return root_ + "/model"; }
  [[nodiscard]] std::string output(int k) const { return root_ + "/out" + std::to_string(k); }

  void fill(const std::vector<ArchivedFile>& files) {
    for (const std::string& old : written_)
      (void)::unlink(old.c_str());
    written_.clear();
    for (const ArchivedFile& file : files) {
      const std::string path = model() + "/" + kArchiveNames[file.name];
      writeFile(path, file.content);
      written_.insert(path);
    }
  }

 private:
  static void writeFile(const std::string& path, std::string_view bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool ok = fd >= 0 && ::write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size());
    if (fd >= 0) (void)::close(fd);
    if (!ok) throw std::runtime_error("cannot write " + path);
  }

  std::string root_;
  std::set<std::string> written_;
};

std::string readFileBytes(const std::string& path) {
  std::string out;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return out;
  char block[16384];
  for (ssize_t n; (n = ::read(fd, block, sizeof block)) > 0;)
    out.append(block, std::size_t(n));
  (void)::close(fd);
  return out;
}

bool holds(const std::vector<ArchivedFile>& files, std::string_view name) {
  return std::any_of(files.begin(), files.end(),
                     [&](const ArchivedFile& file) { return kArchiveNames[file.name] == name; });
}

struct Import {
  std::int32_t code = -1;
  std::string error;
  std::uint64_t tensors = 0;
  std::uint64_t fileSize = 0;
  std::string container;
};

Import importTo(const std::string& model, const std::string& output) {
  constexpr std::uint64_t kUntouched = 0x5A5A5A5A5A5A5A5A;
  char text[512];
  std::memset(text, 0x5A, sizeof text);
  Import out;
  out.tensors = out.fileSize = kUntouched;
  OKVImportContext context{
      sizeof(OKVImportContext), output.c_str(), text, sizeof text, &out.tensors, &out.fileSize};
  (void)::unlink(output.c_str());
  out.code = okv_plugin_importers(nullptr)->import(model.c_str(), &context);
  releaseMappings();
  if (out.code == OKV_OK) {
    out.container = readFileBytes(output);
    promise(std::all_of(std::begin(text), std::end(text), [](char c) { return c == 0x5A; }),
            "a success leaves the error buffer alone");
    return out;
  }
  const void* const end = std::memchr(text, 0, sizeof text);
  promise(end != nullptr, "the error text ends inside its buffer");
  out.error = text;
  promise(out.tensors == kUntouched && out.fileSize == kUntouched, "a failure reports no counts");
  return out;
}

struct KnownFailure {
  std::int32_t code;
  std::string_view prefix;
};
// No code 1: these inputs are far too small to run out of memory.
constexpr KnownFailure kFailures[] = {
    {OKV_INVALID, "hf: "},
    {OKV_INVALID, "convert: "},
    {OKV_INVALID, "torch: "},
    {OKV_INVALID, "OKV2: "},
    {OKV_UNSUPPORTED, "torch: "},
    {OKV_UNSUPPORTED, "safetensors: "},
    {OKV_CORRUPTED, "hf: "},
    {OKV_CORRUPTED, "convert: "},
    {OKV_CORRUPTED, "torch: "},
    {OKV_CORRUPTED, "safetensors: "},
    {OKV_IO_ERROR, "torch: stat failed"},  // an empty file
};

void checkFailure(const Import& import) {
  promise(std::any_of(std::begin(kFailures), std::end(kFailures),
                      [&](const KnownFailure& row) {
                        return row.code == import.code &&
                               import.error.compare(0, row.prefix.size(), row.prefix) == 0;
                      }),
          "a failed import has a known code and its component's prefix");
}

// A fused projection is cut by its first two extents in whole blocks, whatever its shape; the sizes of such
// slices need not follow from their shapes.
bool isAboutASlice(const tool::Finding& finding) {
  const auto contains = [&](const char* part) { return finding.text.find(part) != std::string::npos; };
  return (contains(".attn_q.weight'") || contains(".attn_k.weight'") || contains(".attn_v.weight'")) &&
         (contains("its shape calls for") || contains("has a shape of more than"));
}

void checkContainerOf(const Import& import, const OKVImportInfo& info) {
  tool::ContainerView view;
  (void)tool::verifyContainer(import.container, view);
  for (const tool::Finding& finding : view.findings.items()) {
    if (finding.isError && !isAboutASlice(finding)) breakPromise("verification finds: " + finding.text);
  }
  promise(import.fileSize == import.container.size(), "the reported size is the file's");
  promise(import.tensors == view.tensors.size(), "the reported number of tensors is the container's");
  for (const tool::MetaView& item : view.metadata) {
    if (item.key == "general.architecture") {
      promise(item.value.substr(0, item.value.find('\0')) == info.architecture,
              "inspect tells the architecture that the container gets");
      break;
    }
  }
}

}  // namespace

void checkDirectory(std::string_view input) {
  static Workspace workspace;
  const std::vector<ArchivedFile> files = unpackArchive(input);
  workspace.fill(files);
  const std::string model = workspace.model();
  const OKVImporter* const importer = okv_plugin_importers(nullptr);

  OKVProbeResult probed{};
  promise(importer->probe(model.c_str(), &probed) == OKV_OK, "probe succeeds");
  promise(probed.confidence == (holds(files, "config.json") ? 100U : 0U), "probe looks for config.json");

  OKVImportInfo info{};
  const std::int32_t inspected = importer->inspect(model.c_str(), &info);
  promise(inspected == OKV_OK || inspected == OKV_INVALID || inspected == OKV_CORRUPTED,
          "inspect has a known code");
  promise(std::strcmp(info.format, "hf") == 0 && info.architecture != nullptr && info.count != nullptr,
          "inspect fills its record");
  promise(std::strcmp(info.count, inspected == OKV_OK ? "" : "0") == 0, "inspect counts nothing");

  const Import first = importTo(model, workspace.output(1));
  const Import second = importTo(model, workspace.output(2));
  promise(first.code == second.code && first.error == second.error, "the same input gives the same verdict");
  promise(first.container == second.container, "the same input gives the same bytes");
  if (first.code != OKV_OK) return checkFailure(first);
  promise(inspected == OKV_OK, "what can be imported can be inspected");
  checkContainerOf(first, info);
}

}  // namespace zel::fuzz
