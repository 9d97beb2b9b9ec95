// The identity of an open file, the same through every path, symbolic or hard link that leads to it.
#pragma once

#include <cstdint>

namespace zel {

struct FileId {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;

  friend bool operator==(const FileId&, const FileId&) = default;
};

}  // namespace zel
