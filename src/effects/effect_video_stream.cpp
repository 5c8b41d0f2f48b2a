#include "effects/effect_video_stream.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

extern "C" {
#include <libavutil/cpu.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include "core/log.h"
#include "effects/effect_manager.h"
#include "ffmpeg/filter_library.h"
#include "image/affine_transform.h"
#include "media/media.h"

namespace {

constexpr double kPi = 3.141592653589793;
// The hue control turns by this many radians per unit: 6.28, not 2π.
constexpr double kHueRange = 6.28;

}  // namespace

std::shared_ptr<VNFFEffectVideoStream> VNFFEffectVideoStream::create() {
  return std::make_shared<VNFFEffectVideoStream>();
}

VNFFEffectVideoStream::VNFFEffectVideoStream() = default;

VNFFEffectVideoStream::~VNFFEffectVideoStream() {
  free_frame_image_buffer();
  free_graph();
  // No other thread can reach a stream being destroyed: no lock.
  media_.reset();
  dataBuffer_.reset();
  settings_ = PictureSettings{};
  mediaSubtitleImage_.reset();
  subtitleCurrentString_.reset();
  subtitleImage_.reset();
  subtitleImageString_.reset();
}

// ---- conversion ------------------------------------------------------------------

void VNFFEffectVideoStream::updateConverter() {
  const std::shared_ptr<VNFFMedia> source = media();
  converting_ = true;
  // Built with the first picture written: a movie that never converts a
  // picture loads no filter library.
  releaseGraph();
  graphInput_ = source ? source->videoFormat() : VNFFVideoFormat{};
  graphOutput_ = outputFormat().pix_fmt;
  graphPending_ = true;
}

void VNFFEffectVideoStream::buildGraph(const VNFFVideoFormat& in, int outputPixelFormat) {
  releaseGraph();
  graphInput_ = in;
  graphOutput_ = outputPixelFormat;
  const vn::ff::FilterLibrary* f = vn::ff::FilterLibrary::get();
  if (!f) {
    vn::logFailure("loading libavfilter", "not found");
    return;
  }
  graph_.reset(f->graph_alloc());
  if (!graph_) {
    vn::logFailure("avfilter_graph_alloc", AVERROR(ENOMEM));
    return;
  }
  // The time base and aspect are fixed on purpose: the graph only converts
  // pixels, it never looks at times or shapes.
  char args[256];
  std::snprintf(args, sizeof args, "video_size=%dx%d:pix_fmt=%d:time_base=%d/%d:pixel_aspect=%d/%d",
                in.width, in.height, in.pix_fmt, 1, 25, 0, 1);
  // The scaler that configuration inserts is bilinear (2).
  graph_->scale_sws_opts = av_strdup("flags=bilinear");
  AVFilterContext* source_ctx = nullptr;
  if (const int status = f->graph_create_filter(&source_ctx, f->get_by_name("buffer"), "buffersrc",
                                                args, nullptr, graph_.get());
      status >= 0) {
    buffersrc_ = source_ctx;
  } else {
    vn::logFailure("avfilter_graph_create_filter (buffer)", status);
  }
  const int pixelFormats[] = {outputPixelFormat, AV_PIX_FMT_NONE};
  AVFilterContext* sink =
      f->graph_alloc_filter(graph_.get(), f->get_by_name("buffersink"), "buffersink");
  if (sink &&
      av_opt_set_int_list(sink, "pix_fmts", pixelFormats, AV_PIX_FMT_NONE,
                          AV_OPT_SEARCH_CHILDREN) >= 0 &&
      f->init_str(sink, nullptr) >= 0) {
    buffersink_ = sink;
  } else {
    vn::logFailure("making the buffer sink", "refused");
  }
  // A missing end was logged as it failed.
  if (!buffersrc_ || !buffersink_) {
    releaseGraph();
  } else if (const int linked = f->link(buffersrc_, 0, buffersink_, 0); linked != 0) {
    vn::logFailure("avfilter_link", linked);
    releaseGraph();
  } else if (const int configured = f->graph_config(graph_.get(), nullptr); configured != 0) {
    vn::logFailure("avfilter_graph_config", configured);
    releaseGraph();
  }
}

void VNFFEffectVideoStream::free_graph() {
  releaseGraph();
  converting_ = false;
}

void VNFFEffectVideoStream::releaseGraph() {
  graphPending_ = false;
  buffersrc_ = nullptr;
  buffersink_ = nullptr;
  graph_.reset();
}

void VNFFEffectVideoStream::free_frame_image_buffer() {
  buffer_.reset();
}

void VNFFEffectVideoStream::writeFrame(const AVFrame* frame) {
  writeFrame(frame, nullptr);
}

void VNFFEffectVideoStream::writeFrame(const AVFrame* frame, const DataProvider& provider) {
  if (withScaler_.load()) {
    free_frame_image_buffer();
    if (frame && frame->data[0] && converting_)
      buffer_ = convertWithScaler(*frame);
  } else {
    writeFrameThroughGraph(frame);
  }
  const int64_t size = buffer_ ? int64_t{buffer_->height} * buffer_->linesize[0] : 0;
  DataBuffer data =
      size > 0 && size <= INT32_MAX && provider ? provider(static_cast<int32_t>(size)) : nullptr;
  if (data) {
    // As many bytes as the provider's buffer holds (it is asked for exactly
    // size), never more than the picture has.
    std::memcpy(data->data(), buffer_->data[0],
                std::min<size_t>(data->size(), static_cast<size_t>(size)));
  }
  setDataBuffer(std::move(data));
}

namespace {

// A scaler from pictures like frame to width x height in `format`: the
// frame's own matrix (BT.601 when it names none the scaler knows) and
// range, as libavfilter's scaler takes them, MPEG-2 chroma siting for
// 4:2:0. *fullRange: whether its output is full range. Null on failure.
vn::ff::Sws scalerFor(const AVFrame& frame,
                      int width,
                      int height,
                      int format,
                      int flags,
                      int* fullRange) {
  vn::ff::Sws scaler(sws_alloc_context());
  if (!scaler)
    return nullptr;
  SwsContext* s = scaler.get();
  const int range = frame.color_range, space = frame.colorspace;
  const int cpus = av_cpu_count();
  av_opt_set_int(s, "srcw", frame.width, 0);
  av_opt_set_int(s, "srch", frame.height, 0);
  av_opt_set_int(s, "src_format", frame.format, 0);
  av_opt_set_int(s, "dstw", width, 0);
  av_opt_set_int(s, "dsth", height, 0);
  av_opt_set_int(s, "dst_format", format, 0);
  av_opt_set_int(s, "sws_flags", flags, 0);
  av_opt_set_int(s, "threads", cpus > 1 ? cpus + 1 : 1, 0);
  if (range != AVCOL_RANGE_UNSPECIFIED)
    av_opt_set_int(s, "src_range", range == AVCOL_RANGE_JPEG, 0);
  // 4:2:0 chroma sits between the lines, as MPEG-2 places it.
  if (frame.format == AV_PIX_FMT_YUV420P)
    av_opt_set_int(s, "src_v_chr_pos", 128, 0);
  if (const int status = sws_init_context(s, nullptr, nullptr); status < 0) {
    vn::logFailure("sws_init_context", status);
    return nullptr;
  }
  int* inverse = nullptr;
  int* table = nullptr;
  int inFull = 0, brightness = 0, contrast = 0, saturation = 0;
  sws_getColorspaceDetails(s, &inverse, &inFull, &table, fullRange, &brightness, &contrast,
                           &saturation);
  const int* coefficients = sws_getCoefficients(
      space < AVCOL_SPC_BT709 || space > AVCOL_SPC_BT2020_CL || space == AVCOL_SPC_YCGCO
          ? AVCOL_SPC_BT470BG
          : space);
  if (range != AVCOL_RANGE_UNSPECIFIED)
    inFull = range == AVCOL_RANGE_JPEG;
  sws_setColorspaceDetails(s, coefficients, inFull, coefficients, *fullRange, brightness, contrast,
                           saturation);
  return scaler;
}

}  // namespace

bool VNFFEffectVideoStream::showsPicturePlain(int width, int height) const {
  std::lock_guard<std::mutex> hold(lock_);
  const PictureSettings& s = settings_;
  const VNFFVideoFormat& out = s.outputFormat;
  const bool placed =
      s.zoomType == kZoomStretch || s.zoomType == kZoomFit || s.zoomType == kZoomDefault;
  const PictureSettings neutral;  // colour controls that change nothing
  return width > 0 && height > 0 && !s.hflip && !s.vflip && s.rotate == 0 && s.cropRect.x == 0 &&
         s.cropRect.y == 0 && s.cropRect.width == width && s.cropRect.height == height && placed &&
         int64_t{out.width} * height == int64_t{out.height} * width &&
         s.saturation == neutral.saturation && s.brightness == neutral.brightness &&
         s.contrast == neutral.contrast && s.hue == neutral.hue && !s.effectName && !s.watermark &&
         !mediaSubtitleImage_ && !subtitleCurrentString_ && !styledRenderer_;
}

std::optional<vn::BitmapImage> VNFFEffectVideoStream::scaledPicture(const AVFrame& frame,
                                                                    int width,
                                                                    int height) {
  if (width <= 0 || height <= 0 || width > vn::kMaxImageSide || height > vn::kMaxImageSide)
    return std::nullopt;
  // At the picture's own size, the conversion writeFrame makes (the same
  // bytes); smaller, averaged over the area each pixel covers.
  const bool same = width == frame.width && height == frame.height;
  int fullRange = 0;
  const vn::ff::Sws scaler =
      scalerFor(frame, width, height, AV_PIX_FMT_RGBA,
                same ? SWS_BILINEAR : SWS_AREA | SWS_ACCURATE_RND, &fullRange);
  if (!scaler)
    return std::nullopt;
  auto pixels = std::make_shared<std::vector<uint8_t>>(size_t(width) * height * 4);
  uint8_t* planes[4] = {pixels->data(), nullptr, nullptr, nullptr};
  const int strides[4] = {width * 4, 0, 0, 0};
  if (const int status =
          sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, planes, strides);
      status <= 0) {
    vn::logFailure("sws_scale", status);
    return std::nullopt;
  }
  vn::BitmapImage image = vn::BitmapImage::borrow(pixels->data(), width, height, width * 4, pixels);
  if (image.isEmpty())
    return std::nullopt;
  return image;
}

