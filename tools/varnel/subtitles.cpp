#include "subtitles.h"

#include <iconv.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "picture.h"

namespace varnel_cli {
namespace {

// Outlines and shadows wider than this are not readability any more.
constexpr double kMaxDecoration = 100;

const std::map<std::string, vn::FilterImage::Color> kColorNames = {
    {"white", {1, 1, 1, 1}},
    {"black", {0, 0, 0, 1}},
    {"yellow", {1, 1, 0, 1}},
};

// Sizes of the style options are pixels of a picture this many lines high.
constexpr double kStyleLines = 1080;
// A day either way is more than any film needs.
constexpr double kMaxDelay = 86400;

// A number and nothing after it.
bool parseNumber(const std::string& text, double* value) {
  char end = 0;
  return std::sscanf(text.c_str(), "%lf%c", value, &end) == 1 && std::isfinite(*value);
}

bool parseColor(const std::string& text, vn::FilterImage::Color* color) {
  if (auto it = kColorNames.find(text); it != kColorNames.end()) {
    *color = it->second;
    return true;
  }
  if ((text.size() != 7 && text.size() != 9) || text[0] != '#' ||
      text.find_first_not_of("0123456789abcdefABCDEF", 1) != std::string::npos)
    return false;
  double parts[4] = {0, 0, 0, 1};
  for (size_t i = 0; i < (text.size() - 1) / 2; ++i)
    parts[i] = std::stoi(text.substr(1 + 2 * i, 2), nullptr, 16) / 255.0;
  *color = {parts[0], parts[1], parts[2], parts[3]};
  return true;
}

// "Family [Bold] [Italic] [size]": the family's words, the weight and slant
// words, and a size in pixels of a 1080-line picture.
bool parseFont(const std::string& text, vn::SubtitleStyle* style) {
  std::vector<std::string> words;
  size_t at = 0;
  while ((at = text.find_first_not_of(" \t", at)) != std::string::npos) {
    const size_t end = std::min(text.find_first_of(" \t", at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end;
  }
  double size = 0;
  if (!words.empty() && parseNumber(words.back(), &size)) {
    if (!(size > 0 && size <= kStyleLines))
      return false;
    style->size = size / kStyleLines;
    words.pop_back();
  }
  std::string family;
  for (const std::string& word : words) {
    if (word == "Bold") {
      style->bold = true;
    } else if (word == "Italic" || word == "Oblique") {
      style->italic = true;
    } else {
      family += (family.empty() ? "" : " ") + word;
    }
  }
  if (!family.empty())
    style->font = family;
  return style->font || style->size;
}

bool parseTrack(const std::string& text, uint32_t* track) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 9)
    return false;
  *track = static_cast<uint32_t>(std::stoul(text));
  return true;
}

bool iconvKnows(const std::string& charset) {
  const iconv_t converter = iconv_open("UTF-8", charset.c_str());
  if (converter == reinterpret_cast<iconv_t>(-1))
    return false;
  iconv_close(converter);
  return true;
}

bool isBitmap(const AVStream* stream) {
  const AVCodecDescriptor* descriptor = avcodec_descriptor_get(stream->codecpar->codec_id);
  return descriptor && (descriptor->props & AV_CODEC_PROP_BITMAP_SUB);
}

// Shows a bitmap track through the picture media: it opens the stream
// beside its video and decodes it while reading pictures. The selection key
// is the stream's place among the media's open subtitle streams.
// On a disc, track N is subpicture stream N of the title set (the stream
// id's low bits), found in the container streams of the title's first piece.
// *count: how many subpicture streams the title set lists.
std::optional<uint32_t> dvdSubpictureIndex(Input& input, uint32_t track, uint32_t* count) {
  auto title = std::dynamic_pointer_cast<VNDVDSource>(input.source);
  *count = title ? static_cast<uint32_t>(title->title_set()->subtitleLanguages.size()) : 0;
  const AVFormatContext* context = input.formatContext();
  for (uint32_t i = 0; context && track < *count && i < context->nb_streams; ++i) {
    const AVStream* stream = context->streams[i];
    if (stream->codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE &&
        (static_cast<uint32_t>(stream->id) & 15) == track)
      return i;
  }
  return std::nullopt;
}

bool showBitmapTrack(Input& input, uint32_t index) {
  VNFFMovie& movie = *input.movie;
  std::optional<uint32_t> key;
  for (const std::shared_ptr<VNFFMedia>& media : movie.videos()) {
    std::optional<VNIndexSet> streams = media->selectStreams();
    if (streams)
      streams->insert(index);
    media->setSelectStreams(std::move(streams));
    media->updateSelectStreams();
    uint32_t ordinal = 0;
    for (const auto& stream : media->streams()) {
      if (!stream->isOpen() || !stream->isSubtitle())
        continue;
      // On a disc the key is the subpicture stream's own number.
      if (static_cast<uint32_t>(stream->stream()->index) == index)
        key = input.disc ? static_cast<uint32_t>(stream->stream()->id) & 15 : ordinal;
      ++ordinal;
    }
  }
  if (!key)
    return false;
  movie.setSelectSubtitleStreams(VNIndexSet{*key});
  return true;
}

}  // namespace

void SubtitleOptions::addTo(CLI::App* command) {
  command
      ->add_option("--subtitles", file,
                   "A subtitle file (SRT, ASS/SSA, WebVTT...) drawn over the picture")
      ->type_name("FILE");
  command
      ->add_option("--subtitle-track", track,
                   "Show the input's own subtitle track N (text or bitmap), counted from 0 "
                   "among its subtitle streams in the order 'varnel info' lists them")
      ->type_name("N");
  command
      ->add_option("--subtitle-charset", charset,
                   "Charset of a text subtitle, e.g. WINDOWS-1252 (default: UTF-8, UTF-16 "
                   "with a byte-order mark, else detected)")
      ->type_name("NAME");
  command
      ->add_option("--subtitle-font", font,
                   "Font of plain-text subtitles: a family and a size, such as \"Sans 48\" "
                   "(pixels of a 1080-line picture, scaled with the output)")
      ->type_name("DESC");
  command
      ->add_option("--subtitle-color", color,
                   "Subtitle colour: #rrggbb, #rrggbbaa, white, black or yellow")
      ->type_name("COLOR");
  command
      ->add_option("--subtitle-position", position,
                   "Height of the subtitle's bottom edge above the frame's, a fraction of "
                   "the frame's height, 0 <= F < 1")
      ->type_name("F");
  command
      ->add_option("--subtitle-outline", outline,
                   "Width of the dark outline around plain-text subtitles, pixels of a "
                   "1080-line picture (default: the style's own; 0: none)")
      ->type_name("PX");
  command
      ->add_option("--subtitle-shadow", shadow,
                   "Offset of the shadow of plain-text subtitles, pixels of a 1080-line "
                   "picture (default: the style's own; 0: none)")
      ->type_name("PX");
  command
      ->add_option("--subtitle-delay", delay,
                   "Show the subtitles this many seconds later (negative: earlier)")
      ->type_name("SECONDS");
}

int SubtitleOptions::apply(Input& input) const {
  VNFFMovie& movie = *input.movie;
  // Every value is checked before anything is opened.
  if (file && track) {
    return usage("bad --subtitle-track", *track,
                 "--subtitles and --subtitle-track cannot be used together");
  }
  uint32_t trackNumber = 0;
  if (track && !parseTrack(*track, &trackNumber))
    return usage("bad --subtitle-track", *track, "expected a track number from 0");
  if (charset && !iconvKnows(*charset))
    return usage("bad --subtitle-charset", *charset, "not a charset iconv knows");
  vn::FilterImage::Color fill;
  if (color && !parseColor(*color, &fill))
    return usage("bad --subtitle-color", *color, "use #rrggbb, #rrggbbaa, white, black or yellow");
  double height = 0;
  if (position && !(parseNumber(*position, &height) && height >= 0 && height < 1))
    return usage("bad --subtitle-position", *position, "expected a fraction 0 <= F < 1");
  double outlineWidth = 0, shadowOffset = 0, delaySeconds = 0;
  if (outline && !(parseNumber(*outline, &outlineWidth) && outlineWidth >= 0 &&
                   outlineWidth <= kMaxDecoration))
    return usage("bad --subtitle-outline", *outline, "expected 0 to 100 pixels");
  if (shadow &&
      !(parseNumber(*shadow, &shadowOffset) && shadowOffset >= 0 && shadowOffset <= kMaxDecoration))
    return usage("bad --subtitle-shadow", *shadow, "expected 0 to 100 pixels");
  if (delay && !(parseNumber(*delay, &delaySeconds) && std::fabs(delaySeconds) <= kMaxDelay))
    return usage("bad --subtitle-delay", *delay, "expected seconds, -86400 to 86400");
  vn::SubtitleStyle style;
  if (font && !parseFont(*font, &style))
    return usage("bad --subtitle-font", *font, "expected a family and a size such as \"Sans 48\"");

  // The input's own subtitles are shown only when asked for.
  movie.setSelectSubtitleStreams(VNIndexSet{});
  if (file) {
    if (const std::string reason = unreadableFile(*file); !reason.empty())
      return fail("cannot open subtitles", *file, reason);
    if (!movie.openSubtitle(*file, std::nullopt, charset))
      return fail("cannot read subtitles", *file, "no subtitle stream FFmpeg can decode");
  } else if (track) {
    const std::string path = input.source->path();
    const AVFormatContext* context = input.formatContext();
    uint32_t count = 0;
    const std::optional<uint32_t> index =
        input.disc ? dvdSubpictureIndex(input, trackNumber, &count)
                   : VNFFMedia::subtitleStreamIndex(context, trackNumber, &count);
    if (!index) {
      return usage("bad --subtitle-track", *track,
                   count == 0
                       ? "the input has no subtitle track"
                       : "the input's subtitle tracks are 0 to " + std::to_string(count - 1));
    }
    // A bitmap is laid over the picture it belongs to; a text is drawn as
    // a subtitle file's would be.
    const bool shown = isBitmap(context->streams[*index])
                           ? showBitmapTrack(input, *index)
                           : movie.openSubtitle(path, trackNumber, charset);
    if (!shown)
      return fail("cannot read subtitles", path, "track " + *track + " cannot be decoded");
  }

  // Text subtitles are drawn as their scripts style them; the options
  // change a plain text's default style, sizes scaled from 1080 lines.
  movie.setStyledSubtitles(true);
  if (color)
    style.color = fill;
  if (position)
    style.position = height;
  if (outline)
    style.outline = outlineWidth / kStyleLines;
  if (shadow)
    style.shadow = shadowOffset / kStyleLines;
  if (font || color || position || outline || shadow)
    movie.setSubtitleStyle(style);
  movie.setSubtitleDelay(std::llround(delaySeconds * 1e6));
  return kExitOk;
}

}  // namespace varnel_cli
