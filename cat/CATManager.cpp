// The CAT manager's data paths: reads, the journalled redirect, the in-place
// path and the data writes behind them.
#include "cat/CATManager.h"

#include <algorithm>
#include <set>

#include "cache/CacheTrackerObject.h"
#include "cache/HostLbaTracker.h"
#include "cat/ClusterManager.h"
#include "host/ClientRequest.h"
#include "journal/writejournal/PostWriteElem.h"
#include "util/CrashPoint.h"
#include "util/ErrorInjection/ErrorInjection.h"
#include "util/PerfAccumulator.h"
#include "util/Trace.h"
#include "zone/ZoneManager.h"

namespace {
Trace tCatm("CAT", "CATM", "Info", false);

ErrorInjection& catmInjection() {
    static ErrorInjection injection("catm");
    return injection;
}
const int kPopulatePoint = catmInjection().addApiPoint("ClusterRangeAllocate.OOR", "fail a redirect populate");
const int kCheckPoint = catmInjection().addApiPoint("ClusterRangeCheck.OOR", "fail an in-place range check");

HostLbaTracker* hlbat() { return HostLbaTracker::GetInstance(); }

// Whether cluster `c` (index from the item's rounded start) is covered whole
// by the item's host range.
bool coveredWhole(const PostWriteItem& it, uint32_t c) {
    const uint64_t first = HostLbaTracker::roundedStart(it.lba) + uint64_t(c) * CATManager::kSectorsPerCluster;
    return first >= it.lba && first + CATManager::kSectorsPerCluster <= it.lba + it.length;
}
}  // namespace

CATManager* CATManager::GetInstance() {
    static CATManager instance;
    return &instance;
}

void CATManager::setSetLimits(uint32_t freedRuns, uint32_t newRuns) {
    mFreedRunsPerSet = std::max(1u, freedRuns);
    mNewRunsPerSet = std::max(1u, newRuns);
}

void CATManager::clearCounters() {
    for (auto* c : {&mCounters.reads, &mCounters.zoneReads, &mCounters.zeroClusters, &mCounters.batches,
                    &mCounters.sets, &mCounters.redirected, &mCounters.inPlace, &mCounters.allocated,
                    &mCounters.freed, &mCounters.badHashSkipped, &mCounters.freshPartialWrites,
                    &mCounters.zoneWrites})
        c->store(0);
}

void CATManager::setItemStatus(PostWriteElem& elem, uint32_t item, StatusCode st) {
    ClientRequest* r = elem.items[item].request;
    if (r && (r->status == StatusCode::Success || r->status == StatusCode::LastStatusCode)) r->status = st;
}

// ---- lookups under the map lock ----------------------------------------------

StatusCode CATManager::ClusterRangeGet(uint32_t lun, uint64_t& lba, uint32_t length, CATEntries& entries,
                                       uint32_t& numEntries, IOTracker& tracker) {
    LockObject::ExclusiveLockInstance g(&mLock);
    return clt().ClusterRangeGet(lun, lba, length, entries, numEntries, tracker);
}

// Without the map lock: the entries' zmdt range locks, held since the
// lookup, keep every other user of them out, and the map lock may not be
// taken while they are held (it comes first in the lock order).
StatusCode CATManager::CATEntryComplete(CATEntries& entries, IOTracker& tracker, bool dirty) {
    return clt().Complete(entries, tracker, dirty);
}

StatusCode CATManager::ClusterRangeReclaim(uint32_t lun, uint64_t& lba, uint32_t length, uint32_t& reclaimed,
                                           uint32_t& skipped) {
    LockObject::ExclusiveLockInstance g(&mLock);
    return clt().ClusterRangeReclaim(lun, lba, length, reclaimed, false, 0, skipped);
}

StatusCode CATManager::ClusterRangeReclaim(uint32_t lun, uint64_t& lba, uint32_t length, uint32_t& reclaimed,
                                           uint32_t& skipped, uint8_t age) {
    LockObject::ExclusiveLockInstance g(&mLock);
    return clt().ClusterRangeReclaim(lun, lba, length, reclaimed, true, age, skipped);
}

// ---- reads -----------------------------------------------------------------

