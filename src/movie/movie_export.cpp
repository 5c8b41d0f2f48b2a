#include "movie/movie_export.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <system_error>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avstring.h>
#include <libavutil/rational.h>
#include <libavutil/samplefmt.h>
}

#include "core/formats.h"
#include "ffmpeg/owners.h"
#include "image/affine_transform.h"
#include "image/filter_image.h"
#include "image/rect.h"
#include "media/media.h"
#include "media/media_source.h"
#include "media/media_stream.h"
#include "movie/effect_audio_stream.h"
#include "movie/export_packets.h"
#include "movie/movie.h"
#include "movie/picture_queue.h"
#include "output/frame_overlay.h"
#include "output/movie_file_output.h"
#include "text/styled_subtitles.h"

namespace {

namespace fs = std::filesystem;

// Mixed audio is read and written in pieces of this many sample frames.
constexpr int kAudioChunk = 1024;

// A name in the same folder with the same extension (the container is
// chosen by it), hidden while the file is written.
std::string temporaryPath(const std::string& output) {
  static std::atomic<int> serial{0};
  const fs::path out(output);
  const std::string name = "." + out.stem().string() + ".varnel-" + std::to_string(getpid()) + "-" +
                           std::to_string(serial++) + out.extension().string();
  return (out.parent_path() / name).string();
}

int64_t microseconds(double seconds) {
  return static_cast<int64_t>(std::llround(seconds * 1e6));
}

// The line telling where a copied video starts, before the start asked for.
std::string videoStartNote(int64_t early) {
  char text[120];
  std::snprintf(text, sizeof text,
                "the copied video starts at the keyframe %.3f s before the start asked for",
                -early / 1e6);
  return text;
}

// The container index of the n-th stream of a kind, counted as track
// numbers are; none when there are fewer.
std::optional<int> nthStream(const AVFormatContext* context, AVMediaType type, uint32_t n) {
  uint32_t seen = 0;
  for (unsigned i = 0; context && i < context->nb_streams; ++i) {
    const AVStream* stream = context->streams[i];
    if (stream->codecpar->codec_type == type &&
        !(stream->disposition & AV_DISPOSITION_ATTACHED_PIC) && seen++ == n)
      return static_cast<int>(i);
  }
  return std::nullopt;
}

// Whether the container can hold a subtitle codec: its own answer, or for
// a container without a list, its default subtitle codec and DVD
// subpictures in MPEG program streams.
bool holdsSubtitle(const AVOutputFormat* container, AVCodecID codec) {
  const int answer = avformat_query_codec(container, codec, FF_COMPLIANCE_NORMAL);
  if (answer >= 0)
    return answer == 1;
  const std::string name = container->name;
  return codec == container->subtitle_codec ||
         (codec == AV_CODEC_ID_DVD_SUBTITLE && (name == "mpeg" || name == "vob" || name == "dvd"));
}

// The text codec a container takes for text subtitles of another codec:
// its default, else mov_text where it holds that; none otherwise.
AVCodecID textSubtitleCodec(const AVOutputFormat* container) {
  if (container->subtitle_codec != AV_CODEC_ID_NONE)
    return container->subtitle_codec;
  if (avformat_query_codec(container, AV_CODEC_ID_MOV_TEXT, FF_COMPLIANCE_NORMAL) == 1)
    return AV_CODEC_ID_MOV_TEXT;
  return AV_CODEC_ID_NONE;
}

// Tags kept from the input, without those the writer makes anew.
vn::ff::Dictionary keptTags(const AVDictionary* tags) {
  AVDictionary* kept = nullptr;
  const AVDictionaryEntry* entry = nullptr;
  while ((entry = av_dict_get(tags, "", entry, AV_DICT_IGNORE_SUFFIX))) {
    const std::string key = entry->key;
    if (av_strcasecmp(key.c_str(), "encoder") != 0 && av_strcasecmp(key.c_str(), "duration") != 0 &&
        key.rfind("_STATISTICS", std::string::npos) == std::string::npos &&
        key.rfind("NUMBER_OF_", 0) != 0 && av_strcasecmp(key.c_str(), "BPS") != 0)
      av_dict_set(&kept, entry->key, entry->value, 0);
  }
  return vn::ff::Dictionary(kept);
}

}  // namespace

