// PictureSettings: everything the user chooses about a composed picture, as
// one value.
//
// The video effect stream holds one and hands out copies: a composition
// takes a single copy when it starts and uses only that, so settings changed
// together (a crop and a rotation) are seen together or not at all.
//
// Coordinates are those of the filter image: origin at the bottom left, y
// up, pixels (the crop in source pixels, the rest in output pixels). The
// defaults are the neutral settings.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/formats.h"
#include "image/filter_image.h"
#include "image/rect.h"

struct PictureSettings {
  vn::Rect cropRect;  // the part of the source shown; empty: nothing
  bool hflip = false;
  bool vflip = false;
  float rotate = 0;  // degrees
  // Colour controls, 0..1 each; the values here change nothing.
  float saturation = 0.5f;
  float brightness = 0.5f;
  float contrast = 0.25f;
  float hue = 0.5f;
  std::optional<std::string> effectName;     // an effect preset; none: no preset
  std::optional<vn::FilterImage> watermark;  // drawn over the picture
  int32_t zoomType = 5;                      // placement in the output frame (fit, centred)
  // The text subtitle: a Pango font description and a colour (none: the
  // defaults), its bottom as a fraction of the frame's height, and a dark
  // outline and shadow in output pixels (0: none).
  std::optional<std::string> subtitleFont;
  std::optional<vn::FilterImage::Color> subtitleColor;
  float subtitlePosition = 0;
  float subtitleOutlineWidth = 0;
  float subtitleShadowOffset = 0;
  // The output pixel format and the size of the output frame.
  VNFFVideoFormat outputFormat;
};
