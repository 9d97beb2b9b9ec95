#include "okv2/prepare/tensor_plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <regex>
#include <string_view>
#include <utility>

#include "container/okv2_format.h"
#include "convert/name_mapping.h"
#include "okv2/exit_codes.h"
#include "okv2/plan/weight_files.h"
#include "okv2/prepare/fused_attention.h"
#include "okv2/prepare/source_guard.h"
#include "okv2/prepare/tensor_names.h"
#include "okv2/prepare/weight_refusals.h"
#include "okv2/prepare/weight_sources.h"
#include "readers/safetensors_importer.h"

namespace zel::tool::prepare {
namespace {

using explain::Id;

constexpr std::size_t kStoredNameBytes = okv2::kTensorNameBytes - 1;
constexpr std::size_t kSearchedBytes = 1024;  // std::regex needs a stack as deep as the text is long

std::string shapeText(const std::vector<std::uint64_t>& shape) {
  return fmt::format("[{}]", fmt::join(shape, ", "));
}

const char* findingName(Id id) { return explain::rowOf(id).name; }

// One tensor on its way through the decisions.
struct Candidate {
  std::size_t file = 0;
  std::size_t source = 0;
  std::string published;
  std::string name;
};

// The regular expressions of --drop.
class DropRules {
 public:
  explicit DropRules(const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
      try {
        rules_.emplace_back(text, std::regex::ECMAScript | std::regex::optimize);
      } catch (const std::regex_error&) {
        throw Refused(kExitUsage, "", "--drop " + text + ": it is not a regular expression",
                      "Write it as ECMAScript does.");
      }
    }
    matched_.resize(rules_.size(), false);
  }
  // Asks all of them, so that each is known to match or not.
  [[nodiscard]] bool match(const std::string& name) {
    const std::string start = name.substr(0, kSearchedBytes);
    bool any = false;
    for (std::size_t k = 0; k < rules_.size(); ++k) {
      if (!std::regex_search(start, rules_[k])) continue;
      matched_[k] = any = true;
    }
    return any;
  }
  // Whether the expression at this position has matched a name.
  [[nodiscard]] bool hasMatched(std::size_t k) const { return matched_[k]; }

 private:
  std::vector<std::regex> rules_;
  std::vector<bool> matched_;
};

class Planner {
 public:
  Planner(const std::vector<WeightFile*>& files, const ModelKind& kind, const WeightOptions& options,
          Changes& changes)
      : files_(files), kind_(kind), options_(options), drop_(options.drop), changes_(changes) {}

  std::vector<PlannedShard> run() {
    for (std::size_t k = 0; k < files_.size(); ++k) {
      shards_.push_back({files_[k], outputNameOf(files_[k]->name()), true, {}});
      takeFile(k);
    }
    refuseOthers();
    reportIdleDrops();
    refuseTypes();
    rename();
    for (const Candidate& candidate : kept_)
      addOutputs(candidate);
    settleNames();
    finishShards();
    refuseEqualFiles();
    return std::move(shards_);
  }

 private:
  [[nodiscard]] const SourceTensor& sourceOf(const Candidate& candidate) const {
    return files_[candidate.file]->tensors()[candidate.source];
  }
  [[nodiscard]] bool isTorch(std::size_t file) const {
    return files_[file]->form() != WeightForm::Safetensors;
  }
  [[nodiscard]] bool isCast(const ElementType& type) const {
    return (type.carried == Carried::AsF32 && options_.cast) ||
           (type.carried == Carried::IntegerAsF32 && options_.castIntegers);
  }
  [[nodiscard]] Id typeFinding(std::size_t file) const {
    return isTorch(file) ? Id::PytorchStorageType : Id::WeightsType;
  }
  void change(std::size_t file, const std::string& what, std::string from, std::string to, const char* why,
              Id finding) {
    changes_.push_back(
        {shards_[file].outputName, what, std::move(from), std::move(to), why, findingName(finding)});
  }

  // Leaves out what the options leave out.
  void takeFile(std::size_t file) {
    const std::vector<SourceTensor>& tensors = files_[file]->tensors();
    for (std::size_t k = 0; k < tensors.size(); ++k) {
      const SourceTensor& tensor = tensors[k];
      const std::string from = tensor.type + " " + shapeText(tensor.shape);
      if (drop_.match(tensor.name)) {
        change(file, tensor.name, from, "", "--drop leaves it out.", typeFinding(file));
        shards_[file].link = false;
      } else if (options_.textOnly && isOtherTower(tensor.name)) {
        change(file, tensor.name, from, "", "--text-only leaves out what is not the text model.",
               Id::TensorUnmapped);
        shards_[file].link = false;
      } else {
        kept_.push_back({file, k, tensor.name, tensor.name});
      }
    }
  }

