// The map in the process, over a real Zone pack and cluster manager: writers
// on several threads at once, on overlapping ranges of one LUN, and readers
// beside them. Every sector must end holding the pattern of one of the writes
// that covered it (never a mix inside a sector, never another LBA's data),
// and the map and the bitmaps must agree: no cluster named twice, every
// named cluster allocated, no allocated cluster unnamed.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "cache/HostLbaTracker.h"
#include "cat/CATManager.h"
#include "cat/CMTestSupport.h"
#include "cat/LunPattern.h"
#include "host/ClientRequest.h"

namespace {

class CATManagerTest : public ClusterManagerFixture {
protected:
    void SetUp() override {
        ClusterManagerFixture::SetUp();
        HostLbaTracker::GetInstance()->Flush(0);
        loadNewPack({"40G", "40G", "40G"});
        ASSERT_EQ(catm()->Initialize(), StatusCode::Success);
        ASSERT_EQ(catm()->LoadDiskPack(), StatusCode::Success);
        IOTracker t(READ_WRITE);
        ASSERT_EQ(catm()->clt().createLun(lun, (uint64_t(1) << 32) - 1, t), StatusCode::Success);
        ASSERT_EQ(t.commitIfDirty(), StatusCode::Success);
    }
    void TearDown() override {
        catm()->UnloadDiskPack();
        HostLbaTracker::GetInstance()->Flush(0);
        ClusterManagerFixture::TearDown();
    }
    static CATManager* catm() { return CATManager::GetInstance(); }

    static StatusCode write(uint32_t lun, uint64_t lba, uint32_t sectors, uint32_t seed, bool inPlace = false) {
        HostLbaTracker* h = HostLbaTracker::GetInstance();
        DataStore* store = h->pool().GetBlocks((sectors * 512 + 32767) / 32768);
        {
            DataWindow w(*store, 0, sectors * 512);
            LunPattern::fill(w, seed, lba, sectors);
        }
        IOTracker t(READ_WRITE);
        StatusCode st = catm()->writeHostRange(lun, lba, sectors, store, inPlace, false, t, nullptr);
        t.commitIfDirty();
        return st;
    }
    // The seed sector `lba` holds now, read from the Zones (0 for zeros,
    // ~0u when it matches none of `candidates`).
    static uint32_t seedOf(uint32_t lun, uint64_t lba, const std::set<uint32_t>& candidates) {
        IOTracker inv(READ_ONLY);
        HostLbaTracker::GetInstance()->InvalidateRange(lun, lba, 1, inv);
        inv.commitIfDirty();
        ClientRequest r;
        r.lun = lun;
        r.lba = lba;
        r.len = 1;
        if (!catm()->ReadData(r).ok()) return ~0u;
        for (uint32_t s : candidates)
            if (LunPattern::matches(r.window, s, lba, 1, nullptr)) return s;
        return ~0u;
    }
    static bool mapConsistent(std::string& why) {
        std::ostringstream out;
        bool ok = catm()->externalConsistencyCheck(out).ok();
        why = out.str();
        return ok;
    }

