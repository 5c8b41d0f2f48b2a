// The reading half of VNFFMedia: routing, seeking and lookups at a time.
#include "media/media.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/mathematics.h>
}

#include "media/media_test_support.h"

namespace {

using vn::test::fixture;
using vn::test::mediasAt;
using vn::test::mediasOf;
using vn::test::openWhole;

constexpr AVRational kMicroseconds{1, 1000000};

// ffprobe's best-effort times of every video frame (stream time base), sorted.
std::vector<int64_t> ffprobeFramePts(const std::string& path) {
  int status = -1;
  std::istringstream out(
      vn::test::runShell("ffprobe -v error -select_streams v:0 -show_entries "
                         "frame=best_effort_timestamp -of csv=p=0 '" +
                             path + "'",
                         &status));
  EXPECT_EQ(status, 0);
  std::vector<int64_t> pts;
  for (std::string line; std::getline(out, line);) {
    line = line.substr(0, line.find(','));  // side data adds empty fields
    if (!line.empty() && line.find_first_not_of("-0123456789") == std::string::npos) {
      pts.push_back(std::stoll(line));
    }
  }
  std::sort(pts.begin(), pts.end());
  return pts;
}

int64_t microseconds(double seconds) {
  return static_cast<int64_t>(seconds * 1e6);
}

}  // namespace

TEST(MediaReadingTest, SeeksBeforeTheStartAndPastTheEnd) {
  VNMediaSource::Medias medias = mediasOf("h264_aac.mp4");
  ASSERT_EQ(medias.size(), 2u);
  VNFFMedia& sound = *medias[1];
  std::shared_ptr<VNFFMediaStream> audio = sound.audioStream();
  sound.seek(0);
  if (audio->frame()->nb_samples == 0) {
    ASSERT_TRUE(sound.forwardStream(audio));
  }
  const int64_t firstAtZero = audio->frame()->pts;
  sound.seek(-1000000);
  EXPECT_EQ(audio->seek_pts(), av_rescale_q(-1000000, kMicroseconds, audio->timebase()));
  // The decoder drops the first packet's priming: the first frame comes next.
  if (audio->frame()->nb_samples == 0) {
    ASSERT_TRUE(sound.forwardStream(audio));
  }
  EXPECT_LE(audio->frame()->pts, std::min<int64_t>(firstAtZero, 0));
  // Past the end: the last frame, and nothing after it.
  VNFFMedia& pictures = *medias[0];
  pictures.seek(20000000);
  AVFrame* frame = pictures.videoFrameAtTime(20000000);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->pts, ffprobeFramePts(fixture("h264_aac.mp4")).back());
  EXPECT_EQ(pictures.videoFrameAtTime(25000000)->pts, frame->pts) << "nothing after the last";
}

TEST(MediaReadingTest, MediasWithoutVideo) {
  std::shared_ptr<VNFFMedia> sound = openWhole("aac.m4a");
  int calls = 0;
  sound->thumbnailAtTime(1000000, [&](AVFrame*) { ++calls; });
  EXPECT_TRUE(!sound->videoFrameAtTime(1000000) && calls == 0 && !sound->subtitleAtTime(1000000) &&
              !sound->subtitleStringAtTime(1000000));
}

TEST(MediaReadingTest, SubtitleTextIsShownStrictlyInsideItsTimes) {
  std::shared_ptr<VNFFMedia> ass = openWhole("subs.ass");
  ASSERT_TRUE(ass->hasSubtitle());
  ass->seek(0);
  const std::pair<double, std::optional<std::string>> asked[] = {
      {3.0, "Hello\nWorld"}, {2.0, std::nullopt}, {4.0, std::nullopt}, {4.7, " sir"},
      {5.1, std::nullopt},   {5.5, " bien"},      {100, std::nullopt},
  };
  for (const auto& [at, text] : asked)
    EXPECT_EQ(ass->subtitleStringAtTime(microseconds(at)), text) << at;
  // A rewind reads the file again from its start.
  ass->seek(0);
  EXPECT_EQ(ass->subtitleStringAtTime(3000000), "Hello\nWorld");
}

