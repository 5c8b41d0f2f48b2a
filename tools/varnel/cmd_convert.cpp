// varnel convert INPUT OUTPUT [options]: converts through a movie and the
// movie file writer.
//
// The movie reads the input (a file with video and audio is two medias, each
// with its own demuxer); the mix delivers the selected audio tracks in the
// writer's input format and pictures are taken at the output frame rate:
// decoded frames as they are when nothing changes them, else the movie's
// composed pictures (picture settings, another size, a video's own
// rotation), decoded on the movie's queue one picture ahead of the one being
// encoded. The file is written under a temporary name beside OUTPUT and renamed
// when it is complete, so an interrupted or failed run leaves nothing.
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "disc.h"
#include "input.h"
#include "picture.h"
#include "subtitles.h"
#include "varnel.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/samplefmt.h>
}

namespace varnel_cli {
namespace {

// The least a file cut short must give to be worth converting, in seconds.
constexpr double kShortestCut = 1.0;
// The most frames a second written.
constexpr double kMaxFrameRate = 240;

struct ConvertOptions {
  std::string input;
  std::optional<int> title;  // the DVD source to read
  std::string output;
  std::string vcodec;
  std::string acodec;
  std::string size;
  std::string fps;
  std::optional<int64_t> vbitrate;
  std::optional<int64_t> abitrate;
  std::optional<int> sampleRate;
  std::optional<int> channels;
  std::string audioTracks;
  double start = 0;
  std::optional<double> duration;
  std::string progress;
  PictureOptions picture;
  SubtitleOptions subtitles;
};

// Progress on stderr: one rewritten line on a terminal, JSON lines when
// asked (or when stderr is not a terminal and JSON was requested).
class Progress {
 public:
  Progress(bool json, double total) : json_(json), total_(total), tty_(isatty(2)) {
    start_ = std::chrono::steady_clock::now();
  }

  void update(double done, int64_t frames, bool force = false) {
    const auto now = std::chrono::steady_clock::now();
    if (!force && now - last_ < std::chrono::milliseconds(json_ ? 1000 : 200))
      return;
    last_ = now;
    const double elapsed = std::chrono::duration<double>(now - start_).count();
    const double fraction = total_ > 0 ? std::min(1.0, done / total_) : 0;
    const double fps = elapsed > 0 ? frames / elapsed : 0;
    const double eta = fraction > 0 ? elapsed * (1 - fraction) / fraction : 0;
    if (json_) {
      std::fprintf(stderr,
                   "{\"percent\":%.1f,\"time\":%.3f,\"frames\":%" PRId64
                   ",\"fps\":%.1f,\"eta\":%.1f}\n",
                   fraction * 100, done, frames, fps, eta);
    } else if (tty_) {
      std::fprintf(stderr, "\r%5.1f%%  %6.1f frames/s  ETA %d:%02d   ", fraction * 100, fps,
                   static_cast<int>(eta) / 60, static_cast<int>(eta) % 60);
    }
  }

  void finish() {
    if (!json_ && tty_)
      std::fprintf(stderr, "\n");
  }

 private:
  bool json_;
  double total_;
  bool tty_;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_{};
};

bool parseSize(const std::string& text, int* w, int* h) {
  return parsePictureSize(text, w, h) && *w % 2 == 0 && *h % 2 == 0;
}

// "N" or "N/D", the whole text, at most kMaxFrameRate.
bool parseRate(const std::string& text, int* num, int* den) {
  char end = 0;
  *den = 1;
  const bool whole = std::sscanf(text.c_str(), "%d%c", num, &end) == 1 ||
                     std::sscanf(text.c_str(), "%d/%d%c", num, den, &end) == 2;
  return whole && *num > 0 && *den > 0 && double(*num) / *den <= kMaxFrameRate;
}

// A name in the same directory with the same extension (the container is
// chosen from it), hidden while it is being written.
std::string temporaryPath(const std::string& output) {
  const std::filesystem::path out(output);
  const std::string name =
      "." + out.stem().string() + ".varnel-" + std::to_string(getpid()) + out.extension().string();
  return (out.parent_path() / name).string();
}

// Composed pictures, asked of the movie's decode queue one ahead: the queue
// decodes and composes the next picture while this thread renders and
// encodes the current one.
class PicturePipeline {
 public:
  PicturePipeline(VNFFMovie& movie, bool composed, int width, int height) : movie_(movie) {
    if (composed)
      movie_.setOutputVideoSize(vn::Size{double(width), double(height)});
  }

