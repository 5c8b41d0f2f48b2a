#include "media/media_source.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "core/codec_lock.h"
#include "core/log.h"
#include "ffmpeg/error.h"
#include "media/media.h"
#include "media/media_stream.h"

namespace {

// How much of the end a whole file is read over to find where its packets
// stop (microseconds), and a bound on the packets read to the end.
constexpr int64_t kTailToRead = 10 * int64_t{AV_TIME_BASE};
constexpr int64_t kMaxPacketsToEnd = int64_t{1} << 26;

// Audio and video a movie plays: not cover pictures, subtitles or data.
bool playable(const AVStream* stream) {
  const AVMediaType type = stream->codecpar->codec_type;
  return (type == AVMEDIA_TYPE_AUDIO || type == AVMEDIA_TYPE_VIDEO) &&
         !(stream->disposition & AV_DISPOSITION_ATTACHED_PIC);
}

// Where the last entry of the demuxer's index ends, in bytes; 0 without an
// index.
int64_t indexEnd(AVFormatContext* context) {
  int64_t end = 0;
  for (unsigned i = 0; i < context->nb_streams; ++i) {
    AVStream* stream = context->streams[i];
    const int count = avformat_index_get_entries_count(stream);
    if (count <= 0)
      continue;
    const AVIndexEntry* last = avformat_index_get_entry(stream, count - 1);
    if (last && last->pos >= 0)
      end = std::max(end, last->pos + last->size);
  }
  return end;
}

// Up to `size` bytes at `offset` of what the demuxer reads, the reading
// position put back after; empty when the input cannot seek.
std::vector<uint8_t> bytesAt(AVIOContext* io, int64_t offset, int size) {
  std::vector<uint8_t> bytes;
  if (!(io->seekable & AVIO_SEEKABLE_NORMAL))
    return bytes;
  const int64_t where = avio_tell(io);
  if (avio_seek(io, offset, SEEK_SET) == offset) {
    bytes.resize(static_cast<size_t>(size));
    const int got = avio_read(io, bytes.data(), size);
    bytes.resize(static_cast<size_t>(std::max(got, 0)));
  }
  if (const int64_t back = avio_seek(io, where, SEEK_SET); back < 0)
    vn::logFailure("avio_seek", static_cast<int>(back));
  return bytes;
}

uint64_t bigEndian(const std::vector<uint8_t>& b, size_t at, int n) {
  uint64_t value = 0;
  for (int i = 0; i < n; ++i)
    value = (value << 8) | b[at + static_cast<size_t>(i)];
  return value;
}

uint64_t littleEndian(const std::vector<uint8_t>& b, size_t at, int n) {
  uint64_t value = 0;
  for (int i = n - 1; i >= 0; --i)
    value = (value << 8) | b[at + static_cast<size_t>(i)];
  return value;
}

// An EBML variable-length number at b[*at]: an element ID keeps its length
// marker, a size loses it. A size with every bit set is "unknown" (false).
bool ebmlNumber(const std::vector<uint8_t>& b, size_t* at, bool isId, uint64_t* value) {
  if (*at >= b.size() || b[*at] == 0)
    return false;
  int length = 1;
  while (!(b[*at] & (0x80 >> (length - 1))))
    ++length;
  if (*at + static_cast<size_t>(length) > b.size())
    return false;
  *value = bigEndian(b, *at, length);
  *at += static_cast<size_t>(length);
  if (isId)
    return true;
  const uint64_t bits = (uint64_t{1} << (7 * length)) - 1;
  *value &= bits;
  return *value != bits;
}

// A Matroska file: the end of its segment, whose size the file begins with.
int64_t matroskaSize(AVIOContext* io) {
  const std::vector<uint8_t> b = bytesAt(io, 0, 256);
  size_t at = 0;
  uint64_t id = 0, size = 0;
  if (!ebmlNumber(b, &at, true, &id) || id != 0x1A45DFA3 || !ebmlNumber(b, &at, false, &size))
    return 0;
  at += size;  // the EBML header's own contents
  if (!ebmlNumber(b, &at, true, &id) || id != 0x18538067 || !ebmlNumber(b, &at, false, &size))
    return 0;
  return static_cast<int64_t>(at + size);
}

// An ASF file: the file size its file properties object gives, unless the
// file is flagged as a broadcast (the size is then not known).
int64_t asfSize(AVIOContext* io) {
  static const uint8_t kHeader[16] = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                                      0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
  static const uint8_t kFileProperties[16] = {0xA1, 0xDC, 0xAB, 0x8C, 0x47, 0xA9, 0xCF, 0x11,
                                              0x8E, 0xE4, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};
  const std::vector<uint8_t> b = bytesAt(io, 0, 4096);
  if (b.size() < 30 || !std::equal(kHeader, kHeader + 16, b.begin()))
    return 0;
  // Objects follow the header object's GUID, size, count and two reserved
  // bytes; each starts with its GUID and size.
  for (size_t at = 30; at + 92 <= b.size();) {
    const uint64_t size = littleEndian(b, at + 16, 8);
    if (std::equal(kFileProperties, kFileProperties + 16, b.begin() + static_cast<long>(at))) {
      const bool broadcast = littleEndian(b, at + 88, 4) & 1;
      return broadcast ? 0 : static_cast<int64_t>(littleEndian(b, at + 40, 8));
    }
    if (size < 24)
      break;
    at += size;
  }
  return 0;
}

// An MP3 file: the byte count of its Xing or Info header, counted from the
// first frame (after any ID3v2 tags).
int64_t mp3Size(AVIOContext* io) {
  int64_t frame = 0;
  for (int tags = 0; tags < 8; ++tags) {
    const std::vector<uint8_t> id3 = bytesAt(io, frame, 10);
    if (id3.size() < 10 || id3[0] != 'I' || id3[1] != 'D' || id3[2] != '3')
      break;
    const int64_t size = (int64_t{id3[6] & 0x7F} << 21) | ((id3[7] & 0x7F) << 14) |
                         ((id3[8] & 0x7F) << 7) | (id3[9] & 0x7F);
    frame += 10 + size + ((id3[5] & 0x10) ? 10 : 0);
  }
  const std::vector<uint8_t> b = bytesAt(io, frame, 64);
  if (b.size() < 64 || b[0] != 0xFF || (b[1] & 0xE0) != 0xE0 || ((b[1] >> 1) & 3) != 1)
    return 0;
  // The tag follows the side information, whose size depends on the MPEG
  // version and on whether the frame is mono.
  const bool mpeg1 = ((b[1] >> 3) & 3) == 3;
  const bool mono = ((b[3] >> 6) & 3) == 3;
  const size_t tag = 4 + (mpeg1 ? (mono ? 17 : 32) : (mono ? 9 : 17));
  if (tag + 16 > b.size())
    return 0;
  const std::string name(b.begin() + static_cast<long>(tag),
                         b.begin() + static_cast<long>(tag) + 4);
  if (name != "Xing" && name != "Info")
    return 0;
  const uint64_t flags = bigEndian(b, tag + 4, 4);
  if (!(flags & 2))
    return 0;
  const size_t bytes = tag + 8 + ((flags & 1) ? 4 : 0);
  return frame + static_cast<int64_t>(bigEndian(b, bytes, 4));
}

// The file size a container's header gives, for the containers that give
// one; 0 otherwise.
int64_t declaredSize(AVFormatContext* context) {
  const char* name = context->iformat ? context->iformat->name : "";
  if (std::strcmp(name, "matroska,webm") == 0)
    return matroskaSize(context->pb);
  if (std::strcmp(name, "asf") == 0)
    return asfSize(context->pb);
  if (std::strcmp(name, "mp3") == 0)
    return mp3Size(context->pb);
  return 0;
}

}  // namespace

