// The reading half of VNFFMedia: packet routing, seeking and the lookups of
// what is shown at a time.
#include "media/media.h"

#include <algorithm>
#include <cstring>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

#include "core/log.h"
#include "media/media_source.h"
#include "media/media_stream.h"
#include "media/movie_link.h"

namespace {

constexpr AVRational kMicroseconds{1, 1000000};

// Reading ahead goes two seconds past its base.
constexpr int64_t kReadAhead = 2000000;
// A seek reads at most this many packets to reach its target.
constexpr int kSeekReadLimit = 1001;
// videoFrameAtTime advances the video at most this many times per call.
constexpr int kVideoAdvances = 10;
// The loops that would otherwise read until the end of the file (mp3 seeks,
// subtitle lookups, reading ahead over packets without times) stop here, so
// a damaged file cannot hold a caller for its whole length in one call.
constexpr int kReadBound = 100000;

// pts + duration, saturating instead of overflowing on damaged times.
int64_t frameEnd(const AVFrame* frame) {
  int64_t end;
  if (__builtin_add_overflow(frame->pts, frame->pkt_duration, &end)) {
    return frame->pkt_duration > 0 ? INT64_MAX : INT64_MIN;
  }
  return end;
}

bool isFormat(const AVFormatContext* context, const char* name) {
  return context->iformat && std::strcmp(context->iformat->name, name) == 0;
}

// Demuxers that seek by searching the timestamps in the stream rather than
// an index of keyframes: they land on the packet nearest the target,
// wherever it falls between keyframes.
bool seeksWithoutKeyframes(const AVFormatContext* context) {
  return isFormat(context, "mpeg") || isFormat(context, "mpegts") || isFormat(context, "mpegvideo");
}

// The walk back from a landing after the target: the first step, doubled at
// each of the ten tries (0.5 s to 256 s), so that a long group of pictures
// costs a few tries and a short one little more decoding than it needs.
constexpr int64_t kFirstStepBack = 500000;
constexpr int kStepsBack = 10;

}  // namespace

bool VNFFMedia::nextPacket() {
  AVFormatContext* context = formatContext();
  if (!context)
    return false;
  if (!packet_)
    packet_ = vn::ff::makePacket();
  if (!packet_)
    return false;
  if (!ahead_.empty()) {
    av_packet_move_ref(packet_.get(), ahead_.front().get());
    ahead_.pop_front();
    const size_t size = static_cast<size_t>(std::max(packet_->size, 0));
    aheadBytes_ = ahead_.empty() ? 0 : aheadBytes_ - std::min(aheadBytes_, size);
    return true;
  }
  return av_read_frame(context, packet_.get()) >= 0;
}

bool VNFFMedia::forwardNextPacket() {
  if (!formatContext())
    return false;
  if (!nextPacket()) {
    // The end: the decoders give up what they held back, one frame a call,
    // so a file's last pictures are shown too.
    std::shared_ptr<VNMovieLink> owner = movie();
    const bool noVideo = owner && owner->disableVideo();
    for (const auto& stream : streams_) {
      if (stream->enable() && !(noVideo && stream->isVideo()) && stream->drain())
        return true;
    }
    return false;
  }
  forwardPacket(packet_.get());
  av_packet_unref(packet_.get());
  return true;
}

std::shared_ptr<VNFFMediaStream> VNFFMedia::receiver(const AVPacket& packet) {
  if (packet.stream_index < 0)
    return nullptr;
  std::shared_ptr<VNFFMediaStream> stream =
      mediaStreamForStreamIndex(static_cast<uint32_t>(packet.stream_index));
  if (!stream || !stream->enable())
    return nullptr;
  if (stream->isVideo()) {
    std::shared_ptr<VNMovieLink> owner = movie();
    if (owner && owner->disableVideo())
      return nullptr;
  }
  return stream;
}

void VNFFMedia::forwardPacket(AVPacket* packet) {
  std::shared_ptr<VNFFMediaStream> stream = packet ? receiver(*packet) : nullptr;
  if (!stream)
    return;
  if (packet->pts != AV_NOPTS_VALUE) {
    last_pts_ = av_rescale_q(packet->pts, stream->timebase(), kMicroseconds);
  }
  stream->decodePacket(packet);
}

