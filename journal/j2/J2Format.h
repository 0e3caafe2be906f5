#pragma once
// J2Format: the layout of the J2 partition in battery-backed memory, all
// little-endian. The partition holds the j2soft header (signature, number of
// disks, eight J2diskHeaders) and eight journalettes, one per slot, each a
// control area (a row of AtomicSet records, ended by a zero halfword) and a
// payload area (the sectors those records place). A record's first halfword is
// its commit mark: 0x4A32 once the set is committed, 0 until then.
//
// The records here are views: every access goes through the explicit
// little-endian helpers, and every store to the partition goes through
// J2Nvram, which keeps the stores in program order.
#include <cstddef>
#include <cstdint>

#include "disk/DiskIdentifier.h"
#include "platform/drive/DriveCommand.h"  // kSectorSize
#include "util/Endian.h"

namespace j2 {

constexpr uint32_t kPartitionId = 0x10011001;
constexpr uint32_t kPartitionSize = 0x384200;  // J2PARTITIONSZ
constexpr uint32_t kMaxDisks = 8;
constexpr uint32_t kHeaderArea = 0x600;        // j2JournalHeaders
constexpr uint32_t kHeaderUsed = 0x2B6;
constexpr uint32_t kJournaletteStride = 0x70780;
constexpr uint32_t kCtrlArea = 0x4400;
constexpr uint32_t kCtrlSize = 0x43F6;         // j2CtrlSize: control bytes usable
constexpr uint32_t kPayloadSize = 0x6C380;     // j2PayloadSize
constexpr uint32_t kTotalCtrlSize = 0x22000;   // j2TotalCtrlSize
constexpr uint32_t kFirstPayloadSector = kCtrlArea / kSectorSize;  // 34

constexpr uint32_t kSignature = 0x4A323042;       // current: "J2" and version 0x3042
constexpr uint32_t kSignatureV39 = 0x4A323039;    // absolute pointers
constexpr uint32_t kSignatureV41 = 0x4A323041;    // offsets
constexpr uint32_t kSignatureWipe = 0x55555555;   // controlled wipe
constexpr uint16_t kMark = 0x4A32;                // commit mark, also the J2signature half

constexpr uint32_t kSetHeadSize = 0x10;
constexpr uint32_t kTranSize = 12;
constexpr uint16_t kInjectBit = 0x8000;
constexpr uint32_t kLargeSetPayload = 0x40EE6;  // 60% of the payload area
constexpr uint32_t kHalfCtrl = 0x21FA;
constexpr uint32_t kHalfPayload = 0x361BF;

static_assert(kCtrlArea + kPayloadSize == kJournaletteStride);
static_assert(kHeaderArea + kMaxDisks * kJournaletteStride == kPartitionSize);
static_assert(kMaxDisks * kCtrlArea == kTotalCtrlSize);

constexpr uint32_t ctrlOffset(uint32_t slot) { return kHeaderArea + slot * kJournaletteStride; }
constexpr uint32_t payloadOffset(uint32_t slot) { return ctrlOffset(slot) + kCtrlArea; }

#pragma pack(push, 1)
// J2diskHeader, 0x56 bytes, unaligned in the j2soft header.
struct DiskHeader {
    uint8_t magic[4];
    DiskIdentifier diskId;  // DiskWWN of the disk the journalette belongs to
    uint8_t diskNum[2];
    uint8_t valid[2];
    uint8_t clean[2];
    uint8_t journalette[4];  // control area: offset from j2soft (absolute in 0x4A323039 layouts)
    uint8_t payload[4];

    uint32_t getMagic() const { return getLE32(magic); }
    uint16_t getDiskNum() const { return getLE16(diskNum); }
    uint16_t getValid() const { return getLE16(valid); }
    uint16_t getClean() const { return getLE16(clean); }
    uint32_t getJournalette() const { return getLE32(journalette); }
    uint32_t getPayload() const { return getLE32(payload); }
};
static_assert(sizeof(DiskHeader) == 0x56);
static_assert(offsetof(DiskHeader, diskNum) == 0x48 && offsetof(DiskHeader, valid) == 0x4A);
static_assert(offsetof(DiskHeader, clean) == 0x4C && offsetof(DiskHeader, journalette) == 0x4E);
static_assert(offsetof(DiskHeader, payload) == 0x52);

// j2soft: the partition's header.
struct SoftHeader {
    uint8_t signature[4];
    uint8_t numdisks[2];
    DiskHeader diskHeaders[kMaxDisks];

    uint32_t getSignature() const { return getLE32(signature); }
};
static_assert(sizeof(SoftHeader) == kHeaderUsed);

// The 16-byte head of an AtomicSet record; J2Transactions follow it.
struct AtomicSetHead {
    uint8_t mark[2];
    uint8_t id[8];
    uint8_t numTran[2];
    uint8_t clidList[4];  // boot-local handle of the extra-clid list, 0 if none

    uint16_t getMark() const { return getLE16(mark); }
    uint64_t getId() const { return getLE64(id); }
    uint16_t getNumTran() const { return getLE16(numTran); }
    uint32_t getClidList() const { return getLE32(clidList); }
};
static_assert(sizeof(AtomicSetHead) == kSetHeadSize);

struct J2Transaction {
    uint8_t clid[4];      // the CacheTrackerObject's boot-local handle (J2Manager::clidHandle)
    uint8_t lba[4];
    uint8_t place[2];     // sectors from the start of the control area
    uint8_t numSecs[2];   // bit 15: an injected error

    uint32_t getClid() const { return getLE32(clid); }
    uint32_t getLba() const { return getLE32(lba); }
    uint16_t getPlace() const { return getLE16(place); }
    uint16_t getNumSecs() const { return getLE16(numSecs); }
};
static_assert(sizeof(J2Transaction) == kTranSize);
#pragma pack(pop)

inline uint32_t recordSize(uint16_t numTran) { return kSetHeadSize + kTranSize * uint32_t(numTran); }

}  // namespace j2
