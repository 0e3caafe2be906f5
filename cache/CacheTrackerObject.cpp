#include "cache/CacheTrackerObject.h"

#include "util/Assert.h"

CacheTrackerObject::CacheTrackerObject(CacheRangeTracker& owner, uint32_t set, uint64_t start, uint32_t length,
                                       IOTracker& tracker)
    : mStart(start), mLen(length), mSet(set), mTracker(tracker), mTransId(tracker.getID()), mOwner(owner) {
    mCROs.reserve(4);
}

CacheTrackerObject::~CacheTrackerObject() {
    ESA_ASSERT(!mDeleted);
    ESA_ASSERT_OP(mEvictionLocks, ==, 0u);
    mDeleted = true;
}

void CacheTrackerObject::MarkRangeDirty() {
    for (CRO* cro : mCROs) ++cro->mDirtyCount;
    mDirty = true;
}

void CacheTrackerObject::MarkRangeClean() {
    for (CRO* cro : mCROs) {
        ESA_ASSERT_OP(cro->mDirtyCount, >, 0u);
        --cro->mDirtyCount;
    }
    mDirty = false;
}

void CacheTrackerObject::PreventEviction() {
    if (mEvictionLocks == 0) {
        mPinnedStores.clear();
        for (CRO* cro : mCROs)
            if (cro->pStore) mPinnedStores.push_back(cro->pStore);
    }
    for (DataStore* s : mPinnedStores) s->IncRef();
    ++mEvictionLocks;
}

void CacheTrackerObject::AllowEviction() {
    ESA_ASSERT_OP(mEvictionLocks, >, 0u);
    for (DataStore* s : mPinnedStores) s->DecRef();
    if (--mEvictionLocks != 0) return;
    mPinnedStores.clear();
    mCROs.clear();
    delete this;
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
