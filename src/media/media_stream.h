// VNFFMediaStream: one container stream of a media, with its own decoder.
//
// It opens and closes the decoder, decodes the packets its media routes to
// it, and keeps the results where the rest of the library looks:
//   video     the last decoded picture in frame(), hasFrame set;
//   audio     decoded frames queued in abuffer(), taken one at a time into
//             frame() by forward();
//   subtitle  the timing of the last subtitle in frame() (pts, pkt_duration),
//             its text in subtitleString(), its bitmap in subtitle() and,
//             with its times, among bitmapSubtitles(); hasFrame set.
//
//   created ──open──► open ──decodePacket/forward/seek──► ... ──close──► closed
//                      ▲                                               │
//                      └──────────────────── open ─────────────────────┘
//
// Times: frame pts, pkt_duration, seek_pts and last_pts are in timebase()
// units; sync_pts in framebase() units (one audio sample).
//
// Threads: driven by one thread at a time, the one that drives its media (a
// movie's decode queue). Decoder open and close hold "avcodec_open/close".
// Valid while its media lives: the AVStream belongs to the media's demuxer.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/rational.h>
}

#include "core/formats.h"
#include "ffmpeg/owners.h"
#include "image/filter_image.h"
#include "text/styled_subtitles.h"

struct AVStream;
struct AVSubtitleRect;
class VNFFAudioBuffer;
class VNFFMedia;

// A decoded bitmap subtitle: its start and how long it shows (timebase
// units), and its picture; none for one that takes the pictures down.
struct VNFFBitmapSubtitle {
  int64_t pts = 0;
  int64_t duration = 0;
  std::optional<vn::FilterImage> image;
};

class VNFFMediaStream {
 public:
  // A stream over container stream `stream` of `media`'s demuxer, decoder
  // closed. Its codec context is made from the stream's parameters at once,
  // so the formats are known before open. Null when allocation fails.
  static std::shared_ptr<VNFFMediaStream> create(std::weak_ptr<VNFFMedia> media, AVStream* stream);

  VNFFMediaStream(const VNFFMediaStream&) = delete;
  VNFFMediaStream& operator=(const VNFFMediaStream&) = delete;
  // Closes the decoder.
  ~VNFFMediaStream();

  // ---- what the stream is -----------------------------------------------
  // The stream's own codec context (never the demuxer's); never null.
  AVCodecContext* codecContext() const { return codec_.get(); }
  int32_t mediaType() const;  // AVMediaType
  bool isVideo() const;
  bool isAudio() const;
  bool isSubtitle() const;
  // A subtitle stream whose codec makes pictures (DVD, Blu-ray, DVB...).
  bool isBitmapSubtitle() const;
  bool isValidAudio() const { return false; }
  // The decoder is open.
  bool isOpen() const;
  // The container stream's time base, a part <= 0 replaced by 1.
  AVRational timebase() const;
  // One audio sample, {1, sample rate}; {1, 1} without a rate.
  AVRational framebase() const;
  // The container stream's start time and duration (timebase units), 0 when
  // unknown.
  int64_t startTime() const;
  int64_t duration() const;
  // Frames per second: 23.97 and 29.97 for the NTSC rates, else the integer
  // quotient of the real rate, else of the average rate, else 30.
  float framerate() const;
  // Display name of the stream's language tag in the user's locale; an
  // untagged stream reads as English.
  std::string language() const;
  // The stream's language tag as the container stores it ("eng", "fre",
  // "und"); empty when untagged.
  std::string languageCode() const;
  // Short name of the opened decoder; empty when not open.
  std::string codecName() const;
  // Audio: {sample format, effective channel mask, rate}; else {-1, 0, 0}.
  // The mask is the decoder's own when it is a plain mask with the decoder's
  // channel count, else FFmpeg's default mask for that count.
  VNFFAudioFormat audioFormat() const;
  // Video: {pixel format, width, height}; else {-1, 0, 0}.
  VNFFVideoFormat videoFormat() const;
  // The current frame; never null, owned by the stream. For audio it is the
  // buffer last taken by forward().
  AVFrame* frame() const { return currentFrame_.get(); }
  // Video: the picture decoded before frame() since the last seek; never
  // null, empty when there is none. A picture lasts until the next starts,
  // which the durations of a variable frame rate do not always say.
  AVFrame* previousFrame() const { return previousFrame_.get(); }

