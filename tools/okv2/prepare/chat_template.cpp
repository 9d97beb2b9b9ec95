#include "okv2/prepare/chat_template.h"

#include <fmt/format.h>

#include <optional>
#include <utility>

#include "okv2/exit_codes.h"
#include "okv2/explain/finding_table.h"

namespace zel::tool::prepare {
namespace {

using explain::Id;

constexpr char kKey[] = "chat_template";
constexpr char kJinja[] = "chat_template.jinja";
constexpr char kJson[] = "chat_template.json";

struct Template {
  std::string text;
  std::string why;
  Id finding = Id::TemplateJinjaFile;
};

// The text of a template, or of the one named "default" among several.
std::optional<std::string> defaultOf(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_object()) {
    const std::string* text = textMember(value, "default");
    return text == nullptr ? std::nullopt : std::optional<std::string>(*text);
  }
  if (!value.is_array()) return std::nullopt;
  for (const Json& entry : value) {
    const std::string* name = textMember(entry, "name");
    const std::string* text = textMember(entry, "template");
    if (name != nullptr && *name == "default" && text != nullptr) return *text;
  }
  return std::nullopt;
}

std::optional<Template> fromJinja(const std::string& directory) {
  std::string text;
  if (!readText(directory, kJinja, kMaxConfigBytes, text)) return std::nullopt;
  // What cannot be quoted in JSON without a change is no text.
  try {
    (void)Json(text).dump();
  } catch (const Json::type_error&) {
    throw Refused(kExitCorrupted, explain::rowOf(Id::TemplateJinjaFile).name,
                  fmt::format("{}: it is not in UTF-8", kJinja), fmt::format("Fetch {} again.", kJinja));
  }
  return Template{std::move(text), fmt::format("{} holds it", kJinja), Id::TemplateJinjaFile};
}

std::optional<Template> fromTokenizerConfig(const ModelTexts& texts) {
  const Json* value = texts.tokenizerConfig.find(kKey);
  if (value == nullptr) return std::nullopt;
  std::optional<std::string> text = defaultOf(*value);
  if (!text) return std::nullopt;
  return Template{std::move(*text), "the entry named \"default\" is the one that is used", Id::TemplateList};
}

std::string sizeOf(const Json* value) {
  if (value == nullptr || value->is_null()) return "";
  if (value->is_string()) return fmt::format("{} bytes", value->get_ref<const std::string&>().size());
  return fmt::format("{} of {} entries", value->is_array() ? "a list" : "an object", value->size());
}

// A template that cannot be taken is among the losses: the prepared directory does not have the file.
std::optional<Template> fromJsonFile(const std::string& directory, ModelTexts& texts) {
  JsonFile file(kJson);
  Changes notWritten;
  readSideFile(directory, file, notWritten);
  const Json* value = file.find(kKey);
  if (value == nullptr || value->is_null()) return std::nullopt;
  std::optional<std::string> found = defaultOf(*value);
  if (found) return Template{std::move(*found), fmt::format("{} holds it", kJson), Id::TemplateJsonFile};
  texts.losses.push_back({value->is_array() ? Id::TemplateList : Id::TemplateNotText, kJson,
                          fmt::format("{}: $.chat_template is {}", kJson,
                                      value->is_structured() ? sizeOf(value) : value->dump())});
  return std::nullopt;
}

}  // namespace

void mendChatTemplate(const std::string& directory, ModelTexts& texts, Changes& changes) {
  std::optional<Template> found = fromJinja(directory);
  if (!found) found = fromTokenizerConfig(texts);
  if (!found) found = fromJsonFile(directory, texts);
  if (!found) return;
  const Json* now = texts.tokenizerConfig.find(kKey);
  if (now == nullptr || *now != found->text) {
    changes.push_back({"tokenizer_config.json", "$.chat_template", sizeOf(now),
                       fmt::format("{} bytes", found->text.size()), found->why,
                       explain::rowOf(found->finding).name});
    texts.tokenizerConfig.set(kKey, found->text);
  }
  const Json* rival = texts.config.find(kKey);
  if (rival == nullptr || rival->is_null() || *rival == found->text) return;
  changes.push_back({"config.json", "$.chat_template", sizeOf(rival), "",
                     "an import would prefer it to the tokenizer's own",
                     explain::rowOf(Id::TemplateConfigWins).name});
  texts.config.remove(kKey);
}

}  // namespace zel::tool::prepare
