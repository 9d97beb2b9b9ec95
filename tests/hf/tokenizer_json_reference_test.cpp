// A second, slow reader of tokenizer.json that builds the whole tree first and then follows the rules one by
// one. The real reader, which never builds a tree, must agree with it on good, odd and damaged files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tokenizer_support.h"

namespace zel {
namespace {

using json::Value;

bool integral(const Value& value, std::int64_t& out) {
  if (value.kind != json::Kind::Number) return false;
  if (!(value.number >= -9223372036854775808.0) || !(value.number < 9223372036854775808.0)) return false;
  if (std::trunc(value.number) != value.number) return false;
  out = std::int64_t(value.number);
  return true;
}

Status referenceReader(std::string_view text, const Value& config, TokenizerData& out) {
  Value root;
  if (!json::parse(text.data(), text.size(), root).ok()) return corrupted("hf: bad tokenizer.json");
  const Value* model = root.get("model");
  if (model == nullptr || model->kind != json::Kind::Object) {
    return corrupted("hf: tokenizer.json has no model object");
  }
  TokenizerData data;

  const Value* vocab = model->get("vocab");
  if (vocab == nullptr || vocab->kind != json::Kind::Object)
    return corrupted("hf: tokenizer.json has no vocab");
  std::vector<std::pair<std::int64_t, std::string>> pairs;
  for (const auto& [token, id] : vocab->members) {
    std::int64_t integer = 0;
    if (!integral(id, integer) || integer < 0) return corrupted("hf: bad vocab id");
    pairs.emplace_back(integer, token);
  }
  std::sort(pairs.begin(), pairs.end());
  for (std::size_t k = 0; k < pairs.size(); ++k) {
    if (pairs[k].first != std::int64_t(k)) return corrupted("hf: vocab ids not contiguous");
    data.tokens.push_back(pairs[k].second);
  }

  if (const Value* merges = model->get("merges")) {
    if (merges->kind != json::Kind::Array) return corrupted("hf: bad merges");
    for (const Value& merge : merges->items) {
      if (merge.kind != json::Kind::String) return corrupted("hf: bad merge entry");
      data.merges.push_back(merge.text);
    }
  }

  data.types.assign(data.tokens.size(), 1);
  if (const Value* added = root.get("added_tokens")) {
    if (added->kind != json::Kind::Array) return corrupted("hf: bad added_tokens");
    for (const Value& element : added->items) {
      std::int64_t id = 0;
      const Value* idMember = element.get("id");
      if (idMember == nullptr || !integral(*idMember, id)) continue;
      const Value* contentMember = element.get("content");
      const std::string content = contentMember == nullptr ? "" : contentMember->str();
      const Value* specialMember = element.get("special");
      const bool special =
          specialMember == nullptr || (specialMember->kind == json::Kind::Bool && specialMember->boolean);
      if (id >= 0 && id < std::int64_t(data.types.size())) data.types[std::size_t(id)] = special ? 3 : 1;
      if (content == "<bos>" || content == "<s>") data.bosId = std::int32_t(id);
      if (content == "<eos>" || content == "</s>") data.eosId = std::int32_t(id);
      if (content == "<unk>") data.unkId = std::int32_t(id);
      if (content == "<pad>") data.padId = std::int32_t(id);
    }
  }

  std::int64_t id = 0;
  const auto take = [&](const char* key, std::int32_t& slot) {
    const Value* member = config.get(key);
    if (member != nullptr && integral(*member, id)) slot = std::int32_t(id);
  };
  take("bos_token_id", data.bosId);
  take("unk_token_id", data.unkId);
  take("pad_token_id", data.padId);
  take("eos_token_id", data.eosId);
  if (const Value* eos = config.get("eos_token_id"); eos != nullptr && eos->kind == json::Kind::Array) {
    if (!eos->items.empty() && integral(eos->items[0], id)) data.eosId = std::int32_t(id);
  }
  if (const Value* chat = config.get("chat_template"); chat != nullptr && chat->kind == json::Kind::String) {
    data.chatTemplate = chat->text;
  }

  if (const Value* scores = model->get("scores"); scores != nullptr && scores->kind == json::Kind::Array) {
    for (const Value& score : scores->items) {
      const Value* number = &score;
      if (score.kind == json::Kind::Array && !score.items.empty()) number = &score.items[0];
      data.scores.push_back(number->kind == json::Kind::Number ? float(number->number) : 0.0F);
    }
  }
  out = std::move(data);
  return {};
}

// Documents that are mostly right, with members that repeat, are missing, odd, out of order or spelled with
// escapes, each now and then.
class Generator {
 public:
  explicit Generator(unsigned seed) : random_(seed) {}

