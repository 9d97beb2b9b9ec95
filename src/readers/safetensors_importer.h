// Lists the tensors of one .safetensors file (https://huggingface.co/docs/safetensors, "Format").
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "container/dtype.h"
#include "container/file_id.h"
#include "container/status.h"
#include "readers/mapped_file.h"

namespace zel {

// Block layout that goes with an element type; all zero for plain floats.
struct QuantInfo {
  std::uint16_t dtype = 0;
  std::uint16_t blockElements = 0;
  std::uint32_t blockBytes = 0;
  std::uint32_t layout[3] = {};  // the first is always 0 here; the container writer stores its own
};

struct StTensorInfo {
  std::string name;
  DType dtype = DType::F32;
  QuantInfo quant;
  unsigned ndim = 0;            // 0 to 4
  std::uint64_t dims[4] = {};   // as in "shape"; unused entries 0
  std::uint64_t dataBegin = 0;  // relative to the data region
  std::uint64_t dataEnd = 0;
  std::uint64_t size = 0;  // dataEnd - dataBegin
};

// The file stays mapped while the importer is open; tensor bytes die with close(), the next open() or the
// destructor. After any failure it is closed. Not thread-safe; separate importers are independent.
class SafetensorsImporter {
 public:
  // Maps `path` and checks its header.
  //   InvalidFormat  path is null
  //   IOError        the file cannot be opened or mapped
  //   Corrupted      the header or an offset does not fit the file
  //   Unsupported    an element type that mapDtype() does not know
  Status open(const char* path);
  // The same over bytes that the caller keeps until close().
  Status openBytes(std::string_view file);
  void close() noexcept;

  [[nodiscard]] bool isOpen() const noexcept { return open_; }
  // Sorted by name, byte-wise; equal names in document order.
  [[nodiscard]] const std::vector<StTensorInfo>& tensors() const noexcept { return tensors_; }
  // What follows the header; StTensorInfo::dataBegin counts from its start.
  [[nodiscard]] std::string_view dataRegion() const noexcept { return dataRegion_; }
  // Of the mapped file; zero and empty after openBytes().
  [[nodiscard]] FileId fileId() const noexcept { return file_.id(); }
  [[nodiscard]] std::string_view mapping() const noexcept { return file_.bytes(); }

  // Null when not open or not found.
  [[nodiscard]] const StTensorInfo* findTensor(const std::string& name) const;

  // Prints a listing to standard output; a diagnostic for developers, never called by the plug-in.
  void dump() const;

  // "F32", "F16", "BF16", "Q4_K", "Q5_K", "Q6_K", exactly; any other text is Unsupported.
  static Status mapDtype(const std::string& s, DType& out, QuantInfo& q);

 private:
  Status parse(std::string_view file);

  MappedFile file_;
  std::string_view dataRegion_;
  std::vector<StTensorInfo> tensors_;
  bool open_ = false;
};

}  // namespace zel
