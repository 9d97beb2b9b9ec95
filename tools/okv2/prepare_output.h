// What prepare says, alone and as a part of import.
#pragma once

#include "okv2/prepare/prepare.h"

namespace zel::tool {

// Every change, and every loss that is left, a line each on standard error; escaped.
void printPrepared(const prepare::Prepared& prepared);

// Complains about a directory that cannot be prepared: the sentence, the finding and the remedy. Returns the
// exit code. `message` gets the sentence, escaped.
int complainRefused(const std::string& directory, const prepare::Refused& refused, std::string& message);

}  // namespace zel::tool
