#include "image/row_executor.h"

#include <atomic>
#include <cmath>
#include <cstring>
#include <variant>

#include "image/image_kernels.h"
#include "image/point_table.h"
#include "image/srgb.h"

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define VN_WIDE_ENCODE 1
#define VN_WIDE_SAMPLE 1
#endif

namespace vn {
namespace {

// Four floats handled as one value (one SSE register on x86-64).
typedef float Float4 __attribute__((vector_size(16)));

inline Float4 load4(const float* p) {
  Float4 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline void store4(float* p, Float4 v) {
  std::memcpy(p, &v, sizeof v);
}

// One source pixel as premultiplied linear light.
inline Float4 fetch(const Source& s, const float* lut, int c, int r) {
  if (s.raster) {
    return decodePixel(s.raster->bytes + size_t(r) * s.raster->stride + size_t(c) * 4,
                       s.raster->bgra ? 2 : 0, lut);
  }
  return load4(s.pixels->row(r) + size_t(c) * 4);
}

// A whole-pixel copy of a source, moved by (dx, dy): output pixel x of the
// row whose centres are at y reads source column x + copiedShift and raster
// row copiedRow.
inline int copiedRow(const Source& s, int dy, double y) {
  return static_cast<int>(std::floor(s.height - (y + dy - s.originY)));
}
inline int copiedShift(const Source& s, int dx) {
  return dx - static_cast<int>(s.originX);
}

// The x range [x0, x1) of the output pixels of a row whose centres lie
// inside the row op's masks and near enough to its source for a tap.
struct Span {
  int x0, x1;
};

// Where the row's output pixels lie inside the op's axis-aligned masks.
Span maskSpan(const std::vector<Mask>& masks, double y, const IntRect& region) {
  Span s{region.x, region.right()};
  for (const Mask& m : masks) {
    if (!m.axisAligned || isInfiniteRect(m.rect))
      continue;
    const double cy = y + m.toCrop.ty;
    if (cy < m.rect.y || cy >= m.rect.y + m.rect.height)
      return Span{s.x0, s.x0};
    // Centres x + 0.5 + tx inside [rect.x, rect.x + width).
    const double lo = std::ceil(m.rect.x - m.toCrop.tx - 0.5);
    const double hi = std::ceil(m.rect.x + m.rect.width - m.toCrop.tx - 0.5);
    s.x0 =
        std::max(s.x0, static_cast<int>(std::clamp(lo, double(region.x), double(region.right()))));
    s.x1 =
        std::min(s.x1, static_cast<int>(std::clamp(hi, double(region.x), double(region.right()))));
  }
  if (s.x1 < s.x0)
    s.x1 = s.x0;
  return s;
}

bool insideOtherMasks(const std::vector<Mask>& masks, double x, double y) {
  for (const Mask& m : masks) {
    if (m.axisAligned)
      continue;
    const Point p = m.toCrop.apply({x, y});
    if (!(p.x >= m.rect.x && p.x < m.rect.x + m.rect.width && p.y >= m.rect.y &&
          p.y < m.rect.y + m.rect.height))
      return false;
  }
  return true;
}

// Limits [x0, x1) to the output pixels x whose centre maps within lo..hi of
// the source along one coordinate: v(x) = v0 + x * dv, v0 being where the
// centre of pixel 0 maps.
void limitSpan(Span& s, double v0, double dv, double lo, double hi) {
  if (dv == 0) {
    if (v0 < lo || v0 > hi)
      s.x1 = s.x0;
    return;
  }
  double a = (lo - v0) / dv, b = (hi - v0) / dv;
  if (a > b)
    std::swap(a, b);
  const double first = std::ceil(a), last = std::floor(b);
  s.x0 = std::max(s.x0, static_cast<int>(std::max(first, double(s.x0))));
  s.x1 = std::min(s.x1, static_cast<int>(std::min(last + 1, double(s.x1))));
  if (s.x1 < s.x0)
    s.x1 = s.x0;
}

// Clears the row outside [x0, x1).
void clearOutside(float* row, const IntRect& region, int x0, int x1) {
  x0 = std::clamp(x0, region.x, region.right());
  x1 = std::clamp(x1, x0, region.right());
  std::fill(row, row + size_t(x0 - region.x) * 4, 0.0f);
  std::fill(row + size_t(x1 - region.x) * 4, row + size_t(region.width) * 4, 0.0f);
}

// One output row of a resampling, and where its pixel centres map in the
// source.
struct SampleRow {
  const RowOp& op;
  float* row;
  double y;
  const IntRect& region;
  const float* lut;
  // Source position of the pixel whose centre is (x + 0.5, y): linear in x,
  // (sx0 + t.a * x, sy0 + t.b * x).
  double sx0, sy0;
  double top;       // the source's height: row r has its centre at top - r - 0.5
  bool plainMasks;  // every mask is axis-aligned: the span alone keeps pixels
};

// Whole-pixel translation: output pixel x reads source column
// x + dx - originX and row top - (y + dy - originY) - 0.5. Returns where
// the row may be other than transparent.
Span copyRow(const SampleRow& line, const Span& span) {
  const RowOp& op = line.op;
  const Source& s = op.source;
  const IntRect& region = line.region;
  const int r = copiedRow(s, op.copyDy, line.y);
  if (r < s.r0 || r >= s.r1) {
    clearOutside(line.row, region, region.x, region.x);
    return Span{region.x, region.x};
  }
  const int shift = copiedShift(s, op.copyDx);
  const int x0 = std::max(span.x0, s.c0 - shift);
  const int x1 = std::max(x0, std::min(span.x1, s.c1 - shift));
  clearOutside(line.row, region, x0, x1);
  if (line.plainMasks && s.raster && x1 > x0) {
    decodeRow(s.raster->bytes + size_t(r) * s.raster->stride + size_t(x0 + shift) * 4,
              s.raster->bgra, x1 - x0, line.row + size_t(x0 - region.x) * 4);
    return Span{x0, x1};
  }
  for (int x = x0; x < x1; ++x) {
    const bool kept = line.plainMasks || insideOtherMasks(op.masks, x + 0.5, line.y);
    store4(line.row + size_t(x - region.x) * 4, kept ? fetch(s, line.lut, x + shift, r) : Float4{});
  }
  return Span{x0, x1};
}

// Output pixel x sampled bilinearly, wherever it lies.
void samplePixel(const SampleRow& line, int x) {
  const RowOp& op = line.op;
  const Source& s = op.source;
  const AffineTransform& t = op.inverse;
  const float* lut = line.lut;
  float* out = line.row + size_t(x - line.region.x) * 4;
  if (!line.plainMasks && !insideOtherMasks(op.masks, x + 0.5, line.y)) {
    store4(out, Float4{});
    return;
  }
  const double px = line.sx0 + t.a * x, py = line.sy0 + t.b * x;
  // Bilinear taps at pixel centres; column c has its centre at c + 0.5,
  // row r at top - r - 0.5.
  const double fx = px - 0.5, fy = (line.top - py) - 0.5;
  const double cf = std::floor(fx), rf = std::floor(fy);
  const float wx = static_cast<float>(fx - cf), wy = static_cast<float>(fy - rf);
  int c = static_cast<int>(std::clamp(cf, -2.0, double(s.width + 1)));
  int r = static_cast<int>(std::clamp(rf, -2.0, double(s.height + 1)));
  Float4 p00, p10, p01, p11;
  if (c >= s.c0 && c + 1 < s.c1 && r >= s.r0 && r + 1 < s.r1) {
    // Inside: all four taps are source pixels.
    p00 = fetch(s, lut, c, r);
    p10 = fetch(s, lut, c + 1, r);
    p01 = fetch(s, lut, c, r + 1);
    p11 = fetch(s, lut, c + 1, r + 1);
  } else if (s.clamp) {
    // Beyond an edge both taps of that side read the edge pixel.
    const int c2 = std::clamp(c + 1, s.c0, s.c1 - 1), r2 = std::clamp(r + 1, s.r0, s.r1 - 1);
    c = std::clamp(c, s.c0, s.c1 - 1);
    r = std::clamp(r, s.r0, s.r1 - 1);
    p00 = fetch(s, lut, c, r);
    p10 = fetch(s, lut, c2, r);
    p01 = fetch(s, lut, c, r2);
    p11 = fetch(s, lut, c2, r2);
  } else {
    // At an edge the taps outside read transparent.
    const Float4 zero = {0, 0, 0, 0};
    const bool cIn0 = c >= s.c0 && c < s.c1, cIn1 = c + 1 >= s.c0 && c + 1 < s.c1;
    const bool rIn0 = r >= s.r0 && r < s.r1, rIn1 = r + 1 >= s.r0 && r + 1 < s.r1;
    p00 = rIn0 && cIn0 ? fetch(s, lut, c, r) : zero;
    p10 = rIn0 && cIn1 && wx != 0 ? fetch(s, lut, c + 1, r) : zero;
    p01 = rIn1 && cIn0 && wy != 0 ? fetch(s, lut, c, r + 1) : zero;
    p11 = rIn1 && cIn1 && wx != 0 && wy != 0 ? fetch(s, lut, c + 1, r + 1) : zero;
  }
  const Float4 upper = p00 + wx * (p10 - p00);
  const Float4 lower = p01 + wx * (p11 - p01);
  store4(out, upper + wy * (lower - upper));
}

// Column and row coordinates of the taps of output pixel x, offset by
// kOffset to keep them positive so that truncation floors. The wide loop
// works them out the same way, so both give the same bytes.
constexpr int kOffset = 4;
inline double tapColumn(const SampleRow& line, int x) {
  return (line.sx0 + line.op.inverse.a * x) - 0.5 + kOffset;
}
inline double tapRow(const SampleRow& line, int x) {
  return (line.top - (line.sy0 + line.op.inverse.b * x)) - 0.5 + kOffset;
}

// A turned picture is read across its rows, which the processor does not
// see coming: the two rows of the taps of pixel x (some pixels ahead of the
// one being worked out) are asked for early, so that they come from memory
// meanwhile.
constexpr int kAhead = 24;
// The taps at column and row coordinates fx, fy (as tapColumn and tapRow
// give them) of the raster's bytes, its kept area [c0, c1) x [r0, r1).
// Always inlined: GCC left it out of line, and a call for each pixel made
// the plain loop take half as long again.
__attribute__((always_inline)) inline void prefetchTaps(const uint8_t* bytes,
                                                        size_t stride,
                                                        int c0,
                                                        int c1,
                                                        int r0,
                                                        int r1,
                                                        double fx,
                                                        double fy) {
  const int c = std::clamp(static_cast<int>(fx) - kOffset, c0, c1 - 1);
  const int r = std::clamp(static_cast<int>(fy) - kOffset, r0, std::max(r0, r1 - 2));
  const uint8_t* p = bytes + size_t(r) * stride + size_t(c) * 4;
  __builtin_prefetch(p);
  __builtin_prefetch(p + stride);
}

std::atomic<bool> wideSamplingAllowed{true};

#ifdef VN_WIDE_SAMPLE
// Eight pixels' four channels, each channel's eight values side by side.
struct Pixels8 {
  __m256 ch[4];
};

// Eight straight-alpha sRGB pixels (their four bytes in each lane) as
// premultiplied linear light, decoded as decodePixel does.
__attribute__((target("avx2"))) inline Pixels8 decodePixels8(__m256i p, int ri, const float* lut) {
  const __m256 alpha =
      _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_srli_epi32(p, 24)), _mm256_set1_ps(1.0f / 255));
  const __m256i byte = _mm256_set1_epi32(0xFF);
  const int shifts[3] = {8 * ri, 8, 8 * (2 - ri)};
  Pixels8 t;
  for (int k = 0; k < 3; ++k) {
    const __m256i code = _mm256_and_si256(_mm256_srlv_epi32(p, _mm256_set1_epi32(shifts[k])), byte);
    t.ch[k] = _mm256_mul_ps(_mm256_i32gather_ps(lut, code, 4), alpha);
  }
  t.ch[3] = alpha;
  return t;
}

// Writes the eight pixels to out, four floats each.
__attribute__((target("avx2"))) inline void storePixels8(float* out, const __m256 (&ch)[4]) {
  const __m256 rg0 = _mm256_unpacklo_ps(ch[0], ch[1]), rg1 = _mm256_unpackhi_ps(ch[0], ch[1]);
  const __m256 ba0 = _mm256_unpacklo_ps(ch[2], ch[3]), ba1 = _mm256_unpackhi_ps(ch[2], ch[3]);
  const __m256 q0 = _mm256_shuffle_ps(rg0, ba0, 0x44), q1 = _mm256_shuffle_ps(rg0, ba0, 0xEE);
  const __m256 q2 = _mm256_shuffle_ps(rg1, ba1, 0x44), q3 = _mm256_shuffle_ps(rg1, ba1, 0xEE);
  _mm256_storeu_ps(out, _mm256_permute2f128_ps(q0, q1, 0x20));
  _mm256_storeu_ps(out + 8, _mm256_permute2f128_ps(q2, q3, 0x20));
  _mm256_storeu_ps(out + 16, _mm256_permute2f128_ps(q0, q1, 0x31));
  _mm256_storeu_ps(out + 24, _mm256_permute2f128_ps(q2, q3, 0x31));
}

// The two taps side by side at row + offsets[k] of four pixels k: the left
// taps in the lower half, the right ones in the upper.
__attribute__((target("avx2"))) inline __m256i tapPairs(const uint8_t* row,
                                                        const int32_t* offsets) {
  uint64_t pair[4];
  for (int k = 0; k < 4; ++k)
    std::memcpy(&pair[k], row + offsets[k], sizeof pair[k]);
  return _mm256_permutevar8x32_epi32(
      _mm256_set_epi64x(int64_t(pair[3]), int64_t(pair[2]), int64_t(pair[1]), int64_t(pair[0])),
      _mm256_setr_epi32(0, 2, 4, 6, 1, 3, 5, 7));
}

// sampleRasterSpan's arithmetic, operation for operation, on eight pixels
// at a time: their taps are read and the codes' linear values gathered, the
// channels worked out side by side, then put back pixel by pixel. Eight
// pixels of which one is near an edge are left to the caller, as are the
// last few; returns the first pixel it did not do, from x on.
__attribute__((target("avx2"))) int sampleRasterSpanWide(const SampleRow& line, int x, int end) {
  const Source& s = line.op.source;
  const AffineTransform& t = line.op.inverse;
  const uint8_t* bytes = s.raster->bytes;
  const size_t stride = s.raster->stride;
  // Tap offsets are 32-bit.
  if (size_t(s.r1) * stride > size_t{INT32_MAX} - stride - 8)
    return x;
  const int ri = s.raster->bgra ? 2 : 0;
  const float* lut = line.lut;
  const bool across = t.b != 0;
  const __m256d step = _mm256_setr_pd(0, 1, 2, 3), half = _mm256_set1_pd(0.5),
                offset = _mm256_set1_pd(kOffset), a = _mm256_set1_pd(t.a), b = _mm256_set1_pd(t.b),
                sx0 = _mm256_set1_pd(line.sx0), sy0 = _mm256_set1_pd(line.sy0),
                top = _mm256_set1_pd(line.top);
  const __m256i one = _mm256_set1_epi32(1);
  const __m256i c0 = _mm256_set1_epi32(s.c0), c1 = _mm256_set1_epi32(s.c1 - 1),
                r0 = _mm256_set1_epi32(s.r0), r1 = _mm256_set1_epi32(s.r1 - 1),
                pixelBytes = _mm256_set1_epi32(4), rowBytes = _mm256_set1_epi32(int(stride));
  float* out = line.row + size_t(x - line.region.x) * 4;
  for (; x + 8 <= end; x += 8, out += 32) {
    for (int k = kAhead; across && k <= kAhead + 4; k += 4)
      prefetchTaps(bytes, stride, s.c0, s.c1, s.r0, s.r1, tapColumn(line, x + k),
                   tapRow(line, x + k));
    // Each half of the eight: the taps' coordinates, their integer parts
    // and their fractions.
    __m128i cs[2], rs[2];
    __m128 wxs[2], wys[2];
    __m256d low = _mm256_setzero_pd();
    for (int h = 0; h < 2; ++h) {
      const __m256d xs = _mm256_add_pd(_mm256_set1_pd(double(x + 4 * h)), step);
      const __m256d fx =
          _mm256_add_pd(_mm256_sub_pd(_mm256_add_pd(sx0, _mm256_mul_pd(a, xs)), half), offset);
      const __m256d fy = _mm256_add_pd(
          _mm256_sub_pd(_mm256_sub_pd(top, _mm256_add_pd(sy0, _mm256_mul_pd(b, xs))), half),
          offset);
      low = _mm256_or_pd(low, _mm256_or_pd(fx, fy));  // a negative one has its sign set
      cs[h] = _mm_sub_epi32(_mm256_cvttpd_epi32(fx), _mm_set1_epi32(kOffset));
      rs[h] = _mm_sub_epi32(_mm256_cvttpd_epi32(fy), _mm_set1_epi32(kOffset));
      wxs[h] = _mm256_cvtpd_ps(_mm256_sub_pd(fx, _mm256_floor_pd(fx)));
      wys[h] = _mm256_cvtpd_ps(_mm256_sub_pd(fy, _mm256_floor_pd(fy)));
    }
    const __m256i c = _mm256_set_m128i(cs[1], cs[0]), r = _mm256_set_m128i(rs[1], rs[0]);
    // All four taps of every pixel inside the source, else the caller's.
    const __m256i outside =
        _mm256_or_si256(_mm256_or_si256(_mm256_cmpgt_epi32(c0, c),
                                        _mm256_cmpgt_epi32(_mm256_add_epi32(c, one), c1)),
                        _mm256_or_si256(_mm256_cmpgt_epi32(r0, r),
                                        _mm256_cmpgt_epi32(_mm256_add_epi32(r, one), r1)));
    if (_mm256_movemask_pd(low) || !_mm256_testz_si256(outside, outside))
      return x;
    const __m256 wx = _mm256_set_m128(wxs[1], wxs[0]), wy = _mm256_set_m128(wys[1], wys[0]);
    const __m256i at =
        _mm256_add_epi32(_mm256_mullo_epi32(r, rowBytes), _mm256_mullo_epi32(c, pixelBytes));
    // Each pixel's two taps of a row are side by side: read as one 8-byte
    // value (reads of their own wait on memory apart from each other,
    // where a gather waits for all eight), then parted into the left taps
    // and the right ones.
    alignas(32) int32_t offsets[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(offsets), at);
    const __m256i upper0 = tapPairs(bytes, offsets), upper1 = tapPairs(bytes, offsets + 4);
    const __m256i lower0 = tapPairs(bytes + stride, offsets),
                  lower1 = tapPairs(bytes + stride, offsets + 4);
    const Pixels8 p00 = decodePixels8(_mm256_permute2x128_si256(upper0, upper1, 0x20), ri, lut),
                  p10 = decodePixels8(_mm256_permute2x128_si256(upper0, upper1, 0x31), ri, lut),
                  p01 = decodePixels8(_mm256_permute2x128_si256(lower0, lower1, 0x20), ri, lut),
                  p11 = decodePixels8(_mm256_permute2x128_si256(lower0, lower1, 0x31), ri, lut);
    __m256 ch[4];
    for (int k = 0; k < 4; ++k) {
      const __m256 upper =
          _mm256_add_ps(p00.ch[k], _mm256_mul_ps(wx, _mm256_sub_ps(p10.ch[k], p00.ch[k])));
      const __m256 lower =
          _mm256_add_ps(p01.ch[k], _mm256_mul_ps(wx, _mm256_sub_ps(p11.ch[k], p01.ch[k])));
      ch[k] = _mm256_add_ps(upper, _mm256_mul_ps(wy, _mm256_sub_ps(lower, upper)));
    }
    storePixels8(out, ch);
  }
  return x;
}
#endif

// The common case, kept tight: an 8-bit source, unmasked, its taps all
// inside the source except near an edge.
void sampleRasterSpan(const SampleRow& line, const Span& span) {
  const Source& s = line.op.source;
  const float* lut = line.lut;
  const uint8_t* bytes = s.raster->bytes;
  const size_t stride = s.raster->stride;
  const int ri = s.raster->bgra ? 2 : 0;
  auto decode = [&](const uint8_t* p) {
    return Float4{lut[p[ri]], lut[p[1]], lut[p[2 - ri]], 1.0f} * (p[3] * (1.0f / 255));
  };
  const bool across = line.op.inverse.b != 0;
  const int c0 = s.c0, c1 = s.c1, r0 = s.r0, r1 = s.r1;
  const double a = line.op.inverse.a, b = line.op.inverse.b;
  // Where the taps of the pixel kAhead on lie, stepped along the row.
  double ax = tapColumn(line, span.x0 + kAhead), ay = tapRow(line, span.x0 + kAhead);
  for (int x = span.x0; x < span.x1; ++x, ax += a, ay -= b) {
#ifdef VN_WIDE_SAMPLE
    static const bool wide = __builtin_cpu_supports("avx2");
    if (wide && wideSamplingAllowed && (x - span.x0) % 8 == 0) {
      const int from = x;
      x = sampleRasterSpanWide(line, x, span.x1);
      if (x == span.x1)
        break;
      ax += a * (x - from);
      ay -= b * (x - from);
    }
#endif
    if (across)
      prefetchTaps(bytes, stride, c0, c1, r0, r1, ax, ay);
    const double fx = tapColumn(line, x), fy = tapRow(line, x);
    const int c = static_cast<int>(fx) - kOffset, r = static_cast<int>(fy) - kOffset;
    if (fx < 0 || fy < 0 || c < c0 || c + 1 >= c1 || r < r0 || r + 1 >= r1) {
      samplePixel(line, x);  // near an edge
      continue;
    }
    const float wx = static_cast<float>(fx - std::floor(fx)),
                wy = static_cast<float>(fy - std::floor(fy));
    const uint8_t* p = bytes + size_t(r) * stride + size_t(c) * 4;
    const Float4 p00 = decode(p), p10 = decode(p + 4);
    const Float4 p01 = decode(p + stride), p11 = decode(p + stride + 4);
    const Float4 upper = p00 + wx * (p10 - p00);
    const Float4 lower = p01 + wx * (p11 - p01);
    store4(line.row + size_t(x - line.region.x) * 4, upper + wy * (lower - upper));
  }
}

// Samples the row; returns where it may be other than transparent.
Span runSample(const RowOp& op, float* row, double y, const IntRect& region) {
  Span span = maskSpan(op.masks, y, region);
  const Source& s = op.source;
  if (s.c1 <= s.c0 || s.r1 <= s.r0) {
    clearOutside(row, region, region.x, region.x);
    return Span{region.x, region.x};
  }
  const AffineTransform& t = op.inverse;
  const SampleRow line{
      op,
      row,
      y,
      region,
      srgbToLinearTable(),
      t.a * 0.5 + t.c * y + t.tx - s.originX,
      t.b * 0.5 + t.d * y + t.ty - s.originY,
      double(s.height),
      std::all_of(op.masks.begin(), op.masks.end(), [](const Mask& m) { return m.axisAligned; })};
  // Keep the pixels whose position reaches a tap of the source's kept area.
  if (!s.clamp) {
    limitSpan(span, line.sx0, t.a, s.c0 - 0.5, s.c1 + 0.5);
    limitSpan(span, line.sy0, t.b, line.top - s.r1 - 0.5, line.top - s.r0 + 0.5);
  }
  if (op.copy && !s.clamp)
    return copyRow(line, span);
  clearOutside(row, region, span.x0, span.x1);
  if (line.plainMasks && !s.clamp && s.raster) {
    sampleRasterSpan(line, span);
    return span;
  }
  for (int x = span.x0; x < span.x1; ++x)
    samplePixel(line, x);
  return span;
}

constexpr float kLumaR = 0.2125f, kLumaG = 0.7154f, kLumaB = 0.0721f;

// c' = M · (r, g, b, 1), alpha kept.
void runColorMatrix(const ColorMatrixOp& op, float* row, int width) {
  // Columns of the matrix as four-float values (alpha lanes 0).
  const auto& m = op.m;
  const Float4 c0 = {m[0][0], m[1][0], m[2][0], 0}, c1 = {m[0][1], m[1][1], m[2][1], 0};
  const Float4 c2 = {m[0][2], m[1][2], m[2][2], 0}, c3 = {m[0][3], m[1][3], m[2][3], 0};
  for (int i = 0; i < width; ++i) {
    float* p = row + size_t(i) * 4;
    const Float4 v = load4(p);
    Float4 out = c0 * v[0] + c1 * v[1] + c2 * v[2] + c3;
    out[3] = v[3];
    store4(p, out);
  }
}

// Grey by luma, overlay-blended with a colour, mixed with the input.
void runMonochrome(const MonochromeOp& mono, float* row, int width) {
  const float k[3] = {mono.color[0], mono.color[1], mono.color[2]};
  const float t = mono.intensity;
  for (int i = 0; i < width; ++i) {
    float* c = row + size_t(i) * 4;
    const float luma = kLumaR * c[0] + kLumaG * c[1] + kLumaB * c[2];
    for (int n = 0; n < 3; ++n) {
      const float m = luma < 0.5f ? 2 * luma * k[n] : 1 - 2 * (1 - luma) * (1 - k[n]);
      c[n] += t * (m - c[n]);
    }
  }
}

// A spotlight on the flat picture.
void runSpotLight(const SpotLightOp& s, float* row, int width, double x0, double y) {
  thread_local std::vector<float> factors;
  factors.resize(size_t(width));
  spotLightFactors(s, x0, y, width, factors.data());
  for (int i = 0; i < width; ++i) {
    float* c = row + size_t(i) * 4;
    for (int n = 0; n < 3; ++n)
      c[n] *= s.color[n] * factors[size_t(i)];
  }
}

// A monochrome line halftone of the row's luma.
void runLineScreen(const LineScreenOp& ls, float* row, int width, double x0, double y) {
  // The signed distance across the lines grows along the row by -sin.
  const double nx = -std::sin(ls.angle), ny = std::cos(ls.angle);
  const double width1 = std::max(ls.width, 1.0);
  const double w = 1 - ls.sharpness;
  const double d0 = (x0 - ls.center[0]) * nx + (y - ls.center[1]) * ny;
  for (int i = 0; i < width; ++i) {
    float* c = row + size_t(i) * 4;
    const float luma = kLumaR * c[0] + kLumaG * c[1] + kLumaB * c[2];
    const double t = (d0 + i * nx) / width1;
    const double threshold = std::abs(2 * (t - std::floor(t)) - 1);
    const double o = w <= 1e-6 ? (luma >= threshold ? 1.0 : 0.0)
                               : std::clamp((luma - threshold) / w + 0.5, 0.0, 1.0);
    c[0] = c[1] = c[2] = static_cast<float>(o);
  }
}

// One point stage over a row of unpremultiplied colour (alpha lanes left
// alone), pixel i of the row having its centre at (x0 + i, y).
void runStage(const PointOp& op, float* row, int width, double x0, double y) {
  switch (op.index()) {
    case 0:
      runColorMatrix(std::get<ColorMatrixOp>(op), row, width);
      return;
    case 1:
      runMonochrome(std::get<MonochromeOp>(op), row, width);
      return;
    case 2:
      runSpotLight(std::get<SpotLightOp>(op), row, width, x0, y);
      return;
    case 3:
      runLineScreen(std::get<LineScreenOp>(op), row, width, x0, y);
      return;
  }
}

void runPoint(const RowOp& op, float* row, double y, const IntRect& region) {
  const int width = region.width;
  if (op.stages.size() == 1 && op.stages[0].index() == 0) {
    // The common case in one loop: one fused colour matrix, its columns as
    // four-float values (the alpha lane of each is 0; alpha is put back).
    const auto& m = std::get<ColorMatrixOp>(op.stages[0]).m;
    const Float4 c0 = {m[0][0], m[1][0], m[2][0], 0}, c1 = {m[0][1], m[1][1], m[2][1], 0};
    const Float4 c2 = {m[0][2], m[1][2], m[2][2], 0}, c3 = {m[0][3], m[1][3], m[2][3], 0};
    for (int i = 0; i < width; ++i) {
      float* p = row + size_t(i) * 4;
      const float a = p[3];
      if (!(a > 0)) {
        store4(p, Float4{0, 0, 0, 0});
        continue;
      }
      const Float4 v = load4(p);
      const float inv = 1 / a;
      Float4 out = (c0 * (v[0] * inv) + c1 * (v[1] * inv) + c2 * (v[2] * inv) + c3) * a;
      out[3] = a;
      store4(p, out);
    }
    return;
  }
  // Alpha is divided out once, the stages run one after another over the
  // row, and alpha goes back in once.
  for (int i = 0; i < width; ++i) {
    float* p = row + size_t(i) * 4;
    const float a = p[3];
    if (a > 0 && a != 1) {
      Float4 v = load4(p) * (1 / a);
      v[3] = a;
      store4(p, v);
    }
  }
  for (const PointOp& stage : op.stages)
    runStage(stage, row, width, region.x + 0.5, y);
  for (int i = 0; i < width; ++i) {
    float* p = row + size_t(i) * 4;
    const float a = p[3];
    if (!(a > 0)) {
      store4(p, Float4{0, 0, 0, 0});
    } else if (a != 1) {
      Float4 v = load4(p) * a;
      v[3] = a;
      store4(p, v);
    }
  }
}

void runMask(const RowOp& op, float* row, double y, const IntRect& region) {
  const Span span = maskSpan(op.masks, y, region);
  std::fill(row, row + size_t(span.x0 - region.x) * 4, 0.0f);
  std::fill(row + size_t(span.x1 - region.x) * 4, row + size_t(region.width) * 4, 0.0f);
  if (std::all_of(op.masks.begin(), op.masks.end(), [](const Mask& m) { return m.axisAligned; }))
    return;  // the span is all they keep
  for (int x = span.x0; x < span.x1; ++x) {
    if (!insideOtherMasks(op.masks, x + 0.5, y))
      std::fill(row + size_t(x - region.x) * 4, row + size_t(x - region.x + 1) * 4, 0.0f);
  }
}

}  // namespace

