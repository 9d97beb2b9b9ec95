// Reads an OKV2 container strictly, apart from every other reader and writer of the format: anything that
// is out of place (a wrong checksum, a section elsewhere, a non-zero padding byte) throws.
#pragma once

#include <bit>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zel::test {

class ContainerView {
 public:
  struct Meta {
    std::string key;
    unsigned type = 0;
    std::uint64_t integer = 0;  // types 0, 1 (its 32 bits) and 3
    float number = 0;           // type 2
    std::string text;           // type 4
    std::vector<std::uint32_t> array;
  };
  struct Tensor {
    std::string name;
    unsigned fullNameLength = 0;
    unsigned dtype = 0;
    std::vector<std::uint64_t> dims;
    std::string data;
  };

  explicit ContainerView(std::string file) : file_(std::move(file)) {
    readHeader();
    readSectionTable();
    readMetadata();
    readTokenizer();
    readTensors();
    readChatTemplate();
  }

  std::uint32_t archId = 0;
  std::uint64_t hiddenSize = 0;
  std::uint32_t numLayers = 0;
  std::uint32_t vocabSize = 0;
  std::vector<Meta> metadata;
  std::string tokenizerChatTemplate;
  std::vector<std::string> tokens;
  std::vector<float> scores;
  std::vector<std::uint32_t> types;
  std::vector<std::string> merges;
  std::vector<std::int32_t> specialIds;  // begin, end, unknown, padding
  unsigned addBos = 0;
  std::string chatTemplate;
  std::vector<Tensor> tensors;

  [[nodiscard]] const Meta* find(std::string_view key) const {
    for (const Meta& each : metadata) {
      if (each.key == key) return &each;
    }
    return nullptr;
  }
  [[nodiscard]] const Tensor* tensor(std::string_view name) const {
    for (const Tensor& each : tensors) {
      if (each.name == name) return &each;
    }
    return nullptr;
  }
  [[nodiscard]] std::vector<std::string> tensorNames() const {
    std::vector<std::string> out;
    for (const Tensor& each : tensors)
      out.push_back(each.name);
    return out;
  }

 private:
  struct Section {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
  };

  static void require(bool condition, const char* what) {
    if (!condition) throw std::runtime_error(std::string("bad container: ") + what);
  }
  [[nodiscard]] std::uint64_t integerAt(std::uint64_t at, unsigned width) const {
    require(at <= file_.size() && width <= file_.size() - at, "reads behind the end");
    std::uint64_t out = 0;
    for (unsigned k = width; k-- > 0;)
      out = out << 8 | static_cast<unsigned char>(file_[at + k]);
    return out;
  }
  void requireZeros(std::uint64_t begin, std::uint64_t end) const {
    require(end <= file_.size(), "padding behind the end");
    for (std::uint64_t k = begin; k < end; ++k)
      require(file_[k] == 0, "padding is not zero");
  }
  std::uint64_t take(unsigned width) {
    const std::uint64_t out = integerAt(pos_, width);
    pos_ += width;
    return out;
  }
  std::string takeBytes(std::uint64_t size) {
    require(pos_ <= file_.size() && size <= file_.size() - pos_, "text behind the end");
    std::string out = file_.substr(pos_, size);
    pos_ += size;
    return out;
  }
  std::string takeString() { return takeBytes(take(4)); }
  float takeFloat() { return std::bit_cast<float>(std::uint32_t(take(4))); }

  // Bit by bit: the register moves right, and the polynomial is used in its left-shifting form.
  [[nodiscard]] std::uint64_t checksum() const {
    std::uint64_t crc = 0;
    for (std::uint64_t k = 0; k < 232; ++k) {
      if (k >= 56 && k < 64) continue;
      crc ^= static_cast<unsigned char>(file_[k]);
      for (int bit = 0; bit < 8; ++bit)
        crc = crc & 1 ? crc >> 1 ^ 0x42F0E1EBA9EA3693 : crc >> 1;
    }
    return crc;
  }

  void readHeader() {
    require(file_.size() >= 256 && file_.size() % 64 == 0, "file size");
    require(file_.substr(0, 4) == "OKV2" && integerAt(4, 4) == 2, "magic or version");
    require(integerAt(8, 4) == 0x01020304 && integerAt(12, 4) == 7, "byte order or section count");
    require(integerAt(20, 4) == 0 && integerAt(48, 8) == 0, "reserved header fields");
    require(integerAt(56, 8) == checksum(), "checksum");
    archId = std::uint32_t(integerAt(16, 4));
    hiddenSize = integerAt(24, 8);
    numLayers = std::uint32_t(integerAt(32, 4));
    vocabSize = std::uint32_t(integerAt(36, 4));
  }

