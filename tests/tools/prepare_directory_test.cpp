// A whole directory: what is written, what is refused first, and that equal inputs give equal bytes.
#include <filesystem>
#include <set>
#include <string>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "okv2/prepare/model_texts.h"
#include "prepare_directory_support.h"
#include "support/proto_builder.h"
#include "support/unprivileged.h"

namespace zel::tool::prepare {
namespace {

namespace fs = std::filesystem;
using test::ModelDirBuilder;
using test::ProtoBuilder;
using test::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;

std::set<std::string> namesIn(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory))
    names.insert(entry.path().filename());
  return names;
}

ModelDirBuilder pairMerges() {
  return ModelDirBuilder()
      .config(completeConfig())
      .tokenizer(R"({"model":{"vocab":{"a":0,"b":1,"ab":2},"merges":[["a","b"]]}})")
      .file("README.md", "text")
      .file("tokenizer_config.json", "{}")
      .file("special_tokens_map.json", "{}")
      .file("generation_config.json", "{}");
}

TEST(PrepareDirectory, WritesWhatAnImportReadsAndTheListOfChanges) {
  const PreparedDirectory directory(pairMerges());
  EXPECT_EQ(
      namesIn(directory.out),
      (std::set<std::string>{"config.json", "generation_config.json", "model.safetensors", "prepare.json",
                             "special_tokens_map.json", "tokenizer.json", "tokenizer_config.json"}));
  EXPECT_EQ(Json::parse(directory.text("prepare.json")), Json::parse(R"({
      "schema": 1,
      "changes": [{"file": "tokenizer.json", "what": "$.model.merges", "from": "1 pairs", "to": "1 texts",
                   "why": "merges are read as texts of two parts with a space between them",
                   "finding": "tokenizer.json-merge-pairs"}],
      "remaining": []})"));
}

TEST(PrepareDirectory, WritesItsListIndented) {
  for (const char* more : {"", R"("rope_scaling":{"a":1})"}) {
    for (const char* tokens :
         {R"({"model":{"vocab":{"a":0}}})", R"({"model":{"vocab":{"a":3,"\u0009":5}}})"}) {
      const PreparedDirectory directory(ModelDirBuilder().config(completeConfig(more)).tokenizer(tokens));
      const std::string text = directory.text("prepare.json");
      EXPECT_EQ(text, Json::parse(text).dump(2) + "\n");
    }
  }
}

TEST(PrepareDirectory, NamesWhatCouldNotBeMended) {
  const PreparedDirectory directory(
      ModelDirBuilder().config(completeConfig(R"("rope_scaling":{"type":"su"})")));
  EXPECT_THAT(directory.remaining(), ElementsAre("config.rope-scaling", "tokenizer.none", "tokenizer.empty"));
  const Json document = Json::parse(directory.text("prepare.json"));
  EXPECT_EQ(document["remaining"][0],
            Json::parse(R"({"finding": "config.rope-scaling", "subject": "rope_scaling",
                            "detail": "config.json: $.rope_scaling is {\"type\": \"su\"}"})"));
}

TEST(PrepareDirectory, ChangesNothingInTheOriginal) {
  const TempDir dir;
  const std::string source = pairMerges().write(dir);
  std::map<std::string, std::string> before;
  for (const std::string& name : namesIn(source))
    before[name] = test::readWholeFile(source + "/" + name);
  fs::create_directory(dir / "out");
  (void)prepareDirectory(source, dir / "out", {});
  std::map<std::string, std::string> after;
  for (const std::string& name : namesIn(source))
    after[name] = test::readWholeFile(source + "/" + name);
  EXPECT_EQ(before, after);
}

TEST(PrepareDirectory, GivesEqualBytesForEqualInputs) {
  const PreparedDirectory first(pairMerges());
  const PreparedDirectory second(pairMerges());
  for (const std::string& name : namesIn(first.out)) {
    EXPECT_EQ(first.text(name), second.text(name)) << name;
  }
}

TEST(PrepareDirectory, ChangesNothingInADirectoryThatItPrepared) {
  const PreparedDirectory first(pairMerges().config(R"({"model_type":"gpt2","n_embd":8,"n_head":2})"));
  const TempDir dir;
  fs::create_directory(dir / "out");
  const Prepared again = prepareDirectory(first.out, dir / "out", {});
  EXPECT_THAT(linesOf(again.changes), IsEmpty());
}

