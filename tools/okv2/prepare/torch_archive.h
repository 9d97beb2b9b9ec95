// An ordinary torch.save checkpoint, in the zip form or the one before it (torch/serialization.py of
// PyTorch): which tensors it names, and where their bytes lie.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"
#include "okv2/prepare/element_type.h"
#include "okv2/prepare/torch_pickle.h"
#include "okv2/prepare/torch_state_dict.h"
#include "okv2/prepare/zip_archive.h"

namespace zel::tool::prepare {

// A run of elements, in the file or packed in it.
struct TorchStorage {
  std::string key;  // empty for that of an array
  std::uint64_t bytes = 0;
  std::uint64_t fileOffset = 0;  // unless packed
  bool deflated = false;
  ZipEntryInfo entry;                   // of a deflated one
  std::optional<ProgramBytes> content;  // of an array, which lies in the program

  [[nodiscard]] bool isPacked() const noexcept { return deflated || content.has_value(); }
};

struct TorchTensor {
  std::string name;
  const ElementType* type = nullptr;
  std::size_t storage = 0;             // position in TorchCheckpoint::storages()
  std::uint64_t begin = 0;             // bytes from the start of the storage to the first element
  std::vector<std::uint64_t> shape;    // empty for a scalar
  std::vector<std::uint64_t> strides;  // in elements; as many
};

// Every tensor lies inside its storage, and every storage that is not packed inside the file. Not
// thread-safe.
class TorchCheckpoint {
 public:
  // Reads everything but the tensors' bytes; called once. `file` is borrowed for the life of the object.
  // Failures begin "checkpoint: ":
  //   Corrupted    what it says of itself does not fit
  //   Unsupported  a global that is not on the list, another format or byte order, no dictionary of tensors
  Status parse(std::string_view file);

  [[nodiscard]] const std::vector<TorchTensor>& tensors() const noexcept { return tensors_; }
  [[nodiscard]] const std::vector<TorchStorage>& storages() const noexcept { return storages_; }
  // Whose the names are, the key under which the tensors lie, and what is there besides them; StateDict says
  // more.
  [[nodiscard]] TensorNaming naming() const noexcept { return dict_.naming; }
  [[nodiscard]] const std::string& within() const noexcept { return dict_.within; }
  [[nodiscard]] const std::vector<OtherEntry>& others() const noexcept { return dict_.others; }
  [[nodiscard]] bool isZip() const noexcept { return isZip_; }

  // Hands the bytes of a packed storage to `sink`, piece by piece. Corrupted when they are not what the
  // archive declares, or not what they were when the program was run; a false from `sink` ends it without a
  // failure.
  Status inflate(const TorchStorage& storage, const std::function<bool(std::string_view)>& sink);

 private:
  Status parseZip();
  Status readByteOrder(const std::string& folder);
  Status parseLegacy();
  Status readLegacyPickle(std::uint64_t& position, PickleValue& out);
  Status walkLegacyStorages(const PickleValue& keys, std::uint64_t position);
  Status takeTensors(const std::function<Status(const PickleStorage&, TorchStorage&)>& locate);

  std::string_view file_;
  bool isZip_ = false;
  ZipArchive zip_;
  std::string program_;  // of the zip form
  TorchPickle machine_;
  StateDict dict_;
  std::vector<TorchStorage> storages_;
  std::vector<TorchTensor> tensors_;
};

}  // namespace zel::tool::prepare
