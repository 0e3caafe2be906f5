// Power cuts (kill -9) at random moments while the pack is made and Zones are
// allocated and freed, start after start. Every start must load the pack, and
// once the metadata journal has been written out, an independent reader of
// the disk images must find every record valid and the records consistent
// with each other: DIS copies, both Region metadata copies and bitmaps, the
// three Zone table copies, and every Region of an in-use Zone allocated in
// its disk's bitmap and owned by no other Zone.
//
// ESA_SOAK_ITERATIONS sets the number of power cuts (a short run by default).
// A second test cuts the first start at every commit mark of a pack's making
// in turn, so each boundary between its sets is met, not only by chance.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <thread>

#include "platform/board/Board.h"
#include "tests/support/EsaProcess.h"
#include "tests/support/IndependentReader.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

namespace {

using namespace packimage;

constexpr int kDisks = 3;

unsigned iterations() {
    const char* v = std::getenv("ESA_SOAK_ITERATIONS");
    return v ? unsigned(std::strtoul(v, nullptr, 10)) : 6;
}

struct DiskRecords {
    int slot = 0;
    independent::Dis dis;
    independent::RMHeader rm;
    std::vector<uint8_t> bitmap;
};

// Reads and checks every record of the pack from the images; returns the
// disks by LD number.
std::map<uint16_t, DiskRecords> checkDisRegionRecords(const TestBoard& board) {
    std::map<uint16_t, DiskRecords> byLd;
    const independent::Dis* first = nullptr;
    std::vector<std::vector<Copy>> all;
    for (int slot = 0; slot < kDisks; ++slot) all.push_back(liveCopies(img(board, slot)));
    for (int slot = 0; slot < kDisks; ++slot) {
        for (unsigned c = 0; c < 3; ++c) {
            const independent::Dis& d = all[slot][c].dis;
            EXPECT_TRUE(d.valid) << "slot " << slot << " DIS copy " << c;
            if (!d.valid) continue;
            if (!first) first = &d;
            EXPECT_EQ(d.packId0, first->packId0) << "slot " << slot;
            EXPECT_EQ(d.packId1, first->packId1) << "slot " << slot;
            EXPECT_EQ(d.generation, first->generation) << "slot " << slot << " copy " << c;
            EXPECT_EQ(d.ldNumber, all[slot][0].dis.ldNumber) << "slot " << slot;
        }
        DiskRecords r;
        r.slot = slot;
        r.dis = all[slot][0].dis;
        for (unsigned copy = 0; copy < 2; ++copy) {
            uint32_t lba = copy == 0 ? r.dis.rmLba0 : r.dis.rmLba1;
            independent::RMHeader h = independent::readRMHeader(readImage(img(board, slot), lba, 1).data());
            EXPECT_TRUE(h.valid) << "slot " << slot << " Region metadata copy " << copy;
            std::vector<uint8_t> bitmap = readImage(img(board, slot), lba + 1, h.bitmapBytes / 512);
            EXPECT_TRUE(independent::rabmValid(bitmap.data(), uint32_t(bitmap.size())))
                << "slot " << slot << " bitmap copy " << copy;
            if (copy == 0) {
                r.rm = h;
                r.bitmap = bitmap;
            } else {
                EXPECT_EQ(h.generation, r.rm.generation) << "slot " << slot << ": both copies written";
                EXPECT_EQ(bitmap, r.bitmap) << "slot " << slot << ": both bitmaps alike";
            }
        }
        byLd[r.dis.ldNumber] = r;
    }
    return byLd;
}

// Returns the number of Zones in use.
unsigned checkZoneTable(const TestBoard& board, const std::map<uint16_t, DiskRecords>& byLd) {
    const DiskRecords& any = byLd.begin()->second;
    for (const auto& [ld, r] : byLd)
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(r.rm.savedLd[i], any.rm.savedLd[i]) << "LD " << ld << " saved table location " << i;
            EXPECT_EQ(r.rm.savedRegion[i], any.rm.savedRegion[i]) << "LD " << ld << " saved table location " << i;
        }
    const uint32_t stride = any.rm.regionSectors + any.rm.padding;
    std::vector<independent::ZisHeader> copies;
    std::set<std::pair<uint16_t, uint32_t>> owned;
    for (int i = 0; i < 3; ++i) {
        auto disk = byLd.find(any.rm.savedLd[i]);
        EXPECT_NE(disk, byLd.end()) << "table copy " << i << " on an unknown LD";
        EXPECT_NE(any.rm.savedRegion[i], 0u) << "table copy " << i;
        if (disk == byLd.end() || any.rm.savedRegion[i] == 0) return 0;
        const uint64_t lba = uint64_t(any.rm.savedRegion[i]) * stride;
        independent::ZisHeader h = independent::readZisHeader(readImage(img(board, disk->second.slot), lba, 8).data());
        EXPECT_TRUE(h.valid) << "table copy " << i;
        EXPECT_TRUE(independent::rabmAllocated(disk->second.bitmap.data(), any.rm.savedRegion[i]))
            << "table copy " << i << "'s Region is allocated";
        owned.insert({any.rm.savedLd[i], any.rm.savedRegion[i]});
        if (i > 0) {
            EXPECT_EQ(h.generation, copies[0].generation) << "table copy " << i;
            EXPECT_EQ(h.entries, copies[0].entries) << "table copy " << i;
        }
        copies.push_back(h);
    }
    // The entries of the primary copy: each in-use Zone's Regions are
    // allocated, and no Region belongs to two Zones or to a table copy.
    const independent::ZisHeader& h = copies[0];
    auto primary = byLd.find(any.rm.savedLd[0]);
    const uint64_t tableLba = uint64_t(any.rm.savedRegion[0]) * stride + h.tableOffset / 512;
    const uint32_t sectors = (h.entries * 0x1C0 + 511) / 512;
    std::vector<uint8_t> table = readImage(img(board, primary->second.slot), tableLba, sectors);
    unsigned inUse = 0;
    for (uint32_t z = 0; z < h.entries; ++z) {
        independent::ZoneEntry e = independent::readZoneEntry(table.data() + z * 0x1C0);
        EXPECT_EQ(e.number, z);
        if (!e.inUse()) continue;
        ++inUse;
        for (int s = 0; s < 72; ++s) {
            if (e.region[s] == 0) continue;
            auto disk = byLd.find(e.disk[s]);
            if (disk == byLd.end()) continue;
            EXPECT_TRUE(independent::rabmAllocated(disk->second.bitmap.data(), e.region[s]))
                << "Zone " << z << " slot " << s << " LD " << e.disk[s] << " Region " << e.region[s];
            EXPECT_TRUE(owned.insert({e.disk[s], e.region[s]}).second)
                << "Zone " << z << " slot " << s << ": LD " << e.disk[s] << " Region " << e.region[s]
                << " is held twice";
        }
    }
    EXPECT_GE(inUse, 1u) << "Zone 0 at least";
    return inUse;
}


