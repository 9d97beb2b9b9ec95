#include "okv2/terminal.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace zel::tool {
namespace {

std::string_view variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

bool obeysControls(int descriptor) {
  const std::string_view terminal = variable("TERM");
  return ::isatty(descriptor) == 1 && !terminal.empty() && terminal != "dumb";
}

bool wantsColour(int descriptor) { return obeysControls(descriptor) && variable("NO_COLOR").empty(); }

}  // namespace zel::tool
