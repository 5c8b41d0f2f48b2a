#include "media/media_source.h"

#include <filesystem>
#include <mutex>

extern "C" {
#include <libavformat/avformat.h>
}

#include "core/codec_lock.h"
#include "ffmpeg/error.h"
#include "media/media.h"
#include "media/media_stream.h"

std::shared_ptr<VNMediaSource> VNMediaSource::mediaWithPath(const std::string& path) {
  std::shared_ptr<VNMediaSource> source(new VNMediaSource());
  source->setFullpath(path);
  return source;
}

VNMediaSource::~VNMediaSource() = default;

std::string VNMediaSource::path() { return fullpath_; }

std::string VNMediaSource::name() { return std::filesystem::path(path()).stem().string(); }

bool VNMediaSource::isDVD() { return false; }

bool VNMediaSource::isSubtitle() { return false; }

const uint32_t* VNMediaSource::palette() { return nullptr; }

AVIOContext* VNMediaSource::avio_context() { return nullptr; }

int64_t VNMediaSource::filesize() { return 0; }

std::optional<std::vector<std::string>> VNMediaSource::audioNames() { return std::nullopt; }

std::optional<std::vector<std::string>> VNMediaSource::subtitleNames() { return std::nullopt; }

std::optional<VNMediaSource::Medias> VNMediaSource::createMedias() {
  return createMediasWithStreams(std::nullopt);
}

std::shared_ptr<VNMediaSource> VNMediaSource::copy() {
  std::shared_ptr<VNMediaSource> copy(new VNMediaSource());
  copyFieldsTo(*copy);
  return copy;
}

void VNMediaSource::copyFieldsTo(VNMediaSource& copy) const { copy.fullpath_ = fullpath_; }

void VNMediaSource::open() {
  if (isOpen()) return;
  AVFormatContext* context = avformat_alloc_context();
  if (!context) {
    lastError_ = "out of memory";
    return;
  }
  context->pb = avio_context();
  // On failure FFmpeg frees the context and nulls the pointer.
  int status = avformat_open_input(&context, path().c_str(), nullptr, nullptr);
  if (!context) {
    lastError_ = vn::ff::errorText(status);
    return;
  }
  vn::ff::InputFormatContext opened(context);
  std::lock_guard<std::recursive_mutex> hold(vn::codecLock());
  // The probe's status is not a verdict: a file whose streams could not all
  // be probed still opens with what was found.
  (void)avformat_find_stream_info(context, nullptr);
  format_context_ = std::move(opened);
  lastError_.clear();
}

std::optional<VNMediaSource::Medias> VNMediaSource::createMediasWithStreams(
    std::optional<VNIndexSet> streams) {
  std::shared_ptr<VNFFMedia> media = VNFFMedia::create();
  media->setSource(shared_from_this());
  media->setSelectStreams(std::move(streams));
  media->open();

  VNIndexSet video, audio;
  for (const auto& stream : media->streams()) {
    if (!stream->enable()) continue;
    const uint32_t index = static_cast<uint32_t>(stream->stream()->index);
    if (stream->isVideo()) {
      video.insert(index);
    } else if (stream->isAudio()) {
      audio.insert(index);
    }
  }

  if (!video.empty() && !audio.empty()) {
    // Two medias over the same file, each with its own demuxer: one feeds
    // only pictures, the other only sound.
    std::shared_ptr<VNFFMedia> sound = media->copy();
    sound->setSelectStreams(std::move(audio));
    sound->open();
    media->setSelectStreams(std::move(video));
    media->updateSelectStreams();
    return Medias{media, sound};
  }
  if (video.empty() && audio.empty()) return std::nullopt;
  media->setSelectStreams(video.empty() ? std::move(audio) : std::move(video));
  media->updateSelectStreams();
  return Medias{media};
}

bool VNMediaSource::isComplete() {
  AVFormatContext* context = formatContext();
  if (!context || !context->pb) return true;
  const int64_t size = avio_size(context->pb);
  if (size <= 0) return true;
  int64_t end = 0;
  for (unsigned i = 0; i < context->nb_streams; ++i) {
    AVStream* stream = context->streams[i];
    const int count = avformat_index_get_entries_count(stream);
    if (count <= 0) continue;
    const AVIndexEntry* last = avformat_index_get_entry(stream, count - 1);
    if (last && last->pos >= 0) end = std::max(end, last->pos + last->size);
  }
  if (end <= size) return true;
  lastError_ = "file is truncated: its index refers to byte " + std::to_string(end) + " of " +
               std::to_string(size);
  return false;
}
