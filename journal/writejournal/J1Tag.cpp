#include "journal/writejournal/J1Tag.h"

#include <algorithm>
#include <cstring>

#include "host/ClientRequest.h"
#include "journal/writejournal/J1Replay.h"
#include "platform/rtos/BoardClock.h"
#include "system/nvram.h"
#include "util/Assert.h"
#include "util/DataStore.h"
#include "util/Trace.h"

namespace {
Trace tJ1("j1", "vrbh", "flow", false);
Trace tJ1Coal("j1", "vrbm", "coal", false);
Trace tJ1Err("j1", "error", "flow", true);

constexpr uint32_t kSector = 512;

// A stream's extent rounded out to whole clusters of 8 sectors.
uint64_t clusterStart(uint64_t lba) { return lba & ~uint64_t(7); }
uint64_t clusterEnd(uint64_t lba, uint32_t length) { return (lba + length + 7) & ~uint64_t(7); }
bool shareCluster(uint32_t lunA, uint64_t lbaA, uint32_t lenA, uint32_t lunB, uint64_t lbaB, uint32_t lenB) {
    return lunA == lunB && clusterStart(lbaA) < clusterEnd(lbaB, lenB) && clusterStart(lbaB) < clusterEnd(lbaA, lenA);
}
bool shareCluster(const WJTAG* a, const WJTAG* b) {
    return shareCluster(a->lun, a->lba, a->streamLength, b->lun, b->lba, b->streamLength);
}
}  // namespace

void _wjtagheader::reset(uint32_t address, uint32_t maxTags) {
    std::memset(raw, 0, kSize);
    putLE32(raw + 0x04, 0x10000);
    putLE32(raw + 0x08, address);
    putLE32(raw + 0x18, maxTags);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    putLE32(raw, kMagic);
}

J1Tag* J1Tag::GetInstance() {
    static J1Tag instance;
    return &instance;
}

J1Tag::J1Tag(J1Replay* replay)
    : mReplay(replay ? replay : J1Replay::GetInstance()),
      mTags(_wjtagheader::kMaxTags),
      mWorkerSem(semBCreate(SEM_Q_PRIORITY, SEM_EMPTY)),
      mTagFreedSem(semBCreate(SEM_Q_PRIORITY, SEM_EMPTY)) {
    for (uint32_t i = 0; i < mTags.size(); ++i) mTags[i].index = i;
}

J1Tag::~J1Tag() {
    semDelete(mWorkerSem);
    semDelete(mTagFreedSem);
}

StatusCode J1Tag::Initialize(bool clear) {
    (void)clear;  // the list never outlives the process; the NVRAM header is reset at load
    return StatusCode::Success;
}

StatusCode J1Tag::LoadDiskPack() {
    auto* header = static_cast<_wjtagheader*>(nvram::GetInstance()->GetBuffer(nvram::kJ1Tags));
    if (!header) {
        ESA_CONSOLE("J1 failed to get NVRAM buffer address");
        return StatusCode::InitFailed;
    }
    if (header->magic() != _wjtagheader::kMagic) {
        ESA_CONSOLE("Reseting pTagHeader");
        header->reset(uint32_t(reinterpret_cast<uintptr_t>(header)), _wjtagheader::kMaxTags);
    }
    mHeader = header;
    mStopping = false;
    mLoaded = true;
    return StatusCode::Success;
}

StatusCode J1Tag::UnloadDiskPack() {
    mLoaded = false;
    return StatusCode::Success;
}

void J1Tag::resetTagCache(_wjtagheader* header, unsigned long maxTags) {
    LockObject::ExclusiveLockInstance list(&mListLock);
    LockObject::ExclusiveLockInstance tagLock(&mTagLock);
    header->reset(uint32_t(reinterpret_cast<uintptr_t>(header)), uint32_t(std::min<unsigned long>(maxTags, _wjtagheader::kMaxTags)));
    mHeader = header;
    for (WJTAG& t : mTags) {
        uint32_t index = t.index;
        t = WJTAG();
        t.index = index;
    }
    mHead = mTail = mNextProcess = nullptr;
    mInFlight.clear();
    mNumTags = mNumStreams = 0;
    mUsedCapacity = 0;
    mDup = 0;
    mStopping = false;
    mLoaded = true;
}

