#include "image/image_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <type_traits>
#include <vector>

#include "base/parallel.h"
#include "image/row_executor.h"
#include "image/srgb.h"

// The hot loops are built twice, for machines with AVX2 and FMA and for the
// baseline, and the loader picks one; every thread of a process runs the
// same one, so results do not depend on how the work is shared out. Not
// under ThreadSanitizer: it instruments the loader's chooser, which runs
// before the sanitizer is set up.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && defined(__linux__) && \
    !defined(__SANITIZE_THREAD__)
#define VN_HOT_LOOP __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define VN_HOT_LOOP
#endif

namespace vn {
namespace {

// The endless extent: x = y = -(1 << 29), width = height = 1 << 30.
constexpr int kEndlessSide = 1 << 30;
constexpr int kEndlessLow = -(1 << 29);
constexpr int kEndlessHigh = 1 << 29;

constexpr double kMinSigma = 0.16;
constexpr double kMaxSigma = 1024;
constexpr double kMaxExactSigma = 8;
constexpr double kReducedSigma = 8;
// Cells wider than any picture read no further than this.
constexpr int kMaxHexagonReach = 1 << 15;

// Floats one inner step of the filters computes: four AVX registers.
constexpr int kBlock = 32;
// A blur runs in strips of output columns this many floats wide: the rows a
// strip's column pass reads for one output row stay in the first-level cache
// (61 rows of 512 bytes at sigma 10).
constexpr int kStrip = 128;
// Rows one job of a row-by-row pass takes.
constexpr int kRowsPerJob = 8;

// Rec. 709 luma on linear components.
constexpr float kLumaR = 0.2125f, kLumaG = 0.7154f, kLumaB = 0.0721f;

int roundUp(int n, int m) {
  return (n + m - 1) / m * m;
}

int64_t floorDiv(int64_t a, int64_t b) {
  const int64_t q = a / b;
  return (a % b != 0 && ((a < 0) != (b < 0))) ? q - 1 : q;
}

bool isEndless(const IntRect& r) {
  return r.width >= kEndlessSide || r.height >= kEndlessSide;
}

// r grown by n on every side, kept inside the endless extent.
IntRect grownSafely(const IntRect& r, int n) {
  const int64_t l = std::max<int64_t>(int64_t{r.x} - n, kEndlessLow);
  const int64_t b = std::max<int64_t>(int64_t{r.y} - n, kEndlessLow);
  const int64_t rr = std::min<int64_t>(int64_t{r.x} + r.width + n, kEndlessHigh);
  const int64_t t = std::min<int64_t>(int64_t{r.y} + r.height + n, kEndlessHigh);
  return {static_cast<int>(l), static_cast<int>(b), static_cast<int>(std::max<int64_t>(rr - l, 0)),
          static_cast<int>(std::max<int64_t>(t - b, 0))};
}

// Working memory a thread keeps from one call to the next (one buffer per
// use), so that filtering frame after frame reuses pages instead of mapping
// and clearing fresh ones, which costs more than the filtering here. Its
// contents are left from the last use. Larger needs are allocated for the
// call only.
enum ScratchUse {
  kAcrossRows,
  kRowPointers,
  kLine,
  kBoxed,
  kBoxSums,
  kSmallBlurred,
  kMixedRow,
  kLuma,
  kBlurredLuma,
  kBlendRow,
  kCells,
  kCellMeans,
  kRunSums,
  kEncodedRow,
};
constexpr size_t kKeptScratchBytes = size_t{16} << 20;

template <typename T, ScratchUse Use>
class Scratch {
 public:
  // Starts on a cache line, so that the filters' loads split no lines.
  explicit Scratch(size_t n) {
    thread_local std::vector<T> kept;
    std::vector<T>& buffer = n * sizeof(T) > kKeptScratchBytes ? own_ : kept;
    const size_t needed = n + kAlign / sizeof(T);
    if (buffer.size() < needed)
      buffer.resize(needed);
    const auto at = reinterpret_cast<uintptr_t>(buffer.data());
    data_ = buffer.data() + ((kAlign - at % kAlign) % kAlign) / sizeof(T);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  T* data() const { return data_; }
  T& operator[](size_t i) const { return data_[i]; }

 private:
  static constexpr size_t kAlign = 64;
  std::vector<T> own_;
  T* data_;
};

// ---- pixels read through an extent ---------------------------------------------

// A filter's input as the kernels read it: the pixels given over `rect`
// (already clipped to the extent), transparent elsewhere; in clamp mode
// every position is first moved to the nearest one inside the extent.
struct Source {
  const float* data = nullptr;
  size_t stride = 0;  // floats between rows
  IntRect rect;
  int channels = 4;
  IntRect extent;
  bool clamp = false;

  // The row of the given pixels (counted from rect's top) that picture row
  // y reads, or -1 when it reads transparent.
  int rowIndex(int y) const {
    if (rect.isEmpty())
      return -1;
    if (clamp)
      y = std::clamp(y, extent.y, extent.top() - 1);
    if (y < rect.y || y >= rect.top())
      return -1;
    return rect.top() - 1 - y;
  }

  // Picture row y, or null when it reads transparent.
  const float* rowAt(int y) const {
    const int r = rowIndex(y);
    return r < 0 ? nullptr : data + static_cast<size_t>(r) * stride;
  }

  // True when columns x0 .. x0 + n - 1 of a given row are all given.
  bool holds(int x0, int n) const { return x0 >= rect.x && x0 + n <= rect.right(); }

  // Columns x0 .. x0 + n - 1 of a row into dst: given(d, x, count) writes
  // the given pixels x .. x + count - 1 of the row at d; present: whether
  // the row is given at all (else it reads transparent).
  template <typename Given>
  void readSpanWith(bool present, int x0, int n, float* dst, const Given& given) const {
    const int c = channels;
    const int end = x0 + n;
    if (!present) {
      std::fill(dst, dst + static_cast<size_t>(n) * c, 0.0f);
      return;
    }
    // [x0, left) lies before the given pixels, [right, end) after them.
    const int left = std::clamp(rect.x, x0, end), right = std::clamp(rect.right(), x0, end);
    if (right > left)
      given(dst + static_cast<size_t>(left - x0) * c, left, right - left);
    // The given pixels lie inside the extent, so a clamped read beyond them
    // finds an edge pixel exactly when they reach the extent's edge.
    const bool first = clamp && rect.x == extent.x;
    const bool last = clamp && rect.right() == extent.right();
    for (int x = x0; x < left; ++x) {
      float* d = dst + static_cast<size_t>(x - x0) * c;
      first ? given(d, rect.x, 1) : std::fill(d, d + c, 0.0f);
    }
    for (int x = right; x < end; ++x) {
      float* d = dst + static_cast<size_t>(x - x0) * c;
      last ? given(d, rect.right() - 1, 1) : std::fill(d, d + c, 0.0f);
    }
  }

