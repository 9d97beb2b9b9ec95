// Chat templates, and files that are not what their name says.
#include <string>
#include <vector>

#include "tools/finding_cases.h"

namespace zel::explain {
namespace {

using test::ModelDirBuilder;

ModelDirBuilder withSide(const std::string& json) { return goodModel().file("tokenizer_config.json", json); }
ModelDirBuilder withTemplates(const std::string& inConfig, const std::string& inSide) {
  return withSide(R"({"chat_template":)" + inSide + "}")
      .config(R"({"model_type":"llama","chat_template":)" + inConfig + "}");
}
ModelDirBuilder withGeneration(const std::string& bytes) {
  return goodModel().file("generation_config.json", bytes);
}

}  // namespace

std::vector<FindingCase> templateCases() {
  constexpr char kOneTemplate[] = R"({"chat_template":"{{ x }}"})";
  return {
      {Id::TemplateJinjaFile, "OtherText", withSide(kOneTemplate).file("chat_template.jinja", "{{ y }}"),
       R"(loss template.jinja-file: chat_template.jinja
  7 bytes
  chat_template.jinja is not read.
  Why: A template is taken from config.json or tokenizer_config.json only.
  Do:  Run okv2 prepare DIR OUT: it puts the text into tokenizer_config.json.
)",
       withSide(kOneTemplate).file("chat_template.jinja", "{{ x }}")},
      {Id::TemplateJinjaFile, "OneByte", withSide(kOneTemplate).file("chat_template.jinja", "x"),
       R"(loss template.jinja-file: chat_template.jinja
  1 bytes
  chat_template.jinja is not read.
  Why: A template is taken from config.json or tokenizer_config.json only.
  Do:  Run okv2 prepare DIR OUT: it puts the text into tokenizer_config.json.
)",
       withSide(kOneTemplate).file("chat_template.jinja", "")},
      {Id::TemplateJsonFile, "OtherText",
       withSide(kOneTemplate).file("chat_template.json", R"({"chat_template":"{{ y }}"})"),
       R"(loss template.json-file: chat_template.json
  27 bytes
  chat_template.json is not read.
  Why: A template is taken from config.json or tokenizer_config.json only.
  Do:  Run okv2 prepare DIR OUT: it puts the text into tokenizer_config.json, unless that file or chat_template.jinja has one.
)",
       withSide(kOneTemplate).file("chat_template.json", R"({"chat_template":"{{ x }}"})")},
      {Id::TemplateJsonFile, "NoJson", goodModel().file("chat_template.json", "{"),
       R"(loss template.json-file: chat_template.json
  1 bytes
  chat_template.json is not read.
  Why: A template is taken from config.json or tokenizer_config.json only.
  Do:  Run okv2 prepare DIR OUT: it puts the text into tokenizer_config.json, unless that file or chat_template.jinja has one.
)",
       goodModel().file("chat_template.json", R"({"chat_template":null})")},
      {Id::TemplateFolder, "OneFile",
       goodModel().folder("additional_chat_templates").file("additional_chat_templates/rag.jinja", "x"),
       R"(loss template.folder: additional_chat_templates
  rag.jinja
  Named chat templates in a folder are not read.
  Why: The container has room for one template, and folders are never looked into.
  Do:  Give the templates to the consumer of the container.
)",
       goodModel().folder("additional_chat_templates").file("additional_chat_templates/rag.txt", "x")},
      {Id::TemplateList, "OneTemplate", withSide(R"({"chat_template":[{"name":"default","template":"x"}]})"),
       R"(loss template.list: tokenizer_config.json
  tokenizer_config.json: $.chat_template is an array of 1 entries
  The chat template is a list of named templates.
  Why: Only a single text is read; a list is ignored.
  Do:  Run okv2 prepare DIR OUT: it takes the template named default. Without one, make "chat_template" the text that shall be used.
)",
       withSide(R"({"chat_template":"x"})")},
      {Id::TemplateNotText, "Object", withSide(R"({"chat_template":{"default":"x"}})"),
       R"(loss template.not-text: tokenizer_config.json
  tokenizer_config.json: $.chat_template is an object of 1 entries
  "chat_template" is neither text nor list.
  Why: Only text is read.
  Do:  Make it a text.
)",
       withSide(R"({"chat_template":null})")},
      {Id::TemplateNotText, "Number", withSide(R"({"chat_template":7})"),
       R"(loss template.not-text: tokenizer_config.json
  tokenizer_config.json: $.chat_template is 7
  "chat_template" is neither text nor list.
  Why: Only text is read.
  Do:  Make it a text.
)",
       withSide(R"({"chat_template":"7"})")},
      {Id::TemplateConfigWins, "OneByte", withTemplates(R"("first")", R"("x")"),
       R"(loss template.config-wins: tokenizer_config.json
  $.chat_template of 1 bytes
  The chat template of tokenizer_config.json is passed over.
  Why: config.json has one too, which comes first.
  Do:  Run okv2 prepare DIR OUT: it keeps the template of tokenizer_config.json.
)",
       withTemplates(R"("first")", R"("")")},
      {Id::TemplateConfigWins, "OtherText", withTemplates(R"("first")", R"("second")"),
       R"(loss template.config-wins: tokenizer_config.json
  $.chat_template of 6 bytes
  The chat template of tokenizer_config.json is passed over.
  Why: config.json has one too, which comes first.
  Do:  Run okv2 prepare DIR OUT: it keeps the template of tokenizer_config.json.
)",
       withTemplates(R"("second")", R"("second")")},
      {Id::TemplateDropped,
       "NoToken",
       withSide(kOneTemplate).tokenizer(R"({"model":{"vocab":{}}})"),
       R"(loss template.dropped: tokenizer_config.json
  $.chat_template of 7 bytes
  A chat template is read and then dropped.
  Why: It is handed to the container only together with a vocabulary that is not empty.
  Do:  Mend the tokenizer.
)",
       withSide(kOneTemplate).tokenizer(R"({"model":{"vocab":{"a":0}}})"),
       {"tokenizer.empty"}},
      {Id::SideBadJson, "Array", withSide("[]"),
       R"(loss side.bad-json: tokenizer_config.json
  $ is an array
  tokenizer_config.json is not a JSON object.
  Why: Its text is kept, but the chat template and add_bos_token cannot be taken from it.
  Do:  Mend the file, or fetch it again.
)",
       withSide("{}")},
  };
}