std::shared_ptr<AVFrame> VNFFEffectVideoStream::convertWithScaler(const AVFrame& frame) {
  const int output = outputFormat().pix_fmt;
  const AVPixFmtDescriptor* outputDescriptor =
      av_pix_fmt_desc_get(static_cast<AVPixelFormat>(output));
  if (!outputDescriptor || frame.width <= 0 || frame.height <= 0)
    return nullptr;
  if (frame.format == output)
    return std::shared_ptr<AVFrame>(av_frame_clone(&frame), vn::ff::FrameDeleter{});
  const int range = frame.color_range, space = frame.colorspace;
  if (!scaler_ || scalerInput_.pix_fmt != frame.format || scalerInput_.width != frame.width ||
      scalerInput_.height != frame.height || scalerOutput_ != output || scalerRange_ != range ||
      scalerSpace_ != space) {
    scaler_ = scalerFor(frame, frame.width, frame.height, output, SWS_BILINEAR, &scalerFullRange_);
    if (!scaler_)
      return nullptr;
    scalerInput_ = VNFFVideoFormat{frame.format, frame.width, frame.height};
    scalerOutput_ = output;
    scalerRange_ = range;
    scalerSpace_ = space;
  }
  std::shared_ptr<AVFrame> out(av_frame_alloc(), vn::ff::FrameDeleter{});
  if (!out)
    return nullptr;
  out->format = output;
  out->width = frame.width;
  out->height = frame.height;
  // Rows padded as the graph pads them: to the widest alignment the CPU uses.
  const int align = static_cast<int>(av_cpu_max_align());
  if (av_image_fill_linesizes(out->linesize, static_cast<AVPixelFormat>(output),
                              FFALIGN(frame.width, align)) < 0) {
    return nullptr;
  }
  for (int& linesize : out->linesize)
    linesize = FFALIGN(linesize, align);
  if (av_frame_get_buffer(out.get(), align) < 0 || av_frame_copy_props(out.get(), &frame) < 0)
    return nullptr;
  if (outputDescriptor->flags & AV_PIX_FMT_FLAG_RGB)
    out->colorspace = AVCOL_SPC_RGB;
  else if (out->colorspace == AVCOL_SPC_RGB)
    out->colorspace = AVCOL_SPC_UNSPECIFIED;
  out->color_range = scalerFullRange_ ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
  if (const int status = sws_scale_frame(scaler_.get(), out.get(), &frame); status < 0) {
    vn::logFailure("sws_scale_frame", status);
    return nullptr;
  }
  return out;
}

