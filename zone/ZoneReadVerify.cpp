// Verification of a Zone's redundancy: every copy of the data is read and
// compared with the data; nothing is repaired. Mirrors are compared copy with
// copy; stripes have both parities computed again from the data columns and
// compared with what lies on disk.
#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>
#include <vector>

#include "region/RegionManager.h"
#include "util/Assert.h"
#include "util/Trace.h"
#include "zone/DRStripeCode.h"
#include "zone/DataWindowXOR.h"
#include "zone/LayoutManager.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneTable.h"

namespace {
constexpr uint32_t kVerifyChunk = 0x8000;
constexpr uint32_t kStripeVerifyChunk = 0x20000;
constexpr uint32_t kMaxErrors = 1100;

std::vector<uint8_t> bytesOf(const DataWindow& window) {
    std::vector<uint8_t> out(window.GetLength());
    DataBuffer b{uint32_t(out.size()), out.data()};
    window.Read(b);
    return out;
}

// Counts (and reports) the 512-byte sectors in which the two differ. For a
// mirror, byte s of the buffers is Zone offset + s; for a parity column
// (lineSize not 0) it is byte s % 4096 of the parity block of the line that
// starts at Zone offset + (s / 4096) x lineSize.
uint32_t compareSectors(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, const char* what,
                        uint32_t zone, uint32_t offset, uint32_t lineSize, std::ostream* report) {
    uint32_t differences = 0;
    for (size_t s = 0; s < a.size(); s += 512) {
        const size_t n = std::min<size_t>(512, a.size() - s);
        if (std::memcmp(a.data() + s, b.data() + s, n) == 0) continue;
        ++differences;
        char text[160];
        if (lineSize)
            std::snprintf(text, sizeof text, "verifyRedundancy: Zone %u line at offset 0x%x: %s differs (bytes 0x%x+)\n",
                          zone, unsigned(offset + s / 0x1000 * lineSize), what, unsigned(s % 0x1000));
        else
            std::snprintf(text, sizeof text, "verifyRedundancy: Zone %u offset 0x%x: %s differs\n", zone,
                          unsigned(offset + s), what);
        tracef(coutTrace, "%s", text);
        if (report) *report << text;
    }
    return differences;
}

void hexDump(std::ostream& out, const uint8_t* p, size_t n) {
    char text[8];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(text, sizeof text, "%02x%s", p[i], (i % 16 == 15 || i + 1 == n) ? "\n" : " ");
        out << text;
    }
}

void reportReadError(const char* kind, uint32_t zone, uint32_t offset, StatusCode st, unsigned dataCopy,
                     IOTracker& tracker, std::ostream* report) {
    char text[200];
    std::snprintf(text, sizeof text, "Error reading %s data, Zone=%u Offset=%u Error=%s, initiating repair\n", kind,
                  zone, offset, st.Dump().c_str());
    tracef(coutTrace, "%s", text);
    if (report) *report << text;
    if (st != StatusCode::DiskNotPresent && st != StatusCode::ZM_UnusableRegion)
        LayoutManager::GetInstance()->InitiateBackgroundPatch(zone, offset, dataCopy, tracker);
}
}  // namespace

