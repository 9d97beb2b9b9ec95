#include "okv2/prepare/program_bytes.h"

#include <algorithm>
#include <cstddef>
#include <string>

namespace zel::tool::prepare {
namespace {

constexpr std::size_t kWindowBytes = std::size_t{64} * 1024;

// Takes one code point below 256 off the front of UTF-8 that is not empty.
bool takeCodePoint(std::string_view& text, char& out) noexcept {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) {
    out = text[0];
    text.remove_prefix(1);
    return true;
  }
  // 0xc2 and 0xc3 begin the code points from 128 to 255; 0xc0 and 0xc1 begin nothing.
  if ((first & 0xfe) != 0xc2 || text.size() < 2) return false;
  const auto second = static_cast<unsigned char>(text[1]);
  if ((second & 0xc0) != 0x80) return false;
  out = static_cast<char>((first & 3) << 6 | (second & 0x3f));
  text.remove_prefix(2);
  return true;
}

// Takes what makes the next piece off the front; false when it meets anything else.
bool takePiece(std::string_view& text, bool isLatin1, std::string& piece) {
  piece.clear();
  if (!isLatin1) {
    // Copied, because a page of a mapped file can be read under a guard only, which the system is not.
    piece = text.substr(0, kWindowBytes);
    text.remove_prefix(piece.size());
    return true;
  }
  char byte = 0;
  while (!text.empty() && piece.size() < kWindowBytes) {
    if (!takeCodePoint(text, byte)) return false;
    piece += byte;
  }
  return true;
}

}  // namespace

std::optional<std::uint64_t> countBytes(const ProgramBytes& bytes) noexcept {
  if (!bytes.isLatin1) return bytes.text.size();
  std::string_view text = bytes.text;
  std::uint64_t count = 0;
  for (char byte = 0; !text.empty(); ++count) {
    if (!takeCodePoint(text, byte)) return std::nullopt;
  }
  return count;
}

bool readBytes(const ProgramBytes& bytes, const std::function<bool(std::string_view)>& sink) {
  std::string_view text = bytes.text;
  std::string piece;
  while (!text.empty()) {
    const bool whole = takePiece(text, bytes.isLatin1, piece);
    if (!piece.empty() && !sink(piece)) return true;
    if (!whole) return false;
  }
  return true;
}

}  // namespace zel::tool::prepare
