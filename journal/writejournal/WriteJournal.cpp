#include "journal/writejournal/WriteJournal.h"

#include "host/ClientRequest.h"
#include "host/HRManager.h"

WriteJournal* WriteJournal::GetInstance() {
    static WriteJournal instance;
    return &instance;
}

StatusCode WriteJournal::ProcessHostWrite(ClientRequest& request, unsigned long sequence) {
    (void)sequence;
    {
        std::lock_guard<std::mutex> g(mLock);
        mWrites.push_back(&request);
    }
    mReady.notify_one();
    return StatusCode::Success;
}

void WriteJournal::PostWriteRequest(ClientRequest*& request) {
    std::unique_lock<std::mutex> g(mLock);
    mReady.wait(g, [&] { return !mWrites.empty(); });
    request = mWrites.front();
    mWrites.pop_front();
    // The write thread gets the data as a window only: the map then copies
    // them into the host LBA cache's own blocks, so that what the cache keeps
    // of a write never holds a host write buffer once the write is done.
    request->store = nullptr;
}

void WriteJournal::PostWriteComplete(ClientRequest& request) {
    HRManager* hrm = HRManager::GetInstance();
    if (request.isHold())
        hrm->releaseRequest(request);  // answered early: only the release is left
    else
        hrm->putResponse(request);
}

uint32_t WriteJournal::queued() {
    std::lock_guard<std::mutex> g(mLock);
    return uint32_t(mWrites.size());
}
