// VNFFMovieExport: writes an opened movie into a movie file.
//
// The movie's medias, its audio selection and its picture and subtitle
// settings are the application's, set before the export; the job takes
// the span [start, start + duration) of the movie's timeline and writes it
// with a movie file writer in the format given: the mixed audio of every
// enabled track in step with the video, one picture for each output frame
// (the picture shown at the middle of the frame), and the audio on to the
// end of the span. The file is written under a hidden name beside the
// output and renamed when it is complete: a failed or cancelled export
// leaves nothing behind.
//
// By default the file holds the movie's video and its mix, as above. The
// job can keep more of the input instead: each enabled audio track as a
// stream of its own, the input's subtitle tracks as subtitle streams, its
// tags, chapters and colour description, and packets copied as they are
// (a stream copy) in place of encoded video or audio. What it keeps this
// way is read on a demuxer of its own over a copy of the input's source.
//
// Threads: run() works on the calling thread (the application's), with the
// movie's decode queue composing the next picture meanwhile; the progress
// callback is called on that thread. cancel() may be called from any
// thread, a signal handler included. While it runs, the job drives the
// movie: the application makes no other call on it.
//
//   VNFFMovieExport job(movie, format, "out.mp4");
//   job.setProgress([](const VNFFMovieExport::Progress& p) { ... }, 250);
//   VNFFMovieExport::Result result = job.run();
//   if (!result) puts(result.reason.c_str());
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "media/index_set.h"
#include "output/output_format.h"

class VNFFMedia;
class VNFFMovie;
class VNFFMovieFileOutput;
class VNFFExportPackets;
struct AVFrame;

class VNFFMovieExport {
 public:
  // What each output frame is made of.
  enum Pictures {
    // The movie's composed picture at the output size: every picture and
    // subtitle setting applied, decoded on the movie's decode queue one
    // frame ahead of the one being encoded.
    kComposed,
    // The decoded frame as it is, scaled to the output size by the writer;
    // for when no setting changes the picture (faster).
    kDecoded,
    // As kDecoded, with the movie's subtitles laid over each scaled frame
    // in the encoder's own YUV: the bitmap subtitle of the picture's media
    // scaled with the picture, and the subtitle media's text drawn by the
    // styled renderer at the output size; for when subtitles are the only
    // thing that changes the picture. Taken as kComposed when the encoder's
    // pixel format takes no overlay, or when text is to be drawn by the
    // plain renderer.
    kDecodedWithSubtitles,
  };

  struct Progress {
    double fraction = 0;         // of the span written, 0 to 1
    double seconds = 0;          // of the span written
    int64_t frames = 0;          // video frames written
    double framesPerSecond = 0;  // since run() began
    double eta = 0;              // seconds left, estimated from the pace so far
  };
  using ProgressCallback = std::function<void(const Progress& progress)>;

  // How the enabled audio tracks are written.
  enum AudioLayout {
    kMixedAudio,     // one stream: the movie's mix (the default)
    kSeparateAudio,  // a stream per track, in track order, with its tags
  };

  struct Result {
    enum Status { kDone, kFailed, kCancelled };
    Status status = kDone;
    // Why it failed, one line for a user ("Permission denied", "the mp4
    // container cannot hold wmav2"...); empty when done.
    std::string reason;
    // What a user should know of a finished file, a line each: a track the
    // container could not hold, a copied video starting early.
    std::vector<std::string> notes;
    explicit operator bool() const { return status == kDone; }
  };

  // An export of movie (opened by openMedias) into the file at path, its
  // container chosen by the extension. format as for the writer; a width,
  // height or framerate left 0 is taken from the movie's video: the size
  // it is shown at (turned by the movie's rotation, even sides) and its
  // exact frame rate.
  VNFFMovieExport(std::shared_ptr<VNFFMovie> movie,
                  const VNFFMovieFileOutputFormat& format,
                  std::string path);
  VNFFMovieExport(const VNFFMovieExport&) = delete;
  VNFFMovieExport& operator=(const VNFFMovieExport&) = delete;
  ~VNFFMovieExport();

  // The span, in microseconds of the movie's clock: from start (0 by
  // default) for duration (none: to the end of the movie). Set before run.
  void setStart(int64_t start) { start_ = start; }
  void setDuration(std::optional<int64_t> duration) { duration_ = duration; }
  // kComposed by default.
  void setPictures(Pictures pictures) { pictures_ = pictures; }
  // ---- what the file keeps (set before run) --------------------------------
  // The movie's video, and its audio, written or left out (both written by
  // default; a movie without one writes none).
  void setWritesVideo(bool value) { writesVideo_ = value; }
  void setWritesAudio(bool value) { writesAudio_ = value; }
  void setAudioLayout(AudioLayout layout) { audioLayout_ = layout; }
  // The input's subtitle tracks (numbered as the movie's subtitle names)
  // written as subtitle streams: copied when the container holds their
  // codec, text encoded again in the container's text codec when it holds
  // another, otherwise left out with a note. None by default; null: all.
  void setSubtitleTracks(std::optional<VNIndexSet> tracks) { subtitleTracks_ = std::move(tracks); }
  // The video's packets (each enabled audio track's) copied instead of
  // decoded and encoded again. A copied video starts at the keyframe at or
  // before the start. Not for DVD titles.
  void setCopiesVideo(bool value) { copiesVideo_ = value; }
  void setCopiesAudio(bool value) { copiesAudio_ = value; }
  // The input's tags and chapters (shifted to the span, those outside it
  // left out). Off by default.
  void setKeepsMetadata(bool value) { keepsMetadata_ = value; }
  // Each stream's description as the input's: languages, titles and
  // dispositions of the video and of copied streams, and the video's colour
  // description (primaries, transfer, matrix, range; the matrix is then the
  // one the pictures are converted with). Separate audio tracks and
  // subtitle streams always keep theirs. Off by default: BT.601 colours.
  void setKeepsStreamDescriptions(bool value) { keepsDescriptions_ = value; }
  // Encoded audio starts with its first sample: the encoder's priming is
  // marked to be skipped where the container can say so (as the writer's
  // setTrimsEncoderDelay). Off by default: the priming is heard as silence.
  void setTrimsEncoderDelay(bool value) { trimsEncoderDelay_ = value; }

