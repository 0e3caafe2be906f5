// The host path end to end: the real esa on a temporary board, reached only
// through its iSCSI target with libiscsi, as any initiator reaches it. LUNs
// made and removed from the console while a host is logged in, bad input,
// hosts that go away with writes in flight, and (with the LUN map in place)
// data across a clean restart and a pulled disk.
#include <gtest/gtest.h>
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/EsaProcess.h"
#include "tests/support/PackImage.h"
#include "tests/support/TestBoard.h"

namespace {

const char* kTarget = "iqn.2026-11.local.esa:array";

// esa started with its portal on a port the kernel picks.
struct HostEsa {
    explicit HostEsa(TestBoard& board, bool create = true)
        : made(create ? (packimage::createDisks(board, "8G,8G,8G,8G"), true) : false), esa(board.dir().string(), {"-r"}, {{"ESA_PORTAL", "127.0.0.1:0"}, {"ESA_CLOCK", "accel:1"}}) {}
    bool start() {
        if (!esa.waitForOutput("ESA: iSCSI target ")) return false;
        std::smatch m;
        std::string out = esa.output();
        if (!std::regex_search(out, m, std::regex("ESA: iSCSI target \\S+ listening on \\S+ \\(port (\\d+)\\)")))
            return false;
        portal = "127.0.0.1:" + m[1].str();
        return esa.waitForConsole();
    }
    bool made;
    EsaProcess esa;
    std::string portal;
};

// One logged-in session on a LUN.
class Session {
public:
    Session(const std::string& portal, int lun) : mLun(lun) {
        mCtx = iscsi_create_context("iqn.2026-11.local.esa:test-initiator");
        iscsi_set_targetname(mCtx, kTarget);
        iscsi_set_session_type(mCtx, ISCSI_SESSION_NORMAL);
        iscsi_set_header_digest(mCtx, ISCSI_HEADER_DIGEST_NONE);
        mConnected = iscsi_full_connect_sync(mCtx, portal.c_str(), lun) == 0;
    }
    // The connection just closes (no logout): the appliance may be gone.
    ~Session() {
        if (mCtx) iscsi_destroy_context(mCtx);
    }
    bool connected() const { return mConnected; }
    iscsi_context* ctx() { return mCtx; }