// The start after a cut replays the journal and must load the pack; with the
// journal written out, the disks alone must be consistent. Returns the number
// of Zones in use (0 after a failed check: the caller stops on HasFailure()).
unsigned restartAndCheck(const TestBoard& board, const std::string& after) {
    EsaProcess esa(board.dir().string());
    EXPECT_TRUE(esa.waitForConsole()) << esa.output();
    ConsoleResult state = esa.console("state DPM");
    EXPECT_NE(state.output.find("DISK PACK IS LOADED"), std::string::npos)
        << after << "\n"
        << state.output << esa.output();
    if (::testing::Test::HasFailure()) return 0;
    esa.console("j2flush");
    esa.kill9();
    std::map<uint16_t, DiskRecords> byLd = checkDisRegionRecords(board);
    EXPECT_EQ(byLd.size(), size_t(kDisks));
    return byLd.size() == size_t(kDisks) ? checkZoneTable(board, byLd) : 0;
}

}  // namespace

TEST(CrashSoak, EveryStartAfterAPowerCutLoadsAConsistentPack) {
    TestBoard board;
    createDisks(board, "8G,8G,12G");
    std::mt19937 random(20261123);
    const unsigned rounds = iterations();
    unsigned mostZones = 0;
    for (unsigned round = 0; round < rounds; ++round) {
        {
            // The power is cut at a random moment from the start on: while the
            // pack is made or loaded, or while Zones come and go.
            EsaProcess esa(board.dir().string());
            std::atomic<bool> stop{false};
            std::thread churn([&, seed = random()] {
                std::mt19937 r(seed);
                if (!esa.waitForConsole(std::chrono::seconds(30))) return;
                std::vector<unsigned> live;
                while (!stop) {
                    ConsoleResult a = esa.console("alloczones " + std::to_string(1 + r() % 3));
                    if (a.rc == -1000) break;
                    for (unsigned z : allocatedZonesIn(a.output)) live.push_back(z);
                    if (live.size() > 2) {
                        size_t k = r() % live.size();
                        if (esa.console("deallocateZone " + std::to_string(live[k])).rc == -1000) break;
                        live.erase(live.begin() + long(k));
                    }
                }
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 2500));
            esa.kill9();
            stop = true;
            churn.join();
        }
        mostZones = std::max(mostZones, restartAndCheck(board, "after power cut " + std::to_string(round)));
        ASSERT_FALSE(HasFailure()) << "after power cut " << round;
    }
    // Zones 0 and 1 are the pack's own; the churn must have left some behind.
    EXPECT_GT(mostZones, 2u) << "no power cut fell while Zones were allocated";
}

