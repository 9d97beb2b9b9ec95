#include "okv2/sample/output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "okv2/escape.h"

namespace zel::sample {
namespace {

constexpr std::size_t kBufferBytes = 1 << 18;
constexpr std::size_t kPieceBytes = 1 << 16;

// FNV-1a, so that the data depend on nothing but the name.
std::uint64_t seedOf(std::string_view name) {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (const char byte : name)
    hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
  return hash;
}

// One step of SplitMix64 (Steele, Lea, Flood: "Fast splittable pseudorandom number generators").
std::uint64_t nextRandom(std::uint64_t& state) {
  std::uint64_t z = state += 0x9E3779B97F4A7C15;
  z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
  z = (z ^ z >> 27) * 0x94D049BB133111EB;
  return z ^ z >> 31;
}

// In every 16-bit half: sign and ten low bits random, the other exponent bits 01111. That is a number between
// 1 and 2 as F16, and between 2^-7 and 2 as BF16 and as F32.
std::uint64_t asFiniteNumbers(std::uint64_t bits) { return (bits & 0x83FF83FF83FF83FF) | 0x3C003C003C003C00; }

}  // namespace

OutputFile::OutputFile(const std::string& path)
    : path_(path), buffer_(kBufferBytes), file_(std::fopen(path.c_str(), "wbx")) {
  if (file_ == nullptr) {
    errno_ = errno;
    return;
  }
  std::setvbuf(file_.get(), buffer_.data(), _IOFBF, buffer_.size());
}

void OutputFile::check(bool ok) {
  if (!ok && errno_ == 0) errno_ = errno != 0 ? errno : EIO;
}

void OutputFile::write(std::string_view bytes) {
  if (errno_ != 0 || bytes.empty()) return;
  check(std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) == bytes.size());
  size_ += bytes.size();
}

void OutputFile::patch(std::uint64_t offset, std::string_view bytes) {
  if (errno_ != 0) return;
  check(::fseeko(file_.get(), static_cast<off_t>(offset), SEEK_SET) == 0 &&
        std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) == bytes.size() &&
        ::fseeko(file_.get(), 0, SEEK_END) == 0);
}

bool OutputFile::finish(std::string& error) {
  if (file_ != nullptr) check(std::fclose(file_.release()) == 0);
  if (errno_ == 0) return true;
  error = fmt::format("cannot write {}: {}", tool::escaped(path_), std::strerror(errno_));
  return false;
}

bool writeTextFile(const std::string& path, std::string_view text, std::string& error) {
  OutputFile file(path);
  file.write(text);
  return file.finish(error);
}

Filler::Filler(const PlannedTensor& tensor)
    : state_(seedOf(tensor.name)),
      left_(tensor.bytes),
      piece_(std::min<std::uint64_t>(kPieceBytes, (left_ + 7) & ~7ULL)) {}

bool Filler::next(std::string_view& piece) {
  if (left_ == 0) return false;
  const std::size_t bytes = std::min<std::uint64_t>(left_, piece_.size());
  for (std::size_t at = 0; at < bytes; at += sizeof(std::uint64_t)) {
    const std::uint64_t word = asFiniteNumbers(nextRandom(state_));
    std::memcpy(piece_.data() + at, &word, sizeof word);
  }
  left_ -= bytes;
  piece = {piece_.data(), bytes};
  return true;
}

}  // namespace zel::sample
