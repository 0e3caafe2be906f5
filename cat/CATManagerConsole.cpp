// Console commands of the map: LUNs, entries, checks, and a pattern path to
// write and verify a LUN's host LBAs without a host.
#include <cstdlib>
#include <string>

#include "cache/HostLbaTracker.h"
#include "cat/CATManager.h"
#include "cat/ClusterManager.h"
#include "cat/LunPattern.h"
#include "host/ClientRequest.h"
#include "journal/writejournal/PostWriteElem.h"
#include "util/ConsoleCommand.h"
#include "util/DebugClass.h"
#include "util/ManagerRegistry.h"
#include "zone/ZoneManager.h"

namespace {
CATManager* catm() { return CATManager::GetInstance(); }
CATLookupTable& clt() { return CATManager::GetInstance()->clt(); }

bool num(const char* text, uint64_t& v, std::ostream& out, const char* what) {
    long long x = 0;
    if (!parseConsoleNumber(text, x) || x < 0) {
        out << "bad " << what << " '" << text << "'\n";
        return false;
    }
    v = uint64_t(x);
    return true;
}

// A size: sectors, or bytes with a K, M, G or T suffix.
bool sectorsOf(const char* text, uint64_t& sectors, std::ostream& out) {
    std::string s(text);
    uint64_t unit = 0;
    if (!s.empty()) switch (s.back()) {
        case 'K': case 'k': unit = 1ull << 10; break;
        case 'M': case 'm': unit = 1ull << 20; break;
        case 'G': case 'g': unit = 1ull << 30; break;
        case 'T': case 't': unit = 1ull << 40; break;
        default: break;
        }
    if (unit) s.pop_back();
    uint64_t v = 0;
    if (!num(s.c_str(), v, out, "size")) return false;
    sectors = unit ? v * unit / 512 : v;
    return sectors != 0;
}

bool ready(std::ostream& out) {
    if (catm()->loaded()) return true;
    out << "no disk pack loaded\n";
    return false;
}

int cltCreateLun(int argc, char** argv, std::ostream& out) {
    uint64_t sectors = 0;
    if (argc < 2 || !sectorsOf(argv[1], sectors, out)) {
        out << "usage: cltCreateLun SIZE   (sectors, or with K, M, G or T)\n";
        return -1;
    }
    if (!ready(out)) return -1;
    IOTracker tracker(READ_WRITE);
    uint32_t lun = 0;
    StatusCode st = clt().createLun(lun, sectors - 1, tracker);
    StatusCode c = tracker.commitIfDirty();
    if (st.ok()) st = c;
    if (!st.ok()) {
        out << "cltCreateLun: " << st << "\n";
        return -1;
    }
    out << "created LUN " << lun << " of " << sectors << " sectors\n";
    return 0;
}

int reportLuns(int, char**, std::ostream& out) {
    clt().reportLuns(out);
    return 0;
}

// lunWrite LUN LBA SECTORS SEED [inplace]: writes the pattern through the
// map in batches of up to 1 MiB and returns once it is on the disks.
int lunWrite(int argc, char** argv, std::ostream& out) {
    uint64_t lun = 0, lba = 0, sectors = 0, seed = 0;
    if (argc < 5 || !num(argv[1], lun, out, "LUN") || !num(argv[2], lba, out, "LBA") ||
        !sectorsOf(argv[3], sectors, out) || !num(argv[4], seed, out, "seed")) {
        out << "usage: lunWrite LUN LBA SECTORS SEED [inplace]   (redirect-on-write unless inplace; SECTORS may\n"
               "       take K, M, G or T; returns once the data are on the disks)\n";
        return -1;
    }
    if (!ready(out)) return -1;
    const bool inPlace = argc > 5 && std::string(argv[5]) == "inplace";
    HostLbaTracker* h = HostLbaTracker::GetInstance();
    constexpr uint32_t kBatch = 2048;
    for (uint64_t done = 0; done < sectors;) {
        const uint32_t n = uint32_t(std::min<uint64_t>(kBatch - (lba + done) % 8, sectors - done));
        DataStore* store = h->pool().GetBlocks((n * 512 + HostLbaTracker::kBlockSize - 1) / HostLbaTracker::kBlockSize);
        {
            DataWindow w(*store, 0, n * 512);
            LunPattern::fill(w, uint32_t(seed), lba + done, n);
        }
        IOTracker tracker(READ_WRITE);
        StatusCode st = catm()->writeHostRange(uint32_t(lun), lba + done, n, store, inPlace, true, tracker, nullptr);
        tracker.commitIfDirty();
        if (!st.ok()) {
            out << "lunWrite: LUN " << lun << " LBA 0x" << std::hex << lba + done << std::dec << ": " << st << "\n";
            return -1;
        }
        done += n;
    }
    out << "lunWrite: LUN " << lun << " " << sectors << " sectors written\n";
    return 0;
}

// lunWriteBatch LUN SEED LBA:SECTORS...: up to 8 streams written as one
// batch (one lookup, one allocation and one commit where they fit), as a
// write thread hands them to the map; each stream's status is printed.
int lunWriteBatch(int argc, char** argv, std::ostream& out) {
    uint64_t lun = 0, seed = 0;
    if (argc < 4 || argc > 3 + int(PostWriteElem::kMaxItems) || !num(argv[1], lun, out, "LUN") ||
        !num(argv[2], seed, out, "seed")) {
        out << "usage: lunWriteBatch LUN SEED LBA:SECTORS [LBA:SECTORS...]   (up to 8 streams in one batch)\n";
        return -1;
    }
    if (!ready(out)) return -1;
    HostLbaTracker* h = HostLbaTracker::GetInstance();
    PostWriteElem elem;
    ClientRequest requests[PostWriteElem::kMaxItems];
    IOTracker tracker(READ_WRITE);
    elem.tracker = &tracker;
    elem.synchronous = true;
    for (int i = 3; i < argc; ++i) {
        const std::string arg = argv[i];
        const size_t colon = arg.find(':');
        uint64_t lba = 0, sectors = 0;
        if (colon == std::string::npos || !num(arg.substr(0, colon).c_str(), lba, out, "LBA") ||
            !sectorsOf(arg.substr(colon + 1).c_str(), sectors, out) || sectors > 0x10000) {
            out << "bad stream '" << arg << "'\n";
            return -1;
        }
        ClientRequest& r = requests[elem.numTags];
        r.lun = uint32_t(lun);
        r.lba = lba;
        r.len = uint32_t(sectors);
        r.status = StatusCode::Success;
        DataStore* store = h->pool().GetBlocks((r.len * 512 + HostLbaTracker::kBlockSize - 1) / HostLbaTracker::kBlockSize);
        {
            DataWindow w(*store, 0, r.len * 512);
            LunPattern::fill(w, uint32_t(seed), lba, r.len);
        }
        StatusCode st = h->AddRange(r.lun, lba, r.len, store, tracker);
        if (!st.ok()) {
            store->DecRef();
            out << "stream " << elem.numTags << ": " << st << "\n";
            return -1;
        }
        elem.items[elem.numTags] = PostWriteItem{r.lun, lba, r.len, nullptr, &r, &tracker};
        elem.totalLength += r.len;
        ++elem.numTags;
    }
    StatusCode st = h->LockRangeMultiple(elem, tracker);
    if (st.ok()) st = catm()->WriteData(elem);
    tracker.commitIfDirty();
    for (uint32_t i = 0; i < elem.numTags; ++i)
        out << "stream " << i << " LBA 0x" << std::hex << requests[i].lba << std::dec << " +" << requests[i].len
            << ": " << requests[i].status << "\n";
    out << "lunWriteBatch: " << st << "\n";
    return 0;
}

// lunVerify LUN LBA SECTORS SEED: reads through the map (the cached copy of
// the range is dropped first, so the data come from the Zones) and checks.
int lunVerify(int argc, char** argv, std::ostream& out) {
    uint64_t lun = 0, lba = 0, sectors = 0, seed = 0;
    if (argc < 5 || !num(argv[1], lun, out, "LUN") || !num(argv[2], lba, out, "LBA") ||
        !sectorsOf(argv[3], sectors, out) || !num(argv[4], seed, out, "seed")) {
        out << "usage: lunVerify LUN LBA SECTORS SEED   (seed 0: the range must read as zeros)\n";
        return -1;
    }
    if (!ready(out)) return -1;
    HostLbaTracker* h = HostLbaTracker::GetInstance();
    constexpr uint32_t kBatch = 2048;
    for (uint64_t done = 0; done < sectors;) {
        const uint32_t n = uint32_t(std::min<uint64_t>(kBatch, sectors - done));
        ClientRequest r;
        r.lun = uint32_t(lun);
        r.lba = lba + done;
        r.len = n;
        IOTracker inv(READ_ONLY);
        h->InvalidateRange(r.lun, r.lba, n, inv);
        inv.commitIfDirty();
        StatusCode st = catm()->ReadData(r);
        if (!st.ok()) {
            out << "lunVerify: read at LBA 0x" << std::hex << r.lba << std::dec << ": " << st << "\n";
            return -1;
        }
        if (!LunPattern::matches(r.window, uint32_t(seed), r.lba, n, &out)) {
            out << "lunVerify: LUN " << lun << " FAILED\n";
            return -1;
        }
        r.window.clear();
        done += n;
    }
    out << "lunVerify: LUN " << lun << " " << sectors << " sectors passed\n";
    return 0;
}

int metacheck(int argc, char** argv, std::ostream& out) {
    const std::string kind = argc > 1 ? argv[1] : "int";
    if (kind != "int" && kind != "ext" && kind != "internal" && kind != "external") {
        out << "usage: metacheck [int|ext]\n";
        return -1;
    }
    const bool ext = kind[0] == 'e';
    DebugClass* d = DebugClass::GetInstance();
    const bool ok = ext ? d->extConsistencyCheck(out) : d->intConsistencyCheck(out);
    out << (ok ? "All checks passed OK." : "One or more checks failed!") << "\n";
    return ok ? 0 : -1;
}

int writeclt(int argc, char** argv, std::ostream& out) {
    uint64_t lun = 0, lba = 0, zone = 0, offset = 0, hash = 0, stamp = 0;
    if (argc < 7 || !num(argv[1], lun, out, "LUN") || !num(argv[2], lba, out, "LBA") ||
        !num(argv[3], zone, out, "Zone") || !num(argv[4], offset, out, "offset") || !num(argv[5], hash, out, "hash") ||
        !num(argv[6], stamp, out, "timestamp")) {
        out << "valid syntax: esa writeclt <LUN> <LBA> <ZoneNumber> <ZoneOffset> <Hash> <Timestamp>\n";
        return -1;
    }
    if (!ready(out)) return -1;
    WriteCATEntries* array = new WriteCATEntries;
    CATEntries e;
    e.array = array;
    IOTracker tracker(READ_WRITE);
    uint32_t count = 0;
    StatusCode st = catm()->ClusterRangeGet(uint32_t(lun), lba, 1, e, count, tracker);
    if (st.ok()) {
        CATEntry entry = e.get(0);
        entry.setLocation(uint32_t(zone), uint32_t(offset / 4096));
        entry.setState(uint8_t(hash), uint8_t(hash >> 8));
        entry.setTimestamp(uint8_t(stamp));
        e.put(0, entry);
        st = catm()->CATEntryComplete(e, tracker, true);
        out << "LBA 0x" << std::hex << lba << std::dec << " now " << entry << "\n";
    }
    StatusCode c = tracker.commitIfDirty();
    delete array;
    if (st.ok()) st = c;
    if (!st.ok()) out << "writeclt: " << st << "\n";
    return st.ok() ? 0 : -1;
}

int listCLTRanges(int argc, char** argv, std::ostream& out) {
    if (!ready(out)) return -1;
    ActiveCATEntries cursor;
    IOTracker tracker(READ_ONLY);
    unsigned n = 0;
    while (clt().FindCATEntryRuns(cursor, 0, tracker) && n < 10000) {
        out << "LUN " << cursor.lun << " LBA 0x" << std::hex << cursor.start << " length 0x" << cursor.length
            << std::dec << "\n";
        ++n;
    }
    tracker.commitIfDirty();
    out << n << " written stretches\n";
    (void)argc;
    (void)argv;
    return 0;
}

int listContigLBAs(int argc, char** argv, std::ostream& out) {
    uint64_t lun = 0, lba = 0, sectors = 0;
    if (argc < 4 || !num(argv[1], lun, out, "LUN") || !num(argv[2], lba, out, "LBA") ||
        !sectorsOf(argv[3], sectors, out)) {
        out << "usage: listContigLBAs LUN LBA SECTORS\n";
        return -1;
    }
    if (!ready(out)) return -1;
    WriteCATEntries* array = new WriteCATEntries;
    uint64_t at = lba & ~7ull;
    while (at < lba + sectors) {
        CATEntries e;
        e.array = array;
        IOTracker tracker(READ_ONLY);
        uint32_t count = 0;
        const uint32_t len = uint32_t(std::min<uint64_t>(CATLookupTable::kMaxEntries * 8, lba + sectors - at));
        StatusCode st = catm()->ClusterRangeGet(uint32_t(lun), at, len, e, count, tracker);
        if (st.ok()) st = catm()->CATEntryComplete(e, tracker, false);
        tracker.commitIfDirty();
        if (!st.ok()) {
            out << "listContigLBAs: " << st << "\n";
            delete array;
            return -1;
        }
        for (uint32_t i = 0; i < count;) {
            uint32_t n = 1;
            while (i + n < count && e.get(i + n - 1).IsContiguous(e.get(i + n))) ++n;
            const CATEntry f = e.get(i);
            out << "LBA 0x" << std::hex << at + i * 8ull << std::dec << " clusters " << n << ": "
                << (f.allocated() ? "" : "unallocated ") << f << "\n";
            i += n;
        }
        at += uint64_t(count) * 8;
    }
    delete array;
    return 0;
}

int cltVerifyRedundancy(int, char**, std::ostream& out) {
    if (!ready(out)) return -1;
    unsigned bad = 0;
    for (uint32_t lun = 0; lun < clt().maxLuns(); ++lun)
        for (uint32_t i = 0; i < clt().catZoneCount(lun); ++i) {
            uint32_t zone = clt().catZone(lun, i);
            if (!zone) continue;
            IOTracker tracker(READ_ONLY);
            StatusCode st = ZoneManager::GetInstance()->VerifyRedundancy(zone, tracker);
            tracker.commitIfDirty();
            out << "LUN " << lun << " CAT zone " << i << " (Zone " << zone << "): " << st << "\n";
            bad += !st.ok();
        }
    return bad ? -1 : 0;
}

int catmcsvstats(int, char**, std::ostream& out) {
    catm()->csvStats(out);
    return 0;
}

int catmSetLimits(int argc, char** argv, std::ostream& out) {
    uint64_t freed = 0, fresh = 0;
    if (argc < 3 || !num(argv[1], freed, out, "freed runs") || !num(argv[2], fresh, out, "new runs")) {
        out << "usage: catmSetLimits FREED_RUNS NEW_RUNS   (per journal set; now " << catm()->freedRunsPerSet() << " "
            << catm()->newRunsPerSet() << ")\n";
        return -1;
    }
    catm()->setSetLimits(uint32_t(freed), uint32_t(fresh));
    out << "journal set limits: " << catm()->freedRunsPerSet() << " freed runs, " << catm()->newRunsPerSet()
        << " new runs\n";
    return 0;
}

int cltReclaim(int argc, char** argv, std::ostream& out) {
    uint64_t lun = 0, lba = 0, sectors = 0, age = 0;
    if (argc < 4 || !num(argv[1], lun, out, "LUN") || !num(argv[2], lba, out, "LBA") ||
        !sectorsOf(argv[3], sectors, out) || (argc > 4 && !num(argv[4], age, out, "age"))) {
        out << "usage: cltReclaim LUN LBA SECTORS [AGE]   (frees the clusters; with AGE only those older)\n";
        return -1;
    }
    if (!ready(out)) return -1;
    uint32_t reclaimed = 0, skipped = 0;
    StatusCode st = argc > 4 ? catm()->ClusterRangeReclaim(uint32_t(lun), lba, uint32_t(sectors), reclaimed, skipped,
                                                           uint8_t(age))
                             : catm()->ClusterRangeReclaim(uint32_t(lun), lba, uint32_t(sectors), reclaimed, skipped);
    out << "cltReclaim: " << reclaimed << " clusters reclaimed, " << skipped << " skipped: " << st << "\n";
    return st.ok() ? 0 : -1;
}

ConsoleCommand cCltCreateLun("cltCreateLun", "Creates a LUN in the CAT lookup table (diagnostics)", cltCreateLun);
ConsoleCommand cReportLuns("reportLuns", "report configured LUNs", reportLuns);
ConsoleCommand cLunWrite("lunWrite", "Writes a seeded pattern to a LUN's host LBAs through the map", lunWrite);
ConsoleCommand cLunWriteBatch("lunWriteBatch", "Writes up to 8 streams of a seeded pattern as one batch through the map",
                              lunWriteBatch);
ConsoleCommand cLunVerify("lunVerify", "Reads a LUN's host LBAs through the map and checks a seeded pattern",
                          lunVerify);
ConsoleCommand cMetacheck("metacheck",
                          "Initiates a consistency check on the metadata, either int(ernal) or ext(ernal)", metacheck);
ConsoleCommand cWriteclt("writeclt", "Writes one CAT entry", writeclt);
ConsoleCommand cListCLTRanges("listCLTRanges", "Lists the written stretches of every LUN", listCLTRanges);
ConsoleCommand cListContigLBAs("listContigLBAs", "Lists a LUN range as runs of contiguous clusters",
                               listContigLBAs);
ConsoleCommand cCltVerifyRedundancy("cltVerifyRedundancy", "Verifies the redundancy of every CAT zone",
                                    cltVerifyRedundancy);
ConsoleCommand cCatmcsvstats("catmcsvstats", "Prints the map's counters as comma-separated values", catmcsvstats);
ConsoleCommand cCatmSetLimits("catmSetLimits", "Sets how much one journal set of the map may free and take",
                              catmSetLimits);
struct Registration {
    Registration() {
        ManagerRegistry::add(
            "CATManager", [](std::ostream& out) { CATManager::GetInstance()->Dump(out); },
            [](std::ostream& out) { CATManager::GetInstance()->PerfInfo(out); });
    }
} gRegistration;
ConsoleCommand cCltReclaim("cltReclaim", "Frees the clusters of a LUN range (by age with AGE)", cltReclaim);
}  // namespace

