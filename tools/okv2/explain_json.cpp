#include "okv2/explain_json.h"

namespace zel::tool {

using explain::Explanation;
using explain::Severity;

Json findingsJson(const Explanation& explanation) {
  Json out = Json::array();
  for (const explain::Finding& finding : explanation.findings) {
    const explain::FindingRow& row = explain::rowOf(finding.id);
    out.push_back({{"id", row.name},
                   {"severity", explain::severityName(row.severity)},
                   {"subject", finding.subject},
                   {"detail", finding.detail},
                   {"what", row.what},
                   {"why", row.why},
                   {"todo", explain::adviceFor(finding)}});
  }
  return out;
}

Json explanationJson(const Explanation& explanation) {
  Json out = newDocument("explain");
  out["directory"] = explanation.directory;
  out["import"] = {{"code", explanation.importCode},
                   {"message", explanation.importMessage},
                   {"tensors", explanation.tensors},
                   {"bytes", explanation.bytes}};
  out["counts"] = {{"fatal", explanation.count(Severity::Fatal)},
                   {"loss", explanation.count(Severity::Loss)},
                   {"note", explanation.count(Severity::Note)}};
  out["architecture"] = explanation.architecture;
  out["files"] = Json::array();
  for (const explain::FileUse& file : explanation.files) {
    out["files"].push_back(
        {{"name", file.name}, {"bytes", file.bytes}, {"read", file.read}, {"use", file.use}});
  }
  out["config"] = Json::array();
  for (const explain::ConfigUse& use : explanation.config) {
    out["config"].push_back({{"key", use.key}, {"value", use.value}, {"becomes", use.field}});
  }
  const explain::TokenizerUse& tokenizer = explanation.tokenizer;
  out["tokenizer"] = {{"file", tokenizer.winner},
                      {"tokens", tokenizer.tokens},
                      {"vocab_size", explanation.vocabSize},
                      {"scores", tokenizer.scores},
                      {"merges", tokenizer.merges},
                      {"special", tokenizer.special},
                      {"added_tokens", tokenizer.addedTokens},
                      {"added_outside", tokenizer.addedOutside},
                      {"bos", tokenizer.bos},
                      {"eos", tokenizer.eos},
                      {"unk", tokenizer.unk},
                      {"pad", tokenizer.pad}};
  out["chat_template"] = {{"file", explanation.chatTemplate.source},
                          {"bytes", explanation.chatTemplate.bytes},
                          {"stored", explanation.chatTemplate.stored}};
  out["types"] = Json::array();
  for (const explain::TypeUse& type : explanation.types) {
    out["types"].push_back({{"type", type.type}, {"tensors", type.tensors}, {"code", type.code}});
  }
  out["findings"] = findingsJson(explanation);
  return out;
}

}  // namespace zel::tool
