// The Zone read path: a request cut at Region boundaries, each piece read
// under its stripe lock from the data copy, and rebuilt from the redundancy
// when the data copy cannot be read.
#include <vector>

#include "region/RegionManager.h"
#include "util/Assert.h"
#include "util/Trace.h"
#include "zone/LayoutManager.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneReadColumns.h"
#include "zone/XORWindow.h"
#include "zone/ZoneReadContext.h"
#include "zone/ZoneTable.h"

namespace {
Trace zmReadTrace("ZM", "Read", "debug", false);

enum ReadMode { kOriginalThenReconstructed = 0, kOriginalOnly = 1, kReconstructedOnly = 2 };

uint64_t zoneSize() { return SystemDrivePackInfo::GetInstance()->GetZoneSize(); }
uint32_t regionSize() { return uint32_t(SystemDrivePackInfo::GetInstance()->GetRegionSize()); }

bool isMirrorLike(RedundancyType type) {
    return type == RedundancyType::None || type == RedundancyType::SelfMirrored || type == RedundancyType::Mirrored ||
           type == RedundancyType::Mirrored3;
}
}  // namespace

DiagnosticHandler& zoneManagerIODiagnostics() {
    static DiagnosticHandler handler(nullptr, "ZoneManagerIO", 20);
    return handler;
}

DataWindow ZoneManager::makeZeroedWindow() {
    // One contiguous block, so the parity engine can tell a zero column by
    // its address and leave it out of every XOR.
    DataStore* store = new DataStore(1, kZeroedWindowSize);
    DataWindow window;
    window.InitializeAndTransferStore(*store, 0, kZeroedWindowSize);
    window.ZeroInit();
    unsigned char* p = nullptr;
    uint32_t n = 0;
    window.begin(p, n);
    setZeroSourceMemory(p, n);
    return window;
}

// The table lock is taken shared for the caller's transaction: a transaction
// that holds it exclusively (one that made a Zone) reads and writes its Zones.
StatusCode ZoneManager::ReadData(uint32_t zone, uint64_t offset, DataWindow& window, IOTracker& tracker) {
    PerfSamplerLimitForced sample(&mReadTimes, "ZM::ReadData", kSlowIOMicroseconds);
    ExtendingLockObject::SharedLockInstance table(&ZoneTable::GetInstance()->tableLock(), tracker);
    return ReadDataNoLock(zone, offset, window, tracker, nullptr);
}

StatusCode ZoneManager::ReadDataNoLock(uint32_t zone, uint64_t offset, DataWindow& window, IOTracker& tracker,
                                       StripeLocks* locks) {
    ZMDataContext context("ZMReadDataContext", zone, offset, window.GetLength());
    return readPieces(zone, offset, window, tracker, locks, kOriginalThenReconstructed);
}

StatusCode ZoneManager::ReadDataDirect(uint32_t zone, uint64_t offset, DataWindow& window, IOTracker& tracker,
                                       bool original) {
    ExtendingLockObject::SharedLockInstance table(&ZoneTable::GetInstance()->tableLock());
    ZMDataContext context("ZMReadDataContext", zone, offset, window.GetLength());
    return readPieces(zone, offset, window, tracker, nullptr,
                      original ? kOriginalOnly : kReconstructedOnly);
}

