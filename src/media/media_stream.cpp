#include "media/media_stream.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libswscale/swscale.h>
}

#include "core/codec_lock.h"
#include "core/log.h"
#include "core/varnel.h"
#include "image/affine_transform.h"
#include "media/audio_buffer.h"
#include "media/media.h"
#include "media/media_source.h"
#include "media/subtitle_text.h"

namespace {

// A decoder gives a handful of frames per packet; this only guards against
// one that never stops.
constexpr int kMaxFramesPerPacket = 4096;

// The palette text takes at most 8 + 16 * 9 + 2 bytes.
constexpr int kPaletteTextSize = 256;

uint64_t effectiveChannelLayout(const AVChannelLayout& layout) {
  if (const uint64_t mask = vn::channelMask(layout))
    return mask;
  return vn::defaultChannelLayout(layout.nb_channels);
}

}  // namespace

std::shared_ptr<VNFFMediaStream> VNFFMediaStream::create(std::weak_ptr<VNFFMedia> media,
                                                         AVStream* stream) {
  if (!stream)
    return nullptr;
  vn::ff::Frame current = vn::ff::makeFrame();
  if (!current)
    return nullptr;
  std::shared_ptr<VNFFMediaStream> created(
      new VNFFMediaStream(std::move(media), stream, std::move(current), nullptr));
  created->codec_ = created->makeCodecContext();
  created->pending_ = vn::ff::makePacket();
  created->decoded_ = vn::ff::makeFrame();
  created->previousFrame_ = vn::ff::makeFrame();
  if (!created->codec_ || !created->pending_ || !created->decoded_ || !created->previousFrame_) {
    return nullptr;
  }
  return created;
}

VNFFMediaStream::VNFFMediaStream(std::weak_ptr<VNFFMedia> media,
                                 AVStream* stream,
                                 vn::ff::Frame current,
                                 vn::ff::CodecContext codec)
    : currentFrame_(std::move(current)),
      media_(std::move(media)),
      stream_(stream),
      last_pts_(AV_NOPTS_VALUE),
      seek_pts_(AV_NOPTS_VALUE),
      codec_(std::move(codec)),
      next_pts_(AV_NOPTS_VALUE) {}

VNFFMediaStream::~VNFFMediaStream() {
  abuffer_.reset();
  std::lock_guard<std::recursive_mutex> hold(vn::codecLock());
  codec_.reset();
}