void VNFFEffectVideoStream::writeFrameThroughGraph(const AVFrame* frame) {
  // Pictures of another size or format than the media said (a broadcast
  // switching programmes, a stream whose format was not known when it was
  // opened) get a graph for what they are.
  const bool sameFormat = frame && frame->format == graphInput_.pix_fmt &&
                          frame->width == graphInput_.width && frame->height == graphInput_.height;
  if (frame && frame->data[0] && converting_ && graphPending_ && sameFormat) {
    buildGraph(graphInput_, graphOutput_);
  } else if (frame && frame->data[0] && converting_ && !sameFormat) {
    buildGraph(VNFFVideoFormat{frame->format, frame->width, frame->height}, outputFormat().pix_fmt);
  }
  if (frame && frame->data[0] && buffersrc_) {
    // The graph takes its own reference; the caller's frame stays as it is.
    if (const int status = vn::ff::loadedFilters().buffersrc_add_frame_flags(
            buffersrc_, const_cast<AVFrame*>(frame), AV_BUFFERSRC_FLAG_KEEP_REF);
        status < 0) {
      vn::logFailure("av_buffersrc_add_frame_flags", status);
    }
  }
  // The previous picture goes even when no new one came in.
  free_frame_image_buffer();
  if (buffersink_) {
    std::shared_ptr<AVFrame> out(av_frame_alloc(), vn::ff::FrameDeleter{});
    const int status = out ? vn::ff::loadedFilters().buffersink_get_frame(buffersink_, out.get())
                           : AVERROR(ENOMEM);
    if (status >= 0)
      buffer_ = std::move(out);
    else if (frame && frame->data[0])
      vn::logFailure("av_buffersink_get_frame", status);
  }
}

