// VNFFEffectAudioStream: the enabled audio streams of a movie's medias mixed
// into one stream of one output format, volume-adjusted.
//
//   source × n ─► "amix" (n ≥ 2) ─► "aformat" ─► "volume" ─► "volume"
//   ("volumeFix", ×n) ─► "abuffersink"
//
// Each source is an "abuffer" fed on demand: when the sink cannot deliver,
// every source the graph asked for gets one frame pulled from its media
// stream (its media reads and decodes as far as needed). Sources never end:
// a stream with nothing more gives silence. At most 32 streams are mixed.
//
// Threads: setInputStreams and the reads run on the movie's decode queue, or
// on the application's thread while it exports; setVolume may come from any
// thread and takes effect at the next read.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/formats.h"
#include "ffmpeg/owners.h"

struct AVFilterContext;
struct AVFrame;
class VNFFMedia;
class VNFFMediaStream;

class VNFFEffectAudioStream {
 public:
  static std::shared_ptr<VNFFEffectAudioStream> create();
  VNFFEffectAudioStream();
  VNFFEffectAudioStream(const VNFFEffectAudioStream&) = delete;
  VNFFEffectAudioStream& operator=(const VNFFEffectAudioStream&) = delete;
  ~VNFFEffectAudioStream();

  // The format the graph delivers. Setting it does not rebuild the graph.
  VNFFAudioFormat outputParam();
  void setOutputParam(VNFFAudioFormat format);

  // Rebuilds the graph over the enabled audio streams of the medias (media
  // order, then stream order; at most 32), in the output format and track
  // summing of the moment. A graph that fails to configure is freed and
  // reads give silence. The streams are taken at once; the graph itself is
  // built when it is first read or looked at, so that a movie whose sound is
  // never read loads no filter library.
  void setInputStreams(const std::vector<std::shared_ptr<VNFFMedia>>& medias);
  std::vector<std::shared_ptr<VNFFMedia>> inputs();

  // How the tracks add up: summed (the default; two loud tracks can go past
  // full scale) or averaged (each at 1/n, never past full scale). Takes
  // effect when the graph is next built.
  void setAveragesTracks(bool value) { averagesTracks_.store(value); }
  bool averagesTracks() const { return averagesTracks_.load(); }

  // How a source starts after a seek. By default the frame the seek took
  // is not heard: silence is given in 1024-sample blocks until the position
  // passes its end, and a position at a frame's very end waits one block
  // more. With exact starts, the part of that frame from the position on is
  // handed on at once and the next frame follows without a gap, so the
  // sound starts where it was asked to. Takes effect at the next read.
  void setExactStarts(bool value) { exactStarts_.store(value); }
  bool exactStarts() const { return exactStarts_.load(); }

  // The user volume factor (1.0 is unchanged).
  void setVolume(double volume);
  double volume();

  // Fills frames sample frames of packed outputParam audio at bytes.
  // Always true: silence whenever the mix has no exact buffer.
  bool readSample(void* bytes, int32_t frames);
  // Fills frame (nb_samples, format and layout set, plane 0 allocated by
  // the caller) from the sink. Always true.
  bool readFrame(AVFrame* frame);

  void free_graph();

  // The argument text the graph gave its stages, by instance name ("amix",
  // "format", "volume", "volumeFix"); empty when the stage is absent.
  // For diagnostics and tests.
  std::string stageArguments(const std::string& instanceName);
  // Number of sources linked in the current graph.
  int sourceCount();

  // FFmpeg's name of a channel mask from the fixed table of 26 layouts
  // ("stereo", "5.1", "downmix", ...); "" when the mask is not in it.
  static std::string channelLayoutName(uint64_t layout);

 private:
  struct Source {
    AVFilterContext* filter = nullptr;  // owned by graph_
    std::shared_ptr<VNFFMediaStream> stream;
    // With exact starts: the seek and frame last handed on whole or in part.
    int64_t deliveredSeek = 0;
    int64_t deliveredPts = 0;
    bool delivered = false;
  };

  // Creates one source for a stream; null on failure.
  AVFilterContext* createInputMediaStreamFilter(const VNFFMediaStream& stream, int index);
  // Gives the source one frame by the pull rules: the stream's next frame
  // once its running position has passed the current one, else silence.
  void requestFrame(Source& source);
  // Feeds every source the graph asked for; false when none asked.
  bool feedStarvedSources();
  void applyPendingVolume();
  // Builds the graph setInputStreams asked for, if it is not built yet.
  void buildGraph();

  vn::ff::FilterGraph graph_;
  AVFilterContext* buffersink_ = nullptr;    // owned by graph_
  AVFilterContext* volumeAdjust_ = nullptr;  // owned by graph_
  std::vector<Source> sources_;
  // What the next build is over; graphPending_ while it is to be made.
  std::vector<std::shared_ptr<VNFFMediaStream>> pendingStreams_;
  VNFFAudioFormat pendingFormat_{};
  bool pendingAverages_ = false;
  bool graphPending_ = false;
  std::string volumeText_;  // what the "volume" stage was last given
  vn::ff::Frame pulled_;    // scratch: what the sink gives
  vn::ff::Frame feed_;      // scratch: what a source gets
  vn::ff::Frame target_;    // scratch: readSample's view of the caller's bytes

  std::mutex lock_;
  // Guarded by lock_.
  VNFFAudioFormat outputParam_{};
  std::vector<std::shared_ptr<VNFFMedia>> inputs_;

  std::atomic<double> volume_{1.0};
  std::atomic<bool> volumeChanged_{false};
  std::atomic<bool> averagesTracks_{false};
  std::atomic<bool> exactStarts_{false};
};