void runRow(const Program& program, std::vector<float>& registers, int j, float* result) {
  const IntRect& region = program.region;
  const size_t width4 = size_t(region.width) * 4;
  const auto reg = [&](int k) {
    return result && k == program.result ? result : registers.data() + k * width4;
  };
  const double y = region.top() - j - 0.5;
  // Where each register may hold other than transparent pixels, as floats
  // of the row [first, last): a composite reads no further.
  thread_local std::vector<std::pair<size_t, size_t>> held;
  held.assign(size_t(program.registers), {0, width4});
  for (const RowOp& op : program.ops) {
    float* dst = reg(op.dst);
    switch (op.kind) {
      case RowOp::Kind::kSample: {
        const Span span = runSample(op, dst, y, region);
        const int x0 = std::clamp(span.x0, region.x, region.right());
        const int x1 = std::clamp(span.x1, x0, region.right());
        held[size_t(op.dst)] = {size_t(x0 - region.x) * 4, size_t(x1 - region.x) * 4};
        break;
      }
      case RowOp::Kind::kFill: {
        const Float4 color = load4(op.color);
        for (size_t i = 0; i < width4; i += 4)
          store4(dst + i, color);
        held[size_t(op.dst)] = {0, width4};
        break;
      }
      case RowOp::Kind::kPoint:
        runPoint(op, dst, y, region);
        break;
      case RowOp::Kind::kMask:
        runMask(op, dst, y, region);
        break;
      case RowOp::Kind::kOver: {
        const float* src = reg(op.src);
        const auto [first, last] = held[size_t(op.src)];
        auto& mine = held[size_t(op.dst)];
        if (first < last)
          mine = {std::min(mine.first, first), std::max(mine.second, last)};
        for (size_t i = first; i < last; i += 4) {
          if (src[i + 3] == 0)
            continue;
          store4(dst + i, load4(src + i) + load4(dst + i) * (1 - src[i + 3]));
        }
        break;
      }
      case RowOp::Kind::kIn: {
        const float* src = reg(op.src);
        held[size_t(op.dst)] = {0, width4};
        for (size_t i = 0; i < width4; i += 4) {
          const float coverage = dst[i + 3];
          for (int k = 0; k < 4; ++k)
            dst[i + k] = src[i + k] * coverage;
        }
        break;
      }
    }
  }
}

