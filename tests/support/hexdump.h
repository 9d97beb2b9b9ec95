// Annotated hex dumps: bytes written out by hand, with the reason beside each, turned into a string.
//
//   @64                  the next byte has offset 64 (decimal), so that a slip is found where it was made
//   4F 4b                bytes
//   00*24                one byte, 24 times
//   "TKNZ"               the characters between the quotes, without terminator; no escapes
//   ; up to line's end   the annotation
#pragma once

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zel::test {

namespace detail {

inline int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

inline std::size_t decimalPrefix(std::string_view text, std::size_t& pos) {
  const std::size_t begin = pos;
  std::size_t value = 0;
  for (; pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos])) != 0; ++pos) {
    value = value * 10 + std::size_t(text[pos] - '0');
  }
  if (pos == begin) throw std::invalid_argument("hex dump: number expected");
  return value;
}

}  // namespace detail

// Throws std::invalid_argument, with the line, for anything that is not a dump in the form above.
inline std::string bytesOfDump(std::string_view dump) {
  std::string bytes;
  std::size_t line = 1;
  const auto fail = [&line](const std::string& what) {
    throw std::invalid_argument("hex dump, line " + std::to_string(line) + ": " + what);
  };
  for (std::size_t pos = 0; pos < dump.size();) {
    const char c = dump[pos];
    if (c == '\n') {
      ++line;
      ++pos;
    } else if (c == ' ' || c == '\t') {
      ++pos;
    } else if (c == ';') {
      while (pos < dump.size() && dump[pos] != '\n')
        ++pos;
    } else if (c == '@') {
      const std::size_t offset = detail::decimalPrefix(dump, ++pos);
      if (offset != bytes.size()) {
        fail("says offset " + std::to_string(offset) + " at offset " + std::to_string(bytes.size()));
      }
    } else if (c == '"') {
      const std::size_t close = dump.find('"', pos + 1);
      if (close == std::string_view::npos) fail("text without end");
      bytes += dump.substr(pos + 1, close - pos - 1);
      pos = close + 1;
    } else {
      const int high = detail::hexDigit(c);
      const int low = pos + 1 < dump.size() ? detail::hexDigit(dump[pos + 1]) : -1;
      if (high < 0 || low < 0) fail("not a hex pair");
      pos += 2;
      std::size_t times = 1;
      if (pos < dump.size() && dump[pos] == '*') times = detail::decimalPrefix(dump, ++pos);
      bytes.append(times, char(high << 4 | low));
    }
  }
  return bytes;
}

// One line per 16 bytes, each with its offset: two of these compare with a readable difference.
inline std::string hexLines(std::string_view bytes) {
  std::string out;
  for (std::size_t begin = 0; begin < bytes.size(); begin += 16) {
    char cell[32];
    std::snprintf(cell, sizeof cell, "%6zu ", begin);
    out += cell;
    for (const char byte : bytes.substr(begin, 16)) {
      std::snprintf(cell, sizeof cell, " %02x", static_cast<unsigned char>(byte));
      out += cell;
    }
    out += '\n';
  }
  return out;
}

}  // namespace zel::test
