#include "image/point_table.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <variant>

#include "base/parallel.h"
#include "image/srgb.h"

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define VN_WIDE_LOOP 1
#endif

namespace vn {

// The run as [pre] [monochrome] [post], in double precision; `single` when
// it is one matrix, whose float coefficients are then kept as they are so
// that the sums match the float rows term for term.
struct PointTable::Terms {
  double pre[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
  double post[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
  bool mono = false;
  double intensity = 0;
  double color[3] = {0, 0, 0};
  const ColorMatrixOp* single = nullptr;
  const SpotLightOp* spot = nullptr;
};

namespace {

// The luma weights of the monochrome (as the float rows use them).
constexpr float kLuma[3] = {0.2125f, 0.7154f, 0.0721f};

void toDouble(const ColorMatrixOp& op, double m[3][4]) {
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c)
      m[r][c] = op.m[r][c];
}

// The stages in the form the tables hold, or false.
bool readStages(const std::vector<PointOp>& stages, PointTable::Terms* terms) {
  enum { kStart, kAfterPre, kAfterMono, kEnd } state = kStart;
  for (const PointOp& stage : stages) {
    if (const auto* m = std::get_if<ColorMatrixOp>(&stage)) {
      if (state == kStart) {
        toDouble(*m, terms->pre);
        state = kAfterPre;
      } else if (state == kAfterMono) {
        toDouble(*m, terms->post);
        state = kEnd;
      } else {
        return false;
      }
    } else if (const auto* mono = std::get_if<MonochromeOp>(&stage)) {
      if (state != kStart && state != kAfterPre)
        return false;
      terms->mono = true;
      terms->intensity = mono->intensity;
      for (int n = 0; n < 3; ++n)
        terms->color[n] = mono->color[n];
      state = kAfterMono;
    } else if (const auto* spot = std::get_if<SpotLightOp>(&stage)) {
      if (state != kStart && state != kAfterPre)
        return false;
      terms->spot = spot;
      state = kEnd;
    } else {
      return false;
    }
  }
  if (state == kAfterPre || (terms->spot && stages.size() == 2))
    terms->single = std::get_if<ColorMatrixOp>(&stages.front());
  return true;
}

bool diagonal(const double m[3][4]) {
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c)
      if (r != c && m[r][c] != 0)
        return false;
  return true;
}

// What identifies a run: its stages' kinds and parameters, byte for byte.
std::string keyOf(const std::vector<PointOp>& stages) {
  std::string key;
  for (const PointOp& stage : stages) {
    key.push_back(static_cast<char>(stage.index()));
    if (const auto* m = std::get_if<ColorMatrixOp>(&stage))
      key.append(reinterpret_cast<const char*>(m->m), sizeof m->m);
    else if (const auto* mono = std::get_if<MonochromeOp>(&stage)) {
      key.append(reinterpret_cast<const char*>(mono->color), sizeof mono->color);
      key.append(reinterpret_cast<const char*>(&mono->intensity), sizeof mono->intensity);
    } else if (const auto* spot = std::get_if<SpotLightOp>(&stage)) {
      const double numbers[8] = {spot->position[0], spot->position[1],  spot->position[2],
                                 spot->pointsAt[0], spot->pointsAt[1],  spot->pointsAt[2],
                                 spot->brightness,  spot->concentration};
      key.append(reinterpret_cast<const char*>(numbers), sizeof numbers);
      key.append(reinterpret_cast<const char*>(spot->color), sizeof spot->color);
    }
  }
  return key;
}

// The encoding of a sum: a table over the float's exponent and its leading
// mantissa bits (1024 bins per octave from kLowest up to 1), each bin the
// code of its middle. A bin is at most 1/1024 of its value wide, so a code
// is off only for a value within a tenth of a code of a rounding boundary,
// and then by one; below kLowest the code is 0.
constexpr float kLowest = 1.0f / (1 << 20);
constexpr int kDropped = 23 - 10;
const int kFirstBin = std::bit_cast<int32_t>(kLowest) >> kDropped;

const uint8_t* encodeTable() {
  static const std::vector<uint8_t> table = [] {
    const int last = std::bit_cast<int32_t>(1.0f) >> kDropped;
    // Three bytes more: the wide loop reads four bytes at a bin.
    std::vector<uint8_t> codes(size_t(last - kFirstBin + 1) + 3);
    for (int bin = kFirstBin; bin <= last; ++bin) {
      const float lo = std::bit_cast<float>(bin << kDropped);
      const float hi = std::bit_cast<float>((bin + 1) << kDropped);
      codes[size_t(bin - kFirstBin)] = linearToSrgb(bin == last ? 1.0f : 0.5f * (lo + hi));
    }
    return codes;
  }();
  return table.data();
}

}  // namespace

void spotLightFactors(const SpotLightOp& s, double x0, double y, int width, float* out) {
  const double ax = s.pointsAt[0] - s.position[0], ay = s.pointsAt[1] - s.position[1],
               az = s.pointsAt[2] - s.position[2];
  const double an = std::sqrt(ax * ax + ay * ay + az * az);
  const float exponent = static_cast<float>(1 / std::max(s.concentration, 0.001));
  const double ly = s.position[1] - y, lz = s.position[2];
  for (int i = 0; i < width; ++i) {
    // From the surface point to the light, against the light's axis.
    const double lx = s.position[0] - (x0 + i);
    const double ln = std::sqrt(lx * lx + ly * ly + lz * lz);
    float factor = 0;
    if (ln > 0 && an > 0) {
      const double dot = -(lx * ax + ly * ay + lz * az) / (ln * an);
      const double lambert = lz / ln;
      if (dot > 0 && lambert > 0) {
        const float spot = std::exp2(exponent * std::log2(static_cast<float>(dot)));
        factor = static_cast<float>(s.brightness * lambert) * spot;
      }
    }
    out[i] = factor;
  }
}

PointTable::PointTable(const Terms& t) {
  const float* lin = srgbToLinearTable();
  spot_ = t.spot != nullptr;
  if (spot_) {
    spotLight_ = *t.spot;
    spotColor_ = Float4{t.spot->color[0], t.spot->color[1], t.spot->color[2], 0};
  }
  separable_ = !t.mono && !spot_ && diagonal(t.pre);
  mono_ = t.mono;
  if (separable_) {
    // One channel at a time, as the float rows compute it: m * v + offset
    // (the other terms are zeros).
    for (int n = 0; n < 3; ++n) {
      const float m = t.single ? t.single->m[n][n] : static_cast<float>(t.pre[n][n]);
      const float off = t.single ? t.single->m[n][3] : static_cast<float>(t.pre[n][3]);
      const SrgbEncodeTables codes = srgbEncodeTables();
      for (int v = 0; v < 256; ++v)
        codes_[n][v] = codes.encode(m * lin[v] + off);
    }
    return;
  }
  if (t.single) {
    const auto& m = t.single->m;
    for (int k = 0; k < 3; ++k) {
      const Float4 column = {m[0][k], m[1][k], m[2][k], 0};
      for (int v = 0; v < 256; ++v)
        terms_[k][v] = column * lin[v];
    }
    offset_ = Float4{m[0][3], m[1][3], m[2][3], 0};
    lowSlope_ = highBase_ = highSlope_ = Float4{0, 0, 0, 0};
    return;
  }
  // c = pre x; u = (1 - t) c + t m(luma(c)), m_j(l) = 2 k_j l below a luma
  // of 1/2 and (2 k_j - 1) + 2 (1 - k_j) l above; out = post u.
  const double keep = t.mono ? 1 - t.intensity : 1;
  double linear[3][3], constant[3];
  for (int n = 0; n < 3; ++n) {
    for (int k = 0; k < 3; ++k) {
      double v = 0;
      for (int j = 0; j < 3; ++j)
        v += t.post[n][j] * t.pre[j][k];
      linear[n][k] = keep * v;
    }
    double c = 0;
    for (int j = 0; j < 3; ++j)
      c += t.post[n][j] * t.pre[j][3];
    constant[n] = keep * c + t.post[n][3];
  }
  double luma[4] = {0, 0, 0, 0};
  for (int k = 0; k < 4; ++k)
    for (int j = 0; j < 3; ++j)
      luma[k] += kLuma[j] * t.pre[j][k];
  for (int k = 0; k < 3; ++k) {
    for (int v = 0; v < 256; ++v) {
      Float4 term;
      for (int n = 0; n < 3; ++n)
        term[n] = static_cast<float>(linear[n][k] * lin[v]);
      term[3] = t.mono ? static_cast<float>(luma[k] * lin[v]) : 0.0f;
      terms_[k][v] = term;
    }
  }
  offset_ = Float4{float(constant[0]), float(constant[1]), float(constant[2]), float(luma[3])};
  lowSlope_ = highBase_ = highSlope_ = Float4{0, 0, 0, 0};
  for (int n = 0; n < 3 && t.mono; ++n) {
    double low = 0, base = 0, slope = 0;
    for (int j = 0; j < 3; ++j) {
      low += t.post[n][j] * 2 * t.color[j];
      base += t.post[n][j] * (2 * t.color[j] - 1);
      slope += t.post[n][j] * 2 * (1 - t.color[j]);
    }
    lowSlope_[n] = static_cast<float>(t.intensity * low);
    highBase_[n] = static_cast<float>(t.intensity * base);
    highSlope_[n] = static_cast<float>(t.intensity * slope);
  }
}

std::shared_ptr<const PointTable> PointTable::forStages(const std::vector<PointOp>& stages) {
  Terms terms;
  if (!readStages(stages, &terms))
    return nullptr;
  // The last few runs, the newest last: a movie renders the same settings
  // picture after picture.
  static std::mutex mutex;
  static std::vector<std::pair<std::string, std::shared_ptr<const PointTable>>> recent;
  constexpr size_t kKept = 16;
  std::string key = keyOf(stages);
  {
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = recent.begin(); it != recent.end(); ++it) {
      if (it->first == key) {
        auto found = std::move(*it);
        recent.erase(it);
        recent.push_back(found);
        return found.second;
      }
    }
  }
  auto table = std::make_shared<const PointTable>(terms);
  std::lock_guard<std::mutex> lock(mutex);
  if (recent.size() >= kKept)
    recent.erase(recent.begin());
  recent.emplace_back(std::move(key), table);
  return table;
}

