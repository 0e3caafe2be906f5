#pragma once
// ZoneManager: turns the free Regions of the pack's logical disks into Zones
// (allocation, the Zone table, Zones 0 and 1, capacity figures) and serves
// reads and writes by (Zone, byte offset) with mirror and parity upkeep.
//
// Allocation keeps the table lock exclusive, extended to the caller's
// transaction, across every change; the Region allocators run inside it.
// Zones 0 (Zone 0 info table) and 1 (relayout staging, normally without
// Regions) are reserved and never deallocated.
#include <atomic>
#include <cstdint>
#include <ostream>
#include <vector>

#include "include/ManagerStandIn.h"
#include "region/RecoveryBlock.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"
#include "util/PerfAccumulator.h"
#include "zone/ZoneAllocationRules.h"
#include "zone/ZoneStripeLock.h"
#include "zone/ZoneTable.h"
#include "zone/ZoneTableEntry.h"
#include "zone/ZoneWriteCooperation.h"

class ZoneManager : public ManagerStandIn {
public:
    static ZoneManager* GetInstance();

    // ---- Zone table, allocation and capacity ----------------------------
    static constexpr uint32_t kZoneZero = 0, kZoneOne = 1;
    static constexpr unsigned kMaxRegions = 72;  // Region records a selection may fill

    StatusCode LoadDiskPack() override;
    StatusCode LoadDiskPackReadOnly();
    StatusCode UnloadDiskPack() override;
    StatusCode UnloadDiskPackReadOnly() { return UnloadDiskPack(); }
    bool packLoaded() const { return mPackLoaded; }
    bool readOnly() const { return mReadOnly; }
    // This load made Zone 0: the pack is new, and its Zone 0 directory blank.
    bool zoneZeroBornThisLoad() const { return mZoneZeroBorn; }
    ZoneTable& zoneTable() { return *ZoneTable::GetInstance(); }

    // Whether losing the LD would lose data: the only Zone table copy left,
    // SelfMirrored Zones, or Zones degraded so far that it is their last copy.
    // With `traceReason` the reason goes to the console.
    bool IsCriticalDisk(uint16_t ld, bool traceReason, IOTracker& tracker);
    // Exactly 8 disks available, this one not critical, every other critical.
    bool AllOtherDisksCritical(uint16_t ld, IOTracker& tracker);
    // The dual bit is set and more than 2 disks are available.
    bool DualRedundancyEnabled();

    StatusCode CreateZone(uint32_t& zone, IOTracker& tracker, bool metadata, bool mirrorOnly);
    StatusCode AllocateZone(uint32_t& zone, IOTracker& tracker);
    StatusCode AllocateMetadataZone(uint32_t& zone, IOTracker& tracker);
    StatusCode DeallocateZone(uint32_t zone, IOTracker& tracker);
    // `regions` has room for kMaxRegions records.
    StatusCode SelectRegions(RedundancyType& type, Region* regions, uint16_t& count, IOTracker& tracker,
                             bool mirrorOnly, bool ignoreReserve, bool metadata);
    StatusCode SelectRegionsWithArray(RedundancyType& type, std::vector<FreeRegions>& freeRegions, Region* regions,
                                      uint16_t& count, IOTracker& tracker, bool mirrorOnly, bool metadata);
    StatusCode CalcBestRedundancy(RedundancyType& type, IOTracker& tracker, bool ignoreReserve, bool metadata);
    StatusCode CalcBestRedundancyUsingArray(std::vector<FreeRegions>& freeRegions, RedundancyType& type,
                                            IOTracker& tracker, bool allowStripes, bool allowSelfMirrored);
    StatusCode CanUseStripedZones(bool& can, IOTracker& tracker);

    StatusCode GetPotentialZoneCount(uint64_t& count, IOTracker& tracker);
    StatusCode GetPhysicalFreeZoneCount(uint64_t& count, IOTracker& tracker);
    StatusCode GetFreeZoneCount(uint64_t& count, IOTracker& tracker);
    StatusCode GetZoneCounts(uint64_t& potential, uint64_t& allocated, IOTracker& tracker);
    StatusCode GetSelfMirroredZoneTotal(uint64_t& count);
    StatusCode GetAllocatedZoneCount(uint64_t& count);
    uint64_t cachedPotentialZoneCount() const { return mPotentialZoneCount; }

    StatusCode SelectZoneUsingDiskWithExclusion(uint16_t& disk, uint16_t& excludedDisk, uint32_t& zone);
    // Frees A's Regions that B does not hold (all of A's when the counts differ).
    StatusCode FreeNonMatchingRegions(uint32_t& zoneA, uint32_t& zoneB, IOTracker& tracker);
    // Frees the Zone's Regions that no other valid Zone holds.
    StatusCode FreeUniqueRegions(uint32_t& zone, IOTracker& tracker);
    StatusCode EmptyZoneOne(IOTracker& tracker);
    // Stamps every Region of the Zone with its owner (RecoveryBlocks).
    StatusCode SetZoneOwnership(uint32_t zone, const _ZoneOwnership& ownership, IOTracker& tracker);

