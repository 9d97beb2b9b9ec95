// report: the page's escapes, and the page in a real browser.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <regex>
#include <string>

#include "okv2/html_page.h"
#include "support/container_builder.h"
#include "tools/json_documents.h"

namespace zel::tool {
namespace {

namespace fs = std::filesystem;
using test::CommandResult;
using test::TempDir;
using testing::HasSubstr;

constexpr char kBrowser[] = "/usr/bin/chromium";

// Every text of the file tries to break out of where it is put.
std::string hostileContainer() {
  const std::string evil =
      "\"><script>document.title='owned'</script><img src=x onerror=\"document.title='owned'\">";
  return test::ContainerBuilder()
      .meta(evil, 4,
            test::str32("</script><script>document.title='owned'</script>" + std::string(80, 'x') + evil))
      .tensor("blk.0." + evil.substr(0, 50), 1, {1}, "xx")
      .tensor("a'\"onmouseover=alert(1) x=", 1, {2}, "yyyy")
      .build()
      .bytes;
}

TEST(HtmlEscaped, LeavesNothingThatEndsTextOrAttribute) {
  EXPECT_EQ(htmlEscaped("<a href=\"x\" id='y'>&"), "&lt;a href=&quot;x&quot; id=&#39;y&#39;&gt;&amp;");
}

TEST(ScriptSafe, LeavesNothingThatEndsAScript) {
  EXPECT_EQ(scriptSafe("\"</script><!--&\""), "\"\\u003c/script\\u003e\\u003c!--\\u0026\"");
}

std::string pageOf(const TempDir& dir, const std::string& container) {
  const std::string page = dir / "page.html";
  const CommandResult result = okv2Run({"report", container, "-o", page});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out + result.err, "");
  return page;
}

TEST(OkvReport, LoadsNothingFromElsewhere) {
  const TempDir dir;
  const std::string model = sampleModel(dir);
  okv2Run({"import", model, "-o", dir / "c.okv2", "-q"});
  const std::string html = test::readWholeFile(pageOf(dir, dir / "c.okv2"));
  for (const char* forbidden : {"http:", "https:", "src=", "@import", "url("})
    EXPECT_EQ(html.find(forbidden), std::string::npos) << forbidden;
  EXPECT_THAT(html, HasSubstr("default-src 'none'"));
}

TEST(OkvReport, HoldsTheTensorsAsJson) {
  const TempDir dir;
  const std::string html = test::readWholeFile(pageOf(dir, dir.write("c.okv2", hostileContainer())));
  const std::string opening = "<script type=\"application/json\" id=\"okv2-data\">";
  const std::size_t begin = html.find(opening) + opening.size();
  const json data = json::parse(html.substr(begin, html.find("</script>", begin) - begin));
  EXPECT_EQ(data["tensors"].size(), 2U);
  EXPECT_EQ(data["tensors"][1]["name"], "a'\"onmouseover=alert(1) x=");
}

TEST(OkvReport, LetsNoTextOfTheFileBecomeMarkup) {
  const TempDir dir;
  const std::string html = test::readWholeFile(pageOf(dir, dir.write("c.okv2", hostileContainer())));
  EXPECT_EQ(html.find("<img"), std::string::npos);
  EXPECT_EQ(html.find("<script>document"), std::string::npos);
}

TEST(OkvReport, ShowsADamagedContainerWithItsFindings) {
  const TempDir dir;
  const std::string file = dir.write("c.okv2", test::fullContainer().build().with(20, "x").bytes);
  EXPECT_THAT(test::readWholeFile(pageOf(dir, file)),
              HasSubstr("<b>error</b> at byte 20: reserved header field is not zero"));
}

// The sections of the smallest container, by the format's rules: 256 bytes of header, each section at the
// next multiple of its alignment.
TEST(OkvReport, MapsTheWholeFileToScaleWithItsPadding) {
  const TempDir dir;
  const std::string container = test::ContainerBuilder().tensor("a", 1, {2}, "yyyy").build().bytes;
  const std::string html = test::readWholeFile(pageOf(dir, dir.write("c.okv2", container)));
  const std::string map =
      html.substr(html.find("<h2>Map of the file</h2>"), html.find("<table") - html.find("<h2>Map"));
  const std::regex title("title=\"[^\"]*?([0-9]+) bytes(?: at ([0-9]+))?\"");
  std::uint64_t end = 0;
  for (std::sregex_iterator at(map.begin(), map.end(), title); at != std::sregex_iterator(); ++at) {
    EXPECT_EQ((*at)[2].matched ? std::stoull((*at)[2]) : 0, end) << at->str();
    end += std::stoull((*at)[1]);
  }
  EXPECT_EQ(end, container.size());
  EXPECT_THAT(map, HasSubstr("title=\"padding, "));
}

TEST(OkvReport, RefusesAnExistingPageAndTheContainer) {
  const TempDir dir;
  const std::string file = dir.write("c.okv2", test::fullContainer().build().bytes);
  const std::string page = dir.write("p.html", "mine");
  EXPECT_EQ(okv2Run({"report", file, "-o", page}).exitCode, 73);
  EXPECT_EQ(okv2Run({"report", file, "-o", page, "--force"}).exitCode, 0);
  EXPECT_EQ(okv2Run({"report", file, "-o", file, "--force"}).err, "okv2: " + file + " is the container\n");
}

// The document as it stands once its scripts have run.
std::string inBrowser(const TempDir& dir, const std::string& page) {
  const CommandResult result =
      test::runCommand({kBrowser, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                        "--no-first-run", "--disable-background-networking", "--disable-component-update",
                        "--disable-sync", "--user-data-dir=" + dir / "profile",
                        "--screenshot=" + dir / "page.png", "--dump-dom", "file://" + page});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  return result.out;
}

TEST(OkvReport, StaysInertInABrowserAndBuildsItsTable) {
  if (!fs::exists(kBrowser)) GTEST_SKIP() << "needs " << kBrowser << " (Debian package chromium)";
  const TempDir dir;
  const std::string document = inBrowser(dir, pageOf(dir, dir.write("c.okv2", hostileContainer())));
  EXPECT_THAT(document, HasSubstr("<title>c.okv2</title>"));  // and not "owned"
  EXPECT_EQ(document.find("<img"), std::string::npos);
  EXPECT_THAT(document, HasSubstr("<table id=\"tensors\">"));
}

// The rows of a page of tensors b (4 bytes), c (12) and a (100) after a script of ours has acted as a reader.
std::string rowsAfter(const std::string& action) {
  const TempDir dir;
  const test::BuiltContainer container = test::ContainerBuilder()
                                             .tensor("b", 1, {2}, std::string(4, 'y'))
                                             .tensor("c", 1, {6}, std::string(12, 'y'))
                                             .tensor("a", 1, {50}, std::string(100, 'y'))
                                             .build();
  const std::string html = test::readWholeFile(pageOf(dir, dir.write("c.okv2", container.bytes)));
  const std::string script =
      "<script>const headings = document.querySelectorAll('#tensors th');" + action +
      ";document.title = [...document.getElementById('tensors').tBodies[0].rows]"
      ".filter(row => !row.hidden).map(row => row.cells[0].textContent).join('');</script>";
  const std::string document = inBrowser(dir, dir.write("acted.html", html + script));
  const std::size_t begin = document.find("<title>") + 7;
  return document.substr(begin, document.find("</title>") - begin);
}

TEST(OkvReport, SortsItsTableByNameAndByNumberBothWays) {
  if (!fs::exists(kBrowser)) GTEST_SKIP() << "needs " << kBrowser << " (Debian package chromium)";
  EXPECT_EQ(rowsAfter("headings[3].click()"), "bca");  // 4, 12, 100 as numbers
  EXPECT_EQ(rowsAfter("headings[3].click(); headings[3].click()"), "acb");
  EXPECT_EQ(rowsAfter("headings[1].click(); headings[0].click()"), "abc");
}

TEST(OkvReport, ShowsTheTensorsWhoseNamesHoldWhatIsTyped) {
  if (!fs::exists(kBrowser)) GTEST_SKIP() << "needs " << kBrowser << " (Debian package chromium)";
  EXPECT_EQ(rowsAfter("const typed = document.getElementById('filter'); typed.value = 'c';"
                      "typed.dispatchEvent(new Event('input'))"),
            "c");
}

}  // namespace
}  // namespace zel::tool
