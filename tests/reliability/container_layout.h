// Where the parts of a container lie, read from its header and tables by the rules of
// docs/container-format.md; and the text that the plug-in owes when the file ends at a given byte.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace zel::test {

class ContainerLayout {
 public:
  explicit ContainerLayout(const std::string& bytes) : bytes_(bytes) {
    weightsBegin_ = number(section(5) + 8, 8);
    const std::uint64_t index = number(section(4) + 8, 8);
    const std::uint64_t tensors = number(40, 8);
    for (std::uint64_t k = 0; k < tensors; ++k) {
      const std::uint64_t entry = index + 128 * k;
      tensors_.push_back({weightsBegin_ + number(entry + 104, 8), number(entry + 112, 8)});
    }
  }

  // The message of an import whose output can hold the first `bytes` bytes only; empty when that is all.
  [[nodiscard]] std::string messageWhenFullAt(std::uint64_t bytes) const {
    if (bytes >= bytes_.size()) return "";
    if (bytes < 64) return "OKV2: write header failed";
    if (bytes < 64 + 168) return "OKV2: write section table failed";
    if (bytes < 256) return "OKV2: pad failed";
    if (bytes < weightsBegin_) return "OKV2: write section failed";
    for (const Tensor& tensor : tensors_) {
      if (bytes >= tensor.begin && bytes < tensor.begin + tensor.size) return "OKV2: write weights failed";
    }
    return "OKV2: pad weights failed";
  }

 private:
  struct Tensor {
    std::uint64_t begin, size;
  };

  static std::uint64_t section(unsigned type) { return 64 + 24 * (type - 1); }
  [[nodiscard]] std::uint64_t number(std::uint64_t at, unsigned width) const {
    std::uint64_t value = 0;
    for (unsigned k = width; k-- > 0;)
      value = value << 8 | static_cast<unsigned char>(bytes_.at(at + k));
    return value;
  }

  std::string bytes_;
  std::uint64_t weightsBegin_ = 0;
  std::vector<Tensor> tensors_;
};

}  // namespace zel::test
