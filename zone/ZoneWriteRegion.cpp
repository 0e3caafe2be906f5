// WriteRegionData: one piece of a Zone, inside one Region boundary, written
// to every copy: the mirrors in parallel or one after the other, or a stripe
// line made whole from disk, its parity computed, and every column written.
// The copies that failed are counted; 100 or more means nothing was written.
#include <algorithm>
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
Trace zmWriteRegionTrace("ZM", "WriteRegion", "debug", false);

constexpr unsigned kNothingWritten = 100;

// One copy of a piece: where it goes and what a failure of it is called.
struct CopyTarget {
    unsigned slot;
    uint32_t regionOffset;
    DataWindow* window;
    unsigned dataCopy;  // 0 data, 1 primary, 2 secondary redundancy
    const char* failure;
};

const char* const kOriginalError = "WriteRegionData original error on Zone %lu, offset %lu - %s\n";
const char* const kPrimaryError = "WriteRegionData primary redundant error on Zone %lu, offset %lu - %s\n";
const char* const kSecondaryError = "WriteRegionData secondary redundant error on Zone %lu, offset %lu - %s\n";
const char* const kRedundantError = "WriteRegionData redundant error on Zone %lu, offset %lu - %s\n";

// Writes the copies in order. Each failed write or missing Region adds one
// failure; a failure other than DiskNotPresent raises a patch of that copy.
StatusCode writeSerial(const ZoneTableEntry& entry, uint32_t offset, const std::vector<CopyTarget>& copies,
                       IOTracker& tracker, unsigned& failures) {
    StatusCode result = StatusCode::Success;
    for (const CopyTarget& copy : copies) {
        if (entry.region[copy.slot] == 0) {
            ++failures;
            result = StatusCode::ZM_UnusableRegion;
            continue;
        }
        StatusCode st = RegionManager::GetInstance()->WriteData(entry.disk[copy.slot], entry.region[copy.slot],
                                                                copy.regionOffset, *copy.window, tracker);
        if (st.ok()) continue;
        ++failures;
        result = st;
        if (st == StatusCode::DiskNotPresent) continue;
        tracef(coutTrace, copy.failure, (unsigned long)entry.zoneNumber, (unsigned long)offset, st.Dump().c_str());
        LayoutManager::GetInstance()->InitiateBackgroundPatch(entry.zoneNumber, offset, copy.dataCopy, tracker);
    }
    return result;
}

// All copies in one parallel batch; false (and the switch cleared) when any
// of them failed, so that the caller writes them again one by one.
bool writeParallel(const ZoneTableEntry& entry, const std::vector<CopyTarget>& copies, IOTracker& tracker,
                   unsigned& failures) {
    std::vector<_IORequest> requests;
    for (const CopyTarget& copy : copies) {
        if (entry.region[copy.slot] == 0) {
            ++failures;
            continue;
        }
        _IORequest r;
        r.ld = entry.disk[copy.slot];
        r.region = entry.region[copy.slot];
        r.offset = copy.regionOffset;
        r.window = copy.window;
        requests.push_back(r);
    }
    StatusCode st = RegionManager::GetInstance()->WriteDataParallel(requests.data(), unsigned(requests.size()), tracker);
    for (const _IORequest& r : requests)
        if (st.ok() && !r.status.ok()) st = r.status;
    if (st.ok()) return true;
    ZoneManager::GetInstance()->setParallelIOs(false);
    tracef(coutTrace, "Error during Parallel ZM::WriteRegionData, error = %s, falling back to serial IOs\n",
           st.Dump().c_str());
    return false;
}
}  // namespace

StatusCode ZoneManager::WriteRegionData(uint32_t zone, uint32_t offset, DataWindow& window, IOTracker& tracker,
                                        unsigned& failures) {
    failures = 0;
    const uint64_t zoneSize = SystemDrivePackInfo::GetInstance()->GetZoneSize();
    if (uint64_t(offset) + window.GetLength() > zoneSize) {
        tracef(coutTrace, "ZoneOverflow: redundant data write start=%u, end=%u\n", offset,
               unsigned(offset + window.GetLength()));
        failures += kNothingWritten;
        return StatusCode::ZoneOverflow;
    }
    ZoneTableEntry entry;
    StatusCode st = ZoneTable::GetInstance()->LookupZone(zone, entry);
    if (!st.ok()) {
        tracef(coutTrace, "WriteRegionData: lookup failed - %s\n", st.Dump().c_str());
        failures += kNothingWritten;
        return st;
    }
    return writeRegion(entry, offset, window, tracker, failures);
}

