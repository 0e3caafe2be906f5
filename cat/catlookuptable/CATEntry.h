#pragma once
// CATEntry: one cluster of a LUN as the map stores it, 7 bytes with no
// padding, exactly as it stands on disk: a 14-bit Zone, an 18-bit cluster
// inside the Zone, a 16-bit HashKey (byte 4 the state code, byte 5 the tick
// of the last change) and the 8-bit Timestamp of the write that produced the
// mapping. Zone 0 with cluster 0 means unallocated.
//
// Invariant: an allocated entry is valid only with state code kMapped or
// kDefragMoved; any other code on an allocated entry is a bad hash, whose
// cluster is never freed.
#include <cstdint>
#include <cstring>
#include <ostream>

struct CATEntry {
    static constexpr uint32_t kBytes = 7;
    static constexpr uint32_t kMaxZone = 1u << 14;
    static constexpr uint32_t kClusterMask = 0x3FFFF;
    // State codes of byte 4.
    static constexpr uint8_t kUnallocated = 0, kMapped = 1, kCleared = 2, kReclaimed = 3, kDefragMoved = 4;

    uint8_t b[kBytes] = {};

    uint32_t zone() const { return b[0] | uint32_t(b[1] & 0x3F) << 8; }
    uint32_t cluster() const { return uint32_t(b[1] >> 6) | uint32_t(b[2]) << 2 | uint32_t(b[3]) << 10; }
    uint8_t state() const { return b[4]; }
    uint8_t changeTick() const { return b[5]; }
    uint8_t timestamp() const { return b[6]; }
    uint16_t hashKey() const { return uint16_t(b[4] | b[5] << 8); }

    bool allocated() const { return b[0] | b[1] | b[2] | b[3]; }
    bool validState() const { return b[4] == kMapped || b[4] == kDefragMoved; }
    // True when `next` is the following cluster of the same Zone.
    bool IsContiguous(const CATEntry& next) const {
        return allocated() && next.allocated() && next.zone() == zone() && next.cluster() == cluster() + 1;
    }

    void setLocation(uint32_t zone, uint32_t cluster) {
        zone &= kMaxZone - 1;
        cluster &= kClusterMask;
        b[0] = uint8_t(zone);
        b[1] = uint8_t((zone >> 8) & 0x3F) | uint8_t((cluster & 3) << 6);
        b[2] = uint8_t(cluster >> 2);
        b[3] = uint8_t(cluster >> 10);
    }
    void setState(uint8_t code, uint8_t tick) {
        b[4] = code;
        b[5] = tick;
    }
    void setTimestamp(uint8_t t) { b[6] = t; }
    // A new mapping produced by a write that began at tick0.
    void map(uint32_t zone, uint32_t cluster, uint8_t tick0, uint8_t tick) {
        setLocation(zone, cluster);
        setState(kMapped, tick);
        setTimestamp(tick0);
    }
    // Zone and cluster cleared, the rest as told.
    void clear(uint8_t code, uint8_t tick) {
        setLocation(0, 0);
        setState(code, tick);
    }

    void load(const uint8_t* p) { std::memcpy(b, p, kBytes); }
    void store(uint8_t* p) const { std::memcpy(p, b, kBytes); }
};
static_assert(sizeof(CATEntry) == 7);

inline std::ostream& operator<<(std::ostream& out, const CATEntry& e) {
    return out << "Zone: " << e.zone() << " Cluster: " << e.cluster() << " HashKey: 0x" << std::hex << e.hashKey()
               << " Timestamp: 0x" << unsigned(e.timestamp()) << std::dec;
}
