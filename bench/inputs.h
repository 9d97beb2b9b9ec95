// Generated inputs of stated size, shaped like the real files: deterministic, so that two runs compare.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

namespace zel::bench {

// A small generator with a fixed seed; the numbers are the same everywhere (xorshift64*).
class Random {
 public:
  std::uint64_t next() {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return state_ * 0x2545F4914F6CDD1D;
  }
  std::uint64_t below(std::uint64_t limit) { return (next() >> 33) % limit; }

 private:
  std::uint64_t state_ = 0x9E3779B97F4A7C15;
};

enum class NonAscii { Raw, Escaped };

// Appends one code point as UTF-8 or as a \u escape (below U+10000).
inline void appendCodePoint(std::string& out, unsigned cp, NonAscii form) {
  if (form == NonAscii::Escaped) {
    constexpr char kHex[] = "0123456789abcdef";
    out += "\\u";
    for (int shift = 12; shift >= 0; shift -= 4)
      out += kHex[cp >> shift & 15];
  } else if (cp < 0x800) {
    out += char(0xC0 | cp >> 6);
    out += char(0x80 | (cp & 0x3F));
  } else {
    out += char(0xE0 | cp >> 12);
    out += char(0x80 | (cp >> 6 & 0x3F));
    out += char(0x80 | (cp & 0x3F));
  }
}

// A piece as vocabularies hold them: a third begin with the word mark U+2581, one in eight is Cyrillic or
// Chinese, the rest are 2 to 9 letters.
inline void appendPiece(std::string& out, Random& random, NonAscii form) {
  if (random.below(3) == 0) appendCodePoint(out, 0x2581, form);
  const std::uint64_t kind = random.below(16);
  if (kind == 0) {
    for (std::uint64_t k = 1 + random.below(3); k > 0; --k) {
      appendCodePoint(out, 0x4E00 + unsigned(random.below(0x2000)), form);
    }
  } else if (kind == 1) {
    for (std::uint64_t k = 2 + random.below(6); k > 0; --k) {
      appendCodePoint(out, 0x430 + unsigned(random.below(32)), form);
    }
  } else {
    for (std::uint64_t k = 2 + random.below(8); k > 0; --k)
      out += char('a' + random.below(26));
  }
}

// A BPE tokenizer.json with `tokens` vocabulary entries, ids in document order, and `merges` string merges.
// 262,144 tokens and 515,000 merges give about 17 MB. The last letters of a token spell its id, so that
// keys differ.
inline std::string makeTokenizerJson(std::size_t tokens, std::size_t merges, NonAscii form) {
  Random random;
  std::string out = R"({"version":"1.0","added_tokens":[{"id":0,"content":"<pad>","special":true},)"
                    R"({"id":1,"content":"<eos>","special":true},{"id":2,"content":"<bos>","special":true}],)"
                    R"("model":{"type":"BPE","vocab":{)";
  for (std::size_t id = 0; id < tokens; ++id) {
    if (id > 0) out += ',';
    out += '"';
    appendPiece(out, random, form);
    for (std::size_t rest = id; rest > 0; rest /= 26)
      out += char('a' + rest % 26);
    out += "\":" + std::to_string(id);
  }
  out += R"(},"merges":[)";
  for (std::size_t k = 0; k < merges; ++k) {
    if (k > 0) out += ',';
    out += '"';
    appendPiece(out, random, form);
    out += ' ';
    appendPiece(out, random, form);
    out += '"';
  }
  out += "]}}";
  return out;
}

// A whole .safetensors file of `tensors` one-element F32 tensors; headers name 14 tensors a layer, in the
// order in which the public library writes them (by name).
inline std::string makeSafetensorsFile(std::size_t tensors) {
  constexpr std::string_view kParts[] = {"input_layernorm.weight",  "mlp.down_proj.weight",
                                         "mlp.gate_proj.weight",    "mlp.up_proj.weight",
                                         "self_attn.k_proj.weight", "self_attn.o_proj.weight",
                                         "self_attn.q_proj.weight", "self_attn.v_proj.weight"};
  std::string header = R"({"__metadata__":{"format":"pt"})";
  for (std::size_t k = 0; k < tensors; ++k) {
    header += R"(,"model.layers.)" + std::to_string(k / std::size(kParts)) + ".";
    header += kParts[k % std::size(kParts)];
    header += R"(":{"dtype":"F32","shape":[1,1],"data_offsets":[)" + std::to_string(4 * k) + "," +
              std::to_string(4 * k + 4) + "]}";
  }
  header += '}';
  std::string file;
  for (int shift = 0; shift < 64; shift += 8)
    file += char(std::uint64_t(header.size()) >> shift);
  return file + header + std::string(4 * tensors, '\0');
}

// The header length of such a file.
inline std::size_t loadLength(std::string_view file) {
  std::size_t length = 0;
  for (int k = 7; k >= 0; --k)
    length = length << 8 | static_cast<unsigned char>(file[std::size_t(k)]);
  return length;
}

// Records of mixed members, as in any JSON text: nested objects, short arrays, numbers with fractions.
inline std::string makeRecords(std::size_t records) {
  Random random;
  std::string out = "[";
  for (std::size_t k = 0; k < records; ++k) {
    if (k > 0) out += ',';
    out += R"({"id":)" + std::to_string(k) + R"(,"name":")";
    appendPiece(out, random, NonAscii::Raw);
    out += R"( a somewhat longer text of words","score":)" + std::to_string(random.below(1000)) + "." +
           std::to_string(random.below(100000)) + R"(,"flags":[true,false,null],"shape":[)" +
           std::to_string(random.below(9000)) + "," + std::to_string(random.below(900)) +
           R"(],"nested":{"key":"value","other":-12,"text":"line\nbreak"}})";
  }
  return out + "]";
}

}  // namespace zel::bench