// The entry is looked up before the Zone size is read: with no pack loaded
// there is no Zone and no size, and the answer is the lookup's.
StatusCode ZoneManager::readPieces(uint32_t zone, uint64_t wideOffset, DataWindow& window, IOTracker& tracker,
                                   StripeLocks* locks, int mode) {
    ZoneTableEntry entry;
    StatusCode st = ZoneTable::GetInstance()->LookupZone(zone, entry);
    if (!st.ok()) return st;
    if (wideOffset + window.GetLength() > zoneSize()) {
        tracef(coutTrace, "ZoneOverflow: read end=%u\n", unsigned(wideOffset + window.GetLength()));
        return StatusCode::ZoneOverflow;
    }
    const uint32_t offset = uint32_t(wideOffset);
    const uint32_t boundary = entry.GetRegionBoundary();
    if (boundary == 0) {
        tracef(coutTrace, "Zone %lu: regionBoundary = 0\n", (unsigned long)zone);
        return StatusCode::BadMetadata;
    }
    // The Region layer moves whole sectors.
    if (offset % 512 || window.GetLength() % 512) return StatusCode::BadIOLength;
    StatusCode result = StatusCode::Success;
    size_t piece = 0;
    forEachRegionPiece(offset, window.GetLength(), boundary, [&](uint32_t pos, uint32_t len) {
        DataWindow sub(window, pos - offset, len);
        StripeLockArray lock = nullptr;
        if (locks) {
            ESA_ASSERT_OP(piece, <, locks->size());
            lock = (*locks)[piece];
        } else {
            st = LockStripe(zone, pos, len, lock, tracker);
            if (!st.ok()) {
                tracef(coutTrace, "LockStripe failed error = %s\n", st.Dump().c_str());
                result = st;
                return false;
            }
        }
        ++piece;
        // The entry looked up above serves every piece: the table lock is held.
        st = mode == kReconstructedOnly ? readReconstructed(entry, pos, sub, tracker)
                                        : readOriginal(entry, pos, sub, tracker);
        if (!st.ok() && mode == kOriginalThenReconstructed) {
            ESA_TRACE(zmReadTrace, "Original read of Zone " << zone << " offset " << pos << " failed (" << st
                                                              << "), reading the redundancy");
            st = readReconstructed(entry, pos, sub, tracker);
            if (!st.ok()) {
                tracef(coutTrace, "ReadDataNoLock: Double read failure - unrecoverable\n");
                tracef(coutTrace, "ReadRedundant error on Zone %lu, offset %lu - %s\n", (unsigned long)zone,
                       (unsigned long)pos, st.Dump().c_str());
                ZoneTable::GetInstance()->DumpEntry(coutTrace, entry);
            }
        }
        if (!st.ok()) result = st;
        if (!locks) {
            StatusCode un = UnlockStripe(zone, lock, tracker);
            if (!un.ok()) {
                tracef(coutTrace, "UnlockStripe failed error = %s\n", un.Dump().c_str());
                if (result.ok()) result = un;
            }
        }
        return result.ok();
    });
    return result;
}

StatusCode ZoneManager::readMirrorCopy(const ZoneTableEntry& entry, RegionCopy copy, uint32_t offset,
                                       DataWindow& window, IOTracker& tracker) {
    unsigned slot = 0;
    StatusCode st = copy == RegionCopy::Data      ? entry.CalculateDataRegion(offset, slot)
                    : copy == RegionCopy::Primary ? entry.CalculatePrimaryRedundancyRegion(offset, slot)
                                                  : entry.CalculateSecondaryRedundancyRegion(offset, slot);
    if (!st.ok()) return st;
    st = RegionManager::GetInstance()->ReadData(entry.disk[slot], entry.region[slot], offset % regionSize(), window,
                                                tracker);
    // A copy that is absent is no error of its own; one that fails a read is
    // patched in the background.
    if (st.ok() || st == StatusCode::DiskNotPresent || st == StatusCode::ZM_UnusableRegion) return st;
    static const char* const kWhat[] = {"ReadOriginalData: Error reading from Zone %lu, offset %lu - %s\n",
                                        "ReadReconstructedData: Error reading PrimaryRedundant data from Zone %lu, "
                                        "offset %lu - %s\n",
                                        "ReadReconstructedData: Error reading SecondaryRedundant data from Zone %lu, "
                                        "offset %lu - %s\n"};
    tracef(coutTrace, kWhat[unsigned(copy)], (unsigned long)entry.zoneNumber, (unsigned long)offset,
           st.Dump().c_str());
    LayoutManager::GetInstance()->InitiateBackgroundPatch(entry.zoneNumber, offset, unsigned(copy), tracker);
    return st;
}

