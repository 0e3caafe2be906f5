#include "journal/writejournal/WriteJournal.h"

#include "cache/HostLbaTracker.h"
#include "cat/CATManager.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "host/ClientRequest.h"
#include "journal/writejournal/J1Replay.h"
#include "journal/writejournal/J1Tag.h"
#include "platform/board/Board.h"
#include "system/SystemManager.h"
#include "system/nvram.h"
#include "util/DataStore.h"
#include "util/Trace.h"
#include "util/WJMemoryPool.h"
#include "util/WriteBuffer.h"

namespace {
Trace tWj("j1", "vrbm", "flow", false);

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
        return CATManager::GetInstance()->LockAndWriteData(request);
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
    mCount = 0;
    return StatusCode::Success;
}

StatusCode WriteJournal::LoadDiskPack2() {
    J1Replay* replay = J1Replay::GetInstance();
    if (replay->replayDone()) return StatusCode::Success;  // a later load in this boot: the journal is live
    return replay->replay(mTagCache, kReplayCacheSize, mJ1Size, DiskPackManager::GetInstance()->packId(), mJ1Start);
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
    if (!J1Tag::GetInstance()->SetupTag(request, uint32_t(sequence))) {
        hlbat->InvalidateRange(request.lun, request.lba, request.len, request.iot);
        dropWrite(request, StatusCode::J1_NoTags);
        return StatusCode::J1_NoTags;
    }
    mCount++;
    J1Tag::GetInstance()->WakeWorker(false);
    return StatusCode::Success;
}

bool WriteJournal::PostWriteRequest(PostWriteElem& elem, unsigned long minSectors) {
    if (!J1Tag::GetInstance()->Coalesce(elem, minSectors)) return false;
    mCount -= elem.totalTags;
    return true;
}

void WriteJournal::PostWriteComplete(PostWriteElem& elem) {
    HostLbaTracker* hlbat = HostLbaTracker::GetInstance();
    for (uint32_t i = 0; i < elem.numTags; ++i) {
        PostWriteItem& item = elem.items[i];
        IOTracker& tracker = item.tracker ? *item.tracker : item.request->iot;
        StatusCode status = hlbat->InvalidateRange(item.lun, item.lba, item.length, tracker);
        if (status != StatusCode::Success)
            ESA_TRACE(tWj, "PostWriteComplete: invalidate failed " << status << " lun " << item.lun << " lba " << item.lba);
    }
    J1Tag::GetInstance()->Destroy(elem);
}

void WriteJournal::Dump(std::ostream& out) const {
    out << "WriteJournal: uncoalesced " << mCount.load() << " synchronous " << mSynchronous << " /SHJ1 0x" << std::hex
        << uintptr_t(mJ1Start) << " size 0x" << mJ1Size << std::dec << "\n";
    J1Tag::GetInstance()->Dump(out);
    J1Replay::GetInstance()->Dump(out);
}
