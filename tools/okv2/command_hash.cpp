// hash: SHA-256 of every tensor's bytes, in the form of sha256sum.
#include <fmt/format.h>
#include <openssl/evp.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <optional>
#include <stdexcept>

#include "okv2/commands.h"
#include "okv2/container_text.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/failure.h"
#include "okv2/json_output.h"
#include "okv2/text_file.h"

namespace zel::tool {
namespace {

constexpr std::size_t kDigits = 64;

std::string sha256(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 is not available");
  }
  std::string out;
  for (unsigned k = 0; k < size; ++k)
    out += fmt::format("{:02x}", digest[k]);
  return out;
}

// A line of sha256sum: a name with a backslash or a line break is written with escapes and marked by a
// backslash in front.
std::string sumLine(const std::string& digest, std::string_view name) {
  const std::string shown = escaped(name);
  return fmt::format("{}{}  {}\n", shown == name ? "" : "\\", digest, shown);
}

struct Sum {
  std::string digest;
  std::string name;  // as it is, without escapes
};

// Takes back what sumLine() has done to a name. Nothing when there is an escape that it does not make.
std::optional<std::string> unescaped(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const char first = text[0];
    text.remove_prefix(1);
    if (first != '\\') {
      out += first;
      continue;
    }
    const char kind = text.empty() ? '\0' : text[0];
    text.remove_prefix(text.empty() ? 0 : 1);
    unsigned char byte = 0;
    switch (kind) {
      case 'n': byte = '\n'; break;
      case 'r': byte = '\r'; break;
      case 't': byte = '\t'; break;
      case '\\': byte = '\\'; break;
      case 'x': {
        const char* end = text.data() + std::min<std::size_t>(text.size(), 2);
        if (const auto [at, error] = std::from_chars(text.data(), end, byte, 16);
            error != std::errc() || at != text.data() + 2) {
          return std::nullopt;
        }
        text.remove_prefix(2);
        break;
      }
      default: return std::nullopt;
    }
    out += static_cast<char>(byte);
  }
  return out;
}

bool isDigest(std::string_view text) {
  return text.size() == kDigits && text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

// False when a line is none of sha256sum's.
bool parseSum(std::string_view line, Sum& out) {
  // From an editor or a transfer that ends lines with two characters: names that end so are escaped.
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  const bool hasEscapes = !line.empty() && line[0] == '\\';
  if (hasEscapes) line.remove_prefix(1);
  if (line.size() < kDigits + 2 || line[kDigits] != ' ' || !isDigest(line.substr(0, kDigits))) return false;
  out.digest = line.substr(0, kDigits);
  for (char& c : out.digest)
    c = static_cast<char>(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c);
  out.name = line.substr(kDigits + 2);
  if (!hasEscapes) return true;
  std::optional<std::string> name = unescaped(out.name);
  if (name) out.name = std::move(*name);
  return name.has_value();
}

bool parseSums(std::string_view text, std::vector<Sum>& out) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    if (!parseSum(text.substr(0, end), out.emplace_back())) return false;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return true;
}

int printSums(const HashOptions& options, const ContainerView& view) {
  Json sums = Json::array();
  for (const TensorView& tensor : view.tensors) {
    const std::string digest = sha256(view.tensorData(tensor));
    if (options.json) {
      sums.push_back({{"name", tensor.name}, {"sha256", digest}});
    } else {
      fmt::print("{}", sumLine(digest, tensor.name));
    }
  }
  if (options.json) {
    Json document = newDocument("hash");
    document["file"] = options.file;
    document["tensors"] = std::move(sums);
    print(document);
  }
  return kExitOk;
}

int check(const HashOptions& options, const ContainerView& view) {
  std::string text;
  if (const int code = readText(options.json, "hash", options.sums, text); code != kExitOk) return code;
  std::vector<Sum> sums;
  if (!parseSums(text, sums)) {
    return fail(options.json, "hash", kExitInvalid, escaped(options.sums) + ": not a list of sums");
  }
  // Several tensors may share a name: they answer in their order.
  std::map<std::string, std::vector<const TensorView*>> byName;
  for (auto it = view.tensors.rbegin(); it != view.tensors.rend(); ++it)
    byName[std::string(it->name)].push_back(&*it);
  std::size_t failed = 0;
  Json results = Json::array();
  const auto tell = [&](const std::string& name, const char* result, bool good) {
    failed += !good;
    if (options.json) {
      results.push_back({{"name", escaped(name)}, {"result", result}});
    } else {
      fmt::print("{}: {}\n", escaped(name), result);
    }
  };
  for (const Sum& sum : sums) {
    auto& tensors = byName[sum.name];
    if (tensors.empty()) {
      tell(sum.name, "MISSING", false);
      continue;
    }
    const bool good = sha256(view.tensorData(*tensors.back())) == sum.digest;
    tensors.pop_back();
    tell(sum.name, good ? "OK" : "FAILED", good);
  }
  for (const auto& [name, tensors] : byName) {
    for (std::size_t k = 0; k < tensors.size(); ++k)
      tell(name, "NOT LISTED", false);
  }
  const int code = failed == 0 ? kExitOk : kExitDifferent;
  if (options.json) {
    Json document = newDocument("hash");
    document["exit_code"] = code;
    document["file"] = options.file;
    document["tensors"] = std::move(results);
    print(document);
  }
  return code;
}

}  // namespace

int runHash(const HashOptions& options) {
  ContainerFile file;
  ContainerView view;
  if (const int code = readContainer(options.json, "hash", options.file, file, view); code != kExitOk) {
    return code;
  }
  if (const int code = requireTensorData(options.json, "hash", options.file, view); code != kExitOk) {
    return code;
  }
  return options.sums.empty() ? printSums(options, view) : check(options, view);
}

}  // namespace zel::tool
