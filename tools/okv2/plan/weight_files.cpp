#include "okv2/plan/weight_files.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace zel::plan {

namespace fs = std::filesystem;

bool isSafetensorsName(std::string_view name) {
  constexpr std::string_view kSuffix = ".safetensors";
  return name.size() >= kSuffix.size() && name.substr(name.size() - kSuffix.size()) == kSuffix;
}

Status findWeightFiles(const std::string& directory, WeightFiles& out) {
  std::error_code error;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().native();
    if (isSafetensorsName(name)) out.names.push_back(name);
  }
  if (error) return ioError("convert: cannot open directory");
  std::sort(out.names.begin(), out.names.end());
  if (!out.names.empty()) return {};
  constexpr char kPyTorch[] = "pytorch_model.bin";
  if (!fs::is_regular_file(directory + "/" + kPyTorch, error)) {
    return invalidFormat("convert: HF directory has no safetensors or pytorch_model.bin");
  }
  out.format = MappedWeights::Format::PyTorch;
  out.names.emplace_back(kPyTorch);
  return {};
}

}  // namespace zel::plan
