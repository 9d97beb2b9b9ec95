// The checks beyond decoding: what a container promises to readers that trust it.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <optional>

#include "container/dtype.h"
#include "okv2/container_cursor.h"
#include "okv2/container_reader.h"
#include "okv2/escape.h"

namespace zel::tool {
namespace {

using okv2::SectionType;

constexpr std::uint64_t kTableEnd = okv2::kHeaderBytes + okv2::kSectionTableBytes;

// Offsets of fields in a tensor index entry.
constexpr std::uint64_t kNameOfs = 0, kNameLengthOfs = 64, kDtypeOfs = 66, kNdimOfs = 68, kReserved1Ofs = 70,
                        kDimsOfs = 72, kDataOffsetOfs = 104, kSizeOfs = 112, kReserved2Ofs = 120;

// An error at the first byte of [begin, end) that is not zero; bytes past the end of the file do not count.
void requireZero(ContainerView& view, std::uint64_t begin, std::uint64_t end, const std::string& what) {
  if (begin >= view.file.size() || begin >= end) return;
  const std::string_view range = view.file.substr(begin, end - begin);
  const std::size_t bad = range.find_first_not_of('\0');
  if (bad != std::string_view::npos) view.findings.error(begin + bad, what + " is not zero");
}

std::uint64_t checksumOf(const ContainerView& view) {
  std::string covered(view.file.substr(0, okv2::kHeaderChecksumOffset));
  covered += view.file.substr(okv2::kHeaderBytes, okv2::kSectionTableBytes);
  return containerChecksum(covered);
}

void checkHeader(ContainerView& view) {
  const std::uint64_t computed = checksumOf(view);
  if (computed != view.storedChecksum) {
    view.findings.error(
        okv2::kHeaderChecksumOffset,
        fmt::format("header checksum 0x{:016X}, computed 0x{:016X}", view.storedChecksum, computed));
  }
  requireZero(view, 20, 24, "reserved header field");
  requireZero(view, 48, 56, "reserved header field");
  for (std::size_t k = 0; k < okv2::kSectionCount; ++k) {
    const std::uint64_t entry = okv2::kHeaderBytes + k * okv2::kSectionEntryBytes;
    requireZero(view, entry + 4, entry + 8, "reserved section table field");
  }
  requireZero(view, kTableEnd, okv2::kFirstSectionOffset, "padding after the section table");
}

// Each section begins where the one before it, rounded up, ends; the weights end the file.
void checkSectionLayout(ContainerView& view) {
  std::uint64_t previousEnd = okv2::kFirstSectionOffset;
  for (const SectionType type : okv2::kFileOrder) {
    const SectionView& section = view.section(type);
    if (!section.inside) return;  // already reported; what follows cannot be placed
    const std::uint64_t at =
        okv2::kHeaderBytes + (static_cast<std::uint64_t>(type) - 1) * okv2::kSectionEntryBytes;
    const char* name = sectionName(type);
    const std::uint64_t expected = okv2::align(previousEnd);
    if (section.offset % okv2::kAlignment != 0) {
      view.findings.error(at, fmt::format("{} section at {} is not aligned to 64", name, section.offset));
    } else if (section.offset < previousEnd) {
      view.findings.error(
          at, fmt::format("{} section at {} overlaps what ends at {}", name, section.offset, previousEnd));
    } else if (section.offset != expected) {
      view.findings.error(at, fmt::format("{} section at {}, expected {}", name, section.offset, expected));
    }
    const std::uint64_t end = section.offset + section.size;
    previousEnd = std::max(previousEnd, end);
    requireZero(view, end, okv2::align(end), fmt::format("padding after the {} section", name));
  }
  if (view.file.size() > previousEnd) {
    view.findings.error(previousEnd,
                        fmt::format("{} bytes after the weights section", view.file.size() - previousEnd));
  }
}

void checkTokenizer(ContainerView& view) {
  static constexpr const char* kIdNames[] = {"bos", "eos", "unk", "pad"};
  const TokenizerView& tokenizer = view.tokenizer;
  if (tokenizer.specialIdsOffset == 0) return;  // could not be decoded that far
  for (std::size_t k = 0; k < std::size(kIdNames); ++k) {
    const std::int64_t id = tokenizer.specialIds[k];
    if (id >= -1 && id < static_cast<std::int64_t>(tokenizer.tokens.size())) continue;
    view.findings.note(tokenizer.specialIdsOffset + 4 * k,
                       fmt::format("{} token id {} is outside the vocabulary of {} tokens", kIdNames[k], id,
                                   tokenizer.tokens.size()));
  }
  if (tokenizer.addBos > 1) {
    view.findings.error(tokenizer.specialIdsOffset + 16,
                        fmt::format("add-BOS flag {}, expected 0 or 1", tokenizer.addBos));
  }
}

// Bytes that the shape calls for; nothing when the product does not fit 64 bits.
std::optional<std::uint64_t> expectedSize(const TensorView& tensor) {
  const BlockGeometry& geometry = kBlockGeometry[tensor.dtype];
  // Blocks run along the first extent.
  std::uint64_t size =
      tensor.dims[0] / geometry.blockElements + (tensor.dims[0] % geometry.blockElements != 0);
  for (std::uint16_t k = 1; k < tensor.ndim; ++k) {
    if (__builtin_mul_overflow(size, tensor.dims[k], &size)) return std::nullopt;
  }
  if (__builtin_mul_overflow(size, geometry.blockBytes, &size)) return std::nullopt;
  return size;
}

// Code 0 also stands for block types that have no code of their own, and types 3, 4 and 8 are not pinned to a
// shape: there a mismatch is only worth a note.
bool sizeFollowsFromShape(std::uint16_t dtype) {
  switch (static_cast<DType>(dtype)) {
    case DType::F16:
    case DType::BF16:
    case DType::Q4_K:
    case DType::Q5_K:
    case DType::Q6_K: return true;
    case DType::F32:
    case DType::Block32x18:
    case DType::Block32x34:
    case DType::Block256x290: return false;
  }
  return false;
}

void checkShape(ContainerView& view, const TensorView& tensor, std::uint64_t entry,
                const std::string& label) {
  const std::optional<std::uint64_t> expected = expectedSize(tensor);
  if (expected == tensor.size) return;
  const std::string text =
      expected ? fmt::format("{} has {} bytes, its shape calls for {}", label, tensor.size, *expected)
               : fmt::format("{} has a shape of more than 2^64 bytes", label);
  if (sizeFollowsFromShape(tensor.dtype)) {
    view.findings.error(entry + kSizeOfs, text);
  } else {
    view.findings.note(entry + kSizeOfs, text);
  }
}

void checkName(ContainerView& view, const TensorView& tensor, std::uint64_t entry, const std::string& label) {
  if (tensor.name.size() >= okv2::kTensorNameBytes) {
    view.findings.error(entry + kNameOfs + okv2::kTensorNameBytes - 1,
                        fmt::format("{} has a name without a closing zero byte", label));
    return;
  }
  requireZero(view, entry + tensor.name.size(), entry + okv2::kTensorNameBytes,
              fmt::format("{}: the rest of the name field", label));
  // A name of exactly 63 bytes may have been cut from any greater length, which is stored modulo 65536.
  if (tensor.name.size() < okv2::kTensorNameBytes - 1 && tensor.fullNameBytes != tensor.name.size()) {
    view.findings.error(entry + kNameLengthOfs, fmt::format("{} has a name of {} bytes, the index says {}",
                                                            label, tensor.name.size(), tensor.fullNameBytes));
  }
  if (tensor.name.empty()) view.findings.note(entry + kNameOfs, fmt::format("{} has no name", label));
}

void checkOrder(ContainerView& view, const TensorView& previous, const TensorView& tensor,
                std::uint64_t entry, const std::string& label) {
  if (tensor.name < previous.name) {
    view.findings.error(entry + kNameOfs, fmt::format("{} sorts before its predecessor", label));
  } else if (tensor.name == previous.name) {
    view.findings.note(entry + kNameOfs, fmt::format("{} has the same name as its predecessor", label));
  }
}

// True when type and shape are good enough to be compared with the size.
bool checkTypeAndShapeFields(ContainerView& view, const TensorView& tensor, std::uint64_t entry,
                             const std::string& label) {
  bool ok = true;
  if (tensor.dtype >= kDTypeCount) {
    view.findings.error(entry + kDtypeOfs, fmt::format("{} has the unknown type {}", label, tensor.dtype));
    ok = false;
  }
  if (tensor.ndim < 1 || tensor.ndim > okv2::kMaxDims) {
    view.findings.error(entry + kNdimOfs,
                        fmt::format("{} has {} dimensions, expected 1 to 4", label, tensor.ndim));
    ok = false;
  } else {
    requireZero(view, entry + kDimsOfs + std::uint64_t{8} * tensor.ndim, entry + kDataOffsetOfs,
                fmt::format("{}: an extent past its dimensions", label));
  }
  requireZero(view, entry + kReserved1Ofs, entry + kDimsOfs, fmt::format("{}: reserved field", label));
  requireZero(view, entry + kReserved2Ofs, entry + okv2::kTensorEntryBytes,
              fmt::format("{}: reserved field", label));
  if (tensor.size == 0) view.findings.error(entry + kSizeOfs, fmt::format("{} has no data", label));
  return ok;
}

// Walks the data area in step with the index.
class DataLayout {
 public:
  explicit DataLayout(ContainerView& view) : view_(view), weights_(view.section(SectionType::Weights)) {}

