#include "effects/effect_video_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
#include <libavutil/pixfmt.h>
}

#include "effects/effect_manager.h"
#include "effects/picture_settings.h"
#include "ffmpeg/owners.h"
#include "media/media_test_support.h"
#include "text/text_image.h"

namespace {

using vn::FilterImage;
using vn::Rect;
using vn::test::psnr;
using vn::test::Raster;

// The media the pictures pretend to come from: 320x240 yuv420p.
constexpr int kWidth = 320;
constexpr int kHeight = 240;

// A mid-grey picture, of the media's size unless asked, the top `whiteRows` rows white.
vn::ff::Frame greyFrame(int whiteRows = 0, int width = kWidth, int height = kHeight) {
  return vn::test::yuvFrame(width, height, 128, whiteRows);
}

// A stream over h264_aac.mp4's format, with an output of w x h.
std::shared_ptr<VNFFEffectVideoStream> streamFor(int w, int h) {
  auto stream = VNFFEffectVideoStream::create();
  stream->setMedia(vn::test::openWhole("h264_aac.mp4"));
  stream->setOutputFormat({AV_PIX_FMT_RGBA, w, h});
  stream->setCropRect({0, 0, kWidth, kHeight});
  stream->updateConverter();
  return stream;
}

// The image over its extent's whole pixels (a centred subtitle may start half way into one).
Raster rendered(const FilterImage& image, vn::ImageRenderStats* stats = nullptr) {
  const Rect e = image.extent();
  const double left = std::floor(e.x), bottom = std::floor(e.y);
  const Rect whole{left, bottom, std::ceil(e.x + e.width) - left,
                   std::ceil(e.y + e.height) - bottom};
  Raster r{int(whole.width), int(whole.height), {}};
  r.rgba = image.render(whole, {0, stats});
  return r;
}

// Black, or a grey picture's soft edge covering less than half of the pixel.
bool black(const uint8_t* p) {
  return p[0] < 64 && p[1] < 64 && p[2] < 64;
}

bool white(const uint8_t* p) {
  return p[0] > 240 && p[1] > 240 && p[2] > 240;
}

// Widths of the black bars on each side of a composed frame: left, right, top, bottom.
using Bars = std::array<int, 4>;

Bars barsOf(const Raster& r) {
  const auto blackLine = [&](bool column, int i) {
    for (int j = 0; j < (column ? r.height : r.width); ++j)
      if (!black(column ? r.at(i, j) : r.at(j, i)))
        return false;
    return true;
  };
  const auto bar = [&](bool column, bool fromEnd) {
    const int size = column ? r.width : r.height;
    int n = 0;
    while (n < size && blackLine(column, fromEnd ? size - 1 - n : n))
      ++n;
    return n;
  };
  return {bar(true, false), bar(true, true), bar(false, false), bar(false, true)};
}

// A stream with an output of w x h and no picture: the subtitle needs only the output size.
std::shared_ptr<VNFFEffectVideoStream> subtitleStream() {
  auto s = VNFFEffectVideoStream::create();
  s->setOutputFormat({AV_PIX_FMT_RGBA, kWidth, kHeight});
  s->setSubtitleFont("Sans 20");
  return s;
}

// The box of the pixels that pass `ink`, in the raster (top row 0), edges inclusive.
struct Box {
  int left = 1 << 30, top = 1 << 30, right = -1, bottom = -1;
  bool empty() const { return right < 0; }
};

template <typename Ink>
Box boxOf(const Raster& r, Ink ink) {
  Box b;
  for (int y = 0; y < r.height; ++y)
    for (int x = 0; x < r.width; ++x)
      if (ink(r.at(x, y)))
        b = {std::min(b.left, x), std::min(b.top, y), std::max(b.right, x), std::max(b.bottom, y)};
  return b;
}

bool opaque(const uint8_t* p) {
  return p[3] > 128;
}

// The placed subtitle image for text, or none.
std::optional<FilterImage> subtitleFor(VNFFEffectVideoStream& s, const std::string& text) {
  s.setSubtitleCurrentString(text);
  return s.currentSubtitleImage();
}

// A preset that calls back when the composition takes its copy, half-way through a picture.
class Hook final : public vn::ImageFilter {
 public:
  explicit Hook(std::function<void()> onCopy) : ImageFilter("Hook"), onCopy_(std::move(onCopy)) {}
  std::optional<vn::FilterImage> outputImage() const override { return std::nullopt; }
  std::shared_ptr<vn::ImageFilter> copy() const override {
    onCopy_();
    return std::make_shared<Hook>(onCopy_);
  }

