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

TEST(VarnelTest, LanguageNamesInEnglish) {
  ScopedLocale english("en_US");
  EXPECT_EQ(Varnel::displayStringForLanguage("eng"), "English");
  EXPECT_EQ(Varnel::displayStringForLanguage("en_US"), "English");
  EXPECT_EQ(Varnel::displayStringForLanguage("fre"), "French");
  EXPECT_EQ(Varnel::displayStringForLanguage("ger"), "German");
  EXPECT_EQ(Varnel::displayStringForLanguage("de"), "German");
  // Untagged and unknown codes read as English, not as the raw code.
  EXPECT_EQ(Varnel::displayStringForLanguage(""), "English");
  EXPECT_EQ(Varnel::displayStringForLanguage("qqz"), "English");
  EXPECT_EQ(Varnel::displayStringForLanguage("zz"), "English");
}

TEST(VarnelTest, LanguageNamesFollowTheDefaultLocale) {
  ScopedLocale french("fr_FR");
  EXPECT_EQ(Varnel::displayStringForLanguage("fre"), "français");
  EXPECT_EQ(Varnel::displayStringForLanguage("de"), "allemand");
  EXPECT_EQ(Varnel::displayStringForLanguage(""), "anglais");
}