namespace {
std::atomic<bool> wideLoopAllowed{true};
}  // namespace

void PointTable::applySeparable(const uint8_t* in, bool bgra, uint8_t* out, int n) const {
  const int ri = bgra ? 2 : 0;
  int done = 0;
#ifdef VN_WIDE_LOOP
  static const bool wide =
      __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vbmi");
  if (wide && wideLoopAllowed)
    done = applySeparableWide(in, bgra, out, n);
#endif
  in += size_t(done) * 4;
  out += size_t(done) * 4;
  for (int i = done; i < n; ++i, in += 4, out += 4) {
    const uint8_t a = in[3];
    const uint8_t r = in[ri], g = in[1], b = in[2 - ri];
    if (a == 0) {
      out[0] = out[1] = out[2] = out[3] = 0;
      continue;
    }
    out[0] = codes_[0][r];
    out[1] = codes_[1][g];
    out[2] = codes_[2][b];
    out[3] = a;
  }
}

std::shared_ptr<const std::vector<float>> PointTable::factorsFor(const IntRect& region,
                                                                 int threads) const {
  std::lock_guard<std::mutex> lock(factorsMutex_);
  if (factors_ && factorsRegion_ == region)
    return factors_;
  auto factors = std::make_shared<std::vector<float>>(size_t(region.width) * region.height);
  parallelFor(region.height, threads, [&](int j) {
    spotLightFactors(spotLight_, region.x + 0.5, region.top() - j - 0.5, region.width,
                     factors->data() + size_t(j) * region.width);
  });
  factorsRegion_ = region;
  factors_ = factors;
  return factors_;
}

