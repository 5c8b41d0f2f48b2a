#include "movie/export_packets.h"

#include <algorithm>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "core/codec_lock.h"
#include "core/log.h"
#include "media/media_source.h"
#include "output/movie_file_output.h"

namespace {

// Bound on the packets one writeUntil reads, far above any span's share
// between two calls.
constexpr int kMaxPacketsPerCall = 1 << 20;

// Reading stops this far past the end: packets of every stream that belong
// before the end have been read by then.
constexpr int64_t kReadPastEnd = 2000000;

constexpr AVRational kMilliseconds{1, 1000};

}  // namespace

struct VNFFExportPackets::Route {
  int input = -1;
  int output = -1;
  AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
  bool encodes = false;          // a subtitle decoded and encoded again
  vn::ff::CodecContext decoder;  // its decoder
  bool started = false;          // a copied video has written its first keyframe
};

VNFFExportPackets::VNFFExportPackets() : packet_(vn::ff::makePacket()) {}

VNFFExportPackets::~VNFFExportPackets() {
  for (Route& route : routes_) {
    std::lock_guard lock(vn::codecLock());
    route.decoder.reset();
  }
}

bool VNFFExportPackets::open(VNMediaSource& source, std::string* reason) {
  source_ = source.copy();
  if (source_)
    source_->openAsProbed(source);
  if (!source_ || !source_->isOpen() || !packet_) {
    *reason = source_ && !source_->lastError().empty() ? source_->lastError()
                                                       : "the input cannot be read again";
    source_.reset();
    return false;
  }
  return true;
}

AVFormatContext* VNFFExportPackets::input() const {
  return source_ ? source_->formatContext() : nullptr;
}

VNFFExportPackets::Route* VNFFExportPackets::routeOf(int input) {
  for (Route& route : routes_) {
    if (route.input == input)
      return &route;
  }
  return nullptr;
}

void VNFFExportPackets::copy(int input, int output) {
  AVFormatContext* context = this->input();
  if (!context || input < 0 || static_cast<unsigned>(input) >= context->nb_streams)
    return;
  Route route;
  route.input = input;
  route.output = output;
  route.type = context->streams[input]->codecpar->codec_type;
  routes_.push_back(std::move(route));
}

const AVCodecContext* VNFFExportPackets::openSubtitleDecoder(int input) {
  AVFormatContext* context = this->input();
  if (!context || input < 0 || static_cast<unsigned>(input) >= context->nb_streams)
    return nullptr;
  const AVStream* stream = context->streams[input];
  const AVCodec* decoder = avcodec_find_decoder(stream->codecpar->codec_id);
  if (!decoder)
    return nullptr;
  Route route;
  route.input = input;
  route.type = AVMEDIA_TYPE_SUBTITLE;
  route.encodes = true;
  std::lock_guard lock(vn::codecLock());
  route.decoder.reset(avcodec_alloc_context3(decoder));
  AVCodecContext* c = route.decoder.get();
  if (!c || avcodec_parameters_to_context(c, stream->codecpar) < 0)
    return nullptr;
  // Subtitle times come from the packets in the stream's clock.
  c->pkt_timebase = stream->time_base;
  if (avcodec_open2(c, decoder, nullptr) < 0)
    return nullptr;
  routes_.push_back(std::move(route));
  return c;
}

void VNFFExportPackets::encode(int input, int output) {
  if (Route* route = routeOf(input); route && route->encodes)
    route->output = output;
}

bool VNFFExportPackets::empty() const {
  return std::none_of(routes_.begin(), routes_.end(),
                      [](const Route& route) { return route.output >= 0; });
}

void VNFFExportPackets::setSpan(int64_t start, int64_t end) {
  start_ = start;
  end_ = end;
  AVFormatContext* context = input();
  const int64_t first = context && context->start_time != AV_NOPTS_VALUE ? context->start_time : 0;
  // To the keyframe at or before the start, as a copied video needs; from
  // the file's own start, every packet is kept (an encoder's priming
  // packets before 0 too).
  cuts_ = start > first;
  if (context && cuts_) {
    if (const int status = avformat_seek_file(context, -1, INT64_MIN, start, start, 0); status < 0)
      vn::logFailure("avformat_seek_file (export)", status);
  }
}