StatusCode ZoneManager::verifyChunk(const ZoneTableEntry& entry, uint32_t offset, uint32_t length,
                                    IOTracker& tracker, uint32_t& errors) {
    const uint32_t zone = entry.zoneNumber;
    const RedundancyType type = entry.type();
    if (!RedundancyGeometry::IsStripe(type)) {
        DataWindow original(length, 0, length), redundant(length, 0, length);
        uint32_t z = zone, o = offset;
        StatusCode a = ReadOriginalData(z, o, original, tracker);
        if (!a.ok()) reportReadError("original", zone, offset, a, 0, tracker, mVerifyReport);
        StatusCode b = ReadReconstructedData(z, o, redundant, tracker);
        if (!b.ok()) reportReadError("reconstructed", zone, offset, b, 1, tracker, mVerifyReport);
        if (!a.ok() && !b.ok()) {
            tracef(coutTrace, "Double failure - Failed Region (Data comparison impossible)\n");
            ++errors;
            return b;
        }
        if (!a.ok() || !b.ok()) {
            ++errors;
            return a.ok() ? b : a;
        }
        const std::vector<uint8_t> data = bytesOf(original);
        uint32_t differences = compareSectors(data, bytesOf(redundant), "mirror copy", zone, offset, 0, mVerifyReport);
        if (type == RedundancyType::Mirrored3) {
            // The third copy is read only when the second fails: look at it here.
            unsigned slot = 0;
            StatusCode st = entry.CalculateSecondaryRedundancyRegion(offset, slot);
            if (st.ok())
                st = RegionManager::GetInstance()->ReadData(entry.disk[slot], entry.region[slot],
                                                            offset % entry.GetRegionBoundary(), redundant, tracker);
            if (!st.ok()) {
                reportReadError("secondary redundant", zone, offset, st, 2, tracker, mVerifyReport);
                ++errors;
            } else {
                differences += compareSectors(data, bytesOf(redundant), "third copy", zone, offset, 0, mVerifyReport);
            }
        }
        errors += differences;
        mLastVerifyDifferences += differences;
        return differences ? StatusCode::VerifyFailure : StatusCode::Success;
    }

    // Stripes: whole lines, every column read as it lies on disk.
    const bool dual = RedundancyGeometry::IsDRStripe(type);
    const unsigned d = entry.GetStripeDataWidth();
    const uint32_t boundary = entry.GetRegionBoundary(), stripeLine = d * kStripeBlock;
    const uint32_t columnLength = length / d, g = offset / boundary;
    const uint32_t regionOffset = (offset % boundary) / stripeLine * kStripeBlock;
    const unsigned q = RedundancyGeometry::SlotsPerColumn(type), stored = entry.GetStripeWidth();
    std::vector<DataWindow> columns;
    for (unsigned c = 0; c < stored; ++c) columns.emplace_back(columnLength, 0, columnLength);
    StatusCode result = StatusCode::Success;
    for (unsigned c = 0; c < stored; ++c) {
        const unsigned slot = c * q + g;
        StatusCode st = entry.region[slot] == 0
                            ? StatusCode(StatusCode::ZM_UnusableRegion)
                            : RegionManager::GetInstance()->ReadData(entry.disk[slot], entry.region[slot],
                                                                     regionOffset, columns[c], tracker);
        if (!st.ok()) {
            reportReadError(c < d ? "original" : "reconstructed", zone, offset, st, c < d ? 0 : c - d + 1, tracker,
                            mVerifyReport);
            ++errors;
            result = st;
        }
    }
    if (!result.ok()) return result;
    DataWindow horizontal(columnLength, 0, columnLength), diagonal(columnLength, 0, columnLength);
    StatusCode st;
    if (!dual) {
        XORWindow(horizontal, columns.data(), d, st);
    } else {
        DRStripeCode code;
        DRStripeCode::forWidth(stored, code);
        std::vector<DataWindow> sources;
        for (unsigned z = 0; z < code.zeroColumns; ++z) sources.emplace_back(m_zeroed_window, 0, columnLength);
        for (unsigned c = 0; c < d; ++c) sources.push_back(columns[c]);
        XOR2DWindow(horizontal, diagonal, sources.data(), code.sources(), kStripeBlock, st);
    }
    if (!st.ok()) return st;
    uint32_t differences =
        compareSectors(bytesOf(horizontal), bytesOf(columns[d]),
                       dual ? "horizontal parity" : "parity", zone, offset, stripeLine, mVerifyReport);
    if (dual)
        differences +=
            compareSectors(bytesOf(diagonal), bytesOf(columns[d + 1]), "diagonal parity", zone, offset, stripeLine,
                           mVerifyReport);
    errors += differences;
    mLastVerifyDifferences += differences;
    return differences ? StatusCode::VerifyFailure : StatusCode::Success;
}