const float* directRow(const Program& program, int j) {
  if (program.ops.size() != 1)
    return nullptr;
  const RowOp& op = program.ops.front();
  const Source& s = op.source;
  if (op.kind != RowOp::Kind::kSample || !op.copy || !s.pixels || s.clamp ||
      op.dst != program.result ||
      !std::all_of(op.masks.begin(), op.masks.end(), [](const Mask& m) { return m.axisAligned; }))
    return nullptr;
  const IntRect& region = program.region;
  const double y = region.top() - j - 0.5;
  const Span span = maskSpan(op.masks, y, region);
  // The row and columns copyRow would read.
  const int r = copiedRow(s, op.copyDy, y);
  const int shift = copiedShift(s, op.copyDx);
  if (span.x0 != region.x || span.x1 != region.right() || r < s.r0 || r >= s.r1 ||
      region.x + shift < s.c0 || region.right() + shift > s.c1)
    return nullptr;
  return s.pixels->row(r) + size_t(region.x + shift) * 4;
}

void executeBytes(const Program& program,
                  const BytePass& pass,
                  int threads,
                  uint8_t* out,
                  size_t stride) {
  const IntRect& region = program.region;
  const Source& s = pass.source;
  const int rows = region.height;
  const int bands = (rows + kBandRows - 1) / kBandRows;
  // Output pixel x reads source column x + shift; the row as copyRow finds
  // it.
  const int shift = copiedShift(s, pass.copyDx);
  const int x0 = std::clamp(s.c0 - shift, region.x, region.right());
  const int x1 = std::clamp(s.c1 - shift, x0, region.right());
  std::shared_ptr<const std::vector<float>> factors;
  if (pass.table->positional())
    factors = pass.table->factorsFor(region, threads);
  parallelFor(bands, threads, [&](int band) {
    for (int j = band * kBandRows; j < std::min(rows, (band + 1) * kBandRows); ++j) {
      uint8_t* o = out + size_t(j) * stride;
      const double y = region.top() - j - 0.5;
      const int r = copiedRow(s, pass.copyDy, y);
      if (r < s.r0 || r >= s.r1 || x1 <= x0) {
        std::memset(o, 0, size_t(region.width) * 4);
        continue;
      }
      std::memset(o, 0, size_t(x0 - region.x) * 4);
      std::memset(o + size_t(x1 - region.x) * 4, 0, size_t(region.right() - x1) * 4);
      const uint8_t* in = s.raster->bytes + size_t(r) * s.raster->stride + size_t(x0 + shift) * 4;
      const float* rowFactors =
          factors ? factors->data() + size_t(j) * region.width + (x0 - region.x) : nullptr;
      pass.table->apply(in, s.raster->bgra, o + size_t(x0 - region.x) * 4, x1 - x0, rowFactors);
    }
  });
}

