// One run of the machine for pickles of torch.save, as its tests look at it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "okv2/prepare/torch_pickle.h"
#include "support/torch_builder.h"

namespace zel::tool::prepare {

// What the program makes lives as long as the object.
struct Executed {
  explicit Executed(std::string bytes) : program(std::move(bytes)) {
    status = machine.run(program, root, consumed);
  }
  // The program and STOP.
  explicit Executed(const test::SavedPickle& pickle) : Executed(pickle.stop()) {}

  std::string program;
  TorchPickle machine;
  PickleValue root;
  std::uint64_t consumed = 0;
  Status status;
};

}  // namespace zel::tool::prepare
