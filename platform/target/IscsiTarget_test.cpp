// The target over real TCP connections, driven PDU by PDU: data integrity
// through immediate, unsolicited and solicited data; sessions that fail
// (malformed PDU, dropped connection with commands in flight, bad login)
// without disturbing the others or leaking commands; task management,
// command windows and residuals.
//
// With ESA_TEST_PORTAL=host:port set, the same tests run against an outside
// target (esa-ramtarget) instead of one in this process; the checks on the
// backend's counters are then skipped.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <cstdlib>
#include <memory>
#include <thread>

#include "platform/target/CommandQueueDriver.h"
#include "platform/target/IscsiTarget.h"
#include "platform/target/MultiIssueDriver.h"
#include "platform/target/RamRingResponder.h"
#include "platform/target/RamBackend.h"
#include "platform/target/ScsiResponder.h"
#include "platform/target/TargetLunTable.h"
#include "platform/target/TestInitiator.h"

using namespace iscsi;

namespace {

const char* kTarget = "iqn.2026-11.local.esa:array";

std::vector<uint8_t> cdb10(uint8_t op, uint32_t lba, uint16_t blocks) {
    std::vector<uint8_t> c(16, 0);
    c[0] = op;
    putBe32(&c[2], lba);
    putBe16(&c[7], blocks);
    return c;
}

std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = uint8_t(seed + i * 7 + (i >> 9));
    return v;
}

// Parameter: false serves the LUNs straight from RamBackend, true through
// the multi-issue rings to the ring responder.
class IscsiTargetTest : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (const char* p = std::getenv("ESA_TEST_PORTAL")) {
            std::string s = p;
            mPort = uint16_t(std::atoi(s.substr(s.rfind(':') + 1).c_str()));
            return;
        }
        TargetLunTable::GetInstance().reset();
        IscsiTargetConfig cfg;
        cfg.portal = "127.0.0.1:0";
        if (GetParam()) {
            RamBackend::publishLuns(2, 8 << 20);
            ASSERT_TRUE(mRegions.open(MultiIssueDriver::kJournalBytes, RamRingResponder::readBufferBytes(2, 8 << 20),
                                      MultiIssueDriver::kRequestIds)
                            .ok());
            std::memset(mRegions.readBuffer, 0, RamRingResponder::readBufferBytes(2, 8 << 20));
            mResponder = std::make_unique<RamRingResponder>(mRegions, 2, 8 << 20);
            mQueue = std::make_unique<CommandQueueDriver>(mRegions);
            mDriver = std::make_unique<MultiIssueDriver>(mRegions, *mQueue);
            mResponder->start();
            mQueue->start();
            mDriver->start();
            mTarget = std::make_unique<IscsiTarget>(*mDriver, cfg);
        } else {
            mBackend = std::make_unique<RamBackend>(2, 8 << 20);
            mBackend->publish();
            mTarget = std::make_unique<IscsiTarget>(*mBackend, cfg);
        }
        ASSERT_TRUE(mTarget->start().ok());
        mPort = mTarget->port();
    }
    void TearDown() override {
        if (mTarget) mTarget->stop();
        if (mResponder) {
            mDriver->stop();
            mQueue->stop();
            mResponder->stop();
            EXPECT_EQ(mResponder->sglsInUse(), 0u);  // every read's buffers were released
        }
        // Every command given to the backend was given back.
        if (mBackend) {
            EXPECT_EQ(mBackend->held(), 0);
            EXPECT_EQ(mBackend->strayReleases(), 0u);
        }
    }

    void loginNormal(TestInitiator& ini, const KeyValues& keys = {}) {
        ASSERT_TRUE(ini.connect(mPort));
        ASSERT_EQ(ini.login(kTarget, keys), 0);
    }

    // Sends a command and collects its data-in and status.
    struct Result {
        uint8_t status = 0xff;
        std::vector<uint8_t> data;
        std::vector<uint8_t> sense;
        uint8_t flags = 0;
        uint32_t residual = 0;
    };
    Result run(TestInitiator& ini, Bhs cmd, const std::vector<uint8_t>& immediate = {}) {
        Result r;
        EXPECT_TRUE(ini.send(cmd, immediate));
        return collect(ini, cmd.itt());
    }
    Result collect(TestInitiator& ini, uint32_t itt) {
        Result r;
        for (;;) {
            Pdu p;
            if (!ini.receive(p)) {
                ADD_FAILURE() << "no response";
                return r;
            }
            EXPECT_EQ(p.bhs.itt(), itt);
            if (p.bhs.opcode() == kDataIn) {
                EXPECT_EQ(p.bhs.word40(), r.data.size());
                r.data.insert(r.data.end(), p.data.begin(), p.data.end());
                if (p.bhs.flags() & 0x01) {
                    r.status = p.bhs.b[3];
                    r.flags = p.bhs.flags();
                    r.residual = getBe32(p.bhs.b + 44);
                    return r;
                }
            } else if (p.bhs.opcode() == kScsiResponse) {
                r.status = p.bhs.b[3];
                r.flags = p.bhs.flags();
                r.residual = getBe32(p.bhs.b + 44);
                if (p.data.size() > 2) r.sense.assign(p.data.begin() + 2, p.data.end());
                return r;
            } else {
                ADD_FAILURE() << "unexpected opcode " << int(p.bhs.opcode());
                return r;
            }
        }
    }
    bool ping(TestInitiator& ini, uint32_t itt) {
        if (!ini.send(ini.nopOut(itt))) return false;
        Pdu p;
        return ini.receive(p) && p.bhs.opcode() == kNopIn && p.bhs.itt() == itt;
    }
    // Waits (bounded) until the target has let go of every connection but `n`.
    void waitForConnections(size_t n) {
        if (!mTarget) return;
        for (int i = 0; i < 5000 && mTarget->connectionCount() != n; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        EXPECT_EQ(mTarget->connectionCount(), n);
    }

    std::unique_ptr<RamBackend> mBackend;
    DriverRegions mRegions;
    std::unique_ptr<RamRingResponder> mResponder;
    std::unique_ptr<CommandQueueDriver> mQueue;
    std::unique_ptr<MultiIssueDriver> mDriver;
    std::unique_ptr<IscsiTarget> mTarget;
    uint16_t mPort = 0;
};

