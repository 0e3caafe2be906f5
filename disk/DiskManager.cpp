#include "disk/DiskManager.h"

#include <algorithm>
#include <string>

#include "disk/DiskHotPlug.h"
#include "disk/DiskPackManager.h"
#include "disk/DiskPowerManager.h"
#include "disk/DriveAdapter.h"
#include "disk/ErrorPolicy.h"
#include "journal/j2/J2Manager.h"
#include "management/SystemPolicy.h"
#include "system/SystemManager.h"
#include "util/Assert.h"
#include "util/Diagnostics.h"
#include "util/Trace.h"

namespace {
Trace dmTrace("DM", "DiskManager", "Info", false);

DiagnosticHandler gDiskManagerDiags([](std::ostream& out) { DiskManager::GetInstance()->Dump(out); },
                                    "DiskManager", 60);

bool validSlot(int slot) { return slot >= 0 && slot < DiskManager::kSlots; }

// A window's contiguous pieces in order, into a per-thread list (no
// allocation once the list has grown to the largest window of the thread).
const std::vector<DiskPane>& windowPanes(const DataWindow& window) {
    thread_local std::vector<DiskPane> panes;
    panes.clear();
    unsigned char* data = nullptr;
    uint32_t length = 0;
    for (auto it = window.begin(data, length); it != window.end(); it.GetNext(data, length))
        panes.push_back(DiskPane{data, length});
    return panes;
}

// Pane lengths must be whole sectors; returns the total, or 0 for a bad list.
uint64_t paneBytes(const DiskPane* panes, size_t n) {
    uint64_t total = 0;
    for (size_t i = 0; i < n; ++i) {
        if (panes[i].length == 0 || panes[i].length % kSectorSize) return 0;
        total += panes[i].length;
    }
    return total;
}
}  // namespace

DiskManager* DiskManager::GetInstance() {
    static DiskManager* instance = new DiskManager;  // lives for the whole process, never torn down
    return instance;
}

DiskManager::DiskManager() {
    static const char* kinds[3] = {"", "FT.", "RT."};
    for (int k = 0; k < 3; ++k)
        for (int s = 0; s < kSlots; ++s) {
            std::string r = std::string("ReadData.") + kinds[k] + std::to_string(s);
            std::string w = std::string("WriteData.") + kinds[k] + std::to_string(s);
            mReadPoints[k][s] = mInjection.addApiPoint(r.c_str(), "fail a disk read on this slot");
            mWritePoints[k][s] = mInjection.addApiPoint(w.c_str(), "fail a disk write on this slot");
        }
}

// ---- start-up, load and unload

void DiskManager::requestThread(int* slotArgument) {
    int slot = *slotArgument;
    __atomic_store_n(slotArgument, 0xff, __ATOMIC_RELEASE);
    for (;;) {
        taskSuspend(nullptr);
        if (DiskQueue* q = mDisks[slot]->queue()) q->DoRequestLoop();
    }
}

void linkDiskConsoleCommands();

StatusCode DiskManager::Initialize() {
    if (mInitialized) return StatusCode::Success;
    linkDiskConsoleCommands();
    EventManager::GetInstance()->AddHandlerStart(eHotplugDisk, this, &DiskManager::DoHotPlugDisk);
    for (int s = 0; s < kSlots; ++s) {
        mDisks[s] = std::make_unique<DiskObject>(s);
        int argument = s;
        mThreads[s] = taskSpawn("tDiskReq" + std::to_string(s), 102, [this, &argument] { requestThread(&argument); });
        while (__atomic_load_n(&argument, __ATOMIC_ACQUIRE) != 0xff) taskDelay(0);
    }
    DiskPowerManager::GetInstance()->Initialize();
    if (!DiskHotPlug::GetInstance()->Initialize()) {
        ESA_CONSOLE("System OverTemp Detected, Aborting RTP bringup ....");
        InitDrives();
        for (int s = 0; s < kSlots; ++s) SetDrivePowerMode(s, DriveOp::SpinDown);
        // The over-temperature light is the slot and LED policy's to set.
        return StatusCode::DiskError;
    }
    std::fill(std::begin(mTemperatureHistory), std::end(mTemperatureHistory), 0);
    for (auto& ring : mBusyHistory) std::fill(std::begin(ring), std::end(ring), 0);
    AssertionHooks::flushAllDisksBypassQueue = [] { DiskManager::GetInstance()->FlushAllDisksBypassQueue(); };
    mInitialized = true;
    return StatusCode::Success;
}

