#include "audio_analysis.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <string>

#include "test_support.h"

namespace vn::test {

std::vector<float> Samples::channel(int which) const {
  std::vector<float> out(frames());
  for (size_t i = 0; i < out.size(); ++i) {
    const float* frame = &data[i * channels];
    out[i] = which >= 0 ? frame[which] : std::accumulate(frame, frame + channels, 0.0f) / channels;
  }
  return out;
}

double rms(const std::vector<float>& signal) {
  double sum = 0;
  for (float s : signal)
    sum += double(s) * s;
  return signal.empty() ? 0 : std::sqrt(sum / signal.size());
}

double toneAmplitude(const std::vector<float>& signal, int rate, double hz) {
  if (signal.empty())
    return 0;
  const double w = 2 * M_PI * hz / rate;
  const double coeff = 2 * std::cos(w);
  double s1 = 0, s2 = 0;
  for (float x : signal) {
    const double s0 = x + coeff * s1 - s2;
    s2 = s1;
    s1 = s0;
  }
  const double power = s1 * s1 + s2 * s2 - coeff * s1 * s2;
  return 2 * std::sqrt(std::max(0.0, power)) / signal.size();
}

double zeroCrossingFrequency(const std::vector<float>& signal, int rate) {
  // Upward crossings with a little hysteresis, so that the noise of a quiet
  // stretch does not count; the median period ignores such stretches.
  constexpr float kHysteresis = 0.01f;
  std::vector<size_t> crossings;
  bool armed = false;
  for (size_t i = 0; i < signal.size(); ++i) {
    if (signal[i] < -kHysteresis)
      armed = true;
    if (armed && signal[i] > kHysteresis) {
      crossings.push_back(i);
      armed = false;
    }
  }
  if (crossings.size() < 3)
    return 0;
  std::vector<size_t> periods(crossings.size());
  std::adjacent_difference(crossings.begin(), crossings.end(), periods.begin());
  periods.erase(periods.begin());
  std::nth_element(periods.begin(), periods.begin() + periods.size() / 2, periods.end());
  // Sum a window of periods around the median for sub-sample precision.
  const size_t median = periods[periods.size() / 2];
  double total = 0;
  size_t count = 0;
  for (size_t p : periods) {
    if (p + 1 >= median && p <= median + 1) {
      total += p;
      ++count;
    }
  }
  return count ? rate * count / total : 0;
}

std::vector<float> audible(const std::vector<float>& signal, float floor) {
  size_t first = 0, last = signal.size();
  while (first < last && std::abs(signal[first]) < floor)
    ++first;
  while (last > first && std::abs(signal[last - 1]) < floor)
    --last;
  return std::vector<float>(signal.begin() + first, signal.begin() + last);
}

Samples readRawFloat(const std::string& path, int channels, int rate) {
  Samples s{{}, channels, rate};
  const std::string bytes = readFile(path);
  s.data.resize(bytes.size() / sizeof(float));
  std::memcpy(s.data.data(), bytes.data(), s.data.size() * sizeof(float));
  return s;
}

Samples decodeWithFfmpeg(const std::string& input,
                         const std::string& extraArgs,
                         int channels,
                         int rate) {
  const std::string out = scratchDir() + "/decoded-" +
                          std::to_string(std::hash<std::string>{}(input + extraArgs)) + ".f32";
  const std::string command = "ffmpeg -hide_banner -loglevel error -y -i '" + input + "' " +
                              extraArgs + " -f f32le -ac " + std::to_string(channels) + " -ar " +
                              std::to_string(rate) + " '" + out + "'";
  runShell(command);
  return readRawFloat(out, channels, rate);
}

}  // namespace vn::test
