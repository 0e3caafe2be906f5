#pragma once
// RegionManager: carves every logical disk into fixed-size Regions and keeps,
// on each disk, two copies of a header and allocation bitmap (next to DIS
// ranges 0 and 1), the three saved Zone table locations, and a RecoveryBlock
// in every Region's padding sector. Region I/O for the Zone layer is addressed
// by (LD, Region, byte offset).
//
// Invariants: every loaded disk has the pack's one Region size; Region 0 and
// every Region holding a DIS range or a metadata copy is allocated; the
// padding sector of a Region is never reached by Region data I/O; both
// metadata copies are written from the one in-memory map, copy 0 first, with
// the same generation.
//
// Locks: "RMldMapLock" (shared for I/O and allocation, exclusive to load,
// unload, add or remove a disk), then the disk's "logicalDisk.%u", held
// extended by the transaction that changes its bitmap or header.
#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "include/IORequest.h"
#include "include/ManagerBase.h"
#include "region/LogicalDiskMap.h"
#include "region/RecoveryBlock.h"
#include "region/RegionLayout.h"
#include "util/DataWindow.h"
#include "util/ErrorInjection/ErrorInjection.h"
#include "util/ExtendingLockObject.h"
#include "util/IOTracker.h"

struct FoundCopy;

class RegionManager : public ManagerBase {
public:
    static constexpr unsigned kSavedMetaDataSlots = 4;
    static constexpr unsigned kMaxLogicalDisks = 24;
    // Owner bits of getRegionOwner.
    static constexpr uint32_t kOwnerOther = 1, kOwnerRMMetadata = 2, kOwnerDIS = 4;

    static RegionManager* GetInstance();

    StatusCode Initialize() override;
    StatusCode LoadDiskPack() override { return InternalLoadDiskPack(true); }
    StatusCode LoadDiskPackReadOnly() { return InternalLoadDiskPack(false); }
    StatusCode UnloadDiskPack() override;
    StatusCode UnloadDiskPackReadOnly() { return UnloadDiskPack(); }

    // Disks.
    StatusCode LoadDisk(uint16_t ld);
    // keepPadding: in, keep the padding the disk has (a former pack member);
    // out, whether the disk carried no Region metadata before (new to us).
    StatusCode CreateDisk(uint16_t ld, uint32_t& lba0, uint32_t& lba1, bool& keepPadding);
    StatusCode RemoveDisk(uint16_t ld);
    StatusCode CheckRMMetaData(uint16_t ld, uint32_t& padding);

    // Allocation. `regions` receives `count` Region numbers.
    StatusCode AllocateRegions(uint16_t ld, uint32_t count, uint32_t* regions, bool metadata, IOTracker& tracker);
    StatusCode FreeRegions(uint16_t ld, uint32_t count, const uint32_t* regions, IOTracker& tracker);
    StatusCode SetAsAllocated(uint16_t ld, uint32_t region, IOTracker& tracker);
    StatusCode IsAllocated(uint16_t ld, uint32_t region, bool& allocated, IOTracker& tracker);
    StatusCode GetFreeRegionCount(uint16_t ld, uint32_t& count, IOTracker& tracker);
    StatusCode GetAvailableRegionCount(uint16_t ld, uint32_t& count, IOTracker& tracker);
    StatusCode IncrementBadRegionCount(uint16_t ld, IOTracker& tracker);

    // The saved Zone table locations (instance below 4).
    StatusCode SetMetaData(unsigned instance, uint16_t ld, uint32_t region, IOTracker& tracker);
    StatusCode GetMetaData(unsigned instance, uint16_t& ld, uint32_t& region, IOTracker& tracker);

    // Addresses.
    StatusCode GetLBA(uint32_t& lba, uint16_t ld, uint32_t offset, uint32_t region);
    StatusCode MapLBAToRegion(uint32_t lba, uint16_t ld, uint32_t& region, uint32_t& sectorOffset);
    StatusCode getRegionNumber(uint16_t ld, uint32_t lba, uint32_t& region, uint32_t& sectorOffset, IOTracker& tracker);
    // A bit mask: kOwnerRMMetadata, kOwnerDIS, else kOwnerOther.
    StatusCode getRegionOwner(uint16_t ld, uint32_t region, uint32_t& owner);
    // Bytes of data in a Region; 0 until the pack geometry is known.
    uint64_t RegionSizeBytes() const { return uint64_t(mRegionSectors) * 512; }
    uint32_t RegionPadding() const { return mPadding; }
    bool RecoverySpaceEnabled() const { return mRecoverySpace; }
    bool ReadWriteMode() const { return mReadWrite; }
    uint64_t RecoveryGeneration() const { return mRecoveryGeneration; }
    uint32_t PhysicalRegions(uint16_t ld);
    bool IsPresent(uint16_t ld);
    // The Region size a new pack gets: the default shrunk by "regionscalefactor".
    uint32_t NewPackRegionBytes() const { return mNewPackRegionBytes; }
    // Whether a scale factor gives a Region size every Zone geometry can use;
    // `why` says what is wrong when it does not.
    static bool ScaleFactorUsable(unsigned long factor, std::string& why);

