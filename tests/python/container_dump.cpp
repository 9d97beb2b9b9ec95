// container_dump FILE: everything that the C++ reader finds in a container, as one JSON document for the
// tests of okv2.py. Texts and bytes are given in hexadecimal, floats by their bits, so that nothing is lost.
// Exit code 8 when the container does not verify.
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "okv2/container_file.h"
#include "okv2/container_reader.h"

namespace {

using nlohmann::json;
using zel::okv2::MetaType;
using zel::okv2::SectionType;

std::string hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * bytes.size());
  for (const char byte : bytes) {
    out += kDigits[static_cast<unsigned char>(byte) >> 4];
    out += kDigits[static_cast<unsigned char>(byte) & 15];
  }
  return out;
}

template <typename List>
json hexList(const List& texts) {
  json out = json::array();
  for (const auto& text : texts)
    out.push_back(hex(text));
  return out;
}

json metaItem(const zel::tool::MetaView& item) {
  static constexpr const char* kTypes[] = {"u32", "i32", "f32", "u64", "string", "u32[]"};
  json value;
  switch (item.type) {
    case MetaType::U32: value = item.u32(); break;
    case MetaType::I32: value = item.i32(); break;
    case MetaType::F32: value = item.u32(); break;
    case MetaType::U64: value = item.u64(); break;
    case MetaType::Str: value = hex(item.value); break;
    case MetaType::U32Array: value = hex(item.value); break;
  }
  return {{"key", hex(item.key)}, {"type", kTypes[static_cast<int>(item.type)]}, {"value", value}};
}

json tensor(const zel::tool::ContainerView& view, const zel::tool::TensorView& tensor) {
  json shape = json::array();
  for (std::uint16_t k = 0; k < tensor.ndim; ++k)
    shape.push_back(tensor.dims[k]);
  return {{"name", hex(tensor.name)},
          {"name_bytes", tensor.fullNameBytes},
          {"dtype", tensor.dtype},
          {"dtype_name", zel::tool::dtypeName(tensor.dtype)},
          {"shape", shape},
          {"file_offset", view.section(SectionType::Weights).offset + tensor.dataOffset},
          {"data", hex(view.tensorData(tensor))}};
}

json dump(const zel::tool::ContainerView& view) {
  json metadata = json::array(), tensors = json::array();
  for (const auto& item : view.metadata)
    metadata.push_back(metaItem(item));
  for (const auto& entry : view.tensors)
    tensors.push_back(tensor(view, entry));
  const zel::tool::TokenizerView& tokenizer = view.tokenizer;
  return {{"model", {view.archId, view.hiddenSize, view.numLayers, view.vocabSize}},
          {"metadata", metadata},
          {"tokens", hexList(tokenizer.tokens)},
          {"scores", hex(tokenizer.scores)},
          {"types", hex(tokenizer.types)},
          {"merges", hexList(tokenizer.merges)},
          {"ids", tokenizer.specialIds},
          {"add_bos", tokenizer.addBos},
          {"tokenizer_template", hex(tokenizer.chatTemplate)},
          {"template", hex(view.chatTemplate)},
          {"graph", hex(view.section(SectionType::Graph).bytes)},
          {"tensors", tensors}};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 64;
  zel::tool::ContainerFile file;
  std::string reason;
  if (file.open(argv[1], reason) != zel::tool::ContainerFile::Result::Ok) {
    std::fprintf(stderr, "%s\n", reason.c_str());
    return 6;
  }
  zel::tool::ContainerView view;
  if (!zel::tool::verifyContainer(file.bytes(), view)) return 8;
  std::printf("%s\n", dump(view).dump().c_str());
  return 0;
}