TEST_P(IscsiTargetTest, ImmediateDataWriteReadsBackIdentical) {
    TestInitiator ini;
    loginNormal(ini, {{"ImmediateData", "Yes"}, {"InitialR2T", "No"}, {"FirstBurstLength", "65536"}});
    auto data = pattern(4096, 3);
    auto w = run(ini, ini.scsiCommand(1, 0, cdb10(scsi::kWrite10, 100, 8), false, true, 4096), data);
    EXPECT_EQ(w.status, scsi::kStatusGood);
    auto r = run(ini, ini.scsiCommand(2, 0, cdb10(scsi::kRead10, 100, 8), true, false, 4096));
    EXPECT_EQ(r.status, scsi::kStatusGood);
    EXPECT_EQ(r.data, data);
    // The other LUN did not see the write.
    auto other = run(ini, ini.scsiCommand(3, 1, cdb10(scsi::kRead10, 100, 8), true, false, 4096));
    EXPECT_EQ(other.data, std::vector<uint8_t>(4096, 0));
}

TEST_P(IscsiTargetTest, SolicitedBurstsLandInOrderWhileOtherCommandsRun) {
    TestInitiator ini;
    loginNormal(ini, {{"ImmediateData", "No"}, {"InitialR2T", "Yes"}, {"MaxBurstLength", "1024"}});
    auto data = pattern(4096, 9);
    ASSERT_TRUE(ini.send(ini.scsiCommand(7, 0, cdb10(scsi::kWrite10, 2000, 8), false, true, 4096)));
    uint32_t offset = 0;
    int r2ts = 0;
    while (offset < 4096) {
        Pdu r2t;
        ASSERT_TRUE(ini.receive(r2t));
        ASSERT_EQ(r2t.bhs.opcode(), kReadyToTransfer);
        EXPECT_EQ(r2t.bhs.word36(), uint32_t(r2ts));  // R2TSN
        ASSERT_EQ(r2t.bhs.word40(), offset);
        ASSERT_EQ(getBe32(r2t.bhs.b + 44), 1024u);
        if (r2ts++ == 1) {
            // A command sent while an R2T is outstanding is served, not held back.
            auto tur = run(ini, ini.scsiCommand(8, 0, std::vector<uint8_t>(16, 0), false, false, 0));
            EXPECT_EQ(tur.status, scsi::kStatusGood);
        }
        for (uint32_t sn = 0; sn < 2; ++sn) {
            std::vector<uint8_t> part(data.begin() + offset, data.begin() + offset + 512);
            ASSERT_TRUE(ini.send(ini.dataOut(7, r2t.bhs.word20(), sn, offset, sn == 1), part));
            offset += 512;
        }
    }
    EXPECT_EQ(r2ts, 4);
    EXPECT_EQ(collect(ini, 7).status, scsi::kStatusGood);
    auto r = run(ini, ini.scsiCommand(9, 0, cdb10(scsi::kRead10, 2000, 8), true, false, 4096));
    EXPECT_EQ(r.data, data);
}

