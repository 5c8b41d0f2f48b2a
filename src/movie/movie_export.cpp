#include "movie/movie_export.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <system_error>

extern "C" {
#include <libavutil/rational.h>
#include <libavutil/samplefmt.h>
}

#include "core/formats.h"
#include "media/media.h"
#include "movie/movie.h"
#include "movie/picture_queue.h"
#include "output/movie_file_output.h"

namespace {

namespace fs = std::filesystem;

// Mixed audio is read and written in pieces of this many sample frames.
constexpr int kAudioChunk = 1024;

// A name in the same folder with the same extension (the container is
// chosen by it), hidden while the file is written.
std::string temporaryPath(const std::string& output) {
  static std::atomic<int> serial{0};
  const fs::path out(output);
  const std::string name = "." + out.stem().string() + ".varnel-" + std::to_string(getpid()) + "-" +
                           std::to_string(serial++) + out.extension().string();
  return (out.parent_path() / name).string();
}

int64_t microseconds(double seconds) {
  return static_cast<int64_t>(std::llround(seconds * 1e6));
}

}  // namespace

VNFFMovieExport::VNFFMovieExport(std::shared_ptr<VNFFMovie> movie,
                                 const VNFFMovieFileOutputFormat& format,
                                 std::string path)
    : movie_(std::move(movie)), format_(format), path_(std::move(path)) {}

VNFFMovieExport::~VNFFMovieExport() = default;

void VNFFMovieExport::setProgress(ProgressCallback callback, int intervalMs) {
  progress_ = std::move(callback);
  interval_ = std::chrono::milliseconds(std::max(0, intervalMs));
}

VNFFMovieExport::Result VNFFMovieExport::run() {
  if (!movie_ || movie_->medias().empty())
    return {Result::kFailed, "the movie has no media"};
  fillFormatFromMovie();
  const int64_t duration = duration_.value_or(movie_->duration() - start_);
  if (duration <= 0)
    return {Result::kFailed, "nothing to write after the start"};
  span_ = duration / 1e6;

  const std::string temp = temporaryPath(path_);
  std::string reason;
  if (!openWriter(temp, &reason)) {
    writer_.reset();
    std::error_code ec;
    fs::remove(temp, ec);
    return {Result::kFailed, reason};
  }
  prepareMovie();
  began_ = std::chrono::steady_clock::now();
  reported_ = {};
  reportedSeconds_ = 0;
  if (writer_->isVideoOpen())
    writeVideo();
  if (writer_->isAudioOpen())
    writeAudioToEnd();
  if (!isCancelled())
    report(span_, true);
  return finish(temp);
}

void VNFFMovieExport::fillFormatFromMovie() {
  video_ = movie_->videoMedia();
  if (!video_)
    return;
  if (format_.width <= 0 || format_.height <= 0) {
    const vn::Size shown = movie_->shownVideoSize(movie_->rotate(), false, true);
    format_.width = static_cast<int32_t>(shown.width);
    format_.height = static_cast<int32_t>(shown.height);
  }
  if (format_.framerate <= 0) {
    const AVRational rate = movie_->exactFramerate();
    format_.framerate = rate.num;
    format_.frameTime = rate.den;
  }
}

bool VNFFMovieExport::openWriter(const std::string& temp, std::string* reason) {
  writer_ = VNFFMovieFileOutput::create();
  if (!writer_) {
    *reason = "out of memory";
    return false;
  }
  writer_->setPath(temp);
  writer_->setMovieFormat(format_);
  // The mix delivers packed float at the output's rate and layout; the
  // writer's converter only changes the sample format for the encoder.
  writer_->setAudioInputFormat(
      VNFFAudioFormat{AV_SAMPLE_FMT_FLT, format_.channel_layout, format_.sample_rate});
  const bool hasAudio = movie_->hasAudio();
  if (video_)
    writer_->openVideo();
  if (hasAudio)
    writer_->openAudio();
  if (!writer_->isMovieOpen() || (video_ && !writer_->isVideoOpen()) ||
      (hasAudio && !writer_->isAudioOpen())) {
    *reason = writer_->failureReason();
    return false;
  }
  if (!writer_->isVideoOpen() && !writer_->isAudioOpen()) {
    *reason = "the input has nothing this container can hold";
    return false;
  }
  if (!writer_->startOutput()) {
    *reason = writer_->failureReason();
    writer_->stopOutput();
    return false;
  }
  return true;
}

void VNFFMovieExport::prepareMovie() {
  movie_->configOutputFormat(writer_->audioInputFormat());
  movie_->setExportMovie(true);
  movie_->seek(start_);
  movie_->flushOperation();
  const int channels = vn_get_channel_layout_nb_channels(format_.channel_layout);
  audio_.assign(static_cast<size_t>(kAudioChunk) * std::max(1, channels), 0.0f);
  audioFrames_ = 0;
  audioTotal_ =
      writer_->isAudioOpen() ? static_cast<int64_t>(std::llround(span_ * format_.sample_rate)) : 0;
  videoFrames_ = 0;
  frameSeconds_ = static_cast<double>(format_.frameTime) / format_.framerate;
  videoTotal_ = std::max<int64_t>(1, std::llround(span_ / frameSeconds_));
}