// The state of subtitles laid over decoded frames: the layout of the
// encoder's pictures, the text renderer, and the overlays made last with
// what they were made from, kept while the same pictures show.
struct VNFFMovieExport::SubtitleOverlays {
  VNFFOverlayLayout layout;
  std::shared_ptr<vn::StyledSubtitleRenderer> text;
  struct Source {
    std::shared_ptr<const std::vector<uint8_t>> text;  // the renderer's pixels
    int64_t bitmapPts = INT64_MIN;
    double bitmapX = 0, bitmapY = 0, bitmapWidth = 0, bitmapHeight = 0;
    int pictureWidth = 0, pictureHeight = 0;
    bool operator==(const Source&) const = default;
  };
  Source source;
  std::vector<VNFFFrameOverlay> shown;
};

VNFFMovieExport::VNFFMovieExport(std::shared_ptr<VNFFMovie> movie,
                                 const VNFFMovieFileOutputFormat& format,
                                 std::string path)
    : movie_(std::move(movie)), format_(format), path_(std::move(path)) {}

VNFFMovieExport::~VNFFMovieExport() = default;

void VNFFMovieExport::setProgress(ProgressCallback callback, int intervalMs) {
  progress_ = std::move(callback);
  interval_ = std::chrono::milliseconds(std::max(0, intervalMs));
}

VNFFMovieExport::Result VNFFMovieExport::run() {
  if (!movie_ || movie_->medias().empty())
    return {Result::kFailed, "the movie has no media", {}};
  fillFormatFromMovie();
  const int64_t duration = duration_.value_or(movie_->duration() - start_);
  if (duration <= 0)
    return {Result::kFailed, "nothing to write after the start", {}};
  span_ = duration / 1e6;
  // Read once: packets are written against it after every frame.
  mediaStart_ = movie_->medias().front()->start_time();

  const std::string temp = temporaryPath(path_);
  std::string reason;
  if (!openWriter(temp, &reason)) {
    writer_.reset();
    packets_.reset();
    std::error_code ec;
    fs::remove(temp, ec);
    return {Result::kFailed, reason, {}};
  }
  prepareMovie();
  began_ = std::chrono::steady_clock::now();
  reported_ = {};
  reportedSeconds_ = 0;
  if (writer_->isVideoOpen())
    writeVideo();
  writeToEnd();
  if (!isCancelled())
    report(span_, true);
  return finish(temp);
}

void VNFFMovieExport::fillFormatFromMovie() {
  video_ = writesVideo_ ? movie_->videoMedia() : nullptr;
  if (!video_)
    return;
  if (format_.width <= 0 || format_.height <= 0) {
    const vn::Size shown = movie_->shownVideoSize(movie_->rotate(), false, true);
    format_.width = static_cast<int32_t>(shown.width);
    format_.height = static_cast<int32_t>(shown.height);
  }
  if (format_.framerate <= 0) {
    const AVRational rate = movie_->exactFramerate();
    format_.framerate = rate.num;
    format_.frameTime = rate.den;
  }
}

int64_t VNFFMovieExport::fileStart() const {
  return start_ + mediaStart_;
}