 private:
  std::function<void()> onCopy_;
};

}  // namespace

TEST(EffectVideoStreamTest, ZoomTypesPlaceThePictureInTheOutputFrame) {
  // What, zoom, crop of the 320x240 picture, output size, bars.
  using Case = std::tuple<const char*, int32_t, Rect, int, int, Bars>;
  const Rect whole{0, 0, kWidth, kHeight}, wide{0, 30, 320, 180};
  const Case cases[] = {
      {"fit 4:3 in 16:9: equal bars left and right", 5, whole, 640, 360, {80, 80, 0, 0}},
      {"4:3 box", 4, whole, 640, 360, {80, 80, 0, 0}},
      {"16:9 box stretches a 4:3 picture", 3, whole, 640, 360, {0, 0, 0, 0}},
      {"stretch", 1, whole, 640, 360, {0, 0, 0, 0}},
      {"panscan of 4:3 in 16:9 fills the width and cuts", 6, whole, 640, 360, {0, 0, 0, 0}},
      {"panscan of 16:9 in 4:3 leaves bars above and below", 6, wide, 320, 240, {0, 0, 30, 30}},
      {"fit of 16:9 in 4:3 too", 5, wide, 320, 240, {0, 0, 30, 30}},
      {"zoom 0 is the background only", 0, whole, 320, 240, {320, 320, 240, 240}},
  };
  for (const auto& [what, zoom, crop, outW, outH, bars] : cases) {
    SCOPED_TRACE(what);
    auto stream = streamFor(outW, outH);
    stream->setZoomType(zoom);
    stream->setCropRect(crop);
    stream->writeFrame(greyFrame().get());
    const Raster r = rendered(*stream->currentEffectImage());
    ASSERT_EQ(std::pair(r.width, r.height), std::pair(outW, outH));
    EXPECT_EQ(barsOf(r), bars);
    if (crop.height == kHeight && (zoom == 5 || zoom == 6)) {
      // A white band of 30 rows on top, 60 once doubled: panscan cuts it.
      stream->writeFrame(greyFrame(30).get());
      const Raster banded = rendered(*stream->currentEffectImage());
      EXPECT_EQ(white(banded.at(320, 2)), zoom == 5);
    }
  }
}

