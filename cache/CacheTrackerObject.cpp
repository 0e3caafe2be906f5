#include "cache/CacheTrackerObject.h"

#include "util/Assert.h"

CacheTrackerObject::CacheTrackerObject(CacheRangeTracker& owner, uint32_t set, uint64_t start, uint32_t length,
                                       IOTracker& tracker)
    : mStart(start), mLen(length), mSet(set), mTracker(tracker), mTransId(tracker.getID()), mOwner(owner) {
}

CacheTrackerObject::~CacheTrackerObject() {
    ESA_ASSERT(!mDeleted);
    ESA_ASSERT_OP(mEvictionLocks, ==, 0u);
    mDeleted = true;
}

void CacheTrackerObject::MarkRangeDirty() {
    std::lock_guard<std::mutex> g(mStateLock);
    for (CRO* cro : mCROs) ++cro->mDirtyCount;
    mDirty = true;
    mJournalled = true;
}

void CacheTrackerObject::MarkRangeClean() {
    std::lock_guard<std::mutex> g(mStateLock);
    for (CRO* cro : mCROs) {
        ESA_ASSERT_OP(cro->mDirtyCount, >, 0u);
        --cro->mDirtyCount;
    }
    mDirty = false;
}

void CacheTrackerObject::PreventEviction() {
    std::lock_guard<std::mutex> g(mStateLock);
    if (mEvictionLocks == 0) {
        mPinnedStores.clear();
        for (CRO* cro : mCROs)
            if (cro->pStore) mPinnedStores.push_back(cro->pStore);
    }
    for (DataStore* s : mPinnedStores) s->IncRef();
    ++mEvictionLocks;
}

void CacheTrackerObject::AllowEviction() {
    {
        std::lock_guard<std::mutex> g(mStateLock);
        ESA_ASSERT_OP(mEvictionLocks, >, 0u);
        for (DataStore* s : mPinnedStores) s->DecRef();
        if (--mEvictionLocks != 0) return;
        mPinnedStores.clear();
        // The CROs may be gone (evicted, invalidated) since the caller let
        // them go: this CTO no longer speaks for them.
        if (mUnlocked) mCROs.clear();
        if (!mUnlocked || mDirty) return;
    }
    delete this;
}

void CacheTrackerObject::DiscardJournalled(unsigned marks) {
    {
        std::lock_guard<std::mutex> g(mStateLock);
        for (CRO* cro : mCROs) {
            ESA_ASSERT_OP(cro->mDirtyCount, >=, marks);
            cro->mDirtyCount -= marks;
        }
        mDirty = false;
    }
    // Still locked by the refused transaction: nobody has read the data yet.
    mOwner.ClearCTO(this);
    {
        std::lock_guard<std::mutex> g(mStateLock);
        // Pinned by an earlier commit of the same transaction: the last
        // AllowEviction frees it; not yet unlocked: the caller's unlock does.
        if (!mUnlocked || mEvictionLocks != 0) return;
    }
    delete this;
}

bool CacheTrackerObject::ReleaseByCaller() {
    // A CTO the journal never saw is its caller's alone: no lock needed.
    if (!mJournalled) return !mDirty;
    std::lock_guard<std::mutex> g(mStateLock);
    mUnlocked = true;
    if (mEvictionLocks == 0 && !mDirty) return true;
    // Committed and still pinned: the journal's last AllowEviction frees it.
    if (!mDirty) mCROs.clear();
    return false;
}

bool CacheTrackerObject::AllEvictable() {
    for (CRO* cro : mCROs)
        if (cro->pStore && cro->pStore->refCount() != cro->pStore->lruCount()) return false;
    return true;
}

void CacheTrackerObject::Dump(std::ostream& out) {
    out << "CTO 0x" << std::hex << uintptr_t(this) << std::dec << " set " << mSet << " start 0x" << std::hex << mStart
        << std::dec << " len " << mLen << " trans " << mTransId << " # evictionLocks " << mEvictionLocks
        << (mDirty ? " dirty" : "") << (mDeleted ? " BAD CTO - DELETED FLAG SET" : "") << " CROs " << mCROs.size()
        << "\n";
}