  // ---- decoding -----------------------------------------------------------
  // Opens the decoder (nothing when open): audio gets a fresh audio buffer,
  // an attached picture (cover art) is closed again at once, seek_pts is
  // unset.
  void open();
  // Releases the audio buffer, the subtitle image and text, and the decoder.
  // The current frame stays. May be opened again.
  void close();
  // Gives the DVD subpicture decoder its palette, 16 entries 0x00YYVVUU, as a
  // "palette:" text. Called before open; kept across close and open.
  void fillPalette(const uint32_t* palette);

  // Decodes one packet (the packet itself is not changed); true when at
  // least one frame came out. Video: the last picture goes to frame().
  // Audio: each frame gets the packet's time plus the samples before it, and
  // is queued when a seek has happened, it does not end more than half a
  // frame before the seek target and it does not go back before the last
  // queued frame. Subtitles: see decodePacket(packet, frame). Always ends.
  bool decodePacket(const AVPacket* packet);
  // One decoding step: sends `packet` unless it was sent already (its size
  // drops to 0 once the decoder took it or refused it) and takes one frame
  // into `frame` (reset first). True when a frame came out. Subtitles are
  // decoded whole: frame pts and pkt_duration come from the display times,
  // the text of an ASS line goes to subtitleString(), a bitmap goes to
  // subtitle() placed at (x, H - y - h) in the media's picture space.
  bool decodePacket(AVPacket* packet, AVFrame* frame);

  // At the end of the input: takes out the next frame the decoder still
  // holds (pictures held back for reordering, for one), telling the decoder
  // once that no more packets come. The frame is handled as a decoded one.
  // False when the decoder holds none. A seek ends the draining.
  bool drain();

  // Flushes the decoder and resets timing for a new position t (timebase
  // units): drops the subtitle images and the queued audio, sets seek_pts,
  // sync_pts, unsets last_pts, then forward().
  void seek(int64_t t);
  // Audio: takes the next queued frame into frame() (or clears it); true when
  // it has samples. Video: clears frame(), false. Others: false.
  bool forward();

  // ---- fields --------------------------------------------------------------
  const std::optional<std::string>& subtitleString() const { return subtitleString_; }
  void setSubtitleString(std::optional<std::string> text) { subtitleString_ = std::move(text); }
  const std::optional<vn::FilterImage>& subtitle() const { return subtitle_; }
  void setSubtitle(std::optional<vn::FilterImage> image) { subtitle_ = std::move(image); }
  // The bitmap subtitles decoded since the last seek, oldest first; the
  // last kKeptBitmaps of them. A delayed subtitle is looked up among them
  // after later ones were read, and a subtitle read ahead waits there.
  static constexpr size_t kKeptBitmaps = 64;
  const std::deque<VNFFBitmapSubtitle>& bitmapSubtitles() const { return bitmaps_; }
  // The bitmap subtitle shown at `want` (timebase units): the last one
  // decoded that starts strictly before it, when `want` is also before its
  // end and it has a picture. Null otherwise.
  const VNFFBitmapSubtitle* bitmapSubtitleAt(int64_t want) const;
  bool hasFrame() const { return hasFrame_; }
  void setHasFrame(bool value) { hasFrame_ = value; }
  std::shared_ptr<VNFFMedia> media() const { return media_.lock(); }
  void setMedia(std::weak_ptr<VNFFMedia> media) { media_ = std::move(media); }
  int64_t sync_pts() const { return sync_pts_; }
  void setSync_pts(int64_t value) { sync_pts_ = value; }
  AVStream* stream() const { return stream_; }
  const std::shared_ptr<VNFFAudioBuffer>& abuffer() const { return abuffer_; }
  void setAbuffer(std::shared_ptr<VNFFAudioBuffer> buffer) { abuffer_ = std::move(buffer); }
  int64_t last_pts() const { return last_pts_; }
  void setLast_pts(int64_t value) { last_pts_ = value; }
  bool enable() const { return enable_; }
  void setEnable(bool value) { enable_ = value; }
  int64_t seek_pts() const { return seek_pts_; }
  void setSeek_pts(int64_t value) { seek_pts_ = value; }

