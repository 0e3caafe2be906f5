#include "host/TopEnd.h"

#include <cstdio>
#include <iomanip>

#include "cache/HostLbaTracker.h"
#include "host/ClientRequest.h"
#include "host/HRManager.h"
#include "journal/writejournal/J1Tag.h"
#include "journal/writejournal/WriteJournal.h"
#include "system/SystemManager.h"
#include "util/Trace.h"

namespace {
Trace tTopEnd("Host", "TopEnd", "Info", false);
}

TopEnd* TopEnd::GetInstance() {
    static TopEnd instance;
    return &instance;
}

StatusCode TopEnd::Initialize() {
    if (mThread != nullptr) return StatusCode::InitFailed;
    mHrm = HRManager::GetInstance();
    mJournal = WriteJournal::GetInstance();
    // The journal answers and releases the writes it holds through this
    // thread's rules, and asks it for the mode.
    J1Tag::GetInstance()->hooks.releaseRequest = [](ClientRequest& r) { TopEnd::GetInstance()->ReleaseRequest(r); };
    J1Tag::GetInstance()->hooks.oneAtATime = [] { return TopEnd::GetInstance()->oneAtATimeOn(); };
    mReadSem = semCCreate(SEM_Q_FIFO, 0);
    mStampTick = tickGet();
    mThread = taskSpawn("tHRHThread", 115, [this] { HostRequestHandlerLoop(); });
    if (mThread == nullptr) {
        std::printf("%s was not created\n", "tHRHThread");
        return StatusCode::InitFailed;
    }
    return StatusCode::Success;
}

StatusCode TopEnd::LoadDiskPack() {
    mCache = HostLbaTracker::GetInstance();
    mPackLoaded = true;
    return StatusCode::Success;
}

StatusCode TopEnd::UnloadDiskPack() { return StatusCode::Success; }

void TopEnd::setOneAtATime() {
    if (!mDemoMode) mOneAtATime = true;
}

void TopEnd::HostRequestHandlerLoop() {
    for (;;) {
        while (!mPackLoaded) taskDelay(2 * sysClkRateGet());
        ClientRequest* r = mHrm->getRequest();
        handle(*r);
    }
}

void TopEnd::handle(ClientRequest& r) {
    // A transaction of its own, owned by this thread: the ids rise in the order of `down`.
    r.newTransaction(r.isWrite() ? READ_WRITE : READ_ONLY);
    if (r.isWrite() && SystemManager::GetInstance()->hostReadOnly()) {
        // The host believes that it wrote.
        r.status = StatusCode::Success;
        r.window.clear();
        r.store = nullptr;
        mHrm->putResponse(r);
        return;
    }
    // The file-system monitor (partition and volume tracking) does not look
    // at host requests yet.
    unsigned long sequence = ++mSequence;
    if (r.isRead()) {
        r.status = ProcessHostRead(r, sequence);
        if (r.status.ok() && r.len > 0) {
            mReadBytes += uint64_t(r.len) * 512;
            semGive(mReadSem);  // from here on the request belongs to the read threads
        } else {
            ESA_TRACE(tTopEnd, "TopEnd: read of LUN " << r.lun << " LBA " << r.lba << " gives " << r.status);
            mHrm->putResponse(r);
        }
        return;
    }
    // Outside one-at-a-time mode, and when the journal answers for the data
    // (they are in battery-backed memory from reception on), the host is
    // answered now; the request stays held for the write thread. It is
    // answered before it enters the journal: from there on it belongs to the
    // write threads, which may finish and release it at once.
    uint64_t bytes = uint64_t(r.len) * 512;
    // Only a write with its replay tag: the tag is what answers for the data.
    bool answered = r.tag && !oneAtATimeOn() && mJournal->earlyAcknowledgement();
    if (answered) {
        r.status = StatusCode::Success;
        r.setFlag(ClientRequest::kHold);
        mHrm->putResponse(r);
    }
    StatusCode s = mJournal->ProcessHostWrite(r, sequence);
    if (!s.ok()) {
        // An answered write that fails here is the journal's to record.
        ESA_TRACE(tTopEnd, "TopEnd: write of LUN " << r.lun << " LBA " << r.lba << " gives " << s);
        r.status = s;
        if (answered)
            mHrm->releaseRequest(r);
        else
            mHrm->putResponse(r);
        return;
    }
    mWriteBytes += bytes;
}

