// What an import of a model directory will do, found out without writing anything.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "container/okv2_format.h"
#include "container/status.h"
#include "hf/hf_importer.h"
#include "okv2/container_file.h"
#include "okv2/container_reader.h"
#include "okv2/plan/mapped_weights.h"

namespace zel::plan {

struct InputFile {
  std::string name;  // without the directory
  std::uint64_t bytes = 0;
};

struct PlannedTensor {
  std::string name;        // in the container, not yet cut to 63 bytes
  std::string sourceName;  // in the weight file
  std::size_t file = 0;    // position in ImportPlan::weights
  std::uint16_t dtype = 0;
  std::uint16_t ndim = 0;
  std::uint64_t dims[okv2::kMaxDims] = {};
  std::uint64_t size = 0;        // bytes
  std::uint64_t dataOffset = 0;  // from the start of the weights section
  const char* data = nullptr;    // in the weight file; lives as long as the plan
};

struct PlannedSection {
  okv2::SectionType type = okv2::SectionType::Metadata;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
};

struct ImportPlan {
  Status status;                       // what the import will answer; the rest is complete only when it is OK
  HfImporter model;                    // the description as the plug-in reads it
  std::vector<InputFile> weights;      // in the order of the import
  std::vector<PlannedTensor> tensors;  // in the order of the container
  std::array<PlannedSection, okv2::kSectionCount> sections;  // in the order of the container
  std::uint64_t tensorBytes = 0;                             // without padding
  std::uint64_t fileBytes = 0;
  std::uint64_t addressSpace = 0;  // of the weight files, which are all mapped at the same time

  // The model's description as the writer writes it: a container in memory whose header (but for the number
  // of tensors), metadata, tokenizer, graph and chat template are those of the import. Its one tensor stands
  // in for the others.
  tool::ContainerView description;
  std::unique_ptr<tool::ContainerFile> descriptionFile;  // what `description` points into

  std::vector<std::unique_ptr<MappedWeights>> sources;  // what PlannedTensor::data points into
};

// Reads the whole description and the headers of the weight files. Free space is not looked at.
[[nodiscard]] ImportPlan planImport(const std::string& directory);

// The host result code that the plug-in makes of a Status.
[[nodiscard]] int hostCodeOf(const Status& status);

}  // namespace zel::plan
