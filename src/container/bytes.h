// Little-endian bytes: a bounds-checked reading cursor, the emitters that build container sections, and
// size arithmetic that reports overflow instead of wrapping.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace zel {

// ---- size arithmetic

// False, with `product` untouched, when a * b does not fit 64 bits.
[[nodiscard]] constexpr bool checkedMul(std::uint64_t a, std::uint64_t b, std::uint64_t& product) noexcept {
  std::uint64_t exact = 0;
  if (__builtin_mul_overflow(a, b, &exact)) return false;
  product = exact;
  return true;
}

// False, with `sum` untouched, when a + b does not fit 64 bits.
[[nodiscard]] constexpr bool checkedAdd(std::uint64_t a, std::uint64_t b, std::uint64_t& sum) noexcept {
  std::uint64_t exact = 0;
  if (__builtin_add_overflow(a, b, &exact)) return false;
  sum = exact;
  return true;
}

// ---- loading: the caller has checked that the bytes are there; any alignment

[[nodiscard]] inline std::uint16_t loadU16(const char* p) noexcept {
  const auto byte = [p](int k) { return std::uint16_t(static_cast<unsigned char>(p[k])); };
  return std::uint16_t(byte(0) | byte(1) << 8);
}
[[nodiscard]] inline std::uint32_t loadU32(const char* p) noexcept {
  return std::uint32_t(loadU16(p)) | std::uint32_t(loadU16(p + 2)) << 16;
}
[[nodiscard]] inline std::uint64_t loadU64(const char* p) noexcept {
  return std::uint64_t(loadU32(p)) | std::uint64_t(loadU32(p + 4)) << 32;
}

// ---- reading

// A cursor over borrowed bytes. Every read returns false, with nothing consumed, when fewer bytes are left
// than it needs: the cursor reports, the caller names the failure.
class ByteReader {
 public:
  explicit ByteReader(std::string_view bytes) noexcept : bytes_(bytes) {}

  [[nodiscard]] std::uint64_t position() const noexcept { return pos_; }
  [[nodiscard]] std::uint64_t remaining() const noexcept { return bytes_.size() - pos_; }
  [[nodiscard]] bool atEnd() const noexcept { return remaining() == 0; }
  [[nodiscard]] std::string_view rest() const noexcept { return bytes_.substr(pos_); }

  // Moves to an absolute position; false when it lies beyond the end (the end itself is allowed).
  [[nodiscard]] bool seek(std::uint64_t position) noexcept {
    if (position > bytes_.size()) return false;
    pos_ = position;
    return true;
  }
  [[nodiscard]] bool skip(std::uint64_t n) noexcept {
    if (n > remaining()) return false;
    pos_ += n;
    return true;
  }
  // The view borrows from the input.
  [[nodiscard]] bool readBytes(std::uint64_t n, std::string_view& out) noexcept {
    if (n > remaining()) return false;
    out = bytes_.substr(pos_, n);
    pos_ += n;
    return true;
  }
  [[nodiscard]] bool readU8(std::uint8_t& out) noexcept {
    if (remaining() < 1) return false;
    out = static_cast<std::uint8_t>(bytes_[pos_++]);
    return true;
  }
  [[nodiscard]] bool readU16(std::uint16_t& out) noexcept {
    std::string_view raw;
    if (!readBytes(2, raw)) return false;
    out = loadU16(raw.data());
    return true;
  }
  [[nodiscard]] bool readU32(std::uint32_t& out) noexcept {
    std::string_view raw;
    if (!readBytes(4, raw)) return false;
    out = loadU32(raw.data());
    return true;
  }
  [[nodiscard]] bool readU64(std::uint64_t& out) noexcept {
    std::string_view raw;
    if (!readBytes(8, raw)) return false;
    out = loadU64(raw.data());
    return true;
  }

 private:
  std::string_view bytes_;
  std::uint64_t pos_ = 0;
};

// ---- writing: each appends to `out`

using ByteVector = std::vector<std::uint8_t>;

// The low N bytes of `value`, little-endian.
template <std::size_t N>
void storeLittleEndian(std::uint8_t* out, std::uint64_t value) noexcept {
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(out, &value, N);  // one store; a byte at a time makes whoever copies them wait
  } else {
    for (std::size_t n = 0; n < N; ++n)
      out[n] = std::uint8_t(value >> (8 * n));
  }
}
// The same with one look at the capacity.
template <std::size_t N>
void putLittleEndian(ByteVector& out, std::uint64_t value) {
  std::uint8_t bytes[N];
  storeLittleEndian<N>(bytes, value);
  out.insert(out.end(), bytes, bytes + N);
}

inline void putU8(ByteVector& out, std::uint8_t value) { out.push_back(value); }
inline void putU16(ByteVector& out, std::uint16_t value) { putLittleEndian<2>(out, value); }
inline void putU32(ByteVector& out, std::uint32_t value) { putLittleEndian<4>(out, value); }
inline void putU64(ByteVector& out, std::uint64_t value) { putLittleEndian<8>(out, value); }
// The IEEE-754 single's 32-bit pattern.
inline void putF32(ByteVector& out, float value) { putU32(out, std::bit_cast<std::uint32_t>(value)); }
inline void putBytes(ByteVector& out, std::string_view bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}
// u32 length, cut to its low 32 bits, then all the bytes.
inline void putStr(ByteVector& out, std::string_view text) {
  putU32(out, std::uint32_t(text.size()));
  putBytes(out, text);
}

}  // namespace zel
