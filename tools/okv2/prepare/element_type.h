// Element types as weight files name them.
#pragma once

#include <cstdint>
#include <iterator>
#include <string_view>

namespace zel::tool::prepare {

enum class Carried : std::uint8_t {
  Yes,           // the container has a code for it
  AsF32,         // by --cast
  IntegerAsF32,  // by --cast-integers
  No,            // only --drop helps
};

struct ElementType {
  std::string_view name;  // as a safetensors header spells it
  std::uint32_t bytes;    // of one element; 0 where elements lie in blocks
  Carried carried;
};

// The names of the safetensors format, and C128 and the like for what torch has and that format has not.
inline constexpr ElementType kElementTypes[] = {
    {"F32", 4, Carried::Yes},          {"F16", 2, Carried::Yes},
    {"BF16", 2, Carried::Yes},         {"Q4_K", 0, Carried::Yes},
    {"Q5_K", 0, Carried::Yes},         {"Q6_K", 0, Carried::Yes},
    {"F64", 8, Carried::AsF32},        {"I64", 8, Carried::IntegerAsF32},
    {"I32", 4, Carried::IntegerAsF32}, {"I16", 2, Carried::IntegerAsF32},
    {"I8", 1, Carried::IntegerAsF32},  {"U64", 8, Carried::IntegerAsF32},
    {"U32", 4, Carried::IntegerAsF32}, {"U16", 2, Carried::IntegerAsF32},
    {"U8", 1, Carried::IntegerAsF32},  {"BOOL", 1, Carried::IntegerAsF32},
    {"F8_E4M3", 1, Carried::No},       {"F8_E5M2", 1, Carried::No},
    {"C64", 8, Carried::No},           {"C128", 16, Carried::No},
};

// Null for a name that is not in the table.
[[nodiscard]] constexpr const ElementType* findElementType(std::string_view name) noexcept {
  for (const ElementType& type : kElementTypes) {
    if (type.name == name) return &type;
  }
  return nullptr;
}

}  // namespace zel::tool::prepare
