// Seek latency of a movie, as a player sees it when the user drags the
// position: for each of 20 fixed pseudo-random times, seek the movie there,
// wait for the decode queue, and take the picture shown at that time from
// the video media on the decode queue. The times are the same on every run
// (a fixed seed over the movie's length less one second).
//
//   varnel_bench_seek FILE [FRAMES_CSV]
//
// FRAMES_CSV is the file's frame list, `ffprobe -v error -select_streams v:0
// -show_entries frame=best_effort_timestamp_time,pkt_duration_time -of csv=p=0
// FILE`; with it, each seek is checked for landing on the frame that covers
// its time: the last one starting at or before it. A time exactly on a frame
// boundary is counted apart: the lookup keeps the picture ending there.
//
// Prints one line per seek, "seek T -> PTS [covers|misses] MS ms" (seconds,
// milliseconds), then "open MS ms", "total N seeks MS ms" and, with a frame
// list, "covering K/N (B on a boundary)". bench/seek_vs_ffmpeg.sh runs it
// next to ffmpeg.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
}

#include "varnel.h"

namespace {

constexpr int kSeeks = 20;
constexpr uint32_t kSeed = 20240611;

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A picture of the file: when it starts and how long it lasts, seconds.
struct Frame {
  double pts;
  double duration;
};

// The lines of ffprobe's CSV that start with two numbers (side data adds
// lines of its own).
std::vector<Frame> readFrameList(const std::string& path) {
  std::vector<Frame> frames;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    Frame f{};
    if (std::sscanf(line.c_str(), "%lf,%lf", &f.pts, &f.duration) == 2)
      frames.push_back(f);
  }
  return frames;
}

// The listed frame shown at t (seconds of the file): the last one starting
// at or before t, if any. A picture stays shown until the next one starts.
std::optional<Frame> covering(const std::vector<Frame>& frames, double t) {
  std::optional<Frame> shown;
  for (const Frame& f : frames) {
    if (f.pts <= t + 1e-6 && (!shown || f.pts > shown->pts))
      shown = f;
  }
  return shown;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: varnel_bench_seek FILE [FRAMES_CSV]\n");
    return 2;
  }
  const std::string path = argv[1];
  const std::vector<Frame> frames = argc > 2 ? readFrameList(argv[2]) : std::vector<Frame>{};
  if (argc > 2 && frames.empty()) {
    std::fprintf(stderr, "varnel_bench_seek: no frames listed in %s\n", argv[2]);
    return 1;
  }

  const Clock::time_point openStart = Clock::now();
  auto movie = VNFFMovie::create();
  auto medias = VNMediaSource::mediaWithPath(path)->createMedias();
  if (!medias) {
    std::fprintf(stderr, "varnel_bench_seek: cannot read %s\n", path.c_str());
    return 1;
  }
  movie->openMedias(*medias);
  const VNFFMovie::Medias videos = movie->videos();
  if (videos.empty()) {
    std::fprintf(stderr, "varnel_bench_seek: %s has no video\n", path.c_str());
    return 1;
  }
  const std::shared_ptr<VNFFMedia> video = videos.front();
  const double openMs = msSince(openStart);

  const int64_t span = movie->duration() - 1000000;
  if (span <= 0) {
    std::fprintf(stderr, "varnel_bench_seek: %s is shorter than a second\n", path.c_str());
    return 1;
  }
  // Millisecond times, so the baseline is given exactly the same ones.
  std::mt19937 random(kSeed);
  std::vector<int64_t> times;
  for (int i = 0; i < kSeeks; ++i) {
    times.push_back(static_cast<int64_t>(random() % static_cast<uint32_t>(span / 1000)) * 1000);
  }

  double totalMs = 0;
  int covers = 0;
  int boundaries = 0;
  for (const int64_t t : times) {
    const Clock::time_point start = Clock::now();
    movie->seek(t);
    movie->flushOperation();
    // Pictures are taken on the decode queue, as the movie's picture items do.
    double pts = -1;
    movie->decodeQueue()
        .addOperation([&] {
          const AVFrame* frame = video->videoFrameAtTime(t - video->movie_position());
          const std::shared_ptr<VNFFMediaStream> stream = video->videoStream();
          if (frame && stream && frame->data[0])
            pts = static_cast<double>(frame->pts) * av_q2d(stream->timebase());
        })
        ->wait();
    const double ms = msSince(start);
    totalMs += ms;

    const double fileTime = static_cast<double>(video->start_time() + t) / 1e6;
    const char* verdict = "";
    if (!frames.empty()) {
      const std::optional<Frame> want = covering(frames, fileTime);
      const bool ok = want && pts >= 0 && std::abs(want->pts - pts) < 1e-4;
      covers += ok;
      // The lookup keeps a picture until the time is past its end, so a time
      // exactly on a boundary shows the picture that ends there.
      const std::optional<Frame> got = covering(frames, pts);
      const bool boundary = !ok && got && std::abs(got->pts + got->duration - fileTime) < 1e-6;
      boundaries += boundary;
      verdict = ok ? " covers" : boundary ? " misses (on the boundary)" : " misses";
    }
    std::printf("seek %.3f -> %.3f%s %.1f ms\n", static_cast<double>(t) / 1e6, pts, verdict, ms);
  }
  std::printf("open %.1f ms\n", openMs);
  std::printf("total %d seeks %.1f ms\n", kSeeks, totalMs);
  if (!frames.empty())
    std::printf("covering %d/%d (%d on a boundary)\n", covers, kSeeks, boundaries);
  return 0;
}
