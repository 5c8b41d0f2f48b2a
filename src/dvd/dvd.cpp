#include "dvd/dvd.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <filesystem>

#include "core/log.h"
#include "core/varnel.h"
#include "dvd/dvd_ifo.h"
#include "dvd/dvd_source.h"
#include "dvd/dvdread_library.h"

namespace {

constexpr int32_t kNoSector = 0x7FFFFFFF;
constexpr size_t kCellAddressSize = 12;  // one entry of the cell address table

std::string textOf(const std::optional<std::string>& text) {
  return text ? *text : "(null)";
}

std::string textOf(const std::vector<std::string>& list) {
  std::string out = "(";
  for (size_t i = 0; i < list.size(); ++i)
    out += (i ? ", " : "") + list[i];
  return out + ")";
}

// A language code as the disc stores it (two letters in 16 bits, 0xFFFF
// for none) as text; empty for none.
std::string languageCode(uint16_t code) {
  if (code == 0xFFFF)
    code = 0;
  std::string letters;
  for (const char c : {static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)}) {
    if (c == '\0')
      break;
    letters += c;
  }
  return letters;
}

int bcd(uint8_t value) {
  return (value >> 4) * 10 + (value & 0x0F);
}

// A playing time as a disc stores it: hours, minutes, seconds and frames in
// BCD, the frame rate in the two high bits of the frames (1: 25 fps, 3:
// 29.97 fps).
int64_t microseconds(const dvd_time_t& time) {
  const int rate = time.frame_u >> 6;
  const double fps = rate == 1 ? 25.0 : rate == 3 ? 30000.0 / 1001.0 : 0.0;
  const double frames = fps > 0 ? bcd(time.frame_u & 0x3F) / fps : 0.0;
  const double seconds = bcd(time.hour) * 3600.0 + bcd(time.minute) * 60.0 + bcd(time.second);
  return static_cast<int64_t>((seconds + frames) * 1e6 + 0.5);
}

std::string latin1ToUtf8(const char* text) {
  std::string out;
  for (const unsigned char* c = reinterpret_cast<const unsigned char*>(text); *c; ++c) {
    if (*c < 0x80) {
      out += static_cast<char>(*c);
    } else {
      out += static_cast<char>(0xC0 | (*c >> 6));
      out += static_cast<char>(0x80 | (*c & 0x3F));
    }
  }
  return out;
}

// The name a file manager shows for a path: its last component, or the
// parent's when the path is a VIDEO_TS folder (in any case).
std::string displayName(const std::string& path) {
  std::error_code error;
  std::filesystem::path p = std::filesystem::absolute(path, error).lexically_normal();
  if (p.has_relative_path() && p.filename().empty())
    p = p.parent_path();  // a trailing separator
  struct stat info {};
  if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    std::string last = p.filename().string();
    std::transform(last.begin(), last.end(), last.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (last == "video_ts")
      p = p.parent_path();
  }
  return p.filename().string();
}

// libdvdread's messages are not the library's: its failures show in what
// open and the reads return.
void ignoreDvdMessage(void*, dvd_logger_level_t, const char*, va_list) {}

struct IfoCloser {
  void operator()(ifo_handle_t* ifo) const { vn::dvdread().ifoClose(ifo); }
};
using Ifo = std::unique_ptr<ifo_handle_t, IfoCloser>;

}  // namespace

