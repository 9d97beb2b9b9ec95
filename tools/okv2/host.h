// The importer plug-in, as any host meets it: dlopen, two exported functions, one importer record.
#pragma once

#include <string>

#include "plugin/host_abi.h"

namespace zel::tool {

// The plug-in's path: `named` when it is not empty, else importer_hf.so beside this executable, else in the
// library folder that belongs to the installation this executable lies in. Empty when there is none.
[[nodiscard]] std::string findPlugin(const std::string& named);

// Loads the plug-in at `path` and returns its importer; null with a sentence in `error` when it cannot be
// loaded or speaks another version of the ABI. The plug-in stays loaded until the process ends, because texts
// and mappings of its own outlive single calls.
[[nodiscard]] const OKVImporter* loadImporter(const std::string& path, std::string& error);

// The importer of the plug-in that `named` leads to; null after telling why.
[[nodiscard]] const OKVImporter* importerOrComplaint(const std::string& named);

// What a host result code other than OKV_OK means, for people.
[[nodiscard]] const char* hostCodeMeaning(int code) noexcept;

}  // namespace zel::tool
