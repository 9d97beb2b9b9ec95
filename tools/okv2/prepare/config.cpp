#include "okv2/prepare/config.h"

#include <fmt/format.h>

#include <cmath>
#include <string>
#include <string_view>

#include "container/bytes.h"
#include "okv2/explain/finding_table.h"
#include "okv2/prepare/config_table.h"

namespace zel::tool::prepare {
namespace {

using explain::Id;

// Longer lists are no layers of a model.
constexpr std::int64_t kMaxLayers = 100'000;
// Numbers are read as doubles, which hold every whole number up to here.
constexpr std::uint64_t kMaxExact = std::uint64_t{1} << 53;
// By which an import derives the rope base of sliding-window layers from that of the others.
constexpr double kSwaRopeFactor = 0.01;

// A member, or a member of a member: "rope_parameters.rope_theta".
const Json* memberAt(const Json& object, std::string_view path) {
  const Json* at = &object;
  while (at != nullptr) {
    const std::size_t dot = path.find('.');
    at = findMember(*at, path.substr(0, dot));
    if (dot == std::string_view::npos) break;
    path.remove_prefix(dot + 1);
  }
  return at;
}

// The value when it says something of that kind: 0 is what an import makes of an absent key.
const Json* usefulAt(const Json& object, std::string_view path, ValueKind kind) {
  const Json* value = memberAt(object, path);
  if (value == nullptr || !value->is_number() || value->get<double>() == 0) return nullptr;
  return kind == ValueKind::Number || wholeNumber(*value) ? value : nullptr;
}

class ConfigMender {
 public:
  ConfigMender(ModelTexts& texts, Changes& changes)
      : texts_(texts), config_(texts.config), changes_(changes) {
    // A copy, because the top level grows while it is read.
    if (const Json* nested = nestedTextConfig(config_.root, nestedPath_); nested != nullptr)
      nested_ = *nested;
  }

  void run() {
    mendModelType();
    const std::string* arch = textMember(config_.root, "model_type");
    if (arch == nullptr) arch = firstArchitecture();
    isGemma4_ =
        arch != nullptr && (*arch == "gemma4" || *arch == "Gemma4ForCausalLM");  // as an import maps it
    if (isGemma4_) mendGemma4();
    for (const ReadRow& row : kReadRows)
      fill(row);
    for (const DefaultRow& row : kDefaultRows)
      fillByRule(row);
    mendEosList();
  }

 private:
  [[nodiscard]] bool isFilled(const char* key, ValueKind kind) const {
    return usefulAt(config_.root, key, kind) != nullptr;
  }

  void set(const char* key, const Json& value, std::string why, Id finding) {
    const Json* before = findMember(config_.root, key);
    changes_.push_back({"config.json", fmt::format("$.{}", key), before == nullptr ? "" : before->dump(),
                        value.dump(), std::move(why), explain::rowOf(finding).name});
    config_.set(key, value);
  }

  [[nodiscard]] const std::string* firstArchitecture() const {
    const Json* list = findMember(config_.root, "architectures");
    if (list == nullptr) return nullptr;
    if (list->is_array()) {
      return !list->empty() && list->front().is_string() ? &list->front().get_ref<const std::string&>()
                                                         : nullptr;
    }
    return textMember(config_.root, "architectures");
  }

  void mendModelType() {
    const std::string* type = textMember(config_.root, "model_type");
    if (type == nullptr && firstArchitecture() == nullptr) {
      if (const std::string* nested = textMember(nested_, "model_type"); nested != nullptr) {
        set("model_type", *nested, nestedPath_ + ".model_type names the architecture", Id::ConfigNoModelType);
        type = textMember(config_.root, "model_type");
      }
    }
    if (type == nullptr) return;
    for (const ModelTypeRow& row : kModelTypeRows) {
      if (*type != row.published) continue;
      // The name must not change with it: it is the spelling before any mapping.
      if (findMember(config_.root, "_name_or_path") == nullptr) {
        set("_name_or_path", *type, "the model is called by its type", Id::ConfigReadNotWritten);
      }
      set("model_type", row.read, row.source, Id::ConfigReadNotWritten);
      return;
    }
  }

