// Measuring test audio: level, tone strength and pitch of float samples.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vn::test {

// Interleaved float samples with their layout.
struct Samples {
  std::vector<float> data;
  int channels = 2;
  int rate = 44100;

  size_t frames() const { return channels ? data.size() / channels : 0; }
  // One channel, or the mean of all channels when channel < 0.
  std::vector<float> channel(int channel) const;
};

// Root mean square of a signal.
double rms(const std::vector<float>& signal);

// Amplitude of the frequency hz in a signal (Goertzel): a sine of amplitude A gives A.
double toneAmplitude(const std::vector<float>& signal, int rate, double hz);

// Pitch from the median spacing of upward zero crossings.
double zeroCrossingFrequency(const std::vector<float>& signal, int rate);

// The part of a signal from its first to its last sample louder than floor.
std::vector<float> audible(const std::vector<float>& signal, float floor = 1e-2f);

// Reads raw interleaved float32 samples from a file.
Samples readRawFloat(const std::string& path, int channels, int rate);

// Decodes any audio file to interleaved float32 with ffmpeg (extraArgs go before the output).
Samples decodeWithFfmpeg(const std::string& input,
                         const std::string& extraArgs,
                         int channels,
                         int rate);

}  // namespace vn::test
