#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "hf/read_file.h"
#include "okv2/explain/explanation.h"
#include "okv2/explain/steps.h"
#include "okv2/plan/weight_files.h"

namespace zel::explain {
namespace {

namespace fs = std::filesystem;

Directory lookAtDirectory(const std::string& path) {
  Directory out;
  out.path = path;
  std::error_code error;
  for (fs::directory_iterator it(path, error), end; !error && it != end; it.increment(error)) {
    // A link that leads nowhere, or a file that cannot be opened, is as good as not regular; the look says
    // when only permission is lacking.
    FileLook look;
    if (!lookAt(it->path().native(), look)) look.disguise = Disguise::NotRegular;
    out.files.emplace(it->path().filename().native(), std::move(look));
  }
  return out;
}

// So that no name can end the quotes or be taken for an option.
std::string shellQuoted(const std::string& text) {
  std::string out = text.empty() || text[0] != '-' ? "'" : "'./";
  for (const char c : text)
    out += c == '\'' ? std::string("'\"'\"'") : std::string(1, c);
  return out + "'";
}

}  // namespace

std::string contentOf(const std::string& path) {
  std::vector<std::uint8_t> bytes;
  if (!readFile(path, bytes)) return {};
  return {bytes.begin(), bytes.end()};
}

bool Directory::hasSafetensors() const {
  return std::any_of(files.begin(), files.end(),
                     [](const auto& entry) { return plan::isSafetensorsName(entry.first); });
}

Explanation explainDirectory(const std::string& path) {
  Explanation out;
  out.directory = path;
  const Directory directory = lookAtDirectory(path);
  const plan::ImportPlan plan = plan::planImport(path);
  out.importCode = plan::hostCodeOf(plan.status);
  out.importMessage = plan.status.message();
  if (plan.status.ok()) {
    out.tensors = plan.tensors.size();
    out.bytes = plan.fileBytes;
  }
  out.tokenizer.tokens = plan.model.tokenizer.tokens.size();
  explainConfig(directory, plan, out);
  // Without a configuration nothing else is read, but what is there can still be judged.
  if (plan.model.hasConfig) {
    explainTokenizer(directory, plan, out);
    explainTemplate(directory, plan, out);
  }
  explainFiles(directory, plan, out);
  explainWeights(directory, plan, out);
  std::stable_sort(out.findings.begin(), out.findings.end(), [](const Finding& a, const Finding& b) {
    return rowOf(a.id).severity < rowOf(b.id).severity;
  });
  return out;
}

std::string adviceFor(const Finding& finding) {
  std::string advice = rowOf(finding.id).todo;
  // Braces with something between them belong to the command itself.
  for (std::size_t at = 0; (at = advice.find("{}", at)) != std::string::npos;) {
    const std::string quoted = shellQuoted(finding.subject);
    advice.replace(at, 2, quoted);
    at += quoted.size();
  }
  return advice;
}

std::string findingsMarkdown() {
  std::string out =
      "# Findings\n\n"
      "What `okv2 explain DIR` can say about a model directory. The names are stable: scripts may compare\n"
      "them. *fatal*: an import fails. *loss*: an import succeeds, and something does not reach the "
      "container or\n"
      "reaches it wrongly; with `--strict` the exit code is then 9. *note*: nothing is lost. In the advice "
      "`{}`\n"
      "stands for the file in question.\n\n"
      "This page is made by `okv2 findings --markdown` from tools/okv2/explain/finding_table.h.\n";
  for (const FindingRow& row : kFindings) {
    out += fmt::format("\n## {}\n\n*{}*: {}\n\n- Why: {}\n", row.name, severityName(row.severity), row.what,
                       row.why);
    const std::string_view todo = row.todo;
    const bool isCommand = todo.find("git ") == 0 || todo.find("curl ") == 0 || todo.find("mv ") == 0 ||
                           todo.find("chmod ") == 0 || todo.find("python3 ") == 0;
    out += isCommand ? fmt::format("- What to do:\n\n      {}\n", todo)
                     : fmt::format("- What to do: {}\n", todo);
  }
  return out;
}

}  // namespace zel::explain
