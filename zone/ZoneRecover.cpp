// Rebuilding one column of a stripe Zone from the other columns of its lines:
// the horizontal parity alone (HStripe, and DRStripe while one column is
// lost), or the dual-parity walk over whole superstripe lines (DRStripe with
// two columns lost). These are const: all state is on the stack or in stores
// of their own; the zeroed window is only read.
#include <array>
#include <vector>

#include "region/RegionManager.h"
#include "util/Assert.h"
#include "util/Trace.h"
#include "zone/DRRecovery.h"
#include "zone/DataWindowXOR.h"
#include "zone/XorEngine.h"
#include "zone/ZoneManager.h"

namespace {
Trace zmRecoverTrace("ZM", "Recover", "debug", false);

// The slot of code column `column` (data columns, then the parities) in
// Region row g of a stripe Zone.
unsigned stripeSlot(const ZoneTableEntry& entry, unsigned column, uint32_t g) {
    return column * RedundancyGeometry::SlotsPerColumn(entry.type()) + g;
}

// window = XOR of the `columns` (code column numbers) other than `lost`, all
// read at regionOffset of Region row g. The first read lands in the window
// itself, each later one in a scratch window that is then XORed in.
StatusCode xorOtherColumns(DataWindow& window, const ZoneTableEntry& entry, unsigned columns, unsigned lost,
                           uint32_t g, uint32_t regionOffset, IOTracker& tracker) {
    const uint32_t length = window.GetLength();
    DataWindow temp(length, 0, length);
    bool first = true;
    for (unsigned c = 0; c < columns; ++c) {
        if (c == lost) {
            ESA_TRACE(zmRecoverTrace, "Skipping recovery index " << c);
            continue;
        }
        const unsigned slot = stripeSlot(entry, c, g);
        if (entry.region[slot] == 0) return StatusCode::ZM_UnusableRegion;
        DataWindow& target = first ? window : temp;
        StatusCode st =
            RegionManager::GetInstance()->ReadData(entry.disk[slot], entry.region[slot], regionOffset, target, tracker);
        if (!st.ok()) {
            tracef(coutTrace,
                   first ? "RecoverHStripeBlock: Reading stripe block %u of %u into result window failed - %s\n"
                         : "RecoverHStripeBlock: Reading stripe block %u of %u into temp window failed - %s\n",
                   c, columns, st.Dump().c_str());
            return st;
        }
        if (!first) {
            XORWindow(window, temp, st);
            if (!st.ok()) return st;
        }
        first = false;
    }
    return StatusCode::Success;
}

uint32_t stripeRegionOffset(uint32_t o, uint32_t boundary, unsigned d) {
    const uint32_t line = d * ZoneManager::kStripeBlock;
    return (o % boundary) / line * ZoneManager::kStripeBlock + o % ZoneManager::kStripeBlock;
}
}  // namespace

StatusCode ZoneManager::RecoverHStripeBlock(DataWindow& window, unsigned width, const ZoneTableEntry& entry,
                                            uint32_t offset, IOTracker& tracker) const {
    const unsigned d = width - 1;
    const uint32_t boundary = entry.GetRegionBoundary();
    const unsigned lost = (offset / kStripeBlock) % d;
    return xorOtherColumns(window, entry, width, lost, offset / boundary, stripeRegionOffset(offset, boundary, d),
                           tracker);
}

StatusCode ZoneManager::RecoverDRStripeBlockPrimary(DataWindow& window, unsigned width, const ZoneTableEntry& entry,
                                                    uint32_t offset, IOTracker& tracker) const {
    if (entry.IsDoubleDegraded()) {
        ESA_TRACE(zmRecoverTrace, "Zone " << entry.zoneNumber
                                          << " is DoubleDegraded, switching straight to using "
                                             "RecoverDRStripeBlockSecondary");
        return RecoverDRStripeBlockSecondary(window, width, entry, offset, tracker);
    }
    const unsigned d = width - 2;
    const uint32_t boundary = entry.GetRegionBoundary();
    const unsigned lost = (offset / kStripeBlock) % d;
    // Data columns and the horizontal parity (code column d), not the diagonal.
    StatusCode st = xorOtherColumns(window, entry, d + 1, lost, offset / boundary,
                                    stripeRegionOffset(offset, boundary, d), tracker);
    if (st.ok()) return st;
    return RecoverDRStripeBlockSecondary(window, width, entry, offset, tracker);
}

