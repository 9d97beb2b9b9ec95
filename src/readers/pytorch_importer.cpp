#include "readers/pytorch_importer.h"

#include <algorithm>
#include <utility>

#include "container/bytes.h"

namespace zel {
namespace {

// Field offsets in the zip records (APPNOTE.TXT 4.3.7, 4.3.12, 4.3.16).
constexpr std::uint64_t kEndBytes = 22;
constexpr std::uint32_t kEndSignature = 0x06054b50;
constexpr std::uint64_t kEndEntryCount = 10;
constexpr std::uint64_t kEndDirectorySize = 12;
constexpr std::uint64_t kEndDirectoryOffset = 16;
constexpr std::uint64_t kMaxCommentBytes = 65536;

constexpr std::uint64_t kCentralBytes = 46;
constexpr std::uint32_t kCentralSignature = 0x02014b50;
constexpr std::uint64_t kCentralMethod = 10;
constexpr std::uint64_t kCentralCrc32 = 16;
constexpr std::uint64_t kCentralCompressedSize = 20;
constexpr std::uint64_t kCentralUncompressedSize = 24;
constexpr std::uint64_t kCentralNameLength = 28;
constexpr std::uint64_t kCentralExtraLength = 30;
constexpr std::uint64_t kCentralCommentLength = 32;
constexpr std::uint64_t kCentralLocalOffset = 42;

constexpr std::uint64_t kLocalBytes = 30;
constexpr std::uint32_t kLocalSignature = 0x04034b50;
constexpr std::uint64_t kLocalNameLength = 26;
constexpr std::uint64_t kLocalExtraLength = 28;

// The `length` bytes at `offset`, or null when they do not lie inside the file whole.
const char* recordAt(std::string_view file, std::uint64_t offset, std::uint64_t length) {
  return offset <= file.size() && length <= file.size() - offset ? file.data() + offset : nullptr;
}

// The end-of-central-directory record, the highest one where several could be; null when there is none.
const char* findEnd(std::string_view file) {
  const std::uint64_t last = file.size() - kEndBytes;
  const std::uint64_t first = last > kMaxCommentBytes ? last - kMaxCommentBytes : 0;
  for (std::uint64_t offset = last + 1; offset-- > first;) {
    if (loadU32(file.data() + offset) == kEndSignature) return file.data() + offset;
  }
  return nullptr;
}

}  // namespace

Status PyTorchImporter::open(const char* path) {
  close();
  if (path == nullptr) return invalidFormat("torch: null path");
  switch (mapping_.open(path, 1)) {
    case MapResult::OpenFailed: return ioError("torch: open failed");
    case MapResult::StatFailed: return ioError("torch: stat failed");
    case MapResult::MapFailed: return ioError("torch: mmap failed");
    case MapResult::Ok: break;
  }
  file_ = mapping_.bytes();
  return parse();
}

Status PyTorchImporter::openBytes(std::string_view file) {
  close();
  file_ = file;
  return parse();
}

Status PyTorchImporter::parse() {
  // A failed allocation leaves the importer closed too.
  struct CloseUnlessOpen {
    PyTorchImporter& importer;
    ~CloseUnlessOpen() {
      if (!importer.opened_) importer.close();
    }
  } const closeUnlessOpen{*this};
  ZEL_RETURN_IF_ERROR(parseZip());
  ZEL_RETURN_IF_ERROR(parsePickle());
  opened_ = true;
  return {};
}

void PyTorchImporter::close() noexcept {
  mapping_.close();
  file_ = {};
  // clear() would keep the memory.
  entries_ = std::vector<ZipEntry>();
  index_ = std::vector<ZipNameRef>();
  tensors_ = std::vector<PtTensorInfo>();
  hasConstants_ = false;
  opened_ = false;
}

Status PyTorchImporter::parseZip() {
  if (file_.size() < kEndBytes) return corrupted("torch: file too small");
  const char* const end = findEnd(file_);
  if (end == nullptr) return corrupted("torch: no EOCD");
  const std::uint64_t entryCount = loadU16(end + kEndEntryCount);
  std::uint64_t offset = loadU32(end + kEndDirectoryOffset);
  if (recordAt(file_, offset, loadU32(end + kEndDirectorySize)) == nullptr) {
    return corrupted("torch: bad central directory");
  }
  entries_.reserve(entryCount);
  for (std::uint64_t k = 0; k < entryCount; ++k)
    ZEL_RETURN_IF_ERROR(addEntry(offset));

  index_.reserve(entries_.size());
  for (const ZipEntry& entry : entries_)
    index_.push_back({entry.name, index_.size()});
  std::sort(index_.begin(), index_.end(), [](const ZipNameRef& a, const ZipNameRef& b) {
    const int sign = a.name.compare(b.name);
    return sign != 0 ? sign < 0 : a.entry < b.entry;
  });
  return {};
}

// Adds the entry whose central record is at `offset` and moves `offset` behind it.
Status PyTorchImporter::addEntry(std::uint64_t& offset) {
  const char* const central = recordAt(file_, offset, kCentralBytes);
  if (central == nullptr || loadU32(central) != kCentralSignature) {
    return corrupted("torch: bad central directory entry");
  }
  ZipEntry entry;
  const std::uint64_t nameLength = loadU16(central + kCentralNameLength);
  // A name that runs past the end of the file is no error: the entry just has no name to be found by.
  if (recordAt(file_, offset, kCentralBytes + nameLength) != nullptr) {
    entry.name.assign(central + kCentralBytes, nameLength);
  }
  entry.method = loadU16(central + kCentralMethod);
  if (entry.method != 0) {
    return unsupported(
        "torch: zip entry uses compression (deflate); only STORED checkpoints (torch.save default) are "
        "supported");
  }
  entry.crc32 = loadU32(central + kCentralCrc32);
  entry.compressedSize = loadU32(central + kCentralCompressedSize);
  entry.uncompressedSize = loadU32(central + kCentralUncompressedSize);

  const std::uint64_t localOffset = loadU32(central + kCentralLocalOffset);
  const char* const local = recordAt(file_, localOffset, kLocalBytes);
  if (local == nullptr || loadU32(local) != kLocalSignature) return corrupted("torch: bad local header");
  // The lengths of the local header count here: the two records may differ in their extra fields.
  entry.dataOffset =
      localOffset + kLocalBytes + loadU16(local + kLocalNameLength) + loadU16(local + kLocalExtraLength);
  if (recordAt(file_, entry.dataOffset, entry.compressedSize) == nullptr) {
    return corrupted("torch: zip payload out of range");
  }
  entries_.push_back(std::move(entry));
  offset += kCentralBytes + nameLength + loadU16(central + kCentralExtraLength) +
            loadU16(central + kCentralCommentLength);
  return {};
}

const ZipEntry* PyTorchImporter::findEntry(std::string_view name) const {
  const auto found = std::lower_bound(
      index_.begin(), index_.end(), name,
      [](const ZipNameRef& ref, std::string_view key) { return std::string_view(ref.name) < key; });
  return found != index_.end() && found->name == name ? &entries_[found->entry] : nullptr;
}

const PtTensorInfo* PyTorchImporter::findTensor(const std::string& name) const {
  if (!opened_) return nullptr;
  const auto found =
      std::lower_bound(tensors_.begin(), tensors_.end(), name,
                       [](const PtTensorInfo& tensor, const std::string& key) { return tensor.name < key; });
  return found != tensors_.end() && found->name == name ? &*found : nullptr;
}

}  // namespace zel