bool VNFFMedia::forwardStream(const std::shared_ptr<VNFFMediaStream>& stream) {
  return forwardStream(stream, false);
}

bool VNFFMedia::forwardStream(const std::shared_ptr<VNFFMediaStream>& stream, bool force) {
  if (!stream)
    return false;
  std::shared_ptr<VNMovieLink> owner = movie();
  const bool playing = owner && !owner->exportMovie();
  int64_t base = last_pts_;
  // While playing, reading ahead is paced by the playback clock.
  if (!force && playing) {
    base = std::min(owner->currentTime() - movie_position_ + start_time(), last_pts_);
  }
  // The picture keeps pace while another stream is being advanced.
  if (!stream->isVideo() && hasVideo() && playing) {
    videoFrameAtTime(owner->currentTime() - movie_position_);
  }
  const int64_t limit = base > INT64_MAX - kReadAhead ? INT64_MAX : base + kReadAhead;
  bool result = true;
  for (int read = 0; read < kReadBound; ++read) {
    if (stream->isAudio()) {
      if (stream->forward())
        return true;
      result = false;
    }
    // In a media with video, reading is driven by the video.
    if (!stream->isVideo() && hasVideo())
      return result;
    if (last_pts_ >= limit)
      return result;
    stream->setHasFrame(false);
    result = forwardNextPacket();
    // A subtitle stops the reading too: the next one would replace it
    // before it was ever asked for.
    if ((stream->isVideo() || stream->isSubtitle()) && stream->hasFrame())
      return result;
    if (!result)
      return false;
  }
  return result;
}

void VNFFMedia::seek(int64_t t) {
  last_pts_ = AV_NOPTS_VALUE;
  ahead_.clear();
  aheadBytes_ = 0;
  aheadTo_ = INT64_MIN;
  AVFormatContext* context = formatContext();
  if (!context)
    return;
  const int64_t target = start_time() + t;
  int64_t timestamp;
  if (isFormat(context, "rm")) {
    // RealMedia lands late: a tenth of a second earlier, not clamped.
    timestamp = static_cast<int64_t>(static_cast<double>(target) + (-0.1 * 1000000));
  } else {
    timestamp = target < 0 ? 0 : target;
  }

  // Every open stream, enabled or not, forgets what it decoded and takes the
  // target as its own (a negative one too: nothing before it is dropped).
  for (const auto& stream : streams_) {
    if (stream->isOpen())
      stream->seek(av_rescale_q(target, kMicroseconds, stream->timebase()));
  }
  lookBackForSubtitles(target);

  if (av_seek_frame(context, -1, timestamp, AVSEEK_FLAG_BACKWARD) < 0) {
    // A plain subtitle file rewinds by bytes when its times cannot be sought.
    const bool rewindSubtitles = streams_.size() == 1 && target == 0 && hasSubtitle();
    if (av_seek_frame(context, -1, std::max<int64_t>(target, 0),
                      rewindSubtitles ? AVSEEK_FLAG_BYTE : AVSEEK_FLAG_BACKWARD) < 0 &&
        rewindSubtitles) {
      // FFmpeg's text subtitle demuxers seek by cue, not by byte: the cue
      // nearest to 0 is the first.
      if (const int status = avformat_seek_file(context, -1, INT64_MIN, 0, INT64_MAX, 0);
          status < 0) {
        vn::logFailure("avformat_seek_file", status);
      }
    }
  }

  // ASF may land after the target: step back 2.5 s more each time, up to
  // ten tries, until the first packet read is at or before it.
  if (isFormat(context, "asf") && forwardNextPacket()) {
    int64_t back = 0;
    for (int k = 0; last_pts_ > target && k <= 9; ++k) {
      const int64_t earlier = target - av_rescale_q(back, AVRational{1, 2}, kMicroseconds);
      if (const int status =
              av_seek_frame(context, -1, std::max<int64_t>(earlier, 0), AVSEEK_FLAG_BACKWARD);
          status < 0) {
        vn::logFailure("av_seek_frame", status);
      }
      back += 5;
      if (!forwardNextPacket())
        break;
    }
  }

  // Program and transport streams, and raw MPEG video, land between
  // keyframes and often after the target: the same walk back, until the
  // first keyframe read starts at or before the target.
  if (seeksWithoutKeyframes(context))
    seekBackToKeyframe(target, timestamp);

  // Read up to the target, so the streams hold what is shown there. A
  // picture that starts after the target waits for the next read: a decoder
  // that gives each picture out at once would otherwise show it in place of
  // the one that covers the target.
  for (int count = kSeekReadLimit;;) {
    if (nextPacket()) {
      vn::ff::Packet kept = startsAfter(*packet_, target) ? vn::ff::makePacket() : nullptr;
      if (kept) {
        av_packet_move_ref(kept.get(), packet_.get());
        ahead_.push_front(std::move(kept));
        break;
      }
      forwardPacket(packet_.get());
      av_packet_unref(packet_.get());
    } else if (!forwardNextPacket()) {
      break;
    }
    if (last_pts_ >= target || --count == 0)
      break;
  }

  // MP3 reads on until its audio has queued a first frame.
  if (isFormat(context, "mp3") && hasAudio()) {
    std::shared_ptr<VNFFMediaStream> audio = audioStream();
    for (int read = 0; read < kReadBound && audio->last_pts() == AV_NOPTS_VALUE; ++read) {
      if (!forwardNextPacket())
        break;
    }
  }

  for (const auto& audio : audios())
    audio->forward();
}