TEST(EffectVideoStreamTest, WatermarkShowsOnTheBackgroundAndFlipsEqualAHalfTurn) {
  auto stream = streamFor(kWidth, kHeight);
  // A real decoded picture, so that every direction is told apart.
  std::shared_ptr<VNFFMedia> media = stream->media();
  AVFrame* frame = media->videoFrameAtTime(3'000'000);
  ASSERT_TRUE(frame && frame->data[0]);
  auto compose = [&](bool h, bool v, float degrees) {
    stream->setHflip(h);
    stream->setVflip(v);
    stream->setRotate(degrees);
    stream->writeFrame(frame);
    return rendered(*stream->currentEffectImage());
  };
  const Raster flipped = compose(true, true, 0);
  const Raster turned = compose(false, false, 180);
  const Raster plain = compose(false, false, 0);
  EXPECT_GE(psnr(flipped, turned), 45);
  EXPECT_LT(psnr(flipped, plain), 30);
  // Each flip alone mirrors along its own axis: left-right, top-bottom.
  for (const bool horizontal : {true, false}) {
    const Raster one = compose(horizontal, !horizontal, 0);
    Raster mirrored = plain;
    for (int y = 0; y < plain.height; ++y) {
      for (int x = 0; x < plain.width; ++x) {
        const uint8_t* from =
            horizontal ? plain.at(plain.width - 1 - x, y) : plain.at(x, plain.height - 1 - y);
        std::copy(from, from + 4, mirrored.rgba.begin() + (size_t(y) * plain.width + x) * 4);
      }
    }
    EXPECT_GE(psnr(one, mirrored), 45) << (horizontal ? "hflip" : "vflip");
  }
  // Neutral settings at the media's size: the converted picture itself (rows may be padded).
  Raster converted{kWidth, kHeight, {}};
  const vn::BitmapImage bitmap = *stream->currentImage();
  for (int y = 0; y < kHeight; ++y)
    converted.rgba.insert(converted.rgba.end(), bitmap.row(y), bitmap.row(y) + kWidth * 4);
  EXPECT_GE(psnr(plain, converted), 45);

  // Zoom 0: black, with the watermark at its own place and size.
  std::vector<uint8_t> mark(16 * 8 * 4);
  for (size_t i = 0; i < mark.size(); i += 4)
    mark[i] = 255, mark[i + 3] = 255;
  stream->setWatermark(FilterImage::fromRaster(mark.data(), 16, 8, 64, FilterImage::ByteOrder::RGBA)
                           ->translated(10, 20));
  stream->setZoomType(0);
  stream->writeFrame(frame);
  const Raster r = rendered(*stream->currentEffectImage());
  // Picture space is y up: the mark's rows 20..27 are rows 212..219 from the top.
  EXPECT_EQ(r.at(10, 212)[0] + r.at(25, 219)[0], 2 * 255);
  EXPECT_TRUE(black(r.at(9, 212)) && black(r.at(10, 211)) && black(r.at(160, 120)));
}

TEST(EffectVideoStreamTest, PicturesComeFromTheGraphOrTheProvidersCopy) {
  // Without a graph nothing is kept.
  auto idle = VNFFEffectVideoStream::create();
  idle->writeFrame(greyFrame().get());
  EXPECT_FALSE(idle->currentImage() || idle->currentEffectImage());
  auto stream = streamFor(640, 360);
  // The picture keeps the media's size; only the composed one is resized.
  EXPECT_EQ(std::pair(stream->outputDataFormat().width, stream->outputDataFormat().height),
            std::pair(kWidth, kHeight));
  stream->writeFrame(greyFrame().get());
  ASSERT_TRUE(stream->currentImage());
  EXPECT_EQ((std::vector<double>{double(stream->currentImage()->width()),
                                 stream->currentCIImage()->extent().width,
                                 stream->currentEffectImage()->extent().width}),
            (std::vector<double>{kWidth, kWidth, 640}));
  const vn::BitmapImage kept = *stream->currentImage();
  const uint8_t grey = kept.data()[0];
  EXPECT_NEAR(grey, 130, 2);

  // A provider's buffer holds the copy the images are made from.
  int32_t asked = 0;
  VNFFEffectVideoStream::DataBuffer given;
  stream->writeFrame(greyFrame(kHeight).get(), [&](int32_t size) {
    asked = size;
    given = std::make_shared<std::vector<uint8_t>>(size_t(size));
    return given;
  });
  EXPECT_GE(asked, kWidth * kHeight * 4);
  ASSERT_EQ(stream->dataBuffer(), given);
  EXPECT_TRUE(white(given->data()));
  (*given)[0] = 7;
  EXPECT_EQ(stream->currentImage()->data()[0], 7);
  // An image handed out earlier keeps its own picture.
  EXPECT_EQ(kept.data()[0], grey);

  // A provider that gives nothing leaves the images to the graph's picture.
  stream->writeFrame(greyFrame().get(), [](int32_t) { return nullptr; });
  EXPECT_FALSE(stream->dataBuffer());
  EXPECT_EQ(stream->currentImage()->data()[0], grey);

  // Pictures that change size on the way are converted at their new size.
  stream->writeFrame(greyFrame(0, 64, 48).get());
  ASSERT_TRUE(stream->currentImage());
  EXPECT_EQ(std::pair(double(stream->currentImage()->width()),
                      stream->currentEffectImage()->extent().width),
            std::pair(64.0, 640.0));

  // A frame without pixels only drops the picture.
  stream->writeFrame(nullptr);
  EXPECT_FALSE(stream->currentImage() || stream->currentEffectImage());
}

