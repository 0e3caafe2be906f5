// J2Manager: building sets and committing them into battery-backed memory.
#include "journal/j2/J2Manager.h"

#include <cstring>
#include <optional>

#include "journal/j2/J2CacheHooks.h"
#include "journal/j2/J2Nvram.h"
#include "journal/j2/J2io.h"
#include "journal/j2/J2Trace.h"
#include "system/SystemManager.h"
#include "system/nvram.h"
#include "util/Assert.h"
#include "util/MemoryPool.h"
#include "util/Trace.h"

using namespace j2;

namespace {
// One timing in 64: the histograms need only their shape, and two board
// clock reads cost as much as the copy of a small set.
bool sampleThisOne() {
    thread_local uint32_t n = 0;
    return (++n & 63) == 0;
}
}  // namespace

J2Manager* J2Manager::GetInstance() {
    if (J2Manager* standIn = sStandIn.load(std::memory_order_acquire)) return standIn;
    static J2Manager* instance = new J2Manager(nullptr, true);
    return instance;
}

J2Manager::J2Manager(unsigned char* partition, bool threads)
    : mBase(partition), mSoft(reinterpret_cast<SoftHeader*>(partition)), mThreads(threads) {
    fatal = [](const std::string& why) { SystemManager::GetInstance()->Reboot(why.c_str()); };
    mSyncDone = semBCreate(SEM_Q_FIFO, SEM_EMPTY);
    mTimerWake = semBCreate(SEM_Q_FIFO, SEM_EMPTY);
    // The journal's small objects come from their pools, never the heap, in
    // the steady state: sets being built, their writes, the spill's extents
    // (a full journalette of one-sector writes) and the extra-clid lists.
    ObjectPool<J2set>::Initialize(64);
    ObjectPool<J2subTran>::Initialize(1024);
    ObjectPool<J2io::elem>::Initialize(4096);
    ObjectPool<clidTracker::elem>::Initialize(256);
}

J2Manager::~J2Manager() {
    stopThreads();
    for (unsigned s = 0; s < kMaxDisks; ++s)
        for (clidTracker* l : mClidLists[s]) delete l;
    while (J2set* set = mBuildList) {
        mBuildList = set->next;
        delete set;
    }
    semDelete(mSyncDone);
    semDelete(mTimerWake);
}

void J2Manager::die(const std::string& why) const {
    ESA_CONSOLE(why);
    fatal(why);
    // A test's handler returns: this task stops here as the board would.
    for (;;) taskSuspend(nullptr);
}

void J2Manager::installTrackerHooks() {
    static J2Manager* target = nullptr;
    target = this;
    IOTracker::journal.commit = [](IOTracker& t) { return target->commit(t); };
    IOTracker::journal.setFlushFlag = [](IOTracker& t) { return target->flush(t); };
    IOTracker::journal.getMaxPayloadNeeded = [](IOTracker& t) {
        unsigned long n = 0;
        target->getMaxPayloadNeeded(t, n);
        return uint32_t(n);
    };
    IOTracker::journal.addClid = [](IOTracker& t, CacheTrackerObject* c) { target->addClid(t, c); };
    // A cache pool whose blocks are all pinned by committed sets asks for a
    // spill; the request never waits, the pool retries after a tick.
    MemoryPool::setSpillRequest([](MemoryPool&, uint32_t) { target->requestSpill(); });
}

void J2Manager::removeTrackerHooks() {
    IOTracker::journal = IOTracker::JournalHooks{};
    MemoryPool::setSpillRequest(nullptr);
}

namespace {
// The set a thread's last commit finished with, kept for its next set: sets
// are built and committed by the same thread as a rule, so a steady stream of
// commits neither allocates nor touches a shared word. A plain thread-local
// pointer; SpareSetOwner frees what it holds when the thread ends.
thread_local J2set* tSpareSet = nullptr;
thread_local bool tSpareSetFreedAtExit = false;
struct SpareSetOwner {
    ~SpareSetOwner() {
        delete tSpareSet;
        tSpareSet = nullptr;
    }
};
}  // namespace

J2set* J2Manager::newSet() {
    if (J2set* s = tSpareSet) {
        tSpareSet = nullptr;
        s->reset();
        return s;
    }
    return new J2set;
}

