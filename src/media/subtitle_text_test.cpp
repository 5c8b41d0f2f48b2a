#include "media/subtitle_text.h"

#include <gtest/gtest.h>

TEST(SubtitleTextTest, AssLinesKeepTheTextAfterTheLastFieldOrTag) {
  const std::pair<const char*, const char*> cases[] = {
      // line, text shown
      {"0,0,Default,,0,0,0,,{\\i1}Hello\\NWorld", "Hello\nWorld"},
      {"0,0,Default,,0,0,0,,Plain text", "Plain text"},
      // A comma in the spoken text cuts what comes before it; kept so.
      {"1,0,Default,,0,0,0,,Yes, sir", " sir"},
      // A closing tag at the end leaves nothing after it.
      {"0,0,Default,,0,0,0,,{\\i1}Hello{\\i0}", ""},
      {"no separators\\Nat all", "no separators\nat all"},
      {"0,0,Default,,0,0,0,,ends with a backslash\\", "ends with a backslash\\"},
      {"", ""},
  };
  for (const auto& [line, shown] : cases)
    EXPECT_EQ(vn::subtitleTextFromAss(line), shown) << line;
}

TEST(SubtitleTextTest, DisplayTimesBecomeStreamTimes) {
  // Shown 1500 ms to 4000 ms after a packet at 10 s, in milliseconds.
  vn::SubtitleTimes t = vn::subtitleTimes(10000000, 1500, 4000, AVRational{1, 1000});
  EXPECT_EQ(std::pair(t.pts, t.duration), std::pair(int64_t{11500}, int64_t{2500}));
  // In 1/90000, rounded to nearest.
  t = vn::subtitleTimes(0, 0, 1001, AVRational{1, 90000});
  EXPECT_EQ(std::pair(t.pts, t.duration), std::pair(int64_t{0}, int64_t{90090}));
  // An end before the start is an unsigned difference: a very long display.
  t = vn::subtitleTimes(0, 10, 0, AVRational{1, 1000});
  EXPECT_EQ(t.duration, 4294967286);
}
