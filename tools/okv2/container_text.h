// Containers in words: what list, diff and the HTML page share.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "okv2/container_file.h"
#include "okv2/container_reader.h"

namespace zel::tool {

// kExitOk, or the code to leave with; the complaint, or the failure document of `command`, has been made.
[[nodiscard]] int openContainer(bool json, const char* command, const std::string& path, ContainerFile& file);

// Opens and decodes. A container that cannot be decoded gives kExitBadContainer and its findings on stderr.
[[nodiscard]] int readContainer(bool json, const char* command, const std::string& path, ContainerFile& file,
                                ContainerView& view);

// kExitOk when the bytes of every tensor can be gone through in the time that the file's size explains: they
// lie inside the weights section, and together are no more than it. Else kExitBadContainer, after
// complaining.
[[nodiscard]] int requireTensorData(bool json, const char* command, const std::string& path,
                                    const ContainerView& view);

// One line each on standard error.
void printFindings(const std::string& path, const Findings& findings);

// The type's name and the value, escaped and cut.
[[nodiscard]] std::pair<const char*, std::string> describe(const MetaView& item);

// "[2, 3]"
[[nodiscard]] std::string shapeText(const TensorView& tensor);

}  // namespace zel::tool
