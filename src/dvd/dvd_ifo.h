// How a title set's tables become the disc model: the VOB runs from the cell
// address table and the titles from the program chain table.
#pragma once

#include <dvdread/ifo_types.h>

#include "dvd/dvd.h"

namespace vn::dvd {

// One media per VOB of the table, each from its lowest cell sector and as
// long as the sum of its cells. A VOB without cells keeps start 0x7FFFFFFF
// and count 0; a cell of a VOB the table does not count is ignored.
void addMedias(VNDVDTitleSet& set, const c_adt_t& cells);

// One title per program chain that has cells, numbered by its place in the
// table (a chain without cells leaves a gap in the numbers).
void addTitles(VNDVDTitleSet& set, const pgcit_t& chains);

}  // namespace vn::dvd