std::vector<FindingCase> fileCases() {
  constexpr char kWholeTokenizer[] = R"({"model":{"vocab":{"a":0}}})";
  constexpr char kCutTokenizer[] = R"({"model":{"vocab":{"a":0}})";
  return {
      {Id::FileEmpty, "NoByte", withGeneration(""),
       R"(loss file.empty: generation_config.json
  A file is empty.
  Why: An empty file counts as absent.
  Do:  Fetch 'generation_config.json' again.
)",
       withGeneration("{")},
      {Id::FileNotRegular, "Fifo", goodModel().fifo("generation_config.json"),
       R"(loss file.not-regular: generation_config.json
  A name that is read belongs to something other than a regular file.
  Why: Directories, pipes and devices are never read.
  Do:  Put the file there: 'generation_config.json'.
)",
       goodModel().fifo("generation_config.json.old")},
      {Id::FileNotRegular, "BrokenLink", goodModel().symlink("generation_config.json", "nowhere"),
       R"(loss file.not-regular: generation_config.json
  A name that is read belongs to something other than a regular file.
  Why: Directories, pipes and devices are never read.
  Do:  Put the file there: 'generation_config.json'.
)",
       goodModel().symlink("generation_config.json", "config.json")},
      {Id::FileNotRegular,
       "CheckpointBehindABrokenLink",
       goodModel().noWeights().symlink("pytorch_model.bin", "nowhere"),
       R"(loss file.not-regular: pytorch_model.bin
  A name that is read belongs to something other than a regular file.
  Why: Directories, pipes and devices are never read.
  Do:  Put the file there: 'pytorch_model.bin'.
)",
       goodModel().symlink("pytorch_model.bin", "nowhere"),
       {"weights.none"}},
      {Id::FileLfsPointer, "Pointer",
       withGeneration("version https://git-lfs.example/v1\noid sha256:00\nsize 1234\n"),
       R"(loss file.lfs-pointer: generation_config.json
  59 bytes, the content has 1234
  A file is a Git LFS pointer and not its content.
  Why: The directory was cloned without Git LFS.
  Do:  git lfs pull --include 'generation_config.json'
)",
       withGeneration("Version https://git-lfs.example/v1\noid sha256:00\nsize 1234\n")},
      // A clone that fetched the .safetensors files only lacks nothing.
      {Id::FileLfsPointer,
       "ShardOfACheckpoint",
       goodModel().noWeights().file("pytorch_model-00001-of-00001.bin",
                                    "version https://git-lfs.example/v1\n"),
       R"(loss file.lfs-pointer: pytorch_model-00001-of-00001.bin
  35 bytes
  A file is a Git LFS pointer and not its content.
  Why: The directory was cloned without Git LFS.
  Do:  git lfs pull --include 'pytorch_model-00001-of-00001.bin'
)",
       goodModel().file("pytorch_model-00001-of-00001.bin", "version https://git-lfs.example/v1\n"),
       {"weights.sharded-bin"}},
      {Id::FileLfsPointer,
       "TokenizerModelThatIsTried",
       goodModel().tokenizer("{}").file("tokenizer.model", "version https://git-lfs.example/v1\n"),
       R"(loss file.lfs-pointer: tokenizer.model
  35 bytes
  A file is a Git LFS pointer and not its content.
  Why: The directory was cloned without Git LFS.
  Do:  git lfs pull --include 'tokenizer.model'
)",
       goodModel().file("tokenizer.model", "version https://git-lfs.example/v1\n"),
       {"tokenizer.json-no-model", "tokenizer.model-refused", "tokenizer.empty"}},
      {Id::FileLinkText, "RelativePath", withGeneration("../blobs/0123"),
       R"(loss file.link-text: generation_config.json
  ../blobs/0123
  A file holds the text of a symbolic link and not its target's content.
  Why: Git writes links as text where links are not supported.
  Do:  git config core.symlinks true && rm 'generation_config.json' && git checkout -- 'generation_config.json'
)",
       withGeneration("..blobs0123")},
      {Id::FileLinkText, "NameOfAFileBeside", withGeneration("generation-base.json\n"),
       R"(loss file.link-text: generation_config.json
  generation-base.json

  A file holds the text of a symbolic link and not its target's content.
  Why: Git writes links as text where links are not supported.
  Do:  git config core.symlinks true && rm 'generation_config.json' && git checkout -- 'generation_config.json'
)",
       withGeneration("generation-base.jso\n")},
      {Id::SideTextNotJson, "Generation", withGeneration(R"({"eos_token_id":x})"),
       R"(note side.text-not-json: generation_config.json
  byte 16: json: unexpected char; hf.generation_config holds the text as it is
  A side file that is kept as text is not JSON.
  Why: Its bytes are kept as they are, so the container carries the broken text.
  Do:  Mend 'generation_config.json', or fetch it again.
)",
       withGeneration(R"({"eos_token_id":7})")},
      {Id::SideTextNotJson,
       "SpecialTokensCutShort",
       goodModel().file("special_tokens_map.json", R"({"bos_token":)"),
       R"(note side.text-not-json: special_tokens_map.json
  byte 13: json: unexpected end; hf.special_tokens_map holds the text as it is
  A side file that is kept as text is not JSON.
  Why: Its bytes are kept as they are, so the container carries the broken text.
  Do:  Mend 'special_tokens_map.json', or fetch it again.
)",
       goodModel().file("special_tokens_map.json.old", R"({"bos_token":)"),
       {"file.partial"}},
      {Id::FileWebPage, "Html", withGeneration("<html>Sign in"),
       R"(loss file.web-page: generation_config.json
  13 bytes
  A file is a web page.
  Why: The download answered with a page, often one that asks for a login, instead of the file.
  Do:  curl -fL -H "Authorization: Bearer $TOKEN" -o 'generation_config.json' "$URL"
)",
       withGeneration("<htm>Sign in")},
      {Id::FilePartial,
       "Tokenizer",
       goodModel().tokenizer(kCutTokenizer).file("tokenizer.model", goodTokenizerModel()),
       R"(loss file.partial: tokenizer.json
  the text ends in the middle
  A file ends in the middle.
  Why: The download was not finished.
  Do:  curl -fL -C - -o 'tokenizer.json' "$URL"
)",
       goodModel().tokenizer(kWholeTokenizer),
       {"tokenizer.json-bad-json"}},
      {Id::FilePartial,
       "Config",
       goodModel().config(R"({"model_type":"llama")"),
       R"(loss file.partial: config.json
  the text ends in the middle
  A file ends in the middle.
  Why: The download was not finished.
  Do:  curl -fL -C - -o 'config.json' "$URL"
)",
       goodModel().config(R"({"model_type":"llama",})"),
       {"config.bad-json"}},
      {Id::FilePartial,
       "TokenizerConfig",
       withSide(R"({"add_bos_token":tr)"),
       R"(loss file.partial: tokenizer_config.json
  the text ends in the middle
  A file ends in the middle.
  Why: The download was not finished.
  Do:  curl -fL -C - -o 'tokenizer_config.json' "$URL"
)",
       withSide(R"({"add_bos_token":yes})"),
       {"side.bad-json"}},
      {Id::FilePartialBeside, "Part", goodModel().file("model.safetensors.part", "12"),
       R"(note file.partial-beside: model.safetensors.part
  2 bytes
  There is the part file of a download.
  Why: A part under a name of its own is not read.
  Do:  curl -fL -C - -o 'model.safetensors.part' "$URL"
)",
       goodModel().file("model.safetensors.par", "12")},
  };
}

}  // namespace zel::explain
