#include "okv2/escape.h"

#include <fmt/format.h>

#include <iterator>

namespace zel::tool {
namespace {

bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Length of the well-formed UTF-8 sequence (RFC 3629) at the start of `text`, 0 when there is none.
std::size_t sequenceLength(std::string_view text) {
  const auto at = [text](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = at(0);
  if (lead < 0x80) return 1;
  const std::size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                             : lead >= 0xE0 && lead <= 0xEF ? 3
                             : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                            : 0;
  if (length == 0 || length > text.size()) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    if (!isContinuation(at(k))) return 0;
  }
  const unsigned char second = at(1);
  if (lead == 0xE0 && second < 0xA0) return 0;  // overlong
  if (lead == 0xED && second > 0x9F) return 0;  // surrogates
  if (lead == 0xF0 && second < 0x90) return 0;  // overlong
  if (lead == 0xF4 && second > 0x8F) return 0;  // beyond U+10FFFF
  return length;
}

bool isControl(std::string_view sequence) {
  const auto first = static_cast<unsigned char>(sequence[0]);
  if (sequence.size() == 1) return first < 0x20 || first == 0x7F;
  return first == 0xC2 && static_cast<unsigned char>(sequence[1]) < 0xA0;  // C1: U+0080..U+009F
}

void appendEscape(std::string& out, char byte) {
  switch (byte) {
    case '\n': out += "\\n"; break;
    case '\r': out += "\\r"; break;
    case '\t': out += "\\t"; break;
    default: fmt::format_to(std::back_inserter(out), "\\x{:02X}", static_cast<unsigned char>(byte));
  }
}

}  // namespace

std::string escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = sequenceLength(text);
    const std::string_view sequence = text.substr(0, length == 0 ? 1 : length);
    if (sequence == "\\") {
      out += "\\\\";
    } else if (length == 0 || isControl(sequence)) {
      for (const char byte : sequence)
        appendEscape(out, byte);
    } else {
      out += sequence;
    }
    text.remove_prefix(sequence.size());
  }
  return out;
}

std::string escapedCut(std::string_view text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) return escaped(text);
  std::size_t end = maxBytes;
  // Not through the middle of a character, where the text is UTF-8 at all.
  while (end > 0 && maxBytes - end < 3 && isContinuation(static_cast<unsigned char>(text[end])))
    --end;
  return escaped(text.substr(0, end)) + "...";
}

}  // namespace zel::tool
