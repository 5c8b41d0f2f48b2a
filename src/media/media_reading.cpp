// The reading half of VNFFMedia: packet routing, seeking and the lookups of
// what is shown at a time.
#include "media/media.h"

#include <algorithm>
#include <cstring>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

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

}  // namespace

bool VNFFMedia::forwardNextPacket() {
  AVFormatContext* context = formatContext();
  if (!context) return false;
  if (!packet_) packet_ = vn::ff::makePacket();
  if (!packet_) return false;
  if (av_read_frame(context, packet_.get()) < 0) {
    // The end: the decoders give up what they held back, one frame a call,
    // so a file's last pictures are shown too.
    std::shared_ptr<VNMovieLink> owner = movie();
    const bool noVideo = owner && owner->disableVideo();
    for (const auto& stream : streams_) {
      if (stream->enable() && !(noVideo && stream->isVideo()) && stream->drain()) return true;
    }
    return false;
  }
  forwardPacket(packet_.get());
  av_packet_unref(packet_.get());
  return true;
}

void VNFFMedia::forwardPacket(AVPacket* packet) {
  if (!packet || packet->stream_index < 0) return;
  std::shared_ptr<VNFFMediaStream> stream =
      mediaStreamForStreamIndex(static_cast<uint32_t>(packet->stream_index));
  if (!stream || !stream->enable()) return;
  if (stream->isVideo()) {
    std::shared_ptr<VNMovieLink> owner = movie();
    if (owner && owner->disableVideo()) return;
  }
  if (packet->pts != AV_NOPTS_VALUE) {
    last_pts_ = av_rescale_q(packet->pts, stream->timebase(), kMicroseconds);
  }
  stream->decodePacket(packet);
}

bool VNFFMedia::forwardStream(const std::shared_ptr<VNFFMediaStream>& stream) {
  return forwardStream(stream, false);
}

bool VNFFMedia::forwardStream(const std::shared_ptr<VNFFMediaStream>& stream, bool force) {
  if (!stream) return false;
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
      if (stream->forward()) return true;
      result = false;
    }
    // In a media with video, reading is driven by the video.
    if (!stream->isVideo() && hasVideo()) return result;
    if (last_pts_ >= limit) return result;
    stream->setHasFrame(false);
    result = forwardNextPacket();
    if (stream->isVideo() && stream->hasFrame()) return result;
    if (!result) return false;
  }
  return result;
}

void VNFFMedia::seek(int64_t t) {
  last_pts_ = AV_NOPTS_VALUE;
  AVFormatContext* context = formatContext();
  if (!context) return;
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
    if (stream->isOpen()) stream->seek(av_rescale_q(target, kMicroseconds, stream->timebase()));
  }

  if (av_seek_frame(context, -1, timestamp, AVSEEK_FLAG_BACKWARD) < 0) {
    // A plain subtitle file rewinds by bytes when its times cannot be sought.
    const bool rewindSubtitles = streams_.size() == 1 && target == 0 && hasSubtitle();
    if (av_seek_frame(context, -1, std::max<int64_t>(target, 0),
                      rewindSubtitles ? AVSEEK_FLAG_BYTE : AVSEEK_FLAG_BACKWARD) < 0 &&
        rewindSubtitles) {
      // FFmpeg's text subtitle demuxers seek by cue, not by byte: the cue
      // nearest to 0 is the first.
      (void)avformat_seek_file(context, -1, INT64_MIN, 0, INT64_MAX, 0);
    }
  }

  // ASF may land after the target: step back 2.5 s more each time, up to
  // ten tries, until the first packet read is at or before it.
  if (isFormat(context, "asf") && forwardNextPacket()) {
    int64_t back = 0;
    for (int k = 0; last_pts_ > target && k <= 9; ++k) {
      const int64_t earlier = target - av_rescale_q(back, AVRational{1, 2}, kMicroseconds);
      (void)av_seek_frame(context, -1, std::max<int64_t>(earlier, 0), AVSEEK_FLAG_BACKWARD);
      back += 5;
      if (!forwardNextPacket()) break;
    }
  }

  // Read up to the target, so the streams hold what is shown there.
  for (int count = kSeekReadLimit; forwardNextPacket();) {
    if (last_pts_ >= target || --count == 0) break;
  }

  // MP3 reads on until its audio has queued a first frame.
  if (isFormat(context, "mp3") && hasAudio()) {
    std::shared_ptr<VNFFMediaStream> audio = audioStream();
    for (int read = 0; read < kReadBound && audio->last_pts() == AV_NOPTS_VALUE; ++read) {
      if (!forwardNextPacket()) break;
    }
  }

  for (const auto& audio : audios()) audio->forward();
}

AVFrame* VNFFMedia::videoFrameAtTime(int64_t t) {
  std::shared_ptr<VNFFMediaStream> video = videoStream();
  if (!video) return nullptr;
  const int64_t want = av_rescale_q(start_time() + t, kMicroseconds, video->timebase());
  for (int i = 0; i < kVideoAdvances && frameEnd(video->frame()) < want; ++i) {
    if (!forwardStream(video)) break;
  }
  return video->frame();
}

std::optional<std::string> VNFFMedia::subtitleStringAtTime(int64_t t) {
  std::shared_ptr<VNFFMediaStream> subtitle = subtitleStream();
  if (!subtitle) return std::nullopt;
  const int64_t want = av_rescale_q(start_time() + t, kMicroseconds, subtitle->timebase());
  // In a media with video, forwardStream does not read for a subtitle
  // stream and still answers true: stop at the first step that moved
  // neither the subtitle nor the reading position.
  for (int i = 0; i < kReadBound && frameEnd(subtitle->frame()) < want; ++i) {
    const int64_t shown = subtitle->frame()->pts;
    const int64_t read = last_pts_;
    if (!forwardStream(subtitle)) break;
    if (subtitle->frame()->pts == shown && last_pts_ == read) break;
  }
  if (!shows(*subtitle, want)) return std::nullopt;
  return subtitle->subtitleString();
}

std::optional<vn::FilterImage> VNFFMedia::subtitleAtTime(int64_t t) {
  std::shared_ptr<VNFFMediaStream> subtitle = subtitleStream();
  if (!subtitle) return std::nullopt;
  const int64_t want = av_rescale_q(start_time() + t, kMicroseconds, subtitle->timebase());
  if (!shows(*subtitle, want)) return std::nullopt;
  return subtitle->subtitle();
}

bool VNFFMedia::shows(const VNFFMediaStream& subtitle, int64_t want) {
  const AVFrame* frame = subtitle.frame();
  int64_t since;
  if (frame->pts == AV_NOPTS_VALUE || __builtin_sub_overflow(want, frame->pts, &since)) return false;
  return since > 0 && since < frame->pkt_duration;
}

void VNFFMedia::thumbnailAtTime(int64_t t, const std::function<void(AVFrame*)>& block) {
  std::shared_ptr<VNFFMediaStream> video = videoStream();
  if (!video) return;
  AVFrame* frame = video->frame();
  seek(t);
  if (!frame->data[0]) forwardStream(video, true);
  if (block) block(frame);
}

std::optional<std::vector<std::string>> VNFFMedia::textsFromAVSubtitle(AVSubtitle*) {
  return std::nullopt;
}
