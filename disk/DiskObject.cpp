#include "disk/DiskObject.h"

#include <cstdlib>
#include <cstring>

#include "disk/DiskPowerManager.h"
#include "disk/DriveAdapter.h"
#include "platform/rtos/BoardClock.h"
#include "util/Trace.h"

namespace {
Trace doTrace("DM", "DiskObject", "Info", false);

void trimTrailingBlanks(char* s) {
    size_t n = std::strlen(s);
    while (n > 0 && (s[n - 1] == ' ' || s[n - 1] == '\0')) s[--n] = '\0';
}

uint32_t nowSeconds() { return uint32_t(BoardClock::GetInstance().realtime().tv_sec); }
}  // namespace

DiskObject::DiskObject(int slot) : mSlot(slot) {
    for (auto& s : mSemaphores) s.sem = semBCreate(SEM_Q_FIFO, SEM_EMPTY);
}

DiskObject::~DiskObject() {
    Shutdown();
    for (auto& s : mSemaphores) semDelete(s.sem);
}

int DiskObject::takeSemaphore() {
    std::lock_guard<std::recursive_mutex> g(mDOLock);
    for (int i = 0; i < kSyncSemaphores; ++i)
        if (mSemaphores[i].free) {
            mSemaphores[i].free = false;
            return i;
        }
    return -1;
}

void DiskObject::giveSemaphore(int index) {
    std::lock_guard<std::recursive_mutex> g(mDOLock);
    mSemaphores[index].free = true;
}

bool DiskObject::Initialize() {
    std::lock_guard<std::recursive_mutex> g(mDOLock);
    ESA_CONSOLE("DO::Initialize " << mSlot);
    if (!mTestBuffer)
        mTestBuffer = {static_cast<uint8_t*>(std::aligned_alloc(32, kTestBlocks * 4096)), std::free};
    mState = StateNone;
    if (mQueue) {  // a queue left from an earlier try: its worker lets go of it first
        mQueue->Shutdown();
        mQueue.reset();
    }
    mInitialized = false;
    mQueue = std::make_unique<DiskQueue>();
    mQueue->Initialize(mSlot, &mWritesDone);
    mWritesDone = 0;
    mWritesFlushed = 0;
    if (OpenDrive(mSlot) < 0) ESA_CONSOLE("OpenDrive Failed for disk in slot " << mSlot);
    if (ResetDrive(mSlot) != 0) {
        ESA_CONSOLE("ResetDrive Failed for disk in slot " << mSlot);
        return false;
    }
    uint16_t features[6];
    if (GetDriveFeatures(mSlot, features, kDefaultTimeoutSeconds) != 0) {
        ESA_CONSOLE("GetDriveFeatures Failed for disk in slot " << mSlot);
        return false;
    }
    ESA_TRACE(doTrace, "slot " << mSlot << " features 82-87: " << std::hex << features[0] << " " << features[1] << " "
                               << features[2] << " " << features[3] << " " << features[4] << " " << features[5]);
    char model[41], revision[9], serial[21];
    if (GetIdentityOfDrive(mSlot, model, revision, serial, kDefaultTimeoutSeconds) != 0) {
        ESA_CONSOLE("GetIdentityOfDrive Failed for disk in slot " << mSlot);
        return false;
    }
    trimTrailingBlanks(model);
    trimTrailingBlanks(revision);
    trimTrailingBlanks(serial);
    mIdentifier.Initialise(model, revision, serial);
    ESA_CONSOLE("Drive in slot " << mSlot << ": model " << model << ", revision " << revision << ", serial " << serial);
    SetSMARTOps(mSlot, true);
    int health = ReadSMARTStatus(mSlot);
    SetSMARTOps(mSlot, false);
    // A drive whose own health check cannot be read as good is not taken:
    // the pack must not come to depend on a disk that predicts its failure.
    if (health != 0) {
        ESA_CONSOLE("SMART Health Check Failed for disk in slot " << mSlot);
        return false;
    }
    mInitialized = true;
    mCapacity = GetDriveSize(mSlot);
    mQueue->SetPositionDivisor(mCapacity / 32);
    mTemperature = 0;
    if (mCapacity == 0) return false;
    taskDelay(0);
    return true;
}

void DiskObject::Shutdown() {
    std::lock_guard<std::recursive_mutex> g(mDOLock);
    if (mQueue) {
        mQueue->Shutdown();
        mQueue.reset();
    }
    CloseDrive(mSlot);
    mInitialized = false;
    mCapacity = 0;
    if (mState != StateFailed) mState = StateNone;
}

bool DiskObject::verifyDiskIdentifier() {
    char model[41], revision[9], serial[21];
    if (GetIdentityOfDrive(mSlot, model, revision, serial, kDefaultTimeoutSeconds) != 0) {
        ESA_CONSOLE("DO::verifyDiskIdentifier: GetIdentityOfDrive Failed ");
        return false;
    }
    trimTrailingBlanks(model);
    trimTrailingBlanks(revision);
    trimTrailingBlanks(serial);
    DiskIdentifier now;
    now.Initialise(model, revision, serial);
    if (now == mIdentifier) return true;
    ESA_CONSOLE("Drive in slot " << mSlot << " has changed \n\told =>" << mIdentifier << "\n\tnew =>" << now);
    return false;
}