  // By its whole name, or by its own key, which is how the tensors beside it are spelled.
  [[nodiscard]] bool isDropped(const OtherEntry& entry) {
    const bool byName = drop_.match(entry.name);
    return (entry.ownBegin > 0 && drop_.match(entry.name.substr(entry.ownBegin))) || byName;
  }

  static const char* whyLeftOut(const OtherEntry& entry) {
    if (entry.mayHoldWeights) return "--drop leaves it out.";
    return entry.isLeftOut ? "It lies beside the dictionary of tensors." : "It is no tensor of the model.";
  }

  void refuseOthers() {
    for (std::size_t k = 0; k < files_.size(); ++k) {
      const WeightFile& file = *files_[k];
      NameList names;
      for (const OtherEntry& entry : file.others()) {
        const bool dropped = isDropped(entry);
        if (entry.mayHoldWeights && !dropped) {
          names.add(fmt::format("'{}' ({})", entry.name, entry.what));
        } else {
          change(k, entry.name, entry.what, "", whyLeftOut(entry), Id::PytorchPickle);
        }
      }
      if (names.count() == 0) continue;
      refuseWeights(kExitUnsupported, Id::PytorchPickle, file.name(),
                    "among its tensors are other things: " + names.text(),
                    "Leave them out with --drop REGEX, or save the tensors alone.");
    }
  }

  void reportIdleDrops() {
    for (std::size_t k = 0; k < options_.drop.size(); ++k) {
      if (drop_.hasMatched(k)) continue;
      changes_.push_back({"weights", "--drop " + options_.drop[k], "", "", "It matches no tensor.", ""});
    }
  }

  // Everything that an option or the container keeps out, named in one message for each file.
  void refuseTypes() {
    std::vector<NameList> types(files_.size());
    std::vector<NameList> shapes(files_.size());
    for (const Candidate& candidate : kept_) {
      const SourceTensor& tensor = sourceOf(candidate);
      if (tensor.known == nullptr || (tensor.known->carried != Carried::Yes && !isCast(*tensor.known))) {
        types[candidate.file].add(fmt::format("'{}' ({})", tensor.name, tensor.type));
      } else if (tensor.bytes == 0 || tensor.shape.size() > okv2::kMaxDims) {
        shapes[candidate.file].add(fmt::format("'{}' {}", tensor.name, shapeText(tensor.shape)));
      }
    }
    for (std::size_t k = 0; k < files_.size(); ++k) {
      if (types[k].count() > 0) {
        refuseWeights(
            kExitUnsupported, typeFinding(k), files_[k]->name(),
            "the container cannot carry these element types: " + types[k].text(),
            "Pass --drop REGEX for the tensors that inference does not need, --cast to make 64-bit "
            "floats (F64) 32-bit ones, and --cast-integers to make integers and booleans such floats.");
      }
      if (shapes[k].count() > 0) {
        refuseWeights(kExitUnsupported, Id::TensorRefused, files_[k]->name(),
                      "the container takes one to four extents, none of them 0: " + shapes[k].text(),
                      "Pass --drop REGEX for the tensors that inference does not need, or --text-only for "
                      "those of vision and audio towers.");
      }
    }
    if (kept_.empty()) {
      refuseWeights(kExitInvalid, Id::WeightsNoTensors, files_.front()->name(), "no tensor is left",
                    "Leave out less.");
    }
  }

  void rename() {
    std::vector<std::string> published;
    published.reserve(kept_.size());
    for (const Candidate& candidate : kept_)
      published.push_back(candidate.published);
    std::vector<KnownName> names = bringToKnownNames(published, kind_);
    for (std::size_t k = 0; k < kept_.size(); ++k) {
      Candidate& candidate = kept_[k];
      const std::string& file = files_[candidate.file]->name();
      if (names[k].name.empty())
        refuseWeights(kExitInvalid, Id::TensorUnnamed, file, "a tensor has an empty name");
      if (names[k].name.find('\0') != std::string::npos) {
        refuseWeights(kExitUnsupported, Id::TensorNameNul, file,
                      fmt::format("the name of tensor '{}' holds a zero byte", candidate.published));
      }
      candidate.name = std::move(names[k].name);
      if (names[k].reason == NameReason::Same) continue;
      change(candidate.file, candidate.published, candidate.published, candidate.name,
             nameReasonText(names[k].reason),
             names[k].reason == NameReason::Own ? Id::TensorDuplicate : Id::TensorUnmapped);
    }
  }

