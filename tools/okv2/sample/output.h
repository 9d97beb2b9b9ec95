// Files of a sample model: a buffered output file and the deterministic filler for tensor data.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "okv2/sample/plan.h"

namespace zel::sample {

// A new file (never one that exists). The first failure sticks: later calls do nothing, finish() tells.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);

  void write(std::string_view bytes);
  // Overwrites bytes that were written before; the position stays at the end.
  void patch(std::uint64_t offset, std::string_view bytes);
  [[nodiscard]] std::uint64_t size() const noexcept { return size_; }

  // Closes the file; false with a sentence in `error` when anything has failed.
  [[nodiscard]] bool finish(std::string& error);

 private:
  struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  void check(bool ok);

  std::string path_;
  std::vector<char> buffer_;  // outlives file_
  std::unique_ptr<std::FILE, Closer> file_;
  std::uint64_t size_ = 0;
  int errno_ = 0;
};

// Creates `path` with `text` as its content.
[[nodiscard]] bool writeTextFile(const std::string& path, std::string_view text, std::string& error);

// Produces a tensor's data piece by piece: bytes that depend on its name, and read as F32, F16 or BF16 are
// finite.
class Filler {
 public:
  explicit Filler(const PlannedTensor& tensor);

  // The next piece; valid until the next call. False at the end of the data.
  [[nodiscard]] bool next(std::string_view& piece);

 private:
  std::uint64_t state_;
  std::uint64_t left_;
  std::vector<char> piece_;
};

}  // namespace zel::sample
