#include "text/text_image.h"

#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "base/ref_ptr.h"
#include "core/log.h"

namespace vn {
namespace {

struct CairoSurfaceRefs {
  static void ref(cairo_surface_t* s) { cairo_surface_reference(s); }
  static void unref(cairo_surface_t* s) { cairo_surface_destroy(s); }
};
struct CairoRefs {
  static void ref(cairo_t* c) { cairo_reference(c); }
  static void unref(cairo_t* c) { cairo_destroy(c); }
};
struct GObjectRefs {
  static void ref(void* o) { g_object_ref(o); }
  static void unref(void* o) { g_object_unref(o); }
};
struct FontDescriptionFree {
  void operator()(PangoFontDescription* d) const { pango_font_description_free(d); }
};
struct GFree {
  void operator()(gchar* p) const { g_free(p); }
};

using Surface = RefPtr<cairo_surface_t, CairoSurfaceRefs>;
using Cairo = RefPtr<cairo_t, CairoRefs>;
using Layout = RefPtr<PangoLayout, GObjectRefs>;

FilterImage emptyImage() {
  return FilterImage::withColor({0, 0, 0, 0}).cropped(Rect{});
}

// One point is one pixel.
constexpr double kPixelsPerInch = 72;

// Older Pango and fontconfig builds are not safe to start from several
// threads at once; texts are small and drawn rarely, so one at a time costs
// little.
std::mutex& textLock() {
  static std::mutex lock;
  return lock;
}

// A layout of text in font, measured on a scratch surface of its own. The
// pictures it is drawn on later have the same identity transform, so the
// metrics do not change. Null when Pango cannot make one. Under textLock.
Layout newLayout(const std::string& text, const std::string& fontDescription) {
  const Surface scratch = Surface::adopt(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1));
  const Cairo measuring = Cairo::adopt(cairo_create(scratch.get()));
  Layout layout = Layout::adopt(pango_cairo_create_layout(measuring.get()));
  if (!layout) {
    logFailure("pango_cairo_create_layout", "no layout");
    return layout;
  }
  pango_cairo_context_set_resolution(pango_layout_get_context(layout.get()), kPixelsPerInch);
  pango_layout_context_changed(layout.get());
  const std::unique_ptr<PangoFontDescription, FontDescriptionFree> font(
      pango_font_description_from_string(fontDescription.c_str()));
  pango_layout_set_font_description(layout.get(), font.get());
  const std::unique_ptr<gchar, GFree> valid(
      g_utf8_make_valid(text.c_str(), static_cast<gssize>(text.size())));
  pango_layout_set_text(layout.get(), valid.get(), -1);
  return layout;
}

// A transparent surface of the given size with a drawing context on it;
// null when either cannot be made.
struct Canvas {
  Surface surface;
  Cairo cr;
};
std::optional<Canvas> newCanvas(int width, int height) {
  Canvas canvas{Surface::adopt(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height)), {}};
  if (const cairo_status_t status = cairo_surface_status(canvas.surface.get());
      status != CAIRO_STATUS_SUCCESS) {
    logFailure("cairo_image_surface_create", cairo_status_to_string(status));
    return std::nullopt;
  }
  canvas.cr = Cairo::adopt(cairo_create(canvas.surface.get()));
  if (const cairo_status_t status = cairo_status(canvas.cr.get()); status != CAIRO_STATUS_SUCCESS) {
    logFailure("cairo_create", cairo_status_to_string(status));
    return std::nullopt;
  }
  return canvas;
}

