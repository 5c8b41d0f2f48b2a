// vn::FilterImage: an immutable, lazily evaluated picture placed in picture
// space (origin bottom left, y up, units of pixels), the form in which
// pictures travel between decoding, composition and output.
//
// A FilterImage is a cheap handle on a small graph of operations: copies
// share it, every operation is const and returns a new image, and nothing is
// computed until a render runs. Its extent may be endless (a single-colour
// image): such an image must be cropped, or laid under a finite image and the
// result cropped, before it is rendered. Outside its extent an image reads as
// transparent black.
//
// Pixels are computed in linear light with premultiplied alpha, in 32-bit
// floats (no 8-bit step between operations); 8-bit sRGB sources are decoded
// by table and results encoded exactly (srgb.h). Any thread may build and
// render its own copies; one image may be rendered from several threads at
// once.
//
// How a render is planned
// -----------------------
// render() compiles the graph over the requested rectangle into a few
// passes, and runs each pass in bands of rows over the machine's cores:
//
//  1. Resampling. A run of transforms and crops over a source (an 8-bit
//     picture, or pixels an earlier pass made) folds into one resampling:
//     the transforms multiply into one matrix, each output pixel centre is
//     mapped back once and sampled bilinearly from the source's own pixels.
//     Crops made before a transform remove source pixels (the taps outside
//     read transparent, so the edges stay smooth); crops after it mask
//     output pixels by their centres. A whole-pixel translation copies
//     instead of sampling. When the matrix shrinks below half size, the
//     source is first reduced by whole-pixel box averaging (so that nothing
//     aliases) and the remaining factor sampled bilinearly.
//  2. Point colour. A run of point operations (colour matrices, monochrome,
//     spotlight, line screen; image_ops.h) folds into one per-pixel pass that
//     follows the resampling in the same rows: consecutive colour matrices
//     multiply into one, an operation at its neutral value is dropped, and
//     alpha is divided out once and back in once per run.
//  3. Compositing. Source-over and source-in are evaluated row by row on
//     what the two sides' passes made, only over the span where the
//     foreground lies; an endless colour is a fill, not pixels.
//  4. Neighbourhood filters (blur, sharpen, bloom, gloom, pixellate) are
//     passes of their own: their input is materialised over what they read
//     (the output rectangle grown by their reach), the kernel runs once, and
//     its result becomes a source for the passes above.
//  5. Only pixels inside the requested rectangle, and inside every crop,
//     are computed; the rows are encoded to 8-bit straight-alpha RGBA as
//     they are finished.
//
// A transform placed above a point operation or a composite (rather than
// below, as a composition builds its chain) cannot fold: what is under it is
// materialised first and resampled as a source.
//
// Inside the library the graph is filter_graph.h, the planning of the passes
// render_plan.h, and their running over bands of rows row_executor.h; image
// files are read and written in image_file.cpp.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "image/affine_transform.h"
#include "image/image_ops.h"
#include "image/rect.h"

namespace vn {

class BitmapContext;
class BitmapImage;
struct PixelBuffer;

// The largest picture the layer makes or reads: renders and image files
// beyond it are refused.
inline constexpr int kMaxImageSide = 16384;
inline constexpr int64_t kMaxImagePixels = int64_t{8192} * 8192;

// What a render did, for tests and benchmarks.
struct ImageRenderStats {
  int resamplingPasses = 0;     // runs of transforms and crops sampled from a source
  int colorPasses = 0;          // runs of point operations
  int neighbourhoodPasses = 0;  // kernels run
  int materialized = 0;         // intermediate buffers made
};

struct ImageRenderOptions {
  int threads = 0;                    // 0: every core; 1: the calling thread only
  ImageRenderStats* stats = nullptr;  // added to when set
};

class FilterImage {
 public:
  // Byte order of a 32-bit raster in memory.
  enum class ByteOrder { BGRA, RGBA };
  // An sRGB colour, components 0..1, not premultiplied.
  struct Color {
    double red = 0, green = 0, blue = 0, alpha = 1;

    bool operator==(const Color&) const = default;
  };
  using RenderStats = ImageRenderStats;
  using RenderOptions = ImageRenderOptions;

  // Loads and starts libvips once per process (image files), its operation
  // cache off. Any thread; the file functions call it themselves, so only a
  // program that wants the cost up front needs it.
  static void initializeLibrary();

