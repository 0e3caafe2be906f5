// J2Manager: spilling journalettes to their disks, the spill workers and the
// idle timer.
#include <cstring>
#include <thread>

#include "disk/DiskManager.h"
#include "disk/DiskPowerManager.h"
#include "disk/ErrorPolicy.h"
#include "journal/j2/J2CacheHooks.h"
#include "journal/j2/J2Manager.h"
#include "journal/j2/J2Nvram.h"
#include "journal/j2/J2Trace.h"
#include "journal/j2/J2io.h"
#include "util/Assert.h"

using namespace j2;

namespace {
constexpr unsigned kMaxMergedExtents = 256;
constexpr uint32_t kStopWorker = 0xFFFFFFFF;
constexpr int kTimerTicks = 2 * 60;  // the idle timer looks every 2 seconds
}  // namespace

bool J2Manager::needSpill(unsigned int slot) const {
    return slot < kMaxDisks && dh(slot).getValid() != 0 && dh(slot).getClean() == 0;
}

void J2Manager::forceFlush(bool inhibitable) {
    LockObject::ExclusiveLockInstance g(&mSoftLock);
    if (!mLoaded) {
        ESA_TRACE(j2Trace, "J2::forceFlush: NOT FLUSHING BECAUSE J2 NOT LOADED");
        return;
    }
    softSpill(inhibitable);
}

void J2Manager::requestSpill() {
    mSpillRequested = true;
    if (mTimerWake) semGive(mTimerWake);
}

void J2Manager::softSpill(bool inhibitable) {
    if (inhibitable && (LockObjectBase::bypass.load() || (mFlushHeld.load() != 0 && !mFlushLock.OwnsLock()))) {
        ESA_TRACE(j2Trace, "J2Manager::softSpill - skipping spill since flush is inhibited");
        return;
    }
    ReentrantLockObject::LockInstance g(&mFlushLock);
    mFlushHeld++;
    int sent = 0;
    for (uint32_t s = 0; s < kMaxDisks; ++s) {
        if (!needSpill(s)) continue;
        if (mToQueue && msgQSend(mToQueue, &s, sizeof s, WAIT_FOREVER, MSG_PRI_NORMAL) == 0) {
            ++sent;
        } else {
            doSpill(s, false);  // no workers (tests, or all lost): spill here
        }
    }
    for (int i = 0; i < sent; ++i) {
        uint32_t done;
        msgQReceive(mFromQueue, &done, sizeof done, WAIT_FOREVER);
    }
    mFlushHeld--;
    mIdle = true;
}

