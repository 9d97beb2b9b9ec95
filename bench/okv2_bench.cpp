// Speed of the work that grows with the input. Every benchmark checks its answer before it times it; a wrong
// one ends the run with a failing exit code.
//
//   okv2_bench [Google Benchmark's options]
//
// OKV2_BENCH_SIZE (default 1M) is the size of the sample model that is imported, as in `okv2 sample --size`.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "bench/plugin_import.h"
#include "hf/json.h"
#include "readers/safetensors_importer.h"

namespace {

bool anyWrongAnswer = false;

// Ends the benchmark when an answer is not what it must be.
bool check(benchmark::State& state, bool right, const std::string& what) {
  if (!right) {
    anyWrongAnswer = true;
    state.SkipWithError(what.c_str());
  }
  return right;
}

// A tokenizer.json of `tokens` vocabulary entries and as many merges, escapes and non-ASCII text included.
std::string tokenizerText(int tokens) {
  std::string text = R"({"model":{"type":"BPE","vocab":{)";
  for (int i = 0; i < tokens; ++i) {
    const char* const prefix = i % 16 == 0 ? "\\u0120" : i % 16 == 1 ? "\xC4\xA0" : "";
    text += (i == 0 ? "\"" : ",\"") + std::string(prefix) + "token" + std::to_string(i) +
            "\":" + std::to_string(i);
  }
  text += R"(},"merges":[)";
  for (int i = 0; i < tokens; ++i) {
    text += (i == 0 ? "\"" : ",\"") + std::string("tok en") + std::to_string(i) + '"';
  }
  return text + "]}}";
}

void parseTokenizerText(benchmark::State& state) {
  const int tokens = static_cast<int>(state.range(0));
  const std::string text = tokenizerText(tokens);
  {
    zel::json::Value root;
    const zel::Status status = zel::json::parse(text.data(), text.size(), root);
    if (!check(state, status.ok(), "parse: " + status.message())) return;
    const zel::json::Value* model = root.get("model");
    const zel::json::Value* vocab = model != nullptr ? model->get("vocab") : nullptr;
    const zel::json::Value* merges = model != nullptr ? model->get("merges") : nullptr;
    if (!check(state, vocab != nullptr && vocab->members.size() == std::size_t(tokens), "vocabulary size")) {
      return;
    }
    if (!check(state, vocab->members[0].first == "\xC4\xA0token0", "first token")) return;
    if (!check(state, vocab->members.back().second.number == tokens - 1, "last id")) return;
    if (!check(state, merges != nullptr && merges->items.size() == std::size_t(tokens), "merges")) return;
  }
  for (auto _ : state) {
    zel::json::Value root;
    benchmark::DoNotOptimize(zel::json::parse(text.data(), text.size(), root).ok());
  }
  state.SetBytesProcessed(state.iterations() * std::int64_t(text.size()));
}
BENCHMARK(parseTokenizerText)->Arg(1000)->Arg(100'000)->Unit(benchmark::kMicrosecond);

// A whole .safetensors file of `tensors` one-element F32 tensors.
std::string safetensorsFile(int tensors) {
  std::string header = "{";
  for (int i = 0; i < tensors; ++i) {
    header += (i == 0 ? "\"" : ",\"") + std::string("model.layers.") + std::to_string(i) +
              R"(.mlp.up_proj.weight":{"dtype":"F32","shape":[1],"data_offsets":[)" + std::to_string(4 * i) +
              ',' + std::to_string(4 * i + 4) + "]}";
  }
  header += '}';
  std::string file;
  for (int byte = 0; byte < 8; ++byte) {
    file += static_cast<char>(static_cast<std::uint64_t>(header.size()) >> (8 * byte));
  }
  return file + header + std::string(4 * static_cast<std::size_t>(tensors), '\0');
}

void openSafetensorsHeader(benchmark::State& state) {
  const int tensors = static_cast<int>(state.range(0));
  const std::string file = safetensorsFile(tensors);
  zel::SafetensorsImporter importer;
  const zel::Status status = importer.openBytes(file);
  if (!check(state, status.ok(), "open: " + status.message())) return;
  if (!check(state, importer.tensors().size() == std::size_t(tensors), "number of tensors")) return;
  const std::string last = "model.layers." + std::to_string(tensors - 1) + ".mlp.up_proj.weight";
  const zel::StTensorInfo* const found = importer.findTensor(last);
  if (!check(state, found != nullptr && found->dataEnd == 4 * std::uint64_t(tensors), "last tensor")) return;
  for (auto _ : state) {
    benchmark::DoNotOptimize(importer.openBytes(file).ok());
  }
  state.SetItemsProcessed(state.iterations() * tensors);
  state.SetBytesProcessed(state.iterations() * (std::int64_t(file.size()) - 4 * tensors));
}
BENCHMARK(openSafetensorsHeader)->Arg(1000)->Arg(100'000)->Unit(benchmark::kMicrosecond);

// A model directory made by `okv2 sample`, removed at the end.
class SampleModel {
 public:
  SampleModel() {
    std::string pattern = (std::filesystem::temp_directory_path() / "okv2-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return;
    path_ = pattern;
    const char* const size = std::getenv("OKV2_BENCH_SIZE");
    const std::string command = std::string("'" OKV2_COMMAND "' sample '") + directory() + "' --size '" +
                                (size != nullptr ? size : "1M") + "' >/dev/null";
    made_ = std::system(command.c_str()) == 0;
  }
  SampleModel(const SampleModel&) = delete;
  SampleModel& operator=(const SampleModel&) = delete;
  ~SampleModel() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }

  [[nodiscard]] bool made() const { return made_; }
  [[nodiscard]] std::string directory() const { return path_ + "/model"; }
  [[nodiscard]] std::string container() const { return path_ + "/model.okv2"; }

 private:
  std::string path_;
  bool made_ = false;
};

void importSampleModel(benchmark::State& state) {
  static const SampleModel model;  // made once, however often the library calls this function
  if (!check(state, model.made(), "okv2 sample failed")) return;
  const OKVImporter* const importer = zel::bench::loadImporter(OKV2_PLUGIN);
  if (!check(state, importer != nullptr, "the plug-in does not load")) return;
  const std::string container = model.container();
  zel::bench::PluginImport import(*importer, model.directory(), container);
  if (!check(state, import.run(), import.error())) return;
  const std::string verify = std::string("'" OKV2_COMMAND "' verify '") + container + "' >/dev/null";
  if (!check(state, import.tensors() > 0 && std::system(verify.c_str()) == 0,
             "okv2 verify refuses the container")) {
    return;
  }
  for (auto _ : state) {
    state.PauseTiming();
    std::filesystem::remove(container);  // a fresh output each time: overwriting pages is other work
    state.ResumeTiming();
    if (!check(state, import.run(), import.error())) break;
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(import.bytes()));
  state.counters["tensors"] = static_cast<double>(import.tensors());
}
BENCHMARK(importSampleModel)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return anyWrongAnswer ? 1 : 0;
}