StatusCode DiskObject::syncRequest(uint16_t command, void* data, uint64_t lba, uint32_t sectors, uint32_t timeout) {
    if (!mQueue) return StatusCode::DiskNotPresent;
    __DiskQReqStruct r;
    r.command = command;
    r.lba = lba;
    r.count = sectors;
    r.data = data;
    r.timeout = timeout;
    if (DiskCommand::isRead(command) || DiskCommand::isWrite(command))
        r.timeout = DiskPowerManager::GetInstance()->WakeupSystem(mSlot);
    uint64_t now = tick64Get();
    r.enqueueTick = now;
    mLastIoTick = now;
    if (DiskCommand::isWrite(command)) mLastWriteTick = now;
    DiskQueue* claimed = nullptr;
    int index = -1;
    int pushed = 0;
    {
        std::lock_guard<std::recursive_mutex> g(mDOLock);  // the queue cannot go away under the push or claim
        if (!mQueue) return StatusCode::DiskNotPresent;
        if (mQueue->ClaimIdle()) {
            // An idle disk: this thread serves its own request. The queue
            // lives until the claim ends (its shutdown waits for it).
            claimed = mQueue.get();
        } else {
            index = takeSemaphore();
            if (index < 0) {
                ESA_CONSOLE("DO: ReadData: allocate free semaphore failed ...");
                return StatusCode::InternalError;
            }
            r.syncSemaphore = mSemaphores[index].sem;
            pushed = mQueue->PushToQNoWait(&r);
        }
    }
    if (claimed) {
        claimed->RunClaimed(&r);
        return r.status;
    }
    if (pushed) semTakeForever(r.syncSemaphore);
    giveSemaphore(index);
    return r.status;
}

StatusCode DiskObject::ReadData(void* buffer, uint64_t lba, uint32_t sectors) {
    return syncRequest(DiskCommand::ReadBuffer, buffer, lba, sectors, kDefaultTimeoutSeconds);
}

StatusCode DiskObject::ReadSGLData(DiskSGL* list, uint64_t lba, uint32_t sectors) {
    return syncRequest(DiskCommand::ReadSGL, list, lba, sectors, kDefaultTimeoutSeconds);
}

StatusCode DiskObject::WriteSGLData(DiskSGL* list, uint64_t lba, uint32_t sectors) {
    return syncRequest(DiskCommand::WriteSGL, list, lba, sectors, kDefaultTimeoutSeconds);
}

StatusCode DiskObject::noWait(uint16_t command, const DiskPane* panes, size_t paneCount, uint64_t lba,
                              __DiskQReqStruct* r, DiskQueue** claimed) {
    auto* list = static_cast<DiskSGL*>(r->data);
    if (!list) return StatusCode::InternalError;
    if (paneCount > kDriveMaxScatterEntries) return StatusCode::DM_SGLTooLong;
    list->clear();
    for (size_t i = 0; i < paneCount; ++i) list->append(panes[i].address, panes[i].length);
    r->command = command;
    r->lba = lba;
    r->count = list->sectors();
    r->status = StatusCode::Success;
    r->timeout = DiskPowerManager::GetInstance()->WakeupSystem(mSlot);
    uint64_t now = tick64Get();
    r->enqueueTick = now;
    mLastIoTick = now;
    if (DiskCommand::isWrite(command)) mLastWriteTick = now;
    int pushed;
    {
        std::lock_guard<std::recursive_mutex> g(mDOLock);
        if (claimed && mQueue && mQueue->ClaimIdle()) {
            *claimed = mQueue.get();  // lives until the claim ends: its shutdown waits for it
            return StatusCode::Success;
        }
        pushed = mQueue ? mQueue->PushToQNoWait(r) : (r->status = StatusCode::DiskNotPresent, 0);
    }
    if (!pushed) return r->status;
    if (r->status != StatusCode::Success) {
        // The worker has already failed it; its semaphore is still given.
        ESA_CONSOLE("***** Disk " << (DiskCommand::isRead(command) ? "read" : "write")
                                  << " immediately set error after it was enqueued *****");
        return StatusCode::DiskClosed;
    }
    return StatusCode::Success;
}

StatusCode DiskObject::ReadDataNoWait(const DiskPane* panes, size_t n, uint64_t lba, __DiskQReqStruct* r) {
    return noWait(DiskCommand::ReadSGL, panes, n, lba, r);
}

StatusCode DiskObject::WriteDataNoWait(const DiskPane* panes, size_t n, uint64_t lba, __DiskQReqStruct* r) {
    return noWait(DiskCommand::WriteSGL, panes, n, lba, r);
}

