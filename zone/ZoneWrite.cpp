// The Zone write path: a request cut at Region boundaries; each piece written
// under its stripe lock, whole lines completed from neighbouring write
// threads where they can be, and the copies that failed counted against what
// the Zone's type can lose.
#include "platform/rtos/BoardClock.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/Trace.h"
#include "zone/LayoutManager.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneReadContext.h"
#include "zone/ZoneTable.h"

namespace {
Trace zmWriteTrace("ZM", "Write", "debug", false);

uint32_t nowSeconds() { return uint32_t(BoardClock::GetInstance().realtime().tv_sec); }
}  // namespace

bool ZoneManager::ioReadOnly() const {
    return mReadOnly || mIOReadOnly.load() || SystemManager::GetInstance()->readOnly();
}

// The table lock is taken shared for the caller's transaction: a transaction
// that holds it exclusively (one that made a Zone) reads and writes its Zones.
StatusCode ZoneManager::WriteData(uint32_t zone, uint64_t offset, DataWindow& window, IOTracker& tracker) {
    PerfSamplerLimitForced sample(&mWriteTimes, "ZM::WriteData", kSlowIOMicroseconds);
    ExtendingLockObject::SharedLockInstance table(&ZoneTable::GetInstance()->tableLock(), tracker);
    return WriteDataNoLock(zone, offset, window, tracker, nullptr);
}

StatusCode ZoneManager::WriteDataNoLock(uint32_t zone, uint64_t offset, DataWindow& window, IOTracker& tracker,
                                        StripeLocks* locks) {
    ZMDataContext context("ZMWriteDataContext", zone, offset, window.GetLength());
    if (ioReadOnly()) {
        tracef(coutTrace, "WriteDataNoLock: ZoneManager in read only mode - returning error\n");
        return StatusCode::ReadOnlyMode;
    }
    ZoneTableEntry entry;
    StatusCode st = ZoneTable::GetInstance()->LookupZone(zone, entry);
    if (!st.ok()) {
        tracef(coutTrace, "Zone lookup failure - %s\n", st.Dump().c_str());
        return st;
    }
    const uint64_t zoneSize = SystemDrivePackInfo::GetInstance()->GetZoneSize();
    if (offset + window.GetLength() > zoneSize) {
        tracef(coutTrace, "ZoneOverflow: write end=%u, zone size=%u\n", unsigned(offset + window.GetLength()),
               unsigned(zoneSize));
        return StatusCode::ZoneOverflow;
    }
    entry.lastWrittenTimestamp = nowSeconds();
    ZoneTable::GetInstance()->UpdateZoneTableEntryInMemory(zone, entry);
    const uint32_t boundary = entry.GetRegionBoundary();
    if (boundary == 0) {
        tracef(coutTrace, "Zone %lu: regionBoundary = 0\n", (unsigned long)zone);
        return StatusCode::BadMetadata;
    }
    // The Region layer moves whole sectors.
    if (offset % 512 || window.GetLength() % 512) return StatusCode::BadIOLength;

    const RedundancyType type = entry.type();
    const int slot = ZoneWriteCooperation::slotOfCaller();
    const bool cooperate = coopEnabled() && RedundancyGeometry::IsStripe(type) && slot >= 0 && zone != 1;
    const uint32_t line = RedundancyGeometry::IsDRStripe(type) ? entry.GetSuperStripeLineSize()
                                                                : entry.GetStripeDataWidth() * kStripeBlock;
    const unsigned allowed = RedundancyGeometry::DualRedundancy(type) ? 2 : 1;
    StatusCode result = StatusCode::Success;
    size_t pieceIndex = 0;
    forEachRegionPiece(uint32_t(offset), window.GetLength(), boundary, [&](uint32_t pos, uint32_t len) {
        DataWindow piece(window, pos - uint32_t(offset), len);
        LayoutManager::GetInstance()->AvoidRepairOverlap(zone, pos, len);
        if (cooperate) mCoop.record(slot, zone, pos, len, &piece);

        StripeLockArray lock = nullptr;
        if (locks) {
            ESA_ASSERT_OP(pieceIndex, <, locks->size());
            lock = (*locks)[pieceIndex];
        } else {
            st = LockStripe(zone, pos, len, lock, tracker);
            if (!st.ok()) {
                if (cooperate) {
                    ESA_TRACE(zmWriteTrace, "invalidating recorded range since LockStripe failed");
                    mCoop.clear(slot);
                }
                tracef(coutTrace, "LockStripe failed error = %s\n", st.Dump().c_str());
                result = st;
                return false;
            }
        }
        ++pieceIndex;

        uint32_t activeStart = pos, activeEnd = pos + len;
        const bool anyLeft = !cooperate || mCoop.remaining(slot, activeStart, activeEnd);
        if (anyLeft) {
            DataWindow active(piece, activeStart - pos, activeEnd - activeStart);
            uint32_t activePos = activeStart, activeLen = activeEnd - activeStart;
            if (cooperate) mCoop.completeLine(slot, zone, line, activePos, activeLen, active);
            // The entry looked up above serves every piece: the table lock is held.
            unsigned failures = 0;
            st = writeRegion(entry, activePos, active, tracker, failures);
            if (failures > allowed) {
                tracef(coutTrace, "Too many write failures (%u): Unrecoverable WriteError\n", failures);
                ZoneTable::GetInstance()->DumpEntry(coutTrace, entry);
                result = StatusCode::WriteError;
            }
            if (cooperate) {
                ESA_TRACE(zmWriteTrace, "invalidating recorded range since write complete");
                mCoop.clear(slot);
            }
            if (!locks) {
                StatusCode un = UnlockStripe(zone, lock, tracker);
                if (!un.ok()) {
                    tracef(coutTrace, "UnlockStripe failed error = %s\n", un.Dump().c_str());
                    result = un;
                    return false;
                }
            }
            st = LayoutManager::GetInstance()->UpdateRepairData(zone, activePos, active, tracker);
            if (!st.ok()) {
                tracef(coutTrace, "UpdateRepairData failed with error code %s\n", st.Dump().c_str());
                result = st;
            }
        } else if (!locks) {
            StatusCode un = UnlockStripe(zone, lock, tracker);
            if (!un.ok()) {
                tracef(coutTrace, "UnlockStripe failed error = %s\n", un.Dump().c_str());
                result = un;
                return false;
            }
        }
        return true;
    });
    return result;
}