void DiskManager::refreshPresence() {
    std::lock_guard<std::recursive_mutex> g(mDMLock);
    mPresence.presence = GetDriveUsageBitmap();
    mPresence.count = __builtin_popcount(mPresence.presence);
}

void DiskManager::setReady(int slot, bool ready) {
    std::lock_guard<std::recursive_mutex> g(mDMLock);
    bool was = mReadyBitmap.load() >> slot & 1;
    if (ready && !was) {
        mReadyBitmap |= 1u << slot;
        mReadyCount++;
    } else if (!ready && was) {
        mReadyBitmap &= ~(1u << slot);
        mReadyCount--;
    }
}

StatusCode DiskManager::LoadDiskPack(bool) {
    if (mLoaded) {
        ESA_TRACE(dmTrace, "DM::LoadDiskPack already called");
        return StatusCode::InitFailed;
    }
    if (!mInitialized) {
        StatusCode st = Initialize();
        if (st != StatusCode::Success) return st;
    }
    {
        std::lock_guard<std::recursive_mutex> g(mDMLock);
        mReadyCount = 0;
        mReadyBitmap = 0;
        mPresence = {};
    }
    int drives = InitDrives();
    {
        std::lock_guard<std::recursive_mutex> g(mDMLock);
        mDriveCount = drives;
    }
    refreshPresence();
    if (drives > kSlots) {
        ESA_CONSOLE(" DM::We have more drives that what is supported.");
        ESA_ASSERT_OP(drives, <=, kSlots);
    }
    uint32_t present = mPresence.presence;
    for (int s = 0; s < kSlots; ++s) {
        if (!(present >> s & 1)) continue;
        if (!mDisks[s]->Initialize()) {
            mDisks[s]->SetDiskState(DiskObject::StateFailed);
            reportDiskFail(s);
        }
        taskResume(mThreads[s]);
    }
    for (int s = 0; s < kSlots; ++s) {
        if (!(present >> s & 1)) continue;
        if (RunDiskTest(s) == 0) {
            setReady(s, true);
        } else {
            mDisks[s]->SetDiskState(DiskObject::StateFailed);
            reportDiskFail(s);
        }
    }
    // J2: replay each dirty journalette to its disk, matched by identity.
    J2Manager::GetInstance()->startSoft();
    mLoaded = true;
    return StatusCode::Success;
}

StatusCode DiskManager::UnloadDiskPack() {
    if (!mLoaded) {
        ESA_TRACE(dmTrace, "DM::DiskPack not initialized.");
        return StatusCode::InitFailed;
    }
    for (auto& d : mDisks) d->Shutdown();
    std::lock_guard<std::recursive_mutex> g(mDMLock);
    mReadyBitmap = 0;
    mReadyCount = 0;
    mPresence = {};
    mLoaded = false;
    return StatusCode::Success;
}

// ---- the disk test

StatusCode DiskManager::QualifyDisk(int slot) {
    DiskObject* d = mDisks[slot].get();
    d->SetDiskState(DiskObject::StateUnderTest);
    uint64_t capacity = d->capacity();
    if (capacity >= kUnsupportedSectors) {
        ESA_CONSOLE("DPM::Disk" << slot << " is unsupported (>2TB)");
        return StatusCode::DiskError;
    }
    // All three are read; only the start of the disk decides.
    StatusCode first = d->ReadWriteSectorTest(0, 2);
    d->ReadWriteSectorTest(capacity / 2, 2);
    if (capacity >= 20) d->ReadWriteSectorTest(capacity - 20, 2);
    return first;
}

int DiskManager::RunDiskTest(int slot) {
    DiskObject* d = mDisks[slot].get();
    if (d->state() == DiskObject::StateFailed) return -1;
    d->SetDiskState(DiskObject::StateNone);
    if (QualifyDisk(slot) != StatusCode::Success) {
        d->ResetPhysicalDrive();
        if (QualifyDisk(slot) != StatusCode::Success) return -1;
    }
    d->SetDiskState(DiskObject::StateReady);
    return 0;
}

// ---- the status mapping every caller applies