StatusCode CATManager::ReadClusters(uint32_t lun, uint64_t lba, uint32_t clusters, DataWindow& window,
                                    IOTracker& tracker) {
    WriteCATEntries* array = new WriteCATEntries;
    CATEntries e;
    e.array = array;
    uint32_t count = 0;
    StatusCode st = ClusterRangeGet(lun, lba, clusters * kSectorsPerCluster, e, count, tracker);
    // The entries are copied out: the CAT ranges go at once.
    if (st.ok()) st = CATEntryComplete(e, tracker, false);
    ClusterManager* cm = ClusterManager::GetInstance();
    for (uint32_t i = 0; i < count && st.ok();) {
        const CATEntry first = e.get(i);
        uint32_t n = 1;
        if (!first.allocated() || !first.validState()) {
            DataWindow zero(window, i * 4096, 4096);
            zero.ZeroInit();
            ++mCounters.zeroClusters;
            if (first.allocated())
                ESA_TRACE(tCatm, "(b)Returned a zeroed cluster from CATEntry " << first << " (bad hash)");
            i += 1;
            continue;
        }
        while (i + n < count && e.get(i + n - 1).IsContiguous(e.get(i + n)) && e.get(i + n).validState()) ++n;
        DataWindow part(window, i * 4096, n * 4096);
        ++mCounters.zoneReads;
        st = ZoneManager::GetInstance()->ReadData(first.zone(), cm->LocateCluster(first.cluster()), part, tracker);
        if (!st.ok()) ESA_TRACE(tCatm, "Zone read of " << first << " x " << n << " failed " << st);
        i += n;
    }
    delete array;
    return st;
}

StatusCode CATManager::LockAndReadData(ClientRequest& request) {
    if (!mLoaded) return request.status = StatusCode::DiskPackNotLoaded;
    StatusCode st = hlbat()->LockRange(request.lun, request.lba, request.len, request.cto, request.iot, 0);
    if (!st.ok()) {
        request.cto = nullptr;
        return request.status = st;
    }
    return ReadData(request);
}

StatusCode CATManager::ReadData(ClientRequest& request) {
    if (!request.cto) return LockAndReadData(request);
    ++mCounters.reads;
    StatusCode st = hlbat()->LookupRange(request.cto, request.iot);
    if (st.ok()) request.window = request.cto->mWindow;
    // A transport receive thread reads the data straight from the cached
    // store: the range stays locked until the response has gone.
    if (!st.ok() || !request.fromTransport()) {
        hlbat()->UnlockRange(request.cto);
        request.cto = nullptr;
    }
    request.status = st;
    return st;
}

// ---- writes ------------------------------------------------------------------

StatusCode CATManager::LockAndWriteData(ClientRequest& request) {
    if (!mLoaded) return request.status = StatusCode::DiskPackNotLoaded;
    // The cache takes a reference of its own to the request's data.
    if (request.store) request.store->IncRef();
    StatusCode st = hlbat()->AddRange(request.lun, request.lba, request.len, request.store, request.iot);
    if (!st.ok()) {
        if (request.store) request.store->DecRef();
        return request.status = st;
    }
    const uint64_t lba = request.lba;
    const uint32_t len = request.len;
    const uint64_t start = HostLbaTracker::roundedStart(lba);
    const uint32_t length = uint32_t(HostLbaTracker::roundedLength(lba, len));
    st = hlbat()->LockRange(request.lun, start, length, request.cto, request.iot, 0);
    if (st.ok()) {
        request.lba = start;
        request.len = length;
        st = WriteData(request, true);
        request.lba = lba;
        request.len = len;
    } else {
        request.cto = nullptr;
    }
    // Nothing of the written range stays cached.
    StatusCode inv = hlbat()->InvalidateRange(request.lun, lba, len, request.iot);
    if (st.ok()) st = inv;
    request.status = st;
    return st;
}

