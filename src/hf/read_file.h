// Whole-file reading for the small JSON and tokenizer files of a model directory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zel {

// Reads the regular file at `path` into `out`. False when it cannot be opened or read, when it is empty (an
// empty file counts as unreadable on purpose), or when it is anything but a regular file: opening a FIFO or
// a device must never block the host.
[[nodiscard]] bool readFile(const std::string& path, std::vector<std::uint8_t>& out);

}  // namespace zel