StatusCode ZoneManager::writeRegion(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window,
                                    IOTracker& tracker, unsigned& failures) {
    const uint32_t zone = entry.zoneNumber;
    const RedundancyType type = entry.type();
    if (type == RedundancyType::None) {
        unsigned slot = 0;
        StatusCode st = entry.CalculateDataRegion(offset, slot);
        if (st.ok())
            st = RegionManager::GetInstance()->WriteData(entry.disk[slot], entry.region[slot],
                                                         offset % entry.geometry().GetRegionBoundary(), window,
                                                         tracker);
        if (!st.ok()) {
            if (st != StatusCode::DiskNotPresent)
                tracef(coutTrace, "WriteRegionData error on Zone %lu, offset %lu - %s\n", (unsigned long)zone,
                       (unsigned long)offset, st.Dump().c_str());
            failures += kNothingWritten;
        }
        return st;
    }
    if (type == RedundancyType::SelfMirrored || type == RedundancyType::Mirrored ||
        type == RedundancyType::Mirrored3)
        return writeMirrored(entry, offset, window, tracker, failures);
    if (RedundancyGeometry::IsStripe(type)) {
        ESA_ASSERT(!tracker.isMeta());  // metadata Zones are never striped
        return writeStriped(entry, offset, window, tracker, failures);
    }
    tracef(coutTrace, "Unsupported redundancy type (%u)\n", unsigned(entry.redundancyType));
    failures += kNothingWritten;
    return StatusCode::UnsupportedZoneType;
}

StatusCode ZoneManager::writeMirrored(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window,
                                      IOTracker& tracker, unsigned& failures) {
    const RedundancyType type = entry.type();
    const RedundancyGeometry geometry = entry.geometry();
    const uint32_t inRegion = offset % geometry.GetRegionBoundary();
    std::vector<CopyTarget> copies;
    copies.push_back({geometry.dataPlace(offset).slot, inRegion, &window, 0, kOriginalError});
    copies.push_back({geometry.primaryPlace(offset).slot, inRegion, &window, 1,
                      type == RedundancyType::SelfMirrored ? kRedundantError : kPrimaryError});
    if (type == RedundancyType::Mirrored3)
        copies.push_back({geometry.secondaryPlace(offset).slot, inRegion, &window, 2, kSecondaryError});

    // Metadata reaches its copies one after the other, never at the same
    // time, so that a torn write leaves one whole copy. SelfMirrored keeps
    // both copies on one disk and writes them in turn.
    if (type != RedundancyType::SelfMirrored && (parallelIOs() || entry.zoneNumber == 1) && !tracker.isMeta()) {
        if (writeParallel(entry, copies, tracker, failures)) return StatusCode::Success;
    }
    failures = 0;
    return writeSerial(entry, offset, copies, tracker, failures);
}