StatusCode DiskManager::DiskErrorHandler(int slot, uint16_t command, uint64_t lba, StatusCode status) {
    ErrorPolicy* policy = ErrorPolicy::GetInstance();
    uint16_t s = uint16_t(slot);
    switch (status.value()) {
    case StatusCode::DM_QueueTimeout:
        return StatusCode::DM_DeviceTimeoutFlush;
    case StatusCode::DM_DeviceTimeout:
        policy->blockError(ErrorPolicy::FullTimeout, status, s, lba, 1);
        return status;
    case StatusCode::DM_RecoveredError:
    case StatusCode::DM_RecoveredChannel:
        if (DiskCommand::isRead(command)) policy->blockError(ErrorPolicy::SoftRead, status, s, lba, 1);
        else if (DiskCommand::isWrite(command)) policy->blockError(ErrorPolicy::SoftWrite, status, s, lba, 1);
        return StatusCode::Success;
    case StatusCode::DM_RecoveredTimeout:
        policy->blockError(ErrorPolicy::RecoveredTimeout, status, s, lba, 1);
        return status;
    case StatusCode::DM_MediaError:
        if (DiskCommand::isRead(command)) policy->blockError(ErrorPolicy::HardRead, status, s, lba, 1);
        else if (DiskCommand::isWrite(command)) policy->blockError(ErrorPolicy::HardWrite, status, s, lba, 1);
        return status;
    case StatusCode::DM_DriveStartFailure:
        policy->blockError(ErrorPolicy::DiskStartFailure, status, s, lba, 1);
        return StatusCode::DiskNotPresent;
    default:
        return status;
    }
}

// ---- synchronous reads and writes

bool DiskManager::oneShotFault(int slot, bool write) {
    std::lock_guard<std::mutex> g(mFaultLock);
    bool& flag = write ? mFailNextWrite : mFailNextRead;
    if (!flag || mFaultSlot != slot) return false;
    flag = false;
    return true;
}

void DiskManager::InjectOneShotFault(int slot, bool read, bool write) {
    std::lock_guard<std::mutex> g(mFaultLock);
    mFaultSlot = slot;
    mFailNextRead = read;
    mFailNextWrite = write;
}

StatusCode DiskManager::injected(int slot, bool write) {
    static const StatusCode::Value values[3] = {StatusCode::DM_MediaError, StatusCode::DM_DeviceTimeout,
                                                StatusCode::DM_RecoveredTimeout};
    for (int k = 0; k < 3; ++k) {
        bool fired = false;
        int point = write ? mWritePoints[k][slot] : mReadPoints[k][slot];
        StatusCode st = mInjection.apiErrorInject(point, values[k], fired);
        if (fired) {
            ESA_CONSOLE("Injecting API Error: " << (write ? "WriteData." : "ReadData.") << (k == 1 ? "FT." : k == 2 ? "RT." : "")
                                                << slot);
            return st;
        }
    }
    return StatusCode::Success;
}

namespace {
// Hands the panes to the disk in scatter lists, one list at a time, each
// command starting where the last one ended; stops at the first failure.
template <class Issue>
StatusCode inScatterLists(const DiskPane* panes, size_t n, uint64_t lba, Issue issue) {
    DiskSGL* list = DiskSGL::Allocate();
    StatusCode st = StatusCode::Success;
    auto flush = [&] {
        uint32_t sectors = list->sectors();
        st = issue(list, lba, sectors);
        lba += sectors;
        list->clear();
    };
    for (size_t i = 0; i < n && st == StatusCode::Success; ++i) {
        if (list->full()) flush();
        if (st == StatusCode::Success) list->append(panes[i].address, panes[i].length);
    }
    if (st == StatusCode::Success && list->entries()) flush();
    DiskSGL::Free(list);
    return st;
}
}  // namespace

StatusCode DiskManager::readPanes(int slot, const DiskPane* panes, size_t n, uint64_t lba) {
    DiskObject* d = mDisks[slot].get();
    return inScatterLists(panes, n, lba, [&](DiskSGL* list, uint64_t at, uint32_t sectors) {
        return DiskErrorHandler(slot, DiskCommand::ReadSGL, at, d->ReadSGLData(list, at, sectors));
    });
}

StatusCode DiskManager::writePanes(int slot, const DiskPane* panes, size_t n, uint64_t lba) {
    DiskObject* d = mDisks[slot].get();
    return inScatterLists(panes, n, lba, [&](DiskSGL* list, uint64_t at, uint32_t sectors) {
        StatusCode raw = d->WriteSGLData(list, at, sectors);
        if (raw == StatusCode::DM_RecoveredError) ESA_TRACE(dmTrace, "slot " << slot << " had recovered disk error");
        if (raw == StatusCode::DM_RecoveredChannel) ESA_TRACE(dmTrace, "slot " << slot << " had recovered channel error");
        return DiskErrorHandler(slot, DiskCommand::WriteSGL, at, raw);
    });
}