bool VNFFMovieExport::openWriter(const std::string& temp, std::string* reason) {
  writer_ = VNFFMovieFileOutput::create();
  if (!writer_) {
    *reason = "out of memory";
    return false;
  }
  writer_->setPath(temp);
  writer_->setMovieFormat(format_);
  writer_->setTrimsEncoderDelay(trimsEncoderDelay_);
  // The mix delivers packed float at the output's rate and layout; the
  // writer's converter only changes the sample format for the encoder.
  writer_->setAudioInputFormat(
      VNFFAudioFormat{AV_SAMPLE_FMT_FLT, format_.channel_layout, format_.sample_rate});
  // What is kept as packets, and the tags, are read on a demuxer of their own.
  const bool copies = (copiesVideo_ && video_) || (copiesAudio_ && writesAudio_);
  const bool readsInput = copies || keepsMetadata_ || keepsDescriptions_ ||
                          audioLayout_ == kSeparateAudio || !subtitleTracks_ ||
                          !subtitleTracks_->empty();
  const std::shared_ptr<VNMediaSource> source = movie_->medias().front()->source();
  if (readsInput && source && source->isDVD()) {
    if (copies) {
      *reason = "a DVD title cannot be stream-copied; its video and audio can be converted";
      return false;
    }
    notes_.push_back("a DVD title's subtitles and tags are not kept as streams");
  } else if (readsInput && source) {
    packets_ = std::make_unique<VNFFExportPackets>();
    if (!packets_->open(*source, reason))
      return false;
  }
  if (!openVideoStream(reason) || !openAudioStreams(reason))
    return false;
  if (!writer_->isVideoOpen() && audioOutputs_.empty() && (!packets_ || packets_->empty())) {
    *reason = "the input has nothing this container can hold";
    return false;
  }
  openSubtitleStreams();
  copyMetadata();
  if (packets_)
    packets_->setSpan(fileStart(), duration_ ? fileStart() + *duration_ : INT64_MAX);
  if (!writer_->startOutput()) {
    *reason = writer_->failureReason();
    writer_->stopOutput();
    return false;
  }
  return true;
}

bool VNFFMovieExport::openVideoStream(std::string* reason) {
  if (!video_)
    return true;
  const std::shared_ptr<VNFFMediaStream> stream = video_->videoStream();
  const AVStream* input = stream ? stream->stream() : nullptr;
  if (copiesVideo_ && packets_ && input) {
    const int output =
        writer_->openCopiedStream(packets_->input()->streams[input->index]->codecpar);
    if (output < 0) {
      *reason = writer_->failureReason();
      return false;
    }
    packets_->copy(input->index, output);
    if (keepsDescriptions_)
      writer_->setStreamTags(output, keptTags(input->metadata).get(), input->disposition);
    video_.reset();
    return true;
  }
  if (keepsDescriptions_ && input) {
    const AVCodecParameters* p = input->codecpar;
    if (p->color_space != AVCOL_SPC_UNSPECIFIED && p->color_space != AVCOL_SPC_RGB)
      writer_->setColorProperties(
          {p->color_primaries, p->color_trc, p->color_space, p->color_range});
  }
  writer_->openVideo();
  if (!writer_->isMovieOpen() || !writer_->isVideoOpen()) {
    *reason = writer_->failureReason();
    return false;
  }
  // The video is the file's first stream.
  if (keepsDescriptions_ && input)
    writer_->setStreamTags(0, keptTags(input->metadata).get(), input->disposition);
  return true;
}

std::optional<int> VNFFMovieExport::inputStreamOfTrack(int mediaType, uint32_t track) const {
  return packets_ ? nthStream(packets_->input(), static_cast<AVMediaType>(mediaType), track)
                  : std::nullopt;
}

// The enabled audio tracks of the movie, in order.
static std::vector<uint32_t> enabledAudioTracks(VNFFMovie& movie) {
  const VNFFMovie::Medias audios = movie.audios();
  const size_t count = audios.empty() ? 0 : audios.front()->audioNames().size();
  const std::optional<VNIndexSet> chosen = movie.selectAudioStreams();
  std::vector<uint32_t> tracks;
  for (uint32_t track = 0; track < count; ++track) {
    if (!chosen || chosen->count(track))
      tracks.push_back(track);
  }
  return tracks;
}