std::shared_ptr<const PixelBuffer> reduce(const Source& s, int kx, int ky, int threads) {
  const int w = (s.c1 - s.c0 + kx - 1) / kx, h = (s.r1 - s.r0 + ky - 1) / ky;
  // The reduced pixel (i, j) averages source columns c0 + i*kx .. and rows
  // r0 + j*ky ..; it is placed in its own raster space, mapped back by the
  // caller.
  auto out = std::make_shared<PixelBuffer>(IntRect{0, 0, w, h});
  const float* lut = srgbToLinearTable();
  const float scale = 1.0f / (kx * ky);
  parallelFor(h, threads, [&](int j) {
    float* o = out->row(j);
    for (int i = 0; i < w; ++i) {
      Float4 acc = {0, 0, 0, 0};
      for (int r = s.r0 + j * ky; r < std::min(s.r0 + (j + 1) * ky, s.r1); ++r) {
        for (int c = s.c0 + i * kx; c < std::min(s.c0 + (i + 1) * kx, s.c1); ++c) {
          acc += fetch(s, lut, c, r);
        }
      }
      store4(o + i * 4, acc * scale);
    }
  });
  return out;
}

bool renderKernelBytes(const NodePtr& node,
                       const IntRect& region,
                       int threads,
                       uint8_t* out,
                       size_t stride,
                       FilterImage::RenderStats* stats) {
  // Crops that keep every pixel of the region, or all of their input, change nothing.
  const auto keeps = [](const Rect& crop, const Rect& r) {
    return crop.x <= r.x && crop.y <= r.y && crop.x + crop.width >= r.x + r.width &&
           crop.y + crop.height >= r.y + r.height;
  };
  const Node* n = node.get();
  while (n->kind == Node::Kind::kCrop &&
         (keeps(n->rect, toRect(region)) || keeps(n->rect, n->a->extent)))
    n = n->a.get();
  if (n->kind != Node::Kind::kKernel || n->a->kind != Node::Kind::kRaster)
    return false;
  const Node& raster = *n->a;
  const Raster8 bytes{raster.bytes, raster.width, raster.height, static_cast<size_t>(raster.stride),
                      raster.bgra};
  if (const auto* op = std::get_if<HexagonalPixellateOp>(&n->kernel))
    hexagonalPixellateBytes(*op, bytes, region, out, stride, threads);
  else if (const auto* blur = std::get_if<GaussianBlurOp>(&n->kernel);
           !blur || !gaussianBlurBytes(*blur, bytes, region, out, stride, threads))
    return false;
  ++stats->neighbourhoodPasses;
  return true;
}

