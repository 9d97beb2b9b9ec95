// One weight file of either format, opened as the plug-in opens it, and let go again when the object dies.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "container/status.h"
#include "convert/weight_source.h"
#include "readers/pytorch_importer.h"
#include "readers/safetensors_importer.h"

namespace zel::plan {

// Tensor pointers die with the object or the next open(). Not thread-safe.
class MappedWeights final : public WeightSource {
 public:
  enum class Format { Safetensors, PyTorch };

  // The reader's Status; after a failure there are no tensors.
  Status open(const std::string& path, Format format);

  [[nodiscard]] std::size_t count() const override;
  [[nodiscard]] bool tensorAt(std::size_t i, WeightTensor& out) const override;
  [[nodiscard]] const std::string* nameAt(std::size_t i) const override;

 private:
  [[nodiscard]] const void* dataOf(const PtTensorInfo& tensor) const;

  Format format_ = Format::Safetensors;
  SafetensorsImporter safetensors_;
  PyTorchImporter pytorch_;
};

}  // namespace zel::plan
