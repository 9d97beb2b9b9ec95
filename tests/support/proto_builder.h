// Protocol-buffers messages, field by field in wire format. Valid by default; the raw pieces (key, varint of
// a chosen length, bytes) let a test lie about one of them.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zel::test {

enum class WireType : unsigned {
  Varint = 0,
  Fixed64 = 1,
  Bytes = 2,
  StartGroup = 3,
  EndGroup = 4,
  Fixed32 = 5
};

class ProtoBuilder {
 public:
  ProtoBuilder& varint(std::uint64_t field, std::uint64_t value) {
    return key(field, WireType::Varint).rawVarint(value);
  }
  // A negative int32 or int64 field: sign-extended to 64 bits, so always ten bytes.
  ProtoBuilder& negative(std::uint64_t field, std::int64_t value) {
    return varint(field, static_cast<std::uint64_t>(value));
  }
  ProtoBuilder& fixed32(std::uint64_t field, std::uint32_t value) {
    return key(field, WireType::Fixed32).rawLittleEndian(value, 4);
  }
  ProtoBuilder& fixed64(std::uint64_t field, std::uint64_t value) {
    return key(field, WireType::Fixed64).rawLittleEndian(value, 8);
  }
  ProtoBuilder& number(std::uint64_t field, float value) {
    return fixed32(field, std::bit_cast<std::uint32_t>(value));
  }
  ProtoBuilder& bytes(std::uint64_t field, std::string_view value) {
    return bytesClaiming(field, value.size(), value);
  }
  ProtoBuilder& message(std::uint64_t field, const ProtoBuilder& inner) { return bytes(field, inner.str()); }
  // A length-delimited field whose length varint says `claimed`, whatever follows.
  ProtoBuilder& bytesClaiming(std::uint64_t field, std::uint64_t claimed, std::string_view value) {
    return key(field, WireType::Bytes).rawVarint(claimed).raw(value);
  }

  ProtoBuilder& key(std::uint64_t field, WireType type) {
    return rawVarint(field << 3 | static_cast<unsigned>(type));
  }
  ProtoBuilder& key(std::uint64_t field, unsigned wireType) { return rawVarint(field << 3 | wireType); }
  ProtoBuilder& rawVarint(std::uint64_t value) {
    for (; value >= 0x80; value >>= 7)
      out_ += char(0x80 | (value & 0x7F));
    out_ += char(value);
    return *this;
  }
  // The value in exactly `length` bytes, continuation bits and empty groups included.
  ProtoBuilder& rawVarintOfLength(std::uint64_t value, std::size_t length) {
    for (std::size_t k = 0; k + 1 < length; ++k, value >>= 7)
      out_ += char(0x80 | (value & 0x7F));
    out_ += char(value & 0x7F);
    return *this;
  }
  ProtoBuilder& raw(std::string_view bytes) {
    out_ += bytes;
    return *this;
  }

  [[nodiscard]] const std::string& str() const { return out_; }

 private:
  ProtoBuilder& rawLittleEndian(std::uint64_t value, int bytes) {
    for (int k = 0; k < bytes; ++k)
      out_ += char(value >> (8 * k) & 0xFF);
    return *this;
  }

  std::string out_;
};

}  // namespace zel::test
