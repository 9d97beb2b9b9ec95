// Writes OKV2 containers byte by byte from the rules of docs/container-format.md; shares nothing with the
// writer or the reader under test. A built container is good; with...() gives a copy that lies about one
// field.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zel::test {

inline void appendLittleEndian(std::string& out, std::uint64_t value, int bytes) {
  for (int k = 0; k < bytes; ++k)
    out += static_cast<char>(value >> (8 * k) & 0xFF);
}
inline std::string u8(std::uint64_t v) { return {static_cast<char>(v)}; }
inline std::string u16(std::uint64_t v) {
  std::string out;
  appendLittleEndian(out, v, 2);
  return out;
}
inline std::string u32(std::uint64_t v) {
  std::string out;
  appendLittleEndian(out, v, 4);
  return out;
}
inline std::string u64(std::uint64_t v) {
  std::string out;
  appendLittleEndian(out, v, 8);
  return out;
}
inline std::string f32(float v) { return u32(std::bit_cast<std::uint32_t>(v)); }
inline std::string str32(std::string_view text) { return u32(text.size()) + std::string(text); }

inline std::string padded(std::string text, std::size_t multiple = 64) {
  text.resize((text.size() + multiple - 1) / multiple * multiple, '\0');
  return text;
}

struct BuiltContainer {
  std::string bytes;
  std::array<std::uint64_t, 8> offset{};  // of the section of each type, 1 to 7
  std::array<std::uint64_t, 8> size{};
  std::uint64_t headerCrc = 0;

  [[nodiscard]] static std::uint64_t tableEntry(int type) {
    return 64 + 24 * (static_cast<std::uint64_t>(type) - 1);
  }
  [[nodiscard]] std::uint64_t indexEntry(std::size_t tensor) const { return offset[4] + 128 * tensor; }
  [[nodiscard]] std::uint64_t layoutEntry(std::size_t tensor) const { return offset[6] + 32 * tensor; }

  // A copy with `replacement` at `at`, and the checksum made to fit again.
  [[nodiscard]] BuiltContainer with(std::uint64_t at, std::string_view replacement) const {
    BuiltContainer copy = *this;
    copy.bytes.replace(at, replacement.size(), replacement);
    copy.seal();
    return copy;
  }
  // The same, but the checksum stays what it was.
  [[nodiscard]] BuiltContainer withUnsealed(std::uint64_t at, std::string_view replacement) const {
    BuiltContainer copy = *this;
    copy.bytes.replace(at, replacement.size(), replacement);
    return copy;
  }

  // CRC over header bytes 0..55 and the section table: right-shifting, polynomial 0x42F0E1EBA9EA3693 as it
  // is.
  void seal() {
    static constexpr std::array<std::uint64_t, 256> kTable = [] {
      std::array<std::uint64_t, 256> table{};
      for (std::uint64_t n = 0; n < 256; ++n) {
        table[n] = n;
        for (int k = 0; k < 8; ++k)
          table[n] = table[n] >> 1 ^ (table[n] & 1 ? 0x42F0E1EBA9EA3693U : 0);
      }
      return table;
    }();
    std::uint64_t crc = 0;
    const auto add = [&](std::size_t from, std::size_t count) {
      for (std::size_t k = from; k < from + count; ++k) {
        crc = crc >> 8 ^ kTable[(crc ^ static_cast<unsigned char>(bytes[k])) & 0xFF];
      }
    };
    add(0, 56);
    add(64, 168);
    headerCrc = crc;
    bytes.replace(56, 8, u64(crc));
  }
};

class ContainerBuilder {
 public:
  ContainerBuilder& modelInfo(std::uint32_t arch, std::uint64_t hidden, std::uint32_t layers,
                              std::uint32_t vocab) {
    modelInfo_ = {arch, hidden, layers, vocab};
    return *this;
  }
  // `value` is encoded as the format wants it for `type`.
  ContainerBuilder& meta(std::string_view key, int type, std::string_view value) {
    meta_ += u16(key.size()) + std::string(key) + u8(static_cast<std::uint64_t>(type)) + std::string(value);
    ++metaCount_;
    return *this;
  }
  ContainerBuilder& token(std::string_view text) { return add(tokens_, str32(text)); }
  ContainerBuilder& score(float value) { return add(scores_, f32(value)); }
  ContainerBuilder& type(std::uint32_t value) { return add(types_, u32(value)); }
  ContainerBuilder& merge(std::string_view text) { return add(merges_, str32(text)); }
  ContainerBuilder& specialIds(std::int32_t bos, std::int32_t eos, std::int32_t unk, std::int32_t pad) {
    ids_.clear();
    for (const std::int32_t id : {bos, eos, unk, pad})
      ids_ += u32(static_cast<std::uint32_t>(id));
    return *this;
  }
  ContainerBuilder& addBos(std::uint64_t flag) {
    addBos_ = u8(flag);
    return *this;
  }
  ContainerBuilder& tokenizerTemplate(std::string_view text) {
    tokenizerTemplate_ = text;
    return *this;
  }
  ContainerBuilder& graph(std::string_view bytes) {
    graph_ = bytes;
    return *this;
  }
  ContainerBuilder& chatTemplate(std::string_view text) {
    chatTemplate_ = text;
    return *this;
  }
  // In the order of their names, which is the caller's to keep. `fullNameBytes` is for names that were cut.
  ContainerBuilder& tensor(std::string_view name, std::uint16_t dtype, const std::vector<std::uint64_t>& dims,
                           std::string_view data, std::uint64_t fullNameBytes = 0) {
    std::string entry(name);
    entry.resize(64, '\0');
    entry += u16(fullNameBytes != 0 ? fullNameBytes : name.size()) + u16(dtype) + u16(dims.size()) + u16(0);
    for (std::size_t k = 0; k < 4; ++k)
      entry += u64(k < dims.size() ? dims[k] : 0);
    entry += u64(weights_.size()) + u64(data.size()) + u64(0);
    index_ += entry;
    layout_ += layoutEntry(dtype);
    weights_ += padded(std::string(data));
    ++tensorCount_;
    return *this;
  }

