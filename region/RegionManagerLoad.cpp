// Creating, reading, checking and loading the Region metadata of the disks.
#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <sstream>
#include <vector>

#include "disk/DiskPackManager.h"
#include "region/RegionInternal.h"
#include "region/RegionManager.h"
#include "system/SystemManager.h"
#include "util/PerfAccumulator.h"

using namespace region_internal;

namespace {
const char* copyName(unsigned copy) { return copy == 0 ? "primary" : "secondary"; }
// Newer by the generation difference read as signed 32-bit, so the count may wrap.
bool newer(uint32_t a, uint32_t b) { return int32_t(a - b) > 0; }
}  // namespace

StatusCode RegionManager::CreateDisk(uint16_t ld, uint32_t& lba0, uint32_t& lba1, bool& keepPadding) {
    if (SystemManager::GetInstance()->readOnly()) {
        ESA_CONSOLE("<<<< RM::CreateDisk: J2 Not Writable!");
        return StatusCode::RM_J2NOtWritable;
    }
    {
        ExtendingLockObject::SharedLockInstance g(&mMapLock);
        if (mDiskCount >= kMaxLogicalDisks || ld >= kMaxLogicalDisks) {
            ESA_CONSOLE("<<<< RM::CreateDisk: Too many logical disks");
            return StatusCode::RM_DiskExists;
        }
        if (map(ld)) {
            ESA_CONSOLE("<<<< RM::CreateDisk: LD #" << ld << " already exists!");
            return StatusCode::RM_DiskExists;
        }
    }
    uint32_t capacity = 0;
    StatusCode st = DiskPackManager::GetInstance()->getCapacity(ld, capacity);
    if (st != StatusCode::Success) return st;

    // A new disk keeps the padding of the pack; a former member keeps its own.
    uint32_t padding = mPadding;
    if (LogicalDiskMap* first = firstLoaded()) padding = first->header.padding;
    if (keepPadding) {
        uint32_t present = 0;
        if (CheckRMMetaData(ld, present) == StatusCode::Success) {
            padding = present;
            ESA_CONSOLE("RM::CreateDisk: Preserving padding of " << padding << " on LD #" << ld);
        }
    }
    if (mRegionSectors == 0) setPackRegionSize(mNewPackRegionBytes / 512);
    uint32_t rlba = mRegionSectors;

    std::array<RegionLayout::Range, 3> ranges;
    st = disRanges(ld, ranges);
    if (st != StatusCode::Success) return st;
    RegionLayout layout = RegionLayout::forCapacity(capacity, rlba, padding, ranges);
    if (layout.regions < 2 || !layout.initialCopyLba(0, lba0) || !layout.initialCopyLba(1, lba1)) {
        ESA_CONSOLE("<<<< RM::CreateDisk: LD #" << ld << " of " << capacity
                                                << " sectors cannot hold its Region metadata beside the DIS ranges");
        return StatusCode::RM_MetaDataBad;
    }

    auto m = std::make_unique<LogicalDiskMap>(ld);
    m->capacity = capacity;
    m->bitmap = RMBitmap(layout.regions);
    m->rmLba[0] = lba0;
    m->rmLba[1] = lba1;
    RMMetadataHeader& h = m->header;
    h = RMMetadataHeader{};
    h.regionSize = rlba;
    h.padding = padding;
    h.generation = 0;
    h.copyNumber = 0;
    h.metadataLba = lba0;
    h.bitmapBytes = m->bitmap.sizeBytes();
    h.recoveryGeneration = mRecoveryGeneration;
    uint32_t reserved = MarkReservedRegions(*m, true);
    h.unavailableRegions = reserved;
    m->freeRegions = layout.regions - reserved;
    ESA_TRACE(tRM, "RM::CreateDisk: RM Metadata locations: RN:Off = " << lba0 / layout.stride() << ":"
                                                                      << lba0 % layout.stride() << ", "
                                                                      << lba1 / layout.stride() << ":"
                                                                      << lba1 % layout.stride());
    ESA_TRACE(tRM, "RM::CreateDisk: DPM Metadata locations: RN:Off = "
                       << ranges[0].first / layout.stride() << ":" << ranges[0].first % layout.stride() << ", "
                       << ranges[1].first / layout.stride() << ":" << ranges[1].first % layout.stride() << ", "
                       << ranges[2].first / layout.stride() << ":" << ranges[2].first % layout.stride());

    // Metadata Regions are sought from between a third and two thirds of the disk.
    std::minstd_rand random(uint32_t(getTimebase()) | 1);
    uint32_t third = m->freeRegions / 3;
    h.metadataAllocBase = third + (third ? uint32_t(random() % third) : 0);
    ESA_TRACE(tRM, "RM::CreateDisk: Metadata Region allocation base = " << h.metadataAllocBase);
    FindFirstFreeRegion(*m);

    IOTracker tracker(READ_WRITE);
    tracker.flags |= IOTracker::kMeta;
    st = WriteRMMD(*m, 0, 0xFFFF, tracker, true);
    StatusCode committed = tracker.commit();
    if (st == StatusCode::Success) st = committed;
    if (st != StatusCode::Success) {
        ESA_CONSOLE("<<<< RM::CreateDisk: LD #" << ld << " failed to write its Region metadata: " << st);
        return st;
    }
    // The sectors after each copy's place end the search for relocated copies.
    uint8_t zero[512] = {};
    IOTracker endMarks(READ_WRITE);
    endMarks.flags |= IOTracker::kMeta;
    for (unsigned c = 0; c < 2; ++c) {
        uint32_t next = 0;
        if (layout.nextCopyLba(m->rmLba[c], next)) writeSectors(ld, zero, 1, next, endMarks);
    }
    endMarks.commit();
    return StatusCode::Success;
}

