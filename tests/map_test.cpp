// The LUN map on the real esa: thin LUNs read as zeros without Zone I/O; the
// first write into a chunk; redirect-on-write moves a cluster and frees the
// old one; in-place writes keep it; a write that covers a cluster in part
// never loses the acknowledged sectors beside it, even when power fails
// right after the map commits; a power cut at every journal commit mark of a
// short map workload leaves a map that checks clean and every acknowledged
// pattern readable; a large write to a 2 TiB LUN takes clusters for what was
// written only.
//
// ESA_MAP_LARGE_WRITE_MIB sets the size of the large write: 1 GiB by
// default, 128 MiB in the sanitizer build (where the same work runs many
// times slower).
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/board/Board.h"
#include "tests/support/EsaProcess.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

namespace {

using namespace packimage;

// The map's counters (catmcsvstats) by name.
std::map<std::string, uint64_t> counters(EsaProcess& esa) {
    ConsoleResult r = esa.console("catmcsvstats");
    std::map<std::string, uint64_t> values;
    std::istringstream in(r.output);
    std::string line, names, numbers;
    while (std::getline(in, line))
        if (line.rfind("reads,", 0) == 0) {
            names = line;
            std::getline(in, numbers);
        }
    std::istringstream n(names), v(numbers);
    std::string name, value;
    while (std::getline(n, name, ',') && std::getline(v, value, ',')) values[name] = std::stoull(value);
    EXPECT_FALSE(values.empty()) << r.output;
    return values;
}

void ok(EsaProcess& esa, const std::string& line) {
    ConsoleResult r = esa.console(line);
    EXPECT_EQ(r.rc, 0) << line << "\n" << r.output;
}

bool metacheckClean(EsaProcess& esa) {
    ConsoleResult r = esa.console("metacheck ext");
    EXPECT_NE(r.output.find("All checks passed OK."), std::string::npos) << r.output;
    return r.rc == 0;
}

// The Zone and cluster the map gives LBA `lba` of LUN 0 ("unallocated" when none).
std::string placeOf(EsaProcess& esa, uint64_t lba) {
    ConsoleResult r = esa.console("listContigLBAs 0 " + std::to_string(lba) + " 1");
    std::smatch m;
    if (std::regex_search(r.output, m, std::regex("unallocated"))) return "unallocated";
    if (std::regex_search(r.output, m, std::regex("Zone: (\\d+) Cluster: (\\d+)"))) return m[1].str() + ":" + m[2].str();
    ADD_FAILURE() << r.output;
    return "";
}

// esa started on a new board of disks of `sizes`; a new pack has its
// default LUN 0 of about 2 TiB, whose CAT zones the host side has the map
// make when it publishes the LUN.
std::unique_ptr<EsaProcess> startOn(TestBoard& board, const std::string& sizes) {
    createDisks(board, sizes);
    auto esa = std::make_unique<EsaProcess>(board.dir().string());
    EXPECT_TRUE(esa->waitForConsole()) << esa->output();
    ConsoleResult r = esa->console("reportLuns");
    EXPECT_NE(r.output.find("LUN 0:"), std::string::npos) << r.output;
    return esa;
}

// A clean restart: the journals and the disks' caches are written out, the
// process ends with the restart status and starts again.
std::unique_ptr<EsaProcess> restartClean(TestBoard& board, EsaProcess& esa) {
    esa.console("reboot confirm");
    EXPECT_EQ(esa.wait(), 75);
    auto again = std::make_unique<EsaProcess>(board.dir().string());
    EXPECT_TRUE(again->waitForConsole()) << again->output();
    return again;
}

}  // namespace