StatusCode ZoneManager::VerifyRedundancy(uint32_t& zone, IOTracker& tracker) {
    const uint64_t zoneSize = SystemDrivePackInfo::GetInstance()->GetZoneSize();
    ESA_ASSERT_OP(zoneSize % kVerifyChunk, ==, 0u);
    ExtendingLockObject::SharedLockInstance table(&ZoneTable::GetInstance()->tableLock());
    mLastVerifyDifferences = 0;
    ZoneTableEntry entry;
    StatusCode st = ZoneTable::GetInstance()->LookupZone(zone, entry);
    if (!st.ok()) return st;
    const RedundancyType type = entry.type();
    if (!RedundancyGeometry::IsSupported(type)) return StatusCode::UnsupportedZoneType;
    uint32_t chunk = kVerifyChunk;
    if (RedundancyGeometry::IsStripe(type)) {
        const uint32_t line = RedundancyGeometry::IsDRStripe(type) ? entry.GetSuperStripeLineSize()
                                                                   : entry.GetStripeDataWidth() * kStripeBlock;
        chunk = std::max<uint32_t>(1, kStripeVerifyChunk / line) * line;
    }
    const uint32_t boundary = entry.GetRegionBoundary();
    uint32_t errors = 0;
    StatusCode result = StatusCode::Success;
    for (uint64_t offset = 0; offset < zoneSize;) {
        const uint64_t end = std::min<uint64_t>({offset + chunk, zoneSize, (offset / boundary + 1) * boundary});
        const uint32_t length = uint32_t(end - offset);
        StripeLockArray lock = nullptr;
        st = LockStripe(zone, uint32_t(offset), length, lock, tracker);
        if (!st.ok()) return st;
        const uint32_t before = mLastVerifyDifferences;
        st = verifyChunk(entry, uint32_t(offset), length, tracker, errors);
        UnlockStripe(zone, lock, tracker);
        if (!st.ok()) result = StatusCode::VerifyFailure;
        if (errors > kMaxErrors && mLastVerifyDifferences != before) {
            tracef(coutTrace, "Too many errors - aborting testing of this Zone\n");
            break;
        }
        offset = end;
    }
    return result;
}

StatusCode ZoneManager::VerifyRedundancy(IOTracker& tracker) {
    const uint32_t count = ZoneTable::GetInstance()->entriesCreated();
    uint32_t good = 0, bad = 0;
    for (uint32_t zone = 0; zone < count; ++zone) {
        if (zone == 1 || !ZoneTable::GetInstance()->CheckZoneValid(zone).ok()) continue;
        ESA_TRACE(coutTrace, "Scanning Zone " << zone);
        uint32_t z = zone;
        if (VerifyRedundancy(z, tracker).ok()) ++good;
        else ++bad;
    }
    ESA_CONSOLE("Data verification results: good = " << good << ", bad = " << bad);
    return bad ? StatusCode::VerifyFailure : StatusCode::Success;
}

