#include "movie/movie.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include "audio_out/output_audio_graph.h"
#include "core/check.h"
#include "core/serial_queue.h"
#include "core/varnel.h"
#include "effects/effect_video_stream.h"
#include "media/media_source.h"
#include "media/media_stream.h"
#include "media/subtitle_source.h"
#include "movie/effect_audio_stream.h"
#include "text/text_charset.h"

namespace {
// Frames mixed per top-up item; the output holds under two of these.
constexpr int32_t kChunkFrames = VNFFMovie::kPlaybackChunkFrames;
// How far a thumbnail's side may exceed a whole number of pixels and still
// count as that number.
constexpr double kWholeTolerance = 1e-3;

// Counts a picture request as finished (the count went up when it was
// posted) once it no longer reads its media: at done(), or at the end of its
// item.
class PictureRequest {
 public:
  explicit PictureRequest(std::atomic<int>& count) : count_(count) {}
  PictureRequest(const PictureRequest&) = delete;
  PictureRequest& operator=(const PictureRequest&) = delete;
  ~PictureRequest() { done(); }

  void done() {
    if (!done_)
      count_.fetch_sub(1);
    done_ = true;
  }

 private:
  std::atomic<int>& count_;
  bool done_ = false;
};
}  // namespace

std::shared_ptr<VNFFMovie> VNFFMovie::create() {
  Varnel::initialize();
  return std::make_shared<VNFFMovie>();
}

VNFFMovie::VNFFMovie()
    : audioEffectStream_(VNFFEffectAudioStream::create()),
      videoEffectStream_(VNFFEffectVideoStream::create()),
      decodeQueue_(std::make_unique<vn::SerialQueue>("varnel.decode")) {}

VNFFMovie::~VNFFMovie() {
  pause();
  close();
  // The queue goes before the mix it may still be reading: its destructor
  // lets pending items run (none can hold this movie any more).
  decodeQueue_.reset();
  audioEffectStream_.reset();
  videoEffectStream_.reset();
}

void VNFFMovie::openMedias(Medias medias) {
  const std::weak_ptr<VNMovieLink> self = std::static_pointer_cast<VNMovieLink>(shared_from_this());
  for (const auto& media : medias) {
    media->setMovie(self);
    media->open();
  }
  {
    std::lock_guard<std::mutex> guard(lock_);
    medias_ = std::move(medias);
  }
  getMaxMediaDuration();
  openAudioOutput();
  configVideoEffectStream();
}

namespace {

// A temporary UTF-8 copy of a UTF-32 text file (keeping its extension, which
// names the format); empty when the file is not UTF-32 or cannot be copied.
std::string utf8CopyOfUtf32(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  char mark[4] = {};
  if (!file.read(mark, 4))
    return {};
  const std::string_view head(mark, 4);
  if (head != std::string_view("\xFF\xFE\0\0", 4) && head != std::string_view("\0\0\xFE\xFF", 4))
    return {};
  std::string bytes(head);
  bytes.append(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  const std::optional<std::string> text = vn::utf32ToUtf8(bytes);
  if (!text)
    return {};
  const size_t dot = path.find_last_of("./");
  const std::string extension =
      dot != std::string::npos && path[dot] == '.' ? path.substr(dot) : std::string();
  const char* directory = std::getenv("TMPDIR");
  std::string name = std::string(directory && *directory ? directory : "/tmp") +
                     "/varnel-subtitle-XXXXXX" + extension;
  const int fd = mkstemps(name.data(), static_cast<int>(extension.size()));
  if (fd < 0)
    return {};
  const bool written =
      ::write(fd, text->data(), text->size()) == static_cast<ssize_t>(text->size());
  ::close(fd);
  if (!written) {
    std::remove(name.c_str());
    return {};
  }
  return name;
}

}  // namespace

bool VNFFMovie::openSubtitle(const std::string& path) {
  return openSubtitle(path, std::nullopt, std::nullopt);
}

bool VNFFMovie::openSubtitle(const std::string& path,
                             std::optional<uint32_t> track,
                             std::optional<std::string> charset) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    subtitle_.reset();
  }
  auto media = VNFFMedia::create();
  // A UTF-32 text is read from a UTF-8 copy, which lives as long as the
  // demuxer holds it open: its name is gone once the file is opened.
  const std::string converted = track ? std::string() : utf8CopyOfUtf32(path);
  struct Remove {
    const std::string& name;
    ~Remove() {
      if (!name.empty())
        std::remove(name.c_str());
    }
  } remove{converted};
  const std::string& read = converted.empty() ? path : converted;
  media->setSource(VNSubtitleSource::mediaWithPath(read));
  // Detected unless given; a media container, binary, gets none.
  media->setSubtitleCharset(charset ? std::move(charset) : vn::fileCharset(read));
  if (track) {
    // Only the track's own decoder is opened: the subtitle is read ahead
    // only in a media without pictures, and nothing else is decoded.
    media->source()->open();
    const std::optional<uint32_t> index =
        VNFFMedia::subtitleStreamIndex(media->formatContext(), *track);
    if (!index)
      return false;
    media->setSelectStreams(VNIndexSet{*index});
  }
  media->open();
  if (!media->hasSubtitle())
    return false;
  std::lock_guard<std::mutex> guard(lock_);
  subtitle_ = std::move(media);
  return true;
}

