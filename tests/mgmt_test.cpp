// The management path end to end: the real esa on a temporary board, reached
// only through its iSCSI portal. esactl is driven as a script drives it (text,
// --json, exit codes); the management pages are read raw with libiscsi and
// decoded here from their published layouts, byte by byte, independently of
// the appliance's and esactl's own code; bad input must be refused with a
// clear error and change nothing; the status page is loaded in a real browser.
#include <gtest/gtest.h>
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/EsaProcess.h"
#include "tests/support/IscsiHost.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

namespace {

using json = nlohmann::json;

struct ToolRun {
    int rc = -1;
    std::string out, err;
};

// Runs a program with arguments (no shell quoting needed for ours), with its
// output and errors captured apart.
ToolRun runTool(const std::string& command) {
    char errName[] = "/tmp/esactl-err-XXXXXX";
    int fd = mkstemp(errName);
    if (fd >= 0) ::close(fd);
    ToolRun r;
    FILE* p = ::popen((command + " 2>" + errName).c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int status = ::pclose(p);
    r.rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream e(errName);
    r.err.assign(std::istreambuf_iterator<char>(e), {});
    ::unlink(errName);
    return r;
}

// ---- the layouts, written from the protocol's tables ----------------------
uint16_t be16(const std::vector<uint8_t>& d, size_t o) { return uint16_t(d.at(o) << 8 | d.at(o + 1)); }
uint32_t be32(const std::vector<uint8_t>& d, size_t o) { return uint32_t(be16(d, o)) << 16 | be16(d, o + 2); }
uint64_t be64(const std::vector<uint8_t>& d, size_t o) { return uint64_t(be32(d, o)) << 32 | be32(d, o + 4); }
std::string str(const std::vector<uint8_t>& d, size_t o, size_t n) {
    std::string s(d.begin() + long(o), d.begin() + long(o + n));
    return s.substr(0, s.find('\0'));
}

// The record length each page's table gives (the counted part of 1,024 bytes).
struct PageShape {
    uint8_t page;
    size_t length;
    uint16_t lengthField;
    bool littleEndianLength;
    uint8_t pageByte;
};
const PageShape kPages[] = {
    {1, 24, 0x0014, false, 1},     {2, 36, 0x0020, false, 2},   {3, 581, 0x0241, false, 3},
    {4, 157, 0x0099, false, 4},    {5, 42, 0x0026, false, 5},   {6, 6, 0x0002, false, 6},
    {7, 0x400 - 0x2CB, 0x0131, false, 4}, {8, 314, 0x0136, false, 8}, {9, 16, 0x000C, false, 9},
    {0x11, 0x400 - 0x233, 0x01C9, false, 0x11}, {0x30, 13, 0x0009, true, 0x30}, {0x31, 512, 0x01FC, true, 0x31},
};

// One session on LUN 0 sending raw management commands.
class RawHost {
public:
    // A plain login: without a pack there is no LUN to check.
    bool open(uint16_t port) {
        std::string name = "iqn.2026-11.local.test:mgmt-raw-" + std::to_string(::getpid()) + "-" + std::to_string(++sCount);
        mConn.ctx = iscsi_create_context(name.c_str());
        if (!mConn.ctx) return false;
        iscsi_set_targetname(mConn.ctx, kEsaTargetName);
        iscsi_set_session_type(mConn.ctx, ISCSI_SESSION_NORMAL);
        iscsi_set_header_digest(mConn.ctx, ISCSI_HEADER_DIGEST_NONE);
        iscsi_set_noautoreconnect(mConn.ctx, 1);
        iscsi_set_timeout(mConn.ctx, 30);
        std::string portal = "127.0.0.1:" + std::to_string(port);
        return iscsi_connect_sync(mConn.ctx, portal.c_str()) == 0 && iscsi_login_sync(mConn.ctx) == 0;
    }
    struct Answer {
        int status = -1;
        int key = 0, asc = 0;
        std::vector<uint8_t> data;
    };
    Answer command(std::vector<uint8_t> cdb, const std::vector<uint8_t>& out, uint32_t in) {
        int dir = !out.empty() ? SCSI_XFER_WRITE : in ? SCSI_XFER_READ : SCSI_XFER_NONE;
        scsi_task* t = scsi_create_task(int(cdb.size()), cdb.data(), dir, out.empty() ? int(in) : int(out.size()));
        iscsi_data d{};
        d.data = const_cast<unsigned char*>(out.data());
        d.size = out.size();
        Answer a;
        if (!iscsi_scsi_command_sync(mConn.ctx, 0, t, out.empty() ? nullptr : &d)) {
            scsi_free_scsi_task(t);
            return a;
        }
        a.status = t->status;
        a.key = t->sense.key;
        a.asc = t->sense.ascq;
        if (t->datain.size > 0) a.data.assign(t->datain.data, t->datain.data + t->datain.size);
        scsi_free_scsi_task(t);
        return a;
    }
    Answer sense(uint8_t page, uint16_t alloc = 0x400, uint8_t byte4 = 0) {
        return command({0x5A, 0, 0, page, byte4, 0, 0, uint8_t(alloc >> 8), uint8_t(alloc), 0}, {}, alloc);
    }
    Answer select(uint8_t page, const std::vector<uint8_t>& rec) {
        return command({0x55, 0, 0, page, 0, 0, 0, uint8_t(rec.size() >> 8), uint8_t(rec.size()), 0}, rec, 0);
    }
    Answer sysop(uint8_t op, const std::vector<uint8_t>& data) {
        return command({0xEA, 0x10, 0, op, 0, 0, 0, 0, 0, 0}, data, 0);
    }
    uint64_t lunBytes(int lun) {
        scsi_task* t = iscsi_readcapacity16_sync(mConn.ctx, lun);
        uint64_t bytes = 0;
        if (t && t->status == SCSI_STATUS_GOOD) {
            auto* rc = static_cast<scsi_readcapacity16*>(scsi_datain_unmarshall(t));
            if (rc) bytes = (rc->returned_lba + 1) * rc->block_length;
        }
        if (t) scsi_free_scsi_task(t);
        return bytes;
    }
    bool write(int lun, uint32_t lba, const std::vector<uint8_t>& data) {
        scsi_task* t = iscsi_write10_sync(mConn.ctx, lun, lba, const_cast<uint8_t*>(data.data()), uint32_t(data.size()),
                                          512, 0, 0, 0, 0, 0);
        bool ok = t && t->status == SCSI_STATUS_GOOD;
        if (t) scsi_free_scsi_task(t);
        return ok;
    }

    bool sync(int lun) {
        scsi_task* t = iscsi_synchronizecache10_sync(mConn.ctx, lun, 0, 0, 0, 0);
        bool ok = t && t->status == SCSI_STATUS_GOOD;
        if (t) scsi_free_scsi_task(t);
        return ok;
    }

private:
    IscsiHostConnection mConn;
    static inline int sCount = 0;
};

constexpr int kIllegalRequest = 0x5, kNotReady = 0x2;

// One appliance for the suite: four disks, three LUNs, data on LUN 0, and
// the disk of slot 2 pulled while it runs.
class MgmtTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        board = new TestBoard();
        packimage::createDisks(*board, "4G,4G,2G,2G");
        esa = new EsaProcess(board->dir().string(), {"-r"}, {{"ESA_PORTAL", "127.0.0.1:0"}, {"ESA_CLOCK", "accel:1"}});
        port = iscsiPortOf(*esa);
        ASSERT_NE(port, 0) << esa->output();
        ASSERT_TRUE(esa->waitForConsole());
        ASSERT_TRUE(esa->waitForOutput("HostAppManager LoadDiskPack passed"));
        ASSERT_EQ(esa->console("createLun 2097152").rc, 0);
        ASSERT_EQ(esa->console("createLun 4194304").rc, 0);
        RawHost host;
        ASSERT_TRUE(host.open(port));
        std::vector<uint8_t> data(1 << 20);
        for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 7 + 3);
        ASSERT_TRUE(host.write(0, 0, data));
        // The data reach the map, and the capacity figures are taken afresh.
        ASSERT_TRUE(host.sync(0));
        ASSERT_EQ(esa->console("capacity now").rc, 0);
        ASSERT_EQ(esa->console("removeDisk 2").rc, 0);
    }
    static void TearDownTestSuite() {
        if (esa) esa->kill9();
        delete esa;
        delete board;
        esa = nullptr;
        board = nullptr;
    }
    static std::string portal() { return "127.0.0.1:" + std::to_string(port); }
    static ToolRun esactl(const std::string& args) {
        return runTool(esaBinary("esactl") + " --portal " + portal() + " " + args);
    }
    static json esactlJson(const std::string& args) {
        ToolRun r = esactl("--json " + args);
        EXPECT_EQ(r.rc, 0) << args << ": " << r.err;
        return r.rc == 0 ? json::parse(r.out) : json();
    }
    // Waits (bounded, no timing asserted) until the slots settle after the pull.
    static json settledSlots() {
        json slots;
        for (int i = 0; i < 300; ++i) {
            slots = esactlJson("slots");
            if (slots.size() == 8 && slots[2]["state"] == "missing" && slots[2]["light"] == "red" &&
                slots[0]["light"] == "green")
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return slots;
    }
    static TestBoard* board;
    static EsaProcess* esa;
    static uint16_t port;
};
TestBoard* MgmtTest::board = nullptr;
EsaProcess* MgmtTest::esa = nullptr;
uint16_t MgmtTest::port = 0;