  // Called after at most every intervalMs milliseconds of work (0: after
  // every frame; without video, after every second of audio), with the
  // first frame, and once more with fraction 1 when everything is written.
  void setProgress(ProgressCallback callback, int intervalMs);

  // Writes the file; returns when it is complete, failed or cancelled. Once
  // only. Leaves the movie in export mode, its mix in the output's format.
  Result run();
  // Asks run() to stop at the next frame (or chunk of audio) and remove
  // what it wrote. Any thread; safe in a signal handler.
  void cancel() noexcept { cancelled_.store(true, std::memory_order_relaxed); }
  bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_relaxed); }

  // The format written, its sizes and rate filled in from the movie.
  const VNFFMovieFileOutputFormat& format() const { return format_; }

 private:
  // One stream of PCM: a movie's mix, on the writer's own audio stream
  // (stream -1) or on one of its own.
  struct AudioOutput {
    std::shared_ptr<VNFFMovie> movie;
    int stream = -1;
  };

  void fillFormatFromMovie();
  // Opens the writer at temp with every stream; false with a reason.
  bool openWriter(const std::string& temp, std::string* reason);
  bool openVideoStream(std::string* reason);
  bool openAudioStreams(std::string* reason);
  void openSubtitleStreams();
  void copyMetadata();
  // A movie reading only audio track `track` of this one's audio medias.
  std::shared_ptr<VNFFMovie> trackMovie(uint32_t track) const;
  // The container index of audio (subtitle) track `track` of the input.
  std::optional<int> inputStreamOfTrack(int mediaType, uint32_t track) const;
  // The file's clock at the start of the span.
  int64_t fileStart() const;
  void prepareMovie();
  void writeVideo();
  void writeDecodedFrame(int64_t n);
  // Whether subtitles can be laid over decoded frames here (see
  // kDecodedWithSubtitles); sets up the text renderer when they can.
  bool overlaysSubtitles();
  // The subtitles shown at movie time `at` over picture `frame` of media,
  // laid into the subtitle overlays' list (empty when nothing is shown).
  void makeSubtitleOverlays(int64_t at,
                            const std::shared_ptr<VNFFMedia>& media,
                            const AVFrame* frame);
  void writeAudioUntil(int64_t frames);
  // Everything up to `seconds` into the span without video frames: audio
  // and packets, for a file whose video is copied or absent.
  void writeToEnd();
  void writePacketsUntil(double seconds);
  Result finish(const std::string& temp);
  int64_t frameTime(int64_t n) const;
  // Calls the progress callback, at most every interval_ unless forced.
  void report(double seconds, bool force);

  std::shared_ptr<VNFFMovie> movie_;
  VNFFMovieFileOutputFormat format_;
  std::string path_;
  int64_t start_ = 0;
  std::optional<int64_t> duration_;
  Pictures pictures_ = kComposed;
  bool writesVideo_ = true;
  bool writesAudio_ = true;
  AudioLayout audioLayout_ = kMixedAudio;
  std::optional<VNIndexSet> subtitleTracks_ = VNIndexSet{};
  bool copiesVideo_ = false;
  bool copiesAudio_ = false;
  bool keepsMetadata_ = false;
  bool keepsDescriptions_ = false;
  bool trimsEncoderDelay_ = false;
  ProgressCallback progress_;
  std::chrono::milliseconds interval_{0};
  std::atomic<bool> cancelled_{false};
  static_assert(std::atomic<bool>::is_always_lock_free, "cancel() must be signal-safe");

  // During run().
  std::shared_ptr<VNFFMovieFileOutput> writer_;
  std::shared_ptr<VNFFMedia> video_;            // the movie's video media, when written
  std::vector<AudioOutput> audioOutputs_;       // decoded audio, a movie per stream
  std::unique_ptr<VNFFExportPackets> packets_;  // copied and subtitle packets
  bool packetsEnded_ = false;
  int64_t mediaStart_ = 0;  // the file's clock at the movie's 0
  std::vector<std::string> notes_;
  double span_ = 0;           // seconds to write
  double frameSeconds_ = 0;   // length of one output frame
  int64_t videoTotal_ = 0;    // output frames to write
  int64_t videoFrames_ = 0;   // written
  int64_t audioTotal_ = 0;    // sample frames to write
  int64_t audioFrames_ = 0;   // written
  std::vector<float> audio_;  // one chunk of mixed audio
  // Subtitles laid over decoded frames: set up by overlaysSubtitles, null
  // when the pictures take none.
  struct SubtitleOverlays;
  std::unique_ptr<SubtitleOverlays> overlays_;
  std::chrono::steady_clock::time_point began_;
  std::chrono::steady_clock::time_point reported_;
  double reportedSeconds_ = 0;
};