void J1Tag::setPackId(const DiskPackId& id) {
    if (mHeader) mHeader->setPackId(id);
}

uint32_t J1Tag::numTagsAllocated() const {
    if (!mHeader) return 0;
    taskRtpLock();
    uint32_t n = mHeader->allocated();
    taskRtpUnlock();
    return n;
}

WJTAG* J1Tag::AllocateTag() {
    if (!mHeader) return nullptr;
    for (;;) {
        {
            LockObject::ExclusiveLockInstance lock(&mTagLock);
            uint32_t max = std::min(mHeader->maxTags(), _wjtagheader::kMaxTags);
            for (uint32_t w = 0; w < max / 32; ++w) {
                uint32_t bits = mHeader->word(w);
                if (bits == 0xFFFFFFFFu) continue;
                uint32_t b = uint32_t(__builtin_ctz(~bits));
                mHeader->setWord(w, bits | (1u << b));
                uint32_t allocated = mHeader->allocated() + 1;
                mHeader->setAllocated(allocated);
                if (allocated > mHeader->highWatermark()) mHeader->setHighWatermark(allocated);
                return &mTags[w * 32 + b];
            }
        }
        if (mStopping) return nullptr;
        semTake(mTagFreedSem, kRoundTicks);
    }
}

void J1Tag::FreeTag(WJTAG* tag) {
    if (tag < mTags.data() || tag >= mTags.data() + mTags.size()) {
        ESA_CONSOLE("Range check failed");
        return;
    }
    uint32_t n = tag->index;
    LockObject::ExclusiveLockInstance lock(&mTagLock);
    uint32_t word = mHeader->word(n / 32);
    ESA_ASSERT(word & (1u << (n % 32)));
    mHeader->setWord(n / 32, word & ~(1u << (n % 32)));
    uint32_t allocated = mHeader->allocated();
    mHeader->setAllocated(allocated - 1);
    tag->magic = 0;
    if (allocated == mHeader->maxTags()) semGive(mTagFreedSem);
}

void J1Tag::insertNewest(WJTAG* tag) {
    tag->prev = nullptr;
    tag->next = mHead;
    if (mHead) mHead->prev = tag;
    mHead = tag;
    if (!mTail) mTail = tag;
    if (!mNextProcess) mNextProcess = tag;
}

void J1Tag::replaceInList(WJTAG* old, WJTAG* tag) {
    tag->next = old->next;
    tag->prev = old->prev;
    if (tag->next) tag->next->prev = tag;
    if (tag->prev) tag->prev->next = tag;
    if (mHead == old) mHead = tag;
    if (mTail == old) mTail = tag;
    if (mNextProcess == old) mNextProcess = tag;
    old->next = old->prev = nullptr;
}

void J1Tag::UnhookTag(WJTAG* tag) {
    if (tag->next) tag->next->prev = tag->prev;
    if (tag->prev) tag->prev->next = tag->next;
    if (mHead == tag) mHead = tag->next;
    if (mTail == tag) mTail = tag->prev;
    if (mNextProcess == tag) mNextProcess = tag->prev;
    tag->next = tag->prev = nullptr;
}

// Long streams go first: the head moves toward the processing end past
// shorter waiting streams, but never past one that ends where it begins (the
// neighbours keep their order) nor one that shares a cluster with it (the
// older write of a sector must reach the disk first).
void J1Tag::moveTowardProcessing(WJTAG* head) {
    // The oldest waiting stream keeps its turn: nothing passes tagNextProcess.
    while (head != mNextProcess) {
        WJTAG* older = head->next;
        if (!older || older == mNextProcess || older->inProcessing() || older->streamLength >= head->streamLength) break;
        if (older->lun == head->lun && older->lba + older->streamLength == head->lba) break;
        if (shareCluster(older, head)) break;
        // Swap the two neighbours: head goes to the older side.
        WJTAG* newer = head->prev;
        WJTAG* beyond = older->next;
        head->next = beyond;
        head->prev = older;
        older->next = head;
        older->prev = newer;
        if (beyond) beyond->prev = head;
        if (newer) newer->next = older;
        if (mHead == head) mHead = older;
        if (mTail == older) mTail = head;
    }
}

