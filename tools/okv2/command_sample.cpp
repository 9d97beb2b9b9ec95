#include "okv2/command_sample.h"

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/messages.h"
#include "okv2/sample/sample.h"

namespace zel::tool {
namespace {

struct SampleCommand {
  std::string directory;
  sample::Options options;
};

template <typename Value>
using Choices = std::vector<std::pair<std::string, Value>>;

const Choices<sample::Arch> kArchs = {{"llama", sample::Arch::Llama},
                                      {"qwen2", sample::Arch::Qwen2},
                                      {"gemma4", sample::Arch::Gemma4},
                                      {"gpt2", sample::Arch::Gpt2}};
const Choices<sample::WeightFormat> kFormats = {{"safetensors", sample::WeightFormat::Safetensors},
                                                {"pytorch", sample::WeightFormat::PyTorch}};
const Choices<sample::TokenizerFormat> kTokenizers = {{"json", sample::TokenizerFormat::Json},
                                                      {"model", sample::TokenizerFormat::Model},
                                                      {"none", sample::TokenizerFormat::None}};

// An option that takes one of a few words. `choices` and `value` outlive the parser.
template <typename Value>
void addChoice(CLI::App& app, const char* option, const char* description, const Choices<Value>& choices,
               Value& value) {
  std::vector<std::string> words;
  for (const auto& choice : choices)
    words.push_back(choice.first);
  app.add_option_function<std::string>(
         option,
         [&choices, &value](const std::string& word) {
           for (const auto& choice : choices) {
             if (choice.first == word) value = choice.second;
           }
         },
         description)
      ->check(CLI::IsMember(words));
}

// In place of the parser's own check, which names the greatest double.
std::string whyNoCount(const std::string& text) {
  const bool isWhole = text.find_first_not_of("0123456789") == std::string::npos;
  return isWhole && text.find_first_not_of('0') != std::string::npos ? "" : "must be a whole number above 0";
}

int exitCodeOf(sample::Result result) {
  switch (result) {
    case sample::Result::Ok: return kExitOk;
    case sample::Result::BadOptions: return kExitUsage;
    case sample::Result::Refused: return kExitNoOutput;
    case sample::Result::IoError: return kExitIoError;
  }
  return kExitFailed;
}

int runSample(const SampleCommand& command) {
  sample::Summary summary;
  std::string error;
  const sample::Result result =
      sample::writeModelDirectory(command.directory, command.options, summary, error);
  if (result != sample::Result::Ok) {
    complain("{}", error);
    return exitCodeOf(result);
  }
  say("wrote {}: {} tensors, {} weight bytes\n", escaped(command.directory), summary.tensors,
      summary.weightBytes);
  return kExitOk;
}

}  // namespace

void addSampleCommand(CLI::App& app, int& exitCode) {
  const auto command = std::make_shared<SampleCommand>();
  sample::Options& options = command->options;
  CLI::App* sub = app.add_subcommand("sample", "Write a small, complete model directory to try things with");
  sub->add_option("DIR", command->directory, "Directory to create; must not hold anything yet")->required();
  addChoice(*sub, "--arch", "Architecture (default llama)", kArchs, options.arch);
  addChoice(*sub, "--format", "Weight format (default safetensors)", kFormats, options.format);
  addChoice(*sub, "--tokenizer", "Tokenizer file (default json)", kTokenizers, options.tokenizer);
  sub->add_option("--shards", options.shards, "Number of safetensors files (default 1)");
  sub->add_option("--size", options.size, "Weight bytes to aim at, as 500K, 64M or 2G (default 1M)")
      ->transform(CLI::AsSizeValue(/*kb_is_1000=*/true).description(""));
  sub->add_option("--tensors", options.tensors, "Exact number of tensors (default: goes with the size)")
      ->check(whyNoCount);
  sub->add_option("--vocab", options.vocab, "Number of tokens (default: goes with the size)")
      ->check(whyNoCount);
  sub->add_option("--merges", options.merges, "Number of merge rules (default: one for every word)");
  sub->callback([command, &exitCode] { exitCode = runSample(*command); });
}

}  // namespace zel::tool
