#include "okv2/json_output.h"

#include <cstdio>

#include "okv2/failure.h"
#include "okv2/messages.h"

namespace zel::tool {
namespace {

bool printed = false;

}  // namespace

Json newDocument(const char* command) { return {{"schema", kJsonSchema}, {"command", command}}; }

std::string textOf(const Json& document) {
  // In ASCII: JSON itself lets DEL and the C1 control characters through, which terminals obey.
  return document.dump(2, ' ', /*ensure_ascii=*/true, Json::error_handler_t::replace) + "\n";
}

void print(const Json& document) {
  const std::string text = textOf(document);
  std::fwrite(text.data(), 1, text.size(), stdout);
  printed = true;
}

bool documentWasPrinted() noexcept { return printed; }

int failDocument(bool json, const char* command, int code, const std::string& message) {
  if (json && !printed) {
    Json document = newDocument(command);
    document["exit_code"] = code;
    document["error"] = message;
    print(document);
  }
  return code;
}

int fail(bool json, const char* command, int code, const std::string& message) {
  complain("{}", message);
  return failDocument(json, command, code, message);
}

}  // namespace zel::tool
