// VNFFEffectVideoStream: the movie's picture pipeline.
//
// Decoded frames of the current video media are written into it; a small
// FFmpeg filter graph ("buffer" -> "buffersink") converts each one to the
// output pixel format at the media's own size, and the stream keeps the
// converted picture. It hands the picture out as a raster image
// (currentImage), as a filter image (currentCIImage) and composed with the
// user's picture settings (currentEffectImage): crop, flips, rotation,
// placement in the output frame by zoom type, colour controls, hue, the
// effect preset, a black background, the watermark and the subtitles.
//
// Composition only builds a lazy filter image; its consumer renders it once,
// and the image layer folds the geometry into one resampling and the colour
// steps into one point pass.
//
//   no graph ──updateConverter──► graph to build ──writeFrame──► graph
//       ▲                                                   standing,
//       └──────────── free_graph / failed build ─────────── picture held
//
// Coordinates of the settings are those of the filter image: origin at the
// bottom left, y up, pixels (the crop in source pixels, the rest in output
// pixels).
//
// Threads: the owner writes frames and composes from one thread at a time
// (the movie's decode queue); the picture settings may be set from any
// thread meanwhile. They are one value under one lock: each composition
// copies them once at its start and uses only that copy (src/THREADS.md).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/formats.h"
#include "effects/picture_settings.h"
#include "ffmpeg/owners.h"
#include "image/bitmap_image.h"
#include "image/filter_image.h"
#include "image/image_filter.h"
#include "image/rect.h"
#include "text/styled_subtitles.h"
#include "text/text_image.h"

struct AVFilterContext;
struct AVFrame;
class VNFFMedia;

class VNFFEffectVideoStream {
 public:
  // A byte buffer handed out by a data provider: the provider owns the
  // bytes, the stream keeps them as long as it shows that picture.
  using DataBuffer = std::shared_ptr<std::vector<uint8_t>>;
  // Given the picture's byte count, a buffer of exactly that many bytes to
  // copy the picture into, or null.
  using DataProvider = std::function<DataBuffer(int32_t size)>;
  // Placement of the picture in the output frame (zoomType).
  enum ZoomType : int32_t {
    kZoomStretch = 1,  // fills the output exactly
    kZoomFit = 2,      // whole, own aspect, centred
    kZoom16x9 = 3,     // the largest 16:9 box, centred
    kZoom4x3 = 4,      // the largest 4:3 box, centred
    kZoomDefault = 5,  // the same as kZoomFit
    kZoomPanscan = 6,  // fitted to the output width, centred vertically
  };
  // The default subtitle font (one point = one pixel) and colour.
  static constexpr char kDefaultSubtitleFont[] = "Sans 80";
  static constexpr vn::FilterImage::Color kDefaultSubtitleColor{1, 1, 1, 1};

  // Neutral settings: no flips, saturation 0.5, brightness 0.5, contrast
  // 0.25, hue 0.5, zoom type 5; no graph, an empty crop rectangle.
  static std::shared_ptr<VNFFEffectVideoStream> create();
  VNFFEffectVideoStream();
  VNFFEffectVideoStream(const VNFFEffectVideoStream&) = delete;
  VNFFEffectVideoStream& operator=(const VNFFEffectVideoStream&) = delete;
  ~VNFFEffectVideoStream();

  // ---- conversion --------------------------------------------------------
  // (Re)builds the graph for the media's picture format and the output
  // pixel format of now; a failed build leaves no graph. The graph is made
  // when the first picture is written.
  void updateConverter();
  void free_graph();
  // Drops the picture held.
  void free_frame_image_buffer();
  // Converts frame (when it has pixels and a graph stands) and holds the
  // picture that comes out of the graph, dropping the previous one in any
  // case. With a provider, the picture is also copied into the buffer it
  // returns for the picture's byte count (dataBuffer).
  void writeFrame(const AVFrame* frame);
  void writeFrame(const AVFrame* frame, const DataProvider& provider);
  // Whether pictures are converted by the scaler the graph would insert,
  // called directly with the graph's settings (the same bytes), instead of
  // by the graph: libavfilter is then never loaded and the pictures' memory
  // is reused from one to the next. False (the default): the graph. Any
  // thread; takes effect at the next picture written.
  bool convertsWithScaler() const { return withScaler_.load(); }
  void setConvertsWithScaler(bool value) { withScaler_.store(value); }