std::optional<vn::BitmapImage> VNFFEffectVideoStream::imageForFrame(
    const AVFrame* frame,
    std::shared_ptr<const void> owner) {
  if (!frame || !frame->data[0] || frame->format != AV_PIX_FMT_RGBA)
    return std::nullopt;
  vn::BitmapImage image = vn::BitmapImage::borrow(frame->data[0], frame->width, frame->height,
                                                  frame->linesize[0], std::move(owner));
  if (image.isEmpty())
    return std::nullopt;
  return image;
}

std::optional<vn::BitmapImage> VNFFEffectVideoStream::currentImage() const {
  if (!buffer_)
    return std::nullopt;
  if (DataBuffer data = dataBuffer()) {
    // The provider's copy, laid out as the graph's picture was.
    const AVFrame& f = *buffer_;
    if (f.format != AV_PIX_FMT_RGBA || f.linesize[0] <= 0 ||
        data->size() < static_cast<size_t>(f.linesize[0]) * static_cast<size_t>(f.height)) {
      return std::nullopt;
    }
    vn::BitmapImage image =
        vn::BitmapImage::borrow(data->data(), f.width, f.height, f.linesize[0], data);
    if (image.isEmpty())
      return std::nullopt;
    return image;
  }
  return imageForFrame(buffer_.get(), buffer_);
}

std::optional<vn::FilterImage> VNFFEffectVideoStream::currentCIImage() const {
  const std::optional<vn::BitmapImage> image = currentImage();
  return image ? vn::FilterImage::fromBitmap(*image) : std::nullopt;
}

VNFFVideoFormat VNFFEffectVideoStream::outputDataFormat() const {
  const std::shared_ptr<VNFFMedia> source = media();
  const VNFFVideoFormat in = source ? source->videoFormat() : VNFFVideoFormat{};
  return VNFFVideoFormat{outputFormat().pix_fmt, in.width, in.height};
}

