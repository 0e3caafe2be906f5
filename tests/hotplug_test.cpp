// Disks that change under a running esa: a disk that returns media errors is
// thrown out by the error policy while a host reads and writes over iSCSI; a
// disk the pack cannot live without is kept when asked to go and stops the
// system when pulled, with the pack intact and loadable after; a pulled disk
// that comes back is recognised for a fast resync, and one that has been in
// another pack meanwhile joins as a blank disk.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/EsaProcess.h"
#include "tests/support/IscsiHost.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

namespace {

namespace fs = std::filesystem;
using namespace packimage;

constexpr uint32_t kDisExpunged = 0x80000000u;

struct HotPlugEsa {
    explicit HotPlugEsa(const TestBoard& board, std::vector<std::string> args = {"-r"})
        : esa(board.dir().string(), std::move(args), {{"ESA_PORTAL", "127.0.0.1:0"}}) {}
    bool start() {
        port = iscsiPortOf(esa);
        return port != 0 && esa.waitForConsole() && consoleShows("state DPM", "DISK PACK IS LOADED");
    }
    // Asks `command` until its output holds `text` (the hot-plug work runs on
    // the event threads after the command has returned).
    bool consoleShows(const std::string& command, const std::string& text, int attempts = 600) {
        for (int i = 0; i < attempts && esa.running(); ++i) {
            if (esa.console(command).output.find(text) != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }
    // esa-load against LUN 0; its last line, and its exit status in rc.
    std::string load(const std::string& options, int& rc) {
        std::string cmd = esaBinary("esa-load") + " iscsi://127.0.0.1:" + std::to_string(port) + "/" +
                          kEsaTargetName + "/0 " + options + " 2>&1";
        std::string out;
        FILE* p = ::popen(cmd.c_str(), "r");
        if (!p) return "popen failed";
        char line[512];
        while (std::fgets(line, sizeof line, p)) out += line;
        int status = ::pclose(p);
        rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return out;
    }
    EsaProcess esa;
    uint16_t port = 0;
};

// One host request of `sectors` sectors at `lba` through a connection of its own.
std::vector<uint8_t> pattern(size_t bytes, uint8_t seed) {
    std::vector<uint8_t> v(bytes);
    for (size_t i = 0; i < bytes; ++i) v[i] = uint8_t(seed + i * 13 + (i >> 9));
    return v;
}
bool hostWrite(uint16_t port, uint64_t lba, std::vector<uint8_t> data) {
    IscsiHostConnection c;
    if (!c.open(port, "hotplug-writer")) return false;
    scsi_task* t = iscsi_write16_sync(c.ctx, 0, lba, data.data(), uint32_t(data.size()), 512, 0, 0, 0, 0, 0);
    bool ok = t && t->status == SCSI_STATUS_GOOD;
    if (t) scsi_free_scsi_task(t);
    return ok;
}
std::vector<uint8_t> hostRead(uint16_t port, uint64_t lba, uint32_t bytes) {
    IscsiHostConnection c;
    std::vector<uint8_t> out;
    if (!c.open(port, "hotplug-reader")) return out;
    scsi_task* t = iscsi_read16_sync(c.ctx, 0, lba, bytes, 512, 0, 0, 0, 0, 0);
    if (t && t->status == SCSI_STATUS_GOOD && t->datain.size > 0)
        out.assign(t->datain.data, t->datain.data + t->datain.size);
    if (t) scsi_free_scsi_task(t);
    return out;
}

std::string serialOf(const std::string& pulledMessage) {
    std::smatch m;
    if (!std::regex_search(pulledMessage, m, std::regex("shelf/(\\S+)\\.img"))) return "";
    return m[1];
}

}  // namespace

TEST(HotPlugSystem, ADiskReturningMediaErrorsIsExpungedByPolicyWhileTheHostLosesNothing) {
    TestBoard board;
    createDisks(board, "8G,8G,8G");
    HotPlugEsa h(board);
    ASSERT_TRUE(h.start()) << h.esa.output();
    // Disk 1 fails every read and write between its DIS and Region metadata
    // areas, so that the expunge mark can still reach it.
    ConsoleResult f = h.esa.console("injectError 1 drive media any lba=0x100000-0x7f0000 always");
    ASSERT_EQ(f.rc, 0) << f.output;
    int rc = -1;
    std::string out = h.load("--rw mix --bs 64k --qd 8 --bytes 300M --range 2G --verify", rc);
    EXPECT_EQ(rc, 0) << out;
    EXPECT_NE(out.find("errors=0 mismatches=0"), std::string::npos) << out;
    ASSERT_TRUE(h.esa.waitForOutput("DPM: Expunging LD #1 in slot 1 [HARD ERROR RATE]", std::chrono::seconds(120)))
        << h.esa.output().substr(0, 20000);
    EXPECT_TRUE(h.esa.waitForOutput("SM: expunge physical disk 1 (logical disk 1)"));
    EXPECT_NE(h.esa.output().find("EPM: HARD RATE LIMIT on "), std::string::npos);
    EXPECT_TRUE(h.consoleShows("state DPM", "LD #1 MISSING"));
    // The host goes on with the disk gone.
    out = h.load("--rw mix --bs 64k --qd 8 --bytes 64M --range 2G --verify --seed 7", rc);
    EXPECT_EQ(rc, 0) << out;
    EXPECT_NE(out.find("errors=0 mismatches=0"), std::string::npos) << out;
    h.esa.console("j2flush");
    h.esa.kill9();
    for (const auto& c : liveCopies(img(board, 1))) {
        EXPECT_TRUE(c.dis.flags & kDisExpunged) << "the mark is on the disk itself";
        EXPECT_EQ(c.dis.expungeReason, "HARD ERROR RATE");
    }
}

TEST(HotPlugSystem, ACriticalDiskIsKeptWhenAskedToGoAndStopsTheSystemWhenPulledLeavingThePackLoadable) {
    TestBoard board;
    createDisks(board, "8G");
    std::string serial;
    {
        HotPlugEsa h(board);
        ASSERT_TRUE(h.start()) << h.esa.output();
        EXPECT_TRUE(h.consoleShows("state DPM", "Cached critical LD list\t\t: 0x1"));
        ConsoleResult e = h.esa.console("expungeDisk 0 testing");
        EXPECT_EQ(e.rc, 0) << e.output;
        EXPECT_TRUE(h.esa.waitForOutput("expunge DECLINED because ZM indicates LD# 0 is CRITICAL"));
        EXPECT_TRUE(h.consoleShows("state DPM", "DISK PACK IS LOADED")) << "the disk stays in use";
        ConsoleResult pulled = h.esa.console("removeDisk 0");
        ASSERT_EQ(pulled.rc, 0) << pulled.output;
        serial = serialOf(pulled.output);
        EXPECT_EQ(h.esa.wait(), 75) << "a reboot" << h.esa.output();
        const std::string o = h.esa.output();
        EXPECT_TRUE(o.find("IS CRITICAL AND MISSING REBOOTING") != std::string::npos ||
                    o.find("WAS CRITICAL, isCritical = TRUE") != std::string::npos)
            << o;
    }
    ASSERT_FALSE(serial.empty());
    for (const auto& c : liveCopies(board.path("shelf/" + serial + ".img"))) {
        EXPECT_FALSE(c.dis.flags & kDisExpunged);
        EXPECT_EQ(c.dis.generation, 1u) << "nothing was written to the pack after the pull";
    }
    boardTool(board, "insert " + board.dir().string() + " 0 " + board.path("shelf/" + serial + ".img").string());
    HotPlugEsa h(board);
    ASSERT_TRUE(h.start()) << h.esa.output();
    EXPECT_TRUE(h.consoleShows("state DPM", "DISK PACK IS LOADED"));
    // A one-disk pack cannot make the map's mirrored metadata Zone, so it
    // holds no host data to read back here; the data side of a critical disk
    // is covered by the relayout tests' pulls.
}

TEST(HotPlugSystem, APulledDiskThatComesBackIsAResyncCandidateButNotAfterAStayInAnotherPack) {
    TestBoard board, other;
    createDisks(board, "8G,8G,8G");
    HotPlugEsa h(board);
    ASSERT_TRUE(h.start()) << h.esa.output();

    ConsoleResult pulled = h.esa.console("removeDisk 2");
    ASSERT_EQ(pulled.rc, 0) << pulled.output;
    std::string serial = serialOf(pulled.output);
    ASSERT_FALSE(serial.empty()) << pulled.output;
    EXPECT_TRUE(h.consoleShows("state DPM", "Stored resync disk info:\n Last removed WWN = "));
    EXPECT_NE(h.esa.console("state DPM").output.find(" Last removed LD  = 2\n"), std::string::npos);
    ConsoleResult back = h.esa.console("insertDisk 2 " + board.path("shelf/" + serial + ".img").string());
    ASSERT_EQ(back.rc, 0) << back.output;
    EXPECT_TRUE(h.consoleShows("state DPM", " Resync available, new LD = 3\n")) << h.esa.output();
    EXPECT_NE(h.esa.output().find("identified as a candidate for fast resync"), std::string::npos);
    EXPECT_NE(h.esa.output().find("-------------- DEBOUNCING SYSTEM_ADD_DISK_EVENT for physical disk 2"),
              std::string::npos);

    // The same disk leaves again (the others now hold the last copies of
    // what it held before, so it is the one that can go), and becomes the one
    // disk of a new pack on another board before it comes back.
    pulled = h.esa.console("removeDisk 2");
    ASSERT_EQ(pulled.rc, 0) << pulled.output;
    serial = serialOf(pulled.output);
    EXPECT_TRUE(h.consoleShows("state DPM", " Last removed LD  = 3\n"));
    fs::create_directories(other.path("slots"));
    boardTool(other, "create " + other.dir().string() + " --disks 1G");
    boardTool(other, "pull " + other.dir().string() + " 0");
    boardTool(other, "insert " + other.dir().string() + " 0 " + board.path("shelf/" + serial + ".img").string());
    {
        HotPlugEsa elsewhere(other, {"-r", "-c"});
        ASSERT_TRUE(elsewhere.start()) << elsewhere.esa.output();
        EXPECT_TRUE(elsewhere.consoleShows("state DPM", "DISK PACK IS LOADED"));
        elsewhere.esa.console("j2flush");
        elsewhere.esa.kill9();
    }
    const auto foreign = liveCopies(img(other, 0));
    ASSERT_TRUE(foreign[0].dis.valid);
    back = h.esa.console("insertDisk 2 " + img(other, 0).string());
    ASSERT_EQ(back.rc, 0) << back.output;
    EXPECT_TRUE(h.esa.waitForOutput("was last disk removed but has been used elsewhere and now has pack ID 0x"))
        << h.esa.output();
    EXPECT_TRUE(h.consoleShows("state DPM", "LD #4 slot 2\n")) << "it joins as a blank disk, with a new LD";
    EXPECT_NE(h.esa.console("state DPM").output.find("No stored resync disk info"), std::string::npos)
        << "another disk came: the fast resync chance is gone";
    h.esa.console("j2flush");
    h.esa.kill9();
    const auto joined = liveCopies(img(board, 2));
    EXPECT_NE(joined[0].dis.packId0, foreign[0].dis.packId0);
    EXPECT_EQ(joined[0].dis.ldNumber, 4u);
}

TEST(HotPlugSystem, AnOverTemperatureHaltLeavesThePackWrittenOutAndItsSlotsOffWithTheirRemovalsIgnored) {
    TestBoard board;
    // Four disks: the default LUN's four mirrored CAT Zones and the
    // relayout reserve leave two 8 GiB disks no room for a data Zone.
    createDisks(board, "8G,8G,8G,8G");
    const auto data = pattern(128 * 1024, 9);
    {
        HotPlugEsa h(board);
        ASSERT_TRUE(h.start()) << h.esa.output();
        ASSERT_TRUE(hostWrite(h.port, 4096, data));
        EXPECT_EQ(h.esa.console("setOvertemp").rc, 0);
        EXPECT_TRUE(h.esa.waitForOutput("***** SYSTEM OVERTEMP SHUTDOWN COMPLETE *****")) << h.esa.output();
        EXPECT_TRUE(h.esa.waitForOutput("IGNORING HOT REMOVE ON SLOT 1 DUE TO SLOT POWER OPERATION"));
        EXPECT_TRUE(h.consoleShows("state DPM", "DISK PACK IS NOT LOADED"));
        EXPECT_EQ(h.esa.output().find("SYSTEM_REMOVE_DISK_EVENT"), std::string::npos) << "no disk left the pack";
        h.esa.kill9();  // only a power cycle ends the halt
    }
    HotPlugEsa h(board);
    ASSERT_TRUE(h.start()) << h.esa.output();
    EXPECT_TRUE(h.consoleShows("state DPM", "DISK PACK IS LOADED"));
    EXPECT_EQ(hostRead(h.port, 4096, uint32_t(data.size())), data);
}
