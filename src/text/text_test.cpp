#include "text/text_charset.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <optional>
#include <string>
#include <tuple>

#include "test_support.h"
#include "text/text_image.h"

namespace {

using namespace std::string_literals;

TEST(TextCharsetTest, NamesTheCharsetToConvertFrom) {
  const std::tuple<const char*, std::string, std::optional<std::string>> cases[] = {
      {"empty", "", std::nullopt},
      {"UTF-8",
       "\xC3\x87"
       "a va tr\xC3\xA8s bien \xE2\x80\x94 d\xC3\xA9j\xC3\xA0 vu\n",
       std::nullopt},
      // The text goes on past what was read.
      {"UTF-8 cut in a sequence", "bien \xE2\x80", std::nullopt},
      // The marks win over whatever follows: the demuxers read those texts.
      {"UTF-8 mark",
       "\xEF\xBB\xBF"
       "caf\xE9",
       std::nullopt},
      {"UTF-16LE mark",
       "\xFF\xFE"
       "c\0a\0f\0\xE9\0"s,
       std::nullopt},
      {"UTF-16BE mark",
       "\xFE\xFF"
       "\0c\0a\0f\0\xE9"s,
       std::nullopt},
      {"UTF-32LE mark", "\xFF\xFE\0\0c\0\0\0"s, std::nullopt},
      {"UTF-32BE mark", "\0\0\xFE\xFF\0\0\0c"s, std::nullopt},
      {"NUL bytes without a mark: a binary file", "\x1A\x45\xDF\xA3\0\0\x01\xE9\x80"s,
       std::nullopt},
      {"Windows-1252 French, with a dash and curly quotes",
       "1\r\n00:00:01,000 --> 00:00:03,000\r\n\xC7"
       "a va tr\xE8s bien \x97 d\xE9j\xE0 vu\r\n\r\n"
       "2\r\n00:00:04,000 --> 00:00:05,000\r\n\x93"
       "C'est l'\xE9t\xE9\x94, dit-il. Co\xFBt : 5 \x80\r\n",
       "WINDOWS-1252"},
      {"Windows-1252 German, no byte in 0x80-0x9F (ICU: ISO-8859-1)",
       "Gr\xF6\xDF"
       "e \xFC"
       "ber die Stra\xDF"
       "e, sch\xF6n und gr\xFCn, \xC4pfel und \xD6l.\n",
       "WINDOWS-1252"},
      {"Windows-1251 Russian",
       "\xCF\xF0\xE8\xE2\xE5\xF2, \xEA\xE0\xEA \xE4\xE5\xEB\xE0? \xC2\xF1\xB8 "
       "\xF5\xEE\xF0\xEE\xF8\xEE, "
       "\xF1\xEF\xE0\xF1\xE8\xE1\xEE. \xCC\xFB \xE8\xE4\xB8\xEC \xE4\xEE\xEC\xEE\xE9.\n",
       "windows-1251"},
      // Too short for ICU: it offers only UTF-16, or nothing at all.
      {"no guess but UTF-16", "caf\xE9!", "WINDOWS-1252"},
      {"no guess", "\xE9t\xE9", "WINDOWS-1252"},
  };
  for (const auto& [what, bytes, charset] : cases)
    EXPECT_EQ(vn::textCharset(bytes), charset) << what;
}

TEST(TextCharsetTest, Utf8IsCheckedStrictly) {
  const std::tuple<const char*, std::string, bool> cases[] = {
      {"the last code point", "\xF4\x8F\xBF\xBF", true},
      {"a lone continuation byte", "a\x80z", false},
      {"a 2-byte overlong form", "\xC0\xAF", false},
      {"a 3-byte overlong form", "\xE0\x80\xAF", false},
      {"a 4-byte overlong form", "\xF0\x80\x80\xAF", false},
      {"a surrogate", "\xED\xA0\x80", false},
      {"past U+10FFFF", "\xF4\x90\x80\x80", false},
      {"a lead byte past U+10FFFF", "\xF5\x80\x80\x80", false},
      {"a sequence cut by the next character", "\xE2\x80z", false},
      {"a sequence cut by the end", "z\xE2\x80", true},
      {"a cut sequence already wrong", "z\xE0\x80", false},
  };
  for (const auto& [what, bytes, valid] : cases)
    EXPECT_EQ(vn::isValidUtf8(bytes), valid) << what;
}

TEST(TextCharsetTest, Utf32WithAMarkBecomesUtf8) {
  using namespace std::string_literals;
  // "é€😀" in both byte orders; a unit cut by the end is dropped.
  EXPECT_EQ(vn::utf32ToUtf8("\xFF\xFE\0\0\xE9\0\0\0\xAC\x20\0\0\x00\xF6\x01\0\x41\0"s),
            "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(vn::utf32ToUtf8("\0\0\xFE\xFF\0\0\0\x41\0\0\0\x0A"s), "A\n");
  EXPECT_EQ(vn::utf32ToUtf8("\xFF\xFE\0\0"s), "");
  // Not UTF-32, or not characters.
  EXPECT_EQ(vn::utf32ToUtf8("\xFF\xFE"
                            "A\0"s),
            std::nullopt);
  EXPECT_EQ(vn::utf32ToUtf8("\xFF\xFE\0\0\0\xD8\0\0"s), std::nullopt);
  EXPECT_EQ(vn::utf32ToUtf8("\xFF\xFE\0\0\0\0\x11\0"s), std::nullopt);
}

TEST(TextCharsetTest, FilesAreJudgedByTheirFirstBytes) {
  auto write = [&](const std::string& name, const std::string& bytes) {
    const std::string path = vn::test::scratch(name);
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  };
  // A 3-byte dash cut by the end of what is read, then Windows-1252 that is never read.
  std::string cut(vn::kCharsetProbeBytes - 1, 'a');
  cut += "\xE2\x80\x94 caf\xE9";
  EXPECT_EQ(vn::fileCharset(write("cut.srt", cut)), std::nullopt);
  // The same byte inside what is read.
  EXPECT_EQ(vn::fileCharset(write("early.srt", "caf\xE9 " + cut)), "WINDOWS-1252");
  EXPECT_EQ(vn::fileCharset(vn::test::scratch("no-such-file.srt")), std::nullopt);
  EXPECT_EQ(vn::fileCharset(vn::test::fixture("subs.srt")), std::nullopt);
}

TEST(TextImageTest, OneLineOfTextInItsColourOnTransparentBlackOrNothing) {
  const vn::FilterImage word = vn::textImage("Glow", "Sans 20", {1, 0, 0, 1});
  const vn::Rect e = word.extent();
  // At the origin; a 20-pixel font: a line about 23 pixels tall, four letters wider than tall.
  EXPECT_TRUE(e.x == 0 && e.y == 0 && e.height >= 20 && e.height <= 30 && e.width > e.height)
      << e.x << "," << e.y << " " << e.width << "x" << e.height;

  // Ink is the colour at any coverage (straight alpha, red first); the rest transparent black.
  const std::vector<uint8_t> rgba = word.render();
  int solid = 0, clear = 0, wrong = 0;
  for (size_t i = 0; i < rgba.size(); i += 4) {
    const uint8_t* p = &rgba[i];
    clear += p[3] == 0, solid += p[3] == 255;
    wrong += p[3] == 0 ? p[0] + p[1] + p[2] > 0 : p[0] < 250 || std::max(p[1], p[2]) > 3;
  }
  EXPECT_TRUE(wrong == 0 && solid > 20 && clear > solid) << wrong << " " << solid << " " << clear;

  // A line break does not start a second line; no text draws nothing.
  EXPECT_EQ(vn::textImage("Gl\now", "Sans 20", {1, 1, 1, 1}).extent().height, e.height);
  EXPECT_TRUE(vn::textImage("", "Sans 14", {1, 1, 1, 1}).isEmpty());
  // Bytes that are not UTF-8 still draw (as replacement characters).
  EXPECT_FALSE(vn::textImage("\xff\xfe", "Sans 14", {1, 1, 1, 1}).isEmpty());
  // An unknown family falls back to a font that has the letters.
  EXPECT_GT(vn::textImage("Bloom", "NoSuchFamily 14", {1, 1, 1, 1}).extent().width, 20);
}

}  // namespace
