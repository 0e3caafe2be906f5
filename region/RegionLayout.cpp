#include "region/RegionLayout.h"

#include <algorithm>

#include "region/RMMetadataFormat.h"

namespace {
constexpr uint32_t kGap = RMLayout::kMetadataGap;
}

RegionLayout::Range RegionLayout::guarded(unsigned i) const {
    Range r = dis[i];
    if (i < 2) r.end = r.end + 1 + kQualifySectors;
    return r;
}

RegionLayout::RegionLayout(uint32_t cap, uint32_t rlba, uint32_t pad, const std::array<Range, 3>& ranges,
                           uint32_t bitmapSectors)
    : capacity(cap),
      regionSectors(rlba),
      padding(pad),
      dis(ranges),
      regions(regionCountFor(cap, rlba, pad)),
      copySectors(1 + bitmapSectors) {}

RegionLayout RegionLayout::forCapacity(uint32_t cap, uint32_t rlba, uint32_t pad, const std::array<Range, 3>& ranges) {
    return RegionLayout(cap, rlba, pad, ranges, bitmapBytesFor(regionCountFor(cap, rlba, pad)) / 512);
}

bool RegionLayout::copyFits(uint32_t lba) const {
    if (stride() == 0) return false;
    uint64_t end = uint64_t(lba) + copySectors;  // one past the last sector
    uint32_t region = regionOf(lba);
    if (end > uint64_t(regionStart(region)) + regionSectors) return false;  // would reach the padding sector
    if (end > capacity) return false;
    for (unsigned i = 0; i < dis.size(); ++i)
        if (lba < guarded(i).end && end > guarded(i).first) return false;
    return true;
}

// The first position is the one the disk format names: 0x400 sectors past the
// end of the DIS range. Where DIS range 1 lies so close to the end of its
// Region that the copy would not fit there (or the range runs on into the next
// Region), the copy goes to the first place in the following Regions where it
// fits: the start of the next Region, or past the range's tail by the gap.
bool RegionLayout::initialCopyLba(unsigned copy, uint32_t& lba) const {
    uint64_t pos = copy == 0 ? kFirstCopyLba : uint64_t(dis[1].end) + kGap;
    if (pos < capacity && copyFits(uint32_t(pos))) {
        lba = uint32_t(pos);
        return true;
    }
    if (copy == 0) return false;
    for (uint32_t region = regionOf(dis[1].first) + 1; region < regions && region <= regionOf(dis[1].end) + 1;
         ++region) {
        uint64_t start = regionStart(region);
        if (start < uint64_t(dis[1].end) + kGap) start = uint64_t(dis[1].end) + kGap;
        if (start < capacity && copyFits(uint32_t(start))) {
            lba = uint32_t(start);
            return true;
        }
    }
    return false;
}

bool RegionLayout::nextCopyLba(uint32_t old, uint32_t& lba) const {
    uint32_t region = regionOf(old);
    uint64_t pos = uint64_t(old) + kGap;
    for (unsigned i = 0; i < dis.size(); ++i)
        if (pos < guarded(i).end && pos + copySectors > guarded(i).first) pos = uint64_t(dis[i].end) + kGap;
    if (pos + copySectors > uint64_t(regionStart(region)) + regionSectors || regionOf(uint32_t(pos)) != region)
        return false;
    if (!copyFits(uint32_t(pos))) return false;
    lba = uint32_t(pos);
    return true;
}

std::vector<uint32_t> RegionLayout::reservedRegions(uint32_t lba0, uint32_t lba1) const {
    std::vector<uint32_t> out;
    auto add = [&](uint32_t lba) {
        uint32_t r = regionOf(lba);
        if (r < regions) out.push_back(r);
    };
    for (unsigned i = 0; i < dis.size(); ++i) {
        add(guarded(i).first);
        add(std::min(guarded(i).end, capacity) - 1);
    }
    for (uint32_t lba : {lba0, lba1}) {
        add(lba);
        add(lba + copySectors - 1);
    }
    if (lastRegionPartial() && regions) out.push_back(regions - 1);
    out.push_back(0);
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}
