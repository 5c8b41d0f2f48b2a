#include "movie/effect_audio_stream.h"

#include <cinttypes>
#include <cstdio>
#include <utility>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
#include <libavutil/samplefmt.h>
}

#include "core/log.h"
#include "ffmpeg/filter_library.h"
#include "media/media.h"
#include "media/media_stream.h"

namespace {

constexpr int kMaxMixedStreams = 32;
constexpr int kSilenceSamples = 1024;
// A read feeds sources at most this many rounds before it gives up and
// returns silence: every round gives each starved source one frame, so a
// chunk needs a handful; the bound only matters for a graph that never
// produces.
constexpr int kMaxFeedRounds = 256;

struct LayoutName {
  const char* name;
  uint64_t mask;
};

// FFmpeg's layout names, searched in this order; the first equal mask wins.
constexpr LayoutName kLayoutNames[] = {
    {"mono", 0x4},        {"stereo", 0x3},         {"2.1", 0xb},         {"3.0", 0x7},
    {"3.0(back)", 0x103}, {"4.0", 0x107},          {"quad", 0x33},       {"quad(side)", 0x603},
    {"3.1", 0xf},         {"5.0", 0x37},           {"5.0(side)", 0x607}, {"4.1", 0x10f},
    {"5.1", 0x3f},        {"5.1(side)", 0x60f},    {"6.0", 0x707},       {"6.0(front)", 0x6c3},
    {"hexagonal", 0x137}, {"6.1", 0x70f},          {"6.1", 0x13f},       {"6.1(front)", 0x6cb},
    {"7.0", 0x637},       {"7.0(front)", 0x6c7},   {"7.1", 0x63f},       {"7.1(wide)", 0x6cf},
    {"octagonal", 0x737}, {"downmix", 0x60000000},
};

int channelsOf(uint64_t mask) {
  return vn_get_channel_layout_nb_channels(mask);
}

void setLayout(AVFrame* frame, uint64_t mask) {
  av_channel_layout_uninit(&frame->ch_layout);
  if (av_channel_layout_from_mask(&frame->ch_layout, mask) < 0) {
    av_channel_layout_default(&frame->ch_layout, 1);
  }
}

}  // namespace

std::shared_ptr<VNFFEffectAudioStream> VNFFEffectAudioStream::create() {
  return std::make_shared<VNFFEffectAudioStream>();
}

VNFFEffectAudioStream::VNFFEffectAudioStream()
    : pulled_(vn::ff::makeFrame()), feed_(vn::ff::makeFrame()), target_(vn::ff::makeFrame()) {}

VNFFEffectAudioStream::~VNFFEffectAudioStream() {
  free_graph();
}

VNFFAudioFormat VNFFEffectAudioStream::outputParam() {
  std::lock_guard<std::mutex> guard(lock_);
  return outputParam_;
}

void VNFFEffectAudioStream::setOutputParam(VNFFAudioFormat format) {
  std::lock_guard<std::mutex> guard(lock_);
  outputParam_ = format;
}

std::vector<std::shared_ptr<VNFFMedia>> VNFFEffectAudioStream::inputs() {
  std::lock_guard<std::mutex> guard(lock_);
  return inputs_;
}

double VNFFEffectAudioStream::volume() {
  return volume_.load();
}

void VNFFEffectAudioStream::setVolume(double volume) {
  volume_.store(volume);
  volumeChanged_.store(true);
}

std::string VNFFEffectAudioStream::channelLayoutName(uint64_t layout) {
  for (const LayoutName& row : kLayoutNames) {
    if (row.mask == layout)
      return row.name;
  }
  return {};
}

void VNFFEffectAudioStream::free_graph() {
  graphPending_ = false;
  pendingStreams_.clear();
  buffersink_ = nullptr;
  volumeAdjust_ = nullptr;
  sources_.clear();
  graph_.reset();
  std::lock_guard<std::mutex> guard(lock_);
  inputs_.clear();
}