TEST(MapSystem, AThinLunReadsZerosEverywhereWithoutTouchingAZone) {
    TestBoard board;
    std::unique_ptr<EsaProcess> holder = startOn(board, "8G,8G,8G");
    EsaProcess& esa = *holder;
    const auto before = counters(esa);
    for (const char* at : {"0", "8191", "0x80000000", "0xFFFFE000"}) ok(esa, std::string("lunVerify 0 ") + at + " 4096 0");
    const auto after = counters(esa);
    EXPECT_EQ(after.at("zoneReads"), before.at("zoneReads")) << "a never-written cluster is read from no Zone";
    EXPECT_EQ(after.at("cltLockedParts"), before.at("cltLockedParts")) << "nor its CAT sectors";
    EXPECT_GT(after.at("zeroClusters"), before.at("zeroClusters"));
    EXPECT_EQ(after.at("chunksCleaned"), 0u) << "reads clean no chunk";
    EXPECT_EQ(after.at("cmAllocated"), 0u);
    // Past the LUN's last LBA (with the map's margin) nothing is read.
    EXPECT_NE(esa.console("lunVerify 0 0x100000080 8 0").rc, 0);
    EXPECT_TRUE(metacheckClean(esa));
}

TEST(MapSystem, FirstWriteRedirectAndInPlaceKeepTheMapAndTheBitmapsInStep) {
    TestBoard board;
    std::unique_ptr<EsaProcess> holder = startOn(board, "8G,8G,8G");
    EsaProcess& esa = *holder;

    // One sector into a never-written chunk: the CAT zone and the chunk are
    // made, one cluster is taken, and the rest of the cluster reads as zeros.
    const auto start = counters(esa);
    ok(esa, "lunWrite 0 3 1 7");
    auto c = counters(esa);
    EXPECT_EQ(c.at("chunksCleaned") - start.at("chunksCleaned"), 1u);
    EXPECT_EQ(c.at("cmAllocated"), 1u);
    ok(esa, "lunVerify 0 0 3 0");
    ok(esa, "lunVerify 0 3 1 7");
    ok(esa, "lunVerify 0 4 4 0");
    const std::string first = placeOf(esa, 0);

    // A whole-cluster write is redirected: a new cluster, the old one freed,
    // the total unchanged.
    ok(esa, "lunWrite 0 0 8 8");
    const std::string second = placeOf(esa, 0);
    EXPECT_NE(second, first);
    EXPECT_EQ(counters(esa).at("cmAllocated"), 1u);
    ok(esa, "lunVerify 0 0 8 8");

    // A write covering the cluster in part keeps it and rewrites it in place.
    ok(esa, "lunWrite 0 2 1 9");
    EXPECT_EQ(placeOf(esa, 0), second);
    ok(esa, "lunVerify 0 0 2 8");
    ok(esa, "lunVerify 0 2 1 9");
    ok(esa, "lunVerify 0 3 5 8");

    // The in-place path keeps whole clusters too.
    ok(esa, "lunWrite 0 0 8 10 inplace");
    EXPECT_EQ(placeOf(esa, 0), second);
    ok(esa, "lunVerify 0 0 8 10");

    // An unaligned stretch over many clusters, then written again: every
    // whole cluster moves, the totals stay.
    ok(esa, "lunWrite 0 13 2000 11");
    const uint64_t allocated = counters(esa).at("cmAllocated");
    EXPECT_EQ(allocated, 1u + (13 + 2000 + 7) / 8 - 1);
    ok(esa, "lunWrite 0 13 2000 12");
    EXPECT_EQ(counters(esa).at("cmAllocated"), allocated);
    ok(esa, "lunVerify 0 0 8 10");
    ok(esa, "lunVerify 0 8 5 0");
    ok(esa, "lunVerify 0 13 2000 12");
    ok(esa, "lunVerify 0 2013 3 0");
    EXPECT_TRUE(metacheckClean(esa));

    // A restart reads the same.
    auto restarted = restartClean(board, esa);
    EsaProcess& again = *restarted;
    ok(again, "lunVerify 0 0 8 10");
    ok(again, "lunVerify 0 13 2000 12");
    EXPECT_TRUE(metacheckClean(again));
}