void VNFFMovie::close() {
  Medias old;
  std::shared_ptr<VNFFMedia> oldSubtitle;
  std::shared_ptr<VNOutputAudioGraph> oldGraph;
  {
    std::lock_guard<std::mutex> guard(lock_);
    old.swap(medias_);
    oldGraph.swap(audioOutputGraph_);
    oldSubtitle.swap(subtitle_);
  }
  // The graph stops its device and forgets this movie as it goes.
}

VNFFMovie::Medias VNFFMovie::medias() {
  std::lock_guard<std::mutex> guard(lock_);
  return medias_;
}

std::shared_ptr<VNFFMedia> VNFFMovie::subtitle() {
  std::lock_guard<std::mutex> guard(lock_);
  return subtitle_;
}

int64_t VNFFMovie::duration() {
  return duration_.load();
}

void VNFFMovie::getMaxMediaDuration() {
  int64_t longest = 0;
  for (const auto& media : medias()) {
    longest = std::max(longest, media->movie_position() + media->duration());
  }
  duration_.store(longest);
}

bool VNFFMovie::hasAudio() {
  return std::ranges::any_of(medias(), &VNFFMedia::hasAudio);
}

bool VNFFMovie::hasVideo() {
  return std::ranges::any_of(medias(), &VNFFMedia::hasVideo);
}

bool VNFFMovie::hasSubtitle() {
  return subtitle() || std::ranges::any_of(medias(), &VNFFMedia::hasSubtitle);
}

VNFFMovie::Medias VNFFMovie::audios() {
  Medias result;
  std::ranges::copy_if(medias(), std::back_inserter(result), &VNFFMedia::hasAudio);
  return result;
}

VNFFMovie::Medias VNFFMovie::videos() {
  Medias result;
  std::ranges::copy_if(medias(), std::back_inserter(result), &VNFFMedia::hasVideo);
  return result;
}

std::shared_ptr<VNFFMedia> VNFFMovie::videoMediaAtTime(int64_t time) {
  return medias(videos(), time);
}

std::shared_ptr<VNFFMedia> VNFFMovie::videoMedia() {
  return videoEffectStream_->media();
}

vn::Size VNFFMovie::videoSize() {
  const std::shared_ptr<VNFFMedia> media = videoMedia();
  const VNFFVideoFormat format = media ? media->videoFormat() : VNFFVideoFormat{};
  return vn::Size{static_cast<double>(format.width), static_cast<double>(format.height)};
}

float VNFFMovie::framerate() {
  const std::shared_ptr<VNFFMedia> media = videoMedia();
  return media ? media->framerate() : 0.0f;
}

AVRational VNFFMovie::exactFramerate() {
  const std::shared_ptr<VNFFMedia> media = videoMedia();
  const std::shared_ptr<VNFFMediaStream> stream = media ? media->videoStream() : nullptr;
  const AVStream* s = stream ? stream->stream() : nullptr;
  if (!s)
    return AVRational{25, 1};
  for (AVRational r : {s->r_frame_rate, s->avg_frame_rate}) {
    if (r.num > 0 && r.den > 0 && av_q2d(r) >= 1 && av_q2d(r) <= 240)
      return r;
  }
  return AVRational{25, 1};
}