  // The composed picture of a width x height frame would be the frame
  // itself, scaled to the output size: no crop, flip, turn, colour control,
  // effect, watermark or subtitle, and an output of the frame's own shape.
  bool showsPicturePlain(int width, int height) const;
  // frame scaled by the scaler straight to width x height RGBA (area
  // averaging, the frame's matrix and range; at the frame's own size the
  // bytes writeFrame's scaler makes): a plain picture's thumbnail without
  // the picture ever being made at its full size. None on failure.
  std::optional<vn::BitmapImage> scaledPicture(const AVFrame& frame, int width, int height);
  // A raster image over the first plane of a frame in the output format,
  // sharing its pixels (owner keeps them alive); none without pixels.
  static std::optional<vn::BitmapImage> imageForFrame(const AVFrame* frame,
                                                      std::shared_ptr<const void> owner);
  // The picture held, from the provider's copy when there is one; none
  // without a picture. It stays valid after later writes.
  std::optional<vn::BitmapImage> currentImage() const;
  std::optional<vn::FilterImage> currentCIImage() const;
  // The output pixel format at the media's size (the picture is converted,
  // never scaled).
  VNFFVideoFormat outputDataFormat() const;

  // ---- composition ---------------------------------------------------------
  // The picture with every setting applied, of the output size; none when
  // there is no picture. Lazy. Fills the subtitle cache.
  std::optional<vn::FilterImage> currentEffectImage();
  // The image placed in rect by zoom type z (another value: scaled to
  // nothing).
  static vn::FilterImage image(const vn::FilterImage& i, int32_t zoomType, const vn::Rect& rect);
  // a fitted in b keeping its aspect, centred (a's origin is ignored).
  static vn::Rect scaleRect(const vn::Rect& a, const vn::Rect& b);
  // a scaled to b's width keeping its aspect, centred.
  static vn::Rect scaleRectPanscan(const vn::Rect& a, const vn::Rect& b);
  // Colour controls and hue adjustment of the settings, new each call.
  vn::FilterList colorFilter() const;
  static vn::FilterList colorFilter(const PictureSettings& settings);
  // colorFilter, then a copy of the effect preset's filter when the name is
  // known.
  vn::FilterList effectFilter() const;
  static vn::FilterList effectFilter(const PictureSettings& settings);
  static vn::FilterImage image(const vn::FilterImage& i, const vn::FilterList& filters);
  static vn::FilterImage composition(const std::string& filterName,
                                     const vn::FilterImage& image,
                                     const vn::FilterImage& background);
  static vn::FilterImage sourceOverImage(const vn::FilterImage& image,
                                         const vn::FilterImage& background);
  static vn::FilterImage sourceInImage(const vn::FilterImage& image,
                                       const vn::FilterImage& background);
  static vn::FilterImage translateImage(const vn::FilterImage& image, vn::Size size);
  static vn::FilterImage scaleImage(const vn::FilterImage& image, vn::Size size);
  static vn::FilterImage imagewithColor(const vn::FilterImage::Color& color);

  // ---- subtitles ------------------------------------------------------------
  // The current text, trimmed of white space and line breaks at both ends,
  // centred, in the subtitle font and colour (with the outline and shadow).
  vn::StyledText subtitleAttributedText() const;
  vn::StyledText subtitleAttributedText(const PictureSettings& settings) const;
  // The text laid out in the output frame's width (wrapped, the last line
  // that fits cut with an ellipsis), at most as tall as the frame above the
  // subtitle position, drawn on transparent black and cut to its lines'
  // box; none when that box is empty or cannot be drawn. Origin (0, 0).
  std::optional<vn::FilterImage> subtitleImageWithAttributedString(const vn::StyledText& text);
  std::optional<vn::FilterImage> subtitleImageWithAttributedString(const vn::StyledText& text,
                                                                   const PictureSettings& settings);
  // The text subtitle placed in the output frame: centred across it, its
  // bottom at the subtitle position. Cached by its text: drawn once per
  // distinct text (and after updateSubtitle); an empty text keeps the cache.
  std::optional<vn::FilterImage> currentSubtitleImage();
  std::optional<vn::FilterImage> currentSubtitleImage(const PictureSettings& settings);
  // Empties the subtitle cache, so the next frame draws the text anew.
  void updateSubtitle();
  // The styled text subtitle: a renderer holding the track's events and the
  // time to draw on its clock (milliseconds). While a renderer is set it
  // draws the text subtitle in the output frame, over everything else; the
  // plain text subtitle is drawn too when one is set (the movie sets one or
  // the other). None: no styled subtitle.
  void setStyledSubtitle(std::shared_ptr<vn::StyledSubtitleRenderer> renderer,
                         std::optional<int64_t> ms);
  // The styled subtitle's image for the output frame of `settings`; none
  // when nothing is shown.
  std::optional<vn::FilterImage> styledSubtitleImage(const PictureSettings& settings);
  // How many times the subtitle cache was emptied, and how many times a
  // text was drawn (for tests).
  int64_t subtitleUpdateCount() const;
  int64_t subtitleRenderCount() const;

  // ---- picture settings -----------------------------------------------------
  // A copy of the whole settings; any thread.
  PictureSettings pictureSettings() const;
  // Replaces the whole settings at once; any thread. The subtitle cache is
  // kept (updateSubtitle empties it).
  void setPictureSettings(const PictureSettings& settings);
  // Changes the settings in place under their lock, so that no composition
  // sees part of the change; with redrawSubtitle the subtitle cache is
  // emptied in the same step. change must not call back into the stream.
  void changePictureSettings(const std::function<void(PictureSettings&)>& change,
                             bool redrawSubtitle = false);
  // The single settings below read or change one field of the whole value.

