// The subtitle settings that convert, frame and thumbnail share:
//
//   --subtitles FILE          a subtitle file (SRT, ASS/SSA, WebVTT: what
//                             FFmpeg reads) drawn over the picture
//   --subtitle-track N        one of the input's own subtitle tracks, counted
//                             from 0 among its subtitle streams in the order
//                             'varnel info' lists them; a text track is drawn
//                             as the file's text, a bitmap track (DVD, Blu-ray,
//                             DVB) laid over the picture as it is
//   --subtitle-charset NAME   the charset of a text subtitle (an iconv name);
//                             default: UTF-8, UTF-16 with a byte-order mark,
//                             else detected
//   --subtitle-font DESC      a font family and size, "Sans 48" or "DejaVu
//                             Serif Bold 40"; the size is in pixels of a
//                             1080-line picture and scales with the output
//   --subtitle-color C        #rrggbb, #rrggbbaa, white, black or yellow
//   --subtitle-position F     the text's bottom edge above the frame's bottom,
//                             a fraction of its height, 0 <= F < 1
//   --subtitle-outline PX     the dark outline's width, pixels of a 1080-line
//                             picture (0: none)
//   --subtitle-shadow PX      the shadow's offset, pixels of a 1080-line
//                             picture (0: none)
//   --subtitle-delay SECONDS  show the subtitles this much later (negative:
//                             earlier) than their own times
//
// Text subtitles are drawn by the library's styled renderer (libass): an
// ASS/SSA script keeps its own styles, and the font, colour, position,
// outline and shadow options change only the default style of a plain-text
// subtitle (SRT, WebVTT, mov_text). Unset, that style is the decoder's,
// sized to the picture's height.
//
// Without --subtitles or --subtitle-track no subtitle is shown, not even
// the input's own.
#pragma once

#include <optional>
#include <string>

#include "cli.h"
#include "input.h"

namespace varnel_cli {

struct SubtitleOptions {
  // As given: the values are checked by apply, so that a bad one is one
  // error line.
  std::optional<std::string> file;
  std::optional<std::string> track;
  std::optional<std::string> charset;
  std::optional<std::string> font;
  std::optional<std::string> color;
  std::optional<std::string> position;
  std::optional<std::string> outline;
  std::optional<std::string> shadow;
  std::optional<std::string> delay;

  // Adds the options to a command.
  void addTo(CLI::App* command);
  // Whether a subtitle is to be shown over the picture.
  bool shows() const { return file || track; }
  // Checks every value, opens the subtitle asked for and sets the movie's
  // subtitle settings: kExitOk, or the exit status once the error line is
  // printed (2 for a bad value or a track the input does not have, 1 for a
  // subtitle that cannot be read).
  int apply(Input& input) const;
};

}  // namespace varnel_cli
