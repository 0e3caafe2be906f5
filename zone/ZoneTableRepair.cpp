// Keeping the three Zone table copies good: repair of bad copies, moves that
// keep them on separate present disks with room, the copy check, FindZIS and
// the disk choice they share with the table's creation.
#include <algorithm>
#include <cstring>
#include <iomanip>
#include <vector>

#include "disk/DiskPackManager.h"
#include "region/RegionManager.h"
#include "util/DataWindow.h"
#include "util/Trace.h"
#include "zone/ZoneAllocationRules.h"
#include "zone/ZoneTable.h"

namespace {

Trace tZtr("ZM", "ZoneTableRepair", "Info", false);
const char* kCopyName[] = {"Primary", "Secondary", "Tertiary"};
const char* kCopyLower[] = {"primary", "secondary", "tertiary"};
constexpr uint16_t kNoDisk = 0xFFFF;

// The present disks whose Region layer answers, most free Regions first.
std::vector<FreeRegions> availableDisks(IOTracker& tracker) {
    std::vector<FreeRegions> v;
    const uint32_t present = DiskPackManager::GetInstance()->presentLogicalDisks();
    for (uint16_t ld = 0; ld < DiskPackManager::maxLogicalDisks; ++ld) {
        if (!(present >> ld & 1)) continue;
        uint32_t count = 0;
        if (RegionManager::GetInstance()->GetFreeRegionCount(ld, count, tracker) == StatusCode::Success)
            v.push_back({ld, count});
    }
    std::stable_sort(v.begin(), v.end(), FreeRegionsComparer());
    return v;
}

}  // namespace

StatusCode SelectDisk(uint16_t& ld, uint32_t minFree, IOTracker& tracker) {
    for (const FreeRegions& d : availableDisks(tracker))
        if (d.count >= minFree) {
            ld = d.ld;
            return StatusCode::Success;
        }
    return StatusCode::OutOfSpace;
}

StatusCode SelectDiskWithExclusionList(uint16_t& ld, const std::vector<uint16_t>& excluded, uint32_t minFree,
                                       IOTracker& tracker) {
    for (const FreeRegions& d : availableDisks(tracker)) {
        if (std::find(excluded.begin(), excluded.end(), d.ld) != excluded.end()) continue;
        if (d.count >= minFree) {
            ld = d.ld;
            return StatusCode::Success;
        }
    }
    return StatusCode::OutOfSpace;
}

StatusCode SelectDiskWithPreference(uint16_t& ld, const uint16_t& avoid1, const uint16_t& avoid2, bool allowAvoided,
                                    uint32_t minFree, IOTracker& tracker) {
    // Unavoided disks first; with allowAvoided the avoided ones follow.
    if (SelectDiskWithExclusionList(ld, {avoid1, avoid2}, minFree, tracker) == StatusCode::Success)
        return StatusCode::Success;
    if (!allowAvoided) return StatusCode::OutOfSpace;
    return SelectDisk(ld, minFree, tracker);
}

StatusCode ZoneTable::repairCopy(unsigned copy, bool allowAvoided, uint32_t minFree, IOTracker& tracker) {
    uint16_t others[2] = {kNoDisk, kNoDisk};
    for (unsigned k = 1; k < kCopies; ++k) {
        uint16_t ld;
        uint32_t region;
        if (copyLocation((copy + k) % kCopies, ld, region)) others[k - 1] = ld;
    }
    uint16_t disk = 0;
    StatusCode st = SelectDiskWithPreference(disk, others[0], others[1], allowAvoided, minFree, tracker);
    if (st != StatusCode::Success) return st;
    uint32_t newRegion = 0;
    st = RegionManager::GetInstance()->AllocateRegions(disk, 1, &newRegion, true, tracker);
    if (st != StatusCode::Success) return st;
    ESA_CONSOLE("Region allocated for " << kCopyLower[copy] << " ZIS is LD:RN " << disk << ":" << newRegion);
    uint16_t oldLd = 0;
    uint32_t oldRegion = 0;
    const bool hadOld = copyLocation(copy, oldLd, oldRegion);
    {
        std::lock_guard<std::mutex> guard(mEntriesLock);
        mZis.disk[copy] = disk;
        mZis.region[copy] = newRegion;
        mHasLocation[copy] = true;
    }
    ESA_CONSOLE("Starting to copy the ZoneTable");
    st = WriteZoneTable(copy, tracker);
    if (st != StatusCode::Success) {
        ESA_CONSOLE("Copy of the ZoneTable to LD:RN " << disk << ":" << newRegion << " failed - " << st);
        return st;
    }
    ESA_CONSOLE("Finished copying the ZoneTable");
    st = WriteZIS(true, tracker);
    if (st != StatusCode::Success) return st;
    // The old Region served this copy alone; give it back where its disk is here.
    if (hadOld && DiskPackManager::GetInstance()->isPresent(oldLd) && !(oldLd == disk && oldRegion == newRegion)) {
        StatusCode f = RegionManager::GetInstance()->FreeRegions(oldLd, 1, &oldRegion, tracker);
        if (f != StatusCode::Success)
            ESA_CONSOLE("Unable to free region after relocating " << kCopyLower[copy] << " zone table. Reason: " << f);
    }
    return StatusCode::Success;
}