  void check(const TensorView& tensor, std::uint64_t entry, const std::string& label) {
    if (!weights_.inside) return;
    if (tensor.dataOffset > weights_.size || tensor.size > weights_.size - tensor.dataOffset) {
      view_.findings.error(entry + kDataOffsetOfs,
                           fmt::format("{} ({} bytes at {}) does not lie inside the weights section", label,
                                       tensor.size, tensor.dataOffset));
      broken_ = true;
      return;
    }
    if (tensor.dataOffset < previousEnd_) {
      view_.findings.error(entry + kDataOffsetOfs, fmt::format("{} at {} overlaps what ends at {}", label,
                                                               tensor.dataOffset, previousEnd_));
    } else if (tensor.dataOffset != okv2::align(previousEnd_)) {
      view_.findings.error(entry + kDataOffsetOfs, fmt::format("{} at {}, expected {}", label,
                                                               tensor.dataOffset, okv2::align(previousEnd_)));
    }
    const std::uint64_t end = tensor.dataOffset + tensor.size;
    previousEnd_ = std::max(previousEnd_, end);
    requireZero(view_, weights_.offset + end, weights_.offset + okv2::align(end),
                fmt::format("padding after {}", label));
  }

  void finish() {
    if (broken_ || !weights_.inside || okv2::align(previousEnd_) == weights_.size) return;
    const std::uint64_t at = okv2::kHeaderBytes + (static_cast<std::uint64_t>(SectionType::Weights) - 1) *
                                                      okv2::kSectionEntryBytes;
    view_.findings.error(at + 16, fmt::format("weights section of {} bytes, its tensors take {}",
                                              weights_.size, okv2::align(previousEnd_)));
  }