vn::Size VNFFMovie::shownVideoSize(double rotation, bool pixelAspect, bool even) {
  const std::shared_ptr<VNFFMedia> media = videoMedia();
  const vn::Size decoded = videoSize();
  double w = decoded.width, h = decoded.height;
  const std::shared_ptr<VNFFMediaStream> stream = media ? media->videoStream() : nullptr;
  if (pixelAspect && stream && stream->stream()) {
    // The container's word, else the codec's.
    const AVRational sar =
        av_guess_sample_aspect_ratio(media->formatContext(), stream->stream(), nullptr);
    if (sar.num > 0 && sar.den > 0)
      w *= av_q2d(sar);
  }
  // A quarter turn either way stands the picture up.
  const double quarter = std::fmod(std::fabs(rotation), 180.0);
  if (std::fabs(quarter - 90) < 1)
    std::swap(w, h);
  const int least = even ? 2 : 1;
  const int mask = even ? ~1 : ~0;
  return vn::Size{static_cast<double>(std::max(least, static_cast<int>(std::lround(w)) & mask)),
                  static_cast<double>(std::max(least, static_cast<int>(std::lround(h)) & mask))};
}

std::shared_ptr<VNFFMedia> VNFFMovie::medias(const Medias& array, int64_t time) {
  for (const auto& media : array) {
    const int64_t start = media->movie_position();
    // A media whose demuxer gives no duration (an ASF file cut before its
    // index) reaches on from its start as far as it can be read.
    const int64_t duration = media->duration();
    if (start <= time && (duration <= 0 || time - start < duration))
      return media;
  }
  return nullptr;
}

// The medias' streams and selections belong to the decode queue, where a
// seek or a read may open late streams or reopen decoders: they are read
// and changed there.
template <typename T, typename Read>
T VNFFMovie::readFirstMedia(Read read) {
  T value{};
  runOnDecodeQueue([&] {
    const Medias all = medias();
    if (!all.empty())
      value = read(*all.front());
  });
  return value;
}

std::vector<std::string> VNFFMovie::audioStreams() {
  return readFirstMedia<std::vector<std::string>>([](VNFFMedia& m) { return m.audioNames(); });
}

std::vector<std::string> VNFFMovie::subtitleStreams() {
  return readFirstMedia<std::vector<std::string>>([](VNFFMedia& m) { return m.subtitleNames(); });
}

std::optional<VNIndexSet> VNFFMovie::selectAudioStreams() {
  return readFirstMedia<std::optional<VNIndexSet>>([](VNFFMedia& m) { return m.selectAudios(); });
}

std::optional<VNIndexSet> VNFFMovie::selectSubtitleStreams() {
  return readFirstMedia<std::optional<VNIndexSet>>(
      [](VNFFMedia& m) { return m.selectSubtitles(); });
}

void VNFFMovie::setSelectAudioStreams(const std::optional<VNIndexSet>& streams) {
  runOnDecodeQueue([&] {
    for (const auto& media : medias()) {
      media->setSelectAudios(streams);
      media->updateSelectStreams();
    }
  });
}

void VNFFMovie::setSelectSubtitleStreams(const std::optional<VNIndexSet>& streams) {
  runOnDecodeQueue([&] {
    for (const auto& media : medias()) {
      media->setSelectSubtitles(streams);
      media->updateSelectStreams();
    }
  });
}

int64_t VNFFMovie::currentTime() {
  double frames = decode_samples_.load();
  if (auto graph = audioOutputGraph())
    frames -= static_cast<double>(graph->bufferFrames());
  double rate = audioEffectStream_->outputParam().sample_rate;
  if (rate <= 1)
    rate = 1;
  return seek_point_.load() + static_cast<int64_t>(1000000.0 * frames / rate);
}

void VNFFMovie::forwardAudioDecodeTime(double frames) {
  decode_samples_.fetch_add(frames);
}

void VNFFMovie::seek(int64_t time) {
  seek_point_.store(time);
  decode_samples_.store(0);
  auto snapshot = medias();
  auto graph = audioOutputGraph();
  auto self = shared_from_this();
  auto operation = decodeQueue_->addOperation([self, time, snapshot = std::move(snapshot), graph] {
    // A newer seek was issued after this one: it will do the work.
    if (self->seek_point_.load() != time)
      return;
    for (const auto& media : snapshot)
      media->seek(time - media->movie_position());
    // The external subtitle file is always read again from its start.
    if (auto subtitle = self->subtitle())
      subtitle->seek(0);
    // Audio mixed before the seek is dropped.
    if (graph)
      graph->clearBuffer();
  });
  std::lock_guard<std::mutex> guard(lock_);
  lastSeek_ = std::move(operation);
}

