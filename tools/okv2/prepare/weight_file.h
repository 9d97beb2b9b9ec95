// One weight file of any kind that can be prepared, opened: its tensors, and where their bytes lie.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "container/descriptor.h"
#include "okv2/prepare/element_type.h"
#include "okv2/prepare/tensor_data.h"
#include "okv2/prepare/torch_archive.h"
#include "readers/mapped_file.h"

namespace zel::tool::prepare {

enum class WeightForm : std::uint8_t {
  Safetensors,
  TorchZip,
  TorchLegacy,
  TorchDialect,  // a checkpoint that the plug-in reads as it is
};

struct SourceTensor {
  std::string name;
  std::string type;
  const ElementType* known = nullptr;  // null for a type that is in no table
  std::vector<std::uint64_t> shape;
  std::vector<std::uint64_t> strides;  // in elements; empty when the elements lie one after the other
  std::uint64_t bytes = 0;             // of the elements, one after the other
  std::uint64_t offset = 0;            // in the data file; of a packed one, in its storage
  std::size_t storage = 0;             // of a torch checkpoint
  bool packed = false;                 // as TorchStorage is
};

// Not thread-safe. Stays where it is: tensors that are written point into it.
class WeightFile {
 public:
  WeightFile() = default;
  WeightFile(const WeightFile&) = delete;
  WeightFile& operator=(const WeightFile&) = delete;

  // Called once. Throws Refused when the file cannot be read, or becomes shorter meanwhile, or its tensors
  // would take very much more room than it has.
  void open(const std::string& dir, const std::string& name, bool safetensors);

  // Unpacks the storages of the packed tensors among `tensors` (positions), up to the last byte that one of
  // them has, to a file without a name in the directory `out`. Throws Refused when they are damaged; of a
  // storage that is very much longer than that, the rest is not looked at.
  void unpack(const std::vector<std::size_t>& tensors, const std::string& out);

  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  [[nodiscard]] const std::string& path() const noexcept { return file_.path; }
  [[nodiscard]] std::string_view bytes() const noexcept { return file_.bytes; }
  [[nodiscard]] const DataFile& data() const noexcept { return file_; }
  [[nodiscard]] WeightForm form() const noexcept { return form_; }
  [[nodiscard]] const std::vector<SourceTensor>& tensors() const noexcept { return tensors_; }
  // Of a torch checkpoint.
  [[nodiscard]] const std::string& within() const noexcept { return torch_.within(); }
  [[nodiscard]] TensorNaming naming() const noexcept { return torch_.naming(); }
  [[nodiscard]] const std::vector<OtherEntry>& others() const noexcept { return torch_.others(); }
  // Whether the archive has a deflated storage.
  [[nodiscard]] bool isDeflated() const noexcept;

  // Where the tensor's first element lies; a packed one's after unpack().
  [[nodiscard]] const DataFile& dataOf(const SourceTensor& tensor) const noexcept;
  [[nodiscard]] std::uint64_t offsetOf(const SourceTensor& tensor) const;

 private:
  void map(const std::string& path);
  void readTensors(bool safetensors);
  void openSafetensors();
  void openTorch();
  [[nodiscard]] bool openDialect();
  void addTorchTensor(const TorchTensor& tensor);
  void refuse(const Status& status) const;
  void refuseGrowth() const;
  void unpackStorage(const TorchStorage& storage, std::uint64_t used, const std::string& out);

  std::string name_;
  WeightForm form_ = WeightForm::Safetensors;
  MappedFile mapping_;
  Descriptor descriptor_;
  DataFile file_;
  TorchCheckpoint torch_;
  std::vector<SourceTensor> tensors_;

  Descriptor unpackedDescriptor_;
  MappedFile unpackedMapping_;
  DataFile unpacked_;
  std::vector<std::uint64_t> unpackedAt_;  // by storage
};

}  // namespace zel::tool::prepare