  void readSectionTable() {
    for (unsigned type = 1; type <= 7; ++type) {
      const std::uint64_t at = 64 + 24 * (type - 1);
      require(integerAt(at, 4) == type && integerAt(at + 4, 4) == 0, "section table");
      sections_[type] = {integerAt(at + 8, 8), integerAt(at + 16, 8)};
    }
    requireZeros(232, 256);
    std::uint64_t expected = 256;
    for (const unsigned type : {1u, 2u, 3u, 4u, 6u, 7u, 5u}) {
      const Section& each = sections_[type];
      require(each.offset == expected && each.size <= file_.size() - expected, "section place");
      expected = (each.offset + each.size + 63) / 64 * 64;
      requireZeros(each.offset + each.size, expected);
    }
    require(expected == file_.size(), "bytes behind the last section");
  }

  void readMetadata() {
    pos_ = sections_[1].offset;
    for (std::uint64_t count = take(4); count > 0; --count) {
      Meta item;
      item.key = takeBytes(take(2));
      item.type = unsigned(take(1));
      switch (item.type) {
        case 0:
        case 1: item.integer = take(4); break;
        case 2: item.number = takeFloat(); break;
        case 3: item.integer = take(8); break;
        case 4: item.text = takeString(); break;
        case 5:
          for (std::uint64_t k = take(4); k > 0; --k)
            item.array.push_back(std::uint32_t(take(4)));
          break;
        default: require(false, "metadata type");
      }
      metadata.push_back(std::move(item));
    }
    require(pos_ == sections_[1].offset + sections_[1].size, "metadata size");
  }

  void readTokenizer() {
    pos_ = sections_[2].offset;
    require(takeBytes(4) == "TKNZ", "tokenizer tag");
    tokenizerChatTemplate = takeString();
    for (std::uint64_t k = take(4); k > 0; --k)
      tokens.push_back(takeString());
    for (std::uint64_t k = take(4); k > 0; --k)
      scores.push_back(takeFloat());
    for (std::uint64_t k = take(4); k > 0; --k)
      types.push_back(std::uint32_t(take(4)));
    for (std::uint64_t k = take(4); k > 0; --k)
      merges.push_back(takeString());
    for (int k = 0; k < 4; ++k)
      specialIds.push_back(std::int32_t(take(4)));
    addBos = unsigned(take(1));
    require(pos_ == sections_[2].offset + sections_[2].size, "tokenizer size");
  }

  void readTensors() {
    const std::uint64_t count = integerAt(40, 8);
    require(sections_[4].size == count * 128 && sections_[6].size == count * 32, "tensor count");
    std::uint64_t dataOffset = 0;
    for (std::uint64_t k = 0; k < count; ++k) {
      const std::uint64_t at = sections_[4].offset + 128 * k;
      Tensor out;
      out.name = file_.substr(at, 64);
      const std::size_t end = out.name.find('\0');
      require(end != std::string::npos, "name without an end");
      requireZeros(at + end, at + 64);
      out.name.resize(end);
      out.fullNameLength = unsigned(integerAt(at + 64, 2));
      out.dtype = unsigned(integerAt(at + 66, 2));
      const std::uint64_t ndim = integerAt(at + 68, 2);
      require(ndim >= 1 && ndim <= 4, "number of extents");
      for (std::uint64_t d = 0; d < ndim; ++d)
        out.dims.push_back(integerAt(at + 72 + 8 * d, 8));
      requireZeros(at + 70, at + 72);
      requireZeros(at + 72 + 8 * ndim, at + 104);
      requireZeros(at + 120, at + 128);
      require(integerAt(at + 104, 8) == dataOffset, "tensor place");
      const std::uint64_t size = integerAt(at + 112, 8);
      const std::uint64_t begin = sections_[5].offset + dataOffset;
      require(size > 0 && size <= file_.size() - begin, "tensor size");
      out.data = file_.substr(begin, size);
      dataOffset += (size + 63) / 64 * 64;
      requireZeros(begin + size, sections_[5].offset + dataOffset);
      requireLayout(sections_[6].offset + 32 * k, out.dtype);
      tensors.push_back(std::move(out));
    }
    require(dataOffset == sections_[5].size, "weights size");
  }

  void requireLayout(std::uint64_t at, unsigned dtype) const {
    static constexpr std::uint32_t kRows[9][5] = {
        {1, 4, 0, 0, 0},      {1, 2, 0, 0, 0},          {1, 2, 0, 0, 0},
        {32, 18, 2, 0, 0},    {32, 34, 2, 0, 0},        {256, 144, 12, 4, 2},
        {256, 176, 12, 4, 2}, {256, 210, 16, 192, 208}, {256, 290, 2, 0, 65535}};
    require(dtype < 9 && integerAt(at, 2) == dtype && integerAt(at + 2, 2) == kRows[dtype][0], "layout row");
    for (unsigned k = 1; k < 5; ++k)
      require(integerAt(at + 4 * k, 4) == kRows[dtype][k], "layout value");
    requireZeros(at + 20, at + 32);
  }

  void readChatTemplate() {
    pos_ = sections_[7].offset;
    chatTemplate = takeBytes(take(8));
    require(pos_ == sections_[7].offset + sections_[7].size, "chat template size");
  }

  std::string file_;
  std::uint64_t pos_ = 0;
  Section sections_[8];
};

}  // namespace zel::test
