#include "okv2/prepare/zip_archive.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "container/bytes.h"

namespace zel::tool::prepare {
namespace {

// libzip keeps the whole directory in memory. That of a checkpoint with 100,000 storages has 10 MB.
constexpr std::uint64_t kMaxDirectoryBytes = std::uint64_t{64} << 20;
constexpr std::uint64_t kUnlimited = std::numeric_limits<std::uint64_t>::max();
// RFC 1951: 258 bytes from a length and a distance code of one bit each, four of them in a byte.
constexpr std::uint64_t kMaxDeflateRatio = 1032;
constexpr std::size_t kInflatedBytes = std::size_t{256} * 1024;

struct CloseEntry {
  void operator()(zip_file_t* entry) const noexcept { (void)zip_fclose(entry); }
};
using OpenEntry = std::unique_ptr<zip_file_t, CloseEntry>;

}  // namespace

ZipArchive::~ZipArchive() {
  if (archive_ != nullptr) zip_discard(archive_);
  zip_error_fini(&error_);
}

zip_int64_t ZipArchive::callback(void* self, void* data, zip_uint64_t size, zip_source_cmd_t command) {
  return static_cast<ZipArchive*>(self)->serve(data, size, command);
}

zip_int64_t ZipArchive::serve(void* data, zip_uint64_t size, zip_source_cmd_t command) {
  switch (command) {
    case ZIP_SOURCE_OPEN: position_ = 0; return 0;
    case ZIP_SOURCE_CLOSE:
    case ZIP_SOURCE_FREE: return 0;
    case ZIP_SOURCE_READ: {
      const std::uint64_t n = std::min<std::uint64_t>(size, file_.size() - position_);
      if (n > budget_) {
        zip_error_set(&error_, ZIP_ER_MEMORY, 0);
        return -1;
      }
      budget_ -= n;
      if (n > 0) std::memcpy(data, file_.data() + position_, n);
      lastReadAt_ = position_;
      lastReadBytes_ = n;
      position_ += n;
      return static_cast<zip_int64_t>(n);
    }
    case ZIP_SOURCE_SEEK: {
      const zip_int64_t to = zip_source_seek_compute_offset(position_, file_.size(), data, size, &error_);
      if (to < 0) return -1;
      position_ = static_cast<std::uint64_t>(to);
      return 0;
    }
    case ZIP_SOURCE_TELL: return static_cast<zip_int64_t>(position_);
    case ZIP_SOURCE_STAT: {
      auto* const stat = static_cast<zip_stat_t*>(data);
      zip_stat_init(stat);
      stat->size = file_.size();
      stat->valid |= ZIP_STAT_SIZE;
      return sizeof *stat;
    }
    case ZIP_SOURCE_ERROR: return zip_error_to_data(&error_, data, size);
    case ZIP_SOURCE_SUPPORTS: return ZIP_SOURCE_SUPPORTS_SEEKABLE;
    default: zip_error_set(&error_, ZIP_ER_OPNOTSUPP, 0); return -1;
  }
}

Status ZipArchive::open(std::string_view file) {
  file_ = file;
  zip_error_init(&error_);
  zip_error_t failure;
  zip_error_init(&failure);
  budget_ = kMaxDirectoryBytes;
  zip_source_t* const source = zip_source_function_create(callback, this, &failure);
  if (source != nullptr) {
    archive_ = zip_open_from_source(source, ZIP_RDONLY, &failure);
    if (archive_ == nullptr) zip_source_free(source);
  }
  const std::string reason = zip_error_strerror(&failure);
  zip_error_fini(&failure);
  if (archive_ == nullptr) {
    if (zip_error_code_zip(&error_) == ZIP_ER_MEMORY) {
      return unsupported("checkpoint: the archive's directory is longer than 64 MiB");
    }
    return corrupted("checkpoint: the archive cannot be opened: " + reason);
  }
  budget_ = kUnlimited;
  return {};
}

std::uint64_t ZipArchive::entryCount() const {
  return static_cast<std::uint64_t>(std::max<zip_int64_t>(0, zip_get_num_entries(archive_, 0)));
}

std::string ZipArchive::nameAt(std::uint64_t index) const {
  const char* const name = zip_get_name(archive_, index, ZIP_FL_ENC_RAW);
  return name == nullptr ? "" : name;
}

bool ZipArchive::find(const std::string& name, std::uint64_t& index) const {
  const zip_int64_t found = zip_name_locate(archive_, name.c_str(), ZIP_FL_ENC_RAW);
  if (found < 0) return false;
  index = static_cast<std::uint64_t>(found);
  return true;
}

Status ZipArchive::describe(std::uint64_t index, ZipEntryInfo& out) {
  const std::string name = nameAt(index);
  constexpr zip_uint64_t kNeeded = ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE | ZIP_STAT_COMP_METHOD;
  zip_stat_t stat;
  if (zip_stat_index(archive_, index, 0, &stat) != 0 || (stat.valid & kNeeded) != kNeeded) {
    return corrupted("checkpoint: the archive's entry '" + name + "' cannot be described");
  }
  if ((stat.valid & ZIP_STAT_ENCRYPTION_METHOD) != 0 && stat.encryption_method != ZIP_EM_NONE) {
    return unsupported("checkpoint: the archive's entry '" + name + "' is encrypted");
  }
  if (stat.comp_method != ZIP_CM_STORE && stat.comp_method != ZIP_CM_DEFLATE) {
    return unsupported("checkpoint: the archive's entry '" + name + "' is compressed by method " +
                       std::to_string(stat.comp_method));
  }
  out = {index, stat.comp_size, stat.size, stat.comp_method == ZIP_CM_DEFLATE, 0};
  std::uint64_t most;
  if (out.storedBytes > file_.size() ||
      (out.deflated ? !checkedMul(out.storedBytes, kMaxDeflateRatio, most) || out.bytes > most
                    : out.bytes != out.storedBytes)) {
    return corrupted("checkpoint: the archive's entry '" + name + "' declares " + std::to_string(out.bytes) +
                     " bytes, which do not fit in it");
  }
  return out.deflated || out.bytes == 0 ? Status() : locate(out, name);
}

// libzip does not say where an entry's bytes begin, but asks for them there.
Status ZipArchive::locate(ZipEntryInfo& entry, const std::string& name) {
  const OpenEntry open(zip_fopen_index(archive_, entry.index, 0));
  char first;
  if (open == nullptr || zip_fread(open.get(), &first, 1) != 1 || lastReadBytes_ != 1 ||
      file_[lastReadAt_] != first || entry.bytes > file_.size() - lastReadAt_) {
    return corrupted("checkpoint: the archive's entry '" + name + "' does not lie in the file");
  }
  entry.fileOffset = lastReadAt_;
  return {};
}

Status ZipArchive::read(const ZipEntryInfo& entry, const std::function<bool(std::string_view)>& sink) {
  const auto broken = [&] {
    return corrupted("checkpoint: the archive's entry '" + nameAt(entry.index) + "' cannot be read");
  };
  const OpenEntry open(zip_fopen_index(archive_, entry.index, 0));
  if (open == nullptr) return broken();
  std::vector<char> piece(kInflatedBytes);
  std::uint64_t left = entry.bytes;
  while (left > 0) {
    const zip_int64_t n = zip_fread(open.get(), piece.data(), std::min<std::uint64_t>(left, piece.size()));
    if (n <= 0) return broken();
    if (!sink({piece.data(), static_cast<std::size_t>(n)})) return {};
    left -= static_cast<std::uint64_t>(n);
  }
  // The read that finds the end checks the sum, and that there is no more.
  return zip_fread(open.get(), piece.data(), 1) == 0 ? Status() : broken();
}

}  // namespace zel::tool::prepare