// Runs of entries that cross a CAT sector (entry 72 to entry 0 of the next,
// 8 bytes apart on disk) and a CAT zone (the lookup spans two Zones).
TEST(MapSystem, WritesAcrossACatSectorAndACatZoneBoundaryReadBack) {
    TestBoard board;
    std::unique_ptr<EsaProcess> holder = startOn(board, "8G,8G,8G");
    EsaProcess& esa = *holder;
    // Cluster 72 is the last entry of CAT sector 0.
    ok(esa, "lunWrite 0 568 24 31");
    // 153,054,720 entries to a CAT zone on the default geometry: LBA 0x48FB7000.
    ok(esa, "lunWrite 0 0x48FB6FE0 64 32");
    ok(esa, "lunVerify 0 560 8 0");
    ok(esa, "lunVerify 0 568 24 31");
    ok(esa, "lunVerify 0 592 8 0");
    ok(esa, "lunVerify 0 0x48FB6FE0 64 32");
    ok(esa, "lunVerify 0 0x48FB7020 8 0");
    EXPECT_EQ(counters(esa).at("cmAllocated"), 3u + 8u);
    EXPECT_TRUE(metacheckClean(esa));
    // The written stretches: the first chunk, and the last chunk of CAT zone
    // 0 with the first of CAT zone 1, which follow each other in the map.
    ConsoleResult ranges = esa.console("listCLTRanges");
    EXPECT_NE(ranges.output.find("2 written stretches"), std::string::npos) << ranges.output;
    EXPECT_NE(ranges.output.find("LUN 0 LBA 0x0 "), std::string::npos) << ranges.output;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(ranges.output, m, std::regex("LUN 0 LBA 0x([0-9a-f]+) length 0x([0-9a-f]+)\n[0-9]+ written")))
        << ranges.output;
    const uint64_t from = std::stoull(m[1].str(), nullptr, 16), length = std::stoull(m[2].str(), nullptr, 16);
    EXPECT_LE(from, 0x48FB6FE0u);
    EXPECT_GE(from + length, 0x48FB7020u);
    auto restarted = restartClean(board, esa);
    EsaProcess& again = *restarted;
    ok(again, "lunVerify 0 568 24 31");
    ok(again, "lunVerify 0 0x48FB6FE0 64 32");
    EXPECT_TRUE(metacheckClean(again));
}

// Reclaim frees a range's clusters and its entries read as zeros; an entry
// with a bad state code is replaced without freeing its cluster, and the
// checks report both the entry and the cluster it leaves allocated.
TEST(MapSystem, ReclaimFreesClustersAndABadHashIsReplacedButNotFreed) {
    TestBoard board;
    std::unique_ptr<EsaProcess> holder = startOn(board, "8G,8G,8G");
    EsaProcess& esa = *holder;
    ok(esa, "lunWrite 0 0 64 41");
    EXPECT_EQ(counters(esa).at("cmAllocated"), 8u);
    ok(esa, "cltReclaim 0 16 32");
    EXPECT_EQ(counters(esa).at("cmAllocated"), 4u);
    ok(esa, "lunVerify 0 0 16 41");
    ok(esa, "lunVerify 0 16 32 0");
    ok(esa, "lunVerify 0 48 16 41");
    // Entries written within the last few ticks are kept by an age reclaim.
    ConsoleResult young = esa.console("cltReclaim 0 0 16 200");
    EXPECT_NE(young.output.find("0 clusters reclaimed, 2 skipped"), std::string::npos) << young.output;
    EXPECT_TRUE(metacheckClean(esa));

    // The entry of LBA 48 marked with state code 2 (cleared), same cluster.
    const std::string place = placeOf(esa, 48);
    const auto colon = place.find(':');
    ASSERT_NE(colon, std::string::npos) << place;
    const std::string zone = place.substr(0, colon);
    const uint64_t offset = std::stoull(place.substr(colon + 1)) * 4096;
    ok(esa, "writeclt 0 48 " + zone + " " + std::to_string(offset) + " 2 0");
    ConsoleResult bad = esa.console("metacheck int");
    EXPECT_NE(bad.rc, 0);
    EXPECT_NE(bad.output.find("CLT entry bad hash value"), std::string::npos) << bad.output;
    // The bad entry reads as zeros, is replaced by a write, and its cluster
    // stays allocated: one more bit set than entries in use.
    ok(esa, "lunVerify 0 48 8 0");
    ok(esa, "lunWrite 0 48 8 42");
    EXPECT_EQ(counters(esa).at("badHashSkipped"), 1u);
    ok(esa, "lunVerify 0 48 8 42");
    ConsoleResult ext = esa.console("metacheck ext");
    EXPECT_NE(ext.rc, 0);
    EXPECT_NE(ext.output.find("Allocated cluster count mismatch between CATM and CM"), std::string::npos)
        << ext.output;
}

