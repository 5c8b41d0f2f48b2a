// The picture settings that convert, frame and thumbnail share:
//
//   --crop X,Y,W,H   part of the source picture kept, in its pixels, from its
//                    top-left corner
//   --rotate DEG     counter-clockwise; a phone video's own rotation when not
//                    given
//   --hflip --vflip
//   --saturation --brightness --contrast --hue   0..1 (neutral 0.5 0.5 0.25 0.5)
//   --effect NAME    an effect preset (varnel effects lists them)
//   --watermark FILE a picture laid over the output, at its own size, in the
//                    bottom-left corner
//   --zoom stretch|fit|16:9|4:3|panscan|N   placement in the output frame
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli.h"
#include "input.h"

namespace varnel_cli {

// Sizes on the command line: "WxH" with both sides positive and at most
// the largest picture the library makes.
bool parsePictureSize(const std::string& text, int* width, int* height);

// How a video asks to be shown (its display matrix): mirrored left to right
// first when `mirrored`, then turned `degrees` counter-clockwise.
struct DisplayTurn {
  double degrees = 0;
  bool mirrored = false;
};

struct PictureOptions {
  std::string crop;
  std::optional<double> rotate;
  bool hflip = false;
  bool vflip = false;
  std::optional<double> saturation;
  std::optional<double> brightness;
  std::optional<double> contrast;
  std::optional<double> hue;
  std::string effect;
  std::string watermark;
  std::string zoom;

  // Adds the options to a command.
  void addTo(CLI::App* command);
  // The turn and mirror shown: --rotate's turn, else the video's own.
  DisplayTurn turn(Input& input) const;
  // Whether any setting changes the picture (the rotation a video carries
  // counts).
  bool changesPicture(Input& input) const;
  // Checks every value against the input and sets the movie's picture
  // settings: kExitOk, or the exit status once the error line is printed.
  int apply(Input& input) const;
};

// Opens path to take pictures from, as frame and thumbnail do, its sound
// tracks left out: kExitOk with the input open, its video found and its
// extent measured (a file cut short is warned of), or the exit status once
// the error line is printed.
int openForPictures(Input& input, const std::string& path, Input::Extent* extent);
// Checks a time given with option (-t, --start) against where the input can
// be read: kExitOk, or once the error line is printed kExitUsage (not a time
// from the start, or past the end) or kExitFailed (inside a file that is cut
// short before it).
int checkTime(const std::string& option,
              double seconds,
              const Input::Extent& extent,
              const std::string& text,
              const std::string& path);
// A number as the user would write it: 2.5, not 2.500000.
std::string numberText(double value);
// Writes a finite picture to OUT (.png, .jpg or .jpeg): kExitOk, or the exit
// status once the error line is printed; nothing is left behind on failure.
int writePicture(const vn::FilterImage& picture, const std::string& output);
// Whether OUT names a picture file the commands write.
bool isPictureName(const std::string& output);

// Whether a display matrix mirrors the picture (a negative determinant).
bool mirrorsPicture(const int32_t* matrix);
// The turn and mirror of the video's display matrix; none without one.
DisplayTurn displayTurn(Input& input);

}  // namespace varnel_cli
