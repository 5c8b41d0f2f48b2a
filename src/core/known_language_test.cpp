#include <gtest/gtest.h>

#include <unicode/locid.h>

#include "core/varnel.h"

// A name only for a code that names a language: nothing stated ("", "und")
// and codes no language has stay unnamed, where the display name guesses
// English.
TEST(KnownLanguageTest, NamesOnlyWhatTheCodeStates) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Locale saved = icu::Locale::getDefault();
  icu::Locale::setDefault(icu::Locale("en_US"), status);
  const struct {
    const char* code;
    const char* known;
    const char* display;
  } cases[] = {
      {"", "", "English"},           {"und", "", nullptr},
      {"xx", "", "English"},         {"qqq", "", "English"},
      {"eng", "English", "English"}, {"fre", "French", "French"},
      {"fr", "French", "French"},    {"en_US", "English", "English"},
      {"ger", "German", "German"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    EXPECT_EQ(Varnel::knownLanguageName(c.code), c.known);
    if (c.display) {
      EXPECT_EQ(Varnel::displayStringForLanguage(c.code), c.display);
    }
  }
  icu::Locale::setDefault(saved, status);
}