WJTAG* J1Tag::SetupTag(ClientRequest& request, unsigned int transCount) {
    WJTAG* tag = AllocateTag();
    if (!tag) return nullptr;
    uint32_t index = tag->index;
    *tag = WJTAG();
    tag->index = index;
    tag->magic = WJTAG::kMagic;
    tag->transCount = transCount;
    tag->lba = request.lba;
    tag->lun = request.lun;
    if (request.store) {
        uint32_t contiguous = 0;
        request.store->begin(0, tag->data, contiguous);
    }
    tag->replayTag = request.tag;
    tag->length = request.len;
    tag->request = &request;
    tag->sectorMask = request.len + 1 >= 16 ? 0xFFFF : uint16_t((1u << (request.len + 1)) - 1);
    tag->tracker = &request.iot;
    const uint64_t lba = request.lba, end = request.lba + request.len;

    LockObject::ExclusiveLockInstance list(&mListLock);
    WJTAG* exact = nullptr;
    WJTAG* candidate = nullptr;
    bool pre = false, partial = false;
    for (WJTAG* s = mNextProcess; s; s = s->prev) {
        if (s->lun != request.lun) continue;
        uint64_t sb = s->lba, se = s->lba + s->streamLength;
        if (sb == lba && se == end) {
            exact = s;
        } else if (sb < end && lba < se) {
            partial = true;
        } else if (end == sb && !s->inProcessing() && s->streamLength + request.len <= kMaxStreamSectors) {
            ESA_TRACE(tJ1, "SetupTag pre-contiguous with " << s->index);
            candidate = s;
            pre = true;
        } else if (se == lba && !s->inProcessing() && s->streamLength + request.len <= kMaxStreamSectors) {
            ESA_TRACE(tJ1, "SetupTag post-contiguous with " << s->index);
            candidate = s;
            pre = false;
        }
    }
    if (exact && !partial) {
        // The new write takes the waiting stream's place; the older data are
        // never written. Only when no other waiting stream overlaps: that one
        // would otherwise reach the disk after this newer write.
        tag->flags |= WJTAG::kDup;
        replaceInList(exact, tag);
        tag->streamLength = request.len;
        tag->streamTags = 1;
        tag->streamLast = tag;
        mUsedCapacity -= uint64_t(exact->streamLength) * kSector;
        mDup++;
        for (WJTAG* t = exact; t;) {
            WJTAG* following = t->streamNext;
            // Its hold on the data went with the cache range the new write
            // replaced; the host is told it is done: the newer write of the
            // same sectors, now PENDING, stands for it.
            if (t->request) t->request->status = StatusCode::Success;
            ReleaseTagWithNoExecution(t);
            mNumTags--;
            t = following;
        }
    } else if (!candidate || partial || exact) {
        ESA_TRACE(tJ1, "SetupTag add new tag " << tag->index);
        tag->streamLength = request.len;
        tag->streamTags = 1;
        tag->streamLast = tag;
        insertNewest(tag);
        mNumStreams++;
    } else if (!pre) {
        WJTAG* head = candidate;
        head->streamLength += request.len;
        head->streamTags++;
        head->streamLast->streamNext = tag;
        head->streamLast = tag;
        head->tracker = tag->tracker;
        moveTowardProcessing(head);
    } else {
        WJTAG* old = candidate;
        replaceInList(old, tag);
        tag->streamLength = old->streamLength + request.len;
        tag->streamTags = old->streamTags + 1;
        tag->streamLast = old->streamLast;
        tag->streamNext = old;
        tag->tracker = old->tracker;
        old->streamLength = 0;
        old->streamTags = 0;
        old->streamLast = nullptr;
        moveTowardProcessing(tag);
    }
    if (!mNextProcess) mNextProcess = tag;
    mUsedCapacity += uint64_t(request.len) * kSector;
    mNumTags++;
    return tag;
}

bool J1Tag::wakeNeededLocked(bool force) const {
    return force || mUsedCapacity > kFlushThreshold || oneAtATime() || mNumStreams >= kWakeStreams || mWaitCount == 0;
}

void J1Tag::WakeWorker(bool force) {
    if (wakeNeededLocked(force)) semGive(mWorkerSem);
}