TEST(MediaReadingTest, BitmapSubtitleOfThePictureMedia) {
  std::shared_ptr<VNFFMedia> media = openWhole("dvdsub.mkv");
  media->seek(0);
  // Reading pictures, as playback does, decodes the subpicture on the way.
  for (int64_t t = 0; t <= 1000000; t += 100000)
    media->videoFrameAtTime(t);
  EXPECT_FALSE(media->subtitleAtTime(1000000));
  for (int64_t t = 1000000; t <= 3000000; t += 100000)
    media->videoFrameAtTime(t);
  std::optional<vn::FilterImage> image = media->subtitleAtTime(3000000);
  ASSERT_TRUE(image);  // 160x48 at 280 from the left, 32 from the bottom of 720x480
  const vn::Rect extent = image->extent();
  EXPECT_EQ(std::vector({extent.x, extent.y, extent.width, extent.height}),
            std::vector<double>({280, 32, 160, 48}));
  EXPECT_FALSE(media->subtitleAtTime(2000000)) << "not at its exact start";
}

TEST(MediaReadingTest, ReadingAheadFollowsThePlaybackClock) {
  VNMediaSource::Medias medias = mediasOf("h264_aac.mp4");
  VNFFMedia& sound = *medias[1];
  auto movie = std::make_shared<vn::test::FakeMovie>();
  sound.setMovie(movie);
  sound.seek(0);
  std::shared_ptr<VNFFMediaStream> audio = sound.audioStream();
  // While playing at 0 s, reading stops two seconds ahead.
  int advanced = 0;
  while (advanced < 10000 && sound.forwardStream(audio))
    ++advanced;
  EXPECT_TRUE(sound.last_pts() >= 2000000 && sound.last_pts() < 2100000) << sound.last_pts();
  // Forced, or while exporting, it goes on from what was read.
  EXPECT_TRUE(sound.forwardStream(audio, true));
  movie->exporting = true;
  while (advanced < 10000 && sound.forwardStream(audio))
    ++advanced;
  EXPECT_GT(sound.last_pts(), 9900000) << "to the end of the file";
  // Audio beside video is never read for; with video off no picture is decoded.
  std::shared_ptr<VNFFMedia> media = openWhole("h264_aac.mp4");
  const int64_t position = avio_tell(media->formatContext()->pb);
  EXPECT_FALSE(media->forwardStream(media->audioStream()));
  EXPECT_EQ(std::pair(avio_tell(media->formatContext()->pb), media->last_pts()),
            std::pair(position, int64_t{AV_NOPTS_VALUE}));
  media->setMovie(movie);
  movie->noVideo = true;
  for (int i = 0; i < 50; ++i)
    media->forwardNextPacket();
  EXPECT_FALSE(media->streams()[0]->hasFrame());
}

TEST(MediaReadingTest, ReadingEndsOnBrokenInputs) {
  // Damaged packets, a file cut short, raw streams without an index.
  for (const std::string& path :
       {fixture("broken/flips_h264_aac.mp4"), fixture("truncated_faststart.mp4"),
        fixture("mpeg2_mp2.mpg"), fixture("ac3_51.ac3")}) {
    SCOPED_TRACE(path);
    for (const auto& media : mediasAt(path)) {
      for (int64_t t : {5000000, -3000000, 60000000, 1000000}) {
        media->seek(t);
        media->videoFrameAtTime(t);
        media->subtitleStringAtTime(t);
      }
      int reads = 0;
      for (const auto& s : media->streams()) {
        while (s->enable() && reads < 100000 && media->forwardStream(s))
          ++reads;
      }
      EXPECT_LT(reads, 100000);
    }
  }
  // A subtitle stream beside video is never read for; the lookup still returns.
  std::shared_ptr<VNFFMedia> whole = openWhole("multitrack.mkv");
  EXPECT_FALSE(whole->subtitleStringAtTime(3000000));
}