void VNFFMovie::flushOperation() {
  decodeQueue_->waitUntilAllOperationsAreFinished();
}

VNFFAudioFormat VNFFMovie::defaultOutputFormat() {
  return VNFFAudioFormat{AV_SAMPLE_FMT_FLT, vn::defaultChannelLayout(2), 44100};
}

double VNFFMovie::playbackChunkSeconds() {
  return static_cast<double>(kPlaybackChunkFrames) / defaultOutputFormat().sample_rate;
}

void VNFFMovie::configOutputFormat(VNFFAudioFormat format) {
  // The mix is read on the decode queue; rebuild it there, between chunks.
  runOnDecodeQueue([this, format] {
    audioEffectStream_->setOutputParam(format);
    audioEffectStream_->setInputStreams(audios());
  });
}

void VNFFMovie::runOnDecodeQueue(const std::function<void()>& work) {
  if (decodeQueue_->isCurrent()) {
    work();
  } else {
    decodeQueue_->addOperation(work)->wait();
  }
}

void VNFFMovie::configDefaultOutputFormat() {
  if (!isFFAudioFormatEqual(defaultOutputFormat(), audioEffectStream_->outputParam())) {
    configOutputFormat(defaultOutputFormat());
  }
}

void VNFFMovie::setVolume(double volume) {
  audioEffectStream_->setVolume(volume);
}

double VNFFMovie::volume() {
  return audioEffectStream_->volume();
}

bool VNFFMovie::readSample(void* bytes, int32_t frames) {
  // The mix reads the medias a picture request decodes from: the two must
  // not meet. Picture requests are the application's to wait for.
  VN_DCHECK(decodeQueue_->isCurrent() || pictureRequests_.load() == 0,
            "readSample while a picture request is queued");
  std::shared_ptr<vn::SerialQueue::Operation> seek;
  {
    std::lock_guard<std::mutex> guard(lock_);
    seek = std::move(lastSeek_);
  }
  // The seek moves the medias the mix reads; reading alongside it would race
  // on their demuxers and audio queues, and give audio from before it.
  if (seek && !decodeQueue_->isCurrent())
    seek->wait();
  forwardAudioDecodeTime(frames);
  return audioEffectStream_->readSample(bytes, frames);
}

// --- playback -------------------------------------------------------------------

std::shared_ptr<VNOutputAudioGraph> VNFFMovie::audioOutputGraph() {
  std::lock_guard<std::mutex> guard(lock_);
  return audioOutputGraph_;
}

void VNFFMovie::openAudioOutput() {
  // Made before the graph can call this movie, and kept for its life: the
  // device thread posts it. It holds the movie weakly, so a movie the
  // application let go is never destroyed by a top-up, nor on the device
  // thread.
  if (!topUp_) {
    topUp_ = std::make_unique<vn::SerialQueue::Wakeup>(*decodeQueue_, [movie = weak_from_this()] {
      if (const std::shared_ptr<VNFFMovie> self = movie.lock()) {
        self->topUpPending_.store(false);
        self->decodeMoreAudioDataToAudioOutputHelper();
      }
    });
  }
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (!audioOutputGraph_) {
      audioOutputGraph_ = VNOutputAudioGraph::create();
      audioOutputGraph_->setDelegate(this);
    }
  }
  configDefaultOutputFormat();
}

void VNFFMovie::play() {
  configDefaultOutputFormat();
  if (auto graph = audioOutputGraph())
    graph->start();
}

void VNFFMovie::pause() {
  if (auto graph = audioOutputGraph())
    graph->stop();
}

bool VNFFMovie::isPlay() {
  auto graph = audioOutputGraph();
  return graph && graph->isStart();
}

void VNFFMovie::setRate(float rate) {
  if (auto graph = audioOutputGraph())
    graph->setRate(rate);
}

float VNFFMovie::rate() {
  auto graph = audioOutputGraph();
  return graph ? graph->rate() : 0.0f;
}

void VNFFMovie::setPlayVolume(double volume) {
  if (auto graph = audioOutputGraph())
    graph->setVolume(static_cast<float>(volume));
}

double VNFFMovie::playVolume() {
  auto graph = audioOutputGraph();
  return graph ? graph->volume() : 0.0;
}

void VNFFMovie::decodeMoreAudioDataToAudioOutput() {
  // Device thread: no allocation, no reference to the movie, only the
  // queue's lock. One top-up at a time is asked for; the next callback after
  // it starts may ask again.
  if (!topUpPending_.exchange(true) && !(topUp_ && topUp_->post()))
    topUpPending_.store(false);
}

