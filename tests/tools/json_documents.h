// The JSON documents of the command, read by another parser's rules than those that wrote them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/cli.h"

namespace zel::tool {

using nlohmann::json;

// What a run with --json said; throws when its standard output is anything but one document.
struct Answer {
  int exitCode = -1;
  json document;
  std::string err;
};

inline Answer okv2Answer(std::vector<std::string> arguments) {
  arguments.emplace_back("--json");
  const test::CommandResult result = okv2Run(arguments);
  return {result.exitCode, json::parse(result.out), result.err};
}

}  // namespace zel::tool
