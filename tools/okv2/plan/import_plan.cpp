#include "okv2/plan/import_plan.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "container/okv2_writer.h"
#include "convert/convert_weights.h"
#include "convert/name_mapping.h"
#include "okv2/plan/weight_files.h"
#include "plugin/host_abi.h"

namespace zel::plan {
namespace {

using okv2::SectionType;

constexpr std::uint64_t kBlockRows = 256;
constexpr std::uint64_t kSmallestBlockUnit = 144;

// A file without a name, in memory.
class MemoryFile {
 public:
  MemoryFile() : fd_(::memfd_create("okv2-plan", MFD_CLOEXEC)) {
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "memfd_create");
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile() { ::close(fd_); }
  [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

const BlockGeometry& geometryOf(DType dtype) {
  const BlockGeometry* geometry = findBlockGeometry(static_cast<std::uint16_t>(dtype));
  return geometry != nullptr ? *geometry : kBlockGeometry[0];
}

std::uint64_t bytesOf(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

// The sections that describe the model have exactly the size that the writer gives them: it writes them, with
// one tensor of a byte, into memory, and the reader tells.
Status writeDescription(const HfImporter& model, ImportPlan& plan) {
  OKV2Writer writer;
  writer.setModelInfo(model.arch == "gemma4" ? 1 : 0, std::uint64_t(model.hiddenSize),
                      std::uint32_t(model.numLayers), std::uint32_t(model.vocabSize));
  ZEL_RETURN_IF_ERROR(model.applyMeta(writer));
  if (!model.tokenizer.tokens.empty()) {
    writer.setChatTemplate(model.tokenizer.chatTemplate);
    writer.setTokenizer(model.tokenizer);
  }
  const std::uint64_t one = 1;
  ZEL_RETURN_IF_ERROR(writer.addTensor("-", 0, &one, 1, "-", 1));
  const MemoryFile memory;
  ZEL_RETURN_IF_ERROR(writer.write(memory.path().c_str()));
  plan.descriptionFile = std::make_unique<tool::ContainerFile>();
  std::string reason;
  if (plan.descriptionFile->open(memory.path(), reason) != tool::ContainerFile::Result::Ok ||
      !tool::parseContainer(plan.descriptionFile->bytes(), plan.description)) {
    throw std::runtime_error("the plan cannot be read back: " + reason);
  }
  for (std::size_t k = 0; k < okv2::kSectionCount; ++k) {
    plan.sections[k] = {okv2::kFileOrder[k], 0, plan.description.section(okv2::kFileOrder[k]).size};
  }
  return {};
}

PlannedTensor plannedFrom(const WeightTensor& tensor, std::size_t file) {
  PlannedTensor out;
  out.sourceName = tensor.name;
  out.file = file;
  out.dtype = geometryOf(tensor.dtype).containerCode;
  out.ndim = tensor.ndim;
  std::copy_n(tensor.dims, std::min<std::size_t>(tensor.ndim, okv2::kMaxDims), out.dims);
  out.size = tensor.nbytes;
  out.data = static_cast<const char*>(tensor.data);
  return out;
}

// A name ends at its first zero byte, as the writer takes it.
std::string stored(const std::string& name) { return name.substr(0, name.find('\0')); }

// Equal row blocks along the first extent; see docs/compatibility.md.
void planSlices(const WeightTensor& tensor, const std::vector<adapter::Slice>& slices, std::size_t file,
                std::vector<PlannedTensor>& out) {
  const std::uint64_t rows = tensor.dims[0] / slices.size();
  const std::uint64_t cols = tensor.ndim > 1 ? tensor.dims[1] : 1;
  const std::uint64_t unit = geometryOf(tensor.dtype).splitUnit;
  const std::uint64_t unitRows = unit >= kSmallestBlockUnit ? kBlockRows : 1;
  for (std::size_t k = 0; k < slices.size(); ++k) {
    PlannedTensor part = plannedFrom(tensor, file);
    part.name = stored(slices[k].name);
    part.dims[0] = rows;
    part.size = rows / unitRows * cols * unit;
    part.data += k * rows / unitRows * cols * unit;
    out.push_back(std::move(part));
  }
}

// The tensors of one file, all of which weight conversion has accepted.
void planTensors(const MappedWeights& source, const std::string& arch, std::size_t file,
                 std::vector<PlannedTensor>& out) {
  for (std::size_t i = 0; i < source.count(); ++i) {
    WeightTensor tensor;
    if (!source.tensorAt(i, tensor)) continue;
    const adapter::MappedName mapped = adapter::toOkvName(arch, tensor.name);
    if (mapped.slices.size() > 1) {
      planSlices(tensor, mapped.slices, file, out);
    } else {
      out.push_back(plannedFrom(tensor, file));
      out.back().name = stored(mapped.name);
    }
  }
}

Status planWeights(const std::string& directory, ImportPlan& plan) {
  WeightFiles files;
  ZEL_RETURN_IF_ERROR(findWeightFiles(directory, files));
  for (const std::string& name : files.names) {
    std::string path = directory;
    path.append("/").append(name);
    plan.weights.push_back({name, bytesOf(path)});
    plan.addressSpace += plan.weights.back().bytes;
  }
  ZEL_RETURN_IF_ERROR(writeDescription(plan.model, plan));
  OKV2Writer judge;  // for the answers of weight conversion; never written
  for (std::size_t k = 0; k < files.names.size(); ++k) {
    auto source = std::make_unique<MappedWeights>();
    ZEL_RETURN_IF_ERROR(source->open(directory + "/" + files.names[k], files.format));
    ZEL_RETURN_IF_ERROR(convertWeights(*source, plan.model.arch, judge, nullptr));
    planTensors(*source, plan.model.arch, k, plan.tensors);
    plan.sources.push_back(std::move(source));
  }
  if (plan.tensors.empty()) return invalidFormat("OKV2: no tensors to write");
  return {};
}

void layOut(ImportPlan& plan) {
  std::stable_sort(plan.tensors.begin(), plan.tensors.end(),
                   [](const PlannedTensor& a, const PlannedTensor& b) { return a.name < b.name; });
  std::uint64_t weightBytes = 0;
  for (PlannedTensor& tensor : plan.tensors) {
    tensor.dataOffset = weightBytes;
    weightBytes += okv2::align(tensor.size);
    plan.tensorBytes += tensor.size;
  }
  std::uint64_t offset = okv2::kFirstSectionOffset;
  for (PlannedSection& section : plan.sections) {
    switch (section.type) {
      case SectionType::TensorIndex: section.size = plan.tensors.size() * okv2::kTensorEntryBytes; break;
      case SectionType::TensorLayout: section.size = plan.tensors.size() * okv2::kLayoutEntryBytes; break;
      case SectionType::Weights: section.size = weightBytes; break;
      case SectionType::Metadata:
      case SectionType::Tokenizer:
      case SectionType::Graph:
      case SectionType::ChatTemplate: break;
    }
    section.offset = offset;
    offset = okv2::align(offset + section.size);
  }
  plan.fileBytes = offset;
}

}  // namespace

ImportPlan planImport(const std::string& directory) {
  ImportPlan plan;
  plan.status = plan.model.open(directory);
  if (plan.status.ok()) plan.status = planWeights(directory, plan);
  if (plan.status.ok()) layOut(plan);
  return plan;
}

int hostCodeOf(const Status& status) {
  switch (status.code()) {
    case Code::OK: return OKV_OK;
    case Code::InvalidFormat: return OKV_INVALID;
    case Code::Unsupported: return OKV_UNSUPPORTED;
    case Code::Corrupted: return OKV_CORRUPTED;
    case Code::IOError: return OKV_IO_ERROR;
  }
  return OKV_FAILED;
}

}  // namespace zel::plan
