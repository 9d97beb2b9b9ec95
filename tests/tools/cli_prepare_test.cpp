// prepare as a user runs it, alone and as a part of import: what it says, what it leaves, and what it
// refuses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include <sys/stat.h>

#include "support/corpus.h"
#include "support/model_dir_builder.h"
#include "tools/json_documents.h"

namespace zel::tool {
namespace {

namespace fs = std::filesystem;
using test::CommandResult;
using test::ModelDirBuilder;
using test::TempDir;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// A pair merge and a nested size: two changes and nothing left.
ModelDirBuilder twoChanges() {
  return ModelDirBuilder()
      .config(R"({"model_type":"x","hidden_size":8,"num_attention_heads":2,"num_key_value_heads":1,)"
              R"("intermediate_size":16,"vocab_size":3,"text_config":{"num_hidden_layers":2}})")
      .tokenizer(R"({"model":{"vocab":{"a":0,"b":1,"ab":2},"merges":[["a","b"]]}})");
}

constexpr char kTwoChanges[] =
    "tokenizer.json: $.model.merges: 1 pairs -> 1 texts: merges are read as texts of two parts with a space "
    "between them [tokenizer.json-merge-pairs]\n"
    "config.json: $.num_hidden_layers: nothing -> 2: $.text_config.num_hidden_layers has it "
    "[config.nested]\n";

TEST(OkvPrepare, ListsEveryChangeOnStandardError) {
  const TempDir dir;
  const CommandResult result = okv2Run({"prepare", twoChanges().write(dir), dir / "out"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, kTwoChanges);
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"model", "out"}));
}

