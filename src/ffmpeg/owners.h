// One move-only owner per FFmpeg object: a std::unique_ptr whose stateless
// deleter calls the matching free function. The free functions of these
// objects appear nowhere else in the library.
#pragma once

#include <memory>

struct AVCodecContext;
struct AVDictionary;
struct AVFilterGraph;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVPacket;
struct SwrContext;
struct SwsContext;
struct AVSubtitle;

namespace vn::ff {

struct InputFormatDeleter {
  void operator()(AVFormatContext* p) const;
};  // avformat_close_input
struct OutputFormatDeleter {
  void operator()(AVFormatContext* p) const;
};  // avio_closep + avformat_free_context
struct CodecContextDeleter {
  void operator()(AVCodecContext* p) const;
};  // avcodec_free_context
struct FrameDeleter {
  void operator()(AVFrame* p) const;
};  // av_frame_free
struct PacketDeleter {
  void operator()(AVPacket* p) const;
};  // av_packet_free
struct FilterGraphDeleter {
  void operator()(AVFilterGraph* p) const;
};  // avfilter_graph_free
struct SwrDeleter {
  void operator()(SwrContext* p) const;
};  // swr_free
struct SwsDeleter {
  void operator()(SwsContext* p) const;
};  // sws_freeContext
struct SubtitleDeleter {
  void operator()(AVSubtitle* p) const;
};  // avsubtitle_free + delete
struct AvFreeDeleter {
  void operator()(void* p) const;
};  // av_free
struct DictionaryDeleter {
  void operator()(AVDictionary* p) const;
};  // av_dict_free
struct IOContextDeleter {
  void operator()(AVIOContext* p) const;
};  // av_freep(buffer) + avio_context_free

using InputFormatContext = std::unique_ptr<AVFormatContext, InputFormatDeleter>;
using OutputFormatContext = std::unique_ptr<AVFormatContext, OutputFormatDeleter>;
using CodecContext = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using Frame = std::unique_ptr<AVFrame, FrameDeleter>;
using Packet = std::unique_ptr<AVPacket, PacketDeleter>;
using FilterGraph = std::unique_ptr<AVFilterGraph, FilterGraphDeleter>;
using Swr = std::unique_ptr<SwrContext, SwrDeleter>;
using Sws = std::unique_ptr<SwsContext, SwsDeleter>;
using Subtitle = std::unique_ptr<AVSubtitle, SubtitleDeleter>;
using IOContext = std::unique_ptr<AVIOContext, IOContextDeleter>;
using Dictionary = std::unique_ptr<AVDictionary, DictionaryDeleter>;
template <typename T>
using AvBuffer = std::unique_ptr<T, AvFreeDeleter>;

// Allocating helpers; each returns an empty owner when allocation fails.
Frame makeFrame();
Packet makePacket();
Subtitle makeSubtitle();  // zero-filled

}  // namespace vn::ff