namespace {

// The four bytes of a pixel: the codes of red, green and blue and the
// alpha code; a transparent pixel becomes transparent black.
inline uint32_t pixelCode(uint32_t red, uint32_t green, uint32_t blue, uint8_t alpha) {
  return alpha ? red | green << 8 | blue << 16 | uint32_t{alpha} << 24 : 0;
}

}  // namespace

void PointTable::allowWideLoop(bool allow) {
  wideLoopAllowed = allow;
}

void PointTable::apply(const uint8_t* in,
                       bool bgra,
                       uint8_t* out,
                       int n,
                       const float* factors) const {
  if (separable_) {
    applySeparable(in, bgra, out, n);
    return;
  }
  int done = 0;
#ifdef VN_WIDE_LOOP
  static const bool wide = __builtin_cpu_supports("avx2");
  if (wide && wideLoopAllowed)
    done = applyWide(in, bgra, out, n, factors);
#endif
  applyPlain(in, bgra, out, done, n, factors);
}

void PointTable::applyPlain(const uint8_t* in,
                            bool bgra,
                            uint8_t* out,
                            int from,
                            int n,
                            const float* factors) const {
  const int ri = bgra ? 2 : 0;
  const uint8_t* encode = encodeTable();
  typedef int32_t Int4 __attribute__((vector_size(16)));
  const Float4 lowest = {kLowest, kLowest, kLowest, kLowest}, one = {1, 1, 1, 1};
  in += size_t(from) * 4;
  out += size_t(from) * 4;
  for (int i = from; i < n; ++i, in += 4, out += 4) {
    const uint8_t a = in[3];
    Float4 s = terms_[0][in[ri]] + terms_[1][in[1]] + terms_[2][in[2 - ri]] + offset_;
    if (mono_) {
      const float luma = s[3];
      s += luma < 0.5f ? lowSlope_ * luma : highBase_ + highSlope_ * luma;
    }
    if (spot_)
      s *= spotColor_ * factors[i];
    // Into [kLowest, 1] (NaN to kLowest), then the table's bin.
    s = s > lowest ? s : lowest;
    s = s < one ? s : one;
    Int4 bin;
    std::memcpy(&bin, &s, sizeof bin);
    bin = (bin >> kDropped) - kFirstBin;
    const uint32_t code = pixelCode(encode[bin[0]], encode[bin[1]], encode[bin[2]], a);
    std::memcpy(out, &code, 4);
  }
}

