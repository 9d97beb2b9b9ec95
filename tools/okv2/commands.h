// The commands behind the option parser. Each prints its results on standard output and everything else on
// standard error, and returns the process's exit code. With `json` the result is exactly one JSON document,
// also after a failure; docs/okv2.md has the schemas.
#pragma once

#include <string>
#include <vector>

#include "okv2/prepare/weights.h"

namespace zel::tool {

struct ImportOptions {
  std::string plugin;  // path of the plug-in; empty to search for it
  std::string directory;
  std::string output;
  std::string report;  // file for the record of the import; empty for none
  bool quiet = false;
  bool force = false;
  bool skipVerified = false;
  bool dryRun = false;
  bool json = false;               // with dryRun only
  bool prepare = false;            // what is imported is the prepared directory
  prepare::WeightOptions weights;  // with prepare only
};

struct PrepareOptions {
  std::string directory;
  std::string output;
  prepare::WeightOptions weights;
  bool json = false;
  bool quiet = false;
};

struct ExplainOptions {
  std::string directory;
  bool json = false;
  bool strict = false;
};

struct PlanOptions {
  std::string directory;
  std::string output;  // empty: the current directory's free space is looked at
  bool json = false;
};

struct ListOptions {
  std::string file;
  std::string meta;  // key of the one item to print
  bool onlyMeta = false;
  bool json = false;
  bool markdown = false;
  bool tensors = false;
  bool tokenizer = false;
  bool chatTemplate = false;
};

struct VerifyOptions {
  std::string file;
  std::string against;   // model directory; empty for none
  bool prepare = false;  // the directory was prepared, with `weights`, and then imported
  prepare::WeightOptions weights;
  bool json = false;
};

struct HashOptions {
  std::string file;
  std::string sums;  // file of sums to compare with; empty to print them
  bool json = false;
};

struct DiffOptions {
  std::string first, second;
  bool json = false;
};

struct PageOptions {
  std::string file;
  std::string output;
  bool force = false;
};

struct SummaryOptions {
  std::vector<std::string> reports;
  bool json = false;
};

int runProbe(const std::string& plugin, const std::string& directory);
int runInspect(const std::string& plugin, const std::string& directory);
int runImport(const ImportOptions& options);
int runPrepare(const PrepareOptions& options);
int runExplain(const ExplainOptions& options);
int runFindings();
int runPlan(const PlanOptions& options);
int runList(const ListOptions& options);
int runVerify(const VerifyOptions& options);
int runHash(const HashOptions& options);
int runDiff(const DiffOptions& options);
int runPage(const PageOptions& options);
int runSummary(const SummaryOptions& options);

}  // namespace zel::tool