AVFilterContext* VNFFEffectAudioStream::createInputMediaStreamFilter(const VNFFMediaStream& stream,
                                                                     int index) {
  const VNFFAudioFormat format = stream.audioFormat();
  const AVRational tb = stream.timebase();
  const char* fmtName = av_get_sample_fmt_name(static_cast<AVSampleFormat>(format.sample_fmt));
  if (!fmtName || format.sample_rate <= 0)
    return nullptr;
  char args[256];
  std::snprintf(args, sizeof args,
                "time_base=%d/%d:sample_rate=%d:sample_fmt=%s:channel_layout=0x%" PRIx64, tb.num,
                tb.den, format.sample_rate, fmtName, format.channel_layout);
  // Instance names must be unique in a graph; every source shares the base
  // name and carries its input number.
  const std::string name =
      "avfilter_vn_ff_media_audio" + (index ? "_" + std::to_string(index) : "");
  const vn::ff::FilterLibrary& f = vn::ff::loadedFilters();
  AVFilterContext* source = nullptr;
  if (f.graph_create_filter(&source, f.get_by_name("abuffer"), name.c_str(), args, nullptr,
                            graph_.get()) < 0) {
    return nullptr;
  }
  return source;
}

void VNFFEffectAudioStream::setInputStreams(const std::vector<std::shared_ptr<VNFFMedia>>& medias) {
  free_graph();
  // Every enabled audio stream, media by media, at most 32, taken now; the
  // graph is built over them, in the output format of now, when it is first
  // read or looked at. Nothing is loaded for a movie whose sound is never
  // read.
  for (const auto& media : medias) {
    for (const auto& stream : media->audios())
      pendingStreams_.push_back(stream);
  }
  pendingFormat_ = outputParam();
  pendingAverages_ = averagesTracks_.load();
  graphPending_ = true;
  std::lock_guard<std::mutex> guard(lock_);
  inputs_ = medias;
}

void VNFFEffectAudioStream::buildGraph() {
  if (!graphPending_)
    return;
  graphPending_ = false;
  const std::vector<std::shared_ptr<VNFFMediaStream>> streams = std::move(pendingStreams_);
  pendingStreams_.clear();
  const int n = std::min<int>(static_cast<int>(streams.size()), kMaxMixedStreams);

  const vn::ff::FilterLibrary* f = vn::ff::FilterLibrary::get();
  if (!f) {
    vn::logFailure("loading libavfilter", "not found");
    return;
  }
  graph_.reset(f->graph_alloc());
  if (!graph_) {
    vn::logFailure("avfilter_graph_alloc", AVERROR(ENOMEM));
    return;
  }
  AVFilterGraph* graph = graph_.get();
  const VNFFAudioFormat out = pendingFormat_;

  f->graph_create_filter(&buffersink_, f->get_by_name("abuffersink"), "buffersink", nullptr,
                         nullptr, graph);

  char text[256];
  // "amix" gives each of n inputs 1/n: undone unless the tracks are averaged.
  std::snprintf(text, sizeof text, "%d", pendingAverages_ ? 1 : n);
  AVFilterContext* volumeFix = nullptr;
  f->graph_create_filter(&volumeFix, f->get_by_name("volume"), "volumeFix", text, nullptr, graph);
  if (volumeFix && buffersink_)
    f->link(volumeFix, 0, buffersink_, 0);

  std::snprintf(text, sizeof text, "%f", static_cast<double>(static_cast<float>(volume_.load())));
  volumeText_ = text;
  f->graph_create_filter(&volumeAdjust_, f->get_by_name("volume"), "volume", text, nullptr, graph);
  volumeChanged_.store(false);
  if (volumeAdjust_ && volumeFix)
    f->link(volumeAdjust_, 0, volumeFix, 0);

  const char* fmtName = av_get_sample_fmt_name(static_cast<AVSampleFormat>(out.sample_fmt));
  std::snprintf(text, sizeof text, "sample_fmts=%s:channel_layouts=%s:sample_rates=%d",
                fmtName ? fmtName : "", channelLayoutName(out.channel_layout).c_str(),
                out.sample_rate);
  AVFilterContext* format = nullptr;
  f->graph_create_filter(&format, f->get_by_name("aformat"), "format", text, nullptr, graph);
  if (format && volumeAdjust_)
    f->link(format, 0, volumeAdjust_, 0);

  AVFilterContext* mixer = format;
  if (n > 1) {
    std::snprintf(text, sizeof text, "inputs=%d", n);
    AVFilterContext* amix = nullptr;
    if (f->graph_create_filter(&amix, f->get_by_name("amix"), "amix", text, nullptr, graph) >= 0 &&
        amix) {
      if (format)
        f->link(amix, 0, format, 0);
      mixer = amix;
    }
  }

  for (int i = 0; i < n; ++i) {
    AVFilterContext* source = createInputMediaStreamFilter(*streams[i], i);
    if (!source)
      continue;
    if (mixer)
      f->link(source, 0, mixer, static_cast<unsigned>(i));
    sources_.push_back({source, streams[i]});
  }
  if (!buffersink_) {
    vn::logFailure("building the audio mix", "no buffer sink");
    free_graph();
  } else if (const int configured = f->graph_config(graph, nullptr); configured < 0) {
    vn::logFailure("avfilter_graph_config (mix)", configured);
    free_graph();
  }
}

