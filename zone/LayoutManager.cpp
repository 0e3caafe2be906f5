// LayoutManager: its threads, the messages that wake them, the rebuild
// indication and the dump. The moves are in LayoutManagerMove.cpp and
// LayoutManagerPatch.cpp, the policy in LayoutManagerPolicy.cpp.
#include "zone/LayoutManager.h"

#include <chrono>
#include <functional>
#include <thread>

#include "disk/DiskPackManager.h"
#include "system/EventManager.h"
#include "system/scheduler/JobControlBlock.h"
#include "system/scheduler/Sched.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {
constexpr int kRepairQueueMessages = 16;
constexpr int kCopyQueueMessages = 72;
constexpr int kThreadPriority = 120;
constexpr int kCopyStartDelayTicks = 120;
constexpr unsigned long kIndicationStart = 0x8000, kIndicationStop = 0x7FFF;
}  // namespace

LayoutManager* LayoutManager::GetInstance() {
    static LayoutManager instance;
    return &instance;
}

LayoutManager::LayoutManager() : mRepairLock("lLMRepairLock", 0), mUpdateLock("rLMUpdateLock", 0) {
    mSavedEntry = ZoneTableEntry::Fresh();
    for (StatusCode& s : mSectionStatus) s = StatusCode::LastStatusCode;
}

StatusCode LayoutManager::Initialize() {
    StatusCode st = CreateLMCopyThreads();
    if (st != StatusCode::Success) return st;
    return CreateLMThread();
}

StatusCode LayoutManager::CreateLMThread() {
    if (mRepairTask) return StatusCode::Success;
    mQueue = msgQCreate(kRepairQueueMessages, sizeof(Message), 0);
    if (!mQueue) {
        ESA_CONSOLE("LayoutManager repair queue was not created");
        return StatusCode::InitFailed;
    }
    mRepairTask = taskSpawn("tLMRepair", kThreadPriority, [this] { LayoutManagerLoop(); });
    if (!mRepairTask) {
        ESA_CONSOLE("tLMRepair thread creation failed");
        return StatusCode::InitFailed;
    }
    return StatusCode::Success;
}

StatusCode LayoutManager::CreateLMCopyThreads() {
    if (mCopyTask) return StatusCode::Success;
    mCopyQueue = msgQCreate(kCopyQueueMessages, sizeof(Message), 0);
    mSectionSem = semCCreate(SEM_Q_FIFO, 0);
    if (!mCopyQueue || !mSectionSem) {
        ESA_CONSOLE("LayoutManager copy queue was not created");
        return StatusCode::InitFailed;
    }
    mCopyTask = taskSpawn("tRLThread0", kThreadPriority, [this] { LayoutManagerCopyLoop(); });
    if (!mCopyTask) {
        ESA_CONSOLE("tRLThread0 thread creation failed");
        return StatusCode::InitFailed;
    }
    return StatusCode::Success;
}

