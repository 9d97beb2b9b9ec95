#include "okv2/explain/tokenizer_walk.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "container/bytes.h"
#include "hf/json_parser.h"
#include "okv2/explain/steps.h"

namespace zel::explain {
namespace {

using json::Kind;
using json::detail::Parser;

constexpr std::size_t kShownBytes = 60;

// What `parser`, which has failed, has found in `text`.
JsonFault faultOf(const Parser& parser, std::string_view text) {
  JsonFault out;
  out.message = parser.status().message();
  out.offset = text.size() - parser.remaining();
  const std::string_view rest = text.substr(out.offset);
  out.cutShort =
      rest.empty() || out.message == "json: unterminated string" || out.message == "json: unexpected end";
  for (const std::string_view literal : {"true", "false", "null"})
    out.cutShort = out.cutShort || literal.substr(0, rest.size()) == rest;
  return out;
}

class Walk {
 public:
  explicit Walk(std::string_view text) : text_(text), parser_(text.data(), text.size()) {}

  TokenizerJsonWalk run() {
    if (!root() || !parser_.finish()) {
      out_.fault = faultOf(parser_, text_);
      return std::move(out_);
    }
    findIdFault();
    return std::move(out_);
  }

 private:
  [[nodiscard]] std::uint64_t at() const { return text_.size() - parser_.remaining(); }

  // Reads the value at `path` with `read` when it is of the kind, skips it otherwise; tells where it is.
  template <class Read>
  bool value(std::string path, Kind wanted, std::size_t depth, std::optional<Place>& place, bool& isWanted,
             Read read) {
    Kind kind;
    if (place) return parser_.skip(depth);  // a key counts once, the first time
    if (!parser_.peek(kind, depth)) return false;
    const std::uint64_t begin = at();
    isWanted = kind == wanted;
    place = Place{std::move(path), begin, "", kindName(kind)};
    if (!(isWanted ? read() : parser_.skip(depth))) return false;
    place->value = excerpt(begin);
    return true;
  }

  [[nodiscard]] std::string excerpt(std::uint64_t begin) const {
    const std::string_view whole = text_.substr(begin, at() - begin);
    return whole.size() <= kShownBytes ? std::string(whole)
                                       : std::string(whole.substr(0, kShownBytes)) + "...";
  }

  bool root() {
    Kind kind;
    if (!parser_.peek(kind, 0)) return false;
    if (kind != Kind::Object) return parser_.skip(0);
    return parser_.object([this](std::string_view key) {
      if (key == "model") {
        return value("$.model", Kind::Object, 1, out_.model, out_.modelIsObject, [this] { return model(); });
      }
      if (key == "added_tokens") {
        return value("$.added_tokens", Kind::Array, 1, out_.addedTokens, out_.addedTokensIsArray,
                     [this] { return parser_.elements([this] { return addedToken(); }); });
      }
      for (const std::string_view part : {"normalizer", "pre_tokenizer", "post_processor", "decoder"}) {
        if (key == part) return ignoredPart(part);
      }
      return parser_.skip(1);
    });
  }

  bool ignoredPart(std::string_view name) {
    Kind kind;
    if (!parser_.peek(kind, 1)) return false;
    if (kind == Kind::Object)
      out_.ignoredParts += (out_.ignoredParts.empty() ? "" : ", ") + std::string(name);
    return parser_.skip(1);
  }

  bool model() {
    return parser_.object([this](std::string_view key) {
      if (key == "vocab") {
        return value("$.model.vocab", Kind::Object, 2, out_.vocab, out_.vocabIsObject,
                     [this] { return parser_.object([this](std::string_view token) { return id(token); }); });
      }
      if (key == "merges") {
        return value("$.model.merges", Kind::Array, 2, out_.merges, out_.mergesIsArray,
                     [this] { return parser_.elements([this] { return merge(); }); });
      }
      if (key == "type") return text(out_.modelType);
      if (key == "unk_token") return text(out_.unkToken);
      return parser_.skip(2);
    });
  }

  // A member of the model, if it is one.
  bool text(std::string& out) {
    Kind kind;
    if (!parser_.peek(kind, 2)) return false;
    if (kind != Kind::String) return parser_.skip(2);
    out.clear();
    return parser_.string(out);
  }

  bool id(std::string_view token) {
    Kind kind;
    if (!parser_.peek(kind, 3)) return false;
    const std::uint64_t begin = at();
    std::optional<std::int64_t> id;
    if (!(kind == Kind::Number ? parser_.integer(id) : parser_.skip(3))) return false;
    if (id && *id >= 0) {
      ids_.push_back(*id);
    } else if (!out_.badId) {
      out_.badId = Place{fmt::format("$.model.vocab[\"{}\"]", token), begin, excerpt(begin), kindName(kind)};
    }
    return true;
  }