  void addOutputs(const Candidate& candidate) {
    const SourceTensor& source = sourceOf(candidate);
    OutputTensor tensor;
    tensor.name = candidate.name;
    tensor.type = source.type;
    tensor.shape = tensor.extents = source.shape;
    tensor.bytes = source.bytes;
    tensor.elementBytes = source.known->bytes;
    tensor.strides = source.strides;
    if (!tensor.strides.empty()) {
      change(candidate.file, candidate.published, "strides " + shapeText(source.strides), "contiguous",
             "Tensors are taken from the file as they lie.", Id::PytorchPickle);
    }
    if (isCast(*source.known)) {
      tensor.castFrom = source.known;
      tensor.type = "F32";
      tensor.bytes = tensor.bytes / source.known->bytes * sizeof(float);
      change(candidate.file, candidate.published, source.type, "F32",
             source.known->carried == Carried::AsF32 ? "--cast makes it a 32-bit float."
                                                     : "--cast-integers makes it a 32-bit float.",
             typeFinding(candidate.file));
    }
    if (tensor.shape.empty()) {
      tensor.shape = {1};
      change(candidate.file, candidate.published, "[]", "[1]", "The container holds no scalars.",
             Id::TensorRefused);
    }
    if (!splitFused(candidate, tensor)) add(candidate, std::move(tensor), 0);
  }

  // False when it is one tensor, or an import cuts it rightly.
  bool splitFused(const Candidate& candidate, const OutputTensor& fused) {
    const adapter::MappedName mapped = adapter::toOkvName(kind_.architecture, candidate.name);
    if (mapped.slices.empty()) return false;
    const FusedForm form = fusedFormOf(fused, kind_);
    if (form == FusedForm::EqualRows) return false;
    if (form == FusedForm::Unknown) {
      refuseWeights(
          kExitUnsupported, Id::TensorFusedRemainder, files_[candidate.file]->name(),
          fmt::format("the fused projection '{}' {} cannot be cut into query, key and value",
                      candidate.published, shapeText(fused.shape)),
          "Split it into three tensors; for GPTBigCode, n_head in config.json tells how it is cut.");
    }
    std::string names;
    for (FusedPart& part : cutFused(fused, mapped.slices, form, kind_)) {
      names += (names.empty() ? "" : ", ") + part.tensor.name;
      add(candidate, std::move(part.tensor), part.skip);
    }
    change(candidate.file, candidate.published, candidate.published, names,
           form == FusedForm::Columns
               ? "An import would cut the fused projection along its other extent; the parts stay [in, out]."
               : "An import would cut the fused projection into three equal parts, which these are not.",
           form == FusedForm::Columns ? Id::TensorFusedColumns : Id::TensorFusedRemainder);
    return true;
  }

  void add(const Candidate& candidate, OutputTensor tensor, std::uint64_t skip) {
    const SourceTensor& source = sourceOf(candidate);
    PlannedShard& shard = shards_[candidate.file];
    if (tensor.name != source.name || tensor.shape != source.shape || tensor.type != source.type)
      shard.link = false;
    shard.tensors.push_back({std::move(tensor), candidate.source, skip});
  }

  // The names that the container would store: none too long, no two alike.
  void settleNames() {
    struct Holder {
      std::string name;
      std::size_t file;
    };
    std::map<std::string, Holder> holders;
    for (std::size_t k = 0; k < shards_.size(); ++k) {
      for (PlannedOutput& output : shards_[k].tensors) {
        const std::string source = output.tensor.name;
        for (const std::string& stored : storedNames(k, output)) {
          const auto [found, isNew] = holders.emplace(stored, Holder{source, k});
          if (isNew) continue;
          const Holder& other = found->second;
          // --drop would match both of one name, and lose one that is needed of two.
          refuseWeights(kExitInvalid, Id::TensorDuplicate, files_[k]->name(),
                        fmt::format("tensors '{}' and '{}' ({}) both get the name '{}'", source, other.name,
                                    files_[other.file]->name(), stored),
                        other.file != k && other.name == source
                            ? "Move one of the two files away, if they hold the same weights."
                            : "Rename one of them: no name can stand for both.");
        }
      }
    }
  }

  // Shortens the tensor's name where the container would cut it.
  std::vector<std::string> storedNames(std::size_t file, PlannedOutput& output) {
    OutputTensor& tensor = output.tensor;
    const adapter::MappedName mapped = adapter::toOkvName(kind_.architecture, tensor.name);
    std::vector<std::string> names;
    for (const adapter::Slice& slice : mapped.slices)
      names.push_back(slice.name);
    if (!names.empty()) return names;
    if (mapped.name.size() <= kStoredNameBytes) return {mapped.name};
    const std::string shorter = shortenedName(mapped.name);
    change(file, tensor.name, tensor.name, shorter, "The container stores 63 bytes of a name.",
           Id::TensorNameCut);
    tensor.name = shorter;
    shards_[file].link = false;
    return {shorter};
  }

