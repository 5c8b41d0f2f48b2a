// VNFFMedia: one opened demuxer seen as a set of decodable streams.
//
// It owns its source and one VNFFMediaStream per container stream, decides
// which streams are open and enabled, answers what it holds (audio, video,
// subtitles, names, duration), and moves packets from the demuxer to the
// streams. A movie places it on its timeline at movie_position.
//
//   created ──open──► open (streams built) ──open again──► new streams appended
//                        │
//                        └─ set an index set + updateSelectStreams ──► re-selected
//
// Selections: selectStreams keeps container stream indices (null: all);
// selectAudios and selectSubtitles hold track keys (null: no restriction).
// A key is the ordinal of the stream among the open audio (or subtitle)
// streams, and on a DVD source the low four bits of the stream id.
//
// Times are microseconds; last_pts is in the file's own clock.
// Threads: one thread at a time (the movie's decode queue, or the caller's
// thread for a stand-alone media). Decoder open and close inside take the
// lock named "avcodec_open/close".
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/formats.h"
#include "ffmpeg/owners.h"
#include "image/filter_image.h"
#include "media/index_set.h"
#include "text/styled_subtitles.h"

struct AVFormatContext;
class VNFFMediaStream;
class VNMediaSource;
class VNMovieLink;

class VNFFMedia : public std::enable_shared_from_this<VNFFMedia> {
 public:
  using Streams = std::vector<std::shared_ptr<VNFFMediaStream>>;

  // An unopened media without a source.
  static std::shared_ptr<VNFFMedia> create();

  VNFFMedia(const VNFFMedia&) = delete;
  VNFFMedia& operator=(const VNFFMedia&) = delete;
  // Releases the movie reference, closes the streams, then the source.
  virtual ~VNFFMedia();

  // A new unopened media with the same movie_position, a copy of the source
  // (unopened, its own demuxer), the same three selections and the same
  // subtitle charset.
  virtual std::shared_ptr<VNFFMedia> copy() const;

  // ---- opening and selection ----------------------------------------------
  // Opens the source and appends a stream for every container stream not
  // seen yet (decoders opened as selectStreams allows), then re-applies the
  // selections. May be called again: containers such as program streams
  // reveal streams while being read.
  void open();
  bool isOpen() const;
  AVFormatContext* formatContext() const;
  // Re-applies the three selections to the streams: open or close each by
  // selectStreams, then disable audio and subtitle streams whose key is not
  // selected (they stay open).
  void updateSelectStreams();

  // ---- what the media holds -------------------------------------------------
  const Streams& streams() const { return streams_; }
  void setStreams(Streams streams) { streams_ = std::move(streams); }
  // Enabled streams of a kind, in index order.
  Streams audios() const;
  Streams videos() const;
  Streams subtitles() const;
  // The last of each list; null when empty.
  std::shared_ptr<VNFFMediaStream> audioStream() const;
  std::shared_ptr<VNFFMediaStream> videoStream() const;
  std::shared_ptr<VNFFMediaStream> subtitleStream() const;
  bool hasAudio() const;
  // An enabled video stream, unless the movie has video turned off.
  bool hasVideo() const;
  bool hasSubtitle() const;
  // Track names, which the selection keys index: the source's own when it
  // has them, else the language of every open audio (subtitle) stream.
  std::vector<std::string> audioNames() const;
  std::vector<std::string> subtitleNames() const;
  // The container index of subtitle stream `track` (counted among the
  // context's subtitle streams, as track keys are); none when it has fewer.
  // *count, when given, receives how many subtitle streams it has.
  static std::optional<uint32_t> subtitleStreamIndex(const AVFormatContext* context,
                                                     uint32_t track,
                                                     uint32_t* count = nullptr);
  // The demuxer's start time (0 when unknown) and duration (0 without a
  // demuxer, else as the demuxer gives it), microseconds.
  int64_t start_time() const;
  int64_t duration() const;
  // The video stream's picture format ({0, 0, 0} without one) and rate (0).
  VNFFVideoFormat videoFormat() const;
  float framerate() const;
  // The stream of a container index; opens again first when the index is
  // beyond the streams known, so late streams are found. Null when absent.
  std::shared_ptr<VNFFMediaStream> mediaStreamForStreamIndex(uint32_t index);

  // ---- reading -------------------------------------------------------------
  // Times given here are microseconds from the media's own start (movie time
  // minus movie_position); the media adds its start_time to reach the file's
  // clock. End of file is not a state: each call that reads returns false.

