#include <algorithm>
#include <optional>
#include <utility>

#include "promises/archive.h"
#include "support/proto_builder.h"
#include "support/safetensors_builder.h"
#include "support/zip_builder.h"
#include "targets.h"

namespace zel::fuzz {
namespace {

// How much a part may grow at a time.
constexpr std::size_t kRoomToGrow = 64;

std::string mutated(std::string_view part, MutateBytes mutate) {
  std::string out(part);
  out.resize(part.size() + kRoomToGrow);
  out.resize(mutate(reinterpret_cast<std::uint8_t*>(out.data()), part.size(), out.size()));
  return out;
}

std::uint64_t little(std::string_view bytes, std::size_t at, unsigned count) {
  std::uint64_t out = 0;
  for (unsigned k = count; k-- > 0;)
    out = out << 8 | static_cast<unsigned char>(bytes[at + k]);
  return out;
}

// The entries of an archive as its local headers tell them, from the front for as far as they make sense.
using Entries = std::vector<std::pair<std::string, std::string>>;
Entries entriesOf(std::string_view archive) {
  Entries out;
  std::size_t at = 0;
  while (archive.size() - at >= test::zip_local::kBytes &&
         little(archive, at, 4) == test::kZipLocalSignature) {
    const std::size_t dataBytes = little(archive, at + 18, 4);
    const std::size_t nameBytes = little(archive, at + 26, 2);
    const std::size_t extraBytes = little(archive, at + 28, 2);
    at += test::zip_local::kBytes;
    if (archive.size() - at < nameBytes + extraBytes ||
        archive.size() - at - nameBytes - extraBytes < dataBytes) {
      break;
    }
    out.emplace_back(archive.substr(at, nameBytes), archive.substr(at + nameBytes + extraBytes, dataBytes));
    at += nameBytes + extraBytes + dataBytes;
  }
  return out;
}

}  // namespace

std::string mutateSafetensors(std::string_view input, unsigned choice, MutateBytes mutate) {
  if (input.size() < 8 || choice % 4 == 0) return {};
  const std::uint64_t headerBytes = little(input, 0, 8);
  if (headerBytes > input.size() - 8) return {};
  const std::string header = mutated(input.substr(8, headerBytes), mutate);
  return test::littleEndian64(header.size()) + header + std::string(input.substr(8 + headerBytes));
}

std::string mutatePyTorch(std::string_view input, unsigned choice, MutateBytes mutate) {
  if (choice % 4 == 0) return {};
  Entries entries = entriesOf(input);
  if (entries.empty()) return {};
  auto& [name, data] = entries[choice / 16 % entries.size()];
  if (choice % 16 == 1) {
    name = mutated(name, mutate);
  } else {
    data = mutated(data, mutate);
  }
  test::ZipBuilder zip;
  for (auto& [eachName, eachData] : entries)
    zip.add(eachName, eachData);
  return zip.build();
}

// The pieces of a model, one of them mutated, with lengths that fit again.
std::string mutateTokenizerModel(std::string_view input, unsigned choice, MutateBytes mutate) {
  if (choice % 2 == 0) return {};
  std::vector<std::pair<char, std::string>> fields;  // a key of one byte, and a message below 128 bytes
  while (input.size() >= 2 && (input[0] & 7) == 2 && static_cast<unsigned char>(input[1]) < 0x80) {
    const auto length = static_cast<std::size_t>(input[1]);
    if (input.size() - 2 < length) break;
    fields.emplace_back(input[0], input.substr(2, length));
    input.remove_prefix(2 + length);
  }
  if (fields.empty()) return {};
  std::string& chosen = fields[choice / 2 % fields.size()].second;
  chosen = mutated(chosen, mutate);
  test::ProtoBuilder out;
  for (const auto& [key, message] : fields)
    out.raw({&key, 1}).rawVarint(message.size()).raw(message);
  return out.raw(input).str();
}

std::string mutateDirectory(std::string_view input, unsigned choice, MutateBytes mutate) {
  std::vector<ArchivedFile> files = unpackArchive(input);
  if (files.empty() || choice % 16 == 0) return {};
  const std::size_t k = choice / 16 % files.size();
  ArchivedFile& file = files[k];
  const unsigned rest = choice / 16 / unsigned(files.size());
  switch (choice % 16) {
    case 1: file.name = static_cast<unsigned char>(rest % kArchiveNameCount); break;
    case 2: files.erase(files.begin() + std::ptrdiff_t(k)); break;
    case 3: {
      ArchivedFile copy = file;
      copy.name = static_cast<unsigned char>(rest % kArchiveNameCount);
      files.push_back(std::move(copy));
      break;
    }
    default: {
      const std::string_view name = kArchiveNames[file.name];
      std::string content;
      if (name.find("safetensors") != std::string_view::npos) {
        content = mutateSafetensors(file.content, rest, mutate);
      } else if (name == "pytorch_model.bin") {
        content = mutatePyTorch(file.content, rest, mutate);
      } else if (name == "tokenizer.model") {
        content = mutateTokenizerModel(file.content, rest, mutate);
      }
      file.content = content.empty() ? mutated(file.content, mutate) : content;
    }
  }
  return packArchive(files);
}

}  // namespace zel::fuzz
