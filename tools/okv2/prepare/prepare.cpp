#include "okv2/prepare/prepare.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include "hf/hf_importer.h"
#include "okv2/escape.h"
#include "okv2/exit_codes.h"
#include "okv2/explain/disguise.h"
#include "okv2/prepare/chat_template.h"
#include "okv2/prepare/config.h"
#include "okv2/prepare/model_texts.h"
#include "okv2/prepare/sentencepiece_model.h"
#include "okv2/prepare/special_ids.h"
#include "okv2/prepare/tokenizer_json.h"

namespace zel::tool::prepare {
namespace {

using explain::Disguise;
using explain::Id;

constexpr char kTokenizerJson[] = "tokenizer.json";
constexpr char kTokenizerModel[] = "tokenizer.model";

// Everything but weights that is read here; tokenizer.json before tokenizer.model, which is read in its
// absence.
constexpr const char* kTexts[] = {
    "config.json",           "tokenizer.json",          "tokenizer.model",
    "tokenizer_config.json", "special_tokens_map.json", "generation_config.json",
    "chat_template.jinja",   "chat_template.json",      "added_tokens.json",
};

// Grows when a member changes its meaning or goes.
constexpr int kSchema = 1;

Id findingOf(Disguise disguise) {
  switch (disguise) {
    case Disguise::Empty: return Id::FileEmpty;
    case Disguise::LfsPointer: return Id::FileLfsPointer;
    case Disguise::LinkText: return Id::FileLinkText;
    case Disguise::WebPage: return Id::FileWebPage;
    case Disguise::None:
    case Disguise::NotRegular: break;
  }
  return Id::FileNotRegular;
}

void refuseDisguises(const std::string& directory) {
  bool hasTokenizerJson = false;
  for (const char* name : kTexts) {
    if (name == std::string_view(kTokenizerModel) && hasTokenizerJson) continue;  // left out
    explain::FileLook look;
    if (!explain::lookAt(directory + "/" + name, look)) continue;
    hasTokenizerJson = hasTokenizerJson || name == std::string_view(kTokenizerJson);
    if (look.disguise == Disguise::None) continue;
    const explain::FindingRow& row = explain::rowOf(findingOf(look.disguise));
    // The table's sentence begins with a word that stands for the file.
    throw Refused(look.disguise == Disguise::NotRegular ? kExitInvalid : kExitCorrupted, row.name,
                  fmt::format("{}: {}", name, row.what), explain::adviceFor({row.id, name, ""}));
  }
}

Tokenizer mendTokenizer(const std::string& directory, ModelTexts& texts, Changes& changes) {
  std::string bytes;
  if (readText(directory, kTokenizerJson, kMaxTextBytes, bytes)) {
    Tokenizer tokenizer = mendTokenizerJson(bytes, addedTokensOf(texts), changes);
    // Whatever it is: nothing of it is used.
    if (struct stat status; ::stat((directory + "/" + kTokenizerModel).c_str(), &status) == 0) {
      changes.push_back(
          {kTokenizerModel, "the file",
           S_ISREG(status.st_mode) ? fmt::format("{} bytes", status.st_size) : "no regular file", "",
           "tokenizer.json comes first, so an import would not read it",
           explain::rowOf(Id::TokenizerModelIgnored).name});
    }
    return tokenizer;
  }
  if (readText(directory, kTokenizerModel, kMaxTextBytes, bytes)) {
    Tokenizer tokenizer = mendTokenizerModel(bytes, addedTokensOf(texts), changes);
    std::move(tokenizer.losses.begin(), tokenizer.losses.end(), std::back_inserter(texts.losses));
    return tokenizer;
  }
  return {};
}

// A file of the prepared directory, written piece by piece.
class OutputFile {
 public:
  OutputFile(const std::string& out, const std::string& name)
      : name_(name), fd_(::open((out + "/" + name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)) {
    if (fd_ < 0) refuse();
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile() {
    if (fd_ >= 0) ::close(fd_);
  }

  void write(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::write(fd_, bytes.data(), bytes.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) refuse();
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
  }
  void close() {
    if (::close(std::exchange(fd_, -1)) != 0) refuse();
  }

 private:
  [[noreturn]] void refuse() const {
    throw Refused(kExitNoOutput, "", fmt::format("cannot write {}: {}", name_, std::strerror(errno)),
                  "Make room, or choose another output.");
  }

  std::string name_;
  int fd_;
};

void writeFile(const std::string& out, const std::string& name, std::string_view bytes) {
  OutputFile file(out, name);
  file.write(bytes);
  file.close();
}

void writeTexts(const std::string& out, const ModelTexts& texts, const Tokenizer& tokenizer) {
  for (const JsonFile* file :
       {&texts.config, &texts.tokenizerConfig, &texts.specialTokensMap, &texts.generationConfig}) {
    if (file->exists) writeFile(out, file->name, file->bytes());
  }
  if (!tokenizer.file.empty()) writeFile(out, tokenizer.file, tokenizer.bytes);
}

// The only failure of an import that neither the texts nor the weights are refused for.
void refuseNamelessArchitecture(const std::string& out) {
  HfImporter model;
  if (model.parseConfig(out).ok()) return;
  const explain::FindingRow& row = explain::rowOf(Id::ConfigNoModelType);
  throw Refused(kExitInvalid, row.name, "config.json: it names no architecture", row.todo);
}

// Behind those that are there already, before the notes.
void addLosses(std::vector<explain::Finding> losses, explain::Explanation& explanation) {
  std::vector<explain::Finding>& all = explanation.findings;
  const auto firstNote = std::find_if(all.begin(), all.end(), [](const explain::Finding& finding) {
    return explain::rowOf(finding.id).severity == explain::Severity::Note;
  });
  all.insert(firstNote, std::make_move_iterator(losses.begin()), std::make_move_iterator(losses.end()));
}

// Names that are the container's own pass an import unchanged, and are not among `unmapped`.
void replaceUnmapped(std::vector<explain::Finding> unmapped, explain::Explanation& explanation) {
  std::vector<explain::Finding>& all = explanation.findings;
  const auto isUnmapped = [](const explain::Finding& finding) { return finding.id == Id::TensorUnmapped; };
  all.erase(std::remove_if(all.begin(), all.end(), isUnmapped), all.end());
  std::move(unmapped.begin(), unmapped.end(), std::back_inserter(all));
}

Json changeJson(const Change& change) {
  return {{"file", change.file}, {"what", change.what}, {"from", change.from},
          {"to", change.to},     {"why", change.why},   {"finding", change.finding}};
}

Json lossJson(const explain::Finding& finding) {
  return {
      {"finding", explain::rowOf(finding.id).name}, {"subject", finding.subject}, {"detail", finding.detail}};
}

// A member of the document's top level that is an array of objects, one after another: all of them as a tree
// would take several times the room of the changes themselves.
class ArrayMember {
 public:
  ArrayMember(OutputFile& file, const char* key) : file_(file), text_(fmt::format(",\n  \"{}\": [", key)) {}
  void add(const Json& object) {
    text_ += isEmpty_ ? "\n    " : ",\n    ";
    isEmpty_ = false;
    // Names and texts may hold any byte; JSON holds UTF-8 only.
    for (const char c : object.dump(2, ' ', false, Json::error_handler_t::replace)) {
      text_ += c;
      if (c == '\n') text_ += "    ";  // between members: texts have no newline in JSON
    }
    if (text_.size() < kFlushedBytes) return;
    file_.write(text_);
    text_.clear();
  }
  void end() {
    text_ += isEmpty_ ? "]" : "\n  ]";
    file_.write(text_);
  }

 private:
  static constexpr std::size_t kFlushedBytes = std::size_t{1} << 20;

  OutputFile& file_;
  std::string text_;
  bool isEmpty_ = true;
};

void writeDocument(const std::string& out, const Prepared& prepared) {
  OutputFile file(out, "prepare.json");
  file.write(fmt::format("{{\n  \"schema\": {}", kSchema));
  ArrayMember changes(file, "changes");
  for (const Change& change : prepared.changes)
    changes.add(changeJson(change));
  changes.end();
  ArrayMember remaining(file, "remaining");
  for (const explain::Finding& finding : prepared.explanation.findings) {
    if (isNotMended(finding)) remaining.add(lossJson(finding));
  }
  remaining.end();
  file.write("\n}\n");
  file.close();
}

}  // namespace

Json changesJson(const Changes& changes) {
  Json out = Json::array();
  for (const Change& change : changes)
    out.push_back(changeJson(change));
  return out;
}

bool isNotMended(const explain::Finding& finding) {
  return finding.id == Id::TensorUnmapped || explain::rowOf(finding.id).severity != explain::Severity::Note;
}

Json remainingJson(const explain::Explanation& explanation) {
  Json out = Json::array();
  for (const explain::Finding& finding : explanation.findings) {
    if (isNotMended(finding)) out.push_back(lossJson(finding));
  }
  return out;
}

Prepared prepareDirectory(const std::string& directory, const std::string& out,
                          const WeightOptions& options) {
  refuseDisguises(directory);
  Prepared prepared;
  std::vector<explain::Finding> losses;
  {  // the trees go before the result is read again
    ModelTexts texts = readModelTexts(directory, prepared.changes);
    Tokenizer tokenizer = mendTokenizer(directory, texts, prepared.changes);
    settleSpecialIds(texts, tokenizer, prepared.changes);
    mendConfig(texts, prepared.changes);
    mendChatTemplate(directory, texts, prepared.changes);
    writeTexts(out, texts, tokenizer);
    losses = std::move(texts.losses);
  }
  refuseNamelessArchitecture(out);
  std::vector<explain::Finding> unmapped = prepareWeights(directory, out, options, prepared.changes);
  prepared.explanation = explain::explainDirectory(out);
  addLosses(std::move(losses), prepared.explanation);
  replaceUnmapped(std::move(unmapped), prepared.explanation);
  writeDocument(out, prepared);
  return prepared;
}

}  // namespace zel::tool::prepare