StatusCode DiskManager::ReadData(int slot, const DiskPane* panes, size_t n, uint64_t lba, IOTracker& tracker) {
    if (!validSlot(slot)) {
        ESA_CONSOLE("DM::ReadData disk=" << slot << " out of range.");
        return StatusCode::InternalError;
    }
    if (StatusCode st = injected(slot, false); st != StatusCode::Success) return st;
    if (tracker.flags & IOTracker::kFailNextIo) return StatusCode::MediaError;
    if (oneShotFault(slot, false)) return DiskErrorHandler(slot, DiskCommand::ReadSGL, lba, StatusCode::DM_MediaError);
    if (paneBytes(panes, n) == 0) {
        ESA_CONSOLE("DM::ReadData: DataWindow has  zero length!!!.");
        return StatusCode::BadIOLength;
    }
    uint64_t start = getTimebase();
    StatusCode st = readPanes(slot, panes, n, lba);
    mReadTimes.add(getTimebase() - start);
    return st;
}

StatusCode DiskManager::WriteData(int slot, const DiskPane* panes, size_t n, uint64_t lba, IOTracker& tracker,
                                  uint32_t flags) {
    if (!validSlot(slot)) {
        ESA_CONSOLE("DM::WriteData disk=" << slot << " out of range.");
        return StatusCode::InternalError;
    }
    if (noDiskWrites()) return StatusCode::Success;
    // J2: a metadata write of a transaction goes into the journal's set, not
    // to the disk; it reaches the disk when its journalette is spilled.
    if (tracker.isMeta() && J2Manager::GetInstance()->journalling())
        return J2Manager::GetInstance()->writeData(uint16_t(slot), panes, n, lba, tracker);
    if (tracker.flags & IOTracker::kFailNextIo) return StatusCode::MediaError;
    return WriteData(slot, panes, n, lba, flags);
}

StatusCode DiskManager::WriteData(int slot, const DiskPane* panes, size_t n, uint64_t lba, uint32_t) {
    if (!validSlot(slot)) {
        ESA_CONSOLE("DM::WriteData disk=" << slot << " out of range.");
        return StatusCode::InternalError;
    }
    if (noDiskWrites()) return StatusCode::Success;
    if (StatusCode st = injected(slot, true); st != StatusCode::Success) return st;
    if (oneShotFault(slot, true)) return DiskErrorHandler(slot, DiskCommand::WriteSGL, lba, StatusCode::DM_MediaError);
    if (paneBytes(panes, n) == 0) {
        ESA_CONSOLE("DM::WriteData: DataWindow has  zero length!!!.");
        return StatusCode::BadIOLength;
    }
    uint64_t start = getTimebase();
    StatusCode st = writePanes(slot, panes, n, lba);
    mWriteTimes.add(getTimebase() - start);
    return st;
}

bool DiskManager::noDiskWrites() { return SystemManager::GetInstance()->readOnly(); }

StatusCode DiskManager::ReadData(int slot, const DataWindow& window, uint64_t lba, IOTracker& tracker) {
    const auto& panes = windowPanes(window);
    return ReadData(slot, panes.data(), panes.size(), lba, tracker);
}

StatusCode DiskManager::WriteData(int slot, const DataWindow& window, uint64_t lba, IOTracker& tracker,
                                  uint32_t flags) {
    const auto& panes = windowPanes(window);
    return WriteData(slot, panes.data(), panes.size(), lba, tracker, flags);
}

StatusCode DiskManager::WriteData(int slot, const DataWindow& window, uint64_t lba, uint32_t flags) {
    const auto& panes = windowPanes(window);
    return WriteData(slot, panes.data(), panes.size(), lba, flags);
}

StatusCode DiskManager::ReadDataNoWait(int slot, const DataWindow& window, uint64_t lba, __DiskQReqStruct* r) {
    const auto& panes = windowPanes(window);
    return ReadDataNoWait(slot, panes.data(), panes.size(), lba, r);
}

StatusCode DiskManager::WriteDataNoWait(int slot, const DataWindow& window, uint64_t lba, __DiskQReqStruct* r) {
    const auto& panes = windowPanes(window);
    return WriteDataNoWait(slot, panes.data(), panes.size(), lba, r);
}

