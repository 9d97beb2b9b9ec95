#include "okv2/destination.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <system_error>

#include "okv2/escape.h"

namespace zel::tool {
namespace {

constexpr std::string_view kInputNames[] = {
    "config.json",           "tokenizer.json",          "tokenizer.model",
    "tokenizer_config.json", "special_tokens_map.json", "generation_config.json",
    "pytorch_model.bin",
};
constexpr std::string_view kShardSuffix = ".safetensors";

bool isInputName(std::string_view name) {
  const bool isShard =
      name.size() >= kShardSuffix.size() && name.substr(name.size() - kShardSuffix.size()) == kShardSuffix;
  return isShard || std::find(std::begin(kInputNames), std::end(kInputNames), name) != std::end(kInputNames);
}

bool isSame(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether `target` is, directly or through links, one of the files that an import of `directory` reads.
bool isInput(const std::string& directory, const struct stat& target) {
  std::error_code ec;
  for (std::filesystem::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
    struct stat status;
    if (isInputName(it->path().filename().native()) && ::stat(it->path().c_str(), &status) == 0 &&
        isSame(status, target)) {
      return true;
    }
  }
  return false;
}

}  // namespace

std::string whyRefused(const std::string& directory, const std::string& file, bool force) {
  const std::string shown = escaped(file);
  if (file.empty() || file.back() == '/') return fmt::format("{}: the output must be a file name", shown);
  // A link to a device is as little ours to replace as the device: /dev/stdout is one.
  struct stat target;
  if (::stat(file.c_str(), &target) == 0) {
    if (isInput(directory, target)) {
      return fmt::format("{} is one of the files to be imported; it is never overwritten", shown);
    }
    if (S_ISDIR(target.st_mode)) return fmt::format("{} is a directory", shown);
    if (!S_ISREG(target.st_mode)) return fmt::format("{} is not a regular file", shown);
  }
  struct stat entry;
  if (force || ::lstat(file.c_str(), &entry) != 0) return {};  // absent, or creating it will tell
  if (S_ISLNK(entry.st_mode)) return fmt::format("{} is a symbolic link; --force replaces the link", shown);
  return fmt::format("{} already exists; --force overwrites it", shown);
}

bool isSameFile(const std::string& a, const std::string& b) {
  struct stat first, second;
  if (::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0) return isSame(first, second);
  const std::filesystem::path x(a), y(b);
  const auto folder = [](const std::filesystem::path& path) {
    return path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
  };
  return x.filename() == y.filename() && ::stat(folder(x).c_str(), &first) == 0 &&
         ::stat(folder(y).c_str(), &second) == 0 && isSame(first, second);
}

}  // namespace zel::tool