namespace vn::dvd {

void addMedias(VNDVDTitleSet& set, const c_adt_t& cells) {
  for (uint16_t i = 0; i < cells.nr_of_vobs; ++i)
    set.medias.push_back(std::make_shared<VNDVDMedia>(kNoSector, 0));
  const int64_t bytes = int64_t{cells.last_byte} - 7;
  const size_t count = bytes < static_cast<int64_t>(kCellAddressSize)
                           ? 0
                           : static_cast<size_t>(bytes) / kCellAddressSize;
  for (size_t i = 0; i < count && cells.cell_adr_table; ++i) {
    const cell_adr_t& cell = cells.cell_adr_table[i];
    std::shared_ptr<VNDVDMedia> media = set.mediaForVob(static_cast<uint32_t>(cell.vob_id) - 1);
    if (!media || cell.last_sector < cell.start_sector ||
        cell.last_sector >= static_cast<uint32_t>(kNoSector))
      continue;
    const int64_t sum = int64_t{media->sector_count} + (cell.last_sector - cell.start_sector + 1);
    media->sector_count = static_cast<int32_t>(std::min<int64_t>(sum, kNoSector));
    if (cell.start_sector < static_cast<uint32_t>(media->start_sector))
      media->start_sector = static_cast<int32_t>(cell.start_sector);
  }
  // Cells that overlap may add up to more than the sectors left.
  for (const std::shared_ptr<VNDVDMedia>& media : set.medias)
    media->sector_count = std::min(media->sector_count, kNoSector - media->start_sector);
}

// How long each program of a chain plays: the times of its cells, from its
// first cell up to the next program's first cell (a cell of an angle
// block counted once, by the block's first cell).
static std::vector<int64_t> chapterTimes(const pgc_t& chain) {
  std::vector<int64_t> times;
  if (!chain.program_map || !chain.cell_playback)
    return times;
  for (uint8_t p = 0; p < chain.nr_of_programs; ++p) {
    const int first = chain.program_map[p];
    const int next =
        p + 1 < chain.nr_of_programs ? chain.program_map[p + 1] : chain.nr_of_cells + 1;
    int64_t time = 0;
    for (int cell = first; cell < next && cell >= 1 && cell <= chain.nr_of_cells; ++cell) {
      const cell_playback_t& c = chain.cell_playback[cell - 1];
      // In an angle block only the first cell counts (block mode 1: first).
      if (c.block_type == 1 && c.block_mode != 1)
        continue;
      time += microseconds(c.playback_time);
    }
    times.push_back(time);
  }
  return times;
}

void addTitles(VNDVDTitleSet& set, const pgcit_t& chains) {
  for (uint16_t k = 0; k < chains.nr_of_pgci_srp && chains.pgci_srp; ++k) {
    const pgc_t* chain = chains.pgci_srp[k].pgc;
    if (!chain || chain->nr_of_cells == 0 || !chain->cell_playback)
      continue;
    const uint32_t first = chain->cell_playback[0].first_sector;
    const uint32_t last = chain->cell_playback[chain->nr_of_cells - 1].last_sector;
    if (last < first || last >= static_cast<uint32_t>(kNoSector))
      continue;
    auto title = std::make_shared<VNDVDTitle>();
    title->title = k;
    // Element by element: the table is packed, and a reference to it would
    // bind to a temporary copy.
    for (size_t i = 0; i < title->palette.size(); ++i)
      title->palette[i] = chain->palette[i];
    title->playback_time = microseconds(chain->playback_time);
    title->chapters = chapterTimes(*chain);
    title->start_sector = static_cast<int32_t>(first);
    title->sector_count = static_cast<int32_t>(last + 1 - first);
    set.titles.push_back(std::move(title));
  }
}

}  // namespace vn::dvd

std::shared_ptr<VNDVDMedia> VNDVDMedia::subMediaAt(int32_t start, int32_t count) const {
  const int64_t lo = std::max<int64_t>(start_sector, start);
  const int64_t hi =
      std::min<int64_t>(int64_t{start_sector} + sector_count, int64_t{start} + count);
  if (hi - lo < 1)
    return nullptr;
  return std::make_shared<VNDVDMedia>(static_cast<int32_t>(lo), static_cast<int32_t>(hi - lo));
}

std::string VNDVDMedia::description() const {
  return "start:" + std::to_string(start_sector) + " count:" + std::to_string(sector_count);
}

int64_t VNDVDTitle::filesize() const {
  return int64_t{sector_count} * 2048;
}

std::string VNDVDTitle::description() const {
  return "title:" + std::to_string(title) + " start:" + std::to_string(start_sector) +
         " count:" + std::to_string(sector_count);
}

std::shared_ptr<VNDVDMedia> VNDVDTitleSet::mediaForVob(uint32_t index) const {
  return index < medias.size() ? medias[index] : nullptr;
}

std::string VNDVDTitleSet::description() const {
  return "format:" + textOf(dvdFormat) + " aspect_ratio:" + textOf(display_aspect_ratio) +
         " audios:" + textOf(audioLanguages) + " subtitle:" + textOf(subtitleLanguages);
}

VNDVDInternal::~VNDVDInternal() {
  if (dvd)
    vn::dvdread().DVDClose(dvd);
}

std::shared_ptr<VNDVD> VNDVD::create() {
  return std::shared_ptr<VNDVD>(new VNDVD());
}

VNDVD::~VNDVD() {
  path.clear();
  volume.clear();
  internal.reset();
}

