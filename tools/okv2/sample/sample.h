// Writes small, complete, deterministic model directories: the inputs of the quickstart, the tests and the
// benchmarks. Equal options give equal bytes; the tensors' bytes depend on their names and sizes only, so the
// same model can be had in both weight formats.
#pragma once

#include <cstdint>
#include <string>

namespace zel::sample {

enum class Arch { Llama, Qwen2, Gemma4, Gpt2 };
enum class WeightFormat { Safetensors, PyTorch };
enum class TokenizerFormat { Json, Model, None };

struct Options {
  Arch arch = Arch::Llama;
  WeightFormat format = WeightFormat::Safetensors;
  TokenizerFormat tokenizer = TokenizerFormat::Json;
  std::uint32_t shards = 1;           // safetensors only
  std::uint64_t size = 1000000;       // weight bytes to aim at; tiny sizes end at the smallest model
  std::uint64_t tensors = 0;          // exact number; 0: as many as the architecture has at this size
  std::uint64_t vocab = 0;            // tokens; 0: chosen to go with the size
  std::uint64_t merges = kAllMerges;  // merge rules; kAllMerges: one for every token that is made by one

  static constexpr std::uint64_t kAllMerges = ~std::uint64_t{0};
};

struct Summary {
  std::uint64_t tensors = 0;
  std::uint64_t weightBytes = 0;
};

enum class Result {
  Ok,
  BadOptions,  // options that contradict each other or a format's limits
  Refused,     // the directory exists and is not empty
  IoError,     // the operating system refused to create or write a file
};

// Creates `directory`, with its parents, and fills it; tensor data are streamed. After a failure `error` is a
// sentence, and what was written stays.
[[nodiscard]] Result writeModelDirectory(const std::string& directory, const Options& options,
                                         Summary& summary, std::string& error);

}  // namespace zel::sample
