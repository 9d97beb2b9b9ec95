#include "okv2/prepare/torch_state_dict.h"

#include <cstdint>
#include <set>
#include <string_view>
#include <utility>

#include "okv2/prepare/weight_limits.h"

namespace zel::tool::prepare {
namespace {

using Kind = PickleKind;

struct WrapperKey {
  std::string_view key;
  std::string_view source;
};
// In the order in which they are looked for.
constexpr WrapperKey kWrapperKeys[] = {
    {"model_state_dict", "PyTorch tutorial \"Saving and loading a general checkpoint\""},
    {"state_dict", "PyTorch Lightning checkpoints; timm, models/_helpers.py"},
    {"model", "fairseq checkpoint_utils.py; timm, models/_helpers.py"},
    {"module", "DeepSpeed, runtime/engine.py"},
};

bool isStateDict(const PickleValue& value) { return value.is(Kind::Dict) && value.node().holdsTensor; }

bool holdsTensors(const PickleValue& value) {
  return value.is(Kind::Tensor) || value.isUnreadArray() ||
         (value.isContainer() && value.node().reachesTensor);
}
bool mayHoldWeights(const PickleValue& value) { return value.is(Kind::Inert) || holdsTensors(value); }

// Programs that train with torch keep arrays of numpy's as well, means and states of generators: of several
// known keys, one with tensors of torch's is the weights'.
const PickleItem* findKnownKey(const PickleNode& root) {
  const PickleItem* ofArrays = nullptr;
  for (const WrapperKey& row : kWrapperKeys) {
    for (const PickleItem* item = root.first; item != nullptr; item = item->next) {
      if (!item->key.is(Kind::Text) || item->key.text() != row.key || !isStateDict(item->value)) continue;
      if (item->value.node().holdsTorchTensor) return item;
      if (ofArrays == nullptr) ofArrays = item;
    }
  }
  return ofArrays;
}

// Of a key that is only named. The memo can hand out one text of megabytes as the key of many.
constexpr std::size_t kShownKeyBytes = 200;
std::string shown(std::string_view key) { return "'" + std::string(key.substr(0, kShownKeyBytes)) + "'"; }

// What has no text for a key is called after its position in the dictionary.
std::string entryName(std::size_t position) { return "entry " + std::to_string(position); }

// The only dictionary of tensors among the items of the root; null, with `names` of all, when there are none
// or several. Without a text for a key, the only one is none by name.
const PickleItem* findOnlyStateDict(const PickleNode& root, std::string& names) {
  const PickleItem* found = nullptr;
  std::size_t count = 0;
  std::size_t position = 0;
  for (const PickleItem* item = root.first; item != nullptr; item = item->next, ++position) {
    if (!isStateDict(item->value)) continue;
    found = item;
    constexpr std::size_t kNamed = 8;
    if (count++ >= kNamed) continue;
    names += names.empty() ? "" : ", ";
    names += item->key.is(Kind::Text) ? shown(item->key.text()) : entryName(position);
  }
  if (count == 1 && found->key.is(Kind::Text)) return found;
  if (count == 1) names.clear();
  return nullptr;
}

// The memo can hand out one long text as any number of keys: each is taken once, and a key that is put before
// others must be short.
constexpr std::size_t kMaxWrapperBytes = 256;

Status tooManyEntries(const char* container) {
  return unsupported(std::string("checkpoint: ") + container + " has more than " +
                     std::to_string(kMaxFileTensors) + " entries");
}

const char* describe(const PickleValue& value) {
  const bool isBigEndian = value.isUnreadArray() && value.part()->isBigEndian;
  return isBigEndian ? "a big-endian numpy array" : pickleKindName(value.kind());
}

void takeEntry(std::string name, const std::string& prefix, const PickleValue& value, StateDict& out) {
  if (value.is(Kind::Tensor)) {
    out.tensors.emplace_back(std::move(name), &value.tensor());
  } else {
    out.others.push_back({prefix + name, describe(value), mayHoldWeights(value), false, prefix.size()});
  }
}

Status takeEntries(const PickleNode& dict, const std::string& prefix, StateDict& out) {
  std::set<std::string_view> seen;  // ordered: names can be made to collide under a hash
  for (const PickleItem* item = dict.first; item != nullptr; item = item->next) {
    if (!item->key.is(Kind::Text)) {
      return unsupported(std::string("checkpoint: a key of the dictionary of tensors is ") +
                         pickleKindName(item->key.kind()));
    }
    if (!seen.insert(item->key.text()).second) {
      return unsupported("checkpoint: the dictionary of tensors has " + shown(item->key.text()) + " twice");
    }
    if (seen.size() > kMaxFileTensors) return tooManyEntries("a dictionary");
    takeEntry(std::string(item->key.text()), prefix, item->value, out);
  }
  return {};
}

// What lies beside the dictionary of tensors, each text once. A key that is not known does not tell that what
// holds tensors beside it is no weights.
Status takeBeside(const PickleNode& root, const PickleItem& chosen, bool isKnown, StateDict& out) {
  std::set<std::pair<std::string_view, bool>> seen;  // ordered: names can be made to collide under a hash
  std::size_t position = 0;
  for (const PickleItem* item = root.first; item != nullptr; item = item->next, ++position) {
    if (item == &chosen) continue;
    const bool isText = item->key.is(Kind::Text);
    const std::string_view key = isText ? item->key.text().substr(0, kShownKeyBytes) : std::string_view();
    const bool holds = holdsTensors(item->value);
    if (isText && !seen.insert({key, holds}).second) continue;
    if (out.others.size() == kMaxFileTensors) return tooManyEntries("a dictionary");
    out.others.push_back({isText ? std::string(key) : entryName(position), describe(item->value),
                          holds && !isKnown, holds && isKnown, 0});
  }
  return {};
}

// A list or tuple that holds a tensor.
Status takePositions(const PickleValue& list, StateDict& out) {
  out.naming = TensorNaming::Positions;
  if (list.node().count > kMaxFileTensors) return tooManyEntries(pickleKindName(list.kind()));
  std::size_t position = 0;
  for (const PickleItem* item = list.node().first; item != nullptr; item = item->next)
    takeEntry(std::to_string(position++), "", item->value, out);
  return {};
}

}  // namespace

const char* pickleKindName(PickleKind kind) noexcept {
  switch (kind) {
    case Kind::Unset:
    case Kind::None: return "None";
    case Kind::Boolean: return "a boolean";
    case Kind::Integer:
    case Kind::LongInteger:
    case Kind::Real: return "a number";
    case Kind::Text: return "a text";
    case Kind::Bytes: return "bytes";
    case Kind::Tuple: return "a tuple";
    case Kind::List: return "a list";
    case Kind::Dict: return "a dictionary";
    case Kind::Global: return "a global";
    case Kind::Storage: return "a storage";
    case Kind::Tensor: return "a tensor";
    case Kind::Inert: return "an object that is no tensor";
  }
  return "?";
}

Status findStateDict(const PickleValue& root, StateDict& out) {
  out = StateDict();
  if (root.is(Kind::Tensor)) {
    out.naming = TensorNaming::Single;
    out.tensors.emplace_back(kSingleTensorName, &root.tensor());
    return {};
  }
  if ((root.is(Kind::List) || root.is(Kind::Tuple)) && root.node().holdsTensor)
    return takePositions(root, out);
  if (!root.is(Kind::Dict)) {
    return unsupported(std::string("checkpoint: it holds ") + describe(root) +
                       " instead of a dictionary of tensors by name");
  }
  const PickleItem* chosen = findKnownKey(root.node());
  const bool isKnown = chosen != nullptr;
  std::string names;
  if (!isKnown) {
    if (root.node().holdsTensor) return takeEntries(root.node(), "", out);
    chosen = findOnlyStateDict(root.node(), names);
  }
  if (chosen == nullptr) {
    return unsupported(names.empty() ? "checkpoint: it holds no dictionary of tensors by name"
                                     : "checkpoint: it holds more than one dictionary of tensors: " + names);
  }
  if (chosen->key.text().size() > kMaxWrapperBytes) {
    return unsupported("checkpoint: the key of the dictionary of tensors has more than 256 bytes");
  }
  out.within = chosen->key.text();
  ZEL_RETURN_IF_ERROR(takeBeside(root.node(), *chosen, isKnown, out));
  return takeEntries(chosen->value.node(), out.within + ".", out);
}

}  // namespace zel::tool::prepare
