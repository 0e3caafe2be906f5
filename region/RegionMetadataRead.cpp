// Reading the two metadata copies of a disk, the vote between them and repair.
#include <algorithm>
#include <sstream>
#include <vector>

#include "disk/DiskPackManager.h"
#include "region/RegionInternal.h"
#include "region/RegionManager.h"
#include "util/Endian.h"

using namespace region_internal;

namespace {
const char* copyName(unsigned copy) { return copy == 0 ? "primary" : "secondary"; }
// Newer by the generation difference read as signed 32-bit, so the count may wrap.
bool newer(uint32_t a, uint32_t b) { return int32_t(a - b) > 0; }
}  // namespace

StatusCode RegionManager::CheckRMMetaData(uint16_t ld, uint32_t& padding) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock);
    LogicalDiskMap probe(ld);
    StatusCode st = ReadRMMD(ld, probe, false);
    if (st == StatusCode::Success) padding = probe.header.padding;
    return st;
}

// Reads one copy at `lba` into `m` and checks it as far as one copy can be checked.
StatusCode RegionManager::ReadRMMDn(uint16_t ld, uint32_t lba, LogicalDiskMap& m) {
    const char* who = "RM::ReadRMMDn: LD #";
    IOTracker tracker(READ_ONLY);
    uint8_t sector[512];
    StatusCode st = readSectors(ld, sector, 1, lba, tracker);
    if (st != StatusCode::Success) {
        ESA_TRACE(tRM, who << ld << ". Unable to read MD Header 0 from LBA " << lba << ": " << st);
        return st;
    }
    switch (m.header.decode(sector)) {
        case RMMetadataHeader::Verdict::Good:
            break;
        case RMMetadataHeader::Verdict::BadMagic:
            ESA_TRACE(tRM, who << ld << " at LBA " << lba << ". Header signature bad");
            return StatusCode::RM_MetaDataBad;
        case RMMetadataHeader::Verdict::BadCrc:
            ESA_TRACE(tRM, who << ld << " at LBA " << lba << ". Header CRC mismatch");
            return StatusCode::RM_MetaDataBad;
        case RMMetadataHeader::Verdict::BadVersion:
            ESA_TRACE(tRM, who << ld << " at LBA " << lba << ". Header version bad");
            return StatusCode::RM_MetaDataBad;
        case RMMetadataHeader::Verdict::BadPadding:
            ESA_CONSOLE(who << ld << ". Region Padding " << m.header.padding
                            << " is not consistent with version number: " << m.header.version
                            << ". It must be 0 for a v3 header and no more than 1 for a v4+ header.");
            return StatusCode::RM_MetaDataBad;
    }
    if (m.regionSectors() == 0) return StatusCode::RM_MetaDataBad;
    LogicalDiskMap* first = firstLoaded();
    if (first && first != &m && first->regionSectors() != m.regionSectors()) {
        ESA_CONSOLE(who << ld << ". Region Size " << m.regionSectors() << " does not match system region size "
                        << first->regionSectors());
        return StatusCode::RM_IncompatibleRegionSize;
    }
    st = DiskPackManager::GetInstance()->getCapacity(ld, m.capacity);
    if (st != StatusCode::Success) return st;
    uint32_t regions = regionCountFor(m.capacity, m.regionSectors(), m.header.padding);
    uint32_t expected = bitmapBytesFor(regions);
    if (m.header.bitmapBytes != expected) {
        ESA_CONSOLE(who << ld << ". Bitmap size bad, expected=" << expected << " actual=" << m.header.bitmapBytes);
        return StatusCode::RM_MetaDataBad;
    }
    std::vector<uint8_t> area(expected);
    st = readSectors(ld, area.data(), expected / 512, lba + 1, tracker);
    if (st != StatusCode::Success) {
        ESA_TRACE(tRM, who << ld << ". Unable to read the bitmap from LBA " << lba + 1 << ": " << st);
        return st;
    }
    RMBitmap::Verdict v = m.bitmap.decode(area.data(), expected);
    if (v == RMBitmap::Verdict::BadCrc) {
        ESA_CONSOLE(who << ld << ". Bitmap CRC mismatch. OnDisk = " << std::hex
                        << (uint32_t(area[8]) << 24 | area[9] << 16 | area[10] << 8 | area[11]) << std::dec);
        return StatusCode::RM_MetaDataBad;
    }
    if (v == RMBitmap::Verdict::BadMagic) {
        ESA_CONSOLE(who << ld << ". Bitmap signature bad.");
        return StatusCode::RM_MetaDataBad;
    }
    if (m.bitmap.physicalRegions() != regions) {
        ESA_CONSOLE(who << ld << ". Bitmap Region count " << m.bitmap.physicalRegions() << " does not match "
                        << regions);
        return StatusCode::RM_MetaDataBad;
    }
    for (unsigned i = 0; i < 2; ++i)
        if (m.header.saved[i].ld != 0 && m.header.saved[i].region == 0) {
            ESA_CONSOLE(who << ld << ". Saved metadata " << i << " bad. LD != 0 (" << m.header.saved[i].ld
                            << "), RN == 0 (" << m.header.saved[i].region << ")");
            return StatusCode::RM_MetaDataBad;
        }
    return StatusCode::Success;
}

