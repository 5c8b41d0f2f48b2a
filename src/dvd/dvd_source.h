// VNDVDSource: a media source that reads one DVD title, or one VOB piece of
// a title, straight from the disc. The demuxer sees one MPEG program stream
// of sector_count × 2048 bytes through the source's own byte reader.
//
//   idle ──avio_context (first open)──► title VOBs open, byte reader made
//        ──destruction──► demuxer, byte reader and VOB file closed
//
// A whole-title source is read as its VOB pieces, each a media of its own,
// placed one after another on the movie timeline with 0.2 s of overlap.
//
// Threads: as VNMediaSource. Each source has its own VOB file, byte reader
// and position; every call on the disc's reader holds the disc's lock.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "dvd/dvd.h"
#include "ffmpeg/owners.h"
#include "media/media_source.h"

typedef struct dvd_file_s dvd_file_t;

class VNDVDSource : public VNMediaSource {
 public:
  // A source over the whole title, or over `media` (a run inside it).
  static std::shared_ptr<VNDVDSource> create(std::shared_ptr<VNDVD> dvd,
                                             std::shared_ptr<VNDVDTitleSet> title_set,
                                             std::shared_ptr<VNDVDTitle> title,
                                             std::shared_ptr<VNDVDMedia> media = nullptr);
  ~VNDVDSource() override;

  // The disc's path.
  std::string path() override;
  // "VOLUME_set_title": the disc's volume, the title set's number and the
  // title's index + 1. Every piece of a title has the same name.
  std::string name() override;
  bool isDVD() override;
  const uint32_t* palette() override;
  // The byte reader, made on the first call with a 1 MiB buffer; the title
  // set's VOBs are opened then. Null when it cannot be made.
  AVIOContext* avio_context() override;
  int64_t filesize() override;
  std::optional<std::vector<std::string>> audioNames() override;
  std::optional<std::vector<std::string>> subtitleNames() override;
  // One opened media per VOB piece (or this piece alone), each starting
  // 0.2 s before the previous one ends; pieces with neither audio nor video
  // are left out. Empty when none has either.
  std::optional<Medias> createMedias() override;
  // Shares the disc, title set, title and piece; opens its own VOB file and
  // byte reader when first read, from position 0.
  std::shared_ptr<VNMediaSource> copy() override;

  // The run read: the piece's when there is one, else the title's.
  int32_t start_sector() const;
  int32_t sector_count() const;
  // Up to `count` blocks from `block` (counted from start_sector, never past
  // the run) into buffer; the number read, 0 on failure.
  int64_t readBlock(uint32_t block, int64_t count, uint8_t* buffer);
  // One copy of this source per VOB piece of its run, in VOB order.
  std::vector<std::shared_ptr<VNDVDSource>> dvdMediaSources();

  // The byte reader's callbacks, the source as opaque. A read gives what
  // lies from read_offset, only to the end of its block when unaligned or
  // shorter than a block, and AVERROR_EOF at the end or on a failed read.
  // A seek handles SEEK_SET, SEEK_CUR, SEEK_END and AVSEEK_SIZE, no other.
  static int readPacket(void* opaque, uint8_t* buffer, int size);
  static int64_t seekPacket(void* opaque, int64_t offset, int whence);

  const std::shared_ptr<VNDVD>& dvd() const { return dvd_; }
  const std::shared_ptr<VNDVDTitleSet>& title_set() const { return title_set_; }
  const std::shared_ptr<VNDVDTitle>& title() const { return title_; }
  const std::shared_ptr<VNDVDMedia>& media() const { return media_; }
  int64_t read_offset() const { return read_offset_; }
  // The title set's VOBs in blocks, known once they are open.
  uint32_t blocks() const { return blocks_; }

 private:
  VNDVDSource() = default;
  void closeReader();

  std::shared_ptr<VNDVD> dvd_;
  uint32_t blocks_ = 0;
  int64_t read_offset_ = 0;
  std::shared_ptr<VNDVDTitle> title_;
  vn::ff::IOContext io_context_;
  dvd_file_t* reader_ = nullptr;
  std::shared_ptr<VNDVDTitleSet> title_set_;
  std::shared_ptr<VNDVDMedia> media_;
};