  std::string document() {
    std::vector<std::string> members;
    if (!rarely()) members.push_back(key("model") + ":" + (rarely() ? odd() : model()));
    if (rarely()) members.push_back(key("model") + ":" + (oneIn(2) ? odd() : model()));
    if (oneIn(2)) members.push_back(key("added_tokens") + ":" + (rarely() ? odd() : addedTokens()));
    if (rarely()) members.push_back(key("added_tokens") + ":" + addedTokens());
    if (oneIn(3)) members.push_back("\"version\":" + odd());
    return rarely() && rarely() ? odd() : object(members);
  }

  std::string config() {
    std::vector<std::string> members;
    for (const char* name :
         {"bos_token_id", "eos_token_id", "unk_token_id", "pad_token_id", "chat_template"}) {
      if (oneIn(3)) members.push_back(key(name) + ":" + (oneIn(2) ? id() : odd()));
    }
    if (oneIn(4)) members.push_back("\"eos_token_id\":[" + id() + "," + id() + "]");
    return object(members);
  }

  std::string damaged(std::string text) {
    const std::size_t at = below(text.size());
    switch (below(4)) {
      case 0: text.resize(at); break;
      case 1: text.erase(at, 1); break;
      case 2: text[at] = "\"\\{}[]:,0-.e x"[below(14)]; break;
      default: text.insert(at, 1, "\"\\{}[]:,0-.e x"[below(14)]); break;
    }
    return text;
  }

 private:
  std::size_t below(std::size_t n) { return random_() % n; }
  bool oneIn(std::size_t n) { return below(n) == 0; }
  bool rarely() { return oneIn(12); }

  // The name, with one letter written as an escape now and then.
  std::string key(std::string name) {
    if (rarely()) {
      char escape[8];
      const std::size_t at = below(name.size());
      std::snprintf(escape, sizeof escape, "\\u%04x", unsigned(static_cast<unsigned char>(name[at])));
      name.replace(at, 1, escape);
    }
    return "\"" + name + "\"";
  }
  std::string odd() {
    static const std::vector<std::string> values = {"null",
                                                    "true",
                                                    "false",
                                                    "0",
                                                    "-1",
                                                    "1.5",
                                                    "1e999",
                                                    "\"\"",
                                                    "\"<s>\"",
                                                    "\"x\\ty\"",
                                                    "[]",
                                                    "{}",
                                                    "[1,[2]]",
                                                    "[\"a\",null]",
                                                    "{\"vocab\":{}}",
                                                    "{\"a\":{\"id\":0}}",
                                                    "9223372036854775808",
                                                    "4294967297"};
    return values[below(values.size())];
  }
  std::string id() {
    static const std::vector<std::string> values = {"0",  "1",   "2",   "3",          "7",
                                                    "-1", "2.0", "0.5", "4294967298", "1e300"};
    return values[below(values.size())];
  }
  std::string object(std::vector<std::string>& members) {
    std::shuffle(members.begin(), members.end(), random_);
    std::string out = "{";
    for (const std::string& member : members)
      out += (out.size() > 1 ? "," : "") + member;
    return out + "}";
  }
  std::string vocab() {
    std::vector<std::string> members;
    const std::size_t count = below(8);
    for (std::size_t k = 0; k < count; ++k) {
      const std::string value = oneIn(60) ? odd() : std::to_string(oneIn(60) ? k + 1 : k);
      members.push_back(key(rarely() ? "t" : "t" + std::to_string(k)) + ":" + value);
    }
    return object(members);
  }
  std::string list(std::string (Generator::*element)(), std::size_t most) {
    std::string out = "[";
    for (std::size_t left = below(most + 1); left > 0; --left) {
      out += (out.size() > 1 ? "," : "") + (this->*element)();
    }
    return out + "]";
  }
  std::string merge() { return oneIn(40) ? odd() : oneIn(5) ? "\"a\\u0062 c\"" : "\"a b\""; }
  std::string score() { return oneIn(4) ? odd() : oneIn(3) ? "[" + odd() + ",1]" : "-1.25"; }
  std::string model() {
    std::vector<std::string> members;
    if (!rarely()) members.push_back(key("vocab") + ":" + (rarely() ? odd() : vocab()));
    if (rarely()) members.push_back(key("vocab") + ":" + (oneIn(2) ? odd() : vocab()));
    if (oneIn(2)) members.push_back(key("merges") + ":" + (rarely() ? odd() : list(&Generator::merge, 4)));
    if (rarely()) members.push_back(key("merges") + ":" + list(&Generator::merge, 4));
    if (oneIn(2)) members.push_back(key("scores") + ":" + (rarely() ? odd() : list(&Generator::score, 4)));
    if (rarely()) members.push_back(key("scores") + ":" + list(&Generator::score, 4));
    if (oneIn(3)) members.push_back("\"type\":\"BPE\"");
    return object(members);
  }
  std::string addedToken() {
    static const std::vector<std::string> contents = {"<s>",   "<bos>", "</s>", "<eos>",
                                                      "<unk>", "<pad>", "other"};
    if (rarely()) return odd();
    std::vector<std::string> members;
    if (!rarely()) members.push_back(key("id") + ":" + (rarely() ? odd() : id()));
    if (rarely()) members.push_back(key("id") + ":" + id());
    const std::string content = "\"" + contents[below(contents.size())] + "\"";
    if (!rarely()) members.push_back(key("content") + ":" + (rarely() ? odd() : content));
    if (rarely()) members.push_back(key("content") + ":\"<s>\"");
    if (oneIn(2)) members.push_back(key("special") + ":" + (rarely() ? odd() : oneIn(2) ? "true" : "false"));
    if (rarely()) members.push_back(key("special") + ":true");
    return object(members);
  }
  std::string addedTokens() { return list(&Generator::addedToken, 6); }

