// Keeps many short texts.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "container/page_advice.h"

namespace zel {

// The texts lie one behind the other in blocks that never move, on large pages once there are many: each
// would otherwise cost an allocation, with what the allocator keeps beside it.
class TextArena {
 public:
  TextArena() = default;
  // A copy would keep other texts than those that are looked at.
  TextArena(const TextArena&) = delete;
  TextArena& operator=(const TextArena&) = delete;

  // A copy that lives as long as the arena.
  std::string_view keep(std::string_view text) {
    if (blocks_.empty() || blocks_.back().capacity() - blocks_.back().size() < text.size()) {
      addBlock(text.size());
    }
    std::vector<char>& block = blocks_.back();
    const std::size_t at = block.size();
    block.insert(block.end(), text.begin(), text.end());
    return {block.data() + at, text.size()};
  }

 private:
  // Few names take little, and many names large pages.
  void addBlock(std::size_t least) {
    constexpr std::size_t kFirst = 1 << 10;
    constexpr std::size_t kMost = (4 << 20) - 64;  // two large pages, with what the allocator keeps
    std::vector<char> block;
    const std::size_t next = blocks_.empty() ? kFirst : std::min(2 * blocks_.back().capacity(), kMost);
    reserveOnLargePages(block, std::max(next, least));
    blocks_.push_back(std::move(block));
  }

  std::vector<std::vector<char>> blocks_;
};

}  // namespace zel