int VNFFEffectAudioStream::sourceCount() {
  buildGraph();
  return static_cast<int>(sources_.size());
}

std::string VNFFEffectAudioStream::stageArguments(const std::string& instanceName) {
  buildGraph();
  if (!graph_)
    return {};
  AVFilterContext* filter =
      vn::ff::loadedFilters().graph_get_filter(graph_.get(), instanceName.c_str());
  if (!filter)
    return {};
  // The live volume is changed by command, which its option does not show.
  if (instanceName == "volume")
    return volumeText_;
  const char* option = nullptr;
  if (instanceName == "amix")
    option = "inputs";
  else if (instanceName == "volumeFix")
    option = "volume";
  if (!option) {
    // aformat: its three options in argument order.
    uint8_t* fmts = nullptr;
    uint8_t* layouts = nullptr;
    uint8_t* rates = nullptr;
    av_opt_get(filter->priv, "sample_fmts", 0, &fmts);
    av_opt_get(filter->priv, "channel_layouts", 0, &layouts);
    av_opt_get(filter->priv, "sample_rates", 0, &rates);
    std::string text = std::string("sample_fmts=") + (fmts ? (char*)fmts : "") +
                       ":channel_layouts=" + (layouts ? (char*)layouts : "") +
                       ":sample_rates=" + (rates ? (char*)rates : "");
    av_free(fmts);
    av_free(layouts);
    av_free(rates);
    return text;
  }
  uint8_t* value = nullptr;
  if (av_opt_get(filter->priv, option, 0, &value) < 0 || !value)
    return {};
  std::string text(reinterpret_cast<char*>(value));
  av_free(value);
  return text;
}

void VNFFEffectAudioStream::requestFrame(Source& source) {
  VNFFMediaStream* stream = source.stream.get();
  const VNFFAudioFormat format = stream->audioFormat();
  AVFrame* local = feed_.get();
  av_frame_unref(local);

  // Pull the stream's next frame only once the running position has passed
  // the end of its current one; until then the source gives silence.
  const AVFrame* current = stream->frame();
  const bool exact = exactStarts_.load();
  bool pull = current->pts == AV_NOPTS_VALUE;
  bool rest = false;              // exact starts: the rest of the frame a seek took
  int offset = 0;                 // its samples already behind the position
  int silence = kSilenceSamples;  // the length of a silent block
  if (!pull) {
    const int64_t begin = av_rescale_q(current->pts, stream->timebase(), stream->framebase());
    const int64_t end = begin + current->nb_samples;
    const int64_t at = stream->sync_pts();
    if (!exact) {
      pull = at > end;
    } else if ((source.delivered && source.deliveredSeek == stream->seek_pts() &&
                source.deliveredPts == current->pts) ||
               at >= end) {
      // Handed on already (or passed): the next one follows without a gap,
      // whatever its rounded timestamp says.
      pull = true;
    } else if (at >= begin) {
      rest = true;
      offset = static_cast<int>(at - begin);
    } else {
      // Sound that starts later: silence up to its first sample.
      silence = static_cast<int>(std::min<int64_t>(kSilenceSamples, begin - at));
    }
  }
  int nbSamples = 0;
  int64_t pts = AV_NOPTS_VALUE;
  const AVFrame* next = nullptr;
  if (pull) {
    if (auto media = stream->media())
      media->forwardStream(source.stream);
    next = stream->frame();
    nbSamples = next->nb_samples;
    pts = next->pts;
  } else if (rest) {
    next = current;
    nbSamples = current->nb_samples - offset;
    pts = current->pts;
  }
  if (exact && next) {
    source.delivered = true;
    source.deliveredSeek = stream->seek_pts();
    source.deliveredPts = next->pts;
  }

  const int channels = std::max(1, channelsOf(format.channel_layout));
  const auto sampleFmt = static_cast<AVSampleFormat>(format.sample_fmt);
  const int size = nbSamples > 0 && next && next->extended_data && next->extended_data[0]
                       ? av_samples_get_buffer_size(nullptr, channels, nbSamples, sampleFmt, 1)
                       : 0;
  stream->setSync_pts(stream->sync_pts() + (nbSamples > 0 ? nbSamples : silence));

  local->format = format.sample_fmt;
  local->sample_rate = format.sample_rate;
  setLayout(local, format.channel_layout);
  local->nb_samples = nbSamples > 0 ? nbSamples : silence;
  if (av_frame_get_buffer(local, 0) < 0)
    return;
  // A frame whose format or channel count is not the stream's (a broken
  // stream may change them midway) has other planes or other plane sizes:
  // it is heard as silence.
  if (size >= 1 && next->format == format.sample_fmt && next->ch_layout.nb_channels == channels) {
    // Decoded planes are separate buffers: copy each of them.
    av_samples_copy(local->extended_data, next->extended_data, 0, rest ? offset : 0, nbSamples,
                    channels, sampleFmt);
  } else {
    av_samples_set_silence(local->extended_data, 0, local->nb_samples, channels, sampleFmt);
  }
  local->pts = pts;
  // A refused frame only leaves the source starved; the next read feeds it
  // again.
  if (const int status = vn::ff::loadedFilters().buffersrc_add_frame_flags(source.filter, local, 0);
      status < 0) {
    vn::logFailure("av_buffersrc_add_frame_flags (mix)", status);
  }
  av_frame_unref(local);
}

