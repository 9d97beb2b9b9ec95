// Writes zip archives (APPNOTE.TXT) of stored entries: valid as they stand, and able to lie in any field of
// any record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zel::test {

// A fixed-width field of a record, little-endian.
struct ZipField {
  unsigned offset;
  unsigned width;
};

inline constexpr std::uint32_t kZipLocalSignature = 0x04034b50;
inline constexpr std::uint32_t kZipCentralSignature = 0x02014b50;
inline constexpr std::uint32_t kZipEndSignature = 0x06054b50;

namespace zip_local {
inline constexpr ZipField kSignature{0, 4}, kVersion{4, 2}, kFlags{6, 2}, kMethod{8, 2}, kTime{10, 2},
    kDate{12, 2}, kCrc32{14, 4}, kCompressedSize{18, 4}, kUncompressedSize{22, 4}, kNameLength{26, 2},
    kExtraLength{28, 2};
inline constexpr std::size_t kBytes = 30;
}  // namespace zip_local

namespace zip_central {
inline constexpr ZipField kSignature{0, 4}, kMadeBy{4, 2}, kVersion{6, 2}, kFlags{8, 2}, kMethod{10, 2},
    kTime{12, 2}, kDate{14, 2}, kCrc32{16, 4}, kCompressedSize{20, 4}, kUncompressedSize{24, 4},
    kNameLength{28, 2}, kExtraLength{30, 2}, kCommentLength{32, 2}, kDisk{34, 2}, kInternalAttributes{36, 2},
    kExternalAttributes{38, 4}, kLocalOffset{42, 4};
inline constexpr std::size_t kBytes = 46;
}  // namespace zip_central

namespace zip_end {
inline constexpr ZipField kSignature{0, 4}, kDisk{4, 2}, kDirectoryDisk{6, 2}, kDiskEntries{8, 2},
    kEntries{10, 2}, kDirectorySize{12, 4}, kDirectoryOffset{16, 4}, kCommentLength{20, 2};
inline constexpr std::size_t kBytes = 22;
}  // namespace zip_end

// The CRC-32 that zip uses (reflected 0x04C11DB7).
inline std::uint32_t zipCrc32(std::string_view bytes) {
  std::uint32_t crc = ~0u;
  for (const char c : bytes) {
    crc ^= static_cast<unsigned char>(c);
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320u : 0);
  }
  return ~crc;
}

class ZipBuilder {
 public:
  // Appends an entry; the calls below concern the entry that was added last.
  ZipBuilder& add(std::string name, std::string data) {
    entries_.push_back({});
    entries_.back().name = std::move(name);
    entries_.back().data = std::move(data);
    return *this;
  }
  // Replaces what the local header says; the central directory keeps the name that add() was given.
  ZipBuilder& localName(std::string name) {
    entries_.back().localName = std::move(name);
    entries_.back().hasLocalName = true;
    return *this;
  }
  ZipBuilder& localExtra(std::string bytes) {
    entries_.back().localExtra = std::move(bytes);
    return *this;
  }
  ZipBuilder& centralExtra(std::string bytes) {
    entries_.back().centralExtra = std::move(bytes);
    return *this;
  }
  ZipBuilder& entryComment(std::string text) {
    entries_.back().comment = std::move(text);
    return *this;
  }
  // Overwrites one field after everything else has been laid out: nothing follows the lie.
  ZipBuilder& lieLocal(ZipField field, std::uint64_t value) {
    entries_.back().localLies.emplace_back(field, value);
    return *this;
  }
  ZipBuilder& lieCentral(ZipField field, std::uint64_t value) {
    entries_.back().centralLies.emplace_back(field, value);
    return *this;
  }

  // Of the archive.
  ZipBuilder& lieEnd(ZipField field, std::uint64_t value) {
    endLies_.emplace_back(field, value);
    return *this;
  }
  // Bytes before the first entry; every offset in the archive counts them.
  ZipBuilder& prefix(std::string bytes) {
    prefix_ = std::move(bytes);
    return *this;
  }
  // Longer comments than 65535 bytes get a length cut to 16 bits.
  ZipBuilder& comment(std::string text) {
    comment_ = std::move(text);
    return *this;
  }