TEST_F(MgmtTest, EveryEsactlCommandInTextAndJson) {
    json slots = settledSlots();
    ASSERT_EQ(slots.size(), 8u);
    for (int s : {0, 1, 3}) {
        EXPECT_EQ(slots[s]["state"], "ok") << s;
        EXPECT_EQ(slots[s]["light"], "green") << s;
        EXPECT_TRUE(slots[s]["in_pack"]);
    }
    EXPECT_EQ(slots[0]["size_bytes"], 4ull << 30);
    EXPECT_EQ(slots[3]["size_bytes"], 2ull << 30);
    // The pulled member's place: the lowest empty slot asks for a disk.
    EXPECT_EQ(slots[2]["state"], "missing");
    EXPECT_EQ(slots[2]["light"], "red");
    EXPECT_EQ(slots[2]["size_bytes"], 0);
    for (int s = 4; s < 8; ++s) {
        EXPECT_EQ(slots[s]["state"], "empty");
        EXPECT_EQ(slots[s]["light"], "off");
    }

    json cap = esactlJson("capacity");
    for (const char* k : {"total_bytes", "used_bytes", "free_bytes", "raw_used_bytes"}) ASSERT_TRUE(cap.contains(k)) << k;
    EXPECT_EQ(cap["total_bytes"].get<uint64_t>(), cap["used_bytes"].get<uint64_t>() + cap["free_bytes"].get<uint64_t>());
    // 1 MiB of host data is mapped by the map, before redundancy.
    EXPECT_GE(cap["used_bytes"].get<uint64_t>(), 1u << 20);
    EXPECT_GT(cap["raw_used_bytes"].get<uint64_t>(), cap["used_bytes"].get<uint64_t>());

    json luns = esactlJson("luns");
    ASSERT_EQ(luns.size(), 3u);
    RawHost host;
    ASSERT_TRUE(host.open(port));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(luns[i]["lun"], i);
        EXPECT_EQ(luns[i]["size_bytes"].get<uint64_t>(), host.lunBytes(i)) << i;
        EXPECT_TRUE(luns[i].contains("used_bytes"));
    }

    json status = esactlJson("status");
    EXPECT_TRUE(status["pack_loaded"]);
    EXPECT_EQ(status["protocol"], "0.11");
    EXPECT_EQ(status["lun_count"], 3);
    EXPECT_NE(std::find(status["flags"].begin(), status["flags"].end(), "disk_needed_for_protection"),
              status["flags"].end());

    json events = esactlJson("events");
    bool pulled = false;
    for (const auto& e : events) pulled |= e.get<std::string>().find("SM: remove physical disk 2") != std::string::npos;
    EXPECT_TRUE(pulled) << events.dump();

    json lights = esactlJson("lights");
    EXPECT_EQ(lights["slots"][2]["light"], "red");
    // The board's light file shows the same steady lights.
    json leds = json::parse(board->readFile("leds.json"));
    EXPECT_EQ(leds["slots"][0], "green");
    EXPECT_EQ(leds["slots"][2], "red");
    EXPECT_EQ(leds["slots"][5], "off");
    EXPECT_GE(leds["capacityMeter"].get<int>(), 0);

    // Text forms.
    ToolRun text = esactl("slots");
    EXPECT_EQ(text.rc, 0);
    EXPECT_TRUE(std::regex_search(text.out, std::regex("2\\s+missing\\s+-\\s+red")));
    EXPECT_EQ(esactl("status").rc, 0);
    EXPECT_NE(esactl("status").out.find("Pack:            loaded"), std::string::npos);
    EXPECT_NE(esactl("capacity").out.find("Total:"), std::string::npos);
    EXPECT_NE(esactl("luns").out.find("LUN"), std::string::npos);
    EXPECT_NE(esactl("lights").out.find("slot 2: red"), std::string::npos);
    EXPECT_NE(esactl("events").out.find("remove physical disk 2"), std::string::npos);
    // The console shows the policy's view of the same slots.
    std::string ledman = esa->console("ledman").output;
    EXPECT_TRUE(std::regex_search(ledman, std::regex("Slot 2:.*HIGH WATERMARK.*Red"))) << ledman;
}

