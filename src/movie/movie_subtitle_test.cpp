// Subtitles read as a movie's subtitle media.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <unicode/unistr.h>

#include "effects/effect_video_stream.h"
#include "media/media_test_support.h"
#include "movie/movie.h"
#include "test_support.h"

namespace {

constexpr int64_t kSecond = 1000000;

// Cues shown from 1 s to 3 s and 4 s to 5 s, without commas (taken for field separators).
const std::string kCue =
    "\xC3\x87"
    "a va tr\xC3\xA8s bien \xE2\x80\x94 d\xC3\xA9j\xC3\xA0 vu";
const std::string kSecondCue =
    "\xC3\x9C"
    "ber Gr\xC3\xB6\xC3\x9F"
    "e";

std::string srt(const std::string& first, const std::string& second) {
  return "1\r\n00:00:01,000 --> 00:00:03,000\r\n" + first +
         "\r\n\r\n2\r\n00:00:04,000 --> 00:00:05,000\r\n" + second + "\r\n";
}

// UTF-8 text in another charset.
std::string encode(const std::string& utf8, const char* charset) {
  const icu::UnicodeString text = icu::UnicodeString::fromUTF8(utf8);
  std::string out(4 * static_cast<size_t>(text.length()), '\0');
  out.resize(
      text.extract(0, text.length(), out.data(), static_cast<uint32_t>(out.size()), charset));
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
  const std::string utf8 = srt(kCue, kSecondCue), cp1252 = encode(utf8, "windows-1252");
  ASSERT_EQ(cp1252.size() + 9, utf8.size());
  struct Case {
    const char* name;
    std::string bytes;
    std::optional<std::string> charset = std::nullopt;
    std::string first = kCue, second = kSecondCue;
  };
  const Case cases[] = {
      {"utf8.srt", utf8},
      {"utf8_bom.srt", "\xEF\xBB\xBF" + utf8},
      {"windows1252.srt", cp1252},
      // The demuxer converts these itself: naming UTF-16 would convert twice.
      {"utf16le.srt", "\xFF\xFE" + encode(utf8, "UTF-16LE")},
      {"utf16be.srt", "\xFE\xFF" + encode(utf8, "UTF-16BE")},
      // The demuxers read no UTF-32: read from a converted copy.
      {"utf32le.srt", std::string("\xFF\xFE\0\0", 4) + encode(utf8, "UTF-32LE")},
      {"utf32be.srt", std::string("\0\0\xFE\xFF", 4) + encode(utf8, "UTF-32BE")},
      // A given charset wins over the detected one: 0xC7 is Cyrillic Ze in it.
      {"forced.srt", cp1252, "WINDOWS-1251",
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
    EXPECT_EQ(
        (std::vector{textAt(*movie, 0.5), textAt(*movie, 2.0), textAt(*movie, 4.5),
                     textAt(*movie, 6.0)}),
        (std::vector<std::optional<std::string>>{std::nullopt, c.first, c.second, std::nullopt}));
  }
}

// Reading ahead stops at each cue: one read past it would replace it unseen.
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

// No subtitles in the file or track, or an unknown charset: nothing, nor the old one.
TEST(MovieSubtitleTest, WhatCannotBeReadOpensNothing) {
  const std::tuple<const char*, std::optional<uint32_t>, std::optional<std::string>> cases[] = {
      {"multitrack.mkv", 2, std::nullopt}, {"subs.srt", 1, std::nullopt},
      {"h264_aac.mp4", 0, std::nullopt},   {"aac.m4a", std::nullopt, std::nullopt},
      {"missing.srt", 0, std::nullopt},    {"subs.srt", std::nullopt, "NO-SUCH-CHARSET"},
  };
  for (const auto& [file, track, charset] : cases) {
    auto movie = VNFFMovie::create();
    ASSERT_TRUE(movie->openSubtitle(vn::test::fixture("subs.ass")));
    EXPECT_FALSE(movie->openSubtitle(vn::test::fixture(file), track, charset)) << file;
    EXPECT_FALSE(movie->subtitle() || movie->hasSubtitle()) << file;
  }
  // A bitmap decoder ignores the charset; a file's only track is track 0.
  auto movie = VNFFMovie::create();
  EXPECT_TRUE(movie->openSubtitle(vn::test::fixture("dvdsub.mkv"), 0, "NO-SUCH-CHARSET"));
  EXPECT_TRUE(movie->openSubtitle(vn::test::fixture("subs.srt"), 0, std::nullopt));
}

}  // namespace

namespace {

// What the video effect stream was given for the picture at t.
struct Shown {
  std::optional<std::string> text;
  std::optional<vn::FilterImage> styled;
};

Shown shownAt(VNFFMovie& movie, int64_t t) {
  movie.decodeImageAtTime(t, nullptr);
  VNFFEffectVideoStream& stream = movie.videoEffectStream();
  return {stream.subtitleCurrentString(), stream.styledSubtitleImage(movie.pictureSettings())};
}

}  // namespace

// The plain renderer is the default, its last-comma rule included; one call selects the styled
// one, which draws the whole line, follows a delay, and takes a style for plain text.
TEST(MovieSubtitleTest, ThePlainRendererIsTheDefaultAndOneCallSelectsTheStyledOne) {
  auto movie = VNFFMovie::create();
  movie->openMedias(vn::test::mediasOf("styled_clip.mp4"));
  movie->setExportMovie(true);
  ASSERT_TRUE(movie->openSubtitle(vn::test::fixture("styled.srt")));
  EXPECT_FALSE(movie->styledSubtitles());
  Shown plain = shownAt(*movie, 1'500'000);
  EXPECT_EQ(plain.text, " I think so.");
  EXPECT_FALSE(plain.styled);

  movie->setStyledSubtitles(true);
  const Shown styled = shownAt(*movie, 1'500'000);
  EXPECT_FALSE(styled.text);
  ASSERT_TRUE(styled.styled);
  EXPECT_FALSE(shownAt(*movie, 2'200'000).styled);
  // Back before the cues read so far: the renderer has them all.
  EXPECT_TRUE(shownAt(*movie, 1'100'000).styled);
  // Later cues, read as they come.
  EXPECT_TRUE(shownAt(*movie, 9'000'000).styled);

  movie->setSubtitleDelay(2'000'000);
  EXPECT_FALSE(shownAt(*movie, 1'500'000).styled);
  EXPECT_TRUE(shownAt(*movie, 3'500'000).styled);
  movie->setSubtitleDelay(0);

  vn::SubtitleStyle big;
  big.size = 0.2;
  movie->setSubtitleStyle(big);
  const std::optional<vn::FilterImage> larger = shownAt(*movie, 1'500'000).styled;
  ASSERT_TRUE(larger);
  EXPECT_GT(larger->extent().height, 1.5 * styled.styled->extent().height);

  movie->setStyledSubtitles(false);
  plain = shownAt(*movie, 1'500'000);
  EXPECT_EQ(plain.text, " I think so.");
  EXPECT_FALSE(plain.styled);
}
