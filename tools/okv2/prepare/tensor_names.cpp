#include "okv2/prepare/tensor_names.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <set>
#include <span>
#include <utility>

#include "container/okv2_format.h"
#include "convert/name_mapping.h"
#include "okv2/prepare/tensor_names_table.h"

namespace zel::tool::prepare {
namespace {

constexpr std::string_view kLayerPrefixes[] = {"model.layers.", "transformer.h."};

// Gemma's layers since Gemma 2 have a norm behind attention and another before the feed-forward
// (transformers, modeling_gemma2.py, Gemma2DecoderLayer). The mapping tells them apart for architectures
// whose name begins with "gemma", and models around such a text model have another.
constexpr std::string_view kGemmaFamilies[] = {"gemma", "Gemma"};
constexpr std::string_view kBehindAttention = "post_attention_layernorm.weight";
constexpr std::string_view kBeforeFeedForward = "pre_feedforward_layernorm.weight";

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::string replaced(const std::string& name, const PrefixChange& change) {
  return std::string(change.to) + name.substr(change.from.size());
}

void removeWrappers(std::vector<std::string>& names) {
  for (bool again = !names.empty(); again;) {
    again = false;
    for (const Wrapper& row : kWrappers) {
      const bool all = std::all_of(names.begin(), names.end(), [&](const std::string& name) {
        return name.starts_with(row.prefix) && name.size() > row.prefix.size();
      });
      if (!all) continue;
      for (std::string& name : names)
        name.erase(0, row.prefix.size());
      again = true;
    }
  }
}

// What follows the layer's number; empty for other names.
std::string_view suffixOf(std::string_view name) {
  for (const std::string_view prefix : kLayerPrefixes) {
    if (!name.starts_with(prefix)) continue;
    const std::size_t end = name.find_first_not_of("0123456789", prefix.size());
    if (end == std::string_view::npos || end == prefix.size() || name[end] != '.') return {};
    return name.substr(end + 1);
  }
  return {};
}

// Null when the table has no row for it.
const Spelling* findSpelling(std::span<const Spelling> table, std::string_view name) {
  const auto row =
      std::find_if(table.begin(), table.end(), [&](const Spelling& s) { return s.from == name; });
  return row == table.end() ? nullptr : &*row;
}

// The tables that hold for models of one kind.
class Spellings {
 public:
  explicit Spellings(const ModelKind& kind) {
    for (const SpellingTable& table : kSpellings) {
      if (!kind.isOneOf(table.families) && !kind.isExactly(table.types)) continue;
      if (!table.normsFirst || kind.normsFirst) tables_.push_back(&table);
    }
  }

  [[nodiscard]] std::string spell(std::string name) const {
    for (const SpellingTable* table : tables_) {
      const std::string_view suffix = suffixOf(name);
      if (const Spelling* row = findSpelling(table->wholeNames, name); row != nullptr) {
        name = row->to;
      } else if (row = findSpelling(table->suffixes, suffix); row != nullptr) {
        name.replace(name.size() - suffix.size(), suffix.size(), row->to);
      }
    }
    return name;
  }

 private:
  std::vector<const SpellingTable*> tables_;
};

bool ruleHolds(const PrefixRule& rule, const ModelKind& kind, const Spellings& spellings,
               const std::vector<std::string>& names) {
  if (!rule.types.empty() && !kind.isExactly(rule.types)) return false;
  const PrefixChange& first = rule.changes[0];
  return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
    return name.starts_with(first.from) && !mappingKnows(name) &&
           mappingKnows(spellings.spell(replaced(name, first)));
  });
}

// Whether each name was changed.
std::vector<bool> changePrefixes(const ModelKind& kind, const Spellings& spellings,
                                 std::vector<std::string>& names) {
  std::vector<bool> changed(names.size(), false);
  for (const PrefixRule& rule : kPrefixRules) {
    if (!ruleHolds(rule, kind, spellings, names)) continue;
    for (std::size_t k = 0; k < names.size(); ++k) {
      for (const PrefixChange& change : rule.changes) {
        if (change.from.empty() || !names[k].starts_with(change.from)) continue;
        names[k] = replaced(names[k], change);
        changed[k] = true;
        break;
      }
    }
  }
  return changed;
}