// A command larger than one request of the system (2048 blocks, as a
// conformance suite's setup writes them) runs in pieces: the data of every
// piece land where they belong, whole, in order, and the pieces meet at their
// edges; a read past the pieces' limit is still refused.
TEST_P(IscsiTargetTest, ACommandLargerThanOneSystemRequestRunsInPiecesAndReadsBackWhole) {
    TestInitiator ini;
    loginNormal(ini, {{"ImmediateData", "No"}, {"InitialR2T", "Yes"}, {"MaxBurstLength", "262144"}});
    constexpr uint32_t kBlocks = 2 * scsi::kMaxRequestBlocks + 3;
    constexpr uint64_t kLba = 1000;
    const uint32_t bytes = kBlocks * scsi::kBlockSize;
    auto data = pattern(bytes, 41);
    ASSERT_TRUE(ini.send(ini.scsiCommand(21, 0, dataCdb16(scsi::kWrite16, kLba, kBlocks), false, true, bytes)));
    uint32_t sent = 0;
    while (sent < bytes) {
        Pdu r2t;
        ASSERT_TRUE(ini.receive(r2t));
        ASSERT_EQ(r2t.bhs.opcode(), kReadyToTransfer);
        uint32_t offset = r2t.bhs.word40(), len = getBe32(r2t.bhs.b + 44);
        ASSERT_EQ(offset, sent);
        for (uint32_t done = 0, sn = 0; done < len; ++sn) {
            uint32_t n = std::min<uint32_t>(4096, len - done);
            std::vector<uint8_t> part(data.begin() + offset + done, data.begin() + offset + done + n);
            done += n;
            ASSERT_TRUE(ini.send(ini.dataOut(21, r2t.bhs.word20(), sn, offset + done - n, done == len), part));
        }
        sent += len;
    }
    auto w = collect(ini, 21);
    EXPECT_EQ(w.status, scsi::kStatusGood);
    auto r = run(ini, ini.scsiCommand(22, 0, dataCdb16(scsi::kRead16, kLba, kBlocks), true, false, bytes));
    EXPECT_EQ(r.status, scsi::kStatusGood);
    EXPECT_TRUE(r.data == data) << "the pieces did not land in order";
    // Smaller reads across the pieces' edges see the same bytes.
    for (uint64_t edge : {kLba + scsi::kMaxRequestBlocks - 1, kLba + 2 * scsi::kMaxRequestBlocks - 1}) {
        auto e = run(ini, ini.scsiCommand(23, 0, cdb10(scsi::kRead10, uint32_t(edge), 2), true, false, 1024));
        size_t at = size_t(edge - kLba) * scsi::kBlockSize;
        EXPECT_TRUE(std::equal(e.data.begin(), e.data.end(), data.begin() + long(at))) << edge;
    }
    auto tooBig = run(ini, ini.scsiCommand(24, 0, dataCdb16(scsi::kRead16, 0, scsi::kMaxTransferBlocks + 1), true, false,
                                           0));
    EXPECT_EQ(tooBig.status, scsi::kStatusCheckCondition);
    if (mBackend) {
        EXPECT_EQ(mBackend->submitted(), 3u + 3u + 2u) << "a write and a read of three pieces, two small reads";
    }
}