TEST_F(MgmtTest, SettingsAndLunCommands) {
    ToolRun r = esactl("set low-threshold 80.25");
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_DOUBLE_EQ(esactlJson("capacity")["low_threshold_percent"].get<double>(), 80.25);
    ASSERT_EQ(esactl("set high-threshold 97").rc, 0);
    EXPECT_DOUBLE_EQ(esactlJson("capacity")["high_threshold_percent"].get<double>(), 97.0);
    ASSERT_EQ(esactl("set name Shelf-A").rc, 0);
    EXPECT_EQ(esactlJson("status")["name"], "Shelf-A");
    auto hasFlag = [](const std::string& flag) {
        json flags = esactlJson("status")["flags"];
        return std::find(flags.begin(), flags.end(), flag) != flags.end();
    };
    ASSERT_EQ(esactl("set manual-volumes on").rc, 0);
    EXPECT_FALSE(hasFlag("auto_lun_create"));
    ASSERT_EQ(esactl("set manual-volumes off").rc, 0);

    // LUN deletion is refused by the map: a clear refusal, nothing changes.
    json before = esactlJson("luns");
    ToolRun del = esactl("delete-lun 1");
    EXPECT_EQ(del.rc, 3);
    EXPECT_NE(del.err.find("cannot delete LUNs"), std::string::npos) << del.err;
    EXPECT_EQ(esactlJson("luns"), before);
    EXPECT_EQ(esactl("delete-lun 9").rc, 3);  // no such LUN

    // A new LUN is accepted and waits for the next load.
    ToolRun create = esactl("--json create-lun 1G");
    ASSERT_EQ(create.rc, 0) << create.err;
    EXPECT_TRUE(json::parse(create.out)["pending"]);
    EXPECT_TRUE(hasFlag("lun_config_changed"));

    // A pack past its high watermark, cheaply: the watermarks brought down
    // to what the test's data already fill.
    ASSERT_EQ(esa->console("setWatermarks 0 1").rc, 0);
    ASSERT_EQ(esa->console("capacity now").rc, 0);
    EXPECT_TRUE(hasFlag("above_high_watermark"));
    EXPECT_DOUBLE_EQ(esactlJson("capacity")["high_threshold_percent"].get<double>(), 0.01);
    EXPECT_EQ(esactlJson("slots")[2]["light"], "red");
    ASSERT_EQ(esa->console("setWatermarks 8500 9500").rc, 0);
    ASSERT_EQ(esa->console("capacity now").rc, 0);
    EXPECT_FALSE(hasFlag("above_high_watermark"));

    // Exit codes scripts rely on.
    EXPECT_EQ(esactl("frobnicate").rc, 1);
    EXPECT_EQ(esactl("set low-threshold 0").rc, 1);
    EXPECT_EQ(esactl("create-lun big").rc, 1);
    ToolRun gone = runTool(esaBinary("esactl") + " --portal 127.0.0.1:" + std::to_string(freeLocalPort()) + " status");
    EXPECT_EQ(gone.rc, 2);
    EXPECT_NE(gone.err.find("cannot reach the appliance"), std::string::npos) << gone.err;
}