bool VNFFEffectAudioStream::feedStarvedSources() {
  bool fed = false;
  for (Source& source : sources_) {
    if (vn::ff::loadedFilters().buffersrc_get_nb_failed_requests(source.filter) > 0) {
      requestFrame(source);
      fed = true;
    }
  }
  return fed;
}

void VNFFEffectAudioStream::applyPendingVolume() {
  if (!volumeChanged_.exchange(false) || !volumeAdjust_)
    return;
  char text[64];
  std::snprintf(text, sizeof text, "%f", volume_.load());
  // Sent to this one instance: the graph-wide command would also reach
  // "volumeFix", which is a volume filter too.
  if (vn::ff::loadedFilters().process_command(volumeAdjust_, "volume", text, nullptr, 0, 0) >= 0) {
    volumeText_ = text;
  }
}

bool VNFFEffectAudioStream::readFrame(AVFrame* frame) {
  const int nb = frame->nb_samples;
  const auto format = static_cast<AVSampleFormat>(frame->format);
  const int channels = std::max(1, frame->ch_layout.nb_channels);
  AVFrame* pulled = pulled_.get();
  av_frame_unref(pulled);

  buildGraph();
  bool got = false;
  if (buffersink_ && nb > 0) {
    applyPendingVolume();
    for (int round = 0; round < kMaxFeedRounds; ++round) {
      const int r = vn::ff::loadedFilters().buffersink_get_samples(buffersink_, pulled, nb);
      if (r >= 0) {
        got = true;
        break;
      }
      if (r != AVERROR(EAGAIN) && r != AVERROR_EOF)
        vn::logFailure("av_buffersink_get_samples", r);
      if (r != AVERROR(EAGAIN) || !feedStarvedSources())
        break;
    }
  }
  if (got && pulled->nb_samples == nb && pulled->format == frame->format &&
      av_channel_layout_compare(&pulled->ch_layout, &frame->ch_layout) == 0) {
    // Plane by plane: a planar format's planes are separate buffers here.
    av_samples_copy(frame->extended_data, pulled->extended_data, 0, 0, nb, channels, format);
  } else if (nb > 0) {
    av_samples_set_silence(frame->extended_data, 0, nb, channels, format);
  }
  av_frame_unref(pulled);
  return true;
}

bool VNFFEffectAudioStream::readSample(void* bytes, int32_t frames) {
  const VNFFAudioFormat out = outputParam();
  AVFrame* frame = target_.get();
  av_frame_unref(frame);
  frame->nb_samples = frames;
  frame->format = out.sample_fmt;
  frame->sample_rate = out.sample_rate;
  setLayout(frame, out.channel_layout);
  const int channels = frame->ch_layout.nb_channels;
  // Point the frame at the caller's bytes: packed samples.
  const int size = av_samples_get_buffer_size(nullptr, channels, frames,
                                              static_cast<AVSampleFormat>(out.sample_fmt), 1);
  if (size <= 0 ||
      av_samples_fill_arrays(frame->data, frame->linesize, static_cast<uint8_t*>(bytes), channels,
                             frames, static_cast<AVSampleFormat>(out.sample_fmt), 1) < 0) {
    av_frame_unref(frame);
    return true;
  }
  const bool result = readFrame(frame);
  // The frame only borrowed the caller's memory (it holds no buffer
  // reference), so unref forgets the pointers without freeing anything.
  av_frame_unref(frame);
  return result;
}
