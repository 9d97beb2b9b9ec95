// Files that are not what their name says: what clones and downloads leave behind when something went wrong.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zel::explain {

enum class Disguise { None, Empty, NotRegular, LfsPointer, LinkText, WebPage };

struct FileLook {
  Disguise disguise = Disguise::None;
  bool isDenied = false;  // the caller may not open it
  std::uint64_t bytes = 0;
  std::string head;  // the first kHeadBytes
};

inline constexpr std::size_t kHeadBytes = 4096;

// Never blocks, whatever the path leads to. False when there is nothing at `path` or it cannot be opened.
[[nodiscard]] bool lookAt(const std::string& path, FileLook& out);

// The rules alone: `head` is the start of a file of `bytes` bytes.
[[nodiscard]] Disguise disguiseOf(std::string_view head, std::uint64_t bytes);

// A safetensors or zip file of `bytes` bytes that ends before its end. `path` is read.
[[nodiscard]] bool endsEarly(const std::string& path, const FileLook& look);

// With its ASCII letters in lower case.
[[nodiscard]] std::string lowerCase(std::string_view text);

// Names that downloaders give to unfinished files, "x.safetensors.incomplete" and the like.
[[nodiscard]] bool isPartName(std::string_view name);

}  // namespace zel::explain