std::shared_ptr<const PixelBuffer> materialize(const NodePtr& node,
                                               const IntRect& region,
                                               int threads,
                                               FilterImage::RenderStats* stats) {
  ++stats->materialized;
  if (node->kind == Node::Kind::kKernel) {
    const IntRect inputExtent = integral(node->a->extent);
    const IntRect need = region.grown(kernelReach(node->kernel)).intersected(inputExtent);
    const std::shared_ptr<const PixelBuffer> input =
        need.isEmpty() ? std::make_shared<const PixelBuffer>(IntRect{region.x, region.y, 0, 0})
                       : materialize(node->a, need, threads, stats);
    ++stats->neighbourhoodPasses;
    return std::make_shared<const PixelBuffer>(
        applyKernel(node->kernel, *input, inputExtent, region, threads));
  }
  Program program = compile(node, region, threads);
  // Every row is written below: the program makes its result in place.
  auto out = std::make_shared<PixelBuffer>(region, PixelBuffer::Unset{});
  const int bands = (region.height + kBandRows - 1) / kBandRows;
  parallelFor(bands, threads, [&](int band) {
    std::vector<float> registers(size_t(region.width) * 4 * program.registers);
    for (int j = band * kBandRows; j < std::min(region.height, (band + 1) * kBandRows); ++j)
      runRow(program, registers, j, out->row(j));
  });
  stats->resamplingPasses += program.stats.resamplingPasses;
  stats->colorPasses += program.stats.colorPasses;
  stats->neighbourhoodPasses += program.stats.neighbourhoodPasses;
  stats->materialized += program.stats.materialized;
  return out;
}

