#include "okv2/container_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <utility>

#include "container/dtype.h"
#include "okv2/container_cursor.h"

namespace zel::tool {
namespace {

using okv2::MetaType;
using okv2::SectionType;

constexpr std::size_t kSmallestMetaItem = 2 + 1 + 4;  // key length, type, value
constexpr std::size_t kSmallestString = 4;            // its length

// Version, byte-order mark and section count decide whether anything after them can be understood.
bool readHeader(ContainerView& view) {
  Findings& findings = view.findings;
  if (view.file.size() < okv2::kFirstSectionOffset) {
    findings.error(view.file.size(),
                   fmt::format("file of {} bytes is too small for a container", view.file.size()));
    return false;
  }
  Cursor in(view.file.substr(0, okv2::kHeaderBytes), 0);
  std::string_view magic;
  std::uint32_t version = 0, byteOrderMark = 0, sectionCount = 0, reserved32 = 0;
  std::uint64_t reserved64 = 0;
  // The header is 64 bytes, so none of these can fail.
  (void)(in.bytes(4, magic) && in.number(version) && in.number(byteOrderMark) && in.number(sectionCount) &&
         in.number(view.archId) && in.number(reserved32) && in.number(view.hiddenSize) &&
         in.number(view.numLayers) && in.number(view.vocabSize) && in.number(view.tensorCount) &&
         in.number(reserved64) && in.number(view.storedChecksum));
  if (magic != okv2::kMagic) {
    findings.error(0, "not an OKV2 container: the magic bytes are missing");
    return false;
  }
  if (version != okv2::kVersion) {
    findings.error(4, fmt::format("container version {}, expected {}", version, okv2::kVersion));
    return false;
  }
  if (byteOrderMark != okv2::kByteOrderMark) {
    findings.error(
        8, fmt::format("byte-order mark 0x{:08X}, expected 0x{:08X}", byteOrderMark, okv2::kByteOrderMark));
    return false;
  }
  if (sectionCount != okv2::kSectionCount) {
    findings.error(12, fmt::format("{} sections, expected {}", sectionCount, okv2::kSectionCount));
    return false;
  }
  return true;
}

bool readSectionTable(ContainerView& view) {
  Cursor in(view.file.substr(okv2::kHeaderBytes, okv2::kSectionTableBytes), okv2::kHeaderBytes);
  bool ok = true;
  for (std::size_t k = 0; k < okv2::kSectionCount; ++k) {
    const std::uint64_t at = in.fileOffset();
    SectionView& section = view.sections[k];
    std::uint32_t type = 0, reserved = 0;
    (void)(in.number(type) && in.number(reserved) && in.number(section.offset) && in.number(section.size));
    if (type != k + 1) {
      view.findings.error(at, fmt::format("section table entry {} has type {}, expected {}", k, type, k + 1));
      ok = false;
      continue;
    }
    if (section.offset > view.file.size() || section.size > view.file.size() - section.offset) {
      view.findings.error(at, fmt::format("{} section ({} bytes at {}) does not lie inside the file",
                                          sectionName(SectionType(type)), section.size, section.offset));
      ok = false;
      continue;
    }
    section.inside = true;
    section.bytes = view.file.substr(section.offset, section.size);
  }
  return ok;
}

bool readMetaValue(Cursor& in, MetaView& item) {
  switch (item.type) {
    case MetaType::U32:
    case MetaType::I32:
    case MetaType::F32: return in.bytes(4, item.value);
    case MetaType::U64: return in.bytes(8, item.value);
    case MetaType::Str: return in.counted(1, item.value);
    case MetaType::U32Array: return in.counted(4, item.value);
  }
  return false;
}

bool endOfSection(const Cursor& in, const char* name, Findings& findings) {
  if (in.remaining() == 0) return true;
  findings.error(in.fileOffset(),
                 fmt::format("{} bytes left over at the end of the {} section", in.remaining(), name));
  return false;
}

bool readMetadata(ContainerView& view) {
  const SectionView& section = view.section(SectionType::Metadata);
  Cursor in(section.bytes, section.offset);
  std::uint32_t count = 0;
  if (!in.number(count)) {
    view.findings.error(section.offset, "the metadata section has no item count");
    return false;
  }
  view.metadata.reserve(std::min<std::uint64_t>(count, in.remaining() / kSmallestMetaItem));
  for (std::uint32_t k = 0; k < count; ++k) {
    const std::uint64_t at = in.fileOffset();
    MetaView item;
    std::uint16_t keyBytes = 0;
    std::uint8_t type = 0;
    if (!in.number(keyBytes) || !in.bytes(keyBytes, item.key) || !in.number(type)) {
      view.findings.error(at, fmt::format("metadata item {} does not fit its section", k));
      return false;
    }
    if (type > static_cast<std::uint8_t>(MetaType::U32Array)) {
      view.findings.error(at, fmt::format("metadata item {} has the unknown value type {}", k, type));
      return false;
    }
    item.type = MetaType(type);
    if (!readMetaValue(in, item)) {
      view.findings.error(at, fmt::format("metadata item {} does not fit its section", k));
      return false;
    }
    view.metadata.push_back(item);
  }
  return endOfSection(in, "metadata", view.findings);
}

bool readStrings(Cursor& in, std::vector<std::string_view>& out) {
  std::uint32_t count = 0;
  if (!in.number(count)) return false;
  out.reserve(std::min<std::uint64_t>(count, in.remaining() / kSmallestString));
  for (std::uint32_t k = 0; k < count; ++k) {
    std::string_view text;
    if (!in.counted(1, text)) return false;
    out.push_back(text);
  }
  return true;
}

bool readSpecialIds(Cursor& in, TokenizerView& tokenizer) {
  tokenizer.specialIdsOffset = in.fileOffset();
  for (std::int32_t& id : tokenizer.specialIds) {
    std::uint32_t bits = 0;
    if (!in.number(bits)) return false;
    id = std::bit_cast<std::int32_t>(bits);
  }
  return true;
}

bool readTokenizer(ContainerView& view) {
  const SectionView& section = view.section(SectionType::Tokenizer);
  TokenizerView& tokenizer = view.tokenizer;
  Cursor in(section.bytes, section.offset);
  std::string_view magic;
  if (!in.bytes(okv2::kTknz.size(), magic) || magic != okv2::kTknz) {
    view.findings.error(section.offset, "the tokenizer section does not begin with TKNZ");
    return false;
  }
  const auto missing = [&](const char* what) {
    view.findings.error(in.fileOffset(), fmt::format("the tokenizer section ends inside its {}", what));
    return false;
  };
  if (!in.counted(1, tokenizer.chatTemplate)) return missing("chat template");
  if (!readStrings(in, tokenizer.tokens)) return missing("tokens");
  if (!in.counted(4, tokenizer.scores)) return missing("scores");
  if (!in.counted(4, tokenizer.types)) return missing("types");
  if (!readStrings(in, tokenizer.merges)) return missing("merges");
  if (!readSpecialIds(in, tokenizer)) return missing("special ids");
  if (!in.number(tokenizer.addBos)) return missing("add-BOS flag");
  return endOfSection(in, "tokenizer", view.findings);
}

TensorView readTensor(std::string_view entry) {
  TensorView tensor;
  Cursor in(entry, 0);
  std::string_view field;
  std::uint16_t reserved = 0;
  (void)(in.bytes(okv2::kTensorNameBytes, field) && in.number(tensor.fullNameBytes) &&
         in.number(tensor.dtype) && in.number(tensor.ndim) && in.number(reserved));
  for (std::uint64_t& extent : tensor.dims)
    (void)in.number(extent);
  (void)(in.number(tensor.dataOffset) && in.number(tensor.size));
  tensor.name = field.substr(0, field.find('\0'));
  return tensor;
}

bool readTensorIndex(ContainerView& view) {
  const SectionView& section = view.section(SectionType::TensorIndex);
  const std::uint64_t count = section.size / okv2::kTensorEntryBytes;
  if (section.size % okv2::kTensorEntryBytes != 0 || count != view.tensorCount) {
    view.findings.error(40, fmt::format("the header counts {} tensors, but the tensor index has {} bytes",
                                        view.tensorCount, section.size));
    return false;
  }
  view.tensors.reserve(count);
  for (std::uint64_t k = 0; k < count; ++k) {
    view.tensors.push_back(
        readTensor(section.bytes.substr(k * okv2::kTensorEntryBytes, okv2::kTensorEntryBytes)));
  }
  return true;
}

bool readChatTemplate(ContainerView& view) {
  const SectionView& section = view.section(SectionType::ChatTemplate);
  Cursor in(section.bytes, section.offset);
  std::uint64_t length = 0;
  if (!in.number(length) || !in.bytes(length, view.chatTemplate)) {
    view.findings.error(section.offset, "the chat template does not fit its section");
    return false;
  }
  return endOfSection(in, "chat template", view.findings);
}

}  // namespace

void Findings::add(bool isError, std::uint64_t offset, std::string text) {
  errors_ += isError ? 1 : 0;
  if (items_.size() < kMaxFindings) {
    items_.push_back({isError, offset, std::move(text)});
  } else {
    ++dropped_;
  }
}

std::uint32_t MetaView::u32() const { return littleEndian<std::uint32_t>(value); }
std::int32_t MetaView::i32() const { return std::bit_cast<std::int32_t>(u32()); }
float MetaView::f32() const { return std::bit_cast<float>(u32()); }
std::uint64_t MetaView::u64() const { return littleEndian<std::uint64_t>(value); }
std::uint32_t MetaView::arrayItem(std::size_t index) const {
  return littleEndian<std::uint32_t>(value.substr(index * 4));
}

std::string_view ContainerView::tensorData(const TensorView& tensor) const {
  const std::string_view weights = section(SectionType::Weights).bytes;
  if (tensor.dataOffset > weights.size() || tensor.size > weights.size() - tensor.dataOffset) return {};
  return weights.substr(tensor.dataOffset, tensor.size);
}

bool parseContainer(std::string_view file, ContainerView& view) {
  view = ContainerView();
  view.file = file;
  view.headerUnderstood = readHeader(view);
  if (!view.headerUnderstood) return false;
  bool ok = readSectionTable(view);
  const auto readIfInside = [&](SectionType type, bool (*read)(ContainerView&)) {
    if (view.section(type).inside && !read(view)) ok = false;
  };
  readIfInside(SectionType::Metadata, readMetadata);
  readIfInside(SectionType::Tokenizer, readTokenizer);
  readIfInside(SectionType::TensorIndex, readTensorIndex);
  readIfInside(SectionType::ChatTemplate, readChatTemplate);
  return ok;
}

std::uint64_t containerChecksum(std::string_view bytes) noexcept {
  // Right-shifting with the polynomial unreflected: OKV2 checksums are defined by this variant.
  constexpr std::uint64_t kPolynomial = 0x42F0E1EBA9EA3693;
  std::uint64_t crc = 0;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit)
      crc = crc >> 1 ^ ((0 - (crc & 1)) & kPolynomial);
  }
  return crc;
}

const char* sectionName(SectionType type) noexcept {
  switch (type) {
    case SectionType::Metadata: return "metadata";
    case SectionType::Tokenizer: return "tokenizer";
    case SectionType::Graph: return "graph";
    case SectionType::TensorIndex: return "tensor index";
    case SectionType::Weights: return "weights";
    case SectionType::TensorLayout: return "tensor layout";
    case SectionType::ChatTemplate: return "chat template";
  }
  return "unknown";
}

std::string dtypeName(std::uint16_t dtype) {
  switch (static_cast<DType>(dtype)) {
    case DType::F32: return "F32";
    case DType::F16: return "F16";
    case DType::BF16: return "BF16";
    case DType::Q4_K: return "Q4_K";
    case DType::Q5_K: return "Q5_K";
    case DType::Q6_K: return "Q6_K";
    case DType::Block32x18:
    case DType::Block32x34:
    case DType::Block256x290: break;
  }
  return fmt::format("type {}", dtype);
}

}  // namespace zel::tool
