#include "movie/movie.h"

#include <algorithm>
#include <iterator>

extern "C" {
#include <libavutil/samplefmt.h>
}

#include "core/serial_queue.h"
#include "core/varnel.h"
#include "media/media_source.h"
#include "media/subtitle_source.h"
#include "movie/effect_audio_stream.h"
#include "movie/output_audio_graph.h"

namespace {
// Frames mixed per top-up item; the output holds under two of these.
constexpr int32_t kChunkFrames = 2048;
}  // namespace

std::shared_ptr<VNFFMovie> VNFFMovie::create() {
  Varnel::initialize();
  return std::make_shared<VNFFMovie>();
}

VNFFMovie::VNFFMovie()
    : audioEffectStream_(VNFFEffectAudioStream::create()),
      decodeQueue_(std::make_unique<vn::SerialQueue>("varnel.decode")) {}

VNFFMovie::~VNFFMovie() {
  pause();
  close();
  // The queue goes before the mix it may still be reading: its destructor
  // lets pending items run (none can hold this movie any more).
  decodeQueue_.reset();
  audioEffectStream_.reset();
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
  // The video effect stream is attached to the first video media here once
  // picture composition exists (configVideoEffectStream).
}

bool VNFFMovie::openSubtitle(const std::string& path) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    subtitle_.reset();
  }
  auto media = VNFFMedia::create();
  media->setSource(VNSubtitleSource::mediaWithPath(path));
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

std::shared_ptr<VNFFMedia> VNFFMovie::medias(const Medias& array, int64_t time) {
  for (const auto& media : array) {
    const int64_t start = media->movie_position();
    if (start <= time && time < start + media->duration())
      return media;
  }
  return nullptr;
}

std::vector<std::string> VNFFMovie::audioStreams() {
  const Medias all = medias();
  return all.empty() ? std::vector<std::string>{} : all.front()->audioNames();
}

std::vector<std::string> VNFFMovie::subtitleStreams() {
  const Medias all = medias();
  return all.empty() ? std::vector<std::string>{} : all.front()->subtitleNames();
}

std::optional<VNIndexSet> VNFFMovie::selectAudioStreams() {
  const Medias all = medias();
  return all.empty() ? std::nullopt : all.front()->selectAudios();
}

std::optional<VNIndexSet> VNFFMovie::selectSubtitleStreams() {
  const Medias all = medias();
  return all.empty() ? std::nullopt : all.front()->selectSubtitles();
}

void VNFFMovie::setSelectAudioStreams(const std::optional<VNIndexSet>& streams) {
  for (const auto& media : medias()) {
    media->setSelectAudios(streams);
    media->updateSelectStreams();
  }
}

void VNFFMovie::setSelectSubtitleStreams(const std::optional<VNIndexSet>& streams) {
  for (const auto& media : medias()) {
    media->setSelectSubtitles(streams);
    media->updateSelectStreams();
  }
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
  decodeQueue_->addOperation([self, time, snapshot = std::move(snapshot), graph] {
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
}

void VNFFMovie::flushOperation() {
  decodeQueue_->waitUntilAllOperationsAreFinished();
}

VNFFAudioFormat VNFFMovie::defaultOutputFormat() {
  return VNFFAudioFormat{AV_SAMPLE_FMT_FLT, vn::defaultChannelLayout(2), 44100};
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
  forwardAudioDecodeTime(frames);
  return audioEffectStream_->readSample(bytes, frames);
}

// --- playback -------------------------------------------------------------------

std::shared_ptr<VNOutputAudioGraph> VNFFMovie::audioOutputGraph() {
  std::lock_guard<std::mutex> guard(lock_);
  return audioOutputGraph_;
}

void VNFFMovie::openAudioOutput() {
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
  // Called on the device thread; while the movie is being destroyed there is
  // nothing to top up.
  auto self = weak_from_this().lock();
  if (!self)
    return;
  decodeQueue_->addOperation([self] { self->decodeMoreAudioDataToAudioOutputHelper(); });
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
