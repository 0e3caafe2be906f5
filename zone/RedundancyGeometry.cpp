#include "zone/RedundancyGeometry.h"

#include "util/Assert.h"
#include "util/Trace.h"
#include "zone/DRStripeCode.h"

namespace {

void traceUnsupported() { ESA_CONSOLE("Unsupported redundancy type"); }

constexpr const char* kNames[] = {"None",     "SelfMirrored", "Mirrored",  nullptr,     nullptr,     nullptr,
                                  nullptr,    "HStripe3",     "HStripe4",  "HStripe5",  "HStripe7",  "HStripe9",
                                  "Mirrored3", "DRStripe4",   "DRStripe5", "DRStripe6", "DRStripe8", "DRStripe10"};

// Mirrored3 ranks just above Mirrored and below every stripe.
constexpr unsigned kOrder[18] = {0, 1, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 3, 13, 14, 15, 16, 17};

uint32_t value(RedundancyType type) { return static_cast<uint32_t>(type); }

}  // namespace

bool RedundancyGeometry::IsSupported(RedundancyType type) {
    const uint32_t v = value(type);
    return v < 18 && kNames[v] != nullptr;
}

bool RedundancyGeometry::IsHStripe(RedundancyType type) {
    return value(type) >= value(RedundancyType::HStripe3) && value(type) <= value(RedundancyType::HStripe9);
}

bool RedundancyGeometry::IsDRStripe(RedundancyType type) {
    return value(type) >= value(RedundancyType::DRStripe4) && value(type) <= value(RedundancyType::DRStripe10);
}

bool RedundancyGeometry::DualRedundancy(RedundancyType type) {
    return value(type) >= value(RedundancyType::Mirrored3) && value(type) <= value(RedundancyType::DRStripe10);
}

unsigned RedundancyGeometry::GetStripeWidth(RedundancyType type) {
    switch (type) {
    case RedundancyType::None: return 0;
    case RedundancyType::SelfMirrored: return 1;
    case RedundancyType::Mirrored: return 2;
    case RedundancyType::HStripe3: return 3;
    case RedundancyType::HStripe4: return 4;
    case RedundancyType::HStripe5: return 5;
    case RedundancyType::HStripe7: return 7;
    case RedundancyType::HStripe9: return 9;
    case RedundancyType::Mirrored3: return 3;
    case RedundancyType::DRStripe4: return 4;
    case RedundancyType::DRStripe5: return 5;
    case RedundancyType::DRStripe6: return 6;
    case RedundancyType::DRStripe8: return 8;
    case RedundancyType::DRStripe10: return 10;
    default: traceUnsupported(); return 0;
    }
}

unsigned RedundancyGeometry::GetStripeDataWidth(RedundancyType type) {
    if (IsHStripe(type)) return GetStripeWidth(type) - 1;
    if (IsDRStripe(type)) return GetStripeWidth(type) - 2;
    if (IsSupported(type)) return 1;
    traceUnsupported();
    return 0;
}

unsigned RedundancyGeometry::GetRegionCount(RedundancyType type) {
    switch (type) {
    case RedundancyType::None: return kRegionsPerZone;
    case RedundancyType::SelfMirrored:
    case RedundancyType::Mirrored: return 2 * kRegionsPerZone;
    case RedundancyType::Mirrored3: return 3 * kRegionsPerZone;
    default:
        if (IsStripe(type)) return GetStripeWidth(type) * (kRegionsPerZone / GetStripeDataWidth(type));
        traceUnsupported();
        return 0;
    }
}

unsigned RedundancyGeometry::ColumnCount(RedundancyType type) {
    switch (type) {
    case RedundancyType::None:
    case RedundancyType::SelfMirrored: return 1;
    case RedundancyType::Mirrored: return 2;
    case RedundancyType::Mirrored3: return 3;
    default: return IsStripe(type) ? GetStripeWidth(type) : 0;
    }
}

unsigned RedundancyGeometry::SlotsPerColumn(RedundancyType type) {
    if (type == RedundancyType::SelfMirrored) return 2 * kRegionsPerZone;
    if (IsStripe(type)) return kRegionsPerZone / GetStripeDataWidth(type);
    return kRegionsPerZone;
}

unsigned RedundancyGeometry::ColumnsItCanLose(RedundancyType type) {
    if (DualRedundancy(type)) return 2;
    if (type == RedundancyType::Mirrored || IsHStripe(type)) return 1;
    return 0;
}

unsigned RedundancyGeometry::RedundancyOrder(uint32_t typeValue) { return typeValue < 18 ? kOrder[typeValue] : 0; }

std::string RedundancyGeometry::DecodeRedundancyType(uint32_t typeValue) {
    if (typeValue < 18 && kNames[typeValue]) return kNames[typeValue];
    return "*** ERROR - UNKNOWN REDUNDANCYTYPE (" + std::to_string(typeValue) + ") ***";
}

RedundancyGeometry::RedundancyGeometry(RedundancyType type, uint32_t zoneNumber, uint32_t regionSize)
    : mType(type), mZone(zoneNumber), mRegionSize(regionSize) {}

