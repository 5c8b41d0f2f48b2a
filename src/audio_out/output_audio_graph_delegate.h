// What the playback output graph asks of the movie that feeds it.
//
// The movie implements it and registers itself with
// VNOutputAudioGraph::setDelegate; the graph does not own it.
#pragma once

class VNOutputAudioGraphDelegate {
 public:
  virtual ~VNOutputAudioGraphDelegate() = default;

  // Asked once per render call, on the audio device thread, before the
  // graph reads its FIFO: put a top-up of the FIFO on the decode queue and
  // return at once. Must not decode, wait, allocate, take a lock other than
  // the queue's, or hold a reference that could make it the last owner of
  // the delegate.
  virtual void decodeMoreAudioDataToAudioOutput() = 0;

  // Forwarded from VNOutputAudioGraph::audioOutputForwordSample; optional,
  // the default does nothing. Called on the caller's thread.
  virtual void audioOutputForwordSample(double /*sample*/) {}
};
