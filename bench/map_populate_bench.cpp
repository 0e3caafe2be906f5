// Map benchmark: 1 MiB host writes redirected through the LUN map (lookup,
// allocation, one map commit per write, then the Zone write) into the parity
// Zone the cluster manager owns, against the same bytes written straight to
// that Zone at the same offsets, in the same run, over zero-latency
// simulated disks. The ratio is what the map costs on the write path.
//
// Figure: map.populate_1m  MB/s of host data, the median of the timed
// stretches (ref: zone_direct_write_1m, the same for the direct writes).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/BenchPack.h"
#include "cache/HostLbaTracker.h"
#include "cat/CATManager.h"
#include "cat/ClusterManager.h"
#include "disk/DiskManager.h"
#include "disk/DiskPackManager.h"
#include "journal/j2/J2Manager.h"
#include "system/nvram.h"
#include "util/LockOrderChecker.h"
#include "platform/board/Board.h"
#include "platform/drive/SimDriveController.h"
#include "platform/rtos/Rtos.h"
#include "region/RegionManager.h"
#include "zone/Zone0InfoTable.h"
#include "zone/ZoneManager.h"
#include "zone/ZoneTable.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kDisks = 5;
constexpr uint64_t kDiskSectors = 1ull << 25;  // 16 GiB sparse disks
constexpr uint32_t kChunkSectors = 2048;       // 1 MiB
constexpr uint32_t kSpanSectors = 128u << 11;  // 128 MiB a pass
constexpr int kTries = 5;
constexpr uint32_t kBatch = 32;  // 1 MiB buffers filled before a timed stretch

double seconds(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); }

void fail(const char* what, StatusCode st) {
    std::fprintf(stderr, "map_populate_bench: %s: %s\n", what, st.Dump().c_str());
    std::_Exit(1);
}

// One timed stretch of kBatch 1 MiB redirect writes through the map from
// LBA `lba` on. The host data are in memory before the clock runs (as the
// journal holds them).
double mapBatch(uint32_t lun, uint64_t lba, uint32_t seed) {
    CATManager* catm = CATManager::GetInstance();
    HostLbaTracker* h = HostLbaTracker::GetInstance();
    std::vector<DataStore*> stores;
    for (uint32_t i = 0; i < kBatch; ++i) {
        stores.push_back(h->pool().GetBlocks(kChunkSectors * 512 / HostLbaTracker::kBlockSize));
        DataWindow w(*stores.back(), 0, kChunkSectors * 512);
        w.PatternFill(seed + i);
    }
    auto t0 = Clock::now();
    for (uint32_t i = 0; i < kBatch; ++i) {
        IOTracker t(READ_WRITE);
        StatusCode st = catm->writeHostRange(lun, lba + uint64_t(i) * kChunkSectors, kChunkSectors, stores[i], false,
                                             false, t, nullptr);
        t.commitIfDirty();
        if (!st.ok()) fail("map write", st);
    }
    return kBatch * kChunkSectors * 512.0 / 1e6 / seconds(t0, Clock::now());
}

// The same bytes straight to the Zone at `offset`, from as many distinct
// buffers as the map side uses (neither side writes from a warm cache).
double zoneBatch(uint32_t zone, uint64_t offset, std::vector<DataWindow>& chunks) {
    ZoneManager* zm = ZoneManager::GetInstance();
    auto t0 = Clock::now();
    for (uint32_t i = 0; i < kBatch; ++i) {
        IOTracker t(READ_WRITE);
        StatusCode st = zm->WriteData(zone, offset + uint64_t(i) * kChunkSectors * 512, chunks[i], t);
        t.commitIfDirty();
        if (!st.ok()) fail("Zone write", st);
    }
    return kBatch * kChunkSectors * 512.0 / 1e6 / seconds(t0, Clock::now());
}

}  // namespace

int main() {
    fs::path dir = benchpack::makeBoard("map-populate-bench", kDisks, kDiskSectors);
    const char* what = nullptr;
    StatusCode st = benchpack::startDisks(what);
    if (!st.ok()) fail(what, st);
    LockOrderChecker::setEnabled(false);
    // The metadata journal in battery-backed memory, as the system runs it:
    // the map's commits go to it, not straight to the disks.
    nvram nv;
    if (!(st = nv.Initialize(false)).ok()) fail("battery-backed memory", st);
    auto* partition = static_cast<unsigned char*>(nv.GetBuffer(nvram::kJ2));
    std::memset(partition, 0, j2::kPartitionSize);
    J2Manager j2(partition, true);
    J2Manager::setStandIn(&j2);
    j2.Initialize();
    j2.LoadDiskPack();
    j2.installTrackerHooks();
    if (!(st = benchpack::makePack(what)).ok()) fail(what, st);
    if (!(st = Zone0InfoTable::GetInstance()->LoadDiskPack()).ok()) fail("Zone 0", st);
    if (!(st = ClusterManager::GetInstance()->Initialize()).ok()) fail("cluster manager", st);
    if (!(st = ClusterManager::GetInstance()->LoadDiskPack()).ok()) fail("cluster manager load", st);
    CATManager* catm = CATManager::GetInstance();
    if (!(st = catm->Initialize()).ok() || !(st = catm->LoadDiskPack()).ok()) fail("map load", st);
    uint32_t lun = 0;
    {
        IOTracker t(READ_WRITE);
        st = catm->clt().createLun(lun, (uint64_t(2) << 31) - 1, t);
        t.commitIfDirty();
        if (!st.ok()) fail("LUN", st);
    }
    // The first pass places the span: its clusters come from the Zone the
    // cluster manager owns; later passes redirect every cluster again.
    for (uint64_t lba = 0; lba < kSpanSectors; lba += uint64_t(kBatch) * kChunkSectors) mapBatch(lun, lba, 1);
    const uint32_t zone = ClusterManager::GetInstance()->GetNthZoneInUse(1);
    if (zone == ClusterManager::kNoZone) fail("no Zone owned", StatusCode::CM_ZeroClusters);
    ZoneTableEntry entry;
    ZoneTable::GetInstance()->LookupZone(zone, entry);
    std::vector<DataWindow> chunks;
    for (uint32_t i = 0; i < kBatch; ++i) {
        chunks.emplace_back(kChunkSectors * 512, 0, kChunkSectors * 512);
        chunks.back().PatternFill(7 + i);
    }
    // Map and Zone stretches take turns, so that both meet the same load;
    // each side's figure is its median stretch, which a burst of load on a
    // shared machine moves less than its best or its mean.
    std::vector<double> mapRates, zoneRates;
    const uint64_t stretch = uint64_t(kBatch) * kChunkSectors;
    for (int i = 0; i < kTries; ++i)
        for (uint64_t lba = 0; lba < kSpanSectors; lba += stretch) {
            mapRates.push_back(mapBatch(lun, lba, 10 + i));
            zoneRates.push_back(zoneBatch(zone, lba * 512, chunks));
        }
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    const double mapRate = median(mapRates), zoneRate = median(zoneRates);
    std::printf("# cluster Zone %u of type %u\n", zone, unsigned(entry.type()));
    std::printf("figure map.populate_1m %.1f MB/s ref zone_direct_write_1m %.1f MB/s ratio %.3f\n", mapRate, zoneRate,
                zoneRate != 0 ? mapRate / zoneRate : 0.0);
    std::fflush(stdout);
    catm->UnloadDiskPack();
    ClusterManager::GetInstance()->UnloadDiskPack();
    fs::remove_all(dir);
    std::_Exit(0);
}