// The scaler called directly gives the graph's picture byte for byte, laid out as the graph lays
// it out, for every kind of picture a decoder hands out: 4:2:0 with its chroma between the lines,
// other subsamplings, more than 8 bits, semi-planar, grey, palettes and RGB; each matrix and
// range a file may tag, and none. A picture already in the output format passes unchanged.
TEST(EffectVideoStreamTest, TheScalerGivesTheGraphsPictureByteForByte) {
  struct Kind {
    AVPixelFormat format;
    AVColorSpace space;
    AVColorRange range;
  };
  const Kind kinds[] = {
      {AV_PIX_FMT_YUV420P, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG},
      {AV_PIX_FMT_YUV420P, AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_UNSPECIFIED},
      {AV_PIX_FMT_YUV420P, AVCOL_SPC_SMPTE170M, AVCOL_RANGE_JPEG},
      {AV_PIX_FMT_YUV420P, AVCOL_SPC_YCGCO, AVCOL_RANGE_MPEG},
      {AV_PIX_FMT_YUVJ420P, AVCOL_SPC_BT470BG, AVCOL_RANGE_JPEG},
      {AV_PIX_FMT_YUV422P, AVCOL_SPC_BT2020_NCL, AVCOL_RANGE_MPEG},
      {AV_PIX_FMT_YUV444P, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG},
      {AV_PIX_FMT_YUV420P10LE, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG},
      {AV_PIX_FMT_NV12, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG},
      {AV_PIX_FMT_GRAY8, AVCOL_SPC_UNSPECIFIED, AVCOL_RANGE_JPEG},
      {AV_PIX_FMT_PAL8, AVCOL_SPC_RGB, AVCOL_RANGE_JPEG},
      {AV_PIX_FMT_RGB24, AVCOL_SPC_RGB, AVCOL_RANGE_JPEG},
      {AV_PIX_FMT_RGBA, AVCOL_SPC_RGB, AVCOL_RANGE_JPEG},
  };
  uint32_t seed = 12345;
  auto random = [&seed] { return (seed = seed * 1664525u + 1013904223u) >> 24; };
  for (const Kind& kind : kinds) {
    for (const auto& [w, h] : {std::pair(64, 48), std::pair(853, 37), std::pair(1, 1)}) {
      SCOPED_TRACE(std::string(av_get_pix_fmt_name(kind.format)) + " " + std::to_string(w) + "x" +
                   std::to_string(h) + " space " + std::to_string(kind.space) + " range " +
                   std::to_string(kind.range));
      vn::ff::Frame frame(av_frame_alloc());
      frame->format = kind.format;
      frame->width = w;
      frame->height = h;
      frame->colorspace = kind.space;
      frame->color_range = kind.range;
      ASSERT_GE(av_frame_get_buffer(frame.get(), 0), 0);
      for (int p = 0; p < 4 && frame->buf[p]; ++p) {
        for (size_t i = 0; i < frame->buf[p]->size; ++i)
          frame->buf[p]->data[i] = static_cast<uint8_t>(random());
      }
      // Samples of more than 8 bits inside their range.
      if (kind.format == AV_PIX_FMT_YUV420P10LE) {
        for (int p = 0; p < 3; ++p) {
          for (int y = 0; y < (p ? (h + 1) / 2 : h); ++y) {
            auto* row = reinterpret_cast<uint16_t*>(frame->data[p] + y * frame->linesize[p]);
            for (int x = 0; x < (p ? (w + 1) / 2 : w); ++x)
              row[x] &= 0x3ff;
          }
        }
      }
      std::vector<std::vector<uint8_t>> pictures;
      std::vector<int> strides;
      for (const bool scaler : {false, true}) {
        auto stream = VNFFEffectVideoStream::create();
        stream->setOutputFormat({AV_PIX_FMT_RGBA, w, h});
        stream->setConvertsWithScaler(scaler);
        stream->updateConverter();
        // The second picture shows that a scaler kept from the first converts alike.
        stream->writeFrame(frame.get());
        stream->writeFrame(frame.get());
        const std::optional<vn::BitmapImage> image = stream->currentImage();
        ASSERT_TRUE(image);
        ASSERT_EQ(std::pair(image->width(), image->height()), std::pair(w, h));
        std::vector<uint8_t> bytes;
        for (int y = 0; y < h; ++y) {
          const uint8_t* row = image->data() + static_cast<size_t>(y) * image->bytesPerRow();
          bytes.insert(bytes.end(), row, row + w * 4);
        }
        pictures.push_back(std::move(bytes));
        strides.push_back(image->bytesPerRow());
      }
      EXPECT_EQ(strides[0], strides[1]);
      EXPECT_TRUE(pictures[0] == pictures[1]);
    }
  }
}

