// VNFFAudioBuffer: the queue of decoded audio of one audio stream.
//
// A two-filter graph, "abuffer" linked straight to "abuffersink", used only
// as a queue: the decoding side writes frames in (writeFrame), the mixing
// side takes them out (read) as reference-counted frames that outlive the
// decoder's own. The graph does no processing.
//
// Threads: every call may run on any thread; they are serialised by this
// object's own lock.
#pragma once

#include <mutex>

#include "core/formats.h"
#include "ffmpeg/owners.h"

struct AVFilterContext;

class VNFFAudioBuffer {
 public:
  static std::shared_ptr<VNFFAudioBuffer> create();

  VNFFAudioBuffer() = default;
  VNFFAudioBuffer(const VNFFAudioBuffer&) = delete;
  VNFFAudioBuffer& operator=(const VNFFAudioBuffer&) = delete;
  ~VNFFAudioBuffer();

  // Sets the format, for which the first write builds the graph; whatever
  // was queued is dropped. When the graph cannot be built (a sample format
  // without a name, an unknown layout...) the buffer stays unconfigured:
  // writes are dropped and reads return null.
  void config(VNFFAudioFormat format);

  // Queues a decoded frame of the configured format; frames without samples
  // are ignored. The frame's references move into the queue (the frame is
  // left empty). Its pts passes through unchanged.
  void writeFrame(AVFrame* frame);

  // The oldest queued frame, owned by the caller; null when nothing is
  // queued or the buffer is unconfigured.
  vn::ff::Frame read();

  // Forgets the filters and frees the graph. Also run on destruction.
  void free_graph();

  // The format given to the last config.
  VNFFAudioFormat audioFormat() const { return audioFormat_; }

 private:
  // Under lock_: the graph for audioFormat_, the first time a frame comes.
  void buildGraph();
  // Under lock_: forgets the filters and frees the graph.
  void releaseGraph();

  std::mutex lock_;                        // serialises every call
  bool pending_ = false;                   // configured, the graph not built yet
  vn::ff::FilterGraph graph_;              // null when not configured or not built
  AVFilterContext* buffersink_ = nullptr;  // owned by graph_
  AVFilterContext* buffersrc_ = nullptr;   // owned by graph_
  VNFFAudioFormat audioFormat_;            // format of the last config
};
