// Number reading must not follow the host's locale, where 2.5 may be spelled 2,5.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <string>

#include "json_support.h"
#include "support/status_matchers.h"
#include "support/temp_dir.h"

namespace zel {
namespace {

using test::IsOk;
using test::parseJson;
using test::StatusIs;

// Makes de_DE.UTF-8 the locale of the process, generating it in a folder of its own where the system has
// none.
class JsonUnderAGermanLocale : public testing::Test {
 protected:
  void SetUp() override {
    if (std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr) {
      const std::string command =
          "localedef -i de_DE -f UTF-8 '" + locales_ / "de_DE.UTF-8" + "' >/dev/null 2>&1";
      // localedef warns, with a failing exit code at times, and still writes a usable locale.
      (void)!std::system(command.c_str());
      setenv("LOCPATH", locales_.path().c_str(), 1);
      if (std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr) {
        GTEST_SKIP() << "needs the locale de_DE.UTF-8 or localedef with its sources (Debian: locales)";
      }
    }
    ASSERT_STREQ(std::localeconv()->decimal_point, ",");
    ASSERT_EQ(std::strtod("2,5", nullptr), 2.5) << "the host's own conversion follows the locale";
  }
  void TearDown() override { std::setlocale(LC_ALL, "C"); }

 private:
  test::TempDir locales_;
};

double number(const char* text) {
  json::Value value;
  EXPECT_THAT(parseJson(text, value), IsOk()) << text;
  return value.number;
}

TEST_F(JsonUnderAGermanLocale, AFullStopIsStillTheDecimalPoint) {
  EXPECT_EQ(number("2.5"), 2.5);
  EXPECT_EQ(number("-.5"), -0.5);
  EXPECT_EQ(number("1."), 1.0);
  EXPECT_EQ(number("1.25e2"), 125.0);
  EXPECT_EQ(number("1e-05"), 0x1.4f8b588e368f1p-17);
  EXPECT_EQ(number("1.5e999"), std::strtod("inf", nullptr));
  EXPECT_EQ(number("1.5e-999"), 0.0);
}

TEST_F(JsonUnderAGermanLocale, ACommaStillEndsANumber) {
  EXPECT_THAT(parseJson("2,5"), StatusIs(Code::InvalidFormat, "json: trailing data"));
  json::Value value;
  ASSERT_THAT(parseJson("[2,5]", value), IsOk());
  EXPECT_EQ(value.items.size(), 2U);
}

TEST_F(JsonUnderAGermanLocale, AGroupSeparatorIsNoPartOfANumber) {
  EXPECT_THAT(parseJson("1.000.000"), StatusIs(Code::InvalidFormat, "json: trailing data"));
  EXPECT_EQ(number("1.000"), 1.0);
}

}  // namespace
}  // namespace zel
