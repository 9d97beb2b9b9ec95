// Where the weights are in what a checkpoint's program made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "container/status.h"
#include "okv2/prepare/torch_pickle.h"

namespace zel::tool::prepare {

// An entry that is no tensor, or lies beside the dictionary of tensors.
struct OtherEntry {
  // Its key; "a.b" for what lies in dictionary a. Of what lies beside, 200 bytes, or "entry 2" for the third
  // when its key is no text.
  std::string name;
  std::string what;  // "a number", "a dictionary"
  // It lies among the tensors and holds tensors, or something that is not known; or it holds tensors beside a
  // dictionary under a key that is not known.
  bool mayHoldWeights = false;
  bool isLeftOut = false;    // it holds tensors beside a dictionary under a known key
  std::size_t ownBegin = 0;  // where its own key begins in the name
};

enum class TensorNaming : std::uint8_t {
  Own,        // as the keys of a dictionary
  Single,     // there is one tensor and no name: kSingleTensorName
  Positions,  // those of a list or tuple, from "0"
};
inline constexpr std::string_view kSingleTensorName = "tensor";

struct StateDict {
  TensorNaming naming = TensorNaming::Own;
  std::string within;  // the key under which the dictionary lies; empty when it is the root
  std::vector<std::pair<std::string, const PickleTensor*>> tensors;  // in the order of the program
  std::vector<OtherEntry> others;
};

// A dictionary: what the root holds under one of the keys that training programs use, or else the root itself
// when it holds tensors, or else its only dictionary of tensors. Arrays of numpy's are tensors like any
// other, but of several known keys one with tensors of torch's goes first. A tensor, or a list or tuple that
// holds some, is taken without one. Failures begin "checkpoint: ":
//   Unsupported  there is no such dictionary, or more than one; a key that is no text or comes twice; more
//                than kMaxFileTensors entries
Status findStateDict(const PickleValue& root, StateDict& out);

// "a list", "a number" and so on.
[[nodiscard]] const char* pickleKindName(PickleKind kind) noexcept;

}  // namespace zel::tool::prepare