bool J1Tag::blockedByInFlight(const WJTAG* head) const {
    return std::any_of(mInFlight.begin(), mInFlight.end(), [&](const WJTAG* f) { return shareCluster(f, head); });
}

bool J1Tag::Coalesce(PostWriteElem& elem, unsigned long minSectors) {
    elem.reset();
    uint32_t rounds = 0;
    for (;;) {
        if (semTake(mWorkerSem, kRoundTicks) != OK && rtosErrno() != S_objLib_OBJ_TIMEOUT)
            ESA_TRACE(tJ1Err, "Sem woken with errno == " << rtosErrno());
        if (mStopping) return false;
        LockObject::ExclusiveLockInstance list(&mListLock);
        bool ready = mUsedCapacity >= kFlushThreshold || rounds >= mWaitCount || mNumStreams >= kWakeStreams || oneAtATime();
        if (!ready) {
            rounds++;
            continue;
        }
        if (mNumTags == 0 || mUsedCapacity == 0 || !mNextProcess) continue;

        WJTAG* s = mNextProcess;
        WJTAG* last = nullptr;
        while (s) {
            // Two streams of one cluster never share a batch, and a stream
            // waits for any batch in hand that shares a cluster with it.
            bool overlap = false;
            for (uint32_t i = 0; i < elem.numTags && !overlap; ++i)
                overlap = shareCluster(elem.items[i].lun, elem.items[i].lba, elem.items[i].length, s->lun, s->lba, s->streamLength);
            if (overlap) {
                ESA_TRACE(tJ1Coal, "J1C: Overlap: " << s->index << " J1C: Range overlap");
                semGive(mWorkerSem);
                break;
            }
            if (blockedByInFlight(s)) break;
            PostWriteItem& item = elem.items[elem.numTags++];
            item.lun = s->lun;
            item.lba = s->lba;
            item.length = s->streamLength;
            item.request = s->request;
            item.tracker = s->tracker;
            item.head = s;
            if (!elem.firstTag) elem.firstTag = s;
            elem.totalTags += s->streamTags;
            elem.totalLength += s->streamLength;
            mNumTags -= s->streamTags;
            mNumStreams--;
            mUsedCapacity -= uint64_t(s->streamLength) * kSector;
            for (WJTAG* t = s; t; t = t->streamNext) t->flags |= WJTAG::kInProcessing;
            mInFlight.push_back(s);
            last = s;
            s = s->prev;
            if (elem.totalLength >= minSectors) {
                ESA_TRACE(tJ1Coal, "J1C: Minimum sectors required");
                break;
            }
            if (elem.numTags == PostWriteElem::kMaxItems) {
                ESA_TRACE(tJ1Coal, "J1C: Exceeded number of sets");
                break;
            }
            if (last->streamLength >= kSufficientStream) {
                ESA_TRACE(tJ1Coal, "J1C: Sufficient sectors in stream");
                break;
            }
            if (!s) {
                ESA_TRACE(tJ1Coal, "<<Coalesce - no more entries");
                break;
            }
        }
        if (elem.numTags == 0) continue;  // the next stream waits for a batch in hand
        // The taken streams stand behind tagNextProcess: it moves to the
        // first one not taken. Only whole prefixes are taken, so that holds.
        mNextProcess = last->prev;
        elem.tracker = elem.items[elem.numTags - 1].tracker;
        elem.synchronous = oneAtATime();
        if (mNumStreams && wakeNeededLocked(false)) semGive(mWorkerSem);
        return true;
    }
}

void J1Tag::releaseOne(WJTAG* tag, bool executed) {
    J1ReplayTag* replayTag = tag->replayTag;
    ClientRequest* request = tag->request;
    bool acknowledged = request && (request->flags & (ClientRequest::kWriteAcked | ClientRequest::kHold));
    StatusCode status = request ? request->status : StatusCode(StatusCode::Success);
    if (request && hooks.releaseRequest) hooks.releaseRequest(*request);
    if (replayTag) {
        if (!executed) {
            mReplay->abortTag(*replayTag);
        } else if (status == StatusCode::Success) {
            mReplay->setTagState(*replayTag, ReplayTagState::EXECUTED);
        } else if (acknowledged) {
            // The host was told that this write was done: its data stay in
            // the journal memory under a live tag until a retry or the next
            // start's replay writes them.
            mReplay->holdFailedTag(*replayTag, status);
        } else {
            mReplay->abortTag(*replayTag);  // the host gets the failure itself
        }
    }
    FreeTag(tag);
}