void J2Manager::retireSet(J2set* set) {
    if (!tSpareSetFreedAtExit) {
        thread_local SpareSetOwner owner;
        (void)owner;
        tSpareSetFreedAtExit = true;
    }
    delete tSpareSet;
    tSpareSet = set;
}

J2set* J2Manager::findSet(uint64_t id, J2set** prev) const {
    J2set* p = nullptr;
    for (J2set* s = mBuildList; s; p = s, s = s->next)
        if (s->id == id) {
            if (prev) *prev = p;
            return s;
        }
    return nullptr;
}

StatusCode J2Manager::writeData(unsigned short drive, const DiskPane* panes, size_t paneCount,
                                unsigned long long lba, IOTracker& tracker) {
    // The panes are the caller's (cache) memory, read at commit: they are
    // referenced, never taken over.
    if (paneCount == 1) return addWrite(drive, panes, nullptr, panes[0].length, lba, tracker);
    DataWindow window;
    for (size_t i = 0; i < paneCount; ++i) {
        DataStore* store = new DataStore(static_cast<unsigned char*>(panes[i].address), panes[i].length);
        window.add(*store, 0, panes[i].length);
        store->DecRef();
    }
    return addWrite(drive, nullptr, &window, window.GetLength(), lba, tracker);
}

StatusCode J2Manager::writeData(unsigned short drive, DataWindow& window, unsigned long long lba,
                                IOTracker& tracker) {
    return addWrite(drive, nullptr, &window, window.GetLength(), lba, tracker);
}

StatusCode J2Manager::addWrite(unsigned short drive, const DiskPane* pane, DataWindow* window, uint32_t length,
                               unsigned long long lba, IOTracker& tracker) {
    // Writes and copies are timed one in 64 (sampleThisOne): they are the hot
    // path of every metadata change.
    std::optional<ManualPerfSamplerLimitForced> timer;
    if (sampleThisOne()) timer.emplace(&mWriteTimes, "J2Manager::writeData", 1000000);
    if (drive >= kMaxDisks || dh(drive).getValid() == 0) {
        if (drive < kMaxDisks) rebootIfCritical(drive);
        return StatusCode::DiskNotPresent;
    }
    if (length == 0 || length % kSectorSize || length / kSectorSize >= kInjectBit || lba > 0xFFFFFFFFull ||
        lba + length / kSectorSize > 0x100000000ull)
        return StatusCode::BadIOLength;
    tracker.markDirty();
    LockObject::BriefExclusiveLockInstance g(&mBuildListLock);
    J2set* set = findSet(tracker.getID(), nullptr);
    if (!set) {
        ESA_TRACE(j2Trace, "making new atomic set for transaction 0x" << std::hex << tracker.getID() << std::dec);
        set = newSet();
        set->id = tracker.getID();
        J2set** tail = &mBuildList;
        while (*tail) tail = &(*tail)->next;
        *tail = set;
    }
    J2set::Need& need = set->need[drive];
    // A set that cannot fit an empty journalette is refused before it is
    // changed, so that no commit ever waits for space that cannot come.
    if (need.payload + length > kPayloadSize || need.ctrl + kTranSize > kCtrlSize) {
        g.lengthen();
        ESA_CONSOLE("ATOMIC SET 0x" << std::hex << set->id << std::dec << " TOO LARGE FOR JOURNAL, needs = "
                                    << need.payload + length << " journal = " << kPayloadSize);
        return StatusCode::OutOfSpace;
    }
    J2subTran* t = set->takeSubTran();
    t->clid = tracker.cacheTracker();
    t->lba = uint32_t(lba);
    t->drive = drive;
    if (pane) t->pane = *pane;
    else t->window = *window;
    t->length = length;
    t->injectError = tracker.flags & IOTracker::kFailNextIo;
    need.ctrl += kTranSize;
    need.payload += length;
    set->slots |= 1u << drive;
    set->append(t);
    if (t->clid && J2CacheHooks::get().markRangeDirty) J2CacheHooks::get().markRangeDirty(t->clid);
    return StatusCode::Success;
}

