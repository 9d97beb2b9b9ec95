// import: the plug-in's work, with everything around it that a user sees.
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include "okv2/commands.h"
#include "okv2/container_file.h"
#include "okv2/container_reader.h"
#include "okv2/destination.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/host.h"
#include "okv2/import_progress.h"
#include "okv2/import_record.h"
#include "okv2/interruption.h"
#include "okv2/messages.h"
#include "okv2/pending_directory.h"
#include "okv2/pending_file.h"
#include "okv2/prepare_output.h"
#include "okv2/terminal.h"

namespace zel::tool {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

// A complete container, by its structure and checksum.
bool isVerified(const std::string& path, ImportRecord& record) {
  ContainerFile file;
  std::string reason;
  ContainerView view;
  if (file.open(path, reason) != ContainerFile::Result::Ok || !verifyContainer(file.bytes(), view))
    return false;
  record.tensors = view.tensors.size();
  record.bytes = file.bytes().size();
  return true;
}

ImportProgress::Style progressStyle() {
  return obeysControls(STDERR_FILENO) ? ImportProgress::Style::Bar : ImportProgress::Style::Lines;
}

// Null when there is nothing to show. The plan and its mappings are gone when this returns: the import needs
// the address space.
std::unique_ptr<ImportProgress> startProgress(const std::string& directory, const std::string& path) {
  try {
    const plan::ImportPlan plan = plan::planImport(directory);
    if (!plan.status.ok()) return nullptr;  // the plug-in will say so
    return std::make_unique<ImportProgress>(path, plan.fileBytes, milestonesOf(plan), progressStyle());
  } catch (const std::exception&) {
    return nullptr;  // too little memory for the plan may be enough for the import
  }
}

int refuse(ImportRecord& record, int code, const std::string& message) {
  complain("{}", message);
  record.message = message;
  return code;
}

// Prepares the directory beside the output. kExitOk, or the exit code after telling why not.
int prepareSource(const ImportOptions& options, PendingDirectory& prepared, ImportRecord& record) {
  std::string reason;
  if (!prepared.create(options.output, reason)) {
    return refuse(record, kExitNoOutput,
                  fmt::format("cannot create a directory beside {}: {}", escaped(options.output), reason));
  }
  try {
    prepare::Prepared result = prepare::prepareDirectory(options.directory, prepared.path(), options.weights);
    if (!options.quiet) printPrepared(result);
    record.explanation = std::move(result.explanation);
    record.changes = std::move(result.changes);
    return kExitOk;
  } catch (const prepare::Refused& refused) {
    return complainRefused(options.directory, refused, record.message);
  }
}

int import(const ImportOptions& options, ImportRecord& record) {
  if (options.skipVerified && isVerified(options.output, record)) {
    record.skipped = true;
    if (!options.quiet) say("{} is there already, and good\n", escaped(options.output));
    return kExitOk;
  }
  std::string error;
  const OKVImporter* importer = loadImporter(findPlugin(options.plugin), error);
  if (importer == nullptr) return refuse(record, kExitNoPlugin, error);
  if (const std::string why = whyRefused(options.directory, options.output, options.force); !why.empty()) {
    return refuse(record, kExitNoOutput, why);
  }
  PendingDirectory prepared;
  if (options.prepare) {
    if (const int code = prepareSource(options, prepared, record); code != kExitOk) return code;
  }
  const std::string& source = options.prepare ? prepared.path() : options.directory;
  PendingFile pending;
  std::string reason;
  const auto cannotCreate = [&] {
    return refuse(record, kExitNoOutput,
                  fmt::format("cannot create {}: {}", escaped(options.output), reason));
  };
  if (!pending.create(options.output, reason)) return cannotCreate();
  std::unique_ptr<ImportProgress> progress = options.quiet ? nullptr : startProgress(source, pending.path());
  char text[4096] = "";
  OKVImportContext context = {};
  context.struct_size = sizeof context;
  context.dst_path = pending.path().c_str();
  context.error_buf = text;
  context.error_buf_size = sizeof text;
  context.out_tensor_count = &record.tensors;
  context.out_file_size = &record.bytes;
  const Clock::time_point begin = Clock::now();
  const int code = importer->import(source.c_str(), &context);
  record.importSeconds = secondsSince(begin);
  if (progress != nullptr && code == OKV_OK) progress->finish();
  progress.reset();  // nothing may wipe away what is said from here on
  if (code != OKV_OK) {
    const std::string message = *text != '\0' ? escaped(text) : hostCodeMeaning(code);
    complain("{}: {}", escaped(options.directory), message);
    record.message = message;
    return code;
  }
  if (!pending.commit(options.force, reason)) return cannotCreate();
  if (!options.quiet) {
    say("wrote {}: {} tensors, {} bytes\n", escaped(options.output), record.tensors, record.bytes);
  }
  return kExitOk;
}

}  // namespace

int runImport(const ImportOptions& options) {
  if (options.dryRun) return runPlan({options.directory, options.output, options.json});
  ignoreClosedPipes();
  if (!options.report.empty()) {
    std::string why = whyRefused(options.directory, options.report, true);
    // Nobody has said that a link may be replaced.
    std::error_code ignored;
    if (std::filesystem::is_symlink(options.report, ignored)) {
      why = escaped(options.report) + " is a symbolic link";
    }
    if (isSameFile(options.report, options.output)) why = escaped(options.report) + " is the container";
    if (!why.empty()) {
      complain("the report: {}", why);
      return kExitNoOutput;
    }
  }
  const Clock::time_point begin = Clock::now();
  ImportRecord record;
  record.directory = options.directory;
  record.output = options.output;
  record.started = std::chrono::system_clock::now();
  if (!options.report.empty() && !options.prepare) {
    record.explanation = explain::explainDirectory(options.directory);
    record.explainSeconds = secondsSince(begin);
  }
  record.code = import(options, record);
  record.totalSeconds = secondsSince(begin);
  if (options.report.empty()) return record.code;
  std::string reason;
  if (!writeRecord(record, options.report, reason)) {
    complain("cannot write {}: {}", escaped(options.report), reason);
    return record.code != kExitOk ? record.code : kExitNoOutput;
  }
  return record.code;
}

}  // namespace zel::tool