namespace {
// What both public reads of a piece begin with: the piece lies inside the
// Zone, and the Zone is in use.
StatusCode entryForRead(uint32_t zone, uint32_t offset, const DataWindow& window, const char* what,
                        ZoneTableEntry& entry) {
    if (uint64_t(offset) + window.GetLength() > zoneSize()) {
        tracef(coutTrace, "ZoneOverflow: %s data read start=%u, end=%u\n", what, offset,
               unsigned(offset + window.GetLength()));
        return StatusCode::ZoneOverflow;
    }
    return ZoneTable::GetInstance()->LookupZone(zone, entry);
}
}  // namespace

StatusCode ZoneManager::ReadOriginalData(uint32_t& zone, uint32_t& offset, DataWindow& window, IOTracker& tracker) {
    ZoneTableEntry entry;
    StatusCode st = entryForRead(zone, offset, window, "original", entry);
    return st.ok() ? readOriginal(entry, offset, window, tracker) : st;
}

StatusCode ZoneManager::ReadReconstructedData(uint32_t& zone, uint32_t& offset, DataWindow& window,
                                              IOTracker& tracker) {
    ZoneTableEntry entry;
    StatusCode st = entryForRead(zone, offset, window, "reconstructed", entry);
    return st.ok() ? readReconstructed(entry, offset, window, tracker) : st;
}

StatusCode ZoneManager::readOriginal(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window,
                                     IOTracker& tracker) {
    const RedundancyType type = entry.type();
    if (isMirrorLike(type)) return readMirrorCopy(entry, RegionCopy::Data, offset, window, tracker);
    if (RedundancyGeometry::IsStripe(type)) {
        ESA_ASSERT(!tracker.isMeta());  // metadata Zones are never striped
        return readStripeColumns(entry, offset, window, tracker, true);
    }
    tracef(coutTrace, "Unsupported redundancy type (%u)\n", unsigned(entry.redundancyType));
    return StatusCode::UnsupportedZoneType;
}

StatusCode ZoneManager::readReconstructed(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window,
                                          IOTracker& tracker) {
    const RedundancyType type = entry.type();
    if (isMirrorLike(type)) {
        StatusCode st = readMirrorCopy(entry, RegionCopy::Primary, offset, window, tracker);
        if (st.ok() || type != RedundancyType::Mirrored3) return st;
        return readMirrorCopy(entry, RegionCopy::Secondary, offset, window, tracker);
    }
    if (RedundancyGeometry::IsStripe(type)) {
        ESA_ASSERT(!tracker.isMeta());
        return readStripeColumns(entry, offset, window, tracker, false);
    }
    tracef(coutTrace, "Unsupported redundancy type (%u)\n", unsigned(entry.redundancyType));
    return StatusCode::UnsupportedZoneType;
}

StatusCode ZoneManager::recoverColumn(const ZoneTableEntry& entry, DataWindow& column, uint32_t offset,
                                      IOTracker& tracker) const {
    PerfSamplerLimitForced sample(&mRecoverTimes, "ZM column rebuild", kSlowIOMicroseconds);
    const unsigned width = entry.GetStripeWidth();
    return RedundancyGeometry::IsHStripe(entry.type())
               ? RecoverHStripeBlock(column, width, entry, offset, tracker)
               : RecoverDRStripeBlockPrimary(column, width, entry, offset, tracker);
}