#ifdef VN_WIDE_LOOP
namespace {

typedef float Lanes4 __attribute__((vector_size(16)));

// lo and hi in the two halves of a register.
__attribute__((target("avx2"))) inline __m256 halves(const Lanes4& lo, const Lanes4& hi) {
  return _mm256_insertf128_ps(
      _mm256_castps128_ps256(_mm_load_ps(reinterpret_cast<const float*>(&lo))),
      _mm_load_ps(reinterpret_cast<const float*>(&hi)), 1);
}

}  // namespace

// The plain loop's arithmetic, operation for operation (no fused
// multiply-adds), on two pixels in the two halves of a register; the
// codes are gathered from the table.
template <bool kMono, bool kSpot>
__attribute__((target("avx2"))) int PointTable::applyWideAs(const uint8_t* in,
                                                            bool bgra,
                                                            uint8_t* out,
                                                            int n,
                                                            const float* factors) const {
  const int ri = bgra ? 2 : 0;
  const uint8_t* encode = encodeTable();
  const __m256 offset = halves(offset_, offset_), lowSlope = halves(lowSlope_, lowSlope_),
               highBase = halves(highBase_, highBase_), highSlope = halves(highSlope_, highSlope_),
               spotColor = halves(spotColor_, spotColor_);
  const __m256 lowest = _mm256_set1_ps(kLowest), one = _mm256_set1_ps(1),
               half = _mm256_set1_ps(0.5f);
  const __m256i firstBin = _mm256_set1_epi32(kFirstBin);
  const __m256i gatherCodes =
      _mm256_setr_epi8(0, 4, 8, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, 4, 8, -1, -1,
                       -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i alphaBytes = _mm_set1_epi32(static_cast<int>(0xFF000000u));
  int i = 0;
  for (; i + 2 <= n; i += 2, in += 8, out += 8) {
    // The cache lines of input and output (sixteen pixels each) asked for
    // a few lines ahead: the loop is otherwise held up at each line's
    // first read and first write.
    if ((i & 15) == 0) {
      __builtin_prefetch(in + 1024);
      __builtin_prefetch(out + 2048, 1);
    }
    const uint8_t* p = in;
    const uint8_t* q = in + 4;
    __m256 s = _mm256_add_ps(halves(terms_[0][p[ri]], terms_[0][q[ri]]),
                             halves(terms_[1][p[1]], terms_[1][q[1]]));
    s = _mm256_add_ps(s, halves(terms_[2][p[2 - ri]], terms_[2][q[2 - ri]]));
    s = _mm256_add_ps(s, offset);
    if constexpr (kMono) {
      const __m256 luma = _mm256_permute_ps(s, 0xFF);
      const __m256 low = _mm256_mul_ps(lowSlope, luma);
      const __m256 high = _mm256_add_ps(highBase, _mm256_mul_ps(highSlope, luma));
      s = _mm256_add_ps(s, _mm256_blendv_ps(high, low, _mm256_cmp_ps(luma, half, _CMP_LT_OQ)));
    }
    if constexpr (kSpot) {
      const __m256 f = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_set1_ps(factors[i])),
                                            _mm_set1_ps(factors[i + 1]), 1);
      s = _mm256_mul_ps(s, _mm256_mul_ps(spotColor, f));
    }
    // max returns its second operand for a NaN, as the plain loop does.
    s = _mm256_min_ps(_mm256_max_ps(s, lowest), one);
    const __m256i bins =
        _mm256_sub_epi32(_mm256_srai_epi32(_mm256_castps_si256(s), kDropped), firstBin);
    // Every lane's code, read as four bytes at its bin (the table has room
    // past its end); each pixel's three codes side by side in the first
    // bytes of its half; the two pixels side by side.
    const __m256i read = _mm256_i32gather_epi32(reinterpret_cast<const int*>(encode), bins, 1);
    const __m256i codes = _mm256_shuffle_epi8(read, gatherCodes);
    __m128i two =
        _mm_unpacklo_epi32(_mm256_castsi256_si128(codes), _mm256_extracti128_si256(codes, 1));
    // The alpha codes kept; a transparent pixel becomes transparent black.
    const __m128i alpha =
        _mm_and_si128(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(in)), alphaBytes);
    two = _mm_andnot_si128(_mm_cmpeq_epi32(alpha, _mm_setzero_si128()), _mm_or_si128(two, alpha));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), two);
  }
  return i;
}