bool VNFFMovieExport::openAudioStreams(std::string* reason) {
  audioOutputs_.clear();
  if (!writesAudio_ || !movie_->hasAudio())
    return true;
  const std::vector<uint32_t> tracks = enabledAudioTracks(*movie_);
  if (copiesAudio_ && packets_) {
    for (const uint32_t track : tracks) {
      const std::optional<int> input = inputStreamOfTrack(AVMEDIA_TYPE_AUDIO, track);
      if (!input)
        continue;
      const AVStream* stream = packets_->input()->streams[*input];
      const int output = writer_->openCopiedStream(stream->codecpar);
      if (output < 0) {
        *reason = writer_->failureReason();
        return false;
      }
      packets_->copy(*input, output);
      if (keepsDescriptions_)
        writer_->setStreamTags(output, keptTags(stream->metadata).get(), stream->disposition);
    }
    return true;
  }
  if (audioLayout_ == kMixedAudio) {
    writer_->openAudio();
    if (!writer_->isMovieOpen() || !writer_->isAudioOpen()) {
      *reason = writer_->failureReason();
      return false;
    }
    audioOutputs_.push_back({movie_, -1});
    return true;
  }
  for (const uint32_t track : tracks) {
    const int output = writer_->openAudioStream();
    if (output < 0) {
      *reason = writer_->failureReason();
      return false;
    }
    // A lone track is the movie's own mix; more get a movie each.
    audioOutputs_.push_back({tracks.size() == 1 ? movie_ : trackMovie(track), output});
    if (const std::optional<int> input = inputStreamOfTrack(AVMEDIA_TYPE_AUDIO, track)) {
      const AVStream* stream = packets_->input()->streams[*input];
      writer_->setStreamTags(output, keptTags(stream->metadata).get(), stream->disposition);
    }
  }
  return true;
}

std::shared_ptr<VNFFMovie> VNFFMovieExport::trackMovie(uint32_t track) const {
  VNFFMovie::Medias copies;
  for (const auto& media : movie_->audios()) {
    std::shared_ptr<VNFFMedia> copy = media->copy();
    copy->setSelectAudios(VNIndexSet{track});
    copies.push_back(std::move(copy));
  }
  std::shared_ptr<VNFFMovie> movie = VNFFMovie::create();
  movie->audioEffectStream().setExactStarts(movie_->audioEffectStream().exactStarts());
  movie->openMedias(copies);
  movie->setSelectAudioStreams(VNIndexSet{track});
  return movie;
}

void VNFFMovieExport::openSubtitleStreams() {
  if (!packets_ || (subtitleTracks_ && subtitleTracks_->empty()))
    return;
  const AVFormatContext* input = packets_->input();
  const AVOutputFormat* container = av_guess_format(nullptr, path_.c_str(), nullptr);
  uint32_t count = 0;
  VNFFMedia::subtitleStreamIndex(input, 0, &count);
  for (uint32_t track = 0; container && track < count; ++track) {
    if (subtitleTracks_ && !subtitleTracks_->count(track))
      continue;
    const int index = static_cast<int>(*VNFFMedia::subtitleStreamIndex(input, track));
    const AVStream* stream = input->streams[index];
    const AVCodecID codec = stream->codecpar->codec_id;
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(codec);
    const bool text = descriptor && (descriptor->props & AV_CODEC_PROP_TEXT_SUB);
    const AVCodecID target = text ? textSubtitleCodec(container) : AV_CODEC_ID_NONE;
    int output = -1;
    if (holdsSubtitle(container, codec)) {
      output = writer_->openCopiedStream(stream->codecpar);
      if (output >= 0)
        packets_->copy(index, output);
    } else if (target != AV_CODEC_ID_NONE) {
      if (const AVCodecContext* decoder = packets_->openSubtitleDecoder(index)) {
        output = writer_->openSubtitleStream(target, decoder->subtitle_header,
                                             decoder->subtitle_header_size);
        packets_->encode(index, output);
      }
    }
    if (output < 0) {
      notes_.push_back("subtitle track " + std::to_string(track) + " (" + avcodec_get_name(codec) +
                       ") is left out: the " + container->name + " container cannot hold it");
      continue;
    }
    writer_->setStreamTags(output, keptTags(stream->metadata).get(), stream->disposition);
  }
}

