// probe and inspect: what the plug-in answers without weights.
#include <fmt/format.h>

#include <cstdio>

#include "okv2/commands.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/host.h"
#include "okv2/messages.h"

namespace zel::tool {
namespace {

void printField(const char* name, const char* value) {
  if (value != nullptr && *value != '\0') fmt::print("{}: {}\n", name, escaped(value));
}

}  // namespace

const OKVImporter* importerOrComplaint(const std::string& named) {
  std::string error;
  const OKVImporter* importer = loadImporter(findPlugin(named), error);
  if (importer == nullptr) complain("{}", error);
  return importer;
}

int runProbe(const std::string& plugin, const std::string& directory) {
  const OKVImporter* importer = importerOrComplaint(plugin);
  if (importer == nullptr) return kExitNoPlugin;
  OKVProbeResult result = {};
  if (const int code = importer->probe(directory.c_str(), &result); code != OKV_OK) {
    complain("{}: {}", escaped(directory), hostCodeMeaning(code));
    return code;
  }
  fmt::print("confidence: {}\n", result.confidence);
  printField("format", result.format);
  printField("detail", result.detail);
  printField("reason", result.reason);
  return kExitOk;
}

int runInspect(const std::string& plugin, const std::string& directory) {
  const OKVImporter* importer = importerOrComplaint(plugin);
  if (importer == nullptr) return kExitNoPlugin;
  OKVImportInfo info = {};
  if (const int code = importer->inspect(directory.c_str(), &info); code != OKV_OK) {
    complain("{}: {}; an import tells more", escaped(directory), hostCodeMeaning(code));
    return code;
  }
  printField("format", info.format);
  printField("architecture", info.architecture);
  printField("tensors", info.count);
  return kExitOk;
}

}  // namespace zel::tool