// One batch of 8 streams, as a write thread hands them over: one is past
// the LUN's end and fails alone; two share a cluster (each covers it in
// part) and one overwrites clusters another stream of the batch places;
// every other stream lands where it belongs and the map stays consistent.
TEST(MapSystem, ABatchWithAStreamOutOfRangeAndStreamsSharingClustersWritesTheRest) {
    TestBoard board;
    std::unique_ptr<EsaProcess> holder = startOn(board, "8G,8G,8G");
    EsaProcess& esa = *holder;
    ok(esa, "lunWrite 0 0 256 50");
    ConsoleResult r = esa.console("lunWriteBatch 0 51 0:3 5:3 64:64 0x100000100:8 1000:20 100:8 2000:1 3000:2");
    ASSERT_EQ(r.rc, 0) << r.output;
    EXPECT_NE(r.output.find("stream 3 LBA 0x100000100 +8: StatusCode::CATM_LBAOutOfRange"), std::string::npos)
        << r.output;
    for (int i : {0, 1, 2, 4, 5, 6, 7})
        EXPECT_TRUE(std::regex_search(r.output, std::regex("stream " + std::to_string(i) + " LBA [^\n]*: StatusCode::Success")))
            << i << "\n" << r.output;
    ok(esa, "lunVerify 0 0 3 51");
    ok(esa, "lunVerify 0 3 2 50");
    ok(esa, "lunVerify 0 5 3 51");
    ok(esa, "lunVerify 0 8 56 50");
    ok(esa, "lunVerify 0 64 64 51");
    ok(esa, "lunVerify 0 128 128 50");
    ok(esa, "lunVerify 0 1000 20 51");
    ok(esa, "lunVerify 0 2000 1 51");
    ok(esa, "lunVerify 0 3000 2 51");
    ok(esa, "lunVerify 0 3002 6 0");
    EXPECT_TRUE(metacheckClean(esa));
}

// A set that would free more runs of old clusters than the limit is split:
// each piece commits on its own and the map stays consistent throughout.
TEST(MapSystem, ScatteredOverwritesAreSplitIntoSetsThatEachFit) {
    TestBoard board;
    std::unique_ptr<EsaProcess> holder = startOn(board, "8G,8G,8G");
    EsaProcess& esa = *holder;
    // Every other cluster first, then the gaps: the clusters of a range are
    // scattered, so overwriting it frees many short runs.
    for (int i = 0; i < 64; i += 2) ok(esa, "lunWrite 0 " + std::to_string(i * 8) + " 8 " + std::to_string(20 + i));
    for (int i = 1; i < 64; i += 2) ok(esa, "lunWrite 0 " + std::to_string(i * 8) + " 8 " + std::to_string(20 + i));
    ok(esa, "catmSetLimits 2 2");
    const auto before = counters(esa);
    ok(esa, "lunWrite 0 0 512 99");
    const auto after = counters(esa);
    EXPECT_GT(after.at("sets") - before.at("sets"), 4u) << "the overwrite was split";
    EXPECT_EQ(after.at("cmAllocated"), 64u);
    ok(esa, "lunVerify 0 0 512 99");
    EXPECT_TRUE(metacheckClean(esa));
}

