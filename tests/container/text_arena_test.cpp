#include "container/text_arena.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zel {
namespace {

TEST(TextArena, KeepsCopies) {
  TextArena arena;
  std::string text = "a name";
  const std::string_view kept = arena.keep(text);
  text = "other!";
  EXPECT_EQ(kept, "a name");
}

TEST(TextArena, KeepsTheEmptyText) {
  TextArena arena;
  EXPECT_EQ(arena.keep(""), "");
}

// Of all lengths around the first block and the next ones, and one that is longer than any block.
TEST(TextArena, NeverMovesWhatItKeeps) {
  TextArena arena;
  std::vector<std::string> texts;
  std::vector<std::string_view> kept;
  for (std::size_t length : {1023, 1, 1, 1024, 1025, 0, 3000, 40, 6 << 20, 7}) {
    texts.emplace_back(length, char('a' + texts.size()));
    kept.push_back(arena.keep(texts.back()));
  }
  for (int k = 0; k < 30'000; ++k) {
    texts.push_back("model.layers." + std::to_string(k) + ".self_attn.q_proj.weight");
    kept.push_back(arena.keep(texts.back()));
  }
  for (std::size_t k = 0; k < texts.size(); ++k)
    ASSERT_EQ(kept[k], texts[k]) << k;
}

}  // namespace
}  // namespace zel