StatusCode DiskObject::IssueOrClaim(bool write, const DiskPane* panes, size_t n, uint64_t lba, __DiskQReqStruct* r,
                                    DiskQueue*& claimed) {
    claimed = nullptr;
    return noWait(write ? DiskCommand::WriteSGL : DiskCommand::ReadSGL, panes, n, lba, r, &claimed);
}

StatusCode DiskObject::ReadWriteSectorTest(uint64_t lba, uint32_t sectors) {
    if (!mTestBuffer) return StatusCode::DiskNotPresent;
    while (sectors > 0) {
        uint32_t n = std::min<uint32_t>(sectors, kTestBlocks);
        StatusCode st = ReadData(mTestBuffer.get(), lba, n);
        if (st != StatusCode::Success) return st;
        lba += n;
        sectors -= n;
    }
    return StatusCode::Success;
}

StatusCode DiskObject::FlushWriteCacheSync(__DiskQReqStruct* r, SEM_ID semaphore) {
    uint64_t covered = mWritesDone;
    if (covered == mWritesFlushed) return StatusCode::DM_DiskAlreadyFlushed;
    if (!mQueue) return StatusCode::DiskNotPresent;
    int index = -1;
    r->command = DiskCommand::FlushCache;
    r->status = StatusCode::Success;
    r->timeout = kDefaultTimeoutSeconds;
    r->lba = covered;  // a flush has no LBA: the field carries the writes it covers
    r->count = 0;
    r->groupSemaphore = semaphore;
    if (!semaphore) {
        index = takeSemaphore();
        if (index < 0) return StatusCode::InternalError;
        r->syncSemaphore = mSemaphores[index].sem;
    }
    r->enqueueTick = tick64Get();
    mLastFlushRequestTick = r->enqueueTick;
    int pushed;
    {
        std::lock_guard<std::recursive_mutex> g(mDOLock);
        pushed = mQueue ? mQueue->PushToQNoWait(r) : (r->status = StatusCode::DiskNotPresent, 0);
    }
    if (index >= 0) {
        if (pushed) semTakeForever(r->syncSemaphore);
        giveSemaphore(index);
        FlushCompleted(r);
        return r->status;
    }
    return pushed ? StatusCode::Success : r->status;
}

void DiskObject::FlushCompleted(const __DiskQReqStruct* r) {
    if (r->status != StatusCode::Success) return;
    uint64_t covered = r->lba;
    uint64_t prev = mWritesFlushed;
    while (covered > prev && !mWritesFlushed.compare_exchange_weak(prev, covered)) {
    }
    mLastFlushSeconds = nowSeconds();
}

StatusCode DiskObject::FlushWriteCacheAsync(bool wake) {
    if (!mInitialized) return StatusCode::DiskNotPresent;
    if (wake) DiskPowerManager::GetInstance()->WakeupSystem(mSlot);
    uint64_t covered = mWritesDone;
    uint32_t st = FlushDriveWriteCache(mSlot, kDefaultTimeoutSeconds);
    if (st == DriveStatus::Success) {
        uint64_t prev = mWritesFlushed;
        while (covered > prev && !mWritesFlushed.compare_exchange_weak(prev, covered)) {
        }
        mLastFlushSeconds = nowSeconds();
        return StatusCode::Success;
    }
    // This path must not wait on a lock a halted thread may hold (assertion flush).
    std::unique_lock<std::recursive_mutex> g(mDOLock, std::try_to_lock);
    if (g.owns_lock() && mQueue) {
        __DiskQReqStruct r;
        r.command = DiskCommand::FlushCache;
        return mQueue->DiskErrHandler(&r, st);
    }
    return st == DriveStatus::NotPresent ? StatusCode::DiskNotPresent : StatusCode::DiskError;
}

StatusCode DiskObject::ResetDriveNoWait(__DiskQReqStruct* r) {
    r->command = DiskCommand::Reset;
    r->status = StatusCode::Success;
    r->enqueueTick = tick64Get();
    std::lock_guard<std::recursive_mutex> g(mDOLock);
    if (!mQueue || !mQueue->PushToQNoWait(r)) return StatusCode::DiskNotPresent;
    return StatusCode::Success;
}

StatusCode DiskObject::SpinupDrive() {
    return syncRequest(DiskCommand::SpinUp, nullptr, 0, 0, kDefaultTimeoutSeconds);
}

StatusCode DiskObject::ResetPhysicalDrive() {
    return syncRequest(DiskCommand::Reset, mScratch, 0, 0, kDefaultTimeoutSeconds);
}

void DiskObject::Dump(std::ostream& out) {
    out << "slot " << mSlot << ": state 0x" << std::hex << mState.load() << std::dec
        << (mInitialized ? " initialized" : "") << ", capacity " << mCapacity << " sectors";
    if (mInitialized) out << ", " << mIdentifier;
    out << ", temperature " << int(mTemperature) << ", last flush " << mLastFlushSeconds << "s\n";
    std::lock_guard<std::recursive_mutex> g(mDOLock);
    if (mQueue) mQueue->Dump(out);
}