void VNFFMovie::decodeMoreAudioDataToAudioOutputHelper() {
  auto graph = audioOutputGraph();
  if (graph && graph->bufferFrames() < static_cast<uint64_t>(kChunkFrames)) {
    decodeAudioToAudioOutput();
  }
}

bool VNFFMovie::decodeAudioToAudioOutput() {
  // Nothing is produced while the mix is configured for export.
  if (!isFFAudioFormatEqual(defaultOutputFormat(), audioEffectStream_->outputParam()))
    return false;
  auto graph = audioOutputGraph();
  if (!graph)
    return false;
  float chunk[kChunkFrames * 2];
  if (!audioEffectStream_->readSample(chunk, kChunkFrames))
    return false;
  graph->writeSample(chunk, kChunkFrames);
  forwardAudioDecodeTime(kChunkFrames);
  return true;
}

// --- pictures ---------------------------------------------------------------------

vn::Rect VNFFMovie::scaleRect(const vn::Rect& a, const vn::Rect& b) {
  float s =
      std::max(static_cast<float>(a.width / b.width), static_cast<float>(a.height / b.height));
  // Never enlarged more than a hundredfold.
  s = std::max(s, 0.01f);
  const double width = a.width / s;
  const double height = a.height / s;
  return vn::Rect{b.x + (b.width - width) * 0.5, b.y + (b.height - height) * 0.5, width, height};
}

std::optional<vn::Size> VNFFMovie::thumbnailSize(const vn::Rect& extent, vn::Size box) {
  const vn::Rect fitted = scaleRect(extent, vn::Rect{0, 0, box.width, box.height});
  // At the origin, rounded out to whole pixels. A side a hair over a whole
  // number (the fit is computed in single precision) stays that number, so
  // the thumbnail never outgrows its box.
  const double width = std::ceil(fitted.width - kWholeTolerance);
  const double height = std::ceil(fitted.height - kWholeTolerance);
  if (!(width >= 1) || !(height >= 1) || width > vn::kMaxImageSide || height > vn::kMaxImageSide)
    return std::nullopt;
  return vn::Size{width, height};
}

std::optional<vn::BitmapImage> VNFFMovie::thumbnailAtTime(int64_t t, vn::Size size) {
  const std::shared_ptr<VNFFMedia> media = videoMediaAtTime(t);
  if (!media)
    return std::nullopt;
  std::optional<vn::BitmapImage> result;
  auto self = shared_from_this();
  pictureRequests_.fetch_add(1);
  decodeQueue_
      ->addOperation([self, media, t, size, &result] {
        PictureRequest counted(self->pictureRequests_);
        VNFFEffectVideoStream& stream = *self->videoEffectStream_;
        media->thumbnailAtTime(t - media->movie_position(), [&](AVFrame* frame) {
          self->showSubtitlesAt(t, media, true);
          // A picture the scaler cannot take is composed after all.
          if (self->thumbnailsFromDecoded_.load() &&
              stream.showsPicturePlain(frame->width, frame->height)) {
            const VNFFVideoFormat out = stream.pictureSettings().outputFormat;
            if (const std::optional<vn::Size> fitted =
                    thumbnailSize(vn::Rect{0, 0, double(out.width), double(out.height)}, size)) {
              result = stream.scaledPicture(*frame, int(fitted->width), int(fitted->height));
            }
            if (result)
              return;
          }
          stream.writeFrame(frame);
          const std::optional<vn::FilterImage> effect = stream.currentEffectImage();
          const vn::Rect extent = effect ? effect->extent() : vn::Rect{};
          const std::optional<vn::Size> fitted = thumbnailSize(extent, size);
          if (!effect || !fitted)
            return;
          const double width = fitted->width, height = fitted->height;
          // The composed picture is made once at its own size, in 8 bits
          // (a quarter of the memory of the layer's own pixels), and that is
          // scaled into the thumbnail.
          // The buffer stays with the movie for the next thumbnail (fresh
          // memory costs more to fault in than to fill).
          const int ew = static_cast<int>(extent.width), eh = static_cast<int>(extent.height);
          std::vector<uint8_t>& composed = self->thumbnailScratch_;
          composed.resize(size_t(ew) * size_t(eh) * 4);
          if (composed.empty() || !effect->render(extent, composed.data(), ew * 4))
            return;
          const std::optional<vn::FilterImage> whole = vn::FilterImage::fromBitmap(
              vn::BitmapImage::borrow(composed.data(), ew, eh, ew * 4, nullptr));
          if (!whole)
            return;
          const vn::FilterImage drawn = whole->transformed(
              vn::AffineTransform::identity().scaled(width / extent.width, height / extent.height));
          const int w = static_cast<int>(width), h = static_cast<int>(height);
          std::vector<uint8_t> pixels = drawn.render(vn::Rect{0, 0, width, height});
          if (pixels.empty())
            return;
          auto owner = std::make_shared<std::vector<uint8_t>>(std::move(pixels));
          vn::BitmapImage image = vn::BitmapImage::borrow(owner->data(), w, h, w * 4, owner);
          if (!image.isEmpty())
            result = std::move(image);
        });
        // Playback goes on from where the clock is.
        media->seek(self->currentTime() - media->movie_position());
      })
      ->wait();
  return result;
}

