#pragma once
// LogicalDiskMap: what the Region layer knows of one logical disk while it is
// loaded: the header and allocation bitmap (the in-memory master of the two
// on-disk copies), the derived values that are never stored (capacity, free
// count, the two allocation cursors) and where the two copies lie.
// Invariants: freeRegions equals the clear bits of the bitmap; both cursors
// are below the bitmap's Region count; rmLba[0] lies in Region 0.
#include <cstdint>
#include <cstdio>

#include "region/RMMetadataFormat.h"
#include "util/ExtendingLockObject.h"

struct LogicalDiskMap {
    explicit LogicalDiskMap(uint16_t logicalDisk) : ld(logicalDisk), lock(lockName(logicalDisk), 0x21) {}

    uint16_t ld;
    ExtendingLockObject lock;  // held for changes of this disk's bitmap, to the transaction's commit
    RMMetadataHeader header;
    RMBitmap bitmap;
    uint32_t capacity = 0;  // "DiskCapacity (LBA)"
    uint32_t freeRegions = 0;
    uint32_t firstFree = 0;    // "FirstFree Region": user allocation cursor
    uint32_t firstFreeMD = 0;  // "FirstFreeMD Region": metadata allocation cursor
    uint32_t rmLba[2] = {0, 0};
    bool present = false;
    int lastFailedCopy = -1;  // the copy whose write failed in the last metadata write, or -1

    uint32_t regionSectors() const { return header.regionSectors(); }
    uint32_t stride() const { return header.regionSectors() + header.padding; }
    uint32_t regions() const { return bitmap.physicalRegions(); }
    uint32_t bitmapSectors() const { return header.bitmapBytes / 512; }
    // Sectors of one metadata copy: the header and the bitmap area.
    uint32_t copySectors() const { return 1 + bitmapSectors(); }

private:
    static const char* lockName(uint16_t ld) {
        static thread_local char name[24];
        std::snprintf(name, sizeof name, "logicalDisk.%u", unsigned(ld));
        return name;
    }
};
