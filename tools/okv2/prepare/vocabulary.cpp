#include "okv2/prepare/vocabulary.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "okv2/exit_codes.h"
#include "okv2/explain/finding_table.h"

namespace zel::tool::prepare {
namespace {

class Joiner {
 public:
  Joiner(const VocabularyPlace& place, Changes& changes) : place_(place), changes_(changes) {}

  JoinedVocabulary run(const std::vector<Token>& vocabulary, const std::vector<AddedToken>& added) {
    for (const Token& token : vocabulary)
      takePublished(token);
    refuseTooMany(added.size());
    placeAdded(added);
    refuseGaps();
    fillGaps();
    out_.size = highest_ + 1;
    return std::move(out_);
  }

 private:
  void takePublished(const Token& token) {
    if (!taken_.insert(token.id).second) {
      throw Refused(kExitCorrupted, std::string(place_.idFinding),
                    fmt::format("{}: {} gives id {} to two tokens, the second is \"{}\"", place_.file,
                                place_.vocabulary, token.id, token.text),
                    fmt::format("Fetch {} again, or give each token an id of its own.", place_.file));
    }
    highest_ = std::max(highest_, token.id);
    const auto [it, isNew] = out_.idOf.emplace(token.text, token.id);
    if (!isNew) it->second = std::min(it->second, token.id);
  }

  void placeAdded(const std::vector<AddedToken>& added) {
    std::vector<std::size_t> homeless;
    for (std::size_t k = 0; k < added.size(); ++k) {
      const AddedToken& token = added[k];
      out_.addedIds.push_back(token.id);
      if (token.text.empty()) continue;  // nothing could ever match it
      if (const auto known = out_.idOf.find(token.text); known != out_.idOf.end()) {
        moveTo(known->second, k, token, "the vocabulary has the token already, and its id holds");
      } else if (token.hasId && token.id >= 0 && taken_.insert(token.id).second) {
        join(token.id, token);
      } else {
        homeless.push_back(k);
        out_.idOf.emplace(token.text, kNoPlaceYet);  // the next one of this text is the same token
      }
    }
    refuseGaps();  // before anything is counted up from the highest id
    for (const std::size_t k : homeless) {
      const std::int64_t id = highest_ + 1;
      taken_.insert(id);
      moveTo(id, k, added[k], "another token has the id, so it goes behind the last one");
      join(id, added[k]);
    }
    // Repetitions of a token that had no place when they were met.
    for (std::size_t k = 0; k < added.size(); ++k) {
      if (out_.addedIds[k] == kNoPlaceYet) out_.addedIds[k] = out_.idOf.at(added[k].text);
    }
  }

  void moveTo(std::int64_t id, std::size_t k, const AddedToken& token, const char* why) {
    out_.addedIds[k] = id;
    if (!token.hasId || id == token.id || id == kNoPlaceYet) return;
    changes_.push_back({std::string(place_.file), fmt::format("id of the added token \"{}\"", token.text),
                        std::to_string(token.id), std::to_string(id), why,
                        explain::rowOf(explain::Id::TokenizerAddedOutside).name});
  }

  void join(std::int64_t id, const AddedToken& token) {
    highest_ = std::max(highest_, id);
    out_.idOf[token.text] = id;
    out_.joined.push_back({id, token.text});
    changes_.push_back({std::string(place_.file), fmt::format("{}[\"{}\"]", place_.vocabulary, token.text),
                        "", std::to_string(id), whyJoined(token),
                        explain::rowOf(explain::Id::TokenizerAddedOutside).name});
  }

  static std::string whyJoined(const AddedToken& token) {
    if (*token.source == '\0') return "added tokens are kept apart and would be left out of the container";
    return fmt::format(
        "{} {}", token.source,
        token.hasId ? "adds the token when the tokenizer is loaded"
                    : "names the token, which is added behind the last one when the tokenizer is loaded");
  }

  void refuseTooMany(std::size_t added) const {
    if (added <= kMaxAddedTokens) return;
    throw Refused(kExitUnsupported, explain::rowOf(explain::Id::TokenizerAddedOutside).name,
                  fmt::format("{}: {} added tokens are more than the {} of any vocabulary", place_.file,
                              added, kMaxAddedTokens),
                  "Use the tokenizer files that belong to the model.");
  }

  void refuseGaps() const {
    const auto count = static_cast<std::int64_t>(taken_.size());
    if (highest_ > kMaxTokenId || highest_ + 1 - count > kMaxFilledIds) {
      throw Refused(
          kExitUnsupported, std::string(place_.idFinding),
          fmt::format("{}: {} tokens lie on ids up to {}; at most {} ids without a token are filled",
                      place_.file, count, highest_, kMaxFilledIds),
          "Use the tokenizer files that belong to the model, complete.");
    }
  }

  void fillGaps() {
    for (std::int64_t id = 0; id <= highest_; ++id) {
      if (taken_.count(id) != 0) continue;
      const std::int64_t first = id;
      for (; id <= highest_ && taken_.count(id) == 0; ++id)
        out_.fillers.push_back({id, reservedName(id)});
      reportGap(first, id - 1);
    }
  }

  std::string reservedName(std::int64_t id) {
    std::string name = fmt::format("<|reserved_{}|>", id);
    while (!out_.idOf.emplace(name, id).second)
      name += '_';
    return name;
  }

  void reportGap(std::int64_t first, std::int64_t last) {
    const std::string to = out_.fillers.back().text;
    const std::string from =
        out_.fillers[out_.fillers.size() - static_cast<std::size_t>(last - first + 1)].text;
    changes_.push_back({std::string(place_.file),
                        first == last ? fmt::format("id {} of {}", first, place_.vocabulary)
                                      : fmt::format("ids {} to {} of {}", first, last, place_.vocabulary),
                        "", first == last ? to : from + " to " + to,
                        "every id below the highest must have a token; no token has this name",
                        std::string(place_.idFinding)});
  }

  static constexpr std::int64_t kNoPlaceYet = INT64_MIN;

  const VocabularyPlace& place_;
  Changes& changes_;
  JoinedVocabulary out_;
  std::set<std::int64_t> taken_;
  std::int64_t highest_ = -1;
};

}  // namespace

JoinedVocabulary joinVocabulary(const std::vector<Token>& vocabulary, const std::vector<AddedToken>& added,
                                const VocabularyPlace& place, Changes& changes) {
  return Joiner(place, changes).run(vocabulary, added);
}

}  // namespace zel::tool::prepare