  std::mt19937 random_;
};

void expectAgreement(const std::string& text, const std::string& configText) {
  const Value config = test::configFrom(configText);
  TokenizerData expected;
  const Status verdict = referenceReader(text, config, expected);
  TokenizerData actual;
  ASSERT_THAT(readTokenizerJson(text, config, actual), test::StatusIs(verdict.code(), verdict.message()))
      << text << "\n"
      << configText;
  ASSERT_EQ(test::describe(actual), test::describe(expected)) << text << "\n" << configText;
}

TEST(TokenizerJsonAgainstAReferenceReader, AgreesOnGeneratedAndDamagedFiles) {
  Generator generator(33);
  int accepted = 0;
  for (int k = 0; k < 4000; ++k) {
    const std::string text = generator.document();
    const std::string config = generator.config();
    expectAgreement(text, config);
    expectAgreement(generator.damaged(text), config);
    if (HasFatalFailure()) return;
    accepted += test::tokenizerJson(text).ok() ? 1 : 0;
  }
  // The files are neither all good nor all bad.
  EXPECT_GT(accepted, 800);
  EXPECT_LT(accepted, 3600);
}

// Long lists are read in a way of their own, for as long as they are plain.
TEST(TokenizerJsonAgainstAReferenceReader, AgreesWhereAnyByteOfALongListIsAnother) {
  const std::string text =
      R"({"model":{"vocab":{"a":0,"b":1,"a longer token than the others":2,)"
      "\n  \"\xC3\xA9\": 3,\n  \"e\": 4,"
      R"("f":5,"g":6,"h":7,"i":8,"j":9,"k":10,"l":11},"merges":["a b","b a","a longer token than the others a",)"
      "\n  \"e f\",\n  \"f e\","
      R"("g h","h g","i j","j i","k l","l k","a e"]},"version":"a text that is behind all of the others, )"
      R"(so that the lists before it are far from the end"})";
  expectAgreement(text, "{}");
  ASSERT_THAT(test::tokenizerJson(text), test::IsOk());
  for (std::size_t at = 0; at < text.size(); ++at) {
    for (const char byte :
         {'"', '\\', '{', '}', '[', ']', ':', ',', '0', '9', '-', '.', 'e', 'x', ' ', '\n', '\x1F', '\xFF'}) {
      std::string other = text;
      other[at] = byte;
      expectAgreement(other, "{}");
      if (HasFatalFailure()) return;
    }
    expectAgreement(text.substr(0, at), "{}");
    expectAgreement(std::string(text).erase(at, 1), "{}");
    if (HasFatalFailure()) return;
  }
}

TEST(TokenizerJsonAgainstAReferenceReader, MeetsEveryVerdict) {
  Generator generator(34);
  std::vector<std::string> messages;
  for (int k = 0; k < 6000; ++k) {
    messages.push_back(test::tokenizerJson(generator.document()).message());
  }
  for (const char* message :
       {"", "hf: tokenizer.json has no model object", "hf: tokenizer.json has no vocab", "hf: bad vocab id",
        "hf: vocab ids not contiguous", "hf: bad merges", "hf: bad merge entry", "hf: bad added_tokens"}) {
    EXPECT_GT(std::count(messages.begin(), messages.end(), message), 5) << message;
  }
}

}  // namespace
}  // namespace zel