TEST(OkvPrepare, SaysNothingWhenAskedTo) {
  const TempDir dir;
  const CommandResult result = okv2Run({"prepare", "-q", twoChanges().write(dir), dir / "out/"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out + result.err, "");
  EXPECT_TRUE(fs::exists(dir / "out/prepare.json"));
}

TEST(OkvPrepare, NamesWhatIsLeft) {
  const TempDir dir;
  const std::string model =
      ModelDirBuilder()
          .tokenizer()
          .config(R"({"model_type":"x","hidden_size":8,"num_hidden_layers":2,"num_attention_heads":2,)"
                  R"("num_key_value_heads":1,"intermediate_size":16,"vocab_size":4,"rope_scaling":{"a":1}})")
          .write(dir);
  const CommandResult result = okv2Run({"prepare", model, dir / "out"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err,
            "not mended: rope_scaling: The scaling of rotary positions is not read. [config.rope-scaling]\n");
}

// GPT-NeoX lays query, key and value head by head.
ModelDirBuilder neoX() {
  return ModelDirBuilder()
      .tokenizer()
      .config(R"({"model_type":"gpt_neox","hidden_size":2,"num_hidden_layers":1,"num_attention_heads":1,)"
              R"("num_key_value_heads":1,"intermediate_size":8,"vocab_size":4})")
      .shard("model.safetensors",
             test::SafetensorsBuilder()
                 .tensor("gpt_neox.layers.0.attention.dense.bias", "F32", {2})
                 .tensor("gpt_neox.layers.0.attention.dense.weight", "F32", {2, 2})
                 .tensor("gpt_neox.layers.0.attention.query_key_value.weight", "F32", {6, 2})
                 .tensor("gpt_neox.layers.0.input_layernorm.weight", "F32", {2}));
}

TEST(OkvPrepare, CountsTheNamesThatNobodyKnows) {
  const TempDir dir;
  const CommandResult result = okv2Run({"prepare", neoX().write(dir), dir / "out"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.err,
              testing::EndsWith(
                  "not mended: 1 fused projection, left whole: Tensors keep a name, or the end of one, that "
                  "is in no table. [tensor.unmapped]\n"
                  "not mended: 1 tensor: Tensors keep a name, or the end of one, that is in no table. "
                  "[tensor.unmapped]\n"));
  const json remaining = json::parse(test::readWholeFile(dir / "out/prepare.json"))["remaining"];
  ASSERT_EQ(remaining.size(), 2U);
  EXPECT_EQ(remaining[0], (json{{"finding", "tensor.unmapped"},
                                {"subject", "1 fused projection, left whole"},
                                {"detail",
                                 "model.layers.0.attention.query_key_value.weight becomes "
                                 "blk.0.attention.query_key_value.weight"}}));
  EXPECT_EQ(remaining[1], (json{{"finding", "tensor.unmapped"},
                                {"subject", "1 tensor"},
                                {"detail",
                                 "model.layers.0.attention.dense.bias becomes "
                                 "blk.0.attention.dense.bias"}}));
}

TEST(OkvPrepare, CountsNoNameOfTheContainersOwn) {
  const TempDir dir;
  const std::string model =
      ModelDirBuilder()
          .tokenizer()
          .config(R"({"model_type":"gpt2","hidden_size":2,"num_hidden_layers":1,"num_attention_heads":1,)"
                  R"("num_key_value_heads":1,"intermediate_size":8,"vocab_size":4})")
          .shard("model.safetensors",
                 test::SafetensorsBuilder().tensor("transformer.h.0.attn.c_attn.weight", "F32", {2, 6}))
          .write(dir);
  const CommandResult result = okv2Run({"prepare", model, dir / "out"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err,
            "model.safetensors: transformer.h.0.attn.c_attn.weight: transformer.h.0.attn.c_attn.weight -> "
            "blk.0.attn_q.weight, blk.0.attn_k.weight, blk.0.attn_v.weight: An import would cut the fused "
            "projection along its other extent; the parts stay [in, out]. [tensor.fused-columns]\n");
  EXPECT_EQ(json::parse(test::readWholeFile(dir / "out/prepare.json"))["remaining"], json::array());
}

TEST(OkvPrepare, TakesTheSampleOfEveryArchitecture) {
  for (const char* arch : {"llama", "qwen2", "gemma4", "gpt2"}) {
    const TempDir dir;
    const std::string model = dir / "sample", file = dir / "a.okv2";
    ASSERT_EQ(okv2Run({"sample", model, "--arch", arch, "--size", "100K", "--tokenizer", "none"}).exitCode,
              0);
    EXPECT_EQ(okv2Run({"prepare", model, dir / "out"}).exitCode, 0) << arch;
    EXPECT_EQ(okv2Run({"import", dir / "out", "-o", file}).exitCode, 0) << arch;
    EXPECT_EQ(okv2Run({"verify", file, "--against", model, "--prepare"}).exitCode, 0) << arch;
  }
}

TEST(OkvPrepare, AnswersInJson) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  const CommandResult result = okv2Run({"prepare", "--json", "-q", model, dir / "out"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  const json document = json::parse(result.out);
  const json file = json::parse(test::readWholeFile(dir / "out/prepare.json"));
  EXPECT_EQ(document["schema"], 1);
  EXPECT_EQ(document["command"], "prepare");
  EXPECT_EQ(document["exit_code"], 0);
  EXPECT_EQ(document["directory"], model);
  EXPECT_EQ(document["output"], dir / "out");
  EXPECT_EQ(document["changes"].size(), 2U);
  EXPECT_EQ(document["changes"], file["changes"]);
  EXPECT_EQ(document["remaining"], file["remaining"]);
}

TEST(OkvPrepare, GivesARefusalItsFindingAndRemedy) {
  const TempDir dir;
  const std::string model = ModelDirBuilder().file("tokenizer.json", "<html>").write(dir);
  const CommandResult result = okv2Run({"prepare", model, dir / "out", "--json"});
  EXPECT_EQ(result.exitCode, 7);
  EXPECT_EQ(result.err,
            "okv2: " + model +
                ": tokenizer.json: A file is a web page. [file.web-page]\n"
                "  Do: curl -fL -H \"Authorization: Bearer $TOKEN\" -o 'tokenizer.json' \"$URL\"\n");
  EXPECT_EQ(json::parse(result.out),
            (json{{"schema", 1},
                  {"command", "prepare"},
                  {"exit_code", 7},
                  {"error", model + ": tokenizer.json: A file is a web page. [file.web-page]"},
                  {"finding", "file.web-page"},
                  {"remedy", "curl -fL -H \"Authorization: Bearer $TOKEN\" -o 'tokenizer.json' \"$URL\""}}));
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"model"}));
}

TEST(OkvPrepare, WritesNothingThatAnImportRefuses) {
  const TempDir dir;
  const std::string model = twoChanges().config(R"({"model_type":"","hidden_size":8})").write(dir);
  const std::string told = "okv2: " + model +
                           ": config.json: it names no architecture [config.no-model-type]\n"
                           "  Do: Add \"model_type\" to config.json.\n";
  for (const CommandResult& result : {okv2Run({"prepare", model, dir / "out"}),
                                      okv2Run({"import", "--prepare", model, "-o", dir / "a.okv2"})}) {
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err, told);
  }
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"model"}));
}

