#pragma once
// J2set: one transaction's metadata writes while it is being built, in
// ordinary memory. Each J2subTran references the caller's data through a
// DataWindow (nothing is copied before commit); need[] counts, per slot, the
// control and payload bytes the set will take in that slot's journalette.
// The set lives in J2Manager's build list, guarded by "lJ2BuildList", until
// its commit takes it off the list.
#include <cstdint>

#include "include/ObjectPool.h"
#include "journal/j2/J2Format.h"
#include "disk/DiskSGL.h"
#include "util/DataWindow.h"

class CacheTrackerObject;

// A chain of further cache objects a set pins beside those of its writes.
class clidTracker {
public:
    struct elem : ObjectPool<elem> {
        elem* next = nullptr;
        CacheTrackerObject* clid = nullptr;
    };
    ~clidTracker() { clear(); }
    void push(CacheTrackerObject* clid) {
        elem* e = new elem;
        e->clid = clid;
        e->next = mHead;
        mHead = e;
    }
    void clear() {
        while (elem* e = mHead) {
            mHead = e->next;
            delete e;
        }
    }
    bool empty() const { return mHead == nullptr; }
    elem* head() const { return mHead; }
    // Moves every element onto `to`, leaving this list empty.
    void moveTo(clidTracker& to) {
        while (elem* e = mHead) {
            mHead = e->next;
            e->next = to.mHead;
            to.mHead = e;
        }
    }

private:
    elem* mHead = nullptr;
};

// The data are referenced either by a window or, for a write handed down as
// one piece of memory (the disk layer's common case), by that piece alone.
struct J2subTran : ObjectPool<J2subTran> {
    J2subTran* next = nullptr;
    CacheTrackerObject* clid = nullptr;
    uint32_t lba = 0;
    uint16_t drive = 0;
    DataWindow window;
    DiskPane pane{nullptr, 0};
    uint32_t length = 0;  // bytes
    bool injectError = false;
};

struct J2set : ObjectPool<J2set> {
    static constexpr uint32_t kFlushWanted = 1, kSyncWanted = 2;
    struct Need {
        uint32_t ctrl = j2::kSetHeadSize;
        uint32_t payload = 0;
    };

    ~J2set() {
        freeChain(head);
        freeChain(spare);
    }
    // Commits reuse the set and sub-transactions of the commit before (see
    // J2Manager::newSet): a steady stream of commits allocates nothing.
    J2subTran* takeSubTran() {
        J2subTran* t = spare;
        if (!t) return new J2subTran;
        spare = t->next;
        t->next = nullptr;
        return t;
    }
    // Gives a committed sub-transaction back, its data reference dropped.
    void retire(J2subTran* t) {
        if (t->window.GetLength()) t->window.clear();
        t->clid = nullptr;
        t->pane = DiskPane{nullptr, 0};
        t->injectError = false;
        t->next = spare;
        spare = t;
    }
    // Makes a committed set (its sub-transactions retired) a fresh one.
    void reset() {
        next = nullptr;
        id = 0;
        head = tail = nullptr;
        clids.clear();
        flags = 0;
        for (unsigned m = slots; m; m &= m - 1) need[__builtin_ctz(m)] = Need{};
        slots = 0;
    }
    J2set* next = nullptr;
    uint64_t id = 0;
    J2subTran* head = nullptr;
    J2subTran* tail = nullptr;
    J2subTran* spare = nullptr;  // retired sub-transactions, for the next use of this set
    clidTracker clids;
    uint32_t flags = 0;
    // The slots with at least one write (bit n for slot n): the commit visits
    // only these, in slot order.
    uint32_t slots = 0;
    Need need[j2::kMaxDisks];

    static void freeChain(J2subTran* t) {
        while (t) {
            J2subTran* n = t->next;
            delete t;
            t = n;
        }
    }
    void append(J2subTran* t) {
        if (tail) tail->next = t;
        else head = t;
        tail = t;
    }
};
