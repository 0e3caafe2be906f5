#include "host/Dispatcher.h"

#include <cstdio>
#include <string>

#include "cat/CATManager.h"
#include "host/ClientRequest.h"
#include "host/HRManager.h"
#include "host/TopEnd.h"
#include "cache/HostLbaTracker.h"
#include "journal/writejournal/PostWriteElem.h"
#include "journal/writejournal/WriteJournal.h"

Dispatcher* Dispatcher::GetInstance() {
    static Dispatcher instance;
    return &instance;
}

StatusCode Dispatcher::Initialize() {
    if (mStarted) return StatusCode::InitFailed;
    mStarted = true;
    mHoldOff = semBCreate(SEM_Q_FIFO, SEM_FULL);
    StatusCode result = StatusCode::Success;
    for (int i = 0; i < kWriteThreads; ++i) {
        std::string name = "tWPThread" + std::to_string(i);
        if (taskSpawn(name, 120, [this] { ProcessWriteTransactions(); }) == nullptr) {
            std::printf("%s was not created\n", name.c_str());
            result = StatusCode::InitFailed;
        }
    }
    for (int i = 0; i < kReadThreads; ++i) {
        std::string name = "tRPThread" + std::to_string(i);
        if (taskSpawn(name, 120, [this] { ProcessReadTransactions(); }) == nullptr) {
            std::printf("%s was not created\n", name.c_str());
            result = StatusCode::InitFailed;
        }
    }
    return result;
}

// Two texts of the write path disagree on the space failures: one passes them
// to the host as they are, the other as OutOfSpace. The host is told
// OutOfSpace for all three: it is the one the transport turns into the
// "space allocation failed" sense an initiator understands.
StatusCode Dispatcher::hostWriteStatus(StatusCode s) {
    if (s.ok()) return s;
    return s.isSpaceShortage() ? StatusCode::OutOfSpace : StatusCode::WriteError;
}

void Dispatcher::ProcessReadTransactions() {
    TopEnd* top = TopEnd::GetInstance();
    HRManager* hrm = HRManager::GetInstance();
    CATManager* catm = CATManager::GetInstance();
    for (;;) {
        if (semTake(top->readSemaphore(), WAIT_FOREVER) != OK) taskSuspend(nullptr);
        ++mActiveReads;
        ClientRequest* r = nullptr;
        _readahead_element element;
        unsigned long sequence = 0;
        if (!top->PopFromReadQueue(&r, element, &sequence)) {
            std::printf("Dispatcher: read semaphore given with an empty read queue\n");
            --mActiveReads;
            continue;
        }
        ++mReads;
        bool held = r->isHold();
        if (!held) {
            // The map reads into the request's window; the status goes to the request.
            r->status = catm->ReadData(*r);
            hrm->putResponse(*r);
        } else {
            hrm->releaseRequest(*r);
        }
        // Read-ahead: the host LBA cache has no read-ahead windows yet (element.length stays 0).
        --mActiveReads;
    }
}

void Dispatcher::ProcessWriteTransactions() {
    TopEnd* top = TopEnd::GetInstance();
    HRManager* hrm = HRManager::GetInstance();
    CATManager* catm = CATManager::GetInstance();
    HostLbaTracker* hlbat = HostLbaTracker::GetInstance();
    WriteJournal* journal = WriteJournal::GetInstance();
    for (;;) {
        semTake(mHoldOff, WAIT_FOREVER);  // one thread at a time gets a unit of work
        ++mActiveWrites;
        PostWriteElem elem;
        bool synchronous = top->oneAtATimeOn();
        // 1 MiB batches; in one-at-a-time mode a stream at a time.
        bool got = journal->PostWriteRequest(elem, synchronous ? 0 : 0x800);
        elem.thread = taskIdSelf();
        semGive(mHoldOff);
        if (!got) {
            --mActiveWrites;
            continue;
        }
        ++mWrites;
        StatusCode s = StatusCode::Success;
        if (elem.numTags) {
            s = hlbat->LockRangeMultiple(elem, *elem.tracker);
            if (s.ok()) s = catm->WriteData(elem);
        }
        if (!s.ok()) {
            ++mFailedWrites;
            std::printf("Dispatcher: write (partially) failed %s\n", s.Dump().c_str());
        }
        for (uint32_t i = 0; i < elem.numTags; ++i) {
            ClientRequest* r = elem.items[i].request;
            if (!r) continue;
            StatusCode rs = r->status == StatusCode::LastStatusCode ? s : r->status;
            r->status = hostWriteStatus(rs);
        }
        uint32_t throttle = hrm->throttle();
        if (elem.synchronous && throttle != 0) {
            ++top->mOneAtATimeWrites;
            if (elem.numTags && elem.items[0].request && elem.items[0].request->status.ok()) {
                ++top->mThrottledWrites;
                taskDelay(int(throttle));
            }
        }
        // Answers the host in one-at-a-time mode and frees the journal space.
        journal->PostWriteComplete(elem);
        --mActiveWrites;
    }
}

void Dispatcher::threadActivity(std::ostream& out) {
    out << "Dispatcher: active write threads " << mActiveWrites.load() << "/" << kWriteThreads
        << ", active read threads " << mActiveReads.load() << "/" << kReadThreads << ", reads " << mReads.load()
        << ", writes " << mWrites.load() << " (failed " << mFailedWrites.load() << "), read queue "
        << TopEnd::GetInstance()->readQueueDepth() << ", writes queued " << WriteJournal::GetInstance()->queued()
        << "\n";
}