StatusCode ZoneTable::RepairZoneTable(bool& primaryGood, bool& secondaryGood, bool& tertiaryGood, IOTracker& tracker) {
    if (mReadOnly) return StatusCode::ReadOnlyMode;
    bool* good[kCopies] = {&primaryGood, &secondaryGood, &tertiaryGood};
    for (unsigned pass = 0; pass < 3; ++pass) {
        if (primaryGood && secondaryGood && tertiaryGood) break;
        const unsigned order[3] = {2, 0, 1};
        const unsigned* first = tertiaryGood ? order + 1 : order;
        for (const unsigned* c = first; c != order + 3; ++c) {
            if (*good[*c]) continue;
            ESA_CONSOLE(kCopyName[*c] << " ZIS bad, reallocating");
            StatusCode st = repairCopy(*c, false, kRepairMinFree, tracker);
            if (st == StatusCode::OutOfSpace) st = repairCopy(*c, true, 1, tracker);
            if (st == StatusCode::OutOfSpace || st == StatusCode::RM_NotEnoughFree) return st;
            *good[*c] = st == StatusCode::Success;
        }
    }
    return primaryGood && secondaryGood && tertiaryGood ? StatusCode::Success : StatusCode::InitFailed;
}

StatusCode ZoneTable::moveCopy(unsigned copy, const char* why, uint32_t minFree, IOTracker* tracker) {
    ESA_CONSOLE(why);
    IOTracker own(READ_WRITE);
    IOTracker& t = tracker ? *tracker : own;
    StatusCode st;
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance lock(&mTableLock, t);
        st = repairCopy(copy, false, minFree, t);
        if (!tracker) {
            StatusCode c = t.commit();
            if (st == StatusCode::Success) st = c;
        }
    }
    if (st == StatusCode::Success) {
        uint16_t ld;
        uint32_t region;
        copyLocation(copy, ld, region);
        ESA_CONSOLE("LM: Moved " << kCopyLower[copy] << " copy of the ZIS to : " << ld << ":" << region);
    }
    return st;
}

