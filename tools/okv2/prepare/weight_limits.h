// How much a description of weights may say. Memory is in proportion to it, about a kilobyte a tensor; the
// largest published models have some 140,000 tensors in more than sixty files.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::tool::prepare {

inline constexpr std::size_t kMaxFileTensors = std::size_t{1} << 17;
inline constexpr std::size_t kMaxModelTensors = std::size_t{1} << 18;
inline constexpr std::uint64_t kMaxIndexBytes = std::uint64_t{32} << 20;
inline constexpr std::uint64_t kMaxSafetensorsHeaderBytes = 100'000'000;  // as the safetensors library has it

}  // namespace zel::tool::prepare