void VNFFMedia::lookBackForSubtitles(int64_t target) {
  AVFormatContext* context = formatContext();
  std::shared_ptr<VNFFMediaStream> subtitle = subtitleStream();
  if (!context || !subtitle || !subtitle->isOpen() || !subtitle->isBitmapSubtitle() ||
      !hasVideo() || target <= 0)
    return;
  std::shared_ptr<VNMovieLink> owner = movie();
  const int64_t delay = std::clamp<int64_t>(owner ? owner->subtitleDelay() : 0, 0, INT32_MAX);
  const int64_t from = target - kSubtitleLookBack - delay;
  if (av_seek_frame(context, -1, std::max<int64_t>(from, 0), AVSEEK_FLAG_BACKWARD) < 0)
    return;
  // Only the demuxer works here: a look back costs no decoding but the
  // subtitles'. The seek that follows puts the reading where it belongs.
  vn::ff::Packet packet = vn::ff::makePacket();
  const int index = subtitle->stream()->index;
  for (int read = 0; packet && read < kReadBound; ++read) {
    if (av_read_frame(context, packet.get()) < 0)
      return;
    if (packet->pts != AV_NOPTS_VALUE && packet->stream_index >= 0 &&
        static_cast<unsigned>(packet->stream_index) < context->nb_streams &&
        av_rescale_q(packet->pts, context->streams[packet->stream_index]->time_base,
                     kMicroseconds) >= target) {
      return;
    }
    if (packet->stream_index == index)
      subtitle->decodePacket(packet.get());
    av_packet_unref(packet.get());
  }
}

