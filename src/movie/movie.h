// VNFFMovie: the object an application drives.
//
// It holds opened medias laid on one timeline (each at its movie_position),
// an optional external subtitle media, the audio mix of every enabled audio
// stream, the playback output, and one serial decode queue on which all
// decoding work runs, one item at a time. The clock is driven by audio: it
// advances only as mixed audio is produced, less what still waits in the
// output buffer.
//
// Threads (src/THREADS.md): every public call comes from the application's
// thread, the picture settings from any thread. Seek, top-up and picture
// items run on the decode queue; the audio device thread only asks for
// top-ups, without allocating and without holding the movie. Work items hold
// the movie, so it outlives them, except the top-up, which holds it weakly.
//
//   empty ──openMedias──► opened ──play/pause──► playing/paused ──close──► empty
//                          (seeks in any state)
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/rational.h>
}

#include "audio_out/output_audio_graph_delegate.h"
#include "core/formats.h"
#include "core/serial_queue.h"
#include "effects/picture_settings.h"
#include "image/bitmap_image.h"
#include "image/filter_image.h"
#include "image/rect.h"
#include "media/media.h"
#include "media/movie_link.h"

class VNFFEffectAudioStream;
class VNFFEffectVideoStream;
class VNOutputAudioGraph;
class VNFFMovie;

// An application object that takes the pictures of decodeImageAtTime. Each
// call is optional: an empty member is one the provider does not handle.
// Calls arrive on the movie's decode queue.
struct VNFFMovieImageProvider {
  using DataBuffer = std::shared_ptr<std::vector<uint8_t>>;
  // A buffer of exactly `size` bytes for a copy of the converted picture
  // (format: the effect stream's outputDataFormat), or null.
  std::function<DataBuffer(VNFFMovie& movie, VNFFVideoFormat format, int32_t size)> movieFormatSize;
  // The plain picture, then the picture with every setting applied; none
  // when there is no picture (or the buffer asked for was not filled).
  std::function<void(VNFFMovie& movie, std::optional<vn::FilterImage> image)> movieMediaImage;
  std::function<void(VNFFMovie& movie, std::optional<vn::FilterImage> image)> movieMediaEffectImage;
};

