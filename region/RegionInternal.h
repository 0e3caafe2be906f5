#pragma once
// What the Region layer's source files share and nobody else needs: its trace
// stream, the DIS ranges of a disk as the pack layer reports them, and the
// layout of a loaded disk.
#include <array>

#include "region/LogicalDiskMap.h"
#include "region/RegionLayout.h"
#include "util/StatusCode.h"
#include "util/Trace.h"

extern Trace tRM;

// What the search for one metadata copy found.
struct FoundCopy {
    bool good = false;
    uint32_t lba = 0;
    StatusCode status = StatusCode::RM_MetaDataBad;
};

namespace region_internal {
// The three DIS ranges of the logical disk.
StatusCode disRanges(uint16_t ld, std::array<RegionLayout::Range, 3>& ranges);
// The layout of a loaded disk, from its header and capacity.
RegionLayout layoutOf(const LogicalDiskMap& map, const std::array<RegionLayout::Range, 3>& ranges);
}  // namespace region_internal
