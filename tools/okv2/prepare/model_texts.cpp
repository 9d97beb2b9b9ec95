#include "okv2/prepare/model_texts.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cstdlib>
#include <vector>

#include "hf/read_file.h"
#include "okv2/exit_codes.h"
#include "okv2/explain/finding_table.h"
#include "okv2/prepare/config_table.h"

namespace zel::tool::prepare {
namespace {

using explain::Id;

// False when the file is not there.
bool readJson(const std::string& directory, JsonFile& file, Id badJson, Id notObject) {
  if (!readText(directory, file.name, file.original)) return false;
  std::string reason;
  const std::string remedy = fmt::format("Mend {}, or fetch it again.", file.name);
  if (!parseTree(file.original, file.root, reason)) {
    throw Refused(kExitCorrupted, explain::rowOf(badJson).name, fmt::format("{}: {}", file.name, reason),
                  remedy);
  }
  if (!file.root.is_object()) {
    throw Refused(kExitCorrupted, explain::rowOf(notObject).name,
                  fmt::format("{}: $ is no object", file.name), remedy);
  }
  file.exists = true;
  return true;
}

}  // namespace

bool readText(const std::string& directory, const std::string& name, std::string& out) {
  const std::string path = directory + "/" + name;
  struct stat status;
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0) return false;
  if (static_cast<std::uint64_t>(status.st_size) > kMaxTextBytes) {
    throw Refused(kExitUnsupported, explain::rowOf(Id::FileNotRegular).name,
                  fmt::format("{}: {} bytes are more than the {} of any description", name, status.st_size,
                              kMaxTextBytes),
                  fmt::format("Put the model's own {} there.", name));
  }
  std::vector<std::uint8_t> bytes;
  if (!zel::readFile(path, bytes)) {
    throw Refused(kExitIoError, explain::rowOf(Id::FileNotRegular).name,
                  fmt::format("{}: cannot be read", name), fmt::format("Make {} readable.", name));
  }
  out.assign(bytes.begin(), bytes.end());
  return true;
}

ModelTexts readModelTexts(const std::string& directory) {
  ModelTexts texts;
  if (!readJson(directory, texts.config, Id::ConfigBadJson, Id::ConfigNotObject)) {
    throw Refused(kExitInvalid, explain::rowOf(Id::ConfigMissing).name,
                  "config.json: there is none that can be read", explain::rowOf(Id::ConfigMissing).todo);
  }
  for (JsonFile* file : {&texts.tokenizerConfig, &texts.specialTokensMap, &texts.generationConfig})
    (void)readJson(directory, *file, Id::SideBadJson, Id::SideBadJson);
  return texts;
}

std::vector<AddedToken> addedTokensOf(const ModelTexts& texts) {
  std::vector<AddedToken> out;
  const Json* decoder = findMember(texts.tokenizerConfig.root, "added_tokens_decoder");
  if (decoder == nullptr || !decoder->is_object()) return out;
  for (const auto& [key, value] : decoder->items()) {
    const bool isNumber =
        !key.empty() && key.size() <= 10 && key.find_first_not_of("0123456789") == std::string::npos;
    const std::string* content = textMember(value, "content");
    if (!isNumber || content == nullptr) continue;  // nothing that would be added
    const Json* special = findMember(value, "special");
    out.push_back({std::strtoll(key.c_str(), nullptr, 10), *content,
                   special != nullptr && special->is_boolean() && special->get<bool>()});
  }
  return out;
}

const Json* nestedTextConfig(const Json& config, std::string& path) {
  for (const NestedRow& row : kNestedRows) {
    const Json* outer = findMember(config, row.outer);
    if (outer == nullptr || !outer->is_object()) continue;
    if (row.inner == nullptr) {
      path = fmt::format("$.{}", row.outer);
      return outer;
    }
    const Json* inner = findMember(*outer, row.inner);
    if (inner == nullptr || !inner->is_object()) continue;
    path = fmt::format("$.{}.{}", row.outer, row.inner);
    return inner;
  }
  return nullptr;
}

}  // namespace zel::tool::prepare