StatusCode CATManager::writeHostRange(uint32_t lun, uint64_t lba, uint32_t len, DataStore* store, bool checkOnly,
                                      bool synchronous, IOTracker& tracker, ClientRequest* request) {
    if (!mLoaded) return StatusCode::DiskPackNotLoaded;
    StatusCode st = hlbat()->AddRange(lun, lba, len, store, tracker);
    if (!st.ok()) {
        store->DecRef();  // refused: the reference stayed ours
        return st;
    }
    PostWriteElem elem;
    elem.numTags = 1;
    elem.checkOnly = checkOnly;
    elem.synchronous = synchronous;
    elem.tracker = &tracker;
    elem.totalLength = len;
    elem.items[0] = PostWriteItem{lun, lba, len, nullptr, request, &tracker};
    st = hlbat()->LockRangeMultiple(elem, tracker);
    if (!st.ok()) return st;
    return WriteData(elem);
}

StatusCode CATManager::WriteData(ClientRequest& request, bool checkOnly) {
    if (!mLoaded) return request.status = StatusCode::DiskPackNotLoaded;
    if (!request.cto) {
        // A request that holds no lock: its data enter the cache and go
        // through the batch path as a batch of one. The cache gets a copy in
        // its own pool: the request's buffer (the transport's, or the
        // journal's) goes back when the request ends, whatever stays cached.
        const uint32_t bytes = request.len * 512;
        if (request.window.GetLength() < bytes) return request.status = StatusCode::BadIOLength;
        DataStore* store =
            hlbat()->pool().GetBlocks((bytes + HostLbaTracker::kBlockSize - 1) / HostLbaTracker::kBlockSize);
        {
            DataWindow into(*store, 0, bytes);
            into.Write(DataWindow(request.window, 0, bytes));
        }
        StatusCode st = writeHostRange(request.lun, request.lba, request.len, store, checkOnly, false, request.iot,
                                       &request);
        request.status = st;
        return st;
    }
    PerfSamplerLimitForced timer(nullptr, "Long CATM write detected (Single request), duration = ", 8000000);
    StatusCode st = hlbat()->LookupRange(request.cto, request.iot);
    if (st.ok()) st = hlbat()->WriteRange(request.cto, request.iot);
    hlbat()->UnlockRange(request.cto);
    request.cto = nullptr;
    request.status = st;
    return st;
}

StatusCode CATManager::WriteData(PostWriteElem& elem) {
    PerfSamplerLimitForced timer(nullptr, "Long CATM write detected (PWE request), duration = ", 4000000);
    StatusCode result = StatusCode::Success;
    for (uint32_t i = 0; i < elem.numTags; ++i) {
        StatusCode st = hlbat()->LookupRange(elem.items[i].cto, *elem.tracker);
        if (!st.ok()) {
            char text[96];
            std::snprintf(text, sizeof text, "CATManager::WriteData error during LookupRange (%s)",
                          st.Dump().c_str());
            ESA_CONSOLE(text);
            setItemStatus(elem, i, st);
            if (result.ok()) result = st;
        }
    }
    if (result.ok()) {
        result = hlbat()->WriteRangeMultiple(elem);
        if (!result.ok()) {
            char text[96];
            std::snprintf(text, sizeof text, "CATManager::WriteData error writing to disk (%s)",
                          result.Dump().c_str());
            ESA_CONSOLE(text);
        }
    }
    for (uint32_t i = 0; i < elem.numTags; ++i) {
        hlbat()->UnlockRange(elem.items[i].cto);
        elem.items[i].cto = nullptr;
        setItemStatus(elem, i, result);
    }
    return result;
}

