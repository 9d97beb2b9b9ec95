#include "okv2/container_compare.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "okv2/container_text.h"
#include "okv2/escape.h"

namespace zel::tool {
namespace {

using okv2::MetaType;

constexpr std::size_t kShownBytes = 60;
constexpr std::size_t kBytesBefore = 20;      // shown before the first difference of long texts
constexpr std::size_t kLongestCharacter = 4;  // in UTF-8

// Items of one name, in their order.
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
                 Compare compare, const DifferenceWords& words, Differences& out) {
  const ByName<Item> a = byName(first, key);
  const ByName<Item> b = byName(second, key);
  for (const auto& [name, items] : a) {
    const auto other = b.find(name);
    const std::size_t count = other == b.end() ? 0 : other->second.size();
    for (std::size_t k = 0; k < items.size(); ++k) {
      if (k >= count) {
        out.push_back({part, escaped(name), words.onlyInFirst});
      } else if (const std::string text = compare(*items[k], *other->second[k]); !text.empty()) {
        out.push_back({part, escaped(name), text});
      }
    }
  }
  for (const auto& [name, items] : b) {
    const auto other = a.find(name);
    for (std::size_t k = other == a.end() ? 0 : other->second.size(); k < items.size(); ++k)
      out.push_back({part, escaped(name), words.onlyInSecond});
  }
}

std::size_t firstDifference(std::string_view a, std::string_view b) {
  const auto [x, y] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  return static_cast<std::size_t>(x - a.begin());
}

bool continuesACharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

std::string shownFrom(std::string_view text, std::size_t begin) {
  const bool isCut = begin > 0 || text.size() > kShownBytes;
  return fmt::format("\"{}{}\"{}", begin > 0 ? "..." : "", escapedCut(text.substr(begin), kShownBytes),
                     isCut ? fmt::format(" ({} bytes)", text.size()) : "");
}

// Little-endian values of four bytes, at the first position where they differ.
struct Values {
  std::size_t position = 0;
  MetaView a, b;
};
Values firstDifferentValues(std::string_view a, std::string_view b, MetaType type) {
  Values out;
  out.position = firstDifference(a, b) / 4;
  out.a.type = out.b.type = type;
  out.a.value = a.substr(out.position * 4, 4);
  out.b.value = b.substr(out.position * 4, 4);
  return out;
}

// Two numbers of one type. Not-a-numbers may look alike and have other bits.
std::string numbersApart(const MetaView& a, const MetaView& b, const char* between) {
  const std::string x = describe(a).second, y = describe(b).second;
  if (x != y) return x + between + y;
  return fmt::format("bits 0x{:08X}{}0x{:08X}", a.u32(), between, b.u32());
}

std::string metaDifference(const MetaView& a, const MetaView& b, const DifferenceWords& words) {
  if (a.type == b.type && a.value == b.value) return "";
  const auto [typeA, x] = describe(a);
  const auto [typeB, y] = describe(b);
  if (a.type != b.type) return fmt::format("{} {}{}{} {}", typeA, x, words.between, typeB, y);
  if (a.type == MetaType::Str) {
    const auto [p, q] = shownApart(a.value, b.value);
    return fmt::format("{} {}{}{} {}", typeA, p, words.between, typeB, q);
  }
  if (x != y) return fmt::format("{} {}{}{} {}", typeA, x, words.between, typeB, y);
  // Arrays that differ behind the values that are shown, or numbers that look alike.
  if (a.type != MetaType::U32Array) return fmt::format("{} {}", typeA, numbersApart(a, b, words.between));
  const Values values = firstDifferentValues(a.value, b.value, MetaType::U32);
  return fmt::format("{} of {} values, the first difference is at {}: {}", typeA, a.arraySize(),
                     values.position, numbersApart(values.a, values.b, words.between));
}

class TokenizerComparison {
 public:
  TokenizerComparison(const DifferenceWords& words, Differences& out) : words_(words), out_(out) {}

  void texts(const char* name, const std::vector<std::string_view>& a,
             const std::vector<std::string_view>& b) {
    if (a.size() != b.size()) return numbers(name, a.size(), b.size());
    const auto [x, y] = std::mismatch(a.begin(), a.end(), b.begin());
    if (x == a.end()) return;
    const auto [p, q] = shownApart(*x, *y);
    add(name, fmt::format("the first difference is at {}: {}{}{}", x - a.begin(), p, words_.between, q));
  }

  void values(const char* name, std::string_view a, std::string_view b, MetaType type) {
    if (a.size() != b.size()) return numbers(name, a.size() / 4, b.size() / 4);
    if (a == b) return;
    const Values values = firstDifferentValues(a, b, type);
    add(name, fmt::format("the first difference is at {}: {}", values.position,
                          numbersApart(values.a, values.b, words_.between)));
  }

