// VNMediaSource: where a media's bytes come from, and the demuxer opened on
// them.
//
// The base class reads a file by path; subclasses change where the bytes come
// from (a DVD title through its own byte reader) or how the source is
// classified (VNSubtitleSource). The virtual operations are the extension
// points; the rest of the library calls them only through the source.
//
//   unopened ──open──► opened (demuxer held) ──destruction──► demuxer closed
//
// A failed open leaves the source unopened and may be retried; its reason is
// kept for the front end (lastError). There is no explicit close.
//
// A file cut short, such as a partial download, opens like a whole one when
// FFmpeg can open it, and reads as far as it goes: truncation() tells how
// many bytes are there and how many its container implies, and
// readableDuration() how far its audio and video reach. Its duration stays
// the one the demuxer gives.
//
// Threads: one thread at a time (the movie's decode queue, or the caller's
// thread for a stand-alone source). Stream probing in open holds the lock
// named "avcodec_open/close".
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ffmpeg/owners.h"
#include "media/index_set.h"

struct AVIOContext;
class VNFFMedia;

// A file shorter than its container says it is: what is there, and what the
// container's index or header implies, in bytes.
struct VNTruncation {
  int64_t presentBytes;   // the file's size
  int64_t expectedBytes;  // the size the container implies; always larger
};

class VNMediaSource : public std::enable_shared_from_this<VNMediaSource> {
 public:
  using Medias = std::vector<std::shared_ptr<VNFFMedia>>;

  // A new plain VNMediaSource for a path. Always the base class, also when
  // called as VNSubtitleSource::mediaWithPath (its isSubtitle is then false).
  static std::shared_ptr<VNMediaSource> mediaWithPath(const std::string& path);

  VNMediaSource(const VNMediaSource&) = delete;
  VNMediaSource& operator=(const VNMediaSource&) = delete;
  // Closes the demuxer.
  virtual ~VNMediaSource();

  // ---- extension points -------------------------------------------------
  // The path the demuxer opens (base: fullpath).
  virtual std::string path();
  // The last path component of path() without its extension.
  virtual std::string name();
  virtual bool isDVD();
  virtual bool isSubtitle();
  // 16 palette entries 0x00YYVVUU for DVD subpictures, or null (base). The
  // pointer stays valid while the source lives.
  virtual const uint32_t* palette();
  // A byte reader for the demuxer, or null (base: the demuxer opens path()).
  // Owned by the source.
  virtual AVIOContext* avio_context();
  // Size in bytes when the source knows it; 0 (base) otherwise.
  virtual int64_t filesize();
  // Track names that replace the ones a media builds from its streams; null
  // (base) lets the media build them.
  virtual std::optional<std::vector<std::string>> audioNames();
  virtual std::optional<std::vector<std::string>> subtitleNames();
  // The medias this source is read as (base: createMediasWithStreams of no
  // restriction). Null when the source holds neither video nor audio.
  virtual std::optional<Medias> createMedias();
  // A new source of the same class with the same path, unopened: the demuxer
  // is never shared. Subclasses extend it (copyFieldsTo).
  virtual std::shared_ptr<VNMediaSource> copy();

  // ---- fixed behaviour --------------------------------------------------
  // The demuxer; null until open succeeds. Owned by the source.
  AVFormatContext* formatContext() { return format_context_.get(); }
  bool isOpen() { return format_context_ != nullptr; }

  // Opens the demuxer and probes its streams (under "avcodec_open/close").
  // Does nothing when open. No result: test isOpen(); lastError() says why
  // it failed.
  void open();
  // Opens the demuxer as open() does, but takes what the streams are from
  // `probed`, an open source of the same file, instead of probing them again
  // (no picture is decoded to learn them): for containers whose header lists
  // every stream, when the header gives the same streams. Anything else is
  // probed as open() does. For a second reader of a file already open.
  void openAsProbed(VNMediaSource& probed);
  // Whether the medias read from it decode pictures one at a time, for an
  // application that takes a few pictures and stops: the video decoders
  // then use slice threads only, so the first picture comes out of the
  // first packets and no decoding context is set up per thread. False (the
  // default): frame threads, the faster for reading a whole file. Copied
  // with the source.
  bool decodesSinglePictures() const { return singlePictures_; }
  void setDecodesSinglePictures(bool value) { singlePictures_ = value; }

  // Reads the source as medias keeping only the given container streams
  // (null: all). A source holding video and audio becomes two medias, in
  // this order: one reading only video (on this source) and one reading only
  // audio (on a copy, with its own demuxer); subtitle and other streams are
  // enabled in neither. One medium when only one kind is present; null when
  // neither is.
  std::optional<Medias> createMediasWithStreams(std::optional<VNIndexSet> streams);

  // Whether the opened file stops short of the size its container gives
  // for it, as a cut-off download does: the container's own index (an MP4
  // or MOV index at the front, an FLV keyframe list, a Matroska cue list)
  // refers to bytes past the end, or its header says how long the file is
  // (a Matroska segment, an ASF file size, an MP3 Xing or Info byte count)
  // and the file is shorter. Such a file is still read as far as it goes.
  // Null when it is whole, when nothing in the container says how big it
  // should be, when its size cannot be learnt, or when the source is not
  // open. Reads a few header bytes and restores the reading position.
  std::optional<VNTruncation> truncation();

  // How far the audio and video present in the source reach: the end of
  // the last audio or video packet the demuxer reads before the end of the
  // file or a read error (cover pictures left out), in microseconds after
  // the start time (the demuxer's, 0 when unknown). For a cut-off file this
  // is where reading stops, whatever duration its header gives. Reads on a
  // copy of the source with its own demuxer, so this one is untouched: the
  // last seconds when the container can seek near its end, else the whole
  // file. 0 when nothing can be read.
  int64_t readableDuration();

  // The human-readable reason of the last failure ("No such file or
  // directory", "Invalid data found when processing input"); empty when
  // nothing failed.
  const std::string& lastError() const { return lastError_; }

  const std::string& fullpath() const { return fullpath_; }
  void setFullpath(const std::string& path) { fullpath_ = path; }

 protected:
  VNMediaSource() = default;
  // Copies what every source has (the path) into a fresh copy.
  void copyFieldsTo(VNMediaSource& copy) const;
  // Closes the demuxer at once: a subclass whose byte reader the demuxer
  // reads through calls it before the reader goes.
  void closeDemuxer() { format_context_.reset(); }

 private:
  // The demuxer over the file, its header read, not probed; null with
  // lastError() set on failure.
  vn::ff::InputFormatContext openDemuxer();
  std::string fullpath_;                       // the path given at creation
  vn::ff::InputFormatContext format_context_;  // the demuxer; null until opened
  std::string lastError_;                      // reason of the last failure
  bool singlePictures_ = false;                // see decodesSinglePictures()
};
