#include "media/audio_buffer.h"

#include <cinttypes>
#include <cstdio>

#include "core/log.h"
#include "ffmpeg/filter_library.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/samplefmt.h>
}

std::shared_ptr<VNFFAudioBuffer> VNFFAudioBuffer::create() {
  return std::make_shared<VNFFAudioBuffer>();
}

VNFFAudioBuffer::~VNFFAudioBuffer() {
  releaseGraph();
}

void VNFFAudioBuffer::config(VNFFAudioFormat format) {
  std::lock_guard<std::mutex> hold(lock_);
  releaseGraph();
  audioFormat_ = format;
  // Built by the first write: a stream opened only to be described never
  // loads the filter library.
  pending_ = true;
}

void VNFFAudioBuffer::buildGraph() {
  pending_ = false;
  const VNFFAudioFormat format = audioFormat_;
  const vn::ff::FilterLibrary* f = vn::ff::FilterLibrary::get();
  if (!f)
    return;
  graph_.reset(f->graph_alloc());
  if (!graph_)
    return;

  // The sink accepts only the stream's sample format, so the graph never
  // converts anything.
  AVFilterContext* sink =
      f->graph_alloc_filter(graph_.get(), f->get_by_name("abuffersink"), "buffersink");
  const int formats[] = {format.sample_fmt, AV_SAMPLE_FMT_NONE};
  if (sink && (av_opt_set_int_list(sink, "sample_fmts", formats, AV_SAMPLE_FMT_NONE,
                                   AV_OPT_SEARCH_CHILDREN) < 0 ||
               f->init_str(sink, nullptr) < 0)) {
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
    if (f->graph_create_filter(&source, f->get_by_name("abuffer"), "buffersrc", args, nullptr,
                               graph_.get()) < 0) {
      source = nullptr;
    }
  }

  if (!sink || !source) {
    vn::logFailure("building the audio queue", sink ? "no buffer source" : "no buffer sink");
    releaseGraph();
    return;
  }
  if (const int linked = f->link(source, 0, sink, 0); linked < 0) {
    vn::logFailure("avfilter_link", linked);
    releaseGraph();
    return;
  }
  if (const int configured = f->graph_config(graph_.get(), nullptr); configured < 0) {
    vn::logFailure("avfilter_graph_config", configured);
    releaseGraph();
    return;
  }
  buffersink_ = sink;
  buffersrc_ = source;
}

void VNFFAudioBuffer::writeFrame(AVFrame* frame) {
  std::lock_guard<std::mutex> hold(lock_);
  if (!frame || frame->nb_samples < 1)
    return;
  if (pending_)
    buildGraph();
  if (!buffersrc_)
    return;
  const vn::ff::FilterLibrary& f = vn::ff::loadedFilters();
  // A frame the source refuses (another format) is dropped; nothing else
  // is to be done with it here.
  if (const int status = f.buffersrc_add_frame(buffersrc_, frame); status < 0) {
    vn::logFailure("av_buffersrc_add_frame", status);
    av_frame_unref(frame);
  }
}

vn::ff::Frame VNFFAudioBuffer::read() {
  std::lock_guard<std::mutex> hold(lock_);
  if (!buffersink_)
    return {};
  const vn::ff::FilterLibrary& f = vn::ff::loadedFilters();
  vn::ff::Frame frame = vn::ff::makeFrame();
  if (!frame || f.buffersink_get_frame(buffersink_, frame.get()) < 0)
    return {};
  return frame;
}

void VNFFAudioBuffer::free_graph() {
  std::lock_guard<std::mutex> hold(lock_);
  releaseGraph();
}

void VNFFAudioBuffer::releaseGraph() {
  pending_ = false;
  buffersink_ = nullptr;
  buffersrc_ = nullptr;
  graph_.reset();
}
