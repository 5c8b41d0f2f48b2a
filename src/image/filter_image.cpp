#include "image/filter_image.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "image/bitmap_context.h"
#include "image/bitmap_image.h"
#include "image/filter_graph.h"
#include "image/image_kernels.h"
#include "image/pixel_buffer.h"
#include "image/render_plan.h"
#include "image/row_executor.h"
#include "image/srgb.h"

namespace vn {
namespace {

// Lays one rendered row (linear, premultiplied) over a row of 8-bit pixels
// of a context, source-over, the context's alpha premultiplied or absent.
void drawRowOver(const float* row,
                 uint8_t* d,
                 int w,
                 bool premultiplied,
                 const float* lut,
                 const SrgbEncodeTables& codes) {
  for (int i = 0; i < w; ++i, d += 4) {
    const float* s = row + size_t(i) * 4;
    if (!(s[3] > 0))
      continue;
    if (s[3] >= 1) {
      // Opaque: it replaces what was there.
      for (int k = 0; k < 3; ++k)
        d[k] = codes.encode(s[k]);
      d[3] = 255;
      continue;
    }
    // What the context holds, as premultiplied linear colour.
    const float da = premultiplied ? d[3] / 255.0f : 1.0f;
    float dc[3];
    for (int k = 0; k < 3; ++k) {
      const int straight =
          premultiplied ? (d[3] ? std::min(255, (d[k] * 255 + d[3] / 2) / d[3]) : 0) : d[k];
      dc[k] = lut[straight] * da;
    }
    const float keep = 1 - s[3];
    const float a = s[3] + da * keep;
    float c[3];
    for (int k = 0; k < 3; ++k)
      c[k] = s[k] + dc[k] * keep;
    if (premultiplied) {
      const uint8_t ac = alphaCode(a);
      for (int k = 0; k < 3; ++k)
        d[k] = static_cast<uint8_t>((codes.encode(a > 0 ? c[k] / a : 0) * ac + 127) / 255);
      d[3] = ac;
    } else {
      // No alpha: the colour as laid over the opaque context.
      for (int k = 0; k < 3; ++k)
        d[k] = codes.encode(c[k]);
      d[3] = 255;
    }
  }
}

}  // namespace

FilterImage::FilterImage(std::shared_ptr<const Node> node) : node_(std::move(node)) {}

FilterImage::~FilterImage() = default;

std::optional<FilterImage> FilterImage::fromRaster(const uint8_t* bytes,
                                                   int width,
                                                   int height,
                                                   int stride,
                                                   ByteOrder order) {
  if (!bytes || width <= 0 || height <= 0 || stride / 4 < width ||
      !withinLimits(IntRect{0, 0, width, height}))
    return std::nullopt;
  const size_t rowBytes = static_cast<size_t>(width) * 4;
  std::shared_ptr<std::vector<uint8_t>> copy;
  try {
    copy = std::make_shared<std::vector<uint8_t>>(rowBytes * height);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
  for (int row = 0; row < height; ++row)
    std::memcpy(copy->data() + row * rowBytes, bytes + static_cast<size_t>(row) * stride, rowBytes);
  auto node = makeNode(Node::Kind::kRaster);
  node->bytes = copy->data();
  node->owner = copy;
  node->width = width;
  node->height = height;
  node->stride = static_cast<int>(rowBytes);
  node->bgra = order == ByteOrder::BGRA;
  node->extent = Rect{0, 0, double(width), double(height)};
  return FilterImage(node);
}

std::optional<FilterImage> FilterImage::fromBitmap(const BitmapImage& bitmap) {
  if (bitmap.isEmpty() || !withinLimits(IntRect{0, 0, bitmap.width(), bitmap.height()}))
    return std::nullopt;
  auto node = makeNode(Node::Kind::kRaster);
  auto keep = std::make_shared<BitmapImage>(bitmap);
  node->bytes = bitmap.data();
  node->owner = keep;
  node->width = bitmap.width();
  node->height = bitmap.height();
  node->stride = bitmap.bytesPerRow();
  node->extent = Rect{0, 0, double(bitmap.width()), double(bitmap.height())};
  return FilterImage(node);
}

FilterImage FilterImage::withColor(const Color& color) {
  auto node = makeNode(Node::Kind::kColor);
  const double alpha = std::clamp(color.alpha, 0.0, 1.0);
  node->color[0] = static_cast<float>(srgbEotf(color.red) * alpha);
  node->color[1] = static_cast<float>(srgbEotf(color.green) * alpha);
  node->color[2] = static_cast<float>(srgbEotf(color.blue) * alpha);
  node->color[3] = static_cast<float>(alpha);
  node->extent = infiniteRect();
  return FilterImage(node);
}

FilterImage FilterImage::fromPixels(std::shared_ptr<const PixelBuffer> pixels) {
  auto node = makeNode(Node::Kind::kPixels);
  node->extent = pixels ? toRect(pixels->rect) : Rect{0, 0, 0, 0};
  if (!pixels)
    pixels = std::make_shared<const PixelBuffer>();
  node->pixels = std::move(pixels);
  return FilterImage(node);
}

Rect FilterImage::extent() const {
  return node_->extent;
}

bool FilterImage::isInfinite() const {
  return isInfiniteRect(node_->extent);
}

bool FilterImage::isEmpty() const {
  return emptyRect(node_->extent);
}

FilterImage FilterImage::cropped(const Rect& rect) const {
  auto node = makeNode(Node::Kind::kCrop);
  node->rect = rect;
  node->a = node_;
  node->extent = intersect(node_->extent, rect);
  if (emptyRect(rect) || emptyRect(node->extent))
    node->extent = Rect{0, 0, 0, 0};
  return FilterImage(node);
}

FilterImage FilterImage::clampedToExtent() const {
  if (isEmpty() || isInfinite())
    return *this;
  auto node = makeNode(Node::Kind::kClamp);
  node->a = node_;
  node->extent = infiniteRect();
  return FilterImage(node);
}

FilterImage FilterImage::transformed(const AffineTransform& t) const {
  if (t.isIdentity())
    return *this;
  if (!t.isInvertible())
    return cropped(Rect{0, 0, 0, 0});
  auto node = makeNode(Node::Kind::kTransform);
  node->transform = t;
  node->a = node_;
  node->extent = transformedExtent(node_->extent, t);
  return FilterImage(node);
}

FilterImage FilterImage::translated(double dx, double dy) const {
  return transformed(AffineTransform::makeTranslation(dx, dy));
}

FilterImage FilterImage::sourceOver(const FilterImage& background) const {
  auto node = makeNode(Node::Kind::kOver);
  node->a = node_;
  node->b = background.node_;
  node->extent = unite(node_->extent, background.node_->extent);
  return FilterImage(node);
}

FilterImage FilterImage::sourceIn(const FilterImage& background) const {
  auto node = makeNode(Node::Kind::kIn);
  node->a = node_;
  node->b = background.node_;
  node->extent = intersect(node_->extent, background.node_->extent);
  if (emptyRect(node->extent))
    node->extent = Rect{0, 0, 0, 0};
  return FilterImage(node);
}

FilterImage FilterImage::applying(const PointOp& op) const {
  if (isNeutral(op))
    return *this;
  auto node = makeNode(Node::Kind::kPoint);
  node->point = op;
  node->a = node_;
  node->extent = node_->extent;
  return FilterImage(node);
}

FilterImage FilterImage::applying(const NeighbourhoodOp& op) const {
  auto node = makeNode(Node::Kind::kKernel);
  node->kernel = op;
  node->a = node_;
  node->extent = emptyRect(node_->extent) ? Rect{0, 0, 0, 0}
                                          : toRect(kernelOutputExtent(op, integral(node_->extent)));
  return FilterImage(node);
}

bool FilterImage::render(const Rect& rect,
                         uint8_t* out,
                         int stride,
                         const RenderOptions& options) const {
  if (isInfiniteRect(rect))
    return false;
  const IntRect region = integral(rect);
  if (!out || !withinLimits(region) || stride / 4 < region.width)
    return false;
  try {
    RenderStats kernelStats;
    if (renderKernelBytes(node_, region, options.threads, out, size_t(stride), &kernelStats)) {
      addStats(options.stats, kernelStats);
      return true;
    }
    Program program = compile(node_, region, options.threads);
    if (const std::optional<BytePass> pass = bytePass(program)) {
      executeBytes(program, *pass, options.threads, out, size_t(stride));
    } else {
      execute(program, options.threads, [&](int j, const float* row) {
        encodeRow(row, out + size_t(j) * stride, region.width);
      });
    }
    addStats(options.stats, program.stats);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

std::vector<uint8_t> FilterImage::render(const Rect& rect, const RenderOptions& options) const {
  if (isInfiniteRect(rect))
    return {};
  const IntRect region = integral(rect);
  if (!withinLimits(region))
    return {};
  std::vector<uint8_t> out;
  try {
    out.resize(size_t(region.width) * region.height * 4);
  } catch (const std::bad_alloc&) {
    return {};
  }
  if (!render(rect, out.data(), region.width * 4, options))
    return {};
  return out;
}

std::vector<uint8_t> FilterImage::render() const {
  return render(extent());
}

std::optional<FilterImage> FilterImage::rendered(const Rect& rect) const {
  PixelBuffer pixels = renderPixels(rect);
  if (pixels.pixels.empty())
    return std::nullopt;
  return fromPixels(std::make_shared<const PixelBuffer>(std::move(pixels)));
}

PixelBuffer FilterImage::renderPixels(const Rect& rect, const RenderOptions& options) const {
  if (isInfiniteRect(rect))
    return {};
  const IntRect region = integral(rect);
  if (!withinLimits(region))
    return {};
  try {
    RenderStats stats;
    auto pixels = materialize(node_, region, options.threads, &stats);
    --stats.materialized;  // the result itself is no intermediate
    addStats(options.stats, stats);
    return *pixels;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

void FilterImage::draw(BitmapContext& context,
                       const Rect& fromRect,
                       const RenderOptions& options) const {
  if (emptyRect(fromRect) || isInfiniteRect(fromRect))
    return;
  const int w = context.width(), h = context.height();
  // fromRect stretched over the context's (0, 0, w, h).
  const AffineTransform fit = AffineTransform::makeTranslation(0, 0)
                                  .scaled(w / fromRect.width, h / fromRect.height)
                                  .translated(-fromRect.x, -fromRect.y);
  // The edges repeat, so that a stretched picture does not fade at its
  // borders. A picture that already covers the context pixel for pixel is
  // drawn as it is, so its passes fold with the drawing.
  const bool inPlace =
      fromRect.x == 0 && fromRect.y == 0 && fromRect.width == w && fromRect.height == h;
  const FilterImage placed =
      inPlace ? cropped(fromRect) : cropped(fromRect).clampedToExtent().transformed(fit);
  const IntRect region{0, 0, w, h};
  const bool premultiplied = context.alpha() == BitmapContext::Alpha::kPremultipliedLast;
  const float* lut = srgbToLinearTable();
  const SrgbEncodeTables codes = srgbEncodeTables();
  try {
    Program program = compile(placed.node_, region, options.threads);
    execute(program, options.threads, [&](int j, const float* row) {
      drawRowOver(row, context.data() + size_t(j) * context.bytesPerRow(), w, premultiplied, lut,
                  codes);
    });
    addStats(options.stats, program.stats);
  } catch (const std::bad_alloc&) {
  }
}

}  // namespace vn
