#pragma once
// A model of the Zone type choice for tests, written from the rules rather
// than from the code: a type fits when enough disks have its share of Regions
// beyond the reserve of 24; in a mode the widest type that fits wins; the
// Zone takes its share from the disks with the most free Regions.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "zone/RedundancyType.h"

namespace ZoneAllocationModel {

struct Type {
    RedundancyType type;
    unsigned disks;
    uint64_t share;
};

inline const std::vector<Type>& single() {
    static const std::vector<Type> t = {{RedundancyType::HStripe9, 9, 3},  {RedundancyType::HStripe7, 7, 4},
                                        {RedundancyType::HStripe5, 5, 6},  {RedundancyType::HStripe4, 4, 8},
                                        {RedundancyType::HStripe3, 3, 12}, {RedundancyType::Mirrored, 2, 24}};
    return t;
}
inline const std::vector<Type>& dual() {
    static const std::vector<Type> t = {{RedundancyType::DRStripe10, 10, 3}, {RedundancyType::DRStripe8, 8, 4},
                                        {RedundancyType::DRStripe6, 6, 6},   {RedundancyType::DRStripe5, 5, 8},
                                        {RedundancyType::DRStripe4, 4, 12},  {RedundancyType::Mirrored3, 3, 24}};
    return t;
}

// The widest type that fits, stripes allowed, no self-mirroring; false: none.
inline bool choose(const std::vector<uint64_t>& counts, bool dualBit, Type& out) {
    const bool dualMode = dualBit && counts.size() > 2;
    for (const Type& t : dualMode ? dual() : single()) {
        unsigned roomy = 0;
        for (uint64_t c : counts) roomy += c >= 24 + t.share;
        if (roomy >= t.disks) {
            out = t;
            return true;
        }
    }
    return false;
}

// Takes the type's share from the disks with the most free Regions.
inline void take(std::vector<uint64_t>& counts, const Type& t) {
    std::vector<size_t> order(counts.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return counts[a] > counts[b]; });
    for (unsigned i = 0; i < t.disks; ++i) counts[order[i]] -= t.share;
}

}  // namespace ZoneAllocationModel