// ---- composition -----------------------------------------------------------------

std::optional<vn::FilterImage> VNFFEffectVideoStream::currentEffectImage() {
  // One copy of the settings for the whole picture: settings changed while
  // it is composed show in the next one, never half in this one.
  const PictureSettings settings = pictureSettings();
  std::optional<vn::FilterImage> picture = currentCIImage();
  // A bitmap subtitle is part of the picture: cropped, turned and zoomed
  // with it.
  if (const std::optional<vn::FilterImage> subtitle = mediaSubtitleImage(); subtitle && picture)
    picture = sourceOverImage(*subtitle, *picture);
  if (!picture)
    return std::nullopt;
  const vn::Rect crop = settings.cropRect;
  vn::FilterImage image = picture->cropped(crop);
  // The centre of the crop goes to the origin, so flips and rotation act
  // about it; a point is mirrored first and turned second.
  image = image.translated(-(crop.x + crop.width * 0.5), -(crop.y + crop.height * 0.5));
  const vn::AffineTransform turn = vn::AffineTransform::identity()
                                       .rotated(settings.rotate * kPi / 180)
                                       .scaled(settings.hflip ? -1 : 1, settings.vflip ? -1 : 1);
  image = image.transformed(turn);
  const VNFFVideoFormat out = settings.outputFormat;
  const vn::Rect rect{0, 0, static_cast<double>(out.width), static_cast<double>(out.height)};
  image = this->image(image, settings.zoomType, rect);
  image = this->image(image, effectFilter(settings));
  image = sourceOverImage(image, imagewithColor({0, 0, 0, 1}));
  if (settings.watermark)
    image = sourceOverImage(*settings.watermark, image);
  if (const std::optional<vn::FilterImage> subtitle = currentSubtitleImage(settings))
    image = sourceOverImage(*subtitle, image);
  if (const std::optional<vn::FilterImage> styled = styledSubtitleImage(settings))
    image = sourceOverImage(*styled, image);
  return image.cropped(rect);
}

vn::FilterImage VNFFEffectVideoStream::image(const vn::FilterImage& i,
                                             int32_t zoomType,
                                             const vn::Rect& rect) {
  const vn::Rect extent = i.extent();
  const vn::FilterImage centred =
      i.translated(-(extent.x + extent.width * 0.5), -(extent.y + extent.height * 0.5));
  const vn::Rect e = centred.extent();
  vn::Rect target;
  switch (zoomType) {
    case kZoomStretch:
      target = rect;
      break;
    case kZoomFit:
    case kZoomDefault:
      target = scaleRect(e, rect);
      break;
    case kZoom16x9:
      target = scaleRect(vn::Rect{0, 0, 16, 9}, rect);
      break;
    case kZoom4x3:
      target = scaleRect(vn::Rect{0, 0, 4, 3}, rect);
      break;
    case kZoomPanscan:
      target = scaleRectPanscan(e, rect);
      break;
    default:
      // Scaled to nothing: only the background shows.
      break;
  }
  const float dw = std::max(static_cast<float>(e.width), 1.0f);
  const float dh = std::max(static_cast<float>(e.height), 1.0f);
  const vn::AffineTransform place =
      vn::AffineTransform::identity()
          .translated(target.x + target.width * 0.5, target.y + target.height * 0.5)
          .scaled(static_cast<float>(target.width / dw), static_cast<float>(target.height / dh));
  return centred.transformed(place);
}

vn::Rect VNFFEffectVideoStream::scaleRect(const vn::Rect& a, const vn::Rect& b) {
  const float k = std::max(
      std::max(static_cast<float>(a.width / b.width), static_cast<float>(a.height / b.height)),
      0.001f);
  const double w = a.width / k;
  const double h = a.height / k;
  return vn::Rect{b.x + (b.width - w) * 0.5, b.y + (b.height - h) * 0.5, w, h};
}

vn::Rect VNFFEffectVideoStream::scaleRectPanscan(const vn::Rect& a, const vn::Rect& b) {
  const float k = std::max(static_cast<float>(a.width / b.width), 0.001f);
  const double w = a.width / k;
  const double h = a.height / k;
  return vn::Rect{b.x + (b.width - w) * 0.5, b.y + (b.height - h) * 0.5, w, h};
}

