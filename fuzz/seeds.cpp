#include "seeds.h"

#include <cstdint>
#include <string_view>
#include <utility>

#include "promises/archive.h"
#include "support/container_builder.h"
#include "support/pickle_builder.h"
#include "support/proto_builder.h"
#include "support/safetensors_builder.h"
#include "support/zip_builder.h"
#include "torch_seeds.h"

namespace zel::fuzz {
namespace {

using test::Op;
using test::PickleBuilder;
using test::PickleTensor;
using test::ProtoBuilder;
using test::SafetensorsBuilder;
using test::ZipBuilder;

std::string nested(int levels, std::string_view open, std::string_view close, std::string_view inner) {
  std::string out;
  for (int k = 0; k < levels; ++k)
    out += open;
  out += inner;
  for (int k = 0; k < levels; ++k)
    out += close;
  return out;
}

SeedSet jsonSeeds() {
  return {"json",
          {
              {"empty_array", "[]"},
              {"empty_object_in_spaces", " \t\r\n{ } "},
              {"literals", "[true,false,null]"},
              {"numbers", "[0,-0,1,007,-.5,1.,1.5e3,2E-2,123456789012345678,0.1,1e308,1e400,-1e-400,5e-324]"},
              {"number_of_63_bytes", std::string(63, '7')},
              {"number_of_64_bytes", std::string(64, '7')},
              {"number_0x10", "[0x10]"},
              {"escapes", R"(["\"\\\/\b\f\n\r\t","\u0041\u00e9\u20AC\ud83d\uDE00\u0000"])"},
              {"lone_low_surrogate", R"("\uDE00")"},
              {"broken_surrogate_pair", R"("\uD83D\u0041")"},
              {"raw_utf8", "\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xFF\""},
              {"long_plain_string", "\"" + std::string(40, 'a') + "\\n" + std::string(40, 'b') + "\""},
              {"object", R"({"a":1,"b":{"c":[1,2,{"d":null}]},"a":2})"},
              {"depth_64", nested(65, "[", "]", "")},
              {"depth_65", nested(65, "[", "]", "1")},
              {"objects_of_depth_64", nested(64, "{\"a\":", "}", "1")},
              {"trailing_comma", "[1,]"},
              {"trailing_data", "true false"},
              {"unterminated", R"({"a":"b)"},
              {"config",
               R"({"model_type":"llama","hidden_size":4096,"rope_theta":10000.0,"eos_token_id":[1,2]})"},
          }};
}

SeedSet safetensorsSeeds() {
  return {
      "safetensors",
      {
          {"one_f32", SafetensorsBuilder().tensor("w", "F32", {2, 3}).bytes()},
          {"scalar", SafetensorsBuilder().tensor("s", "F32", {}).bytes()},
          {"all_floats", SafetensorsBuilder()
                             .tensor("b", "F16", {3})
                             .tensor("a", "BF16", {1, 2})
                             .tensor("c", "F32", {1})
                             .bytes()},
          {"blocks", SafetensorsBuilder()
                         .tensor("q4", "Q4_K", {256})
                         .tensor("q5", "Q5_K", {1})
                         .tensor("q6", "Q6_K", {255, 1})
                         .bytes()},
          {"metadata", SafetensorsBuilder()
                           .member("__metadata__", R"({"format":"pt"})")
                           .tensor("w", "F16", {1, 1, 1, 1})
                           .bytes()},
          {"escaped_names",
           SafetensorsBuilder()
               .rawMember(R"("\u0061\n")", R"({"dtype":"F\u00332","shape":[1],"data_offsets":[0,4]})")
               .dataBytes(4)
               .bytes()},
          {"equal_names", SafetensorsBuilder().tensor("w", "F16", {1}).tensor("w", "F16", {2}).bytes()},
          {"repeated_keys",
           SafetensorsBuilder()
               .member("w",
                       R"({"dtype":"F32","dtype":1,"shape":[1],"shape":{},"data_offsets":[0,4],"x":[{}]})")
               .dataBytes(4)
               .bytes()},
          {"spaces_after_header", SafetensorsBuilder().tensor("w", "F16", {1}).afterHeader(" \n\t ").bytes()},
          {"no_tensors", SafetensorsBuilder().bytes()},
          {"zero_extent", SafetensorsBuilder().tensor("w", "F32", {0, 5}).bytes()},
          {"overflowing_shape",
           SafetensorsBuilder()
               .tensor("w", "F32", {4294967296, 4294967296}, SafetensorsBuilder::Offsets{0, 4})
               .dataBytes(4)
               .bytes()},
          {"huge_extent_times_zero",
           SafetensorsBuilder()
               .tensor("w", "F32", {4294967296, 4294967296, 0}, SafetensorsBuilder::Offsets{0, 0})
               .bytes()},
          {"five_extents", SafetensorsBuilder()
                               .member("w", R"({"dtype":"F32","shape":[1,1,1,1,1],"data_offsets":[0,4]})")
                               .bytes()},
          {"offsets_past_the_end", SafetensorsBuilder()
                                       .tensor("w", "F32", {2}, SafetensorsBuilder::Offsets{0, 8})
                                       .dataBytes(7)
                                       .bytes()},
          {"unknown_dtype", SafetensorsBuilder()
                                .tensor("w", "I64", {1}, SafetensorsBuilder::Offsets{0, 8})
                                .dataBytes(8)
                                .bytes()},
          {"header_too_long", SafetensorsBuilder().tensor("w", "F32", {1}).headerLength(1000).bytes()},
          {"header_is_array", SafetensorsBuilder().headerJson("[1]").bytes()},
      }};
}

std::string program(const std::vector<PickleTensor>& tensors) { return test::stateDict(tensors); }

SeedSet pickleSeeds() {
  PickleBuilder everyValue;
  everyValue.proto(2).frame(7).binint(-1).binint1(200).binint2(60000).long1(-1).long4(-5).longText(12345);
  everyValue.binfloat(1.5).binunicode("u").shortBinunicode("s").binunicode8("8").binbytes("b").binbytes8("c");
  everyValue.ops({Op::NONE, Op::NEWTRUE, Op::NEWFALSE, Op::EMPTY_TUPLE, Op::EMPTY_LIST, Op::EMPTY_DICT});

  PickleBuilder tuples;
  tuples.op(Op::MARK).binint1(1).binint1(2).op(Op::TUPLE_T).op(Op::MARK).binint1(3).op(Op::LIST);
  tuples.op(Op::TUPLE2).op(Op::TUPLE1).binint1(4).binint1(5).op(Op::TUPLE3).op(Op::DUP).op(Op::POP);

  PickleBuilder lists;
  lists.op(Op::EMPTY_LIST).binint1(1).op(Op::APPEND).op(Op::MARK);
  for (std::uint8_t k = 0; k < 7; ++k)
    lists.binint1(k);
  lists.op(Op::APPENDS).op(Op::MEMOIZE).binget(0).op(Op::APPEND).longBinget(0);

  PickleBuilder dicts;
  dicts.op(Op::MARK).shortBinunicode("k").binint1(1).shortBinunicode("k").binint1(2).op(Op::DICT);
  dicts.shortBinunicode("l").op(Op::NONE).op(Op::SETITEM).binint1(9).op(Op::APPEND);

  PickleBuilder forks;
  forks.op(Op::EMPTY_LIST).op(Op::MEMOIZE);
  for (std::uint8_t k = 1; k < 6; ++k)
    forks.binget(std::uint8_t(k / 2)).binget(std::uint8_t(k - 1)).op(Op::APPEND).op(Op::MEMOIZE);

  PickleBuilder codecs;
  codecs.shortBinunicode("_codecs").shortBinunicode("encode").op(Op::STACK_GLOBAL);
  codecs.binbytes8("abc").shortBinunicode("latin1").ops({Op::TUPLE2, Op::REDUCE});

  PickleBuilder built;
  built.storage("FloatStorage", "data/0", 6).op(Op::EMPTY_DICT).op(Op::BUILD);

  PickleBuilder doubling;
  doubling.op(Op::EMPTY_LIST);
  for (int k = 0; k < 40; ++k)
    doubling.ops({Op::DUP, Op::APPEND});

  return {"pickle",
          {
              {"every_value", everyValue.stop()},
              {"tuples", tuples.stop()},
              {"lists", lists.stop()},
              {"dicts", dicts.stop()},
              {"forks_of_one_memo", forks.stop()},
              {"codecs_encode", codecs.stop()},
              {"build_on_storage", built.stop()},
              {"doubling_40_times", doubling.stop()},
              {"no_marks", PickleBuilder().ops({Op::DICT, Op::LIST, Op::TUPLE_T, Op::APPENDS}).stop()},
              {"state_dict", program({{"w", {2, 3}, "0"}, {"b", {3}, "1", "HalfStorage", 2}})},
              {"foreign_global",
               PickleBuilder().global("os", "system").op(Op::EMPTY_TUPLE).op(Op::REDUCE).stop()},
              {"foreign_class", PickleBuilder().global("os", "x").op(Op::EMPTY_TUPLE).op(Op::NEWOBJ).stop()},
              {"persistent_id", PickleBuilder().op(Op::BINPERSID).stop()},
              {"binput", "\x80\x02}q\x00."},
              {"unterminated", PickleBuilder().op(Op::NONE).bytes()},
              {"deep_tuples", PickleBuilder().op(Op::EMPTY_TUPLE).repeat(200, "\x85").stop()},
          }};
}

std::string archive(const std::vector<PickleTensor>& tensors, std::size_t storageBytes) {
  return ZipBuilder().add("data.pkl", program(tensors)).add("0", test::patternBytes(storageBytes)).build();
}

SeedSet pytorchSeeds() {
  const std::vector<PickleTensor> one = {{"w", {2, 3}, "0"}};
  const std::vector<PickleTensor> three = {{"b", {2}, "0", "HalfStorage", 1},
                                           {"a", {}, "0", "FloatStorage", 2},
                                           {"c", {1, 1, 1, 1, 9}, "0", "BFloat16Storage", 0}};
  ZipBuilder compressed;
  compressed.add("data.pkl", program({})).lieCentral(test::zip_central::kMethod, 8);
  ZipBuilder shortStorage;
  shortStorage.add("data.pkl", program(one))
      .add("0", "four")
      .lieCentral(test::zip_central::kUncompressedSize, 24);
  ZipBuilder otherLocalNames;
  otherLocalNames.add("data.pkl", program(one))
      .localName("longer name")
      .localExtra("extra")
      .centralExtra("x");
  otherLocalNames.add("0", test::patternBytes(24)).entryComment("comment");
  ZipBuilder outside;
  outside.add("data.pkl", program(one)).add("0", "data").lieCentral(test::zip_central::kCompressedSize, 500);
  return {"pytorch",
          {
              {"one_tensor", archive(one, 24)},
              {"three_types_one_storage", archive(three, 32)},
              {"tensor_exceeds_storage", archive(one, 23), kNoMutants},
              {"no_tensors", archive({}, 0), kNoMutants},
              {"constants", ZipBuilder().add("data.pkl", program({})).add("constants.pkl", "x").build()},
              {"in_a_folder", ZipBuilder().add("archive/data.pkl", program({})).build(), kNoMutants},
              {"two_entries_of_one_name", ZipBuilder()
                                              .add("0", "12345678")
                                              .add("data.pkl", program({{"w", {2}, "0"}}))
                                              .add("0", "1")
                                              .build()},
              {"prefix_and_comment",
               ZipBuilder().prefix("PREFIX").add("data.pkl", program({})).comment("PK\x05\x06").build()},
              {"no_entries", ZipBuilder().build()},
              {"compressed", compressed.build(), kNoMutants},
              {"storage_smaller_than_declared", shortStorage.build(), kNoMutants},
              {"other_local_names", otherLocalNames.build()},
              {"payload_out_of_range", outside.build(), kNoMutants},
              {"wrapping_shape",
               archive({{"w", {4294967296, 4294967296}, "0"}, {"v", {4294967296, 4294967296, 0}, "0"}}, 4)},
              {"wrapping_offset", archive({{"w", {1}, "0", "FloatStorage", std::uint64_t(1) << 62}}, 4),
               kNoMutants},
              {"double_storage", archive({{"w", {1}, "0", "DoubleStorage"}}, 8), kNoMutants},
              {"missing_storage", archive({{"w", {1}, "1"}}, 8), kNoMutants},
              {"root_is_int", ZipBuilder().add("data.pkl", PickleBuilder().binint1(1).stop()).build(),
               kNoMutants},
          }};
}

constexpr std::string_view kTokenizer =
    R"({"model":{"type":"BPE","vocab":{"<s>":0,"a":1,"b":2,"ab":3},"merges":["a b"]},)"
    R"("added_tokens":[{"id":0,"content":"<s>","special":true}]})";

std::string withConfig(std::string_view tokenizer, std::string_view config) {
  return std::string(tokenizer) + '\0' + std::string(config);
}

// Twelve letters, each with its neighbour a merge, as tools print a file for people.
std::string indentedTokenizer() {
  std::string vocab;
  std::string merges;
  for (int k = 0; k < 12; ++k) {
    const std::string end = k < 11 ? ",\n" : "\n";
    const char letter = char('a' + k);
    vocab += std::string("      \"") + letter + "\": " + std::to_string(k) + end;
    merges += std::string("      \"") + letter + ' ' + char(letter + 1) + '"' + end;
  }
  return "{\n  \"model\": {\n    \"vocab\": {\n" + vocab + "    },\n    \"merges\": [\n" + merges +
         "    ]\n  },\n  \"version\": \"what is behind the lists, longer than what is read at once\"\n}\n";
}

SeedSet tokenizerJsonSeeds() {
  return {
      "tokenizer_json",
      {
          {"bpe", std::string(kTokenizer)},
          {"with_config",
           withConfig(
               kTokenizer,
               R"({"bos_token_id":5,"eos_token_id":[1,107],"unk_token_id":-3,"pad_token_id":2.0,"chat_template":"{{x}}"})")},
          {"with_odd_config",
           withConfig(kTokenizer,
                      R"({"bos_token_id":"1","eos_token_id":[],"unk_token_id":1.5,"chat_template":[]})")},
          {"long_lists",
           R"({"model":{"vocab":{"a":0,"b":1,"c":2,"d":3,"e":4,"f":5,"g":6,"h":7,"i":8,"a longer token":9,"k":10},)"
           R"("merges":["a b","c d","e f","g h","a longer token i","b a","d c","f e","h g","i k","k i"]},)"
           R"("version":"what is behind the lists, longer than what is read at once"})"},
          {"long_lists_indented", indentedTokenizer()},
          {"unordered_ids", R"({"model":{"vocab":{"a":2,"b":0,"c":1}}})"},
          {"repeated_id", R"({"model":{"vocab":{"a":0,"b":1,"c":1}}})"},
          {"gap", R"({"model":{"vocab":{"a":1,"b":2}}})"},
          {"fraction", R"({"model":{"vocab":{"a":0.5}}})"},
          {"huge_id", R"({"model":{"vocab":{"a":0,"b":1e300}}})"},
          {"empty_vocab", R"({"model":{"vocab":{}}})"},
          {"pair_merges", R"({"model":{"vocab":{},"merges":[["a","b"]]}})"},
          {"scores", R"({"model":{"vocab":{"a":0},"scores":[1,-0.5,["x"],[2,3],[],null,1e39]}})"},
          {"added_tokens",
           R"({"model":{"vocab":{"a":0,"b":1}},"added_tokens":[{"id":1,"content":"<eos>"},{"id":0,"special":false},)"
           R"({"id":9,"content":"<pad>"},{"content":"<unk>"},3,{"id":1.5},{"id":-1,"content":"<unk>","special":1},)"
           R"({"id":1,"content":"</s>","special":false}]})"},
          {"escaped_keys", R"({"mod\u0065l":{"v\u006fcab":{"\u0061":0,"\n":1}},"\u0061dded_tokens":[]})"},
          {"repeated_keys",
           R"({"model":{"vocab":{"a":0},"vocab":3,"merges":[],"merges":{}},"model":1,"added_tokens":[],"added_tokens":2})"},
          {"model_is_array", R"({"model":[]})"},
          {"no_vocab", R"({"model":{"vocab":[]}})"},
          {"not_json", R"({"model":{"vocab":{"a":0}})"},
      }};
}

SeedSet tokenizerModelSeeds() {
  ProtoBuilder settings;
  settings.varint(5, 1).varint(6, 2).varint(7, 0).negative(8, -1).varint(2, 300).bytes(1, "x");
  ProtoBuilder piece;
  piece.bytes(1, "\xE2\x96\x81the").number(2, -3.5F).varint(3, 2);
  ProtoBuilder oddPiece;
  oddPiece.varint(1, 7).bytes(2, "s").fixed32(3, 9).fixed64(4, 1).bytes(1, "a").bytes(1, "b");
  return {
      "tokenizer_model",
      {
          {"settings_and_pieces", ProtoBuilder()
                                      .message(3, ProtoBuilder().bytes(1, "<s>").varint(3, 3))
                                      .message(3, piece)
                                      .message(1, settings)
                                      .str()},
          {"only_settings", ProtoBuilder().message(1, settings).str()},
          {"empty_piece", ProtoBuilder().message(3, ProtoBuilder()).str()},
          {"odd_wire_types",
           ProtoBuilder().message(3, oddPiece).varint(3, 1).fixed32(1, 2).fixed64(9, 3).str()},
          {"key_ends_the_settings",
           ProtoBuilder().message(1, ProtoBuilder().varint(5, 9).key(5, test::WireType::Varint)).str()},
          {"long_varints",
           ProtoBuilder()
               .key(9, test::WireType::Varint)
               .rawVarintOfLength(1, 10)
               .message(3, ProtoBuilder().key(3, test::WireType::Varint).rawVarintOfLength(6, 10))
               .str()},
          {"varint_of_11_bytes",
           ProtoBuilder().key(9, test::WireType::Varint).rawVarintOfLength(1, 11).str()},
          {"group", ProtoBuilder().key(9, test::WireType::StartGroup).str()},
          {"field_0", ProtoBuilder().varint(0, 1).str()},
          {"field_0_inside", ProtoBuilder().message(3, ProtoBuilder().varint(0, 1)).str()},
          {"length_past_the_end", ProtoBuilder().bytesClaiming(3, 9, "short").str()},
          {"length_of_64_bits", ProtoBuilder().bytesClaiming(3, ~std::uint64_t(0), "short").str()},
          {"text_past_the_piece", ProtoBuilder().message(3, ProtoBuilder().bytesClaiming(1, 4, "abc")).str()},
      }};
}

// Public SentencePiece models: pieces in field 1, trainer settings in field 2, the normaliser in field 3.
SeedSet sentencePieceSeeds() {
  const auto piece = [](std::string_view text, float score, std::uint64_t type) {
    return ProtoBuilder().bytes(1, text).number(2, score).varint(3, type);
  };
  const auto special = [&] {
    return ProtoBuilder()
        .message(1, piece("<unk>", 0, 2))
        .message(1, piece("<s>", 0, 3))
        .message(1, piece("</s>", 0, 3));
  };
  const ProtoBuilder trainer = ProtoBuilder()
                                   .varint(40, 0)
                                   .varint(41, 1)
                                   .negative(43, -1)
                                   .bytes(45, "<unk>")
                                   .bytes(46, "<s>")
                                   .bytes(47, "</s>")
                                   .bytes(48, "<pad>");
  const ProtoBuilder normalizer = ProtoBuilder().bytes(1, "identity");
  std::string everyType;
  for (std::uint64_t type = 0; type < 8; ++type)
    everyType += ProtoBuilder().message(1, piece({&"abcdefgh"[type], 1}, -1.5F, type)).str();
  return {"sentencepiece",
          {
              {"model",
               special().message(1, piece("a", -1.5F, 1)).message(2, trainer).message(3, normalizer).str()},
              {"settings_first", ProtoBuilder().message(2, trainer).message(1, piece("a", -1, 1)).str()},
              {"every_type", everyType},
              {"own_names", ProtoBuilder()
                                .message(1, piece("[B]", 0, 3))
                                .message(2, ProtoBuilder().bytes(46, "[B]").bytes(48, "[B]"))
                                .str()},
              {"repeated_texts", special().message(1, piece("<s>", 0, 3)).str()},
              {"no_score", special().message(1, ProtoBuilder().bytes(1, "b")).str()},
              {"empty_pieces", special().raw("\x0A").raw(std::string(1, '\0')).str()},
              {"not_utf8", special().message(1, piece("\xFF", -9, 1)).str()},
              {"unknown_fields", special()
                                     .fixed64(100, 1)
                                     .key(101, test::WireType::StartGroup)
                                     .key(101, test::WireType::EndGroup)
                                     .str()},
              {"in_the_layout_that_is_read",
               ProtoBuilder().message(3, piece("a", -1, 1)).message(1, ProtoBuilder().varint(5, 0)).str()},
              {"tokens_and_ranks", "aGVsbG8= 0\nd29ybGQ= 1\n"},
              {"cut_short", special().bytesClaiming(1, 20, "x").str()},
          }};
}

SeedSet containerSeeds() {
  using test::ContainerBuilder;
  const test::BuiltContainer full = test::fullContainer().build();
  const test::BuiltContainer small = ContainerBuilder().tensor("w", 0, {1}, "data").build();
  const std::uint64_t one = 1;
  return {
      "container",
      {
          {"full", full.bytes},
          {"small", small.bytes},
          {"no_tensors", ContainerBuilder().build().bytes, kNoMutants},
          {"long_name", ContainerBuilder().tensor(std::string(63, 'n'), 1, {1, 1}, "ab", 70).build().bytes,
           kNoMutants},
          {"equal_names",
           ContainerBuilder().tensor("w", 0, {1}, "data").tensor("w", 3, {1}, "other").build().bytes,
           kNoMutants},
          {"unordered_names",
           ContainerBuilder().tensor("x", 0, {1}, "data").tensor("w", 0, {1}, "data").build().bytes,
           kNoMutants},
          {"bad_checksum", small.withUnsealed(56, "xxxxxxxx").bytes, kNoMutants},
          {"section_outside", small.with(small.tableEntry(5) + 8, test::u64(~one)).bytes, kNoMutants},
          {"item_count_of_millions", small.with(small.offset[1], test::u32(0xFFFFFFFF)).bytes, kNoMutants},
          {"token_count_of_millions", small.with(small.offset[2] + 8, test::u32(0xFFFFFFFF)).bytes,
           kNoMutants},
          {"tensor_count_of_millions", small.with(40, test::u64(0xFFFFFFFF)).bytes, kNoMutants},
          {"tensor_outside", small.with(small.indexEntry(0) + 104, test::u64(64)).bytes, kNoMutants},
          {"unknown_type", small.with(small.indexEntry(0) + 66, test::u16(9)).bytes, kNoMutants},
          {"name_without_end", small.with(small.indexEntry(0), std::string(64, 'n')).bytes, kNoMutants},
          {"trailing_byte", small.bytes + "x", kNoMutants},
          {"not_a_container", std::string(300, 'x'), kNoMutants},
      }};
}

// ---- directories

enum FileName : unsigned char {
  kConfig,
  kTokenizerJson,
  kTokenizerModel,
  kTokenizerConfig,
  kSpecialTokensMap,
  kGenerationConfig,
  kSafetensors,
  kShard1,
  kShard2,
  kPytorch,
  kReadme
};

constexpr std::string_view kLlama =
    R"({"model_type":"llama","hidden_size":8,"num_hidden_layers":2,"num_attention_heads":2})";
constexpr std::string_view kGemma4 =
    R"({"architectures":["Gemma4ForCausalLM"],"model_type":"gemma4","text_config":{"hidden_size":8,"num_hidden_layers":1,)"
    R"("num_attention_heads":1,"head_dim":8,"sliding_window":16,"max_position_embeddings":4096,"rope_theta":1e6,)"
    R"("layer_types":["sliding_attention","full_attention"],"final_logit_softcapping":30.0}})";

SeedSet directorySeeds() {
  const std::string norm = SafetensorsBuilder().tensor("model.norm.weight", "F32", {2}).bytes();
  const std::string layers = SafetensorsBuilder()
                                 .tensor("model.layers.0.self_attn.q_proj.weight", "F16", {2, 2})
                                 .tensor("model.layers.007.post_attention_layernorm.weight", "BF16", {2})
                                 .bytes();
  const std::string fused = SafetensorsBuilder()
                                .tensor("transformer.h.0.attn.c_attn.weight", "F16", {6, 2})
                                .tensor("transformer.h.1.attn.c_attn.weight", "Q4_K", {768})
                                .bytes();
  const std::string fusedOfThree =
      SafetensorsBuilder().tensor("transformer.h.0.attn.c_attn.weight", "F16", {3, 1, 2}).bytes();
  const std::string pieces =
      ProtoBuilder().message(3, ProtoBuilder().bytes(1, "a")).message(1, ProtoBuilder().varint(5, 0)).str();
  const auto pack = [](const std::vector<std::pair<FileName, std::string>>& files) {
    std::vector<ArchivedFile> archived;
    for (const auto& [name, content] : files)
      archived.push_back({name, content});
    return packArchive(archived);
  };
  const std::string llama(kLlama);
  const std::string gemma4(kGemma4);
  const std::string tokenizer(kTokenizer);
  return {
      "directory",
      {
          {"llama", pack({{kConfig, llama}, {kTokenizerJson, tokenizer}, {kSafetensors, norm}})},
          {"two_shards", pack({{kConfig, llama}, {kShard2, norm}, {kShard1, layers}})},
          {"gemma4", pack({{kConfig, gemma4}, {kTokenizerJson, tokenizer}, {kSafetensors, layers}})},
          {"sentencepiece", pack({{kConfig, llama}, {kTokenizerModel, pieces}, {kSafetensors, norm}})},
          {"bad_json_then_sentencepiece",
           pack({{kConfig, llama}, {kTokenizerJson, "{"}, {kTokenizerModel, pieces}, {kSafetensors, norm}})},
          {"side_files", pack({{kConfig, llama},
                               {kTokenizerConfig, R"({"add_bos_token":true,"chat_template":"{{t}}"})"},
                               {kSpecialTokensMap, R"({"bos_token":"<s>"})"},
                               {kGenerationConfig, R"({"eos_token_id":[1,2]})"},
                               {kTokenizerJson, tokenizer},
                               {kSafetensors, norm}})},
          {"fused", pack({{kConfig, llama}, {kSafetensors, fused}})},
          {"fused_of_three_extents", pack({{kConfig, llama}, {kSafetensors, fusedOfThree}})},
          {"pytorch", pack({{kConfig, llama}, {kPytorch, archive({{"w", {2, 3}, "0"}}, 24)}})},
          {"pytorch_scalar", pack({{kConfig, llama}, {kPytorch, archive({{"w", {}, "0"}}, 4)}})},
          {"safetensors_before_pytorch",
           pack({{kConfig, llama}, {kSafetensors, norm}, {kPytorch, "no archive"}})},
          {"no_config", pack({{kSafetensors, norm}})},
          {"no_weights", pack({{kConfig, llama}, {kReadme, "text"}})},
          {"empty_pytorch", pack({{kConfig, llama}, {kPytorch, ""}})},
          {"empty_shard", pack({{kConfig, llama}, {kSafetensors, SafetensorsBuilder().bytes()}})},
          {"tensor_without_name",
           pack({{kConfig, llama}, {kSafetensors, SafetensorsBuilder().tensor("", "F32", {1}).bytes()}})},
          {"same_tensor_in_two_shards", pack({{kConfig, llama}, {kShard1, norm}, {kShard2, norm}})},
      }};
}

}  // namespace

std::vector<SeedSet> allSeeds() {
  return {jsonSeeds(),          safetensorsSeeds(),    pytorchSeeds(),       pickleSeeds(),
          tokenizerJsonSeeds(), tokenizerModelSeeds(), sentencePieceSeeds(), containerSeeds(),
          directorySeeds(),     torchZipSeeds(),       torchLegacySeeds()};
}

}  // namespace zel::fuzz