TEST_P(IscsiTargetTest, MalformedPduEndsOnlyItsOwnSession) {
    TestInitiator bad, good;
    loginNormal(bad);
    loginNormal(good);
    Bhs junk;
    junk.setOpcode(0x1f);  // no such initiator opcode
    ASSERT_TRUE(bad.send(junk));
    Pdu rej;
    ASSERT_TRUE(bad.receive(rej));
    EXPECT_EQ(rej.bhs.opcode(), kReject);
    EXPECT_TRUE(bad.closedByPeer());
    EXPECT_TRUE(ping(good, 5));
    auto r = run(good, good.scsiCommand(6, 0, cdb10(scsi::kRead10, 0, 1), true, false, 512));
    EXPECT_EQ(r.status, scsi::kStatusGood);
    waitForConnections(1);
}

TEST_P(IscsiTargetTest, OversizedSegmentIsRejected) {
    TestInitiator bad;
    loginNormal(bad);
    Bhs cmd = bad.scsiCommand(1, 0, cdb10(scsi::kWrite10, 0, 8), false, true, 4096);
    cmd.setDataSegmentLength(0xffffff);  // far beyond what the target declared
    ASSERT_TRUE(bad.sendRaw(cmd.b, kBhsLength));
    Pdu rej;
    ASSERT_TRUE(bad.receive(rej));
    EXPECT_EQ(rej.bhs.opcode(), kReject);
    EXPECT_TRUE(bad.closedByPeer());
}

TEST_P(IscsiTargetTest, DroppedConnectionWithCommandsInFlightLeavesOthersServed) {
    TestInitiator lost, good;
    loginNormal(lost, {{"ImmediateData", "Yes"}, {"InitialR2T", "Yes"}});
    loginNormal(good);
    // A write waiting for its data, reads, and half of a PDU, then the host is gone.
    ASSERT_TRUE(lost.send(lost.scsiCommand(1, 0, cdb10(scsi::kWrite10, 0, 64), false, true, 32768)));
    for (uint32_t i = 2; i < 10; ++i)
        ASSERT_TRUE(lost.send(lost.scsiCommand(i, 0, cdb10(scsi::kRead10, i * 64, 64), true, false, 32768)));
    Bhs half = lost.scsiCommand(11, 0, cdb10(scsi::kRead10, 0, 1), true, false, 512);
    ASSERT_TRUE(lost.sendRaw(half.b, 20));
    lost.abortConnection();

    auto data = pattern(8192, 77);
    auto w = run(good, good.scsiCommand(1, 0, cdb10(scsi::kWrite10, 4096, 16), false, true, 8192), data);
    EXPECT_EQ(w.status, scsi::kStatusGood);
    auto r = run(good, good.scsiCommand(2, 0, cdb10(scsi::kRead10, 4096, 16), true, false, 8192));
    EXPECT_EQ(r.data, data);
    waitForConnections(1);
}

TEST_P(IscsiTargetTest, LoginToUnknownTargetFails) {
    TestInitiator ini;
    ASSERT_TRUE(ini.connect(mPort));
    EXPECT_EQ(ini.login("iqn.2026-11.local.esa:nothing"), 0x0203);
    EXPECT_TRUE(ini.closedByPeer());
}

TEST_P(IscsiTargetTest, LoginWithoutInitiatorNameFails) {
    TestInitiator ini;
    ASSERT_TRUE(ini.connect(mPort));
    Bhs b;
    b.setOpcode(0x40 | kLoginRequest);
    b.setFlags(0x80 | (1 << 2) | 3);
    auto keys = buildKeyValues({{"TargetName", kTarget}, {"SessionType", "Normal"}});
    ASSERT_TRUE(ini.send(b, keys));
    Pdu rsp;
    ASSERT_TRUE(ini.receive(rsp));
    EXPECT_EQ(rsp.bhs.opcode(), kLoginResponse);
    EXPECT_EQ(rsp.bhs.b[36], 2);
    EXPECT_EQ(rsp.bhs.b[37], 0x07);  // missing parameter
}

TEST_P(IscsiTargetTest, CommandBeforeLoginEndsConnection) {
    TestInitiator ini;
    ASSERT_TRUE(ini.connect(mPort));
    ASSERT_TRUE(ini.send(ini.scsiCommand(1, 0, cdb10(scsi::kRead10, 0, 1), true, false, 512)));
    EXPECT_TRUE(ini.closedByPeer());
}