vn::ff::CodecContext VNFFMediaStream::makeCodecContext() const {
  vn::ff::CodecContext context(avcodec_alloc_context3(nullptr));
  if (!context)
    return nullptr;
  if (avcodec_parameters_to_context(context.get(), stream_->codecpar) < 0)
    return nullptr;
  context->pkt_timebase = stream_->time_base;
  if (!palette_.empty()) {
    av_freep(&context->extradata);
    context->extradata =
        static_cast<uint8_t*>(av_mallocz(palette_.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!context->extradata)
      return nullptr;
    std::memcpy(context->extradata, palette_.data(), palette_.size());
    context->extradata_size = static_cast<int>(palette_.size());
  }
  return context;
}

// ---- what the stream is ------------------------------------------------------

int32_t VNFFMediaStream::mediaType() const {
  return codec_->codec_type;
}
bool VNFFMediaStream::isVideo() const {
  return mediaType() == AVMEDIA_TYPE_VIDEO;
}
bool VNFFMediaStream::isAudio() const {
  return mediaType() == AVMEDIA_TYPE_AUDIO;
}
bool VNFFMediaStream::isSubtitle() const {
  return mediaType() == AVMEDIA_TYPE_SUBTITLE;
}
bool VNFFMediaStream::isOpen() const {
  return avcodec_is_open(codec_.get()) > 0;
}

AVRational VNFFMediaStream::timebase() const {
  AVRational tb = stream_->time_base;
  if (tb.num <= 0)
    tb.num = 1;
  if (tb.den <= 0)
    tb.den = 1;
  return tb;
}

AVRational VNFFMediaStream::framebase() const {
  const int32_t rate = isAudio() ? codec_->sample_rate : 0;
  return rate > 0 ? AVRational{1, rate} : AVRational{1, 1};
}

int64_t VNFFMediaStream::startTime() const {
  return stream_->start_time == AV_NOPTS_VALUE ? 0 : stream_->start_time;
}

int64_t VNFFMediaStream::duration() const {
  return stream_->duration == AV_NOPTS_VALUE ? 0 : stream_->duration;
}

float VNFFMediaStream::framerate() const {
  const AVRational r = stream_->r_frame_rate;
  float rate = 0;
  if (r.num == 24000 && r.den == 1001) {
    rate = 23.97f;
  } else if (r.num == 30000 && r.den == 1001) {
    rate = 29.97f;
  } else if (r.num > 0 && r.den > 0) {
    rate = static_cast<float>(r.num / r.den);
  }
  if (rate < 1 || rate > 50) {
    const AVRational avg = stream_->avg_frame_rate;
    if (avg.num > 0 && avg.den > 0)
      rate = static_cast<float>(avg.num / avg.den);
  }
  if (rate < 1 || rate > 50)
    rate = 30;
  return rate;
}

std::string VNFFMediaStream::language() const {
  return Varnel::displayStringForLanguage(languageCode());
}

std::string VNFFMediaStream::languageCode() const {
  const AVDictionaryEntry* entry = av_dict_get(stream_->metadata, "language", nullptr, 0);
  return entry && entry->value ? entry->value : "";
}

std::string VNFFMediaStream::codecName() const {
  if (!isOpen() || !codec_->codec)
    return {};
  return codec_->codec->name;
}

VNFFAudioFormat VNFFMediaStream::audioFormat() const {
  if (!isAudio())
    return VNFFAudioFormat{-1, 0, 0};
  return VNFFAudioFormat{codec_->sample_fmt, effectiveChannelLayout(codec_->ch_layout),
                         codec_->sample_rate};
}

VNFFVideoFormat VNFFMediaStream::videoFormat() const {
  if (!isVideo())
    return VNFFVideoFormat{-1, 0, 0};
  return VNFFVideoFormat{codec_->pix_fmt, codec_->width, codec_->height};
}

// ---- open, close, palette ------------------------------------------------------

void VNFFMediaStream::open() {
  if (isOpen())
    return;
  if (const AVCodec* decoder = avcodec_find_decoder(codec_->codec_id)) {
    if (isVideo()) {
      // Two frame threads: pictures decode in parallel, each coming out one
      // packet later. Slice threads for a reader of single pictures.
      const std::shared_ptr<VNFFMedia> owner = media_.lock();
      const std::shared_ptr<VNMediaSource> source = owner ? owner->source() : nullptr;
      codec_->thread_count = 2;
      codec_->thread_type =
          source && source->decodesSinglePictures() ? FF_THREAD_SLICE : FF_THREAD_FRAME;
    }
    // A text subtitle in another charset than UTF-8: the decoder converts
    // each packet with iconv first (bitmap decoders ignore the option), and
    // fails to open when iconv does not know the name.
    AVDictionary* options = nullptr;
    const std::shared_ptr<VNFFMedia> owner = isSubtitle() ? media_.lock() : nullptr;
    if (owner && owner->subtitleCharset())
      av_dict_set(&options, "sub_charenc", owner->subtitleCharset()->c_str(), 0);
    std::lock_guard<std::recursive_mutex> hold(vn::codecLock());
    const int opened = avcodec_open2(codec_.get(), decoder, &options);
    av_dict_free(&options);
    if (opened < 0) {
      // A failed open leaves the context half torn down; start afresh so a
      // later open, and the format queries, see the stream's parameters.
      if (vn::ff::CodecContext fresh = makeCodecContext())
        codec_ = std::move(fresh);
    }
  }
  if (isAudio()) {
    abuffer_ = VNFFAudioBuffer::create();
    abuffer_->config(audioFormat());
  }
  // An embedded cover picture is not a video track.
  if (stream_->disposition == AV_DISPOSITION_ATTACHED_PIC)
    close();
  seek_pts_ = AV_NOPTS_VALUE;
}

void VNFFMediaStream::close() {
  abuffer_.reset();
  subtitle_.reset();
  bitmaps_.clear();
  subtitleString_.reset();
  if (!isOpen())
    return;
  // FFmpeg frees a decoder with its context; a fresh unopened context keeps
  // the stream's formats readable and lets it open again.
  vn::ff::CodecContext fresh = makeCodecContext();
  if (!fresh)
    return;
  std::lock_guard<std::recursive_mutex> hold(vn::codecLock());
  codec_ = std::move(fresh);
}

void VNFFMediaStream::fillPalette(const uint32_t* palette) {
  if (!palette)
    return;
  char text[kPaletteTextSize] = {};
  int used = std::snprintf(text, sizeof text, "palette:");
  for (int i = 0; i < 16; ++i) {
    const double y = (palette[i] >> 16) & 0xff;
    const double v = static_cast<double>((palette[i] >> 8) & 0xff) - 128;
    const double u = static_cast<double>(palette[i] & 0xff) - 128;
    const int32_t r = static_cast<int32_t>(y + 1.4075 * v);
    const int32_t g = static_cast<int32_t>(y - 0.3455 * u - 0.7169 * v);
    const int32_t b = static_cast<int32_t>(y + 1.779 * u);
    // No clamping: a component out of 0..255 spills into its neighbours,
    // which is the palette the decoder has always been given.
    const uint32_t rgb = (static_cast<uint32_t>(r) << 16) | (static_cast<uint32_t>(g) << 8) |
                         static_cast<uint32_t>(b);
    used += std::snprintf(text + used, sizeof text - used, "%x,", rgb);
  }
  std::snprintf(text + used, sizeof text - used, "\n\r");
  palette_.assign(text, text + kPaletteTextSize);
  if (isOpen())
    return;
  if (vn::ff::CodecContext withPalette = makeCodecContext())
    codec_ = std::move(withPalette);
}

// ---- decoding ----------------------------------------------------------------

bool VNFFMediaStream::decodePacket(const AVPacket* packet) {
  if (!packet || packet->size < 1)
    return false;
  AVPacket* copy = pending_.get();
  AVFrame* local = decoded_.get();
  av_packet_unref(copy);
  if (av_packet_ref(copy, packet) < 0)
    return false;

  bool result = false;
  int64_t sampleOffset = 0;
  int64_t packetPts = packet->pts;
  // Each step either gives a frame or leaves the packet consumed (a step
  // that could do neither abandons it), so the first step without a frame
  // means the decoder has nothing more for this packet.
  for (int pass = 0; pass < kMaxFramesPerPacket; ++pass) {
    if (!decodePacket(copy, local))
      break;
    result = true;
    takeFrame(local, sampleOffset, packetPts);
  }
  av_packet_unref(copy);
  av_frame_unref(local);
  return result;
}

void VNFFMediaStream::takeFrame(AVFrame* frame, int64_t& sampleOffset, int64_t& packetPts) {
  if (isVideo()) {
    av_frame_unref(previousFrame_.get());
    av_frame_move_ref(previousFrame_.get(), currentFrame_.get());
    av_frame_move_ref(currentFrame_.get(), frame);
    hasFrame_ = true;
  } else if (isSubtitle()) {
    av_frame_unref(currentFrame_.get());
    av_frame_move_ref(currentFrame_.get(), frame);
    hasFrame_ = true;
  } else if (isAudio()) {
    // FFmpeg times only the first frame of a packet; the ones after it
    // carry no time and are placed by their sample offset from the packet's.
    if (frame->pts == AV_NOPTS_VALUE)
      frame->pts = packetPts;
    if (sampleOffset == 0)
      packetPts = frame->pts;
    const int samples = frame->nb_samples;
    queueAudio(frame, sampleOffset);
    sampleOffset += samples;
  }
}

bool VNFFMediaStream::drain() {
  if (!isOpen() || (!isVideo() && !isAudio()))
    return false;
  if (!draining_) {
    draining_ = true;
    if (const int status = avcodec_send_packet(codec_.get(), nullptr); status < 0) {
      vn::logFailure("avcodec_send_packet (drain)", status);
      return false;
    }
  }
  AVFrame* frame = decoded_.get();
  if (const int status = avcodec_receive_frame(codec_.get(), frame); status < 0) {
    if (status != AVERROR_EOF && status != AVERROR(EAGAIN))
      vn::logFailure("avcodec_receive_frame (drain)", status);
    return false;
  }
  finishFrame(frame);
  int64_t sampleOffset = 0, pts = frame->pts;
  takeFrame(frame, sampleOffset, pts);
  av_frame_unref(frame);
  return true;
}

bool VNFFMediaStream::decodePacket(AVPacket* packet, AVFrame* frame) {
  if (!packet || !frame)
    return false;
  av_frame_unref(frame);
  if (isSubtitle())
    return decodeSubtitle(packet, frame);
  if ((!isAudio() && !isVideo()) || !isOpen()) {
    av_packet_unref(packet);
    return false;
  }
  if (packet->size > 0) {
    // EAGAIN: the decoder is full; the packet stays to be sent again once a
    // frame has been taken out. Any other answer ends the packet (an error
    // abandons it).
    if (const int sent = avcodec_send_packet(codec_.get(), packet); sent != AVERROR(EAGAIN)) {
      if (sent < 0)
        vn::logFailure("avcodec_send_packet", sent);
      av_packet_unref(packet);
    }
  }
  if (const int received = avcodec_receive_frame(codec_.get(), frame); received < 0) {
    if (received != AVERROR(EAGAIN) && received != AVERROR_EOF)
      vn::logFailure("avcodec_receive_frame", received);
    // A decoder that neither takes the packet nor gives a frame would hold
    // the caller forever.
    av_packet_unref(packet);
    return false;
  }
  finishFrame(frame);
  return true;
}

void VNFFMediaStream::finishFrame(AVFrame* frame) {
  if (isAudio()) {
    // The audio queue is configured with the effective layout; decoders may
    // report an unordered one.
    const uint64_t layout = effectiveChannelLayout(frame->ch_layout);
    AVChannelLayout effective{};
    if (av_channel_layout_from_mask(&effective, layout) == 0) {
      av_channel_layout_uninit(&frame->ch_layout);
      frame->ch_layout = effective;
    }
  }
  if (frame->best_effort_timestamp != AV_NOPTS_VALUE)
    frame->pts = frame->best_effort_timestamp;
  if (isVideo()) {
    if (frame->pkt_duration <= 0)
      frame->pkt_duration = frameDuration();
    if (frame->pts == AV_NOPTS_VALUE) {
      // Program streams time only some pictures, and after a seek the
      // decoder has nothing to guess from: the picture follows the one
      // before it, or, first after a seek, starts at the seek's target.
      frame->pts = next_pts_ != AV_NOPTS_VALUE   ? next_pts_
                   : seek_pts_ != AV_NOPTS_VALUE ? seek_pts_
                                                 : startTime();
    }
    if (__builtin_add_overflow(frame->pts, frame->pkt_duration, &next_pts_)) {
      next_pts_ = AV_NOPTS_VALUE;
    }
  }
}

int64_t VNFFMediaStream::frameDuration() const {
  for (const AVRational rate :
       {stream_->avg_frame_rate, stream_->r_frame_rate, codec_->framerate}) {
    if (rate.num > 0 && rate.den > 0) {
      return std::max<int64_t>(av_rescale_q(1, av_inv_q(rate), timebase()), 1);
    }
  }
  return 0;
}

bool VNFFMediaStream::decodeSubtitle(AVPacket* packet, AVFrame* frame) {
  if (packet->size <= 0 || !isOpen()) {
    av_packet_unref(packet);
    return false;
  }
  vn::ff::Subtitle subtitle = vn::ff::makeSubtitle();
  int got = 0;
  if (const int status = avcodec_decode_subtitle2(codec_.get(), subtitle.get(), &got, packet);
      status < 0) {
    vn::logFailure("avcodec_decode_subtitle2", status);
  }
  av_packet_unref(packet);
  if (!got)
    return false;

  vn::SubtitleTimes times = vn::subtitleTimes(subtitle->pts, subtitle->start_display_time,
                                              subtitle->end_display_time, timebase());
  // Blu-ray and broadcast pictures may come without an end: they stay up
  // until the next display set of the track, and one without a picture
  // takes them down. DVD subpictures always say when they end.
  const bool staysUp = isStayingBitmap();
  if (staysUp && (subtitle->end_display_time == 0 || subtitle->end_display_time == UINT32_MAX))
    times.duration = av_rescale_q(INT32_MAX, AVRational{1, 1000}, timebase());
  if (staysUp && subtitle->num_rects == 0)
    subtitle_.reset();
  frame->pts = times.pts;
  frame->pkt_duration = times.duration;
  frame->pkt_dts = times.pts;
  const int64_t startMs =
      (subtitle->pts == AV_NOPTS_VALUE ? 0 : av_rescale(subtitle->pts, 1, 1000)) +
      subtitle->start_display_time;
  const int64_t lengthMs =
      static_cast<uint32_t>(subtitle->end_display_time - subtitle->start_display_time);
  // The regions of one page (a broadcast page's two lines) make one picture.
  std::optional<vn::FilterImage> page;
  for (unsigned i = 0; i < subtitle->num_rects; ++i) {
    const AVSubtitleRect* rect = subtitle->rects[i];
    if (!rect)
      continue;
    if (rect->type == SUBTITLE_ASS && rect->ass) {
      subtitleString_ = vn::subtitleTextFromAss(rect->ass);
      if (keepsEvents_)
        events_.push_back(vn::SubtitleEvent{startMs, lengthMs, rect->ass});
    } else if (rect->type == SUBTITLE_BITMAP) {
      // subtitle() is the last region made; what is shown is the page.
      if (std::optional<vn::FilterImage> region = takeBitmap(*rect)) {
        subtitle_ = region;
        page = page ? region->sourceOver(*page) : std::move(*region);
      }
    }
  }
  if (isBitmapSubtitle() && times.pts != AV_NOPTS_VALUE && (page || staysUp)) {
    if (bitmaps_.size() >= kKeptBitmaps)
      bitmaps_.pop_front();
    bitmaps_.push_back(VNFFBitmapSubtitle{times.pts, times.duration, std::move(page)});
  }
  return true;
}

const VNFFBitmapSubtitle* VNFFMediaStream::bitmapSubtitleAt(int64_t want) const {
  // Decoding order is display order within a track: the last one that has
  // started is the one up, until its end or until the next one replaces it.
  for (auto it = bitmaps_.rbegin(); it != bitmaps_.rend(); ++it) {
    int64_t since;
    if (__builtin_sub_overflow(want, it->pts, &since) || since <= 0)
      continue;
    return since < it->duration && it->image ? &*it : nullptr;
  }
  return nullptr;
}

bool VNFFMediaStream::isBitmapSubtitle() const {
  const AVCodecDescriptor* descriptor = avcodec_descriptor_get(codec_->codec_id);
  return descriptor && (descriptor->props & AV_CODEC_PROP_BITMAP_SUB);
}

bool VNFFMediaStream::isStayingBitmap() const {
  return isBitmapSubtitle() && codec_->codec_id != AV_CODEC_ID_DVD_SUBTITLE;
}

std::optional<vn::FilterImage> VNFFMediaStream::takeBitmap(const AVSubtitleRect& rect) const {
  const int w = rect.w, h = rect.h;
  if (w <= 0 || h <= 0 || !rect.data[0] || !rect.data[1] || rect.linesize[0] <= 0)
    return std::nullopt;
  // Row by row, so a source row wider or narrower than w never makes the
  // conversion write past the w x h destination.
  const int columns = std::min(w, rect.linesize[0]);
  std::vector<uint8_t> bgra(static_cast<size_t>(w) * 4 * h, 0);
  for (int row = 0; row < h; ++row) {
    sws_convertPalette8ToPacked32(rect.data[0] + static_cast<size_t>(row) * rect.linesize[0],
                                  bgra.data() + static_cast<size_t>(row) * w * 4, columns,
                                  rect.data[1]);
  }
  // The palette holds native 0xAARRGGBB words: BGRA in memory.
  std::optional<vn::FilterImage> image =
      vn::FilterImage::fromRaster(bgra.data(), w, h, w * 4, vn::FilterImage::ByteOrder::BGRA);
  if (!image)
    return std::nullopt;
  std::shared_ptr<VNFFMedia> owner = media_.lock();
  const VNFFVideoFormat video = owner ? owner->videoFormat() : VNFFVideoFormat{-1, 0, 0};
  // A picture made for another frame size than the video's (a 1080-line
  // Blu-ray subtitle over a 720-line encode) is scaled with its positions.
  const int canvasWidth = codec_->width, canvasHeight = codec_->height;
  if (canvasWidth > 0 && canvasHeight > 0 && video.width > 0 && video.height > 0 &&
      (canvasWidth != video.width || canvasHeight != video.height)) {
    return image->translated(rect.x, canvasHeight - rect.y - h)
        .transformed(vn::AffineTransform::identity().scaled(
            static_cast<double>(video.width) / canvasWidth,
            static_cast<double>(video.height) / canvasHeight));
  }
  return image->translated(rect.x, video.height - rect.y - h);
}

void VNFFMediaStream::queueAudio(AVFrame* frame, int64_t sampleOffset) {
  const AVRational fb = framebase(), tb = timebase();
  frame->pkt_duration = av_rescale_q(frame->nb_samples, fb, tb);
  frame->pts += av_rescale_q(sampleOffset, fb, tb);
  if (seek_pts_ == AV_NOPTS_VALUE)
    return;
  const double ends =
      static_cast<double>(frame->pts) + 0.5 * static_cast<double>(frame->pkt_duration);
  if (ends < static_cast<double>(std::max(seek_pts_, last_pts_)))
    return;
  const int64_t pts = frame->pts;
  if (abuffer_)
    abuffer_->writeFrame(frame);
  last_pts_ = pts;
}

void VNFFMediaStream::seek(int64_t t) {
  if (isOpen())
    avcodec_flush_buffers(codec_.get());
  draining_ = false;
  next_pts_ = AV_NOPTS_VALUE;
  subtitle_.reset();
  bitmaps_.clear();
  seek_pts_ = t;
  sync_pts_ = av_rescale_q(t, timebase(), framebase());
  last_pts_ = AV_NOPTS_VALUE;
  if (abuffer_)
    abuffer_->config(audioFormat());
  forward();
}

bool VNFFMediaStream::forward() {
  if (isAudio()) {
    frame_buffer_ = abuffer_ ? abuffer_->read() : vn::ff::Frame();
    av_frame_unref(currentFrame_.get());
    if (frame_buffer_)
      av_frame_ref(currentFrame_.get(), frame_buffer_.get());
    return currentFrame_->nb_samples > 0;
  }
  if (isVideo()) {
    av_frame_unref(currentFrame_.get());
    av_frame_unref(previousFrame_.get());
  }
  return false;
}
