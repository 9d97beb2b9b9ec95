// hash: SHA-256 of every tensor's bytes, in the form of sha256sum.
#include <fmt/format.h>
#include <openssl/evp.h>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "okv2/commands.h"
#include "okv2/container_text.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/failure.h"
#include "okv2/json_output.h"

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
  std::string name;  // escaped
};

// False when a line is none of sha256sum's.
bool parseSums(const std::string& text, std::vector<Sum>& out) {
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line[0] == '\\') line.erase(0, 1);
    if (line.size() < kDigits + 2 || line[kDigits] != ' ' ||
        line.substr(0, kDigits).find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
      return false;
    }
    Sum sum{line.substr(0, kDigits), line.substr(kDigits + 2)};
    for (char& c : sum.digest)
      c = static_cast<char>(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c);
    out.push_back(std::move(sum));
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
  std::ifstream in(options.sums, std::ios::binary);
  std::ostringstream text;
  if (!in || !(text << in.rdbuf())) {
    return fail(options.json, "hash", kExitIoError, "cannot read " + escaped(options.sums));
  }
  std::vector<Sum> sums;
  if (!parseSums(text.str(), sums)) {
    return fail(options.json, "hash", kExitInvalid, escaped(options.sums) + ": not a list of sums");
  }
  // Several tensors may share a name: they answer in their order.
  std::map<std::string, std::vector<const TensorView*>> byName;
  for (auto it = view.tensors.rbegin(); it != view.tensors.rend(); ++it)
    byName[escaped(it->name)].push_back(&*it);
  std::size_t failed = 0;
  Json results = Json::array();
  const auto tell = [&](const std::string& name, const char* result, bool good) {
    failed += !good;
    results.push_back({{"name", name}, {"result", result}});
    if (!options.json) fmt::print("{}: {}\n", name, result);
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
  for (const TensorView& tensor : view.tensors) {
    if (view.tensorData(tensor).size() == tensor.size) continue;
    return fail(options.json, "hash", kExitBadContainer,
                fmt::format("{}: tensor '{}' does not lie inside the file", escaped(options.file),
                            escaped(tensor.name)));
  }
  return options.sums.empty() ? printSums(options, view) : check(options, view);
}

}  // namespace zel::tool
