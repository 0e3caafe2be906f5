// Relayout on the real esa, with a host reading and writing over iSCSI:
// a pulled disk leaves the pack redundant again on the others with no verify
// error; added disks take Zones and the capacity grows; with dual redundancy
// two disks may go at once; a power cut inside a relayout or a patch loses
// nothing and the next start finishes the work.
//
// Boards use Regions of half the default size (the least the cluster map
// allows), so a Zone copy is 512 MiB. ESA_RELAYOUT_LONG=1 adds disks up to
// eight in the disk-adding test.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/EsaProcess.h"
#include "tests/support/IscsiHost.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

namespace {

using namespace packimage;

constexpr int kCrashExit = 137;  // the board's exit status at a named crash point

void makeBoard(TestBoard& board, const std::string& disks) {
    createDisks(board, disks);
    board.writeFile("rfa/FlashConfigData", "regionscalefactor 2\n");
}

std::map<std::string, std::string> env(const std::string& crashAt = {}) {
    std::map<std::string, std::string> e{{"ESA_PORTAL", "127.0.0.1:0"}};
    if (!crashAt.empty()) e["ESA_CRASH_AT"] = crashAt;
    return e;
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// Commands the transports have taken so far.
uint64_t hostCommands(EsaProcess& esa) {
    const std::string s = esa.console("state HRM").output;
    const std::regex re(" commands ([0-9]+)");
    uint64_t n = 0;
    for (auto it = std::sregex_iterator(s.begin(), s.end(), re); it != std::sregex_iterator(); ++it)
        n += std::stoull((*it)[1]);
    return n;
}

// Waits until the host has sent commands beyond `before`.
bool hostRunning(EsaProcess& esa, uint64_t before) {
    for (int i = 0; i < 400; ++i) {
        if (hostCommands(esa) > before + 16) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

// Waits until the repair thread has nothing queued or running and no Zone is
// degraded; `after` is a line of esa's output that must have appeared
// `times` times first (the end of the rebuild the test caused).
bool waitForLayout(EsaProcess& esa, const std::string& after, size_t times, std::string& status) {
    for (int i = 0; i < 2400; ++i) {
        if (!esa.running()) return false;
        if (count(esa.output(), after) >= times) {
            status = esa.console("lmStatus").output;
            if (status.find("LM idle") != std::string::npos && status.find("degraded Zones 0,") != std::string::npos)
                return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    return false;
}

// esa-load --verify on LUN 0 on a thread of its own: self-describing blocks,
// every read checked.
class HostLoad {
public:
    HostLoad(uint16_t port, const std::string& log, int seconds, unsigned seed) : mLog(log) {
        std::ostringstream cmd;
        cmd << esaBinary("esa-load") << " iscsi://127.0.0.1:" << port << "/" << kEsaTargetName
            << "/0 --verify --pattern rand --rw mix --bs 64k --qd 8 --range 64m --seconds " << seconds
            << " --seed " << seed << " > " << log << " 2>&1";
        std::string line = cmd.str();
        mThread = std::thread([this, line] { mStatus = std::system(line.c_str()); });
    }
    // Waits for the load to end; true when it ran with no error and no mismatch.
    bool clean(std::string& text) {
        if (mThread.joinable()) mThread.join();
        std::ifstream in(mLog);
        std::stringstream s;
        s << in.rdbuf();
        text = s.str();
        return mStatus == 0 && text.find("errors=0 mismatches=0") != std::string::npos;
    }
    ~HostLoad() {
        if (mThread.joinable()) mThread.join();
    }

private:
    std::string mLog;
    std::thread mThread;
    int mStatus = -1;
};

uint64_t potentialZones(EsaProcess& esa) {
    std::smatch m;
    std::string s = esa.console("state ZoneManager").output;
    if (!std::regex_search(s, m, std::regex("Cached potential Zone count *: *([0-9]+)"))) return 0;
    return std::stoull(m[1]);
}

// Zones with a Region on the LD, from each Zone's entry as the console shows it.
unsigned zonesUsing(EsaProcess& esa, unsigned ld) {
    std::smatch m;
    std::string table = esa.console("state ZoneTable").output;
    if (!std::regex_search(table, m, std::regex("Number of Entries created *: *([0-9]+)"))) return 0;
    const unsigned entries = unsigned(std::stoul(m[1]));
    unsigned n = 0;
    const std::regex onDisk("LD:RN " + std::to_string(ld) + ":[0-9]+");
    for (unsigned z = 0; z < entries; ++z) {
        if (z == 1) continue;  // the staging Zone
        std::string e = esa.console("dumpZoneTableEntry " + std::to_string(z)).output;
        if (std::regex_search(e, onDisk)) ++n;
    }
    return n;
}

void expectCleanPack(EsaProcess& esa) {
    ConsoleResult v = esa.console("verifyRedundancy");
    EXPECT_EQ(v.rc, 0) << v.output;
    EXPECT_NE(v.output.find(" 0 mismatches"), std::string::npos) << v.output;
    ConsoleResult m = esa.console("metacheck ext");
    EXPECT_NE(m.output.find("All checks passed OK."), std::string::npos) << m.output;
}

}  // namespace

TEST(RelayoutSystem, ADiskPulledUnderHostLoadLeavesThePackRedundantOnTheOthers) {
    TestBoard board;
    makeBoard(board, "8G,8G,8G,8G");
    EsaProcess esa(board.dir().string(), {}, env());
    ASSERT_TRUE(packLoaded(esa)) << esa.output();
    const uint16_t port = iscsiPortOf(esa);
    ASSERT_NE(port, 0) << esa.output();
    ASSERT_EQ(esa.console("writeVerifyZM 0 0x200000 0x40000 5").rc, 0);
    const uint64_t commands = hostCommands(esa);
    HostLoad load(port, board.path("load.log").string(), 10, 1);
    ASSERT_TRUE(hostRunning(esa, commands)) << esa.output();
    ConsoleResult pulled = esa.console("removeDisk 3");
    ASSERT_EQ(pulled.rc, 0) << pulled.output;
    std::string status;
    ASSERT_TRUE(waitForLayout(esa, "LM: Degraded relayout finished", 1, status)) << status << esa.output();
    std::string loadText;
    EXPECT_TRUE(load.clean(loadText)) << loadText;
    const std::string out = esa.output();
    EXPECT_NE(out.find("LM: rebuild initiated as logical disk 3 removed"), std::string::npos);
    EXPECT_NE(out.find("LayoutManager starting LEDS flashing"), std::string::npos);
    EXPECT_NE(out.find("LayoutManager stopping LEDS from flashing"), std::string::npos);
    // Nothing uses the pulled disk any more: it leaves the pack.
    EXPECT_NE(out.find("LD #3 REMOVED from disk pack"), std::string::npos) << out;
    EXPECT_EQ(esa.console("writeVerifyZM 0 0x200000 0x40000 5 verify").rc, 0);
    expectCleanPack(esa);
    esa.kill9();
}

TEST(RelayoutSystem, DisksAddedOneByOneUnderHostLoadTakeZonesAndGrowTheCapacity) {
    const bool longRun = std::getenv("ESA_RELAYOUT_LONG") != nullptr;
    TestBoard board;
    makeBoard(board, "8G,8G");
    EsaProcess esa(board.dir().string(), {}, env());
    ASSERT_TRUE(packLoaded(esa)) << esa.output();
    const uint16_t port = iscsiPortOf(esa);
    ASSERT_NE(port, 0) << esa.output();
    std::vector<std::string> added = {"16G", "8G"};
    if (longRun) added.insert(added.end(), {"8G", "12G", "8G", "16G"});
    unsigned seed = 10;
    for (size_t i = 0; i < added.size(); ++i) {
        const unsigned slot = unsigned(2 + i);
        SCOPED_TRACE("disk in slot " + std::to_string(slot));
        const uint64_t before = potentialZones(esa);
        const size_t rebuilds = count(esa.output(), "LM: rebuild completed in");
        const uint64_t commands = hostCommands(esa);
        HostLoad load(port, board.path("load" + std::to_string(slot) + ".log").string(), 10, ++seed);
        ASSERT_TRUE(hostRunning(esa, commands)) << esa.output();
        ConsoleResult inserted = esa.console("insertDisk " + std::to_string(slot) + " " + added[i]);
        ASSERT_EQ(inserted.rc, 0) << inserted.output;
        std::string status;
        ASSERT_TRUE(waitForLayout(esa, "LM: rebuild completed in", rebuilds + 1, status)) << status << esa.output();
        std::string loadText;
        EXPECT_TRUE(load.clean(loadText)) << loadText;
        // The new disk's LD is the slot's number here (LDs are given in order).
        EXPECT_GT(zonesUsing(esa, slot), 0u) << "Zones moved onto the new disk";
        EXPECT_GT(potentialZones(esa), before) << "the capacity grows with the disk";
        expectCleanPack(esa);
    }
    esa.kill9();
}

TEST(RelayoutSystem, WithDualRedundancyTwoDisksPulledAtOnceLoseNothing) {
    TestBoard board;
    makeBoard(board, "8G,8G,8G,8G,8G");
    EsaProcess esa(board.dir().string(), {}, env());
    ASSERT_TRUE(packLoaded(esa)) << esa.output();
    ConsoleResult alloc = esa.console("alloczones 1");
    std::vector<unsigned> zones = allocatedZonesIn(alloc.output);
    ASSERT_EQ(zones.size(), 1u) << alloc.output;
    const std::string pattern = std::to_string(zones[0]) + " 0x10200 0x61400 44";
    ASSERT_EQ(esa.console("writeVerifyZM " + pattern).rc, 0);
    // Switching the mode on upgrades every Zone to a dual-redundant type.
    const size_t upgrades = count(esa.output(), "LM::Rebuild completed");
    ASSERT_EQ(esa.console("dualRedundancy on").rc, 0);
    std::string status;
    ASSERT_TRUE(waitForLayout(esa, "LM::Rebuild completed", upgrades + 1, status)) << status << esa.output();
    EXPECT_NE(esa.output().find("needs upgrading to DualRedundancy"), std::string::npos);
    const std::string entry = esa.console("dumpZoneTableEntry " + std::to_string(zones[0])).output;
    EXPECT_TRUE(entry.find("Mirrored3") != std::string::npos || entry.find("DRStripe") != std::string::npos) << entry;
    ASSERT_EQ(esa.console("removeDisk 4").rc, 0);
    ASSERT_EQ(esa.console("removeDisk 3").rc, 0);
    ASSERT_TRUE(waitForLayout(esa, "LM: Degraded relayout finished", 1, status)) << status << esa.output();
    EXPECT_EQ(esa.console("writeVerifyZM " + pattern + " verify").rc, 0);
    expectCleanPack(esa);
    esa.kill9();
}

// A power cut inside a relayout, at the copy, just before the swap's commit
// and just after it: the next start frees what the staging Zone held, the
// data are whole on whichever layout stands, and every record agrees.
TEST(RelayoutSystem, PowerCutsInsideARelayoutLoseNothing) {
    TestBoard board;
    makeBoard(board, "8G,8G,8G");
    unsigned zone = 0;
    std::string pattern;
    {
        EsaProcess esa(board.dir().string(), {}, env());
        ASSERT_TRUE(packLoaded(esa)) << esa.output();
        ConsoleResult alloc = esa.console("alloczones 1");
        std::vector<unsigned> zones = allocatedZonesIn(alloc.output);
        ASSERT_EQ(zones.size(), 1u) << alloc.output;
        zone = zones[0];
        pattern = std::to_string(zone) + " 0x1f000 0x91400 61";
        ASSERT_EQ(esa.console("writeVerifyZM " + pattern).rc, 0);
        esa.console("reboot confirm");
        EXPECT_EQ(esa.wait(), 75) << esa.output();
    }
    // Each start checks what the previous cut left, then cuts the next move.
    const std::vector<std::string> steps = {"lm.copy.chunk 40", "lm.move.swapped", "lm.move.committed", ""};
    for (const std::string& step : steps) {
        SCOPED_TRACE(step);
        EsaProcess esa(board.dir().string(), {}, env());
        ASSERT_TRUE(packLoaded(esa)) << esa.output();
        EXPECT_EQ(esa.console("writeVerifyZM " + pattern + " verify").rc, 0) << esa.output();
        expectCleanPack(esa);
        ConsoleResult one = esa.console("dumpZoneTableEntry 1");
        EXPECT_FALSE(std::regex_search(one.output, std::regex("LD:RN [0-9]+:[1-9]")))
            << "the staging Zone is empty: " << one.output;
        if (step.empty()) {
            esa.kill9();
            break;
        }
        std::string status;
        ASSERT_TRUE(waitForLayout(esa, "LM::Rebuild completed", 1, status)) << status;
        ASSERT_EQ(esa.console("crashPoint " + step).rc, 0);
        ASSERT_EQ(esa.console("relayout " + std::to_string(zone)).rc, 0);
        EXPECT_EQ(esa.wait(std::chrono::seconds(120)), kCrashExit) << esa.output();
    }
}

// A power cut inside the patch of a Zone that lost a disk: the next start
// patches it again and the pack ends redundant with the data whole.
TEST(RelayoutSystem, APowerCutInsideAPatchIsFinishedByTheNextStart) {
    TestBoard board;
    makeBoard(board, "8G,8G,8G,8G");
    std::string pattern;
    {
        EsaProcess esa(board.dir().string(), {}, env());
        ASSERT_TRUE(packLoaded(esa)) << esa.output();
        std::string status;
        ASSERT_TRUE(waitForLayout(esa, "LM::Rebuild completed", 1, status)) << status;
        ConsoleResult alloc = esa.console("alloczones 1");
        std::vector<unsigned> zones = allocatedZonesIn(alloc.output);
        ASSERT_EQ(zones.size(), 1u) << alloc.output;
        pattern = std::to_string(zones[0]) + " 0x3000 0x70000 77";
        ASSERT_EQ(esa.console("writeVerifyZM " + pattern).rc, 0);
        ASSERT_EQ(esa.console("crashPoint lm.patch.chunk 30").rc, 0);
        ASSERT_EQ(esa.console("removeDisk 1").rc, 0);
        EXPECT_EQ(esa.wait(std::chrono::seconds(120)), kCrashExit) << esa.output();
        EXPECT_NE(esa.output().find("Patching Zone"), std::string::npos) << esa.output();
    }
    EsaProcess esa(board.dir().string(), {}, env());
    ASSERT_TRUE(packLoaded(esa)) << esa.output();
    std::string status;
    ASSERT_TRUE(waitForLayout(esa, "LM: Degraded relayout finished", 1, status)) << status << esa.output();
    EXPECT_EQ(esa.console("writeVerifyZM " + pattern + " verify").rc, 0);
    expectCleanPack(esa);
    esa.kill9();
}