  // Text subtitles for a styled renderer: while set, every decoded event is
  // also kept whole (the ASS line as the decoder made it, nothing cut),
  // with its start and duration in milliseconds on the stream's clock.
  bool keepsSubtitleEvents() const { return keepsEvents_; }
  void setKeepsSubtitleEvents(bool value) { keepsEvents_ = value; }
  // The events kept since the last call, in decoding order.
  std::vector<vn::SubtitleEvent> takeSubtitleEvents() { return std::exchange(events_, {}); }

 private:
  VNFFMediaStream(std::weak_ptr<VNFFMedia> media,
                  AVStream* stream,
                  vn::ff::Frame current,
                  vn::ff::CodecContext codec);

  // A fresh, unopened codec context from the stream's parameters (and the
  // palette, if one was given). Null when allocation fails.
  vn::ff::CodecContext makeCodecContext() const;
  // What every decoded audio or video frame gets: the effective channel
  // layout (audio) and the best time the decoder has for it. A picture
  // without a duration lasts one frame of the stream's rate, and one without
  // a time follows the picture before it.
  void finishFrame(AVFrame* frame);
  // One frame of the stream's rate in timebase() units; 0 when unknown.
  int64_t frameDuration() const;
  // Keeps a decoded frame where its kind goes: the current picture, the
  // current subtitle timing, or the audio queue (placed sampleOffset samples
  // after packetPts when the decoder gave it no time).
  void takeFrame(AVFrame* frame, int64_t& sampleOffset, int64_t& packetPts);
  // Decodes a subtitle packet into frame's times and the text or image.
  bool decodeSubtitle(AVPacket* packet, AVFrame* frame);
  // A bitmap subtitle codec whose pictures may come without an end time
  // (every bitmap codec but the DVD's).
  bool isStayingBitmap() const;
  // One bitmap rectangle as an image placed in the media's picture space;
  // none when the rectangle is empty or damaged.
  std::optional<vn::FilterImage> takeBitmap(const AVSubtitleRect& rect) const;
  // Audio bookkeeping of one decoded frame of a packet; sampleOffset counts
  // the samples of the frames before it.
  void queueAudio(AVFrame* frame, int64_t sampleOffset);

  vn::ff::Frame currentFrame_;   // the current frame; never null
  vn::ff::Frame frame_buffer_;   // the audio frame exposed through currentFrame_
  vn::ff::Frame previousFrame_;  // the picture before currentFrame_; never null
  // Reused by every decode call: the packet being decoded and the frame it
  // gives. Never null.
  vn::ff::Packet pending_;
  vn::ff::Frame decoded_;
  std::optional<std::string> subtitleString_;  // text of the last text subtitle
  std::optional<vn::FilterImage> subtitle_;    // last bitmap subtitle, placed
  std::deque<VNFFBitmapSubtitle> bitmaps_;     // see bitmapSubtitles()
  bool hasFrame_ = false;  // a picture or subtitle was decoded since last cleared
  // The owning media. Weak: the media owns its streams, but a stream handed
  // out may outlive it, and then it must not reach a dead media.
  std::weak_ptr<VNFFMedia> media_;
  int64_t sync_pts_ = 0;                      // running sample clock of the mix (framebase)
  AVStream* stream_;                          // owned by the media's demuxer
  std::shared_ptr<VNFFAudioBuffer> abuffer_;  // audio queue while open
  int64_t last_pts_;                          // pts of the last queued audio frame
  bool enable_ = false;                       // set by the media: receives packets
  int64_t seek_pts_;                          // target of the last seek; unset before
  vn::ff::CodecContext codec_;                // the decoder; never null
  std::vector<uint8_t> palette_;              // "palette:" text for the DVD subpicture decoder
  bool draining_ = false;                     // the decoder was told the input ended
  bool keepsEvents_ = false;                  // text events are kept whole in events_
  std::vector<vn::SubtitleEvent> events_;     // kept since the last takeSubtitleEvents
  int64_t next_pts_;                          // where the last picture ends; unset after a seek
};
