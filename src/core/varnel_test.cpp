#include "core/varnel.h"

#include <gtest/gtest.h>

#include <unicode/locid.h>

namespace {

// Switches ICU's default locale for one case and restores it after.
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

// Names in the default locale's language (no or unknown code: English); known ones for languages.
TEST(VarnelTest, LanguageNamesFollowTheDefaultLocale) {
  const struct {
    const char* locale;
    const char* code;
    const char* known;    // nullptr: not asked
    const char* display;  // nullptr: not asked
  } cases[] = {
      {"en_US", "", "", "English"},           {"en_US", "und", "", nullptr},
      {"en_US", "qqz", "", "English"},        {"en_US", "zz", "", "English"},
      {"en_US", "eng", "English", "English"}, {"en_US", "en_US", "English", "English"},
      {"en_US", "fre", "French", "French"},   {"en_US", "de", "German", "German"},
      {"fr_FR", "fre", nullptr, "français"},  {"fr_FR", "de", nullptr, "allemand"},
      {"fr_FR", "", nullptr, "anglais"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.locale << " " << c.code);
    ScopedLocale locale(c.locale);
    EXPECT_EQ(c.known ? Varnel::knownLanguageName(c.code) : "-", c.known ? c.known : "-");
    EXPECT_EQ(c.display ? Varnel::displayStringForLanguage(c.code) : "-",
              c.display ? c.display : "-");
  }
}