StatusCode ZoneManager::VerifyRedundancy(uint32_t& zone, uint32_t offset, uint32_t end, StripeLocks* locks,
                                         IOTracker& tracker) {
    (void)locks;
    if (tracker.isMeta() || end <= offset) return StatusCode::Success;
    const uint32_t length = end - offset;
    for (int attempt = 0;; ++attempt) {
        DataWindow original(length, 0, length), redundant(length, 0, length);
        uint32_t z = zone, o = offset;
        StatusCode st = ReadOriginalData(z, o, original, tracker);
        if (st == StatusCode::ZM_UnusableRegion) {
            tracef(coutTrace, "Region unusable reading original data - returning success ...\n");
            return StatusCode::Success;
        }
        if (!st.ok()) return st;
        st = ReadReconstructedData(z, o, redundant, tracker);
        if (st == StatusCode::ZM_UnusableRegion) {
            tracef(coutTrace, "Region unusable reconstructing data - returning success ...\n");
            return StatusCode::Success;
        }
        if (!st.ok()) return st;
        const std::vector<uint8_t> a = bytesOf(original), b = bytesOf(redundant);
        size_t word = 0;
        while (word + 4 <= a.size() && std::memcmp(a.data() + word, b.data() + word, 4) == 0) word += 4;
        if (word + 4 > a.size()) return StatusCode::Success;
        if (attempt < 2) continue;
        ZoneTableEntry entry;
        ZoneTable::GetInstance()->LookupZone(zone, entry);
        unsigned dataSlot = 0, copySlot = 0;
        entry.CalculateDataRegion(offset + uint32_t(word), dataSlot);
        entry.CalculatePrimaryRedundancyRegion(offset + uint32_t(word), copySlot);
        std::ostringstream out;
        out << "Zone " << zone << " offset 0x" << std::hex << offset + word << std::dec << ": data on LD "
            << entry.disk[dataSlot] << " region " << entry.region[dataSlot] << ", redundancy on LD "
            << entry.disk[copySlot] << " region " << entry.region[copySlot] << "\nORIGINAL DATA:\n";
        const size_t from = word / 16 * 16, n = std::min<size_t>(64, a.size() - from);
        hexDump(out, a.data() + from, n);
        out << "REDUNDANT DATA:\n";
        hexDump(out, b.data() + from, n);
        ESA_CONSOLE(out.str());
        return StatusCode::VerifyFailure;
    }
}

StatusCode ZoneManager::LockAndVerifyRedundancy(uint32_t zone, uint32_t offset, uint32_t end, StripeLocks* locks,
                                                IOTracker& tracker) {
    if (locks) return VerifyRedundancy(zone, offset, end, locks, tracker);
    StripeLocks own;
    StatusCode st = LockStripes(zone, offset, end - offset, own, tracker);
    if (!st.ok()) return st;
    st = VerifyRedundancy(zone, offset, end, &own, tracker);
    UnlockStripes(zone, offset, end - offset, own, tracker);
    return st;
}

StatusCode ZoneManager::FlushZone(uint32_t zone) {
    ZoneTableEntry entry;
    StatusCode st = ZoneTable::GetInstance()->LookupZone(zone, entry);
    if (!st.ok()) return st;
    std::set<uint16_t> disks;
    const unsigned count = std::min(entry.GetRegionCount(), ZoneTableEntry::kSlots);
    for (unsigned i = 0; i < count; ++i)
        if (entry.region[i]) disks.insert(entry.disk[i]);
    IOTracker tracker(READ_ONLY);
    StatusCode result = StatusCode::Success;
    for (uint16_t ld : disks) {
        st = RegionManager::GetInstance()->Flush(ld, tracker);
        if (!st.ok() && st != StatusCode::DiskNotPresent) result = st;
    }
    tracker.commitIfDirty();
    return result;
}

void ZoneManager::PerfInfoIO(std::ostream& out) {
    out << "ZM read times:\n";
    mReadTimes.Dump(out);
    out << "ZM write times:\n";
    mWriteTimes.Dump(out);
    out << "ZM column rebuild times:\n";
    mRecoverTimes.Dump(out);
}

void ZoneManager::ClearPerfInfoIO() {
    mReadTimes.reset();
    mWriteTimes.reset();
    mRecoverTimes.reset();
}

void ZoneManager::DumpIO(std::ostream& out) {
    out << "ZoneManager I/O: parallel IOs " << (parallelIOs() ? "enabled" : "disabled")
        << ", write thread cooperation " << (coopEnabled() ? "enabled" : "disabled")
        << (ioReadOnly() ? ", read only" : "") << "\n";
    mCoop.Dump(out);
}