bool VNFFExportPackets::writeUntil(int64_t until, VNFFMovieFileOutput& writer) {
  AVFormatContext* context = input();
  if (!context || empty())
    return false;
  AVPacket* packet = packet_.get();
  for (int i = 0; i < kMaxPacketsPerCall; ++i) {
    if (!pending_) {
      if (ended_ || av_read_frame(context, packet) < 0) {
        ended_ = true;
        return false;
      }
      pending_ = true;
    }
    Route* route = routeOf(packet->stream_index);
    const int64_t ts = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
    if (route && route->output >= 0 && ts != AV_NOPTS_VALUE) {
      const int64_t at =
          av_rescale_q(ts, context->streams[packet->stream_index]->time_base, AV_TIME_BASE_Q);
      if (at > until)
        return true;
      if (at > end_ + kReadPastEnd) {
        av_packet_unref(packet);
        pending_ = false;
        ended_ = true;
        return false;
      }
      if (route->encodes)
        writeSubtitle(*route, writer);
      else
        write(*route, writer);
    }
    av_packet_unref(packet);
    pending_ = false;
  }
  return true;
}

void VNFFExportPackets::write(Route& route, VNFFMovieFileOutput& writer) {
  AVPacket* packet = packet_.get();
  const AVRational timeBase = input()->streams[route.input]->time_base;
  const int64_t pts = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
  if (pts == AV_NOPTS_VALUE)
    return;
  const int64_t start = av_rescale_q(start_, AV_TIME_BASE_Q, timeBase);
  const int64_t end = end_ == INT64_MAX ? INT64_MAX : av_rescale_q(end_, AV_TIME_BASE_Q, timeBase);
  const int64_t duration = std::max<int64_t>(0, packet->duration);
  if (route.type == AVMEDIA_TYPE_VIDEO) {
    // From the first keyframe on; a frame decoded after the end is left out.
    if (!route.started && !(packet->flags & AV_PKT_FLAG_KEY))
      return;
    if ((packet->dts != AV_NOPTS_VALUE ? packet->dts : pts) >= end)
      return;
    if (!route.started)
      videoStart_ = av_rescale_q(pts, timeBase, AV_TIME_BASE_Q);
    route.started = true;
  } else {
    if (pts >= end || (cuts_ && pts < start && pts + duration <= start))
      return;
    if (route.type == AVMEDIA_TYPE_SUBTITLE) {
      // Cut to the span: shown from its start at the latest, until its end.
      const int64_t stop = pts + duration;
      packet->pts = std::max(pts, start);
      if (duration > 0)
        packet->duration = std::min(stop, end) - packet->pts;
      packet->dts = packet->pts;
    }
  }
  if (packet->pts != AV_NOPTS_VALUE)
    packet->pts -= start;
  if (packet->dts != AV_NOPTS_VALUE)
    packet->dts -= start;
  packet->time_base = timeBase;
  writer.writePacket(route.output, packet);
}

void VNFFExportPackets::writeSubtitle(Route& route, VNFFMovieFileOutput& writer) {
  AVPacket* packet = packet_.get();
  vn::ff::Subtitle owner = vn::ff::makeSubtitle();
  AVSubtitle* subtitle = owner.get();
  int got = 0;
  if (!subtitle || avcodec_decode_subtitle2(route.decoder.get(), subtitle, &got, packet) < 0 ||
      !got || subtitle->pts == AV_NOPTS_VALUE)
    return;
  // Shown from its start for its length, both cut to the span; the encoder
  // takes the times from the packet, the subtitle starting at once.
  const int64_t shown =
      subtitle->pts + av_rescale_q(subtitle->start_display_time, kMilliseconds, AV_TIME_BASE_Q);
  const int64_t length =
      av_rescale_q(static_cast<int64_t>(subtitle->end_display_time) - subtitle->start_display_time,
                   kMilliseconds, AV_TIME_BASE_Q);
  const int64_t from = std::max(shown, start_);
  const int64_t to = std::min(shown + length, end_);
  if (length <= 0 || from >= to)
    return;
  subtitle->pts = from;
  subtitle->start_display_time = 0;
  subtitle->end_display_time =
      static_cast<uint32_t>(av_rescale_q(to - from, AV_TIME_BASE_Q, kMilliseconds));
  writer.writeSubtitle(route.output, *subtitle, from - start_, to - from);
}