// Each page read raw and decoded from its layout table.
TEST_F(MgmtTest, PagesFollowTheirLayouts) {
    settledSlots();
    RawHost h;
    ASSERT_TRUE(h.open(port));
    std::map<uint8_t, std::vector<uint8_t>> pages;
    for (const PageShape& s : kPages) {
        RawHost::Answer a = h.sense(s.page);
        ASSERT_EQ(a.status, SCSI_STATUS_GOOD) << "page " << int(s.page);
        // The residual counts off the rest of the 1,024-byte answer.
        ASSERT_EQ(a.data.size(), s.length) << "page " << int(s.page);
        EXPECT_EQ(a.data[0], 0x7A) << "page " << int(s.page);
        EXPECT_EQ(a.data[1], s.pageByte) << "page " << int(s.page);
        uint16_t length = s.littleEndianLength ? uint16_t(a.data[2] | a.data[3] << 8) : be16(a.data, 2);
        EXPECT_EQ(length, s.lengthField) << "page " << int(s.page);
        pages[s.page] = a.data;
    }
    // 1, configuration.
    const auto& p1 = pages[1];
    EXPECT_EQ(p1[4], 8);
    EXPECT_EQ(p1[6], 16);
    EXPECT_GT(be64(p1, 7), 0u);  // unaligned 8 bytes: the default LUN size in sectors
    EXPECT_EQ(be32(p1, 16), 0u);
    EXPECT_EQ(be32(p1, 20), 1u);
    // 2, capacity: free + used at 20.
    const auto& p2 = pages[2];
    EXPECT_EQ(be64(p2, 4) + be64(p2, 12), be64(p2, 20));
    EXPECT_GE(be64(p2, 12), 1u << 20);
    // 3, slots.
    const auto& p3 = pages[3];
    EXPECT_EQ(p3[4], 8);
    for (unsigned s = 0; s < 8; ++s) {
        size_t o = 5 + 72 * s;
        EXPECT_EQ(be16(p3, o), 0x0046);
        EXPECT_EQ(p3[o + 2], s);
        const bool present = s == 0 || s == 1 || s == 3;
        uint64_t size = present ? (s < 2 ? 4ull << 30 : 2ull << 30) : 0;
        EXPECT_EQ(be64(p3, o + 3), size) << s;
        EXPECT_EQ(be64(p3, o + 11), 0u);
        // Bit 7: with a pack loaded, no logical disk in the slot.
        EXPECT_EQ((p3[o + 19] & 0x80) != 0, !present) << s;
        const uint8_t colour = p3[o + 19] & 0x7F;
        EXPECT_EQ(colour, present ? 3 : s == 2 ? 1 : 0) << s;  // Green, Red (asks for a disk), Off
        if (present) {
            json id = json::parse(board->readFile("slots/" + std::to_string(s) + ".json"));
            EXPECT_EQ(str(p3, o + 20, 32), id["model"].get<std::string>());
            EXPECT_EQ(std::string(p3.begin() + long(o + 52), p3.begin() + long(o + 68)),
                      std::string(p3.begin() + long(o + 20), p3.begin() + long(o + 36)));
        } else {
            EXPECT_EQ(str(p3, o + 20, 32), "");
        }
        EXPECT_EQ(p3[o + 71], 0);
    }
    // 4, LUN summary.
    const auto& p4 = pages[4];
    EXPECT_EQ(p4[4], 3);  // highest LUN + 1
    EXPECT_EQ(be16(p4, 5), 0x0011);
    EXPECT_EQ(p4[7], 0);
    EXPECT_EQ(be64(p4, 8), be64(p2, 20));
    EXPECT_EQ(be64(p4, 16), be64(p2, 12));
    // 7, LUN details: one 19-byte record a LUN, sizes as the host sees them.
    RawHost::Answer p7a = h.sense(7);
    const auto& p7 = p7a.data;
    EXPECT_EQ(p7[4], 3);
    for (unsigned lun = 0; lun < 16; ++lun) {
        size_t o = 5 + 19 * lun;
        EXPECT_EQ(be16(p7, o), 0x0011);
        EXPECT_EQ(p7[o + 2], lun);
        EXPECT_EQ(be64(p7, o + 3), lun < 3 ? h.lunBytes(int(lun)) : 0u) << lun;
        EXPECT_EQ(be16(p7, o + 16), be16(p7, 5 + 16)) << "the next id is the same in every record";
        EXPECT_EQ(p7[o + 18], 0);
    }
    EXPECT_NE(be16(p7, 5 + 14), be16(p7, 5 + 19 + 14)) << "LUN ids are unique";
    // 5, system.
    const auto& p5 = pages[5];
    EXPECT_GT(be32(p5, 4), 1700000000u);
    EXPECT_EQ(be16(p5, 8), 0x0800);
    EXPECT_FALSE(str(p5, 10, 32).empty());
    // 6, protocol 0.11.
    EXPECT_EQ(pages[6][4], 0);
    EXPECT_EQ(pages[6][5], 0x0B);
    // 8, firmware.
    const auto& p8 = pages[8];
    EXPECT_EQ(p8[4], 2);
    EXPECT_EQ(p8[5], 0x29);
    EXPECT_EQ(be16(p8, 6), 0x6189);
    EXPECT_EQ(p8[8], 0x11);
    EXPECT_EQ(p8[9], 0x06);
    EXPECT_EQ(std::string(p8.begin() + 42, p8.begin() + 58), "ArmMarvell      ");
    EXPECT_EQ(str(p8, 58, 128), "1.1.4");
    EXPECT_EQ(be32(p8, 186), 0x0002FDFFu);
    EXPECT_EQ(be32(p8, 190), 0u);
    EXPECT_EQ(be32(p8, 194), 1u);
    // 9, status: bit 0x8000 always; the pulled member asks for a disk.
    const auto& p9 = pages[9];
    EXPECT_TRUE(be32(p9, 4) & 0x8000);
    EXPECT_TRUE(be32(p9, 4) & 0x40);
    EXPECT_EQ(be32(p9, 12), 0u) << "a loaded pack has no not-loaded reason";
    // 0x11, disk pack: every member present carries the same pack id.
    const auto& p11 = pages[0x11];
    EXPECT_EQ(p11[4], 8);
    uint32_t w0 = 0, w1 = 0;
    for (unsigned s = 0; s < 8; ++s) {
        size_t o = 5 + 57 * s;
        EXPECT_EQ(be16(p11, o), 0x0039);
        EXPECT_EQ(p11[o + 2] & 0x0F, s);
        const bool present = s == 0 || s == 1 || s == 3;
        EXPECT_EQ((p11[o + 2] & 0x80) != 0, !present) << s;
        if (present) {
            EXPECT_EQ(p11[o + 2] & 0x60, 0) << "a member with its DIS, not expunged";
            if (w0 == 0 && w1 == 0) w0 = be32(p11, o + 3), w1 = be32(p11, o + 7);
            EXPECT_EQ(be32(p11, o + 3), w0);
            EXPECT_EQ(be32(p11, o + 7), w1);
            EXPECT_EQ(be64(p11, o + 47), (s < 2 ? 4ull << 30 : 2ull << 30) / 512);
        }
    }
    EXPECT_NE(w0 | w1, 0u);
    // One member is absent: the first empty slot is marked for it.
    EXPECT_EQ(p11[5 + 57 * 2 + 2] & 0x10, 0x10);
    EXPECT_EQ(p11[5 + 57 * 4 + 2] & 0x10, 0);
    // 0x30, options: thresholds in whole percent and hundredths.
    const auto& p30 = pages[0x30];
    EXPECT_EQ(p30[4] * 100 + p30[11] > 0, true);
    EXPECT_LE(p30[5], 100);
    // 0x31, options 2: 512 bytes, flags 64 bits at 4.
    EXPECT_EQ(pages[0x31].size(), 512u);
    // 0xE1 and 0xE2 on a slot above 7: outcome 1, nothing done.
    RawHost::Answer op = h.sense(0xE2, 0x400, 9);
    ASSERT_EQ(op.status, SCSI_STATUS_GOOD);
    ASSERT_EQ(op.data.size(), 8u);
    EXPECT_EQ(op.data[1], 0xE2);
    EXPECT_EQ(be16(op.data, 2), 4);
    EXPECT_EQ(op.data[4], 1);
}

