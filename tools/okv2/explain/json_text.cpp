// JSON values as short text for people.
#include <fmt/format.h>

#include "okv2/explain/steps.h"

namespace zel::explain {
namespace {

using json::Kind;
using json::Value;

void append(const Value& value, std::size_t maxBytes, std::string& out) {
  if (out.size() > maxBytes) return;
  switch (value.kind) {
    case Kind::Null: out += "null"; break;
    case Kind::Bool: out += value.boolean ? "true" : "false"; break;
    case Kind::Number: out += fmt::format("{}", value.number); break;
    case Kind::String: out += '"' + value.text.substr(0, maxBytes + 1) + '"'; break;
    case Kind::Object: {
      const char* separator = "{";
      for (const auto& [key, member] : value.members) {
        if (out.size() > maxBytes) return;
        out += separator;
        out += '"' + key.substr(0, maxBytes + 1) + "\": ";
        append(member, maxBytes, out);
        separator = ", ";
      }
      out += value.members.empty() ? "{}" : "}";
      break;
    }
    case Kind::Array: {
      const char* separator = "[";
      for (const Value& item : value.items) {
        if (out.size() > maxBytes) return;
        out += separator;
        append(item, maxBytes, out);
        separator = ", ";
      }
      out += value.items.empty() ? "[]" : "]";
      break;
    }
  }
}

}  // namespace

std::string shortJson(const Value& value, std::size_t maxBytes) {
  std::string out;
  append(value, maxBytes, out);
  if (out.size() > maxBytes) out.replace(maxBytes, std::string::npos, "...");
  return out;
}

const char* kindName(Kind kind) {
  switch (kind) {
    case Kind::Null: return "null";
    case Kind::Bool: return "true or false";
    case Kind::Number: return "a number";
    case Kind::String: return "a text";
    case Kind::Object: return "an object";
    case Kind::Array: return "an array";
  }
  return "?";
}

}  // namespace zel::explain
