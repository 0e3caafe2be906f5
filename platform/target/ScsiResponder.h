#pragma once
// ScsiResponder: the driver side of the SCSI command set. It looks at one CDB
// and either answers it at once from the LUN state the system has pushed
// (inquiry, capacity, LUN list, mode sense (6), unit readiness and the like),
// or checks it and says which system path it takes (a data read or write,
// a cache synchronisation, a management command), or refuses it with the
// sense the SCSI standards give. It holds no state of its own; the answer
// depends only on the CDB and TargetLunTable.
#include <cstdint>
#include <string>
#include <vector>

#include "platform/target/ScsiSense.h"

namespace scsi {

// Opcodes the target knows.
constexpr uint8_t kTestUnitReady = 0x00, kRequestSense = 0x03, kRead6 = 0x08, kWrite6 = 0x0a, kInquiry = 0x12,
                  kModeSelect6 = 0x15, kModeSense6 = 0x1a, kStartStopUnit = 0x1b, kPreventAllow = 0x1e,
                  kReadCapacity10 = 0x25, kRead10 = 0x28, kWrite10 = 0x2a, kSyncCache10 = 0x35,
                  kModeSelect10 = 0x55, kModeSense10 = 0x5a, kRead16 = 0x88, kWrite16 = 0x8a,
                  kSyncCache16 = 0x91, kServiceActionIn16 = 0x9e, kReportLuns = 0xa0, kRead12 = 0xa8,
                  kWrite12 = 0xaa, kVendorManagement = 0xea;
constexpr uint8_t kReadCapacity16ServiceAction = 0x10;

constexpr uint32_t kBlockSize = 512;
// The largest request the system takes: 0x400 sectors of 512 bytes. A data
// command may be larger, up to kMaxTransferBlocks (8 MiB, the Block Limits
// page's maximum transfer length); the target runs it as requests of at most
// kMaxRequestBlocks (SplitCommand), and names that size the optimal one.
constexpr uint32_t kMaxRequestBlocks = 0x400;
constexpr uint32_t kMaxTransferBlocks = 0x4000;

struct Decision {
    enum class Kind { Answered, Read, Write, SyncCache, Management, Check };
    Kind kind = Kind::Check;
    uint8_t status = kStatusGood;      // Answered, Check
    Sense sense;                       // Check
    std::vector<uint8_t> data;         // Answered: the data-in bytes, already cut to the allocation length
    uint64_t lba = 0;                  // Read, Write, SyncCache
    uint32_t blocks = 0;               // Read, Write, SyncCache (0 for SyncCache: to the end)
    bool fua = false;
};

class ScsiResponder {
public:
    // `targetName` goes into the device identification page.
    explicit ScsiResponder(std::string targetName) : mTargetName(std::move(targetName)) {}

    Decision decide(const uint8_t* cdb, size_t cdbLength, uint32_t lun) const;

    // Length of a CDB from its opcode group; 0 for a group the target does not know.
    static size_t cdbLengthFor(uint8_t opcode);

private:
    Decision inquiry(const uint8_t* cdb, uint32_t lun) const;
    Decision modeSense6(const uint8_t* cdb, uint64_t lastLba) const;
    Decision readCapacity10(const uint8_t* cdb, uint64_t lastLba) const;
    Decision readCapacity16(const uint8_t* cdb, uint64_t lastLba) const;
    Decision reportLuns(const uint8_t* cdb) const;
    Decision requestSense(const uint8_t* cdb, uint32_t lun) const;
    Decision dataCommand(const uint8_t* cdb, uint64_t lastLba) const;
    Decision syncCache(const uint8_t* cdb, uint64_t lastLba) const;
    std::vector<uint8_t> deviceIdentification(uint32_t lun) const;
    std::string lunSerial(uint32_t lun) const;

    std::string mTargetName;
};

}  // namespace scsi