TEST_P(IscsiTargetTest, DiscoveryListsTheTargetAndPortal) {
    TestInitiator ini;
    ASSERT_TRUE(ini.connect(mPort));
    ASSERT_EQ(ini.login("", {}, true), 0);
    ASSERT_TRUE(ini.send(ini.textRequest(1), buildKeyValues({{"SendTargets", "All"}})));
    Pdu rsp;
    ASSERT_TRUE(ini.receive(rsp));
    ASSERT_EQ(rsp.bhs.opcode(), kTextResponse);
    KeyValues kv;
    ASSERT_TRUE(parseKeyValues(rsp.data.data(), rsp.data.size(), kv).ok());
    ASSERT_EQ(kv.size(), 2u);
    EXPECT_EQ(kv[0], (std::pair<std::string, std::string>{"TargetName", kTarget}));
    EXPECT_EQ(kv[1].second, "127.0.0.1:" + std::to_string(mPort) + ",1");
    // A discovery session carries no SCSI commands.
    ASSERT_TRUE(ini.send(ini.scsiCommand(2, 0, cdb10(scsi::kRead10, 0, 1), true, false, 512)));
    Pdu rej;
    ASSERT_TRUE(ini.receive(rej));
    EXPECT_EQ(rej.bhs.opcode(), kReject);
}

TEST_P(IscsiTargetTest, AbortedWriteNeverAnswersAndIgnoresLateData) {
    TestInitiator ini;
    loginNormal(ini, {{"ImmediateData", "No"}, {"InitialR2T", "Yes"}});
    uint32_t sn = ini.cmdSn();
    ASSERT_TRUE(ini.send(ini.scsiCommand(40, 0, cdb10(scsi::kWrite10, 300, 8), false, true, 4096)));
    Pdu r2t;
    ASSERT_TRUE(ini.receive(r2t));
    ASSERT_EQ(r2t.bhs.opcode(), kReadyToTransfer);
    ASSERT_TRUE(ini.send(ini.taskManagement(41, 1, 0, 40, sn)));
    Pdu tmf;
    ASSERT_TRUE(ini.receive(tmf));
    ASSERT_EQ(tmf.bhs.opcode(), kTaskMgmtResponse);
    EXPECT_EQ(tmf.bhs.b[2], 0);  // function complete
    // Data that was already on its way is dropped; the write never lands.
    ASSERT_TRUE(ini.send(ini.dataOut(40, r2t.bhs.word20(), 0, 0, true), pattern(4096, 1)));
    EXPECT_TRUE(ping(ini, 42));  // the next PDU is the ping's answer, not a response to the write
    auto r = run(ini, ini.scsiCommand(43, 0, cdb10(scsi::kRead10, 300, 8), true, false, 4096));
    EXPECT_EQ(r.data, std::vector<uint8_t>(4096, 0));
    // Aborting a command that has completed says so.
    ASSERT_TRUE(ini.send(ini.taskManagement(44, 1, 0, 43, sn)));
    ASSERT_TRUE(ini.receive(tmf));
    EXPECT_EQ(tmf.bhs.b[2], 1);  // task does not exist
}

TEST_P(IscsiTargetTest, LunResetOfMissingLunSaysSo) {
    TestInitiator ini;
    loginNormal(ini);
    ASSERT_TRUE(ini.send(ini.taskManagement(1, 5, 17, kReservedTag, 0)));
    Pdu tmf;
    ASSERT_TRUE(ini.receive(tmf));
    EXPECT_EQ(tmf.bhs.b[2], 2);  // LUN does not exist
    ASSERT_TRUE(ini.send(ini.taskManagement(2, 5, 0, kReservedTag, 0)));
    ASSERT_TRUE(ini.receive(tmf));
    EXPECT_EQ(tmf.bhs.b[2], 0);
}

