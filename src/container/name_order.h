// Sorting many elements by their names.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "container/bytes.h"
#include "container/page_advice.h"

namespace zel {
namespace detail {

// An element, and eight bytes of its name.
struct NameKey {
  std::uint64_t word;
  std::uint32_t position;
};

// The eight bytes from `from` on, big-endian, so that words compare as bytes do. A name that ends among them
// goes on with zeros, which sorts it first.
inline std::uint64_t wordAt(std::string_view name, std::size_t from) noexcept {
  std::uint64_t word = 0;
  if (from + sizeof word <= name.size()) return __builtin_bswap64(loadU64(name.data() + from));
  for (std::size_t k = from; k < from + sizeof word; ++k)
    word = word << 8 | (k < name.size() ? static_cast<unsigned char>(name[k]) : 0U);
  return word;
}

// Sorts by word; equal words keep their order. Uses `scratch`, of the same length.
void sortByWord(NameKey* keys, NameKey* scratch, std::size_t count) noexcept;

// See orderByName().
template <class NameAt>
class NameSorter {
 public:
  NameSorter(std::size_t count, const NameAt& nameAt) : nameAt_(nameAt), keys_(count), scratch_(count) {
    for (std::size_t k = 0; k < count; ++k)
      keys_[k].position = std::uint32_t(k);
    sort(0, count, 0, 0);
  }

  [[nodiscard]] std::vector<std::uint32_t> order() const {
    std::vector<std::uint32_t> order;
    order.reserve(keys_.size());
    for (const NameKey& key : keys_)
      order.push_back(key.position);
    return order;
  }

 private:
  // A few names are compared faster than they are taken to pieces. Nesting ends for the sake of the stack:
  // names that branch so often are nobody's model.
  static constexpr std::size_t kFew = 16;
  static constexpr unsigned kMaxLevel = 8;

  // The keys `first` to `last` - 1, whose names agree in `depth` bytes and which lie in order of position.
  void sort(std::size_t first, std::size_t last, std::size_t depth, unsigned level) {
    if (last - first <= kFew || level == kMaxLevel) return compare(first, last, depth);
    depth += commonBytes(first, last, depth);
    for (std::size_t k = first; k < last; ++k)
      keys_[k].word = wordAt(nameOf(k), depth);
    sortByWord(keys_.data() + first, scratch_.data() + first, last - first);
    while (first < last) {
      std::size_t end = first + 1;
      while (end < last && keys_[end].word == keys_[first].word)
        ++end;
      if (end - first > 1) sortEqualWords(first, end, depth, level);
      first = end;
    }
  }

  void sortEqualWords(std::size_t first, std::size_t last, std::size_t depth, unsigned level) {
    const std::size_t behind = depth + sizeof(NameKey::word);
    for (std::size_t k = first; k < last; ++k) {
      if (nameOf(k).size() < behind) return compare(first, last, depth);  // what is equal may be its zeros
    }
    sort(first, last, behind, level + 1);
  }

  // By algorithms that stay within the range whatever the comparisons say, unlike std::sort: names may lie in
  // a mapped file, which somebody may write to meanwhile.
  void compare(std::size_t first, std::size_t last, std::size_t depth) {
    NameKey* const begin = keys_.data() + first;
    NameKey* const end = begin + (last - first);
    const auto before = [&](const NameKey& a, const NameKey& b) {
      const int sign = nameAt_(a.position).substr(depth).compare(nameAt_(b.position).substr(depth));
      return sign != 0 ? sign < 0 : a.position < b.position;
    };
    if (last - first <= kFew) {
      for (NameKey* key = begin; key != end; ++key)
        std::rotate(std::upper_bound(begin, key, *key, before), key, key + 1);
    } else {
      std::make_heap(begin, end, before);
      std::sort_heap(begin, end, before);
    }
  }

  [[nodiscard]] std::size_t commonBytes(std::size_t first, std::size_t last, std::size_t depth) const {
    std::string_view common = nameOf(first).substr(depth);
    for (std::size_t k = first + 1; k < last && !common.empty(); ++k) {
      const std::string_view name = nameOf(k).substr(depth);
      if (name.substr(0, common.size()) == common) continue;
      const auto ends = std::mismatch(common.begin(), common.end(), name.begin(), name.end());
      common = common.substr(0, std::size_t(ends.first - common.begin()));
    }
    return common.size();
  }

  [[nodiscard]] std::string_view nameOf(std::size_t k) const { return nameAt_(keys_[k].position); }

  const NameAt& nameAt_;
  std::vector<NameKey, LargePageAllocator<NameKey>> keys_;
  std::vector<NameKey, LargePageAllocator<NameKey>> scratch_;
};

}  // namespace detail

// The positions 0 to count - 1 (below 2^32) in the byte-wise order of nameAt(position), a string_view that
// stays valid meanwhile; equal names keep their order. Allocates some 36 bytes a name, long arrays on whole
// large pages. Bytes of names that change meanwhile cost nothing but the order.
//
// The names of one model begin alike ("model.layers."), so what they have in common is passed over, and the
// eight bytes behind it are sorted as numbers that lie beside the position; where they are equal, the same
// again behind them.
template <class NameAt>
[[nodiscard]] std::vector<std::uint32_t> orderByName(std::size_t count, const NameAt& nameAt) {
  return detail::NameSorter<NameAt>(count, nameAt).order();
}

}  // namespace zel