TEST(OkvPrepare, LeavesOutATokenizerModelThatIsAPointer) {
  const TempDir dir;
  const std::string model =
      twoChanges()
          .file("tokenizer.model", "version https://git-lfs.example/v1\noid sha256:0\nsize 5\n")
          .write(dir);
  const CommandResult prepared = okv2Run({"prepare", model, dir / "out"});
  EXPECT_EQ(prepared.exitCode, 0);
  EXPECT_THAT(prepared.err,
              HasSubstr("tokenizer.model: the file: 55 bytes -> nothing: tokenizer.json comes first, "
                        "so an import would not read it [tokenizer.model-ignored]\n"));
  EXPECT_EQ(okv2Run({"import", "--prepare", model, "-o", dir / "a.okv2"}).exitCode, 0);
}

TEST(OkvPrepare, EscapesTextsFromTheDirectory) {
  const TempDir dir;
  const std::string model =
      ModelDirBuilder()
          .tokenizer(R"({"model":{"vocab":{"a":0}},"added_tokens":[{"id":1,"content":"\u001b[2J\n"}]})")
          .write(dir);
  const CommandResult result = okv2Run({"prepare", model, dir / "out"});
  EXPECT_THAT(result.err, HasSubstr("tokenizer.json: $.model.vocab[\"\\x1B[2J\\n\"]: nothing -> 1: "));
  EXPECT_EQ(result.err.find('\x1B'), std::string::npos);
}

// ---- a standard error that cannot be written

// A full one, and a closed one, whose number the next file to be opened would get.
class WithoutStandardError : public testing::TestWithParam<std::string> {
 protected:
  static CommandResult run(const std::string& arguments) {
    return test::runCommand(
        {"/bin/sh", "-c", "exec " + std::string(OKV2_COMMAND) + " " + arguments + " " + GetParam()});
  }
};

TEST_P(WithoutStandardError, ADirectoryIsPrepared) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  ASSERT_EQ(okv2Run({"prepare", model, dir / "expected"}).err, kTwoChanges);
  EXPECT_EQ(run("prepare " + model + " " + dir / "out").exitCode, 0);
  EXPECT_EQ(namesIn(dir / "out"), namesIn(dir / "expected"));
  for (const char* name : {"config.json", "tokenizer.json", "prepare.json"})
    EXPECT_EQ(test::readWholeFile(dir / "out/" + name), test::readWholeFile(dir / "expected/" + name));
}

TEST_P(WithoutStandardError, ADirectoryIsImported) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  ASSERT_EQ(okv2Run({"import", "--prepare", model, "-o", dir / "expected.okv2"}).exitCode, 0);
  EXPECT_EQ(run("import --prepare " + model + " -o " + dir / "a.okv2").exitCode, 0);
  EXPECT_EQ(test::readWholeFile(dir / "a.okv2"), test::readWholeFile(dir / "expected.okv2"));
  EXPECT_EQ(run("import --prepare --skip-verified " + model + " -o " + dir / "a.okv2").exitCode, 0);
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"model", "a.okv2", "expected.okv2"}));
}

TEST_P(WithoutStandardError, ARefusalKeepsItsExitCode) {
  const TempDir dir;
  const std::string model = ModelDirBuilder().file("tokenizer.json", "<html>").write(dir);
  EXPECT_EQ(run("prepare " + model + " " + dir / "out").exitCode, 7);
  EXPECT_EQ(run("import --prepare " + model + " -o " + dir / "a.okv2").exitCode, 7);
  EXPECT_EQ(namesIn(dir.path()), std::set<std::string>{"model"});
}

INSTANTIATE_TEST_SUITE_P(Each, WithoutStandardError, testing::Values("2>/dev/full", "2>&-"),
                         [](const auto& row) { return row.param == "2>&-" ? "Closed" : "Full"; });

// ---- where the output may lie

TEST(OkvPrepare, FillsAnEmptyDirectory) {
  const TempDir dir;
  fs::create_directory(dir / "out");
  EXPECT_EQ(okv2Run({"prepare", twoChanges().write(dir), dir / "out"}).exitCode, 0);
  EXPECT_TRUE(fs::exists(dir / "out/config.json"));
}

