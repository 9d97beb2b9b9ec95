// The weight files and their tensors.
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <string_view>

#include "convert/name_mapping.h"
#include "okv2/explain/steps.h"
#include "okv2/plan/mapped_weights.h"
#include "okv2/plan/weight_files.h"

namespace zel::explain {
namespace {

using plan::MappedWeights;

constexpr std::size_t kStoredNameBytes = 63;
constexpr std::size_t kListed = 3;  // names given in a finding that stands for many tensors

const char* typeName(DType dtype) {
  switch (dtype) {
    case DType::F32: return "F32";
    case DType::F16: return "F16";
    case DType::BF16: return "BF16";
    case DType::Q4_K: return "Q4_K";
    case DType::Q5_K: return "Q5_K";
    case DType::Q6_K: return "Q6_K";
    case DType::Block32x18:
    case DType::Block32x34:
    case DType::Block256x290: break;
  }
  return "other";
}

// One finding for all the tensors to which it applies.
class TensorGroup {
 public:
  void add(const std::string& text) {
    if (count_++ < kListed) text_ += (text_.empty() ? "" : "; ") + text;
  }
  void report(Id id, Explanation& out) const {
    if (count_ == 0) return;
    const std::string more = count_ > kListed ? fmt::format("; {} more", count_ - kListed) : "";
    out.add(id, fmt::format("{} tensor{}", count_, count_ == 1 ? "" : "s"), text_ + more);
  }

 private:
  std::size_t count_ = 0;
  std::string text_;
};

// What the tensors of all files give rise to.
class Tensors {
 public:
  Tensors(const std::string& architecture, Explanation& out) : architecture_(architecture), out_(out) {}

  void addFile(const std::string& file, const MappedWeights& source) {
    for (std::size_t i = 0; i < source.count(); ++i) {
      WeightTensor tensor;
      if (source.tensorAt(i, tensor)) {
        add(file, tensor);
      } else if (source.nameAt(i) != nullptr) {
        out_.add(Id::TensorOutside, file, *source.nameAt(i));
      }
    }
  }

  void report() {
    unmapped_.report(Id::TensorUnmapped, out_);
    fused_.report(Id::TensorFused, out_);
    for (const auto& [type, use] : types_)
      out_.types.push_back(use);
    for (const auto& [cutName, names] : stored_) {
      if (names.size() < 2) continue;
      std::string list;
      for (const auto& [name, files] : names)
        list += (list.empty() ? "" : ", ") + name;
      out_.add(Id::TensorNameCollision, cutName, list);
    }
    for (const auto& [cutName, names] : stored_) {
      for (const auto& [name, files] : names) {
        if (files.size() < 2) continue;
        std::string list;
        for (const std::string& file : files)
          list += (list.empty() ? "" : ", ") + file;
        out_.add(Id::TensorDuplicate, name, "in " + list);
      }
    }
  }

 private:
  void add(const std::string& file, const WeightTensor& tensor) {
    const auto code = kBlockGeometry[static_cast<std::size_t>(tensor.dtype)].containerCode;
    TypeUse& use = types_[typeName(tensor.dtype)];
    use.type = typeName(tensor.dtype);
    use.code = code;
    ++use.tensors;
    if (code == 0 && tensor.dtype != DType::F32) out_.add(Id::TensorTypeCodeZero, tensor.name, use.type);
    const adapter::MappedName mapped = adapter::toOkvName(architecture_, tensor.name);
    if (!mapped.ok) {
      out_.add(Id::TensorUnnamed, file);
      return;
    }
    if (tensor.ndim == 0 || tensor.ndim > 4 || tensor.nbytes == 0) {
      out_.add(Id::TensorRefused, tensor.name,
               fmt::format("{}: {} dimensions, {} bytes", file, tensor.ndim, tensor.nbytes));
      return;
    }
    if (!mapped.slices.empty()) {
      addFused(file, tensor);
      for (const adapter::Slice& slice : mapped.slices)
        addName(file, slice.name);
      return;
    }
    addName(file, mapped.name);
    // A layer's number is translated even where the rest of the name is not.
    if (mapped.name == tensor.name || endsAlike(mapped.name, tensor.name)) {
      unmapped_.add(mapped.name == tensor.name ? tensor.name : tensor.name + " becomes " + mapped.name);
    }
  }

  // "blk.0.x.y" from "model.layers.0.x.y", where x.y is in no table.
  static bool endsAlike(const std::string& mapped, const std::string& source) {
    const std::size_t dot = mapped.find('.', mapped.find('.') + 1);
    if (mapped.compare(0, 4, "blk.") != 0 || dot == std::string::npos) return false;
    const std::string suffix = mapped.substr(dot + 1);
    // These suffixes are in the table, and stay as they are.
    for (const std::string_view known :
         {"post_norm.weight", "inp_gate.weight", "proj.weight", "layer_output_scale.weight"}) {
      if (suffix == known) return false;
    }
    return source.size() > suffix.size() && source.substr(source.size() - suffix.size() - 1) == "." + suffix;
  }

