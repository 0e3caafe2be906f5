#include "journal/writejournal/WriteJournal.h"

#include "cache/HostLbaTracker.h"
#include "cat/CATManager.h"
#include "cat/ClusterManager.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "host/ClientRequest.h"
#include "journal/writejournal/J1Replay.h"
#include "journal/writejournal/J1Tag.h"
#include "platform/board/Board.h"
#include "system/SystemManager.h"
#include "system/nvram.h"
#include "util/DataStore.h"
#include "util/IOTracker.h"
#include "util/Trace.h"
#include "util/WJMemoryPool.h"
#include "util/WriteBuffer.h"

namespace {
Trace tWj("j1", "vrbm", "flow", false);

constexpr int kReplaySpaceRetries = 4;

void freeWriteBuffer(unsigned char* address, unsigned long length) {
    WriteBuffer::GetInstance().FreeBuffer(address, uint32_t(length));
}
}  // namespace

WriteJournal* WriteJournal::GetInstance() {
    static WriteJournal instance;
    return &instance;
}

StatusCode WriteJournal::Initialize() {
    J1Replay* replay = J1Replay::GetInstance();
    replay->hooks.flushAllDrives = [] { return DiskManager::GetInstance()->FlushAllDrives(); };
    replay->hooks.writeInPlace = [](ClientRequest& request) {
        StatusCode status = CATManager::GetInstance()->LockAndWriteData(request);
        // The replay runs while the pack loads, when the cluster manager's
        // background thread waits for the load and adds no Zone: a write
        // that found no free cluster adds one here and is tried again.
        // Dropping it would lose an acknowledged write.
        for (int attempt = 0; attempt < kReplaySpaceRetries && status.isSpaceShortage(); ++attempt) {
            if (!ClusterManager::GetInstance()->AddZoneNow().ok()) break;  // the pack is full: reported by the replay
            request.newTransaction(READ_WRITE);
            status = CATManager::GetInstance()->LockAndWriteData(request);
        }
        // Nothing of the journal memory may stay in the cache: it is reused
        // once the replay is done. Nothing else writes while the replay runs,
        // so a transaction newer than the cached range removes it.
        request.newTransaction(READ_ONLY);
        HostLbaTracker::GetInstance()->InvalidateRange(request.lun, request.lba, request.len, request.iot);
        return status;
    };
    replay->hooks.uncoalescedSectors = [] { return J1Tag::GetInstance()->usedCapacity() / 512; };
    replay->hooks.readOnly = [] { return SystemManager::GetInstance()->readOnly(); };
    return StatusCode::Success;
}

StatusCode WriteJournal::LoadDiskPack() {
    size_t size = 0;
    mJ1Start = static_cast<unsigned char*>(Board::GetInstance().openRegion("/SHJ1", kJournalMemoryBytes, &size));
    if (!mJ1Start) {
        ESA_CONSOLE("WriteJournal: cannot open /SHJ1");
        return StatusCode::InitFailed;
    }
    mJ1Size = size;
    if (!mPool) mPool = new WJMemoryPool(freeWriteBuffer);
    mTagCache = nvram::GetInstance()->GetBuffer(nvram::kJ1ReplayTagCache);
    auto* header = static_cast<_wjtagheader*>(nvram::GetInstance()->GetBuffer(nvram::kJ1Tags));
    if (!mTagCache || !header) {
        ESA_CONSOLE("J1 failed to get NVRAM buffer address");
        return StatusCode::InitFailed;
    }
    J1Replay::GetInstance()->Initialize(mTagCache);
    J1Tag* tags = J1Tag::GetInstance();
    tags->resetTagCache(header, _wjtagheader::kMaxTags);
    tags->setPackId(DiskPackManager::GetInstance()->packId());
    return StatusCode::Success;
}

StatusCode WriteJournal::LoadDiskPack2() {
    J1Replay* replay = J1Replay::GetInstance();
    if (replay->replayDone()) return StatusCode::Success;  // a later load in this boot: the journal is live
    StatusCode status =
        replay->replay(mTagCache, kReplayCacheSize, mJ1Size, DiskPackManager::GetInstance()->packId(), mJ1Start);
    // Once the replayed writes are on the disks and the journal is empty, the
    // write buffers of the previous run (replayed, or cut before they had a
    // tag) are garbage. No LUN is served before this step of the load, so no
    // host write holds a buffer yet.
    if (status == StatusCode::Success && replay->isClean(false) && WriteBuffer::GetInstance().started())
        WriteBuffer::GetInstance().Reformat();
    return status;
}

