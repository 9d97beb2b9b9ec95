#include "okv2/prepare/weight_sources.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "hf/json_parser.h"
#include "hf/read_file.h"
#include "okv2/exit_codes.h"
#include "okv2/explain/disguise.h"
#include "okv2/plan/weight_files.h"
#include "okv2/prepare/weight_limits.h"
#include "okv2/prepare/weight_refusals.h"

namespace zel::tool::prepare {
namespace {

namespace fs = std::filesystem;
using explain::Disguise;
using explain::Id;
using json::Kind;

constexpr char kSafetensorsIndex[] = "model.safetensors.index.json";
constexpr char kTorchIndex[] = "pytorch_model.bin.index.json";
constexpr std::string_view kTorchShard = "pytorch_model-";
constexpr std::string_view kTorchSuffix = ".bin";
constexpr std::string_view kAdapter = "adapter_model.";

using Names = std::set<std::string>;

Names namesIn(const std::string& dir) {
  Names names;
  std::error_code error;
  for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error))
    names.insert(it->path().filename().native());
  if (error) refuseWeights(kExitIoError, Id::DirectoryUnreadable, dir, "the directory cannot be listed");
  return names;
}

bool isTorchShard(std::string_view name) {
  return name.substr(0, kTorchShard.size()) == kTorchShard && name.size() > kTorchSuffix.size() &&
         name.substr(name.size() - kTorchSuffix.size()) == kTorchSuffix;
}

// A shard by its name: "model-00002-of-00009.safetensors" is the second of nine.
struct NumberedName {
  std::string series;  // the name without its number
  std::size_t number = 0;
  std::size_t count = 0;
};

// Reads the decimal digits at the start of `text` off it. False when there are none, or more than a count of
// files has.
bool takeNumber(std::string_view& text, std::size_t& out) {
  constexpr std::size_t kMaxDigits = 6;
  const std::size_t length = std::min(text.find_first_not_of("0123456789"), text.size());
  if (length == 0 || length > kMaxDigits) return false;
  out = 0;
  for (const char c : text.substr(0, length))
    out = out * 10 + static_cast<std::size_t>(c - '0');
  text.remove_prefix(length);
  return true;
}

// False when the name says nothing about other shards.
bool readNumberedName(std::string_view name, NumberedName& out) {
  constexpr std::string_view kOf = "-of-";
  const std::size_t of = name.rfind(kOf);
  if (of == std::string_view::npos) return false;
  const std::size_t dash = name.substr(0, of).rfind('-');
  if (dash == std::string_view::npos) return false;
  std::string_view number = name.substr(dash + 1, of - dash - 1);
  std::string_view rest = name.substr(of + kOf.size());
  if (!takeNumber(number, out.number) || !number.empty() || !takeNumber(rest, out.count)) return false;
  if (out.count == 0 || rest.empty() || rest.front() != '.') return false;
  out.series = std::string(name.substr(0, dash)) + std::string(name.substr(of));
  return true;
}

// False when there is nothing at the name, or it cannot be opened. Refused under `denied` when the caller may
// not read it, and when it is no regular file.
bool lookAtFile(const std::string& dir, const std::string& name, Id denied, explain::FileLook& look) {
  if (!explain::lookAt(dir + "/" + name, look)) {
    if (look.isDenied) refuseWeights(kExitIoError, denied, name, "it may not be read");
    return false;
  }
  if (look.disguise == Disguise::NotRegular) {
    refuseWeights(kExitInvalid, Id::FileNotRegular, name, "it is not a regular file");
  }
  return true;
}