// The surface's pixels as an image. Cairo keeps premultiplied pixels in
// native-endian 32-bit words (0xAARRGGBB); the image layer takes
// straight-alpha bytes.
std::optional<FilterImage> imageOf(cairo_surface_t* surface) {
  cairo_surface_flush(surface);
  const int width = cairo_image_surface_get_width(surface);
  const int height = cairo_image_surface_get_height(surface);
  const uint8_t* data = cairo_image_surface_get_data(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  std::vector<uint8_t> rgba(static_cast<size_t>(width) * height * 4);
  for (int y = 0; y < height; ++y) {
    const auto* in = reinterpret_cast<const uint32_t*>(data + static_cast<size_t>(y) * stride);
    uint8_t* out = rgba.data() + static_cast<size_t>(y) * width * 4;
    for (int x = 0; x < width; ++x, out += 4) {
      const uint32_t p = in[x];
      const int a = static_cast<int>(p >> 24);
      if (a == 0)
        continue;  // transparent black, as the buffer starts
      const auto straight = [a](uint32_t c) {
        return static_cast<uint8_t>(std::min(255, (static_cast<int>(c & 0xff) * 255 + a / 2) / a));
      };
      out[0] = straight(p >> 16);
      out[1] = straight(p >> 8);
      out[2] = straight(p);
      out[3] = static_cast<uint8_t>(a);
    }
  }
  return FilterImage::fromRaster(rgba.data(), width, height, width * 4,
                                 FilterImage::ByteOrder::RGBA);
}

// Pango units for a length in pixels, kept inside an int.
int pangoUnits(double pixels) {
  return static_cast<int>(std::clamp(pixels, 0.0, static_cast<double>(INT_MAX / PANGO_SCALE)) *
                          PANGO_SCALE);
}

// The text's layout in the box (see boundingRect); null for nothing to lay
// out. Under textLock.
Layout styledLayout(const StyledText& text, Size box) {
  if (text.text.empty() || !(box.width >= 1) || !(box.height >= 1))
    return {};
  Layout layout = newLayout(text.text, text.font);
  if (!layout)
    return layout;
  pango_layout_set_width(layout.get(), pangoUnits(box.width));
  pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
  pango_layout_set_alignment(layout.get(), text.alignment == StyledText::Alignment::kCentre
                                               ? PANGO_ALIGN_CENTER
                                               : PANGO_ALIGN_LEFT);
  // A height and an ellipsis together keep the lines that fit and end the
  // last of them with the ellipsis.
  pango_layout_set_height(layout.get(), pangoUnits(box.height));
  pango_layout_set_ellipsize(layout.get(), PANGO_ELLIPSIZE_END);
  return layout;
}

double nonNegative(double pixels) {
  return std::isfinite(pixels) ? std::max(0.0, pixels) : 0.0;
}

// The text's ink, outline and shadow included, and its lines' boxes.
Rect occupied(PangoLayout* layout, const StyledText& text) {
  PangoRectangle ink{}, logical{};
  pango_layout_get_pixel_extents(layout, &ink, &logical);
  const double outline = nonNegative(text.outlineWidth);
  const double shadow = nonNegative(text.shadowOffset);
  double left = std::min(ink.x, logical.x) - outline;
  double top = std::min(ink.y, logical.y) - outline;
  double right = std::max(ink.x + ink.width, logical.x + logical.width) + outline + shadow;
  double bottom = std::max(ink.y + ink.height, logical.y + logical.height) + outline + shadow;
  left = std::floor(left);
  top = std::floor(top);
  right = std::ceil(right);
  bottom = std::ceil(bottom);
  return Rect{left, top, right - left, bottom - top};
}

// Fills (and outlines) the layout with its top-left corner at (x, y).
void paint(cairo_t* cr,
           PangoLayout* layout,
           double x,
           double y,
           double outline,
           const FilterImage::Color& fill,
           const FilterImage::Color& edge) {
  if (outline > 0) {
    cairo_move_to(cr, x, y);
    pango_cairo_layout_path(cr, layout);
    cairo_set_line_width(cr, 2 * outline);  // half of the stroke lies outside
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_set_source_rgba(cr, edge.red, edge.green, edge.blue, edge.alpha);
    cairo_stroke(cr);
  }
  cairo_move_to(cr, x, y);
  cairo_set_source_rgba(cr, fill.red, fill.green, fill.blue, fill.alpha);
  pango_cairo_show_layout(cr, layout);
}

// How dark the shadow is, as a part of the text's opacity.
constexpr double kShadowOpacity = 0.6;

// Whether c is a Unicode White_Space character.
bool isWhiteSpace(gunichar c) {
  return (c >= 0x09 && c <= 0x0d) || c == 0x20 || c == 0x85 || c == 0xa0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200a) || c == 0x2028 || c == 0x2029 || c == 0x202f || c == 0x205f ||
         c == 0x3000;
}

}  // namespace

