// The export job: what it writes and reports; an unfinished job leaves nothing.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "media/media.h"
#include "media/media_source.h"
#include "media/media_stream.h"
#include "movie/movie.h"
#include "movie/movie_export.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;

std::shared_ptr<VNFFMovie> movieOf(const std::string& path) {
  auto movie = VNFFMovie::create();
  auto medias = VNMediaSource::mediaWithPath(path)->createMedias();
  movie->openMedias(medias ? *medias : VNFFMovie::Medias{});
  return movie;
}

// An empty folder: what is in it afterwards is what the job left.
std::string emptyFolder() {
  const std::string dir = vn::test::scratchDir() + "/export";
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

std::vector<std::string> entries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir))
    names.push_back(entry.path().filename().string());
  return names;
}

}  // namespace

TEST(MovieExportTest, WritesTheSpanAndReportsProgressUpToTheLastFrame) {
  const struct {
    const char* input;
    VNFFMovieExport::Pictures pictures;
    int64_t frames;  // 1.2 s at 25 a second; none without video
  } kCases[] = {{"h264_aac.mp4", VNFFMovieExport::kComposed, 30},
                {"h264_aac.mp4", VNFFMovieExport::kDecoded, 30},
                {"aac.m4a", VNFFMovieExport::kComposed, 0}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.input) + (c.pictures ? " decoded" : " composed"));
    const std::string dir = emptyFolder(), out = dir + "/out.mkv";
    VNFFMovieFileOutputFormat format;
    movieFileOutputFormatToDefaults(&format);  // the size and rate are the movie's
    VNFFMovieExport job(movieOf(vn::test::fixture(c.input)), format, out);
    job.setStart(2'000'000);
    job.setDuration(1'200'000);
    job.setPictures(c.pictures);
    std::vector<VNFFMovieExport::Progress> seen;
    job.setProgress([&](const VNFFMovieExport::Progress& p) { seen.push_back(p); }, 0);
    const VNFFMovieExport::Result result = job.run();
    ASSERT_TRUE(result) << result.reason;
    EXPECT_EQ(entries(dir), std::vector<std::string>{"out.mkv"});
    // A report after every frame (or second of audio), the last once more.
    ASSERT_EQ(seen.size(), c.frames > 0 ? size_t(c.frames) + 1 : 3u);
    for (size_t i = 1; i < seen.size(); ++i)
      EXPECT_GE(seen[i].fraction, seen[i - 1].fraction);
    EXPECT_EQ(seen.back().fraction, 1.0);
    EXPECT_DOUBLE_EQ(seen.back().seconds, 1.2);
    EXPECT_EQ(seen.back().frames, c.frames);
  }
}

TEST(MovieExportTest, AJobThatDoesNotFinishLeavesNothing) {
  const struct {
    const char* input;
    const char* output;
    int audioCodec;      // 0: the container's
    int cancelAtReport;  // cancel from the progress callback; -1 never
    VNFFMovieExport::Result::Status status;
    const char* reason;
  } kCases[] = {
      {"h264_aac.mp4", "out.mkv", 0, 3, VNFFMovieExport::Result::kCancelled, "cancelled"},
      // The header is refused once the file has been created.
      {"h264_aac.mp4", "out.mp4", AV_CODEC_ID_WMAV2, -1, VNFFMovieExport::Result::kFailed,
       "the mp4 container cannot hold wmav2"},
      {"h264_aac.mp4", "out.xyz", 0, -1, VNFFMovieExport::Result::kFailed, "unknown container"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.input) + " -> " + c.output);
    const std::string dir = emptyFolder();
    VNFFMovieFileOutputFormat format;
    movieFileOutputFormatToDefaults(&format);
    format.audio_codec = c.audioCodec;
    VNFFMovieExport job(movieOf(vn::test::fixture(c.input)), format, dir + "/" + c.output);
    int reports = 0;
    job.setProgress(
        [&](const VNFFMovieExport::Progress&) {
          if (reports++ == c.cancelAtReport)
            job.cancel();
        },
        0);
    const VNFFMovieExport::Result result = job.run();
    EXPECT_EQ(result.status, c.status);
    EXPECT_NE(result.reason.find(c.reason), std::string::npos) << result.reason;
    EXPECT_EQ(entries(dir), std::vector<std::string>{});
  }
}