StatusCode ZoneTable::ZoneTableProtected(IOTracker* tracker) {
    if (mReadOnly) return StatusCode::ReadOnlyMode;
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    bool good[kCopies];
    bool anyBad = false;
    uint16_t ld[kCopies] = {};
    uint32_t region[kCopies] = {};
    for (unsigned i = 0; i < kCopies; ++i) {
        good[i] = copyLocation(i, ld[i], region[i]) && dpm->isPresent(ld[i]);
        if (!good[i]) {
            ESA_CONSOLE("Missing LogicalDisk " << ld[i] << " contains the " << kCopyName[i] << " ZoneTable");
            anyBad = true;
        }
    }
    if (anyBad) {
        IOTracker own(READ_WRITE);
        IOTracker& t = tracker ? *tracker : own;
        StatusCode st;
        {
            ExtendingLockObject::ExtendingExclusiveLockInstance lock(&mTableLock, t);
            st = RepairZoneTable(good[0], good[1], good[2], t);
            if (!tracker) {
                StatusCode c = t.commit();
                if (st == StatusCode::Success) st = c;
            }
        }
        if (st != StatusCode::Success) return st;
        for (unsigned i = 0; i < kCopies; ++i) copyLocation(i, ld[i], region[i]);
    }
    IOTracker probe(READ_ONLY);
    const size_t available = availableDisks(probe).size();
    probe.commitIfDirty();
    if (ld[0] == ld[1] && available >= 2) {
        if (moveCopy(1, "Moving secondary copy of the ZIS to another disk to improve redundancy", 1, tracker) !=
            StatusCode::Success)
            ESA_CONSOLE("LM: Unable to relocate secondary zone table to provide redundancy: ");
        copyLocation(1, ld[1], region[1]);
    }
    if ((ld[2] == ld[0] || ld[2] == ld[1]) && available > 2) {
        if (moveCopy(2, "Moving tertiary copy of the ZIS to another disk to improve redundancy", 1, tracker) !=
            StatusCode::Success)
            ESA_CONSOLE("LM: Unable to relocate tertiary zone table to provide redundancy: ");
        copyLocation(2, ld[2], region[2]);
    }
    for (unsigned i = 0; i < kCopies; ++i) {
        uint32_t count = 0;
        IOTracker t(READ_ONLY);
        StatusCode st = RegionManager::GetInstance()->GetFreeRegionCount(ld[i], count, t);
        t.commitIfDirty();
        if (st != StatusCode::Success) {
            ESA_CONSOLE("Unable to get free region count for the " << kCopyLower[i] << " ZIS drive. Reason: " << st
                                                                   << ". Ignored");
            continue;
        }
        if (count >= ZoneAllocationRules::kReserve) continue;
        ESA_CONSOLE("Trying to relocate the " << kCopyLower[i]
                                              << " ZIS as it is on a disk with less that the reserve count of free regions");
        if (moveCopy(i, "Relocating ZIS copy", kRepairMinFree, tracker) != StatusCode::Success)
            ESA_CONSOLE("Unable to relocate " << kCopyLower[i]
                                              << " ZIS to drive with more than reserve count of regions. Ignored");
    }
    return StatusCode::Success;
}

bool ZoneTable::ConsistencyCheck(unsigned copy, std::ostream& out, bool repair) {
    (void)repair;  // repairs are RepairZoneTable's, from the result
    uint16_t ld;
    uint32_t region;
    if (!copyLocation(copy, ld, region)) {
        out << "Copy #" << copy << " of the ZIS has no location\n";
        return false;
    }
    out << "Checking copy #" << copy << " ZIS @ location: Disk=" << ld << ", Region=" << region << "\n";
    if (!DiskPackManager::GetInstance()->isPresent(ld)) {
        out << "Copy of the ZIS is on missing disk " << ld << "\n\n";
        return false;
    }
    IOTracker tracker(READ_ONLY);
    IOTrackerCommitter done(tracker);
    std::vector<uint8_t> block(ZISHeader::kBlockSize);
    if (RegionMetaData(ld, region, 0, block.data(), ZISHeader::kBlockSize, false, false, tracker) !=
        StatusCode::Success) {
        out << "ZIS read from disk failed\n";
        return false;
    }
    ZISHeader disk;
    if (ZISFormat::DecodeHeader(block.data(), disk) != StatusCode::Success) {
        out << "ZIS read from disk invalid\n";
        return false;
    }
    if (disk.version != ZISHeader::kVersion) {
        out << "ZIS read from disk is a version unsupported by the ConsistencyCheck code\n";
        return false;
    }
    const ZISHeader mem = zis();
    bool ok = true;
    auto differs = [&](bool bad, const char* what) {
        if (bad) out << "ZIS read from disk different to memory copy (" << what << ")\n";
        ok = ok && !bad;
    };
    differs(disk.disk[0] != mem.disk[0], "primary disk");
    differs(disk.disk[1] != mem.disk[1], "secondary disk");
    differs(disk.disk[2] != mem.disk[2], "tertiary disk");
    differs(disk.region[0] != mem.region[0], "primary Region");
    differs(disk.region[1] != mem.region[1], "secondary Region");
    differs(disk.region[2] != mem.region[2], "tertiary Region");
    differs(disk.tableOffset != mem.tableOffset, "table offset");
    differs(disk.entryCount != entriesCreated(), "number of Zones");
    differs(disk.generation != mem.generation, "generation number");
    differs(disk.flags != mem.flags, "flags");
    if (!ok) return false;
    out << "Checking ZoneTable copy #" << copy << "\n";
    const uint32_t count = entriesCreated();
    std::vector<uint8_t> piece(4096);
    for (uint32_t z = 0; z < count;) {
        const uint64_t position = mem.tableOffset + uint64_t(z) * kEntrySize;
        const uint32_t start = uint32_t(position & ~uint64_t(511));
        const uint32_t length = uint32_t(std::min<uint64_t>(4096, regionSize() - start)) / 512 * 512;
        if (RegionMetaData(ld, region, start, piece.data(), length, false, false, tracker) != StatusCode::Success) {
            out << "ZoneTable copy #" << copy << " unreadable at Zone " << z << "\n";
            return false;
        }
        uint32_t next = z;
        for (; next < count; ++next) {
            const uint64_t at = mem.tableOffset + uint64_t(next) * kEntrySize - start;
            if (at + kEntrySize > length) break;
            ZoneTableEntry onDisk, inMemory;
            ZISFormat::DecodeEntry(ZISHeader::kVersion, piece.data() + at, onDisk);
            RawLookupZone(next, inMemory);
            onDisk.flags &= ~ZoneTableEntry::kInitializing;
            inMemory.flags &= ~ZoneTableEntry::kInitializing;
            if (!onDisk.Matches(inMemory)) {
                out << "ZoneTable copy #" << copy << ": Zone " << next << " differs from memory\n";
                return false;
            }
        }
        if (next == z) return false;
        z = next;
    }
    RegionManager* rm = RegionManager::GetInstance();
    if (rm->RecoverySpaceEnabled()) {
        RecoveryBlock rb;
        if (rm->ReadRecoveryBlock(ld, region, rb, tracker) == StatusCode::Success) {
            if (rb.logicalDisk != ld) out << "RecoveryBlock for LD:" << ld << " RN:" << region << " reports LogicalDisk " << rb.logicalDisk << "\n";
            if (rb.regionType != RegionTypeZIS)
                out << "RecoveryBlock for LD:" << ld << " RN:" << region << " reports region type " << rb.regionType << "\n";
        }
    }
    return true;
}

