#include "okv2/prepare/torch_globals.h"

namespace zel::tool::prepare {
namespace {

using Role = PickleRole;

// torch/_utils.py, torch/storage.py and torch/serialization.py of PyTorch. Arrays: core/numeric.py and
// core/src/multiarray/methods.c and descriptor.c of numpy, whose 2.0 renamed core, and pickle.py of CPython.
// The inert ones are what training programs keep beside the weights.
constexpr PickleGlobal kGlobals[] = {
    {"collections", "OrderedDict", Role::OrderedDict, ""},
    {"torch._utils", "_rebuild_tensor", Role::RebuildTensor, ""},
    {"torch._utils", "_rebuild_tensor_v2", Role::RebuildTensor, ""},
    {"torch._utils", "_rebuild_tensor_v3", Role::RebuildTyped, ""},
    {"torch._utils", "_rebuild_parameter", Role::RebuildParameter, ""},
    {"torch._utils", "_rebuild_parameter_with_state", Role::RebuildParameter, ""},
    {"torch", "FloatStorage", Role::StorageType, "F32"},
    {"torch", "HalfStorage", Role::StorageType, "F16"},
    {"torch", "BFloat16Storage", Role::StorageType, "BF16"},
    {"torch", "DoubleStorage", Role::StorageType, "F64"},
    {"torch", "LongStorage", Role::StorageType, "I64"},
    {"torch", "IntStorage", Role::StorageType, "I32"},
    {"torch", "ShortStorage", Role::StorageType, "I16"},
    {"torch", "CharStorage", Role::StorageType, "I8"},
    {"torch", "ByteStorage", Role::StorageType, "U8"},
    {"torch", "BoolStorage", Role::StorageType, "BOOL"},
    {"torch", "ComplexFloatStorage", Role::StorageType, "C64"},
    {"torch", "ComplexDoubleStorage", Role::StorageType, "C128"},
    {"torch", "UntypedStorage", Role::StorageType, "U8"},
    {"torch.storage", "UntypedStorage", Role::StorageType, "U8"},
    {"torch.storage", "_UntypedStorage", Role::StorageType, "U8"},
    {"torch", "float32", Role::ElementTypeObject, "F32"},
    {"torch", "float16", Role::ElementTypeObject, "F16"},
    {"torch", "bfloat16", Role::ElementTypeObject, "BF16"},
    {"torch", "float64", Role::ElementTypeObject, "F64"},
    {"torch", "int64", Role::ElementTypeObject, "I64"},
    {"torch", "int32", Role::ElementTypeObject, "I32"},
    {"torch", "int16", Role::ElementTypeObject, "I16"},
    {"torch", "int8", Role::ElementTypeObject, "I8"},
    {"torch", "uint64", Role::ElementTypeObject, "U64"},
    {"torch", "uint32", Role::ElementTypeObject, "U32"},
    {"torch", "uint16", Role::ElementTypeObject, "U16"},
    {"torch", "uint8", Role::ElementTypeObject, "U8"},
    {"torch", "bool", Role::ElementTypeObject, "BOOL"},
    {"torch", "float8_e4m3fn", Role::ElementTypeObject, "F8_E4M3"},
    {"torch", "float8_e5m2", Role::ElementTypeObject, "F8_E5M2"},
    {"torch", "complex64", Role::ElementTypeObject, "C64"},
    {"torch", "complex128", Role::ElementTypeObject, "C128"},
    {"torch", "Size", Role::Size, ""},
    {"numpy", "ndarray", Role::ArrayClass, ""},
    {"numpy", "dtype", Role::NumberType, ""},
    {"numpy.core.multiarray", "_reconstruct", Role::ArrayMaker, ""},
    {"numpy._core.multiarray", "_reconstruct", Role::ArrayMaker, ""},
    {"numpy.core.numeric", "_frombuffer", Role::ArrayFromBuffer, ""},
    {"numpy._core.numeric", "_frombuffer", Role::ArrayFromBuffer, ""},
    {"_codecs", "encode", Role::Encode, ""},
    {"builtins", "bytes", Role::BytesClass, ""},
    {"__builtin__", "bytes", Role::BytesClass, ""},
    {"numpy.core.multiarray", "scalar", Role::Inert, ""},
    {"numpy._core.multiarray", "scalar", Role::Inert, ""},
    {"torch", "device", Role::Inert, ""},
    {"argparse", "Namespace", Role::Inert, ""},
    {"collections", "defaultdict", Role::Inert, ""},
    {"builtins", "dict", Role::Inert, ""},
    {"builtins", "set", Role::Inert, ""},
    {"__builtin__", "dict", Role::Inert, ""},
    {"__builtin__", "set", Role::Inert, ""},
};

constexpr bool typesAreKnown() {
  for (const PickleGlobal& row : kGlobals) {
    if (row.type.empty()) continue;
    const ElementType* type = findElementType(row.type);
    if (type == nullptr || type->bytes == 0) return false;
  }
  return true;
}
static_assert(typesAreKnown());

}  // namespace

const PickleGlobal* findPickleGlobal(std::string_view module, std::string_view name) noexcept {
  for (const PickleGlobal& row : kGlobals) {
    if (row.module == module && row.name == name) return &row;
  }
  return nullptr;
}

}  // namespace zel::tool::prepare