StatusCode LayoutManager::UnloadDiskPack() {
    // A move in progress ends with LM_LayoutAborted at its next chunk; the
    // copied part is thrown away at the next load (ZoneOne is emptied).
    mUnloading.store(true);
    mRestartRequested.store(true);
    for (int i = 0; i < 6000 && mMoveActive.load(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // host time: the board clock may stand still
    if (mMoveActive.load()) ESA_CONSOLE("LayoutManager: a move is still active at unload");
    return StatusCode::Success;
}

bool LayoutManager::packLoaded() const {
    return !mUnloading.load() && DiskPackManager::GetInstance()->packLoaded() && ZoneManager::GetInstance()->packLoaded() &&
           !ZoneManager::GetInstance()->readOnly();
}

bool LayoutManager::idle() const {
    return mWaiting.load() && (!mQueue || msgQNumMsgs(mQueue) == 0) && !mRebuildRunning.load() &&
           !mMoveActive.load();
}

JobControlBlock* LayoutManager::currentJob() {
    if (mCopyTask && taskIdSelf() == mCopyTask) return mCopyJob;
    if (mRepairTask && taskIdSelf() == mRepairTask) return mJob;
    return nullptr;
}

// ---------------------------------------------------------------------------
// The repair thread

void LayoutManager::LayoutManagerLoop() {
    JobControlBlock job(JobControlBlock::RELAYOUT, "LMRepair");
    mJob = &job;
    Sched::GetInstance()->suspendIfBackgroundDisabled();
    // A new job is active: it takes one turn so that it can pause, and is
    // never chosen while it waits for a message.
    job.resume();
    for (;;) {
        job.pause();
        Message m{};
        mWaiting.store(true);
        const int got = msgQReceive(mQueue, &m, sizeof m, sysClkRateGet() * kPeriodicSeconds);
        mWaiting.store(false);
        job.resume();
        Sched::GetInstance()->suspendIfBackgroundDisabled();
        if (got != int(sizeof m)) {
            if (packLoaded()) {
                mRestartRequested.store(false);
                ESA_CONSOLE("LayoutManager running periodic repair check");
                Rebuild(true);
            }
            continue;
        }
        switch (m.type) {
            case kAddDisk: {
                mRestartRequested.store(false);
                uint16_t ld = uint16_t(m.arg);
                LogicalDiskAdded(ld);
                break;
            }
            case kRemoveDisk: {
                mRestartRequested.store(false);
                uint16_t ld = uint16_t(m.arg);
                LogicalDiskRemoved(ld);
                break;
            }
            case kRepair:
                mRestartRequested.store(false);
                Rebuild(false);
                break;
            case kPatch: {
                mPatchRequested.store(false);
                startIndication();
                mRestartRequested.store(false);
                drainPendingPatches();
                uint32_t zone = m.arg;
                if (packLoaded()) {
                    RelayoutZone(zone, false, kMaxPriority, false);
                    Rebuild(false);
                }
                break;
            }
            default:
                tracef(coutTrace, "Unknown message (%u) received in LayoutManager repair thread\n", m.type);
        }
    }
}

bool LayoutManager::sendRepairMessage(const Message& m) {
    if (!mQueue) return false;
    if (msgQSend(mQueue, &m, sizeof m, NO_WAIT, MSG_PRI_NORMAL) == OK) return true;
    // A full queue already holds work that will look at the pack as it is.
    ESA_CONSOLE("LayoutManager repair queue full - request " << m.type << " dropped");
    return false;
}

namespace {
void initiate(const char* who, std::atomic<bool>& restart, bool moveActive, bool loaded,
              const std::function<void()>& send, bool threadRunning) {
    if (!threadRunning) return;  // before Initialize (tools, tests): nothing runs that could restart
    ESA_CONSOLE("Requesting restart of relayout due to " << who << "()");
    restart.store(true);
    if (moveActive) {
        ESA_CONSOLE("LayoutManager rebuild already in progress, skipping.");
        return;
    }
    if (!loaded) {
        ESA_CONSOLE("Skipping LayoutManager rebuild since no disk pack loaded.");
        return;
    }
    send();
}
}  // namespace

void LayoutManager::InitiateAddDisk(unsigned short logicalDisk) {
    initiate("InitiateAddDisk", mRestartRequested, mMoveActive.load(), packLoaded(),
             [&] { sendRepairMessage(Message{kAddDisk, logicalDisk, 0, 0, 0, 0, 0, 0, 0, 0, nullptr}); }, mQueue != nullptr);
}

void LayoutManager::InitiateRemoveDisk(unsigned short logicalDisk) {
    startIndication();
    initiate("InitiateRemoveDisk", mRestartRequested, mMoveActive.load(), packLoaded(),
             [&] { sendRepairMessage(Message{kRemoveDisk, logicalDisk, 0, 0, 0, 0, 0, 0, 0, 0, nullptr}); }, mQueue != nullptr);
}

void LayoutManager::InitiateBackgroundRepair() {
    initiate("InitiateBackgroundRepair", mRestartRequested, mMoveActive.load(), packLoaded(),
             [&] { sendRepairMessage(Message{kRepair, 0, 0, 0, 0, 0, 0, 0, 0, 0, nullptr}); }, mQueue != nullptr);
}

void LayoutManager::InitiateBackgroundPatch(uint32_t zone, uint32_t offset, unsigned dataCopy, IOTracker& tracker) {
    (void)tracker;
    ESA_CONSOLE("LM: patch requested for Zone " << zone << " offset 0x" << std::hex << offset << std::dec
                                                << " copy " << dataCopy);
    {
        std::lock_guard<std::mutex> guard(mPatchLock);
        ++mPatchCount;
        if (mPatches.size() == kPatchHistory) mPatches.erase(mPatches.begin());
        mPatches.push_back({zone, offset, dataCopy});
        // The Region is marked unusable on the repair thread: the caller is a
        // read or write that holds the table lock shared, and marking needs
        // it exclusive. Until then reads keep rebuilding around the bad copy.
        if (mQueue && mPendingPatches.size() < kPatchHistory) mPendingPatches.push_back({zone, offset, dataCopy});
    }
    if (!mQueue) return;
    ESA_CONSOLE("Requesting restart of relayout due to InitiateBackgroundPatch()");
    sendPatchMessage(zone);
}

void LayoutManager::InitiateRelayout(uint32_t zone) {
    ESA_CONSOLE("Requesting restart of relayout due to InitiateRelayout()");
    sendPatchMessage(zone);
}

void LayoutManager::sendPatchMessage(uint32_t zone) {
    mRestartRequested.store(true);
    if (mMoveActive.load()) return;
    if (!packLoaded()) {
        ESA_CONSOLE("Skipping LayoutManager rebuild since no disk pack loaded.");
        return;
    }
    if (mPatchRequested.exchange(true)) return;
    if (!sendRepairMessage(Message{kPatch, zone, 0, 0, 0, 0, 0, 0, 0, 0, nullptr})) mPatchRequested.store(false);
}

void LayoutManager::drainPendingPatches() {
    for (;;) {
        PatchRequest p;
        {
            std::lock_guard<std::mutex> guard(mPatchLock);
            if (mPendingPatches.empty()) return;
            p = mPendingPatches.front();
            mPendingPatches.pop_front();
        }
        if (!packLoaded()) continue;
        IOTracker tracker(READ_WRITE);
        ZoneManager::GetInstance()->MarkRegionUnusable(p.zone, p.offset, p.dataCopy, tracker);
        tracker.commitIfDirty();
    }
}

// ---------------------------------------------------------------------------
// The copy thread

void LayoutManager::LayoutManagerCopyLoop() {
    JobControlBlock job(JobControlBlock::RELAYOUT, "LMRepairCopy");
    mCopyJob = &job;
    job.resume();
    taskDelay(kCopyStartDelayTicks);
    for (;;) {
        job.pause();
        Message m{};
        const int got = msgQReceive(mCopyQueue, &m, sizeof m, WAIT_FOREVER);
        job.resume();
        Sched::GetInstance()->suspendIfBackgroundDisabled();
        if (got != int(sizeof m)) continue;
        if (m.type != kCopySection) {
            tracef(coutTrace, "Unknown message (%u) received in LayoutManager copy thread\n", m.type);
            continue;
        }
        StatusCode st = CopySection(m.source, m.destination, m.offset, m.length, m.index, m.ignoreErrors != 0,
                                    m.priority);
        if (m.index < kSections) mSectionStatus[m.index] = st;
        semGive(m.semaphore);
    }
}

// ---------------------------------------------------------------------------
// The rebuild indication

void LayoutManager::startIndication() {
    if (mIndication.exchange(true)) return;
    ESA_CONSOLE("LayoutManager starting LEDS flashing");
    EventManager::GetInstance()->NewEvent(eRebuild, true, kIndicationStart);
}

void LayoutManager::stopIndication() {
    if (!mIndication.exchange(false)) return;
    ESA_CONSOLE("LayoutManager stopping LEDS from flashing");
    EventManager::GetInstance()->NewEvent(eRebuild, true, kIndicationStop);
}

// ---------------------------------------------------------------------------
// Diagnostics

std::vector<LayoutManager::PatchRequest> LayoutManager::patchRequests() {
    std::lock_guard<std::mutex> guard(mPatchLock);
    return mPatches;
}

uint64_t LayoutManager::patchRequestCount() {
    std::lock_guard<std::mutex> guard(mPatchLock);
    return mPatchCount;
}

void LayoutManager::clearPatchRequests() {
    std::lock_guard<std::mutex> guard(mPatchLock);
    mPatches.clear();
    mPendingPatches.clear();
    mPatchCount = 0;
}

void LayoutManager::Dump(std::ostream& out) {
    out << "LayoutManager: " << (mRebuildRunning.load() ? "rebuild running" : "no rebuild running")
        << (mMoveActive.load() ? ", move active" : "") << (mIndication.load() ? ", rebuilding" : "")
        << (idle() ? ", idle" : "") << "\n";
    out << "  zoneBeingMoved " << mZoneBeingMoved.load() << " copy 0x" << std::hex << mCopyStart.load() << "-0x"
        << mCopyEnd.load() << " patchedOffset 0x" << mPatchedOffset.load() << std::dec << "\n";
    out << "  moves completed " << mMovesCompleted.load() << ", bytes moved " << mBytesMoved.load()
        << ", priority override " << mPriorityOverride.load() << "\n";
    std::lock_guard<std::mutex> guard(mPatchLock);
    out << "  " << mPatchCount << " patch requests, " << mPendingPatches.size() << " pending\n";
    for (const PatchRequest& p : mPatches)
        out << "  Zone " << p.zone << " offset 0x" << std::hex << p.offset << std::dec << " copy " << p.dataCopy
            << "\n";
}
