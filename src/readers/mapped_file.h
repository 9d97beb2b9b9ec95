// A read-only mapping of a whole file.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "container/file_id.h"

namespace zel {

enum class MapResult {
  Ok,
  OpenFailed,
  StatFailed,  // the size cannot be had or is below what the caller needs (FIFOs and devices have size 0)
  MapFailed,   // a directory, say
};

// Owns the mapping; move-only. Opening never blocks, whatever kind of file the path leads to.
class MappedFile {
 public:
  MappedFile() noexcept = default;
  MappedFile(MappedFile&& other) noexcept { swap(other); }
  MappedFile& operator=(MappedFile&& other) noexcept {
    swap(other);
    return *this;
  }
  ~MappedFile() { close(); }

  // Replaces the current mapping by the file at `path`; after a failure nothing is mapped.
  [[nodiscard]] MapResult open(const char* path, std::uint64_t minBytes) noexcept;
  void close() noexcept;

  // Valid until close(), the next open() or the destructor. Empty while nothing is mapped.
  [[nodiscard]] std::string_view bytes() const noexcept { return bytes_; }
  [[nodiscard]] FileId id() const noexcept { return id_; }

 private:
  void swap(MappedFile& other) noexcept {
    std::swap(bytes_, other.bytes_);
    std::swap(id_, other.id_);
  }

  std::string_view bytes_;
  FileId id_;
};

}  // namespace zel