vn::FilterList VNFFEffectVideoStream::colorFilter() const {
  return colorFilter(pictureSettings());
}

vn::FilterList VNFFEffectVideoStream::colorFilter(const PictureSettings& settings) {
  std::shared_ptr<vn::ImageFilter> controls = vn::ImageFilter::withName("ColorControls");
  controls->setValue(vn::kInputSaturationKey, double{settings.saturation * 2});
  controls->setValue(vn::kInputBrightnessKey,
                     double{static_cast<float>((double{settings.brightness} - 0.5) * 2)});
  controls->setValue(vn::kInputContrastKey, double{settings.contrast * 4.0f});
  std::shared_ptr<vn::ImageFilter> hueAdjust = vn::ImageFilter::withName("HueAdjust");
  hueAdjust->setValue(vn::kInputAngleKey,
                      double{static_cast<float>((double{settings.hue} - 0.5) * kHueRange)});
  return {std::move(controls), std::move(hueAdjust)};
}

vn::FilterList VNFFEffectVideoStream::effectFilter() const {
  return effectFilter(pictureSettings());
}

vn::FilterList VNFFEffectVideoStream::effectFilter(const PictureSettings& settings) {
  vn::FilterList filters = colorFilter(settings);
  if (settings.effectName) {
    if (std::shared_ptr<vn::ImageFilter> preset =
            EffectManager::filterWithName(*settings.effectName))
      filters.push_back(std::move(preset));
  }
  return filters;
}

vn::FilterImage VNFFEffectVideoStream::image(const vn::FilterImage& i,
                                             const vn::FilterList& filters) {
  vn::FilterImage result = i;
  for (const std::shared_ptr<vn::ImageFilter>& filter : filters) {
    filter->setValue(vn::kInputImageKey, result);
    if (std::optional<vn::FilterImage> output = filter->outputImage())
      result = std::move(*output);
  }
  return result;
}

vn::FilterImage VNFFEffectVideoStream::composition(const std::string& filterName,
                                                   const vn::FilterImage& image,
                                                   const vn::FilterImage& background) {
  std::shared_ptr<vn::ImageFilter> filter = vn::ImageFilter::withName(filterName);
  if (!filter)
    return image;
  filter->setValue(vn::kInputBackgroundImageKey, background);
  filter->setValue(vn::kInputImageKey, image);
  return filter->outputImage().value_or(image);
}

vn::FilterImage VNFFEffectVideoStream::sourceOverImage(const vn::FilterImage& image,
                                                       const vn::FilterImage& background) {
  return composition("SourceOverCompositing", image, background);
}

vn::FilterImage VNFFEffectVideoStream::sourceInImage(const vn::FilterImage& image,
                                                     const vn::FilterImage& background) {
  return composition("SourceInCompositing", image, background);
}

vn::FilterImage VNFFEffectVideoStream::translateImage(const vn::FilterImage& image, vn::Size size) {
  return image.transformed(vn::AffineTransform::makeTranslation(size.width, size.height));
}

vn::FilterImage VNFFEffectVideoStream::scaleImage(const vn::FilterImage& image, vn::Size size) {
  return image.transformed(vn::AffineTransform::identity().scaled(size.width, size.height));
}

vn::FilterImage VNFFEffectVideoStream::imagewithColor(const vn::FilterImage::Color& color) {
  return vn::FilterImage::withColor(color);
}

// ---- subtitles ---------------------------------------------------------------------

vn::StyledText VNFFEffectVideoStream::subtitleAttributedText() const {
  return subtitleAttributedText(pictureSettings());
}

vn::StyledText VNFFEffectVideoStream::subtitleAttributedText(
    const PictureSettings& settings) const {
  vn::StyledText text;
  text.alignment = vn::StyledText::Alignment::kCentre;
  text.color = settings.subtitleColor.value_or(kDefaultSubtitleColor);
  text.font = settings.subtitleFont.value_or(kDefaultSubtitleFont);
  text.outlineWidth = settings.subtitleOutlineWidth;
  text.shadowOffset = settings.subtitleShadowOffset;
  text.text = vn::trimmedText(subtitleCurrentString().value_or(""));
  return text;
}

