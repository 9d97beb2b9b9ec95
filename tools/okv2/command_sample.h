// okv2 sample: its options and what runs behind them.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>

namespace zel::tool {

// Adds the command to `app`; when it is chosen, `exitCode` receives its result.
void addSampleCommand(CLI::App& app, int& exitCode);

}  // namespace zel::tool