    uint8_t StripingThreshold() const { return mStripingThreshold; }
    StatusCode SetStripingThreshold(unsigned percent);
    void Dump(std::ostream& out);

    // ---- Zone I/O -------------------------------------------------------
    // Reads and writes by (Zone, byte offset), in whole sectors. Every piece of
    // a request (cut at Region boundaries) is done under its stripe lock; the
    // Zone table lock is held shared around a whole request. Reads rebuild
    // from the redundancy whatever cannot be read, and never return data for
    // a stripe that cannot be rebuilt. Writes go on with the copies that still
    // work and fail only when more copies fail than the Zone's type can lose.
    static constexpr uint32_t kStripeBlock = 0x1000;
    static constexpr uint32_t kZeroedWindowSize = 0x100000;
    // A Zone read, write or rebuild slower than this is reported on the console.
    static constexpr uint64_t kSlowIOMicroseconds = 10000000;

    StatusCode ReadData(uint32_t zone, uint64_t offset, DataWindow& window, IOTracker& tracker);
    // `locks`, when given, are the caller's LockStripes for the same range:
    // the call then neither locks nor unlocks.
    StatusCode ReadDataNoLock(uint32_t zone, uint64_t offset, DataWindow& window, IOTracker& tracker,
                              StripeLocks* locks);
    // Reads only the original (true) or only the reconstruction (false), with
    // no fallback from one to the other.
    StatusCode ReadDataDirect(uint32_t zone, uint64_t offset, DataWindow& window, IOTracker& tracker, bool original);
    // One piece inside one Region boundary, under the caller's stripe lock.
    StatusCode ReadOriginalData(uint32_t& zone, uint32_t& offset, DataWindow& window, IOTracker& tracker);
    StatusCode ReadReconstructedData(uint32_t& zone, uint32_t& offset, DataWindow& window, IOTracker& tracker);
    // Zone bytes [start, end) of one line into `window`, which begins at
    // Zone offset windowOffset; a column that cannot be read is rebuilt.
    StatusCode ReadPartialLine(DataWindow& window, uint32_t windowOffset, uint32_t start, uint32_t end,
                               const ZoneTableEntry& entry, unsigned width, uint32_t boundary, IOTracker& tracker);
    StatusCode ReadPartialLineDR(DataWindow& window, uint32_t windowOffset, uint32_t start, uint32_t end,
                                 const ZoneTableEntry& entry, unsigned width, uint32_t boundary,
                                 IOTracker& tracker);
    // Rebuild one column's window, which starts at Zone offset `offset`,
    // from the other columns of its lines.
    StatusCode RecoverHStripeBlock(DataWindow& window, unsigned width, const ZoneTableEntry& entry, uint32_t offset,
                                   IOTracker& tracker) const;
    StatusCode RecoverDRStripeBlockPrimary(DataWindow& window, unsigned width, const ZoneTableEntry& entry,
                                           uint32_t offset, IOTracker& tracker) const;
    StatusCode RecoverDRStripeBlockSecondary(DataWindow& window, unsigned width, const ZoneTableEntry& entry,
                                             uint32_t offset, IOTracker& tracker) const;

    // Stripe locks: range locks in "rmdt" on one Region of the Zone that
    // stands for the lines touched (the data Region of a mirror, the parity
    // Region of a stripe). None and SelfMirrored take none (a null array).
    StatusCode LockStripe(uint32_t zone, uint32_t offset, uint32_t length, StripeLockArray& cto, IOTracker& tracker);
    StatusCode UnlockStripe(uint32_t zone, StripeLockArray& cto, IOTracker& tracker);
    StatusCode LockStripes(uint32_t zone, uint64_t offset, uint64_t length, StripeLocks& locks, IOTracker& tracker);
    StatusCode UnlockStripes(uint32_t zone, uint64_t offset, uint64_t length, StripeLocks& locks,
                             IOTracker& tracker);

    StatusCode WriteData(uint32_t zone, uint64_t offset, DataWindow& window, IOTracker& tracker);
    StatusCode WriteDataNoLock(uint32_t zone, uint64_t offset, DataWindow& window, IOTracker& tracker,
                               StripeLocks* locks);
    // One piece inside one Region boundary, under the caller's stripe lock.
    // failures gets the number of copies that failed, or 100 or more when
    // nothing was written.
    StatusCode WriteRegionData(uint32_t zone, uint32_t offset, DataWindow& window, IOTracker& tracker,
                               unsigned& failures);

