#include "output/audio_converter.h"
#include "core/log.h"

#include <new>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

namespace {

// A layout for a mask; the empty (invalid) layout for 0 or a bad mask, which
// makes swr_init fail.
AVChannelLayout layoutOf(uint64_t mask) {
  AVChannelLayout layout{};
  if (av_channel_layout_from_mask(&layout, mask) < 0)
    layout = AVChannelLayout{};
  return layout;
}

// Most planes any channel mask can give (planar formats carry one per channel).
constexpr int kMaxPlanes = 64;

}  // namespace

std::shared_ptr<VNFFMpegAudioConverter> VNFFMpegAudioConverter::create() {
  try {
    return std::shared_ptr<VNFFMpegAudioConverter>(new VNFFMpegAudioConverter());
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

VNFFMpegAudioConverter::~VNFFMpegAudioConverter() = default;

void VNFFMpegAudioConverter::convertFrom(VNFFAudioFormat in, VNFFAudioFormat out) {
  if (context_ && isFFAudioFormatEqual(in, inFormat_) && isFFAudioFormatEqual(out, outFormat_))
    return;
  inFormat_ = in;
  outFormat_ = out;
  AVChannelLayout inLayout = layoutOf(in.channel_layout);
  AVChannelLayout outLayout = layoutOf(out.channel_layout);
  // The existing context is reconfigured in place; on failure FFmpeg frees it.
  SwrContext* swr = context_.release();
  const int status = swr_alloc_set_opts2(
      &swr, &outLayout, static_cast<AVSampleFormat>(out.sample_fmt), out.sample_rate, &inLayout,
      static_cast<AVSampleFormat>(in.sample_fmt), in.sample_rate, 0, nullptr);
  context_.reset(swr);
  // Re-initialising drops whatever the old configuration held.
  if (status < 0) {
    vn::logFailure("swr_alloc_set_opts2", status);
    context_.reset();
  } else if (const int ready = swr_init(context_.get()); ready < 0) {
    vn::logFailure("swr_init", ready);
    context_.reset();
  }
}

void VNFFMpegAudioConverter::writeData(const void* bytes, uint64_t length) {
  if (!context_ || !bytes)
    return;
  const auto format = static_cast<AVSampleFormat>(inFormat_.sample_fmt);
  const int channels = vn_get_channel_layout_nb_channels(inFormat_.channel_layout);
  if (channels <= 0 || channels > kMaxPlanes)
    return;
  int frameBytes = av_get_bytes_per_sample(format) * channels;
  if (frameBytes < 1)
    frameBytes = 1;
  const uint64_t samples = length / static_cast<uint64_t>(frameBytes);
  if (samples == 0 || samples > INT32_MAX)
    return;
  // The planes point into the caller's chunk; only swr copies.
  uint8_t* planes[kMaxPlanes] = {};
  if (av_samples_fill_arrays(planes, nullptr, static_cast<const uint8_t*>(bytes), channels,
                             static_cast<int>(samples), format, 1) < 0)
    return;
  convertFrom(planes, static_cast<int32_t>(samples), nullptr, 0);
}

void VNFFMpegAudioConverter::convertFrame(const AVFrame* in, AVFrame* out) {
  convertFrom(in ? in->extended_data : nullptr, in ? in->nb_samples : 0,
              out ? out->extended_data : nullptr, out ? out->nb_samples : 0);
}

int32_t VNFFMpegAudioConverter::convertFrom(const uint8_t* const* in,
                                            int32_t inCount,
                                            uint8_t* const* out,
                                            int32_t outCount) {
  if (!context_)
    return 0;
  if (in && !in[0])
    in = nullptr;
  if (out && !out[0])
    out = nullptr;
  // A null input would make swr_convert flush the resampler, which pads what
  // it holds with reflected samples: a click at every pull when the rates
  // differ. An input of no samples drains without flushing.
  static const uint8_t* const* const kNoInput = [] {
    static const uint8_t nothing[1] = {};
    static const uint8_t* planes[kMaxPlanes];
    for (auto& plane : planes)
      plane = nothing;
    return planes;
  }();
  if (!in) {
    in = kNoInput;
    inCount = 0;
  }
  // swr_convert writes neither array; its parameters are not const-qualified.
  const int converted = swr_convert(context_.get(), const_cast<uint8_t**>(out), out ? outCount : 0,
                                    const_cast<const uint8_t**>(in), inCount);
  if (converted < 0)
    vn::logFailure("swr_convert", converted);
  return converted < 0 ? 0 : converted;
}

int32_t VNFFMpegAudioConverter::outputBufferFrames() const {
  if (!context_)
    return 0;
  return static_cast<int32_t>(swr_get_delay(context_.get(), outFormat_.sample_rate));
}

void VNFFMpegAudioConverter::clear() {
  if (context_)
    swr_drop_output(context_.get(), outputBufferFrames());
}

void VNFFMpegAudioConverter::appendSilenceSample(int32_t count) {
  if (context_)
    swr_inject_silence(context_.get(), count);
}
