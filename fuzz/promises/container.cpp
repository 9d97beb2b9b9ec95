#include <algorithm>
#include <string>

#include "okv2/container_reader.h"
#include "promises/promises.h"
#include "support/container_builder.h"

namespace zel::fuzz {
namespace {

using okv2::MetaType;
using okv2::SectionType;
using tool::ContainerView;

bool liesInside(std::string_view part, std::string_view whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

std::string encodedValue(const tool::MetaView& item) {
  if (item.type == MetaType::Str) return test::str32(item.value);
  if (item.type == MetaType::U32Array) return test::u32(item.value.size() / 4) + std::string(item.value);
  return std::string(item.value);
}

// The container written from what was read; whatever verification overlooks gets lost on the way.
std::string rewritten(const ContainerView& view) {
  test::ContainerBuilder builder;
  builder.modelInfo(view.archId, view.hiddenSize, view.numLayers, view.vocabSize);
  for (const tool::MetaView& item : view.metadata)
    builder.meta(item.key, int(item.type), encodedValue(item));
  const tool::TokenizerView& tokenizer = view.tokenizer;
  builder.tokenizerTemplate(tokenizer.chatTemplate);
  for (const std::string_view token : tokenizer.tokens)
    builder.token(token);
  for (std::size_t k = 0; k < tokenizer.scoreCount(); ++k) {
    builder.score(tool::MetaView{{}, MetaType::F32, tokenizer.scores.substr(4 * k, 4)}.f32());
  }
  for (std::size_t k = 0; k < tokenizer.typeCount(); ++k) {
    builder.type(tool::MetaView{{}, MetaType::U32, tokenizer.types.substr(4 * k, 4)}.u32());
  }
  for (const std::string_view merge : tokenizer.merges)
    builder.merge(merge);
  const auto& ids = tokenizer.specialIds;
  builder.specialIds(ids[0], ids[1], ids[2], ids[3]).addBos(tokenizer.addBos);
  builder.graph(view.section(SectionType::Graph).bytes).chatTemplate(view.chatTemplate);
  for (const tool::TensorView& tensor : view.tensors) {
    builder.tensor(tensor.name, tensor.dtype, {tensor.dims, tensor.dims + tensor.ndim},
                   view.tensorData(tensor), tensor.fullNameBytes);
  }
  return builder.build().bytes;
}

// A name of 63 bytes whose full length is stored as 0, a multiple of 65536, is beyond the builder.
bool canBeRewritten(const ContainerView& view) {
  return std::all_of(view.tensors.begin(), view.tensors.end(), [](const tool::TensorView& tensor) {
    return tensor.fullNameBytes != 0 || tensor.name.empty();
  });
}

void checkFindings(const tool::Findings& findings, std::string_view file) {
  std::uint64_t errors = 0;
  for (const tool::Finding& finding : findings.items()) {
    errors += finding.isError ? 1 : 0;
    promise(finding.offset <= file.size() || !finding.isError, "an error is found inside the file");
    promise(!finding.text.empty() && std::all_of(finding.text.begin(), finding.text.end(),
                                                 [](unsigned char c) { return c >= ' ' && c != 0x7F; }),
            "a finding is one line without control bytes");
  }
  promise(errors <= findings.errors() && findings.errors() <= errors + findings.dropped(),
          "every error is counted");
}

void checkDecoded(const ContainerView& view) {
  for (const tool::SectionView& section : view.sections)
    promise(liesInside(section.bytes, view.file), "every section lies inside the file");
  for (const tool::MetaView& item : view.metadata) {
    promise(liesInside(item.key, view.file) && liesInside(item.value, view.file),
            "every metadata item lies inside the file");
  }
  for (const std::string_view token : view.tokenizer.tokens)
    promise(liesInside(token, view.file), "every token lies inside the file");
  for (const tool::TensorView& tensor : view.tensors) {
    promise(tensor.name.size() <= okv2::kTensorNameBytes, "names fit their field");
    promise(liesInside(view.tensorData(tensor), view.file), "every tensor lies inside the file");
  }
}

// True when the header is understood, but its checksum does not fit.
bool checkOnce(std::string_view file) {
  ContainerView view;
  const bool verified = verifyContainer(file, view);
  checkFindings(view.findings, file);
  checkDecoded(view);
  ContainerView parsed;
  const bool decoded = parseContainer(file, parsed);
  promise(!verified || decoded, "what passes verification can be decoded");
  promise(decoded || view.findings.errors() > 0, "what cannot be decoded has an error");
  promise(verified == (decoded && view.findings.errors() == 0), "a container passes when it has no error");
  if (verified && canBeRewritten(view)) {
    promise(rewritten(view) == file, "a verified container is written again byte for byte");
  }
  if (!view.headerUnderstood) return false;
  return std::any_of(view.findings.items().begin(), view.findings.items().end(),
                     [](const tool::Finding& each) {
                       // By its text too: a section that claims to lie in the header has findings at the same
                       // place.
                       return each.isError && each.offset == okv2::kHeaderChecksumOffset &&
                              each.text.find("header checksum") == 0;
                     });
}

}  // namespace

void checkContainer(std::string_view input) {
  if (!checkOnce(input)) return;
  test::BuiltContainer sealed;
  sealed.bytes = input;
  sealed.seal();
  promise(!checkOnce(sealed.bytes), "the checksum can be made to fit");
}

}  // namespace zel::fuzz
