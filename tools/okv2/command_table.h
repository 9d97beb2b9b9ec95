// The command line as data: what completion scripts and the manual page are made from, so that neither can
// name an option that is not there or miss one that is.
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

namespace zel::tool {

// What a word of the command line stands for.
enum class ArgumentKind { None, File, Directory, Choice, Word };

struct OptionEntry {
  std::vector<std::string> shortNames;  // without dash
  std::vector<std::string> longNames;   // without dashes; empty, like shortNames, for positional arguments
  std::string argumentName;             // "FILE", say; empty when there is no argument
  std::string description;
  ArgumentKind kind = ArgumentKind::None;
  std::vector<std::string> choices;  // of a Choice
  bool required = false;
};

struct CommandEntry {
  std::string name;  // empty for the command itself
  std::string description;
  std::vector<OptionEntry> options;
  std::vector<OptionEntry> positionals;
};

// The command itself first, then its subcommands; hidden ones are left out.
std::vector<CommandEntry> commandTable(const CLI::App& app);

}  // namespace zel::tool
