#include "text/styled_subtitles.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <set>
#include <tuple>

#include "core/log.h"
#include "text/ass_library.h"

namespace vn {
namespace {

// What libass made exists only once the library is loaded.
struct LibraryFree {
  void operator()(ASS_Library* library) const { AssLibrary::get()->library_done(library); }
};
struct RendererFree {
  void operator()(ASS_Renderer* renderer) const { AssLibrary::get()->renderer_done(renderer); }
};
struct TrackFree {
  void operator()(ASS_Track* track) const { AssLibrary::get()->free_track(track); }
};

// libass's messages at level 0 (fatal) to 1 (errors) reach the log; the rest
// (font selection, every glyph fallback) would drown it.
void logMessage(int level, const char* format, va_list args, void*) {
  if (level > 1)
    return;
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  vn_log("libass: %s", text);
}

}  // namespace

struct StyledSubtitleRenderer::State {
  const AssLibrary* ass = nullptr;  // loaded before anything below is made
  // Freed in the reverse order: track and renderer before the library.
  std::unique_ptr<ASS_Library, LibraryFree> library;
  std::unique_ptr<ASS_Renderer, RendererFree> renderer;
  std::unique_ptr<ASS_Track, TrackFree> track;
  // The overrides as libass reads them (a null-terminated list of C texts).
  std::vector<std::string> overrides;
  // Every event given so far: start, duration and the line after its read
  // order.
  std::set<std::tuple<int64_t, int64_t, std::string>> seen;

