#include "dvd/dvd_ifo.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <optional>
#include <set>
#include <vector>

#include "dvd/dvdread_library.h"

namespace {

constexpr uint64_t kBlock = 2048;

uint16_t be16(const std::vector<uint8_t>& bytes, size_t at) {
  return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

uint32_t be32(const std::vector<uint8_t>& bytes, size_t at) {
  return uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 | uint32_t{bytes[at + 2]} << 8 |
         bytes[at + 3];
}

// One IFO file read as libdvdread's table readers read it: through its own
// dvd_file_t, with a seek and a byte read. Only the file's whole blocks
// count, as they do for libdvdread, and no position past 2 GiB (its seek
// takes a signed 32-bit offset).
class IfoFile {
 public:
  IfoFile(dvd_reader_t* reader, int titleSet, dvd_read_domain_t domain)
      : file_(vn::dvdread().DVDOpenFile(reader, titleSet, domain)) {}
  ~IfoFile() {
    if (file_)
      vn::dvdread().DVDCloseFile(file_);
  }
  IfoFile(const IfoFile&) = delete;
  IfoFile& operator=(const IfoFile&) = delete;

  explicit operator bool() const { return file_ != nullptr; }

  // Whether [offset, offset + count) lies inside the file.
  bool holds(uint64_t offset, uint64_t count) const {
    const ssize_t blocks = file_ ? vn::dvdread().DVDFileSize(file_) : -1;
    const uint64_t end = blocks > 0 ? std::min<uint64_t>(blocks * kBlock, INT32_MAX) : 0;
    return offset <= end && count <= end - offset;
  }

  // The `count` bytes at `offset`, read the way a table reader reads them;
  // none when they lie outside the file or the read fails.
  std::optional<std::vector<uint8_t>> read(uint64_t offset, uint64_t count) {
    if (!holds(offset, count))
      return std::nullopt;
    return readAt(static_cast<int32_t>(offset), count);
  }

  // The first `count` bytes, read as the header reader reads them: without
  // the bounds, which an image may let it pass.
  std::optional<std::vector<uint8_t>> readHeader(size_t count) { return readAt(0, count); }

 private:
  std::optional<std::vector<uint8_t>> readAt(int32_t offset, size_t count) {
    std::vector<uint8_t> bytes(count);
    if (count == 0)
      return bytes;
    if (vn::dvdread().DVDFileSeek(file_, offset) != offset ||
        vn::dvdread().DVDReadBytes(file_, bytes.data(), count) != static_cast<ssize_t>(count))
      return std::nullopt;
    return bytes;
  }

  dvd_file_t* file_;
};

// Whether the program chain at `offset` reads whole: its header, and the
// command table, program map and cell tables it points to, each as
// libdvdread reads them. A chain that fails half read is freed without
// its parts, and a later entry that shares it follows a null pointer.
bool chainReadable(IfoFile& file, uint64_t offset) {
  const std::optional<std::vector<uint8_t>> header = file.read(offset, PGC_SIZE);
  if (!header)
    return false;
  const uint8_t programs = (*header)[offsetof(pgc_t, nr_of_programs)];
  const uint8_t cells = (*header)[offsetof(pgc_t, nr_of_cells)];
  const uint16_t commands = be16(*header, offsetof(pgc_t, command_tbl_offset));
  const uint16_t programMap = be16(*header, offsetof(pgc_t, program_map_offset));
  const uint16_t playback = be16(*header, offsetof(pgc_t, cell_playback_offset));
  const uint16_t position = be16(*header, offsetof(pgc_t, cell_position_offset));

  if (commands != 0) {
    const std::optional<std::vector<uint8_t>> table =
        file.read(offset + commands, PGC_COMMAND_TBL_SIZE);
    if (!table)
      return false;
    const uint64_t count = uint64_t{be16(*table, offsetof(pgc_command_tbl_t, nr_of_pre))} +
                           be16(*table, offsetof(pgc_command_tbl_t, nr_of_post)) +
                           be16(*table, offsetof(pgc_command_tbl_t, nr_of_cell));
    if (!file.read(offset + commands + PGC_COMMAND_TBL_SIZE, count * COMMAND_DATA_SIZE))
      return false;
  }
  if (programMap != 0 && programs > 0 &&
      !file.read(offset + programMap, programs * sizeof(pgc_program_map_t)))
    return false;
  if (playback != 0 && cells > 0 && !file.read(offset + playback, cells * sizeof(cell_playback_t)))
    return false;
  if (position != 0 && cells > 0 && !file.read(offset + position, cells * sizeof(cell_position_t)))
    return false;
  return true;
}

// The program chain table at `sector`: its entries lie inside it, each
// chain's header inside it too, and every chain reads whole.
bool chainTableReadable(IfoFile& file, uint32_t sector) {
  const uint64_t offset = sector * kBlock;
  const std::optional<std::vector<uint8_t>> header = file.read(offset, PGCIT_SIZE);
  if (!header)
    return false;
  const uint16_t count = be16(*header, offsetof(pgcit_t, nr_of_pgci_srp));
  const uint64_t size = uint64_t{be32(*header, offsetof(pgcit_t, last_byte))} + 1;
  if (PGCIT_SIZE + uint64_t{count} * PGCI_SRP_SIZE > size)
    return false;
  const std::optional<std::vector<uint8_t>> entries =
      file.read(offset + PGCIT_SIZE, uint64_t{count} * PGCI_SRP_SIZE);
  if (!entries)
    return false;
  std::set<uint32_t> starts;
  for (size_t i = 0; i < count; ++i) {
    const uint32_t start = be32(*entries, i * PGCI_SRP_SIZE + offsetof(pgci_srp_t, pgc_start_byte));
    if (uint64_t{start} + PGC_SIZE > size)
      return false;
    // Entries that share a chain share its one reading.
    if (starts.insert(start).second && !chainReadable(file, offset + start))
      return false;
  }
  return true;
}

// The cell address table at `sector` lies inside the file: libdvdread
// sizes it, allocates it and reads it from its stated end alone.
bool cellTableInside(IfoFile& file, uint32_t sector) {
  const uint64_t offset = sector * kBlock;
  const std::optional<std::vector<uint8_t>> header = file.read(offset, C_ADT_SIZE);
  if (!header)
    return false;
  const uint64_t size = uint64_t{be32(*header, offsetof(c_adt_t, last_byte))} + 1;
  return size >= C_ADT_SIZE && file.holds(offset, size);
}

}  // namespace

namespace vn::dvd {

std::optional<vmgi_mat_t> managerBackupHeader(dvd_reader_t* reader) {
  IfoFile file(reader, 0, DVD_READ_INFO_BACKUP_FILE);
  if (!file)
    return std::nullopt;
  const std::optional<std::vector<uint8_t>> header = file.readHeader(sizeof(vmgi_mat_t));
  vmgi_mat_t info{};
  if (!header || std::memcmp(header->data(), "DVDVIDEO-VMG", sizeof(info.vmg_identifier)) != 0)
    return std::nullopt;
  std::memcpy(info.vmg_identifier, header->data(), sizeof(info.vmg_identifier));
  info.vmg_category = be32(*header, offsetof(vmgi_mat_t, vmg_category));
  info.vmg_nr_of_title_sets = be16(*header, offsetof(vmgi_mat_t, vmg_nr_of_title_sets));
  return info;
}

bool titleTablesReadable(dvd_reader_t* reader, int titleSet, const vtsi_mat_t& info) {
  if (info.vts_pgcit == 0 || info.vts_c_adt == 0)
    return false;
  // The file ifoOpenVTSI read the header from: the IFO when it reads as a
  // title set's, else its backup. Its table sectors must be the ones given.
  for (const dvd_read_domain_t domain : {DVD_READ_INFO_FILE, DVD_READ_INFO_BACKUP_FILE}) {
    IfoFile file(reader, titleSet, domain);
    if (!file)
      continue;
    const std::optional<std::vector<uint8_t>> header = file.readHeader(sizeof(vtsi_mat_t));
    if (!header || std::memcmp(header->data(), "DVDVIDEO-VTS", sizeof(info.vts_identifier)) != 0)
      continue;
    if (be32(*header, offsetof(vtsi_mat_t, vts_pgcit)) != info.vts_pgcit ||
        be32(*header, offsetof(vtsi_mat_t, vts_c_adt)) != info.vts_c_adt)
      return false;
    return chainTableReadable(file, info.vts_pgcit) && cellTableInside(file, info.vts_c_adt);
  }
  return false;
}

}  // namespace vn::dvd