// Reads "weight_map": tensor to file.
void readIndex(const std::string& dir, const std::string& name, WeightSources& out) {
  const auto bad = [&](const std::string& why) {
    refuseWeights(kExitCorrupted, Id::WeightsRefused, name, why, "Fetch " + name + " again.");
  };
  const auto tooLong = [&](const std::string& what) {
    refuseWeights(kExitUnsupported, Id::WeightsRefused, name, "it has more than " + what,
                  "Use the index file that was published with the shards.");
  };
  explain::FileLook look;
  if (!lookAtFile(dir, name, Id::FileNoPermission, look)) bad("it cannot be read");
  std::vector<std::uint8_t> bytes;
  std::error_code error;
  const std::uintmax_t size = fs::file_size(dir + "/" + name, error);
  if (error) bad("it cannot be read");
  if (size > kMaxIndexBytes) tooLong(std::to_string(kMaxIndexBytes) + " bytes");
  if (!readFile(dir + "/" + name, bytes)) bad("it cannot be read");
  json::detail::Parser parser(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  Kind kind;
  bool found = false;
  std::size_t count = 0;
  const auto readMap = [&] {
    return parser.object([&](std::string_view tensor) {
      Kind value;
      std::string file;
      if (!parser.peek(value, 2)) return false;
      if (value != Kind::String) return parser.skip(2);
      if (!parser.string(file)) return false;
      if (count++ == kMaxModelTensors) tooLong(std::to_string(kMaxModelTensors) + " tensors");
      out.indexed[file].emplace_back(tensor);
      return true;
    });
  };
  const bool ok = parser.peek(kind, 0) && kind == Kind::Object && parser.object([&](std::string_view key) {
    Kind value;
    if (!parser.peek(value, 1)) return false;
    if (key != "weight_map" || value != Kind::Object) return parser.skip(1);
    found = true;
    return readMap();
  }) && parser.finish();
  if (!ok) bad("it is not a JSON object");
  if (!found || out.indexed.empty()) bad("it has no \"weight_map\"");
  for (const auto& [file, tensors] : out.indexed) {
    // A path that leads elsewhere is not a shard of this directory.
    if (file.empty() || file.find('/') != std::string::npos || file.find('\0') != std::string::npos) {
      bad("it names a shard '" + file + "', which is no file name");
    }
    out.names.push_back(file);
  }
  out.index = name;
}

// False when there are no shards of torch checkpoints.
bool chooseTorchShards(const std::string& dir, const Names& present, WeightSources& out) {
  if (present.count(kTorchIndex) != 0) {
    readIndex(dir, kTorchIndex, out);
    return true;
  }
  std::copy_if(present.begin(), present.end(), std::back_inserter(out.names), isTorchShard);
  return !out.names.empty();
}

// An index of .safetensors files without one of them may be left over beside torch shards. Where none of
// those is there either, the files that it names are what is missing.
bool replacesSafetensorsIndex(const WeightSources& torch, const Names& present) {
  return std::any_of(torch.names.begin(), torch.names.end(),
                     [&](const std::string& name) { return present.count(name) != 0; });
}

bool chooseFiles(const std::string& dir, const Names& present, WeightSources& out, Changes& changes) {
  const bool anySafetensors = std::any_of(present.begin(), present.end(), plan::isSafetensorsName);
  const bool anyIndex = present.count(kSafetensorsIndex) != 0;
  if (anySafetensors) {
    out.safetensors = true;
    if (anyIndex) {
      readIndex(dir, kSafetensorsIndex, out);
    } else {
      std::copy_if(present.begin(), present.end(), std::back_inserter(out.names), plan::isSafetensorsName);
    }
    return true;
  }
  if (present.count(kTorchFile) != 0) {
    out.names.emplace_back(kTorchFile);
    return true;
  }
  if (WeightSources torch; chooseTorchShards(dir, present, torch)) {
    if (!anyIndex || replacesSafetensorsIndex(torch, present)) {
      if (anyIndex) {
        changes.push_back({kSafetensorsIndex, "file", kSafetensorsIndex, "",
                           "There is no .safetensors file, and there are shards of a torch checkpoint.",
                           explain::rowOf(Id::WeightsIndexMissing).name});
      }
      out = std::move(torch);
      return true;
    }
  }
  if (!anyIndex) return false;
  out.safetensors = true;
  readIndex(dir, kSafetensorsIndex, out);
  return true;
}

void refuseDisguises(const std::string& dir, const std::string& name) {
  explain::FileLook look;
  if (!lookAtFile(dir, name, Id::WeightsNoPermission, look)) {
    refuseWeights(kExitIoError, Id::WeightsRefused, name, "it cannot be opened");
  }
  switch (look.disguise) {
    case Disguise::None:
    case Disguise::NotRegular: return;  // refused above
    case Disguise::Empty: refuseWeights(kExitCorrupted, Id::FileEmpty, name, "it is empty");
    case Disguise::LfsPointer:
      refuseWeights(kExitCorrupted, Id::WeightsLfsPointer, name,
                    "it is a Git LFS pointer and not its content");
    case Disguise::LinkText:
      refuseWeights(kExitCorrupted, Id::WeightsLinkText, name,
                    "it holds the text of a symbolic link and not its target's content");
    case Disguise::WebPage: refuseWeights(kExitCorrupted, Id::WeightsWebPage, name, "it is a web page");
  }
}

// Without an index file, the shards' own names tell how many there are.
void refuseMissingNumbers(const std::vector<std::string>& names) {
  struct Series {
    std::string first;  // of its names
    std::size_t count = 0;
    std::set<std::size_t> numbers;
  };
  std::map<std::string, Series> all;
  for (const std::string& name : names) {
    NumberedName numbered;
    if (!readNumberedName(name, numbered)) continue;
    Series& series = all[numbered.series];
    if (series.first.empty()) series.first = name;
    series.count = numbered.count;
    series.numbers.insert(numbered.number);
  }
  for (const auto& [name, series] : all) {
    // Mostly from 1 on, but there are writers that begin with 0.
    const std::size_t from = *series.numbers.begin() == 0 ? 0 : 1;
    const auto beyond = series.numbers.lower_bound(from + series.count);
    const auto there = static_cast<std::size_t>(std::distance(series.numbers.begin(), beyond));
    if (there == series.count) continue;
    refuseWeights(kExitInvalid, Id::WeightsIndexMissing, series.first,
                  "its name says that there are " + std::to_string(series.count) + " shards, there are " +
                      std::to_string(there),
                  "Fetch the shards that are missing.");
  }
}

void refuseMissing(const WeightSources& sources, const Names& present) {
  for (const std::string& name : sources.names) {
    if (present.count(name) == 0) {
      refuseWeights(kExitInvalid, Id::WeightsIndexMissing, name,
                    "it is missing, and " + sources.index + " names it");
    }
  }
  if (sources.index.empty()) refuseMissingNumbers(sources.names);
}

}  // namespace

WeightSources findWeightSources(const std::string& dir, Changes& changes) {
  const Names present = namesIn(dir);
  WeightSources sources;
  if (!chooseFiles(dir, present, sources, changes)) {
    refuseWeights(kExitInvalid, Id::WeightsNone, dir, "there are no weights");
  }
  for (const std::string& name : sources.names) {
    if (name.compare(0, kAdapter.size(), kAdapter) == 0 && present.count("adapter_config.json") != 0) {
      refuseWeights(kExitUnsupported, Id::WeightsAdapter, name, "the weights are those of an adapter");
    }
  }
  // A clone without LFS mostly lacks shards too; fetching the content mends both.
  for (const std::string& name : sources.names) {
    if (present.count(name) != 0) refuseDisguises(dir, name);
  }
  refuseMissing(sources, present);
  if (!sources.safetensors || sources.index.empty()) return sources;
  for (const std::string& name : present) {
    if (!plan::isSafetensorsName(name) || sources.indexed.count(name) != 0) continue;
    changes.push_back({name, "file", name, "", "The index file does not name it.",
                       explain::rowOf(Id::WeightsIndexUnlisted).name});
  }
  return sources;
}

}  // namespace zel::tool::prepare
