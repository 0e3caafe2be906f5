#include "journal/writejournal/J1Replay.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <sstream>

#include "host/ClientRequest.h"
#include "management/EventLogManager.h"
#include "platform/rtos/BoardClock.h"
#include "platform/rtos/Rtos.h"
#include "util/Assert.h"
#include "util/CrashPoint.h"
#include "util/DataStore.h"
#include "util/Trace.h"

namespace {
Trace tJ1r("j1r", "vrbh", "flow", false);
Trace tJ1rErr("j1r", "error", "flow", true);

J1Replay::CutHook& cutHook() {
    static J1Replay::CutHook h;
    return h;
}
std::atomic<bool> gCutHooked{false};

std::string hex(uint64_t v) {
    std::ostringstream os;
    os << std::hex << v;
    return os.str();
}
std::string packText(const DiskPackId& id) {
    std::ostringstream os;
    os << std::hex << std::setfill('0') << std::setw(8) << id.word[0] << std::setw(8) << id.word[1];
    return os.str();
}
// Sequence numbers wrap: a is older than b when the signed difference says so.
bool olderThan(uint32_t a, uint32_t b) { return int32_t(a - b) < 0; }
}  // namespace

const char* replayTagStateName(ReplayTagState state) {
    switch (state) {
        case ReplayTagState::FREE: return "FREE";
        case ReplayTagState::ALLOCATED: return "ALLOCATED";
        case ReplayTagState::PENDING: return "PENDING";
        case ReplayTagState::EXECUTED: return "EXECUTED";
        case ReplayTagState::FLUSHED: return "FLUSHED";
    }
    return "UNKNOWN";
}

J1Replay* J1Replay::GetInstance() {
    static J1Replay instance;
    return &instance;
}

J1Replay::J1Replay() : mTagFreed(semBCreate(SEM_Q_FIFO, SEM_EMPTY)) {}

J1Replay::~J1Replay() { semDelete(mTagFreed); }

void J1Replay::setCutHook(CutHook hook) {
    gCutHooked.store(bool(hook));
    cutHook() = std::move(hook);
}

void J1Replay::point(const char* name) {
    if (crashPointArmed()) CrashPoint(name);
    if (gCutHooked.load(std::memory_order_relaxed) && cutHook()) cutHook()(name);
}

void J1Replay::postEvent(const std::string& text) {
    ESA_CONSOLE(text);
    if (hooks.postEvent) {
        hooks.postEvent(text);
    } else if (EventLogManager* log = EventLogManager::EventLog()) {
        log->PostEvent(text);
    }
}

uint32_t J1Replay::capacityFor(unsigned long cacheSize) const {
    cacheSize = std::min<unsigned long>(cacheSize, kMaxCacheSize);
    return cacheSize < J1ReplayCacheHeader::kSize ? 0 : uint32_t((cacheSize - J1ReplayCacheHeader::kSize) / J1ReplayTag::kSize);
}

uint32_t J1Replay::indexOf(const J1ReplayTag& tag) const {
    auto index = uint32_t(&tag - tags());
    ESA_ASSERT(index < mNumTags);
    return index;
}

void J1Replay::Initialize(void* tagCache) {
    mCache = static_cast<uint8_t*>(tagCache);
    mDirtyAtBoot = false;
    if (!mCache || header()->magic() != J1_REPLAY_MAGIC) return;
    uint32_t n = std::min(header()->numTags(), capacityFor(kMaxCacheSize));
    for (uint32_t i = 0; i < n && !mDirtyAtBoot; ++i) mDirtyAtBoot = tags()[i].live();
}

bool J1Replay::isClean(bool verbose) const {
    bool clean;
    if (!mReplayDone) {
        clean = !mDirtyAtBoot;
    } else {
        clean = countInState(ReplayTagState::PENDING) == 0 && countInState(ReplayTagState::EXECUTED) == 0;
    }
    if (verbose) ESA_CONSOLE("J1R: journal is " << (clean ? "clean" : "DIRTY"));
    return clean;
}

uint32_t J1Replay::countInState(ReplayTagState state) const {
    uint32_t n = 0;
    if (!mCache) return 0;
    uint32_t limit = mReplayDone ? mNumTags : std::min(header()->numTags(), capacityFor(kMaxCacheSize));
    for (uint32_t i = 0; i < limit; ++i) n += tags()[i].state() == state;
    return n;
}

