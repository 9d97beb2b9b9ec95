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
// stays valid meanwhile; equal names keep their order. Allocates 28 bytes a name.
//
// The names of one model begin alike ("model.layers."), so what is compared first is the number that the
// sixteen bytes behind the common beginning spell; that decides almost always, and lies beside the position.
template <class NameAt>
[[nodiscard]] std::vector<std::uint32_t> orderByName(std::size_t count, NameAt nameAt) {
  std::size_t common = count == 0 ? 0 : nameAt(0).size();
  for (std::size_t k = 1; k < count && common > 0; ++k) {
    const std::string_view first = nameAt(0).substr(0, common);
    const std::string_view name = nameAt(k);
    common = std::size_t(std::mismatch(first.begin(), first.end(), name.begin(), name.end()).first -
                         first.begin());
  }

  // Big-endian; a shorter name ends in zeros, which also sorts it first.
  const auto wordAt = [&](std::size_t k, std::size_t from) {
    const std::string_view name = nameAt(k);
    std::uint64_t word = 0;
    for (std::size_t n = from; n < from + sizeof word; ++n)
      word = word << 8 | (n < name.size() ? static_cast<unsigned char>(name[n]) : 0U);
    return word;
  };
  struct Key {
    std::uint64_t first, second;
    std::uint32_t position;
  };
  std::vector<Key> keys;
  keys.reserve(count);
  for (std::size_t k = 0; k < count; ++k)
    keys.push_back({wordAt(k, common), wordAt(k, common + sizeof(Key::first)), std::uint32_t(k)});
  std::sort(keys.begin(), keys.end(), [&](const Key& a, const Key& b) {
    if (a.first != b.first) return a.first < b.first;
    if (a.second != b.second) return a.second < b.second;
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
