// VNFFMovieFileOutputInternal: the working part of the movie file writer
// (VNFFMovieFileOutput is its public face and forwards to it).
//
// Encodes audio and pictures with FFmpeg and muxes them into one file. The
// container comes from the file name, the codecs from the container's
// defaults unless movieFormat names others, every encoder parameter from
// movieFormat. Audio waits in the audio converter (which resamples it to the
// encoder's format) until a whole encoder frame plus a reserve of 512
// samples is held; pictures go through the colour-space converter to the
// encoder's size and pixel format.
//
//   empty --createMovieOutput/openAudio/openVideo--> container made
//     --openAudio/openVideo--> streams open --startOutput--> writing
//     --stopOutput--> spent (file finished; the writer is not used again)
//
// Failures are silent at the calls (flags and null results say what
// happened); failureReason keeps a readable reason for the last one.
//
// Not thread-safe except where a method says so: the application drives
// one writer from one thread at a time. Encoder open and free take the
// process-wide "avcodec_open/close" lock; encoding takes none.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/formats.h"
#include "ffmpeg/owners.h"
#include "output/frame_overlay.h"
#include "output/output_format.h"

struct AVCodec;
struct AVCodecParameters;
struct AVFilterContext;
struct AVDictionary;
struct AVRational;
struct AVStream;
struct AVSubtitle;

namespace vn {
class BitmapContext;
class BitmapImage;
class FilterImage;
}  // namespace vn

class VNFFImageColorspaceConverter;
class VNFFMpegAudioConverter;

class VNFFMovieFileOutputInternal {
 public:
  // Called on a new stream before its encoder opens: the stream, its
  // encoder context (stream parameters are copied from it after opening)
  // and the chosen encoder.
  using StreamConfiguration = std::function<void(AVStream*, AVCodecContext*, const AVCodec*)>;

  // movieFormat starts at movieFileOutputFormatToDefaults, audioInputFormat
  // at packed float stereo 44100 Hz. Null when memory runs out.
  static std::shared_ptr<VNFFMovieFileOutputInternal> create();

  VNFFMovieFileOutputInternal(const VNFFMovieFileOutputInternal&) = delete;
  VNFFMovieFileOutputInternal& operator=(const VNFFMovieFileOutputInternal&) = delete;
  // Frees encoders and container without finishing the file (stopOutput
  // does that).
  ~VNFFMovieFileOutputInternal();

  // Path of the file to write; its extension chooses the container.
  std::string path() const { return path_; }
  void setPath(const std::string& path) { path_ = path; }

  // The requested output; read before the streams open. Any thread.
  VNFFMovieFileOutputFormat movieFormat() const;
  void setMovieFormat(VNFFMovieFileOutputFormat format);

  // Format of the PCM given to writeAudioData; read by startOutput. Any
  // thread.
  VNFFAudioFormat audioInputFormat() const;
  void setAudioInputFormat(VNFFAudioFormat format);

  // The opened audio encoder's format; all zero while audio is not open.
  VNFFAudioFormat outputAudioFormat() const;
  // The pictures the opened video encoder takes: its pixel format and size
  // (packed RGB for an encoder fed through a palette); all zero while video
  // is not open.
  VNFFVideoFormat outputVideoFormat() const;

  // Make the container if needed and add an audio (video) stream with the
  // chosen codec, configured from movieFormat, and open its encoder. A
  // second call adds a second stream and forgets the first. Success is read
  // with isAudioOpen (isVideoOpen).
  void openAudio();
  void openVideo();
  bool isAudioOpen() const { return audioStream_ != nullptr; }
  bool isVideoOpen() const { return videoStream_ != nullptr; }
  // True once a container was made, and still after stopOutput.
  bool isMovieOpen() const { return formatContext_ != nullptr || spent_; }

  // Configures the converters from the opened encoders, opens the file and
  // writes the header. False for a container that writes no file of its
  // own, a file that cannot be opened for writing, or a refused header.
  bool startOutput();

  // Drains both encoders, writes the trailer, frees the encoders and the
  // container and closes the file. The last 512 to 512 + frame size - 1
  // samples held by the audio converter are not written. Afterwards the
  // writer is spent.
  void stopOutput();

  // Queues length bytes of PCM in audioInputFormat and encodes every whole
  // encoder frame (frame_size samples, 1024 when the encoder has none) while
  // more than 512 samples would stay queued. Audio timestamps count samples
  // from 0.
  void writeAudioData(const void* bytes, uint64_t length);

  // Picture writes: convert the picture to the encoder's format and encode
  // it with the next video timestamp (in the video time base
  // frameTime/framerate). A frame lasts one frameTime; duration is in ticks
  // of framerate.
  void writeVideoFrame(const AVFrame* frame, const std::vector<VNFFFrameOverlay>& overlays = {});
  std::optional<VNFFFrameOverlay::Layout> overlayLayout() const;
  void writeImage(const vn::BitmapImage& image);
  void writeImage(const vn::FilterImage& image);
  void writeCGContext(const vn::BitmapContext& context);
  void writeCGContext(const vn::BitmapContext& context, int32_t duration);