std::shared_ptr<VNMediaSource> VNMediaSource::mediaWithPath(const std::string& path) {
  std::shared_ptr<VNMediaSource> source(new VNMediaSource());
  source->setFullpath(path);
  return source;
}

VNMediaSource::~VNMediaSource() = default;

std::string VNMediaSource::path() {
  return fullpath_;
}

std::string VNMediaSource::name() {
  return std::filesystem::path(path()).stem().string();
}

bool VNMediaSource::isDVD() {
  return false;
}

bool VNMediaSource::isSubtitle() {
  return false;
}

const uint32_t* VNMediaSource::palette() {
  return nullptr;
}

AVIOContext* VNMediaSource::avio_context() {
  return nullptr;
}

int64_t VNMediaSource::filesize() {
  return 0;
}

std::optional<std::vector<std::string>> VNMediaSource::audioNames() {
  return std::nullopt;
}

std::optional<std::vector<std::string>> VNMediaSource::subtitleNames() {
  return std::nullopt;
}

std::optional<VNMediaSource::Medias> VNMediaSource::createMedias() {
  return createMediasWithStreams(std::nullopt);
}

std::shared_ptr<VNMediaSource> VNMediaSource::copy() {
  std::shared_ptr<VNMediaSource> copy(new VNMediaSource());
  copyFieldsTo(*copy);
  return copy;
}

