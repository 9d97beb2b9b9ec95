// list: what a container holds, as the independent reader sees it.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "okv2/commands.h"
#include "okv2/container_json.h"
#include "okv2/container_text.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/failure.h"

namespace zel::tool {
namespace {

using okv2::SectionType;

void printModelAndSections(const ContainerView& view) {
  fmt::print("OKV2 container, {} bytes\n", view.file.size());
  fmt::print("  architecture id {}, hidden size {}, layers {}, vocabulary size {}\n\n", view.archId,
             view.hiddenSize, view.numLayers, view.vocabSize);
  fmt::print("sections\n  {:<14} {:>16} {:>16}\n", "name", "offset", "size");
  for (const SectionType type : okv2::kFileOrder) {
    const SectionView& section = view.section(type);
    fmt::print("  {:<14} {:>16} {:>16}\n", sectionName(type), section.offset, section.size);
  }
}

void printMetadata(const ContainerView& view) {
  fmt::print("\nmetadata: {} items\n", view.metadata.size());
  for (const MetaView& item : view.metadata) {
    const auto [type, value] = describe(item);
    fmt::print("  {:<42} {:<6} {}\n", escaped(item.key), type, value);
  }
}

void printTokenizer(const ContainerView& view) {
  const TokenizerView& tokenizer = view.tokenizer;
  fmt::print("\ntokenizer: {} tokens, {} scores, {} types, {} merges\n", tokenizer.tokens.size(),
             tokenizer.scoreCount(), tokenizer.typeCount(), tokenizer.merges.size());
  fmt::print("  special ids: bos {}, eos {}, unk {}, pad {}; add bos: {}\n", tokenizer.specialIds[0],
             tokenizer.specialIds[1], tokenizer.specialIds[2], tokenizer.specialIds[3],
             tokenizer.addBos != 0 ? "yes" : "no");
  fmt::print("\nchat template: {} bytes; in the tokenizer section: {} bytes\n", view.chatTemplate.size(),
             tokenizer.chatTemplate.size());
}

void printTensors(const ContainerView& view) {
  fmt::print("\ntensors: {}\n  {:<48} {:<6} {:<20} {:>14} {:>16}\n", view.tensors.size(), "name", "type",
             "shape", "bytes", "file offset");
  const std::uint64_t weights = view.section(SectionType::Weights).offset;
  for (const TensorView& tensor : view.tensors) {
    fmt::print("  {:<48} {:<6} {:<20} {:>14} {:>16}\n", escaped(tensor.name), dtypeName(tensor.dtype),
               shapeText(tensor), tensor.size, weights + tensor.dataOffset);
  }
}

// The parts that the options ask for; all of them when they ask for none.
struct Parts {
  bool head, metadata, tokenizer, tensors;
};
Parts partsOf(const ListOptions& options) {
  const bool all = !options.tensors && !options.tokenizer;
  return {all, all, all || options.tokenizer, all || options.tensors};
}

void write(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

// Cells of a Markdown table end at a bar.
std::string cell(std::string_view text) {
  std::string out;
  for (const char c : escaped(text))
    out += c == '|' ? std::string("\\|") : std::string(1, c);
  return out;
}

void printMarkdown(const ListOptions& options, const ContainerView& view) {
  const Parts parts = partsOf(options);
  if (parts.head) {
    fmt::print("# {}\n\n{} bytes, {} tensors\n\n| Section | Offset | Size |\n|---|---:|---:|\n",
               cell(options.file), view.file.size(), view.tensors.size());
    for (const SectionType type : okv2::kFileOrder) {
      const SectionView& section = view.section(type);
      fmt::print("| {} | {} | {} |\n", sectionName(type), section.offset, section.size);
    }
  }
  if (parts.metadata) {
    fmt::print("\n| Key | Type | Value |\n|---|---|---|\n");
    for (const MetaView& item : view.metadata) {
      const auto [type, value] = describe(item);
      std::string shown;
      for (const char c : value)
        shown += c == '|' ? std::string("\\|") : std::string(1, c);
      fmt::print("| {} | {} | {} |\n", cell(item.key), type, shown);
    }
  }
  if (parts.tokenizer) {
    const TokenizerView& tokenizer = view.tokenizer;
    fmt::print("\nTokenizer: {} tokens, {} scores, {} types, {} merges; bos {}, eos {}, unk {}, pad {}\n",
               tokenizer.tokens.size(), tokenizer.scoreCount(), tokenizer.typeCount(),
               tokenizer.merges.size(), tokenizer.specialIds[0], tokenizer.specialIds[1],
               tokenizer.specialIds[2], tokenizer.specialIds[3]);
  }
  if (!parts.tensors) return;
  fmt::print("\n| Tensor | Type | Shape | Bytes |\n|---|---|---|---:|\n");
  for (const TensorView& tensor : view.tensors) {
    fmt::print("| {} | {} | {} | {} |\n", cell(tensor.name), dtypeName(tensor.dtype), shapeText(tensor),
               tensor.size);
  }
}

void printText(const ListOptions& options, const ContainerView& view) {
  const Parts parts = partsOf(options);
  if (parts.head) printModelAndSections(view);
  if (parts.metadata) printMetadata(view);
  if (parts.tokenizer) printTokenizer(view);
  if (parts.tensors) printTensors(view);
}

// One item's value: texts as they are, for pipes; every item of the key, each on a line of its own.
int printMeta(const ListOptions& options, const ContainerView& view) {
  Json values = Json::array();
  for (const MetaView& item : view.metadata) {
    if (item.key != options.meta) continue;
    values.push_back(metaJson(item));
    if (options.json) continue;
    if (item.type == okv2::MetaType::Str) {
      write(item.value);
      write("\n");
    } else {
      fmt::print("{}\n", metaJson(item)["value"].dump());
    }
  }
  if (values.empty()) {
    return fail(options.json, "list", kExitInvalid,
                fmt::format("{}: no metadata item {}", escaped(options.file), escaped(options.meta)));
  }
  if (options.json) {
    Json document = newDocument("list");
    document["metadata"] = std::move(values);
    print(document);
  }
  return kExitOk;
}

int printTemplate(const ListOptions& options, const ContainerView& view) {
  if (options.json) {
    Json document = newDocument("list");
    document["chat_template"] = view.chatTemplate;
    print(document);
  } else {
    write(view.chatTemplate);
  }
  return kExitOk;
}

}  // namespace

int runList(const ListOptions& options) {
  ContainerFile file;
  ContainerView view;
  if (const int code = readContainer(options.json, "list", options.file, file, view); code != kExitOk) {
    return code;
  }
  if (options.onlyMeta) return printMeta(options, view);
  if (options.chatTemplate) return printTemplate(options, view);
  if (options.json) {
    const Parts parts = partsOf(options);
    print(containerJson(view, {parts.head, parts.metadata, parts.tokenizer, parts.tensors}));
  } else if (options.markdown) {
    printMarkdown(options, view);
  } else {
    printText(options, view);
  }
  return kExitOk;
}

}  // namespace zel::tool
