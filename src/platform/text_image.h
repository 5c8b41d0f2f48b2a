// vn::textImage: one line of text drawn with Pango and Cairo into a
// transparent picture, for labels and captions laid over other pictures.
#pragma once

#include <string>

#include "platform/filter_image.h"

namespace vn {

// The text (UTF-8; invalid bytes are shown as replacement characters) laid
// out on one line in fontDescription, a Pango font description such as
// "Sans 14" or "DejaVu Serif Bold 20" (sizes in points, one point being one
// pixel; an unknown family falls back to the default sans), filled with
// color (straight alpha) on transparent black. Line breaks do not start a
// new line. The image is as wide as the line's advance and as tall as its
// line height, grown to hold any ink beyond them, and lies with its
// bottom-left corner at (0, 0). An empty image for empty text, or a line
// wider or taller than kMaxImageSide. Any thread.
FilterImage textImage(const std::string& text,
                      const std::string& fontDescription,
                      const FilterImage::Color& color);

}  // namespace vn
