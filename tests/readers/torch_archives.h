// What the tests of PyTorchImporter share.
#pragma once

#include <string>

#include "readers/pytorch_importer.h"
#include "support/pickle_builder.h"
#include "support/zip_builder.h"

namespace zel::test {

// A checkpoint without tensors: its program leaves an empty dict.
inline ZipBuilder emptyCheckpoint() { return ZipBuilder().add("data.pkl", stateDict({})); }

inline Status openStatus(const std::string& bytes) {
  PyTorchImporter importer;
  return importer.openBytes(bytes);
}

}  // namespace zel::test
