// A text that the command line names: a list of sums, the report of an import.
#pragma once

#include <cstddef>
#include <string>

namespace zel::tool {

// No list of sums and no report comes near this; a pipe could go on for ever.
inline constexpr std::size_t kMaxTextBytes = std::size_t{1} << 28;

// Reads the regular file at `path` whole. Opening never blocks, and a FIFO or a device is refused, but for
// what a shell hands over as an open descriptor: /dev/stdin and /dev/fd/N are read until they end. kExitOk,
// or the code to leave with; the complaint, or the failure document of `command`, has been made.
[[nodiscard]] int readText(bool json, const char* command, const std::string& path, std::string& out);

}  // namespace zel::tool
