#pragma once
// What the files of IscsiConnection share and nobody else sees: the task
// record of one SCSI command, the connection's trace and small constants.
#include <cstdint>
#include <vector>

#include "platform/target/IscsiConnection.h"
#include "util/Trace.h"

namespace iscsi_connection {
extern Trace tTarget;
constexpr uint32_t kMaxManagementBytes = 0x80000 + 512;
extern const uint8_t kZeroPad[4];
}  // namespace iscsi_connection

// One SCSI command between its arrival and its response.
struct IscsiConnection::Task {
    uint32_t itt = 0;
    uint8_t lunBytes[8] = {};
    uint32_t lun = 0;
    bool readFlag = false, writeFlag = false;
    uint32_t edtl = 0;
    scsi::Decision decision;
    TargetCommand cmd;

    // Write reception: the data land in [0, landing) of `buffer`, the rest is dropped.
    uint8_t* buffer = nullptr;
    uint32_t landing = 0;
    std::vector<uint8_t> ownBuffer;
    bool hasBackendBuffer = false;
    bool partialBlock = false;  // the transfer length ends inside a block
    uint32_t received = 0;
    uint32_t burstEnd = 0;
    uint32_t expectedDataSn = 0;
    uint32_t ttt = iscsi::kReservedTag;
    uint32_t r2tSn = 0;
    bool unsolicited = false;  // unsolicited Data-Out may still come
    bool dataPhaseError = false;
    bool receiving = false;

    // Larger than one request of the system: runs in pieces over the target's
    // own copy of the data (SplitCommand); the whole command never reaches the backend.
    bool split = false;
    bool submitted = false;
    bool aborted = false;
    bool responded = false;  // the status is on its way: the task is complete for the host
};