bool RedundancyGeometry::valid() const {
    if (!IsSupported(mType) || mRegionSize == 0) return false;
    // Offsets are 32-bit: a mirror's copies lie in one run of slots, so that run must fit.
    const uint64_t span = uint64_t(mRegionSize) * (IsStripe(mType) ? kRegionsPerZone : GetRegionCount(mType));
    if (span > (uint64_t(1) << 32)) return false;
    if (!IsStripe(mType)) return true;
    if (mRegionSize % kStripeBlock) return false;
    if (!IsDRStripe(mType)) return true;
    DRStripeCode code;
    DRStripeCode::forWidth(GetStripeWidth(mType), code);
    return (mRegionSize / kStripeBlock) % code.rows() == 0;
}

uint32_t RedundancyGeometry::GetSuperStripeLineSize() const {
    DRStripeCode code;
    if (!IsDRStripe(mType) || !DRStripeCode::forWidth(GetStripeWidth(mType), code)) {
        traceUnsupported();
        return 0;
    }
    return code.superStripeLineSize();
}

uint32_t RedundancyGeometry::GetRegionBoundary() const {
    if (!IsStripe(mType)) return mRegionSize;
    const uint32_t boundary = mRegionSize * GetStripeDataWidth(mType);
    if (!IsDRStripe(mType)) return boundary;
    const uint32_t line = GetSuperStripeLineSize();
    return boundary / line * line;
}

uint32_t RedundancyGeometry::NextRegionDelta(uint32_t offset) const {
    if (!IsSupported(mType)) {
        traceUnsupported();
        return mRegionSize;
    }
    if (!IsStripe(mType)) return mRegionSize;
    const unsigned d = GetStripeDataWidth(mType);
    if ((offset >> 12) % d != d - 1) return kStripeBlock;
    return mRegionSize * d - (d - 1) * kStripeBlock;
}

uint32_t RedundancyGeometry::stripeOffsetInRegion(uint32_t offset) const {
    const uint32_t line = GetStripeDataWidth(mType) * kStripeBlock;
    return (offset % GetRegionBoundary()) / line * kStripeBlock + offset % kStripeBlock;
}

RegionPlace RedundancyGeometry::dataPlace(uint32_t offset) const {
    ESA_ASSERT(valid());
    ESA_ASSERT_OP(offset, <, zoneSize());
    const uint32_t R = mRegionSize, Z = zoneSize();
    switch (mType) {
    case RedundancyType::None:
    case RedundancyType::SelfMirrored: return {offset / R, offset % R};
    case RedundancyType::Mirrored: return {(mZone % 2 ? offset + Z : offset) / R, offset % R};
    case RedundancyType::Mirrored3: return {(Z * (mZone % 3) + offset) / R, offset % R};
    default: {
        const unsigned d = GetStripeDataWidth(mType), q = SlotsPerColumn(mType);
        return {(offset >> 12) % d * q + offset / GetRegionBoundary(), stripeOffsetInRegion(offset)};
    }
    }
}

RegionPlace RedundancyGeometry::primaryPlace(uint32_t offset) const {
    ESA_ASSERT(valid());
    ESA_ASSERT_OP(offset, <, zoneSize());
    const uint32_t R = mRegionSize, Z = zoneSize();
    switch (mType) {
    case RedundancyType::None: return {offset / R, offset % R};
    case RedundancyType::SelfMirrored: return {(offset + Z) / R, offset % R};
    case RedundancyType::Mirrored: return {(mZone % 2 ? offset : offset + Z) / R, offset % R};
    case RedundancyType::Mirrored3: return {(Z * ((mZone + 1) % 3) + offset) / R, offset % R};
    default: {
        const unsigned d = GetStripeDataWidth(mType), q = SlotsPerColumn(mType);
        return {d * q + offset / GetRegionBoundary(), stripeOffsetInRegion(offset)};
    }
    }
}

RegionPlace RedundancyGeometry::secondaryPlace(uint32_t offset) const {
    ESA_ASSERT(valid());
    ESA_ASSERT(DualRedundancy(mType));
    ESA_ASSERT_OP(offset, <, zoneSize());
    const uint32_t R = mRegionSize, Z = zoneSize();
    if (mType == RedundancyType::Mirrored3) return {(Z * ((mZone + 2) % 3) + offset) / R, offset % R};
    const unsigned d = GetStripeDataWidth(mType), q = SlotsPerColumn(mType);
    return {(d + 1) * q + offset / GetRegionBoundary(), stripeOffsetInRegion(offset)};
}

bool RedundancyGeometry::place(RegionCopy copy, uint32_t offset, RegionPlace& out) const {
    switch (copy) {
    case RegionCopy::Data: out = dataPlace(offset); return true;
    case RegionCopy::Primary:
        if (mType == RedundancyType::None) return false;
        out = primaryPlace(offset);
        return true;
    case RegionCopy::Secondary:
        if (!DualRedundancy(mType)) return false;
        out = secondaryPlace(offset);
        return true;
    }
    return false;
}