// 50 random seeks give the covering frame: B-frames, NTSC, VFR, sparse times, late video, no delay.
TEST(MediaReadingTest, SeekLandsOnTheFrameThatCoversTheTime) {
  for (const char* name :
       {"h264_aac.mp4", "h264_23976.mp4", "vfr.mkv", "mpeg2_mp2.mpg", "dvdsub.mpg", "mpeg2_24p.ts",
        "h264_2997.ts", "wmv2_wmav2.wmv", "rv20_ac3.rm"}) {
    const std::string path = fixture(name);
    SCOPED_TRACE(name);
    VNMediaSource::Medias medias = mediasAt(path);
    ASSERT_FALSE(medias.empty());
    std::shared_ptr<VNFFMedia> media = medias[0];
    std::shared_ptr<VNFFMediaStream> video = media->videoStream();
    ASSERT_TRUE(video);
    const std::vector<int64_t> frames = ffprobeFramePts(path);
    ASSERT_GT(frames.size(), 10u);
    const AVRational tb = video->timebase();
    // From the first picture (which may start after the file) to the last.
    const int64_t first = av_rescale_q(frames.front(), tb, kMicroseconds) - media->start_time();
    const int64_t last = av_rescale_q(frames.back(), tb, kMicroseconds) - media->start_time();
    std::mt19937 random(2024);
    std::uniform_int_distribution<int64_t> pick(first, last);
    int exact = 0;
    for (int i = 0; i < 50; ++i) {
      const int64_t t = pick(random);
      media->seek(t);
      AVFrame* frame = media->videoFrameAtTime(t);
      ASSERT_NE(frame->pts, AV_NOPTS_VALUE) << "t " << t;
      const int64_t want = media->start_time() + t;
      const auto covering =
          std::partition_point(
              frames.begin(), frames.end(),
              [&](int64_t pts) { return av_compare_ts(pts, tb, want, kMicroseconds) <= 0; }) -
          1;
      const auto got = std::lower_bound(frames.begin(), frames.end(), frame->pts);
      const int off = static_cast<int>(got - covering);
      exact += off == 0 && got != frames.end() && *got == frame->pts;
      EXPECT_LE(std::abs(off), 1) << "t " << t << " off by " << off;
    }
    EXPECT_GE(exact, 49);
  }
}

// A seek shows what a read from the start shows: decoding starts at a keyframe.
TEST(MediaReadingTest, SeekShowsThePictureOfAReadFromTheStart) {
  for (const char* name : {"mpeg2_mp2.mpg", "mpeg2_24p.ts", "h264_2997.ts", "h264_aac.mp4"}) {
    SCOPED_TRACE(name);
    std::shared_ptr<VNFFMedia> seeking = mediasOf(name).at(0);
    std::shared_ptr<VNFFMedia> reading = mediasOf(name).at(0);
    reading->seek(0);
    const int64_t span = seeking->duration() - 1000000;
    for (int i = 1; i <= 6; ++i) {
      const int64_t t = span * i / 7 + 12345;
      seeking->seek(t);
      AVFrame* shown = seeking->videoFrameAtTime(t);
      AVFrame* read = nullptr;
      for (int step = 0; step < 1000; ++step) {
        read = reading->videoFrameAtTime(t);
        if (read->pts >= shown->pts)
          break;
      }
      ASSERT_EQ(read->pts, shown->pts) << "t " << t;
      ASSERT_EQ(read->height, shown->height);
      size_t differing = 0;
      for (int y = 0; y < shown->height; ++y) {
        differing += std::memcmp(read->data[0] + y * read->linesize[0],
                                 shown->data[0] + y * shown->linesize[0], shown->width) != 0;
      }
      EXPECT_EQ(differing, 0u) << "t " << t << ": rows of luma that differ";
    }
  }
}