  // ---- fields -----------------------------------------------------------------
  std::shared_ptr<VNFFMedia> media() const;
  void setMedia(std::shared_ptr<VNFFMedia> media);
  VNFFVideoFormat outputFormat() const;
  void setOutputFormat(VNFFVideoFormat format);
  DataBuffer dataBuffer() const;
  void setDataBuffer(DataBuffer buffer);
  vn::Rect cropRect() const;
  void setCropRect(vn::Rect rect);
  bool hflip() const;
  void setHflip(bool value);
  bool vflip() const;
  void setVflip(bool value);
  float rotate() const;
  void setRotate(float degrees);
  float saturation() const;
  void setSaturation(float value);
  float brightness() const;
  void setBrightness(float value);
  float contrast() const;
  void setContrast(float value);
  float hue() const;
  void setHue(float value);
  std::optional<std::string> effectName() const;
  void setEffectName(std::optional<std::string> name);
  std::optional<vn::FilterImage> watermark() const;
  void setWatermark(std::optional<vn::FilterImage> image);
  int32_t zoomType() const;
  void setZoomType(int32_t type);
  // A Pango font description; the default when none was set.
  std::string subtitleFont() const;
  void setSubtitleFont(std::optional<std::string> font);
  vn::FilterImage::Color subtitleColor() const;
  void setSubtitleColor(std::optional<vn::FilterImage::Color> color);
  float subtitlePosition() const;
  void setSubtitlePosition(float fraction);
  // Readability, in output pixels, 0 (none) by default: a dark outline of
  // this width around the glyphs, and a dark shadow this far below and to
  // the right of them.
  float subtitleOutlineWidth() const;
  void setSubtitleOutlineWidth(float pixels);
  float subtitleShadowOffset() const;
  void setSubtitleShadowOffset(float pixels);
  std::optional<std::string> subtitleCurrentString() const;
  void setSubtitleCurrentString(std::optional<std::string> text);
  // The media's bitmap subtitle at the current time, in frame coordinates.
  std::optional<vn::FilterImage> mediaSubtitleImage() const;
  void setMediaSubtitleImage(std::optional<vn::FilterImage> image);

 private:
  // Builds the graph for pictures of the given format; none on failure.
  void buildGraph(const VNFFVideoFormat& in, int outputPixelFormat);
  void releaseGraph();
  // writeFrame's conversion by the graph, into buffer_.
  void writeFrameThroughGraph(const AVFrame* frame);
  // The picture of frame in the output format, as the graph would give it:
  // the scaler the graph configures (bilinear, the frame's matrix and
  // range, MPEG-2 chroma siting for 4:2:0), its output laid out as the
  // graph lays out its pictures; the frame itself (a new reference) when it
  // is in the output format already. Null when it cannot be converted.
  std::shared_ptr<AVFrame> convertWithScaler(const AVFrame& frame);
  // Empties the subtitle cache; under lock_.
  void updateSubtitleLocked();

  vn::ff::FilterGraph graph_;              // the conversion graph, or null
  AVFilterContext* buffersink_ = nullptr;  // owned by graph_
  AVFilterContext* buffersrc_ = nullptr;   // owned by graph_
  // The last picture taken from the sink; shared with the images made from
  // it, so they outlive the next write.
  std::shared_ptr<AVFrame> buffer_;
  VNFFVideoFormat graphInput_;           // the pictures the graph is built for
  int graphOutput_ = 0;                  // the pixel format it converts them to
  bool graphPending_ = false;            // to be built at the next picture written
  bool converting_ = false;              // updateConverter was called, free_graph was not
  std::atomic<bool> withScaler_{false};  // see convertsWithScaler()
  vn::ff::Sws scaler_;                   // the scaler of convertWithScaler, or null
  VNFFVideoFormat scalerInput_;          // the pictures it was made for
  int scalerOutput_ = 0;                 // the pixel format it makes
  int scalerRange_ = 0;                  // the range of the pictures it was made for
  int scalerSpace_ = 0;                  // and their matrix
  int scalerFullRange_ = 0;              // its output is full range

  mutable std::mutex lock_;
  // Guarded by lock_.
  PictureSettings settings_;  // read whole, once per composition
  std::shared_ptr<VNFFMedia> media_;
  DataBuffer dataBuffer_;
  std::optional<vn::FilterImage> subtitleImage_;
  std::optional<std::string> subtitleImageString_;
  std::optional<std::string> subtitleCurrentString_;
  std::optional<vn::FilterImage> mediaSubtitleImage_;
  int64_t subtitleUpdates_ = 0;
  int64_t subtitleRenders_ = 0;
  std::shared_ptr<vn::StyledSubtitleRenderer> styledRenderer_;
  std::optional<int64_t> styledTime_;
};
