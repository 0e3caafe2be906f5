#include "util/IOTracker.h"

#include "util/Assert.h"
#include "util/ExtendingLockObject.h"

std::atomic<uint64_t> IOTracker::iotGlobalId{0};
IOTracker::JournalHooks IOTracker::journal;

uint64_t IOTracker::nextId() {
    uint64_t id;
    do {
        id = iotGlobalId.fetch_add(1, std::memory_order_relaxed) + 1;
    } while (id == 0);  // 0 means "no transaction" in lock records
    return id;
}

// Each thread keeps the shared record of its last ended transaction for its
// next one: a thread that runs transaction after transaction takes no pool
// lock for them. The slot is a plain thread-local pointer (no per-access
// initialisation check); SpareState frees what it holds when the thread ends.
namespace {
thread_local void* tSpare = nullptr;
thread_local bool tSpareFreedAtExit = false;
}  // namespace

struct IOTracker::SpareState {
    SharedState* state = nullptr;  // unused: the slot is tSpare
    ~SpareState() {
        delete static_cast<SharedState*>(tSpare);
        tSpare = nullptr;
    }
};

IOTracker::SpareState& IOTracker::spare() {
    thread_local SpareState s;
    return s;
}

IOTracker::SharedState* IOTracker::newSharedState() {
    if (void* s = tSpare) {
        tSpare = nullptr;
        return static_cast<SharedState*>(s);
    }
    // Transactions are begun on every I/O path: their shared records come from
    // a pool, sized here until the system sizes it for its steady state.
    static bool sized = (ObjectPool<SharedState>::Initialize(kDefaultSharedStates), true);
    (void)sized;
    return new SharedState;
}

void IOTracker::endSharedState(SharedState* s) {
    if (tSpare) {
        delete s;
        return;
    }
    if (!tSpareFreedAtExit) {
        spare();  // made once per thread, so that the slot is emptied at its end
        tSpareFreedAtExit = true;
    }
    s->refs.store(1, std::memory_order_relaxed);
    s->dirty.store(0, std::memory_order_relaxed);
    s->commits.store(0, std::memory_order_relaxed);
    tSpare = s;
}

IOTracker::IOTracker(iotType type)
    : mShared(newSharedState()), mId(nextId()), mLockObjectList(&mShared->locks), mOwnerTask(currentLockTask()) {
    flags = type == READ_WRITE ? kReadWrite : 0;
}

IOTracker::IOTracker(IOTracker& other)
    : mShared(other.mShared), mId(other.mId), mLockObjectList(other.mLockObjectList), mOwnerTask(other.mOwnerTask) {
    mShared->refs.fetch_add(1, std::memory_order_relaxed);
    flags = uint8_t(other.flags & ~kPrivate);
    // An injected error fires once: the mark moves to the fork.
    if (other.flags & kFailNextIo) other.flags = uint8_t(other.flags & ~kFailNextIo);
}

IOTracker::~IOTracker() {
    // A sole copy needs no atomic step: no other copy exists to fork from it.
    if (mShared->refs.load(std::memory_order_acquire) != 1 &&
        mShared->refs.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    if (!isReadWrite()) lockRelease();
    ESA_ASSERT(mLockObjectList->empty());
    endSharedState(mShared);
}

void IOTracker::lockRelease() {
    if (mShared->lockCount.load() == 0) return;  // the common case: nothing held extended
    while (ExtendingLockObject* lock = frontExtendedLock()) lock->CommitExtendedLock(*this);
}

StatusCode IOTracker::commit() {
    // Counted first, journal or not, so that a scope committer knows that the
    // owner committed and does not commit a second time.
    countShared(mShared->commits);
    if (journal.commit) return journal.commit(*this);
    lockRelease();
    return StatusCode::Success;
}

StatusCode IOTracker::commitIfDirty() {
    if (dirtyCount() == 0) {
        lockRelease();
        return StatusCode::Success;
    }
    return commit();
}

StatusCode IOTracker::setFlushFlag() {
    if (journal.setFlushFlag) return journal.setFlushFlag(*this);
    return StatusCode::Success;  // written straight through: nothing waits to be flushed
}

uint32_t IOTracker::getMaxPayloadNeeded() {
    return journal.getMaxPayloadNeeded ? journal.getMaxPayloadNeeded(*this) : 0;
}

void IOTracker::addClid() {
    if (journal.addClid) journal.addClid(*this, mCacheTracker);
}

// The lock list is shared by all copies of a transaction. While this is the
// only copy, no other thread can reach the list (a copy is made from this
// object, by its user), so the list lock is skipped.
class IOTracker::ListGuard {
public:
    explicit ListGuard(SharedState& s) : mLock(s.listLock, std::defer_lock) {
        if (s.refs.load(std::memory_order_acquire) != 1) mLock.lock();
    }

private:
    std::unique_lock<std::mutex> mLock;
};

void IOTracker::addExtendedLock(ExtendingLockObject* lock) {
    ListGuard g(*mShared);
    mLockObjectList->push_back(lock);
    mShared->lockCount.store(uint32_t(mLockObjectList->size()));
}

void IOTracker::removeExtendedLock(ExtendingLockObject* lock) {
    ListGuard g(*mShared);
    mLockObjectList->remove(lock);
    mShared->lockCount.store(uint32_t(mLockObjectList->size()));
}

ExtendingLockObject* IOTracker::frontExtendedLock() {
    ListGuard g(*mShared);
    return mLockObjectList->empty() ? nullptr : mLockObjectList->front();
}

bool IOTracker::hasExtendedLocks() {
    ListGuard g(*mShared);
    return !mLockObjectList->empty();
}

std::vector<LockOrderChecker::TransactionLock> IOTracker::lockOrderSnapshot() {
    std::vector<LockOrderChecker::TransactionLock> out;
    std::lock_guard<std::mutex> g(mShared->listLock);
    for (ExtendingLockObject* l : *mLockObjectList) out.push_back({l, mId});
    return out;
}