void VNMediaSource::copyFieldsTo(VNMediaSource& copy) const {
  copy.fullpath_ = fullpath_;
  copy.singlePictures_ = singlePictures_;
}

vn::ff::InputFormatContext VNMediaSource::openDemuxer() {
  AVFormatContext* context = avformat_alloc_context();
  if (!context) {
    lastError_ = "out of memory";
    return nullptr;
  }
  context->pb = avio_context();
  // On failure FFmpeg frees the context and nulls the pointer.
  int status = avformat_open_input(&context, path().c_str(), nullptr, nullptr);
  if (!context)
    lastError_ = vn::ff::errorText(status);
  return vn::ff::InputFormatContext(context);
}

void VNMediaSource::open() {
  if (isOpen())
    return;
  vn::ff::InputFormatContext opened = openDemuxer();
  if (!opened)
    return;
  AVFormatContext* context = opened.get();
  std::lock_guard<std::recursive_mutex> hold(vn::codecLock());
  // The probe's status is not a verdict: a file whose streams could not all
  // be probed still opens with what was found.
  if (const int probed = avformat_find_stream_info(context, nullptr); probed < 0)
    vn::logFailure("avformat_find_stream_info", probed);
  format_context_ = std::move(opened);
  lastError_.clear();
}

void VNMediaSource::openAsProbed(VNMediaSource& probed) {
  if (isOpen())
    return;
  const AVFormatContext* known = probed.formatContext();
  if (!known) {
    open();
    return;
  }
  vn::ff::InputFormatContext opened = openDemuxer();
  if (!opened)
    return;
  AVFormatContext* context = opened.get();
  // Only a header that lists every stream opens the same streams each time;
  // anything else is probed as usual.
  bool same = !(context->ctx_flags & AVFMTCTX_NOHEADER) &&
              !(known->ctx_flags & AVFMTCTX_NOHEADER) && context->iformat == known->iformat &&
              context->nb_streams == known->nb_streams;
  for (unsigned i = 0; same && i < context->nb_streams; ++i) {
    same = context->streams[i]->codecpar->codec_type == known->streams[i]->codecpar->codec_type &&
           context->streams[i]->codecpar->codec_id == known->streams[i]->codecpar->codec_id;
  }
  if (!same) {
    opened.reset();
    open();
    return;
  }
  for (unsigned i = 0; i < context->nb_streams; ++i) {
    AVStream* stream = context->streams[i];
    const AVStream* found = known->streams[i];
    if (avcodec_parameters_copy(stream->codecpar, found->codecpar) < 0) {
      opened.reset();
      open();
      return;
    }
    stream->avg_frame_rate = found->avg_frame_rate;
    stream->r_frame_rate = found->r_frame_rate;
    stream->start_time = found->start_time;
    stream->duration = found->duration;
  }
  context->start_time = known->start_time;
  context->duration = known->duration;
  context->bit_rate = known->bit_rate;
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
    if (!stream->enable())
      continue;
    const uint32_t index = static_cast<uint32_t>(stream->stream()->index);
    if (stream->isVideo()) {
      video.insert(index);
    } else if (stream->isAudio()) {
      audio.insert(index);
    }
  }

  if (!video.empty() && !audio.empty()) {
    // Two medias over the same file, each with its own demuxer: one feeds
    // only pictures, the other only sound. The second takes what the first
    // probe found where the header lists every stream: probing it again
    // would read until FFmpeg's probe size waiting for the pictures it
    // leaves out.
    std::shared_ptr<VNFFMedia> sound = media->copy();
    if (sound->source())
      sound->source()->openAsProbed(*this);
    sound->setSelectStreams(std::move(audio));
    sound->open();
    media->setSelectStreams(std::move(video));
    media->updateSelectStreams();
    return Medias{media, sound};
  }
  if (video.empty() && audio.empty())
    return std::nullopt;
  media->setSelectStreams(video.empty() ? std::move(audio) : std::move(video));
  media->updateSelectStreams();
  return Medias{media};
}