uint32_t J1Replay::numHeld() const {
    LockObject::ExclusiveLockInstance lock(&mExTagListLock);
    return uint32_t(mHeld.size());
}

void J1Replay::sizes(unsigned long j1Size) {
    mJ1Size = j1Size;
    mTotalSpace = uint32_t(j1Size / kSector);
    mFlushThreshold = uint32_t((j1Size - 0xA00000) / kSector);
}

StatusCode J1Replay::setupTagCache(unsigned long cacheSize, unsigned long j1Size) {
    ESA_ASSERT(mCache != nullptr);
    ESA_ASSERT(header()->magic() != J1_REPLAY_MAGIC);
    if (j1Size < 1024ul * 1024 * J1_FLUSH_THRESHOLD) {
        ESA_CONSOLE("J1R::setupTagCache: journal memory of " << j1Size << " bytes is below the "
                                                             << J1_FLUSH_THRESHOLD << " MiB the flush needs");
        return StatusCode::InitFailed;
    }
    sizes(j1Size);
    uint32_t n = capacityFor(cacheSize);
    {
        LockObject::ExclusiveLockInstance ex(&mExTagListLock);
        LockObject::ExclusiveLockInstance lock(&mTagCacheLock);
        for (uint32_t i = 0; i < n; ++i) {
            J1ReplayTag& t = tags()[i];
            std::memset(t.raw, 0, sizeof t.raw);
            t.setNext(i + 1 < n ? i + 2 : 0);
        }
        mNumTags = n;
        mFreeHead = n ? 1 : 0;
        mNumFree = n;
        mStores.assign(n, nullptr);
        mExecuted.clear();
        mHeld.clear();
        mExecutedSpace = 0;
    }
    header()->setZero();
    header()->setNumTags(n);
    point("j1r.cache.magic");
    header()->storeMagic(J1_REPLAY_MAGIC);
    ESA_CONSOLE("J1R::setupTagCache: J1 replay tag cache " << "initialised with " << n << " tags");
    return StatusCode::Success;
}

J1ReplayTag* J1Replay::allocateTag(ClientRequest& request) {
    // Before the replay has set the journal up (a host that writes while the
    // pack loads) there is no tag: the write is answered once it is on the
    // disks, if it is taken at all.
    if (!mReplayDone || mNumTags == 0 || !request.store) return nullptr;
    unsigned char* data = nullptr;
    uint32_t contiguous = 0;
    request.store->begin(0, data, contiguous);
    ESA_ASSERT(data >= mJ1Start && data + request.len * kSector <= mJ1Start + mJ1Size);
    uint32_t index, order;
    for (;;) {
        {
            LockObject::ExclusiveLockInstance lock(&mTagCacheLock);
            if (mFreeHead) {
                index = mFreeHead - 1;
                mFreeHead = tags()[index].next();
                mNumFree--;
                order = ++mSequence;
                break;
            }
        }
        ESA_TRACE(tJ1r, "J1R:allocateTag: NO TAGS");
        flushIfNeeded(false);
        // A tick at the most: a freed tag ends the wait at once.
        semTake(mTagFreed, 1);
    }
    J1ReplayTag& t = tags()[index];
    t.storeState(ReplayTagState::ALLOCATED);
    point("j1r.tag.allocated");
    t.setLba(request.lba);
    t.setLun(request.lun);
    t.setStartOffset(uint32_t(data - mJ1Start));
    t.setLen(request.len);
    t.setOrder(order);
    t.setExecuteTick(0);
    t.setStore(uint32_t(reinterpret_cast<uintptr_t>(request.store)));
    t.setNext(0);
    request.store->IncRef();
    mStores[index] = request.store;
    t.storeState(ReplayTagState::PENDING);
    point("j1r.tag.pending");
    return &t;
}

void J1Replay::releaseStore(uint32_t index) {
    DataStore* store = mStores[index];
    mStores[index] = nullptr;
    if (store) store->DecRef();
}

void J1Replay::freeTagLocked(uint32_t index) {
    J1ReplayTag& t = tags()[index];
    t.storeState(ReplayTagState::FREE);
    t.setNext(mFreeHead);
    mFreeHead = index + 1;
    if (mNumFree++ == 0) semGive(mTagFreed);
}

