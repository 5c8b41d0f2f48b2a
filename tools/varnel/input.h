// Opening an input the way every command does: a media source, the medias it
// splits into, and a movie over them.
#pragma once

#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "varnel.h"

namespace varnel_cli {

struct Input {
  // On a DVD-Video disc, the source to read: numbered from 1 as `varnel
  // info` lists them; none for the longest. Set before open.
  std::optional<int> title;
  // The video track to read, counted among the input's video tracks (cover
  // pictures left out). None: the one with the default disposition, else the
  // first, of those that decode a picture. Set before open.
  std::optional<int> videoTrack;
  // Leaves the sound tracks out, for a command that only takes pictures: no
  // sound media is opened. A file without video keeps them (the command
  // then says it has no video). Set before open.
  bool picturesOnly = false;
  // The disc, when the input is one (a folder, a device, an .iso or .img
  // image, or any path given with a title).
  std::shared_ptr<VNDVD> disc;
  std::shared_ptr<VNMediaSource> source;
  std::shared_ptr<VNFFMovie> movie;
  // Set when the file is shorter than its container says (a cut-off
  // download); it is still read as far as it goes.
  std::optional<VNTruncation> truncation;
  // Set when open failed on a videoTrack the input does not have.
  bool badVideoTrack = false;

  // Opens path; false with a one-line reason when it is missing, empty or
  // holds no audio or video that can be decoded. A file cut short opens
  // when FFmpeg can open it (truncation is then set; nothing is printed).
  bool open(const std::string& path, std::string* reason);
  // Mixes only the listed audio tracks ("0,2", counted among the input's
  // audio tracks; "" or "all" for every track). False with a reason when the
  // list cannot be read or names a track the input does not have.
  // With rebuild false the mix is left for its user to rebuild (an export
  // does, in its own format).
  bool selectAudioTracks(const std::string& list, std::string* reason, bool rebuild = true);
  // open, then selectAudioTracks, as every command starts: kExitOk, or the
  // command's exit status once the one-line error is printed. Does not warn
  // of a truncation: the command says it when it knows what it will do.
  int openWithTracks(const std::string& path, const std::string& tracks, bool rebuild = true);
  // How long the input plays, in seconds of the movie's clock.
  struct Extent {
    double duration = 0;    // the container's duration; 0 when it gives none
    double readable = 0;    // where its audio and video stop being readable
    bool cutShort = false;  // truncated, or readable well before duration
    // Where reading the input ends: the duration, unless that is unknown
    // or the file stops before it.
    double end() const { return cutShort || duration <= 0 ? readable : duration; }
  };
  // Measures the extent (the source reads its last seconds, or the whole
  // of a file cut short, on a demuxer of its own). After open.
  Extent extent();
  // Prints the warning for a file cut short, if it is: its truncation, or
  // where its audio and video stop when nothing says how many bytes are
  // missing.
  void warnIfCutShort(const std::string& path, const Extent& extent) const;
  // Whether a picture of the video read can be decoded (a file's video
  // track may hold none); true for a disc's title. After open.
  bool videoDecodes();
  // The demuxer of the input's first media (on a disc, that of the title's
  // first piece): the container streams the track options count.
  AVFormatContext* formatContext();

 private:
  bool openTitle(const std::string& path, std::string* reason);
  // The container streams to read: every one but the video tracks not
  // chosen (none when there is no choice to make); false with a reason when
  // videoTrack names a track the input does not have.
  bool chooseStreams(std::optional<VNIndexSet>* streams, std::string* reason);

  std::optional<uint32_t> videoStream_;  // the container index of the video read
};

// Why path cannot be read as an input file (missing, a directory, not
// readable, empty), before FFmpeg is asked; empty when it can be tried.
std::string unreadableFile(const std::string& path);

// "truncated: N of M bytes present", the warning every command gives for a
// file cut short.
std::string truncationText(const VNTruncation& truncation);

// Seconds to the library's microseconds, rounded.
inline int64_t microseconds(double seconds) {
  return static_cast<int64_t>(std::llround(seconds * 1e6));
}

// "0,2" -> {0, 2}; "all" or "" -> no restriction. False with a reason on
// anything else.
bool parseIndexList(const std::string& text, std::optional<VNIndexSet>* out, std::string* reason);

}  // namespace varnel_cli
