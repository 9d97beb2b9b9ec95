// Weight files, checkpoints and tensors.
#include <string>
#include <vector>

#include "support/pickle_builder.h"
#include "support/safetensors_builder.h"
#include "support/torch_builder.h"
#include "support/zip_builder.h"
#include "tools/finding_cases.h"

namespace zel::explain {
namespace {

using test::ModelDirBuilder;
using test::Op;
using test::PickleBuilder;
using test::PickleTensor;
using test::SafetensorsBuilder;
using test::ZipBuilder;
using Dims = SafetensorsBuilder::Dims;

constexpr char kKnownName[] = "lm_head.weight";

ModelDirBuilder withWeights(const std::string& bytes) {
  return goodModel().noWeights().file("model.safetensors", bytes);
}
ModelDirBuilder withTensors(const SafetensorsBuilder& tensors) { return withWeights(tensors.bytes()); }
ModelDirBuilder withTensor(const std::string& name, const Dims& dims, const std::string& type = "F32") {
  return withTensors(SafetensorsBuilder().tensor(name, type, dims));
}
SafetensorsBuilder oneTensor() { return SafetensorsBuilder().tensor(kKnownName, "F32", {1}); }

// Places every tensor of the two shards below.
constexpr char kWholeIndex[] = R"({"lm_head.weight":"a.safetensors","model.norm.weight":"b.safetensors"})";
constexpr char kIndex[] = "model.safetensors.index.json";

ModelDirBuilder withIndex(const std::string& weightMap) {
  return goodModel()
      .shard("a.safetensors", oneTensor())
      .shard("b.safetensors", SafetensorsBuilder().tensor("model.norm.weight", "F32", {1}))
      .file(kIndex, R"({"weight_map":)" + weightMap + "}");
}

ModelDirBuilder withCheckpoint(const std::string& bytes) {
  return goodModel().noWeights().file("pytorch_model.bin", bytes);
}
ModelDirBuilder withCheckpoint(const ZipBuilder& zip) { return withCheckpoint(zip.build()); }
PickleTensor halfTensor(const std::string& storageClass) { return {kKnownName, {2}, "s", storageClass}; }
ZipBuilder checkpoint(const std::string& storageClass = "HalfStorage") {
  return ZipBuilder().add("data.pkl", test::stateDict({halfTensor(storageClass)})).add("s", "data");
}
ZipBuilder deflatedProgram() {
  ZipBuilder zip;
  return test::addDeflated(zip, "data.pkl", test::stateDict({halfTensor("HalfStorage")})).add("s", "data");
}
// The storage claims more bytes than the file has, and the tensor takes them at their word.
ZipBuilder claiming(std::uint64_t elements, std::uint64_t claimedBytes) {
  return ZipBuilder()
      .add("data.pkl", test::stateDict({{kKnownName, {elements}, "s", "HalfStorage"}}))
      .add("s", "data")
      .lieCentral(test::zip_central::kUncompressedSize, claimedBytes);
}

}  // namespace

std::vector<FindingCase> weightCases() {
  constexpr char kShard1[] = "pytorch_model-00001-of-00002.bin";
  constexpr char kShard2[] = "pytorch_model-00002-of-00002.bin";
  const std::string whole = oneTensor().bytes();
  return {
      {Id::WeightsNone, "Nothing", goodModel().noWeights(),
       R"(fatal weights.none: DIR
  There are no weights.
  Why: Files ending in .safetensors are taken, or else pytorch_model.bin, and nothing else.
  Do:  Put the weights into the directory.
)",
       goodModel()},
      {Id::WeightsShardedBin, "Two", goodModel().noWeights().file(kShard1, "x").file(kShard2, "x"),
       R"(fatal weights.sharded-bin: pytorch_model-00001-of-00002.bin
  2 files of this kind
  The weights are PyTorch shards.
  Why: Only a single file of the name pytorch_model.bin is read.
  Do:  Run okv2 prepare DIR OUT: it writes the shards as .safetensors files.
)",
       goodModel().file(kShard1, "x").file(kShard2, "x")},
      {Id::WeightsOtherFormat, "Keras", goodModel().file("model.h5", "x"),
       R"(note weights.other-format: model.h5
  1 bytes
  There are weights in a format that is not read.
  Why: Files ending in .safetensors are taken, or else pytorch_model.bin.
  Do:  Convert 'model.h5' to .safetensors, if no other file holds the same weights.
)",
       goodModel().file("model.h5.txt", "x")},
      {Id::WeightsSuffixCase, "UpperCase", goodModel().file("x.SAFETENSORS", "x"),
       R"(note weights.suffix-case: x.SAFETENSORS
  A name ends like .safetensors in other letters.
  Why: The suffix is compared byte for byte.
  Do:  mv 'x.SAFETENSORS' model.safetensors
)",
       goodModel().shard("x.safetensors", oneTensor())},
      {Id::WeightsLfsPointer, "Pointer",
       withWeights("version https://git-lfs.example/v1\noid sha256:00\nsize 1234\n"),
       R"(fatal weights.lfs-pointer: model.safetensors
  59 bytes, the content has 1234
  A weight file is a Git LFS pointer and not its content.
  Why: The directory was cloned without Git LFS.
  Do:  git lfs pull --include 'model.safetensors'
)",
       withWeights("Version https://git-lfs.example/v1\noid sha256:00\nsize 1234\n")},
      {Id::WeightsLinkText, "RelativePath", withWeights("../blobs/0123"),
       R"(fatal weights.link-text: model.safetensors
  ../blobs/0123
  A weight file holds the text of a symbolic link and not its target's content.
  Why: Git writes links as text where links are not supported.
  Do:  git config core.symlinks true && rm 'model.safetensors' && git checkout -- 'model.safetensors'
)",
       withWeights("..blobs0123")},
      {Id::WeightsWebPage, "Html", withWeights("<html>Sign in"),
       R"(fatal weights.web-page: model.safetensors
  13 bytes
  A weight file is a web page.
  Why: The download answered with a page, often one that asks for a login, instead of the file.
  Do:  curl -fL -H "Authorization: Bearer $TOKEN" -o 'model.safetensors' "$URL"
)",
       withWeights("<htm>Sign in")},
      // Eight bytes of length, 67 of header and 4 of data, less one.
      {Id::WeightsPartial, "LastByteMissing", withWeights(whole.substr(0, whole.size() - 1)),
       R"(fatal weights.partial: model.safetensors
  78 bytes [safetensors: offset out of range 'lm_head.weight']
  A weight file ends in the middle.
  Why: The download was not finished.
  Do:  curl -fL -C - -o 'model.safetensors' "$URL"
)",
       withWeights(whole)},
      {Id::WeightsRefused, "HeaderIsAnArray", withTensors(SafetensorsBuilder().headerJson("[]")),
       R"(fatal weights.refused: model.safetensors
  safetensors: header not an object
  A weight file cannot be read.
  Why: Its reader refuses it with the message that is given.
  Do:  Fetch 'model.safetensors' again, or convert it to .safetensors once more.
)",
       withTensors(SafetensorsBuilder().headerJson("{}"))},
      {Id::WeightsType, "Integer",
       withTensors(SafetensorsBuilder().tensor("n", "I32", {1}, {0, 4}).data("data")),
       R"(fatal weights.type: model.safetensors
  safetensors: unsupported dtype 'I32'
  A tensor has an element type that is refused.
  Why: F32, F16, BF16, Q4_K, Q5_K and Q6_K are read; one tensor of another type refuses the whole file.
  Do:  Run okv2 prepare DIR OUT with --cast for 64-bit floats, --cast-integers for integers and booleans, or --drop REGEX for what inference does not need.
)",
       withTensors(SafetensorsBuilder().tensor("n", "F32", {1}, {0, 4}).data("data"))},
      {Id::WeightsNoTensors, "EmptyHeader", withTensors(SafetensorsBuilder()),
       R"(fatal weights.no-tensors: model.safetensors
  The weight files hold no tensor.
  Why: A container without tensors is not written.
  Do:  Put the weights into the directory.
)",
       withTensors(oneTensor())},
      {Id::WeightsIndexMissing, "TwoTensors",
       withIndex(R"({"lm_head.weight":"a.safetensors","model.norm.weight":"b.safetensors",)"
                 R"("v":"c.safetensors","w":"c.safetensors"})"),
       R"(loss weights.index-missing: c.safetensors
  model.safetensors.index.json names it for 2 tensors
  The index file names a shard that is not there.
  Why: The shards are what the directory holds; the index is not asked, so the tensors of this shard are missing without a word.
  Do:  Fetch 'c.safetensors'.
)",
       withIndex(kWholeIndex)},
      {Id::WeightsIndexMissing,
       "OfACheckpoint",
       goodModel().noWeights().file("pytorch_model.bin.index.json", R"({"weight_map":{"x":"x.bin"}})"),
       R"(loss weights.index-missing: x.bin
  pytorch_model.bin.index.json names it for 1 tensors
  The index file names a shard that is not there.
  Why: The shards are what the directory holds; the index is not asked, so the tensors of this shard are missing without a word.
  Do:  Fetch 'x.bin'.
)",
       goodModel().file("pytorch_model.bin.index.json", R"({"weight_map":{"x":"x.bin"}})"),
       {"weights.none"}},
      {Id::WeightsIndexUnlisted, "OneOfTwo", withIndex(R"({"lm_head.weight":"a.safetensors"})"),
       R"(note weights.index-unlisted: b.safetensors
  model.safetensors.index.json
  A .safetensors file is imported that the index file does not name.
  Why: Every file of that suffix is imported.
  Do:  Move 'b.safetensors' away, if it holds the same weights once more.
)",
       withIndex(kWholeIndex)},
      {Id::WeightsIndexUnusable, "NoJson", goodModel().file(kIndex, R"({"weight_map":})"),
       R"(loss weights.index-unusable: model.safetensors.index.json
  byte 14: json: unexpected char
  The index file of the shards cannot be understood.
  Why: An import does not ask it, so what it would show to be missing is missing without a word.
  Do:  Fetch 'model.safetensors.index.json' again.
)",
       withIndex(kWholeIndex)},
      {Id::WeightsIndexUnusable,
       "CutShort",
       goodModel().file(kIndex, R"({"weight_map":{"model.norm.weight":)"),
       R"(loss weights.index-unusable: model.safetensors.index.json
  byte 35: json: unexpected end
  The index file of the shards cannot be understood.
  Why: An import does not ask it, so what it would show to be missing is missing without a word.
  Do:  Fetch 'model.safetensors.index.json' again.
)",
       // Another index is of no interest beside .safetensors files.
       goodModel().file("pytorch_model.bin.index.json", "{"),
       {"file.partial"}},
      {Id::WeightsIndexUnusable, "NoMap", goodModel().file(kIndex, R"({"weight_map":[]})"),
       R"(loss weights.index-unusable: model.safetensors.index.json
  $.weight_map is an array
  The index file of the shards cannot be understood.
  Why: An import does not ask it, so what it would show to be missing is missing without a word.
  Do:  Fetch 'model.safetensors.index.json' again.
)",
       goodModel().file(kIndex, R"({"weight_map":{"model.norm.weight":"model.safetensors"}})")},
      {Id::WeightsIndexUnusable, "NoFileName",
       withIndex(R"({"lm_head.weight":"a.safetensors","model.norm.weight":"b.safetensors","x":7,"y":""})"),
       R"(loss weights.index-unusable: model.safetensors.index.json
  2 of 4 entries name no file, the first is $.weight_map["x"], 7
  The index file of the shards cannot be understood.
  Why: An import does not ask it, so what it would show to be missing is missing without a word.
  Do:  Fetch 'model.safetensors.index.json' again.
)",
       withIndex(kWholeIndex)},
      {Id::WeightsIndexTensorMissing, "InAPresentShard",
       withIndex(
           R"({"lm_head.weight":"a.safetensors","model.norm.weight":"b.safetensors","x":"b.safetensors"})"),
       R"(loss weights.index-tensor-missing: b.safetensors
  model.safetensors.index.json places 1 of 2 tensors there that no file holds, the first is x
  A shard lacks tensors that the index file places in it.
  Why: The index is not asked, so the tensors are missing without a word.
  Do:  Fetch 'b.safetensors' again.
)",
       // Nothing is missing that lies in the other file.
       withIndex(R"({"lm_head.weight":"b.safetensors","model.norm.weight":"a.safetensors"})")},
      {Id::FileLfsPointer, "IndexOfTheShards",
       goodModel().file(kIndex, "version https://git-lfs.example/v1\n"),
       R"(loss file.lfs-pointer: model.safetensors.index.json
  35 bytes
  A file is a Git LFS pointer and not its content.
  Why: The directory was cloned without Git LFS.
  Do:  git lfs pull --include 'model.safetensors.index.json'
)",
       goodModel().file("pytorch_model.bin.index.json", "version https://git-lfs.example/v1\n")},
      {Id::WeightsBinIgnored, "BesideSafetensors", goodModel().file("pytorch_model.bin", "x"),
       R"(note weights.bin-ignored: pytorch_model.bin
  pytorch_model.bin is not read.
  Why: There are .safetensors files, which come first.
  Do:  Nothing.
)",
       withCheckpoint(checkpoint())},
      {Id::WeightsAdapter, "Config", goodModel().file("adapter_config.json", "{}"),
       R"(loss weights.adapter: adapter_config.json
  The weights are those of an adapter.
  Why: Every .safetensors file is imported as it is; the base model is not looked for.
  Do:  Merge the adapter into its base model first.
)",
       goodModel().file("adapter_config.txt", "{}")},
  };
}

