#pragma once
// nvram: the battery-backed memory carved into the journals' buffers. Two
// regions exist, "/nvramDRAMSim" (region 0) and "/nvramPSRAM" (region 1); each
// starts with a 64-byte header naming its partitions (id, offset, size), laid
// out from the fixed partition table right behind the header.
//
// At start a region with a valid header is left exactly as it is; a wiped
// (0x55) or unknown region gets a new header. The contents of the partitions
// are never touched except by a clear: each journal keeps its own signature
// inside its buffer. The header is in the memory's own byte order: the region
// never leaves this board.
#include <cstddef>
#include <cstdint>

#include "util/StatusCode.h"

class nvram {
public:
    static constexpr uint32_t kMagic = 0x90BEBE90;
    static constexpr uint32_t kVersion = 0x00010001;
    static constexpr uint32_t kWipeWord = 0x55555555;
    static constexpr unsigned kMaxRegions = 4;
    static constexpr unsigned kMaxPartitions = 4;
    static constexpr uint32_t kHeaderSize = 0x40;

    static constexpr uint32_t kJ1ReplayTagCache = 0x10012001;
    static constexpr uint32_t kJ1Tags = 0x10013001;
    static constexpr uint32_t kJ2 = 0x10011001;

    struct PartitionRecord {
        uint32_t id;
        uint32_t offset;  // from the region's start
        uint32_t size;    // rounded up to a multiple of 4
    };
    struct RegionHeader {
        uint32_t magic;
        uint32_t version;
        uint32_t regionSize;
        uint32_t reserved;
        PartitionRecord partitions[kMaxPartitions];
    };
    static_assert(sizeof(RegionHeader) == kHeaderSize);

    static nvram* GetInstance();
    // Tests build their own instances to model a restart over the same regions.
    nvram() = default;

    StatusCode Initialize(bool clear);
    // Zeroes every region, headers included, so that the next start lays them out anew.
    StatusCode WipeNvram();
    // The address of partition `id`, or null.
    void* GetBuffer(uint32_t id);
    // The size of partition `id`, or 0.
    uint32_t GetBufferSize(uint32_t id);
    unsigned regions() const { return mNumRegions; }
    // The region's size as the board gives it (0 for none).
    size_t regionSize(unsigned region) const { return region < kMaxRegions ? mRegion[region].size : 0; }

    // A partition's size as its record gives it: rounded up to a multiple of 4.
    static constexpr uint32_t recordSize(uint32_t size) { return (size + 3) & ~3u; }

    // The sizes each region is opened with: room for its header and partitions.
    static constexpr size_t kRegion0Size = 0x1000000;
    static constexpr size_t kRegion1Size = 0x400000;

private:
    struct Region {
        unsigned char* start = nullptr;
        size_t size = 0;
    };
    StatusCode NVRAMInitialize();
    void writeHeader(unsigned region);
    bool checkRangeForValue(const unsigned char* start, size_t size, unsigned char value);
    const PartitionRecord* findPartition(uint32_t id, unsigned char*& regionStart);
    [[noreturn]] void reboot(const char* reason);

    Region mRegion[kMaxRegions];
    unsigned mNumRegions = 0;
};
