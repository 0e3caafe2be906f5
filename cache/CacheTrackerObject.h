#pragma once
// CacheTrackerObject (CTO): one locked range of a CacheRangeTracker as its
// transaction holds it: the CROs it holds locked, and, once every element is
// present, a window on the data in order.
//
// A CTO that marked its CROs dirty outlives UnlockRange: the journal holds it
// in its transaction, pins the data at commit (PreventEviction) and lets it go
// after the spill (AllowEviction). It is destroyed by whichever comes last of
// its caller's UnlockRange and the journal's last AllowEviction, so a caller
// that commits before it unlocks, or a spill that ends before the unlock,
// never frees a CTO that the other side still uses.
#include <cstdint>
#include <mutex>
#include <ostream>
#include <vector>

#include "cache/CacheRangeTracker.h"
#include "include/ObjectPool.h"
#include "util/DataWindow.h"
#include "util/IOTracker.h"

// The CROs a CTO holds, in range order. Most CTOs hold one or two: up to four
// are kept inside the CTO, so a cache hit makes no heap allocation for them.
class CroList {
public:
    using CRO = CacheRangeTracker::CacheRangeObject;
    CroList() = default;
    ~CroList() {
        if (mData != mInline) delete[] mData;
    }
    CroList(const CroList&) = delete;
    CroList& operator=(const CroList&) = delete;

    void push_back(CRO* cro) {
        if (mSize == mCapacity) grow();
        mData[mSize++] = cro;
    }
    void clear() { mSize = 0; }
    // Keeps the first n (n <= size()).
    void shrink(size_t n) { mSize = n < mSize ? n : mSize; }
    size_t size() const { return mSize; }
    bool empty() const { return mSize == 0; }
    CRO*& operator[](size_t i) { return mData[i]; }
    CRO** begin() { return mData; }
    CRO** end() { return mData + mSize; }
    CRO* const* begin() const { return mData; }
    CRO* const* end() const { return mData + mSize; }

private:
    void grow() {
        CRO** bigger = new CRO*[mCapacity * 2];
        for (size_t i = 0; i < mSize; ++i) bigger[i] = mData[i];
        if (mData != mInline) delete[] mData;
        mData = bigger;
        mCapacity *= 2;
    }
    CRO* mInline[4] = {};
    CRO** mData = mInline;
    size_t mSize = 0;
    size_t mCapacity = 4;
};

class CacheTrackerObject : public ObjectPool<CacheTrackerObject> {
public:
    using CRO = CacheRangeTracker::CacheRangeObject;

    CacheTrackerObject(CacheRangeTracker& owner, uint32_t set, uint64_t start, uint32_t length, IOTracker& tracker);
    virtual ~CacheTrackerObject();
    CacheTrackerObject(const CacheTrackerObject&) = delete;
    CacheTrackerObject& operator=(const CacheTrackerObject&) = delete;

    void MarkRangeDirty();
    void MarkRangeClean();
    void PreventEviction();
    // Drops one PreventEviction; the last one destroys the CTO once its
    // caller has unlocked it.
    void AllowEviction();
    // The journal refused the set that took `marks` MarkRangeDirty of it: the
    // marks go, and the data are dropped from the cache (they never became
    // durable, so no reader may see them). Frees the CTO when its caller has
    // unlocked it and nothing pins it.
    void DiscardJournalled(unsigned marks);
    // The caller's UnlockRange is done with it: true when nothing else holds
    // it (neither dirty for an uncommitted set nor pinned), so it may go now.
    bool ReleaseByCaller();
    bool AllEvictable();

    CacheRangeTracker& owner() { return mOwner; }
    void Dump(std::ostream& out);

    DataWindow mWindow;
    CroList mCROs;
    uint64_t mStart;
    uint32_t mLen;
    uint32_t mSet;
    IOTracker& mTracker;
    uint64_t mTransId;  // the tracker's id, for dumps after the caller's tracker has gone
    uint32_t mEvictionLocks = 0;
    bool mDirty = false;
    bool mDeleted = false;

private:
    CacheRangeTracker& mOwner;
    // Set once the journal has seen this CTO (MarkRangeDirty). Until then it
    // is only its caller's, and the caller's unlock decides alone.
    bool mJournalled = false;
    bool mUnlocked = false;
    // Orders the caller's unlock against the journal's commit and spill.
    std::mutex mStateLock;
    // The stores PreventEviction pinned: the pins outlive the CROs, which an
    // invalidation may drop once the transaction has committed.
    std::vector<DataStore*> mPinnedStores;
};
