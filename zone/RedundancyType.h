#pragma once
// RedundancyType: how a Zone's data and its redundancy are laid over Regions.
// The values are stored in every Zone table entry; 3 to 6 are retired and 0x12
// marks an entry whose type is not chosen yet.
#include <cstdint>

enum class RedundancyType : uint32_t {
    None = 0,
    SelfMirrored = 1,
    Mirrored = 2,
    HStripe3 = 7,
    HStripe4 = 8,
    HStripe5 = 9,
    HStripe7 = 10,
    HStripe9 = 11,
    Mirrored3 = 12,
    DRStripe4 = 13,
    DRStripe5 = 14,
    DRStripe6 = 15,
    DRStripe8 = 16,
    DRStripe10 = 17,
    Unset = 0x12,
};

// Every type a Zone can have, narrowest first by value.
constexpr RedundancyType kRedundancyTypes[] = {
    RedundancyType::None,      RedundancyType::SelfMirrored, RedundancyType::Mirrored,  RedundancyType::HStripe3,
    RedundancyType::HStripe4,  RedundancyType::HStripe5,     RedundancyType::HStripe7,  RedundancyType::HStripe9,
    RedundancyType::Mirrored3, RedundancyType::DRStripe4,    RedundancyType::DRStripe5, RedundancyType::DRStripe6,
    RedundancyType::DRStripe8, RedundancyType::DRStripe10,
};