    uint32_t lun = 0;
};

TEST_F(CATManagerTest, ConcurrentWritersOfOverlappingRangesLeaveEverySectorWholeAndTheMapConsistent) {
    constexpr uint64_t kSpan = 2048;  // sectors: 256 clusters, written over and over
    constexpr int kThreads = 4, kWrites = 40;
    // Who may have written each sector: its seed candidates.
    std::vector<std::set<uint32_t>> writers(kSpan, std::set<uint32_t>{0});
    std::mutex writersLock;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 rng(1000 + t);
            for (int i = 0; i < kWrites; ++i) {
                const uint64_t lba = rng() % (kSpan - 1);
                const uint32_t sectors = 1 + uint32_t(rng() % std::min<uint64_t>(300, kSpan - lba));
                const uint32_t seed = uint32_t(100 * (t + 1) + i + 1);
                {
                    std::lock_guard<std::mutex> g(writersLock);
                    for (uint64_t s = lba; s < lba + sectors; ++s) writers[s].insert(seed);
                }
                if (!write(lun, lba, sectors, seed, i % 5 == 4).ok()) ++failures;
            }
        });
    // A reader beside them: every sector it sees is whole.
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        std::mt19937 rng(7);
        while (!stop) {
            ClientRequest r;
            r.lun = lun;
            r.lba = rng() % (kSpan - 64);
            r.len = 64;
            if (catm()->ReadData(r).ok()) {
                std::vector<uint32_t> words(64 * 128);
                DataBuffer b{uint32_t(words.size() * 4), reinterpret_cast<unsigned char*>(words.data())};
                r.window.Read(b, 0, b.length);
                for (uint32_t s = 0; s < 64; ++s) {
                    // A sector is zeros or its first word names a seed whose
                    // pattern fills all of it.
                    bool whole = words[s * 128] == 0;
                    for (uint32_t seed = 1; !whole && seed < 100 * (kThreads + 1) + kWrites + 1; ++seed)
                        if (LunPattern::word(seed, r.lba + s, 0) == words[s * 128]) {
                            whole = true;
                            for (uint32_t k = 1; k < 128; ++k)
                                whole = whole && words[s * 128 + k] == LunPattern::word(seed, r.lba + s, k);
                        }
                    if (!whole) ++failures;
                }
            }
        }
    });
    for (auto& t : threads) t.join();
    stop = true;
    reader.join();
    EXPECT_EQ(failures.load(), 0);
    for (uint64_t s = 0; s < kSpan; ++s) {
        const uint32_t seed = seedOf(lun, s, writers[s]);
        EXPECT_NE(seed, ~0u) << "LBA " << s;
        if (HasFailure()) break;
    }
    std::string why;
    EXPECT_TRUE(mapConsistent(why)) << why;
    // Exactly one cluster per written cluster of the LUN.
    uint64_t written = 0;
    for (uint64_t c = 0; c < kSpan / 8; ++c) {
        bool any = false;
        for (uint64_t s = c * 8; s < c * 8 + 8; ++s) any = any || writers[s].size() > 1;
        written += any;
    }
    EXPECT_EQ(cm()->GetAllocatedClusters(), written);
}

TEST_F(CATManagerTest, AReloadFindsTheLunsTheMapAndTheDataAgain) {
    ASSERT_EQ(write(lun, 100, 50, 5), StatusCode::Success);
    ASSERT_EQ(write(lun, 1 << 20, 8, 6), StatusCode::Success);
    catm()->UnloadDiskPack();
    HostLbaTracker::GetInstance()->Flush(0);
    ASSERT_EQ(restart(), StatusCode::Success);
    ASSERT_EQ(catm()->LoadDiskPack(), StatusCode::Success);
    uint64_t last = 0;
    ASSERT_EQ(catm()->clt().getLunLastLba(lun, last), StatusCode::Success);
    EXPECT_EQ(last, (uint64_t(1) << 32) - 1);
    for (uint64_t s : {100ull, 149ull}) EXPECT_EQ(seedOf(lun, s, {0, 5}), 5u);
    EXPECT_EQ(seedOf(lun, 99, {0, 5}), 0u);
    EXPECT_EQ(seedOf(lun, 1 << 20, {0, 6}), 6u);
    std::string why;
    EXPECT_TRUE(mapConsistent(why)) << why;
    // A table whose header checksum is wrong is refused, not used.
    CATLookupTable& clt = catm()->clt();
    catm()->UnloadDiskPack();
    const Zone0UserInfo& e = Zone0InfoTable::GetInstance()->GetEntry(3);
    std::vector<uint8_t> header(512);
    IOTracker t(READ_WRITE);
    ASSERT_EQ(ZoneMetaDataTracker::GetInstance()->ReadThroughCache(header.data(), 1, e.zone, e.startOffset, t),
              StatusCode::Success);
    header[0x10 + 8] ^= 1;  // a LUN record's index
    ASSERT_EQ(ZoneMetaDataTracker::GetInstance()->WriteThroughCache(header.data(), 1, e.zone, e.startOffset, t),
              StatusCode::Success);
    ASSERT_EQ(t.commitIfDirty(), StatusCode::Success);
    EXPECT_EQ(catm()->LoadDiskPack(), StatusCode::BadMetadataCRC);
    EXPECT_FALSE(clt.loaded());
}

}  // namespace
