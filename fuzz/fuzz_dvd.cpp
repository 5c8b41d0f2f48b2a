// Bytes as a DVD-Video folder: VIDEO_TS/VIDEO_TS.IFO, VTS_01_0.IFO and a
// small VTS_01_1.VOB. The disc is opened, its model described, its titles
// offered as sources, and each source's medias read a little, alone and in a
// movie.
//
// Layout of an input: two little-endian 16-bit lengths, the video manager's
// IFO of the first length, the title set's IFO of the second, and the rest
// as the VOB (each cut to what the input holds).
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dvd/dvd.h"
#include "dvd/dvd_source.h"
#include "fuzz_support.h"
#include "media/media.h"
#include "movie/movie.h"

namespace {

constexpr size_t kMaxSources = 4;
constexpr size_t kMaxMedias = 4;
constexpr int kMaxPackets = 200;

// The next `length` bytes of the input, or what is left of it.
std::string_view take(std::string_view& rest, size_t length) {
  const std::string_view part = rest.substr(0, std::min(length, rest.size()));
  rest.remove_prefix(part.size());
  return part;
}

void describe(const VNDVD& disc) {
  for (const std::shared_ptr<VNDVDTitleSet>& set : disc.title_sets) {
    set->description();
    for (const std::shared_ptr<VNDVDTitle>& title : set->titles) {
      title->description();
      title->filesize();
    }
    for (uint32_t i = 0; i <= set->medias.size(); ++i) {
      if (const std::shared_ptr<VNDVDMedia> vob = set->mediaForVob(i)) {
        vob->description();
        vob->subMediaAt(vob->start_sector / 2, vob->sector_count);
      }
    }
  }
}

void readMedia(VNFFMedia& media) {
  for (int i = 0; i < kMaxPackets && media.forwardNextPacket(); ++i) {
  }
  media.seek(500'000);
  media.videoFrameAtTime(500'000);
  media.subtitleAtTime(500'000);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4)
    return 0;
  std::string_view rest(reinterpret_cast<const char*>(data) + 4, size - 4);
  const std::string_view manager = take(rest, data[0] | data[1] << 8);
  const std::string_view titleSet = take(rest, data[2] | data[3] << 8);
  const std::string_view vob = rest;

  const vn::fuzz::ScratchPath disc("disc");
  const std::string folder = disc.path() + "/VIDEO_TS";
  if (::mkdir(disc.path().c_str(), 0700) != 0 || ::mkdir(folder.c_str(), 0700) != 0)
    return 0;
  if (!vn::fuzz::writeFile(folder + "/VIDEO_TS.IFO", manager) ||
      !vn::fuzz::writeFile(folder + "/VTS_01_0.IFO", titleSet))
    return 0;
  if (!vob.empty() && !vn::fuzz::writeFile(folder + "/VTS_01_1.VOB", vob))
    return 0;

  const std::shared_ptr<VNDVD> dvd = VNDVD::open(disc.path());
  if (!dvd)
    return 0;
  describe(*dvd);

  const std::vector<std::shared_ptr<VNDVDSource>> sources = dvd->titleSources();
  for (size_t s = 0; s < std::min(sources.size(), kMaxSources); ++s) {
    const std::shared_ptr<VNDVDSource>& source = sources[s];
    source->name();
    source->audioNames();
    source->subtitleNames();
    source->dvdMediaSources();
    const VNMediaSource::Medias medias = source->createMedias().value_or(VNMediaSource::Medias{});
    for (size_t m = 0; m < std::min(medias.size(), kMaxMedias); ++m)
      readMedia(*medias[m]);
    if (s > 0 || medias.empty())
      continue;
    // The first title as an application plays it: a mix, and a picture.
    auto movie = VNFFMovie::create();
    movie->openMedias(medias);
    movie->configOutputFormat(VNFFMovie::defaultOutputFormat());
    movie->setExportMovie(true);
    movie->setOutputVideoSize({72, 48});
    movie->seek(0);
    std::vector<float> audio(2 * 1024);
    for (int chunk = 0; chunk < 4; ++chunk)
      movie->readSample(audio.data(), 1024);
    auto provider = std::make_shared<VNFFMovieImageProvider>();
    provider->movieMediaEffectImage = [](VNFFMovie&, std::optional<vn::FilterImage> image) {
      vn::fuzz::renderBounded(image);
    };
    movie->decodeImageAtTime(200'000, provider, true);
    movie->flushOperation();
    movie->close();
  }
  return 0;
}
