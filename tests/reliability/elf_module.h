// What a 64-bit ELF file says of itself, as far as the tests of the built module ask.
#pragma once

#include <elf.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace zel::test {

class ElfModule {
 public:
  explicit ElfModule(const std::string& path) : bytes_(readWholeFile(path)) {
    const auto header = at<Elf64_Ehdr>(0);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) throw std::runtime_error("not ELF: " + path);
    for (unsigned k = 0; k < header.e_phnum; ++k)
      segments_.push_back(at<Elf64_Phdr>(header.e_phoff + k * sizeof(Elf64_Phdr)));
    for (unsigned k = 0; k < header.e_shnum; ++k)
      sections_.push_back(at<Elf64_Shdr>(header.e_shoff + k * sizeof(Elf64_Shdr)));
  }

  // The first program header of this type.
  [[nodiscard]] std::optional<Elf64_Phdr> segment(std::uint32_t type) const {
    for (const Elf64_Phdr& each : segments_) {
      if (each.p_type == type) return each;
    }
    return std::nullopt;
  }

  template <class Predicate>
  [[nodiscard]] bool everySegment(std::uint32_t type, Predicate holds) const {
    for (const Elf64_Phdr& each : segments_) {
      if (each.p_type == type && !holds(each)) return false;
    }
    return true;
  }

  // The value of this tag in the dynamic section.
  [[nodiscard]] std::optional<std::uint64_t> dynamic(std::int64_t tag) const {
    for (const Elf64_Shdr& section : sections_) {
      if (section.sh_type != SHT_DYNAMIC) continue;
      for (std::uint64_t k = 0; k < section.sh_size / sizeof(Elf64_Dyn); ++k) {
        const auto entry = at<Elf64_Dyn>(section.sh_offset + k * sizeof(Elf64_Dyn));
        if (entry.d_tag == tag) return entry.d_un.d_val;
      }
    }
    return std::nullopt;
  }

  // The names that the dynamic linker has to find elsewhere.
  [[nodiscard]] std::vector<std::string> imports() const {
    std::vector<std::string> names;
    for (const Elf64_Shdr& section : sections_) {
      if (section.sh_type != SHT_DYNSYM) continue;
      const std::uint64_t strings = sections_.at(section.sh_link).sh_offset;
      for (std::uint64_t k = 1; k < section.sh_size / sizeof(Elf64_Sym); ++k) {
        const auto symbol = at<Elf64_Sym>(section.sh_offset + k * sizeof(Elf64_Sym));
        if (symbol.st_shndx == SHN_UNDEF) names.emplace_back(bytes_.data() + strings + symbol.st_name);
      }
    }
    return names;
  }

 private:
  template <class Record>
  [[nodiscard]] Record at(std::uint64_t offset) const {
    if (offset > bytes_.size() || sizeof(Record) > bytes_.size() - offset) {
      throw std::runtime_error("ELF record outside the file");
    }
    Record record;
    std::memcpy(&record, bytes_.data() + offset, sizeof record);
    return record;
  }

  std::string bytes_;
  std::vector<Elf64_Phdr> segments_;
  std::vector<Elf64_Shdr> sections_;
};

}  // namespace zel::test
