// VNDVD: a DVD-Video disc (a device, a disc image or a folder holding the
// disc's files) opened with libdvdread, and the small model of it that the
// rest of the library needs: its title sets, their VOBs as sector runs, and
// their titles, one per program chain.
//
// Only the structure is read here: every IFO is closed before open returns.
// The bytes of a title are read by VNDVDSource. Sector numbers are 2048-byte
// blocks counted from the start of a title set's title VOBs as libdvdread
// presents them (one file per title set).
//
// Threads: the model is built once by open and not changed afterwards; it
// may be read from any thread. The sources of one disc share its reader,
// and take its lock for every call on it.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

typedef struct dvd_reader_s dvd_reader_t;
class VNDVDSource;

// One contiguous run of sectors: a whole VOB, or the part of a VOB that lies
// inside a title.
class VNDVDMedia {
 public:
  VNDVDMedia() = default;
  VNDVDMedia(int32_t start, int32_t count) : sector_count(count), start_sector(start) {}

  int32_t sector_count = 0;
  int32_t start_sector = 0;

  // The overlap of this run with the run of `count` sectors from `start`, as
  // a new media; none when they do not overlap.
  std::shared_ptr<VNDVDMedia> subMediaAt(int32_t start, int32_t count) const;
  // "start:%d count:%d"
  std::string description() const;
};

// A title: one program chain of a title set.
class VNDVDTitle {
 public:
  // The chain's subpicture colours, 0x00YYCrCb, as libdvdread gives them.
  std::array<uint32_t, 16> palette{};
  int32_t sector_count = 0;
  int32_t start_sector = 0;
  // Index of the program chain in the title set's chain table, from 0.
  int32_t title = 0;
  // How long the chain plays, as the disc states it, in microseconds (0
  // when it states none).
  int64_t playback_time = 0;
  // How long each chapter (program) of the chain plays, in order, as the
  // disc states its cells' times, in microseconds.
  std::vector<int64_t> chapters;

  // sector_count × 2048 bytes.
  int64_t filesize() const;
  // "title:%d start:%d count:%d"
  std::string description() const;
};

class VNDVDTitleSet {
 public:
  std::optional<std::string> display_aspect_ratio;  // "4:3", "16:9" or none
  std::vector<std::shared_ptr<VNDVDTitle>> titles;
  std::vector<std::string> subtitleLanguages;  // display names, in stream order
  int32_t title_set = 0;                       // from 1
  // One per VOB: the entry at index i is the VOB with id i + 1.
  std::vector<std::shared_ptr<VNDVDMedia>> medias;
  std::optional<std::string> dvdFormat;     // "ntsc", "pal" or none
  std::vector<std::string> audioLanguages;  // display names, in stream order
  // The language codes as the disc stores them ("en", "xx"), in stream
  // order; empty for a stream that states none.
  std::vector<std::string> audioLanguageCodes;
  std::vector<std::string> subtitleLanguageCodes;

  // medias[index]; none when index is not below their count.
  std::shared_ptr<VNDVDMedia> mediaForVob(uint32_t index) const;
  // "format:%@ aspect_ratio:%@ audios:%@ subtitle:%@"
  std::string description() const;
};

// The disc's libdvdread reader, closed with the disc, and the lock that
// makes the calls of its sources one at a time (an image is one file
// descriptor that every title reads through).
struct VNDVDInternal {
  dvd_reader_t* dvd = nullptr;
  std::mutex lock;

  VNDVDInternal() = default;
  VNDVDInternal(const VNDVDInternal&) = delete;
  VNDVDInternal& operator=(const VNDVDInternal&) = delete;
  ~VNDVDInternal();
};

class VNDVD : public std::enable_shared_from_this<VNDVD> {
 public:
  // Opens the disc at path (a device, an image, a folder holding VIDEO_TS or
  // the VIDEO_TS folder itself) and reads its structure; none when
  // libdvdread cannot open it. A disc whose video manager cannot be read has
  // no title sets; a title set whose IFO, program chain table or cell
  // address table cannot be read is left out.
  static std::shared_ptr<VNDVD> open(const std::string& path);
  // A disc with no reader: a model to fill by hand.
  static std::shared_ptr<VNDVD> create();

  VNDVD(const VNDVD&) = delete;
  VNDVD& operator=(const VNDVD&) = delete;
  ~VNDVD();

  std::vector<std::shared_ptr<VNDVDTitleSet>> title_sets;
  // The region mask byte: a set bit marks a region where the disc may not
  // be played.
  int32_t region = 0;
  std::unique_ptr<VNDVDInternal> internal;
  std::string volume;  // name for display and for source names
  std::string path;    // the path opened

  dvd_reader_t* dvd_reader() const { return internal ? internal->dvd : nullptr; }
  // A title cut into this many VOB pieces or more is offered piece by piece.
  static int dvdTitleSplitVobCount() { return 10; }
  // What a disc offers to play: one source per title, or one per VOB piece
  // of a title of dvdTitleSplitVobCount pieces or more.
  std::vector<std::shared_ptr<VNDVDSource>> titleSources();

 private:
  VNDVD() = default;
};
