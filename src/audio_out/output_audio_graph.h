// VNOutputAudioGraph: the playback chain of a movie, and the FIFO of mixed
// samples that feeds it.
//
//   render callback ──► converter ──► time-pitch (rate) ──► output (volume) ──► device
//         ▲
//   readSample: ask the delegate for a top-up, then take the frames from the FIFO
//
// Samples are interleaved 32-bit float stereo at 44 100 Hz, 8 bytes a frame.
// The movie appends chunks with writeSample on its decode queue; each render
// call on the device thread asks the delegate for one top-up (which only
// queues work) and then takes exactly the frames it needs from the FIFO, or,
// when fewer are there, takes what there is and plays silence for the whole
// call. Playback rate and volume act only on the chain, never on the FIFO.
//
// Threads: the application thread for the graph's life cycle (create, start,
// stop, setDelegate, destruction), any thread for rate, volume, writeSample,
// bufferFrames and clearBuffer, the device thread for readSample. The FIFO's
// own lock is the only lock between them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "audio_out/audio_graph.h"
#include "audio_out/output_audio_graph_delegate.h"
#include "core/fifo_data_buffer.h"

class VNOutputAudioGraph : public VNAudioGraph {
 public:
  // The chain built and configured, stopped, with an empty FIFO.
  static std::shared_ptr<VNOutputAudioGraph> create();
  // Forgets the delegate, stops the device, then releases the FIFO and the
  // units.
  ~VNOutputAudioGraph() override;

  // Makes converter, output and time-pitch units and connects converter →
  // time-pitch → output.
  void createNode() override;
  // Installs the render callback on the converter, with this graph as the
  // one asked for samples, and the playback format on its input.
  void configNode() override;

  // Playback speed, 1.0 normal (0.25…4); the time-pitch unit's rate. rate()
  // is 0 when the unit cannot be read. Any thread.
  void setRate(float rate);
  float rate() const;
  // Output level, linear 0…1; the output unit's volume. Any thread.
  void setVolume(float volume);
  float volume() const;

  // readSample / writeSample on the first buffer of the list.
  bool streamReadSample(uint32_t bus, vn::AudioBufferList buffers, int32_t frames) override;
  bool streamWriteSample(uint32_t bus, vn::AudioBufferList buffers, int32_t frames) override;

  // Asks the delegate for a top-up, then reads frames × 8 bytes from the
  // FIFO into bytes. True only if that many were there; on false whatever
  // was read is gone from the FIFO all the same. Device thread.
  bool readSample(void* bytes, int32_t frames);
  // Appends frames × 8 bytes to the FIFO. Always true. Any thread.
  bool writeSample(const void* bytes, int32_t frames);
  // Whole frames waiting in the FIFO. Any thread.
  uint64_t bufferFrames();
  // Empties the FIFO. Any thread.
  void clearBuffer();

  // Forwarded to the delegate, if there is one.
  void decodeMoreAudioDataToAudioOutput();
  void audioOutputForwordSample(double sample);

  // The movie that feeds the graph; not owned. It outlives this graph's
  // running: the movie calls stop() (or setDelegate(nullptr) while stopped)
  // before it goes, since the device thread may be calling it until then.
  void setDelegate(VNOutputAudioGraphDelegate* delegate);
  VNOutputAudioGraphDelegate* delegate() const;

  // The FIFO of mixed samples; the same object for the graph's whole life.
  const std::shared_ptr<VNFIFODataBuffer>& dataBuffer() const { return dataBuffer_; }

  int32_t outputConverterNode() const { return outputConverterNode_; }
  int32_t outputNode() const { return outputNode_; }
  int32_t speedNode() const { return speedNode_; }

 protected:
  VNOutputAudioGraph();
  // Builds the chain (base init), then makes the FIFO.
  void init() override;

 private:
  int32_t outputConverterNode_ = 0;  // converter unit that receives the samples
  int32_t outputNode_ = 0;           // the default output unit
  int32_t speedNode_ = 0;            // time-pitch unit for the playback rate
  // Made in init() and never replaced, so the device thread reads it
  // without a lock.
  std::shared_ptr<VNFIFODataBuffer> dataBuffer_;
  std::atomic<VNOutputAudioGraphDelegate*> delegate_{nullptr};  // not owned
};