std::optional<vn::FilterImage> VNFFEffectVideoStream::subtitleImageWithAttributedString(
    const vn::StyledText& text) {
  return subtitleImageWithAttributedString(text, pictureSettings());
}

std::optional<vn::FilterImage> VNFFEffectVideoStream::subtitleImageWithAttributedString(
    const vn::StyledText& text,
    const PictureSettings& settings) {
  const VNFFVideoFormat format = settings.outputFormat;
  const double width = format.width, height = format.height;
  vn::Rect bounds = vn::boundingRect(text, vn::Size{width, height});
  // Never above the top of the frame.
  const float room = 1.0f - settings.subtitlePosition;
  bounds.height = std::min(static_cast<float>(bounds.height), static_cast<float>(height * room));
  if (!(bounds.width > 0 && bounds.height > 0))
    return std::nullopt;
  {
    std::lock_guard<std::mutex> guard(lock_);
    ++subtitleRenders_;
  }
  // Laid out again no taller than the part shown, so that the last line
  // shown ends with the ellipsis when lines are left out.
  return vn::drawStyledText(text, vn::Size{width, bounds.y + bounds.height}, bounds);
}

std::optional<vn::FilterImage> VNFFEffectVideoStream::currentSubtitleImage() {
  return currentSubtitleImage(pictureSettings());
}

std::optional<vn::FilterImage> VNFFEffectVideoStream::currentSubtitleImage(
    const PictureSettings& settings) {
  const std::optional<std::string> current = subtitleCurrentString();
  if (!current || current->empty())
    return std::nullopt;
  int64_t generation;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (subtitleImageString_ == current)
      return subtitleImage_;
    generation = subtitleUpdates_;
  }
  // Drawn outside the lock, from the caller's copy of the settings: they
  // stay free to change meanwhile.
  std::optional<vn::FilterImage> placed;
  if (const std::optional<vn::FilterImage> drawn =
          subtitleImageWithAttributedString(subtitleAttributedText(settings), settings)) {
    const VNFFVideoFormat format = settings.outputFormat;
    const vn::Rect e = drawn->extent();
    placed = translateImage(
        *drawn, vn::Size{format.width * 0.5 - (e.x + e.width * 0.5),
                         settings.subtitlePosition * static_cast<double>(format.height)});
  }
  std::lock_guard<std::mutex> guard(lock_);
  // A cache emptied while the text was drawn stays empty: the drawing may
  // have used the settings from before.
  if (subtitleUpdates_ == generation) {
    subtitleImageString_ = current;
    subtitleImage_ = placed;
  }
  return placed;
}

void VNFFEffectVideoStream::setStyledSubtitle(std::shared_ptr<vn::StyledSubtitleRenderer> renderer,
                                              std::optional<int64_t> ms) {
  std::lock_guard<std::mutex> guard(lock_);
  styledRenderer_ = std::move(renderer);
  styledTime_ = ms;
}

std::optional<vn::FilterImage> VNFFEffectVideoStream::styledSubtitleImage(
    const PictureSettings& settings) {
  std::shared_ptr<vn::StyledSubtitleRenderer> renderer;
  std::optional<int64_t> ms;
  {
    std::lock_guard<std::mutex> guard(lock_);
    renderer = styledRenderer_;
    ms = styledTime_;
  }
  if (!renderer || !ms)
    return std::nullopt;
  return renderer->imageAtTime(*ms, settings.outputFormat.width, settings.outputFormat.height);
}

void VNFFEffectVideoStream::updateSubtitle() {
  std::lock_guard<std::mutex> guard(lock_);
  updateSubtitleLocked();
}

void VNFFEffectVideoStream::updateSubtitleLocked() {
  subtitleImageString_.reset();
  subtitleImage_.reset();
  ++subtitleUpdates_;
}

int64_t VNFFEffectVideoStream::subtitleUpdateCount() const {
  std::lock_guard<std::mutex> guard(lock_);
  return subtitleUpdates_;
}

int64_t VNFFEffectVideoStream::subtitleRenderCount() const {
  std::lock_guard<std::mutex> guard(lock_);
  return subtitleRenders_;
}

// ---- picture settings ------------------------------------------------------------