  void finishShards() {
    for (std::size_t k = 0; k < shards_.size(); ++k) {
      PlannedShard& shard = shards_[k];
      switch (shard.file->form()) {
        case WeightForm::Safetensors:
          if (!shard.link) break;
          readGuarded(shard.file->data(),
                      [&] { shard.link = SafetensorsImporter().openBytes(shard.file->bytes()).ok(); });
          break;
        case WeightForm::TorchDialect:
          // It is taken under one name only, and only where there is no other file.
          if (shard.link && shards_.size() == 1) {
            shard.outputName = kTorchFile;
          } else {
            shard.link = false;
          }
          break;
        case WeightForm::TorchZip:
        case WeightForm::TorchLegacy: shard.link = false; break;
      }
      // A tensor may lie with strides that only its shape hides.
      for (const PlannedOutput& output : shard.tensors)
        shard.link = shard.link && output.tensor.strides.empty();
      reportRewrite(k);
    }
    shards_.erase(std::remove_if(shards_.begin(), shards_.end(),
                                 [](const PlannedShard& shard) { return shard.tensors.empty(); }),
                  shards_.end());
  }

  // Two files that differ in their endings only may be written under one name.
  void refuseEqualFiles() const {
    std::map<std::string_view, const WeightFile*> holders;
    for (const PlannedShard& shard : shards_) {
      const auto [found, isNew] = holders.emplace(shard.outputName, shard.file);
      if (isNew) continue;
      refuseWeights(
          kExitInvalid, Id::WeightsRefused, shard.file->name(),
          fmt::format("it and '{}' would both be written as '{}'", found->second->name(), shard.outputName),
          "Rename one of them, in the index file as well.");
    }
  }

  void reportRewrite(std::size_t k) {
    const WeightFile& file = *shards_[k].file;
    if (!isTorch(k)) return;
    if (shards_[k].link) {
      if (file.name() == shards_[k].outputName) return;
      change(k, "file", file.name(), shards_[k].outputName, "An import reads it under this name only.",
             Id::WeightsShardedBin);
      return;
    }
    const Id finding = shards_.size() > 1                        ? Id::WeightsShardedBin
                       : file.form() == WeightForm::TorchLegacy  ? Id::PytorchLegacy
                       : file.isDeflated()                       ? Id::PytorchDeflated
                       : file.form() == WeightForm::TorchDialect ? Id::PytorchPickle
                                                                 : Id::PytorchFolder;
    change(k, "file", file.name(), shards_[k].outputName,
           "An import reads no ordinary torch.save checkpoint, and every .safetensors file.", finding);
    if (!file.within().empty()) {
      change(k, "tensor names", file.within() + ".*", "*",
             "The dictionary of tensors lies inside another one.", Id::PytorchPickle);
    }
    switch (file.naming()) {
      case TensorNaming::Own: break;
      case TensorNaming::Single:
        change(k, "tensor names", "none", std::string(kSingleTensorName),
               "The checkpoint is one tensor without a name.", Id::PytorchPickle);
        break;
      case TensorNaming::Positions:
        change(k, "tensor names", "none", "0, 1, ...",
               "The checkpoint is a list of tensors without names; their positions are their names.",
               Id::PytorchPickle);
        break;
    }
  }

  const std::vector<WeightFile*>& files_;
  const ModelKind& kind_;
  const WeightOptions& options_;
  DropRules drop_;
  Changes& changes_;
  std::vector<PlannedShard> shards_;
  std::vector<Candidate> kept_;
};

}  // namespace

std::vector<PlannedShard> planShards(const std::vector<WeightFile*>& files, const ModelKind& kind,
                                     const WeightOptions& options, Changes& changes) {
  return Planner(files, kind, options, changes).run();
}

std::string outputNameOf(const std::string& sourceName) {
  constexpr std::string_view kTorch = "pytorch_model";
  constexpr std::string_view kBin = ".bin";
  if (plan::isSafetensorsName(sourceName)) return sourceName;
  std::string out = sourceName;
  if (out.compare(0, kTorch.size(), kTorch) == 0) out.replace(0, kTorch.size(), "model");
  if (out.size() >= kBin.size() && out.compare(out.size() - kBin.size(), kBin.size(), kBin) == 0)
    out.resize(out.size() - kBin.size());
  return out + ".safetensors";
}

}  // namespace zel::tool::prepare