  void request(int64_t t) {
    auto slot = std::make_shared<Slot>();
    auto provider = std::make_shared<VNFFMovieImageProvider>();
    provider->movieMediaEffectImage = [slot](VNFFMovie&, std::optional<vn::FilterImage> image) {
      slot->image = std::move(image);
    };
    pending_ = slot;
    movie_.decodeImageAtTime(t, provider, false);
  }

  // The picture asked for last; none when the movie had none then.
  std::optional<vn::FilterImage> take() {
    // Every item before this one has run once the queue is drained up to
    // here; the slot is written on the queue and read after that.
    movie_.flushOperation();
    std::optional<vn::FilterImage> image;
    if (pending_)
      image = std::move(pending_->image);
    pending_.reset();
    return image;
  }

  // Lets a request still queued finish before the movie goes.
  void finish() { movie_.flushOperation(); }

 private:
  struct Slot {
    std::optional<vn::FilterImage> image;
  };
  VNFFMovie& movie_;
  std::shared_ptr<Slot> pending_;
};

int run(const ConvertOptions& o) {
  namespace fs = std::filesystem;
  VNFFMovieFileOutputFormat format;
  movieFileOutputFormatToDefaults(&format);
  // Every value is checked before the input is opened.
  if (!o.vcodec.empty() &&
      (!(format.video_codec = vn_get_codec_id_by_name(o.vcodec)) ||
       avcodec_get_type(AVCodecID(format.video_codec)) != AVMEDIA_TYPE_VIDEO)) {
    return usage("unknown video codec", o.vcodec, "use one of h264 mpeg4 mpeg1 mpeg2 animation");
  }
  if (!o.acodec.empty() &&
      (!(format.audio_codec = vn_get_codec_id_by_name(o.acodec)) ||
       avcodec_get_type(AVCodecID(format.audio_codec)) != AVMEDIA_TYPE_AUDIO)) {
    return usage("unknown audio codec", o.acodec,
                 "use one of mp2 mp3 aac alac ac3 vorbis wma1 wma2");
  }
  int fpsNum = 0, fpsDen = 1;
  if (!o.fps.empty() && !parseRate(o.fps, &fpsNum, &fpsDen))
    return usage("bad --fps", o.fps, "expected N or N/D, more than 0 and at most 240");
  if (o.vbitrate && *o.vbitrate <= 0)
    return usage("bad --vbitrate", std::to_string(*o.vbitrate), "expected bits a second, above 0");
  if (o.abitrate && *o.abitrate <= 0)
    return usage("bad --abitrate", std::to_string(*o.abitrate), "expected bits a second, above 0");
  if (o.sampleRate && *o.sampleRate <= 0)
    return usage("bad --sample-rate", std::to_string(*o.sampleRate), "expected Hz, above 0");
  if (o.channels && !vn::defaultChannelLayout(*o.channels))
    return usage("bad --channels", std::to_string(*o.channels), "expected 1 to 8 channels");
  if (o.duration && !(std::isfinite(*o.duration) && *o.duration > 0))
    return usage("bad --duration", numberText(*o.duration), "expected seconds, more than 0");
  if (const std::string why = unwritableOutput(o.output, o.input); !why.empty())
    return fail("cannot write", o.output, why);
  if (fs::path(o.output).extension().empty())
    return fail("cannot write", o.output, "no extension to choose the container by");

  Input input;
  input.title = o.title;
  if (const int status = input.openWithTracks(o.input, o.audioTracks); status != kExitOk)
    return status;
  VNFFMovie& movie = *input.movie;

  const std::shared_ptr<VNFFMedia> video = input.videoMedia();
  const bool hasAudio = movie.hasAudio();
  // FFmpeg learns a picture's size from the first one it decodes: without
  // it, no picture of the video can be read.
  if (video && (video->videoFormat().width <= 0 || video->videoFormat().height <= 0))
    return fail("cannot convert", o.input, "no picture of its video can be decoded");

  if (video) {
    if (const int status = o.picture.apply(input); status != kExitOk)
      return status;
  }
  if (const int status = o.subtitles.apply(input); status != kExitOk)
    return status;
  // Sizes and rates default to the input's, turned as a player shows it.
  if (video) {
    shownSize(input, movie.rotate(), false, true, &format.width, &format.height);
    const AVRational rate = input.videoFrameRate();
    format.framerate = rate.num;
    format.frameTime = rate.den;
  }
  if (!o.size.empty() && !parseSize(o.size, &format.width, &format.height)) {
    return usage("bad --size", o.size, "expected WxH with even, positive numbers");
  }
  // Decoded frames go to the encoder as they are unless something changes
  // the picture.
  bool composed = false;
  if (video) {
    int width = 0, height = 0;
    shownSize(input, 0, false, true, &width, &height);
    composed = o.picture.changesPicture(input) || o.subtitles.shows() || format.width != width ||
               format.height != height;
  }
  if (!o.fps.empty()) {
    format.framerate = fpsNum;
    format.frameTime = fpsDen;
  }
  if (o.vbitrate)
    format.video_bitrate = static_cast<int32_t>(std::min<int64_t>(*o.vbitrate, INT32_MAX));
  if (o.abitrate)
    format.audio_bitrate = static_cast<int32_t>(std::min<int64_t>(*o.abitrate, INT32_MAX));
  if (o.sampleRate)
    format.sample_rate = *o.sampleRate;
  if (o.channels)
    format.channel_layout = vn::defaultChannelLayout(*o.channels);

  // A file cut short is converted as far as it can be read, when that
  // gives at least a second of what was asked for.
  const Input::Extent extent = input.extent();
  const double requestedEnd =
      o.duration ? o.start + *o.duration : std::numeric_limits<double>::infinity();
  const double endSeconds = std::min(extent.end(), requestedEnd);
  const std::string cut = input.truncation ? truncationText(*input.truncation) + "; " : "";
  if (extent.end() <= 0)
    return fail("cannot convert", o.input, cut + "none of its audio or video can be read");
  if (const int status = checkTime("--start", o.start, extent, numberText(o.start), o.input);
      status != kExitOk) {
    return status;
  }
  if (extent.cutShort && extent.end() < requestedEnd && endSeconds - o.start < kShortestCut) {
    char text[80];
    std::snprintf(text, sizeof text, "only %.2f s of it can be read%s", endSeconds - o.start,
                  o.start > 0 ? " after --start" : "");
    return fail("cannot convert", o.input, cut + text);
  }
  input.warnIfCutShort(o.input, extent);

  const std::string temp = temporaryPath(o.output);
  auto writer = VNFFMovieFileOutput::create();
  writer->setPath(temp);
  writer->setMovieFormat(format);
  // The mix delivers packed float at the output's rate and layout; the
  // writer's converter only changes the sample format for the encoder.
  const VNFFAudioFormat mixFormat{AV_SAMPLE_FMT_FLT, format.channel_layout, format.sample_rate};
  writer->setAudioInputFormat(mixFormat);
  bool wantVideo = video != nullptr;
  if (wantVideo)
    writer->openVideo();
  if (hasAudio)
    writer->openAudio();
  std::error_code ec;
  auto cleanup = [&] { fs::remove(temp, ec); };
  // Gives up before anything was converted: nothing of the output stays.
  auto failWrite = [&](const std::string& reason) {
    cleanup();
    return fail("cannot write", o.output, reason);
  };
  if (!writer->isMovieOpen()) {
    return fail("cannot write", o.output, writer->failureReason());
  }
  if ((wantVideo && !writer->isVideoOpen()) || (hasAudio && !writer->isAudioOpen())) {
    return failWrite(writer->failureReason());
  }
  if (!writer->isVideoOpen() && !writer->isAudioOpen()) {
    return failWrite("the input has nothing this container can hold");
  }
  if (!writer->startOutput()) {
    std::string reason = writer->failureReason();
    writer->stopOutput();
    return failWrite(reason);
  }

  movie.configOutputFormat(mixFormat);
  movie.setExportMovie(true);
  const int64_t startUs = microseconds(o.start);
  movie.seek(startUs);
  movie.flushOperation();

  catchInterrupts();

  Progress progress(o.progress == "json", endSeconds - o.start);
  const int channels = vn_get_channel_layout_nb_channels(format.channel_layout);
  const int bytesPerFrame = channels * static_cast<int>(sizeof(float));
  constexpr int kChunk = 1024;
  std::vector<float> audio(static_cast<size_t>(kChunk) * channels);
  int64_t audioFrames = 0;  // written so far
  const double span = endSeconds - o.start;
  const int64_t audioTotal = static_cast<int64_t>(std::llround(span * format.sample_rate));

  auto writeAudioUntil = [&](int64_t target) {
    target = std::min(target, audioTotal);
    while (audioFrames < target && !interrupted()) {
      const int n = static_cast<int>(std::min<int64_t>(kChunk, target - audioFrames));
      movie.readSample(audio.data(), n);
      writer->writeAudioData(audio.data(), static_cast<uint64_t>(n) * bytesPerFrame);
      audioFrames += n;
    }
  };

  int64_t videoFrames = 0;
  if (writer->isVideoOpen()) {
    const double frameSeconds = static_cast<double>(format.frameTime) / format.framerate;
    const int64_t total = std::max<int64_t>(1, std::llround(span / frameSeconds));
    // The picture shown at the middle of the output frame: a frame is
    // looked up as ending where the next begins, so an exact boundary would
    // give the one before.
    auto frameTime = [&](int64_t n) { return microseconds(o.start + (n + 0.5) * frameSeconds); };
    PicturePipeline pictures(movie, composed, format.width, format.height);
    if (composed)
      pictures.request(frameTime(0));
    auto writeAudioOfFrame = [&](int64_t n) {
      if (writer->isAudioOpen()) {
        writeAudioUntil(
            static_cast<int64_t>(std::llround((n + 1) * frameSeconds * format.sample_rate)));
      }
    };
    for (; videoFrames < total && !interrupted(); ++videoFrames) {
      if (composed) {
        std::optional<vn::FilterImage> picture = pictures.take();
        // The mix reads its medias while the queue is idle: no picture is
        // being decoded on the other thread meanwhile.
        writeAudioOfFrame(videoFrames);
        if (videoFrames + 1 < total)
          pictures.request(frameTime(videoFrames + 1));
        if (picture)
          writer->writeImage(*picture);
      } else {
        // The media whose span holds the time (a DVD title is several, one
        // after another); past their ends, the last one that started.
        const int64_t at = frameTime(videoFrames);
        std::shared_ptr<VNFFMedia> shown = movie.videoMediaAtTime(at);
        for (const auto& media : shown ? VNFFMovie::Medias{} : movie.videos()) {
          if (media->movie_position() <= at)
            shown = media;
        }
        if (!shown)
          shown = video;
        if (AVFrame* frame = shown->videoFrameAtTime(at - shown->movie_position()))
          writer->writeVideoFrame(frame);
        writeAudioOfFrame(videoFrames);
      }
      progress.update((videoFrames + 1) * frameSeconds, videoFrames + 1);
    }
    pictures.finish();
  }
  if (writer->isAudioOpen()) {
    while (audioFrames < audioTotal && !interrupted()) {
      writeAudioUntil(audioFrames + format.sample_rate);
      progress.update(static_cast<double>(audioFrames) / format.sample_rate, videoFrames);
    }
  }
  progress.update(span, videoFrames, true);
  progress.finish();

  writer->stopOutput();
  if (interrupted()) {
    cleanup();
    return fail("interrupted", o.output, "the conversion was stopped; nothing was written");
  }
  fs::rename(temp, o.output, ec);
  if (ec) {
    cleanup();
    return fail("cannot write", o.output, ec.message());
  }
  return kExitOk;
}

}  // namespace

Registration convertCommand() {
  return [](CLI::App& app, std::function<int()>& run_) {
    auto o = std::make_shared<ConvertOptions>();
    CLI::App* sub =
        app.add_subcommand("convert", "Convert INPUT into OUTPUT (container from its extension)");
    sub->add_option("INPUT", o->input, "Input media file or DVD (folder, .iso, device)")
        ->required();
    addTitleOption(sub, &o->title);
    sub->add_option("OUTPUT", o->output,
                    "Output file: .mp4 .mkv .mov .avi .mpg .wmv .m4a .m4r .mp3 ...")
        ->required();
    sub->add_option("--vcodec", o->vcodec,
                    "h264 mpeg4 mpeg1 mpeg2 animation (default: the container's)");
    sub->add_option("--acodec", o->acodec,
                    "mp2 mp3 aac alac ac3 vorbis wma1 wma2 (default: the container's)");
    sub->add_option("--size", o->size, "Output picture size WxH (default: the input's)");
    sub->add_option("--fps", o->fps,
                    "Output frame rate N or N/D (default: the input's exact rate)");
    sub->add_option("--vbitrate", o->vbitrate, "Video bit rate, bits/s (default 20000000)");
    sub->add_option("--abitrate", o->abitrate, "Audio bit rate, bits/s (default 192000)");
    sub->add_option("--sample-rate", o->sampleRate, "Audio sample rate, Hz (default 44100)");
    sub->add_option("--channels", o->channels, "Audio channels (default 2)");
    sub->add_option("--audio-tracks", o->audioTracks,
                    "Audio tracks to mix, e.g. 0,2 (default: all)");
    sub->add_option("--start", o->start, "Start time in seconds");
    sub->add_option("--duration", o->duration, "Duration in seconds (default: to the end)");
    sub->add_option("--progress", o->progress, "Progress as 'json' lines on stderr")
        ->check(CLI::IsMember({"json", "line"}));
    o->picture.addTo(sub);
    o->subtitles.addTo(sub);
    sub->callback([o, &run_] { run_ = [o] { return run(*o); }; });
  };
}

}  // namespace varnel_cli