 private:
  ContainerView& view_;
  const SectionView& weights_;
  std::uint64_t previousEnd_ = 0;  // relative to the weights section
  bool broken_ = false;
};

void checkTensors(ContainerView& view) {
  const std::uint64_t index = view.section(SectionType::TensorIndex).offset;
  DataLayout layout(view);
  for (std::size_t k = 0; k < view.tensors.size(); ++k) {
    const TensorView& tensor = view.tensors[k];
    const std::uint64_t entry = index + k * okv2::kTensorEntryBytes;
    const std::string label = fmt::format("tensor {} '{}'", k, escaped(tensor.name));
    checkName(view, tensor, entry, label);
    if (k > 0) checkOrder(view, view.tensors[k - 1], tensor, entry, label);
    if (checkTypeAndShapeFields(view, tensor, entry, label)) checkShape(view, tensor, entry, label);
    layout.check(tensor, entry, label);
  }
  layout.finish();
}

void checkLayoutEntry(ContainerView& view, std::size_t k, std::uint64_t entry) {
  Cursor in(view.file.substr(entry, okv2::kLayoutEntryBytes), entry);
  std::uint16_t dtype = 0, blockElements = 0;
  std::uint32_t blockBytes = 0, layout[3] = {};
  (void)(in.number(dtype) && in.number(blockElements) && in.number(blockBytes) && in.number(layout[0]) &&
         in.number(layout[1]) && in.number(layout[2]));
  const std::uint16_t indexed = view.tensors[k].dtype;
  if (dtype != indexed) {
    view.findings.error(entry,
                        fmt::format("layout entry {} has type {}, the index says {}", k, dtype, indexed));
  } else if (const BlockGeometry* geometry = findBlockGeometry(dtype);
             geometry != nullptr && (blockElements != geometry->blockElements ||
                                     blockBytes != geometry->blockBytes || layout[0] != geometry->layout[0] ||
                                     layout[1] != geometry->layout[1] || layout[2] != geometry->layout[2])) {
    view.findings.error(entry,
                        fmt::format("layout entry {} does not describe blocks of {}", k, dtypeName(dtype)));
  }
  requireZero(view, in.fileOffset(), entry + okv2::kLayoutEntryBytes,
              fmt::format("layout entry {}: its rest", k));
}

void checkLayoutTable(ContainerView& view) {
  const SectionView& section = view.section(SectionType::TensorLayout);
  if (!section.inside || view.tensors.size() != view.tensorCount) return;
  const std::uint64_t expected = view.tensors.size() * okv2::kLayoutEntryBytes;
  if (section.size != expected) {
    view.findings.error(section.offset, fmt::format("tensor layout section of {} bytes, expected {}",
                                                    section.size, expected));
    return;
  }
  for (std::size_t k = 0; k < view.tensors.size(); ++k) {
    checkLayoutEntry(view, k, section.offset + k * okv2::kLayoutEntryBytes);
  }
}

}  // namespace

bool hasGoodChecksum(const ContainerView& view) { return checksumOf(view) == view.storedChecksum; }

bool verifyContainer(std::string_view file, ContainerView& view) {
  const bool decoded = parseContainer(file, view);
  if (!view.headerUnderstood) return false;
  checkHeader(view);
  checkSectionLayout(view);
  checkTokenizer(view);
  checkTensors(view);
  checkLayoutTable(view);
  if (view.tensorCount == 0) view.findings.error(40, "the container has no tensors");
  return decoded && view.findings.errors() == 0;
}

}  // namespace zel::tool