namespace {
// Region sizes in sectors a disk of this system can have: the pack's, a new
// pack's, then the default and every size an accepted scale factor gives.
std::vector<uint32_t> regionSizeCandidates(uint32_t pack, uint32_t newPack) {
    static const std::vector<uint32_t> accepted = [] {
        std::vector<uint32_t> sizes{RMLayout::kDefaultRegionBytes / 512};
        std::string why;
        for (unsigned long s = 2; s <= 1024; s += 2)
            if (RegionManager::ScaleFactorUsable(s, why))
                sizes.push_back(uint32_t(RMLayout::kDefaultRegionBytes / s / 512));
        return sizes;
    }();
    std::vector<uint32_t> out;
    for (uint32_t size : {pack, newPack})
        if (size) out.push_back(size);
    out.insert(out.end(), accepted.begin(), accepted.end());
    return out;
}
}  // namespace

// Where a copy of the metadata stands now. A copy that went bad moved in
// steps of 0x400 sectors inside its Region; the places it left behind hold
// older generations or unreadable sectors, and the place after the live one
// was cleared when it was written. So the search walks the places from the
// first, over unreadable sectors and old headers, to the first readable
// sector that holds no header, and the newest valid copy met wins.
//
// Where a copy starts depends on the disk's Region size and padding, which
// only a header tells: the other copy's if it was read, else the sizes this
// pack or a new pack would have, then the sizes of the accepted scale factors.
void RegionManager::FindCopy(uint16_t ld, unsigned c, uint32_t capacity,
                             const std::array<RegionLayout::Range, 3>& ranges, const LogicalDiskMap* other,
                             LogicalDiskMap& best, FoundCopy& found) {
    std::vector<std::pair<uint32_t, uint32_t>> candidates;
    if (other) candidates.push_back({other->regionSectors(), other->header.padding});
    for (uint32_t pad : {mPadding, 1u - std::min(mPadding, 1u)})
        for (uint32_t rlba : regionSizeCandidates(mRegionSectors, mNewPackRegionBytes / 512))
            if (std::find(candidates.begin(), candidates.end(), std::make_pair(rlba, pad)) == candidates.end())
                candidates.push_back({rlba, pad});
    LogicalDiskMap probe(ld);
    for (auto [rlba, pad] : candidates) {
        uint32_t lba = 0;
        RegionLayout guess = RegionLayout::forCapacity(capacity, rlba, pad, ranges);
        if (!guess.initialCopyLba(c, lba)) continue;
        for (unsigned step = 0; step < 4096; ++step) {
            probe.header.magic = 0;
            StatusCode one = ReadRMMDn(ld, lba, probe);
            if (one == StatusCode::Success && probe.header.copyNumber == c &&
                (!found.good || newer(probe.header.generation, best.header.generation))) {
                best.header = probe.header;
                best.bitmap = probe.bitmap;
                best.capacity = probe.capacity;
                found = {true, lba, StatusCode::Success};
            } else if (!found.good && found.status == StatusCode::RM_MetaDataBad) {
                found.status = one;
            }
            if (one == StatusCode::RM_MetaDataBad && probe.header.magic != RMLayout::kHeaderMagic) break;
            uint32_t next = 0;
            if (!(found.good ? layoutOf(best, ranges) : guess).nextCopyLba(lba, next)) break;
            lba = next;
        }
        if (found.good) return;
    }
}

