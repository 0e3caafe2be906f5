#pragma once
// J2CacheHooks: how J2 reaches the range cache that holds the data of its
// sets, without depending on it. The cache fills these when it joins; each
// unset entry does nothing, so J2 runs over plain DataWindows until then.
//
// The contract, per cache object (clid, a CacheTrackerObject*):
//   markRangeDirty   when a write of a transaction is added to its set
//                    (writeData) or the object is attached (addClid);
//   preventEviction  then markRangeClean  at commit, as the set enters
//                    battery-backed memory: the range is pinned, and is no
//                    longer dirty for the cache's own write-back;
//   allowEviction    after the journalette holding it has been written to its
//                    disk and the disk's cache flushed (the spill is done), or
//                    when its disk has gone (cleanseJournalette). Called once
//                    for every preventEviction, in journal order.
//   clearSet(slot)   after a replay at start or hot add: the disk holds newer
//                    data than any cached read of that slot.
//   discardRange(clid, marks)  when a set is refused at commit (a slot lost
//                    its disk after the write was added): the `marks` dirty
//                    marks it took are dropped and the data, which never
//                    became durable, must not be served again. Once per
//                    distinct object, before the transaction's locks fall.
// The cache asks for room with J2Manager::requestSpill(), which never waits.
class CacheTrackerObject;

struct J2CacheHooks {
    void (*markRangeDirty)(CacheTrackerObject* clid) = nullptr;
    void (*preventEviction)(CacheTrackerObject* clid) = nullptr;
    void (*markRangeClean)(CacheTrackerObject* clid) = nullptr;
    void (*allowEviction)(CacheTrackerObject* clid) = nullptr;
    void (*clearSet)(unsigned slot) = nullptr;
    void (*discardRange)(CacheTrackerObject* clid, unsigned marks) = nullptr;

    static J2CacheHooks& get() {
        static J2CacheHooks hooks;
        return hooks;
    }
};