void VNFFMovie::showSubtitlesAt(int64_t t, const std::shared_ptr<VNFFMedia>& media, bool rewind) {
  VNFFEffectVideoStream& stream = *videoEffectStream_;
  // A delayed subtitle shows at t what its own times put earlier.
  t -= subtitleDelay_.load();
  stream.setMediaSubtitleImage(media ? media->subtitleAtTime(t - media->movie_position())
                                     : std::nullopt);
  const std::shared_ptr<VNFFMedia> subtitle = this->subtitle();
  if (styledSubtitles_.load() && subtitle) {
    if (const std::shared_ptr<vn::StyledSubtitleRenderer> renderer = styledRendererFor(subtitle)) {
      const int64_t local = t - subtitle->movie_position();
      // Every event that may show at t reaches the renderer; it keeps them
      // all, so a time before the last one read needs no reading again.
      renderer->addEvents(subtitle->subtitleEventsUntil(local));
      stream.setSubtitleCurrentString(std::nullopt);
      // Milliseconds, rounded down as a picture's time would be.
      stream.setStyledSubtitle(renderer, local >= 0 ? local / 1000 : (local - 999) / 1000);
      return;
    }
  }
  stream.setStyledSubtitle(nullptr, std::nullopt);
  std::optional<std::string> text;
  if (subtitle && rereadSubtitle_.exchange(false))
    subtitle->seek(0);
  if (subtitle) {
    const int64_t local = t - subtitle->movie_position();
    // The subtitle media only reads forward: a time before its current
    // subtitle is found by reading it again from its start.
    if (const std::shared_ptr<VNFFMediaStream> lines = subtitle->subtitleStream();
        rewind && lines) {
      const AVFrame* shown = lines->frame();
      if (shown->pts != AV_NOPTS_VALUE &&
          av_rescale_q(shown->pts, lines->timebase(), AVRational{1, 1000000}) -
                  subtitle->start_time() >=
              local)
        subtitle->seek(0);
    }
    text = subtitle->subtitleStringAtTime(local);
  }
  stream.setSubtitleCurrentString(std::move(text));
}

std::shared_ptr<vn::StyledSubtitleRenderer> VNFFMovie::styledRendererFor(
    const std::shared_ptr<VNFFMedia>& subtitle) {
  std::optional<vn::SubtitleStyle> style;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (styledRenderer_ && styledFor_.lock() == subtitle)
      return styledRenderer_;
    style = subtitleStyle_;
  }
  const std::shared_ptr<VNFFMediaStream> lines = subtitle->subtitleStream();
  if (!lines)
    return nullptr;
  const AVCodecContext* codec = lines->codecContext();
  std::string_view header;
  if (codec->subtitle_header && codec->subtitle_header_size > 0)
    header = {reinterpret_cast<const char*>(codec->subtitle_header),
              static_cast<size_t>(codec->subtitle_header_size)};
  // A script's own styles are the author's; only a plain text's default
  // style takes the application's.
  if (codec->codec_id == AV_CODEC_ID_ASS || codec->codec_id == AV_CODEC_ID_SSA)
    style.reset();
  std::vector<vn::SubtitleFont> fonts;
  if (const AVFormatContext* context = subtitle->formatContext()) {
    for (unsigned i = 0; i < context->nb_streams; ++i) {
      const AVStream* stream = context->streams[i];
      if (stream->codecpar->codec_type != AVMEDIA_TYPE_ATTACHMENT ||
          stream->codecpar->extradata_size <= 0)
        continue;
      const AVDictionaryEntry* type = av_dict_get(stream->metadata, "mimetype", nullptr, 0);
      const AVDictionaryEntry* name = av_dict_get(stream->metadata, "filename", nullptr, 0);
      const std::string mime = type && type->value ? type->value : "";
      const std::string file = name && name->value ? name->value : "";
      if (!vn::isFontAttachment(mime, file))
        continue;
      const uint8_t* data = stream->codecpar->extradata;
      fonts.push_back({file, std::vector<uint8_t>(data, data + stream->codecpar->extradata_size)});
    }
  }
  std::shared_ptr<vn::StyledSubtitleRenderer> renderer =
      vn::StyledSubtitleRenderer::create(header, fonts, style);
  if (!renderer)
    return nullptr;
  // Events read before were not kept: read the track again from its start.
  lines->setKeepsSubtitleEvents(true);
  subtitle->seek(0);
  std::lock_guard<std::mutex> guard(lock_);
  styledRenderer_ = renderer;
  styledFor_ = subtitle;
  return renderer;
}

