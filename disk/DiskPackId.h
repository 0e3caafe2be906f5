#pragma once
// DiskPackId: the identity of a disk pack, two 32-bit words kept in every DIS
// and RecoveryBlock. Two ids are equal when all 8 bytes are.
#include <cstdint>

struct DiskPackId {
    uint32_t word[2] = {0, 0};
    bool operator==(const DiskPackId& other) const { return word[0] == other.word[0] && word[1] == other.word[1]; }
    bool operator!=(const DiskPackId& other) const { return !(*this == other); }
    bool isZero() const { return word[0] == 0 && word[1] == 0; }
};
