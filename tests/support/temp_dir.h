// A directory of its own for one test, removed with everything in it.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <stdlib.h>

namespace zel::test {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "okv2-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }
  // Writes a file (parent folders included) and returns its path.
  std::string write(std::string_view name, std::string_view bytes) const {
    const std::string path = *this / name;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
    return path;
  }

 private:
  std::string path_;
};

inline std::string readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  // A buffer at a time: byte by byte, 60 MB take half a minute under the sanitizers.
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return std::move(bytes).str();
}

}  // namespace zel::test
