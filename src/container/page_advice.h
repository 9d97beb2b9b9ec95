// Hints to the kernel about pages. All are optional: where the kernel does not know one, or refuses it,
// nothing but speed or memory is lost.
#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <vector>

namespace zel {

inline constexpr std::size_t kLargePageBytes = 2 << 20;  // the smallest of the common processors

// Brings the pages of a borrowed piece in with one call instead of a fault each. For pieces of some 256 KB
// just before they are written; whole tensors would push out of the cache what is about to be copied.
void populatePages(const void* data, std::size_t size) noexcept;

// Lets go of the pages that lie wholly inside the range, so that memory in use does not grow with the model.
// Only for read-only file mappings: they read the same again, while memory of any other kind would lose its
// content.
void releasePages(const void* data, std::size_t size) noexcept;

// Asks for large pages under memory of this process that is about to be filled from its start to near its
// end: a fault for each 4 KB would cost more than what is put there. The first large page may be there, with
// all of its 2 MB, when this returns.
void preferLargePages(const void* data, std::size_t size) noexcept;

// As many bytes as fit into the large pages that `size` bytes need, beside what an allocator keeps with them;
// `size` itself where that is less than half of one. Linux puts a mapping of whole large pages where they can
// lie, and any other where up to 2 MB at either end must be of small pages.
std::size_t fillLargePages(std::size_t size) noexcept;

// For arrays that are about to be filled: those of half a large page and more begin on one. Whatever the
// allocator has at hand otherwise may be a place that whole large pages do not fit into.
template <class T>
struct LargePageAllocator {
  using value_type = T;
  LargePageAllocator() = default;
  template <class U>
  explicit LargePageAllocator(const LargePageAllocator<U>& /*other*/) noexcept {}

  [[nodiscard]] T* allocate(std::size_t count) {
    if (!isLong(count)) return std::allocator<T>().allocate(count);
    if (count > std::size_t(std::numeric_limits<std::ptrdiff_t>::max()) / sizeof(T))
      throw std::bad_array_new_length();
    const std::size_t size = (count * sizeof(T) + kLargePageBytes - 1) / kLargePageBytes * kLargePageBytes;
    void* const data = ::operator new(size, std::align_val_t(kLargePageBytes));
    preferLargePages(data, size);
    return static_cast<T*>(data);
  }
  void deallocate(T* data, std::size_t count) noexcept {
    if (!isLong(count)) return std::allocator<T>().deallocate(data, count);
    ::operator delete(data, std::align_val_t(kLargePageBytes));
  }
  friend bool operator==(const LargePageAllocator&, const LargePageAllocator&) noexcept { return true; }

 private:
  static bool isLong(std::size_t count) noexcept { return count >= kLargePageBytes / 2 / sizeof(T); }
};

// Reserves room for at least `count` elements that are about to be filled in.
template <class T>
void reserveOnLargePages(std::vector<T>& out, std::size_t count) {
  if (count <= out.capacity()) return;
  out.reserve(count < out.max_size() / 2 ? fillLargePages(count * sizeof(T)) / sizeof(T) : count);
  preferLargePages(out.data(), out.capacity() * sizeof(T));
}

}  // namespace zel
