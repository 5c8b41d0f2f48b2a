#include "ffmpeg/owners.h"

#include "ffmpeg/filter_library.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace vn::ff {

void InputFormatDeleter::operator()(AVFormatContext* p) const {
  avformat_close_input(&p);
}
void OutputFormatDeleter::operator()(AVFormatContext* p) const {
  // A file the muxer opened belongs to the context too.
  if (p && p->oformat && !(p->oformat->flags & AVFMT_NOFILE))
    avio_closep(&p->pb);
  avformat_free_context(p);
}
void CodecContextDeleter::operator()(AVCodecContext* p) const {
  avcodec_free_context(&p);
}
void FrameDeleter::operator()(AVFrame* p) const {
  av_frame_free(&p);
}
void DictionaryDeleter::operator()(AVDictionary* p) const {
  av_dict_free(&p);
}
void PacketDeleter::operator()(AVPacket* p) const {
  av_packet_free(&p);
}
void FilterGraphDeleter::operator()(AVFilterGraph* p) const {
  if (p)
    loadedFilters().graph_free(&p);
}
void SwrDeleter::operator()(SwrContext* p) const {
  swr_free(&p);
}
void SwsDeleter::operator()(SwsContext* p) const {
  sws_freeContext(p);
}
void SubtitleDeleter::operator()(AVSubtitle* p) const {
  avsubtitle_free(p);
  delete p;
}
void AvFreeDeleter::operator()(void* p) const {
  av_free(p);
}
void IOContextDeleter::operator()(AVIOContext* p) const {
  // The buffer is the context's current one, which FFmpeg may have replaced.
  if (p)
    av_freep(&p->buffer);
  avio_context_free(&p);
}

Frame makeFrame() {
  return Frame(av_frame_alloc());
}
Packet makePacket() {
  return Packet(av_packet_alloc());
}
Subtitle makeSubtitle() {
  return Subtitle(new AVSubtitle{});
}

}  // namespace vn::ff
