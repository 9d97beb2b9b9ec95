// prepare: a published directory, brought into the forms that an import reads.
#include <fmt/format.h>
#include <sys/stat.h>

#include <filesystem>
#include <system_error>

#include "okv2/commands.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/failure.h"
#include "okv2/interruption.h"
#include "okv2/json_output.h"
#include "okv2/pending_directory.h"
#include "okv2/prepare_output.h"

namespace zel::tool {
namespace {

namespace fs = std::filesystem;

std::string withoutSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  return path;
}

// `path`, of which the end need not exist, with links followed; empty when that fails. Made absolute first:
// weakly_canonical() leaves a path relative of which not even the first name exists.
fs::path resolved(const std::string& path) {
  std::error_code error;
  const fs::path whole = fs::absolute(path, error);
  if (error) return {};
  fs::path out = fs::weakly_canonical(whole, error);
  return error ? fs::path() : out;
}

// Whether `inner` is `outer` or lies below it.
bool liesIn(const fs::path& inner, const fs::path& outer) {
  const auto [end, ignored] = std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end());
  return end == outer.end();
}

// Empty when the directory `out` may be made from `directory`, else a sentence that says why not.
std::string whyNoDirectory(const std::string& directory, const std::string& out) {
  const std::string shown = escaped(out);
  const fs::path target = resolved(out);
  const fs::path source = resolved(directory);
  if (target.empty() || source.empty()) return fmt::format("cannot tell where {} lies", shown);
  if (liesIn(target, source)) {
    return fmt::format("{} lies in {}, of which nothing is changed", shown, escaped(directory));
  }
  struct stat entry;
  if (::lstat(out.c_str(), &entry) != 0) return {};  // absent, or creating it will tell
  if (!S_ISDIR(entry.st_mode)) return fmt::format("{} exists and is no directory", shown);
  std::error_code error;
  if (!fs::is_empty(out, error) || error) return fmt::format("{} is not empty", shown);
  // What is made takes the directory's place, and no name that ends so can be given away.
  const fs::path last = fs::path(out).filename();
  if (last == "." || last == "..") return fmt::format("{} is not the name of a directory", shown);
  return {};
}

Json documentOf(const PrepareOptions& options, const prepare::Prepared& prepared) {
  Json out = newDocument("prepare");
  out["exit_code"] = static_cast<int>(kExitOk);
  out["directory"] = options.directory;
  out["output"] = options.output;
  out["changes"] = prepare::changesJson(prepared.changes);
  out["remaining"] = prepare::remainingJson(prepared.explanation);
  return out;
}

int refused(const PrepareOptions& options, const prepare::Refused& why) {
  std::string message;
  const int code = complainRefused(options.directory, why, message);
  if (options.json) {
    Json out = newDocument("prepare");
    out["exit_code"] = code;
    out["error"] = message;
    out["finding"] = why.finding();
    out["remedy"] = why.remedy();
    print(out);
  }
  return code;
}

}  // namespace

int runPrepare(const PrepareOptions& options) {
  ignoreClosedPipes();
  std::error_code error;
  if (!fs::is_directory(options.directory, error)) {
    return fail(options.json, "prepare", kExitInvalid, escaped(options.directory) + ": not a directory");
  }
  const std::string output = withoutSlash(options.output);
  if (const std::string why = whyNoDirectory(options.directory, output); !why.empty()) {
    return fail(options.json, "prepare", kExitNoOutput, why);
  }
  PendingDirectory pending;
  std::string reason;
  const auto cannotCreate = [&] {
    return fail(options.json, "prepare", kExitNoOutput,
                fmt::format("cannot create {}: {}", escaped(output), reason));
  };
  if (!pending.create(output, reason)) return cannotCreate();
  prepare::Prepared prepared;
  try {
    prepared = prepare::prepareDirectory(options.directory, pending.path(), options.weights);
  } catch (const prepare::Refused& why) {
    return refused(options, why);
  }
  if (!pending.commit(reason)) return cannotCreate();
  if (!options.quiet) printPrepared(prepared);
  if (options.json) print(documentOf(options, prepared));
  return kExitOk;
}

}  // namespace zel::tool