StatusCode CATManager::WriteBackRangeMultiple(PostWriteElem& elem) {
    // Every item's lock must cover its range rounded out to whole clusters:
    // the placed runs index its window by cluster.
    for (uint32_t i = 0; i < elem.numTags; ++i) {
        const PostWriteItem& it = elem.items[i];
        if (it.cto && (it.cto->mStart != HostLbaTracker::roundedStart(it.lba) ||
                       it.cto->mLen != HostLbaTracker::roundedLength(it.lba, it.length))) {
            ESA_CONSOLE("CATManager: a write-back whose lock is not whole clusters (LBA 0x"
                        << std::hex << it.lba << std::dec << " +" << it.length << ")");
            return StatusCode::BadIOLength;
        }
    }
    std::vector<PlacedRun> runs;
    runs.reserve(64);
    uint32_t numAllocated = 0;
    StatusCode st;
    {
        LockObject::ExclusiveLockInstance g(&mLock);
        st = elem.checkOnly ? checkBatch(elem, numAllocated, runs) : ClusterRangePopulate(elem, numAllocated, runs);
    }
    if (numAllocated) elem.allocated = true;
    // The data of every set that committed go to the Zones, even when a
    // later set of the batch failed: the map already names those clusters.
    // Runs that follow each other in one Zone (the clusters of a batch are
    // allocated in one go, so the items of a batch of small random writes
    // usually lie end to end) are joined into one Zone write: whole stripe
    // lines need no read of old data, and one write per run costs one round
    // trip instead of one per item.
    std::set<uint32_t> zones;
    StatusCode first = st;
    JoinedRun joined;
    for (const PlacedRun& r : runs) {
        const PostWriteItem& it = elem.items[r.item];
        if (it.request && it.request->status != StatusCode::Success &&
            it.request->status != StatusCode::LastStatusCode) {
            ESA_TRACE(tCatm, "bad status code " << it.request->status);
            continue;
        }
        DataWindow window(it.cto->mWindow, r.clusterOffset * 4096, r.run.numberOfClusters * 4096);
        if (!joined.extends(r.run)) {
            writeJoinedRun(elem, joined, first);
            joined.start(r.run);
        } else {
            joined.run.numberOfClusters += r.run.numberOfClusters;
        }
        joined.window.add(window);
        joined.items.push_back(r.item);
        zones.insert(r.run.zone);
    }
    writeJoinedRun(elem, joined, first);
    // One-at-a-time: the answer waits until the data are on the disks.
    if (elem.synchronous)
        for (uint32_t z : zones) {
            StatusCode f = ZoneManager::GetInstance()->FlushZone(z);
            if (first.ok() && !f.ok()) first = f;
        }
    return first;
}

StatusCode CATManager::ClusterRangePopulate(PostWriteElem& elem, uint32_t& numAllocated,
                                            std::vector<PlacedRun>& runs) {
    bool fired = false;
    if (StatusCode st = catmInjection().apiErrorInject(kPopulatePoint, StatusCode::Success, fired); fired) {
        for (uint32_t i = 0; i < elem.numTags; ++i) setItemStatus(elem, i, st);
        return st;
    }
    return mapBatch(elem, numAllocated, runs);
}

StatusCode CATManager::ClusterRangeCheck(uint32_t lun, uint64_t& lba, uint32_t length, std::vector<PlacedRun>& runs,
                                         uint32_t& numAllocated) {
    PostWriteElem elem;
    elem.numTags = 1;
    elem.checkOnly = true;
    elem.items[0].lun = lun;
    elem.items[0].lba = lba;
    elem.items[0].length = length;
    return checkBatch(elem, numAllocated, runs);
}

StatusCode CATManager::checkBatch(PostWriteElem& elem, uint32_t& numAllocated, std::vector<PlacedRun>& runs) {
    bool fired = false;
    if (StatusCode st = catmInjection().apiErrorInject(kCheckPoint, StatusCode::Success, fired); fired) {
        for (uint32_t i = 0; i < elem.numTags; ++i) setItemStatus(elem, i, st);
        return st;
    }
    for (uint32_t i = 0; i < elem.numTags; ++i)
        ESA_TRACE(tCatm, "Cluster Range check (LBA " << elem.items[i].lba << ", length " << elem.items[i].length
                                                     << ", LUN " << elem.items[i].lun << ")");
    return mapBatch(elem, numAllocated, runs);
}

// ---- the map change of a batch ---------------------------------------------------

void CATManager::writeJoinedRun(PostWriteElem& elem, JoinedRun& joined, StatusCode& first) {
    if (joined.items.empty()) return;
    ++mCounters.zoneWrites;
    StatusCode w = ZoneManager::GetInstance()->WriteData(
        joined.run.zone, ClusterManager::GetInstance()->LocateCluster(joined.run.firstCluster), joined.window,
        *elem.tracker);
    if (!w.ok()) {
        for (uint32_t item : joined.items) setItemStatus(elem, item, w);
        if (first.ok()) first = w;
    }
    joined.items.clear();
    joined.window.clear();
}