TEST_F(MgmtTest, BadInputIsRefusedAndChangesNothing) {
    RawHost h;
    ASSERT_TRUE(h.open(port));
    const std::vector<uint8_t> options = h.sense(0x30).data;
    const std::vector<uint8_t> luns = h.sense(7).data;
    // An unknown page, both ways.
    RawHost::Answer a = h.sense(0x42);
    EXPECT_EQ(a.status, SCSI_STATUS_CHECK_CONDITION);
    EXPECT_EQ(a.key, kIllegalRequest);
    EXPECT_EQ(a.asc, 0x2400);
    a = h.select(0x42, std::vector<uint8_t>(13, 0));
    EXPECT_EQ(a.key, kIllegalRequest);
    // An unknown vendor command form.
    a = h.command({0xEA, 0x22, 0, 0, 0, 0, 0, 0, 0, 0}, {}, 0);
    EXPECT_EQ(a.status, SCSI_STATUS_CHECK_CONDITION);
    EXPECT_EQ(a.asc, 0x2000);
    // A record shorter than its page: refused whole.
    std::vector<uint8_t> shortRec = {0x7A, 0x30, 0x09, 0x00, 50};
    a = h.select(0x30, shortRec);
    EXPECT_EQ(a.key, kIllegalRequest);
    EXPECT_EQ(h.sense(0x30).data, options);
    // A list length (CDB) shorter than the data sent: the record counts as short.
    std::vector<uint8_t> full(13, 0);
    full[0] = 0x7A, full[1] = 0x30, full[2] = 9, full[4] = 50;
    a = h.command({0x55, 0, 0, 0x30, 0, 0, 0, 0, 5, 0}, full, 0);
    EXPECT_EQ(a.status, SCSI_STATUS_CHECK_CONDITION);
    EXPECT_EQ(h.sense(0x30).data, options);
    // Out-of-range thresholds in a whole record are ignored.
    full[4] = 100;
    full[5] = 0;
    a = h.select(0x30, full);
    EXPECT_EQ(a.status, SCSI_STATUS_GOOD);
    EXPECT_EQ(h.sense(0x30).data, options);
    // A LUN create with too little data, and one of less than a sector.
    a = h.sysop(0x12, {0, 0, 0});
    EXPECT_EQ(a.key, kIllegalRequest);
    a = h.sysop(0x12, {0, 0, 0, 0, 0, 0, 0, 100, 0, 0});
    EXPECT_EQ(a.key, kIllegalRequest);
    EXPECT_EQ(h.sense(7).data, luns);
    // A short buffer: the host gets the start of the record, the appliance goes on.
    a = h.sense(3, 100);
    EXPECT_EQ(a.status, SCSI_STATUS_GOOD);
    EXPECT_EQ(a.data.size(), 100u);
    EXPECT_EQ(h.sense(3).data.size(), 581u);
    // Operations not built yet say so.
    a = h.sysop(0x70, {1, 2, 3, 4});
    EXPECT_EQ(a.asc, 0x2000);
    // An unknown operation code has no effect.
    EXPECT_EQ(h.sysop(0x60, {}).status, SCSI_STATUS_GOOD);
}

