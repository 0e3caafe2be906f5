#pragma once
// TargetBackend: what the target driver hands to the system. The protocol
// layer checks each command against the LUN state first (ScsiResponder); the
// commands that need the system (data reads and writes, cache
// synchronisation, management) travel as TargetCommands through this
// interface. Write data are received straight into the buffer the backend
// gives (the journal memory on the board), read data are sent straight from
// the segments the backend returns: the data are never copied by the target.
//
// Contract: for every command the target either calls submit() once, after
// which the backend calls cmd.completion->commandDone(cmd) exactly once from
// any thread, or never submits it (the host went away first). The target
// calls release() once for every command that was submitted or was given a
// write buffer, when it no longer uses the command's buffers (the write
// buffer, the read segments), and only then frees the command.
#include <cstdint>
#include <vector>

#include "util/StatusCode.h"

struct TargetCommand;

class TargetCompletion {
public:
    virtual ~TargetCompletion() = default;
    virtual void commandDone(TargetCommand& cmd) = 0;
};

struct TargetSegment {
    const uint8_t* data;
    uint32_t length;
};

// The transport id a link event carries for iSCSI.
constexpr uint8_t kIscsiTransportId = 4;

struct TargetCommand {
    enum class Kind { Read, Write, SyncCache, Management };
    Kind kind = Kind::Read;
    uint32_t lun = 0;
    uint64_t lba = 0;
    uint32_t blocks = 0;  // 512-byte sectors
    bool fua = false;
    uint8_t cdb[16] = {};
    // Write and management data-out: where the data are, once received.
    uint8_t* dataOut = nullptr;
    uint32_t dataOutLength = 0;
    // Management: the most data-in bytes the host takes.
    uint32_t dataInLimit = 0;

    // Filled in by the backend before commandDone.
    StatusCode status = StatusCode::LastStatusCode;
    std::vector<TargetSegment> dataIn;  // reads and management answers; valid until release()
    uint64_t backendHandle = 0;         // the backend's own reference (a pool slot, a ring entry)

    TargetCompletion* completion = nullptr;
    void* owner = nullptr;  // the protocol layer's task
};

class TargetBackend {
public:
    virtual ~TargetBackend() = default;
    // A buffer of cmd.blocks * 512 bytes for a write's data, or null when the
    // target should use its own memory.
    virtual uint8_t* writeBuffer(TargetCommand& cmd) = 0;
    virtual void submit(TargetCommand& cmd) = 0;
    virtual void release(TargetCommand& cmd) = 0;
    // The iSCSI link came up (first session) or went down (last session gone).
    virtual void linkEvent(bool connected) {}
};
