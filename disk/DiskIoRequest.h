#pragma once
// DiskIoRequest: one element of a parallel disk batch as this layer reads it:
// the physical slot, the 32-bit LBA, the memory as a list of panes, and the
// status (non-zero on entry: already failed by the caller, skipped). The
// Region layer's _IORequest (LD, slot, Region, offset, LBA, DataWindow*,
// status) is handed down as one of these, its window given as panes.
#include <cstddef>
#include <cstdint>

#include "disk/DiskSGL.h"
#include "util/StatusCode.h"

struct DiskIoRequest {
    uint16_t slot = 0;
    uint32_t lba = 0;
    const DiskPane* panes = nullptr;
    size_t paneCount = 0;
    StatusCode status;
};