StatusCode DiskManager::ReadData(int slot, void* buffer, uint64_t lba, uint32_t sectors) {
    if (sectors == 0) {
        ESA_CONSOLE("DM::ReadData: DataWindow has  zero length!!!.");
        return StatusCode::BadIOLength;
    }
    DiskPane pane{buffer, sectors * kSectorSize};
    IOTracker tracker(READ_ONLY);
    return ReadData(slot, &pane, 1, lba, tracker);
}

StatusCode DiskManager::WriteData(int slot, void* buffer, uint64_t lba, uint32_t sectors) {
    if (sectors == 0) {
        ESA_CONSOLE("DM::WriteData: DataWindow has  zero length!!!.");
        return StatusCode::BadIOLength;
    }
    DiskPane pane{buffer, sectors * kSectorSize};
    return WriteData(slot, &pane, 1, lba, 0);
}

// ---- NoWait and parallel forms

StatusCode DiskManager::ReadDataNoWait(int slot, const DiskPane* panes, size_t n, uint64_t lba, __DiskQReqStruct* r) {
    if (!validSlot(slot)) return StatusCode::InternalError;
    if (paneBytes(panes, n) == 0) return StatusCode::BadIOLength;
    return mDisks[slot]->ReadDataNoWait(panes, n, lba, r);
}

StatusCode DiskManager::WriteDataNoWait(int slot, const DiskPane* panes, size_t n, uint64_t lba, __DiskQReqStruct* r) {
    if (!validSlot(slot)) return StatusCode::InternalError;
    if (paneBytes(panes, n) == 0) return StatusCode::BadIOLength;
    return mDisks[slot]->WriteDataNoWait(panes, n, lba, r);
}

StatusCode DiskManager::ParallelDiskWrite(DiskIoRequest* requests, int count) {
    if (noDiskWrites()) return StatusCode::Success;
    return ParallelDiskIO(kDirectionWrite, requests, count);
}

StatusCode DiskManager::ParallelDiskIO(int direction, DiskIoRequest* requests, int count) {
    if (count < 1 || count > kMaxParallel) return StatusCode::InternalError;
    const bool write = direction == kDirectionWrite;
    const uint16_t command = write ? DiskCommand::WriteSGL : DiskCommand::ReadSGL;
    uint64_t start = getTimebase();
    SEM_ID batch = semCCreate(SEM_Q_FIFO, 0);
    struct Item {
        DiskSGL* list = nullptr;
        __DiskQReqStruct request;
        bool issued = false;
    } items[kMaxParallel];
    unsigned normalWaits = 0, fastErrorWaits = 0;
    bool anyIssued = false;
    StatusCode result = StatusCode::Success;

    // The batch's last request is served on this thread when its disk is
    // idle, while the workers serve the others: the caller would only wait.
    int last = -1;
    for (int i = 0; i < count; ++i)
        if (requests[i].status == StatusCode::Success) last = i;
    DiskQueue* claimed = nullptr;
    for (int i = 0; i < count; ++i) {
        DiskIoRequest& io = requests[i];
        if (io.status != StatusCode::Success) continue;
        anyIssued = true;
        if (!validSlot(io.slot) || !DriveIsReadyNoLock(io.slot)) {
            io.status = result = StatusCode::DiskNotPresent;
            continue;
        }
        Item& it = items[i];
        it.list = DiskSGL::Allocate();
        it.request.data = it.list;
        it.request.groupSemaphore = batch;
        DiskQueue* mine = nullptr;
        StatusCode st = paneBytes(io.panes, io.paneCount) == 0
                            ? StatusCode(StatusCode::BadIOLength)
                        : i == last ? mDisks[io.slot]->IssueOrClaim(write, io.panes, io.paneCount, io.lba, &it.request, mine)
                        : write     ? mDisks[io.slot]->WriteDataNoWait(io.panes, io.paneCount, io.lba, &it.request)
                                    : mDisks[io.slot]->ReadDataNoWait(io.panes, io.paneCount, io.lba, &it.request);
        if (st == StatusCode::Success) {
            it.issued = true;
            if (mine) claimed = mine;
            else normalWaits++;
        } else if (st == StatusCode::DiskClosed) {
            io.status = result = StatusCode::DiskNotPresent;
            fastErrorWaits++;
        } else {
            ESA_CONSOLE("DM::ParallelDiskIO: " << (write ? "WRITE" : "READ") << " operation number " << i
                                               << " returned error: " << st);
            io.status = result = st;
        }
    }
    if (claimed) claimed->RunClaimed(&items[last].request);
    for (unsigned w = 0; w < normalWaits; ++w) semTakeForever(batch);
    for (unsigned w = 0; w < fastErrorWaits; ++w) {
        ESA_CONSOLE("Waiting for fasterror sem " << w << " of " << fastErrorWaits);
        semTakeForever(batch);
        ESA_CONSOLE("Done Waiting for fasterror sem " << w << " of " << fastErrorWaits);
    }
    for (int i = 0; i < count; ++i) {
        Item& it = items[i];
        if (it.list) DiskSGL::Free(it.list);
        if (!it.issued) continue;
        DiskIoRequest& io = requests[i];
        StatusCode st = DiskErrorHandler(io.slot, command, io.lba, it.request.status);
        if (st != StatusCode::Success) ESA_TRACE(dmTrace, "Got a mapped error (" << st << ") for IO number " << i);
        if (st == StatusCode::Success && oneShotFault(io.slot, write)) st = StatusCode::DM_MediaError;
        io.status = st;
        if (st != StatusCode::Success) result = st;
    }
    semDelete(batch);
    (write ? mParallelWriteTimes : mParallelReadTimes).add(getTimebase() - start);
    return anyIssued ? result : StatusCode(StatusCode::NotExecuted);
}