TEST(OkvPrepare, RefusesADirectoryThatHoldsSomething) {
  const TempDir dir;
  dir.write("out/file", "x");
  const CommandResult result = okv2Run({"prepare", twoChanges().write(dir), dir / "out"});
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(result.err, "okv2: " + (dir / "out") + " is not empty\n");
  EXPECT_EQ(namesIn(dir / "out"), (std::set<std::string>{"file"}));
}

TEST(OkvPrepare, RefusesWhatIsNoDirectory) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  dir.write("file", "x");
  fs::create_directory(dir / "empty");
  fs::create_symlink(dir / "empty", dir / "link");
  for (const char* out : {"file", "link"}) {
    const CommandResult result = okv2Run({"prepare", model, dir / out});
    EXPECT_EQ(result.exitCode, 73);
    EXPECT_EQ(result.err, "okv2: " + (dir / out) + " exists and is no directory\n");
  }
}

TEST(OkvPrepare, RefusesToWriteIntoTheOriginal) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  fs::create_symlink(model, dir / "link");
  for (const std::string& out : {model, model + "/out", dir / "link/out", model + "/../model/out"}) {
    const CommandResult result = okv2Run({"prepare", model, out});
    EXPECT_EQ(result.exitCode, 73);
    EXPECT_EQ(result.err, "okv2: " + out + " lies in " + model + ", of which nothing is changed\n");
  }
  EXPECT_FALSE(fs::exists(model + "/out"));
}

// Runs `okv2 prepare DIR OUT` in the folder `cwd`.
CommandResult prepareFrom(const std::string& cwd, const std::string& directory, const std::string& out) {
  return test::runCommand(
      {"/bin/sh", "-c", R"(cd "$1" && exec "$0" prepare "$2" "$3")", OKV2_COMMAND, cwd, directory, out});
}

TEST(OkvPrepare, RefusesToWriteIntoTheOriginalFromWithinIt) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  const std::set<std::string> before = namesIn(model);
  for (const char* out : {"out", "./out", "../model/out"}) {
    const CommandResult result = prepareFrom(model, ".", out);
    EXPECT_EQ(result.exitCode, 73);
    EXPECT_EQ(result.err, "okv2: " + std::string(out) + " lies in ., of which nothing is changed\n");
  }
  EXPECT_EQ(namesIn(model), before);
}

TEST(OkvPrepare, WritesBesideTheOriginalFromWithinIt) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  const CommandResult result = prepareFrom(model, ".", "../out");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, kTwoChanges);
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"model", "out"}));
}

TEST(OkvPrepare, RefusesADirectoryByANameThatCannotBeGivenAway) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  fs::create_directories(dir / "empty");
  for (const char* out : {".", "../empty/."}) {
    const CommandResult result = prepareFrom(dir / "empty", "../model", out);
    EXPECT_EQ(result.exitCode, 73);
    EXPECT_EQ(result.err, "okv2: " + std::string(out) + " is not the name of a directory\n");
  }
  const CommandResult result = prepareFrom(dir / "empty", "../model", "../empty");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_TRUE(fs::exists(dir / "empty/config.json"));
}

TEST(OkvPrepare, NamesAnExpressionThatMatchesNothing) {
  const TempDir dir;
  const CommandResult result =
      okv2Run({"prepare", twoChanges().write(dir), dir / "out", "--drop", "typo_xyz"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, std::string(kTwoChanges) +
                            "weights: --drop typo_xyz: nothing -> nothing: It matches no tensor.\n");
  const json document = json::parse(test::readWholeFile(dir / "out/prepare.json"));
  EXPECT_EQ(document["changes"][2], (json{{"file", "weights"},
                                          {"what", "--drop typo_xyz"},
                                          {"from", ""},
                                          {"to", ""},
                                          {"why", "It matches no tensor."},
                                          {"finding", ""}}));
}

TEST(OkvPrepare, WritesBesideADirectoryOfALongerName) {
  const TempDir dir;
  EXPECT_EQ(okv2Run({"prepare", twoChanges().write(dir), dir / "model-out"}).exitCode, 0);
}

TEST(OkvPrepare, RefusesAFolderThatIsNotThere) {
  const TempDir dir;
  const CommandResult result = okv2Run({"prepare", twoChanges().write(dir), dir / "none/out"});
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(result.err, "okv2: cannot create " + (dir / "none/out") + ": No such file or directory\n");
}

TEST(OkvPrepare, RefusesAModelThatIsNoDirectory) {
  const TempDir dir;
  const CommandResult result = okv2Run({"prepare", dir.write("file", "x"), dir / "out"});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.err, "okv2: " + (dir / "file") + ": not a directory\n");
}