  // An image of width x height pixels copied from rows of `stride` bytes,
  // the top row first, sRGB, straight alpha, placed with its bottom-left
  // corner at (0, 0). Null when a size is not positive or too large, or the
  // stride is too small.
  static std::optional<FilterImage> fromRaster(const uint8_t* bytes,
                                               int width,
                                               int height,
                                               int stride,
                                               ByteOrder order);
  // An image over a bitmap's pixels, shared, not copied (the bitmap keeps
  // its owner alive). Null for an empty or too large bitmap.
  static std::optional<FilterImage> fromBitmap(const BitmapImage& bitmap);
  // An image file (PNG, JPEG, SVG, and what else libvips reads), placed at
  // (0, 0). Null with a one-line reason when it cannot be read or is too
  // large.
  static std::optional<FilterImage> fromFile(const std::string& path, std::string* reason);
  // An endless image of one colour.
  static FilterImage withColor(const Color& color);
  // An image over pixels the layer computed (linear, premultiplied).
  static FilterImage fromPixels(std::shared_ptr<const PixelBuffer> pixels);

  FilterImage(const FilterImage&) = default;
  FilterImage(FilterImage&&) noexcept = default;
  FilterImage& operator=(const FilterImage&) = default;
  FilterImage& operator=(FilterImage&&) noexcept = default;
  ~FilterImage();

  // Where the image lies; an endless image has infinite width and height
  // and a position of -infinity.
  Rect extent() const;
  bool isInfinite() const;
  // True when the extent holds no pixel at all.
  bool isEmpty() const;

  // The part inside rect; everything else transparent.
  FilterImage cropped(const Rect& rect) const;
  // An endless image whose edge pixels repeat outward (a finite, non-empty
  // image; others come back as they are).
  FilterImage clampedToExtent() const;
  // The image mapped by t; its extent is the bounding box of the mapped
  // corners. A singular transform gives an empty image.
  FilterImage transformed(const AffineTransform& t) const;
  FilterImage translated(double dx, double dy) const;
  // This image laid over background (Porter-Duff source-over; extent the
  // union), or kept only where background has coverage (source-in; extent
  // the intersection).
  FilterImage sourceOver(const FilterImage& background) const;
  FilterImage sourceIn(const FilterImage& background) const;
  // A point or neighbourhood operation applied to this image.
  FilterImage applying(const PointOp& op) const;
  FilterImage applying(const NeighbourhoodOp& op) const;

  // Renders rect (its integral bounding box: floor of the minimum, ceiling
  // of the maximum) as 8-bit sRGB RGBA rows with straight alpha, the top row
  // first, into out (rows `stride` bytes apart). False, writing nothing,
  // when the rectangle is empty, endless or larger than kMaxImageSide /
  // kMaxImagePixels.
  bool render(const Rect& rect, uint8_t* out, int stride, const RenderOptions& options = {}) const;
  // The same into a new buffer of width x 4 bytes per row; empty on failure.
  std::vector<uint8_t> render(const Rect& rect, const RenderOptions& options = {}) const;
  // The whole (finite) extent.
  std::vector<uint8_t> render() const;
  // The pixels of rect in the layer's own form (linear, premultiplied), for
  // passes that need them; empty on failure.
  PixelBuffer renderPixels(const Rect& rect, const RenderOptions& options = {}) const;
  // The image computed once over rect and kept in the layer's own form, so
  // that every later use reads those pixels instead of computing them again;
  // none on failure.
  std::optional<FilterImage> rendered(const Rect& rect) const;
  // Draws fromRect of the image stretched over the whole context, laid over
  // what the context holds (source-over). Draws nothing when fromRect is
  // empty or endless.
  void draw(BitmapContext& context, const Rect& fromRect, const RenderOptions& options = {}) const;

  // Writes a finite image to a PNG or JPEG file (by the path's extension).
  // False with a one-line reason on failure; nothing is left behind then.
  bool writeToFile(const std::string& path, std::string* reason) const;

  struct Node;  // the graph, defined in filter_graph.h

 private:
  explicit FilterImage(std::shared_ptr<const Node> node);

  std::shared_ptr<const Node> node_;
};

}  // namespace vn
