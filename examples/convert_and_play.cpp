// Converts a movie into a file while printing progress, then plays the file
// and prints, at each tick of the playback clock, which picture a window
// would show.
//
//   convert_and_play INPUT OUTPUT [SECONDS]    (OUTPUT's extension picks the container)
#include <varnel.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

static std::shared_ptr<VNFFMovie> openMovie(const char* path) {
  auto movie = VNFFMovie::create();
  auto source = VNMediaSource::mediaWithPath(path);
  auto medias = source ? source->createMedias() : std::nullopt;
  if (!medias || medias->empty())
    return nullptr;
  movie->openMedias(*medias);
  return movie;
}

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s INPUT OUTPUT [SECONDS]\n", argv[0]);
    return 2;
  }
  auto movie = openMovie(argv[1]);
  if (!movie)
    return std::fprintf(stderr, "cannot open %s\n", argv[1]), 1;
  VNFFMovieFileOutputFormat format;
  movieFileOutputFormatToDefaults(&format);  // size and frame rate: the movie's
  VNFFMovieExport job(movie, format, argv[2]);
  if (argc > 3)
    job.setDuration(static_cast<int64_t>(std::atof(argv[3]) * 1e6));
  job.setProgress(
      [](const VNFFMovieExport::Progress& p) {
        std::printf("%5.1f %%  %lld frames  %.0f frames/s  ETA %.1f s\n", p.fraction * 100,
                    static_cast<long long>(p.frames), p.framesPerSecond, p.eta);
      },
      250);
  if (const VNFFMovieExport::Result result = job.run(); !result)
    return std::fprintf(stderr, "cannot convert: %s\n", result.reason.c_str()), 1;

  auto played = openMovie(argv[2]);
  if (!played)
    return std::fprintf(stderr, "cannot open %s\n", argv[2]), 1;
  const double fps = double(job.format().framerate) / job.format().frameTime;
  VNPlaybackClock clock(played, played->hasAudio());
  clock.setRunning(true);
  for (int tick = 1; tick <= 20; ++tick) {  // two seconds
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const double now = clock.now();
    std::printf("tick %2d  clock %.3f s  picture %lld\n", tick, now,
                static_cast<long long>(now * fps));
  }
  clock.setRunning(false);
  return 0;
}
