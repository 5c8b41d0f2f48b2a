// VNFFFrameOverlay: a small RGBA picture (a subtitle) laid over YUV frames
// in place, without converting the frame to RGB and back.
//
// The overlay is made once from straight-alpha sRGB pixels placed in the
// frame (top-left origin) and the frame's layout: its pixel format, size,
// YUV matrix and range. Its colours are then turned into that YUV once, so
// laying it over each frame is one weighted sum per covered sample: luma
// per pixel, each chroma sample with the mean coverage and colour of the
// pixels it stands for. Frames are planar 8-bit YUV with chroma halved at
// most in each direction (yuv420p, yuv422p, yuv440p, yuv444p and their
// full-range "J" forms); other formats take no overlay.
//
// Threads: an overlay is immutable once made; blend may run on any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

// How the frames an overlay is laid on are laid out.
struct VNFFOverlayLayout {
  int pix_fmt = -1;  // an AVPixelFormat
  int width = 0;
  int height = 0;
  int matrix = -1;  // an AVColorSpace; anything unknown is read as BT.601
  bool fullRange = false;
  bool operator==(const VNFFOverlayLayout&) const = default;
};

class VNFFFrameOverlay {
 public:
  using Layout = VNFFOverlayLayout;

  // Whether frames of pix_fmt can take an overlay.
  static bool supports(int pix_fmt);

  // The overlay of `width` x `height` straight-alpha sRGB RGBA pixels (rows
  // `stride` bytes apart, the top row first) with their top-left corner at
  // (x, y) of frames laid out as `layout`; the part outside the frame is
  // left out. None when the layout's format is not supported or nothing of
  // the picture covers the frame.
  static std::optional<VNFFFrameOverlay>
  make(const uint8_t* rgba, int stride, int x, int y, int width, int height, const Layout& layout);

  // Lays the overlay over the frame whose planes are data / linesize; the
  // frame must be laid out as the overlay's layout says.
  void blend(uint8_t* const data[], const int linesize[]) const;

  const Layout& layout() const { return layout_; }

 private:
  // One plane's part: coverage (0..255) and coverage times value, per
  // sample of a box of the plane.
  struct Part {
    int x = 0, y = 0, width = 0, height = 0;
    std::vector<uint8_t> alpha;
    std::vector<uint16_t> weighted;
    // The first and one past the last covered sample of each row.
    std::vector<std::pair<int, int>> spans;
  };
  static void blendPart(const Part& part, uint8_t* plane, int linesize);

  Layout layout_;
  Part parts_[3];
};