  mutable std::mutex lock;
  int width = 0, height = 0;               // the frame size the renderer was last given
  bool drawn = false;                      // cached holds the picture of the last render
  std::optional<SubtitleRaster> cached;    // the last picture composed
  std::optional<FilterImage> cachedImage;  // it as an image, made when first asked for
  int64_t renders = 0;
};

StyledSubtitleRenderer::StyledSubtitleRenderer(std::unique_ptr<State> state)
    : state_(std::move(state)) {}

StyledSubtitleRenderer::~StyledSubtitleRenderer() = default;

std::shared_ptr<StyledSubtitleRenderer> StyledSubtitleRenderer::create(
    std::string_view header,
    const std::vector<SubtitleFont>& fonts,
    const std::optional<SubtitleStyle>& style) {
  std::string why;
  const AssLibrary* ass = AssLibrary::get(&why);
  if (!ass) {
    logFailure("StyledSubtitleRenderer", why);
    return nullptr;
  }
  auto state = std::make_unique<State>();
  state->ass = ass;
  state->library.reset(ass->library_init());
  if (!state->library)
    return nullptr;
  ASS_Library* library = state->library.get();
  ass->set_message_cb(library, logMessage, nullptr);
  ass->set_extract_fonts(library, 1);
  for (const SubtitleFont& font : fonts) {
    if (font.data.empty() || font.data.size() > INT_MAX)
      continue;
    ass->add_font(library, font.name.c_str(), reinterpret_cast<const char*>(font.data.data()),
                  static_cast<int>(font.data.size()));
  }
  state->renderer.reset(ass->renderer_init(library));
  if (!state->renderer)
    return nullptr;
  // Fonts through fontconfig, the media's own fonts beside them; a glyph
  // the chosen font lacks is looked up in the others.
  ass->set_fonts(state->renderer.get(), nullptr, nullptr, ASS_FONTPROVIDER_AUTODETECT, nullptr, 1);
  state->track.reset(ass->new_track(library));
  if (!state->track)
    return nullptr;
  if (!header.empty() && header.size() < INT_MAX) {
    std::string text(header);
    ass->process_codec_private(state->track.get(), text.data(), static_cast<int>(text.size()));
  }
  const std::vector<std::string> overrides =
      style ? styleOverrides(*style, state->track->PlayResY) : std::vector<std::string>{};
  if (!overrides.empty()) {
    state->overrides = overrides;
    std::vector<char*> list;
    for (std::string& item : state->overrides)
      list.push_back(item.data());
    list.push_back(nullptr);
    ass->set_style_overrides(library, list.data());
    ass->process_force_style(state->track.get());
  }
  return std::shared_ptr<StyledSubtitleRenderer>(new StyledSubtitleRenderer(std::move(state)));
}

void StyledSubtitleRenderer::addEvents(const std::vector<SubtitleEvent>& events) {
  std::lock_guard<std::mutex> guard(state_->lock);
  for (const SubtitleEvent& event : events) {
    // The read order (the first field) is the decoder's count, which starts
    // again when the track is read again: the event is known by the rest.
    const size_t comma = event.line.find(',');
    if (comma == std::string::npos || event.line.size() >= INT_MAX / 2)
      continue;
    if (!state_->seen.insert({event.start, event.duration, event.line.substr(comma)}).second)
      continue;
    std::string line = std::to_string(state_->seen.size()) + event.line.substr(comma);
    state_->ass->process_chunk(state_->track.get(), line.data(), static_cast<int>(line.size()),
                               event.start, event.duration);
  }
}

int StyledSubtitleRenderer::eventCount() const {
  std::lock_guard<std::mutex> guard(state_->lock);
  return state_->track->n_events;
}

int StyledSubtitleRenderer::playResY() const {
  std::lock_guard<std::mutex> guard(state_->lock);
  return state_->track->PlayResY;
}

int64_t StyledSubtitleRenderer::renderCount() const {
  std::lock_guard<std::mutex> guard(state_->lock);
  return state_->renders;
}

namespace {

// The pictures of one render composed over each other into one straight-
// alpha RGBA raster of their bounding box, placed in the frame.
std::optional<SubtitleRaster> compose(const ASS_Image* images) {
  int left = INT_MAX, top = INT_MAX, right = INT_MIN, bottom = INT_MIN;
  for (const ASS_Image* image = images; image; image = image->next) {
    if (image->w <= 0 || image->h <= 0)
      continue;
    left = std::min(left, image->dst_x);
    top = std::min(top, image->dst_y);
    right = std::max(right, image->dst_x + image->w);
    bottom = std::max(bottom, image->dst_y + image->h);
  }
  if (left >= right || top >= bottom)
    return std::nullopt;
  const int w = right - left, h = bottom - top;
  // Premultiplied while the pictures are laid over each other.
  std::vector<float> sum(static_cast<size_t>(w) * h * 4, 0.0f);
  for (const ASS_Image* image = images; image; image = image->next) {
    const float red = static_cast<float>(image->color >> 24 & 0xff);
    const float green = static_cast<float>(image->color >> 16 & 0xff);
    const float blue = static_cast<float>(image->color >> 8 & 0xff);
    // libass's alpha is a transparency.
    const float opacity = static_cast<float>(255 - (image->color & 0xff)) / (255.0f * 255.0f);
    for (int y = 0; y < image->h; ++y) {
      const unsigned char* mask = image->bitmap + static_cast<ptrdiff_t>(y) * image->stride;
      float* row = sum.data() +
                   (static_cast<size_t>(image->dst_y - top + y) * w + (image->dst_x - left)) * 4;
      for (int x = 0; x < image->w; ++x, row += 4) {
        if (mask[x] == 0)
          continue;
        const float a = mask[x] * opacity, keep = 1.0f - a;
        row[0] = red * a + row[0] * keep;
        row[1] = green * a + row[1] * keep;
        row[2] = blue * a + row[2] * keep;
        row[3] = a + row[3] * keep;
      }
    }
  }
  auto rgba = std::make_shared<std::vector<uint8_t>>(sum.size());
  for (size_t i = 0; i < sum.size(); i += 4) {
    const float a = sum[i + 3];
    if (a <= 0)
      continue;
    for (int c = 0; c < 3; ++c)
      (*rgba)[i + c] = static_cast<uint8_t>(std::clamp(std::lround(sum[i + c] / a), 0L, 255L));
    (*rgba)[i + 3] = static_cast<uint8_t>(std::clamp(std::lround(a * 255.0f), 0L, 255L));
  }
  return SubtitleRaster{std::move(rgba), left, top, w, h};
}

}  // namespace

std::optional<FilterImage> StyledSubtitleRenderer::imageAtTime(int64_t ms, int width, int height) {
  if (width <= 0 || height <= 0)
    return std::nullopt;
  std::lock_guard<std::mutex> guard(state_->lock);
  State& s = *state_;
  const bool changed = render(ms, width, height);
  if (!s.cached)
    return std::nullopt;
  if (changed || !s.cachedImage) {
    const SubtitleRaster& r = *s.cached;
    s.cachedImage = FilterImage::fromRaster(r.rgba->data(), r.width, r.height, r.width * 4,
                                            FilterImage::ByteOrder::RGBA);
    // libass counts rows from the top.
    if (s.cachedImage)
      s.cachedImage = s.cachedImage->translated(r.x, height - (r.y + r.height));
  }
  return s.cachedImage;
}

std::optional<SubtitleRaster> StyledSubtitleRenderer::rasterAtTime(int64_t ms,
                                                                   int width,
                                                                   int height) {
  if (width <= 0 || height <= 0)
    return std::nullopt;
  std::lock_guard<std::mutex> guard(state_->lock);
  render(ms, width, height);
  return state_->cached;
}

bool StyledSubtitleRenderer::render(int64_t ms, int width, int height) {
  State& s = *state_;
  bool resized = false;
  if (width != s.width || height != s.height) {
    s.ass->set_frame_size(s.renderer.get(), width, height);
    s.width = width;
    s.height = height;
    resized = true;
  }
  int change = 0;
  const ASS_Image* images = s.ass->render_frame(s.renderer.get(), s.track.get(), ms, &change);
  if (s.drawn && change == 0 && !resized)
    return false;
  s.cached = compose(images);
  s.cachedImage.reset();
  s.drawn = true;
  ++s.renders;
  return true;
}

std::string assColor(const FilterImage::Color& color) {
  auto byte = [](double v) {
    return static_cast<unsigned>(std::lround(std::clamp(v, 0.0, 1.0) * 255));
  };
  char text[16];
  std::snprintf(text, sizeof text, "&H%02X%02X%02X%02X", 255 - byte(color.alpha), byte(color.blue),
                byte(color.green), byte(color.red));
  return text;
}

bool isFontAttachment(const std::string& mimeType, const std::string& fileName) {
  std::string type, name;
  for (const char c : mimeType)
    type += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const char c : fileName)
    name += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (type.find("font") != std::string::npos || type.find("truetype") != std::string::npos ||
      type.find("opentype") != std::string::npos)
    return true;
  for (const char* extension : {".ttf", ".otf", ".ttc", ".woff"}) {
    const std::string_view ending(extension);
    if (name.size() >= ending.size() &&
        name.compare(name.size() - ending.size(), ending.size(), ending) == 0)
      return true;
  }
  return false;
}

std::vector<std::string> styleOverrides(const SubtitleStyle& style, int playResY) {
  const double lines = playResY > 0 ? playResY : 288;
  auto number = [](double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", value);
    return std::string(text);
  };
  std::vector<std::string> overrides;
  if (style.font)
    overrides.push_back("Fontname=" + *style.font);
  if (style.size)
    overrides.push_back("Fontsize=" + number(*style.size * lines));
  if (style.bold)
    overrides.push_back("Bold=1");
  if (style.italic)
    overrides.push_back("Italic=1");
  if (style.color) {
    overrides.push_back("PrimaryColour=" + assColor(*style.color));
    // Karaoke fills from the secondary colour to the primary.
    overrides.push_back("SecondaryColour=" + assColor(*style.color));
  }
  if (style.outline)
    overrides.push_back("Outline=" + number(*style.outline * lines));
  if (style.shadow)
    overrides.push_back("Shadow=" + number(*style.shadow * lines));
  if (style.position)
    overrides.push_back("MarginV=" + std::to_string(std::lround(*style.position * lines)));
  return overrides;
}

}  // namespace vn