  // A new bitmap context of the picture size (the video encoder's once
  // startOutput has run), owned by the caller; null before that size is
  // known.
  std::shared_ptr<vn::BitmapContext> createCGContext() const;
  // Draws image stretched over context: a bitmap image replaces what the
  // context held, a filter image (its extent) is laid over it.
  void drawImage(const vn::BitmapImage& image, vn::BitmapContext& context);
  void drawImage(const vn::FilterImage& image, vn::BitmapContext& context);

  // ---- more streams, and what describes them -----------------------------
  // Streams beside the one audio and one video above, for a file that keeps
  // several tracks. Each returns the new stream's container index, or -1
  // with failureReason set. Opened before startOutput.

  // An audio stream of its own, configured as openAudio's, with its own
  // converter and timestamps: it takes PCM only through
  // writeAudioData(stream, ...). openAudio's stream is not changed.
  int openAudioStream();
  void writeAudioData(int stream, const void* bytes, uint64_t length);

  // A stream that takes packets coded elsewhere as they are (a stream
  // copy), described by parameters; -1 when the container cannot hold the
  // codec.
  int openCopiedStream(const AVCodecParameters* parameters);
  // A subtitle stream encoding codecId, for decoded text subtitles whose
  // decoder gave header (the ASS style header every text decoder makes;
  // may be null).
  int openSubtitleStream(int32_t codecId, const uint8_t* header, int headerSize);
  // A packet of a copied stream, its times in its time_base; the packet's
  // data is taken (the packet is left blank).
  void writePacket(int stream, AVPacket* packet);
  // A decoded subtitle, shown from start for duration (microseconds of the
  // file), encoded on a subtitle stream.
  void writeSubtitle(int stream, const AVSubtitle& subtitle, int64_t start, int64_t duration);

  // The file's tags and chapters (times in microseconds), and a stream's
  // tags and disposition (AV_DISPOSITION_* flags). Set after the stream is
  // opened and before startOutput; the container keeps what it can hold.
  void setMetadata(const AVDictionary* tags);
  void addChapter(int64_t start, int64_t end, const AVDictionary* tags);
  void setStreamTags(int stream, const AVDictionary* tags, int disposition);
  // Audio timestamps as they are, so that a container that can (MP4's edit
  // list) has players skip the encoder's priming samples; by default they
  // are raised by the encoder's delay and the priming is heard as silence.
  void setTrimsEncoderDelay(bool value) { trimsEncoderDelay_ = value; }
  // How the video is tagged and converted; set before openVideo.
  void setColorProperties(VNFFColorProperties colors) { colors_ = colors; }

  // Why the last failing operation failed: "unknown container for extension
  // .xyz", FFmpeg's error text for an unwritable file, a refused codec...
  // Empty when nothing failed.
  std::string failureReason() const { return failureReason_; }

  // ---- the writer's own steps -------------------------------------------
  // Guesses the container from the path ("m4r" files get that of .m4a),
  // chooses the codecs and makes formatContext. Does nothing when a
  // container exists or the writer is spent.
  void createMovieOutput();

  // Adds a stream encoding codecId, numbered index + 1, runs configure and
  // opens the encoder. The stream when it opened; null otherwise (an
  // unopened stream stays in the container).
  AVStream* openOutputStream(int32_t codecId, const StreamConfiguration& configure);

  // Both frameTime/framerate of movieFormat.
  AVRational movieFormatTimebase() const;
  AVRational movieFrameDuration() const;

  // Encodes the converter's current output picture, lasting duration
  // seconds, at video_pts, and advances video_pts by that length.
  void writeVideoFrameDuration(AVRational duration);

  // Fills frame (its nb_samples) from the audio converter when it holds at
  // least 512 samples more than that.
  bool readAudioFrameFromBuffer(AVFrame* frame);
  bool readAudioFrameFromBuffer(VNFFMpegAudioConverter& converter, AVFrame* frame);

  // Encodes frame on stream (no frame, or one without planes, drains the
  // encoder) and writes the packets that come out; audio timestamps are
  // raised by the encoder's delay first. True when a packet came out.
  bool writeFrame(AVFrame* frame, AVStream* stream);

  // ---- state ----------------------------------------------------------
  const AVFormatContext* formatContext() const { return formatContext_.get(); }
  AVStream* audioStream() const { return audioStream_; }
  AVStream* videoStream() const { return videoStream_; }
  VNFFMpegAudioConverter& audioConverter() const { return *audioConverter_; }
  VNFFImageColorspaceConverter& videoConverter() const { return *videoConverter_; }
  // Codec ids the streams get: the container's defaults unless movieFormat
  // named others; 0 before a container is made.
  int32_t videoCodec() const { return videoCodec_; }
  int32_t audioCodec() const { return audioCodec_; }
  int64_t video_pts() const { return video_pts_; }  // next video timestamp, video time base
  int64_t audio_pts() const { return audio_pts_; }  // next audio timestamp, samples