StatusCode J2Manager::addClid(IOTracker& tracker, CacheTrackerObject* clid) {
    LockObject::ExclusiveLockInstance g(&mBuildListLock);
    J2set* set = findSet(tracker.getID(), nullptr);
    if (!set) {
        ESA_CONSOLE("J2Manager::addClid: NOT FOUND!");
        return StatusCode::UnknownTransaction;
    }
    if (!clid) clid = tracker.cacheTracker();
    if (!clid) return StatusCode::Success;
    if (J2CacheHooks::get().markRangeDirty) J2CacheHooks::get().markRangeDirty(clid);
    set->clids.push(clid);
    return StatusCode::Success;
}

StatusCode J2Manager::flush(IOTracker& tracker) {
    LockObject::SharedLockInstance g(&mBuildListLock);
    J2set* set = findSet(tracker.getID(), nullptr);
    if (!set) return StatusCode::UnknownTransaction;
    set->flags |= J2set::kFlushWanted;
    return StatusCode::Success;
}

StatusCode J2Manager::getMaxPayloadNeeded(IOTracker const& tracker, unsigned long& payload) const {
    payload = 0;
    LockObject::SharedLockInstance g(const_cast<LockObject*>(&mBuildListLock));
    J2set* set = findSet(tracker.getID(), nullptr);
    if (!set) return StatusCode::UnknownTransaction;
    for (const J2set::Need& n : set->need) payload = std::max<unsigned long>(payload, n.payload);
    return StatusCode::Success;
}

bool J2Manager::journalsClean() const {
    for (unsigned s = 0; s < kMaxDisks; ++s)
        if (dh(s).getClean() == 0) return false;
    return true;
}

StatusCode J2Manager::commit(IOTracker& tracker) {
    if (!mLoaded) {
        ESA_CONSOLE("IGNORING COMMIT ON UNLOADED PACK (THIS IS A BUG SOMEWHERE)");
        // The journal is untouched; the extended locks still fall, so that a
        // writer that ends here does not stop the system.
        tracker.lockRelease();
        return StatusCode::DiskPackNotLoaded;
    }
    StatusCode result = StatusCode::Success;
    mBuildListLock.LockExclusiveBrief();
    J2set* prev = nullptr;
    J2set* set = findSet(tracker.getID(), &prev);
    if (!set) {
        mBuildListLock.LockRelease();
        if (tracker.isReadWrite()) {
            ESA_CONSOLE("J2Manager::commit (IOTracker& ): UNKNOWN TRANSACTION on RW tracker 0x"
                        << std::hex << tracker.getID() << std::dec);
            result = StatusCode::UnknownTransaction;
        } else {
            ESA_TRACE(j2Trace, "J2Manager::commit (IOTracker &): commit on READ_ONLY tracker 0x"
                                   << std::hex << tracker.getID() << std::dec);
        }
    } else {
        result = commit(set, prev);  // releases lJ2BuildList
        if (result == StatusCode::DiskNotPresent) discardSet(set);
    }
    tracker.lockRelease();
    return result;
}

void J2Manager::discardSet(J2set* set) {
    // Each cache object once, with the number of dirty marks the set took of
    // it (one per write and per addClid).
    std::vector<std::pair<CacheTrackerObject*, unsigned>> marks;
    auto note = [&](CacheTrackerObject* clid) {
        for (auto& m : marks)
            if (m.first == clid) {
                ++m.second;
                return;
            }
        marks.emplace_back(clid, 1u);
    };
    for (J2subTran* t = set->head; t; t = t->next)
        if (t->clid) note(t->clid);
    for (clidTracker::elem* e = set->clids.head(); e; e = e->next) note(e->clid);
    if (J2CacheHooks::get().discardRange)
        for (auto& [clid, n] : marks) J2CacheHooks::get().discardRange(clid, n);
    delete set;
}

bool J2Manager::spaceCheck(J2set* set) {
    for (unsigned m = set->slots; m; m &= m - 1) {
        const unsigned s = unsigned(__builtin_ctz(m));
        const J2set::Need& n = set->need[s];
        if (n.payload >= kLargeSetPayload)
            ESA_TRACE(j2Trace, "!!!!! ATOMIC SET > 60% OF JOURNAL " << s << "set payload = " << n.payload
                                                                    << ", max space = " << kPayloadSize);
        const char* what = nullptr;
        if (space[s].ctrl < n.ctrl) what = "ctrl";
        else if (space[s].payload < n.payload) what = "payload";
        if (!what) continue;
        mSoftLock.Lengthen();
        ESA_TRACE(j2Trace, "J2Manager::commit (J2set *, J2set *): spilling soft J2 because of "
                               << (what[0] == 'c' ? n.ctrl : n.payload) << " bytes of " << what
                               << " space in journalette " << s);
        softSpill(false);
        if (dh(s).getValid() == 0)
            die(std::string("J2: no ") + what + " space and disk missing from slot " + std::to_string(s));
        return false;  // look again from slot 0
    }
    return true;
}

