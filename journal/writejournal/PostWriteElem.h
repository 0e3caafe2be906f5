#pragma once
// PostWriteElem: a batch of up to 8 host write streams that one write thread
// takes from the host write journal and writes through the map in one go:
// one lookup, one allocation and one map commit serve the whole batch.
//
// Each item is one stream: its LUN, its exact host range (first LBA and
// length in 512-byte sectors), the host LBA cache lock on that range rounded
// out to whole clusters (cto, taken before the batch reaches the map), the
// request at the head of the stream and that request's transaction. No two
// items of one batch share a cluster: the map would otherwise name one
// cluster twice.
//
// The journal's own fields (first tag, total tags, each item's stream head)
// belong to the write journal; the map reads only the items, the check-only
// flag (rewrite in place, as replay and internal writers need) and sets the
// allocated flag.
#include <cstdint>

class CacheTrackerObject;
class ClientRequest;
class IOTracker;
struct WJTAG;

struct PostWriteItem {
    uint32_t lun = 0;
    uint64_t lba = 0;
    uint32_t length = 0;  // sectors
    CacheTrackerObject* cto = nullptr;
    ClientRequest* request = nullptr;  // null for an internal write-back
    IOTracker* tracker = nullptr;
    WJTAG* head = nullptr;  // the journal's stream, for its release
};

struct PostWriteElem {
    static constexpr uint32_t kMaxItems = 8;

    uint32_t numTags = 0;  // items in use
    bool synchronous = false;
    bool checkOnly = false;  // keep the clusters a range has (in-place write)
    bool allocated = false;  // set when clusters were allocated for it
    WJTAG* firstTag = nullptr;  // the journal's first tag of the batch
    uint32_t totalTags = 0;
    uint32_t totalLength = 0;  // sectors
    IOTracker* tracker = nullptr;  // "IOT for this set"
    void* thread = nullptr;        // the write thread working on it (diagnostics)
    PostWriteItem items[kMaxItems];

    void reset() { *this = PostWriteElem(); }
};