StatusCode ZoneManager::RecoverDRStripeBlockSecondary(DataWindow& window, unsigned width, const ZoneTableEntry& entry,
                                                      uint32_t offset, IOTracker& tracker) const {
    DRStripeCode code;
    if (!DRStripeCode::forWidth(width, code)) return StatusCode::UnsupportedZoneType;
    if (code.zeroColumns)
        ESA_TRACE(zmRecoverTrace, "RecoverDRStripeBlockSecondary called for DRStripe" << width
                                                                                     << " Zone, padding stripeWidth to "
                                                                                     << code.paddedWidth());
    const unsigned W = code.paddedWidth(), d = code.dataColumns, z = code.zeroColumns;
    const uint32_t line = d * kStripeBlock, superLine = code.rows() * line, colBlock = code.columnBlockSize();
    const uint32_t boundary = entry.GetRegionBoundary(), g = offset / boundary;

    // Pad the request to whole column blocks of its superstripe lines.
    const uint32_t front = ((line * (offset / line)) % superLine) / d + offset % kStripeBlock;
    const uint32_t padded = (front + window.GetLength() + colBlock - 1) / colBlock * colBlock;
    const uint32_t back = padded - front - window.GetLength();
    if (front) ESA_TRACE(zmRecoverTrace, "Data missing from start of SuperStripe line = " << front);
    if (back) ESA_TRACE(zmRecoverTrace, "Data missing from end of SuperStripe line = " << back);
    DataWindow target;
    if (front) target.add(DataWindow(front, 0, front));
    target.add(window);
    if (back) target.add(DataWindow(back, 0, back));
    const ExtentList targetExtents = extentsOf(target);

    const unsigned lost = (offset / kStripeBlock) % d + z;
    const uint32_t diskWindow = ((0x100000 / superLine) * superLine) / d;
    ESA_ASSERT_OP(diskWindow, <=, m_zeroed_window.GetLength());
    const ExtentList zeros = extentsOf(m_zeroed_window);
    std::vector<DataWindow> batches(W);
    std::vector<ExtentList> batchExtents(W);
    for (unsigned x = z; x < W; ++x) {
        if (x == lost) continue;
        batches[x] = DataWindow(diskWindow, 0, diskWindow);
        batchExtents[x] = extentsOf(batches[x]);
    }
    const uint32_t regionStart = (offset % boundary) / superLine * colBlock;

    std::array<bool, kXorMaxSources + 1> present{};
    std::array<ExtentList, kXorMaxSources + 1> lineColumns;
    uint32_t batchLength = 0, batchUsed = 0;
    for (uint32_t pos = 0; pos < padded; pos += colBlock, batchUsed += colBlock) {
        ESA_TRACE(zmRecoverTrace, "Performing recovery for SuperStripe line number " << pos / colBlock);
        if (batchUsed == batchLength) {
            batchLength = std::min(diskWindow, padded - pos);
            batchUsed = 0;
            unsigned missing = 0;
            for (unsigned x = 0; x < W; ++x) {
                present[x] = false;
                if (x == lost) {
                    ++missing;
                    continue;
                }
                if (x < z) {
                    ESA_TRACE(zmRecoverTrace, "Index " << x << " points at the zeroed Window - skipping disk read");
                    present[x] = true;
                    continue;
                }
                const unsigned slot = stripeSlot(entry, x - z, g);
                if (entry.region[slot] == 0) {
                    ESA_TRACE(zmRecoverTrace, "Skipping bad Region at index " << x);
                    ++missing;
                    continue;
                }
                DataWindow batch(batches[x], 0, batchLength);
                StatusCode st = RegionManager::GetInstance()->ReadData(entry.disk[slot], entry.region[slot],
                                                                       regionStart + pos, batch, tracker);
                if (!st.ok()) {
                    tracef(coutTrace, "RecoverDRStripeBlockSecondary: Reading stripe block %u of %u failed - %s\n",
                           x, W, st.Dump().c_str());
                    ++missing;
                    continue;
                }
                present[x] = true;
            }
            if (missing > 2) {
                ESA_CONSOLE("RecoverDRStripeBlockSecondary: Too many read errors, recovery failed");
                return StatusCode::InternalError;
            }
        }
        for (unsigned x = 0; x < W; ++x) {
            if (x == lost) lineColumns[x] = targetExtents.slice(pos, colBlock);
            else if (x < z) lineColumns[x] = zeros.slice(0, colBlock);
            else lineColumns[x] = batchExtents[x].slice(batchUsed, colBlock);
        }
        StatusCode st = DRRecoveryMatrix::ForCode(code).recoverLine(lineColumns.data(), present.data(), kStripeBlock);
        if (!st.ok()) return st;
    }
    return StatusCode::Success;
}
