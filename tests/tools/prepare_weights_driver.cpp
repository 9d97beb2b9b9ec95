// prepare_weights DIR OUT [--cast] [--cast-integers] [--text-only] [--drop REGEX]...
//
// The weights' half of `okv2 prepare` alone, for tests that are not written in C++. OUT must exist. Prints
// every change as a line of JSON; a refusal goes to standard error, as "MESSAGE\nREMEDY\n".
#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "okv2/prepare/outcome.h"
#include "okv2/prepare/weights.h"

int main(int argc, char** argv) {
  using namespace zel::tool::prepare;
  if (argc < 3) return 64;
  WeightOptions options;
  for (int k = 3; k < argc; ++k) {
    if (std::strcmp(argv[k], "--cast") == 0) {
      options.cast = true;
    } else if (std::strcmp(argv[k], "--cast-integers") == 0) {
      options.castIntegers = true;
    } else if (std::strcmp(argv[k], "--text-only") == 0) {
      options.textOnly = true;
    } else if (std::strcmp(argv[k], "--drop") == 0 && k + 1 < argc) {
      options.drop.emplace_back(argv[++k]);
    } else {
      return 64;
    }
  }
  try {
    Changes changes;
    prepareWeights(argv[1], argv[2], options, changes);
    for (const Change& change : changes) {
      const nlohmann::json line = {{"file", change.file}, {"what", change.what}, {"from", change.from},
                                   {"to", change.to},     {"why", change.why},   {"finding", change.finding}};
      std::puts(line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    }
    return 0;
  } catch (const Refused& refused) {
    std::fprintf(stderr, "%s\n%s\n", refused.what(), refused.remedy().c_str());
    return refused.exitCode();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n\n", error.what());
    return 1;
  }
}
