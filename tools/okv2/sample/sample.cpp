#include "okv2/sample/sample.h"

#include <fmt/format.h>

#include <filesystem>
#include <limits>
#include <system_error>

#include "okv2/escape.h"
#include "okv2/sample/description.h"
#include "okv2/sample/output.h"
#include "okv2/sample/plan.h"
#include "okv2/sample/vocabulary.h"
#include "okv2/sample/weights.h"

namespace zel::sample {
namespace {

// Limits of the zip format without its 64-bit extension, which the plug-in does not read.
constexpr std::uint64_t kGreatestZipFile = 0xFFFFFFFF, kGreatestZipEntryCount = 0xFFFF;
constexpr std::uint64_t kZipEntriesBesideTensors = 2;

constexpr std::uint64_t kGreatestVocab = 10000000, kGreatestTensorCount = 10000000;
constexpr std::uint64_t kGreatestSize = std::uint64_t{1} << 44;

// Empty when the options are fine as far as they can be told before planning.
std::string badOption(const Options& options) {
  if (options.size > kGreatestSize) return "a sample has at most 16 TiB of weights";
  if (options.tensors > kGreatestTensorCount) {
    return fmt::format("a sample has at most {} tensors", kGreatestTensorCount);
  }
  const std::uint64_t smallestVocab = specialsOf(options.arch).texts.size();
  if (options.vocab != 0 && (options.vocab < smallestVocab || options.vocab > kGreatestVocab)) {
    return fmt::format("the vocabulary must have {} to {} tokens", smallestVocab, kGreatestVocab);
  }
  if (options.shards == 0) return "there must be at least one shard";
  if (options.format == WeightFormat::PyTorch && options.shards != 1) {
    return "a PyTorch checkpoint is one file: it cannot have shards";
  }
  return {};
}

// The same for what the plan decides.
std::string badPlan(const Options& options, const Plan& plan) {
  if (options.shards > plan.tensors.size()) {
    return fmt::format("{} tensors do not fill {} shards", plan.tensors.size(), options.shards);
  }
  if (options.merges != Options::kAllMerges && options.merges > greatestMergeCount(plan.arch, plan.vocab)) {
    return fmt::format("a vocabulary of {} tokens has at most {} merges", plan.vocab,
                       greatestMergeCount(plan.arch, plan.vocab));
  }
  if (options.format != WeightFormat::PyTorch) return {};
  if (plan.tensors.size() > kGreatestZipEntryCount - kZipEntriesBesideTensors) {
    return fmt::format("a PyTorch checkpoint holds at most {} tensors",
                       kGreatestZipEntryCount - kZipEntriesBesideTensors);
  }
  if (pytorchFileBytes(plan) > kGreatestZipFile) {
    return "a PyTorch checkpoint must stay below 4 GiB: larger zip files are not read";
  }
  return {};
}

Result makeEmptyDirectory(const std::string& directory, std::string& error) {
  std::error_code ec;
  std::filesystem::create_directories(directory, ec);
  if (!ec && std::filesystem::is_empty(directory, ec) && !ec) return Result::Ok;
  if (ec) {
    error = fmt::format("cannot create the directory {}: {}", tool::escaped(directory), ec.message());
    return Result::IoError;
  }
  error = fmt::format("{} is not empty; a sample needs a directory of its own", tool::escaped(directory));
  return Result::Refused;
}

bool writeTokenizer(const std::string& directory, const Options& options, const Plan& plan,
                    std::string& error) {
  if (options.tokenizer == TokenizerFormat::None) return true;
  const Vocabulary vocabulary = makeVocabulary(plan.arch, plan.vocab, options.merges);
  if (options.tokenizer == TokenizerFormat::Model) {
    return writeTextFile(directory + "/tokenizer.model", tokenizerModelBytes(plan.arch, vocabulary), error);
  }
  return writeTextFile(directory + "/tokenizer.json", tokenizerJsonText(plan.arch, vocabulary), error);
}

bool writeDescription(const std::string& directory, const Plan& plan, std::string& error) {
  return writeTextFile(directory + "/config.json", configText(plan), error) &&
         writeTextFile(directory + "/tokenizer_config.json", tokenizerConfigText(plan), error) &&
         writeTextFile(directory + "/special_tokens_map.json", specialTokensMapText(plan), error) &&
         writeTextFile(directory + "/generation_config.json", generationConfigText(plan), error);
}

bool writeWeights(const std::string& directory, const Options& options, const Plan& plan,
                  std::string& error) {
  return options.format == WeightFormat::PyTorch ? writePyTorch(directory, plan, error)
                                                 : writeSafetensors(directory, plan, options.shards, error);
}

}  // namespace

Result writeModelDirectory(const std::string& directory, const Options& options, Summary& summary,
                           std::string& error) {
  error = badOption(options);
  if (!error.empty()) return Result::BadOptions;
  const Plan plan = makePlan(options);
  error = badPlan(options, plan);
  if (!error.empty()) return Result::BadOptions;
  if (const Result result = makeEmptyDirectory(directory, error); result != Result::Ok) return result;
  if (!writeDescription(directory, plan, error) || !writeTokenizer(directory, options, plan, error) ||
      !writeWeights(directory, options, plan, error)) {
    return Result::IoError;
  }
  summary = {plan.tensors.size(), plan.weightBytes};
  return Result::Ok;
}

}  // namespace zel::sample