StatusCode J2Manager::commit(J2set* set, J2set* prev) {
    // Timed one in 64, as writes and copies are.
    std::optional<PerfSamplerLimitForced> timer;
    if (sampleThisOne()) timer.emplace(&mCommitTimes, "J2Manager::commit", 1000000);
    // Read by the idle timer only: a plain store, and none while it is set.
    if (!mActivity.load(std::memory_order_relaxed)) mActivity.store(true, std::memory_order_relaxed);
    if (prev) prev->next = set->next;
    else mBuildList = set->next;
    mBuildListLock.LockRelease();
    // A brief hold, made ordinary (lengthen) before anything that may wait:
    // a spill, a console message, a reboot.
    LockObject::BriefExclusiveLockInstance soft(&mSoftLock);

    // A slot that lost its disk after the write was added cannot take its
    // records: the whole set is refused, before anything reaches the journal.
    for (unsigned m = set->slots; m; m &= m - 1)
        if (const unsigned s = unsigned(__builtin_ctz(m)); dh(s).getValid() == 0) {
            soft.lengthen();
            ESA_CONSOLE("J2Manager::commit: slot " << s << " lost its disk before commit of set 0x" << std::hex
                                                   << set->id << std::dec << "; set discarded");
            rebootIfCritical(uint16_t(s));
            settleSync(set);  // a sync waits for the sets it counted, committed or refused
            return StatusCode::DiskNotPresent;  // the caller discards the set, outside the journal's locks
        }
    while (!spaceCheck(set)) {
    }

    // A record of an earlier commit of this same id that is the last of its
    // journalette would make a torn commit of this set look committed: its id
    // is cleared first (the record stays committed; only the repair reads ids).
    for (unsigned s = 0; s < kMaxDisks; ++s)
        if (mLastRecord[s] && mLastId[s] == set->id) {
            J2Nvram::store64(reinterpret_cast<AtomicSetHead*>(mLastRecord[s])->id, 0, "j2.commit.oldId");
            mLastId[s] = 0;
        }

    unsigned diskTran[kMaxDisks] = {};
    {
        std::optional<ManualPerfSamplerLimitForced> copy;
        if (sampleThisOne()) copy.emplace(&mCopyTimes, "J2Manager copy to NVRAM", 1000000);
        while (J2subTran* t = set->head) {
            set->head = t->next;
            unsigned d = t->drive;
            if (t->clid) {
                if (J2CacheHooks::get().preventEviction) J2CacheHooks::get().preventEviction(t->clid);
                if (J2CacheHooks::get().markRangeClean) J2CacheHooks::get().markRangeClean(t->clid);
            }
            J2Transaction tr{};
            putLE32(tr.clid, t->clid ? clidHandle(d, t->clid) : 0);
            putLE32(tr.lba, t->lba);
            putLE16(tr.place, uint16_t((load[d].payload - location[d].journalette) / kSectorSize));
            uint16_t secs = uint16_t(t->length / kSectorSize);
            ESA_ASSERT_OP(secs, <, kInjectBit);
            putLE16(tr.numSecs, uint16_t(secs | (t->injectError ? kInjectBit : 0)));
            J2Nvram::storeRecord(load[d].ctrl + kSetHeadSize + diskTran[d] * kTranSize, tr, "j2.commit.tran");
            if (t->pane.address) {
                J2Nvram::storeBytes(load[d].payload, t->pane.address, t->length, "j2.commit.data");
            } else {
                unsigned char* p;
                uint32_t n;
                uint32_t done = 0;
                for (auto it = t->window.begin(p, n); it != t->window.end(); it.GetNext(p, n)) {
                    J2Nvram::storeBytes(load[d].payload + done, p, n, "j2.commit.data");
                    done += n;
                }
            }
            load[d].payload += t->length;
            diskTran[d]++;
            set->retire(t);
        }
        set->tail = nullptr;
        if (copy) copy->stop();
    }

    bool listPlaced = false;
    unsigned char* records[kMaxDisks];
    for (unsigned m = set->slots; m; m &= m - 1) {
        const unsigned s = unsigned(__builtin_ctz(m));
        unsigned char* rec = load[s].ctrl;
        records[s] = rec;
        auto* head = reinterpret_cast<AtomicSetHead*>(rec);
        J2Nvram::store16(head->numTran, uint16_t(diskTran[s]), "j2.commit.numTran");
        uint32_t list = 0;
        if (!listPlaced && !set->clids.empty()) {
            clidTracker* moved = new clidTracker;
            set->clids.moveTo(*moved);
            for (clidTracker::elem* e = moved->head(); e; e = e->next) {
                if (J2CacheHooks::get().preventEviction) J2CacheHooks::get().preventEviction(e->clid);
                if (J2CacheHooks::get().markRangeClean) J2CacheHooks::get().markRangeClean(e->clid);
            }
            list = listHandle(s, moved);
        }
        listPlaced = true;
        J2Nvram::store32(head->clidList, list, "j2.commit.clidList");
        // The id last: a record place whose id is set holds a whole body.
        J2Nvram::store64(head->id, set->id, "j2.commit.id");
        load[s].ctrl += recordSize(uint16_t(diskTran[s]));
        // The whole head of the next record place is cleared, not only its
        // mark: a record left there by an earlier start must never be taken
        // for part of a later set.
        J2Nvram::storeRecord(load[s].ctrl, AtomicSetHead{}, "j2.commit.nextHead");
        // Already dirty from an earlier set: storing 0 again would change nothing.
        if (dh(s).getClean() != 0) J2Nvram::store16(dh(s).clean, 0, "j2.commit.clean");
        space[s].ctrl -= set->need[s].ctrl;
        space[s].payload -= set->need[s].payload;
    }
    // The commit point: the marks, in slot order, with nothing between them.
    for (unsigned m = set->slots; m; m &= m - 1)
        J2Nvram::store16(reinterpret_cast<AtomicSetHead*>(records[__builtin_ctz(m)])->mark, kMark, "j2.commit.mark");
    for (unsigned m = set->slots; m; m &= m - 1) {
        const unsigned s = unsigned(__builtin_ctz(m));
        mLastRecord[s] = records[s];
        mLastId[s] = set->id;
    }

    if (set->flags & J2set::kFlushWanted) {
        soft.lengthen();
        softSpill(false);
    }
    settleSync(set);
    retireSet(set);
    return StatusCode::Success;
}

