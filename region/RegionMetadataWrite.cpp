// Writing the Region metadata copies, and moving a copy whose sectors went bad.
#include <vector>

#include "disk/DiskPackManager.h"
#include "region/RegionInternal.h"
#include "region/RegionManager.h"
#include "util/CrashPoint.h"

using namespace region_internal;

// Copy 0 entirely, then copy 1, with one generation: after a cut between them
// the newer copy 0 wins the vote at the next load and repairs copy 1.
StatusCode RegionManager::WriteRMMD(LogicalDiskMap& m, uint32_t bitmapStartSector, uint32_t bitmapSectors,
                                    IOTracker& tracker, bool force) {
    if (!mReadWrite && !force) return StatusCode::ReadOnlyMode;
    ++mMetadataWrites;
    RMMetadataHeader& h = m.header;
    h.generation += 1;
    h.version = RMLayout::kWriteVersion;
    h.headerSize = RMLayout::kHeaderSizeField;
    h.metadataLba = m.rmLba[0];
    h.bitmapBytes = m.bitmap.sizeBytes();
    uint32_t areaSectors = h.bitmapBytes / 512;
    if (bitmapSectors == 0xFFFF) {
        bitmapStartSector = 0;
        bitmapSectors = areaSectors;
    }
    ESA_ASSERT_OP(bitmapStartSector + bitmapSectors, <=, areaSectors);
    std::vector<uint8_t> area;
    if (bitmapSectors) {
        area.resize(h.bitmapBytes);
        m.bitmap.encode(area.data());
    }
    static const char* const kFailed[2][3] = {{"<<<< RM::WriteRMMD: Failed to write first header: ",
                                               "<<<< RM::WriteRMMD: Failed to write first bitmap first sector: ",
                                               "<<<< RM::WriteRMMD: Failed to write first bitmap: "},
                                              {"<<<< RM::WriteRMMD: Failed to write second header: ",
                                               "<<<< RM::WriteRMMD: Failed to write second bitmap first sector: ",
                                               "<<<< RM::WriteRMMD: Failed to write second bitmap: "}};
    StatusCode st = StatusCode::Success;
    m.lastFailedCopy = -1;
    for (unsigned c = 0; c < 2 && st == StatusCode::Success; ++c) {
        // A power cut here leaves copy 0 newer than copy 1: the next load's vote mends it.
        if (c == 1) CrashPoint("rmBetweenCopies");
        uint8_t sector[512];
        h.copyNumber = c;
        h.encode(sector);
        st = writeSectors(m.ld, sector, 1, m.rmLba[c], tracker);
        if (st != StatusCode::Success) {
            ESA_CONSOLE(kFailed[c][0] << st);
            m.lastFailedCopy = int(c);
            break;
        }
        if (!bitmapSectors) continue;
        if (bitmapStartSector != 0) {
            st = writeSectors(m.ld, area.data(), 1, m.rmLba[c] + 1, tracker);
            if (st != StatusCode::Success) {
                ESA_CONSOLE(kFailed[c][1] << st);
                m.lastFailedCopy = int(c);
                break;
            }
        }
        st = writeSectors(m.ld, area.data() + bitmapStartSector * 512, bitmapSectors,
                          m.rmLba[c] + 1 + bitmapStartSector, tracker);
        if (st != StatusCode::Success) {
            ESA_CONSOLE(kFailed[c][2] << st);
            m.lastFailedCopy = int(c);
        }
    }
    h.copyNumber = 0;
    return st;
}

StatusCode RegionManager::WriteBitmapChange(LogicalDiskMap& m, uint32_t low, uint32_t high, IOTracker& tracker) {
    uint32_t first = (RMLayout::kBitmapHeaderBytes + low / 8) / 512;
    uint32_t last = (RMLayout::kBitmapHeaderBytes + high / 8) / 512;
    return WriteRMMD(m, first, last - first + 1, tracker, false);
}

