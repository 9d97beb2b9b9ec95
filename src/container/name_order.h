// Sorting many elements by their names.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace zel {

// The positions 0 to count - 1 (at most 2^32) in the byte-wise order of nameAt(position), a string_view that
// stays valid meanwhile; equal names keep their order. Allocates 20 bytes a name.
//
// The names of one model begin alike ("model.layers."), so what is compared first is the number that the
// eight bytes behind the common beginning spell; that decides almost always, and lies beside the position.
template <class NameAt>
[[nodiscard]] std::vector<std::uint32_t> orderByName(std::size_t count, NameAt nameAt) {
  std::size_t common = count == 0 ? 0 : nameAt(0).size();
  for (std::size_t k = 1; k < count && common > 0; ++k) {
    const std::string_view first = nameAt(0).substr(0, common);
    const std::string_view name = nameAt(k);
    common = std::size_t(std::mismatch(first.begin(), first.end(), name.begin(), name.end()).first -
                         first.begin());
  }

  struct Key {
    std::uint64_t beginning;  // big-endian; a shorter name ends in zeros, which also sorts it first
    std::uint32_t position;
  };
  std::vector<Key> keys;
  keys.reserve(count);
  for (std::size_t k = 0; k < count; ++k) {
    const std::string_view rest = nameAt(k).substr(common, sizeof(Key::beginning));
    std::uint64_t beginning = 0;
    for (std::size_t n = 0; n < sizeof beginning; ++n)
      beginning = beginning << 8 | (n < rest.size() ? static_cast<unsigned char>(rest[n]) : 0U);
    keys.push_back({beginning, std::uint32_t(k)});
  }
  std::sort(keys.begin(), keys.end(), [&](const Key& a, const Key& b) {
    if (a.beginning != b.beginning) return a.beginning < b.beginning;
    const int sign = nameAt(a.position).compare(nameAt(b.position));
    return sign != 0 ? sign < 0 : a.position < b.position;
  });

  std::vector<std::uint32_t> order;
  order.reserve(count);
  for (const Key& key : keys)
    order.push_back(key.position);
  return order;
}

// Moves every element to where `order`, a permutation of the positions, wants it: element `order[k]` to k.
// In place, each element moved once, since fresh memory would cost more than the moves. Uses `order` up.
template <class T>
void arrange(std::vector<T>& elements, std::vector<std::uint32_t> order) {
  for (std::uint32_t first = 0; first < order.size(); ++first) {
    if (order[first] == first) continue;
    T held = std::move(elements[first]);
    std::uint32_t hole = first;
    while (order[hole] != first) {
      const std::uint32_t next = order[hole];
      elements[hole] = std::move(elements[next]);
      order[hole] = hole;
      hole = next;
    }
    elements[hole] = std::move(held);
    order[hole] = hole;
  }
}

}  // namespace zel
