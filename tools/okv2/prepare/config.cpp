#include "okv2/prepare/config.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

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

// An object of config.json that describes a model: the top level, which grows, or one inside that does not.
class Description {
 public:
  explicit Description(const JsonFile& topLevel) : topLevel_(&topLevel), path_("$") {}
  Description(const Json& nested, std::string path) : nested_(nested), path_(std::move(path)) {}

  // A member, or a member of a member: "rope_parameters.rope_theta".
  [[nodiscard]] const Json* find(std::string_view path) const {
    const std::size_t dot = path.find('.');
    const std::string_view first = path.substr(0, dot);
    const Json* at = topLevel_ != nullptr ? topLevel_->find(first) : nested_.find(first);
    while (at != nullptr && path.find('.') != std::string_view::npos) {
      path.remove_prefix(path.find('.') + 1);
      at = findMember(*at, path.substr(0, path.find('.')));
    }
    return at;
  }
  [[nodiscard]] const std::string* text(std::string_view path) const {
    const Json* value = find(path);
    return value != nullptr && value->is_string() ? &value->get_ref<const std::string&>() : nullptr;
  }
  // The value when it says something of that kind: 0 is what an import makes of an absent key.
  [[nodiscard]] const Json* useful(std::string_view path, ValueKind kind) const {
    const Json* value = find(path);
    if (value == nullptr || !value->is_number() || value->get<double>() == 0) return nullptr;
    return kind == ValueKind::Number || wholeNumber(*value) ? value : nullptr;
  }
  // A size: above 0.
  [[nodiscard]] std::optional<std::uint64_t> size(std::string_view path) const {
    const Json* value = find(path);
    const std::optional<std::int64_t> whole = value == nullptr ? std::nullopt : wholeNumber(*value);
    if (!whole || *whole <= 0) return std::nullopt;
    return static_cast<std::uint64_t>(*whole);
  }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  const JsonFile* topLevel_ = nullptr;
  MemberIndex nested_;
  std::string path_;
};

class ConfigMender {
 public:
  ConfigMender(ModelTexts& texts, Changes& changes)
      : texts_(texts), config_(texts.config), changes_(changes), top_(texts.config), nested_(Json(), "") {
    std::string path;
    if (const Json* nested = nestedTextConfig(config_.published(), path); nested != nullptr)
      nested_ = Description(*nested, path);
  }

  void run() {
    mendModelType();
    const std::string* arch = top_.text("model_type");
    if (arch == nullptr) arch = firstArchitecture();
    isGemma4_ =
        arch != nullptr && (*arch == "gemma4" || *arch == "Gemma4ForCausalLM");  // as an import maps it
    if (isGemma4_) mendGemma4();
    for (const RuleRow& row : kOverrulingRows)
      fillByRule(row);
    for (const QuotientRow& row : kQuotientRows)
      divide(row);
    for (const ReadRow& row : kReadRows)
      fill(row);
    for (const RuleRow& row : kDefaultRows)
      fillByRule(row);
    mendEosList();
  }

 private:
  [[nodiscard]] bool isFilled(const char* key, ValueKind kind) const {
    return top_.useful(key, kind) != nullptr;
  }

  void set(const char* key, const Json& value, std::string why, Id finding) {
    const Json* before = config_.find(key);
    changes_.push_back({"config.json", fmt::format("$.{}", key), before == nullptr ? "" : before->dump(),
                        value.dump(), std::move(why), explain::rowOf(finding).name});
    config_.set(key, value);
  }

  [[nodiscard]] const std::string* firstArchitecture() const {
    const Json* list = config_.find("architectures");
    if (list == nullptr || !list->is_array()) return top_.text("architectures");
    return !list->empty() && list->front().is_string() ? &list->front().get_ref<const std::string&>()
                                                       : nullptr;
  }

