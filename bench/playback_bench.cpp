// CPU cost of playback: the device thread, the time-pitch and level stages,
// the FIFO and the top-up items on a decode queue, over a real-time run of
// SDL's disk driver (written to /dev/null unless SDL_DISKAUDIOFILE says
// otherwise). The decode side appends a ready-made tone, so the figure is the
// cost of the playback path itself, not of decoding or mixing.
//
//   varnel_bench_playback [SECONDS [RATE...]]     default: 10 s at 1.0 and 1.5
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numbers>
#include <string>
#include <thread>
#include <vector>

#include "varnel.h"

namespace {

constexpr int32_t kChunkFrames = 2048;

// Plays the part of the movie: one top-up item per request, each appending
// a chunk while fewer than a chunk's worth wait, as the movie's items do.
class ToneMovie : public VNOutputAudioGraphDelegate,
                  public std::enable_shared_from_this<ToneMovie> {
 public:
  explicit ToneMovie(VNOutputAudioGraph* graph) : graph_(graph), tone_(2 * 44100) {
    for (size_t i = 0; i < tone_.size() / 2; ++i) {
      const float v = 0.3f * static_cast<float>(std::sin(2 * std::numbers::pi * 441.0 * i / 44100));
      tone_[2 * i] = tone_[2 * i + 1] = v;
    }
  }

  void decodeMoreAudioDataToAudioOutput() override {
    // The item holds the movie, as the movie's own items do.
    queue_.addOperation([self = shared_from_this()] { self->topUp(); });
  }

  void finish() { queue_.waitUntilAllOperationsAreFinished(); }
  int64_t produced() const { return produced_; }  // after finish()

 private:
  void topUp() {
    if (graph_->bufferFrames() >= kChunkFrames)
      return;
    const size_t at = static_cast<size_t>(produced_ % 44100) * 2;
    const size_t first = std::min<size_t>(kChunkFrames, (tone_.size() - at) / 2);
    graph_->writeSample(tone_.data() + at, static_cast<int32_t>(first));
    graph_->writeSample(tone_.data(), kChunkFrames - static_cast<int32_t>(first));
    produced_ += kChunkFrames;
  }

  VNOutputAudioGraph* const graph_;  // outlives this
  std::vector<float> tone_;          // one second of 441 Hz, whole periods
  int64_t produced_ = 0;             // decode queue
  vn::SerialQueue queue_{"bench decode"};
};

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 10.0;
  std::vector<float> rates;
  for (int i = 2; i < argc; ++i)
    rates.push_back(static_cast<float>(std::atof(argv[i])));
  if (rates.empty())
    rates = {1.0f, 1.5f};
  setenv("SDL_AUDIODRIVER", "disk", 0);
  setenv("SDL_DISKAUDIOFILE", "/dev/null", 0);

  for (float rate : rates) {
    auto graph = VNOutputAudioGraph::create();
    auto movie = std::make_shared<ToneMovie>(graph.get());
    graph->setDelegate(movie.get());
    graph->setRate(rate);
    graph->start();
    if (!graph->isStart()) {
      std::fprintf(stderr, "varnel_bench_playback: %s\n", graph->failureReason().c_str());
      return 1;
    }
    const double cpuBefore = cpuSeconds();
    const auto wallBefore = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double cpu = cpuSeconds() - cpuBefore;
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallBefore).count();
    graph->stop();
    movie->finish();
    const double consumed =
        static_cast<double>(movie->produced()) - static_cast<double>(graph->bufferFrames());
    std::printf(
        "rate %.2f: %.1f s played, process CPU %.3f s = %.2f %% of one core; "
        "%.0f source frames consumed (%.3f × real time × rate)\n",
        rate, wall, cpu, 100.0 * cpu / wall, consumed, consumed / (wall * 44100.0 * rate));
    graph->setDelegate(nullptr);
  }
  return 0;
}
