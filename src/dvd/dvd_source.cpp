#include "dvd/dvd_source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include "core/formats.h"
#include "dvd/dvdread_library.h"
#include "media/media.h"

namespace {

constexpr int kBlockSize = DVD_VIDEO_LB_LEN;  // 2048
constexpr int kIOBufferSize = 1048576;
// Consecutive pieces of a title overlap by this much on the movie timeline.
constexpr double kPieceOverlap = 0.2;

}  // namespace

std::shared_ptr<VNDVDSource> VNDVDSource::create(std::shared_ptr<VNDVD> dvd,
                                                 std::shared_ptr<VNDVDTitleSet> title_set,
                                                 std::shared_ptr<VNDVDTitle> title,
                                                 std::shared_ptr<VNDVDMedia> media) {
  std::shared_ptr<VNDVDSource> source(new VNDVDSource());
  source->setFullpath(dvd ? dvd->path : std::string());
  source->dvd_ = std::move(dvd);
  source->title_set_ = std::move(title_set);
  source->title_ = std::move(title);
  source->media_ = std::move(media);
  return source;
}

VNDVDSource::~VNDVDSource() {
  // The demuxer reads through the byte reader, which reads the VOB file:
  // they go in that order.
  closeDemuxer();
  io_context_.reset();
  closeReader();
}

void VNDVDSource::closeReader() {
  if (!reader_)
    return;
  std::lock_guard<std::mutex> hold(dvd_->internal->lock);
  vn::dvdread().DVDCloseFile(reader_);
  reader_ = nullptr;
}

std::string VNDVDSource::path() {
  return dvd_ ? dvd_->path : std::string();
}

std::string VNDVDSource::name() {
  return (dvd_ ? dvd_->volume : std::string()) + "_" +
         std::to_string(title_set_ ? title_set_->title_set : 0) + "_" +
         std::to_string(title_ ? title_->title + 1 : 0);
}

bool VNDVDSource::isDVD() {
  return true;
}

const uint32_t* VNDVDSource::palette() {
  return title_ ? title_->palette.data() : nullptr;
}

int32_t VNDVDSource::start_sector() const {
  return media_ ? media_->start_sector : title_->start_sector;
}

int32_t VNDVDSource::sector_count() const {
  return media_ ? media_->sector_count : title_->sector_count;
}

int64_t VNDVDSource::filesize() {
  return int64_t{sector_count()} * kBlockSize;
}

std::optional<std::vector<std::string>> VNDVDSource::audioNames() {
  return title_set_ ? std::optional(title_set_->audioLanguages) : std::nullopt;
}

std::optional<std::vector<std::string>> VNDVDSource::subtitleNames() {
  return title_set_ ? std::optional(title_set_->subtitleLanguages) : std::nullopt;
}

AVIOContext* VNDVDSource::avio_context() {
  if (io_context_)
    return io_context_.get();
  vn::ff::AvBuffer<uint8_t> buffer(static_cast<uint8_t*>(av_malloc(kIOBufferSize)));
  if (!reader_ && dvd_ && dvd_->dvd_reader()) {
    std::lock_guard<std::mutex> hold(dvd_->internal->lock);
    reader_ =
        vn::dvdread().DVDOpenFile(dvd_->dvd_reader(), title_set_->title_set, DVD_READ_TITLE_VOBS);
    if (reader_)
      blocks_ = static_cast<uint32_t>(std::max<ssize_t>(vn::dvdread().DVDFileSize(reader_), 0));
  }
  if (buffer) {
    io_context_.reset(avio_alloc_context(buffer.get(), kIOBufferSize, 0, this, &readPacket, nullptr,
                                         &seekPacket));
    if (io_context_) {
      (void)buffer.release();  // the context's now
      io_context_->max_packet_size = kIOBufferSize;
    }
  }
  return io_context_.get();
}

