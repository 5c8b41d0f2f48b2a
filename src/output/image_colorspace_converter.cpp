#include "output/image_colorspace_converter.h"

#include <cmath>
#include <new>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include "core/log.h"
#include "image/bitmap_context.h"
#include "image/bitmap_image.h"
#include "image/filter_image.h"

std::shared_ptr<VNFFImageColorspaceConverter> VNFFImageColorspaceConverter::create() {
  try {
    return std::shared_ptr<VNFFImageColorspaceConverter>(new VNFFImageColorspaceConverter());
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

VNFFImageColorspaceConverter::VNFFImageColorspaceConverter()
    : outputFormat_{AV_PIX_FMT_RGBA, 0, 0}, outputFrame_(vn::ff::makeFrame()) {}

VNFFImageColorspaceConverter::~VNFFImageColorspaceConverter() = default;

VNFFVideoFormat VNFFImageColorspaceConverter::outputFormat() const {
  std::lock_guard lock(formatLock_);
  return outputFormat_;
}

void VNFFImageColorspaceConverter::setOutputFormat(VNFFVideoFormat format) {
  std::lock_guard lock(formatLock_);
  outputFormat_ = format;
}

const AVFrame* VNFFImageColorspaceConverter::outputFrame() const {
  return outputFrame_.get();
}

bool VNFFImageColorspaceConverter::isOutputEmpty() const {
  return !outputFrame_ || !outputFrame_->data[0];
}

void VNFFImageColorspaceConverter::convertFrame(const AVFrame* src) {
  if (!src)
    return;
  scale(src->data, src->linesize, src->width, src->height, src->format);
}

void VNFFImageColorspaceConverter::convertBytes(const uint8_t* bytes, int32_t format) {
  if (!bytes)
    return;
  const VNFFVideoFormat output = outputFormat();
  const auto pixFmt = static_cast<AVPixelFormat>(format);
  uint8_t* planes[4] = {};
  int linesizes[4] = {};
  if (av_image_fill_linesizes(linesizes, pixFmt, output.width) < 0)
    return;
  if (av_image_fill_pointers(planes, pixFmt, output.height, const_cast<uint8_t*>(bytes),
                             linesizes) < 0)
    return;
  scale(planes, linesizes, output.width, output.height, format);
}

void VNFFImageColorspaceConverter::scale(const uint8_t* const planes[],
                                         const int linesizes[],
                                         int width,
                                         int height,
                                         int format) {
  if (!outputFrame_)
    return;
  AVFrame* out = outputFrame_.get();
  if (!out->data[0]) {
    const VNFFVideoFormat output = outputFormat();
    if (output.width <= 0 || output.height <= 0)
      return;
    const auto pixFmt = static_cast<AVPixelFormat>(output.pix_fmt);
    if (av_image_alloc(out->data, out->linesize, output.width, output.height, pixFmt, 16) < 0)
      return;
    // av_image_alloc makes one allocation starting at the first plane.
    buffer_.reset(out->data[0]);
    out->width = output.width;
    out->height = output.height;
    out->format = pixFmt;
  }

  const auto srcFmt = static_cast<AVPixelFormat>(format);
  if (!planes[0] || !sws_isSupportedInput(srcFmt))
    return;
  SwsContext* scaler = swscontext_.release();
  scaler = sws_getCachedContext(scaler, width, height, srcFmt, out->width, out->height,
                                static_cast<AVPixelFormat>(out->format), SWS_BILINEAR, nullptr,
                                nullptr, nullptr);
  swscontext_.reset(scaler);
  if (!scaler) {
    vn::logFailure("sws_getCachedContext", "no scaler for this conversion");
    return;
  }
  if (matrix_ >= 0) {
    // Both sides in the one matrix, keeping the ranges swscale chose.
    int* inverse = nullptr;
    int* table = nullptr;
    int srcRange = 0, dstRange = 0, brightness = 0, contrast = 0, saturation = 0;
    if (sws_getColorspaceDetails(scaler, &inverse, &srcRange, &table, &dstRange, &brightness,
                                 &contrast, &saturation) >= 0) {
      const int* coefficients = sws_getCoefficients(matrix_);
      sws_setColorspaceDetails(scaler, coefficients, srcRange, coefficients, dstRange, brightness,
                               contrast, saturation);
    }
  }
  if (const int rows = sws_scale(scaler, planes, linesizes, 0, height, out->data, out->linesize);
      rows < 0) {
    vn::logFailure("sws_scale", rows);
  }
}

void VNFFImageColorspaceConverter::convertContext(const vn::BitmapContext& context) {
  const VNFFVideoFormat output = outputFormat();
  if (context.bitsPerPixel() != 32) {
    // The test is made on our own context, not on the one given, and
    // rejects only when both dimensions differ; a missing own context
    // counts as 0 × 0.
    const int ownWidth = cgcontext_ ? cgcontext_->width() : 0;
    const int ownHeight = cgcontext_ ? cgcontext_->height() : 0;
    if (ownWidth != output.width && ownHeight != output.height)
      return;
  }
  // The pixels are read as a packed RGBA picture of the output size; a
  // smaller context would be read past its end.
  const int needed = av_image_get_buffer_size(AV_PIX_FMT_RGBA, output.width, output.height, 1);
  if (needed < 0 || context.byteCount() < static_cast<size_t>(needed))
    return;
  convertBytes(context.data(), AV_PIX_FMT_RGBA);
}

std::shared_ptr<vn::BitmapContext> VNFFImageColorspaceConverter::createCGContext() const {
  const VNFFVideoFormat output = outputFormat();
  return vn::BitmapContext::create(output.width, output.height,
                                   vn::BitmapContext::Alpha::kNoneSkipLast);
}

void VNFFImageColorspaceConverter::createContext() {
  if (!cgcontext_)
    cgcontext_ = createCGContext();
}

void VNFFImageColorspaceConverter::convertDrawing(
    const std::function<void(vn::BitmapContext&)>& draw) {
  createContext();
  if (!cgcontext_)
    return;
  draw(*cgcontext_);
  convertContext(*cgcontext_);
}

void VNFFImageColorspaceConverter::convertBitmapImage(const vn::BitmapImage& image) {
  convertDrawing([&image](vn::BitmapContext& context) {
    context.drawImage(image, vn::BitmapContext::Composite::kSourceOver);
  });
}

void VNFFImageColorspaceConverter::convertImage(const vn::BitmapImage& image) {
  convertDrawing([this, &image](vn::BitmapContext& context) { drawImage(image, context); });
}

void VNFFImageColorspaceConverter::convertImage(const vn::FilterImage& image) {
  convertDrawing([this, &image](vn::BitmapContext& context) { drawImage(image, context); });
}

void VNFFImageColorspaceConverter::drawImage(const vn::BitmapImage& image,
                                             vn::BitmapContext& context) {
  context.drawImage(image, vn::BitmapContext::Composite::kCopy);
}

void VNFFImageColorspaceConverter::drawImage(const vn::FilterImage& image,
                                             vn::BitmapContext& context) {
  // The image's extent, stretched over the whole context and laid over it;
  // an endless or empty image draws nothing.
  image.draw(context, image.extent());
}

std::optional<vn::BitmapImage> VNFFImageColorspaceConverter::outputImage() {
  if (isOutputEmpty())
    return std::nullopt;
  const AVFrame* out = outputFrame_.get();
  vn::BitmapImage image = vn::BitmapImage::borrow(out->data[0], out->width, out->height,
                                                  out->linesize[0], shared_from_this());
  if (image.isEmpty())
    return std::nullopt;
  return image;
}