void J1Tag::ReleaseTag(WJTAG* tag) { releaseOne(tag, true); }

void J1Tag::ReleaseTagWithNoExecution(WJTAG* tag) { releaseOne(tag, false); }

void J1Tag::Destroy(PostWriteElem& elem) {
    for (uint32_t i = 0; i < elem.numTags; ++i) {
        WJTAG* head = elem.items[i].head;
        ESA_ASSERT(head != nullptr);
        StatusCode streamStatus = head->request ? head->request->status : StatusCode(StatusCode::Success);
        {
            LockObject::ExclusiveLockInstance list(&mListLock);
            UnhookTag(head);
            mInFlight.erase(std::remove(mInFlight.begin(), mInFlight.end(), head), mInFlight.end());
        }
        for (WJTAG* t = head; t;) {
            WJTAG* following = t->streamNext;
            // The map reports on the stream head; every write of the stream
            // shares its outcome.
            if (t->request && t->request->status == StatusCode::LastStatusCode) t->request->status = streamStatus;
            if (t->request && hooks.allocBlockCheck) hooks.allocBlockCheck(*t->request);
            ReleaseTag(t);
            t = following;
        }
    }
    semGive(mWorkerSem);  // a stream that waited for this batch may go now
}

StatusCode J1Tag::WaitForJ1Empty() {
    uint64_t start = BoardClock::GetInstance().microseconds();
    mWaitCount = 0;
    // Also, for a while, the writes that are acknowledged and not yet in the
    // list: the host counts them as done before it asks for the flush. Not
    // for ever: a write the transport gave up between its tag and the list
    // would hold the flush back.
    int pendingTicks = kPendingWaitTicks;
    auto outstanding = [&] {
        if (numTagsAllocated() != 0) return true;
        return pendingTicks-- > 0 && mReplay->countInState(ReplayTagState::PENDING) > mReplay->numHeld();
    };
    while (mLoaded && !mStopping && outstanding()) {
        semGive(mWorkerSem);
        taskDelay(1);
    }
    taskDelay(1);
    StatusCode status = mReplay->flushIfNeeded(true);
    mWaitCount = kWaitCount;
    mWaitForEmpty.add(BoardClock::GetInstance().microseconds() - start);
    return status;
}

StatusCode J1Tag::FlushDisks() {
    taskDelay(1);
    return mReplay->flushIfNeeded(true);
}

void J1Tag::Stop() {
    mStopping = true;
    for (int i = 0; i < 16; ++i) {
        semGive(mWorkerSem);
        semGive(mTagFreedSem);
    }
}

void J1Tag::Dump(std::ostream& out) const {
    LockObject::ExclusiveLockInstance list(&mListLock);
    out << "J1Tag: mNumTags " << mNumTags << " mNumStreams " << mNumStreams << " mUsedCapacity " << mUsedCapacity
        << " mDup " << mDup << "\n  threshold 0x" << std::hex << kFlushThreshold << std::dec << " wait count "
        << mWaitCount << " coalescing " << !mInFlight.empty() << " loaded " << mLoaded << "\n";
    if (mHeader)
        out << "  Allocated tags " << mHeader->allocated() << " of " << mHeader->maxTags() << ", high watermark "
            << mHeader->highWatermark() << "\n";
    out << "  Current I/O Mode: " << (oneAtATime() ? "Synchronous (one-at-a-time)" : "Asynchronous (coalesced)") << "\n";
    out << "  WaitForJ1Empty: ";
    mWaitForEmpty.Dump(out);
    out << "\n";
    int shown = 0;
    for (const WJTAG* s = mTail; s && shown < 32; s = s->prev, ++shown)
        out << "  stream " << s->index << (s->inProcessing() ? " [in processing]" : "") << (s == mNextProcess ? " <next>" : "")
            << " lun " << s->lun << " lba 0x" << std::hex << s->lba << std::dec << " sectors " << s->streamLength
            << " tags " << s->streamTags << "\n";
}
