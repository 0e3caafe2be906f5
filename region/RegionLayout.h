#pragma once
// RegionLayout: the arithmetic of one logical disk's Regions, with no I/O:
// Region count, which Regions the DIS ranges and the metadata copies occupy,
// where a metadata copy is placed first and where it moves when its sectors
// go bad. RegionManager uses it for every disk; it is pure so that the
// placement can be checked over any disk size.
//
// A metadata copy (header and bitmap) always lies wholly inside the data
// sectors of one Region, clear of every DIS range and of the sectors the disk
// write test overwrites, so it never touches a padding sector (a
// RecoveryBlock), a DIS copy or the write test's sectors; all of those lie in
// allocated Regions.
#include <array>
#include <cstdint>
#include <vector>

struct RegionLayout {
    struct Range {
        uint32_t first = 0;  // first sector
        uint32_t end = 0;    // last sector + 1
    };
    static constexpr uint32_t kFirstCopyLba = 0x480;
    // The pack layer's write test of a new disk overwrites this many sectors
    // from the sector after the end of DIS ranges 0 and 1.
    static constexpr uint32_t kQualifySectors = 0x80;

    RegionLayout(uint32_t capacity, uint32_t regionSectors, uint32_t padding, const std::array<Range, 3>& dis,
                 uint32_t bitmapSectors);
    // The layout of a disk of this size, with its count and bitmap size.
    static RegionLayout forCapacity(uint32_t capacity, uint32_t regionSectors, uint32_t padding,
                                    const std::array<Range, 3>& dis);

    uint32_t capacity, regionSectors, padding;
    std::array<Range, 3> dis;
    uint32_t regions;      // Physical Regions, the last possibly partial
    uint32_t copySectors;  // header + bitmap area

    uint32_t stride() const { return regionSectors + padding; }
    uint32_t regionOf(uint32_t lba) const { return lba / stride(); }
    uint32_t regionStart(uint32_t region) const { return region * stride(); }
    // The last Region does not hold a whole Region and its padding sector.
    bool lastRegionPartial() const { return uint64_t(regions) * stride() > capacity; }

    // First position of copy 0 (beside DIS range 0) or copy 1 (beside range
    // 1); false when the Region cannot hold it.
    bool initialCopyLba(unsigned copy, uint32_t& lba) const;
    // The next position of a copy whose sectors went bad, in the same Region:
    // +0x400, clear of any DIS range; false when the Region is exhausted.
    bool nextCopyLba(uint32_t old, uint32_t& lba) const;
    // A DIS range with, for ranges 0 and 1, the sectors the write test uses.
    Range guarded(unsigned i) const;
    // Whether `copySectors` sectors from lba stay in one Region's data sectors
    // and clear of every DIS range and write-test area.
    bool copyFits(uint32_t lba) const;
    // The Regions that DIS ranges and the given copies occupy, each once, in
    // increasing order; with the partial last Region when there is one.
    std::vector<uint32_t> reservedRegions(uint32_t lba0, uint32_t lba1) const;
};