void ZoneTable::FindZIS(std::ostream& out) {
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    const uint32_t present = dpm->presentLogicalDisks();
    const uint64_t zoneSize = zis().zoneSize;
    constexpr uint32_t kPiece = 65536, kSectors = kPiece / 512;
    for (uint16_t ld = 0; ld < DiskPackManager::maxLogicalDisks; ++ld) {
        if (!(present >> ld & 1)) continue;
        uint32_t capacity = 0;
        if (dpm->getCapacity(ld, capacity) != StatusCode::Success) continue;
        std::vector<uint8_t> flat(kPiece);
        for (uint32_t lba = 0; lba < capacity; lba += kSectors) {
            if (lba % 1000000 < kSectors) out << "FindZIS: checking lba " << lba << "\n";
            const uint32_t sectors = std::min<uint32_t>(kSectors, capacity - lba);
            IOTracker t(READ_ONLY);
            DataWindow w(sectors * 512, 0u, sectors * 512);
            if (dpm->readData(ld, w, lba, t) != StatusCode::Success) continue;
            DataBuffer b{sectors * 512, flat.data()};
            w.Read(b);
            for (uint32_t s = 0; s < sectors; ++s) {
                const uint8_t* p = flat.data() + s * 512;
                ZISHeader h;
                if (std::memcmp(p, "lbaTenoZ", 8) != 0) continue;  // the two signature words, little-endian
                std::vector<uint8_t> block(ZISHeader::kBlockSize, 0);
                DataWindow bw(ZISHeader::kBlockSize, 0u, ZISHeader::kBlockSize);
                if (dpm->readData(ld, bw, lba + s, t) != StatusCode::Success) continue;
                DataBuffer bb{ZISHeader::kBlockSize, block.data()};
                bw.Read(bb);
                out << "FindZIS: Found possible ZIS on LD#" << ld << " at LBA " << lba + s << "\n";
                const bool valid = ZISFormat::DecodeHeader(block.data(), h) == StatusCode::Success;
                out << (valid ? "ZIS validation PASSED\n" : "ZIS validation FAILED\n");
                if (!valid) continue;
                out << " Version " << h.version << " generation " << h.generation << " entries " << h.entryCount
                    << " flags 0x" << std::hex << h.flags << std::dec << "\n";
                if (zoneSize) {
                    const uint64_t R = zoneSize / 24;
                    out << " RegionNumber (Pad = 0)    : " << (uint64_t(lba + s) * 512) / R << "\n";
                    out << " RegionNumber (Pad = 1)    : " << (lba + s) / (R / 512 + 1) << "\n";
                }
            }
        }
    }
}
