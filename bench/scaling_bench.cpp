// Cost as work grows: every benchmark reports the time of one unit (tensor, token, entry, byte), which must
// stay flat, or grow like log n where something is sorted.
//
//   scaling_bench --benchmark_format=json | bench/charts.py OUT_DIR
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench/inputs.h"
#include "bench/plugin_import.h"
#include "bench/touched_memory.h"
#include "hf/hf_importer.h"
#include "readers/pytorch_importer.h"
#include "readers/safetensors_importer.h"
#include "support/model_dir_builder.h"
#include "support/pickle_builder.h"
#include "support/zip_builder.h"

namespace {

using zel::bench::NonAscii;
using zel::test::ModelDirBuilder;
using zel::test::Op;
using zel::test::PickleBuilder;
using zel::test::ZipBuilder;

void require(bool right, const char* what) {
  if (right) return;
  std::fprintf(stderr, "scaling_bench: wrong answer: %s\n", what);
  std::exit(1);
}

void perUnit(benchmark::State& state, double units) {
  state.counters["per_unit"] = benchmark::Counter(units * double(state.iterations()),
                                                  benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void safetensorsHeader(benchmark::State& state) {
  const auto tensors = std::size_t(state.range(0));
  const std::string file = zel::bench::makeSafetensorsFile(tensors);
  for (auto _ : state) {
    zel::SafetensorsImporter importer;
    require(importer.openBytes(file).ok() && importer.tensors().size() == tensors, "header");
  }
  perUnit(state, double(tensors));
}

void tokenizerJson(benchmark::State& state) {
  const auto tokens = std::size_t(state.range(0));
  const std::string text = zel::bench::makeTokenizerJson(tokens, tokens * 2, NonAscii::Raw);
  const zel::json::Value config;
  for (auto _ : state) {
    zel::TokenizerData data;
    require(zel::readTokenizerJson(text, config, data).ok() && data.tokens.size() == tokens, "tokenizer");
  }
  perUnit(state, double(tokens));
}

// One tensor for each storage entry.
std::string checkpoint(std::size_t tensors) {
  PickleBuilder program;
  program.op(Op::EMPTY_DICT);
  ZipBuilder zip;
  for (std::size_t k = 0; k < tensors; ++k) {
    const std::string number = std::to_string(k);
    program.binunicode("model.layers." + number + ".weight").tensor({"", {1}, "data/" + number});
    program.op(Op::SETITEM);
    zip.add("data/" + number, "1234");
  }
  return zip.add("data.pkl", program.stop()).build();
}

void zipEntries(benchmark::State& state) {
  const auto tensors = std::size_t(state.range(0));
  const std::string file = checkpoint(tensors);
  for (auto _ : state) {
    zel::PyTorchImporter importer;
    require(importer.openBytes(file).ok() && importer.tensors().size() == tensors, "checkpoint");
  }
  perUnit(state, double(tensors));
}

// A program of about `bytes` bytes: `round` again and again, above a list, and in the end the dictionary.
void runPickle(benchmark::State& state, const std::string& round) {
  const auto bytes = std::size_t(state.range(0));
  PickleBuilder program;
  program.op(Op::EMPTY_LIST).repeat(bytes / round.size(), round).op(Op::EMPTY_DICT);
  const std::string file = ZipBuilder().add("data.pkl", program.stop()).build();
  for (auto _ : state) {
    zel::PyTorchImporter importer;
    require(importer.openBytes(file).ok(), "pickle");
  }
  perUnit(state, double(bytes));
}

// Pushes, appends, duplicates and drops.
void pickleBytes(benchmark::State& state) {
  runPickle(state, PickleBuilder()
                       .op(Op::EMPTY_LIST)
                       .binint1(7)
                       .op(Op::APPEND)
                       .binunicode("some text")
                       .op(Op::TUPLE1)
                       .op(Op::DUP)
                       .op(Op::TUPLE2)
                       .ops({Op::APPEND, Op::POP})
                       .bytes());
}

// Keeps whatever it makes.
void pickleKept(benchmark::State& state) {
  runPickle(state, PickleBuilder().binunicode("some text").op(Op::TUPLE1).op(Op::APPEND).bytes());
}

// A whole import, one tensor of 4 KB a shard, over an output on the same disk.
void importShards(benchmark::State& state) {
  const OKVImporter* const importer = zel::bench::loadImporter(OKV2_PLUGIN);
  require(importer != nullptr, "the plug-in does not load");

  const auto shards = std::size_t(state.range(0));
  ModelDirBuilder model;
  for (std::size_t k = 0; k < shards; ++k) {
    const std::string number = std::to_string(k);
    model.shard("model-" + number + ".safetensors",
                zel::test::SafetensorsBuilder().tensor("model.layers." + number + ".mlp.up_proj.weight",
                                                       "F32", {1024}));
  }
  const zel::test::TempDir dir;
  zel::bench::PluginImport import(*importer, model.write(dir), dir / "model.okv2");
  for (auto _ : state)
    require(import.run() && import.tensors() == shards, import.error());
  perUnit(state, double(shards));
}

// CI sets this for one quick pass that only checks answers.
std::int64_t largest(std::int64_t full) {
  return std::getenv("OKV2_BENCH_QUICK") != nullptr ? std::min<std::int64_t>(full, 10'000) : full;
}

// More than any of these needs. Once before each repetition, not each iteration: that would empty the
// processor's caches, which small sizes live in.
void touchMemory(const benchmark::State&) { zel::bench::touchMemory(std::size_t(largest(1'500'000'000))); }

void decades(benchmark::internal::Benchmark* bench, std::int64_t from, std::int64_t to) {
  bench->Setup(touchMemory);
  for (std::int64_t n = from; n < to; n *= 10)
    bench->Arg(n);
  bench->Arg(to);
  bench->Unit(benchmark::kMillisecond);
}

[[maybe_unused]] const bool registered = [] {
  decades(benchmark::RegisterBenchmark("safetensorsHeader", safetensorsHeader), 100, largest(1'000'000));
  decades(benchmark::RegisterBenchmark("tokenizerJson", tokenizerJson), 1'000, largest(1'000'000));
  decades(benchmark::RegisterBenchmark("zipEntries", zipEntries), 100, largest(65'534));
  decades(benchmark::RegisterBenchmark("pickleBytes", pickleBytes), 10'000, largest(100'000'000));
  decades(benchmark::RegisterBenchmark("pickleKept", pickleKept), 10'000, largest(100'000'000));
  // Few iterations: the mappings of its shards outlive an import on purpose, and a process has room for
  // 65,530.
  decades(benchmark::RegisterBenchmark("importShards", importShards)->Iterations(3), 1, 1'000);
  return true;
}();

}  // namespace

BENCHMARK_MAIN();