void allowWideSampling(bool allow) {
  wideSamplingAllowed = allow;
}

#ifdef VN_WIDE_SAMPLE
namespace {
// decodeRow eight pixels at a time; returns how many it did.
__attribute__((target("avx2"))) int decodeRowWide(const uint8_t* in,
                                                  int ri,
                                                  const float* lut,
                                                  int n,
                                                  float* out) {
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    if ((i & 15) == 0)
      __builtin_prefetch(in + size_t(i) * 4 + 1024);
    const Pixels8 p = decodePixels8(
        _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + size_t(i) * 4)), ri, lut);
    storePixels8(out + size_t(i) * 4, p.ch);
  }
  return i;
}
}  // namespace
#endif

void decodeRow(const uint8_t* in, bool bgra, int n, float* out) {
  const float* lut = srgbToLinearTable();
  const int ri = bgra ? 2 : 0;
  int done = 0;
#ifdef VN_WIDE_SAMPLE
  static const bool wide = __builtin_cpu_supports("avx2");
  if (wide && wideSamplingAllowed)
    done = decodeRowWide(in, ri, lut, n, out);
#endif
  for (int i = done; i < n; ++i) {
    // A cache line asked for a few lines ahead of its first read.
    if ((i & 15) == 0)
      __builtin_prefetch(in + size_t(i) * 4 + 1024);
    store4(out + size_t(i) * 4, decodePixel(in + size_t(i) * 4, ri, lut));
  }
}