// The last place of a copy that still shows a header or cannot be read (where
// it lived last), or its first place on a disk that never had it.
uint32_t RegionManager::LastCopyPlace(uint16_t ld, unsigned c, const RegionLayout& layout) {
    uint32_t lba = 0, last = 0;
    if (!layout.initialCopyLba(c, lba)) return 0;
    last = lba;
    IOTracker tracker(READ_ONLY);
    for (unsigned step = 0; step < 4096; ++step) {
        uint8_t sector[512];
        StatusCode st = readSectors(ld, sector, 1, lba, tracker);
        if (st == StatusCode::Success && getBE32(sector) != RMLayout::kHeaderMagic) break;
        last = lba;
        if (!layout.nextCopyLba(lba, lba)) break;
    }
    return last;
}

StatusCode RegionManager::ReadRMMD(uint16_t ld, LogicalDiskMap& m, bool allowRepair) {
    const char* who = "RM::ReadRMMD: LD #";
    std::array<RegionLayout::Range, 3> ranges;
    StatusCode st = disRanges(ld, ranges);
    if (st != StatusCode::Success) return st;

    LogicalDiskMap copies[2] = {LogicalDiskMap(ld), LogicalDiskMap(ld)};
    FoundCopy found[2];
    uint32_t capacity = 0;
    st = DiskPackManager::GetInstance()->getCapacity(ld, capacity);
    if (st != StatusCode::Success) return st;
    for (unsigned c = 0; c < 2; ++c) {
        FindCopy(ld, c, capacity, ranges, c == 1 && found[0].good ? &copies[0] : nullptr, copies[c], found[c]);
        if (!found[c].good)
            ESA_CONSOLE(who << ld
                            << (c == 0 ? ". Primary metadata bad! Status: " : ". Secondary metadata bad! Status: ")
                            << found[c].status);
    }
    bool good[2] = {found[0].good, found[1].good};
    if (good[0] && good[1] && copies[0].header.generation != copies[1].header.generation) {
        ESA_CONSOLE(
            "RM::ReadRMMD: Generation numbers disagree between first and second RM metadata for logical disk: " << ld);
        if (newer(copies[0].header.generation, copies[1].header.generation)) {
            ESA_CONSOLE("RM::ReadRMMD: Generation number for first metadata is newest - making second metadata match");
            good[1] = false;
        } else {
            ESA_CONSOLE("RM::ReadRMMD: Generation number for second metadata is newest - making first metadata match");
            good[0] = false;
        }
    }
    if (good[0] && good[1]) {
        copies[0].rmLba[0] = copies[1].rmLba[0] = found[0].lba;
        copies[0].rmLba[1] = copies[1].rmLba[1] = found[1].lba;
        std::ostringstream why;
        if (ConsistencyCheckMD(copies[0], copies[1], why) != StatusCode::Success) {
            ESA_CONSOLE(who << ld << ". Both copies are read succesfully, but they are not consistent with each other. "
                            << why.str());
            good[1] = false;
        }
    }
    if (!good[0] && !good[1]) {
        ESA_CONSOLE(who << ld << ". Both sets of metadata bad! Bailing ");
        return StatusCode::RM_MetaDataBad;
    }
    const LogicalDiskMap& src = good[0] ? copies[0] : copies[1];
    m.header = src.header;
    m.header.copyNumber = 0;
    m.bitmap = src.bitmap;
    m.capacity = src.capacity;
    m.rmLba[0] = found[0].lba;
    m.rmLba[1] = found[1].lba;
    if (!found[1].good && !found[0].good) return StatusCode::RM_MetaDataBad;
    // A copy that was not found is rewritten where it lived last.
    for (unsigned c = 0; c < 2; ++c)
        if (!found[c].good) m.rmLba[c] = LastCopyPlace(ld, c, layoutOf(m, ranges));
    FindFirstFreeRegion(m);
    if (good[0] && good[1]) return StatusCode::Success;

    unsigned bad = good[0] ? 1 : 0;
    if (!allowRepair) {
        ESA_CONSOLE(who << ld << ". Some, but not both sets of metadata bad but repair deferred!");
        return StatusCode::Success;
    }
    if (!mReadWrite) {
        ESA_TRACE(tRM,
                  "Not in RM write mode.  Not allowed to repair.  Return success since we are doing "
                  "a speculative load.");
        return StatusCode::Success;
    }
    IOTracker tracker(READ_WRITE);
    tracker.flags |= IOTracker::kMeta;
    st = WriteRMMD(m, 0, 0xFFFF, tracker, false);
    StatusCode committed = tracker.commit();
    if (st == StatusCode::Success) st = committed;
    if (st != StatusCode::Success) {
        // The good copy stands in memory; the damaged one is mended at the
        // next write that succeeds, or moved when its sectors are reported bad.
        ESA_CONSOLE(who << ld << ". Unable to repair metadata! Status: " << st);
        return StatusCode::Success;
    }
    ++mRepairs;
    ESA_CONSOLE("Repaired metadata in memory and on disk for logical disk " << ld);
    ESA_CONSOLE("RM::ReadRMMD:  repaired " << copyName(bad) << " (metadata for logical disk " << ld << ")");
    return StatusCode::Success;
}