// ---- cache flush

StatusCode DiskManager::Flush(int slot) {
    if (!validSlot(slot)) return StatusCode::InternalError;
    StatusCode st = mDisks[slot]->FlushWriteCacheAsync(true);
    return DiskErrorHandler(slot, DiskCommand::FlushCache, 0, st);
}

StatusCode DiskManager::FlushAllDrives() {
    uint64_t start = getTimebase();
    SEM_ID shared = semCCreate(SEM_Q_FIFO, 0);
    __DiskQReqStruct requests[kSlots];
    bool issued[kSlots] = {};
    unsigned waits = 0;
    for (int s = 0; s < kSlots; ++s) {
        if (!DriveIsReadyNoLock(s)) continue;
        StatusCode st = mDisks[s]->FlushWriteCacheSync(&requests[s], shared);
        if (st == StatusCode::Success) {
            issued[s] = true;
            waits++;
        } else if (st != StatusCode::DM_DiskAlreadyFlushed && st != StatusCode::DiskNotPresent) {
            ESA_CONSOLE("DM::FlushAllDrives: slot " << s << " flush not issued: " << st);
        }
    }
    for (unsigned w = 0; w < waits; ++w) semTakeForever(shared);
    for (int s = 0; s < kSlots; ++s) {
        if (!issued[s]) continue;
        mDisks[s]->FlushCompleted(&requests[s]);
        StatusCode st = DiskErrorHandler(s, DiskCommand::FlushCache, 0, requests[s].status);
        if (st != StatusCode::Success && st != StatusCode::DiskNotPresent)
            ESA_CONSOLE("DM::FlushAllDrives: slot " << s << " flush failed: " << st);
    }
    semDelete(shared);
    mFlushTimes.add(getTimebase() - start);
    return StatusCode::Success;
}

void DiskManager::FlushAllDisksBypassQueue() {
    if (!mLoaded) return;
    for (auto& d : mDisks)
        if (d && d->initialized()) d->FlushWriteCacheAsync(false);
}

void DiskManager::ResetAllDrives() {
    for (auto& d : mDisks)
        if (d && d->initialized()) d->ResetPhysicalDrive();
}

// ---- hot add and remove

void DiskManager::reportDiskFail(int slot) {
    // The failed-slot light is the slot policy's; until it is built the failure is told on the console.
    ESA_CONSOLE("DM: disk in slot " << slot << " failed");
}

void DiskManager::notifyPackLayers(int slot, bool add) {
    // The journal and the pack manager hear of each disk that comes or goes,
    // the journal first (a returning disk gets its unspilled metadata back
    // before the pack reads its records). The pack manager listens once the
    // system has initialised it: the disk layer alone (its own tests, the
    // board tool) never makes or changes a pack.
    ESA_TRACE(dmTrace, "DM: slot " << slot << (add ? " added" : " removed"));
    J2Manager::GetInstance()->hotPlug(uint16_t(slot), add ? hotAdd : hotRemove);
    DiskPackManager* dpm = DiskPackManager::GetInstance();
    if (dpm->initialized())
        dpm->hotPlug(uint16_t(slot), add ? DiskPackManager::ADD : DiskPackManager::REMOVE);
}