int64_t VNDVDSource::readBlock(uint32_t block, int64_t count, uint8_t* buffer) {
  const int32_t left = static_cast<int32_t>(static_cast<uint32_t>(sector_count()) - block);
  const int64_t wanted = std::min<int64_t>(left, count);
  if (wanted < 1 || !reader_)
    return 0;
  std::lock_guard<std::mutex> hold(dvd_->internal->lock);
  const ssize_t read = vn::dvdread().DVDReadBlocks(
      reader_, start_sector() + static_cast<int>(block), static_cast<size_t>(wanted), buffer);
  return read < 0 ? 0 : read;
}

int VNDVDSource::readPacket(void* opaque, uint8_t* buffer, int size) {
  VNDVDSource& source = *static_cast<VNDVDSource*>(opaque);
  const int64_t end = source.filesize();
  const int64_t at = source.read_offset_;
  if (!source.reader_)
    return AVERROR_EOF;
  const int64_t block = at / kBlockSize;
  const int64_t offset = at % kBlockSize;
  const int64_t wanted = std::min<int64_t>(end - at, size);
  if (wanted <= 0 || block < 0)
    return AVERROR_EOF;
  int64_t given = 0;
  if (offset != 0 || wanted < kBlockSize) {
    // Served from the one block that holds the position, to its end at most.
    uint8_t one[kBlockSize];
    if (source.readBlock(static_cast<uint32_t>(block), 1, one) > 0) {
      given = std::min<int64_t>(wanted, kBlockSize - offset);
      std::memcpy(buffer, one + offset, static_cast<size_t>(given));
    }
  } else {
    // Whole blocks straight into the demuxer's buffer; a remainder waits
    // for the next call.
    given =
        source.readBlock(static_cast<uint32_t>(block), wanted / kBlockSize, buffer) * kBlockSize;
  }
  if (given <= 0)
    return AVERROR_EOF;
  source.read_offset_ += given;
  return static_cast<int>(given);
}

int64_t VNDVDSource::seekPacket(void* opaque, int64_t offset, int whence) {
  VNDVDSource& source = *static_cast<VNDVDSource*>(opaque);
  switch (whence) {
    case SEEK_SET:
      source.read_offset_ = offset;
      break;
    case SEEK_CUR:
      source.read_offset_ += offset;
      break;
    case SEEK_END:
      source.read_offset_ = source.filesize() + offset;
      break;
    case AVSEEK_SIZE:
      return source.filesize();
    default:
      return AVERROR(ENOSYS);
  }
  return source.read_offset_;
}

std::vector<std::shared_ptr<VNDVDSource>> VNDVDSource::dvdMediaSources() {
  std::vector<std::shared_ptr<VNDVDSource>> pieces;
  if (!title_set_ || !title_)
    return pieces;
  for (const auto& vob : title_set_->medias) {
    std::shared_ptr<VNDVDMedia> run = vob->subMediaAt(start_sector(), sector_count());
    if (!run)
      continue;
    std::shared_ptr<VNDVDSource> piece = create(dvd_, title_set_, title_, std::move(run));
    copyFieldsTo(*piece);
    pieces.push_back(std::move(piece));
  }
  return pieces;
}

std::optional<VNMediaSource::Medias> VNDVDSource::createMedias() {
  std::vector<std::shared_ptr<VNDVDSource>> sources;
  if (media_) {
    sources.push_back(std::static_pointer_cast<VNDVDSource>(shared_from_this()));
  } else {
    sources = dvdMediaSources();
  }
  Medias medias;
  int64_t position = 0;
  for (const auto& source : sources) {
    std::shared_ptr<VNFFMedia> media = VNFFMedia::create();
    media->setSource(source);
    media->open();
    if (!media->hasVideo() && !media->hasAudio())
      continue;
    media->setMovie_position(position);
    medias.push_back(media);
    position = static_cast<int64_t>(static_cast<double>(std::max<int64_t>(media->duration(), 0)) +
                                    static_cast<double>(position) -
                                    kPieceOverlap * vn_default_time_base());
  }
  return medias;
}

std::shared_ptr<VNMediaSource> VNDVDSource::copy() {
  std::shared_ptr<VNDVDSource> copy = create(dvd_, title_set_, title_, media_);
  copyFieldsTo(*copy);
  return copy;
}