uint32_t RegionManager::MarkReservedRegions(LogicalDiskMap& m, bool trace) {
    std::array<RegionLayout::Range, 3> ranges;
    if (disRanges(m.ld, ranges) != StatusCode::Success) return 0;
    RegionLayout layout = layoutOf(m, ranges);
    uint32_t marked = 0;
    for (uint32_t r : layout.reservedRegions(m.rmLba[0], m.rmLba[1])) {
        if (m.bitmap.allocated(r)) continue;
        m.bitmap.set(r, true);
        ++marked;
        if (trace) ESA_TRACE(tRM, "RM::CreateDisk: LD #" << m.ld << " Marked region " << r << " as allocated.");
        else
            ESA_CONSOLE("RM::FindFirstFreeRegion: LD #" << m.ld << " DPM Metadata location " << r
                                                        << " not marked allocated. Fixing.");
    }
    return marked;
}

void RegionManager::FindFirstFreeRegion(LogicalDiskMap& m) {
    MarkReservedRegions(m, false);
    uint32_t used = 0;
    m.firstFree = 0;
    bool found = false;
    for (uint32_t r = 0; r < m.regions(); ++r) {
        if (m.bitmap.allocated(r)) ++used;
        else if (!found) {
            m.firstFree = r;
            found = true;
        }
    }
    m.freeRegions = m.regions() - used;
    m.firstFreeMD = m.header.metadataAllocBase < m.regions() ? m.header.metadataAllocBase : 0;
}

