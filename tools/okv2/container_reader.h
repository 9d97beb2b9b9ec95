// Reads OKV2 containers (docs/container-format.md). Shares constants with the writer and no code, so that its
// word on a written file is a second opinion.
//
// The input is hostile until proven otherwise: time is linear in the file's size, memory is at most a
// constant multiple of it, nothing recurses, and no number from the file is trusted before it is compared.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "container/okv2_format.h"

namespace zel::tool {

// One thing that is wrong, or in the case of a note odd, about a container.
struct Finding {
  bool isError = true;
  std::uint64_t offset = 0;  // in the file, of the field or byte in question
  std::string text;          // one line, safe to print
};

// Keeps the first kMaxFindings and counts the rest: a hostile file has room for millions.
class Findings {
 public:
  static constexpr std::size_t kMaxFindings = 100;

  void error(std::uint64_t offset, std::string text) { add(true, offset, std::move(text)); }
  void note(std::uint64_t offset, std::string text) { add(false, offset, std::move(text)); }

  [[nodiscard]] const std::vector<Finding>& items() const noexcept { return items_; }
  [[nodiscard]] std::uint64_t errors() const noexcept { return errors_; }    // all of them
  [[nodiscard]] std::uint64_t dropped() const noexcept { return dropped_; }  // not kept in items()

 private:
  void add(bool isError, std::uint64_t offset, std::string text);

  std::vector<Finding> items_;
  std::uint64_t errors_ = 0;
  std::uint64_t dropped_ = 0;
};

struct SectionView {
  std::uint64_t offset = 0;  // as the table says
  std::uint64_t size = 0;
  bool inside = false;     // lies wholly in the file
  std::string_view bytes;  // empty unless inside
};

struct MetaView {
  std::string_view key;
  okv2::MetaType type = okv2::MetaType::U32;
  std::string_view value;  // encoded value; strings without their length, arrays without their count

  [[nodiscard]] std::uint32_t u32() const;  // types U32 and, as a bit pattern, I32 and F32
  [[nodiscard]] std::int32_t i32() const;
  [[nodiscard]] float f32() const;
  [[nodiscard]] std::uint64_t u64() const;
  [[nodiscard]] std::size_t arraySize() const { return value.size() / 4; }
  [[nodiscard]] std::uint32_t arrayItem(std::size_t index) const;  // index < arraySize()
};

struct TokenizerView {
  std::string_view chatTemplate;
  std::vector<std::string_view> tokens;
  std::string_view scores;  // encoded, 4 bytes each
  std::string_view types;   // encoded, 4 bytes each
  std::vector<std::string_view> merges;
  std::array<std::int32_t, 4> specialIds = {-1, -1, -1, -1};  // bos, eos, unk, pad
  std::uint64_t specialIdsOffset = 0;                         // in the file
  std::uint8_t addBos = 0;

  [[nodiscard]] std::size_t scoreCount() const { return scores.size() / 4; }
  [[nodiscard]] std::size_t typeCount() const { return types.size() / 4; }
};

struct TensorView {
  std::string_view name;            // cut to 63 bytes by the writer
  std::uint16_t fullNameBytes = 0;  // before the cut, modulo 65536
  std::uint16_t dtype = 0;
  std::uint16_t ndim = 0;
  std::uint64_t dims[okv2::kMaxDims] = {};
  std::uint64_t dataOffset = 0;  // from the start of the weights section
  std::uint64_t size = 0;        // bytes
};

// Everything borrows from `file`, which must outlive the view.
struct ContainerView {
  std::string_view file;
  bool headerUnderstood = false;  // else nothing below is set but `findings`
  std::uint32_t archId = 0;
  std::uint64_t hiddenSize = 0;
  std::uint32_t numLayers = 0;
  std::uint32_t vocabSize = 0;
  std::uint64_t tensorCount = 0;  // as the header says
  std::uint64_t storedChecksum = 0;
  std::array<SectionView, okv2::kSectionCount> sections;  // use section()
  std::vector<MetaView> metadata;
  TokenizerView tokenizer;
  std::vector<TensorView> tensors;  // in file order
  std::string_view chatTemplate;
  Findings findings;

  [[nodiscard]] const SectionView& section(okv2::SectionType type) const {
    return sections[static_cast<std::size_t>(type) - 1];
  }
  // The tensor's bytes; an empty view when they do not lie inside the weights section.
  [[nodiscard]] std::string_view tensorData(const TensorView& tensor) const;
};

// Decodes the container; what cannot be decoded becomes an error in `view.findings` and is left out of the
// view. True when all of it could be decoded, which is enough for listing it.
[[nodiscard]] bool parseContainer(std::string_view file, ContainerView& view);

// Parses, then checks everything that the format promises: checksum, alignment, overlaps, zero padding, order
// and names of the index, data offsets, layout table, shapes against sizes. True when there is no error;
// notes do not count.
[[nodiscard]] bool verifyContainer(std::string_view file, ContainerView& view);

// Whether the header and the section table of a parsed container have the checksum that stands there.
[[nodiscard]] bool hasGoodChecksum(const ContainerView& view);

// The container's checksum, computed bit by bit. Check value for "123456789": 0x4DB9A9F87EC10C59.
[[nodiscard]] std::uint64_t containerChecksum(std::string_view bytes) noexcept;

// "weights", "tensor index" and so on.
[[nodiscard]] const char* sectionName(okv2::SectionType type) noexcept;

// "F32", "Q4_K" and so on; "type 3" style for the unnamed ones.
[[nodiscard]] std::string dtypeName(std::uint16_t dtype);

}  // namespace zel::tool
