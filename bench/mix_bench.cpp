// Cost of the audio mix per playback chunk: N audio medias opened on one
// file (each with its own demuxer and decoder), mixed by an audio mix stream
// in the playback format (packed float, stereo, 44100 Hz), read 2048 frames
// at a time through the file's whole length, as the movie's top-up items
// read it. The time per chunk includes reading and decoding the N inputs.
//
//   varnel_bench_mix FILE [N...]        default N: 2 8 32
//
// Prints one line per N: "mix N chunks C read US us/chunk all US us/chunk
// rms R", where "read" counts the chunk reads only and "all" also opening
// the medias and building the mix graph. bench/mix_vs_ffmpeg.sh runs it
// next to ffmpeg's amix.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/samplefmt.h>
}

#include "varnel.h"

namespace {

constexpr int32_t kChunkFrames = 2048;
constexpr int32_t kRate = 44100;

using Clock = std::chrono::steady_clock;

double usSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// The audio media of a new source on path, opened; null when there is none.
std::shared_ptr<VNFFMedia> openAudioMedia(const std::string& path) {
  auto medias = VNMediaSource::mediaWithPath(path)->createMedias();
  if (!medias)
    return nullptr;
  for (const auto& media : *medias) {
    media->open();
    if (media->hasAudio())
      return media;
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: varnel_bench_mix FILE [N...]\n");
    return 2;
  }
  const std::string path = argv[1];
  std::vector<int> counts;
  for (int i = 2; i < argc; ++i)
    counts.push_back(std::atoi(argv[i]));
  if (counts.empty())
    counts = {2, 8, 32};
  Varnel::initialize();

  for (const int n : counts) {
    const Clock::time_point start = Clock::now();
    std::vector<std::shared_ptr<VNFFMedia>> medias;
    for (int i = 0; i < n; ++i) {
      auto media = openAudioMedia(path);
      if (!media) {
        std::fprintf(stderr, "varnel_bench_mix: no audio in %s\n", path.c_str());
        return 1;
      }
      media->seek(0);
      medias.push_back(std::move(media));
    }
    auto mix = VNFFEffectAudioStream::create();
    mix->setOutputParam({AV_SAMPLE_FMT_FLT, vn::defaultChannelLayout(2), kRate});
    mix->setInputStreams(medias);
    if (mix->sourceCount() != n) {
      std::fprintf(stderr, "varnel_bench_mix: the mix took %d of %d inputs\n", mix->sourceCount(),
                   n);
      return 1;
    }

    const int64_t chunks =
        (medias.front()->duration() * kRate / 1000000 + kChunkFrames - 1) / kChunkFrames;
    std::vector<float> chunk(2 * kChunkFrames);
    double sumSquares = 0;
    const Clock::time_point readStart = Clock::now();
    for (int64_t i = 0; i < chunks; ++i) {
      mix->readSample(chunk.data(), kChunkFrames);
      // A mix that gave only silence would be cheap and wrong: keep its level.
      for (float s : chunk)
        sumSquares += static_cast<double>(s) * s;
    }
    const double readUs = usSince(readStart);
    const double allUs = usSince(start);
    const double rms = std::sqrt(sumSquares / static_cast<double>(chunks * 2 * kChunkFrames));
    std::printf("mix %d chunks %lld read %.1f us/chunk all %.1f us/chunk rms %.3f\n", n,
                static_cast<long long>(chunks), readUs / static_cast<double>(chunks),
                allUs / static_cast<double>(chunks), rms);
    std::fflush(stdout);
  }
  return 0;
}