StatusCode DiskManager::AddDisk(int slot) {
    if (!validSlot(slot)) return StatusCode::InternalError;
    ESA_CONSOLE("DM::AddDisk " << slot);
    DiskObject* d = mDisks[slot].get();
    std::unique_lock<std::mutex> serial(d->hotPlugSerialLock());
    refreshPresence();
    if (!(mPresence.presence >> slot & 1)) return StatusCode::DiskError;
    bool ok = d->Initialize();
    // The worker serves the new queue even when the disk failed, so that the
    // queue can always be shut down later.
    taskResume(mThreads[slot]);
    if (!ok) {
        d->SetDiskState(DiskObject::StateFailed);
        serial.unlock();
        reportDiskFail(slot);
        return StatusCode::DiskError;
    }
    serial.unlock();
    if (RunDiskTest(slot) == 0) {
        // The pack manager's isDiskUsable check joins here with the pack layer.
        setReady(slot, true);
        notifyPackLayers(slot, true);
        return StatusCode::Success;
    }
    d->SetDiskState(DiskObject::StateFailed);
    reportDiskFail(slot);
    return StatusCode::DiskError;
}

StatusCode DiskManager::RemoveDisk(int slot) {
    if (!validSlot(slot)) return StatusCode::InternalError;
    DiskObject* d = mDisks[slot].get();
    std::unique_lock<std::mutex> serial(d->hotPlugSerialLock());
    DiskPowerManager::GetInstance()->WakeupSystem(-1);
    if (!d->initialized()) {
        ESA_TRACE(dmTrace, "DM: Disk " << slot << " removed before it had become ready, or after it had been expunged.");
        setReady(slot, false);
        d->SetDiskState(DiskObject::StateNone);
        refreshPresence();
        CloseDrive(slot);
        serial.unlock();
        SystemPolicy::GetInstance()->RemoveDisk(uint16_t(slot));
        return StatusCode::DiskNotPresent;
    }
    d->Shutdown();
    if (d->state() != DiskObject::StateFailed) setReady(slot, false);
    d->SetDiskState(DiskObject::StateNone);
    refreshPresence();
    serial.unlock();
    notifyPackLayers(slot, false);
    return StatusCode::Success;
}

bool DiskManager::RepairDisk(int slot) {
    if (!validSlot(slot)) return false;
    return ResetDrive(slot) >= 0;
}

void DiskManager::DoHotPlugDisk(EVENT_TYPE, void*, unsigned long value, void*) {
    int slot = int(value & 0xffff);
    if ((value >> 16 & 0xffff) == 1) GetInstance()->AddDisk(slot);
    else GetInstance()->RemoveDisk(slot);
}

// ---- state and identity

uint64_t DiskManager::GetDriveCapacity(int slot) {
    if (!validSlot(slot) || !mDisks[slot]->initialized()) return 0;
    // The pack layers address a disk with 32-bit LBAs: a disk of 2^32 sectors
    // or more is given to them as exactly 2^32 sectors, every one of which a
    // 32-bit LBA reaches; the sectors beyond are never used.
    return std::min<uint64_t>(mDisks[slot]->capacity(), 1ull << 32);
}

bool DiskManager::DriveIsPresent(int slot) {
    if (!validSlot(slot)) return false;
    std::lock_guard<std::recursive_mutex> g(mDMLock);
    return mPresence.presence >> slot & 1;
}

bool DiskManager::DriveIsReady(int slot) {
    std::lock_guard<std::recursive_mutex> g(mDMLock);
    return DriveIsReadyNoLock(slot);
}

int DiskManager::readyCount() {
    std::lock_guard<std::recursive_mutex> g(mDMLock);
    return mReadyCount;
}

int DiskManager::FailedDiskCount() {
    int n = 0;
    for (auto& d : mDisks)
        if (d && d->state() == DiskObject::StateFailed) n++;
    return n;
}

void DiskManager::SetDiskState(int slot, uint16_t state) {
    if (!validSlot(slot)) return;
    std::lock_guard<std::recursive_mutex> g(mDMLock);
    mDisks[slot]->SetDiskState(state);
}

const DiskIdentifier* DiskManager::GetDiskWWN(int slot) {
    return validSlot(slot) ? &mDisks[slot]->identifier() : nullptr;
}