std::string trimmedText(const std::string& text) {
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  const char* first = begin;
  const char* last = end;
  while (first < last) {
    const gunichar c = g_utf8_get_char_validated(first, last - first);
    if (c == static_cast<gunichar>(-1) || c == static_cast<gunichar>(-2) || !isWhiteSpace(c))
      break;
    first = g_utf8_next_char(first);
  }
  while (last > first) {
    const char* previous = g_utf8_find_prev_char(first, last);
    if (!previous)
      previous = first;
    const gunichar c = g_utf8_get_char_validated(previous, last - previous);
    if (c == static_cast<gunichar>(-1) || c == static_cast<gunichar>(-2) || !isWhiteSpace(c))
      break;
    last = previous;
  }
  return std::string(first, last);
}

FilterImage textImage(const std::string& text,
                      const std::string& fontDescription,
                      const FilterImage::Color& color) {
  if (text.empty())
    return emptyImage();
  std::lock_guard<std::mutex> hold(textLock());
  const Layout layout = newLayout(text, fontDescription);
  if (!layout)
    return emptyImage();
  pango_layout_set_single_paragraph_mode(layout.get(), TRUE);
  const Rect box = occupied(layout.get(), StyledText{});
  if (box.width <= 0 || box.height <= 0 || box.width > kMaxImageSide || box.height > kMaxImageSide)
    return emptyImage();
  std::optional<Canvas> canvas =
      newCanvas(static_cast<int>(box.width), static_cast<int>(box.height));
  if (!canvas)
    return emptyImage();
  pango_cairo_update_layout(canvas->cr.get(), layout.get());
  paint(canvas->cr.get(), layout.get(), -box.x, -box.y, 0, color, color);
  std::optional<FilterImage> image = imageOf(canvas->surface.get());
  return image ? *image : emptyImage();
}

Rect boundingRect(const StyledText& text, Size box) {
  std::lock_guard<std::mutex> hold(textLock());
  const Layout layout = styledLayout(text, box);
  if (!layout || pango_layout_get_character_count(layout.get()) == 0)
    return Rect{};
  return occupied(layout.get(), text);
}

std::optional<FilterImage> drawStyledText(const StyledText& text, Size box, const Rect& part) {
  if (!(part.width >= 1 && part.height >= 1 && part.width <= kMaxImageSide &&
        part.height <= kMaxImageSide))
    return std::nullopt;
  std::lock_guard<std::mutex> hold(textLock());
  const Layout layout = styledLayout(text, box);
  if (!layout)
    return std::nullopt;
  std::optional<Canvas> canvas =
      newCanvas(static_cast<int>(part.width), static_cast<int>(part.height));
  if (!canvas)
    return std::nullopt;
  cairo_t* cr = canvas->cr.get();
  PangoLayout* lines = layout.get();
  pango_cairo_update_layout(cr, lines);
  const double outline = nonNegative(text.outlineWidth);
  const double shadow = nonNegative(text.shadowOffset);
  const FilterImage::Color dark{0, 0, 0, text.color.alpha};
  if (shadow > 0) {
    // The shadow is drawn whole first, so the text's own outline and fill
    // cover it without adding up where they overlap it.
    cairo_push_group(cr);
    paint(cr, lines, -part.x + shadow, -part.y + shadow, outline, dark, dark);
    cairo_pop_group_to_source(cr);
    cairo_paint_with_alpha(cr, kShadowOpacity);
  }
  paint(cr, lines, -part.x, -part.y, outline, text.color, dark);
  return imageOf(canvas->surface.get());
}

}  // namespace vn
