#include "core/varnel.h"

#include <gtest/gtest.h>

#include <unicode/locid.h>

namespace {

// Switches ICU's default locale for one test and restores it after.
class ScopedLocale {
 public:
  explicit ScopedLocale(const char* name) : saved_(icu::Locale::getDefault()) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale(name), status);
  }
  ~ScopedLocale() {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(saved_, status);
  }

 private:
  icu::Locale saved_;
};

}  // namespace

// Names in the default locale's language; untagged and unknown codes as English.
TEST(VarnelTest, LanguageNamesFollowTheDefaultLocale) {
  const struct {
    const char* locale;
    const char* code;
    const char* name;
  } cases[] = {
      {"en_US", "eng", "English"}, {"en_US", "en_US", "English"}, {"en_US", "fre", "French"},
      {"en_US", "ger", "German"},  {"en_US", "de", "German"},     {"en_US", "", "English"},
      {"en_US", "qqz", "English"}, {"en_US", "zz", "English"},    {"fr_FR", "fre", "français"},
      {"fr_FR", "de", "allemand"}, {"fr_FR", "", "anglais"},
  };
  for (const auto& c : cases) {
    ScopedLocale locale(c.locale);
    EXPECT_EQ(Varnel::displayStringForLanguage(c.code), c.name) << c.locale << " " << c.code;
  }
}