  // Reads one packet and routes it; false at the end of the file or on a
  // read error.
  bool forwardNextPacket();
  // Routes one packet to its stream's decoder: dropped when the stream is
  // missing or disabled, or is video while the movie has video turned off.
  // A packet with a time sets last_pts first. The packet is not changed.
  void forwardPacket(AVPacket* packet);
  // Advances one stream by reading packets, at most two seconds past a base:
  // what has been read, or, while the movie plays (not exports) and unless
  // forced, the playback clock if that is earlier. Audio: true as soon as a
  // queued frame is taken into its frame(); in a media with video an audio
  // or subtitle stream is never read for (false when nothing is queued).
  // Video, and a subtitle in a media without video: true once a picture (a
  // subtitle) was decoded. False at the end of the file.
  bool forwardStream(const std::shared_ptr<VNFFMediaStream>& stream);
  bool forwardStream(const std::shared_ptr<VNFFMediaStream>& stream, bool force);
  // Moves every open stream and the demuxer to t, then reads up to t (at
  // most 1001 packets; an MP3 reads on until its audio has a frame) and
  // takes the first queued audio of each audio stream. Negative times and
  // times past the end are not refused: the streams take t as their target.
  // Containers without a keyframe index (program and transport streams,
  // raw MPEG video, ASF) are stepped back until decoding starts at or before
  // t. A picture that starts after t is read but waits for the next read,
  // so the picture shown is the one that covers t.
  virtual void seek(int64_t t);
  // The video stream's current frame once it reaches t, advancing it at most
  // ten times; it may still end before t (the latest frame there is). When
  // the current frame starts after t and the one before it does not (a gap
  // of a variable frame rate), the one before. Owned by the stream. Null
  // without a video stream.
  AVFrame* videoFrameAtTime(int64_t t);
  // The bitmap subtitle shown at t (strictly after its start and before its
  // end, and not yet replaced by a later one); null when none. A time the
  // reading has not reached yet (a subtitle shown earlier than its own
  // times say) is read ahead for: the packets of the other streams read on
  // the way wait, in order, for the reads that follow, up to
  // kSubtitleReadAhead bytes of them. *start, when given, receives the
  // subtitle's start (the stream's timebase).
  std::optional<vn::FilterImage> subtitleAtTime(int64_t t, int64_t* start = nullptr);
  static constexpr size_t kSubtitleReadAhead = size_t{128} << 20;
  // The text subtitle shown at t, reading ahead as far as needed (for a
  // subtitle-only media, such as an external subtitle file); null when none.
  std::optional<std::string> subtitleStringAtTime(int64_t t);
  // The whole events of the text subtitle stream decoded since the last
  // call, reading ahead until an event starts after t (or the input ends),
  // so that every event shown at t is among those returned so far. The
  // stream keeps its events from the first call on. Times in milliseconds
  // on the media's clock (its start time at 0).
  std::vector<vn::SubtitleEvent> subtitleEventsUntil(int64_t t);
  // Seeks to t and calls block once, synchronously, with the picture that
  // covers t (videoFrameAtTime; decoding one picture if there is none).
  // Never calls back without a video stream.
  void thumbnailAtTime(int64_t t, const std::function<void(AVFrame*)>& block);
  // Texts of a decoded subtitle: always null (text is taken while decoding).
  std::optional<std::vector<std::string>> textsFromAVSubtitle(AVSubtitle* subtitle);

  // Content access (the media can always be read; nothing is discarded).
  bool beginContentAccess() { return true; }
  void endContentAccess() {}
  void discardContentIfPossible() {}
  bool isContentDiscarded() const { return false; }