bool WriteJournal::earlyAcknowledgement() const {
    return J1Tag::GetInstance()->loaded() && J1Replay::GetInstance()->replayDone();
}

StatusCode WriteJournal::UnloadDiskPack() {
    J1Tag::GetInstance()->WaitForJ1Empty();
    return J1Tag::GetInstance()->UnloadDiskPack();
}

void WriteJournal::dropWrite(ClientRequest& request, StatusCode why) {
    if (!request.tag) return;
    bool acknowledged = request.flags & (ClientRequest::kWriteAcked | ClientRequest::kHold);
    if (acknowledged)
        J1Replay::GetInstance()->holdFailedTag(*request.tag, why);
    else
        J1Replay::GetInstance()->abortTag(*request.tag);
    request.tag = nullptr;
}

StatusCode WriteJournal::ProcessHostWrite(ClientRequest& request, unsigned long sequence) {
    if (request.len == 0 || !request.store) {
        // Nothing to write: done at once.
        J1Replay::GetInstance()->abortTag(request);
        request.status = StatusCode::Success;
        if (J1Tag::GetInstance()->hooks.releaseRequest) J1Tag::GetInstance()->hooks.releaseRequest(request);
        return StatusCode::Success;
    }
    // The journal's own hold on the data, which the cache takes over: it
    // ends when PostWriteComplete takes the range out of the cache.
    request.store->IncRef();
    HostLbaTracker* hlbat = HostLbaTracker::GetInstance();
    StatusCode status = hlbat->AddRange(request.lun, request.lba, request.len, request.store, request.iot);
    if (status != StatusCode::Success) {
        request.store->DecRef();  // refused: the hold stayed ours
        ESA_CONSOLE("2. WARN: Unable to add range to cache (" << status << ") Lun: " << request.lun
                                                              << " LBA: " << request.lba << " Len: " << request.len);
        dropWrite(request, status);
        return status;
    }
    // The cache ages what it holds: the range just added carries an id newer
    // than this request's transaction, so the request's removal of it after
    // the write would leave it in place (and the journal memory under it in
    // use). A new transaction here is newer than the range and older than the
    // range of any later host write, which this thread adds after it.
    request.newTransaction(READ_WRITE);
    if (!J1Tag::GetInstance()->SetupTag(request, uint32_t(sequence))) {
        hlbat->InvalidateRange(request.lun, request.lba, request.len, request.iot);
        dropWrite(request, StatusCode::J1_NoTags);
        return StatusCode::J1_NoTags;
    }
    J1Tag::GetInstance()->WakeWorker(false);
    return StatusCode::Success;
}

bool WriteJournal::PostWriteRequest(PostWriteElem& elem, unsigned long minSectors) {
    return J1Tag::GetInstance()->Coalesce(elem, minSectors);
}

void WriteJournal::PostWriteComplete(PostWriteElem& elem) {
    HostLbaTracker* hlbat = HostLbaTracker::GetInstance();
    // Each write of a stream leaves the cache under its own transaction: a
    // newer write of some of the same sectors, added later, stays.
    for (uint32_t i = 0; i < elem.numTags; ++i)
        for (WJTAG* t = elem.items[i].head; t; t = t->streamNext) {
            if (!t->request) continue;
            StatusCode status = hlbat->InvalidateRange(t->lun, t->lba, t->length, t->request->iot);
            if (status != StatusCode::Success)
                ESA_TRACE(tWj, "PostWriteComplete: invalidate failed " << status << " lun " << t->lun << " lba " << t->lba);
        }
    J1Tag::GetInstance()->Destroy(elem);
}

uint32_t WriteJournal::queued() const { return J1Tag::GetInstance()->numTags(); }

void WriteJournal::Dump(std::ostream& out) const {
    out << "WriteJournal: uncoalesced " << queued() << " synchronous " << mSynchronous << " /SHJ1 0x" << std::hex
        << uintptr_t(mJ1Start) << " size 0x" << mJ1Size << std::dec << "\n";
    J1Tag::GetInstance()->Dump(out);
    J1Replay::GetInstance()->Dump(out);
}
