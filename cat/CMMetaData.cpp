#include "cat/CMMetaData.h"

#include <vector>

#include "cache/ZoneMetaDataTracker.h"
#include "util/Trace.h"
#include "zone/Zone0InfoTable.h"

using namespace cmformat;

void CMMetaData::Reset() { *this = CMMetaData(); }

StatusCode CMMetaData::Load(bool& exists) {
    Reset();
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    exists = z0->entryValid(kZone0Entry, kZone0Signature, kZone0Version);
    if (!exists) {
        // A slot in use under another name or version is not ours to make over.
        if (!z0->GetEntry(kZone0Entry).inUse()) return StatusCode::Success;
        exists = true;
        ESA_CONSOLE("CM: Zone 0 entry " << kZone0Entry << " is in use but is not the cluster manager's");
        return StatusCode::CorruptedZone0Entry;
    }
    const Zone0UserInfo& e = z0->GetEntry(kZone0Entry);
    mZone = e.zone;
    mMetaDataLocation = e.startOffset;
    uint8_t sector[kSector];
    IOTracker tracker(READ_ONLY);
    StatusCode st = ZoneMetaDataTracker::GetInstance()->ReadThroughCache(sector, 1, mZone, mMetaDataLocation, tracker);
    tracker.commitIfDirty();
    if (st != StatusCode::Success) return st;
    mCis.Decode(sector);
    if (!mCis.Valid(e.length)) {
        ESA_CONSOLE("CM: the cluster manager's CIS record in zone " << mZone << " offset " << mMetaDataLocation
                                                                     << " is not valid");
        return StatusCode::CorruptedZone0Entry;
    }
    mZone0BitmapCount = 0;
    for (uint32_t i = 0; i < mCis.zoneBitmapSegmentCount; ++i) mZone0BitmapCount += mCis.segments[i].count;
    mInitialized = true;
    return StatusCode::Success;
}

StatusCode CMMetaData::WriteCis(IOTracker& tracker) {
    uint8_t sector[kSector];
    mCis.Encode(sector);
    return ZoneMetaDataTracker::GetInstance()->WriteThroughCache(sector, 1, mZone, mMetaDataLocation, tracker);
}

StatusCode CMMetaData::InitialCreate(uint32_t clusterBitmapSize, uint32_t bitmapCount, IOTracker& tracker) {
    Zone0InfoTable* z0 = Zone0InfoTable::GetInstance();
    const uint64_t size = AreaSize(clusterBitmapSize);
    ESA_CONSOLE("Creating Z0 Entry with cisMaxSize = " << size);
    if (size > 0xFFFFFFFFull) return StatusCode::OutOfSpace;
    StatusCode st = z0->CreateEntry(kZone0Entry, kZone0Version, uint32_t(size), kZone0Signature, tracker);
    if (st != StatusCode::Success) return st;
    const Zone0UserInfo& e = z0->GetEntry(kZone0Entry);
    mZone = e.zone;
    mMetaDataLocation = e.startOffset;
    mCis = CisRecord();
    mCis.cisSize = uint32_t(size);
    mCis.clusterBitmapSize = clusterBitmapSize;
    mCis.zoneBitmapSegmentCount = 1;
    mCis.segments[0] = {mZone, uint32_t(mMetaDataLocation + kClusterBitmapsOffset), bitmapCount};
    mZone0BitmapCount = bitmapCount;
    st = WriteCis(tracker);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("CM: writing the CIS failed - " << st << "; erasing the Zone 0 entry");
        z0->EraseEntry(kZone0Entry, tracker);
        Reset();
        return st;
    }
    mInitialized = true;
    return StatusCode::Success;
}
