#include "hf/json_parser.h"

#include "promises/plain_json.h"
#include "promises/promises.h"

namespace zel::fuzz {

void checkJson(std::string_view input) {
  PlainJson plain;
  const char* const failure = readPlainJson(input, plain);
  const Status expected = failure == nullptr ? Status() : invalidFormat(failure);

  json::Value parsed;
  promiseSame(json::parse(input.data(), input.size(), parsed), expected);

  json::detail::Parser skipping(input.data(), input.size());
  if (skipping.skip(0)) (void)skipping.finish();
  promiseSame(skipping.status(), expected);

  if (failure != nullptr) return;
  promise(sameTree(plain, parsed), "the tree is the reference's");
  for (const json::Value::Member& member : parsed.members) {
    if (member.first.find('\0') != std::string::npos) continue;  // get() takes a C string
    const json::Value* const found = parsed.get(member.first.c_str());
    promise(found != nullptr && found <= &member.second, "get() finds the first member of a key");
  }
}

}  // namespace zel::fuzz