// The rebuild event (type 6) as the relayout engine posts it: 0x8000 starts,
// 0x7FFF ends. The status page counts the Zones in danger (the pulled member
// left the written Zones degraded) and the members' lights flash.
TEST_F(MgmtTest, ARebuildShowsInStatusLightsAndPages) {
    settledSlots();
    RawHost h;
    ASSERT_TRUE(h.open(port));
    ASSERT_EQ(esa->console("rebuildEvent on").rc, 0);
    json status, slots;
    for (int i = 0; i < 300; ++i) {
        status = esactlJson("status");
        slots = esactlJson("slots");
        if (status["rebuilding"] == true && slots[0]["light"] == "flash-yellow-green") break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_TRUE(status["rebuilding"]);
    EXPECT_GT(status["zones_in_danger"].get<int>(), 0) << "degraded Zones while a member is missing";
    for (int s : {0, 1, 3}) {
        EXPECT_EQ(slots[s]["state"], "rebuilding") << s;
        EXPECT_EQ(slots[s]["light"], "flash-yellow-green") << s;
    }
    const std::vector<uint8_t> p9 = h.sense(9).data;
    EXPECT_TRUE(be32(p9, 4) & 0x200);
    EXPECT_EQ(be32(p9, 8), status["zones_in_danger"].get<uint32_t>());
    ASSERT_EQ(esa->console("rebuildEvent off").rc, 0);
    for (int i = 0; i < 300; ++i) {
        status = esactlJson("status");
        slots = esactlJson("slots");
        if (status["rebuilding"] == false && slots[0]["light"] == "green") break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_FALSE(status["rebuilding"]);
    EXPECT_EQ(status["zones_in_danger"], 0) << "counted only while rebuilding";
    EXPECT_EQ(slots[0]["light"], "green");
    EXPECT_EQ(slots[2]["light"], "red");
}

TEST_F(MgmtTest, StatusPageInARealBrowser) {
    if (runTool("command -v chromium").rc != 0) GTEST_SKIP() << "chromium is not installed (scripts/setup.sh installs it)";
    settledSlots();
    ASSERT_EQ(esa->console("eventpost status-page-marker").rc, 0);
    const uint16_t httpPort = freeLocalPort();
    const std::string listen = "127.0.0.1:" + std::to_string(httpPort);
    pid_t server = ::fork();
    if (server == 0) {
        std::string bin = esaBinary("esactl");
        std::string p = portal();
        ::execl(bin.c_str(), bin.c_str(), "--portal", p.c_str(), "serve", "--listen", listen.c_str(), nullptr);
        ::_exit(127);
    }
    ASSERT_GT(server, 0);
    std::string dom;
    for (int i = 0; i < 50 && dom.find("id=\"front\"") == std::string::npos; ++i) {
        dom = runTool("chromium --headless --no-sandbox --disable-gpu --dump-dom http://" + listen + "/ 2>/dev/null").out;
        if (dom.find("id=\"front\"") == std::string::npos) std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);
    ASSERT_NE(dom.find("id=\"front\""), std::string::npos) << dom;
    EXPECT_TRUE(std::regex_search(dom, std::regex("id=\"slot-0\"[^>]*data-state=\"ok\"[^>]*data-light=\"green\"")));
    EXPECT_TRUE(std::regex_search(dom, std::regex("id=\"slot-2\"[^>]*data-state=\"missing\"[^>]*data-light=\"red\"")));
    EXPECT_TRUE(std::regex_search(dom, std::regex("id=\"slot-7\"[^>]*data-state=\"empty\"[^>]*data-light=\"off\"")));
    EXPECT_NE(dom.find("http-equiv=\"refresh\""), std::string::npos);
    EXPECT_NE(dom.find("id=\"capacity\""), std::string::npos);
    EXPECT_NE(dom.find("id=\"relayout\""), std::string::npos);
    const std::regex lunRow("class=\"lun\"");
    EXPECT_EQ(std::distance(std::sregex_iterator(dom.begin(), dom.end(), lunRow), std::sregex_iterator()), 3);
    const size_t events = dom.find("id=\"events\"");
    ASSERT_NE(events, std::string::npos);
    EXPECT_NE(dom.find("status-page-marker", events), std::string::npos) << dom;
}

// An expunged disk: its slot flashes red (in leds.json too, both phases in
// turn), no slot asks for a disk while it is there, and the pages say so.
TEST(MgmtFailedDisk, AnExpungedDiskFlashesRedAndSilencesThePrompts) {
    TestBoard board;
    packimage::createDisks(board, "4G,4G,4G");
    EsaProcess esa(board.dir().string(), {"-r"}, {{"ESA_PORTAL", "127.0.0.1:0"}, {"ESA_CLOCK", "accel:1"}});
    uint16_t port = iscsiPortOf(esa);
    ASSERT_NE(port, 0) << esa.output();
    ASSERT_TRUE(esa.waitForConsole());
    ASSERT_TRUE(esa.waitForOutput("HostAppManager LoadDiskPack passed"));
    ASSERT_EQ(esa.console("expungeDisk 2").rc, 0);
    const std::string esactl = esaBinary("esactl") + " --portal 127.0.0.1:" + std::to_string(port) + " --json ";
    json slots;
    for (int i = 0; i < 300; ++i) {
        ToolRun r = runTool(esactl + "slots");
        if (r.rc == 0 && (slots = json::parse(r.out))[2]["light"] == "flash-red") break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(slots[2]["state"], "failed");
    EXPECT_EQ(slots[2]["light"], "flash-red");
    for (int s : {0, 1}) EXPECT_EQ(slots[s]["light"], "green");
    for (int s = 3; s < 8; ++s) EXPECT_EQ(slots[s]["light"], "off") << "no prompt while a slot is bad";
    json status = json::parse(runTool(esactl + "status").out);
    EXPECT_NE(std::find(status["flags"].begin(), status["flags"].end(), "bad_slot"), status["flags"].end());
    RawHost h;
    ASSERT_TRUE(h.open(port));
    RawHost::Answer pack = h.sense(0x11);
    ASSERT_EQ(pack.data.size(), 0x400u - 0x233u);
    EXPECT_EQ(pack.data[5 + 57 * 2 + 2] & 0x40, 0x40) << "the disk in slot 2 is expunged";
    // The board shows the flashing light's two phases in turn.
    bool red = false, dark = false;
    for (int i = 0; i < 300 && !(red && dark); ++i) {
        json leds = json::parse(board.readFile("leds.json"));
        red |= leds["slots"][2] == "red";
        dark |= leds["slots"][2] == "off";
        EXPECT_EQ(leds["slots"][0], "green");
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(red && dark);
    esa.kill9();
}

// The management state lives in the pack (Zone 0): settings and the host
// application's own store survive a power cut; the store is bounded by its
// size; the host's clock and time zone land in the board's clock and the log.
TEST(MgmtSavedState, SettingsAndTheHostStoreSurviveAPowerCut) {
    TestBoard board;
    packimage::createDisks(board, "4G,4G,4G");
    auto start = [&](std::unique_ptr<EsaProcess>& esa, uint16_t& port) {
        esa = std::make_unique<EsaProcess>(board.dir().string(), std::vector<std::string>{"-r"},
                                           std::map<std::string, std::string>{{"ESA_PORTAL", "127.0.0.1:0"},
                                                                              {"ESA_CLOCK", "accel:1"}});
        port = iscsiPortOf(*esa);
        ASSERT_NE(port, 0) << esa->output();
        ASSERT_TRUE(esa->waitForOutput("HostAppManager LoadDiskPack passed"));
    };
    std::unique_ptr<EsaProcess> esa;
    uint16_t port = 0;
    start(esa, port);
    const std::string esactl = esaBinary("esactl") + " --portal 127.0.0.1:" + std::to_string(port) + " ";
    ASSERT_EQ(runTool(esactl + "set manual-volumes on").rc, 0);
    ASSERT_EQ(runTool(esactl + "set spindown 15").rc, 0);

    RawHost h;
    ASSERT_TRUE(h.open(port));
    auto guiWrite = [&](uint8_t start, uint8_t count, uint8_t fill) {
        return h.command({0xEA, 0x10, 0, 0x16, 0, 0, 0, uint8_t(count * 2), 0, start},
                         std::vector<uint8_t>(count * 512u, fill), 0);
    };
    auto guiRead = [&](uint8_t start, uint8_t count) {
        return h.command({0xEA, 0x10, 0, 0x15, 0, 0, 0, uint8_t(count * 2), 0, start}, {}, ((count + 1) / 2) * 1024u);
    };
    ASSERT_EQ(guiWrite(0, 2, 0xA5).status, SCSI_STATUS_GOOD);
    ASSERT_EQ(guiWrite(127, 1, 0x3C).status, SCSI_STATUS_GOOD) << "the last sector of the store";
    RawHost::Answer past = guiWrite(127, 2, 0x77);
    EXPECT_EQ(past.key, kIllegalRequest) << "one sector past the store";
    EXPECT_EQ(guiRead(128, 1).key, kIllegalRequest);

    // The host's clock, 330 minutes west of UTC.
    auto setTime = [&](uint32_t t, int16_t offset) {
        std::vector<uint8_t> rec(42, 0);
        rec[0] = 0x7A, rec[1] = 5, rec[3] = 0x26;
        for (int i = 0; i < 4; ++i) rec[4 + i] = uint8_t(t >> (24 - 8 * i));
        rec[8] = uint8_t(uint16_t(offset) >> 8), rec[9] = uint8_t(offset);
        RawHost::Answer name = h.sense(5);
        std::copy(name.data.begin() + 10, name.data.begin() + 42, rec.begin() + 10);
        return h.select(5, rec);
    };
    const uint32_t t = 1900000000u;
    ASSERT_EQ(setTime(t, -330).status, SCSI_STATUS_GOOD);
    const uint32_t clock = be32(h.sense(5).data, 4);
    EXPECT_GE(clock, t - 330 * 60);
    EXPECT_LT(clock, t - 330 * 60 + 600) << "the appliance keeps local time";
    ASSERT_EQ(setTime(t + 10, -330).status, SCSI_STATUS_GOOD);
    json events = json::parse(runTool(esactl + "--json events").out);
    int timeEvents = 0;
    for (const auto& e : events) {
        const std::string line = e.get<std::string>();
        if (line.find("HAM: ESA Time set by host") == std::string::npos) continue;
        ++timeEvents;
        EXPECT_NE(line.find("TimeZone is (GMT -5h-30m)"), std::string::npos) << line;
    }
    EXPECT_EQ(timeEvents, 1) << "a clock 10 seconds off posts nothing";

    esa->kill9();
    start(esa, port);
    RawHost again;
    ASSERT_TRUE(again.open(port));
    RawHost::Answer first = again.command({0xEA, 0x10, 0, 0x15, 0, 0, 0, 4, 0, 0}, {}, 1024);
    ASSERT_EQ(first.status, SCSI_STATUS_GOOD);
    ASSERT_EQ(first.data.size(), 1024u);
    EXPECT_EQ(first.data, std::vector<uint8_t>(1024, 0xA5));
    RawHost::Answer last = again.command({0xEA, 0x10, 0, 0x15, 0, 0, 0, 2, 0, 127}, {}, 1024);
    ASSERT_EQ(last.data.size(), 1024u);
    EXPECT_EQ(std::vector<uint8_t>(last.data.begin(), last.data.begin() + 512), std::vector<uint8_t>(512, 0x3C));
    // Options 2 after the cut: spindown 15 minutes (flag 2), manual volumes (flag 4).
    RawHost::Answer o2 = again.sense(0x31);
    ASSERT_EQ(o2.data.size(), 512u);
    EXPECT_EQ(be64(o2.data, 4) & 6, 6u);
    EXPECT_EQ(be16(o2.data, 12), 15);
    const std::string esactl2 = esaBinary("esactl") + " --portal 127.0.0.1:" + std::to_string(port) + " --json status";
    json flags = json::parse(runTool(esactl2).out)["flags"];
    EXPECT_EQ(std::find(flags.begin(), flags.end(), "auto_lun_create"), flags.end());
    esa->kill9();
}

// No pack: the pages answer with their heads and zero data, settings that
// need a pack are refused, and the lights ask for a disk.
TEST(MgmtNoPack, PagesWithoutAPack) {
    TestBoard board;
    EsaProcess esa(board.dir().string(), {"-r"}, {{"ESA_PORTAL", "127.0.0.1:0"}, {"ESA_CLOCK", "accel:1"}});
    uint16_t port = iscsiPortOf(esa);
    ASSERT_NE(port, 0) << esa.output();
    RawHost h;
    ASSERT_TRUE(h.open(port));
    RawHost::Answer p2 = h.sense(2);
    ASSERT_EQ(p2.data.size(), 36u);
    EXPECT_EQ(be16(p2.data, 2), 0x20);
    EXPECT_EQ(std::count(p2.data.begin() + 4, p2.data.end(), 0), 32);
    RawHost::Answer p30 = h.sense(0x30);
    ASSERT_EQ(p30.data.size(), 13u);
    EXPECT_EQ(std::count(p30.data.begin(), p30.data.end(), 0), 13);
    RawHost::Answer p31 = h.sense(0x31);
    ASSERT_EQ(p31.data.size(), 512u);
    EXPECT_EQ(std::count(p31.data.begin(), p31.data.end(), 0), 512);
    // Slots: with no pack, bit 7 marks only the empty slots (all here).
    RawHost::Answer p3 = h.sense(3);
    ASSERT_EQ(p3.data.size(), 581u);
    for (unsigned s = 0; s < 8; ++s) EXPECT_EQ(p3.data[5 + 72 * s + 19] & 0x80, 0x80);
    RawHost::Answer p1 = h.sense(1);
    EXPECT_EQ(be64(p1.data, 7), 0u);
    // The network part of options 2 still applies; the rest needs a pack.
    std::vector<uint8_t> rec(512, 0);
    rec[0] = 0x7A, rec[1] = 0x31, rec[2] = 0xFC, rec[3] = 0x01;
    RawHost::Answer sel = h.select(0x31, rec);
    EXPECT_EQ(sel.status, SCSI_STATUS_CHECK_CONDITION);
    EXPECT_EQ(sel.key, kNotReady);
    ToolRun status = runTool(esaBinary("esactl") + " --portal 127.0.0.1:" + std::to_string(port) + " --json status");
    ASSERT_EQ(status.rc, 0) << status.err;
    EXPECT_FALSE(json::parse(status.out)["pack_loaded"]);
    ToolRun set = runTool(esaBinary("esactl") + " --portal 127.0.0.1:" + std::to_string(port) + " set spindown 5");
    EXPECT_EQ(set.rc, 3);
    // No disk at all: slot 0 asks for one.
    json lights;
    for (int i = 0; i < 100; ++i) {
        lights = json::parse(board.readFile("leds.json"));
        if (lights["slots"][0] == "red") break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(lights["slots"][0], "red");
    EXPECT_EQ(lights["slots"][1], "off");
    esa.kill9();
}

}  // namespace