  template <class Number>
  void numbers(const char* name, Number a, Number b) {
    if (a != b) add(name, fmt::format("{}{}{}", a, words_.between, b));
  }

  void text(const char* name, std::string_view a, std::string_view b) {
    if (a == b) return;
    const auto [p, q] = shownApart(a, b);
    add(name, p + words_.between + q);
  }

 private:
  void add(const char* name, std::string text) { out_.push_back({"tokenizer", name, std::move(text)}); }

  const DifferenceWords& words_;
  Differences& out_;
};

void compareTokenizers(const TokenizerView& a, const TokenizerView& b, const DifferenceWords& words,
                       Differences& out) {
  static constexpr const char* kIds[] = {"bos", "eos", "unk", "pad"};
  TokenizerComparison compare(words, out);
  compare.texts("tokens", a.tokens, b.tokens);
  compare.texts("merges", a.merges, b.merges);
  compare.values("scores", a.scores, b.scores, MetaType::F32);
  compare.values("types", a.types, b.types, MetaType::U32);
  for (std::size_t k = 0; k < a.specialIds.size(); ++k)
    compare.numbers(kIds[k], a.specialIds[k], b.specialIds[k]);
  compare.numbers("add bos", a.addBos, b.addBos);
  compare.text("chat template", a.chatTemplate, b.chatTemplate);
}

void compareHeaders(const ContainerView& a, const ContainerView& b, const DifferenceWords& words,
                    Differences& out) {
  const auto number = [&](const char* name, std::uint64_t x, std::uint64_t y) {
    if (x != y) out.push_back({"header", name, fmt::format("{}{}{}", x, words.between, y)});
  };
  number("architecture id", a.archId, b.archId);
  number("hidden size", a.hiddenSize, b.hiddenSize);
  number("layers", a.numLayers, b.numLayers);
  number("vocabulary size", a.vocabSize, b.vocabSize);
}

}  // namespace

std::string lineOf(const Difference& difference) {
  return fmt::format("{}{}{}: {}", difference.part, difference.name.empty() ? "" : " ", difference.name,
                     difference.text);
}

std::pair<std::string, std::string> shownApart(std::string_view a, std::string_view b) {
  const std::size_t differsAt = firstDifference(a, b);
  std::size_t begin = 0;
  if (differsAt + kLongestCharacter > kShownBytes) {
    begin = differsAt - kBytesBefore;
    // Not from the middle of a character, where the text is UTF-8 at all.
    for (std::size_t k = 1; k < kLongestCharacter && continuesACharacter(a[begin]); ++k)
      --begin;
  }
  return {shownFrom(a, begin), shownFrom(b, begin)};
}

void compareDescriptions(const ContainerView& a, const ContainerView& b, const DifferenceWords& words,
                         Differences& out) {
  compareHeaders(a, b, words, out);
  const auto metaText = [&words](const MetaView& x, const MetaView& y) {
    return metaDifference(x, y, words);
  };
  comparePart(
      "metadata", a.metadata, b.metadata, [](const MetaView& item) { return item.key; }, metaText, words,
      out);
  compareTokenizers(a.tokenizer, b.tokenizer, words, out);
  if (a.chatTemplate != b.chatTemplate) {
    const auto [x, y] = shownApart(a.chatTemplate, b.chatTemplate);
    out.push_back({"chat template", "", x + words.between + y});
  }
  const std::string_view graphA = a.section(okv2::SectionType::Graph).bytes;
  const std::string_view graphB = b.section(okv2::SectionType::Graph).bytes;
  if (graphA != graphB) {
    const auto [x, y] = shownApart(graphA, graphB);
    out.push_back({"graph", "", x + words.between + y});
  }
}

void compareTensors(const ContainerView& a, const ContainerView& b, const DifferenceWords& words,
                    Differences& out) {
  const auto difference = [&](const TensorView& x, const TensorView& y) -> std::string {
    const auto pair = [&](const auto& first, const auto& second, const char* unit) {
      return fmt::format("{}{}{}{}", first, words.between, second, unit);
    };
    // What the container has cut off a name is known by its length only.
    if (x.fullNameBytes != y.fullNameBytes)
      return "name of " + pair(x.fullNameBytes, y.fullNameBytes, " bytes before it was cut");
    if (x.dtype != y.dtype) return pair(dtypeName(x.dtype), dtypeName(y.dtype), "");
    if (shapeText(x) != shapeText(y)) return pair(shapeText(x), shapeText(y), "");
    if (x.size != y.size) return pair(x.size, y.size, " bytes");
    return a.tensorData(x) == b.tensorData(y) ? "" : "the bytes differ";
  };
  comparePart(
      "tensor", a.tensors, b.tensors, [](const TensorView& tensor) { return tensor.name; }, difference, words,
      out);
}

}  // namespace zel::tool
