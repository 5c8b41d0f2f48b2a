// VNFFExportPackets: what an export takes from its input as packets rather
// than as decoded audio and pictures: streams copied as they are, and
// subtitle tracks, copied or decoded and encoded again, over the span of
// the export.
//
// It reads a demuxer of its own, opened on a copy of the input's source, and
// hands each packet of a chosen stream to the writer with its times moved
// so that the span starts at 0: a copied video from the keyframe at or
// before the start (its first packets may so come before 0), everything else
// from the start. Packets past the end are left out; subtitles that reach
// over either edge are cut to it.
//
// Threads: one thread at a time (the export's).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ffmpeg/owners.h"

struct AVCodecContext;
struct AVFormatContext;
class VNFFMovieFileOutput;
class VNMediaSource;

class VNFFExportPackets {
 public:
  VNFFExportPackets();
  VNFFExportPackets(const VNFFExportPackets&) = delete;
  VNFFExportPackets& operator=(const VNFFExportPackets&) = delete;
  ~VNFFExportPackets();

  // Opens a copy of source; false with a reason.
  bool open(VNMediaSource& source, std::string* reason);
  // The demuxer; null until open.
  AVFormatContext* input() const;

  // Container stream `input` copied to the writer's stream `output`.
  void copy(int input, int output);
  // Opens a decoder for subtitle stream `input`, whose style header the
  // writer's subtitle stream takes; null when it cannot be decoded.
  const AVCodecContext* openSubtitleDecoder(int input);
  // Subtitle stream `input` (decoder opened) decoded and encoded again on
  // the writer's stream `output`.
  void encode(int input, int output);
  bool empty() const;

  // The span in microseconds of the file's clock. Seeks there when it
  // starts after the file does.
  void setSpan(int64_t start, int64_t end);
  // Where the copied video starts, microseconds of the file's clock; none
  // until its first packet is written.
  std::optional<int64_t> videoStart() const { return videoStart_; }

  // Writes every packet of the chosen streams up to `until` (microseconds
  // of the file's clock); false once nothing is left to read.
  bool writeUntil(int64_t until, VNFFMovieFileOutput& writer);

 private:
  struct Route;

  Route* routeOf(int input);
  // Hands one packet on, or drops it when it lies outside the span.
  void write(Route& route, VNFFMovieFileOutput& writer);
  void writeSubtitle(Route& route, VNFFMovieFileOutput& writer);

  std::shared_ptr<VNMediaSource> source_;
  std::vector<Route> routes_;
  vn::ff::Packet packet_;
  bool pending_ = false;  // packet_ holds a packet read past the last `until`
  bool ended_ = false;
  bool cuts_ = false;  // the span starts after the file does
  int64_t start_ = 0;
  int64_t end_ = INT64_MAX;
  std::optional<int64_t> videoStart_;
};