TEST(OkvPrepare, RefusesWhatIsNoRegularExpression) {
  const TempDir dir;
  const CommandResult result =
      okv2Run({"prepare", twoChanges().write(dir), dir / "out", "--drop", "a", "--drop", "("});
  EXPECT_EQ(result.exitCode, 64);
  EXPECT_THAT(result.err, HasSubstr("--drop: not a regular expression: ("));
}

// ---- import --prepare

TEST(OkvImportPrepare, WritesTheContainerOfThePreparedDirectory) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  ASSERT_EQ(okv2Run({"prepare", "-q", model, dir / "out"}).exitCode, 0);
  ASSERT_EQ(okv2Run({"import", "-q", dir / "out", "-o", dir / "two-steps"}).exitCode, 0);
  const CommandResult result = okv2Run({"import", "--prepare", model, "-o", dir / "one-step"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err.substr(0, sizeof kTwoChanges - 1), kTwoChanges);
  EXPECT_EQ(test::readWholeFile(dir / "one-step"), test::readWholeFile(dir / "two-steps"));
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"model", "one-step", "out", "two-steps"}));
}

TEST(OkvImportPrepare, VerifiesAgainstThePreparedDirectory) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  ASSERT_EQ(okv2Run({"prepare", "-q", model, dir / "out"}).exitCode, 0);
  ASSERT_EQ(okv2Run({"import", "-q", "--prepare", model, "-o", dir / "m.okv"}).exitCode, 0);
  EXPECT_EQ(okv2Run({"verify", dir / "m.okv", "--against", dir / "out"}).exitCode, 0);
}

TEST(OkvImportPrepare, RecordsTheChanges) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  const CommandResult result =
      okv2Run({"import", "--prepare", "-q", model, "-o", dir / "m.okv", "--report", dir / "r.json"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  const json record = json::parse(test::readWholeFile(dir / "r.json"));
  EXPECT_EQ(record["directory"], model);
  EXPECT_EQ(record["result"]["code"], 0);
  ASSERT_EQ(record["changes"].size(), 2U);
  EXPECT_EQ(record["changes"][0]["finding"], "tokenizer.json-merge-pairs");
  EXPECT_EQ(record["changes"][1]["what"], "$.num_hidden_layers");
  for (const json& finding : record["findings"])
    EXPECT_EQ(finding["severity"], "note") << finding;
  ASSERT_EQ(okv2Run({"import", "-q", model, "-o", dir / "n.okv", "--report", dir / "s.json"}).exitCode, 0);
  EXPECT_FALSE(json::parse(test::readWholeFile(dir / "s.json")).contains("changes"));
}

TEST(OkvImportPrepare, RecordsARefusal) {
  const TempDir dir;
  const std::string model = ModelDirBuilder().file("tokenizer.json", "{").write(dir);
  const CommandResult result =
      okv2Run({"import", "--prepare", model, "-o", dir / "m.okv", "--report", dir / "r.json"});
  EXPECT_EQ(result.exitCode, 7);
  const std::string message = model + ": tokenizer.json: byte 1: json: object key [tokenizer.json-bad-json]";
  EXPECT_EQ(
      result.err,
      "okv2: " + message + "\n  Do: Fetch tokenizer.json again, or use another that belongs to the model.\n");
  const json record = json::parse(test::readWholeFile(dir / "r.json"));
  EXPECT_EQ(record["result"]["code"], 7);
  EXPECT_EQ(record["result"]["message"], message);
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"model", "r.json"}));
}

TEST(OkvImportPrepare, NeverWritesOverAFileOfTheOriginal) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  const std::string before = test::readWholeFile(model + "/model.safetensors");
  const CommandResult result =
      okv2Run({"import", "--prepare", "--force", model, "-o", model + "/model.safetensors"});
  EXPECT_EQ(result.exitCode, 73);
  EXPECT_EQ(
      result.err,
      "okv2: " + model + "/model.safetensors is one of the files to be imported; it is never overwritten\n");
  EXPECT_EQ(test::readWholeFile(model + "/model.safetensors"), before);
}

