// varnel convert INPUT OUTPUT [options]: converts through a movie and the
// library's export job.
//
// The movie reads the input (a file with video and audio is two medias, each
// with its own demuxer) with the picture and subtitle settings of the
// options; the export job writes it. Pictures are decoded frames, scaled
// straight to the output size, when nothing else changes them (burnt-in
// subtitles are then laid over the scaled frames), else the movie's
// composed pictures (picture settings, a size of another shape, a video's
// own rotation). An interrupted or failed run leaves nothing.
//
// Encoding serves the user rather than the library's defaults: each
// container gets codecs it plays everywhere, video is encoded at constant
// quality unless a bit rate is asked for, and the sound keeps the input's
// rate and channels as far as its encoder takes them.
#include <signal.h>
#include <sys/stat.h>
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
#include <span>
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
// Frames a second of a GIF unless --fps says otherwise.
constexpr int kGifFrameRate = 10;

struct ConvertOptions {
  std::string input;
  std::optional<int> title;  // the DVD source to read
  std::string output;
  std::string vcodec;
  std::string acodec;
  std::string size;
  std::string fps;
  std::string vbitrate;
  std::string abitrate;
  std::optional<double> crf;
  std::optional<int> keyint;
  std::string preset;
  bool twoPass = false;
  bool overwrite = false;
  bool noOverwrite = false;
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
// asked; "line" gives the line when stderr is not a terminal too, then one
// line a second.
class ProgressPrinter {
 public:
  explicit ProgressPrinter(const std::string& mode)
      : json_(mode == "json"), tty_(isatty(2)), line_(!json_ && (tty_ || mode == "line")) {}

  // How often the job reports, in milliseconds.
  int interval() const { return json_ || !tty_ ? 1000 : 200; }

  void print(const VNFFMovieExport::Progress& p) const {
    if (json_) {
      std::fprintf(stderr,
                   "{\"percent\":%.1f,\"time\":%.3f,\"frames\":%" PRId64
                   ",\"fps\":%.1f,\"eta\":%.1f}\n",
                   p.fraction * 100, p.seconds, p.frames, p.framesPerSecond, p.eta);
    } else if (line_) {
      std::fprintf(stderr, "%s%5.1f%%  %6.1f frames/s  ETA %d:%02d%s", tty_ ? "\r" : "",
                   p.fraction * 100, p.framesPerSecond, static_cast<int>(p.eta) / 60,
                   static_cast<int>(p.eta) % 60, tty_ ? "   " : "\n");
    }
  }

  void finish() const {
    if (line_ && tty_)
      std::fprintf(stderr, "\n");
  }

