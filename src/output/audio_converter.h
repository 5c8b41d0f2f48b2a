// VNFFMpegAudioConverter: converts PCM from one audio format to another with
// libswresample, and is at the same time the movie file writer's audio queue.
//
// Samples pushed in (writeData, or convertFrom with no output space) wait in
// the resampler's own buffer; pulls with no input (convertFrom with no input
// planes) drain them into the caller's planes. outputBufferFrames says how
// many are held, counted at the output rate.
//
//   unconfigured --convertFrom(in, out) succeeds--> configured
//   configured --convertFrom with other formats--> configured (held samples
//                                                   dropped) or unconfigured
//
// Every operation of an unconfigured converter does nothing and counts 0.
// No locks: the owner calls one converter from one thread at a time.
#pragma once

#include <cstdint>
#include <memory>

#include "core/formats.h"
#include "ffmpeg/owners.h"

struct AVFrame;

class VNFFMpegAudioConverter {
 public:
  // An unconfigured converter; both formats all zero.
  static std::shared_ptr<VNFFMpegAudioConverter> create();

  VNFFMpegAudioConverter(const VNFFMpegAudioConverter&) = delete;
  VNFFMpegAudioConverter& operator=(const VNFFMpegAudioConverter&) = delete;
  ~VNFFMpegAudioConverter();

  VNFFAudioFormat outFormat() const { return outFormat_; }
  VNFFAudioFormat inFormat() const { return inFormat_; }

  // Configures the conversion in → out. When the converter is configured
  // with exactly these formats already, nothing happens and the held samples
  // stay. Otherwise the formats are stored and the resampler is rebuilt
  // empty; if that fails the converter is unconfigured (keeping the formats).
  void convertFrom(VNFFAudioFormat in, VNFFAudioFormat out);

  // Queues the whole sample frames of length bytes in inFormat (planar
  // formats as consecutive planes); a trailing partial sample frame is
  // dropped, not kept for the next call. The bytes are not kept.
  void writeData(const void* bytes, uint64_t length);

  // Converts in's nb_samples samples into out's planes, at most out's
  // nb_samples; either may be null (no input: drain; no output: queue).
  void convertFrame(const AVFrame* in, AVFrame* out);

  // Converts inCount samples per channel from the input planes into the
  // output planes, at most outCount per channel, and returns how many were
  // written per channel (0 on failure). Null planes (or a null first plane)
  // mean no input or no output.
  int32_t convertFrom(const uint8_t* const* in,
                      int32_t inCount,
                      uint8_t* const* out,
                      int32_t outCount);

  // Samples held, in units of the output sample rate.
  int32_t outputBufferFrames() const;

  // Discards every held sample.
  void clear();

  // Queues count samples of silence (at the input rate) behind what is held.
  void appendSilenceSample(int32_t count);

 private:
  VNFFMpegAudioConverter() = default;

  vn::ff::Swr context_;        // null while unconfigured
  VNFFAudioFormat inFormat_;   // format pushed in
  VNFFAudioFormat outFormat_;  // format pulled out
};