StatusCode ZoneManager::readStripeColumns(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window,
                                          IOTracker& tracker, bool original) {
    const unsigned d = entry.GetStripeDataWidth();
    StripeColumns columns(window, offset, d, entry.GetRegionBoundary());
    std::vector<bool> recover(d, !original);
    RegionManager* rm = RegionManager::GetInstance();

    if (original && parallelIOs()) {
        std::vector<_IORequest> requests;
        StatusCode st = StatusCode::Success;
        for (unsigned c = 0; c < d && st.ok(); ++c) {
            if (columns.empty(c)) continue;
            unsigned slot = 0;
            st = entry.CalculateDataRegion(columns.zoneOffset(c), slot);
            if (!st.ok()) break;
            _IORequest r;
            r.ld = entry.disk[slot];
            r.region = entry.region[slot];
            r.offset = columns.regionOffset(c);
            r.window = &columns.column(c);
            requests.push_back(r);
        }
        if (st.ok()) {
            st = rm->ReadDataParallel(requests.data(), unsigned(requests.size()), tracker);
            for (const _IORequest& r : requests)
                if (st.ok() && !r.status.ok()) st = r.status;
        }
        if (st.ok()) return StatusCode::Success;
        setParallelIOs(false);
        tracef(coutTrace, "Error during Parallel ZM::ReadOriginalData, error = %s, falling back to serial IOs\n",
               st.Dump().c_str());
    }
    if (original) {
        for (unsigned c = 0; c < d; ++c) {
            if (columns.empty(c)) continue;
            const uint32_t o = columns.zoneOffset(c);
            unsigned slot = 0;
            StatusCode st = entry.CalculateDataRegion(o, slot);
            if (st.ok()) {
                st = rm->ReadData(entry.disk[slot], entry.region[slot], columns.regionOffset(c), columns.column(c),
                                  tracker);
                if (!st.ok() && st != StatusCode::DiskNotPresent) {
                    tracef(coutTrace, "ReadOriginalData: Error reading from Zone %lu, offset %lu - %s\n",
                           (unsigned long)entry.zoneNumber, (unsigned long)o, st.Dump().c_str());
                    LayoutManager::GetInstance()->InitiateBackgroundPatch(entry.zoneNumber, o, 0, tracker);
                }
            }
            recover[c] = !st.ok();
        }
    }
    for (unsigned c = 0; c < d; ++c) {
        if (!recover[c] || columns.empty(c)) continue;
        StatusCode st = recoverColumn(entry, columns.column(c), columns.zoneOffset(c), tracker);
        if (!st.ok()) {
            tracef(coutTrace, "Error during recovery of Original read data, error = %s\n", st.Dump().c_str());
            return st;
        }
    }
    return StatusCode::Success;
}

StatusCode ZoneManager::ReadPartialLine(DataWindow& window, uint32_t windowOffset, uint32_t start, uint32_t end,
                                        const ZoneTableEntry& entry, unsigned width, uint32_t boundary,
                                        IOTracker& tracker) {
    (void)width;
    const uint32_t line = entry.GetStripeDataWidth() * kStripeBlock;
    const bool dual = RedundancyGeometry::IsDRStripe(entry.type());
    for (uint32_t pos = start; pos < end;) {
        const uint32_t next = std::min(end, (pos / kStripeBlock + 1) * kStripeBlock);
        DataWindow sub(window, pos - windowOffset, next - pos);
        unsigned slot = 0;
        StatusCode st = entry.CalculateDataRegion(pos, slot);
        if (st.ok()) {
            st = RegionManager::GetInstance()->ReadData(entry.disk[slot], entry.region[slot],
                                                        (pos % boundary) / line * kStripeBlock + pos % kStripeBlock,
                                                        sub, tracker);
            if (!st.ok() && st != StatusCode::DiskNotPresent)
                LayoutManager::GetInstance()->InitiateBackgroundPatch(entry.zoneNumber, pos, 0, tracker);
        }
        if (!st.ok()) {
            st = recoverColumn(entry, sub, pos, tracker);
            if (!st.ok()) {
                tracef(coutTrace,
                       dual ? "Error during DR recovery of partial line, error = %s\n"
                            : "Error during recovery of partial line, error = %s\n",
                       st.Dump().c_str());
                return st;
            }
        }
        pos = next;
    }
    return StatusCode::Success;
}

StatusCode ZoneManager::ReadPartialLineDR(DataWindow& window, uint32_t windowOffset, uint32_t start, uint32_t end,
                                          const ZoneTableEntry& entry, unsigned width, uint32_t boundary,
                                          IOTracker& tracker) {
    return ReadPartialLine(window, windowOffset, start, end, entry, width, boundary, tracker);
}
