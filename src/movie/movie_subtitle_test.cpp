// Subtitles read as a movie's subtitle media: text files in any charset,
// and a media's own tracks read on their own.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "media/media.h"
#include "media/media_stream.h"
#include "movie/movie.h"
#include "test_support.h"

namespace {

using namespace std::string_literals;

constexpr int64_t kSecond = 1000000;

// The cue shown from 1 s to 3 s, in UTF-8; no comma, which the text
// cleaning takes for a field separator.
const std::string kCue =
    "\xC3\x87"
    "a va tr\xC3\xA8s bien \xE2\x80\x94 d\xC3\xA9j\xC3\xA0 vu";
// The same in Windows-1252.
const std::string kCue1252 =
    "\xC7"
    "a va tr\xE8s bien \x97 d\xE9j\xE0 vu";
const std::string kSecondCue =
    "\xC3\x9C"
    "ber Gr\xC3\xB6\xC3\x9F"
    "e";  // 4 s to 5 s
const std::string kSecondCue1252 =
    "\xDC"
    "ber Gr\xF6\xDF"
    "e";

std::string srt(const std::string& first, const std::string& second) {
  return "1\r\n00:00:01,000 --> 00:00:03,000\r\n" + first +
         "\r\n\r\n2\r\n00:00:04,000 --> 00:00:05,000\r\n" + second + "\r\n";
}

// UTF-8 to UTF-16 (the cues are in the Basic Multilingual Plane).
std::string utf16(const std::string& utf8, bool bigEndian) {
  std::string out;
  for (size_t i = 0; i < utf8.size();) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(utf8[i + k]); };
    unsigned code;
    if (byte(0) < 0x80) {
      code = byte(0);
      i += 1;
    } else if (byte(0) < 0xE0) {
      code = (byte(0) & 0x1Fu) << 6 | (byte(1) & 0x3Fu);
      i += 2;
    } else {
      code = (byte(0) & 0x0Fu) << 12 | (byte(1) & 0x3Fu) << 6 | (byte(2) & 0x3Fu);
      i += 3;
    }
    const char high = static_cast<char>(code >> 8), low = static_cast<char>(code & 0xFF);
    out += bigEndian ? std::string{high, low} : std::string{low, high};
  }
  return out;
}

std::string writeScratch(const std::string& name, const std::string& bytes) {
  const std::string path = vn::test::scratchDir() + "/" + name;
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

std::optional<std::string> textAt(VNFFMovie& movie, double seconds) {
  return movie.subtitle()->subtitleStringAtTime(static_cast<int64_t>(seconds * kSecond));
}

TEST(MovieSubtitleTest, TextFilesInAnyCharsetReadAsUtf8) {
  const std::string utf8 = srt(kCue, kSecondCue);
  const struct {
    const char* name;
    std::string bytes;
    std::optional<std::string> charset;
    std::string first, second;
  } cases[] = {
      {"utf8.srt", utf8, std::nullopt, kCue, kSecondCue},
      {"utf8_bom.srt", "\xEF\xBB\xBF" + utf8, std::nullopt, kCue, kSecondCue},
      {"windows1252.srt", srt(kCue1252, kSecondCue1252), std::nullopt, kCue, kSecondCue},
      // FFmpeg's demuxer converts these itself: naming UTF-16 to the decoder
      // would convert them twice.
      {"utf16le.srt", "\xFF\xFE" + utf16(utf8, false), std::nullopt, kCue, kSecondCue},
      {"utf16be.srt", "\xFE\xFF" + utf16(utf8, true), std::nullopt, kCue, kSecondCue},
      // A given charset wins over the detected one: 0xC7 is Cyrillic Ze in
      // Windows-1251.
      {"forced.srt", srt(kCue1252, kSecondCue1252), "WINDOWS-1251",
       "\xD0\x97"
       "a va tr\xD0\xB8s bien \xE2\x80\x94 d\xD0\xB9j\xD0\xB0 vu",
       "\xD0\xAC"
       "ber Gr\xD1\x86\xD0\xAF"
       "e"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto movie = VNFFMovie::create();
    ASSERT_TRUE(movie->openSubtitle(writeScratch(c.name, c.bytes), std::nullopt, c.charset));
    EXPECT_EQ(textAt(*movie, 0.5), std::nullopt);
    EXPECT_EQ(textAt(*movie, 2.0), c.first);
    EXPECT_EQ(textAt(*movie, 4.5), c.second);
    EXPECT_EQ(textAt(*movie, 6.0), std::nullopt);
  }
}

// Reading ahead stops at each cue: one read past it would replace it
// before it was shown.
TEST(MovieSubtitleTest, CuesCloseTogetherAreEachShown) {
  std::string file;
  const char* words[] = {"One", "Two", "Three", "Four", "Five"};
  for (int i = 0; i < 5; ++i) {
    char cue[96];
    std::snprintf(cue, sizeof cue, "%d\n00:00:0%d,000 --> 00:00:0%d,400\n%s\n\n", i + 1, i + 1,
                  i + 1, words[i]);
    file += cue;
  }
  auto movie = VNFFMovie::create();
  ASSERT_TRUE(movie->openSubtitle(writeScratch("close.srt", file)));
  for (int pass = 0; pass < 2; ++pass) {
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(textAt(*movie, i + 1.2), words[i]) << i + 1.2;
      EXPECT_EQ(textAt(*movie, i + 1.6), std::nullopt) << i + 1.6;
    }
    // A seek reads the file again from its start, whatever the time.
    movie->seek(8 * kSecond);
    movie->flushOperation();
  }
}

// A file or track that cannot be read as subtitles, or a charset iconv does
// not know, opens nothing, and the subtitle before is gone too.
TEST(MovieSubtitleTest, WhatCannotBeReadOpensNothing) {
  const struct {
    const char* file;
    std::optional<uint32_t> track;
    std::optional<std::string> charset;
  } cases[] = {
      {"multitrack.mkv", 2, std::nullopt}, {"subs.srt", 1, std::nullopt},
      {"h264_aac.mp4", 0, std::nullopt},   {"aac.m4a", std::nullopt, std::nullopt},
      {"missing.srt", 0, std::nullopt},    {"subs.srt", std::nullopt, "NO-SUCH-CHARSET"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    auto movie = VNFFMovie::create();
    ASSERT_TRUE(movie->openSubtitle(vn::test::fixture("subs.ass")));
    EXPECT_FALSE(movie->openSubtitle(vn::test::fixture(c.file), c.track, c.charset));
    EXPECT_FALSE(movie->subtitle());
    EXPECT_FALSE(movie->hasSubtitle());
  }
  // A bitmap decoder has no text to convert: the name does not matter. A
  // file's only track is track 0.
  auto movie = VNFFMovie::create();
  EXPECT_TRUE(movie->openSubtitle(vn::test::fixture("dvdsub.mkv"), 0, "NO-SUCH-CHARSET"));
  EXPECT_TRUE(movie->openSubtitle(vn::test::fixture("subs.srt"), 0, std::nullopt));
}

}  // namespace
