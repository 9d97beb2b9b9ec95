// Files that are not what their name says.
#include <gtest/gtest.h>

#include <string>

#include "okv2/explain/disguise.h"
#include "support/safetensors_builder.h"
#include "support/temp_dir.h"

namespace zel::explain {
namespace {

Disguise look(const std::string& content) { return disguiseOf(content, content.size()); }

TEST(Disguise, IsNoneForJsonAndWeights) {
  EXPECT_EQ(look("{\"a\": \"b/c\"}"), Disguise::None);
  EXPECT_EQ(look(test::SafetensorsBuilder().tensor("w", "F32", {2}).bytes()), Disguise::None);
  EXPECT_EQ(look(std::string("PK\x03\x04/", 5)), Disguise::None);
}

TEST(Disguise, KnowsAnEmptyFile) { EXPECT_EQ(look(""), Disguise::Empty); }

TEST(Disguise, KnowsAGitLfsPointer) {
  EXPECT_EQ(look("version https://git-lfs.example/v1\noid sha256:00\nsize 12\n"), Disguise::LfsPointer);
}

TEST(Disguise, KnowsTheTextOfALink) {
  EXPECT_EQ(look("../../blobs/0123abcd"), Disguise::LinkText);
  EXPECT_EQ(look("/home/x/model.safetensors\n"), Disguise::LinkText);
  EXPECT_EQ(look("no path"), Disguise::None);
  EXPECT_EQ(look("a/b c"), Disguise::None);
}

TEST(Disguise, KnowsTheTextOfALinkToAFileBesideIt) {
  for (const char* name :
       {"tokenizer-base.json", "model_1.safetensors\n", "a.bin", "x.model", "y.txt", "z.jinja"})
    EXPECT_EQ(look(name), Disguise::LinkText) << name;
  for (const char* text :
       {".json", "json", "a b.json", "a.json\nb.json", "{a}.json", "a.json5", "1.5", "true"})
    EXPECT_EQ(look(text), Disguise::None) << text;
}

TEST(Disguise, TakesNothingOfMoreThanAKilobyteForALink) {
  EXPECT_EQ(look("/" + std::string(1023, 'x')), Disguise::LinkText);
  EXPECT_EQ(look("/" + std::string(1024, 'x')), Disguise::None);
}

TEST(Disguise, KnowsAWebPage) {
  EXPECT_EQ(look("<!DOCTYPE html><title>Sign in</title>"), Disguise::WebPage);
  EXPECT_EQ(look("\n <HTML><body>"), Disguise::WebPage);
  EXPECT_EQ(look("<?xml version=\"1.0\"?><Error>"), Disguise::WebPage);
}

bool endsEarlyAfter(const std::string& content) {
  const test::TempDir dir;
  const std::string path = dir.write("model.safetensors", content);
  FileLook look;
  return lookAt(path, look) && endsEarly(path, look);
}

TEST(PartialDownload, IsToldFromAWholeFileByTheLastByte) {
  const std::string whole = test::SafetensorsBuilder().tensor("w", "F32", {2}).bytes();
  EXPECT_FALSE(endsEarlyAfter(whole));
  EXPECT_TRUE(endsEarlyAfter(whole.substr(0, whole.size() - 1)));
}

TEST(PartialDownload, IsSeenAlsoInsideTheHeader) {
  const std::string whole = test::SafetensorsBuilder().tensor("w", "F32", {2}).bytes();
  EXPECT_TRUE(endsEarlyAfter(whole.substr(0, 20)));
}

TEST(PartialDownload, OfAZipArchiveLacksItsEnd) {
  EXPECT_TRUE(endsEarlyAfter(std::string("PK\x03\x04", 4) + std::string(100, 'x')));
  EXPECT_FALSE(endsEarlyAfter(std::string("PK\x03\x04", 4) + std::string("PK\x05\x06", 4)));
}

TEST(PartName, IsWhatDownloadersAppend) {
  EXPECT_TRUE(isPartName("model.safetensors.incomplete"));
  EXPECT_TRUE(isPartName("model.bin.aria2"));
  EXPECT_FALSE(isPartName("model.safetensors"));
}

TEST(LookAt, NeverOpensAFolderForReading) {
  const test::TempDir dir;
  FileLook look;
  ASSERT_TRUE(lookAt(dir.path(), look));
  EXPECT_EQ(look.disguise, Disguise::NotRegular);
  EXPECT_FALSE(lookAt(dir.path() + "/absent", look));
}

}  // namespace
}  // namespace zel::explain