 private:
  VNFFMovieFileOutputInternal();

  // One per stream of the container, in index order.
  struct Encoder {
    AVStream* stream;            // borrowed from formatContext_
    vn::ff::CodecContext codec;  // its encoder; freed under the codec lock
  };

  // An audio stream of openAudioStream: its own queue and clock.
  struct AudioTrack {
    AVStream* stream;                                   // borrowed from formatContext_
    std::shared_ptr<VNFFMpegAudioConverter> converter;  // its queue
    int64_t pts = 0;                                    // next timestamp, samples
  };

  AVCodecContext* codecOf(const AVStream* stream) const;
  // The stream of a container index; null when there is none.
  AVStream* streamAt(int index) const;
  // Queues PCM for stream on converter and encodes every whole encoder
  // frame, counting samples in pts.
  void encodeAudio(AVStream* stream,
                   VNFFMpegAudioConverter& converter,
                   int64_t& pts,
                   const void* bytes,
                   uint64_t length);
  void configureAudio(AVCodecContext* codec, const AVCodec* encoder);
  void configureVideo(AVCodecContext* codec, const AVCodec* encoder);
  // Constant quality, speed and passes of movieFormat, in the encoder's own
  // options.
  void configureEncoderSettings(AVCodecContext* codec, const AVCodec* encoder);
  // The filter graph that makes one palette from every picture and maps
  // the pictures onto it, for an encoder of paletted pictures; false (and
  // failureReason) when it cannot be made.
  bool openPalette(const AVCodecContext* codec);
  // Encodes the pictures the palette graph gives out (all it holds, after
  // the last picture went in, when ending).
  void drainPalette(bool ending);
  // Keeps what a first-pass encoder said about the pictures so far.
  void keepPassStats(const AVCodecContext* codec);
  // Tags a YUV encoder with the colours the converter writes.
  void tagColours(AVCodecContext* codec) const;
  // Encoders freed under the codec lock, one lock per stream.
  void freeEncoders();
  // A reason for a refused header: the first stream the container cannot
  // hold, or FFmpeg's text.
  std::string headerFailure(int status) const;
  void fail(std::string reason) { failureReason_ = std::move(reason); }

  vn::ff::OutputFormatContext formatContext_;               // the container; null until made
  int32_t videoCodec_ = 0;                                  // chosen video AVCodecID
  int32_t audioCodec_ = 0;                                  // chosen audio AVCodecID
  std::vector<Encoder> encoders_;                           // every stream's encoder, by index
  AVStream* audioStream_ = nullptr;                         // the open audio stream
  AVStream* videoStream_ = nullptr;                         // the open video stream
  std::shared_ptr<VNFFMpegAudioConverter> audioConverter_;  // audio queue
  std::shared_ptr<VNFFImageColorspaceConverter> videoConverter_;  // picture converter
  int64_t video_pts_ = 0;  // next video timestamp, video time base
  int64_t audio_pts_ = 0;  // next audio timestamp, samples
  mutable std::mutex formatLock_;
  VNFFMovieFileOutputFormat movieFormat_;      // guarded by formatLock_
  VNFFAudioFormat audioInputFormat_;           // guarded by formatLock_
  std::string path_;                           // the file to write
  bool headerWritten_ = false;                 // packets may be written
  bool spent_ = false;                         // stopOutput ran
  std::string failureReason_;                  // last failure, for the front end
  vn::ff::Frame audioFrame_;                   // reused frame for encoder-sized audio
  std::vector<uint8_t> audioSamples_;          // its sample buffer
  vn::ff::Frame videoFrame_;                   // reused view of the converter's picture
  vn::ff::Packet packet_;                      // reused for encoder output
  std::map<int64_t, int64_t> videoDurations_;  // length of each frame in the video
                                               // encoder, by timestamp
  std::vector<AudioTrack> audioTracks_;        // streams of openAudioStream
  VNFFColorProperties colors_;                 // how the video is tagged
  bool trimsEncoderDelay_ = false;             // audio timestamps not raised
  std::vector<uint8_t> subtitleBuffer_;        // one encoded subtitle
  vn::ff::FilterGraph paletteGraph_;           // pictures to a palette, for GIF
  AVFilterContext* paletteIn_ = nullptr;       // its source, in paletteGraph_
  AVFilterContext* paletteOut_ = nullptr;      // its sink, in paletteGraph_
  vn::ff::Frame paletteFrame_;                 // a paletted picture to encode
  std::string passStats_;                      // a first pass's statistics, read back
  std::FILE* passLog_ = nullptr;               // where a first pass writes its statistics
};
