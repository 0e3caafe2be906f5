#include "disk/DiskQueue.h"

#include <string>

#include "disk/DiskPowerManager.h"
#include "disk/DiskSGL.h"
#include "disk/DriveAdapter.h"
#include "disk/ErrorPolicy.h"
#include "management/EventLogManager.h"
#include "util/Assert.h"
#include "util/Trace.h"

namespace {
Trace dqTrace("DM", "DiskQueue", "Info", false);

constexpr uint64_t kSlowServiceUs = 20000000;  // a success this slow is a recovered timeout
constexpr uint64_t kQueueWaitLimitSeconds = 4;
constexpr uint32_t kShortTimeoutSeconds = 6;
constexpr uint32_t kFlushTimeoutSeconds = 20;
constexpr uint32_t kPilotReadTimeoutSeconds = 5;

[[noreturn]] void driverFault(int slot, const char* text) {
    ESA_CONSOLE("DQ slot " << slot << text);
    reportUnaryAssertion(__FILE__, __LINE__, "DiskErrHandler", text);
}
}  // namespace

DiskQueue::~DiskQueue() {
    if (mSem) semDelete(mSem);
}

StatusCode DiskQueue::Initialize(int slot, std::atomic<uint64_t>* writesDone) {
    mSlot = slot;
    mWritesDone = writesDone;
    mSem = semCCreate(SEM_Q_FIFO, 0);
    mIntervalStartUs = getTimebase();
    return mSem ? StatusCode::Success : StatusCode::InitFailed;
}

int DiskQueue::PushToQNoWait(__DiskQReqStruct* r) {
    {
        std::lock_guard<std::mutex> g(mMutex);
        if (mClosing) {
            r->status = StatusCode::DiskNotPresent;
            return 0;
        }
        r->next = nullptr;
        r->previous = mTail;
        if (mTail) mTail->next = r;
        else mHead = r;
        mTail = r;
        if (++mDepth > mMaxDepth) mMaxDepth = mDepth;
    }
    semGive(mSem);
    return 1;
}

StatusCode DiskQueue::PushToQ(__DiskQReqStruct* r) {
    if (!r->syncSemaphore) {
        r->status = StatusCode::InternalError;
        return r->status;
    }
    if (ClaimIdle()) {
        RunClaimed(r);
        return r->status;
    }
    if (!PushToQNoWait(r)) return r->status;
    semTakeForever(r->syncSemaphore);
    return r->status;
}

bool DiskQueue::ClaimIdle() {
    std::lock_guard<std::mutex> g(mMutex);
    if (mClosing || mInFlight || mHead || mShutdown) return false;
    mInFlight = true;
    return true;
}

void DiskQueue::RunClaimed(__DiskQReqStruct* r) {
    r->next = r->previous = nullptr;
    serve(r);
    releaseClaim();
}

void DiskQueue::releaseClaim() {
    std::lock_guard<std::mutex> g(mMutex);
    mInFlight = false;
    // Requests that queued behind the claim are the worker's now. The give
    // happens under the mutex: once it is released a shutdown may destroy
    // the queue.
    if (mHead) semGive(mSem);
}

__DiskQReqStruct* DiskQueue::popHeadLocked() {
    __DiskQReqStruct* r = mHead;
    if (!r) return nullptr;
    mHead = r->next;
    if (mHead) mHead->previous = nullptr;
    else mTail = nullptr;
    r->next = r->previous = nullptr;
    mDepth--;
    return r;
}

__DiskQReqStruct* DiskQueue::claimHead(bool& claimedElsewhere) {
    std::lock_guard<std::mutex> g(mMutex);
    claimedElsewhere = mInFlight;
    if (mInFlight || !mHead) return nullptr;
    mInFlight = true;
    return popHeadLocked();
}

void DiskQueue::complete(__DiskQReqStruct* r) {
    if (r->groupIndex + 1 != r->groupSize) return;
    SEM_ID sem = r->groupSemaphore ? r->groupSemaphore : r->syncSemaphore;
    if (sem) semGive(sem);  // the request may be gone from here on
}

void DiskQueue::serve(__DiskQReqStruct* r) {
    HandleRequest(r);
    if (mWritesDone && DiskCommand::isWrite(r->command)) (*mWritesDone)++;
    uint64_t service = r->serviceStart ? getTimebase() - r->serviceStart : 0;
    mBusyUs += service;
    if (r->status == StatusCode::Success && service >= kSlowServiceUs && r->timeout <= 20)
        ErrorPolicy::GetInstance()->blockError(ErrorPolicy::RecoveredTimeout, r->status, uint16_t(mSlot), r->lba,
                                               r->count, uint32_t(service / 1000));
}

