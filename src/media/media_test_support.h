// Helpers of the media tests.
#pragma once

#include <cstring>
#include <memory>
#include <string>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

#include "ffmpeg/owners.h"
#include "media/media.h"
#include "media/media_source.h"
#include "media/media_stream.h"
#include "media/movie_link.h"
#include "test_support.h"

namespace vn::test {

// A media over a fixture with every stream it can decode open and enabled.
inline std::shared_ptr<VNFFMedia> openWhole(const std::string& name) {
  std::shared_ptr<VNFFMedia> media = VNFFMedia::create();
  media->setSource(VNMediaSource::mediaWithPath(fixture(name)));
  media->open();
  return media;
}

// The medias a movie reads of a file: for a file with video and audio a
// video media, then an audio one; none when it cannot be read.
inline VNMediaSource::Medias mediasAt(const std::string& path) {
  return VNMediaSource::mediaWithPath(path)->createMedias().value_or(VNMediaSource::Medias{});
}
inline VNMediaSource::Medias mediasOf(const std::string& name) {
  return mediasAt(fixture(name));
}

// Reads packets from the media's demuxer and hands each to its stream
// unchanged (not through the media's own routing), until the end or
// `limit` packets. Returns the number read.
template <typename Visit>
int readPackets(VNFFMedia& media, Visit visit, int limit = 100000) {
  vn::ff::Packet packet = vn::ff::makePacket();
  int count = 0;
  while (count < limit && av_read_frame(media.formatContext(), packet.get()) >= 0) {
    ++count;
    std::shared_ptr<VNFFMediaStream> stream = media.mediaStreamForStreamIndex(packet->stream_index);
    if (stream)
      visit(*stream, packet.get());
    av_packet_unref(packet.get());
  }
  return count;
}

// A yuv420p picture without colour: luma `luma`, its top `topRows` rows
// white.
inline vn::ff::Frame yuvFrame(int width, int height, int luma, int topRows = 0) {
  vn::ff::Frame frame(av_frame_alloc());
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = width;
  frame->height = height;
  if (av_frame_get_buffer(frame.get(), 0) < 0)
    return nullptr;
  for (int p = 0; p < 3; ++p) {
    for (int y = 0; y < (p ? height / 2 : height); ++y)
      std::memset(frame->data[p] + y * frame->linesize[p],
                  p             ? 128
                  : y < topRows ? 235
                                : luma,
                  p ? width / 2 : width);
  }
  return frame;
}

// A movie as a media sees it.
struct FakeMovie : VNMovieLink {
  int64_t now = 0;
  bool exporting = false;
  bool noVideo = false;
  int64_t currentTime() override { return now; }
  bool exportMovie() override { return exporting; }
  bool disableVideo() override { return noVideo; }
};

}  // namespace vn::test
