#pragma once
// ZoneSpaceBitmap: the cluster manager's two Zone bitmaps, 16,384 bytes each,
// held whole in memory and written through the zmdt cache a sector at a time
// in the caller's transaction. Zone bitmap bit z: Zone z belongs to the
// cluster manager. Space bitmap bit z: Zone z has free clusters. Bit z is bit
// z % 8 of byte z / 8. Guarded by "eCMZoneSpaceBitmapLock" (the manager takes
// it, after the bucket lock); the class itself does no locking.
#include <cstdint>
#include <vector>

#include "util/ExtendingLockObject.h"
#include "util/IOTracker.h"
#include "util/StatusCode.h"

class ZoneSpaceBitmap {
public:
    static constexpr uint32_t kBytes = 16384;
    static constexpr uint32_t kBits = kBytes * 8;  // 131,072

    ZoneSpaceBitmap();

    // Where the two bitmaps live: Zone `zone`, from byte `zoneBitmapOffset`
    // (the space bitmap follows it).
    void Attach(uint32_t zone, uint64_t zoneBitmapOffset);
    // create: zeroes both and writes them in `tracker`; otherwise reads both.
    StatusCode Initialize(bool create, IOTracker& tracker);
    void Free();

    bool ZoneBit(uint32_t zone) const { return bit(mZoneBits, zone); }
    bool SpaceBit(uint32_t zone) const { return bit(mSpaceBits, zone); }
    void SetZoneBit(uint32_t zone, bool on) { setBit(mZoneBits, zone, on); }
    void SetSpaceBit(uint32_t zone, bool on) { setBit(mSpaceBits, zone, on); }
    // Writes the sector of the bitmap that holds bit `zone`.
    StatusCode SaveZoneSector(uint32_t zone, IOTracker& tracker);
    StatusCode SaveSpaceSector(uint32_t zone, IOTracker& tracker);

    // Set bits of the Zone bitmap below `limit`.
    uint32_t CountZones(uint32_t limit) const;
    // The n-th set Zone bit (from 1) below `limit`, or false.
    bool NthZone(uint32_t n, uint32_t limit, uint32_t& zone) const;

    ExtendingLockObject& lock() { return mLock; }
    bool loaded() const { return !mZoneBits.empty(); }

    uint64_t zoneReads = 0, zoneWrites = 0, spaceReads = 0, spaceWrites = 0;

private:
    static bool bit(const std::vector<uint8_t>& map, uint32_t z) {
        return z < kBits && !map.empty() && (map[z / 8] >> (z % 8)) & 1;
    }
    static void setBit(std::vector<uint8_t>& map, uint32_t z, bool on);
    StatusCode saveSector(const std::vector<uint8_t>& map, uint64_t base, uint32_t zone, IOTracker& tracker);

    ExtendingLockObject mLock;
    std::vector<uint8_t> mZoneBits;
    std::vector<uint8_t> mSpaceBits;
    uint32_t mZone = 0;
    uint64_t mZoneBitmapOffset = 0;
};