// The other sectors of a cluster a write covers only in part were
// acknowledged long before: a power cut right after the map commit, before
// the data reach the disks, must leave them readable.
TEST(MapSystem, APowerCutAfterTheMapCommitOfAPartialWriteLosesNoNeighbouringSector) {
    TestBoard board;
    {
        std::unique_ptr<EsaProcess> holder = startOn(board, "8G,8G,8G");
        EsaProcess& esa = *holder;
        ok(esa, "lunWrite 0 0 16 1");
        ok(esa, "crashPoint catm.populate.committed");
        EXPECT_EQ(esa.console("lunWrite 0 3 1 2").rc, -1000);
        EXPECT_EQ(esa.wait(), Board::kCrashPointExitStatus) << esa.output();
    }
    {
        EsaProcess esa(board.dir().string());
        ASSERT_TRUE(esa.waitForConsole()) << esa.output();
        ok(esa, "lunVerify 0 0 3 1");
        ok(esa, "lunVerify 0 4 12 1");
        // The cut sector itself is old or new, never anything else.
        EXPECT_TRUE(esa.console("lunVerify 0 3 1 1").rc == 0 || esa.console("lunVerify 0 3 1 2").rc == 0);
        EXPECT_TRUE(metacheckClean(esa));
        // A never-written cluster covered in part: the rest of it reads as
        // zeros after the same cut.
        ok(esa, "crashPoint catm.populate.committed");
        EXPECT_EQ(esa.console("lunWrite 0 100 1 3").rc, -1000);
        EXPECT_EQ(esa.wait(), Board::kCrashPointExitStatus) << esa.output();
    }
    EsaProcess esa(board.dir().string());
    ASSERT_TRUE(esa.waitForConsole()) << esa.output();
    ok(esa, "lunVerify 0 96 4 0");
    ok(esa, "lunVerify 0 101 3 0");
    ok(esa, "lunVerify 0 100 1 3");
    ok(esa, "lunVerify 0 0 16 1");
    EXPECT_TRUE(metacheckClean(esa));
}

namespace {
struct Step {
    uint64_t lba;
    uint32_t sectors;
    uint32_t seed;
    const char* mode;  // "" or "inplace"
};
// A short map workload: first writes, overwrites that redirect, partial
// writes in place, a never-written cluster covered in part, an in-place
// rewrite, and an overwrite split into many sets.
const std::vector<Step> kWorkload = {
    {0, 64, 1, ""},  {8, 8, 2, ""},   {19, 3, 3, ""},       {100, 1, 4, ""},
    {40, 24, 5, "inplace"}, {5, 30, 6, ""}, {0, 128, 7, ""},
};
constexpr uint64_t kSpan = 128;

// The seed each sector holds after the first `done` steps (0: never written).
std::vector<uint32_t> model(size_t done) {
    std::vector<uint32_t> seeds(kSpan, 0);
    for (size_t i = 0; i < done; ++i)
        for (uint32_t s = 0; s < kWorkload[i].sectors; ++s) seeds[kWorkload[i].lba + s] = kWorkload[i].seed;
    return seeds;
}
}  // namespace

