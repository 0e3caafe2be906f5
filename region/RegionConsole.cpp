// The Region layer's dumps and console commands.
#include <cstring>
#include <iomanip>
#include <vector>

#include "disk/DiskPackManager.h"
#include "region/RegionInternal.h"
#include "region/RegionManager.h"
#include "util/ConsoleCommand.h"
#include "util/ManagerRegistry.h"

void RegionManager::DumpRMMetaData(uint16_t ld, std::ostream& out) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock);
    LogicalDiskMap* m = map(ld);
    if (!m) {
        out << "LD #" << ld << " is not loaded\n";
        return;
    }
    const RMMetadataHeader& h = m->header;
    out << "Region metadata of LD #" << ld << "\n"
        << "  Version #: " << h.version << "\n"
        << "  Header Size: " << h.headerSize << "\n"
        << "  Region Size (LBA): " << h.regionSectors() << "\n"
        << "  Copy Number: " << h.copyNumber << "\n"
        << "  Generation Number: " << h.generation << "\n"
        << "  Metadata loc (LBA): " << h.metadataLba << " / " << m->rmLba[1] << "\n"
        << "  Bitmap Size (B): " << h.bitmapBytes << "\n";
    for (unsigned i = 0; i < kSavedMetaDataSlots; ++i)
        out << "  ZIS " << i << ": LD " << h.saved[i].ld << " Region " << h.saved[i].region << "\n";
    out << "  Stored CRC32: 0x" << std::hex << h.storedCrc << std::dec << "\n"
        << "  Unavail Regions: " << h.unavailableRegions << "\n"
        << "  Region Padding: " << h.padding << "\n"
        << "  RecoveryGeneration: " << h.recoveryGeneration << "\n"
        << "  MetadataAllocBase: " << h.metadataAllocBase << "\n"
        << "  DiskCapacity (LBA): " << m->capacity << "\n"
        << "  Physical Regions: " << m->regions() << "\n"
        << "  Free Regions: " << m->freeRegions << "\n"
        << "  FirstFree Region: " << m->firstFree << "\n"
        << "  FirstFreeMD Region: " << m->firstFreeMD << "\n";
}

void RegionManager::ListRegionStatus(uint16_t ld, uint32_t first, uint32_t count, std::ostream& out) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock);
    LogicalDiskMap* m = map(ld);
    if (!m) {
        out << "LD #" << ld << " is not loaded\n";
        return;
    }
    for (uint32_t r = first; r < m->regions() && r - first < count; ++r) {
        uint32_t owner = 0;
        out << "LD #" << ld << " Region " << r << " LBA " << uint64_t(r) * m->stride() << ": "
            << (m->bitmap.allocated(r) ? "allocated" : "free");
        if (getRegionOwner(ld, r, owner) == StatusCode::Success) {
            if (owner & kOwnerRMMetadata) out << " RM-metadata";
            if (owner & kOwnerDIS) out << " DIS";
        }
        for (unsigned i = 0; i < 3; ++i)
            if (m->header.saved[i].ld == ld && m->header.saved[i].region == r) out << " ZIS" << i;
        out << "\n";
    }
}

void RegionManager::Dump(std::ostream& out) {
    out << "RegionManager: " << mDiskCount << " logical disks, " << (mReadWrite ? "read-write" : "read-only")
        << ", Region size " << RegionSizeBytes() << " bytes, new packs " << mNewPackRegionBytes << " bytes, padding "
        << mPadding << ", recovery space " << (mRecoverySpace ? "ENABLED" : "DISABLED") << ", recovery generation "
        << mRecoveryGeneration << "\n";
    for (uint16_t ld = 0; ld < kMaxLogicalDisks; ++ld)
        if (IsPresent(ld)) DumpRMMetaData(ld, out);
}

void RegionManager::PerfInfo(std::ostream& out) {
    out << "RegionManager: allocations " << mAllocations << ", frees " << mFrees << ", metadata writes "
        << mMetadataWrites << ", repairs " << mRepairs << ", relocations " << mRelocations << "\n";
}

StatusCode RegionManager::internalConsistencyCheck(std::ostream& out) {
    ExtendingLockObject::SharedLockInstance g(&mMapLock);
    StatusCode result = StatusCode::Success;
    for (auto& m : mMaps) {
        if (!m) continue;
        uint32_t used = 0;
        for (uint32_t r = 0; r < m->regions(); ++r) used += m->bitmap.allocated(r);
        if (m->regions() - used != m->freeRegions) {
            out << "LD #" << m->ld << ": free count " << m->freeRegions << " but the bitmap has " << m->regions() - used
                << " free Regions\n";
            result = StatusCode::InternalError;
        }
        if (!m->bitmap.allocated(0)) {
            out << "LD #" << m->ld << ": Region 0 is not allocated\n";
            result = StatusCode::InternalError;
        }
    }
    if (result == StatusCode::Success) out << "RegionManager: consistent\n";
    return result;
}

