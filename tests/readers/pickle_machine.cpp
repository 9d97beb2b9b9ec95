#include "pickle_machine.h"

#include <algorithm>
#include <bit>
#include <cstdio>

// Its types have no linkage: to see them, this translation unit takes the place of the library's own.
#include "readers/pytorch_pickle.cpp"

namespace zel::test {

static std::string quoted(std::string_view text) {
  std::string out = "'";
  for (const char c : text) {
    char code[5];
    const auto byte = static_cast<unsigned char>(c);
    std::snprintf(code, sizeof code, byte >= 0x20 && byte < 0x7F && c != '\\' ? "%c" : "\\x%02x", byte);
    out += code;
  }
  return out + "'";
}

std::string show(const std::vector<PlainValue>& values) {
  std::string out = "[";
  for (const PlainValue& value : values)
    out += (out.size() > 1 ? ", " : "") + show(value);
  return out + "]";
}

std::string show(const PlainValue& value) {
  static constexpr const char* kNames[] = {"None",  "Int",  "Float",  "Str",     "Bytes",
                                           "Tuple", "Dict", "Global", "Storage", "Tensor"};
  const std::string kind = kNames[value.kind];
  const auto is = [&](std::string_view one, std::string_view other) { return kind == one || kind == other; };
  std::string out;
  const auto field = [&](const std::string& text) { out += (out.empty() ? "" : ", ") + text; };
  if (is("Global", "Storage") || !value.module.empty()) field(quoted(value.module));
  if (kind == "Global" || !value.name.empty()) field(quoted(value.name));
  if (is("Str", "Bytes") || kind == "Storage" || !value.s.empty()) field(quoted(value.s));
  if (is("Int", "Storage") || value.i != 0) field(std::to_string(value.i));
  if (const auto bits = std::bit_cast<std::uint64_t>(value.f); kind == "Float" || bits != 0) {
    char hex[17];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(bits));
    field(hex);
  }
  if (is("Tuple", "Tensor") || !value.items.empty()) field(show(value.items));
  if (kind == "Dict" || !value.dict.empty()) {
    std::string pairs;
    for (const auto& [key, entry] : value.dict) {
      pairs += (pairs.empty() ? "" : ", ") + quoted(key) + ": " + show(entry);
    }
    field("{" + pairs + "}");
  }
  return kind + (out.empty() ? "" : "(" + out + ")");
}

static PlainValue plain(const PickleValue& value) {
  PlainValue out;
  out.kind = static_cast<unsigned>(value.kind());
  out.i = value.i();
  out.f = value.f();
  out.s = value.s();
  out.module = value.module();
  out.name = value.name();
  for (const PickleCell* cell = value.children(); cell != nullptr; cell = cell->before()) {
    if (cell->key() != nullptr) {
      out.dict.push_back({std::string(cell->key()->value.s()), plain(cell->value)});
    } else {
      out.items.push_back(plain(cell->value));
    }
  }
  std::reverse(out.items.begin(), out.items.end());
  std::reverse(out.dict.begin(), out.dict.end());
  return out;
}

PickleOutcome runPickle(std::string_view stream) {
  PickleVM machine(stream);
  PickleOutcome outcome{machine.value(), {}};
  if (!outcome.status.ok()) return outcome;
  for (const PickleValue& value : machine.stack())
    outcome.stack.push_back(plain(value));
  return outcome;
}

PickleVerdict judgePickle(std::string_view stream) {
  PickleVM machine(stream);
  PickleVerdict verdict{machine.value(), 0};
  verdict.stackSize = machine.stack().size();
  return verdict;
}

}  // namespace zel::test