void DiskQueue::DoRequestLoop() {
    while (!mShutdown) {
        bool claimedElsewhere = false;
        __DiskQReqStruct* r = claimHead(claimedElsewhere);
        if (!r) {
            // Empty, or a caller is serving its own request: the next push,
            // the end of that claim or a shutdown gives the semaphore.
            semTakeForever(mSem);
            continue;
        }
        serve(r);
        // The claim goes back before the owner wakes, so that its next
        // request may find the disk idle.
        {
            std::lock_guard<std::mutex> g(mMutex);
            mInFlight = false;
        }
        complete(r);
    }
    // Shutdown: no more pushes or claims; what is queued is still handled and
    // signalled, after a caller's claim in flight has ended.
    {
        std::lock_guard<std::mutex> g(mMutex);
        mClosing = true;
    }
    for (;;) {
        bool claimedElsewhere = false;
        __DiskQReqStruct* r = claimHead(claimedElsewhere);
        if (!r) {
            if (!claimedElsewhere) break;
            taskDelay(0);
            continue;
        }
        ESA_CONSOLE("Handling request during shutdown");
        HandleRequest(r);
        {
            std::lock_guard<std::mutex> g(mMutex);
            mInFlight = false;
        }
        complete(r);
    }
    mShutdown = false;  // the last act: Shutdown() waits for it
}

void DiskQueue::HandleRequest(__DiskQReqStruct* r) {
    r->status = StatusCode::Success;
    r->serviceStart = 0;
    uint64_t waitedSeconds = (tick64Get() - r->enqueueTick) / uint64_t(sysClkRateGet());
    if (waitedSeconds > kQueueWaitLimitSeconds && r->timeout < kShortTimeoutSeconds) {
        ESA_TRACE(dqTrace, "::Request timed out in the queue, wait time = " << waitedSeconds << " secs");
        r->status = StatusCode::DM_QueueTimeout;
        return;
    }
    mRequests++;
    switch (r->command) {
    case DiskCommand::WriteBuffer:
    case DiskCommand::ReadBuffer:
    case DiskCommand::WriteSGL:
    case DiskCommand::ReadSGL: {
        uint64_t distance = r->lba > mLastEnd ? r->lba - mLastEnd : mLastEnd - r->lba;
        mSeek.add(distance > 0xFFFFFFFFull ? 0xFFFFFFFFull : distance);
        mPosition[std::min<uint64_t>(31, r->lba / mPositionDivisor)]++;
        mLastEnd = r->lba + r->count;
        if (CheckDriveValid(mSlot) < 0) {
            r->status = StatusCode::DiskNotPresent;
            return;
        }
        r->serviceStart = getTimebase();
        uint32_t st;
        switch (r->command) {
        case DiskCommand::ReadSGL:
            st = ReadSGLDrive(mSlot, static_cast<DiskSGL*>(r->data), r->lba, r->count, r->timeout);
            break;
        case DiskCommand::WriteSGL:
            st = WriteSGLDrive(mSlot, static_cast<DiskSGL*>(r->data), r->lba, r->count, r->timeout);
            break;
        case DiskCommand::ReadBuffer:
            st = ReadDrive(mSlot, r->data, r->lba, r->count, r->timeout);
            break;
        default:
            st = uint32_t(WriteDrive(mSlot, r->data, r->lba, r->count, r->timeout));
            break;
        }
        if (st != DriveStatus::Success) r->status = DiskErrHandler(r, st);
        return;
    }
    case DiskCommand::FlushCache: {
        r->serviceStart = getTimebase();
        uint32_t st = FlushDriveWriteCache(mSlot, kFlushTimeoutSeconds);
        if (st != DriveStatus::Success) {
            ESA_TRACE(dqTrace, "DQ::FlushWriteCache Failed ");
            r->status = DiskErrHandler(r, st);
        }
        return;
    }
    case DiskCommand::SpinUp: {
        r->serviceStart = getTimebase();
        uint32_t st = SetDrivePowerMode(mSlot, DriveOp::SpinUp);
        if (st == DriveStatus::Success) {
            alignas(32) static thread_local uint8_t pilot[kSectorSize];
            if (ReadDrive(mSlot, pilot, 0, 1, kPilotReadTimeoutSeconds) == DriveStatus::Success) return;
            ESA_CONSOLE("_doSpinUP: Pilot Read Failed ");
        } else if (st != DriveStatus::NotPresent) {
            ErrorPolicy::GetInstance()->blockError(ErrorPolicy::DiskStartFailure, StatusCode::DiskError,
                                                   uint16_t(mSlot), 0, 1);
        }
        ESA_TRACE(dqTrace, "DQ::SpinupDrive Failed ");
        r->status = StatusCode::DiskError;
        return;
    }
    case DiskCommand::Reset: {
        r->serviceStart = getTimebase();
        if (ResetDrive(mSlot) == 0) return;
        if (CheckDrivePresent(mSlot) == 1) ESA_TRACE(dqTrace, "DQ::ResetDrive Failed ");
        r->status = StatusCode::DiskError;
        return;
    }
    case DiskCommand::Abort:
        r->status = StatusCode::DiskNotPresent;
        return;
    default:
        r->status = StatusCode::BadCommand;
        return;
    }
}