// applySeparable sixteen pixels at a time: each channel's table of 256
// codes held in four registers, looked up for every byte at once (two
// lookups of 128, the high bit choosing), each byte then taking the result
// of its channel's table, the alpha byte kept.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) int
PointTable::applySeparableWide(const uint8_t* in, bool bgra, uint8_t* out, int n) const {
  __m512i table[3][4];
  for (int c = 0; c < 3; ++c)
    for (int k = 0; k < 4; ++k)
      table[c][k] = _mm512_loadu_si512(codes_[c] + 64 * k);
  // Each pixel's bytes put in RGBA order.
  const __m512i toRgba = bgra ? _mm512_set4_epi32(0x0f0c0d0e, 0x0b08090a, 0x07040506, 0x03000102)
                              : _mm512_set4_epi32(0x0f0e0d0c, 0x0b0a0908, 0x07060504, 0x03020100);
  const __m512i alphaBits = _mm512_set1_epi32(static_cast<int>(0xFF000000u));
  constexpr __mmask64 kGreen = 0x2222222222222222, kBlue = 0x4444444444444444,
                      kAlpha = 0x8888888888888888;
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m512i v = _mm512_shuffle_epi8(_mm512_loadu_si512(in + size_t(i) * 4), toRgba);
    const __mmask64 high = _mm512_movepi8_mask(v);
    __m512i looked[3];
    for (int c = 0; c < 3; ++c)
      looked[c] =
          _mm512_mask_blend_epi8(high, _mm512_permutex2var_epi8(table[c][0], v, table[c][1]),
                                 _mm512_permutex2var_epi8(table[c][2], v, table[c][3]));
    __m512i pixels = _mm512_mask_blend_epi8(kGreen, looked[0], looked[1]);
    pixels = _mm512_mask_blend_epi8(kBlue, pixels, looked[2]);
    pixels = _mm512_mask_blend_epi8(kAlpha, pixels, v);
    // A transparent pixel becomes transparent black.
    pixels = _mm512_maskz_mov_epi32(_mm512_test_epi32_mask(v, alphaBits), pixels);
    _mm512_storeu_si512(out + size_t(i) * 4, pixels);
  }
  return i;
}

int PointTable::applyWide(const uint8_t* in,
                          bool bgra,
                          uint8_t* out,
                          int n,
                          const float* factors) const {
  if (mono_)
    return spot_ ? applyWideAs<true, true>(in, bgra, out, n, factors)
                 : applyWideAs<true, false>(in, bgra, out, n, factors);
  return spot_ ? applyWideAs<false, true>(in, bgra, out, n, factors)
               : applyWideAs<false, false>(in, bgra, out, n, factors);
}
#else
int PointTable::applyWide(const uint8_t*, bool, uint8_t*, int, const float*) const {
  return 0;
}
int PointTable::applySeparableWide(const uint8_t*, bool, uint8_t*, int) const {
  return 0;
}
#endif

}  // namespace vn