 private:
  bool json_;
  bool tty_;
  bool line_;
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

// The codecs of each kind of output file: ones it plays everywhere with.
// A container not listed keeps FFmpeg's own choice.
struct ContainerDefaults {
  const char* extension;
  const char* video;  // codec name; null: none (sound only) or the container's
  const char* audio;  // codec name; null: none (pictures only) or the container's
  bool soundOnly;     // a video is left out, and so is a cover picture
  bool picturesOnly;  // sound is left out
};

constexpr ContainerDefaults kContainers[] = {
    {".mp4", "h264", "aac", false, false},      {".m4v", "h264", "aac", false, false},
    {".mov", "h264", "aac", false, false},      {".mkv", "h264", "aac", false, false},
    {".ts", "h264", "aac", false, false},       {".m2ts", "h264", "aac", false, false},
    {".flv", "h264", "aac", false, false},      {".webm", "vp9", "opus", false, false},
    {".ogv", "theora", "vorbis", false, false}, {".avi", "mpeg4", "mp3", false, false},
    {".mpg", "mpeg2", "mp2", false, false},     {".mpeg", "mpeg2", "mp2", false, false},
    {".gif", "gif", nullptr, false, true},      {".m4a", nullptr, "aac", true, false},
    {".m4r", nullptr, "aac", true, false},      {".aac", nullptr, "aac", true, false},
    {".mp3", nullptr, "mp3", true, false},      {".wav", nullptr, "pcm", true, false},
    {".flac", nullptr, "flac", true, false},    {".opus", nullptr, "opus", true, false},
    {".ogg", nullptr, "vorbis", true, false},   {".oga", nullptr, "vorbis", true, false},
    {".ac3", nullptr, "ac3", true, false},      {".mka", nullptr, nullptr, true, false},
};

// The user-facing codec names, as listed when one is refused.
constexpr const char* kVideoCodecNames[] = {"h264",   "hevc",      "vp8",    "vp9",
                                            "av1",    "mpeg4",     "mpeg2",  "mpeg1",
                                            "theora", "animation", "prores", "gif"};
constexpr const char* kAudioCodecNames[] = {"aac",  "mp3", "opus", "vorbis", "flac",
                                            "alac", "ac3", "pcm",  "mp2",    "wma"};

// The constant quality of each video codec the user sets with --crf: its
// default and the range the encoder takes.
struct QualityScale {
  AVCodecID codec;
  double byDefault;
  double lowest;
  double highest;
};

// Defaults near what each encoder's own users get (x264 23, x265 28, VP9
// 31, AV1 35); the quantiser of MPEG-1, MPEG-2 and MPEG-4 Visual is set to land near
// the size of FFmpeg's own defaults for them.
constexpr QualityScale kQualityScales[] = {
    {AV_CODEC_ID_H264, 23, 0, 51},       {AV_CODEC_ID_HEVC, 28, 0, 51},
    {AV_CODEC_ID_VP8, 10, 4, 63},        {AV_CODEC_ID_VP9, 31, 0, 63},
    {AV_CODEC_ID_AV1, 35, 0, 63},        {AV_CODEC_ID_MPEG4, 10, 1, 31},
    {AV_CODEC_ID_MPEG1VIDEO, 10, 1, 31}, {AV_CODEC_ID_MPEG2VIDEO, 10, 1, 31},
    {AV_CODEC_ID_MSMPEG4V3, 10, 1, 31},  {AV_CODEC_ID_THEORA, 7, 0, 10},
};

// Codecs whose encoders here can run two passes.
constexpr AVCodecID kTwoPassCodecs[] = {
    AV_CODEC_ID_H264,  AV_CODEC_ID_HEVC,       AV_CODEC_ID_VP8,       AV_CODEC_ID_VP9,
    AV_CODEC_ID_MPEG4, AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_MPEG2VIDEO};

std::string lowercaseExtension(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

// The defaults for the output's extension; all null for one not listed.
ContainerDefaults containerDefaults(const std::string& path) {
  const std::string extension = lowercaseExtension(path);
  for (const ContainerDefaults& c : kContainers) {
    if (extension == c.extension)
      return c;
  }
  return {"", nullptr, nullptr, false, false};
}

const QualityScale* qualityScale(int32_t codec) {
  for (const QualityScale& q : kQualityScales) {
    if (q.codec == codec)
      return &q;
  }
  return nullptr;
}

// The container FFmpeg writes for the output's name (ringtones are .m4a
// files).
const AVOutputFormat* outputContainer(const std::string& path) {
  return av_guess_format(nullptr, lowercaseExtension(path) == ".m4r" ? "x.m4a" : path.c_str(),
                         nullptr);
}

// "2000000", "128k", "2M", "1.5M": bits a second, at least 1 and within 32
// bits; none for anything else.
std::optional<int64_t> parseBitRate(const std::string& text) {
  if (text.empty() || !(std::isdigit(static_cast<unsigned char>(text[0])) || text[0] == '.'))
    return std::nullopt;
  char* end = nullptr;
  double value = std::strtod(text.c_str(), &end);
  const std::string suffix = end;
  if (suffix == "k" || suffix == "K")
    value *= 1e3;
  else if (suffix == "m" || suffix == "M")
    value *= 1e6;
  else if (!suffix.empty())
    return std::nullopt;
  if (!std::isfinite(value) || value < 1 || value > INT32_MAX)
    return std::nullopt;
  return static_cast<int64_t>(std::llround(value));
}

// A codec of a kind into *codec by its name, checked against the encoders
// here and what the container holds; kExitOk, the usage error of an
// unknown name or the failure of a codec the container cannot hold.
int chooseCodec(const std::string& name,
                AVMediaType kind,
                const std::string& output,
                const AVOutputFormat* container,
                int32_t* codec) {
  const bool video = kind == AVMEDIA_TYPE_VIDEO;
  const std::span<const char* const> names =
      video ? std::span<const char* const>(kVideoCodecNames) : kAudioCodecNames;
  const std::string option = video ? "--vcodec" : "--acodec";
  std::string known;
  for (const char* n : names)
    known += std::string(known.empty() ? "" : " ") + n;
  *codec = vn_get_codec_id_by_name(name);
  if (!*codec || avcodec_get_type(AVCodecID(*codec)) != kind)
    return usage(video ? "unknown video codec" : "unknown audio codec", name,
                 "use one of " + known + ", or copy");
  if (!vn_find_encoder(*codec))
    return usage("bad " + option, name, "this FFmpeg has no encoder for it");
  // 0 is a firm no; a container that keeps no list is tried when written.
  if (container && avformat_query_codec(container, AVCodecID(*codec), FF_COMPLIANCE_NORMAL) == 0) {
    std::string takes;
    for (const char* n : names) {
      const int32_t id = vn_get_codec_id_by_name(n);
      if (vn_find_encoder(id) &&
          avformat_query_codec(container, AVCodecID(id), FF_COMPLIANCE_NORMAL) != 0)
        takes += std::string(takes.empty() ? "" : " ") + n;
    }
    return fail("cannot write", output,
                std::string("the ") + container->name + " container cannot hold " + name +
                    "; it takes " + (takes.empty() ? "none of " + known : takes));
  }
  return kExitOk;
}

// The codecs of the options, else those of the output's extension, into
// format; kExitOk or the usage error.
int checkCodecs(const ConvertOptions& o, VNFFMovieFileOutputFormat* format) {
  const ContainerDefaults defaults = containerDefaults(o.output);
  const AVOutputFormat* container = outputContainer(o.output);
  const std::string video = o.vcodec.empty() && defaults.video ? defaults.video : o.vcodec;
  const std::string audio = o.acodec.empty() && defaults.audio ? defaults.audio : o.acodec;
  // A file of pictures only (GIF) keeps no list of codecs but holds its
  // own alone.
  if (defaults.picturesOnly &&
      vn_get_codec_id_by_name(video) != vn_get_codec_id_by_name(defaults.video))
    return fail("cannot write", o.output,
                std::string("the ") + (container ? container->name : "") + " container holds " +
                    defaults.video + " only");
  if (video != "copy" && !video.empty() && !defaults.soundOnly) {
    if (const int status =
            chooseCodec(video, AVMEDIA_TYPE_VIDEO, o.output, container, &format->video_codec);
        status != kExitOk)
      return status;
  }
  if (audio != "copy" && !audio.empty() && !defaults.picturesOnly) {
    if (const int status =
            chooseCodec(audio, AVMEDIA_TYPE_AUDIO, o.output, container, &format->audio_codec);
        status != kExitOk)
      return status;
  }
  return kExitOk;
}

// How video is encoded: at the codec's constant quality unless a bit rate
// is asked for; the speed preset; two passes. kExitOk or the usage error.
int checkEncoding(const ConvertOptions& o, VNFFMovieFileOutputFormat* format) {
  if (!o.preset.empty() && vn_speed_preset_index(o.preset) < 0)
    return usage("bad --preset", o.preset,
                 "use one of ultrafast superfast veryfast faster fast medium slow slower veryslow");
  format->speed_preset = o.preset;
  if (o.keyint && *o.keyint <= 0)
    return usage("bad --keyint", std::to_string(*o.keyint), "expected pictures, above 0");
  // The encoder's own interval (x264: up to 250) unless told: a keyframe
  // every 12 pictures costs H.264 a third more bits, VP9 nearly twice.
  format->keyframe_interval = o.keyint.value_or(0);
  if (!o.vbitrate.empty()) {
    const std::optional<int64_t> rate = parseBitRate(o.vbitrate);
    if (!rate)
      return usage("bad --vbitrate", o.vbitrate, "expected bits a second, e.g. 2M, 800k, 1500000");
    if (o.crf)
      return usage("bad options", "--crf --vbitrate", "choose constant quality or a bit rate");
    format->video_bitrate = static_cast<int32_t>(*rate);
  }
  if (!o.abitrate.empty()) {
    const std::optional<int64_t> rate = parseBitRate(o.abitrate);
    if (!rate)
      return usage("bad --abitrate", o.abitrate, "expected bits a second, e.g. 128k, 192000");
    format->audio_bitrate = static_cast<int32_t>(*rate);
  }
  const AVOutputFormat* container = outputContainer(o.output);
  const int32_t codec = format->video_codec ? format->video_codec
                        : container         ? container->video_codec
                                            : 0;
  if (o.twoPass) {
    if (o.vbitrate.empty())
      return usage("bad options", "--two-pass", "two passes need a bit rate: add --vbitrate");
    if (std::find(std::begin(kTwoPassCodecs), std::end(kTwoPassCodecs), codec) ==
        std::end(kTwoPassCodecs))
      return usage("bad options", "--two-pass",
                   "two passes are for h264 hevc vp8 vp9 mpeg4 mpeg2 mpeg1");
  }
  const QualityScale* scale = o.vcodec == "copy" ? nullptr : qualityScale(codec);
  if (o.crf && (!scale || !(*o.crf >= scale->lowest && *o.crf <= scale->highest))) {
    if (!scale)
      return usage("bad --crf", numberText(*o.crf), "the video codec has no quality to set");
    return usage("bad --crf", numberText(*o.crf),
                 "expected " + numberText(scale->lowest) + " to " + numberText(scale->highest) +
                     " for " + avcodec_get_name(AVCodecID(codec)));
  }
  if (scale && o.vbitrate.empty())
    format->video_quality = o.crf ? *o.crf : scale->byDefault;
  return kExitOk;
}

// Why an existing output is not replaced, or empty; *mode is set to the
// permissions an existing file keeps.
std::string refusedOutput(const ConvertOptions& o, std::optional<mode_t>* mode) {
  struct stat info {};
  if (stat(o.output.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
    return "";
  if (o.noOverwrite)
    return "it exists already (-y replaces it)";
  // Read-only by its permissions, whoever runs us (root may write anyway).
  if (!o.overwrite && (access(o.output.c_str(), W_OK) != 0 || !(info.st_mode & 0222)))
    return "it is read-only (-y replaces it)";
  *mode = info.st_mode & 07777;
  return "";
}

// Every value of the options, checked before the input is opened: kExitOk
// or the error's exit status once it is printed.
int checkOptions(const ConvertOptions& o,
                 VNFFMovieFileOutputFormat* format,
                 AVRational* fps,
                 std::optional<mode_t>* keptMode) {
  if (o.overwrite && o.noOverwrite)
    return usage("bad options", "-y -n", "choose one");
  if (const int status = checkCodecs(o, format); status != kExitOk)
    return status;
  if (const int status = checkEncoding(o, format); status != kExitOk)
    return status;
  if (o.noVideo && (o.noAudio || o.audioTracks == "none"))
    return usage("bad options", "--no-video --no-audio", "nothing would be left to write");
  if (o.mix && o.acodec == "copy")
    return usage("bad options", "--mix --acodec copy", "copied tracks cannot be mixed");
  if (!o.fps.empty() && !parseRate(o.fps, &fps->num, &fps->den))
    return usage("bad --fps", o.fps, "expected N or N/D, more than 0 and at most 240");
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
  if (const std::string why = refusedOutput(o, keptMode); !why.empty())
    return fail("cannot write", o.output, why);
  return kExitOk;
}

// The sample rate and channel count of the audio track a player starts
// with; none when the input has no audio.
std::optional<std::pair<int, int>> inputSound(Input& input) {
  const AVFormatContext* context = input.formatContext();
  const AVCodecParameters* chosen = nullptr;
  for (unsigned i = 0; context && i < context->nb_streams; ++i) {
    const AVStream* stream = context->streams[i];
    if (stream->codecpar->codec_type != AVMEDIA_TYPE_AUDIO)
      continue;
    if (!chosen || (stream->disposition & AV_DISPOSITION_DEFAULT))
      chosen = stream->codecpar;
    if (stream->disposition & AV_DISPOSITION_DEFAULT)
      break;
  }
  if (!chosen || chosen->sample_rate <= 0 || chosen->ch_layout.nb_channels <= 0)
    return std::nullopt;
  return std::pair(chosen->sample_rate, chosen->ch_layout.nb_channels);
}

// The rate of the list (ending in 0) nearest to wanted; the higher of two
// as near.
int nearestRate(const int* rates, int wanted) {
  int best = rates[0];
  for (int i = 0; rates[i]; ++i) {
    const int distance = std::abs(rates[i] - wanted), bestDistance = std::abs(best - wanted);
    if (distance < bestDistance || (distance == bestDistance && rates[i] > best))
      best = rates[i];
  }
  return best;
}

// The channel layout for about `channels` channels that the encoder takes:
// the usual one for that count, else the widest it lists up to that count.
uint64_t layoutFor(const AVCodec* encoder, int channels) {
  const uint64_t usual = vn::defaultChannelLayout(channels);
  const AVChannelLayout* layouts = encoder ? encoder->ch_layouts : nullptr;
  if (!layouts)
    return usual;
  const AVChannelLayout* widest = nullptr;
  for (int i = 0; layouts[i].nb_channels; ++i) {
    if (layouts[i].order == AV_CHANNEL_ORDER_NATIVE && layouts[i].u.mask == usual)
      return usual;
    if (layouts[i].order == AV_CHANNEL_ORDER_NATIVE && layouts[i].nb_channels <= channels &&
        (!widest || layouts[i].nb_channels > widest->nb_channels))
      widest = &layouts[i];
  }
  return widest ? widest->u.mask : usual;
}

// The sound of the output: the options, else the input's rate and
// channels, each moved to what the encoder takes.
void applyAudioOptions(const ConvertOptions& o, Input& input, VNFFMovieFileOutputFormat* format) {
  const std::optional<std::pair<int, int>> sound = inputSound(input);
  const AVOutputFormat* container = outputContainer(o.output);
  const auto codec = static_cast<AVCodecID>(format->audio_codec ? format->audio_codec
                                            : container         ? container->audio_codec
                                                                : 0);
  const AVCodec* encoder = codec ? vn_find_encoder(codec) : nullptr;
  if (o.sampleRate)
    format->sample_rate = *o.sampleRate;
  else if (sound)
    format->sample_rate = sound->first;
  if (!o.sampleRate && encoder && encoder->supported_samplerates)
    format->sample_rate = nearestRate(encoder->supported_samplerates, format->sample_rate);
  if (o.channels)
    format->channel_layout = vn::defaultChannelLayout(*o.channels);
  else if (sound)
    format->channel_layout = layoutFor(encoder, std::min(sound->second, 8));
  // 64 kb/s a channel unless asked: 128 kb/s for stereo, as FFmpeg's own
  // encoders default to (the library's 192 kb/s costs AAC three times the
  // time for little a listener hears).
  if (o.abitrate.empty())
    format->audio_bitrate =
        64000 * std::max(1, vn_get_channel_layout_nb_channels(format->channel_layout));
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
// otherwise); tells what the pictures are made of. kExitOk or the error's
// exit status.
int setUpPictures(const ConvertOptions& o,
                  Input& input,
                  AVRational fps,
                  VNFFMovieFileOutputFormat* format,
                  VNFFMovieExport::Pictures* pictures) {
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
  // Burnt-in subtitles alone are laid over the scaled frames.
  *pictures = VNFFMovieExport::kDecoded;
  if (video) {
    const vn::Size unturned = movie.shownVideoSize(0, false, true);
    if (o.picture.changesPicture(input) ||
        !fillsWhenFitted(unturned, format->width, format->height))
      *pictures = VNFFMovieExport::kComposed;
    else if (o.subtitles.shows())
      *pictures = VNFFMovieExport::kDecodedWithSubtitles;
  }
  if (fps.num > 0) {
    format->framerate = fps.num;
    format->frameTime = fps.den;
  }
  if (o.vcodec == "copy" && (*pictures != VNFFMovieExport::kDecoded || fps.num > 0))
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
  VNFFMovieExport::Pictures pictures = VNFFMovieExport::kDecoded;
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

// Runs the export job into path, printing progress; an interrupt stops it
// and removes what was written. A first pass writes the pictures only, for
// the encoder's statistics.
int runJob(const ConvertOptions& o,
           const Plan& plan,
           const std::shared_ptr<VNFFMovie>& movie,
           const VNFFMovieFileOutputFormat& format,
           const std::string& path,
           double end) {
  const bool firstPass = format.pass == 1;
  VNFFMovieExport job(movie, format, path);
  job.setStart(microseconds(o.start));
  job.setDuration(microseconds(end) - microseconds(o.start));
  job.setPictures(plan.pictures);
  job.setWritesVideo(plan.writesVideo);
  job.setWritesAudio(plan.writesAudio && !firstPass);
  job.setAudioLayout(o.mix ? VNFFMovieExport::kMixedAudio : VNFFMovieExport::kSeparateAudio);
  job.setSubtitleTracks(firstPass ? std::optional<VNIndexSet>(VNIndexSet{}) : plan.subtitleTracks);
  job.setCopiesVideo(o.vcodec == "copy");
  job.setCopiesAudio(o.acodec == "copy");
  job.setKeepsMetadata(!o.noMetadata && !firstPass);
  job.setKeepsStreamDescriptions(true);
  job.setTrimsEncoderDelay(true);
  const ProgressPrinter printer(o.progress);
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
      for (const std::string& note : result.notes) {
        if (!firstPass)
          warn(o.output, note);
      }
      return kExitOk;
    case VNFFMovieExport::Result::kCancelled:
      printer.finish();
      return fail("interrupted", o.output, "the conversion was stopped; nothing was written");
    case VNFFMovieExport::Result::kFailed:
      break;
  }
  return fail("cannot write", o.output, result.reason);
}

// A name beside the output for what only this run needs, hidden.
std::string besideOutput(const std::string& output, const std::string& what) {
  const std::filesystem::path out(output);
  return (out.parent_path() /
          ("." + out.stem().string() + ".varnel-" + std::to_string(getpid()) + "-" + what))
      .string();
}

// Writes the movie: once, or a first pass for the encoder's statistics and
// then the one that counts. A file replaced keeps its permissions.
int writeOutput(const ConvertOptions& o,
                const Plan& plan,
                const std::shared_ptr<VNFFMovie>& movie,
                VNFFMovieFileOutputFormat format,
                double end,
                std::optional<mode_t> keptMode) {
  if (o.twoPass && plan.writesVideo) {
    format.pass_log = besideOutput(o.output, "pass.log");
    // What the encoders write beside their statistics, and the first
    // pass's own movie.
    const std::string firstOutput =
        besideOutput(o.output, "pass1" + std::filesystem::path(o.output).extension().string());
    const std::string leftovers[] = {format.pass_log,
                                     format.pass_log + ".temp",
                                     format.pass_log + ".mbtree",
                                     format.pass_log + ".mbtree.temp",
                                     format.pass_log + ".cutree",
                                     format.pass_log + ".cutree.temp",
                                     firstOutput};
    format.pass = 1;
    int status = runJob(o, plan, movie, format, firstOutput, end);
    if (status == kExitOk) {
      format.pass = 2;
      status = runJob(o, plan, movie, format, o.output, end);
    }
    std::error_code ec;
    for (const std::string& path : leftovers)
      std::filesystem::remove(path, ec);
    if (status != kExitOk)
      return status;
  } else if (const int status = runJob(o, plan, movie, format, o.output, end); status != kExitOk) {
    return status;
  }
  if (keptMode)
    chmod(o.output.c_str(), *keptMode);
  return kExitOk;
}

int run(const ConvertOptions& o) {
  // SVT-AV1 prints a banner and its settings on stderr unless told not to;
  // ours carries progress and errors only. A user's own choice stays.
  setenv("SVT_LOG", "1", 0);
  VNFFMovieFileOutputFormat format;
  movieFileOutputFormatToDefaults(&format);
  AVRational fps{0, 1};
  std::optional<mode_t> keptMode;
  if (const int status = checkOptions(o, &format, &fps, &keptMode); status != kExitOk)
    return status;
  const ContainerDefaults defaults = containerDefaults(o.output);
  // A GIF at a film's rate is several times bigger and its delays, in
  // hundredths of a second, cannot keep 24 or 30 frames a second.
  if (defaults.picturesOnly && fps.num == 0)
    fps = AVRational{kGifFrameRate, 1};

  Input input;
  input.title = o.title;
  input.videoTrack = o.videoTrack;
  if (const int status = input.openWithTracks(o.input, "all", false); status != kExitOk)
    return status;
  Plan plan;
  plan.writesVideo = !o.noVideo && !defaults.soundOnly && input.movie->hasVideo();
  plan.writesAudio = !o.noAudio && !defaults.picturesOnly;
  if (const int status = chooseTracks(o, input, &plan); status != kExitOk)
    return status;
  if (!plan.writesVideo)
    input.movie->setDisableVideo(true);
  else if (const int status = setUpPictures(o, input, fps, &format, &plan.pictures);
           status != kExitOk)
    return status;
  applyAudioOptions(o, input, &format);
  // Mixed tracks are averaged: together they never go past full scale.
  input.movie->audioEffectStream().setAveragesTracks(true);
  double end = 0;
  if (const int status = findEnd(o, input, &end); status != kExitOk)
    return status;
  return writeOutput(o, plan, input.movie, format, end, keptMode);
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
                    "h264 hevc vp8 vp9 av1 mpeg4 mpeg2 mpeg1 theora animation prores gif, or copy "
                    "(default: the extension's, e.g. .mp4 h264, .webm vp9)");
    sub->add_option("--acodec", o->acodec,
                    "aac mp3 opus vorbis flac alac ac3 pcm mp2 wma, or copy (default: the "
                    "extension's, e.g. .mp4 aac, .webm opus)");
    sub->add_option("--size", o->size, "Output picture size WxH (default: the input's)");
    sub->add_option("--fps", o->fps,
                    "Output frame rate N or N/D (default: the input's exact rate)");
    sub->add_option("--crf", o->crf,
                    "Constant video quality, lower is better (default: h264 23, hevc 28, vp9 31, "
                    "av1 35, vp8 10, mpeg4/mpeg2/mpeg1 quantiser 10, theora 7 of 10)");
    sub->add_option("--preset", o->preset,
                    "Encoder speed: ultrafast superfast veryfast faster fast medium slow slower "
                    "veryslow (default: the encoder's; h264 fast)");
    sub->add_option("--vbitrate", o->vbitrate,
                    "Video bit rate instead of constant quality, bits/s: 2M, 800k, 1500000");
    sub->add_option("--abitrate", o->abitrate,
                    "Audio bit rate, bits/s: 128k, 192000 (default 64k a channel)");
    sub->add_option("--keyint", o->keyint,
                    "Pictures from one keyframe to the next (default: the encoder's own; x264 "
                    "250)");
    sub->add_flag("--two-pass", o->twoPass,
                  "Encode the video twice to spend --vbitrate where it is needed");
    sub->add_option("--sample-rate", o->sampleRate,
                    "Audio sample rate, Hz (default: the input's, moved to one the codec takes)");
    sub->add_option("--channels", o->channels,
                    "Audio channels (default: the input's, at most what the codec takes)");
    sub->add_flag("-y,--overwrite", o->overwrite,
                  "Replace an existing output, a read-only one too");
    sub->add_flag("-n,--no-overwrite", o->noOverwrite, "Refuse to replace an existing output");
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
    sub->add_option("--progress", o->progress,
                    "Progress on stderr: 'json' lines, or 'line' even when it is not a terminal")
        ->check(CLI::IsMember({"json", "line"}));
    o->picture.addTo(sub);
    o->subtitles.addTo(sub);
    sub->callback([o, &run_] { run_ = [o] { return run(*o); }; });
  };
}

}  // namespace varnel_cli
