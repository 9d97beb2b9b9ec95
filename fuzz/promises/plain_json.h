// A second JSON reader, written rule by rule and for nothing but agreement.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "hf/json.h"

namespace zel::fuzz {

struct PlainJson {
  json::Kind kind = json::Kind::Null;
  bool boolean = false;
  double number = 0;
  std::string text;
  std::vector<std::string> keys;  // of an object; values[k] goes with keys[k]
  std::vector<PlainJson> values;
  std::vector<PlainJson> items;
};

// Null, or the message of the first failure.
const char* readPlainJson(std::string_view text, PlainJson& out);

// Numbers are compared bit by bit.
bool sameTree(const PlainJson& expected, const json::Value& actual);

}  // namespace zel::fuzz
