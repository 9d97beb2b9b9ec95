// One .safetensors file as a WeightSource.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "container/file_id.h"
#include "container/status.h"
#include "convert/weight_source.h"
#include "readers/safetensors_importer.h"

namespace zel {

class StSource final : public WeightSource {
 public:
  StSource() = default;
  StSource(const StSource&) = delete;
  StSource& operator=(const StSource&) = delete;
  // Deliberately leaves the importer and its mapping alive for the life of the process: tensor pointers
  // that were handed out stay valid. Only a second open() releases the earlier importer.
  ~StSource() override = default;

  // The importer's Status; after a failure the source holds no tensors.
  Status open(const char* path);
  // Of the mapped file; zero and empty before a successful open().
  [[nodiscard]] FileId fileId() const;
  [[nodiscard]] std::string_view mapping() const;

  [[nodiscard]] std::size_t count() const override;
  [[nodiscard]] bool tensorAt(std::size_t i, WeightTensor& out) const override;
  [[nodiscard]] const std::string* nameAt(std::size_t i) const override;

 private:
  SafetensorsImporter* importer_ = nullptr;
};

}  // namespace zel