  void mendModelType() {
    const std::string* type = top_.text("model_type");
    if (type == nullptr && firstArchitecture() == nullptr) {
      if (const std::string* nested = nested_.text("model_type"); nested != nullptr) {
        set("model_type", *nested, nested_.path() + ".model_type names the architecture",
            Id::ConfigNoModelType);
        type = top_.text("model_type");
      }
    }
    if (type == nullptr) return;
    for (const ModelTypeRow& row : kModelTypeRows) {
      if (*type != row.published) continue;
      // The name must not change with it: it is the spelling before any mapping.
      if (config_.find("_name_or_path") == nullptr) {
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
    if (const Json* value = nested_.useful(row.key, row.kind); value != nullptr) {
      set(row.key, Json(*value), fmt::format("{}.{} has it", nested_.path(), row.key), Id::ConfigNested);
      return;
    }
    if (!fillBySynonym(nested_, row)) fillBySynonym(top_, row);
  }

  bool fillBySynonym(const Description& object, const ReadRow& row) {
    for (const SynonymRow& synonym : kSynonymRows) {
      if (std::string_view(synonym.read) != row.key) continue;
      if (synonym.onlyFor != nullptr && !isOf(synonym.onlyFor)) continue;
      if (synonym.needsTrue != nullptr && !isTrue(object.find(synonym.needsTrue))) continue;
      const Json* value = object.useful(synonym.published, row.kind);
      if (value == nullptr) continue;
      set(row.key, Json(*value),
          fmt::format("{}.{} has it ({})", object.path(), synonym.published, synonym.source),
          &object == &nested_ ? Id::ConfigNested : Id::ConfigKeyNotRead);
      return true;
    }
    return false;
  }

  static bool isTrue(const Json* value) {
    return value != nullptr && value->is_boolean() && value->get<bool>();
  }
  static bool isFalse(const Json* value) {
    return value != nullptr && value->is_boolean() && !value->get<bool>();
  }

  // A model type, of the whole or of the text model, or the class.
  [[nodiscard]] bool isOf(std::string_view modelType) const {
    for (const std::string* name :
         {top_.text("model_type"), nested_.text("model_type"), firstArchitecture()}) {
      if (name != nullptr && *name == modelType) return true;
    }
    return false;
  }

  [[nodiscard]] bool holds(const Condition& condition) const {
    if (condition.test == Test::None) return true;
    const Json* value = nested_.find(condition.key);
    if (value == nullptr) value = top_.find(condition.key);
    switch (condition.test) {
      case Test::None: break;
      case Test::IsNull: return value != nullptr && value->is_null();
      case Test::IsTrue: return isTrue(value);
      case Test::IsFalse: return isFalse(value);
      case Test::IsTrueOrAbsent: return value == nullptr || isTrue(value);
      case Test::IsNotTrue: return !isTrue(value);
      case Test::IsText: return value != nullptr && *value == condition.text;
    }
    return true;
  }

  void fillByRule(const RuleRow& row) {
    if (!isOf(row.modelType) || isFilled(row.read, ValueKind::Whole)) return;
    if (!holds(row.condition) || !holds(row.andCondition)) return;
    auto product = static_cast<std::uint64_t>(row.factor);
    for (const char* key : {row.from, row.times}) {
      if (key == nullptr) continue;
      const std::optional<std::uint64_t> value = top_.size(key);
      if (!value || !checkedMul(product, *value, product)) return;
    }
    if (product > kMaxExact) return;
    set(row.read, static_cast<std::int64_t>(product), row.source, Id::ConfigKeyNotRead);
  }

  // The one size that is replaced where it is given.
  void divide(const QuotientRow& row) {
    if (!isOf(row.modelType)) return;
    const bool isOther = top_.size(row.published).has_value();
    const std::optional<std::uint64_t> whole = top_.size(isOther ? row.published : row.read);
    if (!whole) return;
    const auto quotient = static_cast<std::int64_t>(*whole / static_cast<std::uint64_t>(row.divisor));
    if (quotient == 0) return;
    if (const Json* now = config_.find(row.read); now != nullptr && *now == quotient) return;
    // Kept, so that a directory that was prepared is not divided once more.
    if (!isOther) set(row.published, static_cast<std::int64_t>(*whole), row.source, Id::ConfigKeyNotRead);
    set(row.read, quotient, row.source, Id::ConfigKeyNotRead);
  }

  // A setting of Gemma 4's text model, wherever the description is.
  [[nodiscard]] const Json* gemma4Member(const char* path, std::string& where) const {
    for (const Description* object : {&nested_, &top_}) {
      const Json* value = object->find(path);
      if (value == nullptr || value->is_null()) continue;
      where = fmt::format("{}.{}", object->path(), path);
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
  }

  // A list that is shorter or longer leaves open which layers it is about: Gemma4TextConfig refuses it.
  bool countsEveryLayer(const Json& types, const std::string& where) {
    std::string layersAt;
    const Json* layers = gemma4Member("num_hidden_layers", layersAt);
    const std::optional<std::int64_t> count = layers == nullptr ? std::nullopt : wholeNumber(*layers);
    if (!count || static_cast<std::uint64_t>(*count) == types.size()) return true;
    texts_.losses.push_back({Id::ConfigNotCarried, "layer_types",
                             fmt::format("config.json: {} names {} layers, and {} is {}", where, types.size(),
                                         layersAt, *count)});
    return false;
  }

  // 1 for a layer with a sliding window, 0 for one with full attention.
  void mendPattern() {
    if (config_.find("swa_pattern") != nullptr) return;
    std::string where;
    Json pattern = Json::array();
    if (const Json* types = gemma4Member("layer_types", where); types != nullptr && types->is_array()) {
      if (!countsEveryLayer(*types, where)) return;
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
      // Whether the class lets a last layer of a sliding window stand is not said in the file.
      if (*count % *every != 0) return;
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
    const Json* attention = config_.find("attn_logit_softcapping");
    if (final == nullptr || !final->is_number() || attention == nullptr || !attention->is_number()) return;
    changes_.push_back({"config.json", "$.attn_logit_softcapping", attention->dump(), "",
                        "it would be taken for the cap of the final logits, which " + finalAt + " has",
                        explain::rowOf(Id::ConfigSoftcapOverwritten).name});
    config_.remove("attn_logit_softcapping");
  }

  void mendEosList() {
    if (const Json* list = config_.find("eos_token_id"); list != nullptr) {
      if (const Json* first = firstTokenId(*list); first != nullptr) {
        const Json id = *first;
        if (keepEosList(Json(*list)))
          set("eos_token_id", id, "the first is taken; generation_config.json keeps them all",
              Id::ConfigEosList);
        return;
      }
    }
    mendNestedEosList();
  }

  // That of the nested description holds where the top level gave no id; one that is there now was settled.
  void mendNestedEosList() {
    const Json* list = nested_.find("eos_token_id");
    if (list == nullptr || firstTokenId(*list) == nullptr) return;
    const Json* given = findMember(config_.published(), "eos_token_id");
    if (given != nullptr && wholeNumber(*given).value_or(-1) >= 0) return;
    const Json* settled = config_.find("eos_token_id");
    if (list->size() == 1 && settled != nullptr && *settled == list->front()) return;
    if (keepEosList(*list) || holdsAll(*texts_.generationConfig.find("eos_token_id"), *list)) return;
    texts_.losses.push_back(
        {Id::ConfigEosList, nested_.path().substr(2) + ".eos_token_id",
         fmt::format("config.json: {}.eos_token_id is {}; generation_config.json has {}", nested_.path(),
                     list->dump(), texts_.generationConfig.find("eos_token_id")->dump())});
  }

  static bool holdsAll(const Json& kept, const Json& list) {
    return std::all_of(list.begin(), list.end(), [&kept](const Json& id) {
      return kept.is_array() ? std::find(kept.begin(), kept.end(), id) != kept.end() : kept == id;
    });
  }

  // Whether generation_config.json has the list, or has it now. Another one that is there would be lost.
  bool keepEosList(const Json& all) {
    const Json* kept = texts_.generationConfig.find("eos_token_id");
    if (kept != nullptr && !kept->is_null()) return *kept == all;
    changes_.push_back({"generation_config.json", "$.eos_token_id", "", all.dump(),
                        "the container keeps this file as text, and room for one id otherwise",
                        explain::rowOf(Id::ConfigEosList).name});
    texts_.generationConfig.set("eos_token_id", all);
    return true;
  }

  ModelTexts& texts_;
  JsonFile& config_;
  Changes& changes_;
  Description top_;
  Description nested_;  // empty when the top level is the description of the text model
  bool isGemma4_ = false;
};

}  // namespace

void mendConfig(ModelTexts& texts, Changes& changes) { ConfigMender(texts, changes).run(); }

}  // namespace zel::tool::prepare
