// The export job: what it writes and reports; an unfinished job leaves nothing.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "media/media_source.h"
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