  // Columns x0 .. x0 + n - 1 of a row from rowAt into dst.
  void readSpan(const float* row, int x0, int n, float* dst) const {
    readSpanWith(row != nullptr, x0, n, dst, [&](float* d, int x, int count) {
      std::memcpy(d, row + static_cast<size_t>(x - rect.x) * channels,
                  sizeof(float) * count * channels);
    });
  }

  // A pointer to the span in place when it is given, else the span read into
  // line.
  const float* span(const float* row, int x0, int n, float* line) const {
    if (row && holds(x0, n))
      return row + static_cast<ptrdiff_t>(x0 - rect.x) * channels;
    readSpan(row, x0, n, line);
    return line;
  }
};

// The geometry of a source that gives every pixel of its extent (its data
// read elsewhere).
Source wholeRaster(const IntRect& extent, bool clamp) {
  Source s;
  s.rect = s.extent = extent;
  s.clamp = clamp;
  return s;
}

Source sourceOf(const PixelBuffer& in, const IntRect& extent, bool clamp) {
  Source s;
  s.extent = extent;
  s.clamp = clamp;
  s.stride = static_cast<size_t>(in.rect.width) * 4;
  s.rect = in.rect.intersected(extent);
  if (!s.rect.isEmpty() && in.pixels.size() >= s.stride * in.rect.height)
    s.data = in.at(s.rect.x, s.rect.top() - 1);
  else
    s.rect = {};
  return s;
}

// Where a kernel writes: rows of `stride` floats, top row first, over rect.
struct Target {
  float* data;
  size_t stride;
  IntRect rect;
};

// The part `part` of the pixels of out (a part of out.rect).
Target targetOf(PixelBuffer& out, const IntRect& part) {
  const size_t stride = static_cast<size_t>(out.rect.width) * 4;
  float* first =
      out.row(out.rect.top() - part.top()) + static_cast<size_t>(part.x - out.rect.x) * 4;
  return {first, stride, part};
}

// ---- Gaussian blur -------------------------------------------------------------

// How a blur of standard deviation sigma is carried out. Up to
// kMaxExactSigma the normalised kernel exp(-k^2 / 2 sigma^2), |k| <= R =
// ceil(3 sigma), runs as it is. Above it the input is box-averaged by a
// whole factor f (at least 2, sigma / f about kReducedSigma), the small picture blurred
// exactly with the sigma that gives the same overall variance once the box
// (f^2 - 1) / 12 and the bilinear enlargement (about f^2 / 6) are added, and
// the result enlarged bilinearly.
struct BlurPlan {
  int reach = 0;               // R; 0 for the identity
  int factor = 1;              // 1: exact
  int runReach = 0;            // the reach of the kernel run (on the small picture when reduced)
  int readReach = 0;           // how far from an output pixel the input is read
  std::vector<float> weights;  // w[0..runReach]
};

std::vector<float> gaussianWeights(double sigma, int reach) {
  std::vector<double> w(reach + 1);
  double sum = 0;
  for (int k = 0; k <= reach; ++k) {
    w[k] = std::exp(-double(k) * k / (2 * sigma * sigma));
    sum += k == 0 ? w[k] : 2 * w[k];
  }
  std::vector<float> out(reach + 1);
  for (int k = 0; k <= reach; ++k)
    out[k] = static_cast<float>(w[k] / sum);
  // The floats sum to exactly 1 in the order the filters add them (the
  // centre, then each pair outwards), so that an opaque picture stays
  // exactly opaque instead of a hair off it: the last pair takes what the
  // others leave (a change far below its size).
  if (reach > 0) {
    float partial = out[0];
    for (int k = 1; k < reach; ++k)
      partial += out[k] * 2.0f;
    out[reach] = (1.0f - partial) / 2;
  }
  return out;
}

BlurPlan planBlur(double sigma) {
  BlurPlan p;
  if (!(sigma >= kMinSigma))  // NaN too
    return p;
  sigma = std::min(sigma, kMaxSigma);
  p.reach = static_cast<int>(std::ceil(3 * sigma));
  if (sigma <= kMaxExactSigma) {
    p.runReach = p.readReach = p.reach;
    p.weights = gaussianWeights(sigma, p.reach);
    return p;
  }
  const int f = std::max(2, static_cast<int>(sigma / kReducedSigma));
  // Mean variance of the bilinear weights over the f phases: (f^2 - 1) / 6
  // for odd f (phases at whole steps), (2 f^2 + 1) / 12 for even f.
  const double box = (f * f - 1) / 12.0;
  const double lerp = f % 2 ? (f * f - 1) / 6.0 : (2.0 * f * f + 1) / 12.0;
  const double smallSigma = std::sqrt(sigma * sigma - box - lerp) / f;
  p.factor = f;
  p.runReach = static_cast<int>(std::ceil(3 * smallSigma));
  p.readReach = std::max(p.reach, (p.runReach + 2) * f);
  p.weights = gaussianWeights(smallSigma, p.runReach);
  return p;
}

// Eight floats as one value, which the compiler keeps in a register (two
// on machines without AVX).
typedef float Lanes __attribute__((vector_size(32)));
constexpr int kLanes = 8;
static_assert(kBlock == 4 * kLanes);

inline void loadLanes(Lanes& v, const float* p) {
  std::memcpy(&v, p, sizeof v);
}
inline void storeLanes(float* p, const Lanes& v) {
  std::memcpy(p, &v, sizeof v);
}

// dst[j] = w0 src[j + R step] + sum_k wk (src[j + (R - k) step] + src[j + (R + k) step])
// for j < n (a multiple of kBlock): a row filtered along itself, step floats
// per pixel.
VN_HOT_LOOP
void filterRow(const float* src, float* dst, int n, int step, const float* w, int reach) {
  for (int j = 0; j < n; j += kBlock) {
    const float* s = src + j + static_cast<size_t>(reach) * step;
    Lanes acc[4], a, b;
#pragma GCC unroll 4
    for (int v = 0; v < 4; ++v) {
      loadLanes(a, s + v * kLanes);
      acc[v] = w[0] * a;
    }
    for (int k = 1; k <= reach; ++k) {
      const float wk = w[k];
      const float* lo = s - static_cast<ptrdiff_t>(k) * step;
      const float* hi = s + static_cast<ptrdiff_t>(k) * step;
#pragma GCC unroll 4
      for (int v = 0; v < 4; ++v) {
        loadLanes(a, lo + v * kLanes);
        loadLanes(b, hi + v * kLanes);
        acc[v] += wk * (a + b);
      }
    }
#pragma GCC unroll 4
    for (int v = 0; v < 4; ++v)
      storeLanes(dst + j + v * kLanes, acc[v]);
  }
}

// dst[j] = w0 rows[R][j] + sum_k wk (rows[R - k][j] + rows[R + k][j]) for
// j < n (a multiple of kBlock): one output row of the filter across rows.
VN_HOT_LOOP
void filterColumns(const float* const* rows, float* dst, int n, const float* w, int reach) {
  for (int j = 0; j < n; j += kBlock) {
    const float* centre = rows[reach] + j;
    Lanes acc[4], a, b;
#pragma GCC unroll 4
    for (int v = 0; v < 4; ++v) {
      loadLanes(a, centre + v * kLanes);
      acc[v] = w[0] * a;
    }
    for (int k = 1; k <= reach; ++k) {
      const float wk = w[k];
      const float* lo = rows[reach - k] + j;
      const float* hi = rows[reach + k] + j;
#pragma GCC unroll 4
      for (int v = 0; v < 4; ++v) {
        loadLanes(a, lo + v * kLanes);
        loadLanes(b, hi + v * kLanes);
        acc[v] += wk * (a + b);
      }
    }
#pragma GCC unroll 4
    for (int v = 0; v < 4; ++v)
      storeLanes(dst + j + v * kLanes, acc[v]);
  }
}

// One pixel of four channels.
typedef float Pixel __attribute__((vector_size(16)));

inline void loadPixel(Pixel& v, const float* p) {
  std::memcpy(&v, p, sizeof v);
}
inline void storePixel(float* p, const Pixel& v) {
  std::memcpy(p, &v, sizeof v);
}

// sum[k] = a[k] + b[k] for k < n.
VN_HOT_LOOP
void addRows(const float* a, const float* b, size_t n, float* sum) {
  size_t k = 0;
  for (Lanes va, vb; k + kLanes <= n; k += kLanes) {
    loadLanes(va, a + k);
    loadLanes(vb, b + k);
    storeLanes(sum + k, va + vb);
  }
  for (; k < n; ++k)
    sum[k] = a[k] + b[k];
}

// out[k] = a[k] + t (b[k] - a[k]) for k < n.
VN_HOT_LOOP
void mixRows(const float* a, const float* b, float t, size_t n, float* out) {
  size_t k = 0;
  for (Lanes va, vb; k + kLanes <= n; k += kLanes) {
    loadLanes(va, a + k);
    loadLanes(vb, b + k);
    storeLanes(out + k, va + t * (vb - va));
  }
  for (; k < n; ++k)
    out[k] = a[k] + t * (b[k] - a[k]);
}

// Pixel x of out: the pixels at small[column[x]] and the one after it
// mixed by phase[x] (four channels).
VN_HOT_LOOP
void enlargeRow(const float* small, const int* column, const float* phase, int n, float* out) {
  for (int x = 0; x < n; ++x) {
    Pixel a, b;
    loadPixel(a, small + column[x]);
    loadPixel(b, small + column[x] + 4);
    storePixel(out + 4 * x, a + phase[x] * (b - a));
  }
}

// The separable kernel w over dst.rect, rows then columns, one strip of
// output columns per job. Each output value is summed in one fixed order
// whatever the strips and threads.
void blurExact(const Source& src,
               const std::vector<float>& w,
               int reach,
               const Target& dst,
               int threads) {
  const IntRect& o = dst.rect;
  const int c = src.channels;
  const int n = c * o.width;

  // Row t of the vertical window (top first) is picture row ytop - t. Only
  // the distinct source rows behind them are filtered along: rows that read
  // transparent share one zero row, clamped rows share their edge row.
  const int window = o.height + 2 * reach;
  const int ytop = o.top() - 1 + reach;
  std::vector<int> filtered(window, -1);  // window row -> distinct row, -1: zero
  std::vector<const float*> distinct;
  for (int t = 0; t < window; ++t) {
    const float* row = src.rowAt(ytop - t);
    if (!row)
      continue;
    // Clamped rows repeat one pointer, next to each other.
    if (distinct.empty() || distinct.back() != row)
      distinct.push_back(row);
    filtered[t] = static_cast<int>(distinct.size()) - 1;
  }
  const int rowCount = static_cast<int>(distinct.size());

  const int strips = (n + kStrip - 1) / kStrip;
  parallelFor(strips, threads, [&](int strip) {
    const int j0 = strip * kStrip;
    const int keep = std::min(kStrip, n - j0);  // floats of output
    const int len = roundUp(keep, kBlock);      // floats computed
    const int x0 = o.x + j0 / c, pixels = keep / c;
    const int spanPixels = pixels + 2 * reach;

    Scratch<float, kAcrossRows> across((static_cast<size_t>(rowCount) + 1) * kStrip);
    float* zero = across.data() + static_cast<size_t>(rowCount) * kStrip;
    std::fill(zero, zero + kStrip, 0.0f);
    Scratch<float, kLine> line(len + 2 * reach * c);
    std::fill(line.data() + spanPixels * c, line.data() + len + 2 * reach * c, 0.0f);
    // Inside the given pixels a full strip reads the source rows in place.
    const bool inPlace = keep == len && src.holds(x0 - reach, spanPixels);
    for (int r = 0; r < rowCount; ++r) {
      const float* in = line.data();
      if (inPlace)
        in = distinct[r] + static_cast<ptrdiff_t>(x0 - reach - src.rect.x) * c;
      else
        src.readSpan(distinct[r], x0 - reach, spanPixels, line.data());
      filterRow(in, across.data() + static_cast<size_t>(r) * kStrip, len, c, w.data(), reach);
    }

    Scratch<const float*, kRowPointers> rows(window);
    for (int t = 0; t < window; ++t)
      rows[t] = filtered[t] < 0 ? zero : across.data() + static_cast<size_t>(filtered[t]) * kStrip;
    for (int i = 0; i < o.height; ++i) {
      float* d = dst.data + i * dst.stride + j0;
      if (keep == len) {
        filterColumns(rows.data() + i, d, len, w.data(), reach);
      } else {
        float tail[kStrip];
        filterColumns(rows.data() + i, tail, len, w.data(), reach);
        std::memcpy(d, tail, sizeof(float) * keep);
      }
    }
  });
}

// The reduced-size blur (see BlurPlan) over o, of a picture of c channels
// whose rows spanOf(y, x0, n, line) gives (columns x0 .. x0 + n - 1 of
// picture row y, as Source::span gives them, in line or in place); output
// row i (top first) is written by the function that emit(i, fill) hands a
// row to. Small pixel a covers the columns [a f, a f + f) of picture space,
// so every output pixel is computed the same way whatever rectangle is
// asked for.
template <typename SpanOf, typename Emit>
void blurReducedWith(const IntRect& o,
                     int c,
                     const BlurPlan& p,
                     const SpanOf& spanOf,
                     const Emit& emit,
                     int threads) {
  const int f = p.factor;
  // Output column x samples the small grid at u = (x + 0.5) / f - 0.5,
  // between small pixels floor(u) and floor(u) + 1.
  auto below = [f](int x) { return static_cast<int>(floorDiv(2 * int64_t{x} + 1 - f, 2 * f)); };
  auto phase = [f](int x, int a) {
    return static_cast<float>((2 * int64_t{x} + 1 - f - 2 * int64_t{f} * a) / (2.0 * f));
  };
  const int ax = below(o.x), ay = below(o.y);
  const IntRect small{ax, ay, below(o.right() - 1) + 2 - ax, below(o.top() - 1) + 2 - ay};
  const IntRect reduced = small.grown(p.runReach);

  // Box averages of the input as the mode extends it.
  const int rw = reduced.width * c;
  Scratch<float, kBoxed> box(static_cast<size_t>(rw) * reduced.height);
  const float norm = 1.0f / (float(f) * f);
  const int boxJobs = (reduced.height + kRowsPerJob - 1) / kRowsPerJob;
  parallelFor(boxJobs, threads, [&](int job) {
    const int x0 = reduced.x * f, n = reduced.width * f;
    const size_t lineFloats = static_cast<size_t>(n) * c;
    Scratch<float, kLine> line(lineFloats);
    Scratch<float, kBoxSums> sum(lineFloats);
    const int end = std::min(reduced.height, (job + 1) * kRowsPerJob);
    for (int r = job * kRowsPerJob; r < end; ++r) {
      const int b = reduced.top() - 1 - r;
      // f >= 2: the first two rows start the sums.
      const float* first = spanOf(b * f, x0, n, sum.data());
      addRows(first, spanOf(b * f + 1, x0, n, line.data()), lineFloats, sum.data());
      for (int q = 2; q < f; ++q)
        addRows(sum.data(), spanOf(b * f + q, x0, n, line.data()), lineFloats, sum.data());
      float* out = box.data() + static_cast<size_t>(r) * rw;
      for (int a = 0; a < reduced.width; ++a) {
        const float* group = sum.data() + static_cast<size_t>(a) * f * c;
        if (c == 4) {
          Pixel total, next;
          loadPixel(total, group);
          for (int q = 1; q < f; ++q) {
            loadPixel(next, group + 4 * q);
            total += next;
          }
          storePixel(out + 4 * a, total * norm);
          continue;
        }
        for (int ch = 0; ch < c; ++ch) {
          float total = group[ch];
          for (int q = 1; q < f; ++q)
            total += group[q * c + ch];
          out[a * c + ch] = total * norm;
        }
      }
    }
  });

  // The small picture holds everything its blur reads.
  Source smallSource;
  smallSource.data = box.data();
  smallSource.stride = rw;
  smallSource.rect = reduced;
  smallSource.channels = c;
  smallSource.extent = reduced;
  const size_t sw = static_cast<size_t>(small.width) * c;
  Scratch<float, kSmallBlurred> blurred(sw * small.height);
  blurExact(smallSource, p.weights, p.runReach, {blurred.data(), sw, small}, threads);

  // Bilinear enlargement: along columns into a small-width row, then along it.
  std::vector<int> column(o.width);
  std::vector<float> columnPhase(o.width);
  for (int x = 0; x < o.width; ++x) {
    const int a = below(o.x + x);
    column[x] = (a - small.x) * c;
    columnPhase[x] = phase(o.x + x, a);
  }
  const int jobs = (o.height + kRowsPerJob - 1) / kRowsPerJob;
  parallelFor(jobs, threads, [&](int job) {
    Scratch<float, kMixedRow> mixed(sw);
    const int end = std::min(o.height, (job + 1) * kRowsPerJob);
    for (int i = job * kRowsPerJob; i < end; ++i) {
      const int y = o.top() - 1 - i;
      const int b = below(y);
      const float ty = phase(y, b);
      const float* lower = blurred.data() + static_cast<size_t>(small.top() - 1 - b) * sw;
      const float* upper = lower - sw;  // row b + 1, one raster row up
      mixRows(lower, upper, ty, sw, mixed.data());
      emit(i, [&](float* out) {
        if (c == 4) {
          enlargeRow(mixed.data(), column.data(), columnPhase.data(), o.width, out);
          return;
        }
        for (int x = 0; x < o.width; ++x) {
          const float* m = mixed.data() + column[x];
          const float tx = columnPhase[x];
          for (int ch = 0; ch < c; ++ch)
            out[x * c + ch] = m[ch] + tx * (m[c + ch] - m[ch]);
        }
      });
    }
  });
}

void blurReduced(const Source& src, const BlurPlan& p, const Target& dst, int threads) {
  blurReducedWith(
      dst.rect, src.channels, p,
      [&](int y, int x0, int n, float* line) { return src.span(src.rowAt(y), x0, n, line); },
      [&](int i, const auto& fill) { fill(dst.data + i * dst.stride); }, threads);
}

// The blur of src over dst.rect; the identity copies.
void blur(const Source& src, const BlurPlan& p, const Target& dst, int threads) {
  if (dst.rect.isEmpty())
    return;
  if (p.reach == 0) {
    for (int i = 0; i < dst.rect.height; ++i)
      src.readSpan(src.rowAt(dst.rect.top() - 1 - i), dst.rect.x, dst.rect.width,
                   dst.data + i * dst.stride);
  } else if (p.factor == 1) {
    blurExact(src, p.weights, p.reach, dst, threads);
  } else {
    blurReduced(src, p, dst, threads);
  }
}

// ---- the filters ---------------------------------------------------------------

// Runs fn(i) for every raster row i of a rectangle of the given height.
template <typename Fn>
void forRows(int height, int threads, const Fn& fn) {
  const int jobs = (height + kRowsPerJob - 1) / kRowsPerJob;
  parallelFor(jobs, threads, [&](int job) {
    const int end = std::min(height, (job + 1) * kRowsPerJob);
    for (int i = job * kRowsPerJob; i < end; ++i)
      fn(i);
  });
}

// The part of region a blur of a picture over extent writes: beyond its
// reach a transparent-mode blur is transparent; a clamp-mode one is cropped
// to the extent.
IntRect blurredPart(const GaussianBlurOp& op,
                    const BlurPlan& p,
                    const IntRect& region,
                    const IntRect& extent) {
  return region.intersected(op.clamp ? extent : grownSafely(extent, p.reach));
}

void gaussianBlur(const GaussianBlurOp& op,
                  const PixelBuffer& in,
                  const IntRect& extent,
                  PixelBuffer& out,
                  int threads) {
  const BlurPlan p = planBlur(op.sigma);
  const IntRect part = blurredPart(op, p, out.rect, extent);
  if (part.isEmpty())
    return;
  blur(sourceOf(in, extent, op.clamp), p, targetOf(out, part), threads);
}

// The luma of the unpremultiplied colour; transparent pixels count as black.
inline float lumaOf(const float* px) {
  return px[3] > 0 ? (kLumaR * px[0] + kLumaG * px[1] + kLumaB * px[2]) / px[3] : 0.0f;
}

void sharpenLuminance(const SharpenLuminanceOp& op,
                      const PixelBuffer& in,
                      const IntRect& extent,
                      PixelBuffer& out,
                      int threads) {
  const IntRect part = out.rect.intersected(extent);
  if (part.isEmpty())
    return;
  const Source src = sourceOf(in, extent, false);
  const BlurPlan p = planBlur(op.sigma);
  const float sharpness = static_cast<float>(op.sharpness);

  // Luma where the blur reads it.
  const IntRect lumaRect = grownSafely(part, p.readReach).intersected(src.rect);
  Scratch<float, kLuma> luma(static_cast<size_t>(std::max(lumaRect.width, 0)) *
                             std::max(lumaRect.height, 0));
  if (!lumaRect.isEmpty()) {
    forRows(lumaRect.height, threads, [&](int i) {
      const float* px =
          src.rowAt(lumaRect.top() - 1 - i) + static_cast<size_t>(lumaRect.x - src.rect.x) * 4;
      float* y = luma.data() + static_cast<size_t>(i) * lumaRect.width;
      for (int x = 0; x < lumaRect.width; ++x)
        y[x] = lumaOf(px + 4 * x);
    });
  }
  Source lumaSource;
  lumaSource.data = luma.data();
  lumaSource.stride = lumaRect.width;
  lumaSource.rect = lumaRect.isEmpty() ? IntRect{} : lumaRect;
  lumaSource.channels = 1;
  lumaSource.extent = extent;
  lumaSource.clamp = true;
  Scratch<float, kBlurredLuma> blurred(static_cast<size_t>(part.width) * part.height);
  blur(lumaSource, p, {blurred.data(), static_cast<size_t>(part.width), part}, threads);

  // c' = c + d with d = sharpness (Y - Yb); premultiplied, C' = C + d alpha.
  const Target dst = targetOf(out, part);
  forRows(part.height, threads, [&](int i) {
    float* o = dst.data + i * dst.stride;
    src.readSpan(src.rowAt(part.top() - 1 - i), part.x, part.width, o);
    const float* yb = blurred.data() + static_cast<size_t>(i) * part.width;
    for (int x = 0; x < part.width; ++x) {
      float* px = o + 4 * x;
      if (!(px[3] > 0)) {
        px[0] = px[1] = px[2] = px[3] = 0;
        continue;
      }
      const float d = sharpness * (lumaOf(px) - yb[x]) * px[3];
      px[0] += d;
      px[1] += d;
      px[2] += d;
    }
  });
}

// Bloom (screen blend: c + b - c b) or gloom (multiply: c b) of the colour
// c of n pixels of `in` with the blurred colour b in `out`, mixed with c by
// t, into out; alpha is kept.
VN_HOT_LOOP
void blendRow(const float* in, float* out, int n, float t, bool gloom) {
  for (int x = 0; x < n; ++x) {
    Pixel p, b;
    loadPixel(p, in + 4 * x);
    loadPixel(b, out + 4 * x);
    const float alpha = p[3];
    if (!(alpha > 0)) {
      storePixel(out + 4 * x, Pixel{});
      continue;
    }
    const bool covered = b[3] > 0;
    const Pixel inverse = Pixel{1, 1, 1, 1} / Pixel{alpha, covered ? b[3] : 1, 1, 1};
    const Pixel c = p * inverse[0];
    const Pixel blurred = covered ? b * inverse[1] : Pixel{};
    const Pixel blended = gloom ? c * blurred : c + blurred - c * blurred;
    Pixel r = (c + t * (blended - c)) * alpha;
    r[3] = alpha;
    storePixel(out + 4 * x, r);
  }
}

void glow(const GlowOp& op,
          const PixelBuffer& in,
          const IntRect& extent,
          PixelBuffer& out,
          int threads) {
  const IntRect part = out.rect.intersected(extent);
  if (part.isEmpty())
    return;
  const Target dst = targetOf(out, part);
  blur(sourceOf(in, extent, true), planBlur(op.radius), dst, threads);

  const Source src = sourceOf(in, extent, false);
  const float t = static_cast<float>(op.intensity);
  forRows(part.height, threads, [&](int i) {
    Scratch<float, kBlendRow> line(static_cast<size_t>(part.width) * 4);
    blendRow(src.span(src.rowAt(part.top() - 1 - i), part.x, part.width, line.data()),
             dst.data + i * dst.stride, part.width, t, op.gloom);
  });
}

// ---- hexagonal cells -----------------------------------------------------------

const double kRowStep = std::sqrt(3.0) / 2;  // h: rows of cell centres are s h apart

// Four doubles as one value, and four 32-bit integers.
typedef double Doubles __attribute__((vector_size(32)));
typedef int32_t Ints __attribute__((vector_size(16)));
constexpr int kDoubleLanes = 4;

// Rounds every lane down (|v| < 2^51): adding and taking away 1.5 * 2^52
// rounds to the nearest integer, then lanes that went up step down.
inline void floorLanes(Doubles& v) {
  constexpr double kRound = 6755399441055744.0;
  const Doubles nearest = (v + kRound) - kRound;
  v = nearest - (nearest > v ? Doubles{1, 1, 1, 1} : Doubles{});
}

// The cells of points of one row: vx[k], vy their offsets from the lattice
// centre in units of the scale (n a multiple of four). Candidates are the
// corners of the lattice parallelogram the point is in, taken by n, then m:
// a later one wins only when its squared distance is smaller by more than
// 1e-9. Writes m - refM and n - refN.
VN_HOT_LOOP
void cellsOfRow(const double* vx,
                int n,
                double vy,
                double refM,
                double refN,
                int32_t* cellM,
                int32_t* cellN) {
  const double nf = vy / kRowStep;
  const double n0 = std::floor(nf);
  const double half0 = n0 / 2, half1 = (n0 + 1) / 2;
  const double dy0 = vy - n0 * kRowStep, dy1 = vy - (n0 + 1) * kRowStep;
  const double dd0 = dy0 * dy0, dd1 = dy1 * dy1;
  const Doubles one{1, 1, 1, 1};
  for (int k = 0; k < n; k += kDoubleLanes) {
    Doubles x, m0;
    std::memcpy(&x, vx + k, sizeof x);
    m0 = x - nf / 2;
    floorLanes(m0);
    const Doubles m1 = m0 + one;
    const Doubles a = x - (m0 + half0), b = x - (m1 + half0);
    const Doubles c = x - (m0 + half1), d = x - (m1 + half1);
    const Doubles d00 = a * a + dd0, d10 = b * b + dd0, d01 = c * c + dd1, d11 = d * d + dd1;
    Doubles best = d00, m = m0, up{};
    auto nearer = best > d10 + 1e-9;
    best = nearer ? d10 : best;
    m = nearer ? m1 : m;
    nearer = best > d01 + 1e-9;
    best = nearer ? d01 : best;
    m = nearer ? m0 : m;
    up = nearer ? one : up;
    nearer = best > d11 + 1e-9;
    m = nearer ? m1 : m;
    up = nearer ? one : up;
    const Ints im = __builtin_convertvector(m - refM, Ints);
    const Ints in = __builtin_convertvector(up + (n0 - refN), Ints);
    std::memcpy(cellM + k, &im, sizeof im);
    std::memcpy(cellN + k, &in, sizeof in);
  }
}

struct Lattice {
  double cx, cy, s;
};

// Keeps the lattice's arithmetic within the exact range of doubles: a
// centre far away (or not finite) moves by whole lattice steps, which
// leaves the cells where they are.
Lattice latticeOf(const HexagonalPixellateOp& op) {
  Lattice l{op.center[0], op.center[1], op.scale};
  if (!(l.s >= 1))
    l.s = 1;
  constexpr double kFar = 1 << 30;
  if (!(std::abs(l.cx) < kFar && std::abs(l.cy) < kFar)) {
    if (!std::isfinite(l.cx) || !std::isfinite(l.cy) || !std::isfinite(l.s)) {
      l.cx = l.cy = 0;
    } else {
      const double n = std::round(l.cy / (l.s * kRowStep));
      const double m = std::round(l.cx / l.s - n / 2);
      l.cx -= l.s * (m + n / 2);
      l.cy -= l.s * n * kRowStep;
      if (!(std::abs(l.cx) < kFar && std::abs(l.cy) < kFar))
        l.cx = l.cy = 0;
    }
  }
  return l;
}

int hexagonReach(double scale) {
  if (!(scale >= 1))
    scale = 1;
  // Two pixels of one cell are at most a cell's height (2 s / sqrt 3) apart
  // vertically and its width (s) horizontally.
  return static_cast<int>(
      std::min<double>(std::ceil(2 * scale / std::sqrt(3.0)) + 1, kMaxHexagonReach));
}

// Pixels [start, end) of a row of the area lie in cell (m, n).
struct Run {
  int32_t start, end, m, n;
  int32_t cell;  // the cell's place in a table of cells row by row (HexRuns)
};

// Where the cells of a pixellation lie over an area of its extent: each
// raster row's runs of pixels in one cell (a cell meets a row in one run:
// cells are convex), cells counted from one near the area's corner so that
// they fit 32 bits, and the runs that meet each row of cells. They depend
// only on the lattice and the area, so a picture pixellated frame after
// frame finds them made.
struct HexRuns {
  IntRect area;
  double cx = 0, cy = 0, scale = 0;
  std::vector<std::vector<Run>> rows;
  std::vector<size_t> firstRun;  // each row's first run, counted over all rows
  size_t runCount = 0;
  int32_t firstN = 0, firstM = 0;  // the lowest cell row and column met
  int cellRows = 0, cellColumns = 0;
  // The runs in each row of cells, raster row after raster row, left to
  // right: those of cell row k are runsOfCellRow[cellRowStart[k] ..
  // cellRowStart[k + 1]), each its count over all rows and its cell's
  // column. And the pixels of each cell.
  struct CellRun {
    uint32_t run;
    int32_t column;
  };
  std::vector<CellRun> runsOfCellRow;
  std::vector<size_t> cellRowStart;
  std::vector<int32_t> cellPixels;
};

std::shared_ptr<const HexRuns> makeHexRuns(const Lattice& lattice,
                                           const IntRect& area,
                                           int threads) {
  auto made = std::make_shared<HexRuns>();
  HexRuns& runs = *made;
  runs.area = area;
  runs.cx = lattice.cx;
  runs.cy = lattice.cy;
  runs.scale = lattice.s;
  const int w = area.width, h = area.height;
  const int paddedWidth = roundUp(w, kDoubleLanes);

  // Offsets from the centre in cell units, once per column and row.
  std::vector<double> vx(paddedWidth), vy(h);
  for (int x = 0; x < paddedWidth; ++x)
    vx[x] = (area.x + std::min(x, w - 1) + 0.5 - lattice.cx) / lattice.s;
  for (int i = 0; i < h; ++i)
    vy[i] = (area.top() - 1 - i + 0.5 - lattice.cy) / lattice.s;

  const double refM = std::floor(vx[0] - vy[h - 1] / kRowStep / 2) - 1;
  const double refN = std::floor(vy[h - 1] / kRowStep) - 1;
  runs.rows.resize(h);
  // The cell rows and columns each raster row meets.
  std::vector<int32_t> rowLowN(h), rowHighN(h), rowLowM(h), rowHighM(h);
  forRows(h, threads, [&](int i) {
    Scratch<int32_t, kCells> cells(2 * static_cast<size_t>(paddedWidth));
    int32_t* ms = cells.data();
    int32_t* ns = cells.data() + paddedWidth;
    cellsOfRow(vx.data(), paddedWidth, vy[i], refM, refN, ms, ns);
    std::vector<Run>& row = runs.rows[i];
    for (int x = 0; x < w; ++x) {
      if (x > 0 && ms[x] == ms[x - 1] && ns[x] == ns[x - 1])
        ++row.back().end;
      else
        row.push_back({x, x + 1, ms[x], ns[x], 0});
    }
    rowLowN[i] = rowLowM[i] = INT32_MAX;
    rowHighN[i] = rowHighM[i] = INT32_MIN;
    for (const Run& r : row) {
      rowLowN[i] = std::min(rowLowN[i], r.n);
      rowHighN[i] = std::max(rowHighN[i], r.n);
      rowLowM[i] = std::min(rowLowM[i], r.m);
      rowHighM[i] = std::max(rowHighM[i], r.m);
    }
  });
  runs.firstN = *std::min_element(rowLowN.begin(), rowLowN.end());
  runs.firstM = *std::min_element(rowLowM.begin(), rowLowM.end());
  runs.cellRows = *std::max_element(rowHighN.begin(), rowHighN.end()) - runs.firstN + 1;
  runs.cellColumns = *std::max_element(rowHighM.begin(), rowHighM.end()) - runs.firstM + 1;
  runs.firstRun.resize(h);
  runs.cellRowStart.assign(static_cast<size_t>(runs.cellRows) + 1, 0);
  runs.cellPixels.assign(static_cast<size_t>(runs.cellRows) * runs.cellColumns, 0);
  for (int i = 0; i < h; ++i) {
    runs.firstRun[i] = runs.runCount;
    runs.runCount += runs.rows[i].size();
    for (Run& r : runs.rows[i]) {
      r.cell = (r.n - runs.firstN) * runs.cellColumns + (r.m - runs.firstM);
      ++runs.cellRowStart[r.n - runs.firstN + 1];
      runs.cellPixels[r.cell] += r.end - r.start;
    }
  }
  for (int k = 0; k < runs.cellRows; ++k)
    runs.cellRowStart[k + 1] += runs.cellRowStart[k];
  runs.runsOfCellRow.resize(runs.runCount);
  std::vector<size_t> next(runs.cellRowStart.begin(), runs.cellRowStart.end() - 1);
  for (int i = 0; i < h; ++i) {
    for (size_t k = 0; k < runs.rows[i].size(); ++k) {
      const Run& r = runs.rows[i][k];
      runs.runsOfCellRow[next[r.n - runs.firstN]++] = {static_cast<uint32_t>(runs.firstRun[i] + k),
                                                       r.m - runs.firstM};
    }
  }
  return made;
}

// The runs of the lattice over area: the ones last made when they are for
// the same, else new ones.
std::shared_ptr<const HexRuns> hexRunsOf(const Lattice& lattice, const IntRect& area, int threads) {
  static std::mutex lock;
  static std::shared_ptr<const HexRuns> last;  // guarded by lock
  {
    std::lock_guard<std::mutex> hold(lock);
    if (last && last->area == area && last->cx == lattice.cx && last->cy == lattice.cy &&
        last->scale == lattice.s)
      return last;
  }
  std::shared_ptr<const HexRuns> made = makeHexRuns(lattice, area, threads);
  std::lock_guard<std::mutex> hold(lock);
  last = made;
  return made;
}

// The mean of every cell the runs meet, four premultiplied channels, cells
// row after row from (firstM, firstN). sumRow(i, sums) gives the sum of the
// pixels of each run of the area's raster row i (four floats a run, see
// runSum). Rows are summed on their own, in parallel, reading each row
// once from left to right; then one job adds up one row of cells, over the
// pixel rows that meet it, top to bottom, in doubles, so the sums do not
// depend on the threads or on the area around a cell. Pixels of the
// extent that were not given count as transparent.
template <typename SumRow>
void cellMeans(const HexRuns& runs, int threads, const SumRow& sumRow, float* means) {
  Scratch<float, kRunSums> sums(runs.runCount * 4);
  forRows(runs.area.height, threads, [&](int i) { sumRow(i, sums.data() + runs.firstRun[i] * 4); });
  const int columns = runs.cellColumns;
  parallelFor(runs.cellRows, threads, [&](int job) {
    std::vector<double> sum(static_cast<size_t>(columns) * 4, 0.0);
    for (size_t e = runs.cellRowStart[job]; e < runs.cellRowStart[job + 1]; ++e) {
      const HexRuns::CellRun& c = runs.runsOfCellRow[e];
      const float* runSum = sums.data() + static_cast<size_t>(c.run) * 4;
      double* s = sum.data() + static_cast<size_t>(c.column) * 4;
      for (int ch = 0; ch < 4; ++ch)
        s[ch] += runSum[ch];
    }
    float* mean = means + static_cast<size_t>(job) * columns * 4;
    const int32_t* pixels = runs.cellPixels.data() + static_cast<size_t>(job) * columns;
    for (int k = 0; k < columns; ++k) {
      const double* s = sum.data() + static_cast<size_t>(k) * 4;
      const double count = pixels[k];
      for (int ch = 0; ch < 4; ++ch)
        mean[k * 4 + ch] = count > 0 ? static_cast<float>(s[ch] / count) : 0.0f;
    }
  });
}

// The sums of the pixels of each run of a row of the area starting at
// picture column areaX, four floats a run into sums: of the row's pixels,
// those of columns [lo, hi) are given, pixelAt(x) making the one of column
// x; the others are transparent. Each run is summed by two running sums of
// floats taking alternate pixels (a run is a few pixels long), then their
// sum.
template <typename PixelAt>
void sumRuns(const std::vector<Run>& row,
             int areaX,
             int lo,
             int hi,
             const PixelAt& pixelAt,
             float* sums) {
  for (const Run& r : row) {
    const int x1 = std::min(areaX + r.end, hi);
    Pixel even{}, odd{};
    int x = std::max(areaX + r.start, lo);
    for (; x + 1 < x1; x += 2) {
      even += pixelAt(x);
      odd += pixelAt(x + 1);
    }
    if (x < x1)
      even += pixelAt(x);
    storePixel(sums, even + odd);
    sums += 4;
  }
}

// The area the cells of the output pixels of part lie in, wholly.
IntRect hexagonArea(const HexagonalPixellateOp& op, const IntRect& part, const IntRect& extent) {
  return grownSafely(part, hexagonReach(op.scale)).intersected(extent);
}

void hexagonalPixellate(const HexagonalPixellateOp& op,
                        const PixelBuffer& in,
                        const IntRect& extent,
                        PixelBuffer& out,
                        int threads) {
  const IntRect part = out.rect.intersected(extent);
  if (part.isEmpty())
    return;
  const std::shared_ptr<const HexRuns> runs =
      hexRunsOf(latticeOf(op), hexagonArea(op, part, extent), threads);
  const IntRect& area = runs->area;
  const Source src = sourceOf(in, extent, false);

  Scratch<float, kCellMeans> means(static_cast<size_t>(runs->cellRows) * runs->cellColumns * 4);
  cellMeans(
      *runs, threads,
      [&](int i, float* sums) {
        const float* row = src.rowAt(area.top() - 1 - i);
        // A row not given holds no pixels: every run sums to nothing.
        sumRuns(
            runs->rows[i], area.x, row ? src.rect.x : 0, row ? src.rect.right() : 0,
            [&](int x) {
              Pixel p;
              loadPixel(p, row + static_cast<ptrdiff_t>(x - src.rect.x) * 4);
              return p;
            },
            sums);
      },
      means.data());

  const Target dst = targetOf(out, part);
  const int dx = part.x - area.x, di = area.top() - part.top();
  forRows(part.height, threads, [&](int i) {
    float* o = dst.data + i * dst.stride;
    for (const Run& r : runs->rows[i + di]) {
      const int lo = std::max(r.start, dx), hi = std::min(r.end, dx + part.width);
      const float* mean = means.data() + static_cast<size_t>(r.cell) * 4;
      for (int x = lo; x < hi; ++x)
        std::memcpy(o + static_cast<size_t>(x - dx) * 4, mean, sizeof(float) * 4);
    }
  });
}

}  // namespace

int kernelReach(const NeighbourhoodOp& op) {
  return std::visit(
      [](const auto& o) -> int {
        using T = std::decay_t<decltype(o)>;
        if constexpr (std::is_same_v<T, GaussianBlurOp> || std::is_same_v<T, SharpenLuminanceOp>)
          return planBlur(o.sigma).readReach;
        else if constexpr (std::is_same_v<T, GlowOp>)
          return planBlur(o.radius).readReach;
        else
          return hexagonReach(o.scale);
      },
      op);
}

IntRect kernelOutputExtent(const NeighbourhoodOp& op, const IntRect& inputExtent) {
  const auto* blurOp = std::get_if<GaussianBlurOp>(&op);
  if (!blurOp || blurOp->clamp || inputExtent.isEmpty() || isEndless(inputExtent))
    return inputExtent;
  return grownSafely(inputExtent, planBlur(blurOp->sigma).reach);
}

HexCell hexagonalCell(const HexagonalPixellateOp& op, double x, double y) {
  // The same arithmetic as the filter's, for one point.
  const Lattice l = latticeOf(op);
  const double vx = (x - l.cx) / l.s, vy = (y - l.cy) / l.s;
  const double refM = std::floor(vx - vy / kRowStep / 2), refN = std::floor(vy / kRowStep);
  const double row[kDoubleLanes] = {vx, vx, vx, vx};
  int32_t m[kDoubleLanes], n[kDoubleLanes];
  cellsOfRow(row, kDoubleLanes, vy, refM, refN, m, n);
  return {static_cast<int64_t>(refM) + m[0], static_cast<int64_t>(refN) + n[0]};
}

PixelBuffer applyKernel(const NeighbourhoodOp& op,
                        const PixelBuffer& in,
                        const IntRect& inputExtent,
                        const IntRect& out,
                        int threads) {
  PixelBuffer result(out);
  if (out.isEmpty())
    return result;
  std::visit(
      [&](const auto& o) {
        using T = std::decay_t<decltype(o)>;
        if constexpr (std::is_same_v<T, GaussianBlurOp>)
          gaussianBlur(o, in, inputExtent, result, threads);
        else if constexpr (std::is_same_v<T, SharpenLuminanceOp>)
          sharpenLuminance(o, in, inputExtent, result, threads);
        else if constexpr (std::is_same_v<T, GlowOp>)
          glow(o, in, inputExtent, result, threads);
        else
          hexagonalPixellate(o, in, inputExtent, result, threads);
      },
      op);
  return result;
}

namespace {

// Makes transparent the 8-bit pixels of region (its rows top first from
// out, stride bytes apart) that lie outside part, a part of it.
void clearOutside(uint8_t* out, size_t stride, const IntRect& region, const IntRect& part) {
  for (int j = 0; j < region.height; ++j) {
    const int y = region.top() - 1 - j;
    uint8_t* o = out + static_cast<size_t>(j) * stride;
    if (part.isEmpty() || y < part.y || y >= part.top()) {
      std::memset(o, 0, static_cast<size_t>(region.width) * 4);
      continue;
    }
    std::memset(o, 0, static_cast<size_t>(part.x - region.x) * 4);
    std::memset(o + static_cast<size_t>(part.right() - region.x) * 4, 0,
                static_cast<size_t>(region.right() - part.right()) * 4);
  }
}

}  // namespace

// Output pixels a pixellation of bytes writes at a time.
constexpr int kFillStep = 8;
typedef uint32_t Codes8 __attribute__((vector_size(4 * kFillStep)));

void hexagonalPixellateBytes(const HexagonalPixellateOp& op,
                             const Raster8& in,
                             const IntRect& region,
                             uint8_t* out,
                             size_t stride,
                             int threads) {
  const IntRect extent{0, 0, in.width, in.height};
  const IntRect part = region.intersected(extent);
  // Outside the extent the output is transparent.
  clearOutside(out, stride, region, part);
  if (part.isEmpty())
    return;
  const std::shared_ptr<const HexRuns> runs =
      hexRunsOf(latticeOf(op), hexagonArea(op, part, extent), threads);
  const IntRect& area = runs->area;

  const float* lut = srgbToLinearTable();
  const int ri = in.bgra ? 2 : 0;
  const size_t cells = static_cast<size_t>(runs->cellRows) * runs->cellColumns;
  Scratch<float, kCellMeans> means(cells * 4);
  cellMeans(
      *runs, threads,
      [&](int i, float* sums) {
        // The pixels decoded as the float path decodes them.
        const uint8_t* row =
            in.bytes + static_cast<size_t>(in.height - (area.top() - i)) * in.stride;
        sumRuns(
            runs->rows[i], area.x, area.x, area.right(),
            [&](int x) {
              // A cache line asked for a few lines ahead of its first read.
              if ((x & 15) == 0)
                __builtin_prefetch(row + static_cast<size_t>(x) * 4 + 1024);
              return decodePixel(row + static_cast<size_t>(x) * 4, ri, lut);
            },
            sums);
      },
      means.data());
  // Each cell's colour is encoded once.
  std::vector<uint32_t> codes(cells);
  encodeRow(means.data(), reinterpret_cast<uint8_t*>(codes.data()), static_cast<int>(cells));

  const int dx = part.x - area.x, di = area.top() - part.top();
  const int firstRow = region.top() - part.top(), firstColumn = part.x - region.x;
  forRows(part.height, threads, [&](int i) {
    uint8_t* o = out + static_cast<size_t>(firstRow + i) * stride +
                 static_cast<ptrdiff_t>(firstColumn - dx) * 4;
    const int end = dx + part.width;
    for (const Run& r : runs->rows[i + di]) {
      const int lo = std::max(r.start, dx), hi = std::min(r.end, end);
      const uint32_t code = codes[r.cell];
      // Eight at once where the row has room: what lies past the run is
      // written again by the runs after it.
      if (hi - lo <= kFillStep && end - lo >= kFillStep) {
        const Codes8 eight = {code, code, code, code, code, code, code, code};
        std::memcpy(o + static_cast<size_t>(lo) * 4, &eight, sizeof eight);
        continue;
      }
      for (int x = lo; x < hi; ++x)
        std::memcpy(o + static_cast<size_t>(x) * 4, &code, 4);
    }
  });
}

bool gaussianBlurBytes(const GaussianBlurOp& op,
                       const Raster8& in,
                       const IntRect& region,
                       uint8_t* out,
                       size_t stride,
                       int threads) {
  const BlurPlan p = planBlur(op.sigma);
  // An exact blur reads each input pixel many times: it is run on floats.
  if (p.factor == 1)
    return false;
  const IntRect extent{0, 0, in.width, in.height};
  const IntRect part = blurredPart(op, p, region, extent);
  clearOutside(out, stride, region, part);
  if (part.isEmpty())
    return true;
  const int top = region.top() - part.top(), left = part.x - region.x;
  // The raster's rows decoded where the box averages read them, as the
  // float path decodes them.
  const auto geometry = wholeRaster(extent, op.clamp);
  blurReducedWith(
      part, 4, p,
      [&](int y, int x0, int n, float* line) {
        const int r = geometry.rowIndex(y);
        const uint8_t* row = r < 0 ? nullptr : in.bytes + static_cast<size_t>(r) * in.stride;
        geometry.readSpanWith(row != nullptr, x0, n, line, [&](float* d, int x, int count) {
          decodeRow(row + static_cast<size_t>(x) * 4, in.bgra, count, d);
        });
        return static_cast<const float*>(line);
      },
      [&](int i, const auto& fill) {
        Scratch<float, kEncodedRow> row(static_cast<size_t>(part.width) * 4);
        fill(row.data());
        encodeRow(row.data(),
                  out + static_cast<size_t>(top + i) * stride + static_cast<size_t>(left) * 4,
                  part.width);
      },
      threads);
  return true;
}

}  // namespace vn