TEST(EffectVideoStreamTest, AComposedFrameRendersInOneResamplingAndOneColourPass) {
  auto stream = streamFor(1280, 720);
  stream->setCropRect({10, 12, 300, 220});
  stream->setRotate(10);
  stream->setHflip(true);
  stream->setSaturation(0.7f);
  stream->setBrightness(0.55f);
  stream->setContrast(0.3f);
  stream->setHue(0.6f);
  stream->setEffectName("1970");
  std::vector<uint8_t> mark(64 * 32 * 4, 200);
  stream->setWatermark(
      FilterImage::fromRaster(mark.data(), 64, 32, 256, FilterImage::ByteOrder::RGBA));
  stream->writeFrame(greyFrame().get());
  vn::ImageRenderStats stats;
  const Raster r = rendered(*stream->currentEffectImage(), &stats);
  // The picture's crop, turn, flip and zoom are one resampling; the watermark is laid as it is.
  EXPECT_EQ(std::tuple(r.width, stats.resamplingPasses, stats.colorPasses, stats.materialized),
            std::tuple(1280, 2, 1, 0));
  // The preset's filter follows the two colour controls; an unknown preset adds nothing.
  EXPECT_EQ(stream->effectFilter().size(), 3u);
  stream->setEffectName("no such preset");
  EXPECT_EQ(stream->effectFilter().size(), 2u);
}

// Settings swapped while pictures are composed (by a thread, and by the preset half-way through):
// each picture shows one whole value, never one's crop with the other's flip or watermark.
TEST(PictureSettingsTest, ACompositionSeesOneWholeValue) {
  constexpr int kOutW = 32, kOutH = 24;
  const vn::ff::Frame frame = vn::test::yuvFrame(kWidth, kHeight, 128, kHeight / 4);
  ASSERT_TRUE(frame);

  // whole: the whole picture, upright; rows (top first) 0-5 white. topHalf: the top half upside
  // down under a white strip; rows 8-9 and 12-23 white. Any mix of the two gives another pattern.
  PictureSettings whole;
  whole.outputFormat = {AV_PIX_FMT_RGBA, kOutW, kOutH};
  whole.zoomType = VNFFEffectVideoStream::kZoomStretch;
  whole.cropRect = {0, 0, kWidth, kHeight};
  whole.effectName = "Hook";
  PictureSettings topHalf = whole;
  topHalf.cropRect = {0, kHeight / 2, kWidth, kHeight / 2};
  topHalf.vflip = true;
  topHalf.watermark = vn::FilterImage::withColor({1, 1, 1, 1}).cropped({0, 14, kOutW, 2});
  const std::string wholeRows = "WWWWWW..................";
  const std::string topHalfRows = "........WW..WWWWWWWWWWWW";

  auto stream = VNFFEffectVideoStream::create();
  // The preset turns the settings over while each picture is composed.
  const std::shared_ptr<EffectManager> manager = EffectManager::manager();
  const std::shared_ptr<const EffectManager::EffectTable> presets = manager->effects();
  EffectManager::EffectTable withHook = *presets;
  withHook["Hook"] = std::make_shared<Hook>(
      [&] { stream->setPictureSettings(stream->pictureSettings().vflip ? whole : topHalf); });
  manager->setEffects(std::move(withHook));
  stream->setPictureSettings(whole);
  stream->updateConverter();  // no media: the first picture gives the format
  stream->writeFrame(frame.get());

  std::atomic<bool> stop{false};
  std::thread setter([&] {
    for (int i = 0; !stop.load(); ++i) {
      if (i % 2)
        stream->setPictureSettings(topHalf);
      else
        stream->changePictureSettings([&](PictureSettings& s) { s = whole; });
      // A single setter changes its field of the whole value only.
      stream->setSaturation(0.5f);
    }
  });
  for (int i = 0; i < 100; ++i) {
    const std::optional<vn::FilterImage> image = stream->currentEffectImage();
    ASSERT_TRUE(image);
    const std::vector<uint8_t> rgba = image->render(vn::Rect{0, 0, kOutW, kOutH});
    ASSERT_EQ(rgba.size(), size_t{kOutW * kOutH * 4});
    std::string rows;
    for (int y = 0; y < kOutH; ++y)
      rows += rgba[(size_t(y) * kOutW + kOutW / 2) * 4] > 200 ? 'W' : '.';
    ASSERT_TRUE(rows == wholeRows || rows == topHalfRows) << "picture " << i << ": " << rows;
  }
  stop.store(true);
  setter.join();
  manager->setEffects(*presets);
  const PictureSettings last = stream->pictureSettings();
  EXPECT_EQ(last.vflip, last.cropRect.height == kHeight / 2);
  EXPECT_EQ(last.saturation, 0.5f);
}

