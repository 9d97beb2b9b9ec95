// The globals that a checkpoint may name.
#pragma once

#include <cstdint>
#include <string_view>

#include "okv2/prepare/element_type.h"

namespace zel::tool::prepare {

enum class PickleRole : std::uint8_t {
  OrderedDict,
  RebuildTensor,      // (storage, offset, size, stride, ...)
  RebuildTyped,       // the same with the element type as the seventh argument
  RebuildParameter,   // (tensor, ...): the tensor
  StorageType,        // the second item of a persistent id
  ElementTypeObject,  // torch.float32 and the like
  Size,               // a tuple
  ArrayClass,         // numpy.ndarray
  ArrayMaker,         // (class, ...): an array that its state will fill
  ArrayFromBuffer,    // (bytes, number type, shape, order): an array
  NumberType,         // ("f4", ...): numpy.dtype
  Encode,             // (text, "latin1"): bytes
  BytesClass,         // (): no bytes
  Inert,
};

struct PickleGlobal {
  std::string_view module;
  std::string_view name;
  PickleRole role;
  std::string_view type;  // of StorageType and ElementTypeObject: a row of kElementTypes
};

// Null when it is not on the list.
[[nodiscard]] const PickleGlobal* findPickleGlobal(std::string_view module, std::string_view name) noexcept;

}  // namespace zel::tool::prepare