namespace {

// The code of a pixel's three colours, already unpremultiplied and put into
// [kFloor, 1], and of its alpha.
inline uint32_t pixelCodeOf(const SrgbEncodeTables& codes, const float* c, uint32_t alpha) {
  return uint32_t{codes.encodeClamped(c[0])} | uint32_t{codes.encodeClamped(c[1])} << 8 |
         uint32_t{codes.encodeClamped(c[2])} << 16 | alpha << 24;
}

#ifdef VN_WIDE_ENCODE
// encodeRow's arithmetic, operation for operation, on two pixels in the two
// halves of a register, the codes and edges of their bins gathered. Returns
// how many pixels it did (the rest are left for the plain loop).
__attribute__((target("avx2"))) int encodeRowWide(const SrgbEncodeTables& codes,
                                                  const float* in,
                                                  uint8_t* out,
                                                  int width) {
  const __m256 floor = _mm256_set1_ps(SrgbEncodeTables::kFloor), one = _mm256_set1_ps(1),
               zero = _mm256_setzero_ps(), scale = _mm256_set1_ps(255), half = _mm256_set1_ps(0.5f);
  const __m256i firstBin = _mm256_set1_epi32(SrgbEncodeTables::kFirstBin),
                byte = _mm256_set1_epi32(0xFF), alphaCodes = _mm256_set1_epi32(255);
  // The first byte of each of a half's four lanes, side by side.
  const __m256i lowBytes =
      _mm256_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, 4, 8, 12, -1,
                       -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  int i = 0;
  for (; i + 2 <= width; i += 2, in += 8, out += 8) {
    if ((i & 15) == 0)
      __builtin_prefetch(out + 2048, 1);
    __m256 c = _mm256_loadu_ps(in);
    const __m256 a = _mm256_permute_ps(c, 0xFF);
    const __m256 partial =
        _mm256_and_ps(_mm256_cmp_ps(a, zero, _CMP_GT_OQ), _mm256_cmp_ps(a, one, _CMP_LT_OQ));
    // (A division is slow: opaque pixels, the most, are spared it.)
    if (_mm256_movemask_ps(partial))
      c = _mm256_blendv_ps(c, _mm256_mul_ps(c, _mm256_div_ps(one, a)), partial);
    // max returns its second operand for a NaN, as the plain loop's clamp does.
    c = _mm256_min_ps(_mm256_max_ps(c, floor), one);
    const __m256i bin = _mm256_sub_epi32(
        _mm256_srai_epi32(_mm256_castps_si256(c), SrgbEncodeTables::kDropped), firstBin);
    // A bin's code, one more from its edge on.
    const __m256i code = _mm256_and_si256(
        _mm256_i32gather_epi32(reinterpret_cast<const int*>(codes.code), bin, 1), byte);
    const __m256 edge = _mm256_i32gather_ps(codes.edge, bin, 4);
    __m256i pixel = _mm256_sub_epi32(code, _mm256_castps_si256(_mm256_cmp_ps(c, edge, _CMP_GE_OQ)));
    // The alpha code (alphaCode's arithmetic) in the fourth lane, and a
    // pixel that is not opaque at all transparent black.
    const __m256i alpha =
        _mm256_blendv_epi8(_mm256_cvttps_epi32(_mm256_add_ps(_mm256_mul_ps(a, scale), half)),
                           alphaCodes, _mm256_castps_si256(_mm256_cmp_ps(a, one, _CMP_GE_OQ)));
    pixel = _mm256_blend_epi32(pixel, alpha, 0x88);
    pixel = _mm256_and_si256(pixel, _mm256_castps_si256(_mm256_cmp_ps(a, zero, _CMP_GT_OQ)));
    pixel = _mm256_shuffle_epi8(pixel, lowBytes);
    _mm_storel_epi64(
        reinterpret_cast<__m128i*>(out),
        _mm_unpacklo_epi32(_mm256_castsi256_si128(pixel), _mm256_extracti128_si256(pixel, 1)));
  }
  return i;
}
#endif

}  // namespace

