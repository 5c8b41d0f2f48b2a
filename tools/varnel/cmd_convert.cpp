// varnel convert INPUT OUTPUT [options]: converts through a movie and the
// library's export job.
//
// The movie reads the input (a file with video and audio is two medias, each
// with its own demuxer) with the picture and subtitle settings of the
// options; the export job writes it. Pictures are decoded frames as they are
// when nothing changes them, else the movie's composed pictures (picture
// settings, another size, a video's own rotation). An interrupted or failed
// run leaves nothing.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>

#include "cli.h"
#include "disc.h"
#include "input.h"
#include "picture.h"
#include "subtitles.h"
#include "varnel.h"

extern "C" {
#include <libavcodec/avcodec.h>
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
// asked.
class ProgressPrinter {
 public:
  explicit ProgressPrinter(bool json) : json_(json), tty_(isatty(2)) {}

  // How often the job reports, in milliseconds.
  int interval() const { return json_ ? 1000 : 200; }

  void print(const VNFFMovieExport::Progress& p) const {
    if (json_) {
      std::fprintf(stderr,
                   "{\"percent\":%.1f,\"time\":%.3f,\"frames\":%" PRId64
                   ",\"fps\":%.1f,\"eta\":%.1f}\n",
                   p.fraction * 100, p.seconds, p.frames, p.framesPerSecond, p.eta);
    } else if (tty_) {
      std::fprintf(stderr, "\r%5.1f%%  %6.1f frames/s  ETA %d:%02d   ", p.fraction * 100,
                   p.framesPerSecond, static_cast<int>(p.eta) / 60, static_cast<int>(p.eta) % 60);
    }
  }

  void finish() const {
    if (!json_ && tty_)
      std::fprintf(stderr, "\n");
  }

 private:
  bool json_;
  bool tty_;
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

// The codecs of the options into format; kExitOk or the usage error.
int checkCodecs(const ConvertOptions& o, VNFFMovieFileOutputFormat* format) {
  if (!o.vcodec.empty() &&
      (!(format->video_codec = vn_get_codec_id_by_name(o.vcodec)) ||
       avcodec_get_type(AVCodecID(format->video_codec)) != AVMEDIA_TYPE_VIDEO)) {
    return usage("unknown video codec", o.vcodec, "use one of h264 mpeg4 mpeg1 mpeg2 animation");
  }
  if (!o.acodec.empty() &&
      (!(format->audio_codec = vn_get_codec_id_by_name(o.acodec)) ||
       avcodec_get_type(AVCodecID(format->audio_codec)) != AVMEDIA_TYPE_AUDIO)) {
    return usage("unknown audio codec", o.acodec,
                 "use one of mp2 mp3 aac alac ac3 vorbis wma1 wma2");
  }
  return kExitOk;
}

// Every value of the options, checked before the input is opened: kExitOk
// or the error's exit status once it is printed.
int checkOptions(const ConvertOptions& o, VNFFMovieFileOutputFormat* format, AVRational* fps) {
  if (const int status = checkCodecs(o, format); status != kExitOk)
    return status;
  if (!o.fps.empty() && !parseRate(o.fps, &fps->num, &fps->den))
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
  if (std::filesystem::path(o.output).extension().empty())
    return fail("cannot write", o.output, "no extension to choose the container by");
  return kExitOk;
}

// The rest of the output format from the options, over the input's own
// size and rate.
void applyAudioOptions(const ConvertOptions& o, VNFFMovieFileOutputFormat* format) {
  if (o.vbitrate)
    format->video_bitrate = static_cast<int32_t>(std::min<int64_t>(*o.vbitrate, INT32_MAX));
  if (o.abitrate)
    format->audio_bitrate = static_cast<int32_t>(std::min<int64_t>(*o.abitrate, INT32_MAX));
  if (o.sampleRate)
    format->sample_rate = *o.sampleRate;
  if (o.channels)
    format->channel_layout = vn::defaultChannelLayout(*o.channels);
}

// Sets the movie's picture and subtitle settings and the picture part of
// format (the input's shown size and exact rate unless the options say
// otherwise); tells whether pictures must be composed. kExitOk or the
// error's exit status.
int setUpPictures(const ConvertOptions& o,
                  Input& input,
                  AVRational fps,
                  VNFFMovieFileOutputFormat* format,
                  bool* composed) {
  VNFFMovie& movie = *input.movie;
  const std::shared_ptr<VNFFMedia> video = movie.videoMedia();
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
    const vn::Size shown = movie.shownVideoSize(movie.rotate(), false, true);
    format->width = static_cast<int>(shown.width);
    format->height = static_cast<int>(shown.height);
    const AVRational rate = movie.exactFramerate();
    format->framerate = rate.num;
    format->frameTime = rate.den;
  }
  if (!o.size.empty() && !parseSize(o.size, &format->width, &format->height))
    return usage("bad --size", o.size, "expected WxH with even, positive numbers");
  // Decoded frames go to the encoder as they are unless something changes
  // the picture.
  *composed = false;
  if (video) {
    const vn::Size unturned = movie.shownVideoSize(0, false, true);
    *composed = o.picture.changesPicture(input) || o.subtitles.shows() ||
                format->width != static_cast<int>(unturned.width) ||
                format->height != static_cast<int>(unturned.height);
  }
  if (fps.num > 0) {
    format->framerate = fps.num;
    format->frameTime = fps.den;
  }
  return kExitOk;
}

// Where the conversion ends, in seconds: a file cut short is converted as
// far as it can be read, when that gives at least a second of what was
// asked for. kExitOk or the error's exit status.
int findEnd(const ConvertOptions& o, Input& input, double* end) {
  const Input::Extent extent = input.extent();
  const double requestedEnd =
      o.duration ? o.start + *o.duration : std::numeric_limits<double>::infinity();
  *end = std::min(extent.end(), requestedEnd);
  const std::string cut = input.truncation ? truncationText(*input.truncation) + "; " : "";
  if (extent.end() <= 0)
    return fail("cannot convert", o.input, cut + "none of its audio or video can be read");
  if (const int status = checkTime("--start", o.start, extent, numberText(o.start), o.input);
      status != kExitOk) {
    return status;
  }
  if (extent.cutShort && extent.end() < requestedEnd && *end - o.start < kShortestCut) {
    char text[80];
    std::snprintf(text, sizeof text, "only %.2f s of it can be read%s", *end - o.start,
                  o.start > 0 ? " after --start" : "");
    return fail("cannot convert", o.input, cut + text);
  }
  input.warnIfCutShort(o.input, extent);
  return kExitOk;
}

// The export running, for Ctrl-C (SIGINT) and SIGTERM to stop.
std::atomic<VNFFMovieExport*> gRunning{nullptr};
static_assert(std::atomic<VNFFMovieExport*>::is_always_lock_free);

void onInterrupt(int) {
  if (VNFFMovieExport* job = gRunning.load())
    job->cancel();
}

// Writes the movie, printing progress; an interrupt stops it and removes
// what was written.
int writeOutput(const ConvertOptions& o,
                const std::shared_ptr<VNFFMovie>& movie,
                const VNFFMovieFileOutputFormat& format,
                bool composed,
                double end) {
  VNFFMovieExport job(movie, format, o.output);
  job.setStart(microseconds(o.start));
  job.setDuration(microseconds(end) - microseconds(o.start));
  job.setPictures(composed ? VNFFMovieExport::kComposed : VNFFMovieExport::kDecoded);
  const ProgressPrinter printer(o.progress == "json");
  job.setProgress([&](const VNFFMovieExport::Progress& p) { printer.print(p); },
                  printer.interval());

  gRunning = &job;
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  const VNFFMovieExport::Result result = job.run();
  gRunning = nullptr;

  switch (result.status) {
    case VNFFMovieExport::Result::kDone:
      printer.finish();
      return kExitOk;
    case VNFFMovieExport::Result::kCancelled:
      printer.finish();
      return fail("interrupted", o.output, "the conversion was stopped; nothing was written");
    case VNFFMovieExport::Result::kFailed:
      break;
  }
  return fail("cannot write", o.output, result.reason);
}

int run(const ConvertOptions& o) {
  VNFFMovieFileOutputFormat format;
  movieFileOutputFormatToDefaults(&format);
  AVRational fps{0, 1};
  if (const int status = checkOptions(o, &format, &fps); status != kExitOk)
    return status;

  Input input;
  input.title = o.title;
  if (const int status = input.openWithTracks(o.input, o.audioTracks); status != kExitOk)
    return status;
  bool composed = false;
  if (const int status = setUpPictures(o, input, fps, &format, &composed); status != kExitOk)
    return status;
  applyAudioOptions(o, &format);
  double end = 0;
  if (const int status = findEnd(o, input, &end); status != kExitOk)
    return status;
  return writeOutput(o, input.movie, format, composed, end);
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