std::unordered_map<int, const DiskIdentifier*> DiskManager::GetDiskWWNMap() {
    std::unordered_map<int, const DiskIdentifier*> map;
    std::lock_guard<std::recursive_mutex> g(mDMLock);
    for (int s = 0; s < kSlots; ++s)
        if (DriveIsReadyNoLock(s)) map[s] = &mDisks[s]->identifier();
    return map;
}

// ---- temperature and load history

int DiskManager::GetDrivesInfo(diskSmartInfo* info, bool cached) {
    int state = DiskPowerManager::GetInstance()->GetSystemState();
    if (state != 1 && state != 2) return 0;
    for (int s = 0; s < kSlots; ++s) {
        info[s] = diskSmartInfo{};
        if (!DriveIsReadyNoLock(s)) continue;
        if (cached) {
            info[s].temperature = mDisks[s]->temperature();
            continue;
        }
        alignas(32) uint8_t data[512];
        SetSMARTOps(s, true);
        uint32_t st = ReadSMARTAttributes(s, data);
        SetSMARTOps(s, false);
        if (st != DriveStatus::Success) continue;
        SmartData::parse(data, info[s]);
        mDisks[s]->setTemperature(info[s].temperature);
    }
    return kSlots;
}

uint8_t DiskManager::GetCachedTemperature(int slot) {
    if (!validSlot(slot) || !DriveIsReadyNoLock(slot)) return 0;
    return mDisks[slot]->temperature();
}

void DiskManager::RecordTemperatureHistory() {
    int state = DiskPowerManager::GetInstance()->GetSystemState();
    uint8_t hottest = 0;
    if (state == 1 || state == 2)
        for (int s = 0; s < kSlots; ++s) hottest = std::max(hottest, GetCachedTemperature(s));
    std::lock_guard<std::recursive_mutex> g(mDMLock);
    mTemperatureHistory[mTemperatureIndex] = hottest;
    if (++mTemperatureIndex == kHistoryLength) mTemperatureIndex = 0;
}

uint32_t DiskManager::GetDiskBusyPercentage(int slot) {
    if (!validSlot(slot)) return 0;
    DiskQueue* q = mDisks[slot]->queue();
    return q ? q->GetDiskBusyPercentage() : 0;
}

void DiskManager::RecordDiskUtilization() {
    uint8_t sample[kSlots];
    for (int s = 0; s < kSlots; ++s) sample[s] = DriveIsReadyNoLock(s) ? uint8_t(GetDiskBusyPercentage(s)) : 0;
    std::lock_guard<std::recursive_mutex> g(mDMLock);
    for (int s = 0; s < kSlots; ++s) mBusyHistory[s][mBusyIndex] = sample[s];
    if (++mBusyIndex == kHistoryLength) mBusyIndex = 0;
}

// ---- dumps

void DiskManager::DumpHistory(std::ostream& out, bool temperature) {
    std::lock_guard<std::recursive_mutex> g(mDMLock);
    if (temperature) {
        out << "Disk temperature history (oldest first):";
        for (int i = 0; i < kHistoryLength; ++i)
            out << (i % 20 ? " " : "\n  ") << int(mTemperatureHistory[(mTemperatureIndex + i) % kHistoryLength]);
        out << "\n";
        return;
    }
    for (int s = 0; s < kSlots; ++s) {
        out << "Disk " << s << " utilization history (oldest first):";
        for (int i = 0; i < kHistoryLength; ++i)
            out << (i % 20 ? " " : "\n  ") << int(mBusyHistory[s][(mBusyIndex + i) % kHistoryLength]);
        out << "\n";
    }
}

void DiskManager::Dump(std::ostream& out) {
    {
        std::lock_guard<std::recursive_mutex> g(mDMLock);
        out << "DiskManager: " << (mLoaded ? "loaded" : "not loaded") << ", drives " << mDriveCount << ", present 0x"
            << std::hex << mPresence.presence << ", ready 0x" << mReadyBitmap.load() << std::dec << " (" << mReadyCount
            << " ready)" << (noDiskWrites() ? ", NO DISK WRITES" : "") << "\n";
    }
    for (auto& d : mDisks)
        if (d) d->Dump(out);
}

void DiskManager::PerfInfo(std::ostream& out) {
    out << "DM reads:";
    mReadTimes.Dump(out);
    out << "DM writes:";
    mWriteTimes.Dump(out);
    out << "DM parallel reads:";
    mParallelReadTimes.Dump(out);
    out << "DM parallel writes:";
    mParallelWriteTimes.Dump(out);
    out << "DM cache flushes:";
    mFlushTimes.Dump(out);
}
