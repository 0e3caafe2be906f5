#pragma once
// __DiskQReqStruct: one queued disk command. The caller owns the storage (a
// stack frame or an array entry) from the push until its semaphore is given;
// after the give the queue never touches it again.
#include <cstdint>

#include "platform/rtos/Rtos.h"
#include "util/StatusCode.h"

namespace DiskCommand {
constexpr uint16_t WriteBuffer = 1, ReadBuffer = 2, WriteSGL = 3, ReadSGL = 4, Abort = 5, FlushCache = 6,
                   SpinUp = 7, Reset = 8;
inline bool isRead(uint16_t c) { return c == ReadBuffer || c == ReadSGL; }
inline bool isWrite(uint16_t c) { return c == WriteBuffer || c == WriteSGL; }
}  // namespace DiskCommand

// Waits without limit for a completion. The wait is taken in hour-long slices:
// the board clock's real mode cannot express an unbounded wait and would spin.
inline void semTakeForever(SEM_ID sem) {
    while (semTake(sem, 3600 * sysClkRateGet()) != OK) {
    }
}

struct __DiskQReqStruct {
    __DiskQReqStruct* next = nullptr;
    __DiskQReqStruct* previous = nullptr;
    uint16_t command = 0;
    StatusCode status;
    uint64_t lba = 0;
    uint32_t count = 0;
    void* data = nullptr;        // buffer or DiskSGL, by command
    uint16_t groupIndex = 0;     // completion signals only when index + 1 = size
    uint16_t groupSize = 1;
    uint64_t enqueueTick = 0;
    uint64_t serviceStart = 0;   // timebase, microseconds
    uint16_t retries = 0;        // stays 0: the drive driver retries, the queue does not
    uint32_t timeout = 20;       // seconds handed to the driver
    SEM_ID groupSemaphore = nullptr;
    SEM_ID syncSemaphore = nullptr;
};
