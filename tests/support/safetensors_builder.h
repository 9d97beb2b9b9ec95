// Writes .safetensors files: valid ones by default, and able to lie about one field at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zel::test {

// Deterministic bytes in which neighbours, and equal positions of different seeds, differ.
inline std::string patternBytes(std::size_t size, unsigned seed = 1) {
  std::string out(size, '\0');
  for (std::size_t k = 0; k < size; ++k) {
    out[k] = char(static_cast<unsigned char>(k * 7 + k / 256 + seed * 31 + 1));
  }
  return out;
}

inline std::string littleEndian64(std::uint64_t value) {
  std::string out;
  for (int k = 0; k < 8; ++k)
    out += char(static_cast<unsigned char>(value >> (8 * k)));
  return out;
}

// `text` between double quotes, escaped as far as JSON demands.
inline std::string jsonQuote(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20) {
      out += "\\u00";
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    } else {
      out += c;
    }
  }
  return out + '"';
}

class SafetensorsBuilder {
 public:
  using Dims = std::vector<std::uint64_t>;
  struct Offsets {
    std::uint64_t begin;
    std::uint64_t end;
  };

  // A tensor whose pattern data are appended to the data region, with the offsets that follow from that.
  SafetensorsBuilder& tensor(std::string_view name, std::string_view dtype, const Dims& dims) {
    return tensorData(name, dtype, dims, patternBytes(sizeOf(dtype, dims), unsigned(memberCount_)));
  }
  // The same with data of the caller's choice, of the right size or not.
  SafetensorsBuilder& tensorData(std::string_view name, std::string_view dtype, const Dims& dims,
                                 std::string_view data) {
    const Offsets offsets{data_.size(), data_.size() + data.size()};
    data_ += data;
    return tensor(name, dtype, dims, offsets);
  }
  // An entry that claims `offsets` and adds no data.
  SafetensorsBuilder& tensor(std::string_view name, std::string_view dtype, const Dims& dims,
                             Offsets offsets) {
    return member(name, entry(dtype, dims, offsets));
  }
  // A member with any JSON text as its value.
  SafetensorsBuilder& member(std::string_view name, std::string_view json) {
    return rawMember(jsonQuote(name), json);
  }
  // A member whose key is given as it is spelled in the file, quotes and escapes included.
  SafetensorsBuilder& rawMember(std::string_view quotedKey, std::string_view json) {
    if (memberCount_++ > 0) members_ += ',';
    members_.append(quotedKey).append(":").append(json);
    return *this;
  }

  // Each of these replaces one part of the file.
  SafetensorsBuilder& headerJson(std::string_view text) {
    header_ = std::string(text);
    return *this;
  }
  SafetensorsBuilder& headerLength(std::uint64_t length) {
    headerLength_ = length;
    return *this;
  }
  SafetensorsBuilder& data(std::string_view bytes) {
    data_ = std::string(bytes);
    return *this;
  }
  // Cuts the data region, or fills it up with zeros.
  SafetensorsBuilder& dataBytes(std::size_t size) {
    data_.resize(size);
    return *this;
  }
  // Put after the JSON text and counted in the header length.
  SafetensorsBuilder& afterHeader(std::string_view text) {
    afterHeader_ = std::string(text);
    return *this;
  }

  [[nodiscard]] std::string header() const { return header_.value_or("{" + members_ + "}") + afterHeader_; }
  [[nodiscard]] std::string bytes() const {
    const std::string json = header();
    return littleEndian64(headerLength_.value_or(json.size())) + json + data_;
  }

  // The JSON text of one honest entry.
  static std::string entry(std::string_view dtype, const Dims& dims, Offsets offsets) {
    std::string shape;
    for (const std::uint64_t dim : dims) {
      if (!shape.empty()) shape += ',';
      shape += std::to_string(dim);
    }
    return "{\"dtype\":" + jsonQuote(dtype) + ",\"shape\":[" + shape + "],\"data_offsets\":[" +
           std::to_string(offsets.begin) + "," + std::to_string(offsets.end) + "]}";
  }

  // Bytes of a tensor: block formats take whole blocks of 256 along the first extent.
  static std::uint64_t sizeOf(std::string_view dtype, const Dims& dims) {
    const bool blocks = dtype.size() == 4 && dtype[0] == 'Q';
    std::uint64_t units = 1;
    for (std::size_t k = 0; k < dims.size(); ++k) {
      units *= blocks && k == 0 ? (dims[k] + 255) / 256 : dims[k];
    }
    static constexpr std::pair<std::string_view, std::uint64_t> kUnitBytes[] = {
        {"F32", 4}, {"F16", 2}, {"BF16", 2}, {"Q4_K", 144}, {"Q5_K", 176}, {"Q6_K", 210}};
    for (const auto& [name, bytes] : kUnitBytes) {
      if (name == dtype) return units * bytes;
    }
    throw std::invalid_argument("no size known for dtype " + std::string(dtype));
  }

 private:
  std::string members_;
  std::size_t memberCount_ = 0;
  std::string data_;
  std::optional<std::string> header_;
  std::optional<std::uint64_t> headerLength_;
  std::string afterHeader_;
};

}  // namespace zel::test