  bool merge() {
    Kind kind;
    if (!parser_.peek(kind, 3)) return false;
    const std::uint64_t begin = at();
    if (!parser_.skip(3)) return false;
    if (kind != Kind::String && !out_.badMerge) {
      out_.badMerge =
          Place{fmt::format("$.model.merges[{}]", merges_), begin, excerpt(begin), kindName(kind)};
    }
    ++merges_;
    return true;
  }

  bool addedToken() {
    Kind kind;
    if (!parser_.peek(kind, 2)) return false;
    if (kind != Kind::Object) return parser_.skip(2);
    std::optional<std::int64_t> id;
    std::string content;
    const bool ok = parser_.object([&](std::string_view key) {
      Kind member;
      if (!parser_.peek(member, 3)) return false;
      if (key == "id" && member == Kind::Number) return parser_.integer(id);
      if (key == "content" && member == Kind::String) return parser_.string(content);
      return parser_.skip(3);
    });
    if (ok && id) {
      out_.addedIds.push_back(*id);
      out_.addedTexts.push_back(content);
    }
    return ok;
  }

  void findIdFault() {
    std::sort(ids_.begin(), ids_.end());
    for (std::size_t k = 0; k < ids_.size(); ++k) {
      if (ids_[k] == static_cast<std::int64_t>(k)) continue;
      const bool twice = k > 0 && ids_[k] == ids_[k - 1];
      out_.idFault = twice ? fmt::format("id {} is given twice", ids_[k])
                           : fmt::format("id {} is missing, the next one is {}", k, ids_[k]);
      return;
    }
  }

  std::string_view text_;
  Parser parser_;
  TokenizerJsonWalk out_;
  std::vector<std::int64_t> ids_;
  std::size_t merges_ = 0;
};

// ---- the protocol-buffers wire format

bool readVarint(ByteReader& in, std::uint64_t& out) {
  out = 0;
  for (unsigned shift = 0; shift < 70; shift += 7) {
    std::uint8_t byte;
    if (!in.readU8(byte)) return false;
    out |= std::uint64_t(byte & 0x7F) << (shift < 64 ? shift : 63);
    if (byte < 0x80) return true;
  }
  return false;
}

// One field; `bytes` gets the content of a length-delimited one.
bool readField(ByteReader& in, std::uint64_t& key, std::string_view& bytes) {
  std::uint64_t ignored;
  if (!readVarint(in, key)) return false;
  bytes = {};
  switch (key & 7) {
    case 0: return readVarint(in, ignored);
    case 1: return in.skip(8);
    case 2: return readVarint(in, ignored) && in.readBytes(ignored, bytes);
    case 5: return in.skip(4);
    default: return false;
  }
}

constexpr std::uint64_t delimited(std::uint64_t field) { return field << 3 | 2; }

bool isPiece(std::string_view message) {
  ByteReader in(message);
  bool text = false, score = false;
  while (!in.atEnd()) {
    std::uint64_t key;
    std::string_view bytes;
    if (!readField(in, key, bytes)) return false;
    text = text || key == delimited(1);
    score = score || key == (2 << 3 | 5);
  }
  return text && score;
}

}  // namespace

JsonFault jsonFaultOf(std::string_view text) {
  Parser parser(text.data(), text.size());
  return parser.skip(0) && parser.finish() ? JsonFault{} : faultOf(parser, text);
}

TokenizerJsonWalk walkTokenizerJson(std::string_view text) { return Walk(text).run(); }

bool hasUsualFieldNumbers(std::string_view message, std::uint64_t& pieces) {
  pieces = 0;
  ByteReader in(message);
  while (!in.atEnd()) {
    std::uint64_t key;
    std::string_view bytes;
    if (!readField(in, key, bytes)) return false;
    if (key == delimited(1) && isPiece(bytes)) ++pieces;
  }
  return pieces > 0;
}

bool isTiktoken(std::string_view text) {
  constexpr std::size_t kLongestLine = 1000;
  std::string_view line = text.substr(0, std::min(text.find('\n'), kLongestLine));
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  const auto isBase64 = [&](char c) {
    return isDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '+' || c == '/';
  };
  const auto base64End = std::find_if_not(line.begin(), line.end(), isBase64);
  const auto end = std::find_if(base64End, line.end(), [](char c) { return c != '='; });
  const auto bytes = static_cast<std::size_t>(end - line.begin());
  if (bytes == 0 || bytes % 4 != 0 || end - base64End > 2) return false;
  const bool hasSpace = end != line.end() && *end == ' ';
  if (!hasSpace && end == base64End) return false;
  const auto rank = hasSpace ? end + 1 : end;
  return rank != line.end() && std::all_of(rank, line.end(), isDigit);
}

}  // namespace zel::explain