void VNFFMovieExport::copyMetadata() {
  if (!packets_ || !keepsMetadata_)
    return;
  const AVFormatContext* input = packets_->input();
  writer_->setMetadata(keptTags(input->metadata).get());
  // Chapters on the span's clock; those wholly outside it are left out.
  const int64_t from = fileStart();
  const int64_t to = duration_ ? from + *duration_ : INT64_MAX;
  for (unsigned i = 0; i < input->nb_chapters; ++i) {
    const AVChapter* chapter = input->chapters[i];
    const int64_t start = av_rescale_q(chapter->start, chapter->time_base, AV_TIME_BASE_Q);
    const int64_t end = av_rescale_q(chapter->end, chapter->time_base, AV_TIME_BASE_Q);
    if (end <= from || start >= to)
      continue;
    writer_->addChapter(std::max(start, from) - from, std::min(end, to) - from, chapter->metadata);
  }
}

void VNFFMovieExport::prepareMovie() {
  const int channels = vn_get_channel_layout_nb_channels(format_.channel_layout);
  audio_.assign(static_cast<size_t>(kAudioChunk) * std::max(1, channels), 0.0f);
  for (const AudioOutput& output : audioOutputs_) {
    output.movie->configOutputFormat(writer_->audioInputFormat());
    output.movie->setExportMovie(true);
    output.movie->seek(start_);
    output.movie->flushOperation();
  }
  // The movie's own pictures are read from the start too; a file of copied
  // packets alone reads neither.
  const bool mixed = !audioOutputs_.empty() && audioOutputs_.front().movie == movie_;
  if (video_ && !mixed) {
    movie_->setExportMovie(true);
    movie_->seek(start_);
    movie_->flushOperation();
  }
  audioFrames_ = 0;
  audioTotal_ =
      audioOutputs_.empty() ? 0 : static_cast<int64_t>(std::llround(span_ * format_.sample_rate));
  videoFrames_ = 0;
  frameSeconds_ =
      format_.framerate > 0 ? static_cast<double>(format_.frameTime) / format_.framerate : 0;
  videoTotal_ = frameSeconds_ > 0 ? std::max<int64_t>(1, std::llround(span_ / frameSeconds_)) : 0;
}

// The picture shown at the middle of output frame n: a frame is looked up
// as ending where the next begins, so an exact boundary would give the one
// before.
int64_t VNFFMovieExport::frameTime(int64_t n) const {
  return start_ + microseconds((n + 0.5) * frameSeconds_);
}

void VNFFMovieExport::writeVideo() {
  // Composed pictures are made on the movie's decode queue one ahead: the
  // queue decodes and composes the next picture while this thread renders
  // and encodes the current one.
  std::optional<VNFFPictureQueue> pictures;
  const bool overlays = pictures_ == kDecodedWithSubtitles && overlaysSubtitles();
  if (pictures_ == kComposed || (pictures_ == kDecodedWithSubtitles && !overlays)) {
    movie_->setOutputVideoSize(vn::Size{double(format_.width), double(format_.height)});
    pictures.emplace(movie_, 1, VNFFPictureQueue::kComposed, VNFFPictureQueue::kImage);
    pictures->request(0, frameTime(0));
  }
  while (videoFrames_ < videoTotal_ && !isCancelled()) {
    // The audio that ends with this frame.
    const int64_t audioEnd = std::llround((videoFrames_ + 1) * frameSeconds_ * format_.sample_rate);
    if (pictures) {
      std::optional<VNFFPictureQueue::Picture> picture = pictures->take();
      // The mix reads its medias while the queue is idle: no picture is
      // being decoded on the other thread meanwhile.
      writeAudioUntil(audioEnd);
      if (videoFrames_ + 1 < videoTotal_)
        pictures->request(videoFrames_ + 1, frameTime(videoFrames_ + 1));
      if (picture && picture->image)
        writer_->writeImage(*picture->image);
    } else {
      writeDecodedFrame(videoFrames_);
      writeAudioUntil(audioEnd);
    }
    ++videoFrames_;
    writePacketsUntil(videoFrames_ * frameSeconds_);
    report(videoFrames_ * frameSeconds_, false);
  }
}

