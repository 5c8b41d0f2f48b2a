// StyledSubtitleRenderer: text subtitles drawn as their script styles them,
// on libass.
//
// A renderer holds one subtitle track: the script header (styles, the
// script's own resolution) and every dialogue event given so far, whole,
// with its start and duration. imageAtTime draws the events shown at a
// time into an output frame of a given size: sizes, margins and positions
// scale with the frame's height, long lines wrap inside it, fonts come from
// fontconfig (and from the fonts given to create), and a glyph missing from
// the chosen font is taken from another one that has it.
//
// The image is cached per distinct set of drawn pictures: while libass
// reports no change (same events, same frame size), the last image is
// returned again without being composed anew.
//
// Threads: any thread; one renderer's calls are serialised by its own lock.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "image/filter_image.h"

namespace vn {

// One dialogue event of a text subtitle track: the ASS event line as the
// decoder made it ("ReadOrder,Layer,Style,Name,MarginL,MarginR,MarginV,
// Effect,Text"), shown from start for duration milliseconds.
struct SubtitleEvent {
  int64_t start = 0;     // milliseconds on the track's clock
  int64_t duration = 0;  // milliseconds
  std::string line;
};

// A font file carried by the media (a Matroska attachment).
struct SubtitleFont {
  std::string name;
  std::vector<uint8_t> data;
};

// What an application changes in the styles of a plain-text subtitle (SRT,
// WebVTT), whose decoder gives it one default style. Sizes are fractions of
// the output frame's height, so the text keeps its proportions at every
// output size. None: the style's own value.
struct SubtitleStyle {
  std::optional<std::string> font;  // a font family ("DejaVu Sans")
  std::optional<double> size;       // the font size
  bool bold = false;
  bool italic = false;
  std::optional<FilterImage::Color> color;  // the text's colour
  std::optional<double> outline;            // the dark outline's width
  std::optional<double> shadow;             // the shadow's offset
  std::optional<double> position;           // the bottom line's height above the frame's bottom
};

// The events shown at one time, composed into one picture: straight-alpha
// sRGB RGBA rows, the top row first, with the top-left corner at (x, y) of
// the output frame (origin at the top left, y down). Shared and never
// changed once made: a new render makes new pixels, so the same pixels
// mean the same picture.
struct SubtitleRaster {
  std::shared_ptr<const std::vector<uint8_t>> rgba;  // width * 4 bytes a row
  int x = 0, y = 0, width = 0, height = 0;
};

class StyledSubtitleRenderer {
 public:
  // A renderer for a track with script header `header` (a decoder's ASS
  // header, or the script's own; empty: libass's defaults), the fonts the
  // media carries, and a style laid over every style of the script. Null
  // when libass cannot be set up.
  static std::shared_ptr<StyledSubtitleRenderer> create(std::string_view header,
                                                        const std::vector<SubtitleFont>& fonts,
                                                        const std::optional<SubtitleStyle>& style);
  ~StyledSubtitleRenderer();
  StyledSubtitleRenderer(const StyledSubtitleRenderer&) = delete;
  StyledSubtitleRenderer& operator=(const StyledSubtitleRenderer&) = delete;

  // Adds events. An event given again (the same times and fields, as a
  // track read again from its start gives them) is kept once; the read
  // order of each is the order in which it first came.
  void addEvents(const std::vector<SubtitleEvent>& events);
  // How many events the track holds.
  int eventCount() const;
  // The height of the script's own frame, which style sizes refer to.
  int playResY() const;

  // The events shown at `ms`, drawn for a frame of width x height output
  // pixels, as one image of straight-alpha sRGB pixels placed in the
  // frame's coordinates (origin at the bottom left, y up). None when
  // nothing is shown or the size is not positive.
  std::optional<FilterImage> imageAtTime(int64_t ms, int width, int height);
  // The same picture as raw pixels in the frame's own coordinates, cached
  // with the image.
  std::optional<SubtitleRaster> rasterAtTime(int64_t ms, int width, int height);
  // How many times an image was composed (not taken from the cache).
  int64_t renderCount() const;

 private:
  struct State;
  // Renders the events shown at ms into the cache unless libass reports
  // the same pictures; true when it composed anew. Under the lock.
  bool render(int64_t ms, int width, int height);
  explicit StyledSubtitleRenderer(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

// A colour as a script's style field writes it: "&HAABBGGRR", with ASS's
// alpha, 0 opaque and 255 transparent.
std::string assColor(const FilterImage::Color& color);
// Whether a media's attachment is a font file, by its MIME type or, when
// the type says nothing useful, its file name's extension.
bool isFontAttachment(const std::string& mimeType, const std::string& fileName);
// The style overrides ("Fontname=...", "Fontsize=...") that lay `style` over
// the styles of a script whose frame is playResY lines high.
std::vector<std::string> styleOverrides(const SubtitleStyle& style, int playResY);

}  // namespace vn
