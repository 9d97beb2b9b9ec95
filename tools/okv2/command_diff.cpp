// diff: what two containers do not have in common.
#include <fmt/format.h>

#include <utility>

#include "okv2/commands.h"
#include "okv2/container_compare.h"
#include "okv2/container_text.h"
#include "okv2/exit_codes.h"
#include "okv2/json_output.h"

namespace zel::tool {
int runDiff(const DiffOptions& options) {
  ContainerFile firstFile, secondFile;
  ContainerView a, b;
  if (const int code = readContainer(options.json, "diff", options.first, firstFile, a); code != kExitOk)
    return code;
  if (const int code = readContainer(options.json, "diff", options.second, secondFile, b); code != kExitOk) {
    return code;
  }
  for (const auto& [path, view] : {std::pair{&options.first, &a}, std::pair{&options.second, &b}}) {
    if (const int code = requireTensorData(options.json, "diff", *path, *view); code != kExitOk) return code;
  }
  Differences out;
  compareDescriptions(a, b, kOfTwoContainers, out);
  compareTensors(a, b, kOfTwoContainers, out);
  const int code = out.empty() ? kExitOk : kExitDifferent;
  if (options.json) {
    Json document = newDocument("diff");
    document["exit_code"] = code;
    document["differences"] = Json::array();
    for (const Difference& each : out)
      document["differences"].push_back({{"part", each.part}, {"name", each.name}, {"text", each.text}});
    print(document);
  } else {
    for (const Difference& each : out)
      fmt::print("{}\n", lineOf(each));
  }
  return code;
}

}  // namespace zel::tool
