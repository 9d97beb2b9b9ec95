#include "okv2/prepare/torch_archive.h"

#include <limits>
#include <map>
#include <utility>

#include "container/bytes.h"

namespace zel::tool::prepare {
namespace {

using Kind = PickleKind;

// MAGIC_NUMBER and PROTOCOL_VERSION of torch/serialization.py; the first as a pickled long has it.
constexpr std::string_view kMagic = "\x6c\xfc\x9c\x46\xf9\x20\x6a\xa8\x50\x19";
constexpr std::int64_t kProtocol = 1001;

constexpr std::string_view kZipStart = "PK\x03\x04";
constexpr std::string_view kEmptyZipStart = "PK\x05\x06";
constexpr std::size_t kTarMagicOffset = 257;  // POSIX ustar
constexpr std::string_view kTarMagic = "ustar";
constexpr std::size_t kMaxByteOrderBytes = 16;

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::vector<std::uint64_t> sizesOf(const PickleNode& tuple) {
  std::vector<std::uint64_t> out;
  out.reserve(tuple.count);
  for (const PickleItem* item = tuple.first; item != nullptr; item = item->next)
    out.push_back(static_cast<std::uint64_t>(item->value.integer()));
  return out;
}

Status tooFewBytes(const std::string& key, std::uint64_t have, std::uint64_t need) {
  return corrupted("checkpoint: storage '" + key + "' has " + std::to_string(have) + " bytes, " +
                   std::to_string(need) + " are declared");
}

// Bytes of the whole stored run, or all ones when they do not fit 64 bits.
std::uint64_t declaredBytes(const PickleStorage& storage) {
  std::uint64_t bytes;
  return checkedMul(storage.elements, storage.type->bytes, bytes) ? bytes
                                                                  : std::numeric_limits<std::uint64_t>::max();
}

// The position of `key`, which is `next` when it is new, and whether it is.
template <class Key>
std::pair<std::size_t, bool> emplaced(std::map<Key, std::size_t>& positions, Key key, std::size_t next) {
  const auto [found, isNew] = positions.emplace(key, next);
  return {found->second, isNew};
}

}  // namespace

Status TorchCheckpoint::parse(std::string_view file) {
  file_ = file;
  if (startsWith(file, kZipStart) || startsWith(file, kEmptyZipStart)) return parseZip();
  if (file.size() > kTarMagicOffset && startsWith(file.substr(kTarMagicOffset), kTarMagic)) {
    return unsupported("checkpoint: it is a tar archive, the oldest form of torch.save");
  }
  if (startsWith(file, "\x80")) return parseLegacy();
  return unsupported("checkpoint: it is neither a zip archive nor a pickle");
}

// ---- the zip form: FOLDER/data.pkl, and FOLDER/data/KEY for each storage

Status TorchCheckpoint::parseZip() {
  isZip_ = true;
  ZEL_RETURN_IF_ERROR(zip_.open(file_));
  if (zip_.entryCount() == 0) return corrupted("checkpoint: the archive is empty");
  // The folder is that of the first entry, whatever the file is called
  // (caffe2/serialize/inline_container.cc).
  const std::string first = zip_.nameAt(0);
  const std::size_t slash = first.find('/');
  const std::string folder = slash == std::string::npos ? "" : first.substr(0, slash + 1);
  std::uint64_t index;
  if (!zip_.find(folder + "data.pkl", index)) {
    return corrupted("checkpoint: the archive has no entry '" + folder + "data.pkl'");
  }
  ZEL_RETURN_IF_ERROR(readByteOrder(folder));
  ZipEntryInfo entry;
  ZEL_RETURN_IF_ERROR(zip_.describe(index, entry));
  if (entry.bytes > TorchPickle::kMaxProgramBytes) {
    return unsupported("checkpoint: the pickle is longer than " +
                       std::to_string(TorchPickle::kMaxProgramBytes) + " bytes");
  }
  ZEL_RETURN_IF_ERROR(zip_.read(entry, [this](std::string_view piece) {
    program_ += piece;
    return true;
  }));
  PickleValue root;
  std::uint64_t consumed;
  ZEL_RETURN_IF_ERROR(machine_.run(program_, root, consumed));
  ZEL_RETURN_IF_ERROR(findStateDict(root, dict_));
  std::uint64_t deflatedBytes = 0;  // no more of them than the file has, or entries overlap
  return takeTensors([&](const PickleStorage& declared, TorchStorage& out) -> Status {
    if (!zip_.find(folder + "data/" + out.key, index)) {
      return corrupted("checkpoint: the archive has no entry '" + folder + "data/" + out.key + "'");
    }
    ZEL_RETURN_IF_ERROR(zip_.describe(index, out.entry));
    const std::uint64_t need = declaredBytes(declared);
    if (need > out.entry.bytes) {
      return tooFewBytes(out.key, out.entry.bytes, need);
    }
    out.bytes = out.entry.bytes;
    out.fileOffset = out.entry.fileOffset;
    out.deflated = out.entry.deflated;
    if (out.deflated) deflatedBytes += out.entry.storedBytes;
    return deflatedBytes <= file_.size() ? Status() : corrupted("checkpoint: the archive's entries overlap");
  });
}

Status TorchCheckpoint::readByteOrder(const std::string& folder) {
  std::uint64_t index;
  if (!zip_.find(folder + "byteorder", index)) return {};
  ZipEntryInfo entry;
  ZEL_RETURN_IF_ERROR(zip_.describe(index, entry));
  std::string text;
  if (entry.bytes <= kMaxByteOrderBytes) {
    ZEL_RETURN_IF_ERROR(zip_.read(entry, [&](std::string_view piece) {
      text += piece;
      return true;
    }));
  }
  return text == "little" ? Status() : unsupported("checkpoint: its byte order is not little-endian");
}

Status TorchCheckpoint::inflate(const TorchStorage& storage,
                                const std::function<bool(std::string_view)>& sink) {
  if (!storage.content.has_value()) return zip_.read(storage.entry, sink);
  std::uint64_t left = storage.bytes;
  bool more = true;
  const bool whole = readBytes(*storage.content, [&](std::string_view piece) {
    piece = piece.substr(0, left);
    left -= piece.size();
    more = sink(piece);
    return more && left > 0;
  });
  // The file may be written to meanwhile.
  return !more || (whole && left == 0) ? Status() : corrupted("checkpoint: a numpy array cannot be read");
}

// ---- the form before: five pickles (magic number, protocol, system, object, storage keys), then for each
// key the number of elements as 8 bytes, and the elements

Status TorchCheckpoint::readLegacyPickle(std::uint64_t& position, PickleValue& out) {
  std::uint64_t consumed;
  ZEL_RETURN_IF_ERROR(machine_.run(file_.substr(position), out, consumed));
  position += consumed;
  return {};
}

Status TorchCheckpoint::parseLegacy() {
  std::uint64_t position = 0;
  PickleValue value;
  ZEL_RETURN_IF_ERROR(readLegacyPickle(position, value));
  if (!value.is(Kind::LongInteger) || value.text() != kMagic) {
    return unsupported("checkpoint: it is a pickle that torch.save did not write");
  }
  ZEL_RETURN_IF_ERROR(readLegacyPickle(position, value));
  if (!value.is(Kind::Integer) || value.integer() != kProtocol) {
    return unsupported("checkpoint: its protocol is not 1001");
  }
  ZEL_RETURN_IF_ERROR(readLegacyPickle(position, value));
  if (!value.is(Kind::Dict)) return corrupted("checkpoint: it does not say on which system it was written");
  for (const PickleItem* item = value.node().first; item != nullptr; item = item->next) {
    if (item->key.is(Kind::Text) && item->key.text() == "little_endian" &&
        (!item->value.is(Kind::Boolean) || item->value.integer() != 1)) {
      return unsupported("checkpoint: its byte order is not little-endian");
    }
  }
  PickleValue root;
  PickleValue keys;
  ZEL_RETURN_IF_ERROR(readLegacyPickle(position, root));
  ZEL_RETURN_IF_ERROR(readLegacyPickle(position, keys));
  ZEL_RETURN_IF_ERROR(findStateDict(root, dict_));
  return walkLegacyStorages(keys, position);
}

Status TorchCheckpoint::walkLegacyStorages(const PickleValue& keys, std::uint64_t position) {
  if (!keys.is(Kind::List)) return corrupted("checkpoint: it does not list its storages");
  std::map<std::string_view, std::uint32_t> elementBytes;
  for (const PickleStorage* storage : machine_.storages())
    elementBytes.emplace(storage->key, storage->type->bytes);
  struct Run {
    std::uint64_t offset;
    std::uint64_t bytes;
  };
  std::map<std::string_view, Run> runs;
  ByteReader in(file_);
  if (!in.seek(position)) return corrupted("checkpoint: it ends before its storages");
  for (const PickleItem* item = keys.node().first; item != nullptr; item = item->next) {
    if (!item->value.is(Kind::Text)) return corrupted("checkpoint: a storage's key is no text");
    const std::string_view key = item->value.text();
    const auto known = elementBytes.find(key);
    if (known == elementBytes.end()) {
      return corrupted("checkpoint: storage '" + std::string(key) + "' belongs to no tensor");
    }
    std::uint64_t elements;
    std::uint64_t bytes;
    if (!in.readU64(elements) || !checkedMul(elements, known->second, bytes)) {
      return corrupted("checkpoint: it ends before storage '" + std::string(key) + "'");
    }
    const std::uint64_t offset = in.position();
    if (!in.skip(bytes)) return tooFewBytes(std::string(key), in.remaining(), bytes);
    if (!runs.emplace(key, Run{offset, bytes}).second) {
      return corrupted("checkpoint: storage '" + std::string(key) + "' comes twice");
    }
  }
  return takeTensors([&](const PickleStorage& declared, TorchStorage& out) -> Status {
    const auto found = runs.find(declared.key);
    if (found == runs.end()) return corrupted("checkpoint: storage '" + out.key + "' is not in the file");
    const std::uint64_t need = declaredBytes(declared);
    if (need > found->second.bytes) {
      return tooFewBytes(out.key, found->second.bytes, need);
    }
    out.bytes = found->second.bytes;
    out.fileOffset = found->second.offset;
    return {};
  });
}

// ---- both

Status TorchCheckpoint::takeTensors(
    const std::function<Status(const PickleStorage&, TorchStorage&)>& locate) {
  std::map<std::string_view, std::size_t> positions;
  std::map<const PickleStorage*, std::size_t> arrayPositions;
  for (auto& [name, tensor] : dict_.tensors) {
    const PickleStorage& declared = *tensor->storage;
    const bool isArray = declared.content != nullptr;
    const auto [position, isNew] = isArray ? emplaced(arrayPositions, &declared, storages_.size())
                                           : emplaced(positions, declared.key, storages_.size());
    if (isNew) {
      TorchStorage storage;
      storage.key = declared.key;
      if (isArray) {
        storage.bytes = declaredBytes(declared);
        storage.content = *declared.content;
      } else {
        ZEL_RETURN_IF_ERROR(locate(declared, storage));
      }
      storages_.push_back(std::move(storage));
    }
    // Another tensor may declare the same storage longer, or of another type.
    const std::uint64_t need = declaredBytes(declared);
    if (const TorchStorage& storage = storages_[position]; need > storage.bytes) {
      return tooFewBytes(storage.key, storage.bytes, need);
    }
    TorchTensor& out = tensors_.emplace_back();
    out.name = std::move(name);
    out.type = tensor->type;
    out.storage = position;
    out.begin = tensor->begin * tensor->type->bytes;
    out.shape = sizesOf(*tensor->shape);
    out.strides = sizesOf(*tensor->strides);
  }
  return {};
}

}  // namespace zel::tool::prepare
