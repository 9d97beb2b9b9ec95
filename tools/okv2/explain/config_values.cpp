// What an import writes for the values of config.json: src/hf/config.cpp reads them, src/hf/metadata.cpp
// writes them.
#include "okv2/explain/config_values.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>
#include <string_view>

#include "okv2/explain/steps.h"

namespace zel::explain {
namespace {

using json::Kind;
using json::Value;

constexpr char kNotWritten[] = "not written";

// What becomes of one value.
class Fate {
 public:
  // `changed` is the text of another value than the one that was given; empty when it is the same.
  void item(const char* name, const std::string& changed) {
    const std::string text = changed.empty() ? std::string(name) : fmt::format("{} as {}", name, changed);
    becomes_ += (becomes_.empty() ? "" : ", ") + text;
    if (!changed.empty())
      changed_ += changed_.empty() ? fmt::format("{} is written as {}", name, changed) : ", " + text;
  }
  void leftOut(const char* name) {
    changed_ += fmt::format("{}{} is left out", changed_.empty() ? "" : ", ", name);
  }
  [[nodiscard]] std::string becomes() const { return becomes_.empty() ? kNotWritten : becomes_; }
  [[nodiscard]] const std::string& changed() const { return changed_; }

 private:
  std::string becomes_, changed_;
};

template <class Unsigned>
std::string changedBy(std::int64_t value) {
  const auto cut = static_cast<Unsigned>(value);
  const bool isKept = value >= 0 && static_cast<std::uint64_t>(value) == cut;
  return isKept ? "" : std::to_string(cut);
}

bool isWritten(Written when, std::int64_t value) {
  switch (when) {
    case Written::Never: return false;
    case Written::NotZero: return value != 0;
    case Written::Always: return true;
    case Written::Above256: return static_cast<std::uint64_t>(value) > 256;
  }
  return false;
}

// 0 for anything but a whole number of 64 bits, as an import takes it.
std::int64_t wholeNumber(const Value& value) {
  std::int64_t integer = 0;
  if (value.isNumber()) (void)json::toInt64(value.number, integer);
  return integer;
}

Fate fateOfInteger(const ReadKey& row, std::int64_t value, bool isGemma4) {
  Fate out;
  if (row.item != nullptr && value != 0) out.item(row.item, changedBy<std::uint64_t>(value));
  if (row.headerField != nullptr) {
    const std::string changed = changedBy<std::uint32_t>(value);
    if (!changed.empty()) out.item(row.headerField, changed);
  }
  if (isGemma4 && isWritten(row.gemma4When, value)) out.item(row.gemma4Item, changedBy<std::uint32_t>(value));
  return out;
}

// Every 32-bit float is a rounded number; named is what rounding alone does not explain.
Fate fateOfFloat(const ReadKey& row, double given, bool isGemma4) {
  constexpr double kRounding = 1e-6;
  constexpr double kMax = std::numeric_limits<float>::max();
  // The largest floats become infinite; a cast would be undefined for them.
  const float kept = std::abs(given) <= kMax ? static_cast<float>(given)
                                             : std::numeric_limits<float>::infinity() * (given < 0 ? -1 : 1);
  const bool isSame = std::abs(static_cast<double>(kept) - given) <= kRounding * std::abs(given);
  Fate out;
  for (const char* item : {row.item, isGemma4 ? row.gemma4Item : nullptr}) {
    if (item == nullptr) continue;
    if (kept > 0) {
      out.item(item, isSame ? "" : fmt::format("{}", kept));
    } else if (given != 0) {
      out.leftOut(item);
    }
  }
  return out;
}

// The low eight bits of each integer, 0 for anything else.
Fate fateOfPattern(const ReadKey& row, const HfImporter& model) {
  Fate out;
  const std::vector<Value>& given = model.config.get(row.key)->items;
  if (given.empty()) return out;
  Value kept;
  kept.kind = Kind::Array;
  bool isSame = true;
  for (std::size_t k = 0; k < model.swaPattern.size(); ++k) {
    Value& item = kept.items.emplace_back();
    item.kind = Kind::Number;
    item.number = model.swaPattern[k];
    isSame = isSame && given[k].isNumber() && given[k].number == item.number;
  }
  out.item(row.gemma4Item, isSame ? "" : shortJson(kept));
  return out;
}

Fate fateOf(const ReadKey& row, const Value& value, bool isGood, const HfImporter& model) {
  const bool isGemma4 = model.arch == "gemma4";
  if (row.kind == Kind::Array) return isGood ? fateOfPattern(row, model) : Fate();
  if (row.integral) return fateOfInteger(row, wholeNumber(value), isGemma4);
  return isGood ? fateOfFloat(row, value.number, isGemma4) : Fate();
}

void usedNumber(const ReadKey& row, const Value& value, const HfImporter& model, Explanation& out) {
  const std::string given = fmt::format("config.json: $.{} is {}", row.key, shortJson(value));
  std::int64_t integer = 0;
  const bool isGood = value.kind == row.kind && (!row.integral || json::toInt64(value.number, integer));
  if (!isGood) out.add(Id::ConfigWrongKind, row.key, given);
  if (row.item == nullptr && model.arch != "gemma4") {
    out.config.push_back({row.key, shortJson(value), kNotWritten});
    if (isGood) out.add(Id::ConfigReadNotWritten, row.key, given);
    return;
  }
  const Value* later = row.replacedBy == nullptr ? nullptr : model.config.get(row.replacedBy);
  if (later != nullptr && later->isNumber()) {
    out.config.push_back(
        {row.key, shortJson(value), fmt::format("{}: {} replaces it", kNotWritten, row.replacedBy)});
    return;
  }
  if (std::string_view(row.key) == "vocab_size" && wholeNumber(value) == 0 && out.vocabSize != 0) {
    out.config.push_back({row.key, shortJson(value),
                          fmt::format("{}: the number of tokens is, {}", kNotWritten, out.vocabSize)});
    return;
  }
  const Fate fate = fateOf(row, value, isGood, model);
  out.config.push_back({row.key, shortJson(value), fate.becomes()});
  if (isGood && !fate.changed().empty())
    out.add(Id::ConfigValueChanged, row.key, fmt::format("{}, and {}", given, fate.changed()));
}

}  // namespace

void explainConfigValues(const HfImporter& model, Explanation& out) {
  const auto text = [&](const char* key, const char* field, bool isWritten) {
    if (const Value* value = model.config.get(key); isGiven(value))
      out.config.push_back({key, shortJson(*value), isWritten ? field : kNotWritten});
  };
  const Value* type = model.config.get("model_type");
  const bool hasType = type != nullptr && type->isString();
  text("model_type", "general.architecture", hasType);
  if (!hasType) text("architectures", "general.architecture", true);
  const Value* name = model.config.get("_name_or_path");
  text("_name_or_path", "general.name", name != nullptr && name->isString() && !name->text.empty());
  for (const ReadKey& row : kReadKeys) {
    if (const Value* value = model.config.get(row.key); isGiven(value)) usedNumber(row, *value, model, out);
  }
}

}  // namespace zel::explain
