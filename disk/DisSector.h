#pragma once
// DisSector: the on-disk form of a disk information sector, one 512-byte,
// little-endian sector kept in three ranges on every disk. It holds a global
// part (identical on every disk of a pack), the local part of this disk, and
// an extension with the expunge reason. encode() clears the sector before
// filling it and computes both checksums; decode() checks signatures, version
// and checksums, and tells what is wrong with a sector that fails.
#include <array>
#include <cstdint>
#include <string>

namespace DisLayout {
constexpr uint32_t kSig0 = 0xFEEDBEEF;
constexpr uint32_t kSig1 = 0xDEADC01D;
constexpr uint32_t kSig3 = 0xFACEBEAD;
constexpr uint32_t kVersion = 0x10;
constexpr uint32_t kCurrentLayout = 0x11;
constexpr uint32_t kLastLayoutWithoutExtension = 9;
constexpr uint32_t kRangeSectors = 0x80;
constexpr size_t kSectorSize = 512;
constexpr size_t kNameBytes = 32;
constexpr size_t kReasonBytes = 32;

// Byte offsets in the sector.
constexpr size_t oSig0 = 0x00, oVersion = 0x04, oLayout = 0x08, oReserved = 0x0C, oPackId = 0x10,
                 oGeneration = 0x18, oLogicalDisks = 0x1C, oCriticalDisks = 0x20, oName = 0x24, oLdNumber = 0x44,
                 oLdBitmap = 0x48, oFlags = 0x4C, oIteration = 0x50, oRmLba0 = 0x54, oRmLba1 = 0x58, oSig1 = 0x5C,
                 oChecksum = 0x60, oSig3 = 0x64, oExtVersion = 0x68, oExtChecksum = 0x6C, oExpungeReason = 0x70;

// Local flags.
constexpr uint32_t DIS0_BAD = 1u << 0, DIS1_BAD = 1u << 1, DIS2_BAD = 1u << 2;
constexpr uint32_t DIS_RANGE0_BAD = 1u << 3, DIS_RANGE1_BAD = 1u << 4, DIS_RANGE2_BAD = 1u << 5;
constexpr uint32_t DIS_RANGE_BAD_MASK = 0x38;
constexpr uint32_t DIS_NEEDS_REPAIR = 1u << 30;
constexpr uint32_t DIS_EXPUNGED = 1u << 31;
// Global flags (in memory only).
constexpr uint32_t DIS_UPDATE_GLOBAL = 1u << 8;
constexpr uint32_t DIS_NEEDS_GLOBAL_REWRITE = 1u << 28;
constexpr uint32_t DIS_UNDER_REPAIR = 1u << 29;
}  // namespace DisLayout

// The first sector and the end (last + 1) of each of the three DIS ranges of
// a disk of `capacity` sectors (taken as 32 bits).
struct DisRange {
    uint32_t first;
    uint32_t end;
};
std::array<DisRange, 3> disRangesFor(uint64_t capacity);

// A disk's capacity as the pack layers count it: LBAs are 32 bits wide, so a
// disk of 2^32 sectors or more (2 TiB) is used up to 0xFFFFFFFF sectors
// rather than wrapping to a tiny size.
inline uint32_t packCapacity(uint64_t sectors) { return sectors > 0xFFFFFFFFull ? 0xFFFFFFFFu : uint32_t(sectors); }

// The local part of one disk's DIS as numbers (the expunge reason aside, kept
// as text by the sector and as a fixed buffer by the in-memory container): the
// sector and DIS::LogicalDiskContainer both hold it, and hand it over whole.
struct DisLocalPart {
    uint16_t ldNumber = 0;
    uint32_t ldBitmap = 0;
    uint32_t flags = 0;
    uint32_t iteration = 0;
    uint32_t rmLba[2] = {0, 0};
    uint32_t sig1 = DisLayout::kSig1;
    uint32_t checksum = 0;
    // Extension.
    uint32_t sig3 = DisLayout::kSig3;
    uint32_t extVersion = 1;
    uint32_t extChecksum = 0;
};

struct DisSector : DisLocalPart {
    // Global part.
    uint32_t sig0 = DisLayout::kSig0;
    uint32_t version = DisLayout::kVersion;
    uint32_t layout = DisLayout::kCurrentLayout;
    uint32_t reserved = 0;
    uint32_t packId[2] = {0, 0};
    uint32_t generation = 0;
    uint32_t logicalDisks = 0;
    uint32_t critcalDisks = 0;
    std::string name = "TarvoPro";
    // Local part: DisLocalPart, and the extension's reason.
    std::string expungeReason = "NOT EXPUNGED";

    enum class Verdict { Good, BadSanity, BadChecksum, BadExtensionSignature, BadExtensionChecksum };

    // Fills the whole sector; stores the computed checksums in this record too.
    void encode(uint8_t* sector);
    // Reads a sector. A sector of layout 9 or lower has no extension: it is
    // given Ext version 1, checksum 0 and the reason for its flags.
    Verdict decode(const uint8_t* sector);
    bool hasExtension() const { return layout > DisLayout::kLastLayoutWithoutExtension; }
};