void VNFFMovieExport::writeDecodedFrame(int64_t n) {
  // The media whose span holds the time (a DVD title is several, one after
  // another); past their ends, the last one that started.
  const int64_t at = frameTime(n);
  std::shared_ptr<VNFFMedia> shown = movie_->videoMediaAtTime(at);
  for (const auto& media : shown ? VNFFMovie::Medias{} : movie_->videos()) {
    if (media->movie_position() <= at)
      shown = media;
  }
  if (!shown)
    shown = video_;
  AVFrame* frame = shown->videoFrameAtTime(at - shown->movie_position());
  if (!frame)
    return;
  if (overlays_) {
    makeSubtitleOverlays(at, shown, frame);
    writer_->writeVideoFrame(frame, overlays_->shown);
  } else {
    writer_->writeVideoFrame(frame);
  }
}

bool VNFFMovieExport::overlaysSubtitles() {
  auto overlays = std::make_unique<SubtitleOverlays>();
  if (!writer_->overlayLayout(&overlays->layout))
    return false;
  if (const std::shared_ptr<VNFFMedia> subtitle = movie_->subtitle()) {
    // The plain renderer's text is drawn only by the composed path.
    if (!movie_->styledSubtitles())
      return false;
    overlays->text = movie_->styledRendererFor(subtitle);
    if (!overlays->text)
      return false;
  }
  overlays_ = std::move(overlays);
  return true;
}

void VNFFMovieExport::makeSubtitleOverlays(int64_t at,
                                           const std::shared_ptr<VNFFMedia>& media,
                                           const AVFrame* frame) {
  SubtitleOverlays& o = *overlays_;
  const VNFFOverlayLayout& layout = o.layout;
  // A delayed subtitle shows at `at` what its own times put earlier.
  const int64_t t = at - movie_->subtitleDelay();
  SubtitleOverlays::Source source;
  std::optional<vn::SubtitleRaster> text;
  if (const std::shared_ptr<VNFFMedia> subtitle = o.text ? movie_->subtitle() : nullptr) {
    const int64_t local = t - subtitle->movie_position();
    o.text->addEvents(subtitle->subtitleEventsUntil(local));
    // Milliseconds, rounded down as the composed path rounds them.
    const int64_t ms = local >= 0 ? local / 1000 : (local - 999) / 1000;
    text = o.text->rasterAtTime(ms, layout.width, layout.height);
    if (text)
      source.text = text->rgba;
  }
  // A bitmap subtitle belongs to its picture: it is scaled as the writer
  // scales the frame.
  int64_t bitmapStart = 0;
  std::optional<vn::FilterImage> bitmap =
      media->subtitleAtTime(t - media->movie_position(), &bitmapStart);
  if (bitmap && frame->width > 0 && frame->height > 0) {
    const vn::Rect extent = bitmap->extent();
    source.bitmapPts = bitmapStart;
    source.bitmapX = extent.x, source.bitmapY = extent.y;
    source.bitmapWidth = extent.width, source.bitmapHeight = extent.height;
    source.pictureWidth = frame->width, source.pictureHeight = frame->height;
  } else {
    bitmap.reset();
  }
  if (source == o.source)
    return;
  o.source = source;
  o.shown.clear();
  if (bitmap) {
    const vn::FilterImage scaled = bitmap->transformed(
        vn::AffineTransform::identity().scaled(static_cast<double>(layout.width) / frame->width,
                                               static_cast<double>(layout.height) / frame->height));
    const vn::Rect e = scaled.extent();
    // Whole pixels inside the frame; the picture's y goes up, the frame's
    // rows down.
    const int left = std::max(0, static_cast<int>(std::floor(e.x)));
    const int right = std::min(layout.width, static_cast<int>(std::ceil(e.x + e.width)));
    const int bottom = std::max(0, static_cast<int>(std::floor(e.y)));
    const int top = std::min(layout.height, static_cast<int>(std::ceil(e.y + e.height)));
    if (left < right && bottom < top) {
      const int w = right - left, h = top - bottom;
      const std::vector<uint8_t> pixels = scaled.render(
          vn::Rect{static_cast<double>(left), static_cast<double>(bottom), double(w), double(h)});
      if (pixels.size() == static_cast<size_t>(w) * h * 4) {
        if (std::optional<VNFFFrameOverlay> overlay = VNFFFrameOverlay::make(
                pixels.data(), w * 4, left, layout.height - top, w, h, layout))
          o.shown.push_back(std::move(*overlay));
      }
    }
  }
  if (text) {
    if (std::optional<VNFFFrameOverlay> overlay =
            VNFFFrameOverlay::make(text->rgba->data(), text->width * 4, text->x, text->y,
                                   text->width, text->height, layout))
      o.shown.push_back(std::move(*overlay));
  }
}

