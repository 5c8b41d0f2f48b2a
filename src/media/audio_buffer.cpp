#include "media/audio_buffer.h"

#include <cinttypes>
#include <cstdio>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/opt.h>
#include <libavutil/samplefmt.h>
}

std::shared_ptr<VNFFAudioBuffer> VNFFAudioBuffer::create() {
  return std::make_shared<VNFFAudioBuffer>();
}

VNFFAudioBuffer::~VNFFAudioBuffer() { free_graph(); }

void VNFFAudioBuffer::config(VNFFAudioFormat format) {
  free_graph();
  audioFormat_ = format;
  graph_.reset(avfilter_graph_alloc());
  if (!graph_) return;

  // The sink accepts only the stream's sample format, so the graph never
  // converts anything.
  AVFilterContext* sink =
      avfilter_graph_alloc_filter(graph_.get(), avfilter_get_by_name("abuffersink"), "buffersink");
  const int formats[] = {format.sample_fmt, AV_SAMPLE_FMT_NONE};
  if (sink && (av_opt_set_int_list(sink, "sample_fmts", formats, AV_SAMPLE_FMT_NONE,
                                   AV_OPT_SEARCH_CHILDREN) < 0 ||
               avfilter_init_str(sink, nullptr) < 0)) {
    sink = nullptr;
  }

  // The source's time base is one sample.
  AVFilterContext* source = nullptr;
  const char* formatName = av_get_sample_fmt_name(static_cast<AVSampleFormat>(format.sample_fmt));
  if (formatName) {
    char args[255];
    std::snprintf(args, sizeof args,
                  "time_base=%d/%d:sample_rate=%d:sample_fmt=%s:channel_layout=0x%" PRIx64, 1,
                  format.sample_rate, format.sample_rate, formatName, format.channel_layout);
    if (avfilter_graph_create_filter(&source, avfilter_get_by_name("abuffer"), "buffersrc", args,
                                     nullptr, graph_.get()) < 0) {
      source = nullptr;
    }
  }

  if (!sink || !source || avfilter_link(source, 0, sink, 0) < 0 ||
      avfilter_graph_config(graph_.get(), nullptr) < 0) {
    free_graph();
    return;
  }
  buffersink_ = sink;
  buffersrc_ = source;
}

void VNFFAudioBuffer::writeFrame(AVFrame* frame) {
  std::lock_guard<std::mutex> hold(lock_);
  if (!frame || frame->nb_samples < 1 || !buffersrc_) return;
  // A frame the source refuses (another format) is dropped; nothing else
  // is to be done with it here.
  if (av_buffersrc_add_frame(buffersrc_, frame) < 0) av_frame_unref(frame);
}

vn::ff::Frame VNFFAudioBuffer::read() {
  std::lock_guard<std::mutex> hold(lock_);
  if (!buffersink_) return {};
  vn::ff::Frame frame = vn::ff::makeFrame();
  if (!frame || av_buffersink_get_frame(buffersink_, frame.get()) < 0) return {};
  return frame;
}

void VNFFAudioBuffer::free_graph() {
  buffersink_ = nullptr;
  buffersrc_ = nullptr;
  graph_.reset();
}