TEST(SubtitleDrawingTest, TextIsPlacedByPositionWrappedAndClampedToTheFrame) {
  // What, text, position, shown, text lines expected by height (0: as many as fit).
  using Case = std::tuple<const char*, std::string, float, bool, int>;
  std::string many;
  for (int i = 0; i < 30; ++i)
    many += "line " + std::to_string(i) + "\n";
  const Case cases[] = {
      {"one word at the bottom", "Hello", 0, true, 1},
      {"trimmed ends", " \n\tHello \r\n", 0, true, 1},
      {"inner line break", "Hello\nWorld", 0, true, 2},
      {"raised to mid-height", "Hello", 0.5f, true, 1},
      {"long line wraps",
       "A line far too long for the width of a small frame, so that it has to wrap", 0, true, 3},
      {"white space only", " \t\n \xc2\xa0 ", 0, false, 0},
      {"position 1 leaves no room", "Hello", 1, false, 0},
      {"too many lines for the frame", many, 0, true, 0},
      {"too many lines for the upper half", many, 0.5f, true, 0},
  };
  const int lineHeight =
      static_cast<int>(vn::textImage("Hg", "Sans 20", {1, 1, 1, 1}).extent().height);
  for (const auto& [name, text, position, shown, lines] : cases) {
    SCOPED_TRACE(name);
    auto s = subtitleStream();
    s->setSubtitlePosition(position);
    const std::optional<FilterImage> image = subtitleFor(*s, text);
    ASSERT_EQ(image.has_value(), shown);
    if (!shown)
      continue;
    const Rect e = image->extent();
    // Bottom at the position's height, within the frame's width and the room above.
    EXPECT_DOUBLE_EQ(e.y, position * kHeight);
    EXPECT_LE(e.width, kWidth);
    const double room = (1 - position) * kHeight;
    EXPECT_LE(e.height, room);
    if (lines > 0) {
      EXPECT_NEAR(e.height, lines * lineHeight, lineHeight / 2.0);
    } else {
      EXPECT_GT(e.height, room - 40);
    }
    // Centred across the frame: equal margins of drawn pixels.
    const Raster r = rendered(*image);
    const Box ink = boxOf(r, opaque);
    ASSERT_FALSE(ink.empty());
    const double left = std::floor(e.x) + ink.left,
                 right = kWidth - (std::floor(e.x) + ink.right + 1);
    EXPECT_NEAR(left, right, 2.0) << "left " << left << " right " << right;
  }
}