TEST(PrepareDirectory, KeepsToTokenizerJsonWhenThereAreTwoFiles) {
  const PreparedDirectory directory(pairMerges().file(
      "tokenizer.model", ProtoBuilder().message(1, ProtoBuilder().bytes(1, "x").number(2, 0)).str()));
  EXPECT_FALSE(directory.has("tokenizer.model"));
  EXPECT_THAT(directory.changes(),
              ElementsAre("tokenizer.json | $.model.merges | 1 pairs | 1 texts | tokenizer.json-merge-pairs",
                          "tokenizer.model | the file | 10 bytes |  | tokenizer.model-ignored"));
}

// An import does not look at it either.
TEST(PrepareDirectory, LeavesOutATokenizerModelBesideTokenizerJsonWhateverItIs) {
  for (const auto& [bytes, from] :
       {std::pair("version https://git-lfs.example/v1\noid sha256:0\nsize 5\n", "55 bytes"),
        std::pair("../../blobs/0123", "16 bytes"), std::pair("<!DOCTYPE html><html>", "21 bytes"),
        std::pair("", "0 bytes")}) {
    const PreparedDirectory directory(withConfig(completeConfig()).file("tokenizer.model", bytes));
    EXPECT_FALSE(directory.has("tokenizer.model"));
    EXPECT_THAT(directory.changes(), ElementsAre("tokenizer.model | the file | " + std::string(from) +
                                                 " |  | tokenizer.model-ignored"));
    EXPECT_EQ(directory.model.tokenizer.tokens.size(), 4U);
  }
  const PreparedDirectory directory(withConfig(completeConfig()).fifo("tokenizer.model"));
  EXPECT_THAT(directory.changes(),
              ElementsAre("tokenizer.model | the file | no regular file |  | tokenizer.model-ignored"));
}

TEST(PrepareDirectory, LeavesOutALongTokenizerModelBesideTokenizerJson) {
  const TempDir dir;
  const std::string source = withConfig(completeConfig()).file("tokenizer.model", "x").write(dir);
  fs::create_directory(dir / "out");
  ASSERT_EQ(::truncate((source + "/tokenizer.model").c_str(), off_t(kMaxTextBytes) + 1), 0);
  EXPECT_THAT(linesOf(prepareDirectory(source, dir / "out", {}).changes),
              ElementsAre("tokenizer.model | the file | 134217729 bytes |  | tokenizer.model-ignored"));
}

TEST(PrepareDirectory, SaysFirstWhatIsWrongWithTokenizerJson) {
  EXPECT_EQ(
      refusalOfDirectory(ModelDirBuilder().file("tokenizer.json", "").file("tokenizer.model", "<html>")),
      (Refusal{7, "file.empty", "tokenizer.json: A file is empty.", "Fetch 'tokenizer.json' again."}));
}

TEST(PrepareDirectory, SaysWhichFileItCannotWrite) {
  const TempDir dir;
  const std::string source = pairMerges().write(dir);
  dir.write("out/tokenizer.json", "x");
  EXPECT_EQ(
      refusalOf([&] { return prepareDirectory(source, dir / "out", {}); }),
      (Refusal{73, "", "cannot write tokenizer.json: File exists", "Make room, or choose another output."}));
  EXPECT_EQ(test::readWholeFile(dir / "out/tokenizer.json"), "x");
}

struct Disguised {
  const char* name;
  const char* bytes;
  Refusal refusal;
};

void PrintTo(const Disguised& row, std::ostream* out) { *out << row.name; }

class PrepareRefusesFirst : public testing::TestWithParam<Disguised> {};