StatusCode CATManager::mapBatch(PostWriteElem& elem, uint32_t& numAllocated, std::vector<PlacedRun>& runs) {
    numAllocated = 0;
    ++mCounters.batches;
    std::vector<Piece> pieces;
    for (uint32_t i = 0; i < elem.numTags; ++i) {
        const PostWriteItem& it = elem.items[i];
        const uint64_t limit = clt().maxLba(it.lun);
        if (it.lun >= CATLookupTable::kMaxLuns || it.length == 0 || limit == 0 || it.lba + it.length > limit + 1) {
            ESA_TRACE(tCatm, "LBA Out of range " << it.lba << " + " << it.length << " LUN " << it.lun);
            setItemStatus(elem, i, StatusCode::CATM_LBAOutOfRange);
            if (elem.numTags == 1) return StatusCode::CATM_LBAOutOfRange;
            continue;
        }
        const uint32_t clusters = uint32_t(HostLbaTracker::roundedLength(it.lba, it.length) / kSectorsPerCluster);
        for (uint32_t c = 0; c < clusters; c += kMaxRuns)
            pieces.push_back({i, c, std::min(kMaxRuns, clusters - c)});
    }
    StatusCode result = StatusCode::Success;
    while (!pieces.empty()) {
        uint32_t consumed = 0;
        StatusCode st = mapSet(elem, pieces, consumed, numAllocated, runs);
        if (!st.ok()) {
            // Every item not yet placed fails with the set's status.
            for (const Piece& p : pieces) setItemStatus(elem, p.item, st);
            return st;
        }
        // Drop what the set took from the front.
        while (consumed && !pieces.empty()) {
            const uint32_t n = std::min(consumed, pieces.front().count);
            pieces.front().clusterOffset += n;
            pieces.front().count -= n;
            consumed -= n;
            if (pieces.front().count == 0) pieces.erase(pieces.begin());
        }
    }
    return result;
}