std::optional<VNTruncation> VNMediaSource::truncation() {
  AVFormatContext* context = formatContext();
  if (!context || !context->pb)
    return std::nullopt;
  int64_t present = avio_size(context->pb);
  if (present <= 0)
    present = filesize();
  if (present <= 0)
    return std::nullopt;
  const int64_t expected = std::max(indexEnd(context), declaredSize(context));
  if (expected <= present)
    return std::nullopt;
  return VNTruncation{present, expected};
}

int64_t VNMediaSource::readableDuration() {
  // The end of the last audio or video packet read from where the demuxer
  // stands; AV_NOPTS_VALUE when none was read.
  auto lastEnd = [](AVFormatContext* context) {
    vn::ff::Packet packet = vn::ff::makePacket();
    int64_t end = AV_NOPTS_VALUE;
    if (!packet)
      return end;
    for (int64_t reads = 0; reads < kMaxPacketsToEnd && av_read_frame(context, packet.get()) >= 0;
         ++reads) {
      const AVPacket& p = *packet;
      if (p.stream_index >= 0 && static_cast<unsigned>(p.stream_index) < context->nb_streams) {
        const AVStream* stream = context->streams[p.stream_index];
        const int64_t at = p.pts != AV_NOPTS_VALUE ? p.pts : p.dts;
        if (playable(stream) && at != AV_NOPTS_VALUE) {
          const int64_t stop = av_rescale_q(at + std::max<int64_t>(p.duration, 0),
                                            stream->time_base, AV_TIME_BASE_Q);
          end = end == AV_NOPTS_VALUE ? stop : std::max(end, stop);
        }
      }
      av_packet_unref(packet.get());
    }
    return end;
  };

  std::shared_ptr<VNMediaSource> probe = copy();
  probe->openAsProbed(*this);
  AVFormatContext* context = probe->formatContext();
  if (!context)
    return 0;
  const int64_t start = context->start_time != AV_NOPTS_VALUE ? context->start_time : 0;
  int64_t end = AV_NOPTS_VALUE;
  // A whole file is read only over its last seconds. A seek that lands past
  // the bytes present (an index reaching beyond a cut) reads nothing; the
  // file is then read from its start, as far as it goes.
  if (context->duration > 0) {
    const int64_t target = start + std::max<int64_t>(context->duration - kTailToRead, 0);
    if (av_seek_frame(context, -1, target, AVSEEK_FLAG_BACKWARD) >= 0)
      end = lastEnd(context);
  }
  if (end == AV_NOPTS_VALUE) {
    probe = copy();
    probe->open();
    context = probe->formatContext();
    if (!context)
      return 0;
    end = lastEnd(context);
  }
  return end == AV_NOPTS_VALUE ? 0 : std::max<int64_t>(end - start, 0);
}
