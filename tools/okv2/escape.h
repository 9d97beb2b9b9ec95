// Text from files, made safe to print on a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zel::tool {

// Well-formed UTF-8 passes; control characters (C0, DEL, C1), bytes that are no UTF-8 and the backslash
// itself become \n, \t, \r, \\ or \xNN, so that no name can move the cursor or forge a line of output.
[[nodiscard]] std::string escaped(std::string_view text);

// The same, cut after `maxBytes` bytes of the original, with "..." where something was cut.
[[nodiscard]] std::string escapedCut(std::string_view text, std::size_t maxBytes);

}  // namespace zel::tool