std::shared_ptr<VNDVD> VNDVD::open(const std::string& path) {
  // A path that is not there is not handed to libdvdread, which leaks on
  // that failure.
  struct stat there {};
  if (stat(path.c_str(), &there) != 0)
    return nullptr;
  std::string why;
  const vn::DvdreadLibrary* dvdread = vn::DvdreadLibrary::get(&why);
  if (!dvdread) {
    vn::logFailure("VNDVD::open", why);
    return nullptr;
  }
  static const dvd_logger_cb logger = {ignoreDvdMessage};
  dvd_reader_t* reader = dvdread->DVDOpen2(nullptr, &logger, path.c_str());
  if (!reader)
    return nullptr;
  std::shared_ptr<VNDVD> disc = create();
  disc->internal = std::make_unique<VNDVDInternal>();
  disc->internal->dvd = reader;
  disc->path = path;

  char identifier[33] = {};
  if (dvdread->DVDUDFVolumeInfo(reader, identifier, 32, nullptr, 0) == 0 && identifier[0] != '\0')
    disc->volume = latin1ToUtf8(identifier);
  if (disc->volume.empty())
    disc->volume = displayName(path);

  // Only the tables the model uses are read: each header, and a title set's
  // program chains and cell addresses. libdvdread's readers of the others
  // fault on some broken IFOs.
  Ifo manager(dvdread->ifoOpenVMGI(reader));
  const std::optional<vmgi_mat_t> header = manager && manager->vmgi_mat
                                               ? std::optional<vmgi_mat_t>(*manager->vmgi_mat)
                                               : vn::dvd::managerBackupHeader(reader);
  manager.reset();
  if (!header)
    return disc;
  const int titleSets = header->vmg_nr_of_title_sets;
  disc->region = static_cast<int32_t>((header->vmg_category >> 16) & 0xFF);
  vn_log("title_sets %d Region 0x%02x", titleSets, disc->region ^ 0xFF);

  for (int t = 1; t <= titleSets; ++t) {
    Ifo ifo(dvdread->ifoOpenVTSI(reader, t));
    if (!ifo || !ifo->vtsi_mat) {
      vn_log("title_set %d: its IFO cannot be read; left out", t);
      continue;
    }
    if (!vn::dvd::titleTablesReadable(reader, t, *ifo->vtsi_mat) ||
        !dvdread->ifoRead_PGCIT(ifo.get()) || !dvdread->ifoRead_TITLE_C_ADT(ifo.get())) {
      vn_log("title_set %d: its program chains or cell addresses cannot be read; left out", t);
      continue;
    }
    auto set = std::make_shared<VNDVDTitleSet>();
    set->title_set = t;
    const vtsi_mat_t& info = *ifo->vtsi_mat;
    switch (info.vts_video_attr.video_format) {
      case 0:
        set->dvdFormat = "ntsc";
        break;
      case 1:
        set->dvdFormat = "pal";
        break;
      default:
        break;
    }
    switch (info.vts_video_attr.display_aspect_ratio) {
      case 0:
        set->display_aspect_ratio = "4:3";
        break;
      case 3:
        set->display_aspect_ratio = "16:9";
        break;
      default:
        break;
    }
    for (int i = 0; i < std::min<int>(info.nr_of_vts_audio_streams, 8); ++i)
      set->audioLanguageCodes.push_back(languageCode(info.vts_audio_attr[i].lang_code));
    for (int i = 0; i < std::min<int>(info.nr_of_vts_subp_streams, 32); ++i)
      set->subtitleLanguageCodes.push_back(languageCode(info.vts_subp_attr[i].lang_code));
    for (const std::string& code : set->audioLanguageCodes)
      set->audioLanguages.push_back(Varnel::displayStringForLanguage(code));
    for (const std::string& code : set->subtitleLanguageCodes)
      set->subtitleLanguages.push_back(Varnel::displayStringForLanguage(code));
    if (ifo->vts_c_adt)
      vn::dvd::addMedias(*set, *ifo->vts_c_adt);
    if (ifo->vts_pgcit)
      vn::dvd::addTitles(*set, *ifo->vts_pgcit);
    disc->title_sets.push_back(std::move(set));
  }
  return disc;
}

std::vector<std::shared_ptr<VNDVDSource>> VNDVD::titleSources() {
  std::vector<std::shared_ptr<VNDVDSource>> sources;
  for (const auto& set : title_sets) {
    for (const auto& title : set->titles) {
      std::shared_ptr<VNDVDSource> source = VNDVDSource::create(shared_from_this(), set, title);
      std::vector<std::shared_ptr<VNDVDSource>> pieces = source->dvdMediaSources();
      if (static_cast<int>(pieces.size()) < dvdTitleSplitVobCount()) {
        sources.push_back(std::move(source));
      } else {
        sources.insert(sources.end(), pieces.begin(), pieces.end());
      }
    }
  }
  return sources;
}
