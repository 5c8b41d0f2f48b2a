#include "output/image_colorspace_converter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include "image/bitmap_context.h"
#include "image/bitmap_image.h"
#include "image/filter_image.h"

namespace {

// A packed RGBA picture whose every pixel differs from its neighbours.
std::vector<uint8_t> gradient(int width, int height, int seed) {
  std::vector<uint8_t> rgba(static_cast<size_t>(width) * height * 4);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      uint8_t* p = &rgba[(static_cast<size_t>(y) * width + x) * 4];
      p[0] = static_cast<uint8_t>(x * 7 + seed);
      p[1] = static_cast<uint8_t>(y * 5 + seed);
      p[2] = static_cast<uint8_t>((x + y) * 3);
      p[3] = 255;
    }
  return rgba;
}

std::vector<uint8_t> outputPixels(VNFFImageColorspaceConverter& c) {
  const AVFrame* f = c.outputFrame();
  std::vector<uint8_t> rgba;
  for (int y = 0; y < f->height; ++y)
    rgba.insert(rgba.end(), f->data[0] + y * f->linesize[0],
                f->data[0] + y * f->linesize[0] + f->width * 4);
  return rgba;
}

class ImageColorspaceConverterTest : public ::testing::Test {
 protected:
  std::shared_ptr<VNFFImageColorspaceConverter> converter = VNFFImageColorspaceConverter::create();
  void setOutput(int pixFmt, int width, int height) {
    converter->setOutputFormat({pixFmt, width, height});
  }
};

TEST_F(ImageColorspaceConverterTest, ZeroSizeStaysEmpty) {
  const auto pixels = gradient(8, 8, 0);
  for (auto size : {std::pair{0, 0}, std::pair{8, 0}, std::pair{0, 8}}) {
    setOutput(AV_PIX_FMT_RGBA, size.first, size.second);
    converter->convertBytes(pixels.data(), AV_PIX_FMT_RGBA);
    converter->convertBitmapImage(vn::BitmapImage::copyOf(pixels.data(), 8, 8, 32));
    EXPECT_TRUE(converter->isOutputEmpty());
    EXPECT_FALSE(converter->outputImage());
    EXPECT_FALSE(converter->createCGContext());
  }
}

// Same size and format: the bytes come through unchanged, and the output image shares the buffer
// (and keeps the converter alive). The output is fixed at the first conversion.
TEST_F(ImageColorspaceConverterTest, BytesComeThroughIntoASharedFixedOutput) {
  setOutput(AV_PIX_FMT_RGBA, 16, 8);
  const auto first = gradient(16, 8, 3), second = gradient(16, 8, 100);
  converter->convertBytes(first.data(), AV_PIX_FMT_RGBA);
  ASSERT_FALSE(converter->isOutputEmpty());
  EXPECT_EQ(outputPixels(*converter), first);
  auto image = converter->outputImage();
  ASSERT_TRUE(image);
  EXPECT_EQ(image->row(3)[4 * 2], first[(3 * 16 + 2) * 4]);
  converter->convertBytes(second.data(), AV_PIX_FMT_RGBA);
  EXPECT_EQ(image->row(3)[4 * 2], second[(3 * 16 + 2) * 4]);

  setOutput(AV_PIX_FMT_YUV420P, 32, 32);
  const auto bigger = gradient(32, 32, 1);
  converter->convertBytes(bigger.data(), AV_PIX_FMT_RGBA);
  const AVFrame* f = converter->outputFrame();
  EXPECT_EQ(std::tuple(f->width, f->height, f->format), std::tuple(16, 8, int(AV_PIX_FMT_RGBA)));
  const std::vector<uint8_t> last = outputPixels(*converter);
  converter.reset();
  EXPECT_EQ(image->row(7)[4 * 15 + 1], last[(7 * 16 + 15) * 4 + 1]);
}

