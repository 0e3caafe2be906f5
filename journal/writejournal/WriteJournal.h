#pragma once
// WriteJournal: hands host writes from tHRHThread to the write threads.
//
// For now the least the host path needs: a first-in first-out list of whole
// requests, one request per unit of work, with no journal memory of its own,
// no coalescing and no write-back cache. Nothing is acknowledged from here:
// earlyAcknowledgement() is false, so a write is answered by
// PostWriteComplete once the write thread has written it through the map.
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

#include "util/StatusCode.h"

class ClientRequest;

class WriteJournal {
public:
    static WriteJournal* GetInstance();
    StatusCode Initialize() { return StatusCode::Success; }
    StatusCode LoadDiskPack() { return StatusCode::Success; }
    StatusCode LoadDiskPack2() { return StatusCode::Success; }
    StatusCode UnloadDiskPack() { return StatusCode::Success; }

    // Whether a write may be answered as soon as the journal holds it.
    bool earlyAcknowledgement() const { return false; }
    // Takes the write into the journal; `sequence` is its place in host order.
    StatusCode ProcessHostWrite(ClientRequest& request, unsigned long sequence);
    // Blocks until a write is ready for a write thread.
    void PostWriteRequest(ClientRequest*& request);
    // The write thread is done with it: the host is answered (if it was not
    // already) with the request's status.
    void PostWriteComplete(ClientRequest& request);

    uint32_t queued();

private:
    WriteJournal() = default;
    std::mutex mLock;
    std::condition_variable mReady;
    std::deque<ClientRequest*> mWrites;
};