// One pass over the journalette: every committed record goes into the extent
// list, which keeps only the newest copy of each sector, and the extents go
// out as merged writes straight from battery-backed memory.
void J2Manager::spillOnce(unsigned slot, bool replay, std::vector<CacheTrackerObject*>& release,
                          StatusCode& writeStatus) {
    J2io io;
    unsigned char* rec = location[slot].journalette;
    unsigned char* end = location[slot].journalette + kCtrlSize;
    while (rec + kSetHeadSize <= end) {
        auto* head = reinterpret_cast<AtomicSetHead*>(rec);
        if (head->getMark() != kMark) break;
        uint16_t n = head->getNumTran();
        if (rec + recordSize(n) > end) break;  // a damaged record: nothing behind it is trusted
        auto* tr = reinterpret_cast<J2Transaction*>(rec + kSetHeadSize);
        for (uint16_t i = 0; i < n; ++i) {
            uint16_t secs = tr[i].getNumSecs();
            uint32_t lba = tr[i].getLba();
            unsigned char* data = location[slot].journalette + size_t(tr[i].getPlace()) * kSectorSize;
            if (data + size_t(secs & ~kInjectBit) * kSectorSize > location[slot].journalette + kJournaletteStride)
                continue;  // a place outside the journalette is never written out
            if (secs & kInjectBit) {
                secs &= uint16_t(~kInjectBit);
                ESA_CONSOLE("J2Manager::doSpill: injecting error into block 0x" << std::hex << lba << std::dec);
                ErrorPolicy::GetInstance()->blockError(10, StatusCode::MediaError, dh(slot).getDiskNum(), lba, secs);
            } else {
                io.insert(lba, secs, data);
            }
            uint32_t h = tr[i].getClid();
            if (!replay && h && h <= mClids[slot].size()) release.push_back(mClids[slot][h - 1]);
        }
        uint32_t lh = head->getClidList();
        if (!replay && lh && lh <= mClidLists[slot].size() && mClidLists[slot][lh - 1]) {
            clidTracker* list = mClidLists[slot][lh - 1];
            for (clidTracker::elem* e = list->head(); e; e = e->next) release.push_back(e->clid);
            delete list;
            mClidLists[slot][lh - 1] = nullptr;
            J2Nvram::store32(head->clidList, 0, "j2.spill.clidList");
        }
        rec += recordSize(n);
    }

    uint16_t diskNum = dh(slot).getDiskNum();
    DiskPane panes[kMaxMergedExtents];
    while (!io.empty()) {
        J2io::elem* first = io.pop();
        uint32_t lba = first->lba;
        uint32_t sectors = first->sectors;
        size_t count = 0;
        unsigned extents = 1;
        panes[count++] = DiskPane{first->data, first->sectors * kSectorSize};
        delete first;
        while (extents < kMaxMergedExtents && io.front() && io.front()->lba == lba + sectors) {
            ++extents;
            J2io::elem* e = io.pop();
            // Extents that also follow in memory share one pane.
            DiskPane& last = panes[count - 1];
            if (static_cast<unsigned char*>(last.address) + last.length == e->data)
                last.length += e->sectors * kSectorSize;
            else
                panes[count++] = DiskPane{e->data, e->sectors * kSectorSize};
            sectors += e->sectors;
            delete e;
        }
        if (extents > 1) ESA_TRACE(j2Trace, "J2Manager::doSpill: merging I/O at LBA 0x" << std::hex << lba << std::dec);
        if (!J2Nvram::reached("j2.spill.write")) continue;
        StatusCode st = DiskManager::GetInstance()->WriteData(diskNum, panes, count, lba, 0);
        mSpillWrites++;
        mSpillSizes.add(sectors);
        if (st == StatusCode::DiskNotPresent) {
            writeStatus = st;
            setValid(slot, 0);
            ESA_TRACE(j2Trace, "J2Manager::doSpill: DiskNotPresent writing slot " << diskNum);
            rebootIfCritical(diskNum);
        } else if (st != StatusCode::Success) {
            if (writeStatus == StatusCode::Success) writeStatus = st;
            ESA_CONSOLE("J2Manager::playJournallete: Error from dm.WriteData " << st);
            ErrorPolicy::GetInstance()->blockError(st == StatusCode::DM_DeviceTimeout ? 5 : 1, st, diskNum, lba,
                                                   sectors);
        }
    }
}

void J2Manager::doSpill(unsigned int slot, bool replay) {
    ESA_ASSERT_OP(slot, <, kMaxDisks);
    ManualPerfSamplerLimitForced timer(&mPlayoutTimes, "J2Manager Playout", 10000000);
    std::vector<CacheTrackerObject*> release;
    uint16_t diskNum = dh(slot).getDiskNum();
    for (int attempt = 0; attempt < 2; ++attempt) {
        StatusCode writeStatus = StatusCode::Success;
        spillOnce(slot, replay || attempt > 0, release, writeStatus);
        if (dh(slot).getValid() == 0) break;
        if (!J2Nvram::reached("j2.spill.flush")) return;  // power is gone: nothing after this happens
        uint64_t start = getTimebase();
        StatusCode st = DiskManager::GetInstance()->Flush(diskNum);
        mFlushTimes.add(getTimebase() - start);
        if (st == StatusCode::Success || st == StatusCode::DM_DiskAlreadyFlushed) break;
        if (st == StatusCode::DiskNotPresent) {
            setValid(slot, 0);
            ESA_CONSOLE("DiskNotPresent from dm.flush " << diskNum);
            rebootIfCritical(diskNum);
            break;
        }
        if (st == StatusCode::DM_DeviceTimeout) {
            taskDelay(2);
            ESA_TRACE(j2Trace, "J2Manager::doSpill: re-executing journalette " << slot << " because of " << st
                                                                               << " from disk flush");
        }
        if (attempt == 1) {
            ESA_CONSOLE("J2::doSpill: power cycling slot " << diskNum << " because too many disk flush failures");
            setValid(slot, 0);
            ErrorPolicy::GetInstance()->blockError(1, st, diskNum, 0, 0);
            DiskPowerManager::GetInstance()->SlotPowerCycleAsync(diskNum);
        }
    }
    if (dh(slot).getValid() != 0) resetSoftJournalette(int(slot));
    releaseClids(release);
    mSpillCount++;
    timer.stop();
}

void J2Manager::releaseClids(const std::vector<CacheTrackerObject*>& clids) {
    if (!J2CacheHooks::get().allowEviction) return;
    for (CacheTrackerObject* c : clids)
        if (c) J2CacheHooks::get().allowEviction(c);
}

