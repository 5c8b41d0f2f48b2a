// varnel convert INPUT OUTPUT [options]: converts through a movie and the
// library's export job.
//
// The movie reads the input (a file with video and audio is two medias, each
// with its own demuxer) with the picture and subtitle settings of the
// options; the export job writes it. Pictures are decoded frames, scaled
// straight to the output size, when nothing else changes them, else the
// movie's composed pictures (picture settings, a size of another shape, a
// video's own rotation, burnt-in subtitles). An interrupted or failed run
// leaves nothing.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
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
#include <libavformat/avformat.h>
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
  std::optional<int> videoTrack;
  bool mix = false;
  bool noVideo = false;
  bool noAudio = false;
  std::string subtitleTracks;  // "": all, but none in a sound-only file
  bool noMetadata = false;
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

// Containers that hold sound only: a video is left out of them, and so is a
// cover picture.
bool audioOnlyOutput(const std::string& path) {
  static const char* const kAudioOnly[] = {".m4a",  ".m4r", ".mp3", ".wav", ".aac", ".flac",
                                           ".opus", ".ogg", ".oga", ".ac3", ".mka"};
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return std::find(std::begin(kAudioOnly), std::end(kAudioOnly), extension) != std::end(kAudioOnly);
}

// The codecs of the options into format; kExitOk or the usage error.
int checkCodecs(const ConvertOptions& o, VNFFMovieFileOutputFormat* format) {
  if (o.vcodec != "copy" && !o.vcodec.empty() &&
      (!(format->video_codec = vn_get_codec_id_by_name(o.vcodec)) ||
       avcodec_get_type(AVCodecID(format->video_codec)) != AVMEDIA_TYPE_VIDEO)) {
    return usage("unknown video codec", o.vcodec, "use one of h264 mpeg4 mpeg1 mpeg2 animation");
  }
  if (o.acodec != "copy" && !o.acodec.empty() &&
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
  if (o.noVideo && (o.noAudio || o.audioTracks == "none"))
    return usage("bad options", "--no-video --no-audio", "nothing would be left to write");
  if (o.mix && o.acodec == "copy")
    return usage("bad options", "--mix --acodec copy", "copied tracks cannot be mixed");
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
  // An encoder that cannot take 44100 Hz (Opus) gets 48000 Hz unless told.
  const AVOutputFormat* container = av_guess_format(nullptr, o.output.c_str(), nullptr);
  const auto codec = static_cast<AVCodecID>(format->audio_codec ? format->audio_codec
                                            : container         ? container->audio_codec
                                                                : 0);
  const AVCodec* encoder = codec ? avcodec_find_encoder(codec) : nullptr;
  if (!o.sampleRate && encoder && encoder->supported_samplerates) {
    const int* rates = encoder->supported_samplerates;
    bool takes = false, takes48k = false;
    for (int i = 0; rates[i]; ++i) {
      takes = takes || rates[i] == format->sample_rate;
      takes48k = takes48k || rates[i] == 48000;
    }
    if (!takes)
      format->sample_rate = takes48k ? 48000 : rates[0];
  }
}

// Whether a picture of size `from` fitted into width x height fills it, to
// within a pixel: then scaling it to that size is what fitting shows.
bool fillsWhenFitted(vn::Size from, int width, int height) {
  if (from.width <= 0 || from.height <= 0)
    return false;
  return std::abs(from.width * height / from.height - width) < 1 ||
         std::abs(from.height * width / from.width - height) < 1;
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
  // it, no picture of the video can be read. A track may also hold none.
  // (A copied video is not decoded at all.)
  if (video && (video->videoFormat().width <= 0 || video->videoFormat().height <= 0 ||
                (o.vcodec != "copy" && !input.videoDecodes())))
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
  // Decoded frames go to the encoder, scaled once from the decoder's YUV to
  // the encoder's, unless something changes the picture: a size of another
  // shape is fitted into the frame between black bars by the composed path.
  *composed = false;
  if (video) {
    const vn::Size unturned = movie.shownVideoSize(0, false, true);
    *composed = o.picture.changesPicture(input) || o.subtitles.shows() ||
                !fillsWhenFitted(unturned, format->width, format->height);
  }
  if (fps.num > 0) {
    format->framerate = fps.num;
    format->frameTime = fps.den;
  }
  if (o.vcodec == "copy" && (*composed || fps.num > 0))
    return usage("bad options", "--vcodec copy",
                 "a copied video keeps its pictures: no picture option, size, rate or burnt-in "
                 "subtitle can go with it");
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

// What the output gets, from the options and the input.
struct Plan {
  bool writesVideo = true;
  bool writesAudio = true;
  bool composed = false;
  std::optional<VNIndexSet> subtitleTracks;  // null: all
};

// The audio track a player starts with: the one marked default, else the
// first (a disc's first).
std::string defaultAudioTrack(Input& input) {
  const AVFormatContext* context = input.disc ? nullptr : input.formatContext();
  int track = 0;
  for (unsigned i = 0; context && i < context->nb_streams; ++i) {
    const AVStream* stream = context->streams[i];
    if (stream->codecpar->codec_type != AVMEDIA_TYPE_AUDIO)
      continue;
    if (stream->disposition & AV_DISPOSITION_DEFAULT)
      return std::to_string(track);
    ++track;
  }
  return "0";
}

// The tracks of the options chosen on the opened input: kExitOk or the
// usage error.
int chooseTracks(const ConvertOptions& o, Input& input, Plan* plan) {
  // Without audio there is nothing to choose: only a list naming tracks is
  // checked against it.
  const std::string audio = o.audioTracks.empty()
                                ? input.movie->hasAudio() ? defaultAudioTrack(input) : "all"
                                : o.audioTracks;
  plan->writesAudio = plan->writesAudio && audio != "none" && input.movie->hasAudio();
  // The export builds the mix in its own format, when it decodes sound.
  if (std::string reason; audio != "none" && !input.selectAudioTracks(audio, &reason, false))
    return usage("bad --audio-tracks", o.audioTracks, reason);
  if (o.subtitleTracks == "none" || (o.subtitleTracks.empty() && !plan->writesVideo)) {
    plan->subtitleTracks = VNIndexSet{};
    return kExitOk;
  }
  std::string reason;
  if (!parseIndexList(o.subtitleTracks, &plan->subtitleTracks, &reason))
    return usage("bad --subtitle-tracks", o.subtitleTracks, reason);
  uint32_t count = 0;
  VNFFMedia::subtitleStreamIndex(input.disc ? nullptr : input.formatContext(), 0, &count);
  if (plan->subtitleTracks && !plan->subtitleTracks->empty() &&
      *plan->subtitleTracks->rbegin() >= count) {
    return usage("bad --subtitle-tracks", o.subtitleTracks,
                 count == 0 ? "the input has no subtitle track"
                            : "the input's subtitle tracks are 0 to " + std::to_string(count - 1));
  }
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
                const Plan& plan,
                const std::shared_ptr<VNFFMovie>& movie,
                const VNFFMovieFileOutputFormat& format,
                double end) {
  VNFFMovieExport job(movie, format, o.output);
  job.setStart(microseconds(o.start));
  job.setDuration(microseconds(end) - microseconds(o.start));
  job.setPictures(plan.composed ? VNFFMovieExport::kComposed : VNFFMovieExport::kDecoded);
  job.setWritesVideo(plan.writesVideo);
  job.setWritesAudio(plan.writesAudio);
  job.setAudioLayout(o.mix ? VNFFMovieExport::kMixedAudio : VNFFMovieExport::kSeparateAudio);
  job.setSubtitleTracks(plan.subtitleTracks);
  job.setCopiesVideo(o.vcodec == "copy");
  job.setCopiesAudio(o.acodec == "copy");
  job.setKeepsMetadata(!o.noMetadata);
  job.setKeepsStreamDescriptions(true);
  job.setTrimsEncoderDelay(true);
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
      for (const std::string& note : result.notes)
        warn(o.output, note);
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
  input.videoTrack = o.videoTrack;
  if (const int status = input.openWithTracks(o.input, "all", false); status != kExitOk)
    return status;
  Plan plan;
  plan.writesVideo = !o.noVideo && !audioOnlyOutput(o.output) && input.movie->hasVideo();
  plan.writesAudio = !o.noAudio;
  if (const int status = chooseTracks(o, input, &plan); status != kExitOk)
    return status;
  if (!plan.writesVideo)
    input.movie->setDisableVideo(true);
  else if (const int status = setUpPictures(o, input, fps, &format, &plan.composed);
           status != kExitOk)
    return status;
  applyAudioOptions(o, &format);
  // Mixed tracks are averaged: together they never go past full scale.
  input.movie->audioEffectStream().setAveragesTracks(true);
  double end = 0;
  if (const int status = findEnd(o, input, &end); status != kExitOk)
    return status;
  return writeOutput(o, plan, input.movie, format, end);
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
                    "h264 mpeg4 mpeg1 mpeg2 animation, or copy (default: the container's)");
    sub->add_option("--acodec", o->acodec,
                    "mp2 mp3 aac alac ac3 vorbis wma1 wma2, or copy (default: the container's)");
    sub->add_option("--size", o->size, "Output picture size WxH (default: the input's)");
    sub->add_option("--fps", o->fps,
                    "Output frame rate N or N/D (default: the input's exact rate)");
    sub->add_option("--vbitrate", o->vbitrate, "Video bit rate, bits/s (default 20000000)");
    sub->add_option("--abitrate", o->abitrate, "Audio bit rate, bits/s (default 192000)");
    sub->add_option("--sample-rate", o->sampleRate, "Audio sample rate, Hz (default 44100)");
    sub->add_option("--channels", o->channels, "Audio channels (default 2)");
    sub->add_option("--video-track", o->videoTrack,
                    "Video track to write, counted from 0 (default: the default track, else "
                    "the first that decodes)");
    sub->add_option("--audio-tracks", o->audioTracks,
                    "Audio tracks to write, e.g. 0,2, or all or none (default: the default "
                    "track); each is its own stream unless --mix");
    sub->add_flag("--mix", o->mix, "Mix the chosen audio tracks into one stream (averaged)");
    sub->add_flag("--no-video", o->noVideo, "Write no video");
    sub->add_flag("--no-audio", o->noAudio, "Write no audio");
    sub->add_option("--subtitle-tracks", o->subtitleTracks,
                    "Subtitle tracks kept as subtitle streams: 0,2, all or none (default: all "
                    "with video, none without)");
    sub->add_flag("--no-metadata", o->noMetadata, "Drop the input's tags and chapters");
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