// The making of a new pack spans several journal sets (the pack record and
// Region metadata, the Zone table with Zone 0, Zone 1, Zone 0's directory),
// and so do the first Zones allocated and freed on it. A power cut just
// before the commit mark of each of them in turn (and between the marks of one
// set, which leaves them torn) must leave a pack that the next start loads and
// whose records are consistent. Every mark store is cut at in turn;
// ESA_MAKING_CUT_STRIDE=n cuts at every n-th only.
TEST(CrashSoak, ACutAtEachCommitOfAPacksMakingAndFirstZonesLeavesAPackTheNextStartLoads) {
    const char* s = std::getenv("ESA_MAKING_CUT_STRIDE");
    const unsigned stride = std::max(1ul, s ? std::strtoul(s, nullptr, 10) : 1ul);
    // The work after the making: Zones 2 to 4 made, Zone 3 freed, two more made.
    auto work = [](EsaProcess& esa) {
        for (const char* line : {"alloczones 3", "deallocateZone 3", "alloczones 2"})
            if (esa.console(line).rc == -1000) return false;  // the cut fell in this command
        return true;
    };
    unsigned cuts = 0;
    for (unsigned pass = 1; pass < 1000; pass += stride) {
        TestBoard board;
        createDisks(board, "8G,8G,12G");
        {
            EsaProcess esa(board.dir().string(), {}, {{"ESA_CRASH_AT", "j2.commit.mark:" + std::to_string(pass)}});
            if (esa.waitForConsole() && work(esa)) break;  // all of it took fewer marks: the sweep is over
            ASSERT_EQ(esa.wait(), Board::kCrashPointExitStatus) << esa.output();
        }
        ++cuts;
        const std::string after = "cut at commit mark " + std::to_string(pass);
        EXPECT_GE(restartAndCheck(board, after), 2u) << "Zones 0 and 1";
        ASSERT_FALSE(HasFailure()) << after;
    }
    EXPECT_GE(cuts, 20u) << "the making of a pack and its first Zones commit many sets";
}