StatusCode RegionManager::RelocateMetaData(unsigned copy, uint16_t ld) {
    LogicalDiskMap* m = map(ld);
    if (!m || copy > 1) return StatusCode::DiskNotPresent;
    std::array<RegionLayout::Range, 3> ranges;
    StatusCode st = disRanges(ld, ranges);
    if (st != StatusCode::Success) return st;
    RegionLayout layout = layoutOf(*m, ranges);
    uint32_t next = 0;
    if (!layout.nextCopyLba(m->rmLba[copy], next)) {
        ESA_CONSOLE("RM::RelocateMetadata: LD #" << ld << " copy " << copy
                                                 << ". Exhausted all possible metadata locations in region!");
        return StatusCode::OutOfSpace;
    }
    m->rmLba[copy] = next;
    ++mRelocations;
    IOTracker tracker(READ_WRITE);
    tracker.flags |= IOTracker::kMeta;
    st = WriteRMMD(*m, 0, 0xFFFF, tracker, true);
    if (st == StatusCode::Success) {
        // A DIS that keeps the old address costs nothing: the load finds a
        // moved copy by walking its places.
        StatusCode dis = DiskPackManager::GetInstance()->updateRMLBA(tracker, ld, m->rmLba[0], m->rmLba[1]);
        if (dis != StatusCode::Success)
            ESA_CONSOLE("RM::RelocateMetadata: LD #" << ld << " the DIS keeps the old metadata address: " << dis);
    }
    StatusCode committed = tracker.commit();
    if (st == StatusCode::Success) st = committed;
    ESA_CONSOLE("RM::RelocateMetadata. New location is " << next << " for copy " << copy << " of LD #" << ld);
    // The position after the new one ends the search for this copy at the next load.
    uint32_t after = 0;
    if (st == StatusCode::Success && layout.nextCopyLba(next, after)) {
        uint8_t zero[512] = {};
        IOTracker endMark(READ_WRITE);
        endMark.flags |= IOTracker::kMeta;
        writeSectors(ld, zero, 1, after, endMark);
        endMark.commit();
    }
    return st;
}

void RegionManager::outOfBandError(uint16_t ld, uint32_t, uint32_t lba, int, StatusCode status) {
    const char* who = "RM::outOfBandError: LD #";
    ExtendingLockObject::ExclusiveLockInstance g(&mMapLock);
    LogicalDiskMap* m = map(ld);
    if (!m) {
        ESA_CONSOLE(who << ld << " is not present, perhaps it went AWOL");
        return;
    }
    int copy = -1;
    for (unsigned c = 0; c < 2; ++c)
        if (lba >= m->rmLba[c] && lba <= m->rmLba[c] + m->bitmapSectors() + 1) copy = int(c);
    if (copy < 0) {
        ESA_CONSOLE(who << ld << ". Out of band error handler called for LBA" << lba
                        << " but error not in our metadata.");
        return;
    }
    if (!mReadWrite) {
        ESA_CONSOLE("RM::outOfBandError: we are not in ReadWriteMode, ignoring!");
        return;
    }
    // Every relocation step and rewrite is bounded by the Region's spare positions.
    if (status == StatusCode::DM_DeviceTimeoutFlush) {
        IOTracker tracker(READ_WRITE);
        tracker.flags |= IOTracker::kMeta;
        StatusCode st = WriteRMMD(*m, 0, 0xFFFF, tracker, false);
        StatusCode committed = tracker.commit();
        if (st == StatusCode::Success && committed == StatusCode::Success) {
            ESA_CONSOLE(who << ld << ". ReWrote our " << (copy == 0 ? "first" : "second")
                            << " metadata region after a DeviceTimeoutFlush error.");
            return;
        }
    }
    for (;;) {
        StatusCode st = RelocateMetaData(unsigned(copy), ld);
        if (st == StatusCode::Success) return;
        // The rewrite failed at one of the copies: that copy moves next.
        if (st != StatusCode::OutOfSpace && m->lastFailedCopy >= 0) copy = m->lastFailedCopy;
        if (st == StatusCode::OutOfSpace) {
            ESA_CONSOLE(who << ld << " ran out of metadata space for MD location " << copy);
            ESA_CONSOLE("RM::outOfBandError: Unable to relocate metadata for logicalDisk: "
                        << ld << ". Probably no more metadata areas available. Status: " << st);
            DiskPackManager::GetInstance()->expungeLogicalDisk(ld, "RM ALL MD LOCS BAD");
            return;
        }
        // The new place failed too: the write went wrong at one of the copies;
        // try the next place of the same copy.
    }
}