PictureSettings VNFFEffectVideoStream::pictureSettings() const {
  std::lock_guard<std::mutex> guard(lock_);
  return settings_;
}

void VNFFEffectVideoStream::setPictureSettings(const PictureSettings& settings) {
  std::lock_guard<std::mutex> guard(lock_);
  settings_ = settings;
}

void VNFFEffectVideoStream::changePictureSettings(
    const std::function<void(PictureSettings&)>& change,
    bool redrawSubtitle) {
  std::lock_guard<std::mutex> guard(lock_);
  change(settings_);
  if (redrawSubtitle)
    updateSubtitleLocked();
}

// ---- fields --------------------------------------------------------------------------

#define VN_LOCKED_FIELD(Type, getter, setter, field) \
  Type VNFFEffectVideoStream::getter() const {       \
    std::lock_guard<std::mutex> guard(lock_);        \
    return field;                                    \
  }                                                  \
  void VNFFEffectVideoStream::setter(Type value) {   \
    std::lock_guard<std::mutex> guard(lock_);        \
    field = std::move(value);                        \
  }

VN_LOCKED_FIELD(std::shared_ptr<VNFFMedia>, media, setMedia, media_)
VN_LOCKED_FIELD(VNFFEffectVideoStream::DataBuffer, dataBuffer, setDataBuffer, dataBuffer_)
VN_LOCKED_FIELD(std::optional<std::string>,
                subtitleCurrentString,
                setSubtitleCurrentString,
                subtitleCurrentString_)
VN_LOCKED_FIELD(std::optional<vn::FilterImage>,
                mediaSubtitleImage,
                setMediaSubtitleImage,
                mediaSubtitleImage_)
VN_LOCKED_FIELD(VNFFVideoFormat, outputFormat, setOutputFormat, settings_.outputFormat)
VN_LOCKED_FIELD(vn::Rect, cropRect, setCropRect, settings_.cropRect)
VN_LOCKED_FIELD(bool, hflip, setHflip, settings_.hflip)
VN_LOCKED_FIELD(bool, vflip, setVflip, settings_.vflip)
VN_LOCKED_FIELD(float, rotate, setRotate, settings_.rotate)
VN_LOCKED_FIELD(float, saturation, setSaturation, settings_.saturation)
VN_LOCKED_FIELD(float, brightness, setBrightness, settings_.brightness)
VN_LOCKED_FIELD(float, contrast, setContrast, settings_.contrast)
VN_LOCKED_FIELD(float, hue, setHue, settings_.hue)
VN_LOCKED_FIELD(std::optional<std::string>, effectName, setEffectName, settings_.effectName)
VN_LOCKED_FIELD(std::optional<vn::FilterImage>, watermark, setWatermark, settings_.watermark)
VN_LOCKED_FIELD(int32_t, zoomType, setZoomType, settings_.zoomType)
VN_LOCKED_FIELD(float, subtitlePosition, setSubtitlePosition, settings_.subtitlePosition)
VN_LOCKED_FIELD(float,
                subtitleOutlineWidth,
                setSubtitleOutlineWidth,
                settings_.subtitleOutlineWidth)
VN_LOCKED_FIELD(float,
                subtitleShadowOffset,
                setSubtitleShadowOffset,
                settings_.subtitleShadowOffset)

#undef VN_LOCKED_FIELD

std::string VNFFEffectVideoStream::subtitleFont() const {
  std::lock_guard<std::mutex> guard(lock_);
  return settings_.subtitleFont.value_or(kDefaultSubtitleFont);
}

void VNFFEffectVideoStream::setSubtitleFont(std::optional<std::string> font) {
  std::lock_guard<std::mutex> guard(lock_);
  settings_.subtitleFont = std::move(font);
}

vn::FilterImage::Color VNFFEffectVideoStream::subtitleColor() const {
  std::lock_guard<std::mutex> guard(lock_);
  return settings_.subtitleColor.value_or(kDefaultSubtitleColor);
}

void VNFFEffectVideoStream::setSubtitleColor(std::optional<vn::FilterImage::Color> color) {
  std::lock_guard<std::mutex> guard(lock_);
  settings_.subtitleColor = color;
}
