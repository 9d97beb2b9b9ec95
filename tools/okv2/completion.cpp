#include "okv2/completion.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdio>
#include <memory>

#include "okv2/exit_codes.h"

namespace zel::tool {
namespace {

// All spellings of an option, as they are typed.
std::vector<std::string> spellings(const OptionEntry& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.shortNames)
    names.push_back("-" + name);
  for (const std::string& name : option.longNames)
    names.push_back("--" + name);
  return names;
}

std::vector<std::string> allSpellings(const CommandEntry& command) {
  std::vector<std::string> names;
  for (const OptionEntry& option : command.options) {
    for (std::string& name : spellings(option))
      names.push_back(std::move(name));
  }
  return names;
}

std::vector<std::string> subcommandNames(const std::vector<CommandEntry>& table) {
  std::vector<std::string> names;
  for (const CommandEntry& command : table) {
    if (!command.name.empty()) names.push_back(command.name);
  }
  return names;
}

// `text` with a backslash before each of `special`.
std::string backslashed(const std::string& text, const char* special) {
  std::string out;
  for (const char c : text) {
    if (std::string_view(special).find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

std::string bashReply(const OptionEntry& argument) {
  switch (argument.kind) {
    case ArgumentKind::File: return "_okv2_paths -f";
    case ArgumentKind::Directory: return "_okv2_paths -d";
    case ArgumentKind::Choice: return fmt::format("_okv2_words '{}'", fmt::join(argument.choices, " "));
    case ArgumentKind::Word:
    case ArgumentKind::None: break;
  }
  return ":";
}

constexpr char kBashHead[] = R"(# bash completion for okv2. Made by `okv2 completion bash`.

_okv2_words() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$word"); }
_okv2_paths() {
  mapfile -t COMPREPLY < <(compgen "$1" -- "$word")
  compopt -o filenames 2>/dev/null
}

_okv2() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command='' index
  COMPREPLY=()
  # --option=value comes in three words.
  if [[ $word == '=' ]]; then
    word=
  elif [[ $before == '=' ]]; then
    before=${COMP_WORDS[COMP_CWORD-2]}
  fi
  for ((index = 1; index < COMP_CWORD; ++index)); do
)";

// zsh's word for what completes an argument.
std::string zshAction(const OptionEntry& argument) {
  switch (argument.kind) {
    case ArgumentKind::File: return "_files";
    case ArgumentKind::Directory: return "_files -/";
    case ArgumentKind::Choice: return fmt::format("({})", fmt::join(argument.choices, " "));
    case ArgumentKind::Word:
    case ArgumentKind::None: break;
  }
  return " ";
}

std::string singleQuoted(const std::string& text) {
  std::string out = "'";
  for (const char c : text)
    out += c == '\'' ? "'\\''" : std::string(1, c);
  return out + "'";
}

// The arguments of zsh's _arguments for one command, one a line.
std::string zshArguments(const CommandEntry& command) {
  std::string out;
  for (const OptionEntry& option : command.options) {
    const std::vector<std::string> names = spellings(option);
    for (const std::string& name : names) {
      std::string optionText =
          fmt::format("({}){}[{}]", fmt::join(names, " "), name, backslashed(option.description, "[]\\"));
      if (option.kind != ArgumentKind::None) {
        optionText += fmt::format(":{}:{}", option.argumentName, zshAction(option));
      }
      out += fmt::format(" \\\n          {}", singleQuoted(optionText));
    }
  }
  if (!command.positionals.empty()) {
    const OptionEntry& first = command.positionals.front();
    out += fmt::format(" \\\n          {}",
                       singleQuoted(fmt::format("*:{}:{}", first.argumentName, zshAction(first))));
  }
  return out;
}

std::string fishOptions(const OptionEntry& option) {
  std::string out;
  for (const std::string& name : option.shortNames)
    out += " -s " + name;
  for (const std::string& name : option.longNames)
    out += " -l " + name;
  switch (option.kind) {
    case ArgumentKind::None: break;
    case ArgumentKind::File: out += " -r -F"; break;
    case ArgumentKind::Directory: out += " -x -a '(__fish_complete_directories)'"; break;
    case ArgumentKind::Choice: out += fmt::format(" -x -a '{}'", fmt::join(option.choices, " ")); break;
    case ArgumentKind::Word: out += " -x"; break;
  }
  return out;
}

// In single quotes of fish, which knows two escapes.
std::string fishQuoted(const std::string& text) { return "'" + backslashed(text, "'\\") + "'"; }

void printCompletion(const CLI::App& app, const std::string& kind) {
  const std::vector<CommandEntry> table = commandTable(app);
  const std::string text = kind == "bash"   ? bashCompletion(table)
                           : kind == "zsh"  ? zshCompletion(table)
                           : kind == "fish" ? fishCompletion(table)
                                            : manualSections(table, app.get_footer());
  std::fwrite(text.data(), 1, text.size(), stdout);
}

}  // namespace

std::string bashCompletion(const std::vector<CommandEntry>& table) {
  const std::string names = fmt::format("{}", fmt::join(subcommandNames(table), "|"));
  std::string out = kBashHead;
  out += fmt::format("    case ${{COMP_WORDS[index]}} in\n      {})\n", names) +
         "        command=${COMP_WORDS[index]}\n        break\n        ;;\n    esac\n  done\n"
         "  case $command:$before in\n";
  for (const CommandEntry& command : table) {
    for (const OptionEntry& option : command.options) {
      if (option.kind == ArgumentKind::None) continue;
      std::vector<std::string> patterns;
      for (const std::string& name : spellings(option))
        patterns.push_back(command.name + ":" + name);
      out += fmt::format("    {}) {}; return ;;\n", fmt::join(patterns, "|"), bashReply(option));
    }
  }
  out += "  esac\n  case $command:$word in\n";
  for (const CommandEntry& command : table) {
    out +=
        fmt::format("    {}:-*) _okv2_words '{}' ;;\n", command.name, fmt::join(allSpellings(command), " "));
    if (command.name.empty()) {
      out += fmt::format("    :*) _okv2_words '{}' ;;\n", fmt::join(subcommandNames(table), " "));
    } else if (!command.positionals.empty()) {
      out += fmt::format("    {}:*) {} ;;\n", command.name, bashReply(command.positionals.front()));
    }
  }
  return out + "  esac\n}\n\ncomplete -F _okv2 okv2\n";
}

std::string zshCompletion(const std::vector<CommandEntry>& table) {
  std::string out =
      "#compdef okv2\n# zsh completion for okv2. Made by `okv2 completion zsh`.\n\n_okv2() {\n"
      "  local context state state_descr line\n  typeset -A opt_args\n  _arguments -C";
  out += zshArguments(table.front());
  out +=
      " \\\n          '1:command:->command' \\\n          '*::argument:->argument'\n"
      "  case $state in\n    command)\n      local -a commands=(\n";
  for (const CommandEntry& command : table) {
    if (!command.name.empty()) {
      out += fmt::format("        {}\n", singleQuoted(command.name + ":" + command.description));
    }
  }
  out += "      )\n      _describe command commands\n      ;;\n    argument)\n      case $line[1] in\n";
  for (const CommandEntry& command : table) {
    if (command.name.empty()) continue;
    out += fmt::format("        {})\n          _arguments{}\n          ;;\n", command.name,
                       zshArguments(command));
  }
  // Autoloaded, the file is the function's body; sourced, it is only to define it.
  return out +
         "      esac\n      ;;\n  esac\n}\n\n"
         "if [[ $funcstack[1] == _okv2 ]]; then\n  _okv2 \"$@\"\nelse\n  compdef _okv2 okv2\nfi\n";
}

std::string fishCompletion(const std::vector<CommandEntry>& table) {
  std::string out = "# fish completion for okv2. Made by `okv2 completion fish`.\n\ncomplete -c okv2 -f\n";
  for (const CommandEntry& command : table) {
    const std::string condition =
        command.name.empty() ? "__fish_use_subcommand" : "'__fish_seen_subcommand_from " + command.name + "'";
    const std::string start = fmt::format("complete -c okv2 -n {}", condition);
    if (!command.name.empty()) {
      out += fmt::format("complete -c okv2 -n __fish_use_subcommand -a {} -d {}\n", command.name,
                         fishQuoted(command.description));
    }
    for (const OptionEntry& option : command.options) {
      out += fmt::format("{}{} -d {}\n", start, fishOptions(option), fishQuoted(option.description));
    }
    if (command.positionals.empty()) continue;
    const OptionEntry& first = command.positionals.front();
    if (first.kind == ArgumentKind::File) out += start + " -F\n";
    if (first.kind == ArgumentKind::Directory) out += start + " -a '(__fish_complete_directories)'\n";
  }
  return out;
}

void addCompletionCommand(CLI::App& app, int& exitCode) {
  const auto kind = std::make_shared<std::string>();
  CLI::App* sub = app.add_subcommand("completion", "Print a completion script for a shell");
  sub->group("");  // for the build and for packagers: not in the help
  sub->add_option("SHELL", *kind, "bash, zsh, fish, or man for a part of the manual page")
      ->required()
      ->check(CLI::IsMember({"bash", "zsh", "fish", "man"}));
  sub->callback([&app, kind, &exitCode] {
    printCompletion(app, *kind);
    exitCode = kExitOk;
  });
}

}  // namespace zel::tool