TEST_P(IscsiTargetTest, LunResetFromAnotherSessionAbortsItsWrites) {
    TestInitiator writer, resetter;
    loginNormal(writer, {{"ImmediateData", "No"}, {"InitialR2T", "Yes"}});
    loginNormal(resetter);
    ASSERT_TRUE(writer.send(writer.scsiCommand(1, 0, cdb10(scsi::kWrite10, 700, 8), false, true, 4096)));
    Pdu r2t;
    ASSERT_TRUE(writer.receive(r2t));
    ASSERT_EQ(r2t.bhs.opcode(), kReadyToTransfer);
    ASSERT_TRUE(resetter.send(resetter.taskManagement(1, 5, 0, kReservedTag, 0)));
    Pdu tmf;
    ASSERT_TRUE(resetter.receive(tmf));
    EXPECT_EQ(tmf.bhs.b[2], 0);
    // The write's data still arrive, but the write is gone: no response, nothing written.
    ASSERT_TRUE(writer.send(writer.dataOut(1, r2t.bhs.word20(), 0, 0, true), pattern(4096, 5)));
    EXPECT_TRUE(ping(writer, 2));
    auto r = run(writer, writer.scsiCommand(3, 0, cdb10(scsi::kRead10, 700, 8), true, false, 4096));
    if (!mTarget) return;  // an outside target's LUN may hold older data
    EXPECT_EQ(r.data, std::vector<uint8_t>(4096, 0));
}

TEST_P(IscsiTargetTest, DataOutOfSequenceFailsTheCommandNotTheSession) {
    TestInitiator ini;
    loginNormal(ini, {{"ImmediateData", "No"}, {"InitialR2T", "Yes"}});
    ASSERT_TRUE(ini.send(ini.scsiCommand(1, 0, cdb10(scsi::kWrite10, 10, 2), false, true, 1024)));
    Pdu r2t;
    ASSERT_TRUE(ini.receive(r2t));
    ASSERT_TRUE(ini.send(ini.dataOut(1, r2t.bhs.word20(), 0, 0, false), pattern(512, 0)));
    ASSERT_TRUE(ini.send(ini.dataOut(1, r2t.bhs.word20(), 0, 512, true), pattern(512, 0)));  // DataSN 0 again
    auto res = collect(ini, 1);
    EXPECT_EQ(res.status, scsi::kStatusCheckCondition);
    ASSERT_GE(res.sense.size(), 14u);
    EXPECT_EQ(res.sense[2] & 0x0f, scsi::kKeyAbortedCommand);
    EXPECT_EQ(res.sense[12], 0x4b);
    EXPECT_TRUE(ping(ini, 2));
}

TEST_P(IscsiTargetTest, CommandOutsideTheWindowIsIgnored) {
    TestInitiator ini;
    loginNormal(ini);
    uint32_t sn = ini.cmdSn();
    ini.setCmdSn(sn + 1000);
    ASSERT_TRUE(ini.send(ini.scsiCommand(1, 0, std::vector<uint8_t>(16, 0), false, false, 0)));
    ini.setCmdSn(sn);
    EXPECT_TRUE(ping(ini, 2));  // nothing came back for the ignored command
    auto r = run(ini, ini.scsiCommand(3, 0, std::vector<uint8_t>(16, 0), false, false, 0));
    EXPECT_EQ(r.status, scsi::kStatusGood);
}

TEST_P(IscsiTargetTest, ShortAndLongTransferLengthsGiveResiduals) {
    TestInitiator ini;
    loginNormal(ini);
    auto shortRead = run(ini, ini.scsiCommand(1, 0, cdb10(scsi::kRead10, 0, 1), true, false, 200));
    EXPECT_EQ(shortRead.status, scsi::kStatusGood);
    EXPECT_EQ(shortRead.data.size(), 200u);
    EXPECT_EQ(shortRead.flags & 0x06, 0x04);  // overflow
    EXPECT_EQ(shortRead.residual, 312u);
    auto longRead = run(ini, ini.scsiCommand(2, 0, cdb10(scsi::kRead10, 0, 1), true, false, 10000));
    EXPECT_EQ(longRead.data.size(), 512u);
    EXPECT_EQ(longRead.flags & 0x06, 0x02);  // underflow
    EXPECT_EQ(longRead.residual, 10000u - 512u);
}