void VNFFMovieExport::writeAudioUntil(int64_t frames) {
  const int channels = static_cast<int>(audio_.size() / kAudioChunk);
  const uint64_t bytesPerFrame = channels * sizeof(float);
  frames = std::min(frames, audioTotal_);
  while (audioFrames_ < frames && !isCancelled()) {
    const int n = static_cast<int>(std::min<int64_t>(kAudioChunk, frames - audioFrames_));
    for (const AudioOutput& output : audioOutputs_) {
      output.movie->readSample(audio_.data(), n);
      if (output.stream < 0)
        writer_->writeAudioData(audio_.data(), n * bytesPerFrame);
      else
        writer_->writeAudioData(output.stream, audio_.data(), n * bytesPerFrame);
    }
    audioFrames_ += n;
  }
}

void VNFFMovieExport::writePacketsUntil(double seconds) {
  if (packets_ && !packetsEnded_)
    packetsEnded_ = !packets_->writeUntil(fileStart() + microseconds(seconds), *writer_);
}

void VNFFMovieExport::writeToEnd() {
  // After the last frame, or without video: a second at a time, audio to
  // its end and packets to the end of the span.
  const auto more = [&](double seconds) {
    return audioFrames_ < audioTotal_ || (packets_ && !packetsEnded_ && seconds <= span_ + 1);
  };
  for (double seconds = std::floor(videoFrames_ * frameSeconds_) + 1;
       more(seconds) && !isCancelled(); seconds += 1) {
    writeAudioUntil(std::llround(seconds * format_.sample_rate));
    writePacketsUntil(seconds);
    report(seconds, false);
  }
  // The rest, up to the end of the span or of the file.
  if (packets_ && !packetsEnded_ && !isCancelled())
    packetsEnded_ = !packets_->writeUntil(INT64_MAX, *writer_);
  if (packets_) {
    if (const std::optional<int64_t> first = packets_->videoStart(); first && *first < fileStart())
      notes_.push_back(videoStartNote(*first - fileStart()));
  }
}

VNFFMovieExport::Result VNFFMovieExport::finish(const std::string& temp) {
  writer_->stopOutput();
  writer_.reset();
  std::error_code ec;
  if (isCancelled()) {
    fs::remove(temp, ec);
    return {Result::kCancelled, "cancelled", {}};
  }
  fs::rename(temp, path_, ec);
  if (ec) {
    const std::string reason = ec.message();
    fs::remove(temp, ec);
    return {Result::kFailed, reason, {}};
  }
  Result done;
  done.notes = std::move(notes_);
  return done;
}

void VNFFMovieExport::report(double seconds, bool force) {
  if (!progress_)
    return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && now - reported_ < interval_)
    return;
  reported_ = now;
  Progress p;
  // Whole frames may reach past the audio's end: progress never goes back.
  p.seconds = reportedSeconds_ = std::clamp(seconds, reportedSeconds_, span_);
  p.fraction = p.seconds / span_;
  p.frames = videoFrames_;
  const double elapsed = std::chrono::duration<double>(now - began_).count();
  p.framesPerSecond = elapsed > 0 ? p.frames / elapsed : 0;
  p.eta = p.fraction > 0 ? elapsed * (1 - p.fraction) / p.fraction : 0;
  progress_(p);
}