// The picture shown at the middle of output frame n: a frame is looked up
// as ending where the next begins, so an exact boundary would give the one
// before.
int64_t VNFFMovieExport::frameTime(int64_t n) const {
  return start_ + microseconds((n + 0.5) * frameSeconds_);
}

void VNFFMovieExport::writeVideo() {
  // Composed pictures are made on the movie's decode queue one ahead: the
  // queue decodes and composes the next picture while this thread renders
  // and encodes the current one.
  std::optional<VNFFPictureQueue> pictures;
  if (pictures_ == kComposed) {
    movie_->setOutputVideoSize(vn::Size{double(format_.width), double(format_.height)});
    pictures.emplace(movie_, 1, VNFFPictureQueue::kComposed, VNFFPictureQueue::kImage);
    pictures->request(0, frameTime(0));
  }
  while (videoFrames_ < videoTotal_ && !isCancelled()) {
    // The audio that ends with this frame.
    const int64_t audioEnd = std::llround((videoFrames_ + 1) * frameSeconds_ * format_.sample_rate);
    if (pictures) {
      std::optional<VNFFPictureQueue::Picture> picture = pictures->take();
      // The mix reads its medias while the queue is idle: no picture is
      // being decoded on the other thread meanwhile.
      writeAudioUntil(audioEnd);
      if (videoFrames_ + 1 < videoTotal_)
        pictures->request(videoFrames_ + 1, frameTime(videoFrames_ + 1));
      if (picture && picture->image)
        writer_->writeImage(*picture->image);
    } else {
      writeDecodedFrame(videoFrames_);
      writeAudioUntil(audioEnd);
    }
    ++videoFrames_;
    report(videoFrames_ * frameSeconds_, false);
  }
}

void VNFFMovieExport::writeDecodedFrame(int64_t n) {
  // The media whose span holds the time (a DVD title is several, one after
  // another); past their ends, the last one that started.
  const int64_t at = frameTime(n);
  std::shared_ptr<VNFFMedia> shown = movie_->videoMediaAtTime(at);
  for (const auto& media : shown ? VNFFMovie::Medias{} : movie_->videos()) {
    if (media->movie_position() <= at)
      shown = media;
  }
  if (!shown)
    shown = video_;
  if (AVFrame* frame = shown->videoFrameAtTime(at - shown->movie_position()))
    writer_->writeVideoFrame(frame);
}

void VNFFMovieExport::writeAudioUntil(int64_t frames) {
  const int channels = static_cast<int>(audio_.size() / kAudioChunk);
  const uint64_t bytesPerFrame = channels * sizeof(float);
  frames = std::min(frames, audioTotal_);
  while (audioFrames_ < frames && !isCancelled()) {
    const int n = static_cast<int>(std::min<int64_t>(kAudioChunk, frames - audioFrames_));
    movie_->readSample(audio_.data(), n);
    writer_->writeAudioData(audio_.data(), n * bytesPerFrame);
    audioFrames_ += n;
  }
}

void VNFFMovieExport::writeAudioToEnd() {
  while (audioFrames_ < audioTotal_ && !isCancelled()) {
    writeAudioUntil(audioFrames_ + format_.sample_rate);
    report(static_cast<double>(audioFrames_) / format_.sample_rate, false);
  }
}

VNFFMovieExport::Result VNFFMovieExport::finish(const std::string& temp) {
  writer_->stopOutput();
  writer_.reset();
  std::error_code ec;
  if (isCancelled()) {
    fs::remove(temp, ec);
    return {Result::kCancelled, "cancelled"};
  }
  fs::rename(temp, path_, ec);
  if (ec) {
    const std::string reason = ec.message();
    fs::remove(temp, ec);
    return {Result::kFailed, reason};
  }
  return {};
}

void VNFFMovieExport::report(double seconds, bool force) {
  if (!progress_)
    return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && now - reported_ < interval_)
    return;
  reported_ = now;
  Progress p;
  // Whole frames may reach past the audio's end: progress never goes back.
  p.seconds = reportedSeconds_ = std::clamp(seconds, reportedSeconds_, span_);
  p.fraction = p.seconds / span_;
  p.frames = videoFrames_;
  const double elapsed = std::chrono::duration<double>(now - began_).count();
  p.framesPerSecond = elapsed > 0 ? p.frames / elapsed : 0;
  p.eta = p.fraction > 0 ? elapsed * (1 - p.fraction) / p.fraction : 0;
  progress_(p);
}