StatusCode ZoneManager::writeStriped(const ZoneTableEntry& entry, uint32_t offset, DataWindow& window,
                                     IOTracker& tracker, unsigned& failures) {
    const RedundancyType type = entry.type();
    const bool dual = RedundancyGeometry::IsDRStripe(type);
    const unsigned width = entry.GetStripeWidth(), d = entry.GetStripeDataWidth();
    const uint32_t boundary = entry.GetRegionBoundary();
    const uint32_t stripeLine = d * kStripeBlock;
    const uint32_t line = dual ? entry.GetSuperStripeLineSize() : stripeLine;
    const uint32_t end = offset + window.GetLength();
    const uint32_t lineStart = offset / line * line, lineEnd = (end + line - 1) / line * line;

    // The line made whole: what the caller gives, with the rest read in.
    DataWindow padded;
    if (lineStart < offset) {
        DataWindow fill(offset - lineStart, 0, offset - lineStart);
        StatusCode st = dual ? ReadPartialLineDR(fill, lineStart, lineStart, offset, entry, width, boundary, tracker)
                             : ReadPartialLine(fill, lineStart, lineStart, offset, entry, width, boundary, tracker);
        if (!st.ok()) {
            tracef(coutTrace, "WriteRegionData start fill-in failed - %s\n", st.Dump().c_str());
            failures += kNothingWritten;
            return st;
        }
        padded.add(fill);
    }
    padded.add(window);
    if (end < lineEnd) {
        DataWindow fill(lineEnd - end, 0, lineEnd - end);
        StatusCode st = dual ? ReadPartialLineDR(fill, end, end, lineEnd, entry, width, boundary, tracker)
                             : ReadPartialLine(fill, end, end, lineEnd, entry, width, boundary, tracker);
        if (!st.ok()) {
            tracef(coutTrace, "WriteRegionData end fill-in failed\n");
            failures += kNothingWritten;
            return st;
        }
        padded.add(fill);
    }

    const uint32_t columnLength = (lineEnd - lineStart) / d;
    std::vector<DataWindow> columns(d);
    padded.buildStripeWindows(0, kStripeBlock, (lineEnd - lineStart) / kStripeBlock, columns, d, 0);
    DataWindow horizontal(columnLength, 0, columnLength), diagonal;
    StatusCode st;
    if (!dual) {
        XORWindow(horizontal, columns.data(), d, st);
        if (!st.ok()) {
            tracef(coutTrace, "WriteRegionData XOR failed, error = %s\n", st.Dump().c_str());
            failures += kNothingWritten;
            return st;
        }
    } else {
        diagonal = DataWindow(columnLength, 0, columnLength);
        DRStripeCode code;
        DRStripeCode::forWidth(width, code);
        // Whole superstripe lines at a time, as many as the zero columns'
        // window covers: the parity of each line depends on that line alone.
        const uint32_t colBlock = code.columnBlockSize();
        const uint32_t step = std::max(colBlock, m_zeroed_window.GetLength() / colBlock * colBlock);
        std::vector<DataWindow> sources(code.sources());
        for (uint32_t pos = 0; pos < columnLength && st.ok(); pos += step) {
            const uint32_t n = std::min(step, columnLength - pos);
            for (unsigned z = 0; z < code.zeroColumns; ++z) sources[z] = DataWindow(m_zeroed_window, 0, n);
            for (unsigned c = 0; c < d; ++c) sources[code.zeroColumns + c] = DataWindow(columns[c], pos, n);
            XOR2DWindow(DataWindow(horizontal, pos, n), DataWindow(diagonal, pos, n), sources.data(),
                        code.sources(), kStripeBlock, st);
        }
        if (!st.ok()) {
            tracef(coutTrace, "WriteRegionData XOR2D operation failed, error = %s\n", st.Dump().c_str());
            failures += kNothingWritten;
            return st;
        }
    }

    const uint32_t g = offset / boundary, q = RedundancyGeometry::SlotsPerColumn(type);
    const uint32_t regionOffset = (lineStart % boundary) / stripeLine * kStripeBlock;
    std::vector<CopyTarget> copies;
    CopyTarget primary{d * q + g, regionOffset, &horizontal, 1, kPrimaryError};
    if (!dual) copies.push_back(primary);
    for (unsigned c = 0; c < d; ++c) copies.push_back({c * q + g, regionOffset, &columns[c], 0, kOriginalError});
    if (dual) {
        copies.push_back(primary);
        copies.push_back({(d + 1) * q + g, regionOffset, &diagonal, 2, kSecondaryError});
    }
    ESA_TRACE(zmWriteRegionTrace, "Zone " << entry.zoneNumber << " line write [" << lineStart << ", " << lineEnd
                                          << ") at region offset " << regionOffset);
    if (parallelIOs() || entry.zoneNumber == 1) {
        if (writeParallel(entry, copies, tracker, failures)) return StatusCode::Success;
    }
    failures = 0;
    return writeSerial(entry, offset, copies, tracker, failures);
}
