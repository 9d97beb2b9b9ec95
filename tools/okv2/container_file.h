// A container on disk, mapped for reading.
#pragma once

#include <string>
#include <string_view>

namespace zel::tool {

// Owns the mapping. Opening never blocks, whatever the path leads to.
class ContainerFile {
 public:
  enum class Result { Ok, OsRefused, NotARegularFile };

  ContainerFile() = default;
  ContainerFile(const ContainerFile&) = delete;
  ContainerFile& operator=(const ContainerFile&) = delete;
  ~ContainerFile();

  // Called once. On failure `reason` gets the part of a sentence that follows the path.
  [[nodiscard]] Result open(const std::string& path, std::string& reason);

  // Empty for an empty file; valid while this object lives.
  [[nodiscard]] std::string_view bytes() const noexcept { return bytes_; }

 private:
  std::string_view bytes_;
};

}  // namespace zel::tool