StatusCode CATManager::mapSet(PostWriteElem& elem, const std::vector<Piece>& all, uint32_t& consumed,
                              uint32_t& numAllocated, std::vector<PlacedRun>& runs) {
    consumed = 0;
    ++mCounters.sets;
    const uint8_t tick0 = CATLookupTable::currentTick();
    const uint8_t tick = tick0;
    // The pieces of this set: as many from the front as fit one entry array,
    // never two that name the same clusters (those go to the next set, which
    // sees what this one changed).
    std::vector<Piece> pieces;
    uint32_t total = 0;
    for (const Piece& p : all) {
        if (total + p.count > kMaxRuns) break;
        const PostWriteItem& it = elem.items[p.item];
        const uint64_t first = HostLbaTracker::roundedStart(it.lba) / kSectorsPerCluster + p.clusterOffset;
        bool overlaps = false;
        for (const Piece& q : pieces) {
            const PostWriteItem& o = elem.items[q.item];
            const uint64_t f = HostLbaTracker::roundedStart(o.lba) / kSectorsPerCluster + q.clusterOffset;
            overlaps = overlaps || (o.lun == it.lun && first < f + q.count && f < first + p.count);
        }
        if (overlaps) break;
        pieces.push_back(p);
        total += p.count;
    }

    IOTracker tracker(READ_WRITE);
    WriteCATEntries* array = new WriteCATEntries;
    std::vector<CATEntries> handles(pieces.size());
    StatusCode st = StatusCode::Success;
    uint32_t base = 0;
    size_t got = 0;
    for (; got < pieces.size() && st.ok(); ++got) {
        const Piece& p = pieces[got];
        const PostWriteItem& it = elem.items[p.item];
        handles[got].array = array;
        handles[got].baseIndex = base;
        st = clt().GetCATEntry(handles[got], it.lun,
                               HostLbaTracker::roundedStart(it.lba) + uint64_t(p.clusterOffset) * kSectorsPerCluster,
                               p.count, tracker);
        if (!st.ok()) {
            char text[80];
            std::snprintf(text, sizeof text, "ClusterRangePopulate::GetCATEntry failed req = %lu",
                          (unsigned long)p.item);
            ESA_TRACE(tCatm, text);
            break;
        }
        base += p.count;
    }
    auto abandon = [&](StatusCode why) {
        for (size_t i = 0; i < got; ++i) clt().Complete(handles[i], tracker, false);
        tracker.commitIfDirty();
        delete array;
        return why;
    };
    if (!st.ok()) return abandon(st);

    // What each entry becomes: kept (rewritten in place) or given a new
    // cluster, the old one freed. A cluster covered only in part keeps its
    // cluster: its other sectors hold acknowledged data that a redirect
    // would lose if power failed before the new cluster reached the disk.
    struct Plan {
        bool keep, freeOld, badHash, freshPartial;
    };
    std::vector<Plan> plan(total);
    uint32_t cut = total, freedRuns = 0, wanted = 0;
    {
        uint32_t j = 0;
        CATEntry prevFreed;
        bool havePrev = false;
        for (size_t pi = 0; pi < pieces.size() && j < cut; ++pi) {
            const PostWriteItem& it = elem.items[pieces[pi].item];
            for (uint32_t k = 0; k < pieces[pi].count && j < cut; ++k, ++j) {
                const CATEntry e = handles[pi].get(k);
                const bool whole = coveredWhole(it, pieces[pi].clusterOffset + k);
                Plan& pl = plan[j];
                pl.keep = e.allocated() && e.validState() && (elem.checkOnly || !whole);
                pl.freeOld = e.allocated() && e.validState() && !pl.keep;
                pl.badHash = e.allocated() && !e.validState();
                pl.freshPartial = !pl.keep && !whole;
                if (pl.freeOld) {
                    if (!havePrev || !prevFreed.IsContiguous(e)) ++freedRuns;
                    prevFreed = e;
                    havePrev = true;
                    // Each run of old clusters costs a bitmap write in the set.
                    if (freedRuns > mFreedRunsPerSet) {
                        cut = std::max(1u, j);
                        break;
                    }
                }
                if (!pl.keep) ++wanted;
            }
        }
        if (cut < total) {
            wanted = 0;
            for (uint32_t k = 0; k < cut; ++k) wanted += !plan[k].keep;
        }
    }

    // New clusters, in at most mNewRunsPerSet runs; a pool too fragmented
    // for that gets a smaller set.
    ClusterManager* cm = ClusterManager::GetInstance();
    std::vector<ClusterRun> fresh(mNewRunsPerSet + 1);
    const size_t runsAtStart = runs.size();
    uint32_t freshCount = 0;
    while (wanted) {
        st = cm->AllocateClusters(wanted, 0, mNewRunsPerSet, freshCount, fresh.data(), tracker);
        if (st.ok()) break;
        for (uint32_t r = 0; r < freshCount && r < fresh.size(); ++r) cm->DeallocateClusters(fresh[r], tracker);
        freshCount = 0;
        if ((st != StatusCode::CM_TooManyClusters && st != StatusCode::CM_TooManyRuns) || cut == 1) {
            char text[96];
            std::snprintf(text, sizeof text, "ClusterRangePopulate::AllocateCluster failed (%s)", st.Dump().c_str());
            ESA_TRACE(tCatm, text);
            return abandon(st);
        }
        cut = std::max(1u, cut / 2);
        wanted = 0;
        for (uint32_t k = 0; k < cut; ++k) wanted += !plan[k].keep;
    }
    numAllocated += wanted;
    mCounters.allocated += wanted;

    // The walk: entries in order, old runs freed as they end, new clusters
    // handed out in order, and the placed runs recorded for the data writes.
    uint32_t runIndex = 0, runUsed = 0;
    ClusterRun old;
    std::vector<std::pair<ClusterRun, DataWindow>> freshPartials;
    auto flushOld = [&](const char* which) {
        if (!old.numberOfClusters) return StatusCode(StatusCode::Success);
        StatusCode d = cm->DeallocateClusters(old, tracker);
        if (!d.ok()) {
            char text[160];
            std::snprintf(text, sizeof text,
                          "%sClusterRangePopulate::DeallocateClusters - possible cluster run leak (%lu, %lu, %lu) due "
                          "to error 0x%8.8lx",
                          which, (unsigned long)old.zone, (unsigned long)old.firstCluster,
                          (unsigned long)old.numberOfClusters, (unsigned long)d.value());
            ESA_CONSOLE(text);
        } else {
            mCounters.freed += old.numberOfClusters;
        }
        old = ClusterRun();
        return d;
    };
    std::vector<bool> dirty(pieces.size(), false);
    uint32_t j = 0;
    for (size_t pi = 0; pi < pieces.size() && j < cut; ++pi) {
        const Piece& p = pieces[pi];
        const PostWriteItem& it = elem.items[p.item];
        for (uint32_t k = 0; k < p.count && j < cut; ++k, ++j) {
            CATEntry e = handles[pi].get(k);
            const Plan& pl = plan[j];
            if (pl.keep) {
                ++mCounters.inPlace;
                if (e.timestamp() != tick0 || e.state() != CATEntry::kMapped) {
                    e.setState(CATEntry::kMapped, tick);
                    e.setTimestamp(tick0);
                    dirty[pi] = true;
                }
            } else {
                if (pl.freeOld) {
                    if (old.numberOfClusters && old.zone == e.zone() && old.endCluster() == e.cluster()) {
                        ++old.numberOfClusters;
                    } else {
                        flushOld("1. ");
                        old = ClusterRun(e.zone(), e.cluster(), 1);
                    }
                } else if (pl.badHash) {
                    ++mCounters.badHashSkipped;
                    ESA_TRACE(tCatm, "Skip freeing cluster : detected bad hash " << e);
                }
                while (runUsed == fresh[runIndex].numberOfClusters) {
                    ++runIndex;
                    runUsed = 0;
                }
                e.clear(CATEntry::kCleared, tick);
                e.map(fresh[runIndex].zone, fresh[runIndex].firstCluster + runUsed, tick0, tick);
                ++runUsed;
                ++mCounters.redirected;
                dirty[pi] = true;
            }
            handles[pi].put(k, e);
            const uint32_t offset = p.clusterOffset + k;
            PlacedRun* last = runs.empty() ? nullptr : &runs.back();
            if (last && last->item == p.item && last->clusterOffset + last->run.numberOfClusters == offset &&
                last->run.zone == e.zone() && last->run.endCluster() == e.cluster())
                ++last->run.numberOfClusters;
            else
                runs.push_back({ClusterRun(e.zone(), e.cluster(), 1), p.item, offset});
            if (pl.freshPartial && it.cto)
                freshPartials.emplace_back(ClusterRun(e.zone(), e.cluster(), 1),
                                           DataWindow(it.cto->mWindow, offset * 4096, 4096));
        }
    }
    flushOld("2. ");

    // A never-written cluster covered in part is written whole (the host's
    // sectors and zeros) and flushed before the map names it.
    std::set<uint32_t> flushZones;
    for (auto& [run, window] : freshPartials) {
        ++mCounters.freshPartialWrites;
        StatusCode w = ZoneManager::GetInstance()->WriteData(run.zone, cm->LocateCluster(run.firstCluster), window,
                                                             tracker);
        if (!w.ok()) {
            st = w;
            break;
        }
        flushZones.insert(run.zone);
    }
    for (uint32_t z : flushZones)
        if (st.ok()) st = ZoneManager::GetInstance()->FlushZone(z);
    if (!st.ok()) {
        // Nothing of the set may commit: the new clusters go back, the map
        // stays as it was.
        for (uint32_t r = 0; r < freshCount; ++r) cm->DeallocateClusters(fresh[r], tracker);
        runs.resize(runsAtStart);
        return abandon(st);
    }

    for (size_t pi = 0; pi < pieces.size(); ++pi) {
        StatusCode c = clt().Complete(handles[pi], tracker, dirty[pi]);
        if (!c.ok()) {
            char text[96];
            std::snprintf(text, sizeof text, "ClusterRangePopulate::SetCATEntry failed (%s)", c.Dump().c_str());
            ESA_CONSOLE(text);
            if (st.ok()) st = c;
        }
    }
    StatusCode c = tracker.commitIfDirty();
    if (st.ok()) st = c;
    delete array;
    if (!st.ok()) {
        runs.resize(runsAtStart);
        return st;
    }
    CrashPoint("catm.populate.committed");
    consumed = cut;
    return st;
}
