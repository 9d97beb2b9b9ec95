// A zip archive in memory, read with libzip.
#pragma once

#include <zip.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "container/status.h"

namespace zel::tool::prepare {

struct ZipEntryInfo {
  std::uint64_t index = 0;
  std::uint64_t storedBytes = 0;  // in the archive
  std::uint64_t bytes = 0;        // as declared
  bool deflated = false;
  std::uint64_t fileOffset = 0;  // of its bytes, unless deflated or empty
};

// Borrows the bytes that it was opened over. Not thread-safe.
class ZipArchive {
 public:
  ZipArchive() = default;
  ZipArchive(const ZipArchive&) = delete;
  ZipArchive& operator=(const ZipArchive&) = delete;
  ~ZipArchive();

  // Called once. Failures begin "checkpoint: ":
  //   Corrupted    no archive, or its directory does not fit
  //   Unsupported  its directory is longer than any checkpoint's
  Status open(std::string_view file);

  [[nodiscard]] std::uint64_t entryCount() const;
  // Of an entry; empty when it has none.
  [[nodiscard]] std::string nameAt(std::uint64_t index) const;

  // False when there is no entry of this name.
  [[nodiscard]] bool find(const std::string& name, std::uint64_t& index) const;

  // Corrupted when the entry does not lie in the file, or declares more than deflate can hold; Unsupported
  // for encryption and other methods.
  Status describe(std::uint64_t index, ZipEntryInfo& out);

  // Hands the entry's bytes to `sink` piece by piece, exactly as many as it declares; a false from `sink`
  // ends it without a failure.
  Status read(const ZipEntryInfo& entry, const std::function<bool(std::string_view)>& sink);

 private:
  static zip_int64_t callback(void* self, void* data, zip_uint64_t size, zip_source_cmd_t command);
  zip_int64_t serve(void* data, zip_uint64_t size, zip_source_cmd_t command);
  Status locate(ZipEntryInfo& entry, const std::string& name);

  std::string_view file_;
  zip_t* archive_ = nullptr;
  zip_error_t error_{};
  std::uint64_t position_ = 0;
  std::uint64_t lastReadAt_ = 0;  // where libzip read last
  std::uint64_t lastReadBytes_ = 0;
  std::uint64_t budget_ = 0;  // bytes that libzip may still read
};

}  // namespace zel::tool::prepare
