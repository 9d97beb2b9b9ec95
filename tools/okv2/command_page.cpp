// report: a container as an HTML page.
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "okv2/commands.h"
#include "okv2/container_text.h"
#include "okv2/destination.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/html_page.h"
#include "okv2/interruption.h"
#include "okv2/messages.h"
#include "okv2/pending_file.h"

namespace zel::tool {

int runPage(const PageOptions& options) {
  ignoreClosedPipes();
  ContainerFile file;
  if (const int code = openContainer(false, "report", options.file, file); code != kExitOk) return code;
  ContainerView view;
  (void)verifyContainer(file.bytes(), view);  // what it finds is shown on the page
  if (!view.headerUnderstood) {
    printFindings(options.file, view.findings);
    return kExitBadContainer;
  }
  std::string why = whyRefused("", options.output, options.force);
  if (isSameFile(options.file, options.output)) why = escaped(options.output) + " is the container";
  if (!why.empty()) {
    complain("{}", why);
    return kExitNoOutput;
  }
  const std::string page = htmlPage(view, std::filesystem::path(options.file).filename().native());
  PendingFile pending;
  std::string reason;
  const auto cannotWrite = [&] {
    complain("cannot write {}: {}", escaped(options.output), reason);
    return kExitNoOutput;
  };
  if (!pending.create(options.output, reason)) return cannotWrite();
  std::FILE* out = std::fopen(pending.path().c_str(), "wb");
  const bool written = out != nullptr && std::fwrite(page.data(), 1, page.size(), out) == page.size();
  const bool closed = out != nullptr && std::fclose(out) == 0;
  if (!written || !closed) {
    reason = std::strerror(errno);
    return cannotWrite();
  }
  return pending.commit(options.force, reason) ? kExitOk : cannotWrite();
}

}  // namespace zel::tool