TEST(OkvImportPrepare, RefusesOptionsThatMakeNoSense) {
  const TempDir dir;
  const std::string model = twoChanges().write(dir);
  EXPECT_EQ(okv2Run({"import", "--prepare", "--dry-run", model, "-o", dir / "m.okv"}).exitCode, 64);
  EXPECT_EQ(okv2Run({"import", "--cast", model, "-o", dir / "m.okv"}).exitCode, 64);
  EXPECT_EQ(okv2Run({"import", "--cast-integers", model, "-o", dir / "m.okv"}).exitCode, 64);
  EXPECT_EQ(okv2Run({"import", "--drop", "x", model, "-o", dir / "m.okv"}).exitCode, 64);
  EXPECT_EQ(okv2Run({"import", "--text-only", model, "-o", dir / "m.okv"}).exitCode, 64);
}

// ---- signals

class OkvPrepareSignals : public testing::TestWithParam<int> {};

// A model whose vocabulary takes long enough to be met at work.
std::string slowModel(const TempDir& dir) {
  std::string vocabulary = R"({"model":{"vocab":{"a0":0)";
  for (int k = 1; k < 400'000; ++k)
    vocabulary += ",\"a" + std::to_string(k) + "\":" + std::to_string(k);
  return ModelDirBuilder().tokenizer(vocabulary + R"(},"merges":[["a0","a1"]]}})").write(dir);
}

bool waitForPending(const std::string& folder) {
  for (int k = 0; k < 5000; ++k) {
    for (const std::string& name : namesIn(folder)) {
      if (name.rfind(".okv2-prepare-", 0) == 0) return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

TEST_P(OkvPrepareSignals, LeaveNothingBehind) {
  const TempDir dir;
  const std::string model = slowModel(dir);
  test::Command command({OKV2_COMMAND, "prepare", model, dir / "out"});
  ASSERT_TRUE(waitForPending(dir.path()));
  command.send(GetParam());
  EXPECT_EQ(command.wait().signal, GetParam());
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"model"}));
}

TEST_P(OkvPrepareSignals, LeaveNothingBehindAnImport) {
  const TempDir dir;
  const std::string model = slowModel(dir);
  test::Command command({OKV2_COMMAND, "import", "--prepare", model, "-o", dir / "m.okv"});
  ASSERT_TRUE(waitForPending(dir.path()));
  command.send(GetParam());
  EXPECT_EQ(command.wait().signal, GetParam());
  EXPECT_EQ(namesIn(dir.path()), (std::set<std::string>{"model"}));
}

INSTANTIATE_TEST_SUITE_P(Each, OkvPrepareSignals, testing::Values(SIGINT, SIGTERM, SIGHUP, SIGQUIT));

// ---- real directories

TEST(OkvPrepareCorpus, ConvertsADirectoryWithWeightsWhole) {
  OKV2_REQUIRE_CORPUS();
  const TempDir dir;
  const std::string model = test::corpusPath("model-dirs/paged-infer-tiny-llama");
  ASSERT_EQ(okv2Run({"import", "-q", "--prepare", model, "-o", dir / "prepared"}).exitCode, 0);
  ASSERT_EQ(okv2Run({"import", "-q", model, "-o", dir / "plain"}).exitCode, 0);
  // Nothing had to be mended.
  EXPECT_EQ(test::readWholeFile(dir / "prepared"), test::readWholeFile(dir / "plain"));
}

TEST(OkvPrepareCorpus, GivesAnEmptyVocabularyTheTokensThatAreNamed) {
  OKV2_REQUIRE_CORPUS();
  const TempDir dir;
  const std::string model = test::corpusPath("model-dirs/hf2q-tiny");
  const CommandResult result = okv2Run({"prepare", model, dir / "out"});
  EXPECT_EQ(result.exitCode, 0);
  const std::string why =
      ": tokenizer_config.json names the token, which is added behind the last one when the tokenizer is "
      "loaded [tokenizer.added-outside]\n";
  EXPECT_EQ(result.err, "tokenizer.json: $.model.vocab[\"<s>\"]: nothing -> 0" + why +
                            "tokenizer.json: $.model.vocab[\"</s>\"]: nothing -> 1" + why);
}

TEST(OkvPrepareSample, LeavesACompleteModelAsItIs) {
  const TempDir dir;
  const std::string model = sampleModel(dir);
  const CommandResult result = okv2Run({"prepare", model, dir / "out"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(okv2Run({"explain", "--strict", dir / "out"}).exitCode, 0);
}

}  // namespace
}  // namespace zel::tool
