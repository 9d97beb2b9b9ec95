#include "okv2/command_table.h"

#include <algorithm>
#include <utility>

namespace zel::tool {
namespace {

// "TEXT:{a,b}", as the parser describes a checked argument, gives a and b.
std::vector<std::string> choicesIn(const std::string& typeName) {
  std::vector<std::string> choices;
  const std::size_t open = typeName.find('{'), close = typeName.rfind('}');
  if (open == std::string::npos || close == std::string::npos || close < open) return choices;
  std::string rest = typeName.substr(open + 1, close - open - 1);
  while (!rest.empty()) {
    const std::size_t comma = std::min(rest.find(','), rest.size());
    choices.push_back(rest.substr(0, comma));
    rest.erase(0, comma + 1);
  }
  return choices;
}

// Options whose argument is a text, but not the path of a file.
struct TextArgument {
  const char* option;
  const char* name;
};
constexpr TextArgument kTextArguments[] = {{"meta", "KEY"}, {"against", "DIR"}, {"drop", "REGEX"}};

// The parser's own words for types say less than what they stand for.
std::string argumentNameOf(const CLI::Option& option) {
  if (option.get_positional()) return option.get_name(true);
  for (const TextArgument& argument : kTextArguments) {
    if (option.check_lname(argument.option)) return argument.name;
  }
  const std::string type = option.get_type_name().substr(0, option.get_type_name().find(':'));
  if (type == "UINT" || type == "INT" || type == "FLOAT") return "N";
  return type == "TEXT" ? "FILE" : type;
}

ArgumentKind kindOf(const std::string& argumentName) {
  if (argumentName == "DIR" || argumentName == "OUT") return ArgumentKind::Directory;
  for (const char* file : {"FILE", "REPORT", "A", "B"}) {
    if (argumentName == file) return ArgumentKind::File;
  }
  return ArgumentKind::Word;
}

OptionEntry optionEntry(const CLI::Option& option) {
  OptionEntry entry;
  entry.shortNames = option.get_snames();
  entry.longNames = option.get_lnames();
  entry.description = option.get_description();
  entry.required = option.get_required();
  if (option.get_items_expected_max() == 0) return entry;  // a flag
  entry.choices = choicesIn(option.get_type_name());
  entry.argumentName = entry.choices.empty() ? argumentNameOf(option) : "WORD";
  entry.kind = entry.choices.empty() ? kindOf(entry.argumentName) : ArgumentKind::Choice;
  return entry;
}

CommandEntry commandEntry(const CLI::App& app, std::string name) {
  CommandEntry entry;
  entry.name = std::move(name);
  entry.description = app.get_description();
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_group().empty()) continue;  // hidden
    (option->nonpositional() ? entry.options : entry.positionals).push_back(optionEntry(*option));
  }
  return entry;
}

}  // namespace

std::vector<CommandEntry> commandTable(const CLI::App& app) {
  std::vector<CommandEntry> table = {commandEntry(app, "")};
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App* candidate) {
         return !candidate->get_group().empty();  // of no group: hidden
       })) {
    table.push_back(commandEntry(*sub, sub->get_name()));
  }
  return table;
}

}  // namespace zel::tool