void CATManager::csvStats(std::ostream& out) {
    out << "reads,zoneReads,zeroClusters,batches,sets,redirected,inPlace,allocated,freed,badHashSkipped,"
           "freshPartialWrites,zoneWrites,cltLookups,cltZeroFilled,cltLockedParts,catZonesCreated,chunksCleaned,"
           "cmAllocated\n";
    const CATLookupTable::Counters& c = clt().counters();
    out << mCounters.reads << "," << mCounters.zoneReads << "," << mCounters.zeroClusters << "," << mCounters.batches
        << "," << mCounters.sets << "," << mCounters.redirected << "," << mCounters.inPlace << ","
        << mCounters.allocated << "," << mCounters.freed << "," << mCounters.badHashSkipped << ","
        << mCounters.freshPartialWrites << "," << mCounters.zoneWrites << "," << c.lookups << "," << c.zeroFilled
        << "," << c.lockedLookups << "," << c.catZonesCreated << "," << c.chunksCleaned << ","
        << ClusterManager::GetInstance()->GetAllocatedClusters() << "\n";
}

void CATManager::Dump(std::ostream& out) {
    out << "CATManager: " << (mLoaded ? "loaded" : "not loaded") << ", default max LBA 0x" << std::hex
        << mMaxDefaultLba << std::dec << ", set limits " << mFreedRunsPerSet << "/" << mNewRunsPerSet << "\n";
    clt().Dump(out, true);
}

void CATManager::PerfInfo(std::ostream& out) {
    csvStats(out);
    clt().PerfInfo(out);
}

StatusCode CATManager::internalConsistencyCheck(std::ostream& out) {
    if (!mLoaded) return StatusCode::Success;
    LockObject::ExclusiveLockInstance g(&mLock);
    return clt().internalConsistencyCheck(out);
}

StatusCode CATManager::externalConsistencyCheck(std::ostream& out) {
    if (!mLoaded) return StatusCode::Success;
    LockObject::ExclusiveLockInstance g(&mLock);
    return clt().externalConsistencyCheck(out);
}