void encodeRow(const float* in, uint8_t* out, int width) {
  const SrgbEncodeTables codes = srgbEncodeTables();
  int done = 0;
#ifdef VN_WIDE_ENCODE
  static const bool wide = __builtin_cpu_supports("avx2");
  if (wide)
    done = encodeRowWide(codes, in, out, width);
#endif
  const Float4 floor = {SrgbEncodeTables::kFloor, SrgbEncodeTables::kFloor,
                        SrgbEncodeTables::kFloor, SrgbEncodeTables::kFloor};
  const Float4 one = {1, 1, 1, 1};
  in += size_t(done) * 4;
  out += size_t(done) * 4;
  for (int i = done; i < width; ++i, in += 4, out += 4) {
    // The output's cache lines (sixteen pixels each) asked for, to be
    // written, a few lines ahead: the loop is otherwise held up at each
    // line's first write.
    if ((i & 15) == 0)
      __builtin_prefetch(out + 2048, 1);
    const float a = in[3];
    if (!(a > 0)) {
      std::memset(out, 0, 4);
      continue;
    }
    Float4 c = load4(in);
    if (a < 1)
      c *= 1 / a;
    // The three colours clamped at once, then encoded.
    c = c > floor ? c : floor;
    c = c < one ? c : one;
    float clamped[4];
    std::memcpy(clamped, &c, sizeof clamped);
    const uint32_t code = pixelCodeOf(codes, clamped, alphaCode(a));
    std::memcpy(out, &code, 4);
  }
}

}  // namespace vn
