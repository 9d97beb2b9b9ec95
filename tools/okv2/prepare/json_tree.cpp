#include "okv2/prepare/json_tree.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "hf/json.h"
#include "hf/json_parser.h"

namespace zel::tool::prepare {
namespace {

// The library's own builder looks through all members for every key, which takes hours for a vocabulary, and
// lets the last of equal keys win.
class TreeBuilder final : public nlohmann::json_sax<Json> {
 public:
  explicit TreeBuilder(Json& root) : root_(root) {}

  bool null() override { return add(nullptr); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(number_integer_t value) override { return add(value); }
  bool number_unsigned(number_unsigned_t value) override { return add(value); }
  bool number_float(number_float_t value, const string_t&) override { return add(value); }
  bool string(string_t& value) override { return add(std::move(value)); }
  bool binary(binary_t&) override { return false; }  // not in JSON
  bool start_object(std::size_t) override { return open(Json::object()); }
  bool start_array(std::size_t) override { return open(Json::array()); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }
  bool key(string_t& value) override {
    key_ = std::move(value);
    return true;
  }
  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception& error) override {
    // An exception's text begins with its class in brackets and ends with the bytes around the place.
    std::string_view text = error.what();
    if (const std::size_t classEnd = text.find("] "); classEnd != text.npos) text.remove_prefix(classEnd + 2);
    reason_ = fmt::format("byte {}: {}", position, text.substr(0, text.find("; last read")));
    return false;
  }

  [[nodiscard]] const std::string& reason() const { return reason_; }

 private:
  // A container's address holds while it is open: only the innermost open one grows.
  Json& place(Json value) {
    if (open_.empty()) return root_ = std::move(value);
    Json& parent = *open_.back();
    if (parent.is_object()) return appendMember(parent, std::move(key_), std::move(value));
    parent.get_ref<Json::array_t&>().push_back(std::move(value));
    return parent.get_ref<Json::array_t&>().back();
  }
  bool add(Json value) {
    place(std::move(value));
    return true;
  }
  bool open(Json container) {
    open_.push_back(&place(std::move(container)));
    return true;
  }
  bool close() {
    open_.pop_back();
    return true;
  }

  Json& root_;
  std::vector<Json*> open_;
  std::string key_;
  std::string reason_;
};

template <class Object>
auto findIn(Object& object, std::string_view key) -> decltype(&object.begin().value()) {
  if (!object.is_object()) return nullptr;
  for (auto it = object.begin(); it != object.end(); ++it) {
    if (it.key() == key) return &it.value();
  }
  return nullptr;
}

}  // namespace

bool parseTree(std::string_view text, Json& out, std::string& reason) {
  json::detail::Parser strict(text.data(), text.size());
  if (!strict.skip(0) || !strict.finish()) {
    reason = fmt::format("byte {}: {}", text.size() - strict.remaining(), strict.status().message());
    return false;
  }
  TreeBuilder builder(out);
  if (Json::sax_parse(text.begin(), text.end(), &builder)) return true;
  reason = builder.reason();
  return false;
}

std::size_t countValues(std::string_view text) {
  std::size_t count = 1;  // the whole; each bracket and each comma brings one more
  bool inText = false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (inText && c == '\\') {
      ++at;
    } else if (c == '"') {
      inText = !inText;
    } else if (!inText && (c == ',' || c == '[' || c == '{')) {
      ++count;
    }
  }
  return count;
}

std::vector<LiftedNumber> liftPythonNumbers(std::string& text) {
  constexpr std::string_view kLiterals[] = {"NaN", "Infinity", "-Infinity"};
  const std::string_view all = text;
  std::vector<LiftedNumber> found;
  bool inText = false;
  for (std::size_t at = 0; at < all.size(); ++at) {
    if (inText && all[at] == '\\') {
      ++at;  // whatever it escapes ends no text
    } else if (all[at] == '"') {
      inText = !inText;
    } else if (!inText && (all[at] == 'N' || all[at] == 'I' || all[at] == '-')) {
      for (const std::string_view literal : kLiterals) {
        if (all.compare(at, literal.size(), literal) != 0) continue;
        if (found.size() == kMaxLiftedNumbers) return {};
        found.push_back({at, literal});
        at += literal.size() - 1;
        break;
      }
    }
  }
  if (found.empty()) return found;
  std::string lifted;
  std::size_t begin = 0;
  for (const LiftedNumber& number : found) {
    lifted.append(all, begin, number.offset - begin) += "null";
    begin = number.offset + number.literal.size();
  }
  lifted.append(all, begin);
  text = std::move(lifted);
  return found;
}

std::string textOfTree(const Json& tree) { return tree.dump() + "\n"; }

const Json* findMember(const Json& object, std::string_view key) { return findIn(object, key); }
Json* findMember(Json& object, std::string_view key) { return findIn(object, key); }

MemberIndex::MemberIndex(const Json& object) {
  if (!object.is_object()) return;
  const Json::object_t& members = object.get_ref<const Json::object_t&>();
  sorted_.reserve(members.size());
  for (const auto& member : members)
    sorted_.push_back(&member);
  std::stable_sort(sorted_.begin(), sorted_.end(),
                   [](const auto* left, const auto* right) { return left->first < right->first; });
}

const Json* MemberIndex::find(std::string_view key) const {
  const auto at = std::lower_bound(
      sorted_.begin(), sorted_.end(), key,
      [](const auto* member, std::string_view sought) { return std::string_view(member->first) < sought; });
  return at == sorted_.end() || (*at)->first != key ? nullptr : &(*at)->second;
}

Json& appendMember(Json& object, std::string key, Json value) {
  Json::object_t& members = object.get_ref<Json::object_t&>();
  members.emplace_back(std::move(key), std::move(value));
  return members.back().second;
}

void setMember(Json& object, std::string_view key, Json value) {
  if (Json* member = findMember(object, key); member != nullptr) {
    *member = std::move(value);
  } else {
    appendMember(object, std::string(key), std::move(value));
  }
}

std::optional<std::int64_t> wholeNumber(const Json& value) {
  if (value.is_number_unsigned()) {
    const auto number = value.get<std::uint64_t>();
    if (number > std::uint64_t{INT64_MAX}) return std::nullopt;
    return static_cast<std::int64_t>(number);
  }
  if (value.is_number_integer()) return value.get<std::int64_t>();
  std::int64_t out = 0;
  if (value.is_number_float() && json::toInt64(value.get<double>(), out)) return out;
  return std::nullopt;
}

std::optional<std::int64_t> wholeMember(const Json& object, std::string_view key) {
  const Json* member = findMember(object, key);
  return member == nullptr ? std::nullopt : wholeNumber(*member);
}

const Json* firstTokenId(const Json& list) {
  if (!list.is_array()) return nullptr;
  for (const Json& item : list) {
    if (wholeNumber(item).value_or(-1) >= 0) return &item;
  }
  return nullptr;
}

const std::string* textMember(const Json& object, std::string_view key) {
  const Json* member = findMember(object, key);
  return member != nullptr && member->is_string() ? &member->get_ref<const std::string&>() : nullptr;
}

}  // namespace zel::tool::prepare