void J2Manager::settleSync(const J2set* set) {
    if (mSyncCount && (set->flags & J2set::kSyncWanted)) {
        if (--mSyncCount == 0) semGive(mSyncDone);
    }
}

uint32_t J2Manager::clidHandle(unsigned slot, CacheTrackerObject* clid) {
    mClids[slot].push_back(clid);
    return uint32_t(mClids[slot].size());
}

uint32_t J2Manager::listHandle(unsigned slot, clidTracker* list) {
    mClidLists[slot].push_back(list);
    return uint32_t(mClidLists[slot].size());
}

void J2Manager::sync() {
    {
        LockObject::ExclusiveLockInstance g(&mBuildListLock);
        ESA_ASSERT_OP(mSyncCount.load(), ==, 0u);
        uint32_t n = 0;
        for (J2set* s = mBuildList; s; s = s->next) {
            s->flags |= J2set::kSyncWanted;
            ++n;
        }
        if (n) {
            ESA_TRACE(j2Trace, "J2Manager::sync: sync on ID = 0x" << std::hex << mBuildList->id << std::dec << " "
                                                                  << n << " atomic sets");
            mSyncCount = n;
        }
    }
    if (mSyncCount) semTake(mSyncDone, WAIT_FOREVER);
    forceFlush(false);
}

void J2Manager::flushIfOverHalfFull() {
    LockObject::ExclusiveLockInstance g(&mSoftLock);
    for (unsigned s = 0; s < kMaxDisks; ++s) {
        if (dh(s).getValid() == 0) continue;
        if (space[s].ctrl <= kHalfCtrl || space[s].payload <= kHalfPayload) {
            softSpill(false);
            return;
        }
    }
}