void VNFFMovie::decodeImageAtTime(int64_t t,
                                  std::shared_ptr<VNFFMovieImageProvider> provider,
                                  bool wait) {
  auto self = shared_from_this();
  auto work = [self, t, provider] {
    PictureRequest counted(self->pictureRequests_);
    VNFFEffectVideoStream& stream = *self->videoEffectStream_;
    const std::shared_ptr<VNFFMedia> media = self->videoMediaAtTime(t);
    AVFrame* frame = media ? media->videoFrameAtTime(t - media->movie_position()) : nullptr;
    self->showSubtitlesAt(t, media);
    const bool wantsData = provider && provider->movieFormatSize;
    stream.writeFrame(frame, [&](int32_t size) -> VNFFEffectVideoStream::DataBuffer {
      if (!wantsData)
        return nullptr;
      return provider->movieFormatSize(*self, stream.outputDataFormat(), size);
    });
    std::optional<vn::FilterImage> plain = stream.currentCIImage();
    std::optional<vn::FilterImage> effect = stream.currentEffectImage();
    // A provider that asks for the pixels gets images only with them.
    if (wantsData && !stream.dataBuffer()) {
      plain.reset();
      effect.reset();
    }
    // The medias are left alone from here: an application woken by the
    // provider may read the mix at once.
    counted.done();
    if (provider && provider->movieMediaImage)
      provider->movieMediaImage(*self, std::move(plain));
    if (provider && provider->movieMediaEffectImage)
      provider->movieMediaEffectImage(*self, std::move(effect));
  };
  pictureRequests_.fetch_add(1);
  if (decodeQueue_->isCurrent()) {
    work();
    return;
  }
  auto operation = decodeQueue_->addOperation(std::move(work));
  if (wait)
    operation->wait();
}

void VNFFMovie::decodeImageAtTime(int64_t t, std::shared_ptr<VNFFMovieImageProvider> provider) {
  decodeImageAtTime(t, std::move(provider), true);
}

// --- picture settings ---------------------------------------------------------------

#define VN_PICTURE_SETTING(Type, getter, setter)  \
  Type VNFFMovie::getter() {                      \
    return videoEffectStream_->getter();          \
  }                                               \
  void VNFFMovie::setter(Type value) {            \
    videoEffectStream_->setter(std::move(value)); \
  }

VN_PICTURE_SETTING(vn::Rect, cropRect, setCropRect)
VN_PICTURE_SETTING(bool, hflip, setHflip)
VN_PICTURE_SETTING(bool, vflip, setVflip)
VN_PICTURE_SETTING(float, rotate, setRotate)
VN_PICTURE_SETTING(float, saturation, setSaturation)
VN_PICTURE_SETTING(float, brightness, setBrightness)
VN_PICTURE_SETTING(float, contrast, setContrast)
VN_PICTURE_SETTING(float, hue, setHue)
VN_PICTURE_SETTING(std::optional<std::string>, effectName, setEffectName)
VN_PICTURE_SETTING(std::optional<vn::FilterImage>, watermark, setWatermark)
VN_PICTURE_SETTING(int32_t, zoomType, setZoomType)

#undef VN_PICTURE_SETTING

std::string VNFFMovie::subtitleFont() {
  return videoEffectStream_->subtitleFont();
}