StatusCode DiskQueue::DiskErrHandler(__DiskQReqStruct* r, uint32_t driverStatus) {
    switch (driverStatus) {
    case DriveStatus::Success:
        return r->retries ? StatusCode::DM_RecoveredError : StatusCode::Success;
    case DriveStatus::None:
        return r->status;
    case DriveStatus::MediaError:
        return StatusCode::DM_MediaError;
    case DriveStatus::ChannelFailed:
        ErrorPolicy::GetInstance()->blockError(ErrorPolicy::SlotPowerCycled, StatusCode::DM_DeviceTimeout,
                                               uint16_t(mSlot), r->lba, r->count);
        EventLogManager::EventLog()->PostEvent("DQ::DiskErrHandler: SATA driver reports disk " +
                                               std::to_string(mSlot) + ":  channel_failed, doing power cycle");
        DiskPowerManager::GetInstance()->SlotPowerCycleAsync(mSlot);
        return StatusCode::DiskNotPresent;
    case DriveStatus::RecoveredChannel:
        return StatusCode::DM_RecoveredChannel;
    case DriveStatus::ChannelTimeout:
    case DriveStatus::AccessTimeout:
        FlushQ();
        return StatusCode::DM_DeviceTimeout;
    case DriveStatus::NotPresent:
        return StatusCode::DiskNotPresent;
    case DriveStatus::RecoveredError:
        return StatusCode::DM_RecoveredError;
    case DriveStatus::AdapterError:
        driverFault(mSlot, ": Adapter Error returned, Rebooting ESA -1");
    case DriveStatus::BadParams:
        driverFault(mSlot, ": Driver returns : Command Bad Params");
    case DriveStatus::BadLba:
        driverFault(mSlot, ": Driver returns : Bad LBA Address");
    case DriveStatus::BadAlignment:
        driverFault(mSlot, ": Driver returns : Bad Buffer Alignment");
    case DriveStatus::BadAddress:
        driverFault(mSlot, ": Driver returns : Bad Buffer Address");
    case DriveStatus::StartFailure:
        return StatusCode::DM_DriveStartFailure;
    default:
        // Beyond the driver's table (the obsolete single-buffer write says -1).
        return StatusCode::DiskError;
    }
}

void DiskQueue::FlushQ() {
    std::lock_guard<std::mutex> g(mMutex);
    while (__DiskQReqStruct* r = mHead) {
        mHead = r->next;
        mDepth--;
        r->next = r->previous = nullptr;
        r->status = StatusCode::DM_DeviceTimeoutFlush;
        complete(r);
    }
    mTail = nullptr;
}

void DiskQueue::Shutdown() {
    mShutdown = true;
    semGive(mSem);
    while (mShutdown) taskDelay(0);
}

uint32_t DiskQueue::GetDiskQueueDepth() {
    std::lock_guard<std::mutex> g(mMutex);
    return mDepth;
}

uint32_t DiskQueue::GetDiskQueueMaxDepth() {
    std::lock_guard<std::mutex> g(mMutex);
    uint32_t v = mMaxDepth;
    mMaxDepth = mDepth;
    return v;
}

uint32_t DiskQueue::GetDiskBusyPercentage() {
    // The interval runs from the last reading to now, whoever served the commands in it.
    uint64_t now = getTimebase();
    uint64_t busy = mBusyUs.exchange(0), elapsed = now - mIntervalStartUs.exchange(now);
    if (elapsed == 0) return busy ? 100 : 0;
    return uint32_t(std::min<uint64_t>(100, 100 * busy / elapsed));
}

void DiskQueue::Dump(std::ostream& out) {
    out << "  queue depth " << GetDiskQueueDepth() << ", requests " << mRequests << "\n  seek distance (sectors):";
    mSeek.Dump(out);
    out << "  position histogram:";
    for (uint32_t v : mPosition) out << " " << v;
    out << "\n";
}