TEST_P(IscsiTargetTest, WriteWithShortTransferLengthWritesOnlyWhatWasSent) {
    TestInitiator ini;
    loginNormal(ini, {{"ImmediateData", "Yes"}, {"InitialR2T", "No"}});
    auto a = pattern(1024, 5);
    ASSERT_EQ(run(ini, ini.scsiCommand(1, 0, cdb10(scsi::kWrite10, 50, 2), false, true, 1024), a).status, 0);
    auto b = pattern(512, 99);
    auto w = run(ini, ini.scsiCommand(2, 0, cdb10(scsi::kWrite10, 50, 2), false, true, 512), b);
    EXPECT_EQ(w.status, scsi::kStatusGood);
    EXPECT_EQ(w.flags & 0x06, 0x04);
    EXPECT_EQ(w.residual, 512u);
    auto r = run(ini, ini.scsiCommand(3, 0, cdb10(scsi::kRead10, 50, 2), true, false, 1024));
    std::vector<uint8_t> expect = b;
    expect.insert(expect.end(), a.begin() + 512, a.end());
    EXPECT_EQ(r.data, expect);
}

TEST_P(IscsiTargetTest, LogoutAnswersAndCloses) {
    TestInitiator ini;
    loginNormal(ini);
    ASSERT_TRUE(ini.send(ini.logout(9)));
    Pdu rsp;
    ASSERT_TRUE(ini.receive(rsp));
    EXPECT_EQ(rsp.bhs.opcode(), kLogoutResponse);
    EXPECT_EQ(rsp.bhs.b[2], 0);
    EXPECT_TRUE(ini.closedByPeer());
    waitForConnections(0);
}

TEST_P(IscsiTargetTest, ReinstatedSessionReplacesTheOldOne) {
    if (!mTarget) GTEST_SKIP() << "needs the in-process target";
    TestInitiator first, second;
    first.setIsid(7);
    second.setIsid(7);
    loginNormal(first);
    loginNormal(second);  // same initiator name and ISID
    EXPECT_TRUE(first.closedByPeer());
    EXPECT_TRUE(ping(second, 1));
    waitForConnections(1);
    EXPECT_EQ(mTarget->sessionCount(), 1u);
}

TEST_P(IscsiTargetTest, LinkEventsFollowTheFirstAndLastSession) {
    if (!mTarget) GTEST_SKIP() << "needs the in-process target";
    auto events = [&] { return mResponder ? mResponder->linkUps() + mResponder->linkDowns() : mBackend->linkEvents(); };
    {
        TestInitiator a, b;
        loginNormal(a);
        loginNormal(b);
        ping(b, 1);  // the queue is in order: an event sent before this answer has arrived
        for (int i = 0; i < 5000 && events() < 1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        EXPECT_EQ(events(), 1);
    }
    waitForConnections(0);
    for (int i = 0; i < 5000 && events() < 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(events(), 2);
    if (mResponder) {
        EXPECT_EQ(mResponder->linkUps(), 1);
        EXPECT_EQ(mResponder->lastLinkTransport(), kIscsiTransportId);
    }
}

TEST_P(IscsiTargetTest, CacheSynchronisationAndManagementReachTheSystem) {
    TestInitiator ini;
    loginNormal(ini);
    auto sync = run(ini, ini.scsiCommand(1, 0, cdb10(scsi::kSyncCache10, 0, 0), false, false, 0));
    EXPECT_EQ(sync.status, scsi::kStatusGood);
    // The memory-backed system has no management pages: refused with its sense.
    std::vector<uint8_t> vendor(16, 0);
    vendor[0] = scsi::kVendorManagement;
    auto mgmt = run(ini, ini.scsiCommand(2, 0, vendor, true, false, 512));
    EXPECT_EQ(mgmt.status, scsi::kStatusCheckCondition);
    ASSERT_GE(mgmt.sense.size(), 14u);
    EXPECT_EQ(mgmt.sense[12], 0x20);  // invalid operation code
    std::vector<uint8_t> select(10, 0);
    select[0] = scsi::kModeSelect10;
    putBe16(&select[7], 24);
    auto sel = run(ini, ini.scsiCommand(3, 0, select, false, true, 24), std::vector<uint8_t>(24, 0));
    EXPECT_EQ(sel.status, scsi::kStatusCheckCondition);
    ASSERT_GE(sel.sense.size(), 14u);
    EXPECT_EQ(sel.sense[12], 0x24);  // invalid field in CDB
    EXPECT_TRUE(ping(ini, 4));
}

INSTANTIATE_TEST_SUITE_P(Backends, IscsiTargetTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Rings" : "Direct"; });

}  // namespace
