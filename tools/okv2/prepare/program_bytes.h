// The bytes of an array that lie in a pickle program, and not in a storage of their own.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

namespace zel::tool::prepare {

// Protocol 2 has no opcode for bytes: pickle.py of CPython writes them as `_codecs.encode(TEXT, 'latin1')`.
struct ProgramBytes {
  std::string_view text;  // a view of the program
  bool isLatin1 = false;  // it is UTF-8, and each of its code points stands for the byte of that number
};

// How many they are; nothing when the text is no UTF-8 of code points below 256. Reads all of it.
[[nodiscard]] std::optional<std::uint64_t> countBytes(const ProgramBytes& bytes) noexcept;

// Hands the bytes to `sink`, piece by piece; a false from it is the end. False, after what comes before it,
// for a text that countBytes() refuses.
[[nodiscard]] bool readBytes(const ProgramBytes& bytes, const std::function<bool(std::string_view)>& sink);

}  // namespace zel::tool::prepare