StatusCode RegionManager::CheckRMMetaData(uint16_t ld, uint32_t& padding) {
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
        case RMMetadataHeader::Verdict::Good: break;
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
        ESA_CONSOLE(who << ld << ". Bitmap CRC mismatch. OnDisk = " << std::hex << (uint32_t(area[8]) << 24 | area[9] << 16 | area[10] << 8 | area[11]) << std::dec);
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

// Where a copy of the metadata stands now. A copy that went bad moved in
// steps of 0x400 sectors inside its Region; the positions it left behind hold
// older generations or unreadable sectors, and the position after the live
// one was cleared when it was written. So the search walks the positions from
// the first, over unreadable sectors and old headers, to the first readable
// sector that holds no header, and the newest valid copy met wins.
namespace {
struct FoundCopy {
    bool good = false;
    uint32_t lba = 0;
    StatusCode status = StatusCode::RM_MetaDataBad;
};
}  // namespace

StatusCode RegionManager::ReadRMMD(uint16_t ld, LogicalDiskMap& m, bool allowRepair) {
    const char* who = "RM::ReadRMMD: LD #";
    std::array<RegionLayout::Range, 3> ranges;
    StatusCode st = disRanges(ld, ranges);
    if (st != StatusCode::Success) return st;

    LogicalDiskMap copies[2] = {LogicalDiskMap(ld), LogicalDiskMap(ld)};
    FoundCopy found[2];
    for (unsigned c = 0; c < 2; ++c) {
        // The layout of the copy is known only once a header is read; the
        // first position needs the bitmap size, which the header gives.
        LogicalDiskMap probe(ld);
        uint32_t lba = 0;
        bool havePosition = false;
        RegionLayout guess(0, 0, 0, ranges, 0);
        for (unsigned step = 0; step < 4096; ++step) {
            if (!havePosition) {
                // Copy 0 always starts at the same place; copy 1 is placed by
                // the layout of the disk, known from copy 0's header or, if
                // none was read, from the pack's Region size.
                const LogicalDiskMap* ref = found[0].good ? &copies[0] : nullptr;
                uint32_t rlba = ref ? ref->regionSectors() : mRegionSectors ? mRegionSectors : mNewPackRegionBytes / 512;
                uint32_t pad = ref ? ref->header.padding : mPadding;
                uint32_t capacity = 0;
                if (DiskPackManager::GetInstance()->getCapacity(ld, capacity) != StatusCode::Success) break;
                guess = RegionLayout::forCapacity(capacity, rlba, pad, ranges);
                if (!guess.initialCopyLba(c, lba)) break;
                havePosition = true;
            }
            probe.header.magic = 0;
            StatusCode one = ReadRMMDn(ld, lba, probe);
            if (one == StatusCode::Success && probe.header.copyNumber == c &&
                (!found[c].good || newer(probe.header.generation, copies[c].header.generation))) {
                copies[c].header = probe.header;
                copies[c].bitmap = probe.bitmap;
                copies[c].capacity = probe.capacity;
                found[c].good = true;
                found[c].lba = lba;
                found[c].status = StatusCode::Success;
            } else if (!found[c].good) {
                if (step == 0) found[c].lba = lba;
                found[c].status = one;
            }
            // A readable sector that is not a header ends the walk.
            if (one == StatusCode::RM_MetaDataBad && probe.header.magic != RMLayout::kHeaderMagic) break;
            uint32_t next = 0;
            RegionLayout stepLayout = found[c].good ? layoutOf(copies[c], ranges) : guess;
            if (!stepLayout.nextCopyLba(lba, next)) break;
            lba = next;
        }
        if (!found[c].good)
            ESA_CONSOLE(who << ld << (c == 0 ? ". Primary metadata bad! Status: " : ". Secondary metadata bad! Status: ")
                            << found[c].status);
    }
    bool good[2] = {found[0].good, found[1].good};
    if (good[0] && good[1] && copies[0].header.generation != copies[1].header.generation) {
        ESA_CONSOLE("RM::ReadRMMD: Generation numbers disagree between first and second RM metadata for logical disk: "
                    << ld);
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
    // A copy never found anywhere is rewritten at its first position.
    for (unsigned c = 0; c < 2; ++c)
        if (!found[c].good) {
            std::array<RegionLayout::Range, 3> r = ranges;
            RegionLayout l = layoutOf(m, r);
            uint32_t lba = 0;
            if (found[c].lba == 0 && l.initialCopyLba(c, lba)) m.rmLba[c] = lba;
        }
    FindFirstFreeRegion(m);
    if (good[0] && good[1]) return StatusCode::Success;

    unsigned bad = good[0] ? 1 : 0;
    if (!allowRepair) {
        ESA_CONSOLE(who << ld << ". Some, but not both sets of metadata bad but repair deferred!");
        return StatusCode::Success;
    }
    if (!mReadWrite) {
        ESA_TRACE(tRM, "Not in RM write mode.  Not allowed to repair.  Return success since we are doing "
                       "a speculative load.");
        return StatusCode::Success;
    }
    IOTracker tracker(READ_WRITE);
    tracker.flags |= IOTracker::kMeta;
    st = WriteRMMD(m, 0, 0xFFFF, tracker, false);
    StatusCode committed = tracker.commit();
    if (st == StatusCode::Success) st = committed;
    if (st != StatusCode::Success) {
        ESA_CONSOLE(who << ld << ". Unable to repair metadata! Status: " << st);
        return st;
    }
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

StatusCode RegionManager::LoadDiskInternal(uint16_t ld) {
    auto m = std::make_unique<LogicalDiskMap>(ld);
    StatusCode st = ReadRMMD(ld, *m, true);
    if (st != StatusCode::Success) return st;
    LogicalDiskMap* first = firstLoaded();
    if (first && first->regionSectors() != m->regionSectors()) {
        ESA_CONSOLE("<<<< RM::LoadDiskInternal: LD #" << ld << " Incompatible region size! System Region Size: "
                                                      << first->regionSectors() << ", disk: " << m->regionSectors());
        return StatusCode::RM_IncompatibleRegionSize;
    }
    if (first && m->header.saved[0].empty() && !first->header.saved[0].empty()) {
        static const char* const kWhich[3] = {" setting 1st ZM metadata to logDisk: ", " setting 2nd ZM metadata to logDisk: ",
                                              " setting 3rd ZM metadata to logDisk: "};
        for (unsigned i = 0; i < 3; ++i) {
            m->header.saved[i] = first->header.saved[i];
            ESA_TRACE(tRM, "---- RM::LoadDiskInternal: " << kWhich[i] << m->header.saved[i].ld << " region "
                                                         << m->header.saved[i].region);
        }
        if (mReadWrite) {
            IOTracker tracker(READ_WRITE);
            tracker.flags |= IOTracker::kMeta;
            st = WriteRMMD(*m, 0, 0, tracker, false);
            StatusCode committed = tracker.commit();
            if (st != StatusCode::Success || committed != StatusCode::Success) {
                ESA_CONSOLE("<<<< RM::LoadDiskInternal: LD #" << ld << " Problem writing primary metadata after update"
                                                              << " for ZM metadata consistency. Giving up!");
                return StatusCode::RM_MetaDataBad;
            }
        }
    }
    if (!first) {
        setPackRegionSize(m->regionSectors());
        mRecoverySpace = m->header.padding != 0;
        ESA_CONSOLE("RM::LoadDiskInternal: DiskPack has inter-Region recovery space "
                    << (mRecoverySpace ? "ENABLED" : "DISABLED"));
    }
    if (m->header.recoveryGeneration > mRecoveryGeneration) mRecoveryGeneration = m->header.recoveryGeneration;
    InsertLogicalDisk(std::move(m));
    return StatusCode::Success;
}

void RegionManager::InsertLogicalDisk(std::unique_ptr<LogicalDiskMap> m) {
    m->present = true;
    uint16_t ld = m->ld;
    if (!mMaps[ld]) ++mDiskCount;
    mMaps[ld] = std::move(m);
}

StatusCode RegionManager::LoadDisk(uint16_t ld) {
    ExtendingLockObject::ExclusiveLockInstance g(&mMapLock);
    if (ld >= kMaxLogicalDisks) return StatusCode::DiskNotPresent;
    if (map(ld)) {
        ESA_CONSOLE("<<<< RM::LoadDisk: LD #" << ld << " already exists!");
        return StatusCode::RM_DiskExists;
    }
    return LoadDiskInternal(ld);
}

StatusCode RegionManager::RemoveDisk(uint16_t ld) {
    ExtendingLockObject::ExclusiveLockInstance g(&mMapLock);
    LogicalDiskMap* m = map(ld);
    if (!m) return StatusCode::DiskNotPresent;
    m->present = false;
    mMaps[ld].reset();
    --mDiskCount;
    return StatusCode::Success;
}

StatusCode RegionManager::InternalLoadDiskPack(bool readWrite) {
    ExtendingLockObject::ExclusiveLockInstance g(&mMapLock);
    for (auto& m : mMaps) m.reset();
    mDiskCount = 0;
    mRecoveryGeneration = 0;
    mReadWrite = readWrite;
    uint32_t present = DiskPackManager::GetInstance()->presentLogicalDisks();
    if (present == 0) {
        ESA_CONSOLE("<<<< RM::LoadDiskPack failed, zero disks available to load ");
        return StatusCode::RM_NoDisks;
    }
    mRegionSectors = 0;
    uint32_t smallestPadding = 1;
    for (uint16_t ld = 0; ld < kMaxLogicalDisks; ++ld) {
        if (!(present >> ld & 1)) continue;
        StatusCode st = LoadDiskInternal(ld);
        if (st != StatusCode::Success) {
            ESA_CONSOLE("<<<< RM::LoadDiskPack: LD #" << ld << " failed to load: " << st);
            for (auto& m : mMaps) m.reset();
            mDiskCount = 0;
            return st;
        }
        smallestPadding = std::min(smallestPadding, mMaps[ld]->header.padding);
    }

    // The saved Zone table locations: one set for the whole pack, an empty
    // field agreeing with anything.
    std::vector<std::pair<RMSavedMetadata, RMSavedMetadata>> sets;
    auto agree = [](const RMSavedMetadata& a, const RMSavedMetadata& b) { return a.empty() || b.empty() || a == b; };
    for (auto& m : mMaps) {
        if (!m) continue;
        const RMSavedMetadata& s0 = m->header.saved[0];
        const RMSavedMetadata& s1 = m->header.saved[1];
        bool matched = false;
        for (auto& set : sets)
            if (agree(set.first, s0) && agree(set.second, s1)) {
                if (set.first.empty()) set.first = s0;
                if (set.second.empty()) set.second = s1;
                matched = true;
            }
        if (!matched) sets.push_back({s0, s1});
    }
    if (sets.size() > 1) {
        ESA_CONSOLE("<<<< RM::LoadDiskPack too many sets of ZM metadata: " << sets.size() << ". Bailing out");
        for (auto& m : mMaps)
            if (m)
                ESA_CONSOLE("     LD #" << m->ld << ": " << m->header.saved[0].ld << ":" << m->header.saved[0].region
                                        << ", " << m->header.saved[1].ld << ":" << m->header.saved[1].region);
        for (auto& m : mMaps) m.reset();
        mDiskCount = 0;
        return StatusCode::RM_MetaDataBad;
    }
    LogicalDiskMap* first = firstLoaded();
    bool allZero = true;
    for (auto& m : mMaps)
        if (m)
            for (unsigned i = 0; i < 3; ++i) allZero = allZero && m->header.saved[i].empty();
    if (allZero) {
        ESA_TRACE(tRM, "==== RM::LoadDiskPack New disk pack found, not updating saved metadata!");
    } else {
        // The disk holding the most complete slots is the reference.
        LogicalDiskMap* ref = first;
        for (auto& m : mMaps)
            if (m && !m->header.saved[0].empty()) {
                ref = m.get();
                break;
            }
        for (auto& m : mMaps) {
            if (!m || m.get() == ref) continue;
            bool same = true;
            for (unsigned i = 0; i < 3; ++i) same = same && m->header.saved[i] == ref->header.saved[i];
            if (same) continue;
            if (!readWrite) {
                ESA_CONSOLE("<<<< RM::LoadDiskPack ZM metadata repairable, but we are in ReadOnly mode"
                            << ". Bailing out");
                break;
            }
            ESA_CONSOLE("==== RM::LoadDiskPack Updating saved ZM metadata on LogicalDisk " << m->ld);
            for (unsigned i = 0; i < 3; ++i) m->header.saved[i] = ref->header.saved[i];
            IOTracker tracker(READ_WRITE);
            tracker.flags |= IOTracker::kMeta;
            StatusCode st = WriteRMMD(*m, 0, 0, tracker, false);
            tracker.commit();
            if (st != StatusCode::Success)
                ESA_CONSOLE("==== RM::LoadDiskPack LD #" << m->ld << " saved ZM metadata update failed: " << st);
        }
    }
    if (!readWrite) mPadding = smallestPadding;
    mRecoverySpace = first->header.padding != 0;
    for (auto& m : mMaps)
        if (m)
            ESA_CONSOLE("RM::LoadDiskPack: Logical Disk: " << m->ld << " Total Regions: " << m->regions()
                                                           << " Free Regions: " << m->freeRegions
                                                           << " Saved Metadata: " << m->header.saved[0].ld << ":"
                                                           << m->header.saved[0].region << " "
                                                           << m->header.saved[1].ld << ":"
                                                           << m->header.saved[1].region << " "
                                                           << m->header.saved[2].ld << ":"
                                                           << m->header.saved[2].region);
    return StatusCode::Success;
}

StatusCode RegionManager::UnloadDiskPack() {
    ExtendingLockObject::ExclusiveLockInstance g(&mMapLock);
    for (auto& m : mMaps) m.reset();
    mDiskCount = 0;
    mReadWrite = false;
    mRegionSectors = 0;
    mPadding = 1;
    return StatusCode::Success;
}
