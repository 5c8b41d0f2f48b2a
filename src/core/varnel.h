// Library set-up and the language-name helper.
#pragma once

#include <string>

// Class-level helpers; never instantiated.
class Varnel {
 public:
  Varnel() = delete;

  // The name of a language code in the user's locale, first success wins:
  // the code as it is; for a code of 3 or more characters its first two
  // ("eng", "en_US" -> "en"); the locale's name for English; the code.
  // An empty or unknown code therefore reads as English, on purpose: an
  // untagged stream shows as English. Any thread.
  static std::string displayStringForLanguage(const std::string& code);

  // The same name without the fallback: the name of the code as it is, else
  // of its first two characters; empty when the locale names neither (an
  // empty code, "und", "xx"). For callers that must not present a guess as
  // a stream's language. Any thread.
  static std::string knownLanguageName(const std::string& code);

  // One-time set-up of the media libraries; safe to call from any thread
  // any number of times. Every entry point that opens media calls it.
  static void initialize();
};
