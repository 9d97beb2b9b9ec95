// diff: what two containers do not have in common.
#include <fmt/format.h>

#include <map>

#include "okv2/commands.h"
#include "okv2/container_text.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/json_output.h"

namespace zel::tool {
namespace {

struct Difference {
  const char* part;  // "metadata", "tokenizer", ...
  std::string name;  // escaped
  std::string text;
};
using Differences = std::vector<Difference>;

// Items of one name answer to each other in their order.
template <class Item>
using ByName = std::map<std::string_view, std::vector<const Item*>>;

template <class Item, class Key>
ByName<Item> byName(const std::vector<Item>& items, Key key) {
  ByName<Item> out;
  for (const Item& item : items)
    out[key(item)].push_back(&item);
  return out;
}

template <class Item, class Key, class Compare>
void comparePart(const char* part, const std::vector<Item>& first, const std::vector<Item>& second, Key key,
                 Compare compare, Differences& out) {
  const ByName<Item> a = byName(first, key);
  const ByName<Item> b = byName(second, key);
  for (const auto& [name, items] : a) {
    const auto other = b.find(name);
    const std::size_t count = other == b.end() ? 0 : other->second.size();
    for (std::size_t k = 0; k < items.size(); ++k) {
      if (k >= count) {
        out.push_back({part, escaped(name), "only in the first"});
      } else if (const std::string text = compare(*items[k], *other->second[k]); !text.empty()) {
        out.push_back({part, escaped(name), text});
      }
    }
  }
  for (const auto& [name, items] : b) {
    const auto other = a.find(name);
    for (std::size_t k = other == a.end() ? 0 : other->second.size(); k < items.size(); ++k)
      out.push_back({part, escaped(name), "only in the second"});
  }
}

void compareHeaders(const ContainerView& a, const ContainerView& b, Differences& out) {
  const auto number = [&](const char* name, std::uint64_t x, std::uint64_t y) {
    if (x != y) out.push_back({"header", name, fmt::format("{} and {}", x, y)});
  };
  number("architecture id", a.archId, b.archId);
  number("hidden size", a.hiddenSize, b.hiddenSize);
  number("layers", a.numLayers, b.numLayers);
  number("vocabulary size", a.vocabSize, b.vocabSize);
}

std::string metaDifference(const MetaView& a, const MetaView& b) {
  if (a.type == b.type && a.value == b.value) return "";
  const auto x = describe(a), y = describe(b);
  return fmt::format("{} {} and {} {}", x.first, x.second, y.first, y.second);
}

void compareTexts(const char* name, const std::vector<std::string_view>& a,
                  const std::vector<std::string_view>& b, Differences& out) {
  if (a.size() != b.size()) {
    out.push_back({"tokenizer", name, fmt::format("{} and {}", a.size(), b.size())});
    return;
  }
  for (std::size_t k = 0; k < a.size(); ++k) {
    if (a[k] == b[k]) continue;
    out.push_back({"tokenizer", name,
                   fmt::format("the first difference is at {}: \"{}\" and \"{}\"", k, escapedCut(a[k], 60),
                               escapedCut(b[k], 60))});
    return;
  }
}

void compareTokenizers(const TokenizerView& a, const TokenizerView& b, Differences& out) {
  static constexpr const char* kIds[] = {"bos", "eos", "unk", "pad"};
  compareTexts("tokens", a.tokens, b.tokens, out);
  compareTexts("merges", a.merges, b.merges, out);
  if (a.scores != b.scores) out.push_back({"tokenizer", "scores", "differ"});
  if (a.types != b.types) out.push_back({"tokenizer", "types", "differ"});
  for (std::size_t k = 0; k < a.specialIds.size(); ++k) {
    if (a.specialIds[k] != b.specialIds[k])
      out.push_back({"tokenizer", kIds[k], fmt::format("{} and {}", a.specialIds[k], b.specialIds[k])});
  }
  if (a.addBos != b.addBos)
    out.push_back({"tokenizer", "add bos", fmt::format("{} and {}", a.addBos, b.addBos)});
  if (a.chatTemplate != b.chatTemplate) out.push_back({"tokenizer", "chat template", "differs"});
}

}  // namespace

int runDiff(const DiffOptions& options) {
  ContainerFile firstFile, secondFile;
  ContainerView a, b;
  if (const int code = readContainer(options.json, "diff", options.first, firstFile, a); code != kExitOk)
    return code;
  if (const int code = readContainer(options.json, "diff", options.second, secondFile, b); code != kExitOk) {
    return code;
  }
  Differences out;
  compareHeaders(a, b, out);
  comparePart(
      "metadata", a.metadata, b.metadata, [](const MetaView& item) { return item.key; }, metaDifference, out);
  compareTokenizers(a.tokenizer, b.tokenizer, out);
  if (a.chatTemplate != b.chatTemplate) {
    out.push_back(
        {"chat template", "", fmt::format("{} and {} bytes", a.chatTemplate.size(), b.chatTemplate.size())});
  }
  if (a.section(okv2::SectionType::Graph).bytes != b.section(okv2::SectionType::Graph).bytes)
    out.push_back({"graph", "", "differs"});
  const auto tensorDifference = [&](const TensorView& x, const TensorView& y) -> std::string {
    if (x.dtype != y.dtype) return fmt::format("{} and {}", dtypeName(x.dtype), dtypeName(y.dtype));
    if (shapeText(x) != shapeText(y)) return shapeText(x) + " and " + shapeText(y);
    if (x.size != y.size) return fmt::format("{} and {} bytes", x.size, y.size);
    return a.tensorData(x) == b.tensorData(y) ? "" : "the bytes differ";
  };
  comparePart(
      "tensor", a.tensors, b.tensors, [](const TensorView& tensor) { return tensor.name; }, tensorDifference,
      out);
  const int code = out.empty() ? kExitOk : kExitDifferent;
  if (options.json) {
    Json document = newDocument("diff");
    document["exit_code"] = code;
    document["differences"] = Json::array();
    for (const Difference& each : out)
      document["differences"].push_back({{"part", each.part}, {"name", each.name}, {"text", each.text}});
    print(document);
  } else {
    for (const Difference& each : out)
      fmt::print("{}{}{}: {}\n", each.part, each.name.empty() ? "" : " ", each.name, each.text);
  }
  return code;
}

}  // namespace zel::tool
