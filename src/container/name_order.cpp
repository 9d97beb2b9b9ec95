#include "container/name_order.h"

#include <array>
#include <climits>
#include <utility>

namespace zel::detail {
namespace {

constexpr std::size_t kDigits = sizeof(NameKey::word);  // bytes, the last one first
constexpr std::size_t kValues = 1 << CHAR_BIT;

std::size_t digitOf(std::uint64_t word, std::size_t digit) noexcept {
  return std::size_t(word >> (CHAR_BIT * digit)) % kValues;
}

// Moves each key back to its place, for as long as that takes few steps altogether: the names of a model
// whose layers are in order are close to theirs. Equal words keep their order, whether it ends or gives up.
bool sortNearby(NameKey* keys, std::size_t count) noexcept {
  std::size_t steps = 4 * count;
  for (std::size_t k = 1; k < count; ++k) {
    if (keys[k - 1].word <= keys[k].word) continue;
    const NameKey key = keys[k];
    std::size_t at = k;
    for (; at > 0 && keys[at - 1].word > key.word && steps > 0; --at, --steps)
      keys[at] = keys[at - 1];
    keys[at] = key;
    if (steps == 0) return false;
  }
  return true;
}

}  // namespace

// Byte by byte from the last to the first: each pass puts the keys into their places without a comparison,
// whose outcome no processor can predict.
void sortByWord(NameKey* keys, NameKey* scratch, std::size_t count) noexcept {
  constexpr std::size_t kWorthCounting = kValues;
  if (sortNearby(keys, count)) return;
  if (count < kWorthCounting) {
    std::sort(keys, keys + count, [](const NameKey& a, const NameKey& b) {
      return a.word != b.word ? a.word < b.word : a.position < b.position;
    });
    return;
  }

  std::array<std::array<std::uint32_t, kValues>, kDigits> places{};
  for (std::size_t k = 0; k < count; ++k) {
    for (std::size_t digit = 0; digit < kDigits; ++digit)
      ++places[digit][digitOf(keys[k].word, digit)];
  }
  NameKey* from = keys;
  NameKey* to = scratch;
  for (std::size_t digit = 0; digit < kDigits; ++digit) {
    auto& place = places[digit];
    if (place[digitOf(from[0].word, digit)] == count) continue;
    // From how many keys have a byte to where the next key with it goes.
    std::uint32_t before = 0;
    for (std::uint32_t& value : place)
      before += std::exchange(value, before);
    for (std::size_t k = 0; k < count; ++k)
      to[place[digitOf(from[k].word, digit)]++] = from[k];
    std::swap(from, to);
  }
  if (from != keys) std::copy(from, from + count, keys);
}

}  // namespace zel::detail