void J2Manager::resetSoftJournalette(int slot) {
    ESA_ASSERT(slot >= 0 && slot < int(kMaxDisks));
    load[slot].payload = location[slot].payload;
    load[slot].ctrl = location[slot].journalette;
    // The whole head of the first record place is cleared, so that a record
    // of an earlier run can never pass for a committed one.
    J2Nvram::zero(location[slot].journalette, kSetHeadSize, "j2.reset.head");
    space[slot] = {kCtrlSize, kPayloadSize};
    J2Nvram::store16(dh(slot).clean, 1, "j2.reset.clean");
    mClids[slot].clear();
    for (clidTracker* l : mClidLists[slot]) delete l;
    mClidLists[slot].clear();
    mLastRecord[slot] = nullptr;
    mLastId[slot] = 0;
}

void J2Manager::cleanseJournalette(unsigned int slot) {
    ESA_ASSERT_OP(dh(slot).getValid(), ==, 0);
    if (dh(slot).getClean()) return;
    std::vector<CacheTrackerObject*> release;
    for (CacheTrackerObject* c : mClids[slot]) release.push_back(c);
    for (clidTracker*& l : mClidLists[slot]) {
        if (!l) continue;
        for (clidTracker::elem* e = l->head(); e; e = e->next) release.push_back(e->clid);
        delete l;
        l = nullptr;
    }
    mClids[slot].clear();
    // The records keep their data for the disk's return; their handles are gone.
    unsigned char* rec = location[slot].journalette;
    while (rec + kSetHeadSize <= location[slot].journalette + kCtrlSize) {
        auto* head = reinterpret_cast<AtomicSetHead*>(rec);
        if (head->getMark() != kMark) break;
        if (head->getClidList()) J2Nvram::store32(head->clidList, 0, "j2.cleanse.clidList");
        rec += recordSize(head->getNumTran());
    }
    releaseClids(release);
}

// ---- threads

void J2Manager::startThreads() {
    if (!mThreads) return;
    mToQueue = msgQCreate(16, 4, 0);
    mFromQueue = msgQCreate(16, 4, 0);
    if (!mToQueue || !mFromQueue) {
        ESA_CONSOLE("J2Manager::initialize: ERROR, failed to create spill thread message queues, to = 0x"
                    << mToQueue << " from = 0x" << mFromQueue);
        mToQueue = mFromQueue = nullptr;
        return;
    }
    mThreadsRunning += 1;
    mTimerTask = taskSpawn("j2timer", 117, [this] { j2flushThread(); });
    for (int i = 0; i < 4; ++i) {
        mThreadsRunning += 1;
        std::string name = std::string("j2spill") + char('A' + i);
        mSpillTasks[i] = taskSpawn(name, 0x75, [this] { spillWorkerThread(); });
        if (!mSpillTasks[i]) {
            mThreadsRunning -= 1;
            if (i == 0) {
                ESA_CONSOLE("J2Manager::initialize: ERROR, no spill thread");
                msgQDelete(mToQueue);
                mToQueue = nullptr;
                return;
            }
            ESA_CONSOLE("J2Manager::initialize: ERROR, continuing since we have at least one spill thread");
        }
    }
}

void J2Manager::stopThreads() {
    if (!mToQueue) return;
    mStopping = true;
    for (TASK_ID t : mSpillTasks)
        if (t) msgQSend(mToQueue, &kStopWorker, sizeof kStopWorker, WAIT_FOREVER, MSG_PRI_NORMAL);
    semGive(mTimerWake);
    while (mThreadsRunning.load() != 0) std::this_thread::yield();
    msgQDelete(mToQueue);
    msgQDelete(mFromQueue);
    mToQueue = mFromQueue = nullptr;
}

void J2Manager::spillWorkerThread() {
    for (;;) {
        uint32_t slot;
        if (msgQReceive(mToQueue, &slot, sizeof slot, WAIT_FOREVER) != int(sizeof slot)) continue;
        if (slot == kStopWorker) break;
        if (slot < kMaxDisks) doSpill(slot, false);
        msgQSend(mFromQueue, &slot, sizeof slot, WAIT_FOREVER, MSG_PRI_NORMAL);
    }
    mThreadsRunning--;
}

// Spills about 2 to 4 seconds after the last commit, once; a steady stream
// of commits never triggers it. A spill asked for by the cache runs at once.
void J2Manager::j2flushThread() {
    mIdle = false;
    while (!mStopping) {
        semTake(mTimerWake, kTimerTicks);
        if (mStopping) break;
        if (!mLoaded) continue;
        if (mSpillRequested.exchange(false)) {
            forceFlush(true);
            mTimerTurns++;
            continue;
        }
        if (mActivity.exchange(false)) {
            mIdle = false;
        } else if (!mIdle) {
            forceFlush(true);
            mIdle = true;
        }
        mTimerTurns++;
    }
    mThreadsRunning--;
}
