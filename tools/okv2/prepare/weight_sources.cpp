#include "okv2/prepare/weight_sources.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>

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
constexpr char kTorchFile[] = "pytorch_model.bin";
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

// Decimal digits only; 0 for anything else.
std::size_t numberIn(std::string_view digits) {
  constexpr std::size_t kMaxDigits = 6;
  std::size_t out = 0;
  if (digits.empty() || digits.size() > kMaxDigits) return 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return 0;
    out = out * 10 + static_cast<std::size_t>(c - '0');
  }
  return out;
}

// "pytorch_model-00002-of-00009.bin" says that there are nine; 0 where the name says nothing.
std::size_t shardCount(std::string_view name) {
  name.remove_prefix(kTorchShard.size());
  name.remove_suffix(kTorchSuffix.size());
  const std::size_t of = name.find("-of-");
  return of == std::string_view::npos ? 0 : numberIn(name.substr(of + 4));
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

bool chooseFiles(const std::string& dir, const Names& present, WeightSources& out) {
  const bool anySafetensors = std::any_of(present.begin(), present.end(), plan::isSafetensorsName);
  if (present.count(kSafetensorsIndex) != 0 && (anySafetensors || present.count(kTorchFile) == 0)) {
    out.safetensors = true;
    readIndex(dir, kSafetensorsIndex, out);
    return true;
  }
  if (anySafetensors) {
    out.safetensors = true;
    std::copy_if(present.begin(), present.end(), std::back_inserter(out.names), plan::isSafetensorsName);
    return true;
  }
  if (present.count(kTorchFile) != 0) {
    out.names.emplace_back(kTorchFile);
    return true;
  }
  if (present.count(kTorchIndex) != 0) {
    readIndex(dir, kTorchIndex, out);
    return true;
  }
  std::copy_if(present.begin(), present.end(), std::back_inserter(out.names), isTorchShard);
  return !out.names.empty();
}

void refuseDisguises(const std::string& dir, const std::string& name) {
  explain::FileLook look;
  if (!explain::lookAt(dir + "/" + name, look)) {
    refuseWeights(kExitIoError, Id::WeightsRefused, name, "it cannot be opened");
  }
  switch (look.disguise) {
    case Disguise::None: return;
    case Disguise::Empty: refuseWeights(kExitCorrupted, Id::FileEmpty, name, "it is empty");
    case Disguise::NotRegular:
      refuseWeights(kExitInvalid, Id::FileNotRegular, name, "it is not a regular file");
    case Disguise::LfsPointer:
      refuseWeights(kExitCorrupted, Id::WeightsLfsPointer, name,
                    "it is a Git LFS pointer and not its content");
    case Disguise::LinkText:
      refuseWeights(kExitCorrupted, Id::WeightsLinkText, name,
                    "it holds the text of a symbolic link and not its target's content");
    case Disguise::WebPage: refuseWeights(kExitCorrupted, Id::WeightsWebPage, name, "it is a web page");
  }
}

void refuseMissing(const WeightSources& sources, const Names& present) {
  for (const std::string& name : sources.names) {
    if (present.count(name) == 0) {
      refuseWeights(kExitInvalid, Id::WeightsIndexMissing, name,
                    "it is missing, and " + sources.index + " names it");
    }
  }
  if (!sources.index.empty() || sources.safetensors || sources.names.front() == kTorchFile) return;
  const std::size_t expected = shardCount(sources.names.front());
  if (expected != 0 && expected != sources.names.size()) {
    refuseWeights(kExitInvalid, Id::WeightsIndexMissing, sources.names.front(),
                  "its name says that there are " + std::to_string(expected) + " shards, there are " +
                      std::to_string(sources.names.size()),
                  "Fetch the shards that are missing.");
  }
}

}  // namespace

WeightSources findWeightSources(const std::string& dir, Changes& changes) {
  const Names present = namesIn(dir);
  WeightSources sources;
  if (!chooseFiles(dir, present, sources)) {
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
