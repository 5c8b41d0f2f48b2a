#include "media/media.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include "media/media_source.h"
#include "media/media_stream.h"
#include "media/movie_link.h"

std::shared_ptr<VNFFMedia> VNFFMedia::create() {
  return std::shared_ptr<VNFFMedia>(new VNFFMedia());
}

VNFFMedia::VNFFMedia() : current_pts_(0), last_pts_(AV_NOPTS_VALUE) {}

VNFFMedia::~VNFFMedia() {
  movie_.reset();
  // Decoders go before the demuxer whose streams they read.
  streams_.clear();
  source_.reset();
}

std::shared_ptr<VNFFMedia> VNFFMedia::copy() const {
  std::shared_ptr<VNFFMedia> copy = create();
  copy->movie_position_ = movie_position_;
  if (source_)
    copy->source_ = source_->copy();
  copy->selectStreams_ = selectStreams_;
  copy->selectAudios_ = selectAudios_;
  copy->selectSubtitles_ = selectSubtitles_;
  copy->subtitleCharset_ = subtitleCharset_;
  return copy;
}

// ---- opening and selection ------------------------------------------------------

bool VNFFMedia::isOpen() const {
  return formatContext() != nullptr;
}

AVFormatContext* VNFFMedia::formatContext() const {
  return source_ ? source_->formatContext() : nullptr;
}

void VNFFMedia::open() {
  if (!source_)
    return;
  source_->open();
  AVFormatContext* context = formatContext();
  if (!context)
    return;
  for (unsigned i = streams_.size(); i < context->nb_streams; ++i) {
    std::shared_ptr<VNFFMediaStream> stream =
        VNFFMediaStream::create(weak_from_this(), context->streams[i]);
    if (!stream)
      break;  // out of memory: the indices must stay aligned
    if (stream->isSubtitle()) {
      if (const uint32_t* palette = source_->palette())
        stream->fillPalette(palette);
    }
    streams_.push_back(std::move(stream));
  }
  // Opens and enables the selected streams, the new ones included.
  updateSelectStreams();
}

void VNFFMedia::updateSelectStreams() {
  const bool dvd = source_ && source_->isDVD();
  uint32_t audioOrdinal = 0, subtitleOrdinal = 0;
  for (uint32_t i = 0; i < streams_.size(); ++i) {
    VNFFMediaStream& stream = *streams_[i];
    if (!selectStreams_ || selectStreams_->count(i)) {
      stream.open();
      stream.setEnable(stream.isOpen());
    } else {
      stream.close();
      stream.setEnable(false);
    }
    if (!stream.isOpen())
      continue;
    // On a DVD the key is the track number in the stream id's low bits.
    const uint32_t dvdKey = static_cast<uint32_t>(stream.stream()->id) & 15;
    if (stream.isAudio() && selectAudios_) {
      stream.setEnable(selectAudios_->count(dvd ? dvdKey : audioOrdinal) > 0);
      ++audioOrdinal;
    } else if (stream.isSubtitle() && selectSubtitles_) {
      stream.setEnable(selectSubtitles_->count(dvd ? dvdKey : subtitleOrdinal) > 0);
      ++subtitleOrdinal;
    }
  }
}

// ---- what the media holds ---------------------------------------------------------

template <typename Test>
VNFFMedia::Streams VNFFMedia::enabledStreams(Test test) const {
  Streams found;
  for (const auto& stream : streams_) {
    if (stream->enable() && test(*stream))
      found.push_back(stream);
  }
  return found;
}

VNFFMedia::Streams VNFFMedia::audios() const {
  return enabledStreams([](const VNFFMediaStream& s) { return s.isAudio(); });
}

VNFFMedia::Streams VNFFMedia::videos() const {
  return enabledStreams([](const VNFFMediaStream& s) { return s.isVideo(); });
}

VNFFMedia::Streams VNFFMedia::subtitles() const {
  return enabledStreams([](const VNFFMediaStream& s) { return s.isSubtitle(); });
}

template <typename Test>
std::shared_ptr<VNFFMediaStream> VNFFMedia::lastEnabledStream(Test test) const {
  for (auto it = streams_.rbegin(); it != streams_.rend(); ++it) {
    if ((*it)->enable() && test(**it))
      return *it;
  }
  return nullptr;
}

std::shared_ptr<VNFFMediaStream> VNFFMedia::audioStream() const {
  return lastEnabledStream([](const VNFFMediaStream& s) { return s.isAudio(); });
}

std::shared_ptr<VNFFMediaStream> VNFFMedia::videoStream() const {
  return lastEnabledStream([](const VNFFMediaStream& s) { return s.isVideo(); });
}

std::shared_ptr<VNFFMediaStream> VNFFMedia::subtitleStream() const {
  return lastEnabledStream([](const VNFFMediaStream& s) { return s.isSubtitle(); });
}

bool VNFFMedia::hasAudio() const {
  return audioStream() != nullptr;
}

bool VNFFMedia::hasVideo() const {
  if (!videoStream())
    return false;
  std::shared_ptr<VNMovieLink> owner = movie();
  return !(owner && owner->disableVideo());
}

std::optional<uint32_t> VNFFMedia::subtitleStreamIndex(const AVFormatContext* context,
                                                       uint32_t track,
                                                       uint32_t* count) {
  std::optional<uint32_t> index;
  uint32_t seen = 0;
  for (uint32_t i = 0; context && i < context->nb_streams; ++i) {
    if (context->streams[i]->codecpar->codec_type != AVMEDIA_TYPE_SUBTITLE)
      continue;
    if (seen++ == track)
      index = i;
  }
  if (count)
    *count = seen;
  return index;
}

bool VNFFMedia::hasSubtitle() const {
  return subtitleStream() != nullptr;
}

std::vector<std::string> VNFFMedia::trackNames(std::optional<std::vector<std::string>> given,
                                               bool (VNFFMediaStream::*isKind)() const) const {
  if (given)
    return *given;
  std::vector<std::string> names;
  for (const auto& stream : streams_) {
    if (stream->isOpen() && ((*stream).*isKind)())
      names.push_back(stream->language());
  }
  return names;
}

std::vector<std::string> VNFFMedia::audioNames() const {
  return trackNames(source_ ? source_->audioNames() : std::nullopt, &VNFFMediaStream::isAudio);
}

std::vector<std::string> VNFFMedia::subtitleNames() const {
  return trackNames(source_ ? source_->subtitleNames() : std::nullopt,
                    &VNFFMediaStream::isSubtitle);
}

int64_t VNFFMedia::start_time() const {
  AVFormatContext* context = formatContext();
  if (!context || context->start_time == AV_NOPTS_VALUE)
    return 0;
  return context->start_time;
}

int64_t VNFFMedia::duration() const {
  AVFormatContext* context = formatContext();
  return context ? context->duration : 0;
}

VNFFVideoFormat VNFFMedia::videoFormat() const {
  std::shared_ptr<VNFFMediaStream> video = videoStream();
  return video ? video->videoFormat() : VNFFVideoFormat{};
}

float VNFFMedia::framerate() const {
  std::shared_ptr<VNFFMediaStream> video = videoStream();
  return video ? video->framerate() : 0.0f;
}

std::shared_ptr<VNFFMediaStream> VNFFMedia::mediaStreamForStreamIndex(uint32_t index) {
  if (index >= streams_.size())
    open();
  if (index >= streams_.size())
    return nullptr;
  return streams_[index];
}