class VNFFMovie : public VNMovieLink,
                  public VNOutputAudioGraphDelegate,
                  public std::enable_shared_from_this<VNFFMovie> {
 public:
  using Medias = std::vector<std::shared_ptr<VNFFMedia>>;

  static std::shared_ptr<VNFFMovie> create();
  VNFFMovie();
  VNFFMovie(const VNFFMovie&) = delete;
  VNFFMovie& operator=(const VNFFMovie&) = delete;
  // Pauses playback and closes; does not wait for the decode queue.
  ~VNFFMovie() override;

  // --- opening -------------------------------------------------------------
  // Opens each media (a media that fails to open stays in the set), keeps
  // the set, computes the duration and configures the audio output.
  void openMedias(Medias medias);
  // Opens an external subtitle file; true when it holds a subtitle stream.
  // The subtitle media is not on the timeline.
  bool openSubtitle(const std::string& path);
  // As openSubtitle(path), reading only subtitle stream `track` (counted
  // among the file's subtitle streams; none: the file's last) with every
  // other stream of the file closed, so that a media's own text track can
  // be shown. `charset` names the encoding of a text subtitle file; none:
  // UTF-8, or UTF-16 with a byte-order mark, else detected from its bytes.
  bool openSubtitle(const std::string& path,
                    std::optional<uint32_t> track,
                    std::optional<std::string> charset);
  // Forgets the medias, the output and the subtitle media.
  void close();

  // --- the media set ---------------------------------------------------------
  Medias medias();
  std::shared_ptr<VNFFMedia> subtitle();
  int64_t duration();  // microseconds
  void getMaxMediaDuration();
  bool hasAudio();
  bool hasVideo();
  bool hasSubtitle();
  Medias audios();
  Medias videos();
  std::shared_ptr<VNFFMedia> videoMediaAtTime(int64_t time);
  // The media attached to the video effect stream (the first with video);
  // null without video.
  std::shared_ptr<VNFFMedia> videoMedia();
  // Its picture's width and height as decoded; {0, 0} without video.
  vn::Size videoSize();
  // Its frame rate as the media gives it; 0 without video.
  float framerate();
  // Its exact frame rate (30000/1001 stays 30000/1001): the stream's own
  // rate, else its average, when one lies between 1 and 240 a second; 25/1
  // otherwise, and without video.
  AVRational exactFramerate();
  // The size its picture takes on screen: turned `rotation` degrees
  // counter-clockwise (a quarter turn either way swaps the sides), with
  // pixelAspect its width stretched by the pixel aspect ratio (the
  // container's, else the codec's), rounded to whole pixels, at least 1;
  // with even, rounded down to even sides, at least 2, as encoders want.
  // Without video, the least of these sizes.
  vn::Size shownVideoSize(double rotation, bool pixelAspect, bool even);
  // The first media of the array with movie_position <= time < end.
  static std::shared_ptr<VNFFMedia> medias(const Medias& array, int64_t time);

  // Stream names and selections. Getters read the first media only, setters
  // write every media; the mix is not rebuilt by a selection change. Each
  // runs on the decode queue, after what is queued (a seek), and waits.
  std::vector<std::string> audioStreams();
  std::vector<std::string> subtitleStreams();
  std::optional<VNIndexSet> selectAudioStreams();
  std::optional<VNIndexSet> selectSubtitleStreams();
  void setSelectAudioStreams(const std::optional<VNIndexSet>& streams);
  void setSelectSubtitleStreams(const std::optional<VNIndexSet>& streams);
  bool forward() { return true; }

  // --- clock and seeking -----------------------------------------------------
  // seek point + the frames produced since, less those still buffered.
  int64_t currentTime() override;
  // Counts frames of mixed audio produced (played or read for export).
  void forwardAudioDecodeTime(double frames);
  // Sets the clock at once and seeks every media on the decode queue; an
  // item superseded by a newer seek does nothing.
  void seek(int64_t time);
  void setCurrentTime(int64_t time) { seek(time); }
  // Holds the caller until every queued item has run.
  void flushOperation();

  // --- flags -------------------------------------------------------------------
  bool exportMovie() override { return exportMovie_.load(); }
  void setExportMovie(bool value) { exportMovie_.store(value); }
  bool disableVideo() override { return disableVideo_.load(); }
  void setDisableVideo(bool value) { disableVideo_.store(value); }
  // Which picture a time on the boundary of two frames takes: by default the
  // one that ends there; set, the one that starts there, as a player shows
  // it. Read by every media of the movie.
  bool startingPictureAtBoundary() override { return startingPictureAtBoundary_.load(); }
  void setStartingPictureAtBoundary(bool value) { startingPictureAtBoundary_.store(value); }
  // An application object stored for the application; never called.
  std::weak_ptr<void> delegate() { return delegate_; }
  void setDelegate(std::weak_ptr<void> delegate) { delegate_ = std::move(delegate); }

  // --- audio format of the mix -------------------------------------------------
  // The playback format: packed float, stereo, 44100 Hz.
  static VNFFAudioFormat defaultOutputFormat();
  // Frames of the playback format mixed at a time for the output: the
  // steps the clock moves in while playing.
  static constexpr int32_t kPlaybackChunkFrames = 2048;
  // One such chunk in seconds.
  static double playbackChunkSeconds();
  // Sets the mix's format and rebuilds it over the medias with audio.
  void configOutputFormat(VNFFAudioFormat format);
  // Switches the mix to the playback format when it is in another one.
  void configDefaultOutputFormat();
  // The mix level (also applies to export).
  void setVolume(double volume);
  double volume();

  // The application's audio pull while it writes a file: counts the frames
  // on the clock, then reads them from the mix, once the last seek has run
  // (the mix is read on the caller's thread and must not meet a seek of its
  // medias on the decode queue). Always true. Must not be called while a
  // picture request (decodeImageAtTime, thumbnailAtTime) is queued or
  // running: a checking build aborts, another logs it at debug level.
  bool readSample(void* bytes, int32_t frames);

  // --- playback ----------------------------------------------------------------
  // Switches the mix to the playback format and starts the output.
  void play();
  // Stops the output; what is buffered stays.
  void pause();
  void stop() { pause(); }
  bool isPlay();
  // Playback speed (1.0 normal); the clock then tells media time.
  void setRate(float rate);
  float rate();
  // The device output level, 0..1.
  void setPlayVolume(double volume);
  double playVolume();
  // Device thread: asks the decode queue for a top-up unless one is asked
  // for and has not started yet. Allocates nothing and holds no reference
  // to the movie: it posts a wake-up made once (vn::SerialQueue::Wakeup),
  // whose task holds the movie weakly.
  void decodeMoreAudioDataToAudioOutput() override;
  // Decode queue: tops the output up by one chunk while it holds less than
  // one.
  void decodeMoreAudioDataToAudioOutputHelper();
  // Decode queue: mixes one 2048-frame chunk into the output and counts it
  // on the clock. False when the mix is not in the playback format.
  bool decodeAudioToAudioOutput();
  std::shared_ptr<VNOutputAudioGraph> audioOutputGraph();

  // --- pictures ------------------------------------------------------------------
  // a fitted in b keeping its aspect, centred; never enlarged more than a
  // hundredfold. Not rounded.
  static vn::Rect scaleRect(const vn::Rect& a, const vn::Rect& b);
  // The whole-pixel size of a picture of the given extent fitted into box;
  // none when it is empty or too large.
  static std::optional<vn::Size> thumbnailSize(const vn::Rect& extent, vn::Size box);
  // The composed picture at time t, fitted into a box of size (aspect kept,
  // no bars), rounded out to whole pixels; none when no video media covers
  // t. The media is seeked back to the clock afterwards. Blocks until done;
  // never call it from the decode queue.
  std::optional<vn::BitmapImage> thumbnailAtTime(int64_t t, vn::Size size);
  // Whether the thumbnail of a picture shown plain (see
  // VNFFEffectVideoStream::showsPicturePlain) is scaled straight from the
  // decoded picture by the scaler, averaging in the video's own gamma as
  // other thumbnailers do, instead of being composed at full size and
  // scaled in linear light. False (the default): composed. Any thread.
  bool thumbnailsFromDecodedPictures() const { return thumbnailsFromDecoded_.load(); }
  void setThumbnailsFromDecodedPictures(bool value) { thumbnailsFromDecoded_.store(value); }
  // Decodes the picture at t on the decode queue (inline when called from
  // it) and hands it to the provider's calls; waits when asked.
  void decodeImageAtTime(int64_t t, std::shared_ptr<VNFFMovieImageProvider> provider, bool wait);
  void decodeImageAtTime(int64_t t, std::shared_ptr<VNFFMovieImageProvider> provider);

  // --- picture settings --------------------------------------------------------
  // Held by the video effect stream as one value (its meanings and
  // defaults); each setter changes its field of that value under its lock.
  // Crop in source pixels, origin bottom left.
  vn::Rect cropRect();
  void setCropRect(vn::Rect rect);
  bool hflip();
  void setHflip(bool value);
  bool vflip();
  void setVflip(bool value);
  float rotate();
  void setRotate(float degrees);
  float saturation();
  void setSaturation(float value);
  float brightness();
  void setBrightness(float value);
  float contrast();
  void setContrast(float value);
  float hue();
  void setHue(float value);
  std::optional<std::string> effectName();
  void setEffectName(std::optional<std::string> name);
  std::optional<vn::FilterImage> watermark();
  void setWatermark(std::optional<vn::FilterImage> image);
  int32_t zoomType();
  void setZoomType(int32_t type);
  std::string subtitleFont();
  void setSubtitleFont(std::optional<std::string> font);
  vn::FilterImage::Color subtitleColor();
  void setSubtitleColor(std::optional<vn::FilterImage::Color> color);
  float subtitlePosition();
  void setSubtitlePosition(float fraction);
  // A dark outline of this width and a shadow this far below and to the
  // right of the text subtitle, in output pixels; 0 (none) by default.
  float subtitleOutlineWidth();
  void setSubtitleOutlineWidth(float pixels);
  float subtitleShadowOffset();
  void setSubtitleShadowOffset(float pixels);
  // Which renderer draws text subtitles. The plain one (the default) draws
  // the subtitle's text in the subtitle font, colour and position above. The
  // styled one draws every event of the track whole, as its script styles
  // it (ASS/SSA styles, positions, colours, karaoke; the italics and colours
  // of SRT and WebVTT), sized to the output frame, wrapped inside it, with
  // the fonts the media carries; the settings above do not apply to it
  // (subtitleStyle does). Any thread; shows from the next picture.
  bool styledSubtitles();
  void setStyledSubtitles(bool styled);
  // What the styled renderer changes in the style of a plain-text subtitle
  // (SRT, WebVTT, mov_text); a script's own styles (ASS/SSA) are left as
  // they are. None: the decoder's default style.
  std::optional<vn::SubtitleStyle> subtitleStyle();
  void setSubtitleStyle(std::optional<vn::SubtitleStyle> style);
  // The styled renderer of the subtitle media, made on first use with its
  // decoder's script header, its fonts and the subtitle style (the media is
  // then read again from its start, so that every event reaches it). Null
  // when there is no subtitle media or libass cannot be set up. On the
  // decode queue, or on a thread that drives the movie while nothing runs
  // there (an export of decoded frames).
  std::shared_ptr<vn::StyledSubtitleRenderer> styledRendererFor(
      const std::shared_ptr<VNFFMedia>& subtitle);
  // How much later than its own times a subtitle is shown, microseconds
  // (negative: earlier); the subtitle file's or track's, and a bitmap
  // track's. 0 by default.
  int64_t subtitleDelay() override;
  void setSubtitleDelay(int64_t microseconds);
  // The output frame's size; a new size is kept as whole pixels (w + 0.1
  // and h + 0.1 truncated).
  vn::Size outputVideoSize();
  void setOutputVideoSize(vn::Size size);
  // The whole settings at once (any thread): a picture composed meanwhile
  // shows either all of the old ones or all of the new ones.
  PictureSettings pictureSettings();
  void setPictureSettings(const PictureSettings& settings);
  // Lets the subtitle be drawn anew on the next picture.
  void updateSubtitle();
  // Attaches the first video media to the video effect stream with an RGBA
  // output of its size and no crop, and builds its converter. Run by
  // openMedias.
  void configVideoEffectStream();
  VNFFEffectVideoStream& videoEffectStream() { return *videoEffectStream_; }

  // The decode queue: every item that decodes runs here.
  vn::SerialQueue& decodeQueue() { return *decodeQueue_; }
  VNFFEffectAudioStream& audioEffectStream() { return *audioEffectStream_; }

 private:
  void openAudioOutput();
  // Gives the video effect stream the subtitles shown at t: the bitmap
  // subtitle of media (the picture's media, or null) and the text of the
  // subtitle media. With rewind, a t before the subtitle media's current
  // subtitle is found too (pictures taken out of order). On the decode queue.
  void showSubtitlesAt(int64_t t, const std::shared_ptr<VNFFMedia>& media, bool rewind = false);
  // Runs work on the decode queue and waits for it; inline when already
  // there.
  void runOnDecodeQueue(const std::function<void()>& work);
  // What read takes from the first media, on the decode queue; T{} when
  // there is none.
  template <typename T, typename Read>
  T readFirstMedia(Read read);

  std::atomic<double> decode_samples_{0};  // frames produced since the last seek
  std::atomic<int64_t> duration_{0};
  std::atomic<int64_t> seek_point_{0};  // the clock's origin
  std::shared_ptr<VNFFEffectAudioStream> audioEffectStream_;
  std::shared_ptr<VNFFEffectVideoStream> videoEffectStream_;
  std::atomic<bool> exportMovie_{false};
  std::atomic<bool> disableVideo_{false};
  std::atomic<bool> startingPictureAtBoundary_{false};
  std::weak_ptr<void> delegate_;
  std::unique_ptr<vn::SerialQueue> decodeQueue_;
  // The top-up the device thread posts; made by the first openMedias, then
  // kept for the movie's life.
  std::unique_ptr<vn::SerialQueue::Wakeup> topUp_;
  std::atomic<bool> topUpPending_{false};  // posted, not started yet
  // Picture requests posted to the decode queue and not finished; readSample
  // must not meet one.
  std::atomic<int> pictureRequests_{0};
  // The composed picture a thumbnail is scaled from; decode queue only.
  std::vector<uint8_t> thumbnailScratch_;
  std::atomic<bool> thumbnailsFromDecoded_{false};  // see thumbnailsFromDecodedPictures()
  // The last seek posted to the decode queue; readSample waits for it.
  // Guarded by lock_.
  std::shared_ptr<vn::SerialQueue::Operation> lastSeek_;

  std::mutex lock_;
  // Guarded by lock_: replaced whole, read as a copy.
  std::shared_ptr<VNFFMedia> subtitle_;
  Medias medias_;
  std::shared_ptr<VNOutputAudioGraph> audioOutputGraph_;
  std::optional<vn::SubtitleStyle> subtitleStyle_;
  // Set apart from the media it was made for and that media's style: a new
  // subtitle media or style makes a new renderer.
  std::shared_ptr<vn::StyledSubtitleRenderer> styledRenderer_;
  std::weak_ptr<VNFFMedia> styledFor_;

  std::atomic<bool> styledSubtitles_{false};
  std::atomic<bool> rereadSubtitle_{false};  // the plain renderer took over from the styled one
  std::atomic<int64_t> subtitleDelay_{0};
};
