// What the tests of the command have in common.
#pragma once

#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/container_builder.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace zel::tool {

inline test::CommandResult okv2Run(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), OKV2_COMMAND);
  return test::runCommand(arguments);
}

// test::fullContainer() in `dir`; returns its path.
inline std::string writeFullContainer(const test::TempDir& dir) {
  return dir.write("c.okv2", test::fullContainer().build().bytes);
}

// A sample model in `dir`/model; returns its path.
inline std::string sampleModel(const test::TempDir& dir, std::vector<std::string> options = {}) {
  const std::string model = dir / "model";
  options.insert(options.begin(), {"sample", model, "--size", "50K"});
  const test::CommandResult result = okv2Run(options);
  if (result.exitCode != 0) throw std::runtime_error(result.err);
  return model;
}

// Names of everything in a directory, hidden files included.
inline std::set<std::string> namesIn(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.insert(entry.path().filename());
  }
  return names;
}

}  // namespace zel::tool