  // ---- fields ---------------------------------------------------------------
  int64_t current_pts() const { return current_pts_; }
  void setCurrent_pts(int64_t value) { current_pts_ = value; }
  int64_t movie_position() const { return movie_position_; }
  void setMovie_position(int64_t value) { movie_position_ = value; }
  int64_t last_pts() const { return last_pts_; }
  void setLast_pts(int64_t value) { last_pts_ = value; }
  const std::shared_ptr<VNMediaSource>& source() const { return source_; }
  void setSource(std::shared_ptr<VNMediaSource> source) { source_ = std::move(source); }
  // The owning movie, or null for a stand-alone media.
  std::shared_ptr<VNMovieLink> movie() const { return movie_.lock(); }
  void setMovie(std::weak_ptr<VNMovieLink> movie) { movie_ = std::move(movie); }
  const std::optional<VNIndexSet>& selectSubtitles() const { return selectSubtitles_; }
  void setSelectSubtitles(std::optional<VNIndexSet> keys) { selectSubtitles_ = std::move(keys); }
  const std::optional<VNIndexSet>& selectStreams() const { return selectStreams_; }
  void setSelectStreams(std::optional<VNIndexSet> indices) { selectStreams_ = std::move(indices); }
  const std::optional<VNIndexSet>& selectAudios() const { return selectAudios_; }
  void setSelectAudios(std::optional<VNIndexSet> keys) { selectAudios_ = std::move(keys); }
  // The charset of text subtitles (an iconv name), converted to UTF-8 by
  // the subtitle decoders opened after it is set; none: taken as UTF-8. A
  // name iconv does not know leaves the text subtitle decoders unopened.
  const std::optional<std::string>& subtitleCharset() const { return subtitleCharset_; }
  void setSubtitleCharset(std::optional<std::string> charset) {
    subtitleCharset_ = std::move(charset);
  }

 protected:
  // For create() and for medias that refine reading (tests count seeks).
  VNFFMedia();

 private:
  // Enabled streams that pass a test, in index order.
  template <typename Test>
  Streams enabledStreams(Test test) const;
  // The enabled stream of highest index that passes a test, or null.
  template <typename Test>
  std::shared_ptr<VNFFMediaStream> lastEnabledStream(Test test) const;
  // Whether a subtitle stream's current frame is shown at `want` (its
  // timebase units): strictly after its start and before its end.
  static bool shows(const VNFFMediaStream& subtitle, int64_t want);
  // The stream a packet is routed to: its container stream's, when that is
  // enabled and is not a video of a movie without video; else null.
  std::shared_ptr<VNFFMediaStream> receiver(const AVPacket& packet);
  // Reads the next packet into packet_: one read ahead by a seek first, else
  // from the demuxer. False at the end of the file or on a read error.
  bool nextPacket();
  // Steps a demuxer without a keyframe index back from `timestamp` until
  // the first keyframe read of the stream that leads (the video, else any
  // enabled stream) starts at or before `target`; what was read to find out
  // is kept in ahead_ for the reads that follow.
  void seekBackToKeyframe(int64_t target, int64_t timestamp);
  // Before a seek to `target` (file clock) lands: reads the packets from
  // kSubtitleLookBack plus the subtitle delay before it up to it, decoding
  // only those of an enabled bitmap subtitle stream, so that a subtitle
  // that went up before the landing (or before a delayed time) is known.
  // Nothing without such a stream.
  void lookBackForSubtitles(int64_t target);
  static constexpr int64_t kSubtitleLookBack = 10000000;
  // Reads on until a packet at or past `at` (file clock, microseconds) was
  // read, decoding the packets of `subtitle` at once and keeping the others
  // in ahead_. Nothing when the reading is there already or its position
  // is unknown.
  void readSubtitleAhead(VNFFMediaStream& subtitle, int64_t at);
  // Whether a packet is a picture of the video stream being decoded that
  // starts after `target` (file clock, microseconds).
  bool startsAfter(const AVPacket& packet, int64_t target);
  // The given names, or else the language of every open stream of a kind.
  std::vector<std::string> trackNames(std::optional<std::vector<std::string>> given,
                                      bool (VNFFMediaStream::*isKind)() const) const;

  int64_t current_pts_;                    // stored for callers
  Streams streams_;                        // index i is container stream i
  int64_t movie_position_ = 0;             // start on the movie timeline
  int64_t last_pts_;                       // pts of the last packet routed to an enabled stream
  std::shared_ptr<VNMediaSource> source_;  // where the bytes come from
  // The movie. Weak: the movie owns its medias.
  std::weak_ptr<VNMovieLink> movie_;
  std::optional<VNIndexSet> selectSubtitles_;   // subtitle keys; null: no restriction
  std::optional<VNIndexSet> selectStreams_;     // container indices to open; null: all
  std::optional<VNIndexSet> selectAudios_;      // audio keys; null: no restriction
  std::optional<std::string> subtitleCharset_;  // given to the subtitle decoders
  vn::ff::Packet packet_;                       // reused by forwardNextPacket; made on first use
  // Packets a seek read ahead of the reading position, routed first by the
  // reads after it, in order. Emptied by every seek.
  std::deque<vn::ff::Packet> ahead_;
  // Bytes in ahead_ read for a subtitle, and the file clock of the last of
  // them; both reset by every seek.
  size_t aheadBytes_ = 0;
  int64_t aheadTo_ = INT64_MIN;
};
