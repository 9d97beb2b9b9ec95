// Parsing speed beside the fastest JSON libraries, in one binary: every reader's answer is compared with
// ours before anything is timed.
//
//   parse_bench --benchmark_enable_random_interleaving=true --benchmark_repetitions=7
//
// scripts/bench turns the medians into the table of docs/performance.md.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <rapidjson/document.h>
#include <simdjson.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/inputs.h"
#include "bench/touched_memory.h"
#include "hf/hf_importer.h"
#include "hf/json.h"
#include "readers/safetensors_importer.h"

namespace {

using zel::bench::NonAscii;

// A benchmark of a wrong answer is worth nothing: the program ends.
void require(bool right, const char* what) {
  if (right) return;
  std::fprintf(stderr, "parse_bench: wrong answer: %s\n", what);
  std::exit(1);
}

// CI sets this for one quick pass that only checks answers.
std::size_t scaled(std::size_t full) {
  static const bool quick = std::getenv("OKV2_BENCH_QUICK") != nullptr;
  return quick ? std::max<std::size_t>(full / 100, 10) : full;
}

// More than any reader here uses.
const std::size_t kTouchedBytes = scaled(std::size_t{256} << 20);

// Times `make()`, not the freeing of what it made: that depends on the C library's memory of earlier runs.
template <class Make>
void timeMaking(benchmark::State& state, std::size_t bytes, Make make) {
  zel::bench::touchMemory(kTouchedBytes);
  for (auto _ : state) {
    auto made = make();
    benchmark::DoNotOptimize(made);
    state.PauseTiming();
    { const auto freed = std::move(made); }
    zel::bench::touchMemory(kTouchedBytes);
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * std::int64_t(bytes));
}

// ---- tokenizer.json -> TokenizerData

struct TokenizerInput {
  explicit TokenizerInput(NonAscii form)
      : text(zel::bench::makeTokenizerJson(scaled(262'144), scaled(515'000), form)), padded(text) {}
  std::string text;
  simdjson::padded_string padded;  // simdjson reads past the end
};

const TokenizerInput& tokenizerInput(NonAscii form) {
  static const TokenizerInput raw(NonAscii::Raw);
  static const TokenizerInput escaped(NonAscii::Escaped);
  return form == NonAscii::Raw ? raw : escaped;
}

// What a careful user of simdjson's DOM would write: the same vectors, reserved, filled in one pass. Every
// reader starts afresh, as an import does: a parser that keeps its buffers warm over many files would have
// nobody to serve here.
zel::TokenizerData readWithSimdjson(const simdjson::padded_string& text) {
  simdjson::dom::parser parser;
  zel::TokenizerData data;
  const simdjson::dom::element root = parser.parse(text);
  const simdjson::dom::object vocab = root["model"]["vocab"];
  const simdjson::dom::array merges = root["model"]["merges"];
  std::vector<std::pair<std::int64_t, std::string_view>> pairs;
  pairs.reserve(vocab.size());
  bool sorted = true;
  for (const auto member : vocab) {
    const std::int64_t id = member.value.get_int64();
    sorted = sorted && id == std::int64_t(pairs.size());
    pairs.emplace_back(id, member.key);
  }
  if (!sorted) std::sort(pairs.begin(), pairs.end());
  data.tokens.reserve(pairs.size());
  for (const auto& [id, token] : pairs)
    data.tokens.emplace_back(token);
  data.merges.reserve(merges.size());
  for (const simdjson::dom::element merge : merges)
    data.merges.emplace_back(merge.get_string().value());
  data.types.assign(data.tokens.size(), 1);
  for (const simdjson::dom::element token : root["added_tokens"].get_array()) {
    const std::int64_t id = token["id"].get_int64();
    if (std::size_t(id) < data.types.size()) data.types[std::size_t(id)] = 3;
  }
  return data;
}

zel::TokenizerData readOurs(std::string_view text) {
  static const zel::json::Value noConfig;
  zel::TokenizerData data;
  require(zel::readTokenizerJson(text, noConfig, data).ok(), "tokenizer.json is refused");
  return data;
}

void checkTokenizer(NonAscii form) {
  const zel::TokenizerData theirs = readWithSimdjson(tokenizerInput(form).padded);
  const zel::TokenizerData ours = readOurs(tokenizerInput(form).text);
  require(ours.tokens == theirs.tokens, "tokens");
  require(ours.merges == theirs.merges, "merges");
  require(ours.types == theirs.types, "types");
}

void tokenizerOurs(benchmark::State& state, NonAscii form) {
  checkTokenizer(form);
  const std::string& text = tokenizerInput(form).text;
  timeMaking(state, text.size(), [&] { return readOurs(text); });
}

void tokenizerSimdjsonVectors(benchmark::State& state, NonAscii form) {
  const TokenizerInput& input = tokenizerInput(form);
  timeMaking(state, input.text.size(), [&] { return readWithSimdjson(input.padded); });
}

void tokenizerSimdjsonDom(benchmark::State& state, NonAscii form) {
  const TokenizerInput& input = tokenizerInput(form);
  timeMaking(state, input.text.size(), [&] {
    auto parser = std::make_unique<simdjson::dom::parser>();
    require(parser->parse(input.padded).error() == simdjson::SUCCESS, "simdjson refuses");
    return parser;
  });
}

BENCHMARK_CAPTURE(tokenizerOurs, raw, NonAscii::Raw)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(tokenizerSimdjsonVectors, raw, NonAscii::Raw)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(tokenizerSimdjsonDom, raw, NonAscii::Raw)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(tokenizerOurs, escaped, NonAscii::Escaped)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(tokenizerSimdjsonVectors, escaped, NonAscii::Escaped)->Unit(benchmark::kMillisecond);

// ---- any JSON text -> a tree

struct TreeInput {
  const char* name;
  std::string text;
};

const TreeInput& treeInput(int k) {
  static const TreeInput inputs[] = {
      {"records", zel::bench::makeRecords(scaled(60'000))},
      {"tokenizer", zel::bench::makeTokenizerJson(scaled(100'000), scaled(200'000), NonAscii::Raw)},
  };
  return inputs[k];
}

bool sameTree(const zel::json::Value& ours, const rapidjson::Value& theirs) {
  using zel::json::Kind;
  switch (ours.kind) {
    case Kind::Null: return theirs.IsNull();
    case Kind::Bool: return theirs.IsBool() && theirs.GetBool() == ours.boolean;
    case Kind::Number: return theirs.IsNumber() && theirs.GetDouble() == ours.number;
    case Kind::String:
      return theirs.IsString() && ours.text == std::string_view(theirs.GetString(), theirs.GetStringLength());
    case Kind::Array:
      return theirs.IsArray() && ours.items.size() == theirs.Size() &&
             std::equal(ours.items.begin(), ours.items.end(), theirs.Begin(), sameTree);
    case Kind::Object:
      return theirs.IsObject() && ours.members.size() == theirs.MemberCount() &&
             std::equal(ours.members.begin(), ours.members.end(), theirs.MemberBegin(),
                        [](const zel::json::Value::Member& a, const auto& b) {
                          return a.first == b.name.GetString() && sameTree(a.second, b.value);
                        });
  }
  return false;
}

void treeOurs(benchmark::State& state, int k) {
  const std::string& text = treeInput(k).text;
  {
    zel::json::Value ours;
    require(zel::json::parse(text.data(), text.size(), ours).ok(), "tree is refused");
    rapidjson::Document theirs;
    theirs.Parse<rapidjson::kParseFullPrecisionFlag>(text.data(), text.size());
    require(!theirs.HasParseError() && sameTree(ours, theirs), "tree");
  }
  timeMaking(state, text.size(), [&] {
    zel::json::Value root;
    require(zel::json::parse(text.data(), text.size(), root).ok(), "tree is refused");
    return root;
  });
}

void treeRapidjson(benchmark::State& state, int k) {
  const std::string& text = treeInput(k).text;
  timeMaking(state, text.size(), [&] {
    rapidjson::Document root;
    // Full precision, as ours: without it RapidJSON's numbers may be off by a few units in the last place.
    root.Parse<rapidjson::kParseFullPrecisionFlag>(text.data(), text.size());
    return root;
  });
}

void treeNlohmann(benchmark::State& state, int k) {
  const std::string& text = treeInput(k).text;
  timeMaking(state, text.size(), [&] { return nlohmann::json::parse(text); });
}

BENCHMARK_CAPTURE(treeOurs, records, 0)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(treeRapidjson, records, 0)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(treeNlohmann, records, 0)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(treeOurs, tokenizer, 1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(treeRapidjson, tokenizer, 1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(treeNlohmann, tokenizer, 1)->Unit(benchmark::kMillisecond);

// ---- safetensors header -> sorted entries

struct HeaderInput {
  std::string file = zel::bench::makeSafetensorsFile(scaled(100'000));
  std::string_view header{file.data() + 8, zel::bench::loadLength(file)};
  simdjson::padded_string padded{header};
};

const HeaderInput& headerInput() {
  static const HeaderInput input;
  return input;
}

// The same checks and entries over simdjson's DOM.
std::vector<zel::StTensorInfo> entriesWithSimdjson(const simdjson::padded_string& header) {
  simdjson::dom::parser parser;
  std::vector<zel::StTensorInfo> entries;
  const simdjson::dom::object root = parser.parse(header);
  entries.reserve(root.size());
  for (const auto member : root) {
    if (member.key == "__metadata__") continue;
    zel::StTensorInfo& entry = entries.emplace_back();
    entry.name = member.key;
    const simdjson::dom::object fields = member.value;
    const std::string_view dtype = fields["dtype"];
    require(zel::SafetensorsImporter::mapDtype(std::string(dtype), entry.dtype, entry.quant).ok(), "dtype");
    std::uint64_t elements = 1;
    for (const simdjson::dom::element extent : fields["shape"].get_array()) {
      entry.dims[entry.ndim] = extent.get_uint64();
      elements *= entry.dims[entry.ndim++];
    }
    const simdjson::dom::array offsets = fields["data_offsets"];
    entry.dataBegin = offsets.at(0).get_uint64();
    entry.dataEnd = offsets.at(1).get_uint64();
    entry.size = entry.dataEnd - entry.dataBegin;
    require(entry.size == elements * 4, "size");
  }
  const auto byName = [](const zel::StTensorInfo& a, const zel::StTensorInfo& b) { return a.name < b.name; };
  std::sort(entries.begin(), entries.end(), byName);
  return entries;
}

bool sameEntry(const zel::StTensorInfo& a, const zel::StTensorInfo& b) {
  return a.name == b.name && a.dtype == b.dtype && a.ndim == b.ndim &&
         std::equal(a.dims, a.dims + 4, b.dims) && a.dataBegin == b.dataBegin && a.dataEnd == b.dataEnd &&
         a.size == b.size;
}

void headerOurs(benchmark::State& state) {
  const HeaderInput& input = headerInput();
  zel::SafetensorsImporter importer;
  require(importer.openBytes(input.file).ok(), "header is refused");
  const std::vector<zel::StTensorInfo> theirs = entriesWithSimdjson(input.padded);
  require(std::equal(importer.tensors().begin(), importer.tensors().end(), theirs.begin(), theirs.end(),
                     sameEntry),
          "entries");
  timeMaking(state, input.header.size(), [&] {
    auto fresh = std::make_unique<zel::SafetensorsImporter>();
    require(fresh->openBytes(input.file).ok(), "header is refused");
    return fresh;
  });
}

void headerSimdjson(benchmark::State& state) {
  const HeaderInput& input = headerInput();
  timeMaking(state, input.header.size(), [&] { return entriesWithSimdjson(input.padded); });
}

// Python's own json module over the same header; the interpreter times itself, without its start.
void headerPython(benchmark::State& state) {
  char path[] = "/tmp/okv2-header-XXXXXX";
  const int file = mkstemp(path);
  const std::string_view header = headerInput().header;
  require(file >= 0 && write(file, header.data(), header.size()) == ssize_t(header.size()), "temporary file");
  close(file);
  const std::string command = std::string("/usr/bin/python3 -c \"import json,time;t=open('") + path +
                              "').read();b=time.process_time();json.loads(t);print(time.process_time()-b)\"";
  double seconds = 0;
  for (auto _ : state) {
    zel::bench::touchMemory(kTouchedBytes);
    std::FILE* const python = popen(command.c_str(), "r");
    const bool read = python != nullptr && std::fscanf(python, "%lf", &seconds) == 1;
    require(python != nullptr && pclose(python) == 0 && read, "python3");
    state.SetIterationTime(seconds);
  }
  unlink(path);
}

BENCHMARK(headerPython)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(headerOurs)->Unit(benchmark::kMillisecond);
BENCHMARK(headerSimdjson)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // One import parses one file in a process of its own. Without these, the C library learns from the first
  // runs to keep freed memory, and later runs of whoever is measured skip the page faults that a user pays.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  mallopt(M_TRIM_THRESHOLD, 128 * 1024);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
