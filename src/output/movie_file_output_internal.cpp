#include "output/movie_file_output_internal.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <sstream>
#include <string_view>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
}

#include "core/codec_lock.h"
#include "core/log.h"
#include "ffmpeg/error.h"
#include "ffmpeg/filter_library.h"
#include "image/bitmap_context.h"
#include "output/audio_converter.h"
#include "output/image_colorspace_converter.h"

namespace {

// Samples always left in the audio converter: they are encoded only when
// more audio follows, so an export ends up to 512 + frame size - 1 samples
// short. Intended.
constexpr int kAudioReserve = 512;

// Frame size for encoders that take any number of samples.
constexpr int kDefaultAudioFrameSize = 1024;

// How far the muxer may hold packets back to interleave them, microseconds.
constexpr int kMaxInterleaveDelay = 700000;

// Bound on the packets taken out of an encoder in one call, far above what
// any encoder buffers.
constexpr int kMaxPacketsPerCall = 1 << 16;

// Bound on the frame lengths remembered for frames inside the video encoder.
constexpr size_t kMaxPendingVideoFrames = 1024;

std::string lowercase(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

// The packed RGB a paletted encoder's pictures are made from.
constexpr AVPixelFormat kPalettePictureFormat = AV_PIX_FMT_RGB32;

// A speed preset (0 "ultrafast" to 8 "veryslow") in each encoder's own
// setting.
constexpr int kVp9CpuUsed[] = {8, 7, 5, 4, 3, 2, 1, 0, 0};
constexpr int kVp8CpuUsed[] = {16, 12, 8, 5, 3, 2, 1, 0, 0};
constexpr int kSvtAv1Preset[] = {12, 11, 10, 9, 8, 6, 5, 4, 2};
constexpr int kAomCpuUsed[] = {8, 7, 6, 5, 4, 3, 2, 1, 0};

bool isOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

// Encoders that give their statistics of a first pass with every frame;
// the others give them all at the end.
bool givesStatsPerFrame(std::string_view encoder) {
  return isOneOf(encoder, {"mpeg1video", "mpeg2video", "mpeg4", "msmpeg4", "msmpeg4v2"});
}

// "mp4" for "/a/b.MP4"; "" without an extension.
std::string extensionOf(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  return ext.empty() ? ext : ext.substr(1);
}

}  // namespace

std::shared_ptr<VNFFMovieFileOutputInternal> VNFFMovieFileOutputInternal::create() {
  try {
    auto writer = std::shared_ptr<VNFFMovieFileOutputInternal>(new VNFFMovieFileOutputInternal());
    if (!writer->audioConverter_ || !writer->videoConverter_ || !writer->audioFrame_ ||
        !writer->videoFrame_ || !writer->packet_)
      return nullptr;
    return writer;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

VNFFMovieFileOutputInternal::VNFFMovieFileOutputInternal()
    : audioConverter_(VNFFMpegAudioConverter::create()),
      videoConverter_(VNFFImageColorspaceConverter::create()),
      audioFrame_(vn::ff::makeFrame()),
      videoFrame_(vn::ff::makeFrame()),
      packet_(vn::ff::makePacket()) {
  movieFileOutputFormatToDefaults(&movieFormat_);
  audioInputFormat_ = {AV_SAMPLE_FMT_FLT, vn::defaultChannelLayout(2), 44100};
}

VNFFMovieFileOutputInternal::~VNFFMovieFileOutputInternal() {
  freeEncoders();
  if (passLog_)
    std::fclose(passLog_);
  // The container's owner closes a file left open.
}

VNFFMovieFileOutputFormat VNFFMovieFileOutputInternal::movieFormat() const {
  std::lock_guard lock(formatLock_);
  return movieFormat_;
}

void VNFFMovieFileOutputInternal::setMovieFormat(VNFFMovieFileOutputFormat format) {
  std::lock_guard lock(formatLock_);
  movieFormat_ = format;
}

VNFFAudioFormat VNFFMovieFileOutputInternal::audioInputFormat() const {
  std::lock_guard lock(formatLock_);
  return audioInputFormat_;
}

void VNFFMovieFileOutputInternal::setAudioInputFormat(VNFFAudioFormat format) {
  std::lock_guard lock(formatLock_);
  audioInputFormat_ = format;
}

AVCodecContext* VNFFMovieFileOutputInternal::codecOf(const AVStream* stream) const {
  if (!stream)
    return nullptr;
  for (const Encoder& e : encoders_) {
    if (e.stream == stream)
      return e.codec.get();
  }
  return nullptr;
}

VNFFAudioFormat VNFFMovieFileOutputInternal::outputAudioFormat() const {
  const AVCodecContext* c = codecOf(audioStream_);
  if (!c)
    return {};
  return {c->sample_fmt, vn::channelMask(c->ch_layout), c->sample_rate};
}

VNFFVideoFormat VNFFMovieFileOutputInternal::outputVideoFormat() const {
  const AVCodecContext* c = codecOf(videoStream_);
  if (!c)
    return {};
  return {c->pix_fmt == AV_PIX_FMT_PAL8 ? kPalettePictureFormat : c->pix_fmt, c->width, c->height};
}

void VNFFMovieFileOutputInternal::createMovieOutput() {
  if (formatContext_ || spent_)
    return;
  // Ringtones get the container of .m4a; the file keeps its own name.
  const std::string extension = lowercase(extensionOf(path_));
  const std::string guessName = extension == "m4r" ? "filename.m4a" : path_;
  const AVOutputFormat* guessed = av_guess_format(nullptr, guessName.c_str(), nullptr);
  // FFmpeg's description stays untouched: the codec choice is ours.
  const VNFFMovieFileOutputFormat format = movieFormat();
  if (guessed) {
    videoCodec_ = format.video_codec ? format.video_codec : guessed->video_codec;
    audioCodec_ = format.audio_codec ? format.audio_codec : guessed->audio_codec;
  }
  AVFormatContext* context = nullptr;
  const int status = avformat_alloc_output_context2(&context, guessed, nullptr, path_.c_str());
  formatContext_.reset(context);
  if (!formatContext_) {
    if (!guessed && status == AVERROR(EINVAL))
      fail(extension.empty() ? "no file extension to choose a container by"
                             : "unknown container for extension ." + extensionOf(path_));
    else
      fail(vn::ff::callError("avformat_alloc_output_context2", status));
    return;
  }
  if (!guessed) {
    // FFmpeg guessed again from the path: its defaults, no overrides.
    videoCodec_ = formatContext_->oformat->video_codec;
    audioCodec_ = formatContext_->oformat->audio_codec;
  }
  formatContext_->max_delay = kMaxInterleaveDelay;
}

void VNFFMovieFileOutputInternal::openAudio() {
  createMovieOutput();
  if (!formatContext_)
    return;
  audioStream_ = openOutputStream(audioCodec_, [this](AVStream*, AVCodecContext* c,
                                                      const AVCodec* e) { configureAudio(c, e); });
}

void VNFFMovieFileOutputInternal::openVideo() {
  createMovieOutput();
  if (!formatContext_)
    return;
  videoStream_ = openOutputStream(videoCodec_, [this](AVStream*, AVCodecContext* c,
                                                      const AVCodec* e) { configureVideo(c, e); });
}

AVStream* VNFFMovieFileOutputInternal::openOutputStream(int32_t codecId,
                                                        const StreamConfiguration& configure) {
  if (!formatContext_)
    return nullptr;
  const AVOutputFormat* container = formatContext_->oformat;
  const auto id = static_cast<AVCodecID>(codecId);
  if (id == AV_CODEC_ID_NONE) {
    fail(std::string("the ") + container->name + " container has no codec for this stream");
    return nullptr;
  }
  const AVCodec* encoder = vn_find_encoder(id);
  if (!encoder) {
    fail(std::string("no encoder for codec ") + avcodec_get_name(id));
    return nullptr;
  }
  AVStream* stream = avformat_new_stream(formatContext_.get(), encoder);
  if (!stream) {
    fail(vn::ff::callError("avformat_new_stream", AVERROR(ENOMEM)));
    return nullptr;
  }
  stream->id = stream->index + 1;
  try {
    encoders_.push_back({stream, vn::ff::CodecContext(avcodec_alloc_context3(encoder))});
  } catch (const std::bad_alloc&) {
    fail(vn::ff::callError("avcodec_alloc_context3", AVERROR(ENOMEM)));
    return nullptr;
  }
  AVCodecContext* c = encoders_.back().codec.get();
  if (!c) {
    // Without a context the stream stays as it is: neither configured nor opened.
    fail(vn::ff::callError("avcodec_alloc_context3", AVERROR(ENOMEM)));
    return stream;
  }
  if (container->flags & AVFMT_GLOBALHEADER)
    c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  if (encoder->capabilities & AV_CODEC_CAP_EXPERIMENTAL)
    c->strict_std_compliance = FF_COMPLIANCE_EXPERIMENTAL;
  configure(stream, c, encoder);
  int status;
  {
    std::lock_guard lock(vn::codecLock());
    status = avcodec_open2(c, encoder, nullptr);
  }
  // The stream describes its encoder whether or not it opened, as the
  // container would see it either way.
  avcodec_parameters_from_context(stream->codecpar, c);
  stream->time_base = c->time_base;
  if (status != 0) {
    fail(std::string("cannot open the ") + encoder->name +
         " encoder: " + vn::ff::errorText(status));
    return nullptr;
  }
  return stream;
}

void VNFFMovieFileOutputInternal::configureAudio(AVCodecContext* c, const AVCodec* encoder) {
  const VNFFMovieFileOutputFormat format = movieFormat();
  // An encoder that lists no sample format gets the one we are given.
  c->sample_fmt = encoder->sample_fmts ? encoder->sample_fmts[0]
                                       : static_cast<AVSampleFormat>(audioInputFormat().sample_fmt);
  c->bit_rate = format.audio_bitrate;
  c->sample_rate = format.sample_rate;
  av_channel_layout_uninit(&c->ch_layout);
  av_channel_layout_from_mask(&c->ch_layout, format.channel_layout);
  // Audio timestamps count samples.
  c->time_base = AVRational{1, format.sample_rate};
}

void VNFFMovieFileOutputInternal::configureVideo(AVCodecContext* c, const AVCodec* encoder) {
  const VNFFMovieFileOutputFormat format = movieFormat();
  c->codec_id = static_cast<AVCodecID>(videoCodec_);
  c->bit_rate = format.video_bitrate;
  c->width = format.width;
  c->height = format.height;
  c->pix_fmt = encoder->pix_fmts ? encoder->pix_fmts[0] : AV_PIX_FMT_YUV420P;
  // GIF: pictures mapped onto one palette made from the whole clip.
  if (c->codec_id == AV_CODEC_ID_GIF)
    c->pix_fmt = AV_PIX_FMT_PAL8;
  c->time_base = movieFormatTimebase();
  // 0 leaves the encoder's own interval, as its defaults set it.
  if (format.keyframe_interval > 0)
    c->gop_size = format.keyframe_interval;
  tagColours(c);
  switch (c->codec_id) {
    case AV_CODEC_ID_MPEG1VIDEO:
    case AV_CODEC_ID_MPEG2VIDEO:
    case AV_CODEC_ID_MSMPEG4V3:  // deliberately in this set
      c->mb_decision = FF_MB_DECISION_RD;
      break;
    case AV_CODEC_ID_H264:
      av_opt_set(c->priv_data, "preset", "fast", 0);
      av_opt_set(c->priv_data, "profile", "Main", 0);
      break;
    default:
      break;
  }
  configureEncoderSettings(c, encoder);
}

void VNFFMovieFileOutputInternal::configureEncoderSettings(AVCodecContext* c,
                                                           const AVCodec* encoder) {
  const VNFFMovieFileOutputFormat format = movieFormat();
  const std::string_view name = encoder->name;
  void* options = c->priv_data;
  const bool x26x = isOneOf(name, {"libx264", "libx265"});
  const bool vpx = isOneOf(name, {"libvpx", "libvpx-vp9"});
  std::string x265Params = "log-level=error";

  const double quality = format.video_quality;
  if (quality >= 0) {
    const long rounded = std::lround(quality);
    if (x26x) {
      av_opt_set_double(options, "crf", quality, 0);
      c->bit_rate = 0;
    } else if (name == "libvpx") {
      // VP8's constant quality keeps the bit rate as its ceiling.
      av_opt_set_int(options, "crf", rounded, 0);
    } else if (isOneOf(name, {"libvpx-vp9", "libsvtav1", "libaom-av1"})) {
      av_opt_set_int(options, "crf", rounded, 0);
      c->bit_rate = 0;
    } else if (isOneOf(name, {"mpeg1video", "mpeg2video", "mpeg4", "msmpeg4", "msmpeg4v2",
                              "libtheora"})) {
      c->flags |= AV_CODEC_FLAG_QSCALE;
      c->global_quality = static_cast<int>(std::lround(quality * FF_QP2LAMBDA));
    }
  }

  if (const int speed = vn_speed_preset_index(format.speed_preset); speed >= 0) {
    if (x26x) {
      av_opt_set(options, "preset", format.speed_preset.c_str(), 0);
    } else if (vpx) {
      // The two fastest trade quality for real-time speed.
      av_opt_set(options, "deadline", speed <= 1 ? "realtime" : "good", 0);
      av_opt_set_int(options, "cpu-used",
                     name == "libvpx" ? kVp8CpuUsed[speed] : kVp9CpuUsed[speed], 0);
    } else if (name == "libsvtav1") {
      av_opt_set_int(options, "preset", kSvtAv1Preset[speed], 0);
    } else if (name == "libaom-av1") {
      av_opt_set_int(options, "cpu-used", kAomCpuUsed[speed], 0);
    }
  }

  if ((format.pass == 1 || format.pass == 2) && !format.pass_log.empty()) {
    const bool first = format.pass == 1;
    if (name == "libx264") {
      // x264 keeps its statistics in its own file.
      av_opt_set(options, "stats", format.pass_log.c_str(), 0);
      c->flags |= first ? AV_CODEC_FLAG_PASS1 : AV_CODEC_FLAG_PASS2;
    } else if (name == "libx265") {
      x265Params += std::string(":pass=") + (first ? "1" : "2") + ":stats=" + format.pass_log;
    } else if (vpx || name == "libaom-av1" || givesStatsPerFrame(name)) {
      if (first) {
        passLog_ = std::fopen(format.pass_log.c_str(), "wb");
        if (passLog_)
          c->flags |= AV_CODEC_FLAG_PASS1;
      } else if (std::ifstream in(format.pass_log, std::ios::binary); in) {
        std::ostringstream text;
        text << in.rdbuf();
        passStats_ = text.str();
        // The encoder reads the text; the writer keeps it as long as the
        // encoder lives.
        c->stats_in = passStats_.data();
        c->flags |= AV_CODEC_FLAG_PASS2;
      }
    }
  }
  if (name == "libx265")
    av_opt_set(options, "x265-params", x265Params.c_str(), 0);
}

void VNFFMovieFileOutputInternal::keepPassStats(const AVCodecContext* c) {
  if (passLog_ && c->stats_out)
    std::fputs(c->stats_out, passLog_);
}

bool VNFFMovieFileOutputInternal::openPalette(const AVCodecContext* c) {
  std::string reason;
  const vn::ff::FilterLibrary* filters = vn::ff::FilterLibrary::get(&reason);
  if (!filters) {
    fail(reason);
    return false;
  }
  paletteGraph_.reset(filters->graph_alloc());
  paletteFrame_ = vn::ff::makeFrame();
  if (!paletteGraph_ || !paletteFrame_) {
    fail(vn::ff::callError("avfilter_graph_alloc", AVERROR(ENOMEM)));
    return false;
  }
  AVFilterGraph* graph = paletteGraph_.get();
  // One thread: the graph holds every picture until the palette is made.
  graph->nb_threads = 1;
  char source[160];
  std::snprintf(source, sizeof source,
                "video_size=%dx%d:pix_fmt=%d:time_base=%d/%d:pixel_aspect=1/1", c->width, c->height,
                kPalettePictureFormat, c->time_base.num, c->time_base.den);
  // Every picture is seen before the palette is made: split keeps them
  // while palettegen counts their colours; paletteuse then maps each onto
  // the palette with error diffusion.
  struct Step {
    const char* filter;
    const char* arguments;
    AVFilterContext* context = nullptr;
  };
  Step steps[] = {{"buffer", source},
                  {"split", "2"},
                  {"palettegen", "max_colors=256:stats_mode=full"},
                  {"paletteuse", "dither=sierra2_4a"},
                  {"buffersink", nullptr}};
  for (Step& step : steps) {
    const int status =
        filters->graph_create_filter(&step.context, filters->get_by_name(step.filter), step.filter,
                                     step.arguments, nullptr, graph);
    if (status < 0) {
      fail(vn::ff::callError("avfilter_graph_create_filter", status));
      return false;
    }
  }
  AVFilterContext* const in = steps[0].context;
  AVFilterContext* const split = steps[1].context;
  AVFilterContext* const generate = steps[2].context;
  AVFilterContext* const use = steps[3].context;
  AVFilterContext* const out = steps[4].context;
  int status = filters->link(in, 0, split, 0);
  if (status >= 0)
    status = filters->link(split, 0, use, 0);
  if (status >= 0)
    status = filters->link(split, 1, generate, 0);
  if (status >= 0)
    status = filters->link(generate, 0, use, 1);
  if (status >= 0)
    status = filters->link(use, 0, out, 0);
  if (status >= 0)
    status = filters->graph_config(graph, nullptr);
  if (status < 0) {
    fail(vn::ff::callError("avfilter_graph_config", status));
    return false;
  }
  paletteIn_ = in;
  paletteOut_ = out;
  return true;
}

void VNFFMovieFileOutputInternal::drainPalette(bool ending) {
  if (!paletteGraph_)
    return;
  const vn::ff::FilterLibrary& filters = vn::ff::loadedFilters();
  if (ending) {
    if (const int status = filters.buffersrc_add_frame_flags(paletteIn_, nullptr, 0); status < 0)
      vn::logFailure("av_buffersrc_add_frame_flags", status);
  }
  AVFrame* frame = paletteFrame_.get();
  while (filters.buffersink_get_frame(paletteOut_, frame) >= 0) {
    writeFrame(frame, videoStream_);
    av_frame_unref(frame);
  }
}

void VNFFMovieFileOutputInternal::tagColours(AVCodecContext* c) const {
  const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(c->pix_fmt);
  if (!descriptor || (descriptor->flags & AV_PIX_FMT_FLAG_RGB) || descriptor->nb_components < 3)
    return;
  const bool fullRange = std::string_view(descriptor->name).starts_with("yuvj");
  if (colors_.matrix != AVCOL_SPC_UNSPECIFIED) {
    // The converter writes this matrix: say so, with the rest as given.
    c->colorspace = static_cast<AVColorSpace>(colors_.matrix);
    c->color_primaries = static_cast<AVColorPrimaries>(colors_.primaries);
    c->color_trc = static_cast<AVColorTransferCharacteristic>(colors_.transfer);
    c->color_range = fullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    return;
  }
  // The colour-space converter writes YUV with swscale's default BT.601
  // matrix, limited range unless the format is a full-range ("J") one.
  // Saying so keeps players from assuming BT.709 for HD sizes.
  c->colorspace = AVCOL_SPC_SMPTE170M;
  if (!fullRange)
    c->color_range = AVCOL_RANGE_MPEG;
}

AVRational VNFFMovieFileOutputInternal::movieFormatTimebase() const {
  const VNFFMovieFileOutputFormat format = movieFormat();
  return AVRational{format.frameTime, format.framerate};
}

AVRational VNFFMovieFileOutputInternal::movieFrameDuration() const {
  return movieFormatTimebase();
}

bool VNFFMovieFileOutputInternal::startOutput() {
  if (!formatContext_) {
    if (spent_)
      fail("the writer has finished its file already");
    return false;
  }
  if (audioStream_)
    audioConverter_->convertFrom(audioInputFormat(), outputAudioFormat());
  for (AudioTrack& track : audioTracks_) {
    const AVCodecContext* c = codecOf(track.stream);
    track.converter->convertFrom(audioInputFormat(),
                                 {c->sample_fmt, vn::channelMask(c->ch_layout), c->sample_rate});
  }
  if (videoStream_) {
    videoConverter_->setOutputFormat(outputVideoFormat());
    if (colors_.matrix != AVCOL_SPC_UNSPECIFIED)
      videoConverter_->setColorspace(colors_.matrix);
    const AVCodecContext* c = codecOf(videoStream_);
    if (c->pix_fmt == AV_PIX_FMT_PAL8 && !paletteGraph_ && !openPalette(c))
      return false;
  }
  AVFormatContext* context = formatContext_.get();
  if (context->oformat->flags & AVFMT_NOFILE) {
    fail(std::string("the ") + context->oformat->name + " container writes no file of its own");
    return false;
  }
  if (headerWritten_)
    return true;
  if (!context->pb) {
    const int status = avio_open(&context->pb, context->url, AVIO_FLAG_WRITE);
    if (status < 0) {
      fail(vn::ff::errorText(status));
      return false;
    }
  }
  const int status = avformat_write_header(context, nullptr);
  if (status < 0) {
    fail(headerFailure(status));
    return false;
  }
  headerWritten_ = true;
  return true;
}

std::string VNFFMovieFileOutputInternal::headerFailure(int status) const {
  const AVOutputFormat* container = formatContext_->oformat;
  for (unsigned i = 0; i < formatContext_->nb_streams; ++i) {
    const AVCodecID id = formatContext_->streams[i]->codecpar->codec_id;
    if (id != AV_CODEC_ID_NONE && avformat_query_codec(container, id, FF_COMPLIANCE_NORMAL) == 0)
      return std::string("the ") + container->name + " container cannot hold " +
             avcodec_get_name(id);
  }
  return vn::ff::callError("avformat_write_header", status);
}

void VNFFMovieFileOutputInternal::stopOutput() {
  if (!formatContext_)
    return;
  if (headerWritten_) {
    // Each call drains whatever the encoder still holds; the second finds
    // it empty.
    for (int i = 0; i < kMaxPacketsPerCall && writeFrame(nullptr, audioStream_); ++i) {
    }
    for (const AudioTrack& track : audioTracks_) {
      for (int i = 0; i < kMaxPacketsPerCall && writeFrame(nullptr, track.stream); ++i) {
      }
    }
    drainPalette(true);
    for (int i = 0; i < kMaxPacketsPerCall && writeFrame(nullptr, videoStream_); ++i) {
    }
    // The rest of a first pass's statistics, or all of them.
    if (const AVCodecContext* c = codecOf(videoStream_); c && !givesStatsPerFrame(c->codec->name))
      keepPassStats(c);
    av_interleaved_write_frame(formatContext_.get(), nullptr);
    av_write_trailer(formatContext_.get());
  }
  freeEncoders();
  paletteGraph_.reset();
  if (passLog_) {
    std::fclose(passLog_);
    passLog_ = nullptr;
  }
  videoStream_ = nullptr;
  audioStream_ = nullptr;
  audioTracks_.clear();
  encoders_.clear();
  formatContext_.reset();
  headerWritten_ = false;
  spent_ = true;
}

void VNFFMovieFileOutputInternal::freeEncoders() {
  for (Encoder& e : encoders_) {
    std::lock_guard lock(vn::codecLock());
    e.codec.reset();
  }
}

void VNFFMovieFileOutputInternal::writeAudioData(const void* bytes, uint64_t length) {
  encodeAudio(audioStream_, *audioConverter_, audio_pts_, bytes, length);
}

void VNFFMovieFileOutputInternal::writeAudioData(int stream, const void* bytes, uint64_t length) {
  for (AudioTrack& track : audioTracks_) {
    if (track.stream->index == stream)
      encodeAudio(track.stream, *track.converter, track.pts, bytes, length);
  }
}

void VNFFMovieFileOutputInternal::encodeAudio(AVStream* stream,
                                              VNFFMpegAudioConverter& converter,
                                              int64_t& pts,
                                              const void* bytes,
                                              uint64_t length) {
  converter.writeData(bytes, length);
  const AVCodecContext* c = codecOf(stream);
  if (!c)
    return;
  AVFrame* frame = audioFrame_.get();
  const int samples = c->frame_size > 0 ? c->frame_size : kDefaultAudioFrameSize;
  const VNFFAudioFormat out = converter.outFormat();
  const int size =
      av_samples_get_buffer_size(nullptr, vn_get_channel_layout_nb_channels(out.channel_layout),
                                 samples, static_cast<AVSampleFormat>(out.sample_fmt), 1);
  if (size <= 0)
    return;
  try {
    // Grows once to the encoder's frame; later calls reuse it.
    if (audioSamples_.size() < static_cast<size_t>(size))
      audioSamples_.resize(size);
  } catch (const std::bad_alloc&) {
    return;
  }
  frame->nb_samples = samples;
  frame->format = c->sample_fmt;
  frame->sample_rate = c->sample_rate;
  if (av_channel_layout_copy(&frame->ch_layout, &c->ch_layout) < 0 ||
      avcodec_fill_audio_frame(frame, c->ch_layout.nb_channels, c->sample_fmt, audioSamples_.data(),
                               size, 1) < 0) {
    av_frame_unref(frame);
    return;
  }
  while (readAudioFrameFromBuffer(converter, frame)) {
    frame->pts = pts;
    pts += frame->nb_samples;
    writeFrame(frame, stream);
  }
  av_frame_unref(frame);
}

bool VNFFMovieFileOutputInternal::readAudioFrameFromBuffer(AVFrame* frame) {
  return readAudioFrameFromBuffer(*audioConverter_, frame);
}

bool VNFFMovieFileOutputInternal::readAudioFrameFromBuffer(VNFFMpegAudioConverter& converter,
                                                           AVFrame* frame) {
  if (!frame || frame->nb_samples <= 0)
    return false;
  if (converter.outputBufferFrames() < kAudioReserve + frame->nb_samples)
    return false;
  const int got = converter.convertFrom(nullptr, 0, frame->extended_data, frame->nb_samples);
  // The reserve keeps the resampler ahead of us, so a short pull should not
  // happen; if it does, the rest of the frame is silence rather than stale
  // samples of the previous frame.
  if (got < frame->nb_samples) {
    av_samples_set_silence(frame->extended_data, got, frame->nb_samples - got,
                           frame->ch_layout.nb_channels,
                           static_cast<AVSampleFormat>(frame->format));
  }
  return true;
}

void VNFFMovieFileOutputInternal::writeVideoFrame(const AVFrame* frame,
                                                  const std::vector<VNFFFrameOverlay>& overlays) {
  videoConverter_->convertFrame(frame);
  if (!overlays.empty() && !videoConverter_->isOutputEmpty()) {
    // Laid over the converter's own planes, which the encoder reads next.
    const AVFrame* picture = videoConverter_->outputFrame();
    const std::optional<VNFFFrameOverlay::Layout> layout = overlayLayout();
    for (const VNFFFrameOverlay& overlay : overlays) {
      const VNFFFrameOverlay::Layout& made = overlay.layout();
      if (layout == made && picture->width == made.width && picture->height == made.height &&
          picture->format == made.pix_fmt)
        overlay.blend(picture->data, picture->linesize);
    }
  }
  writeVideoFrameDuration(movieFrameDuration());
}

std::optional<VNFFFrameOverlay::Layout> VNFFMovieFileOutputInternal::overlayLayout() const {
  const AVCodecContext* c = codecOf(videoStream_);
  if (!c || paletteGraph_ || !VNFFFrameOverlay::supports(c->pix_fmt))
    return std::nullopt;
  const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(c->pix_fmt);
  // As tagColours says: the converter's matrix, else swscale's BT.601;
  // limited range unless the format is a full-range ("J") one.
  VNFFFrameOverlay::Layout layout;
  layout.pix_fmt = c->pix_fmt;
  layout.width = c->width;
  layout.height = c->height;
  layout.matrix = colors_.matrix != AVCOL_SPC_UNSPECIFIED ? colors_.matrix : AVCOL_SPC_SMPTE170M;
  layout.fullRange = std::string_view(descriptor->name).starts_with("yuvj");
  return layout;
}

void VNFFMovieFileOutputInternal::writeImage(const vn::BitmapImage& image) {
  videoConverter_->convertImage(image);
  writeVideoFrameDuration(movieFrameDuration());
}

void VNFFMovieFileOutputInternal::writeImage(const vn::FilterImage& image) {
  videoConverter_->convertImage(image);
  writeVideoFrameDuration(movieFrameDuration());
}

void VNFFMovieFileOutputInternal::writeCGContext(const vn::BitmapContext& context) {
  videoConverter_->convertContext(context);
  writeVideoFrameDuration(movieFrameDuration());
}

void VNFFMovieFileOutputInternal::writeCGContext(const vn::BitmapContext& context,
                                                 int32_t duration) {
  videoConverter_->convertContext(context);
  writeVideoFrameDuration(AVRational{duration, movieFormat().framerate});
}

std::shared_ptr<vn::BitmapContext> VNFFMovieFileOutputInternal::createCGContext() const {
  return videoConverter_->createCGContext();
}

void VNFFMovieFileOutputInternal::drawImage(const vn::BitmapImage& image,
                                            vn::BitmapContext& context) {
  videoConverter_->drawImage(image, context);
}

void VNFFMovieFileOutputInternal::drawImage(const vn::FilterImage& image,
                                            vn::BitmapContext& context) {
  videoConverter_->drawImage(image, context);
}

void VNFFMovieFileOutputInternal::writeVideoFrameDuration(AVRational duration) {
  const AVCodecContext* c = codecOf(videoStream_);
  if (!c || videoConverter_->isOutputEmpty())
    return;
  const AVFrame* picture = videoConverter_->outputFrame();
  // The converter was sized from this encoder at startOutput; anything else
  // would be read past its planes.
  const VNFFVideoFormat taken = outputVideoFormat();
  if (picture->width != taken.width || picture->height != taken.height ||
      picture->format != taken.pix_fmt)
    return;
  const int64_t length = av_rescale_q(1, duration, c->time_base);
  // A negative duration gives no usable length (FFmpeg answers INT64_MIN).
  if (length < 0)
    return;
  // A view of the converter's planes; the encoder copies what it keeps.
  AVFrame* frame = videoFrame_.get();
  av_frame_unref(frame);
  std::copy(std::begin(picture->data), std::end(picture->data), std::begin(frame->data));
  std::copy(std::begin(picture->linesize), std::end(picture->linesize),
            std::begin(frame->linesize));
  frame->extended_data = frame->data;
  frame->width = picture->width;
  frame->height = picture->height;
  frame->format = picture->format;
  frame->pts = video_pts_;
  // Video encoders give their packets no duration; without one the muxer
  // gives the last frame none and players drop it.
  if (videoDurations_.size() >= kMaxPendingVideoFrames)
    videoDurations_.erase(videoDurations_.begin());
  videoDurations_[video_pts_] = length;
  video_pts_ += length;
  if (paletteGraph_) {
    // The graph copies the picture: the view's planes are the converter's.
    if (const int status = vn::ff::loadedFilters().buffersrc_add_frame_flags(
            paletteIn_, frame, AV_BUFFERSRC_FLAG_KEEP_REF);
        status < 0)
      vn::logFailure("av_buffersrc_add_frame_flags", status);
    av_frame_unref(frame);
    drainPalette(false);
    return;
  }
  writeFrame(frame, videoStream_);
  av_frame_unref(frame);
}

bool VNFFMovieFileOutputInternal::writeFrame(AVFrame* frame, AVStream* stream) {
  if (!stream)
    return false;
  AVCodecContext* c = codecOf(stream);
  if (!c)
    return false;
  if (c->codec_type != AVMEDIA_TYPE_AUDIO && c->codec_type != AVMEDIA_TYPE_VIDEO)
    return false;
  AVFrame* input = frame && frame->data[0] ? frame : nullptr;
  // Raising every audio timestamp by the encoder's delay is deliberate: the
  // encoder moves its packets back by that much, so the first starts at 0.
  if (input && c->codec_type == AVMEDIA_TYPE_AUDIO && !trimsEncoderDelay_)
    input->pts += c->initial_padding;
  // A fixed quantiser is read from each picture.
  if (input && c->codec_type == AVMEDIA_TYPE_VIDEO && (c->flags & AV_CODEC_FLAG_QSCALE))
    input->quality = c->global_quality;
  // A refused frame is skipped; its timestamp is spent all the same.
  if (const int sent = avcodec_send_frame(c, input); sent < 0 && sent != AVERROR_EOF)
    vn::logFailure("avcodec_send_frame", sent);
  bool wrote = false;
  AVPacket* packet = packet_.get();
  for (int i = 0; i < kMaxPacketsPerCall && avcodec_receive_packet(c, packet) == 0; ++i) {
    wrote = true;
    if (c->codec_type == AVMEDIA_TYPE_VIDEO && givesStatsPerFrame(c->codec->name))
      keepPassStats(c);
    if (c->codec_type == AVMEDIA_TYPE_VIDEO) {
      const auto length = videoDurations_.find(packet->pts);
      if (length != videoDurations_.end()) {
        if (packet->duration == 0)
          packet->duration = length->second;
        videoDurations_.erase(length);
      }
    }
    packet->stream_index = stream->index;
    av_packet_rescale_ts(packet, c->time_base, stream->time_base);
    // Before the header is written (or after it was refused) the packet
    // has nowhere to go.
    if (headerWritten_)
      av_interleaved_write_frame(formatContext_.get(), packet);
    av_packet_unref(packet);
  }
  return wrote;
}

AVStream* VNFFMovieFileOutputInternal::streamAt(int index) const {
  if (!formatContext_ || index < 0 || static_cast<unsigned>(index) >= formatContext_->nb_streams)
    return nullptr;
  return formatContext_->streams[index];
}

int VNFFMovieFileOutputInternal::openAudioStream() {
  createMovieOutput();
  std::shared_ptr<VNFFMpegAudioConverter> converter = VNFFMpegAudioConverter::create();
  if (!formatContext_ || !converter) {
    if (!converter)
      fail(vn::ff::callError("swr_alloc", AVERROR(ENOMEM)));
    return -1;
  }
  AVStream* stream = openOutputStream(
      audioCodec_,
      [this](AVStream*, AVCodecContext* c, const AVCodec* e) { configureAudio(c, e); });
  if (!stream)
    return -1;
  audioTracks_.push_back({stream, std::move(converter), 0});
  return stream->index;
}

int VNFFMovieFileOutputInternal::openCopiedStream(const AVCodecParameters* parameters) {
  createMovieOutput();
  if (!formatContext_ || !parameters)
    return -1;
  const AVOutputFormat* container = formatContext_->oformat;
  // 0 is a firm no; a container without a list of codecs is tried at the
  // header.
  if (avformat_query_codec(container, parameters->codec_id, FF_COMPLIANCE_NORMAL) == 0) {
    fail(std::string("the ") + container->name + " container cannot hold " +
         avcodec_get_name(parameters->codec_id));
    return -1;
  }
  AVStream* stream = avformat_new_stream(formatContext_.get(), nullptr);
  if (!stream || avcodec_parameters_copy(stream->codecpar, parameters) < 0) {
    fail(vn::ff::callError("avformat_new_stream", AVERROR(ENOMEM)));
    return -1;
  }
  // The tag of the input's container may mean nothing in this one.
  stream->codecpar->codec_tag = 0;
  stream->id = stream->index + 1;
  return stream->index;
}

int VNFFMovieFileOutputInternal::openSubtitleStream(int32_t codecId,
                                                    const uint8_t* header,
                                                    int headerSize) {
  createMovieOutput();
  if (!formatContext_)
    return -1;
  AVStream* stream = openOutputStream(codecId, [&](AVStream*, AVCodecContext* c, const AVCodec*) {
    // Subtitle times are kept in milliseconds, as the text decoders give
    // them.
    c->time_base = AVRational{1, 1000};
    if (header && headerSize > 0) {
      c->subtitle_header = static_cast<uint8_t*>(av_mallocz(headerSize + 1));
      if (c->subtitle_header) {
        std::copy(header, header + headerSize, c->subtitle_header);
        c->subtitle_header_size = headerSize;
      }
    }
  });
  return stream ? stream->index : -1;
}

void VNFFMovieFileOutputInternal::writePacket(int index, AVPacket* packet) {
  AVStream* stream = streamAt(index);
  if (!stream || !headerWritten_) {
    av_packet_unref(packet);
    return;
  }
  packet->stream_index = index;
  packet->pos = -1;
  av_packet_rescale_ts(packet, packet->time_base, stream->time_base);
  packet->time_base = stream->time_base;
  if (const int status = av_interleaved_write_frame(formatContext_.get(), packet); status < 0)
    vn::logFailure("av_interleaved_write_frame", status);
  av_packet_unref(packet);
}

void VNFFMovieFileOutputInternal::writeSubtitle(int index,
                                                const AVSubtitle& subtitle,
                                                int64_t start,
                                                int64_t duration) {
  // Far above any subtitle's text; as the ffmpeg command line allows.
  constexpr int kMaxSubtitleSize = 1 << 20;
  AVStream* stream = streamAt(index);
  AVCodecContext* c = codecOf(stream);
  if (!c || !headerWritten_ || c->codec_type != AVMEDIA_TYPE_SUBTITLE)
    return;
  try {
    subtitleBuffer_.resize(kMaxSubtitleSize);
  } catch (const std::bad_alloc&) {
    return;
  }
  const int size = avcodec_encode_subtitle(c, subtitleBuffer_.data(), kMaxSubtitleSize, &subtitle);
  if (size <= 0) {
    if (size < 0)
      vn::logFailure("avcodec_encode_subtitle", size);
    return;
  }
  AVPacket* packet = packet_.get();
  if (av_new_packet(packet, size) < 0)
    return;
  std::copy_n(subtitleBuffer_.data(), size, packet->data);
  packet->pts = packet->dts = start;
  packet->duration = duration;
  packet->time_base = AV_TIME_BASE_Q;
  writePacket(index, packet);
}

void VNFFMovieFileOutputInternal::setMetadata(const AVDictionary* tags) {
  createMovieOutput();
  if (formatContext_)
    av_dict_copy(&formatContext_->metadata, tags, 0);
}

void VNFFMovieFileOutputInternal::addChapter(int64_t start, int64_t end, const AVDictionary* tags) {
  createMovieOutput();
  AVFormatContext* context = formatContext_.get();
  if (!context)
    return;
  // The container frees its chapters with itself.
  auto* chapter = static_cast<AVChapter*>(av_mallocz(sizeof(AVChapter)));
  auto** chapters = static_cast<AVChapter**>(
      av_realloc_array(context->chapters, context->nb_chapters + 1, sizeof(AVChapter*)));
  if (!chapter || !chapters) {
    av_free(chapter);
    return;
  }
  context->chapters = chapters;
  chapter->id = context->nb_chapters + 1;
  chapter->time_base = AV_TIME_BASE_Q;
  chapter->start = start;
  chapter->end = end;
  av_dict_copy(&chapter->metadata, tags, 0);
  context->chapters[context->nb_chapters++] = chapter;
}

void VNFFMovieFileOutputInternal::setStreamTags(int index,
                                                const AVDictionary* tags,
                                                int disposition) {
  if (AVStream* stream = streamAt(index)) {
    av_dict_copy(&stream->metadata, tags, 0);
    stream->disposition = disposition;
  }
}