StatusCode TopEnd::ProcessHostRead(ClientRequest& r, unsigned long sequence) {
    if (r.len == 0) return StatusCode::Success;
    // The host LBA cache has no read-ahead windows yet, so nothing can be
    // answered from it here: the read goes to the read threads, and the map
    // locks the range and reads it there (the lock stays until the response
    // has gone, for a request from a transport). When the read-ahead windows
    // exist, a read they hold whole is answered here, and beyond a queue of
    // kReadQueueLimit this thread takes the range lock itself to pace the host.
    auto* e = new ReadQueueEntry;
    e->sequence = sequence;
    e->request = &r;
    {
        LockObject::ExclusiveLockInstance g(&mLock);
        e->next = mHead;
        if (mHead) mHead->previous = e;
        mHead = e;
        if (!mTail) mTail = e;
        ++mReadQueueDepth;
    }
    return StatusCode::Success;
}

bool TopEnd::PopFromReadQueue(ClientRequest** request, _readahead_element& element, unsigned long* sequence) {
    ReadQueueEntry* e;
    {
        LockObject::ExclusiveLockInstance g(&mLock);
        e = mTail;
        if (!e) return false;
        mTail = e->previous;
        if (mTail) mTail->next = nullptr;
        else mHead = nullptr;
        --mReadQueueDepth;
    }
    *request = e->request;
    element = e->readahead;
    if (sequence) *sequence = e->sequence;
    delete e;
    return true;
}

void TopEnd::ReleaseRequest(ClientRequest& r) {
    if (!r.isHold()) {
        r.setFlag(ClientRequest::kHold);
        mHrm->putResponse(r);
    }
    mHrm->releaseRequest(r);
}

void TopEnd::RecordThroughputHistory() {
    uint32_t now = tickGet();
    uint32_t ticks = now - mStampTick;
    if (ticks == 0) return;
    uint64_t r = mReadBytes.load(), w = mWriteBytes.load();
    uint64_t rate = uint64_t(sysClkRateGet());
    uint64_t readMiBs = ((r - mStampRead) * rate >> 20) / ticks;
    uint64_t writeMiBs = ((w - mStampWrite) * rate >> 20) / ticks;
    mReadHistory[mHistoryIndex] = uint8_t(readMiBs > 255 ? 255 : readMiBs);
    mWriteHistory[mHistoryIndex] = uint8_t(writeMiBs > 255 ? 255 : writeMiBs);
    mHistoryIndex = (mHistoryIndex + 1) % kHistory;
    mStampTick = now;
    mStampRead = r;
    mStampWrite = w;
}

// Columns: read and write MiB/s over the next second, then the totals.
void TopEnd::throughput(std::ostream& out) {
    uint64_t r0 = mReadBytes.load(), w0 = mWriteBytes.load();
    taskDelay(sysClkRateGet());
    uint64_t r1 = mReadBytes.load(), w1 = mWriteBytes.load();
    out << "read MiB/s  write MiB/s  read total  write total\n";
    out << std::setw(10) << ((r1 - r0) >> 20) << "  " << std::setw(11) << ((w1 - w0) >> 20) << "  " << std::setw(10)
        << r1 << "  " << std::setw(11) << w1 << "\n";
}

void TopEnd::throughputHistory(std::ostream& out) {
    out << "sample  read MiB/s  write MiB/s (oldest first)\n";
    for (unsigned i = 0; i < kHistory; ++i) {
        unsigned k = (mHistoryIndex + i) % kHistory;
        out << std::setw(6) << i << "  " << std::setw(10) << unsigned(mReadHistory[k]) << "  " << std::setw(11)
            << unsigned(mWriteHistory[k]) << "\n";
    }
}

void TopEnd::onAtATimeCount(std::ostream& out) {
    out << "one-at-a-time " << (mOneAtATime ? "on" : "off") << " forced " << (mForceOneAtATime ? "on" : "off")
        << " demo " << (mDemoMode ? "on" : "off") << "; one-at-a-time writes " << mOneAtATimeWrites.load()
        << ", throttled writes " << mThrottledWrites.load() << "\n";
}
