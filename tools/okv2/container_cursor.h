// The reader's own cursor over little-endian bytes; internal to the container reader.
#pragma once

#include <cstdint>
#include <string_view>

namespace zel::tool {

// `bytes` has at least sizeof(T) bytes.
template <typename T>
[[nodiscard]] T littleEndian(std::string_view bytes) noexcept {
  T value = 0;
  for (std::size_t k = sizeof(T); k-- > 0;) {
    value = static_cast<T>(static_cast<std::uint64_t>(value) << 8 | static_cast<unsigned char>(bytes[k]));
  }
  return value;
}

// Reads from the front of a byte range that begins at `fileOffset` of the file. Every read returns false,
// with nothing consumed, when too few bytes are left.
class Cursor {
 public:
  Cursor(std::string_view bytes, std::uint64_t fileOffset) noexcept : rest_(bytes), fileOffset_(fileOffset) {}

  [[nodiscard]] std::uint64_t fileOffset() const noexcept { return fileOffset_; }
  [[nodiscard]] std::uint64_t remaining() const noexcept { return rest_.size(); }

  [[nodiscard]] bool bytes(std::uint64_t n, std::string_view& out) noexcept {
    if (n > rest_.size()) return false;
    out = rest_.substr(0, n);
    rest_.remove_prefix(n);
    fileOffset_ += n;
    return true;
  }
  template <typename T>
  [[nodiscard]] bool number(T& out) noexcept {
    std::string_view raw;
    if (!bytes(sizeof(T), raw)) return false;
    out = littleEndian<T>(raw);
    return true;
  }
  // A 32-bit count, then that many elements of `elementBytes` bytes.
  [[nodiscard]] bool counted(std::uint64_t elementBytes, std::string_view& out) noexcept {
    const Cursor before = *this;
    std::uint32_t count = 0;
    if (number(count) && bytes(count * elementBytes, out)) return true;
    *this = before;
    return false;
  }

 private:
  std::string_view rest_;
  std::uint64_t fileOffset_;
};

}  // namespace zel::tool
