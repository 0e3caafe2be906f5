#pragma once
// ErrorPolicy: the least the disk layer needs for now. It takes each reported
// disk error and only queues it (a bounded list that diagnostics and tests
// read); it counts nothing per disk and expunges nothing yet.
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "include/ManagerBase.h"

class ErrorPolicy : public ManagerBase {
public:
    enum errorType : uint32_t {
        HardRead = 0, HardWrite = 1, SoftRead = 2, SoftWrite = 3, ShortTimeout = 4, FullTimeout = 5,
        RecoveredTimeout = 6, DiskStartFailure = 7, SlotPowerCycled = 10
    };
    struct PendingError {
        uint32_t type;
        StatusCode status;
        uint16_t slot;
        uint64_t lba;
        uint32_t length;
        uint32_t timeoutTime;
        bool deferred;
    };

    static ErrorPolicy* GetInstance();
    StatusCode Initialize() override { return StatusCode::Success; }
    StatusCode LoadDiskPack() override { return StatusCode::Success; }
    StatusCode UnloadDiskPack() override { return StatusCode::Success; }

    // Reports one error; callable from any thread, never blocks on disks.
    void blockError(uint32_t type, StatusCode status, uint16_t slot, uint64_t lba, uint32_t length,
                    uint32_t timeoutTime = 0, bool deferred = false);
    std::vector<PendingError> pendingErrors();
    void clearPendingErrors();

private:
    ErrorPolicy() = default;
    static constexpr size_t kMaxPending = 256;
    std::mutex mLock;
    std::deque<PendingError> mPending;
};
