#include "zone/ZoneAllocationRules.h"

#include <algorithm>

#include "zone/RedundancyGeometry.h"

namespace ZoneAllocationRules {

namespace {

using RT = RedundancyType;

struct Candidate {
    RT type;
    size_t disks;       // the first `disks` entries must each have...
    uint64_t atLeast;   // ...at least this many Regions beyond the reserve
};

bool fits(const std::vector<uint64_t>& beyondReserve, const Candidate& c) {
    if (beyondReserve.size() < c.disks) return false;
    for (size_t i = 0; i < c.disks; ++i)
        if (beyondReserve[i] < c.atLeast) return false;
    return true;
}

}  // namespace

unsigned DisksFor(RedundancyType type) { return RedundancyGeometry::ColumnCount(type); }

unsigned SharePerDisk(RedundancyType type) { return RedundancyGeometry::SlotsPerColumn(type); }

bool DualMode(const AllocationSwitches& sw, size_t availableDisks) { return sw.dualBit && availableDisks > 2; }

StatusCode ChooseRedundancy(std::vector<FreeRegions>& free, const AllocationSwitches& sw, bool allowStripes,
                            bool allowSelfMirrored, RedundancyType& type) {
    std::sort(free.begin(), free.end(), FreeRegionsComparer());
    std::vector<uint64_t> beyond(free.size());
    for (size_t i = 0; i < free.size(); ++i) beyond[i] = free[i].count > kReserve ? free[i].count - kReserve : 0;
    const uint64_t n = kRegionsPerZone;
    const bool dual = DualMode(sw, free.size());
    const bool allowSelf = allowSelfMirrored || sw.selfMirroringBit || free.size() == 1;

    // Widest first. A type of width w with d data columns needs n/d on each of
    // its w disks (N > w - 1 is the same as having w entries).
    static const Candidate kDual[] = {{RT::DRStripe10, 10, n / 8}, {RT::DRStripe8, 8, n / 6},
                                      {RT::DRStripe6, 6, n / 4},   {RT::DRStripe5, 5, n / 3},
                                      {RT::DRStripe4, 4, n / 2}};
    static const Candidate kSingle[] = {{RT::HStripe9, 9, n / 8}, {RT::HStripe7, 7, n / 6}, {RT::HStripe5, 5, n / 4},
                                        {RT::HStripe4, 4, n / 3}, {RT::HStripe3, 3, n / 2}};
    if (allowStripes) {
        const Candidate* first = dual ? std::begin(kDual) : std::begin(kSingle);
        const Candidate* last = dual ? std::end(kDual) : std::end(kSingle);
        for (const Candidate* c = first; c != last; ++c)
            if (fits(beyond, *c)) {
                type = c->type;
                return StatusCode::Success;
            }
    }
    if (dual) {
        if (fits(beyond, {RT::Mirrored3, 3, n})) {
            type = RT::Mirrored3;
            return StatusCode::Success;
        }
        // Nothing narrower than Mirrored3 is offered in dual mode.
        return StatusCode::OutOfSpace;
    }
    if (fits(beyond, {RT::Mirrored, 2, n})) {
        type = RT::Mirrored;
        return StatusCode::Success;
    }
    if (allowSelf && fits(beyond, {RT::SelfMirrored, 1, 2 * n})) {
        type = RT::SelfMirrored;
        if (sw.allOtherDisksCritical && sw.allOtherDisksCritical(free[0].ld)) return StatusCode::OutOfSpace;
        return StatusCode::Success;
    }
    return StatusCode::OutOfSpace;
}

RedundancyType NarrowForMirrorOnly(RedundancyType type, bool dualMode) {
    const unsigned order = RedundancyGeometry::RedundancyOrder(uint32_t(type));
    if (dualMode && order > RedundancyGeometry::RedundancyOrder(uint32_t(RT::Mirrored3))) type = RT::Mirrored3;
    if (!dualMode && RedundancyGeometry::RedundancyOrder(uint32_t(type)) >
                         RedundancyGeometry::RedundancyOrder(uint32_t(RT::Mirrored)))
        type = RT::Mirrored;
    return type;
}

StatusCode SimulateZoneCount(std::vector<FreeRegions> free, const AllocationSwitches& sw, bool allowSelfMirrored,
                             bool onlySelfMirrored, uint64_t& zones) {
    zones = 0;
    const uint64_t n = kRegionsPerZone;
    for (;;) {
        RedundancyType type = RT::Unset;
        StatusCode st = ChooseRedundancy(free, sw, true, allowSelfMirrored, type);
        if (st == StatusCode::UnsupportedZoneType) return st;
        if (st != StatusCode::Success) return StatusCode::Success;
        uint64_t booked = 0;
        switch (type) {
        case RT::SelfMirrored:
            booked = free[0].count / (2 * n);
            free[0].count -= booked * 2 * n;
            break;
        case RT::Mirrored:
        case RT::Mirrored3: {
            const size_t copies = type == RT::Mirrored ? 2 : 3;
            booked = free[copies - 1].count / n;
            for (size_t i = 0; i < copies; ++i) free[i].count -= booked * n;
            break;
        }
        default: {
            if (!RedundancyGeometry::IsStripe(type)) return StatusCode::UnsupportedZoneType;
            const uint64_t w = DisksFor(type), s = SharePerDisk(type);
            size_t usable = 0;
            while (usable < free.size() && free[usable].count >= s) ++usable;
            const uint64_t block = free[usable - 1].count / s;
            for (size_t i = 0; i < usable; ++i) free[i].count -= block * s;
            booked = usable * block / w;
            break;
        }
        }
        // A step that books nothing would repeat forever: the choice saw room
        // beyond the reserve, so this cannot happen; stop rather than spin.
        if (booked == 0) return StatusCode::Success;
        if (!onlySelfMirrored || type == RT::SelfMirrored) zones += booked;
    }
}

}  // namespace ZoneAllocationRules
