#include "okv2/sample/vocabulary.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <nlohmann/json.hpp>

namespace zel::sample {
namespace {

constexpr char kFirstCharacter = '!', kLastCharacter = '~';
constexpr std::uint64_t kCharacters = kLastCharacter - kFirstCharacter + 1;
constexpr std::uint64_t kLetters = 26;

std::string quoted(const std::string& text) { return nlohmann::json(text).dump(); }

// Word number `index` of all words of lower-case letters, two letters first, then three, and so on. Every
// part of a word is a letter or a word of a smaller number.
std::string wordAt(std::uint64_t index) {
  std::size_t length = 2;
  std::uint64_t words = kLetters * kLetters;
  while (index >= words) {
    index -= words;
    words *= kLetters;
    ++length;
  }
  std::string word(length, 'a');
  for (std::size_t k = length; k-- > 0; index /= kLetters)
    word[k] = static_cast<char>('a' + index % kLetters);
  return word;
}

std::uint64_t wordCount(Arch arch, std::uint64_t vocab) {
  const std::uint64_t before = specialsOf(arch).texts.size() + kCharacters;
  return vocab > before ? vocab - before : 0;
}

// Round n splits every word of at least n + 2 letters n letters before its last one.
void addMerges(std::vector<std::string>& merges, const std::vector<std::string>& tokens,
               std::size_t firstWord, std::uint64_t count) {
  merges.reserve(count);
  for (std::size_t round = 0; merges.size() < count; ++round) {
    for (std::size_t k = firstWord; k < tokens.size() && merges.size() < count; ++k) {
      const std::string& word = tokens[k];
      if (word.size() < round + 2) continue;
      const std::size_t cut = word.size() - 1 - round;
      merges.push_back(word.substr(0, cut) + ' ' + word.substr(cut));
    }
  }
}

void putVarint(std::string& out, std::uint64_t value) {
  for (; value >= 0x80; value >>= 7)
    out += static_cast<char>((value & 0x7F) | 0x80);
  out += static_cast<char>(value);
}

enum WireType : unsigned { kVarint = 0, kBytes = 2, kFixed32 = 5 };

void putKey(std::string& out, unsigned field, WireType type) { putVarint(out, field << 3 | type); }

void putBytesField(std::string& out, unsigned field, const std::string& bytes) {
  putKey(out, field, kBytes);
  putVarint(out, bytes.size());
  out += bytes;
}

void putVarintField(std::string& out, unsigned field, std::uint64_t value) {
  putKey(out, field, kVarint);
  putVarint(out, value);
}

void putFloatField(std::string& out, unsigned field, float value) {
  putKey(out, field, kFixed32);
  const auto bits = std::bit_cast<std::uint32_t>(value);
  for (int shift = 0; shift < 32; shift += 8)
    out += static_cast<char>(bits >> shift & 0xFF);
}

}  // namespace

const Specials& specialsOf(Arch arch) {
  static const Specials llama = {{"<unk>", "<s>", "</s>", "<pad>"}, 1, 2, 0, 3};
  static const Specials qwen2 = {{"<|endoftext|>", "<|im_start|>", "<|im_end|>"}, 0, 2, -1, 0};
  static const Specials gemma4 = {{"<pad>", "<eos>", "<bos>", "<unk>"}, 2, 1, 3, 0};
  static const Specials gpt2 = {{"<|endoftext|>"}, 0, 0, -1, -1};
  switch (arch) {
    case Arch::Llama: return llama;
    case Arch::Qwen2: return qwen2;
    case Arch::Gemma4: return gemma4;
    case Arch::Gpt2: break;
  }
  return gpt2;
}

std::uint64_t greatestMergeCount(Arch arch, std::uint64_t vocab) {
  std::uint64_t words = wordCount(arch, vocab), ofThisLength = kLetters * kLetters, splits = 1, sum = 0;
  while (words > 0) {
    const std::uint64_t taken = std::min(words, ofThisLength);
    sum += taken * splits;
    words -= taken;
    ofThisLength *= kLetters;
    ++splits;
  }
  return sum;
}

Vocabulary makeVocabulary(Arch arch, std::uint64_t vocab, std::uint64_t merges) {
  Vocabulary out;
  out.tokens = specialsOf(arch).texts;
  out.tokens.reserve(vocab);
  for (char c = kFirstCharacter; c <= kLastCharacter; ++c)
    out.tokens.emplace_back(1, c);
  const std::size_t firstWord = out.tokens.size();
  const std::uint64_t words = wordCount(arch, vocab);
  for (std::uint64_t k = 0; k < words; ++k)
    out.tokens.push_back(wordAt(k));
  out.tokens.resize(vocab);
  addMerges(out.merges, out.tokens, std::min<std::size_t>(firstWord, vocab),
            merges == Options::kAllMerges ? words : merges);
  return out;
}

std::string tokenizerJsonText(Arch arch, const Vocabulary& vocabulary) {
  std::string out = "{\n  \"version\": \"1.0\",\n  \"truncation\": null,\n  \"padding\": null,\n";
  out += "  \"added_tokens\": [";
  const std::vector<std::string>& specials = specialsOf(arch).texts;
  for (std::size_t id = 0; id < specials.size(); ++id) {
    out += fmt::format(
        "{}\n    {{\"id\": {}, \"content\": {}, \"single_word\": false, \"lstrip\": false, \"rstrip\": "
        "false, "
        "\"normalized\": false, \"special\": true}}",
        id > 0 ? "," : "", id, quoted(specials[id]));
  }
  out += "\n  ],\n  \"normalizer\": null,\n  \"pre_tokenizer\": null,\n  \"post_processor\": null,\n";
  out += "  \"decoder\": null,\n  \"model\": {\n    \"type\": \"BPE\",\n    \"dropout\": null,\n";
  out += "    \"byte_fallback\": false,\n    \"vocab\": {";
  for (std::size_t id = 0; id < vocabulary.tokens.size(); ++id) {
    out += fmt::format("{}\n      {}: {}", id > 0 ? "," : "", quoted(vocabulary.tokens[id]), id);
  }
  out += "\n    },\n    \"merges\": [";
  for (std::size_t k = 0; k < vocabulary.merges.size(); ++k) {
    out += fmt::format("{}\n      {}", k > 0 ? "," : "", quoted(vocabulary.merges[k]));
  }
  return out + "\n    ]\n  }\n}\n";
}

std::string tokenizerModelBytes(Arch arch, const Vocabulary& vocabulary) {
  constexpr unsigned kIdsField = 1, kPieceField = 3;
  constexpr unsigned kTextField = 1, kScoreField = 2, kTypeField = 3;
  constexpr std::uint64_t kNormal = 1, kControl = 3;
  const Specials& specials = specialsOf(arch);
  std::string ids;
  unsigned field = 5;
  for (const int id : {specials.bos, specials.eos, specials.unk, specials.pad}) {
    if (id >= 0) putVarintField(ids, field, static_cast<std::uint64_t>(id));
    ++field;
  }
  std::string out;
  putBytesField(out, kIdsField, ids);
  for (std::size_t id = 0; id < vocabulary.tokens.size(); ++id) {
    std::string piece;
    putBytesField(piece, kTextField, vocabulary.tokens[id]);
    putFloatField(piece, kScoreField, -static_cast<float>(id));
    putVarintField(piece, kTypeField, id < specials.texts.size() ? kControl : kNormal);
    putBytesField(out, kPieceField, piece);
  }
  return out;
}

}  // namespace zel::sample
