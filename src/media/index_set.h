// VNIndexSet: an ordered set of stream indices, used for stream selections.
// Where a selection may be absent ("no restriction"), it is held as
// std::optional<VNIndexSet>.
#pragma once

#include <cstdint>
#include <set>

using VNIndexSet = std::set<uint32_t>;