void J1Replay::abortTag(J1ReplayTag& tag) {
    uint32_t index = indexOf(tag);
    ESA_ASSERT(tag.state() == ReplayTagState::PENDING);
    tag.storeState(ReplayTagState::FLUSHED);
    point("j1r.tag.flushed");
    releaseStore(index);
    LockObject::ExclusiveLockInstance lock(&mTagCacheLock);
    freeTagLocked(index);
}

void J1Replay::abortTag(ClientRequest& request) {
    if (!request.tag) return;
    abortTag(*request.tag);
    request.tag = nullptr;
}

void J1Replay::setTagState(J1ReplayTag& tag, ReplayTagState state) {
    // Only the write threads' move goes through here; the others are made
    // by allocateTag, abortTag and flushIfNeeded under their own rules.
    ESA_ASSERT(state == ReplayTagState::EXECUTED);
    ESA_ASSERT(tag.state() == ReplayTagState::PENDING);
    uint32_t index = indexOf(tag);
    tag.setExecuteTick(tickGet());
    tag.storeState(ReplayTagState::EXECUTED);
    point("j1r.tag.executed");
    {
        LockObject::ExclusiveLockInstance lock(&mExTagListLock);
        mExecuted.push_back(index);
        mExecutedSpace += tag.len() + 1;
    }
    flushIfNeeded(false);
}

void J1Replay::holdFailedTag(J1ReplayTag& tag, StatusCode why) {
    ESA_ASSERT(tag.state() == ReplayTagState::PENDING);
    mLostWrites++;
    std::ostringstream os;
    os << "J1R: acknowledged write failed (" << why << ") Lun: " << tag.lun() << " LBA: 0x" << std::hex << tag.lba()
       << " Len: 0x" << tag.len() << " - kept for the replay";
    postEvent(os.str());
    LockObject::ExclusiveLockInstance lock(&mExTagListLock);
    mHeld.push_back(indexOf(tag));
}

StatusCode J1Replay::flushIfNeeded(bool force) {
    if (!mCache || !mNumTags) return StatusCode::Success;
    int64_t t = mFlushThreshold;
    int64_t executed = mExecutedSpace.load();
    if (!force) {
        int64_t uncoalesced = hooks.uncoalescedSectors ? int64_t(hooks.uncoalescedSectors()) : 0;
        if (executed < t && (mNumFree.load() >= kFewTags || (executed <= t / 5 && uncoalesced >= t / 5))) {
            ESA_TRACE(tJ1r, "J1R:flushIfNeeded: NOT FLUSHING");
            return StatusCode::Success;
        }
    }
    for (;;) {
        bool expected = false;
        if (mFlushing.compare_exchange_strong(expected, true)) break;
        ESA_TRACE(tJ1r, "J1R:flushIfNeeded: Flush already in progress in some other thread");
        if (!force) return StatusCode::Success;
        taskDelay(1);
    }
    // Which tags the flush covers is decided before the flush begins: what
    // is on the executed list now was written before it. Counted, not timed,
    // so that a tag executed in the tick the flush began is never freed by it.
    size_t covered;
    {
        LockObject::ExclusiveLockInstance lock(&mExTagListLock);
        covered = mExecuted.size();
    }
    mLastFlushTime = tickGet();
    point("j1r.flush.begin");
    StatusCode status = hooks.flushAllDrives ? hooks.flushAllDrives() : StatusCode::Success;
    if (status != StatusCode::Success) {
        // Nothing is known to be on the medium: every tag stays.
        ESA_TRACE(tJ1rErr, "J1R:flushIfNeeded: flush failed " << status);
        mFlushing = false;
        return status;
    }
    mFlushes++;
    point("j1r.flush.done");
    {
        LockObject::ExclusiveLockInstance lock(&mExTagListLock);
        std::vector<uint32_t> candidates(mExecuted.begin(), mExecuted.begin() + long(covered));
        std::vector<uint32_t> later(mExecuted.begin() + long(covered), mExecuted.end());
        // Live tags that stay whatever happens: PENDING ones (held ones too)
        // and those executed after the flush began. A candidate that an older
        // one of these overlaps stays as well, and then keeps newer ones that
        // it overlaps: replay writes in host order, so the newest data of a
        // sector must stay live as long as any older write of it does.
        std::vector<uint32_t> kept = later;
        for (uint32_t i = 0; i < mNumTags; ++i)
            if (tags()[i].state() == ReplayTagState::PENDING) kept.push_back(i);
        std::sort(candidates.begin(), candidates.end(),
                  [&](uint32_t a, uint32_t b) { return olderThan(tags()[a].order(), tags()[b].order()); });
        std::vector<uint32_t> stay;
        for (uint32_t c : candidates) {
            J1ReplayTag& ct = tags()[c];
            bool blocked = std::any_of(kept.begin(), kept.end(), [&](uint32_t k) {
                return olderThan(tags()[k].order(), ct.order()) && tags()[k].overlaps(ct);
            });
            if (blocked) {
                mKeptByOverlap++;
                kept.push_back(c);
                stay.push_back(c);
                continue;
            }
            ct.storeState(ReplayTagState::FLUSHED);
            point("j1r.tag.flushed");
            releaseStore(c);
            mExecutedSpace -= ct.len() + 1;
            LockObject::ExclusiveLockInstance cacheLock(&mTagCacheLock);
            freeTagLocked(c);
            point("j1r.tag.free");
        }
        // The stayers keep their place ahead of what came later.
        stay.insert(stay.end(), later.begin(), later.end());
        mExecuted.swap(stay);
    }
    if (mExecutedSpace.load() < 0) {
        ESA_CONSOLE("J1R:flushIfNeeded: executed space negative =" << mExecutedSpace.load() << " OOPS!");
        mExecutedSpace = 0;
    }
    mFlushing = false;
    return StatusCode::Success;
}