// Frames of another size and format are scaled to the output, stretched.
TEST_F(ImageColorspaceConverterTest, FramesAreScaledAndConverted) {
  setOutput(AV_PIX_FMT_YUV420P, 64, 32);
  auto frame = vn::ff::makeFrame();
  frame->width = frame->height = 16;
  frame->format = AV_PIX_FMT_RGBA;
  ASSERT_GE(av_frame_get_buffer(frame.get(), 0), 0);
  // Left half white, right half black.
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 16; ++x)
      for (int c = 0; c < 4; ++c)
        frame->data[0][y * frame->linesize[0] + x * 4 + c] = x < 8 ? 255 : (c == 3 ? 255 : 0);
  converter->convertFrame(frame.get());
  const AVFrame* out = converter->outputFrame();
  ASSERT_EQ(out->format, AV_PIX_FMT_YUV420P);
  // Limited-range luma: white 235, black 16; the edge lands mid-picture.
  EXPECT_NEAR(out->data[0][10 * out->linesize[0] + 5], 235, 2);
  EXPECT_NEAR(out->data[0][10 * out->linesize[0] + 58], 16, 2);
  // Rows of a planar output are too short to read as RGBA.
  EXPECT_FALSE(converter->outputImage());

  // A format the scaler cannot read leaves the previous picture.
  const uint8_t before = out->data[0][10 * out->linesize[0] + 5];
  frame->format = AV_PIX_FMT_NONE;
  converter->convertFrame(frame.get());
  EXPECT_EQ(out->data[0][10 * out->linesize[0] + 5], before);
}

// A context is read as RGBA of the output size: its padding byte becomes alpha. One too small to
// hold that picture is not read at all.
TEST_F(ImageColorspaceConverterTest, ContextsAreReadAsRGBA) {
  setOutput(AV_PIX_FMT_RGBA, 8, 4);
  auto context = converter->createCGContext();
  ASSERT_TRUE(context);
  EXPECT_EQ(std::pair(context->width(), context->bytesPerRow()), std::pair(8, 32));
  const auto pixels = gradient(8, 4, 9);
  context->drawImage(vn::BitmapImage::copyOf(pixels.data(), 8, 4, 32),
                     vn::BitmapContext::Composite::kCopy);
  converter->convertContext(*context);
  EXPECT_EQ(outputPixels(*converter), pixels);

  converter->convertContext(*vn::BitmapContext::create(4, 4));
  EXPECT_EQ(outputPixels(*converter), pixels);
}

// Images are drawn stretched over the converter's own context: bitmaps laid over it by
// convertBitmapImage, replacing it by convertImage; filter images laid over.
TEST_F(ImageColorspaceConverterTest, ImagesAreDrawnOverOrReplace) {
  setOutput(AV_PIX_FMT_RGBA, 4, 4);
  const uint8_t red[4] = {255, 0, 0, 255};
  const uint8_t halfBlue[4] = {0, 0, 255, 128};
  const auto redImage = vn::BitmapImage::copyOf(red, 1, 1, 4);
  const auto blueImage = vn::BitmapImage::copyOf(halfBlue, 1, 1, 4);

  converter->convertImage(redImage);
  converter->convertBitmapImage(blueImage);
  auto over = outputPixels(*converter);
  ASSERT_EQ(over.size(), 64u);
  EXPECT_NEAR(over[0], 127, 1);
  EXPECT_NEAR(over[2], 128, 1);
  EXPECT_EQ((std::pair<int, int>(over[1], over[3])), (std::pair<int, int>(0, 255)));

  converter->convertImage(redImage);
  converter->convertImage(blueImage);
  auto copy = outputPixels(*converter);
  EXPECT_EQ(copy[0], 0);
  EXPECT_NEAR(copy[2], 128, 1);  // premultiplied onto nothing: darkened
  EXPECT_EQ(copy[60], copy[0]);  // stretched over the whole context

  // A filter image's extent is rendered and laid over, stretched: 2 x 1, placed away from the
  // origin: half-transparent blue, opaque green.
  const uint8_t pixels[8] = {0, 0, 255, 128, 0, 255, 0, 255};
  converter->convertImage(redImage);
  auto image = vn::FilterImage::fromRaster(pixels, 2, 1, 8, vn::FilterImage::ByteOrder::RGBA);
  ASSERT_TRUE(image);
  converter->convertImage(image->translated(50, -20));
  const auto out = outputPixels(*converter);
  // Top left: red under half blue, mixed in linear light; bottom right: green.
  EXPECT_EQ(std::vector(out.begin(), out.begin() + 4), (std::vector<uint8_t>{187, 0, 188, 255}));
  EXPECT_EQ(std::vector(out.end() - 4, out.end()), (std::vector<uint8_t>{0, 255, 0, 255}));
}

}  // namespace