void VNFFMedia::seekBackToKeyframe(int64_t target, int64_t timestamp) {
  AVFormatContext* context = formatContext();
  // The video leads: its pictures decode only from a keyframe. Without it,
  // every packet of an enabled stream starts something that can be decoded.
  const std::shared_ptr<VNFFMediaStream> lead = hasVideo() ? videoStream() : nullptr;
  int64_t back = kFirstStepBack;
  for (int k = 0; k < kStepsBack; ++k) {
    ahead_.clear();
    std::optional<int64_t> first;  // file clock of the first keyframe read
    bool ended = false;            // the end came before any keyframe
    // The landing is at the start of a PES packet, inside a picture: the
    // parser gives that picture's tail out first, with the time that belongs
    // to the first picture starting in the PES packet.
    int leadPackets = 0;
    int64_t tailPts = AV_NOPTS_VALUE, tailDts = AV_NOPTS_VALUE;
    for (int read = 0; read < kSeekReadLimit && !first; ++read) {
      vn::ff::Packet packet = vn::ff::makePacket();
      if (!packet)
        break;
      if (av_read_frame(context, packet.get()) < 0) {
        ended = true;
        break;
      }
      std::shared_ptr<VNFFMediaStream> stream = receiver(*packet);
      if (!stream)
        continue;
      const bool leads = !lead || stream == lead;
      if (lead && leads) {
        const bool key = packet->flags & AV_PKT_FLAG_KEY;
        if (++leadPackets == 1 && !key) {
          tailPts = packet->pts;
          tailDts = packet->dts;
        } else if (leadPackets == 2 && key && packet->pts == AV_NOPTS_VALUE) {
          // A keyframe right after the tail starts in its PES packet.
          packet->pts = tailPts;
          packet->dts = tailDts;
        }
        // Pictures before the first keyframe cannot be decoded.
        if (!key)
          continue;
      }
      if (leads && packet->pts != AV_NOPTS_VALUE) {
        first = av_rescale_q(packet->pts, stream->timebase(), kMicroseconds);
      }
      ahead_.push_back(std::move(packet));
    }
    // Landed well, or nothing to learn, or nowhere further back to go.
    if ((first && *first <= target) || (!first && !ended) || timestamp <= 0)
      return;
    timestamp = std::max<int64_t>(target - back, 0);
    back *= 2;
    if (const int status = av_seek_frame(context, -1, timestamp, AVSEEK_FLAG_BACKWARD); status < 0)
      vn::logFailure("av_seek_frame", status);
  }
  ahead_.clear();
}

bool VNFFMedia::startsAfter(const AVPacket& packet, int64_t target) {
  if (packet.pts == AV_NOPTS_VALUE)
    return false;
  std::shared_ptr<VNFFMediaStream> stream = receiver(packet);
  if (!stream || !stream->isVideo())
    return false;
  return av_rescale_q(packet.pts, stream->timebase(), kMicroseconds) > target;
}

AVFrame* VNFFMedia::videoFrameAtTime(int64_t t) {
  std::shared_ptr<VNFFMediaStream> video = videoStream();
  if (!video)
    return nullptr;
  // The picture's end is compared with the time itself, not with the time
  // rounded to the stream's units: in a millisecond time base a time just
  // after a boundary would round onto it and keep the picture ending there.
  const int64_t want = start_time() + t;
  const AVRational tb = video->timebase();
  // A picture ending exactly at the time gives way to the next one only when
  // the movie asks for the picture starting there.
  const std::shared_ptr<VNMovieLink> owner = movie();
  const bool starting = owner && owner->startingPictureAtBoundary();
  auto before = [&](const AVFrame* frame) {
    const int order = av_compare_ts(frameEnd(frame), tb, want, kMicroseconds);
    return order < 0 || (starting && order == 0 && frame->pkt_duration > 0);
  };
  for (int i = 0; i < kVideoAdvances && before(video->frame()); ++i) {
    if (!forwardStream(video))
      break;
  }
  // Past a gap of a variable frame rate, the picture before is still shown.
  AVFrame* frame = video->frame();
  AVFrame* previous = video->previousFrame();
  if (frame->pts != AV_NOPTS_VALUE && previous->data[0] && previous->pts != AV_NOPTS_VALUE &&
      av_compare_ts(frame->pts, tb, want, kMicroseconds) > 0 &&
      av_compare_ts(previous->pts, tb, want, kMicroseconds) <= 0) {
    return previous;
  }
  return frame;
}

std::optional<std::string> VNFFMedia::subtitleStringAtTime(int64_t t) {
  std::shared_ptr<VNFFMediaStream> subtitle = subtitleStream();
  if (!subtitle)
    return std::nullopt;
  const int64_t want = av_rescale_q(start_time() + t, kMicroseconds, subtitle->timebase());
  // In a media with video, forwardStream does not read for a subtitle
  // stream and still answers true: stop at the first step that moved
  // neither the subtitle nor the reading position.
  for (int i = 0; i < kReadBound && frameEnd(subtitle->frame()) < want; ++i) {
    const int64_t shown = subtitle->frame()->pts;
    const int64_t read = last_pts_;
    if (!forwardStream(subtitle))
      break;
    if (subtitle->frame()->pts == shown && last_pts_ == read)
      break;
  }
  if (!shows(*subtitle, want))
    return std::nullopt;
  return subtitle->subtitleString();
}