    // Region I/O; `offset` in bytes within the Region.
    StatusCode ReadData(uint16_t ld, uint32_t region, uint32_t offset, DataWindow& window, IOTracker& tracker);
    StatusCode WriteData(uint16_t ld, uint32_t region, uint32_t offset, DataWindow& window, IOTracker& tracker);
    StatusCode ReadDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker);
    StatusCode WriteDataParallel(_IORequest* requests, unsigned count, IOTracker& tracker);
    StatusCode Flush(uint16_t ld, IOTracker& tracker);
    // An error a metadata write reported after its transaction was over.
    void outOfBandError(uint16_t ld, uint32_t region, uint32_t lba, int errorType, StatusCode status);

    // RecoveryBlocks.
    StatusCode WriteRecoveryBlock(uint16_t ld, uint32_t region, _RegionType type, const _ZISRecovery* zis,
                                  const _RISRecovery* ris, IOTracker& tracker);
    StatusCode ReadRecoveryBlock(uint16_t ld, uint32_t region, RecoveryBlock& block, IOTracker& tracker);
    StatusCode InvalidateRecoveryBlock(uint16_t ld, uint32_t region, IOTracker& tracker);
    StatusCode SetZoneOwnership(uint16_t ld, uint32_t region, const _ZoneOwnership& ownership, IOTracker& tracker);
    StatusCode GetZoneOwnership(uint16_t ld, uint32_t region, _ZoneOwnership& ownership, IOTracker& tracker);
    StatusCode IncrementRecoveryGeneration(IOTracker& tracker);
    // Diagnostic scan of every present disk; prints what it finds.
    void FindRecoveryBlocks(uint32_t regionSize, std::ostream& out);

    // Metadata upkeep (also reached from the console and the load).
    StatusCode RelocateMetaData(unsigned copy, uint16_t ld);
    StatusCode ConsistencyCheckMD(const LogicalDiskMap& first, const LogicalDiskMap& second, std::ostream& why);

    void Dump(std::ostream& out);
    void PerfInfo(std::ostream& out);
    void DumpRMMetaData(uint16_t ld, std::ostream& out);
    void ListRegionStatus(uint16_t ld, uint32_t first, uint32_t count, std::ostream& out);
    StatusCode internalConsistencyCheck(std::ostream& out) override;

private:
    RegionManager();
    friend class RegionManagerTestAccess;

    StatusCode InternalLoadDiskPack(bool readWrite);
    StatusCode LoadDiskInternal(uint16_t ld);
    StatusCode ReadRMMD(uint16_t ld, LogicalDiskMap& map, bool allowRepair);
    StatusCode ReadRMMDn(uint16_t ld, uint32_t lba, LogicalDiskMap& map);
    void FindCopy(uint16_t ld, unsigned copy, uint32_t capacity, const std::array<RegionLayout::Range, 3>& ranges,
                  const LogicalDiskMap* other, LogicalDiskMap& best, FoundCopy& found);
    uint32_t LastCopyPlace(uint16_t ld, unsigned copy, const RegionLayout& layout);
    StatusCode WriteRMMD(LogicalDiskMap& map, uint32_t bitmapStartSector, uint32_t bitmapSectors, IOTracker& tracker,
                         bool force);
    void RestoreOnDisk(LogicalDiskMap& map, IOTracker& tracker);
    StatusCode WriteBitmapChange(LogicalDiskMap& map, uint32_t lowRegion, uint32_t highRegion, IOTracker& tracker);
    void FindFirstFreeRegion(LogicalDiskMap& map);
    // Marks the Regions holding DIS ranges and metadata copies allocated; the
    // number newly marked.
    uint32_t MarkReservedRegions(LogicalDiskMap& map, bool trace);
    void InsertLogicalDisk(std::unique_ptr<LogicalDiskMap> map);
    LogicalDiskMap* map(uint16_t ld) const { return ld < kMaxLogicalDisks ? mMaps[ld].get() : nullptr; }
    LogicalDiskMap* firstLoaded() const;
    StatusCode readSectors(uint16_t ld, uint8_t* buffer, uint32_t sectors, uint32_t lba, IOTracker& tracker);
    StatusCode writeSectors(uint16_t ld, uint8_t* buffer, uint32_t sectors, uint32_t lba, IOTracker& tracker);
    StatusCode checkRegionIO(LogicalDiskMap* m, uint32_t region, uint32_t offset, uint32_t length, uint32_t& lba);
    StatusCode regionIO(bool write, uint16_t ld, uint32_t region, uint32_t offset, DataWindow& window,
                        IOTracker& tracker);
    StatusCode parallelIO(bool write, _IORequest* requests, unsigned count, IOTracker& tracker);
    StatusCode recoveryBlockLba(uint16_t ld, uint32_t region, uint32_t& lba);
    StatusCode readRecoveryBlockSector(uint16_t ld, uint32_t region, const char* what, uint8_t* sector,
                                       uint32_t& lba, IOTracker& tracker);
    StatusCode rewriteRecoveryBlock(uint16_t ld, uint32_t region, const char* what, IOTracker& tracker,
                                    void (*change)(uint8_t* sector, const void* arg), const void* arg);
    void setPackRegionSize(uint32_t regionSectors);

    ExtendingLockObject mMapLock{"RMldMapLock", 0x20};
    std::unique_ptr<LogicalDiskMap> mMaps[kMaxLogicalDisks];
    unsigned mDiskCount = 0;
    bool mReadWrite = false;
    uint32_t mPadding = 1;         // the padding a new disk gets
    uint32_t mRegionSectors = 0;   // the pack's Rlba; 0 until created or read
    uint32_t mNewPackRegionBytes;  // default, or as "regionscalefactor" shrinks it
    bool mRecoverySpace = true;
    std::atomic<uint64_t> mRecoveryGeneration{0};
    std::atomic<uint64_t> mAllocations{0}, mFrees{0}, mMetadataWrites{0}, mRepairs{0}, mRelocations{0};

    ErrorInjection mInjection{"rm"};
    int mMetaReadPoint, mMetaWritePoint, mUserReadPoint, mUserWritePoint;
};
