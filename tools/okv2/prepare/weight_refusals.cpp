#include "okv2/prepare/weight_refusals.h"

#include "okv2/exit_codes.h"
#include "okv2/explain/explanation.h"
#include "okv2/prepare/outcome.h"

namespace zel::tool::prepare {

void refuseWeights(int exitCode, explain::Id finding, const std::string& subject,
                   const std::string& message) {
  refuseWeights(exitCode, finding, subject, message, explain::adviceFor({finding, subject, ""}));
}

void refuseWeights(int exitCode, explain::Id finding, const std::string& subject, const std::string& message,
                   const std::string& remedy) {
  // An exception's text ends at its first zero byte, and names may hold some.
  std::string text = subject;
  text += ": ";
  text += message;
  std::string whole;
  for (const char c : text) {
    if (c == '\0') {
      whole += "\\0";
    } else {
      whole += c;
    }
  }
  throw Refused(exitCode, explain::rowOf(finding).name, whole, remedy);
}

int exitCodeOf(const Status& status) noexcept {
  switch (status.code()) {
    case Code::OK: return kExitOk;
    case Code::InvalidFormat: return kExitInvalid;
    case Code::Unsupported: return kExitUnsupported;
    case Code::Corrupted: return kExitCorrupted;
    case Code::IOError: return kExitIoError;
  }
  return kExitFailed;
}

}  // namespace zel::tool::prepare