namespace {
bool number(const char* text, long long& v) { return parseConsoleNumber(text, v) && v >= 0; }

int rmdump(int argc, char** argv, std::ostream& out) {
    long long ld = 0, region = 0, sector = 0, count = 1;
    if (argc < 4 || !number(argv[1], ld) || !number(argv[2], region) || !number(argv[3], sector) ||
        (argc > 4 && !number(argv[4], count)) || count == 0 || count > 128) {
        out << "Syntax is: rmdump <LD> <Region> <Sector> [numSectors (1 to 128)]\n";
        return -1;
    }
    RegionManager* rm = RegionManager::GetInstance();
    // Any sector of the Region's stride, the padding sector (RecoveryBlock) included.
    uint32_t lba = 0, lastRegion = 0, lastOffset = 0;
    StatusCode st = rm->GetLBA(lba, uint16_t(ld), 0, uint32_t(region));
    if (st == StatusCode::Success && uint64_t(lba) + sector + count - 1 > 0xFFFFFFFFull) st = StatusCode::RM_BadOffset;
    if (st == StatusCode::Success) {
        lba += uint32_t(sector);
        st = rm->MapLBAToRegion(lba + uint32_t(count) - 1, uint16_t(ld), lastRegion, lastOffset);
    }
    if (st != StatusCode::Success) {
        out << "rmdump: LD " << ld << " Region " << region << " sector " << sector << ": " << st << "\n";
        return -1;
    }
    DataWindow window(uint32_t(count) * 512, 0, uint32_t(count) * 512);
    IOTracker tracker(READ_ONLY);
    st = DiskPackManager::GetInstance()->readData(uint16_t(ld), window, lba, tracker);
    if (st != StatusCode::Success) {
        out << "rmdump: read of LBA " << lba << " failed: " << st << "\n";
        return -1;
    }
    std::vector<uint8_t> bytes(count * 512);
    DataBuffer b{uint32_t(bytes.size()), bytes.data()};
    window.Read(b);
    for (size_t i = 0; i < bytes.size(); i += 16) {
        out << std::hex << std::setw(8) << std::setfill('0') << (uint64_t(lba) * 512 + i) << ":";
        for (size_t k = 0; k < 16; ++k) out << " " << std::setw(2) << unsigned(bytes[i + k]);
        out << std::dec << std::setfill(' ') << "\n";
    }
    return 0;
}

int listRegionStatus(int argc, char** argv, std::ostream& out) {
    long long ld = 0, first = 0, count = 1;
    if (argc < 3 || !number(argv[1], ld) || !number(argv[2], first) || (argc > 3 && !number(argv[3], count))) {
        out << "Syntax is: listRegionStatus <LD> <first Region> [count]\n";
        return -1;
    }
    RegionManager::GetInstance()->ListRegionStatus(uint16_t(ld), uint32_t(first), uint32_t(count), out);
    return 0;
}

int findRecoveryBlocks(int argc, char** argv, std::ostream& out) {
    long long size = 0;
    if (argc > 1 && (!number(argv[1], size) || size % 512 != 0 || size > 0xFFFFFFFFll)) {
        out << "Syntax is: findRecoveryBlocks [RegionSize in bytes, a multiple of 512]\n";
        return -1;
    }
    RegionManager::GetInstance()->FindRecoveryBlocks(uint32_t(size), out);
    return 0;
}

struct Registration {
    Registration() {
        ManagerRegistry::add(
            "RegionManager", [](std::ostream& out) { RegionManager::GetInstance()->Dump(out); },
            [](std::ostream& out) { RegionManager::GetInstance()->PerfInfo(out); });
    }
} gRegistration;

ConsoleCommand cRmdump("rmdump", "read designated Disk, Region, Sector number and numSectors", rmdump);
ConsoleCommand cListRegionStatus("listRegionStatus", "Command to list the status of on or more regions",
                                 listRegionStatus);
ConsoleCommand cFindRecoveryBlocks("findRecoveryBlocks",
                                   "Scans all available disks looking for RecoveryBlocks, optionally specify a "
                                   "RegionSize",
                                   findRecoveryBlocks);
}  // namespace
