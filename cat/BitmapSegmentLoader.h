#pragma once
// ClusterManager::BitmapSegmentLoader: scoped access to part of one Zone's
// cluster bitmap through the zmdt cache. It holds the CTO of the sectors
// (4,096 bits each) that cover the bits, locked in the caller's transaction,
// and unlocks them when it goes. GetAddress finds a bit's byte through the
// window's extents, looking the extent up again only when the bit leaves it.
#include <cstdint>
#include <vector>

#include "cat/ClusterManager.h"

class CacheTrackerObject;

class ClusterManager::BitmapSegmentLoader {
public:
    BitmapSegmentLoader() = default;
    ~BitmapSegmentLoader() { Unload(); }
    BitmapSegmentLoader(const BitmapSegmentLoader&) = delete;
    BitmapSegmentLoader& operator=(const BitmapSegmentLoader&) = delete;

    // InvalidZoneNumber for a Zone past the bitmaps. noRead: the caller
    // writes every byte it will look at (a whole bitmap set or cleared).
    StatusCode Load(ClusterManager& manager, uint32_t zone, uint32_t firstBit, uint32_t lastBit, IOTracker& tracker,
                    bool noRead = false);
    // The byte that holds `bit` (a bit of the loaded range).
    uint8_t* GetAddress(uint32_t bit);
    // Writes the range back through the cache: it joins the transaction.
    StatusCode Write(IOTracker& tracker);
    void Unload();

private:
    struct Extent {
        uint64_t start;  // bitmap byte of the extent's first byte
        uint32_t length;
        uint8_t* data;
    };
    CacheTrackerObject* mCto = nullptr;
    std::vector<Extent> mExtents;
    size_t mCurrent = 0;
};
