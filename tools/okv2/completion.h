// The hidden command `okv2 completion bash|zsh|fish|man`: scripts that complete the command line, and the
// part of the manual page that lists commands, options and exit codes. The build runs it (completion/, man/).
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

#include "okv2/command_table.h"

namespace zel::tool {

std::string bashCompletion(const std::vector<CommandEntry>& table);
std::string zshCompletion(const std::vector<CommandEntry>& table);
std::string fishCompletion(const std::vector<CommandEntry>& table);
// `exitCodes` is the footer of the help, one code a line.
std::string manualSections(const std::vector<CommandEntry>& table, const std::string& exitCodes);

// Called last: the output tells of the commands that `app` has when it runs.
void addCompletionCommand(CLI::App& app, int& exitCode);

}  // namespace zel::tool
