// Lists the tensors of one PyTorch checkpoint: a zip archive (APPNOTE.TXT) of stored entries whose entry
// "data.pkl" is a program in the dialect of docs/pytorch-dialect.md.
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

struct ZipEntry {
  std::string name;                    // as in the central directory, folders included
  std::uint16_t method = 0;            // always 0 (stored)
  std::uint32_t crc32 = 0;             // kept, never verified
  std::uint64_t compressedSize = 0;    // bytes that lie in the file, checked against its end
  std::uint64_t uncompressedSize = 0;  // as declared, unchecked; tensors are measured against it
  std::uint64_t dataOffset = 0;        // from the start of the file
};

struct ZipNameRef {
  std::string name;
  std::uint64_t entry = 0;  // position in the entry list
};

struct PtTensorInfo {
  std::string name;
  std::uint16_t dtype = 0;       // DType value: F32, F16 or BF16
  std::uint64_t shape[4] = {};   // the first min(ndim, 4) extents, outermost first
  std::uint16_t ndim = 0;        // as counted in the checkpoint, may exceed 4
  std::string_view storage;      // name of the zip entry that holds the bytes; borrowed from the entry list
  std::uint64_t dataOffset = 0;  // of that entry's data, from the start of the file
  std::uint64_t offset = 0;      // bytes from the start of that entry's data
  std::uint64_t nbytes = 0;
};

// The file stays mapped while the importer is open; everything handed out dies with close(), the next
// open() or the destructor. After any failure it is closed. Not thread-safe.
class PyTorchImporter {
 public:
  // Maps `path`, indexes the archive and runs its pickle program.
  //   InvalidFormat  path is null, or the archive has no "data.pkl"
  //   IOError        the file cannot be opened or mapped, or is empty
  //   Corrupted      the archive, the program or a tensor's range does not fit
  //   Unsupported    compressed entries, foreign objects, other element types
  Status open(const char* path);
  // The same over bytes that the caller keeps until close().
  Status openBytes(std::string_view file);
  void close() noexcept;

  [[nodiscard]] bool isOpen() const noexcept { return opened_; }
  [[nodiscard]] std::string_view bytes() const noexcept { return file_; }  // the whole file
  [[nodiscard]] const std::vector<ZipEntry>& entries() const noexcept { return entries_; }
  // Sorted by name, byte-wise; equal names in the order of the program.
  [[nodiscard]] const std::vector<PtTensorInfo>& tensors() const noexcept { return tensors_; }
  [[nodiscard]] bool hasConstants() const noexcept { return hasConstants_; }
  // Of the mapped file; zero and empty after openBytes().
  [[nodiscard]] FileId fileId() const noexcept { return mapping_.id(); }
  [[nodiscard]] std::string_view mapping() const noexcept { return mapping_.bytes(); }

  // Null when not open or not found.
  [[nodiscard]] const PtTensorInfo* findTensor(const std::string& name) const;
  // The first entry, in the order of the central directory, of exactly this name; null when there is none.
  [[nodiscard]] const ZipEntry* findEntry(std::string_view name) const;

 private:
  Status parse();
  Status parseZip();
  Status addEntry(std::uint64_t& offset);
  Status parsePickle();

  MappedFile mapping_;
  std::string_view file_;
  std::vector<ZipEntry> entries_;
  std::vector<ZipNameRef> index_;  // sorted by name, equal names in the order of the entries
  std::vector<PtTensorInfo> tensors_;
  bool hasConstants_ = false;
  bool opened_ = false;
};

}  // namespace zel