  [[nodiscard]] std::uint64_t localOffset(std::size_t entry) const {
    std::uint64_t offset = prefix_.size();
    for (std::size_t k = 0; k < entry; ++k)
      offset += entries_[k].localBytes() + entries_[k].data.size();
    return offset;
  }
  [[nodiscard]] std::uint64_t dataOffset(std::size_t entry) const {
    return localOffset(entry) + entries_[entry].localBytes();
  }
  [[nodiscard]] std::uint64_t centralOffset(std::size_t entry) const {
    std::uint64_t offset = localOffset(entries_.size());
    for (std::size_t k = 0; k < entry; ++k)
      offset += entries_[k].centralBytes();
    return offset;
  }
  [[nodiscard]] std::uint64_t endOffset() const { return centralOffset(entries_.size()); }

  [[nodiscard]] std::string build() const {
    std::string out = prefix_;
    std::vector<std::uint64_t> localOffsets;
    for (const Entry& entry : entries_) {
      localOffsets.push_back(out.size());
      out += local(entry) + entry.shownLocalName() + entry.localExtra + entry.data;
    }
    const std::uint64_t directoryOffset = out.size();
    for (std::size_t k = 0; k < entries_.size(); ++k) {
      const Entry& entry = entries_[k];
      out += central(entry, localOffsets[k]) + entry.name + entry.centralExtra + entry.comment;
    }
    return out + end(directoryOffset, out.size() - directoryOffset) + comment_;
  }

 private:
  using Lies = std::vector<std::pair<ZipField, std::uint64_t>>;

  struct Entry {
    std::string name, data, localName, localExtra, centralExtra, comment;
    bool hasLocalName = false;
    Lies localLies, centralLies;

    [[nodiscard]] const std::string& shownLocalName() const { return hasLocalName ? localName : name; }
    [[nodiscard]] std::uint64_t localBytes() const {
      return zip_local::kBytes + shownLocalName().size() + localExtra.size();
    }
    [[nodiscard]] std::uint64_t centralBytes() const {
      return zip_central::kBytes + name.size() + centralExtra.size() + comment.size();
    }
  };

  static constexpr std::uint16_t kVersion20 = 20;
  static constexpr std::uint16_t kFirstOfJanuary1980 = 0x0021;

  static void put(std::string& record, ZipField field, std::uint64_t value) {
    for (unsigned k = 0; k < field.width; ++k)
      record[field.offset + k] = char(value >> (8 * k));
  }
  static void putLies(std::string& record, const Lies& lies) {
    for (const auto& [field, value] : lies)
      put(record, field, value);
  }

  static std::string local(const Entry& entry) {
    namespace f = zip_local;
    std::string record(f::kBytes, '\0');
    put(record, f::kSignature, kZipLocalSignature);
    put(record, f::kVersion, kVersion20);
    put(record, f::kDate, kFirstOfJanuary1980);
    put(record, f::kCrc32, zipCrc32(entry.data));
    put(record, f::kCompressedSize, entry.data.size());
    put(record, f::kUncompressedSize, entry.data.size());
    put(record, f::kNameLength, entry.shownLocalName().size());
    put(record, f::kExtraLength, entry.localExtra.size());
    putLies(record, entry.localLies);
    return record;
  }
  static std::string central(const Entry& entry, std::uint64_t localOffset) {
    namespace f = zip_central;
    std::string record(f::kBytes, '\0');
    put(record, f::kSignature, kZipCentralSignature);
    put(record, f::kMadeBy, kVersion20);
    put(record, f::kVersion, kVersion20);
    put(record, f::kDate, kFirstOfJanuary1980);
    put(record, f::kCrc32, zipCrc32(entry.data));
    put(record, f::kCompressedSize, entry.data.size());
    put(record, f::kUncompressedSize, entry.data.size());
    put(record, f::kNameLength, entry.name.size());
    put(record, f::kExtraLength, entry.centralExtra.size());
    put(record, f::kCommentLength, entry.comment.size());
    put(record, f::kLocalOffset, localOffset);
    putLies(record, entry.centralLies);
    return record;
  }
  [[nodiscard]] std::string end(std::uint64_t directoryOffset, std::uint64_t directorySize) const {
    namespace f = zip_end;
    std::string record(f::kBytes, '\0');
    put(record, f::kSignature, kZipEndSignature);
    put(record, f::kDiskEntries, entries_.size());
    put(record, f::kEntries, entries_.size());
    put(record, f::kDirectorySize, directorySize);
    put(record, f::kDirectoryOffset, directoryOffset);
    put(record, f::kCommentLength, comment_.size());
    putLies(record, endLies_);
    return record;
  }

  std::string prefix_;
  std::vector<Entry> entries_;
  std::string comment_;
  Lies endLies_;
};

}  // namespace zel::test
