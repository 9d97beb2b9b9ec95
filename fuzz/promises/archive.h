// Model directories as one string of bytes, for the fuzzer: file after file, each a byte that picks its name
// (modulo the number of names), a little-endian 16-bit length and the content. A length beyond the end
// takes what is there; a name that occurs again replaces the earlier file.
#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace zel::fuzz {

inline constexpr const char* kArchiveNames[] = {
    "config.json",
    "tokenizer.json",
    "tokenizer.model",
    "tokenizer_config.json",
    "special_tokens_map.json",
    "generation_config.json",
    "model.safetensors",
    "model-00001-of-00002.safetensors",
    "model-00002-of-00002.safetensors",
    "pytorch_model.bin",
    "README.md",
};
inline constexpr std::size_t kArchiveNameCount = std::size(kArchiveNames);

struct ArchivedFile {
  unsigned char name = 0;  // of kArchiveNames
  std::string content;
};

inline std::vector<ArchivedFile> unpackArchive(std::string_view bytes) {
  std::vector<ArchivedFile> files;
  while (bytes.size() >= 3) {
    const auto at = [&](std::size_t k) { return static_cast<unsigned char>(bytes[k]); };
    ArchivedFile file;
    file.name = static_cast<unsigned char>(at(0) % kArchiveNameCount);
    const std::size_t length = at(1) | std::size_t(at(2)) << 8;
    bytes.remove_prefix(3);
    file.content = bytes.substr(0, length);
    bytes.remove_prefix(file.content.size());
    files.push_back(std::move(file));
  }
  return files;
}

inline std::string packArchive(const std::vector<ArchivedFile>& files) {
  std::string out;
  for (const ArchivedFile& file : files) {
    const std::size_t length = file.content.size() < 0xFFFF ? file.content.size() : 0xFFFF;
    out += char(file.name);
    out += char(length & 0xFF);
    out += char(length >> 8);
    out.append(file.content, 0, length);
  }
  return out;
}

}  // namespace zel::fuzz
