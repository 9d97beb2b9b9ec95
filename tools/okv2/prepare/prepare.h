// Turns a published model directory into one that an import takes whole.
#pragma once

#include <string>

#include "okv2/explain/explanation.h"
#include "okv2/prepare/json_tree.h"
#include "okv2/prepare/outcome.h"
#include "okv2/prepare/weights.h"

namespace zel::tool::prepare {

struct Prepared {
  Changes changes;
  explain::Explanation explanation;  // of the prepared directory, and what does not show in it any more
};

// Writes into the directory `out`, which exists and is empty, what an import of `directory` shall read, and
// prepare.json, which lists the changes and what could not be mended. Texts are copied or written anew,
// weights linked or written anew (weights.h). Equal inputs give equal bytes. Nothing in `directory` is
// changed. Throws Refused, with part of the files in `out`, when something cannot be said to an import or is
// damaged; files that are not what their names say are refused before anything is written.
[[nodiscard]] Prepared prepareDirectory(const std::string& directory, const std::string& out,
                                        const WeightOptions& options);

// Whether a finding about the prepared directory is told as one that could not be mended: a loss or worse, or
// names that no reader of the container knows.
[[nodiscard]] bool isNotMended(const explain::Finding& finding);

// A list of changes, and of findings that could not be mended, as documents show them.
[[nodiscard]] Json changesJson(const Changes& changes);
[[nodiscard]] Json remainingJson(const explain::Explanation& explanation);

}  // namespace zel::tool::prepare
