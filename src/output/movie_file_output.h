// VNFFMovieFileOutput: the movie file writer. Encodes audio and pictures
// and writes them into one movie file, in the container the file name
// chooses and with the codecs of movieFormat (the container's defaults for
// codecs it leaves 0).
//
// Calling order: setPath, setMovieFormat, setAudioInputFormat; openVideo
// and/or openAudio (streams are numbered in that order); startOutput; any
// interleaving of writeAudioData and picture writes; stopOutput once. A
// writer writes one file: after stopOutput it is spent.
//
// Failures are silent at the calls: isAudioOpen, isVideoOpen, isMovieOpen
// and startOutput's result say what worked, and failureReason tells why the
// last failure happened. The application drives one writer from one thread
// at a time; the writer never calls back.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/formats.h"
#include "output/output_format.h"

namespace vn {
class BitmapContext;
class BitmapImage;
class FilterImage;
}  // namespace vn

class VNFFFrameOverlay;
class VNFFMovieFileOutputInternal;
struct VNFFOverlayLayout;
struct AVCodecParameters;
struct AVDictionary;
struct AVFrame;
struct AVPacket;
struct AVSubtitle;

class VNFFMovieFileOutput {
 public:
  // A writer with the default movieFormat (movieFileOutputFormatToDefaults)
  // and audio input (packed float stereo 44100 Hz). Null when memory runs
  // out.
  static std::shared_ptr<VNFFMovieFileOutput> create();

  VNFFMovieFileOutput(const VNFFMovieFileOutput&) = delete;
  VNFFMovieFileOutput& operator=(const VNFFMovieFileOutput&) = delete;
  // Releases everything; a file not finished by stopOutput stays unfinished.
  ~VNFFMovieFileOutput();

  // The file to write; its extension chooses the container (".m4r" files
  // get the container of ".m4a").
  std::string path() const;
  void setPath(const std::string& path);

  // The requested output: size, codecs, bit rates or constant quality,
  // speed preset, passes, keyframe interval, frame rate (time base
  // frameTime/framerate), channel layout and sample rate. Set before
  // opening the streams. Any thread.
  VNFFMovieFileOutputFormat movieFormat() const;
  void setMovieFormat(VNFFMovieFileOutputFormat format);

  // The format of the PCM given to writeAudioData. Set before startOutput.
  // Any thread.
  VNFFAudioFormat audioInputFormat() const;
  void setAudioInputFormat(VNFFAudioFormat format);

  // The opened encoders' formats (all zero while a stream is not open);
  // for a paletted encoder (GIF) the packed RGB its palette is made from.
  VNFFAudioFormat outputAudioFormat() const;
  VNFFVideoFormat outputVideoFormat() const;

  // Add an audio (video) stream and open its encoder; check with
  // isAudioOpen (isVideoOpen). Calling one twice adds a second stream and
  // only the second receives data.
  void openAudio();
  void openVideo();
  bool isAudioOpen() const;
  bool isVideoOpen() const;
  // A container was made for the path (and stays "open" once spent).
  bool isMovieOpen() const;

  // Opens the file and writes its header; false when the container writes
  // no file, the file cannot be written or the header is refused.
  bool startOutput();
  // Drains the encoders, finishes and closes the file. The last 512 to
  // 512 + encoder frame size - 1 audio samples given are not written.
  void stopOutput();

  // PCM bytes in audioInputFormat, any length; a trailing partial sample
  // frame is dropped. Encoded in whole encoder frames as they fill up.
  void writeAudioData(const void* bytes, uint64_t length);

  // A decoded picture, converted to the encoder's size and format; it lasts
  // one frame. Overlays are laid over the converted picture in order, each
  // when it was made for overlayLayout() (and left out otherwise).
  void writeVideoFrame(const AVFrame* frame);
  void writeVideoFrame(const AVFrame* frame, const std::vector<VNFFFrameOverlay>& overlays);
  // How the pictures given to the encoder are laid out (its size and pixel
  // format, the YUV matrix and range they are written with), for overlays
  // made to be laid over them; false before startOutput, without video, or
  // when the encoder's pixel format takes no overlay.
  bool overlayLayout(VNFFOverlayLayout* layout) const;

  // Each picture lasts one frame (frameTime ticks of framerate), or
  // duration ticks of framerate.
  void writeImage(const vn::BitmapImage& image);
  void writeImage(const vn::FilterImage& image);
  void writeCGContext(const vn::BitmapContext& context);
  void writeCGContext(const vn::BitmapContext& context, int32_t duration);

  // A new RGBX bitmap context of the picture size (known once startOutput
  // has run; null before), owned by the caller, to draw a picture into.
  std::shared_ptr<vn::BitmapContext> createCGContext() const;
  // Draws image stretched over context: a bitmap image replaces what the
  // context held, a filter image (its extent) is laid over it.
  void drawImage(const vn::BitmapImage& image, vn::BitmapContext& context);
  void drawImage(const vn::FilterImage& image, vn::BitmapContext& context);

  // ---- a file that keeps several tracks -----------------------------------
  // More streams, opened before startOutput; each returns the stream's
  // container index, or -1 (failureReason tells why).
  // An audio stream of its own (configured as openAudio's, with its own
  // converter and clock), fed only by writeAudioData(stream, ...).
  int openAudioStream();
  void writeAudioData(int stream, const void* bytes, uint64_t length);
  // A stream taking packets coded elsewhere as they are; -1 when the
  // container cannot hold the codec.
  int openCopiedStream(const AVCodecParameters* parameters);
  // A subtitle stream encoding codecId from decoded text subtitles, given
  // their decoder's style header (may be null).
  int openSubtitleStream(int32_t codecId, const uint8_t* header, int headerSize);
  // A packet for a copied stream, times in its time_base; its data is taken.
  void writePacket(int stream, AVPacket* packet);
  // A decoded subtitle shown from start for duration, microseconds.
  void writeSubtitle(int stream, const AVSubtitle& subtitle, int64_t start, int64_t duration);
  // Tags of the file, its chapters (microseconds), a stream's tags and
  // disposition (AV_DISPOSITION_* flags): set before startOutput.
  void setMetadata(const AVDictionary* tags);
  void addChapter(int64_t start, int64_t end, const AVDictionary* tags);
  void setStreamTags(int stream, const AVDictionary* tags, int disposition);
  // Audio timestamps left as the encoder gives them, so that players skip
  // its priming samples where the container says so; by default they are
  // raised by the encoder's delay, the priming heard as silence.
  void setTrimsEncoderDelay(bool value);
  // The video's colour tags, its matrix also the one pictures are converted
  // with; before openVideo. Default: BT.601 tags and conversion.
  void setColorProperties(VNFFColorProperties colors);

  // Why the last failure happened, as one line for a user ("unknown
  // container for extension .xyz", "Permission denied", "the mp4 container
  // cannot hold wmav2"...); empty when nothing failed.
  std::string failureReason() const;

 private:
  explicit VNFFMovieFileOutput(std::shared_ptr<VNFFMovieFileOutputInternal> internal);

  std::shared_ptr<VNFFMovieFileOutputInternal> internal_;  // does the work
};