// Whether each name was changed.
std::vector<bool> nameGemmaNorms(const ModelKind& kind, std::vector<std::string>& names) {
  std::vector<bool> changed(names.size(), false);
  if (!kind.isOneOf(kGemmaFamilies) || kind.architecture.starts_with("gemma")) return changed;
  std::set<std::string> layers;  // that have both norms
  for (const std::string& name : names) {
    if (suffixOf(name) == kBeforeFeedForward)
      layers.insert(name.substr(0, name.size() - kBeforeFeedForward.size()));
  }
  for (std::size_t k = 0; k < names.size(); ++k) {
    if (suffixOf(names[k]) != kBehindAttention ||
        layers.count(names[k].substr(0, names[k].size() - kBehindAttention.size())) == 0) {
      continue;
    }
    names[k] = adapter::toOkvName("gemma2", names[k]).name;
    changed[k] = true;
  }
  return changed;
}

}  // namespace

bool mappingKnows(const std::string& name) {
  const adapter::MappedName mapped = adapter::toOkvName("", name);
  if (!mapped.slices.empty()) return true;
  if (mapped.name == name) return false;
  constexpr std::string_view kLayer = "blk.";
  if (!mapped.name.starts_with(kLayer)) return true;
  const std::string_view suffix =
      std::string_view(mapped.name).substr(mapped.name.find('.', kLayer.size()) + 1);
  if (!endsWith(name, "." + std::string(suffix))) return true;
  return std::find(std::begin(kSameSuffixes), std::end(kSameSuffixes), suffix) != std::end(kSameSuffixes);
}

bool isContainerName(std::string_view stored) {
  constexpr std::string_view kLayer = "blk.";
  if (!stored.starts_with(kLayer)) {
    return std::find(std::begin(kContainerNames), std::end(kContainerNames), stored) !=
           std::end(kContainerNames);
  }
  const std::size_t end = stored.find_first_not_of("0123456789", kLayer.size());
  if (end == std::string_view::npos || end == kLayer.size() || stored[end] != '.') return false;
  return std::find(std::begin(kContainerSuffixes), std::end(kContainerSuffixes), stored.substr(end + 1)) !=
         std::end(kContainerSuffixes);
}

bool isFusedName(std::string_view name) {
  while (!name.empty()) {
    const std::string_view part = name.substr(0, name.find('.'));
    if (std::find(std::begin(kFusedParts), std::end(kFusedParts), part) != std::end(kFusedParts)) return true;
    name.remove_prefix(std::min(part.size() + 1, name.size()));
  }
  return false;
}

std::vector<KnownName> bringToKnownNames(const std::vector<std::string>& published, const ModelKind& kind) {
  std::vector<std::string> names = published;
  removeWrappers(names);
  const Spellings spellings(kind);
  const std::vector<bool> inGroup = changePrefixes(kind, spellings, names);
  for (std::string& name : names)
    name = spellings.spell(std::move(name));
  const std::vector<bool> isOwn = nameGemmaNorms(kind, names);
  std::vector<KnownName> out(names.size());
  for (std::size_t k = 0; k < names.size(); ++k) {
    if (names[k] != published[k]) {
      out[k].reason = isOwn[k]                 ? NameReason::Own
                      : mappingKnows(names[k]) ? NameReason::Known
                      : inGroup[k]             ? NameReason::Group
                                               : NameReason::Wrapper;
    }
    out[k].name = std::move(names[k]);
  }
  return out;
}

const char* nameReasonText(NameReason reason) noexcept {
  switch (reason) {
    case NameReason::Same: break;
    case NameReason::Known: return "The name mapping knows the tensor by this name.";
    case NameReason::Group:
      return "The name mapping knows others by this prefix; this tensor is in no table.";
    case NameReason::Wrapper: return "The prefix is that of a wrapper; the tensor is in no table.";
    case NameReason::Own: return "The name mapping would take the tensor for another norm of its layer.";
  }
  return "It is as published.";
}

bool isOtherTower(std::string_view published) {
  for (const Wrapper& row : kWrappers) {
    if (published.starts_with(row.prefix)) published.remove_prefix(row.prefix.size());
  }
  for (const std::string_view inner : kInnerPrefixes) {
    if (!published.starts_with(inner)) continue;
    const std::string_view rest = published.substr(inner.size());
    for (const std::string_view tower : kOtherTowers) {
      if (rest.starts_with(tower)) return true;
    }
  }
  return false;
}

std::string shortenedName(const std::string& name) {
  // FNV-1a: the same on every machine.
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : name)
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  char tail[18];
  std::snprintf(tail, sizeof tail, "~%016llx", static_cast<unsigned long long>(hash));
  std::size_t keep = okv2::kTensorNameBytes - 1 - 17;
  // Not in the middle of a character.
  while (keep > 0 && (static_cast<unsigned char>(name[keep]) & 0xC0) == 0x80)
    --keep;
  return name.substr(0, keep) + tail;
}

}  // namespace zel::tool::prepare
