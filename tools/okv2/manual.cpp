// The part of okv2(1) that follows from the option table, in man(7) macros.
#include <fmt/format.h>

#include <cctype>
#include <sstream>

#include "okv2/completion.h"

namespace zel::tool {
namespace {

// Text as roff shows it unchanged, in one line.
std::string roff(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";  // a minus sign that can be copied, not a hyphen
    } else if (out.empty() && (c == '.' || c == '\'')) {
      out += std::string("\\&") + c;  // no request
    } else {
      out += c == '\n' ? ' ' : c;
    }
  }
  return out;
}

std::string argumentText(const OptionEntry& option) {
  if (option.kind == ArgumentKind::None) return "";
  if (option.kind != ArgumentKind::Choice) return "\\fI" + roff(option.argumentName) + "\\fR";
  std::string out;
  for (const std::string& choice : option.choices)
    out += (out.empty() ? "\\fB" : "|\\fB") + roff(choice) + "\\fR";
  return out;
}

std::string optionText(const OptionEntry& option) {
  std::string names;
  for (const std::string& name : option.shortNames)
    names += (names.empty() ? "\\fB" : ", \\fB") + roff("-" + name) + "\\fR";
  for (const std::string& name : option.longNames)
    names += (names.empty() ? "\\fB" : ", \\fB") + roff("--" + name) + "\\fR";
  const std::string argument = argumentText(option);
  return fmt::format(".TP\n{}{}{}\n{}{}\n", names, argument.empty() ? "" : " ", argument,
                     roff(option.description), option.required ? ". Required." : ".");
}

std::string commandText(const CommandEntry& command) {
  std::string out = fmt::format(".SS {}\n.B okv2 {}\n", roff(command.name), roff(command.name));
  out += ".RI [ options ]\n";
  for (const OptionEntry& positional : command.positionals)
    out += ".I " + roff(positional.argumentName) + "\n";
  out += fmt::format(".PP\n{}.\n", roff(command.description));
  for (const OptionEntry& positional : command.positionals) {
    out += fmt::format(".TP\n\\fI{}\\fR\n{}.\n", roff(positional.argumentName), roff(positional.description));
  }
  for (const OptionEntry& option : command.options) {
    const bool isHelp = option.longNames == std::vector<std::string>{"help"};  // told once, for all
    if (!isHelp) out += optionText(option);
  }
  return out;
}

// "  64  wrong usage" gives a paragraph; a line without a number is a heading and left out.
std::string exitCodesText(const std::string& exitCodes) {
  std::string out;
  std::istringstream lines(exitCodes);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t number = line.find_first_not_of(' ');
    if (number == std::string::npos || std::isdigit(static_cast<unsigned char>(line[number])) == 0) continue;
    const std::size_t gap = line.find(' ', number);
    const std::size_t text = line.find_first_not_of(' ', gap);
    if (text == std::string::npos) continue;
    out += fmt::format(".TP\n.B {}\n{}.\n", line.substr(number, gap - number), roff(line.substr(text)));
  }
  return out;
}

}  // namespace

std::string manualSections(const std::vector<CommandEntry>& table, const std::string& exitCodes) {
  std::string out = ".SH OPTIONS\n";
  for (const OptionEntry& option : table.front().options)
    out += optionText(option);
  out += ".SH COMMANDS\n";
  for (const CommandEntry& command : table) {
    if (!command.name.empty()) out += commandText(command);
  }
  return out + ".SH EXIT STATUS\n" + exitCodesText(exitCodes);
}

}  // namespace zel::tool
