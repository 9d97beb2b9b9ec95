// okv2: turns model directories into OKV2 containers and looks into them.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <regex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "okv2/command_sample.h"
#include "okv2/commands.h"
#include "okv2/completion.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/failure.h"
#include "okv2/messages.h"

namespace zel::tool {
namespace {

// A script's variable that is not set would switch off what the option asks for.
std::string whyNotGiven(const std::string& text) { return text.empty() ? "must not be empty" : ""; }

CLI::App* addDirectoryCommand(CLI::App& app, const char* name, const char* description,
                              ImportOptions& options) {
  CLI::App* sub = app.add_subcommand(name, description);
  sub->add_option("DIR", options.directory, "Model directory")->required();
  sub->add_option("--plugin", options.plugin,
                  "Plug-in to load (default: importer_hf.so of this installation)")
      ->check(whyNotGiven);
  return sub;
}

// An option that takes one regular expression each time it is given.
CLI::Option* addDropOption(CLI::App& app, std::vector<std::string>& expressions) {
  return app
      .add_option("--drop", expressions, "Leave out tensors in whose name this regular expression is found")
      ->allow_extra_args(false)
      ->check([](const std::string& text) -> std::string {
        try {
          (void)std::regex(text);
          return "";
        } catch (const std::regex_error&) {
          return "not a regular expression: " + text;
        }
      });
}

// The options of prepare, of which import takes the same.
std::vector<CLI::Option*> addWeightOptions(CLI::App& app, prepare::WeightOptions& options) {
  return {app.add_flag("--cast", options.cast, "Turn 64-bit floats into 32-bit ones"),
          app.add_flag("--cast-integers", options.castIntegers,
                       "Turn integers and booleans into 32-bit floats that equal them"),
          addDropOption(app, options.drop),
          app.add_flag("--text-only", options.textOnly, "Leave out towers that are not the text model")};
}

void addImporterCommands(CLI::App& app, int& exitCode) {
  const auto options = std::make_shared<ImportOptions>();
  addDirectoryCommand(app, "probe", "Ask the plug-in whether DIR is a model directory", *options)
      ->callback([options, &exitCode] { exitCode = runProbe(options->plugin, options->directory); });
  addDirectoryCommand(app, "inspect", "Read the description of the model, but no weights", *options)
      ->callback([options, &exitCode] { exitCode = runInspect(options->plugin, options->directory); });
  CLI::App* import = addDirectoryCommand(app, "import", "Turn DIR into one container file", *options);
  import->add_option("-o,--output", options->output, "Container file to write")->required();
  import->add_flag("-q,--quiet", options->quiet, "Say nothing on success");
  import->add_flag("--force", options->force, "Replace FILE when it exists");
  import->add_flag("--skip-verified", options->skipVerified, "Do nothing when FILE exists and verifies");
  CLI::Option* report =
      import
          ->add_option("--report", options->report,
                       "Write a record of the import to this file, as JSON, in place of what it holds")
          ->check(whyNotGiven);
  CLI::Option* dryRun =
      import->add_flag("--dry-run", options->dryRun, "Write nothing; print the plan instead")
          ->excludes(report);
  import->add_flag("--json", options->json, "Print the plan as JSON")->needs(dryRun);
  CLI::Option* prepare =
      import->add_flag("--prepare", options->prepare, "Import what okv2 prepare makes of DIR")
          ->excludes(dryRun);
  for (CLI::Option* option : addWeightOptions(*import, options->weights))
    option->needs(prepare);
  import->callback([options, &exitCode] { exitCode = runImport(*options);
});
}  // namespace

// A command with its options and what runs behind them.
template <class Options>
std::pair<CLI::App*, std::shared_ptr<Options>> addCommand(CLI::App& app, const char* name,
                                                          const char* description, int (*run)(const Options&),
                                                          int& exitCode) {
  const auto options = std::make_shared<Options>();
  CLI::App* sub = app.add_subcommand(name, description);
  sub->callback([options, run, &exitCode] { exitCode = run(*options); });
  return {sub, options};
}

void addJsonFlag(CLI::App& sub, bool& json) { sub.add_flag("--json", json, "Print one JSON document"); }

void addPrepareCommand(CLI::App& app, int& exitCode) {
  const auto [prepare, options] = addCommand<PrepareOptions>(
      app, "prepare", "Write what DIR holds in the forms that an import reads", runPrepare, exitCode);
  prepare->add_option("DIR", options->directory, "Model directory; nothing in it is changed")->required();
  prepare->add_option("OUT", options->output, "Directory to create; must not hold anything yet")->required();
  addWeightOptions(*prepare, options->weights);
  addJsonFlag(*prepare, options->json);
  prepare->add_flag("-q,--quiet", options->quiet, "Do not list the changes");
}

void addForecastCommands(CLI::App& app, int& exitCode) {
  const auto [explain, explained] = addCommand<ExplainOptions>(
      app, "explain", "Tell what an import of DIR reads, ignores and loses", runExplain, exitCode);
  explain->add_option("DIR", explained->directory, "Model directory")->required();
  explain->add_flag("--strict", explained->strict, "Exit with 9 when anything would be lost");
  addJsonFlag(*explain, explained->json);
  const auto [plan, planned] = addCommand<PlanOptions>(
      app, "plan", "Tell what an import of DIR writes, to the byte", runPlan, exitCode);
  plan->add_option("DIR", planned->directory, "Model directory")->required();
  plan->add_option("-o,--output", planned->output, "Where it would be written: for the free space");
  addJsonFlag(*plan, planned->json);
  CLI::App* findings = app.add_subcommand("findings", "Print everything that explain can find");
  findings->add_flag("--markdown")->description("As Markdown, which is the only form");
  findings->group("");  // for the documentation; not listed
  findings->callback([&exitCode] { exitCode = runFindings(); });
}

void addListCommand(CLI::App& app, int& exitCode) {
  const auto [list, options] =
      addCommand<ListOptions>(app, "list", "Show what a container holds", runList, exitCode);
  list->add_option("FILE", options->file, "Container file")->required();
  CLI::Option* json = list->add_flag("--json", options->json, "Print one JSON document");
  list->add_flag("--markdown", options->markdown, "Print Markdown")->excludes(json);
  list->add_flag("--tensors", options->tensors, "Only the tensors");
  list->add_flag("--tokenizer", options->tokenizer, "Only the tokenizer");
  list->add_flag("--template", options->chatTemplate, "Only the chat template, as it is");
  const auto keep = options;
  list->add_option_function<std::string>(
      "--meta",
      [keep](const std::string& key) {
        keep->meta = key;
        keep->onlyMeta = true;
      },
      "Only the value of the metadata item KEY, as it is");
}

void addContainerCommands(CLI::App& app, int& exitCode) {
  addListCommand(app, exitCode);
  const auto [verify, verified] =
      addCommand<VerifyOptions>(app, "verify", "Check a container against its format", runVerify, exitCode);
  verify->add_option("FILE", verified->file, "Container file")->required();
  CLI::Option* against =
      verify
          ->add_option("--against", verified->against, "Compare with what an import of this directory writes")
          ->check(whyNotGiven);
  CLI::Option* prepared =
      verify->add_flag("--prepare", verified->prepare, "With --against: as `okv2 prepare` brings its tensors")
          ->needs(against);
  verify->add_flag("--cast", verified->weights.cast, "With --prepare: 64-bit floats became 32-bit ones")
      ->needs(prepared);
  verify
      ->add_flag("--cast-integers", verified->weights.castIntegers,
                 "With --prepare: integers and booleans became 32-bit floats")
      ->needs(prepared);
  verify->add_flag("--text-only", verified->weights.textOnly, "With --prepare: towers were left out")
      ->needs(prepared);
  addDropOption(*verify, verified->weights.drop)->needs(prepared);
  addJsonFlag(*verify, verified->json);
  const auto [hash, hashed] =
      addCommand<HashOptions>(app, "hash", "Print the SHA-256 of every tensor", runHash, exitCode);
  hash->add_option("FILE", hashed->file, "Container file")->required();
  hash->add_option("--check", hashed->sums, "Compare with the sums in this file")->check(whyNotGiven);
  addJsonFlag(*hash, hashed->json);
  const auto [diff, compared] =
      addCommand<DiffOptions>(app, "diff", "Tell what two containers do not share", runDiff, exitCode);
  diff->add_option("A", compared->first, "Container file")->required();
  diff->add_option("B", compared->second, "Container file")->required();
  addJsonFlag(*diff, compared->json);
  const auto [page, shown] =
      addCommand<PageOptions>(app, "report", "Write a page of HTML about a container", runPage, exitCode);
  page->add_option("FILE", shown->file, "Container file")->required();
  page->add_option("-o,--output", shown->output, "Page to write")->required();
  page->add_flag("--force", shown->force, "Replace the page when it exists");
  const auto [summary, summed] =
      addCommand<SummaryOptions>(app, "summary", "Add up the reports of imports", runSummary, exitCode);
  summary->add_option("REPORT", summed->reports, "Files that import --report wrote")->required();
  addJsonFlag(*summary, summed->json);
}

// Known before the options are: a wrong command line is answered in JSON as well.
bool wantsJson(int argc, char** argv) {
  return std::any_of(argv + 1, argv + argc,
                     [](const char* word) { return std::strcmp(word, "--json") == 0; });
}
const char* commandName(int argc, char** argv) { return argc > 1 && argv[1][0] != '-' ? argv[1] : "okv2"; }

// The parser would only miss a subcommand, where the first word is no name of one.
std::string usageError(const CLI::App& app, const CLI::ParseError& error, int argc, char** argv) {
  if (argc < 2 || argv[1][0] == '-') return error.what();
  const std::string word = argv[1];
  const auto isNamedSo = [&word](const CLI::App* sub) { return sub->get_name() == word; };
  return app.get_subcommands(isNamedSo).empty() ? fmt::format("there is no subcommand '{}'", word)
                                                : error.what();
}

int parseAndRun(int argc, char** argv) {
  int exitCode = kExitOk;
  CLI::App app("Turns HuggingFace model directories into OKV2 containers, and looks into containers.",
               "okv2");
  app.set_version_flag("--version", "okv2 " OKV2_VERSION);
  app.require_subcommand(1);
  app.footer(kExitCodesHelp);
  addImporterCommands(app, exitCode);
  addPrepareCommand(app, exitCode);
  addForecastCommands(app, exitCode);
  addContainerCommands(app, exitCode);
  addSampleCommand(app, exitCode);
  addCompletionCommand(app, exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // Help and version are results too.
    if (error.get_exit_code() == 0) return app.exit(error);
    // It may repeat words of the command line.
    const std::string message = escaped(usageError(app, error, argc, argv));
    say("{}\nRun with --help for more information.\n", message);
    return failDocument(wantsJson(argc, argv), commandName(argc, argv), kExitUsage, message);
  }
  return exitCode;
}

// What was printed has not arrived before the stream is closed: a full disk shows only here.
int closeStandardOutput(int exitCode) {
  const bool failedEarlier = std::ferror(stdout) != 0;
  if (std::fclose(stdout) == 0 && !failedEarlier) return exitCode;
  complain("cannot write standard output: {}", std::strerror(errno));
  return exitCode != kExitOk ? exitCode : kExitStdout;
}

// A program may be started without standard streams: the first file that it opens would get the number of
// one, and what it says would end up in that file. Writing to what takes its place fails, as it did.
void occupyStandardStreams() {
  int descriptor;
  do {
    descriptor = ::open("/dev/null", O_RDONLY);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) ::close(descriptor);
}

int failedWith(const std::exception& error, int argc, char** argv) {
  return fail(wantsJson(argc, argv), commandName(argc, argv), kExitFailed, escaped(error.what()));
}

int guardedMain(int argc, char** argv) {
  occupyStandardStreams();
  try {
    return closeStandardOutput(parseAndRun(argc, argv));
  } catch (const std::bad_alloc&) {
    return closeStandardOutput(
        fail(wantsJson(argc, argv), commandName(argc, argv), kExitFailed, "out of memory"));
  } catch (const std::system_error& error) {
    if (std::ferror(stdout) == 0) return closeStandardOutput(failedWith(error, argc, argv));
    // Printing more than a buffer throws when it cannot be written.
    complain("cannot write standard output: {}", error.code().message());
    return kExitStdout;
  } catch (const std::exception& error) {
    return closeStandardOutput(failedWith(error, argc, argv));
  }
}

}  // namespace zel::tool
}  // namespace zel::tool

int main(int argc, char** argv) { return zel::tool::guardedMain(argc, argv); }
