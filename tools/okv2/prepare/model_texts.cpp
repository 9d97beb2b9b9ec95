#include "okv2/prepare/model_texts.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <utility>
#include <vector>

#include "hf/json_parser.h"
#include "hf/read_file.h"
#include "okv2/exit_codes.h"
#include "okv2/explain/disguise.h"
#include "okv2/explain/explanation.h"
#include "okv2/prepare/config_table.h"

namespace zel::tool::prepare {
namespace {

using explain::Id;

// The texts that the public library calls special besides "additional_special_tokens".
constexpr const char* kTokenMembers[] = {"bos_token", "eos_token", "unk_token", "sep_token",
                                         "pad_token", "cls_token", "mask_token"};

// False when the file is not there.
bool readJson(const std::string& directory, JsonFile& file, Id badJson, Id notObject, Changes& changes) {
  std::string text, reason;
  if (!readText(directory, file.name, kMaxConfigBytes, text)) return false;
  for (const LiftedNumber& number : liftPythonNumbers(text)) {
    changes.push_back({file.name, fmt::format("byte {}", number.offset), std::string(number.literal), "null",
                       "JSON has no such number", explain::rowOf(badJson).name});
  }
  refuseManyValues(file.name, text);
  const std::string remedy = fmt::format("Mend {}, or fetch it again.", file.name);
  if (!file.read(std::move(text), reason)) {
    throw Refused(kExitCorrupted, explain::rowOf(badJson).name, fmt::format("{}: {}", file.name, reason),
                  remedy);
  }
  if (!file.published().is_object()) {
    throw Refused(kExitCorrupted, explain::rowOf(notObject).name,
                  fmt::format("{}: $ is no object", file.name), remedy);
  }
  return true;
}

bool isAlone(const ModelTexts& texts) {
  return texts.tokenizerConfig.find("added_tokens_decoder") != nullptr;
}

// A text that has a part, and the file that says so.
struct SpecialText {
  std::string text;
  const char* source;
};

// In the order in which the public library adds them.
std::vector<SpecialText> specialTexts(const ModelTexts& texts) {
  std::vector<SpecialText> out;
  for (const char* member : kTokenMembers) {
    if (const JsonFile* file = fileThatNames(texts, member); file != nullptr)
      out.push_back({*tokenText(*file, member), file->name});
  }
  for (const JsonFile* file : {&texts.specialTokensMap, &texts.tokenizerConfig}) {
    if (file == &texts.specialTokensMap && isAlone(texts)) continue;
    const Json* more = file->find("additional_special_tokens");
    if (more == nullptr || !more->is_array()) continue;
    for (const Json& token : *more) {
      const std::string* text =
          token.is_string() ? &token.get_ref<const std::string&>() : textMember(token, "content");
      if (text != nullptr) out.push_back({*text, file->name});
    }
    break;  // the list of the first file replaces the other
  }
  return out;
}

void refuseTooMany(const char* file, std::size_t tokens) {
  if (tokens <= kMaxAddedTokens) return;
  throw Refused(kExitUnsupported, explain::rowOf(Id::TokenizerAddedOutside).name,
                fmt::format("{}: {} added tokens are more than the {} of any vocabulary", file, tokens,
                            kMaxAddedTokens),
                "Use the tokenizer files that belong to the model.");
}

void loseForItsId(ModelTexts& texts, const char* file, const std::string& text, const std::string& id) {
  texts.losses.push_back({Id::TokenizerAddedOutside, fmt::format("{}[\"{}\"]", file, text),
                          fmt::format("{}: the id of \"{}\" is {}", file, text, id)});
}

std::vector<AddedToken> tokensOfDecoder(ModelTexts& texts, const Json& decoder,
                                        const std::set<std::string>& named) {
  std::vector<AddedToken> out;
  if (!decoder.is_object()) return out;
  const char* file = texts.tokenizerConfig.name;
  refuseTooMany(file, decoder.size());
  for (const auto& [key, value] : decoder.items()) {
    const std::string* content = textMember(value, "content");
    if (content == nullptr) continue;  // nothing that would be added
    if (key.empty() || key.size() > 10 || key.find_first_not_of("0123456789") != std::string::npos) {
      if (named.count(*content) == 0) loseForItsId(texts, file, *content, Json(key).dump());
      continue;
    }
    const Json* special = findMember(value, "special");
    out.push_back({std::strtoll(key.c_str(), nullptr, 10), *content,
                   special != nullptr && special->is_boolean() && special->get<bool>(), file});
  }
  return out;
}

std::vector<AddedToken> tokensOfFile(ModelTexts& texts, const std::set<std::string>& special) {
  std::vector<AddedToken> out;
  const char* file = texts.addedTokens.name;
  refuseTooMany(file, texts.addedTokens.published().size());
  for (const auto& [text, value] : texts.addedTokens.published().items()) {
    if (const std::int64_t id = wholeNumber(value).value_or(-1); id >= 0) {
      out.push_back({id, text, special.count(text) != 0, file});
    } else if (special.count(text) == 0) {
      loseForItsId(texts, file, text, value.dump());
    }
  }
  return out;
}

}  // namespace

bool JsonFile::read(std::string text, std::string& reason) {
  original_ = std::move(text);
  exists = true;
  if (!parseTree(original_, root_, reason)) return false;
  index_ = MemberIndex(root_);
  return true;
}

const JsonFile::Edit* JsonFile::editOf(std::string_view key) const {
  const auto at =
      std::find_if(edits_.begin(), edits_.end(), [key](const Edit& edit) { return edit.key == key; });
  return at == edits_.end() ? nullptr : &*at;
}

const Json* JsonFile::find(std::string_view key) const {
  if (const Edit* edit = editOf(key); edit != nullptr) return edit->value ? &*edit->value : nullptr;
  return index_.find(key);
}

void JsonFile::edit(std::string_view key, std::optional<Json> value) {
  const auto at =
      std::find_if(edits_.begin(), edits_.end(), [key](const Edit& edit) { return edit.key == key; });
  if (at == edits_.end()) {
    edits_.push_back({std::string(key), std::move(value)});
  } else {
    at->value = std::move(value);
  }
}

void JsonFile::set(std::string_view key, Json value) {
  edit(key, std::move(value));
  exists = true;
}

void JsonFile::remove(std::string_view key) { edit(key, std::nullopt); }

std::string JsonFile::bytes() const {
  if (edits_.empty()) return original_;
  std::string out;
  const auto add = [&out](std::string_view key, std::string_view value) {
    out += out.empty() ? "{\n  " : ",\n  ";
    out.append(Json(key).dump()).append(": ").append(value);
  };
  std::set<const Edit*> written;
  if (!original_.empty()) {
    json::detail::Parser parser(original_.data(), original_.size());
    json::Kind kind;
    const auto offset = [&] { return original_.size() - parser.remaining(); };
    // What parsed once parses again.
    (void)(parser.peek(kind, 0) && parser.object([&](std::string_view key) {
      if (!parser.peek(kind, 1)) return false;
      const std::size_t begin = offset();
      if (!parser.skip(1)) return false;
      if (const Edit* edit = editOf(key); edit == nullptr) {
        add(key, std::string_view(original_).substr(begin, offset() - begin));
      } else if (edit->value && written.insert(edit).second) {
        add(key, edit->value->dump(2));
      }
      return true;
    }));
  }
  for (const Edit& edit : edits_) {
    if (edit.value && written.count(&edit) == 0) add(edit.key, edit.value->dump(2));
  }
  return (out.empty() ? "{" : out) + "\n}\n";
}

void refuseManyValues(const char* file, std::string_view text) {
  const std::size_t count =
      countValues(text);  // cppcheck-suppress invalidLifetime ; of another function's local
  if (count <= kMaxValues) return;
  json::detail::Parser parser(text.data(), text.size());  // cppcheck-suppress invalidLifetime
  // Parsing it will tell what is wrong.
  if (!parser.skip(0) || !parser.finish()) return;  // cppcheck-suppress invalidLifetime
  throw Refused(kExitUnsupported, explain::rowOf(Id::FileNotRegular).name,
                fmt::format("{}: {} values are more than the {} of any description", file, count, kMaxValues),
                fmt::format("Put the model's own {} there.", file));
}

bool readText(const std::string& directory, const std::string& name, std::uint64_t maxBytes,
              std::string& out) {
  const std::string path = directory + "/" + name;
  struct stat status;
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0) return false;
  if (static_cast<std::uint64_t>(status.st_size) > maxBytes) {
    throw Refused(
        kExitUnsupported, explain::rowOf(Id::FileNotRegular).name,
        fmt::format("{}: {} bytes are more than the {} of any description", name, status.st_size, maxBytes),
        fmt::format("Put the model's own {} there.", name));
  }
  std::vector<std::uint8_t> bytes;
  if (!zel::readFile(path, bytes)) {
    if (explain::FileLook look; !explain::lookAt(path, look) && look.isDenied) {
      const explain::FindingRow& row = explain::rowOf(Id::FileNoPermission);
      throw Refused(kExitIoError, row.name, fmt::format("{}: {}", name, row.what),
                    explain::adviceFor({row.id, name, ""}));
    }
    throw Refused(kExitIoError, explain::rowOf(Id::FileNotRegular).name,
                  fmt::format("{}: cannot be read", name), fmt::format("Make {} readable.", name));
  }
  out.assign(bytes.begin(), bytes.end());
  return true;
}