  void addFused(const std::string& file, const WeightTensor& tensor) {
    const bool inBlocks = kBlockGeometry[static_cast<std::size_t>(tensor.dtype)].splitUnit >= 144;
    const std::uint64_t rows = tensor.dims[0] / 3;
    const std::uint64_t kept = inBlocks ? rows / 256 * 256 : rows;
    if (kept == 0) {
      out_.add(Id::TensorRefused, tensor.name,
               fmt::format("{}: a third of {} rows has 0 bytes", file, tensor.dims[0]));
      return;
    }
    fused_.add(tensor.name);
    if (tensor.ndim == 2 && tensor.dims[1] == 3 * tensor.dims[0]) {
      out_.add(Id::TensorFusedColumns, tensor.name,
               fmt::format("[{}, {}] is cut into parts of {} rows", tensor.dims[0], tensor.dims[1], rows));
    }
    const auto isMore = [](std::uint64_t extent) { return extent != 1; };
    if (std::any_of(tensor.dims + std::min<std::size_t>(tensor.ndim, 2), tensor.dims + tensor.ndim, isMore)) {
      out_.add(Id::TensorFusedExtents, tensor.name, fmt::format("{} extents", tensor.ndim));
    }
    if (3 * kept != tensor.dims[0]) {
      out_.add(Id::TensorFusedRemainder, tensor.name,
               fmt::format("{} of {} rows are dropped", tensor.dims[0] - 3 * kept, tensor.dims[0]));
    }
  }

  void addName(const std::string& file, const std::string& name) {
    const std::size_t nul = name.find('\0');
    if (nul != std::string::npos) out_.add(Id::TensorNameNul, name, fmt::format("zero byte at {}", nul));
    const std::string whole = name.substr(0, nul);
    const std::string cut = whole.substr(0, kStoredNameBytes);
    if (cut.size() != whole.size()) {
      out_.add(Id::TensorNameCut, whole, fmt::format("{} bytes, stored as {}", whole.size(), cut));
    }
    stored_[cut][whole].push_back(file);
  }

  std::string architecture_;
  Explanation& out_;
  TensorGroup unmapped_, fused_;
  std::map<std::string, TypeUse> types_;
  // Name as stored, then whole name, then the files it comes from.
  std::map<std::string, std::map<std::string, std::vector<std::string>>> stored_;
};

Id pytorchId(const std::string& message, std::string_view head) {
  if (message == "torch: no data.pkl") return Id::PytorchFolder;
  if (message.find("compression") != std::string::npos) return Id::PytorchDeflated;
  if (message.find("unsupported storage dtype") != std::string::npos) return Id::PytorchStorageType;
  if (message.starts_with("torch: pickle") || message.find("state_dict") != std::string::npos)
    return Id::PytorchPickle;
  // A pickle begins with the opcode PROTO: the format before zip archives is a row of pickles.
  if (message == "torch: no EOCD" && !head.empty() && head[0] == '\x80') return Id::PytorchLegacy;
  return Id::WeightsRefused;
}

// A file that its reader refuses; what disguises it has been reported before.
void reportRefusal(const Directory& directory, const std::string& name, MappedWeights::Format format,
                   const Status& status, Explanation& out) {
  const FileLook& look = directory.files.at(name);
  const std::string& message = status.message();
  const bool isNamed = look.disguise == Disguise::LfsPointer || look.disguise == Disguise::LinkText ||
                       look.disguise == Disguise::WebPage || look.isDenied;
  if (isNamed) return;
  if (endsEarly(directory.pathOf(name), look)) {
    out.add(Id::WeightsPartial, name, fmt::format("{} bytes [{}]", look.bytes, message));
  } else if (format == MappedWeights::Format::PyTorch) {
    out.add(pytorchId(message, look.head), name, message);
  } else {
    const bool type = message.find("safetensors: unsupported dtype") == 0;
    out.add(type ? Id::WeightsType : Id::WeightsRefused, name, message);
  }
}

void noWeights(const Directory& directory, Explanation& out) {
  std::string shards;
  std::size_t count = 0;
  for (const auto& [name, look] : directory.files) {
    if (name.compare(0, 14, "pytorch_model-") != 0) continue;
    if (count++ == 0) shards = name;
  }
  if (count > 0) {
    out.add(Id::WeightsShardedBin, shards, fmt::format("{} files of this kind", count));
  } else {
    out.add(Id::WeightsNone, out.directory);
  }
}

}  // namespace

void explainWeights(const Directory& directory, const plan::ImportPlan& plan, Explanation& out) {
  plan::WeightFiles files;
  const Status found = plan::findWeightFiles(directory.path, files);
  OpenedWeights opened;
  if (found.ok() && directory.has("adapter_config.json")) out.add(Id::WeightsAdapter, "adapter_config.json");
  Tensors tensors(plan.model.arch, out);
  std::size_t count = 0;
  for (std::size_t k = 0; k < files.names.size(); ++k) {
    const std::string& name = files.names[k];
    MappedWeights mapped;
    const MappedWeights* source = &mapped;
    if (k < plan.sources.size() && plan.weights[k].name == name) {
      // Mapped already: twice the address space is more than an import takes.
      source = plan.sources[k].get();
    } else if (const Status status = mapped.open(directory.pathOf(name), files.format); !status.ok()) {
      if (directory.has(name)) reportRefusal(directory, name, files.format, status, out);
      continue;
    }
    opened.files.insert(name);
    count += source->count();
    for (std::size_t i = 0; i < source->count(); ++i) {
      if (const std::string* tensor = source->nameAt(i); tensor != nullptr) opened.tensors.insert(*tensor);
    }
    tensors.addFile(name, *source);
  }
  tensors.report();
  explainIndex(directory, "model.safetensors.index.json", opened, out);
  // Downloads often leave out the checkpoint of a model that has both forms, but not its index.
  if (!directory.hasSafetensors()) explainIndex(directory, "pytorch_model.bin.index.json", opened, out);
  if (found.code() == Code::IOError) {
    out.add(Id::DirectoryUnreadable, out.directory);
  } else if (!found.ok()) {
    noWeights(directory, out);
  } else if (opened.files.size() == files.names.size() && count == 0) {
    out.add(Id::WeightsNoTensors, files.names.front());
  }
}

}  // namespace zel::explain