// The subtitle settings and the size change the drawn subtitle: the cache is
// emptied in the same step as the change.
#define VN_SUBTITLE_SETTING(Type, setter, field)                                      \
  void VNFFMovie::setter(Type value) {                                                \
    videoEffectStream_->changePictureSettings(                                        \
        [&](PictureSettings& settings) { settings.field = std::move(value); }, true); \
  }

VN_SUBTITLE_SETTING(std::optional<std::string>, setSubtitleFont, subtitleFont)
VN_SUBTITLE_SETTING(std::optional<vn::FilterImage::Color>, setSubtitleColor, subtitleColor)
VN_SUBTITLE_SETTING(float, setSubtitlePosition, subtitlePosition)
VN_SUBTITLE_SETTING(float, setSubtitleOutlineWidth, subtitleOutlineWidth)
VN_SUBTITLE_SETTING(float, setSubtitleShadowOffset, subtitleShadowOffset)

#undef VN_SUBTITLE_SETTING

bool VNFFMovie::styledSubtitles() {
  return styledSubtitles_.load();
}

void VNFFMovie::setStyledSubtitles(bool styled) {
  // The styled renderer reads the subtitle media ahead of the picture: the
  // plain one taking over reads it again from its start.
  if (styledSubtitles_.exchange(styled) && !styled)
    rereadSubtitle_.store(true);
}

std::optional<vn::SubtitleStyle> VNFFMovie::subtitleStyle() {
  std::lock_guard<std::mutex> guard(lock_);
  return subtitleStyle_;
}

void VNFFMovie::setSubtitleStyle(std::optional<vn::SubtitleStyle> style) {
  std::lock_guard<std::mutex> guard(lock_);
  subtitleStyle_ = std::move(style);
  // Made anew, with the new style, for the next picture.
  styledRenderer_.reset();
}

int64_t VNFFMovie::subtitleDelay() {
  return subtitleDelay_.load();
}

void VNFFMovie::setSubtitleDelay(int64_t microseconds) {
  subtitleDelay_.store(microseconds);
}

vn::FilterImage::Color VNFFMovie::subtitleColor() {
  return videoEffectStream_->subtitleColor();
}

float VNFFMovie::subtitlePosition() {
  return videoEffectStream_->subtitlePosition();
}

float VNFFMovie::subtitleOutlineWidth() {
  return videoEffectStream_->subtitleOutlineWidth();
}

float VNFFMovie::subtitleShadowOffset() {
  return videoEffectStream_->subtitleShadowOffset();
}

vn::Size VNFFMovie::outputVideoSize() {
  const VNFFVideoFormat format = videoEffectStream_->outputFormat();
  return vn::Size{static_cast<double>(format.width), static_cast<double>(format.height)};
}

void VNFFMovie::setOutputVideoSize(vn::Size size) {
  // The graph is not rebuilt: pictures are converted at the media's size
  // and sized to the output when composed.
  videoEffectStream_->changePictureSettings(
      [size](PictureSettings& settings) {
        settings.outputFormat.width = static_cast<int32_t>(size.width + 0.1);
        settings.outputFormat.height = static_cast<int32_t>(size.height + 0.1);
      },
      true);
}

PictureSettings VNFFMovie::pictureSettings() {
  return videoEffectStream_->pictureSettings();
}

void VNFFMovie::setPictureSettings(const PictureSettings& settings) {
  videoEffectStream_->changePictureSettings(
      [&settings](PictureSettings& current) { current = settings; }, true);
}

void VNFFMovie::updateSubtitle() {
  videoEffectStream_->updateSubtitle();
}

void VNFFMovie::configVideoEffectStream() {
  const Medias withVideo = videos();
  const std::shared_ptr<VNFFMedia> first = withVideo.empty() ? nullptr : withVideo.front();
  // The graph is rebuilt between two picture items, never under one.
  runOnDecodeQueue([this, first] {
    VNFFEffectVideoStream& stream = *videoEffectStream_;
    stream.setMedia(first);
    const VNFFVideoFormat format = first ? first->videoFormat() : VNFFVideoFormat{};
    stream.changePictureSettings([&format](PictureSettings& settings) {
      settings.outputFormat = VNFFVideoFormat{AV_PIX_FMT_RGBA, format.width, format.height};
      settings.cropRect =
          vn::Rect{0, 0, static_cast<double>(format.width), static_cast<double>(format.height)};
    });
    stream.updateConverter();
  });
}
