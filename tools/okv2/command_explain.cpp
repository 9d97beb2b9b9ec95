// explain: what an import would make of a directory, and what it would lose.
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "okv2/commands.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/explain/explanation.h"
#include "okv2/explain_json.h"
#include "okv2/failure.h"
#include "okv2/terminal.h"

namespace zel::tool {
namespace {

using explain::Explanation;
using explain::Severity;

std::string coloured(Severity severity) {
  std::string name = explain::severityName(severity);
  if (!wantsColour(STDOUT_FILENO)) return name;
  const char* colour = severity == Severity::Fatal ? "31" : severity == Severity::Loss ? "33" : "36";
  return fmt::format("\x1B[1;{}m{}\x1B[0m", colour, name);
}

void printFiles(const Explanation& explanation) {
  fmt::print("files\n");
  for (const explain::FileUse& file : explanation.files) {
    fmt::print("  {:<8} {:>14}  {}: {}\n", file.read ? "read" : "ignored", file.bytes, escaped(file.name),
               file.use);
  }
}

void printConfig(const Explanation& explanation) {
  fmt::print("\nconfig.json\n");
  for (const explain::ConfigUse& use : explanation.config) {
    fmt::print("  {:<34} {} -> {}\n", use.key, escaped(use.value), use.field);
  }
}

void printTokenizer(const Explanation& explanation) {
  const explain::TokenizerUse& tokenizer = explanation.tokenizer;
  fmt::print("\ntokenizer: {}\n", tokenizer.winner.empty() ? "none" : tokenizer.winner);
  fmt::print("  {} tokens ({} special), {} merges, {} scores; vocab_size {}\n", tokenizer.tokens,
             tokenizer.special, tokenizer.merges, tokenizer.scores, explanation.vocabSize);
  fmt::print("  special ids: bos {}, eos {}, unk {}, pad {}\n", tokenizer.bos, tokenizer.eos, tokenizer.unk,
             tokenizer.pad);
  const explain::TemplateUse& chat = explanation.chatTemplate;
  fmt::print("  chat template: {}\n", chat.source.empty()
                                          ? "none"
                                          : fmt::format("{} bytes from {}{}", chat.bytes, chat.source,
                                                        chat.stored ? "" : ", dropped"));
}

void printTypes(const Explanation& explanation) {
  fmt::print("\ntensor types\n");
  for (const explain::TypeUse& type : explanation.types) {
    fmt::print("  {:<6} {:>8} tensors, code {}\n", type.type, type.tensors, type.code);
  }
}

void printFindings(const Explanation& explanation) {
  fmt::print("\nfindings: {} fatal, {} losses, {} notes\n", explanation.count(Severity::Fatal),
             explanation.count(Severity::Loss), explanation.count(Severity::Note));
  for (const explain::Finding& finding : explanation.findings) {
    const explain::FindingRow& row = explain::rowOf(finding.id);
    fmt::print("\n{} {}: {}\n", coloured(row.severity), row.name, escapedCut(finding.subject, 200));
    if (!finding.detail.empty()) fmt::print("  {}\n", escapedCut(finding.detail, 1000));
    fmt::print("  {}\n  Why: {}\n  Do:  {}\n", row.what, row.why, escaped(explain::adviceFor(finding)));
  }
}

void printText(const Explanation& explanation) {
  if (explanation.importCode == kExitOk) {
    fmt::print("{}: an import writes {} tensors, {} bytes\n\n", escaped(explanation.directory),
               explanation.tensors, explanation.bytes);
  } else {
    fmt::print("{}: an import fails with code {}: {}\n\n", escaped(explanation.directory),
               explanation.importCode, escaped(explanation.importMessage));
  }
  printFiles(explanation);
  if (!explanation.architecture.empty()) {
    printConfig(explanation);
    printTokenizer(explanation);
  }
  if (!explanation.types.empty()) printTypes(explanation);
  printFindings(explanation);
}

int strictCode(const Explanation& explanation) {
  if (explanation.importCode != kExitOk) return explanation.importCode;
  return explanation.count(Severity::Loss) > 0 ? kExitLoss : kExitOk;
}

}  // namespace

int runExplain(const ExplainOptions& options) {
  std::error_code error;
  if (!std::filesystem::is_directory(options.directory, error)) {
    return fail(options.json, "explain", kExitInvalid, escaped(options.directory) + ": not a directory");
  }
  const Explanation explanation = explain::explainDirectory(options.directory);
  const int code = options.strict ? strictCode(explanation) : kExitOk;
  if (options.json) {
    Json document = explanationJson(explanation);
    document["exit_code"] = code;
    print(document);
  } else {
    printText(explanation);
  }
  return code;
}

int runFindings() {
  const std::string text = explain::findingsMarkdown();
  std::fwrite(text.data(), 1, text.size(), stdout);
  return kExitOk;
}

}  // namespace zel::tool