StatusCode RegionManager::ConsistencyCheckMD(const LogicalDiskMap& a, const LogicalDiskMap& b, std::ostream& why) {
    const RMMetadataHeader &x = a.header, &y = b.header;
    auto differ = [&](const char* what) {
        why << what << " is not consistent between copies!";
        return StatusCode::RM_MetaDataBad;
    };
    if (x.magic != y.magic) return differ("magic");
    if (x.version != y.version) return differ("version");
    if (x.headerSize != y.headerSize) return differ("header size");
    if (x.regionSize != y.regionSize) return differ("Region size");
    if (y.copyNumber != x.copyNumber + 1) return differ("copy number");
    if (x.generation != y.generation) return differ("generation");
    if (x.metadataLba != y.metadataLba) return differ("metadata location");
    if (x.bitmapBytes != y.bitmapBytes) return differ("bitmap size");
    if ((x.storedCrc == 0) != (y.storedCrc == 0)) return differ("CRC presence");
    for (unsigned i = 0; i < kSavedMetaDataSlots; ++i)
        if (!(x.saved[i] == y.saved[i])) {
            why << " metadata instance " << i << " is not consistent between copies!";
            return StatusCode::RM_MetaDataBad;
        }
    if (x.padding != y.padding) return differ("padding");
    if (x.unavailableRegions != y.unavailableRegions) return differ("unavailable Regions");
    if (x.recoveryGeneration != y.recoveryGeneration) return differ("recovery generation");
    if (a.bitmap.physicalRegions() != b.bitmap.physicalRegions()) return differ("bitmap Region count");
    if (!(a.bitmap == b.bitmap)) return differ("bitmap");
    return StatusCode::Success;
}