ModelTexts readModelTexts(const std::string& directory, Changes& changes) {
  ModelTexts texts;
  if (!readJson(directory, texts.config, Id::ConfigBadJson, Id::ConfigNotObject, changes)) {
    throw Refused(kExitInvalid, explain::rowOf(Id::ConfigMissing).name,
                  "config.json: there is none that can be read", explain::rowOf(Id::ConfigMissing).todo);
  }
  for (JsonFile* file : {&texts.tokenizerConfig, &texts.specialTokensMap, &texts.generationConfig})
    readSideFile(directory, *file, changes);
  if (texts.tokenizerConfig.find("added_tokens_decoder") == nullptr) {
    Changes notWritten;
    readSideFile(directory, texts.addedTokens, notWritten);
  }
  return texts;
}

void readSideFile(const std::string& directory, JsonFile& file, Changes& changes) {
  (void)readJson(directory, file, Id::SideBadJson, Id::SideBadJson, changes);
}

const std::string* tokenText(const JsonFile& file, std::string_view member) {
  const Json* token = file.find(member);
  if (token == nullptr) return nullptr;
  if (token->is_string()) return &token->get_ref<const std::string&>();
  return textMember(*token, "content");
}

const JsonFile* fileThatNames(const ModelTexts& texts, std::string_view member) {
  if (!isAlone(texts) && tokenText(texts.specialTokensMap, member) != nullptr) return &texts.specialTokensMap;
  return tokenText(texts.tokenizerConfig, member) != nullptr ? &texts.tokenizerConfig : nullptr;
}

std::vector<AddedToken> addedTokensOf(ModelTexts& texts) {
  const std::vector<SpecialText> named = specialTexts(texts);
  std::set<std::string> special;
  for (const SpecialText& part : named)
    special.insert(part.text);
  const Json* decoder = texts.tokenizerConfig.find("added_tokens_decoder");
  std::vector<AddedToken> out =
      decoder != nullptr ? tokensOfDecoder(texts, *decoder, special) : tokensOfFile(texts, special);
  for (const SpecialText& part : named)
    out.push_back({-1, part.text, true, part.source, false});
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
