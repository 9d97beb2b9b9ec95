// The chat template: where it came from, and which others were passed over.
#include <fmt/format.h>

#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>

#include "okv2/explain/steps.h"
#include "okv2/explain/tokenizer_walk.h"

namespace zel::explain {
namespace {

// The template of a file of its own, unless nothing of it is missing.
void explainJinja(const Directory& directory, const std::string& kept, Explanation& out) {
  constexpr char kJinja[] = "chat_template.jinja";
  const auto file = directory.files.find(kJinja);
  if (file == directory.files.end() || file->second.bytes == 0) return;
  // Never read for its own sake: a file of another length is another text.
  if (file->second.bytes == kept.size() && contentOf(directory.pathOf(kJinja)) == kept) return;
  out.add(Id::TemplateJinjaFile, kJinja, fmt::format("{} bytes", file->second.bytes));
}

// The same for the file in which older releases keep a template beside a processor's settings.
void explainJsonFile(const Directory& directory, const std::string& kept, Explanation& out) {
  constexpr char kTemplateFile[] = "chat_template.json";
  const auto file = directory.files.find(kTemplateFile);
  if (file == directory.files.end() || file->second.bytes == 0) return;
  const std::string text = contentOf(directory.pathOf(kTemplateFile));
  json::Value root;
  if (json::parse(text.data(), text.size(), root).ok() && root.isObject()) {
    const json::Value* value = root.get("chat_template");
    if (value == nullptr || value->kind == json::Kind::Null) return;
    if (value->isString() && value->text == kept) return;
  }
  out.add(Id::TemplateJsonFile, kTemplateFile, fmt::format("{} bytes", file->second.bytes));
}

// Templates with a name, one a file.
void explainFolder(const Directory& directory, Explanation& out) {
  constexpr char kFolder[] = "additional_chat_templates";
  constexpr std::size_t kListed = 3;
  if (!directory.has(kFolder)) return;
  std::set<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator it(directory.pathOf(kFolder), error), end; !error && it != end;
       it.increment(error)) {
    if (it->path().extension() == ".jinja") names.insert(it->path().filename().native());
  }
  if (names.empty()) return;
  std::string list;
  std::size_t count = 0;
  for (const std::string& name : names) {
    if (count++ < kListed) list += (list.empty() ? "" : ", ") + name;
  }
  if (count > kListed) list += fmt::format(", {} more", count - kListed);
  out.add(Id::TemplateFolder, kFolder, list);
}

}  // namespace

void explainTemplate(const Directory& directory, const plan::ImportPlan& plan, Explanation& out) {
  const json::Value* inConfig = plan.model.config.get("chat_template");
  const bool configHasText = inConfig != nullptr && inConfig->isString() && !inConfig->text.empty();
  json::Value side;
  const std::string sideText = contentOf(directory.pathOf("tokenizer_config.json"));
  if (!sideText.empty()) {
    const Status status = json::parse(sideText.data(), sideText.size(), side);
    if (!status.ok() || !side.isObject()) {
      out.add(Id::SideBadJson, "tokenizer_config.json",
              status.ok() ? std::string("$ is ") + kindName(side.kind) : status.message());
      if (jsonFaultOf(sideText).cutShort) {
        out.add(Id::FilePartial, "tokenizer_config.json", "the text ends in the middle");
      }
      side = json::Value();
    }
  }
  const json::Value* inSide = side.get("chat_template");
  const std::string& kept = plan.model.tokenizer.chatTemplate;
  // config.json's template is taken by the tokenizer readers only.
  const bool fromConfig = configHasText && !out.tokenizer.winner.empty();
  if (!kept.empty()) out.chatTemplate.source = fromConfig ? "config.json" : "tokenizer_config.json";
  out.chatTemplate.bytes = kept.size();
  out.chatTemplate.stored = !kept.empty() && out.tokenizer.tokens > 0;
  for (const auto& [value, file] : {std::pair(inConfig, "config.json"), {inSide, "tokenizer_config.json"}}) {
    if (value == nullptr || value->isString() || value->kind == json::Kind::Null) continue;
    out.add(value->isArray() ? Id::TemplateList : Id::TemplateNotText, file,
            value->isArray() || value->isObject()
                ? fmt::format("{}: $.chat_template is {} of {} entries", file, kindName(value->kind),
                              value->items.size() + value->members.size())
                : fmt::format("{}: $.chat_template is {}", file, shortJson(*value)));
  }
  if (fromConfig && inSide != nullptr && inSide->isString() && !inSide->text.empty() &&
      inSide->text != kept) {
    out.add(Id::TemplateConfigWins, "tokenizer_config.json",
            fmt::format("$.chat_template of {} bytes", inSide->text.size()));
  }
  explainJinja(directory, kept, out);
  explainJsonFile(directory, kept, out);
  explainFolder(directory, out);
  if (!out.chatTemplate.stored && (!kept.empty() || configHasText)) {
    out.add(Id::TemplateDropped, kept.empty() || fromConfig ? "config.json" : out.chatTemplate.source,
            fmt::format("$.chat_template of {} bytes", kept.empty() ? inConfig->text.size() : kept.size()));
  }
}

}  // namespace zel::explain