  [[nodiscard]] BuiltContainer build() const {
    BuiltContainer out;
    const std::array<std::string, 8> sections = {"",
                                                 u32(metaCount_) + meta_,
                                                 tokenizerSection(),
                                                 graph_,
                                                 index_,
                                                 weights_,
                                                 layout_,
                                                 u64(chatTemplate_.size()) + chatTemplate_};
    std::string body;
    for (const std::size_t type : {1, 2, 3, 4, 6, 7, 5}) {
      out.offset[type] = 256 + body.size();
      out.size[type] = sections[type].size();
      body += padded(sections[type]);
    }
    std::string head = "OKV2" + u32(2) + u32(0x01020304) + u32(7);
    head += u32(modelInfo_.arch) + u32(0) + u64(modelInfo_.hidden) + u32(modelInfo_.layers) +
            u32(modelInfo_.vocab) + u64(tensorCount_) + u64(0) + u64(0);
    for (std::size_t type = 1; type <= 7; ++type) {
      head += u32(type) + u32(0) + u64(out.offset[type]) + u64(out.size[type]);
    }
    head.resize(256, '\0');
    out.bytes = head + body;
    out.seal();
    return out;
  }

 private:
  struct Counted {
    std::uint32_t count = 0;
    std::string bytes;
    [[nodiscard]] std::string encoded() const { return u32(count) + bytes; }
  };
  struct ModelInfo {
    std::uint32_t arch = 0;
    std::uint64_t hidden = 0;
    std::uint32_t layers = 0;
    std::uint32_t vocab = 0;
  };

  ContainerBuilder& add(Counted& list, const std::string& encoded) {
    ++list.count;
    list.bytes += encoded;
    return *this;
  }
  [[nodiscard]] std::string tokenizerSection() const {
    return "TKNZ" + str32(tokenizerTemplate_) + tokens_.encoded() + scores_.encoded() + types_.encoded() +
           merges_.encoded() + ids_ + addBos_;
  }
  static std::string layoutEntry(std::uint16_t dtype) {
    struct Row {
      std::uint64_t elements, bytes, a, b, c;
    };
    static constexpr Row kRows[] = {{1, 4, 0, 0, 0},      {1, 2, 0, 0, 0},          {1, 2, 0, 0, 0},
                                    {32, 18, 2, 0, 0},    {32, 34, 2, 0, 0},        {256, 144, 12, 4, 2},
                                    {256, 176, 12, 4, 2}, {256, 210, 16, 192, 208}, {256, 290, 2, 0, 65535}};
    const Row row = dtype < 9 ? kRows[dtype] : Row{0, 0, 0, 0, 0};
    return u16(dtype) + u16(row.elements) + u32(row.bytes) + u32(row.a) + u32(row.b) + u32(row.c) +
           std::string(12, '\0');
  }

  ModelInfo modelInfo_;
  std::uint32_t metaCount_ = 0;
  std::string meta_;
  Counted tokens_, scores_, types_, merges_;
  std::string ids_ = std::string(16, '\xFF');
  std::string addBos_ = u8(1);
  std::string tokenizerTemplate_, graph_, chatTemplate_;
  std::uint64_t tensorCount_ = 0;
  std::string index_, layout_, weights_;
};

// A container with something of everything; tests that pin offsets and sizes rely on its content.
inline ContainerBuilder fullContainer() {
  ContainerBuilder builder;
  builder.modelInfo(1, 64, 2, 3)
      .meta("a.u32", 0, u32(7))
      .meta("a.i32", 1, u32(0xFFFFFFFE))
      .meta("a.f32", 2, f32(0.5F))
      .meta("a.u64", 3, u64(0x100000002))
      .meta("a.str", 4, str32("llama"))
      .meta("a.arr", 5, u32(2) + u32(1) + u32(300))
      .tokenizerTemplate("TT")
      .token("<s>")
      .token("a")
      .token("b")
      .score(1.5F)
      .type(3)
      .type(1)
      .type(1)
      .merge("a b")
      .specialIds(0, 2, -1, -1)
      .graph("GRAPH")
      .chatTemplate("hello")
      .tensor("alpha", 0, {2, 3}, std::string(24, 'A'))
      .tensor("beta", 2, {5}, std::string(10, 'B'))
      .tensor("gamma", 5, {256, 2}, std::string(288, 'C'));
  return builder;
}

}  // namespace zel::test