std::vector<FindingCase> checkpointCases() {
  return {
      {Id::PytorchFolder, "OneFolder", withCheckpoint(ZipBuilder().add("archive/data.pkl", ".")),
       R"(fatal pytorch.folder: pytorch_model.bin
  torch: no data.pkl
  The checkpoint keeps its entries under a folder.
  Why: torch.save does that; the entry data.pkl is looked for at the top of the archive only.
  Do:  Run okv2 prepare DIR OUT: it reads the tensors without running anything and writes them as .safetensors.
)",
       withCheckpoint(ZipBuilder().add("data.pkl", "."))},
      {Id::PytorchDeflated, "Program", withCheckpoint(deflatedProgram()),
       R"(fatal pytorch.deflated: pytorch_model.bin
  torch: zip entry uses compression (deflate); only STORED checkpoints (torch.save default) are supported
  The checkpoint is compressed.
  Why: Entries must be stored, so that tensors can be taken from the file as they lie.
  Do:  Run okv2 prepare DIR OUT: it reads the tensors without running anything and writes them as .safetensors.
)",
       withCheckpoint(checkpoint())},
      {Id::PytorchLegacy, "RowOfPickles", withCheckpoint(test::savedLegacy("", {})),
       R"(fatal pytorch.legacy: pytorch_model.bin
  torch: no EOCD
  The checkpoint is in the format before zip archives.
  Why: Only zip archives are read.
  Do:  Run okv2 prepare DIR OUT: it reads the tensors without running anything and writes them as .safetensors.
)",
       withCheckpoint("\x7F" + test::savedLegacy("", {}).substr(1))},
      {Id::PytorchPickle, "List",
       withCheckpoint(ZipBuilder().add("data.pkl", PickleBuilder().op(Op::EMPTY_LIST).stop())),
       R"(fatal pytorch.pickle: pytorch_model.bin
  torch: pickle root is not a dict
  The checkpoint's program is refused.
  Why: Only a small dialect that can build nothing but a flat dictionary of tensors is run.
  Do:  Run okv2 prepare DIR OUT: it reads the tensors without running anything and writes them as .safetensors.
)",
       withCheckpoint(ZipBuilder().add("data.pkl", PickleBuilder().op(Op::EMPTY_DICT).stop()))},
      {Id::PytorchStorageType, "Double", withCheckpoint(checkpoint("DoubleStorage")),
       R"(fatal pytorch.storage-type: pytorch_model.bin
  torch: unsupported storage dtype 'DoubleStorage'
  A tensor of the checkpoint has an element type that is refused.
  Why: 32-bit floats, 16-bit floats and bfloat16 are read.
  Do:  Run okv2 prepare DIR OUT with --cast for 64-bit floats, --cast-integers for integers and booleans, or --drop REGEX for what inference does not need.
)",
       withCheckpoint(checkpoint("BFloat16Storage"))},
      {Id::TensorOutside, "ClaimedStorage", withCheckpoint(claiming(1000, 2000)),
       R"(fatal tensor.outside: pytorch_model.bin
  lm_head.weight
  A tensor's bytes do not lie inside its file.
  Why: The import ends there.
  Do:  Fetch 'pytorch_model.bin' again.
)",
       withCheckpoint(claiming(2, 4))},
  };
}