  // From the description of the text model when there is one, else from the top level.
  void fill(const ReadRow& row) {
    if (isFilled(row.key, row.kind)) return;
    std::string where;
    if (isGemma4_ && std::string_view(row.key) == "attn_logit_softcapping" &&
        gemma4Member("final_logit_softcapping", where) != nullptr) {
      return;  // it would be taken for the final cap
    }
    if (const Json* value = usefulAt(nested_, row.key, row.kind); value != nullptr) {
      set(row.key, Json(*value), fmt::format("{}.{} has it", nestedPath_, row.key), Id::ConfigNested);
      return;
    }
    if (fillBySynonym(nested_, nestedPath_, row)) return;
    fillBySynonym(config_.root, "$", row);
  }

  bool fillBySynonym(const Json& object, const std::string& path, const ReadRow& row) {
    for (const SynonymRow& synonym : kSynonymRows) {
      if (std::string_view(synonym.read) != row.key) continue;
      const Json* value = usefulAt(object, synonym.published, row.kind);
      if (value == nullptr) continue;
      set(row.key, Json(*value), fmt::format("{}.{} has it ({})", path, synonym.published, synonym.source),
          &object == &nested_ ? Id::ConfigNested : Id::ConfigKeyNotRead);
      return true;
    }
    return false;
  }

  void fillByRule(const DefaultRow& row) {
    const auto isOfType = [&row](const Json& description) {
      const std::string* type = textMember(description, "model_type");
      return type != nullptr && *type == row.modelType;
    };
    const std::string* arch = firstArchitecture();
    const bool isOfClass =
        findMember(config_.root, "model_type") == nullptr && arch != nullptr && *arch == row.modelType;
    if (!isOfType(config_.root) && !isOfType(nested_) && !isOfClass) return;
    if (isFilled(row.read, ValueKind::Whole)) return;
    const std::optional<std::int64_t> base = wholeMember(config_.root, row.from);
    std::uint64_t product = 0;
    if (!base || *base <= 0 ||
        !checkedMul(static_cast<std::uint64_t>(*base), static_cast<std::uint64_t>(row.factor), product) ||
        product > kMaxExact) {
      return;
    }
    set(row.read, static_cast<std::int64_t>(product), row.source, Id::ConfigKeyNotRead);
  }

  // A setting of Gemma 4's text model, wherever the description is.
  [[nodiscard]] const Json* gemma4Member(const char* path, std::string& where) const {
    for (const auto& [object, prefix] :
         {std::pair(&nested_, nestedPath_), {&config_.root, std::string("$")}}) {
      const Json* value = memberAt(*object, path);
      if (value == nullptr || value->is_null()) continue;
      where = fmt::format("{}.{}", prefix, path);
      return value;
    }
    return nullptr;
  }

  void mendGemma4() {
    std::string where;
    for (const SynonymRow& row : kGemma4Rows) {
      if (isFilled(row.read, ValueKind::Whole)) continue;
      const Json* value = gemma4Member(row.published, where);
      if (value == nullptr || !wholeNumber(*value) || *wholeNumber(*value) == 0) continue;
      set(row.read, Json(*value), fmt::format("{} has it ({})", where, row.source), Id::ConfigKeyNotRead);
    }
    mendPattern();
    mendSoftcap();
    reportSwaRope();
  }