// A power cut before each journal commit mark of the workload in turn (each
// set's boundary is met, and torn sets too): the next start must find a map
// whose entries and bitmaps agree, and every sector written by a command
// that returned holds its pattern. The sector range of the command that was
// cut is not checked (it was never acknowledged).
TEST(MapSystem, ACutAtEachCommitMarkOfAMapWorkloadLeavesACleanMapAndEveryAcknowledgedPattern) {
    unsigned cuts = 0;
    for (unsigned mark = 1; mark < 400; ++mark) {
        TestBoard board;
        size_t acknowledged = 0;
        bool finished = false;
        {
            std::unique_ptr<EsaProcess> holder = startOn(board, "8G,8G,8G");
            EsaProcess& esa = *holder;
            ok(esa, "catmSetLimits 2 2");
            ok(esa, "crashPoint j2.commit.mark " + std::to_string(mark));
            for (; acknowledged < kWorkload.size(); ++acknowledged) {
                const Step& s = kWorkload[acknowledged];
                ConsoleResult r = esa.console("lunWrite 0 " + std::to_string(s.lba) + " " + std::to_string(s.sectors) +
                                              " " + std::to_string(s.seed) + " " + s.mode);
                if (r.rc == -1000) break;
                ASSERT_EQ(r.rc, 0) << r.output;
            }
            finished = acknowledged == kWorkload.size();
            if (finished) break;
            ASSERT_EQ(esa.wait(), Board::kCrashPointExitStatus) << esa.output();
        }
        ++cuts;
        const std::string after = "cut at commit mark " + std::to_string(mark) + " in step " +
                                  std::to_string(acknowledged);
        EsaProcess esa(board.dir().string());
        ASSERT_TRUE(esa.waitForConsole()) << after << esa.output();
        EXPECT_TRUE(metacheckClean(esa)) << after;
        const std::vector<uint32_t> seeds = model(acknowledged);
        const Step& cut = kWorkload[acknowledged];
        for (uint64_t lba = 0; lba < kSpan; ++lba) {
            if (lba >= cut.lba && lba < cut.lba + cut.sectors) continue;
            ConsoleResult r = esa.console("lunVerify 0 " + std::to_string(lba) + " 1 " + std::to_string(seeds[lba]));
            EXPECT_EQ(r.rc, 0) << after << ", LBA " << lba << "\n" << r.output;
        }
        ASSERT_FALSE(HasFailure()) << after;
    }
    EXPECT_GE(cuts, 10u) << "the workload commits many sets";
    RecordProperty("cuts", int(cuts));
    std::printf("%u power cuts\n", cuts);
}

// A large write to a 2 TiB LUN on the default board takes clusters for what
// was written, not for the LUN's size.
TEST(MapSystem, ALargeWriteToATwoTebibyteLunTakesOnlyWhatWasWritten) {
    const char* v = std::getenv("ESA_MAP_LARGE_WRITE_MIB");
#if defined(__SANITIZE_ADDRESS__)
    const uint64_t mib = v ? std::strtoull(v, nullptr, 10) : 128;
#else
    const uint64_t mib = v ? std::strtoull(v, nullptr, 10) : 1024;
#endif
    TestBoard board;
    std::unique_ptr<EsaProcess> holder = startOn(board, "64G,64G,32G,32G");
    EsaProcess& esa = *holder;
    const auto start = counters(esa);
    const uint64_t before = start.at("cmAllocated");
    ConsoleResult w = esa.console("lunWrite 0 0x1000 " + std::to_string(mib) + "M 4242");
    ASSERT_EQ(w.rc, 0) << w.output;
    const auto after = counters(esa);
    EXPECT_EQ(after.at("cmAllocated") - before, mib * 256) << "one cluster per 4 KiB written";
    EXPECT_EQ(after.at("catZonesCreated"), start.at("catZonesCreated")) << "the LUN's CAT zones exist already";
    EXPECT_EQ(after.at("chunksCleaned") - start.at("chunksCleaned"),
              (mib * 256 + 0x1000 / 8) / 73 / 546 + 1) << "the chunks the written entries lie in";
    ok(esa, "lunVerify 0 0x1000 " + std::to_string(mib) + "M 4242");
    ok(esa, "lunVerify 0 0 0x1000 0");
    EXPECT_TRUE(metacheckClean(esa));
    // The pool holds the written data times the Zones' redundancy, not 2 TiB:
    // the Zones the cluster manager owns cover little more than what was
    // written.
    ConsoleResult zones = esa.console("state CM");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(zones.output, m, std::regex("Zones in use (\\d+)"))) << zones.output;
    EXPECT_LE(std::stoull(m[1].str()), mib / 1024 + 2) << zones.output;
}
