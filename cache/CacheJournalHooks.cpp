// The range cache joins the metadata journal: J2 reaches the cache objects of
// its sets through J2CacheHooks. A range written under a transaction is dirty
// (and keeps its extended lock) until the set commits; from the commit it is
// pinned by an extra store reference, so that eviction can neither drop it and
// read the disk's older copy back, nor write it itself and race the journal;
// the pin goes once the spill has flushed the disk's cache. After a replay the
// disk holds newer data than any cached read of that slot, so the slot's
// "dlbat" set is dropped. A set the journal refuses at commit gives its
// ranges back undirtied and their data dropped, since it never became durable.
#include "cache/CacheTrackerObject.h"
#include "cache/DiskLBAMetaDataTracker.h"
#include "journal/j2/J2CacheHooks.h"

namespace {
struct JoinJournal {
    JoinJournal() {
        J2CacheHooks& h = J2CacheHooks::get();
        h.markRangeDirty = [](CacheTrackerObject* c) { c->MarkRangeDirty(); };
        h.preventEviction = [](CacheTrackerObject* c) { c->PreventEviction(); };
        h.markRangeClean = [](CacheTrackerObject* c) { c->MarkRangeClean(); };
        h.allowEviction = [](CacheTrackerObject* c) { c->AllowEviction(); };
        h.clearSet = [](unsigned slot) { DiskLBAMetaDataTracker::GetInstance()->ClearSet(slot); };
        h.discardRange = [](CacheTrackerObject* c, unsigned marks) { c->DiscardJournalled(marks); };
    }
} gJoinJournal;
}  // namespace