  // 1 for a layer with a sliding window, 0 for one with full attention.
  void mendPattern() {
    if (findMember(config_.root, "swa_pattern") != nullptr) return;
    std::string where;
    Json pattern = Json::array();
    if (const Json* types = gemma4Member("layer_types", where); types != nullptr && types->is_array()) {
      for (const Json& type : *types) {
        if (type != "sliding_attention" && type != "full_attention") return;  // of a kind that cannot be said
        pattern.push_back(type == "sliding_attention" ? 1 : 0);
      }
    } else if (const Json* period = gemma4Member("sliding_window_pattern", where); period != nullptr) {
      std::string layersAt;
      const Json* layers = gemma4Member("num_hidden_layers", layersAt);
      const std::optional<std::int64_t> every = wholeNumber(*period);
      const std::optional<std::int64_t> count = layers == nullptr ? std::nullopt : wholeNumber(*layers);
      if (!every || !count || *every <= 0 || *count <= 0 || *count > kMaxLayers) return;
      for (std::int64_t layer = 1; layer <= *count; ++layer)
        pattern.push_back(layer % *every != 0 ? 1 : 0);
    }
    if (pattern.empty()) return;
    set("swa_pattern", pattern,
        fmt::format("{} says which layers have a sliding window (Gemma4TextConfig)", where),
        Id::ConfigKeyNotRead);
  }

  // Both caps fill one field, and it is written as the final one.
  void mendSoftcap() {
    std::string where, finalAt;
    const Json* final = gemma4Member("final_logit_softcapping", finalAt);
    const Json* attention = findMember(config_.root, "attn_logit_softcapping");
    if (final == nullptr || !final->is_number() || attention == nullptr || !attention->is_number()) return;
    changes_.push_back({"config.json", "$.attn_logit_softcapping", attention->dump(), "",
                        "it would be taken for the cap of the final logits, which " + finalAt + " has",
                        explain::rowOf(Id::ConfigSoftcapOverwritten).name});
    removeMember(config_.root, "attn_logit_softcapping");
    config_.changed = true;
  }

  // What the container cannot say is said here.
  void reportSwaRope() {
    std::string where, fullAt;
    const Json* sliding = gemma4Member("rope_parameters.sliding_attention.rope_theta", where);
    if (sliding == nullptr) sliding = gemma4Member("rope_local_base_freq", where);
    const Json* full = gemma4Member("rope_parameters.full_attention.rope_theta", fullAt);
    if (full == nullptr) full = gemma4Member("rope_theta", fullAt);
    if (sliding == nullptr || full == nullptr || !sliding->is_number() || !full->is_number()) return;
    const double derived = full->get<double>() * kSwaRopeFactor;
    const double published = sliding->get<double>();
    if (std::abs(derived - published) <= 1e-6 * std::abs(published)) return;
    changes_.push_back({"config.json", where, sliding->dump(), "",
                        fmt::format("not mended: an import derives {} for it from {}", derived, fullAt),
                        explain::rowOf(Id::ConfigReadNotWritten).name});
  }

  void mendEosList() {
    const Json* list = findMember(config_.root, "eos_token_id");
    if (list == nullptr || !list->is_array() || list->empty() || !wholeNumber(list->front())) return;
    const Json all = *list;
    const Json* kept = findMember(texts_.generationConfig.root, "eos_token_id");
    // Another list that is there already would be lost for this one.
    if (kept != nullptr && !kept->is_null() && *kept != all) return;
    if (kept == nullptr || kept->is_null()) {
      changes_.push_back({"generation_config.json", "$.eos_token_id", "", all.dump(),
                          "the container keeps this file as text, and room for one id otherwise",
                          explain::rowOf(Id::ConfigEosList).name});
      texts_.generationConfig.set("eos_token_id", all);
    }
    set("eos_token_id", Json(all.front()), "the first is taken; generation_config.json keeps them all",
        Id::ConfigEosList);
  }

  ModelTexts& texts_;
  JsonFile& config_;
  Changes& changes_;
  std::string nestedPath_;
  Json nested_ = Json::object();
  bool isGemma4_ = false;
};

}  // namespace

void mendConfig(ModelTexts& texts, Changes& changes) { ConfigMender(texts, changes).run(); }

}  // namespace zel::tool::prepare