std::vector<FindingCase> tensorCases() {
  const std::string name62(62, 'n'), name63(63, 'n'), name64(64, 'n');
  const std::string fused = "transformer.h.0.attn.c_attn.weight";
  const SafetensorsBuilder other = SafetensorsBuilder().tensor("model.norm.weight", "F32", {1});
  const std::string zeroByte("a\0b", 3);
  return {
      {Id::TensorRefused, "Scalar", withTensor(kKnownName, {}),
       R"(fatal tensor.refused: lm_head.weight
  model.safetensors: 0 dimensions, 4 bytes
  A tensor, or a third of a fused one, has no dimension, more than four, or no bytes.
  Why: The container cannot hold such a tensor, and the import ends there.
  Do:  Give it one to four extents, none of them 0, and a fused one three rows or three blocks, or leave it out.
)",
       withTensor(kKnownName, {1})},
      {Id::TensorRefused, "NoBytes", withTensor(kKnownName, {2, 0}),
       R"(fatal tensor.refused: lm_head.weight
  model.safetensors: 2 dimensions, 0 bytes
  A tensor, or a third of a fused one, has no dimension, more than four, or no bytes.
  Why: The container cannot hold such a tensor, and the import ends there.
  Do:  Give it one to four extents, none of them 0, and a fused one three rows or three blocks, or leave it out.
)",
       withTensor(kKnownName, {2, 1})},
      {Id::TensorRefused, "FusedOfTwoRows", withTensor(fused, {2, 4}),
       R"(fatal tensor.refused: transformer.h.0.attn.c_attn.weight
  model.safetensors: a third of 2 rows has 0 bytes
  A tensor, or a third of a fused one, has no dimension, more than four, or no bytes.
  Why: The container cannot hold such a tensor, and the import ends there.
  Do:  Give it one to four extents, none of them 0, and a fused one three rows or three blocks, or leave it out.
)",
       withTensor(fused, {3, 4})},
      {Id::TensorRefused, "FusedOfLessThanThreeBlocks", withTensor(fused, {767, 1}, "Q4_K"),
       R"(fatal tensor.refused: transformer.h.0.attn.c_attn.weight
  model.safetensors: a third of 767 rows has 0 bytes
  A tensor, or a third of a fused one, has no dimension, more than four, or no bytes.
  Why: The container cannot hold such a tensor, and the import ends there.
  Do:  Give it one to four extents, none of them 0, and a fused one three rows or three blocks, or leave it out.
)",
       withTensor(fused, {768, 1}, "Q4_K")},
      {Id::TensorUnnamed, "EmptyName", withTensor("", {1}),
       R"(fatal tensor.unnamed: model.safetensors
  A tensor has an empty name.
  Why: It cannot be mapped to a name in the container, and the import ends there.
  Do:  Name the tensor.
)",
       withTensor("x", {1})},
      {Id::TensorUnmapped, "One", withTensor("x", {1}),
       R"(note tensor.unmapped: 1 tensor
  x
  Tensors keep a name, or the end of one, that is in no table.
  Why: Names that are not known pass unchanged.
  Do:  Look for them under that name in the container.
)",
       withTensor(kKnownName, {1})},
      {Id::TensorFused, "ThreeParts", withTensor(fused, {3, 1}),
       R"(note tensor.fused: 1 tensor
  transformer.h.0.attn.c_attn.weight
  Fused projections are cut into query, key and value.
  Why: They become three tensors of equal rows.
  Do:  Nothing, if the three parts are of equal size and lie one after the other.
)",
       withTensor("transformer.h.0.attn.c_proj.weight", {3, 1})},
      {Id::TensorFusedRemainder,
       "OneRowMore",
       withTensor(fused, {4, 1}),
       R"(loss tensor.fused-remainder: transformer.h.0.attn.c_attn.weight
  1 of 4 rows are dropped
  Rows of a fused projection are dropped.
  Why: The first extent is cut into three equal parts, whole blocks in block formats, and the remainder is left out.
  Do:  Run okv2 prepare DIR OUT for a GPTBigCode model, or split the tensor before the import.
)",
       withTensor(fused, {3, 1}),
       {"tensor.fused"}},
      {Id::TensorFusedRemainder,
       "OneBlockMore",
       withTensor(fused, {1024, 1}, "Q4_K"),
       R"(loss tensor.fused-remainder: transformer.h.0.attn.c_attn.weight
  256 of 1024 rows are dropped
  Rows of a fused projection are dropped.
  Why: The first extent is cut into three equal parts, whole blocks in block formats, and the remainder is left out.
  Do:  Run okv2 prepare DIR OUT for a GPTBigCode model, or split the tensor before the import.
)",
       withTensor(fused, {768, 1}, "Q4_K"),
       {"tensor.fused"}},
      {Id::TensorFusedColumns,
       "SideBySide",
       withTensor(fused, {3, 9}),
       R"(loss tensor.fused-columns: transformer.h.0.attn.c_attn.weight
  [3, 9] is cut into parts of 1 rows
  A fused projection is cut along the wrong extent.
  Why: Its parts lie side by side in the second extent, but it is always cut along the first.
  Do:  Run okv2 prepare DIR OUT: it splits the tensor into query, key and value, in the orientation that is published.
)",
       withTensor(fused, {3, 8}),
       {"tensor.fused"}},
      {Id::TensorFusedExtents,
       "ThirdExtent",
       withTensor(fused, {3, 2, 2}),
       R"(loss tensor.fused-extents: transformer.h.0.attn.c_attn.weight
  3 extents
  A fused projection of more than two extents is cut short.
  Why: Its parts are measured by the first two extents, so they hold less than their shape says.
  Do:  Give the tensor two extents before the import.
)",
       withTensor(fused, {3, 2, 1}),
       {"tensor.fused"}},
      {Id::TensorDuplicate, "TwoShards",
       goodModel().shard("a.safetensors", oneTensor()).shard("b.safetensors", oneTensor()),
       R"(loss tensor.duplicate: output.weight
  in a.safetensors, b.safetensors
  Two tensors get the same name.
  Why: Both are stored, and a reader that looks the name up finds one of them.
  Do:  Remove the file that holds the tensor once more.
)",
       goodModel().shard("a.safetensors", oneTensor()).shard("b.safetensors", other)},
      {Id::TensorNameCut,
       "SixtyFourBytes",
       withTensor(name64, {1}),
       "loss tensor.name-cut: " + name64 + "\n  64 bytes, stored as " + name63 +
           R"(
  A tensor name is longer than 63 bytes.
  Why: The container stores the first 63 bytes and the length.
  Do:  Shorten the name.
)",
       withTensor(name63, {1}),
       {"tensor.unmapped"}},
      {Id::TensorNameCollision,
       "EqualOnceCut",
       withTensors(SafetensorsBuilder().tensor(name63 + "a", "F32", {1}).tensor(name63 + "b", "F32", {1})),
       "loss tensor.name-collision: " + name63 + "\n  " + name63 + "a, " + name63 +
           R"(b
  Two tensor names are equal once cut to 63 bytes.
  Why: A reader cannot tell the tensors apart.
  Do:  Shorten the names so that they differ in the first 63 bytes.
)",
       withTensors(SafetensorsBuilder().tensor(name62 + "a", "F32", {1}).tensor(name62 + "b", "F32", {1})),
       {"tensor.name-cut", "tensor.name-cut", "tensor.unmapped"}},
      {Id::TensorNameNul,
       "Second",
       withTensor(zeroByte, {1}),
       "loss tensor.name-nul: " + zeroByte +
           R"(
  zero byte at 1
  A tensor name holds a zero byte.
  Why: The stored name ends there.
  Do:  Rename the tensor.
)",
       withTensor("a\x01"
                  "b",
                  {1}),
       {"tensor.unmapped"}},
  };
}

}  // namespace zel::explain