TEST(SubtitleDrawingTest, ATextIsDrawnOncePerDistinctTextAndSetting) {
  auto s = subtitleStream();
  std::vector<int> draws;  // the render count after each text shown
  const auto show = [&](const std::string& text) {
    std::optional<FilterImage> image = subtitleFor(*s, text);
    draws.push_back(s->subtitleRenderCount());
    return image;
  };
  const std::optional<FilterImage> first = show("Hello");
  ASSERT_TRUE(first);
  show("Hello");  // the cached image
  // No text shows nothing and keeps the cache: the text coming back after the gap is not drawn.
  EXPECT_FALSE(subtitleFor(*s, ""));
  s->setSubtitleCurrentString(std::nullopt);
  EXPECT_FALSE(s->currentSubtitleImage());
  show("Hello");
  // A new font alone keeps the old picture until the text changes or the cache is emptied.
  s->setSubtitleFont("Sans 40");
  EXPECT_EQ(show("Hello")->extent().height, first->extent().height);
  s->updateSubtitle();
  EXPECT_GT(show("Hello")->extent().height, 1.6 * first->extent().height);
  show("World");
  EXPECT_EQ(draws, (std::vector<int>{1, 1, 1, 1, 2, 3}));
}

TEST(SubtitleDrawingTest, OutlineAndShadowMakeWhiteTextReadableOnWhite) {
  // Dark pixels in the drawn text: none for the bare look; around the glyphs with an outline; below
  // and to the right with a shadow.
  const auto dark = [](const uint8_t* p) {
    return p[3] > 128 && p[0] < 60 && p[1] < 60 && p[2] < 60;
  };
  using Case = std::tuple<float, float, bool>;
  for (const auto& [outline, shadow, darkPixels] :
       {Case{0, 0, false}, Case{2, 0, true}, Case{0, 3, true}, Case{2, 3, true}}) {
    auto s = subtitleStream();
    s->setSubtitleOutlineWidth(outline);
    s->setSubtitleShadowOffset(shadow);
    const Raster r = rendered(*subtitleFor(*s, "Hello"));
    const Box edge = boxOf(r, dark);
    const Box glyphs = boxOf(r, [](const uint8_t* p) { return p[3] > 200 && p[0] > 128; });
    EXPECT_EQ(!edge.empty(), darkPixels) << outline << " " << shadow;
    if (edge.empty())
      continue;
    // The dark ring reaches past the glyphs by the outline width (plus the shadow's offset to the
    // right and below).
    EXPECT_NEAR(glyphs.left - edge.left, outline > 0 ? outline : -shadow, 1.5);
    EXPECT_NEAR(edge.right - glyphs.right, outline + shadow, 1.5);
    EXPECT_NEAR(edge.bottom - glyphs.bottom, outline + shadow, 1.5);
  }
}

TEST(SubtitleDrawingTest, TheTextIsDrawnLastOverTheComposedPicture) {
  auto s = streamFor(kWidth, kHeight);
  s->writeFrame(vn::test::yuvFrame(kWidth, kHeight, 16).get());  // black
  s->setSubtitleFont("Sans 30");
  s->setSubtitleCurrentString("Hello");
  // The settings that change the picture leave the text as it is: not flipped, not darkened.
  s->setHflip(true);
  s->setBrightness(0.2f);
  const Raster r = rendered(*s->currentEffectImage());
  ASSERT_EQ(std::pair(r.width, r.height), std::pair(kWidth, kHeight));
  // Where the text is solid, the frame shows exactly the text's pixels.
  const std::optional<FilterImage> text = s->currentSubtitleImage();
  ASSERT_TRUE(text);
  Raster alone{kWidth, kHeight, text->render(Rect{0, 0, kWidth, kHeight})};
  int solid = 0;
  for (size_t i = 0; i < alone.rgba.size(); i += 4)
    if (alone.rgba[i + 3] == 255 && ++solid) {
      ASSERT_EQ(0, std::memcmp(&alone.rgba[i], &r.rgba[i], 3)) << "pixel " << i / 4;
    }
  EXPECT_GT(solid, 100);
  // At the bottom of the frame, centred.
  const Box ink = boxOf(alone, opaque);
  EXPECT_GT(ink.top, kHeight / 2);
  EXPECT_NEAR(ink.left, kWidth - 1 - ink.right, 2);
}
