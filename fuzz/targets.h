// The harnesses by name: what checks an input, how an input is best mutated, and what it is made from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "promises/promises.h"

namespace zel::fuzz {

// Changes the first `size` of `capacity` bytes and returns the new size: libFuzzer's own, or the plain
// main's.
using MutateBytes = std::size_t (*)(std::uint8_t* data, std::size_t size, std::size_t capacity);

// Mutates a part of an input and puts lengths, offsets and the like right again, most of the time; an empty
// result asks for a plain mutation instead. `choice` decides what is done.
std::string mutateSafetensors(std::string_view input, unsigned choice, MutateBytes mutate);
std::string mutatePyTorch(std::string_view input, unsigned choice, MutateBytes mutate);
std::string mutateTokenizerModel(std::string_view input, unsigned choice, MutateBytes mutate);
std::string mutateDirectory(std::string_view input, unsigned choice, MutateBytes mutate);
inline std::string noMutation(std::string_view, unsigned, MutateBytes) { return {}; }

}  // namespace zel::fuzz
