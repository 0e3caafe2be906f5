#pragma once
// SplitCommand: runs a data command larger than the system takes in one
// request (scsi::kMaxRequestBlocks sectors) as consecutive requests of at
// most that size, one after another and in LBA order, over the target's own
// copy of the transfer. Hosts may send commands up to the target's maximum
// transfer length (some send large ones without reading the Block Limits
// page); the system's request path takes 512 KiB at most.
//
// The pieces keep the backend contract each (submitted once, completed once,
// released once). The first piece that fails ends the command with its
// status; the pieces before it have been done, as a device that fails in the
// middle of a long transfer has done them.
#include <cstdint>

#include "platform/target/TargetBackend.h"
#include "util/StatusCode.h"

namespace split {

// True when `cmd` (a read or write) must go in pieces.
bool needed(const TargetCommand& cmd);

// Runs `whole` on `backend` piece by piece and waits for it. `data` holds
// whole.blocks x 512 bytes: a write's data, or the room a read's data go to.
StatusCode runInPieces(TargetBackend& backend, const TargetCommand& whole, uint8_t* data);

}  // namespace split
