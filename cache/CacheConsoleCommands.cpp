// Console side of the range caches: `state hlbat|zmdt|rmdt|dlbat` and
// `perf ...` through ManagerRegistry, `dumpSectors`, `cacheFlush` and
// `poolInfo`.
#include <cstring>
#include <string>

#include "cache/CacheRangeTracker.h"
#include "cache/CacheTrackerObject.h"
#include "cache/DiskLBAMetaDataTracker.h"
#include "cache/HostLbaTracker.h"
#include "cache/RegionMetaDataTracker.h"
#include "cache/ZoneMetaDataTracker.h"
#include "util/ConsoleCommand.h"
#include "util/DataWindow.h"
#include "util/ManagerRegistry.h"
#include "util/WriteBuffer.h"

namespace {

CacheRangeTracker* byName(const std::string& name) {
    if (name == "hlbat") return HostLbaTracker::GetInstance();
    if (name == "zmdt") return ZoneMetaDataTracker::GetInstance();
    if (name == "rmdt") return RegionMetaDataTracker::GetInstance();
    if (name == "dlbat") return DiskLBAMetaDataTracker::GetInstance();
    return nullptr;
}

struct Registration {
    Registration() {
        for (const char* n : {"hlbat", "zmdt", "rmdt", "dlbat"}) {
            std::string name = n;
            ManagerRegistry::add(
                name,
                [name](std::ostream& out) {
                    CacheRangeTracker* t = byName(name);
                    t->Dump(out, true);
                    t->StatsShow(out, true);
                },
                [name](std::ostream& out) { byName(name)->PerfInfo(out); });
        }
    }
} gRegistration;

int dumpSectors(int argc, char** argv, std::ostream& out) {
    long long set = 0, start = 0, count = 1;
    CacheRangeTracker* t = argc >= 4 ? byName(argv[1]) : nullptr;
    if (!t || !parseConsoleNumber(argv[2], set) || !parseConsoleNumber(argv[3], start) ||
        (argc >= 5 && !parseConsoleNumber(argv[4], count)) || set < 0 || start < 0 || count <= 0 || count > 256) {
        out << "usage: dumpSectors hlbat|zmdt|rmdt|dlbat SET START [COUNT (1..256)]\n";
        return -1;
    }
    return t->dumpSectors(out, uint32_t(set), uint64_t(start), uint32_t(count)) == StatusCode::Success ? 0 : -1;
}

int cacheFlush(int argc, char** argv, std::ostream& out) {
    CacheRangeTracker* t = argc >= 2 ? byName(argv[1]) : nullptr;
    if (!t) {
        out << "usage: cacheFlush hlbat|zmdt|rmdt|dlbat\n";
        return -1;
    }
    t->Flush(0);
    out << t->CacheName() << " flushed\n";
    return 0;
}

int poolInfo(int, char**, std::ostream& out) {
    out << "CacheRangeObject ";
    ObjectPool<CacheRangeTracker::CacheRangeObject>::DumpPoolInfo(out);
    out << "CacheTrackerObject ";
    ObjectPool<CacheTrackerObject>::DumpPoolInfo(out);
    out << "DataStore ";
    ObjectPool<DataStore>::DumpPoolInfo(out);
    out << "DataWindow::DataPane ";
    ObjectPool<DataWindow::DataPane>::DumpPoolInfo(out);
    out << "MemoryBlock ";
    ObjectPool<MemoryBlock>::DumpPoolInfo(out);
    out << "MemoryBlockUncached ";
    ObjectPool<MemoryBlockUncached>::DumpPoolInfo(out);
    WriteBuffer::GetInstance().Dump(out);
    return 0;
}

ConsoleCommand gDumpSectors("dumpSectors", "Print elements of a cache set through the cache", dumpSectors);
ConsoleCommand gCacheFlush("cacheFlush", "Drop everything a range cache holds", cacheFlush);
ConsoleCommand gPoolInfo("poolInfo", "Object pool and write-buffer partition figures", poolInfo);

}  // namespace
