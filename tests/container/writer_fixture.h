// Two containers whose every byte is known, and how to write one.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "container/okv2_writer.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel::test {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

inline void addOk(const Status& status) { EXPECT_THAT(status, IsOk()); }

// One tensor of `bytes`, one-dimensional, of type F32 (nothing checks the size against the shape).
inline void addBytes(OKV2Writer& writer, const char* name, const std::string& bytes) {
  const std::uint64_t dims[] = {bytes.size()};
  addOk(writer.addTensor(name, 0, dims, 1, bytes.data(), bytes.size()));
}

// The least that can be written: one tensor. 704 bytes.
inline void fillMinimal(OKV2Writer& writer) {
  const float values[] = {1.0F, 2.0F};
  const std::uint64_t dims[] = {2};
  addOk(writer.addTensor("w", 0, dims, 1, values, sizeof values));
}

// All of it: model info, one item of each metadata type, a tokenizer with every list filled, graph bytes, a
// chat template, and three tensors of different types, shapes and padding. 1600 bytes.
inline void fillFull(OKV2Writer& writer) {
  writer.setModelInfo(0x11121314, 0x2122232425262728, 0x31323334, 0x41424344);

  const std::uint32_t array[] = {1, 0xFFFFFFFF};
  addOk(writer.addMetaU32("m.u32", 0xDEADBEEF));
  addOk(writer.addMetaI32("m.i32", -2));
  addOk(writer.addMetaF32("m.f32", 1.5F));
  addOk(writer.addMetaU64("m.u64", 0x0102030405060708));
  addOk(writer.addMetaStr("m.str", "hi"));
  addOk(writer.addMetaU32Array("m.arr", array, 2));

  TokenizerData tokenizer;
  tokenizer.chatTemplate = "T1";
  tokenizer.tokens = {"<s>", "a"};
  tokenizer.scores = {-0.5F};
  tokenizer.types = {3, 1, -1};
  tokenizer.merges = {"a b"};
  tokenizer.bosId = 0;
  tokenizer.eosId = 1;
  tokenizer.unkId = -1;
  tokenizer.padId = 2;
  tokenizer.addBos = false;
  writer.setTokenizer(tokenizer);

  writer.setGraphBytes("\xDE\xAD\xBE\xEF\x01", 5);
  writer.setChatTemplate("{{x}}");

  const std::uint64_t normBDims[] = {3};
  addOk(writer.addTensor("norm.b", 1, normBDims, 1, "\x01\x02\x03\x04\x05\x06", 6));
  const std::uint64_t normDims[] = {1, 2, 3, 0x0102030405060708};
  const std::string norm = std::string(64, '\xA5') + '\x5A';
  addOk(writer.addTensor("norm", 2, normDims, 4, norm.data(), norm.size()));
  const std::uint64_t embDims[] = {256, 1};
  const std::string emb =
      std::string(128, '\x11') + std::string(64, '\x22') + std::string(16, '\x33') + "\x44\x55";
  addOk(writer.addTensor("emb", 7, embDims, 2, emb.data(), emb.size()));
}

// Writes to a file of its own and gives its content.
inline std::string containerOf(const OKV2Writer& writer) {
  const TempDir dir;
  const std::string path = dir / "out.okv2";
  EXPECT_THAT(writer.write(path.c_str()), IsOk());
  return readWholeFile(path);
}

}  // namespace zel::test
