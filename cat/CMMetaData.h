#pragma once
// CMMetaData: the cluster manager's directory: its Zone 0 slot (entry 1,
// "MretsulC", version 1) and the CIS record in the first sector of the area.
// It knows where the area is (mZone, mMetaDataLocation = L) and the record as
// last read or written (mCis).
#include <cstdint>

#include "cat/CMFormat.h"
#include "util/IOTracker.h"
#include "util/StatusCode.h"

class CMMetaData {
public:
    // Reads the slot and, when name and version match, the CIS sector.
    // `exists` false: no slot of ours, the area was never made. With a slot
    // of ours whose record is not a valid CIS: CorruptedZone0Entry, for the
    // area exists and must not be made again.
    StatusCode Load(bool& exists);
    // Makes the slot of `areaSize` bytes and writes the CIS with one segment
    // of `bitmapCount` cluster bitmaps of `clusterBitmapSize` bytes, in
    // `tracker`. On a failure to write, the slot is erased again.
    StatusCode InitialCreate(uint32_t clusterBitmapSize, uint32_t bitmapCount, IOTracker& tracker);
    StatusCode WriteCis(IOTracker& tracker);
    void Reset();
    bool IsInitialized() const { return mInitialized; }

    uint32_t mZone0BitmapCount = 0;
    uint32_t mZone = 0;  // the Zone that holds the area
    bool mInitialized = false;
    uint64_t mMetaDataLocation = 0;  // L
    cmformat::CisRecord mCis;
};