namespace {

// The pictures of an export of [start, start + duration) seconds at width x height, as ffmpeg
// decodes them; subtitles set up by `show` on the movie.
std::vector<vn::test::Raster> exportedPictures(const std::string& input,
                                               const std::function<void(VNFFMovie&)>& show,
                                               VNFFMovieExport::Pictures pictures,
                                               double start,
                                               double duration,
                                               int width,
                                               int height) {
  const std::string out = emptyFolder() + "/out.mkv";
  VNFFMovieFileOutputFormat format;
  movieFileOutputFormatToDefaults(&format);
  format.width = width;
  format.height = height;
  format.video_quality = 4;  // fine enough that the encoder hides nothing compared here
  format.speed_preset = "ultrafast";
  std::shared_ptr<VNFFMovie> movie = movieOf(input);
  movie->setSelectSubtitleStreams(VNIndexSet{});
  if (show)
    show(*movie);
  VNFFMovieExport job(movie, format, out);
  job.setStart(std::llround(start * 1e6));
  job.setDuration(std::llround(duration * 1e6));
  job.setPictures(pictures);
  job.setWritesAudio(false);
  const VNFFMovieExport::Result result = job.run();
  EXPECT_TRUE(result) << result.reason;
  return vn::test::readPictures(out, "null");
}

// The pixels (indices) where `drawn` differs from `plain` clearly.
std::vector<size_t> changedPixels(const vn::test::Raster& drawn, const vn::test::Raster& plain) {
  std::vector<size_t> changed;
  for (size_t i = 0; i + 3 < drawn.rgba.size() && i + 3 < plain.rgba.size(); i += 4) {
    const uint8_t *a = &drawn.rgba[i], *b = &plain.rgba[i];
    if (std::abs(a[0] - b[0]) + std::abs(a[1] - b[1]) + std::abs(a[2] - b[2]) > 60)
      changed.push_back(i / 4);
  }
  return changed;
}

// PSNR of the colour bytes of two pictures over some of their pixels.
double psnrAt(const vn::test::Raster& a,
              const vn::test::Raster& b,
              const std::vector<size_t>& pixels) {
  double squares = 0;
  for (const size_t p : pixels) {
    for (size_t c = 0; c < 3; ++c)
      squares += std::pow(double(a.rgba[p * 4 + c]) - double(b.rgba[p * 4 + c]), 2);
  }
  const double mse = squares / double(pixels.size() * 3);
  return mse == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / mse);
}

}  // namespace

// Shows the first bitmap subtitle track (stream 2) of a movie's video over its pictures.
void showBitmapTrack(VNFFMovie& movie) {
  for (const std::shared_ptr<VNFFMedia>& media : movie.videos()) {
    std::optional<VNIndexSet> streams = media->selectStreams();
    if (streams)
      streams->insert(2);
    media->setSelectStreams(std::move(streams));
    media->updateSelectStreams();
  }
  movie.setSelectSubtitleStreams(VNIndexSet{0});
}

// Subtitles laid over decoded frames in the encoder's YUV look as the composed path draws them,
// on the same frames: text at another output size, a bitmap subtitle scaled with its picture.
TEST(MovieExportTest, SubtitlesOverDecodedFramesLookAsComposedOnes) {
  const struct {
    const char* name;
    const char* input;
    std::function<void(VNFFMovie&)> show;
    double start, duration;  // seconds of the movie, across a subtitle's start and end
    int width, height;
    int shown;     // frames that carry the subtitle
    double alike;  // PSNR of the two paths over the pixels the subtitle changes
  } kCases[] = {
      {"text", "styled_clip.mp4",
       [](VNFFMovie& movie) {
         movie.openSubtitle(vn::test::fixture("styled.srt"));
         movie.setStyledSubtitles(true);
       },
       0.9, 1.2, 480, 270, 25, 35},  // 1.0 to 2.0 s at 25 frames a second
      // The page shows from 2.0 to 3.99 s: on the 60 pictures of 1.9 + k / 29.97 s for k = 3
      // to 62 (its set is read ahead of the pictures it is muxed after). The composed path
      // resamples the picture with its subtitle (even at its own size), softening the box's edges
      // over a row or two; over the decoded frame they stay as sharp as the scaled page has them.
      // Hence the lower bound.
      {"bitmap", "dvbsub_open.ts", showBitmapTrack, 1.9, 2.2, 360, 240, 60, 25},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const std::string input = vn::test::fixture(c.input);
    const auto plain = exportedPictures(input, nullptr, VNFFMovieExport::kDecoded, c.start,
                                        c.duration, c.width, c.height);
    const auto plainComposed = exportedPictures(input, nullptr, VNFFMovieExport::kComposed, c.start,
                                                c.duration, c.width, c.height);
    const auto composed = exportedPictures(input, c.show, VNFFMovieExport::kComposed, c.start,
                                           c.duration, c.width, c.height);
    const auto decoded = exportedPictures(input, c.show, VNFFMovieExport::kDecodedWithSubtitles,
                                          c.start, c.duration, c.width, c.height);
    ASSERT_EQ(decoded.size(), plain.size());
    ASSERT_EQ(decoded.size(), composed.size());
    int shownDecoded = 0, shownComposed = 0;
    double worst = 99;
    for (size_t i = 0; i < decoded.size(); ++i) {
      const auto covered = changedPixels(decoded[i], plain[i]);
      const auto coveredComposed = changedPixels(composed[i], plainComposed[i]);
      shownDecoded += !covered.empty();
      shownComposed += !coveredComposed.empty();
      // Over the pixels the subtitle changes in either picture: around them the two paths
      // scale the picture itself apart.
      std::vector<size_t> both = covered;
      both.insert(both.end(), coveredComposed.begin(), coveredComposed.end());
      if (!both.empty())
        worst = std::min(worst, psnrAt(decoded[i], composed[i], both));
    }
    EXPECT_EQ(shownDecoded, c.shown);
    EXPECT_EQ(shownComposed, c.shown);
    EXPECT_GE(worst, c.alike);
  }
}
