#pragma once
// PostWriteElem: one batch of up to 8 coalesced host write streams, handed by
// the journal to a write thread and written through the map in one lookup,
// one allocation and one commit. No two items of one batch share a cluster:
// the map would otherwise name one cluster twice.
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
    ClientRequest* request = nullptr;  // the stream head's
    IOTracker* tracker = nullptr;      // the tracker of the stream's last request
    WJTAG* head = nullptr;             // the stream, for the journal's release
};

struct PostWriteElem {
    static constexpr uint32_t kMaxItems = 8;

    uint32_t numTags = 0;       // items (streams) in use
    bool synchronous = false;   // one-at-a-time mode: the host is answered at completion
    bool checkOnly = false;     // the map's in-place form: keep the clusters a range has
    bool allocated = false;     // the map allocated clusters for this batch
    WJTAG* firstTag = nullptr;
    uint32_t totalTags = 0;     // host writes in all streams
    uint32_t totalLength = 0;   // sectors
    IOTracker* tracker = nullptr;  // "IOT for this set": the last item's
    void* thread = nullptr;        // the write thread working on it (diagnostics)
    PostWriteItem items[kMaxItems];

    void reset() { *this = PostWriteElem(); }
};
