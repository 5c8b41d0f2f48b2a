// How a title set's tables become the disc model: the VOB runs from the cell
// address table and the titles from the program chain table, once they are
// known to be safe to hand to libdvdread.
#pragma once

#include <dvdread/dvd_reader.h>
#include <dvdread/ifo_types.h>

#include "dvd/dvd.h"

#include <optional>

namespace vn::dvd {

// The video manager's header as VIDEO_TS.BUP holds it, for a disc without
// VIDEO_TS.IFO (ifoOpenVMGI does not try the backup then): its identifier,
// category and number of title sets in host order, the rest zero; none
// when the backup cannot be read as a video manager's.
std::optional<vmgi_mat_t> managerBackupHeader(dvd_reader_t* reader);

// Whether libdvdread's readers of the title set's program chain table
// (ifoRead_PGCIT) and cell address table (ifoRead_TITLE_C_ADT) may be run on
// the IFO that ifoOpenVTSI read `info` from. They trust what the file says:
// the table sectors, the entries and chains of the program chain table, the
// parts of each chain and the cell table's end. Here every read they would
// make must lie inside the file, the entries and chain headers inside their
// table, and every chain must read whole: a chain that fails half read
// leaks its parts, and an entry sharing it follows a null pointer.
bool titleTablesReadable(dvd_reader_t* reader, int titleSet, const vtsi_mat_t& info);

// One media per VOB of the table, each from its lowest cell sector and as
// long as the sum of its cells, ending at sector 0x7FFFFFFF at the latest.
// A VOB without cells keeps start 0x7FFFFFFF and count 0; a cell of a VOB
// the table does not count, one that ends before it starts and one that
// ends at sector 0x7FFFFFFF or later are ignored.
void addMedias(VNDVDTitleSet& set, const c_adt_t& cells);

// One title per program chain that has cells, numbered by its place in the
// table (a chain without cells leaves a gap in the numbers). A chain whose
// last cell ends before its first starts, or at sector 0x7FFFFFFF or later,
// is no title either.
void addTitles(VNDVDTitleSet& set, const pgcit_t& chains);

}  // namespace vn::dvd
