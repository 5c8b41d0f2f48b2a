#include "platform/text_image.h"

#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace vn {
namespace {

struct CairoSurfaceFree {
  void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
};
struct CairoFree {
  void operator()(cairo_t* c) const { cairo_destroy(c); }
};
struct GObjectFree {
  void operator()(void* o) const { g_object_unref(o); }
};
struct FontDescriptionFree {
  void operator()(PangoFontDescription* d) const { pango_font_description_free(d); }
};
struct GFree {
  void operator()(gchar* p) const { g_free(p); }
};

using Surface = std::unique_ptr<cairo_surface_t, CairoSurfaceFree>;
using Cairo = std::unique_ptr<cairo_t, CairoFree>;
using Layout = std::unique_ptr<PangoLayout, GObjectFree>;

FilterImage emptyImage() {
  return FilterImage::withColor({0, 0, 0, 0}).cropped(Rect{});
}

// One point is one pixel.
constexpr double kPixelsPerInch = 72;

}  // namespace

FilterImage textImage(const std::string& text,
                      const std::string& fontDescription,
                      const FilterImage::Color& color) {
  if (text.empty())
    return emptyImage();
  // Older Pango and fontconfig builds are not safe to start from several
  // threads at once; labels are small, so one at a time costs little.
  static std::mutex lock;
  std::lock_guard<std::mutex> hold(lock);

  const std::unique_ptr<gchar, GFree> valid(
      g_utf8_make_valid(text.c_str(), static_cast<gssize>(text.size())));
  // The layout is measured on a scratch surface, then drawn on one of its
  // size; both have the identity transform, so the metrics do not change.
  const Surface scratch(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1));
  const Cairo measuring(cairo_create(scratch.get()));
  const Layout layout(pango_cairo_create_layout(measuring.get()));
  if (!layout)
    return emptyImage();
  pango_cairo_context_set_resolution(pango_layout_get_context(layout.get()), kPixelsPerInch);
  pango_layout_context_changed(layout.get());
  const std::unique_ptr<PangoFontDescription, FontDescriptionFree> font(
      pango_font_description_from_string(fontDescription.c_str()));
  pango_layout_set_font_description(layout.get(), font.get());
  pango_layout_set_single_paragraph_mode(layout.get(), TRUE);
  pango_layout_set_text(layout.get(), valid.get(), -1);

  PangoRectangle ink{}, logical{};
  pango_layout_get_pixel_extents(layout.get(), &ink, &logical);
  const int left = std::min(ink.x, logical.x), top = std::min(ink.y, logical.y);
  const int right = std::max(ink.x + ink.width, logical.x + logical.width);
  const int bottom = std::max(ink.y + ink.height, logical.y + logical.height);
  const int width = right - left, height = bottom - top;
  if (width <= 0 || height <= 0 || width > kMaxImageSide || height > kMaxImageSide)
    return emptyImage();

  const Surface surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
  const Cairo cr(cairo_create(surface.get()));
  if (cairo_status(cr.get()) != CAIRO_STATUS_SUCCESS)
    return emptyImage();
  pango_cairo_update_layout(cr.get(), layout.get());
  cairo_set_source_rgba(cr.get(), color.red, color.green, color.blue, color.alpha);
  cairo_move_to(cr.get(), -left, -top);
  pango_cairo_show_layout(cr.get(), layout.get());
  cairo_surface_flush(surface.get());

  // Cairo keeps premultiplied pixels in native-endian 32-bit words
  // (0xAARRGGBB); the image layer takes straight-alpha bytes.
  const uint8_t* data = cairo_image_surface_get_data(surface.get());
  const int stride = cairo_image_surface_get_stride(surface.get());
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
  std::optional<FilterImage> image =
      FilterImage::fromRaster(rgba.data(), width, height, width * 4, FilterImage::ByteOrder::RGBA);
  return image ? *image : emptyImage();
}

}  // namespace vn