StatusCode J1Replay::writeTag(J1ReplayTag& tag) {
    if (readOnly()) return StatusCode::Success;
    ClientRequest request;
    request.lba = tag.lba();
    request.lun = tag.lun();
    request.len = tag.len();
    request.origLen = tag.len();
    request.setFlag(ClientRequest::kWrite);
    request.newTransaction(READ_ONLY);
    auto* store = new DataStore(mJ1Start + tag.startOffset(), tag.len() * kSector);
    request.store = store;
    request.window.add(*store, 0, tag.len() * kSector);
    StatusCode status = hooks.writeInPlace ? hooks.writeInPlace(request) : StatusCode::Success;
    request.window.clear();
    request.store = nullptr;
    store->DecRef();
    if (status != StatusCode::Success) ESA_CONSOLE("J1R::writeTag: error on write " << status);
    return status;
}

StatusCode J1Replay::replay(void* nvramBuffer, unsigned long cacheSize, unsigned long j1Size, DiskPackId packId,
                            void* j1Start) {
    ESA_ASSERT(!mReplayDone);  // a second replay in one boot is a fault
    mCache = static_cast<uint8_t*>(nvramBuffer);
    mJ1Start = static_cast<unsigned char*>(j1Start);
    sizes(j1Size);
    cacheSize = std::min<unsigned long>(cacheSize, kMaxCacheSize);
    uint32_t magic = header()->magic();
    DiskPackId owner;
    owner.word[0] = header()->packWord(0);
    owner.word[1] = header()->packWord(1);
    uint32_t n = std::min(header()->numTags(), capacityFor(cacheSize));
    std::vector<uint32_t> live;
    if (magic == J1_REPLAY_MAGIC)
        for (uint32_t i = 0; i < n; ++i)
            if (tags()[i].live()) live.push_back(i);

    if (magic == J1_REPLAY_MAGIC && owner == packId) {
        ESA_CONSOLE("J1R:replay: GOOD magic (0x" << hex(magic) << ") scanning for replay ...");
        std::stable_sort(live.begin(), live.end(),
                         [&](uint32_t a, uint32_t b) { return olderThan(tags()[a].order(), tags()[b].order()); });
        for (size_t i = 1; i < live.size(); ++i)
            if (tags()[live[i]].order() == tags()[live[i - 1]].order())
                ESA_CONSOLE("J1R:replay: two tags of order " << tags()[live[i]].order() << " - replayed in tag order");
        if (readOnly()) {
            // Nothing is written and every live tag stays for a later start
            // that may write; the free tags serve meanwhile.
            mNumTags = n;
            mStores.assign(n, nullptr);
            mFreeHead = 0;
            mNumFree = 0;
            for (uint32_t i = n; i-- > 0;)
                if (!tags()[i].live()) freeTagLocked(i);
            mDirtyAtBoot = !live.empty();
            postEvent("J1R::replay GOOD sig 0x" + hex(magic) + " -- READ-ONLY mode replay skipped & tags preservered");
            mReplayDone = true;
            return StatusCode::Success;
        }
        mReplayedTags = 0;
        mReplayedSectors = 0;
        mNumTags = n;
        const uint64_t began = BoardClock::GetInstance().microseconds();
        for (uint32_t index : live) {
            J1ReplayTag& t = tags()[index];
            writeTag(t);  // a failed write is reported there; the replay goes on
            mReplayedTags++;
            mReplayedSectors += t.len();
            point("j1r.replay.write");
        }
        StatusCode status = hooks.flushAllDrives ? hooks.flushAllDrives() : StatusCode::Success;
        if (status != StatusCode::Success) {
            // The replayed data may still sit in a disk's cache: the tags stay
            // for the next start and this pack is not used meanwhile.
            postEvent("J1R:replay: flush after replay failed (" + status.Dump() +
                      ") - tags kept");
            return status;
        }
        ESA_CONSOLE("J1R:replay: caches flushed");
        point("j1r.replay.flushed");
        // The magic goes first: a cut inside the rebuild must find no journal,
        // never a subset of the old tags to lay over newer data.
        header()->storeMagic(0);
        point("j1r.replay.magic");
        status = setupTagCache(cacheSize, j1Size);
        if (status != StatusCode::Success) return status;
        std::ostringstream os;
        os << "J1R::replay GOOD sig 0x" << hex(magic);
        if (mReplayedTags == 0)
            os << " NO REPLAY NEEDED";
        else
            os << " replayed " << mReplayedTags << " tags " << mReplayedSectors << " sectors (" << mReplayedSectors * kSector
               << " bytes)] in " << BoardClock::GetInstance().microseconds() - began << " us";
        postEvent(os.str());
        mDirtyAtBoot = false;
        mReplayDone = true;
        return StatusCode::Success;
    }

    if (magic == J1_REPLAY_MAGIC) {
        postEvent("J1R:replay: loading pack " + packText(packId) + " does not own J1 " + packText(owner));
        if (!live.empty()) {
            // The journal holds writes of the pack that owns it: nothing of
            // them goes to this pack and they stay for their own pack's
            // return. This pack cannot journal host writes meanwhile.
            postEvent("J1R:replay: " + std::to_string(live.size()) + " live tags of pack " + packText(owner) +
                      " kept; pack " + packText(packId) + " not loaded");
            mDirtyAtBoot = true;
            return StatusCode::J1_NoTags;
        }
    } else {
        std::string which = (magic == 0 || magic == 0x55555555) ? "known magic [0x" : "bad magic [0x";
        postEvent("J1R:replay: " + which + hex(magic) + "] no J1 replay");
    }
    header()->storeMagic(0);
    header()->setPackWord(0, packId.word[0]);
    header()->setPackWord(1, packId.word[1]);
    StatusCode status = setupTagCache(cacheSize, j1Size);
    mDirtyAtBoot = false;
    mReplayDone = true;
    return status;
}

void J1Replay::Dump(std::ostream& out) const {
    out << "J1Replay: tags " << mNumTags << " free " << mNumFree.load() << " executedSpace " << mExecutedSpace.load()
        << " flushThreshold " << mFlushThreshold << " totalSpace " << mTotalSpace << " lastFlushTime " << mLastFlushTime
        << "\n  replayDone " << mReplayDone << " dirtyAtBoot " << mDirtyAtBoot << " flushes " << mFlushes.load()
        << " keptByOverlap " << mKeptByOverlap.load() << " lostWrites " << mLostWrites.load() << " held " << numHeld()
        << "\n";
    for (ReplayTagState s : {ReplayTagState::ALLOCATED, ReplayTagState::PENDING, ReplayTagState::EXECUTED,
                             ReplayTagState::FLUSHED})
        out << "  " << replayTagStateName(s) << " " << countInState(s) << "\n";
}