    // Compare every copy of the data (mirrors, parity) with the data; repair
    // nothing. VerifyFailure on any difference or unreadable stretch.
    StatusCode VerifyRedundancy(IOTracker& tracker);
    StatusCode VerifyRedundancy(uint32_t& zone, IOTracker& tracker);
    StatusCode VerifyRedundancy(uint32_t& zone, uint32_t offset, uint32_t end, StripeLocks* locks,
                                IOTracker& tracker);
    StatusCode LockAndVerifyRedundancy(uint32_t zone, uint32_t offset, uint32_t end, StripeLocks* locks,
                                       IOTracker& tracker);
    // The differences the last VerifyRedundancy(zone&, tracker) found, printed
    // to `report` when one is set (the console tools set it).
    uint32_t lastVerifyDifferences() const { return mLastVerifyDifferences; }
    void setVerifyReport(std::ostream* report) { mVerifyReport = report; }

    // Flushes the disk caches of every logical disk the Zone uses.
    StatusCode FlushZone(uint32_t zone);

    // The Parallel IOs switch: on at start, cleared by any failed parallel
    // transfer, set again by a rebuild.
    bool parallelIOs() const { return mParallelIOs.load(); }
    void setParallelIOs(bool on) { mParallelIOs.store(on); }
    bool coopEnabled() const { return mCoopEnabled.load(); }
    void setCoopEnabled(bool on) { mCoopEnabled.store(on); }
    // Writes give ReadOnlyMode while the pack is loaded read-only.
    void setIOReadOnly(bool on) { mIOReadOnly.store(on); }
    const DataWindow& zeroedWindow() const { return m_zeroed_window; }
    ZoneWriteCooperation& writeCooperation() { return mCoop; }
    void DumpIO(std::ostream& out);
    // Timings of whole Zone reads and writes and of column rebuilds.
    void PerfInfoIO(std::ostream& out);
    void ClearPerfInfoIO();

    // ---- pack status for the management pages and the capacity daemon
    // (ZoneManagerStatus.cpp). Each walks the Zone table once, Zone 1 left
    // out, taking the table lock shared per Zone.
    StatusCode GetDegradedSelfMirroredCount(uint64_t& degraded, uint64_t& selfMirrored, IOTracker& tracker);
    // Any Zone but Zone 1 degraded (a Region on a missing disk).
    bool DegradedZones(IOTracker& tracker);
    // Any Zone but Zone 1 SelfMirrored.
    bool SelfMirroredZones(IOTracker& tracker);

private:
    ZoneManager() = default;
    // ---- Zone table, allocation and capacity: state ---------------------
    std::vector<FreeRegions> freeRegionList(bool available, IOTracker& tracker);
    AllocationSwitches switches(IOTracker& tracker);
    StatusCode freeRegionsOf(const ZoneTableEntry& entry, const std::vector<bool>& keep, IOTracker& tracker);
    StatusCode emptyZoneOneLocked(IOTracker& tracker);
    StatusCode reuseEntry(uint32_t zone, IOTracker& tracker);
    bool mPackLoaded = false;
    bool mReadOnly = false;
    bool mZoneZeroBorn = false;
    // Zone 1, the relayout staging Zone, right after Zone 0 (a new pack, or
    // one whose making was cut between the two).
    StatusCode createZoneOne();
    uint8_t mStripingThreshold = 50;
    uint64_t mPotentialZoneCount = 0;

    // ---- Zone I/O: state ------------------------------------------------
    StatusCode readPieces(uint32_t zone, uint64_t offset, DataWindow& window, IOTracker& tracker,
                          StripeLocks* locks, int mode);
    StatusCode readStripeColumns(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window,
                                 IOTracker& tracker, bool original);
    StatusCode recoverColumn(const ZoneTableEntry& entry, DataWindow& column, uint32_t offset,
                             IOTracker& tracker) const;
    // One copy of a mirrored piece; a failed read (not an absent copy) is
    // traced and patched in the background.
    StatusCode readMirrorCopy(const ZoneTableEntry& entry, RegionCopy copy, uint32_t offset, DataWindow& window,
                              IOTracker& tracker);
    // WriteRegionData for an entry already looked up (failures start at 0).
    StatusCode writeRegion(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window, IOTracker& tracker,
                           unsigned& failures);
    // The reads of one piece for an entry already looked up.
    StatusCode readOriginal(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window, IOTracker& tracker);
    StatusCode readReconstructed(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window,
                                 IOTracker& tracker);
    StatusCode writeMirrored(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window, IOTracker& tracker,
                             unsigned& failures);
    StatusCode writeStriped(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window, IOTracker& tracker,
                            unsigned& failures);
    StatusCode verifyChunk(const ZoneTableEntry& entry, uint32_t offset, uint32_t length, IOTracker& tracker,
                           uint32_t& errors);
    bool ioReadOnly() const;
    ZoneWriteCooperation mCoop;

    DataWindow m_zeroed_window = makeZeroedWindow();
    static DataWindow makeZeroedWindow();
    std::atomic<bool> mParallelIOs{true};
    std::atomic<bool> mCoopEnabled{true};
    std::atomic<bool> mIOReadOnly{false};
    std::atomic<uint32_t> mLastVerifyDifferences{0};
    std::ostream* mVerifyReport = nullptr;
    PerfAccumulator mReadTimes, mWriteTimes;
    mutable PerfAccumulator mRecoverTimes;  // sampled by the const rebuilds
};