// The weights would be refused too; what is said first is about the text.
TEST_P(PrepareRefusesFirst, FilesThatAreNotWhatTheyAreCalled) {
  for (const char* file : {"config.json", "tokenizer.json", "tokenizer.model", "tokenizer_config.json",
                           "special_tokens_map.json", "generation_config.json", "chat_template.jinja"}) {
    Refusal expected = GetParam().refusal;
    expected.message = std::string(file) + expected.message;
    for (std::size_t at; (at = expected.remedy.find('@')) != std::string::npos;)
      expected.remedy.replace(at, 1, std::string("'") + file + "'");
    EXPECT_EQ(refusalOfDirectory(ModelDirBuilder().noWeights().file(file, GetParam().bytes)), expected);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Each, PrepareRefusesFirst,
    testing::Values(Disguised{"LfsPointer",
                              "version https://git-lfs.example/v1\noid sha256:0\nsize 5\n",
                              {7, "file.lfs-pointer", ": A file is a Git LFS pointer and not its content.",
                               "git lfs pull --include @"}},
                    Disguised{"LinkText",
                              "../../blobs/0123",
                              {7, "file.link-text",
                               ": A file holds the text of a symbolic link and not its target's content.",
                               "git config core.symlinks true && rm @ && git checkout -- @"}},
                    Disguised{"WebPage",
                              "<!DOCTYPE html><html>",
                              {7, "file.web-page", ": A file is a web page.",
                               "curl -fL -H \"Authorization: Bearer $TOKEN\" -o @ \"$URL\""}},
                    Disguised{"Empty", "", {7, "file.empty", ": A file is empty.", "Fetch @ again."}}),
    [](const auto& row) { return row.param.name; });

// Before the weights, which take long; there are none here.
class NamelessArchitecture : public testing::TestWithParam<const char*> {};

TEST_P(NamelessArchitecture, IsRefused) {
  EXPECT_EQ(refusalOfDirectory(ModelDirBuilder().noWeights().config(GetParam())),
            (Refusal{2, "config.no-model-type", "config.json: it names no architecture",
                     "Add \"model_type\" to config.json."}));
}

INSTANTIATE_TEST_SUITE_P(Each, NamelessArchitecture,
                         testing::Values(R"({"hidden_size":8})", R"({"model_type":""})",
                                         R"({"model_type":7})",
                                         R"({"model_type":"","architectures":["LlamaForCausalLM"]})",
                                         R"({"architectures":[]})", R"({"architectures":[7]})"));

TEST(PrepareDirectory, TakesTheNameOfAClassForTheArchitecture) {
  const PreparedDirectory directory(withConfig(R"({"architectures":["LlamaForCausalLM"]})"));
  EXPECT_EQ(directory.model.arch, "llama");
}

TEST(PrepareDirectory, RefusesAPipeWithoutWaitingForIt) {
  EXPECT_EQ(refusalOfDirectory(ModelDirBuilder().fifo("tokenizer.json")),
            (Refusal{2, "file.not-regular",
                     "tokenizer.json: A name that is read belongs to something other than a regular file.",
                     "Put the file there: 'tokenizer.json'."}));
}

TEST(PrepareDirectory, RefusesATextThatMayNotBeRead) {
  for (const std::string name :
       {"config.json", "tokenizer.json", "tokenizer.model", "tokenizer_config.json",
        "special_tokens_map.json", "generation_config.json", "chat_template.jinja"}) {
    const TempDir dir;
    ModelDirBuilder builder;
    if (name != "config.json") builder.file(name, "{}");
    const std::string source = builder.write(dir);
    fs::create_directory(dir / "out");
    test::sealFile(dir.path(), source, name);
    const test::Unprivileged user;
    EXPECT_EQ(
        refusalOf([&] { return prepareDirectory(source, dir / "out", {}); }),
        (Refusal{6, "file.no-permission", name + ": A file may not be read.", "chmod u+r '" + name + "'"}));
  }
}

TEST(PrepareDirectory, LeavesOutATokenizerModelThatMayNotBeReadBesideTokenizerJson) {
  const TempDir dir;
  const std::string source = withConfig(completeConfig()).file("tokenizer.model", "x").write(dir);
  fs::create_directory(dir / "out");
  test::sealFile(dir.path(), source, "tokenizer.model");
  EXPECT_EQ(chmod((dir / "out").c_str(), 0777), 0);
  const test::Unprivileged user;
  EXPECT_THAT(linesOf(prepareDirectory(source, dir / "out", {}).changes),
              ElementsAre("tokenizer.model | the file | 1 bytes |  | tokenizer.model-ignored"));
}

TEST(PrepareDirectory, RefusesATextThatIsTooLong) {
  const TempDir dir;
  const std::string source = ModelDirBuilder().file("tokenizer.json", "{").write(dir);
  fs::create_directory(dir / "out");
  ASSERT_EQ(::truncate((source + "/tokenizer.json").c_str(), off_t(kMaxTextBytes) + 1), 0);
  EXPECT_EQ(refusalOf([&] { return prepareDirectory(source, dir / "out", {}); }),
            (Refusal{3, "file.not-regular",
                     "tokenizer.json: 134217729 bytes are more than the 134217728 of any description",
                     "Put the model's own tokenizer.json there."}));
}

}  // namespace
}  // namespace zel::tool::prepare
