#include "text/text_charset.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <fstream>
#include <memory>
#include <vector>

#include "core/log.h"
#include "text/charset_library.h"

namespace vn {
namespace {

bool startsWith(std::string_view bytes, std::string_view prefix) {
  return bytes.substr(0, prefix.size()) == prefix;
}

bool hasByteOrderMark(std::string_view bytes) {
  using namespace std::string_view_literals;
  // UTF-32LE before UTF-16LE: its mark begins with UTF-16LE's.
  for (std::string_view mark :
       {"\xEF\xBB\xBF"sv, "\xFF\xFE\x00\x00"sv, "\x00\x00\xFE\xFF"sv, "\xFF\xFE"sv, "\xFE\xFF"sv}) {
    if (startsWith(bytes, mark))
      return true;
  }
  return false;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return lower(x) == lower(y);
  });
}

// Whether a guess of ICU's can be the charset of a text that is not valid
// UTF-8 and holds no NUL: not UTF-8 (ICU forgives what this file does not),
// nor a charset in which a subtitle file cannot be written
// (the demuxers parse its times and markup as ASCII bytes): the wide
// Unicode forms, offered for any text, and the EBCDIC code pages, offered
// for some short ones.
bool canBe(std::string_view name) {
  return !equalsIgnoringCase(name, "UTF-8") && !startsWith(name, "UTF-16") &&
         !startsWith(name, "UTF-32") && !startsWith(name, "IBM42");
}

// ICU's name as iconv knows it.
std::string iconvName(std::string_view name) {
  // Latin-1 text is almost always Windows-1252 text that happens to use no
  // byte in 0x80-0x9F; where it does, ICU says so itself.
  if (equalsIgnoringCase(name, "ISO-8859-1") || equalsIgnoringCase(name, "windows-1252"))
    return "WINDOWS-1252";
  // Hebrew in logical order: the same bytes as ISO-8859-8.
  if (equalsIgnoringCase(name, "ISO-8859-8-I"))
    return "ISO-8859-8";
  return std::string(name);
}

// The length of the UTF-8 sequence at bytes[i], or 0 when it is not valid;
// a sequence cut by the end of bytes is valid as far as it goes.
size_t sequenceLength(std::string_view bytes, size_t i) {
  const auto at = [&](size_t k) { return static_cast<uint8_t>(bytes[k]); };
  const uint8_t lead = at(i);
  if (lead < 0x80)
    return 1;
  size_t length;
  uint8_t low = 0x80, high = 0xBF;  // the range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0)
      low = 0xA0;  // overlong below
    if (lead == 0xED)
      high = 0x9F;  // surrogates above
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0)
      low = 0x90;  // overlong below
    if (lead == 0xF4)
      high = 0x8F;  // past U+10FFFF above
  } else {
    return 0;  // a continuation byte, an overlong lead, or past U+10FFFF
  }
  const size_t present = std::min(length, bytes.size() - i);
  for (size_t k = 1; k < present; ++k) {
    const uint8_t byte = at(i + k);
    if (k == 1 ? (byte < low || byte > high) : (byte < 0x80 || byte > 0xBF))
      return 0;
  }
  return present;
}

}  // namespace

bool isValidUtf8(std::string_view bytes) {
  for (size_t i = 0; i < bytes.size();) {
    const size_t length = sequenceLength(bytes, i);
    if (length == 0)
      return false;
    i += length;
  }
  return true;
}

std::optional<std::string> textCharset(std::string_view bytes) {
  if (hasByteOrderMark(bytes) || bytes.find('\0') != std::string_view::npos || isValidUtf8(bytes))
    return std::nullopt;
  // Without a better guess: the commonest charset of the files that are
  // not UTF-8, and one that gives every byte but five a character.
  const std::string fallback = "WINDOWS-1252";
  std::string why;
  const CharsetLibrary* icu = CharsetLibrary::get(&why);
  if (!icu) {
    logFailure("textCharset", why);
    return fallback;
  }
  UErrorCode status = U_ZERO_ERROR;
  const auto close = [icu](UCharsetDetector* detector) { icu->close(detector); };
  std::unique_ptr<UCharsetDetector, decltype(close)> detector(icu->open(&status), close);
  if (U_FAILURE(status) || !detector)
    return fallback;
  // Markup (the <i> and <font> tags of SubRip) says nothing of the charset.
  icu->enableInputFilter(detector.get(), true);
  const auto length = static_cast<int32_t>(std::min<size_t>(bytes.size(), INT32_MAX));
  icu->setText(detector.get(), bytes.data(), length, &status);
  int32_t count = 0;
  const UCharsetMatch** matches = icu->detectAll(detector.get(), &count, &status);
  if (U_FAILURE(status) || !matches)
    return fallback;
  // Best first, whatever the confidence.
  for (int32_t i = 0; i < count; ++i) {
    UErrorCode nameStatus = U_ZERO_ERROR;
    const char* name = icu->getName(matches[i], &nameStatus);
    if (U_SUCCESS(nameStatus) && name && canBe(name))
      return iconvName(name);
  }
  return fallback;
}

std::optional<std::string> utf32ToUtf8(std::string_view bytes) {
  using namespace std::string_view_literals;
  const bool little = startsWith(bytes, "\xFF\xFE\x00\x00"sv);
  if (!little && !startsWith(bytes, "\x00\x00\xFE\xFF"sv))
    return std::nullopt;
  std::string text;
  text.reserve(bytes.size() / 4);
  // A unit cut by the end of the file is dropped.
  for (size_t i = 4; i + 4 <= bytes.size(); i += 4) {
    uint32_t c = 0;
    for (int k = 0; k < 4; ++k) {
      const auto byte = static_cast<uint8_t>(bytes[i + static_cast<size_t>(little ? 3 - k : k)]);
      c = c << 8 | byte;
    }
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
      return std::nullopt;
    if (c < 0x80) {
      text += static_cast<char>(c);
    } else if (c < 0x800) {
      text += static_cast<char>(0xC0 | c >> 6);
      text += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      text += static_cast<char>(0xE0 | c >> 12);
      text += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      text += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      text += static_cast<char>(0xF0 | c >> 18);
      text += static_cast<char>(0x80 | (c >> 12 & 0x3F));
      text += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      text += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return text;
}

std::optional<std::string> fileCharset(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file)
    return std::nullopt;
  std::vector<char> head(kCharsetProbeBytes);
  file.read(head.data(), static_cast<std::streamsize>(head.size()));
  return textCharset(std::string_view(head.data(), static_cast<size_t>(file.gcount())));
}

}  // namespace vn
