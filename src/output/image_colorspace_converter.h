// VNFFImageColorspaceConverter: turns pictures of any kind into one picture
// buffer of a fixed size and FFmpeg pixel format.
//
// Takes decoded FFmpeg frames, raw pixel bytes, bitmap contexts, bitmap
// images and filter images; the movie file writer owns one to feed its video
// encoder. The output buffer is allocated once, at the first conversion, at
// the size and pixel format outputFormat holds at that moment, and is reused
// by every later conversion: set outputFormat before converting.
//
//   empty --(first conversion with a non-zero output size)--> allocated
//
// Every conversion scales to the output size (bilinear) without keeping the
// aspect ratio. Failures are silent: a zero output size or a failed
// allocation leaves the converter empty, an unsupported source format leaves
// the previous output in place.
//
// No locks inside except around outputFormat: the owner calls one converter
// from one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "core/formats.h"
#include "ffmpeg/owners.h"

struct AVFrame;

namespace vn {
class BitmapContext;
class BitmapImage;
class FilterImage;
}  // namespace vn

class VNFFImageColorspaceConverter
    : public std::enable_shared_from_this<VNFFImageColorspaceConverter> {
 public:
  // outputFormat starts as AV_PIX_FMT_RGBA at 0 × 0.
  static std::shared_ptr<VNFFImageColorspaceConverter> create();

  VNFFImageColorspaceConverter(const VNFFImageColorspaceConverter&) = delete;
  VNFFImageColorspaceConverter& operator=(const VNFFImageColorspaceConverter&) = delete;
  ~VNFFImageColorspaceConverter();

  // Size and pixel format of the output. A change after the first
  // conversion does not resize the output; it only affects a bitmap context
  // not yet created and the size checks of convertContext.
  VNFFVideoFormat outputFormat() const;
  void setOutputFormat(VNFFVideoFormat format);

  // The YUV matrix (an AVColorSpace) pictures are read and written with;
  // -1, the default, leaves swscale's own (BT.601).
  void setColorspace(int matrix) { matrix_ = matrix; }

  // The output picture (data, linesize, width, height, format); its first
  // plane is null while the converter is empty. Borrowed: valid while the
  // converter lives, overwritten by every conversion.
  const AVFrame* outputFrame() const;
  bool isOutputEmpty() const;

  // Scales src (read only, not kept) into the output.
  void convertFrame(const AVFrame* src);

  // Converts bytes holding a picture of the output size in pixel format
  // format (an AVPixelFormat), laid out as FFmpeg packs that format with no
  // row padding. bytes must hold that many bytes.
  void convertBytes(const uint8_t* bytes, int32_t format);

  // Converts a bitmap context's pixels, read as RGBA of the output size.
  // A context that is not 32 bits per pixel is converted only when this
  // converter's own context (see createContext) has the output width or the
  // output height. A context holding fewer bytes than an RGBA picture of the
  // output size is not read.
  void convertContext(const vn::BitmapContext& context);

  // A new RGBX context of the output size, owned by the caller; null while
  // the output size is 0.
  std::shared_ptr<vn::BitmapContext> createCGContext() const;

  // Creates the converter's own context (createCGContext) if it has none.
  void createContext();

  // Draws image stretched over the converter's own context, laid over what
  // it held, and converts the context.
  void convertBitmapImage(const vn::BitmapImage& image);

  // Draws image over the converter's own context with drawImage and converts
  // the context.
  void convertImage(const vn::BitmapImage& image);
  void convertImage(const vn::FilterImage& image);

  // Draws a bitmap image stretched over the whole of context, replacing what
  // it held (transparent parts included).
  void drawImage(const vn::BitmapImage& image, vn::BitmapContext& context);
  // Renders a filter image's extent and draws it stretched over the whole of
  // context, laid over what it held. An image that does not render (an
  // infinite extent, a libvips failure) draws nothing.
  void drawImage(const vn::FilterImage& image, vn::BitmapContext& context);

  // An RGBA image over the output buffer, without copying: it keeps this
  // converter alive and shows whatever the next conversion writes. None
  // while the output is empty, or when the output's rows are too short to be
  // read as RGBA (an output format that is not 32 bits per pixel).
  std::optional<vn::BitmapImage> outputImage();

 private:
  VNFFImageColorspaceConverter();

  // Creates the own context if needed, lets draw paint into it and converts
  // it.
  void convertDrawing(const std::function<void(vn::BitmapContext&)>& draw);

  // Allocates the output on first use, then scales the source picture
  // (planes of an AVPixelFormat) into it.
  void scale(const uint8_t* const planes[],
             const int linesizes[],
             int width,
             int height,
             int format);

  mutable std::mutex formatLock_;
  VNFFVideoFormat outputFormat_;                  // guarded by formatLock_
  vn::ff::Frame outputFrame_;                     // describes buffer_ once allocated
  vn::ff::AvBuffer<uint8_t> buffer_;              // the output pixels, one allocation
  std::shared_ptr<vn::BitmapContext> cgcontext_;  // own drawing context, made lazily
  vn::ff::Sws swscontext_;                        // cached scaler
  int matrix_ = -1;                               // YUV matrix; -1: swscale's default
};
