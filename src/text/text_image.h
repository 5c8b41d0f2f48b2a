// Text drawn with Pango and Cairo into transparent pictures, to be laid over
// other pictures: one-line labels (textImage) and styled, wrapped, aligned
// paragraphs such as subtitles (StyledText, boundingRect, drawStyledText).
//
// Sizes are in pixels, one point of a font description being one pixel.
// Any thread: the text stack is entered by one thread at a time.
#pragma once

#include <optional>
#include <string>

#include "image/filter_image.h"
#include "image/rect.h"

namespace vn {

// The text (UTF-8; invalid bytes are shown as replacement characters) laid
// out on one line in fontDescription, a Pango font description such as
// "Sans 14" or "DejaVu Serif Bold 20" (sizes in points, one point being one
// pixel; an unknown family falls back to the default sans), filled with
// color (straight alpha) on transparent black. Line breaks do not start a
// new line. The image is as wide as the line's advance and as tall as its
// line height, grown to hold any ink beyond them, and lies with its
// bottom-left corner at (0, 0). An empty image for empty text, or a line
// wider or taller than kMaxImageSide.
FilterImage textImage(const std::string& text,
                      const std::string& fontDescription,
                      const FilterImage::Color& color);

// Text with one style over the whole of it.
struct StyledText {
  enum class Alignment { kLeft, kCentre };

  std::string text;  // UTF-8; invalid bytes show as replacement characters
  std::string font;  // a Pango font description, as for textImage
  FilterImage::Color color;
  Alignment alignment = Alignment::kLeft;
  // Readability: a black outline this wide around the glyphs, and a
  // translucent black copy of the text (outline included) this far below
  // and to the right; pixels, 0 for none.
  double outlineWidth = 0;
  double shadowOffset = 0;

  bool operator==(const StyledText&) const = default;
};

// text without the white space and line breaks (Unicode White_Space) at
// its two ends; invalid UTF-8 is kept as it is.
std::string trimmedText(const std::string& text);

// The rectangle that the text occupies when laid out in a box of the given
// size: lines start at the box's top edge and are aligned across its width;
// a line wider than the box wraps between words (inside a word when one word
// is wider); line breaks in the text start new lines; lines that do not fit
// in the box's height are left out and the last one shown ends with an
// ellipsis (the first line is always shown). The rectangle holds the lines'
// boxes and every pixel of ink, outline and shadow, rounded out to whole
// pixels, in the box's coordinates: origin at its top left, y down. The zero
// rectangle for empty text or an empty box.
Rect boundingRect(const StyledText& text, Size box);

// The text laid out in box as boundingRect does, drawn on transparent black
// (straight alpha) and cut to `part` (a rectangle in the same coordinates,
// whole pixels). The image's top row is the part's top; it lies with its
// bottom-left corner at (0, 0). None for an empty part or one larger than
// kMaxImageSide, or when the picture cannot be made.
std::optional<FilterImage> drawStyledText(const StyledText& text, Size box, const Rect& part);

}  // namespace vn