    // A command's status and sense, as "GOOD" or "key/asc-ascq" in hex.
    struct Result {
        int status = -1;
        int key = 0;
        int ascq = 0;  // asc << 8 | ascq
        std::vector<uint8_t> data;
    };
    static Result result(scsi_task* t) {
        Result r;
        if (!t) return r;
        r.status = t->status;
        r.key = t->sense.key;
        r.ascq = t->sense.ascq;
        if (t->datain.size > 0) r.data.assign(t->datain.data, t->datain.data + t->datain.size);
        scsi_free_scsi_task(t);
        return r;
    }
    Result tur(int lun) { return result(iscsi_testunitready_sync(mCtx, lun)); }
    Result write(int lun, uint32_t lba, const std::vector<uint8_t>& data) {
        return result(iscsi_write10_sync(mCtx, lun, lba, const_cast<uint8_t*>(data.data()), uint32_t(data.size()), 512,
                                         0, 0, 0, 0, 0));
    }
    Result read(int lun, uint32_t lba, uint32_t bytes) {
        return result(iscsi_read10_sync(mCtx, lun, lba, bytes, 512, 0, 0, 0, 0, 0));
    }
    Result raw(int lun, std::vector<uint8_t> cdb, int xfer, uint32_t length) {
        scsi_task* t = scsi_create_task(int(cdb.size()), cdb.data(), xfer, int(length));
        return result(iscsi_scsi_command_sync(mCtx, lun, t, nullptr));
    }
    // The LUN numbers REPORT LUNS gives.
    std::vector<int> reportLuns() {
        scsi_task* t = iscsi_reportluns_sync(mCtx, 0, 4096);
        std::vector<int> luns;
        if (t && t->status == SCSI_STATUS_GOOD) {
            auto* list = static_cast<scsi_reportluns_list*>(scsi_datain_unmarshall(t));
            for (uint32_t i = 0; list && i < list->num; ++i) luns.push_back(list->luns[i] & 0x3fff);
        }
        if (t) scsi_free_scsi_task(t);
        return luns;
    }
    uint64_t lastLba(int lun) {
        scsi_task* t = iscsi_readcapacity16_sync(mCtx, lun);
        uint64_t v = ~0ull;
        if (t && t->status == SCSI_STATUS_GOOD) {
            auto* rc = static_cast<scsi_readcapacity16*>(scsi_datain_unmarshall(t));
            if (rc) v = rc->returned_lba;
        }
        if (t) scsi_free_scsi_task(t);
        return v;
    }

private:
    iscsi_context* mCtx = nullptr;
    int mLun;
    bool mConnected = false;
};

std::vector<uint8_t> pattern(size_t bytes, uint8_t seed) {
    std::vector<uint8_t> v(bytes);
    for (size_t i = 0; i < bytes; ++i) v[i] = uint8_t(seed + i * 7 + (i >> 9));
    return v;
}

// Every request object, SGL and write buffer is back: the counts the HRM's
// state shows once no host command is in flight.
bool nothingHeld(EsaProcess& esa, std::string& state) {
    for (int i = 0; i < 100; ++i) {
        // The buffers of written data are the host write journal's until its
        // next flush of the disks: drain it (writes may still be coming in).
        esa.console("j1 empty");
        state = esa.console("state HRM").output;
        if (state.find("USBTransport: enabled 1 media 1 requests live 1 ") != std::string::npos &&
            state.find("MultiIssueTransport: requests live 1 SGLs in use 0/") != std::string::npos &&
            state.find("write buffers in use 0 held by the target 0") != std::string::npos &&
            state.find("write stores out 0 bounced") != std::string::npos)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

// The real LUN map has its self-check on the console; the memory-backed
// stand-in does not, and keeps nothing across a restart.
bool mapIsReal(EsaProcess& esa) { return esa.console("help").output.find("\nmetacheck - ") != std::string::npos; }

}  // namespace

TEST(HostPath, LunsMadeAndRemovedFromTheConsoleReachALoggedInHost) {
    TestBoard board;
    HostEsa host(board);
    ASSERT_TRUE(host.start()) << host.esa.output();
    Session s(host.portal, 0);
    ASSERT_TRUE(s.connected());
    EXPECT_EQ(s.tur(0).status, SCSI_STATUS_GOOD);
    EXPECT_EQ(s.reportLuns(), std::vector<int>{0});

    ConsoleResult c = host.esa.console("createLun 64m");
    ASSERT_EQ(c.rc, 0) << c.output;
    // The next command tells the host that the inventory changed, once.
    Session::Result ua = s.tur(0);
    EXPECT_EQ(ua.status, SCSI_STATUS_CHECK_CONDITION);
    EXPECT_EQ(ua.key, SCSI_SENSE_UNIT_ATTENTION);
    EXPECT_EQ(ua.ascq, 0x3f0e);
    EXPECT_EQ(s.tur(0).status, SCSI_STATUS_GOOD);
    EXPECT_EQ(s.reportLuns(), (std::vector<int>{0, 1}));
    EXPECT_EQ(s.lastLba(1), (64ull << 20) / 512 - 1);
    // The new LUN reads as zeros and keeps what is written.
    Session::Result z = s.read(1, 0, 4096);
    ASSERT_EQ(z.status, SCSI_STATUS_GOOD);
    EXPECT_EQ(z.data, std::vector<uint8_t>(4096, 0));
    auto data = pattern(8192, 3);
    EXPECT_EQ(s.write(1, 1000, data).status, SCSI_STATUS_GOOD);
    EXPECT_EQ(s.read(1, 1000, 8192).data, data);

    c = host.esa.console("deleteLun 1");
    if (c.rc == 0) {
        ua = s.tur(0);
        EXPECT_EQ(ua.key, SCSI_SENSE_UNIT_ATTENTION);
        EXPECT_EQ(ua.ascq, 0x3f0e);
        EXPECT_EQ(s.reportLuns(), std::vector<int>{0});
        Session::Result gone = s.read(1, 0, 512);
        EXPECT_EQ(gone.key, SCSI_SENSE_ILLEGAL_REQUEST);
        EXPECT_EQ(gone.ascq, 0x2500);  // LOGICAL UNIT NOT SUPPORTED
    } else {
        // A map that cannot delete LUNs yet refuses, and nothing changes for the host.
        EXPECT_NE(c.output.find("FAILED"), std::string::npos) << c.output;
        EXPECT_EQ(s.tur(0).status, SCSI_STATUS_GOOD);
        EXPECT_EQ(s.reportLuns(), (std::vector<int>{0, 1}));
        EXPECT_EQ(s.read(1, 1000, 8192).data, data);
    }

    // A size the table cannot take is refused with a clear message.
    c = host.esa.console("createLun 17t");
    EXPECT_NE(c.rc, 0);
    c = host.esa.console("createLun 1000");
    EXPECT_NE(c.rc, 0);
    EXPECT_NE(c.output.find("usage: createLun"), std::string::npos) << c.output;
}

TEST(HostPath, BadInputGetsTheRightSenseAndChangesNothing) {
    TestBoard board;
    HostEsa host(board);
    ASSERT_TRUE(host.start()) << host.esa.output();
    Session s(host.portal, 0);
    ASSERT_TRUE(s.connected());
    auto data = pattern(4096, 11);
    ASSERT_EQ(s.write(0, 64, data).status, SCSI_STATUS_GOOD);
    uint64_t last = s.lastLba(0);
    ASSERT_NE(last, ~0ull);

    // An opcode nobody knows.
    Session::Result r = s.raw(0, {0xc5, 0, 0, 0, 0, 0, 0, 0, 0, 0}, SCSI_XFER_NONE, 0);
    EXPECT_EQ(r.key, SCSI_SENSE_ILLEGAL_REQUEST);
    EXPECT_EQ(r.ascq, 0x2000);
    // A read that ends one block past the end of the LUN.
    r = s.result(iscsi_read16_sync(s.ctx(), 0, last, 1024, 512, 0, 0, 0, 0, 0));
    EXPECT_EQ(r.key, SCSI_SENSE_ILLEGAL_REQUEST);
    EXPECT_EQ(r.ascq, 0x2100);
    // A write to a LUN that does not exist.
    r = s.write(5, 64, pattern(512, 1));
    EXPECT_EQ(r.key, SCSI_SENSE_ILLEGAL_REQUEST);
    EXPECT_EQ(r.ascq, 0x2500);
    // The management commands reach the management path, which refuses an
    // unknown page and an unknown vendor command form there, not dropped.
    r = s.raw(0, {0x5a, 0x08, 0x3a, 0, 0, 0, 0, 0x02, 0x00, 0}, SCSI_XFER_READ, 512);
    EXPECT_EQ(r.key, SCSI_SENSE_ILLEGAL_REQUEST);
    EXPECT_EQ(r.ascq, 0x2400);
    r = s.raw(0, {0xea, 0, 0, 0, 0, 0, 0, 0, 0x02, 0, 0, 0}, SCSI_XFER_READ, 512);
    EXPECT_EQ(r.key, SCSI_SENSE_ILLEGAL_REQUEST);
    EXPECT_EQ(r.ascq, 0x2000);
    EXPECT_NE(host.esa.console("hamState").output.find("commands 2"), std::string::npos);

    // None of it changed a byte.
    EXPECT_EQ(s.read(0, 64, 4096).data, data);
    EXPECT_EQ(s.read(0, 72, 512).data, std::vector<uint8_t>(512, 0));
    std::string state;
    EXPECT_TRUE(nothingHeld(host.esa, state)) << state;
}

TEST(HostPath, HostsThatGoAwayWithWritesInFlightLeaveNothingHeld) {
    TestBoard board;
    HostEsa host(board);
    ASSERT_TRUE(host.start()) << host.esa.output();
    auto data = pattern(256 * 1024, 5);
    for (int round = 0; round < 4; ++round) {
        Session s(host.portal, 0);
        ASSERT_TRUE(s.connected());
        // Queue writes and reads without waiting for them, then drop the
        // connection while they are in flight.
        for (int i = 0; i < 24; ++i) {
            uint32_t lba = uint32_t(i * 512 + round);
            if (i % 3 == 2)
                iscsi_read10_task(s.ctx(), 0, lba, 65536, 512, 0, 0, 0, 0, 0,
                                  [](iscsi_context*, int, void* d, void*) { scsi_free_scsi_task((scsi_task*)d); },
                                  nullptr);
            else
                iscsi_write10_task(s.ctx(), 0, lba, data.data(), uint32_t(data.size()), 512, 0, 0, 0, 0, 0,
                                   [](iscsi_context*, int, void* d, void*) { scsi_free_scsi_task((scsi_task*)d); },
                                   nullptr);
        }
        for (int k = 0; k < 3 + round; ++k) iscsi_service(s.ctx(), POLLOUT);  // part of the data goes out
        ::shutdown(iscsi_get_fd(s.ctx()), SHUT_RDWR);
    }
    std::string state;
    EXPECT_TRUE(nothingHeld(host.esa, state)) << state;
    // And the host path still serves.
    Session s(host.portal, 0);
    ASSERT_TRUE(s.connected());
    auto small = pattern(4096, 9);
    EXPECT_EQ(s.write(0, 7, small).status, SCSI_STATUS_GOOD);
    EXPECT_EQ(s.read(0, 7, 4096).data, small);
}

TEST(HostPath, DataSurviveACleanRestartAndAPulledDisk) {
    TestBoard board;
    auto data = pattern(1 << 20, 21);
    {
        HostEsa host(board);
        ASSERT_TRUE(host.start()) << host.esa.output();
        if (!mapIsReal(host.esa)) GTEST_SKIP() << "the LUN map is the memory-backed stand-in: nothing to keep";
        Session s(host.portal, 0);
        ASSERT_TRUE(s.connected());
        for (uint32_t off = 0; off < data.size(); off += 65536)
            ASSERT_EQ(s.write(0, 4096 + off / 512, std::vector<uint8_t>(data.begin() + off, data.begin() + off + 65536))
                          .status,
                      SCSI_STATUS_GOOD);
        host.esa.console("reboot confirm");
        EXPECT_EQ(host.esa.wait(), 75) << host.esa.output();
    }
    HostEsa host(board, false);
    ASSERT_TRUE(host.start()) << host.esa.output();
    Session s(host.portal, 0);
    ASSERT_TRUE(s.connected());
    for (uint32_t off = 0; off < data.size(); off += 65536)
        EXPECT_EQ(s.read(0, 4096 + off / 512, 65536).data,
                  std::vector<uint8_t>(data.begin() + off, data.begin() + off + 65536))
            << off;
    ConsoleResult pulled = host.esa.console("removeDisk 3");
    ASSERT_EQ(pulled.rc, 0) << pulled.output;
    for (int i = 0; i < 100; ++i) {
        if (host.esa.console("state DPM").output.find("MISSING") != std::string::npos) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    for (uint32_t off = 0; off < data.size(); off += 65536)
        EXPECT_EQ(s.read(0, 4096 + off / 512, 65536).data,
                  std::vector<uint8_t>(data.begin() + off, data.begin() + off + 65536))
            << off;
}