std::vector<vn::SubtitleEvent> VNFFMedia::subtitleEventsUntil(int64_t t) {
  std::shared_ptr<VNFFMediaStream> subtitle = subtitleStream();
  if (!subtitle)
    return {};
  subtitle->setKeepsSubtitleEvents(true);
  const int64_t want = av_rescale_q(start_time() + t, kMicroseconds, subtitle->timebase());
  // Events overlap: reading stops only past one that starts after t. As
  // for the text, a step that moved nothing ends the reading.
  for (int i = 0; i < kReadBound; ++i) {
    const AVFrame* shown = subtitle->frame();
    if (shown->pts != AV_NOPTS_VALUE && shown->pts > want)
      break;
    const int64_t pts = shown->pts, read = last_pts_;
    if (!forwardStream(subtitle))
      break;
    if (subtitle->frame()->pts == pts && last_pts_ == read)
      break;
  }
  std::vector<vn::SubtitleEvent> events = subtitle->takeSubtitleEvents();
  const int64_t startMs = start_time() / 1000;
  for (vn::SubtitleEvent& event : events)
    event.start -= startMs;
  return events;
}

std::optional<vn::FilterImage> VNFFMedia::subtitleAtTime(int64_t t, int64_t* start) {
  std::shared_ptr<VNFFMediaStream> subtitle = subtitleStream();
  if (!subtitle)
    return std::nullopt;
  int64_t at;
  if (__builtin_add_overflow(start_time(), t, &at))
    return std::nullopt;
  readSubtitleAhead(*subtitle, at);
  const VNFFBitmapSubtitle* shown =
      subtitle->bitmapSubtitleAt(av_rescale_q(at, kMicroseconds, subtitle->timebase()));
  if (!shown)
    return std::nullopt;
  if (start)
    *start = shown->pts;
  return shown->image;
}

void VNFFMedia::readSubtitleAhead(VNFFMediaStream& subtitle, int64_t at) {
  AVFormatContext* context = formatContext();
  if (!context || last_pts_ == AV_NOPTS_VALUE)
    return;
  for (int read = 0;
       read < kReadBound && std::max(last_pts_, aheadTo_) < at && aheadBytes_ < kSubtitleReadAhead;
       ++read) {
    vn::ff::Packet packet = vn::ff::makePacket();
    if (!packet || av_read_frame(context, packet.get()) < 0)
      return;
    std::shared_ptr<VNFFMediaStream> stream = receiver(*packet);
    if (!stream)
      continue;
    if (packet->pts != AV_NOPTS_VALUE)
      aheadTo_ = av_rescale_q(packet->pts, stream->timebase(), kMicroseconds);
    if (stream.get() == &subtitle) {
      subtitle.decodePacket(packet.get());
      continue;
    }
    aheadBytes_ += static_cast<size_t>(std::max(packet->size, 0));
    ahead_.push_back(std::move(packet));
  }
}

bool VNFFMedia::shows(const VNFFMediaStream& subtitle, int64_t want) {
  const AVFrame* frame = subtitle.frame();
  int64_t since;
  if (frame->pts == AV_NOPTS_VALUE || __builtin_sub_overflow(want, frame->pts, &since))
    return false;
  return since > 0 && since < frame->pkt_duration;
}

void VNFFMedia::thumbnailAtTime(int64_t t, const std::function<void(AVFrame*)>& block) {
  std::shared_ptr<VNFFMediaStream> video = videoStream();
  if (!video)
    return;
  seek(t);
  // The picture that covers t: a decoder hands pictures out a few packets
  // after it was given them, so the seek may leave an earlier one current.
  AVFrame* frame = videoFrameAtTime(t);
  if (!frame->data[0])
    forwardStream(video, true);
  if (block)
    block(frame);
}

std::optional<std::vector<std::string>> VNFFMedia::textsFromAVSubtitle(AVSubtitle*) {
  return std::nullopt;
}
