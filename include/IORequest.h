#pragma once
// _IORequest: one element of a parallel batch of Region I/O. The Zone layer
// fills the logical disk, Region, offset and window; RegionManager fills the
// LBA; DiskPackManager fills the physical slot. Each element's status is the
// truth for that element, whatever the batch call returns.
#include <cstdint>

#include "util/StatusCode.h"

class DataWindow;

struct _IORequest {
    uint16_t ld = 0;       // logical disk
    uint16_t slot = 0;     // physical slot, filled in by DiskPackManager
    uint32_t region = 0;   // Region number on the logical disk
    uint32_t offset = 0;   // byte offset in the Region
    uint32_t lba = 0;      // sector on the disk, filled in by RegionManager
    DataWindow* window = nullptr;
    StatusCode status = StatusCode::Success;
};
