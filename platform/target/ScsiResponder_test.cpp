// The commands the driver side answers by itself, from the LUN state the
// system pushed, and the checks it makes before a command reaches the
// system: every refusal with the sense the host will act on.
#include <gtest/gtest.h>

#include "platform/target/IscsiPdu.h"
#include "platform/target/ScsiResponder.h"
#include "platform/target/TestInitiator.h"
#include "platform/target/TargetLunTable.h"

using namespace scsi;
using iscsi::getBe16;
using iscsi::getBe32;
using iscsi::getBe64;
using iscsi::putBe16;
using iscsi::putBe32;
using iscsi::putBe64;
using Kind = Decision::Kind;

namespace {

constexpr uint64_t kLastLba0 = (64ull << 20) / 512 - 1;
constexpr uint64_t kLastLba1 = 0x7ffffffffull;  // a 16 TiB LUN, beyond 32-bit LBAs

class ScsiResponderTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto& t = TargetLunTable::GetInstance();
        t.reset();
        t.setLunCount(3);
        t.setLastLba(0, kLastLba0);
        t.setLastLba(1, kLastLba1);  // LUN 2 counted but never created: absent
        t.setMediaAccess(true);
        t.setTransportEnabled(true);
        t.setSerialNumber("SN42");
    }
    Decision decide(std::vector<uint8_t> cdb, uint32_t lun = 0) {
        cdb.resize(16, 0);
        return responder.decide(cdb.data(), 16, lun);
    }
    static void expectCheck(const Decision& d, const Sense& s) {
        EXPECT_EQ(d.kind, Kind::Check);
        EXPECT_EQ(d.status, kStatusCheckCondition);
        EXPECT_EQ(d.sense, s) << "key " << int(d.sense.key) << " asc " << int(d.sense.asc);
    }
    ScsiResponder responder{"iqn.2026-11.local.esa:array"};
};

std::vector<uint8_t> rw10(uint8_t op, uint32_t lba, uint16_t blocks, uint8_t flags = 0) {
    std::vector<uint8_t> c(10, 0);
    c[0] = op;
    c[1] = flags;
    putBe32(&c[2], lba);
    putBe16(&c[7], blocks);
    return c;
}

}  // namespace

TEST_F(ScsiResponderTest, StandardInquiryIsCutToTheAllocationLength) {
    auto d = decide({kInquiry, 0, 0, 0, 36, 0});
    ASSERT_EQ(d.kind, Kind::Answered);
    ASSERT_EQ(d.data.size(), 36u);
    EXPECT_EQ(d.data[0], 0x00);      // direct access, connected
    EXPECT_EQ(d.data[7] & 0x02, 2);  // command queuing
    auto full = decide({kInquiry, 0, 0, 0, 255, 0});
    EXPECT_EQ(full.data.size(), 66u);
    EXPECT_EQ(full.data[4], 61);  // additional length
    EXPECT_TRUE(decide({kInquiry, 0, 0, 0, 0, 0}).data.empty());
    expectCheck(decide({kInquiry, 0, 0x80, 0, 255, 0}), kInvalidFieldInCdb);  // page code without EVPD
    expectCheck(decide({kInquiry, 0x02, 0, 0, 255, 0}), kInvalidFieldInCdb);  // CMDDT
}

TEST_F(ScsiResponderTest, InquiryOfAMissingLunSaysNoDeviceThere) {
    auto d = decide({kInquiry, 0, 0, 0, 96, 0}, 2);
    ASSERT_EQ(d.kind, Kind::Answered);
    EXPECT_EQ(d.data[0], 0x7f);
    expectCheck(decide({kInquiry, 1, 0x80, 0, 96, 0}, 2), kLunNotSupported);
    expectCheck(decide({kTestUnitReady}, 2), kLunNotSupported);
    expectCheck(decide(rw10(kRead10, 0, 1), 7), kLunNotSupported);
}

TEST_F(ScsiResponderTest, VitalProductPagesListAndDescribeTheLun) {
    auto list = decide({kInquiry, 1, 0x00, 0, 255, 0});
    ASSERT_EQ(list.kind, Kind::Answered);
    EXPECT_EQ(std::vector<uint8_t>(list.data.begin() + 4, list.data.end()),
              (std::vector<uint8_t>{0x00, 0x80, 0x83, 0xb0}));
    auto serial = decide({kInquiry, 1, 0x80, 0, 255, 0}, 1);
    EXPECT_EQ(std::string(serial.data.begin() + 4, serial.data.end()), "SN42-1");
    auto limits = decide({kInquiry, 1, 0xb0, 0, 255, 0});
    ASSERT_EQ(limits.data.size(), 64u);
    EXPECT_EQ(getBe16(&limits.data[2]), 0x3c);
    EXPECT_EQ(getBe32(&limits.data[8]), kMaxTransferBlocks);
    EXPECT_EQ(getBe32(&limits.data[12]), kMaxRequestBlocks);
    expectCheck(decide({kInquiry, 1, 0xb1, 0, 255, 0}), kInvalidFieldInCdb);
}

TEST_F(ScsiResponderTest, DeviceIdentifiersDifferBetweenLuns) {
    auto a = decide({kInquiry, 1, 0x83, 0, 255, 0}, 0);
    auto b = decide({kInquiry, 1, 0x83, 0, 255, 0}, 1);
    ASSERT_EQ(a.kind, Kind::Answered);
    EXPECT_EQ(getBe16(&a.data[2]), a.data.size() - 4);
    EXPECT_EQ(a.data[4 + 1] & 0x0f, 3);      // first designator: NAA
    EXPECT_EQ(a.data[4 + 4] >> 4, 3);        // locally assigned
    EXPECT_NE(std::vector<uint8_t>(a.data.begin() + 8, a.data.begin() + 16),
              std::vector<uint8_t>(b.data.begin() + 8, b.data.begin() + 16));
}

TEST_F(ScsiResponderTest, CapacityIsTheLastLbaTheSystemPushed) {
    auto rc10 = decide({kReadCapacity10, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    ASSERT_EQ(rc10.kind, Kind::Answered);
    EXPECT_EQ(getBe32(&rc10.data[0]), kLastLba0);
    EXPECT_EQ(getBe32(&rc10.data[4]), 512u);
    auto big = decide({kReadCapacity10, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 1);
    EXPECT_EQ(getBe32(&big.data[0]), 0xffffffffu);  // tells the host to ask READ CAPACITY (16)
    auto rc16 = decide({kServiceActionIn16, kReadCapacity16ServiceAction, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32}, 1);
    ASSERT_EQ(rc16.data.size(), 32u);
    EXPECT_EQ(getBe64(&rc16.data[0]), kLastLba1);
    EXPECT_EQ(rc16.data[13], 3);  // 4 KiB physical blocks
    TargetLunTable::GetInstance().setLastLba(0, 99);  // the system grew or shrank the LUN
    EXPECT_EQ(getBe32(&decide({kReadCapacity10, 0, 0, 0, 0, 0, 0, 0, 0, 0}).data[0]), 99u);
    expectCheck(decide({kReadCapacity10, 0, 0, 0, 0, 5, 0, 0, 0, 0}), kInvalidFieldInCdb);  // LBA without PMI
    expectCheck(decide({kServiceActionIn16, 0x11}), kInvalidFieldInCdb);
}

TEST_F(ScsiResponderTest, ReportLunsListsOnlyPresentLuns) {
    std::vector<uint8_t> cdb(12, 0);
    cdb[0] = kReportLuns;
    putBe32(&cdb[6], 256);
    auto d = decide(cdb);
    ASSERT_EQ(d.kind, Kind::Answered);
    EXPECT_EQ(getBe32(&d.data[0]), 16u);
    EXPECT_EQ(d.data[8 + 1], 0);
    EXPECT_EQ(d.data[16 + 1], 1);
    putBe32(&cdb[6], 8);
    expectCheck(decide(cdb), kInvalidFieldInCdb);
}

TEST_F(ScsiResponderTest, ModeSenseSixGivesTheStandardPages) {
    auto all = decide({kModeSense6, 0, 0x3f, 0, 255, 0});
    ASSERT_EQ(all.kind, Kind::Answered);
    EXPECT_EQ(all.data[0], all.data.size() - 1);
    EXPECT_EQ(all.data[3], 8);  // one block descriptor
    EXPECT_EQ(all.data[4 + 8], 0x08);  // caching page first
    EXPECT_EQ(all.data[2] & 0x80, 0);  // not write protected
    auto control = decide({kModeSense6, 0x08, 0x0a, 0, 255, 0});
    EXPECT_EQ(control.data[3], 0);  // DBD: no descriptor
    EXPECT_EQ(control.data[4], 0x0a);
    EXPECT_EQ(control.data.size(), 4u + 12u);
    expectCheck(decide({kModeSense6, 0, 0xc0 | 0x08, 0, 255, 0}), kSavingNotSupported);
    expectCheck(decide({kModeSense6, 0, 0x19, 0, 255, 0}), kInvalidFieldInCdb);
    expectCheck(decide({kModeSense6, 0, 0x08, 1, 255, 0}), kInvalidFieldInCdb);
    EXPECT_EQ(decide({kModeSense6, 0, 0x3f, 0, 6, 0}).data.size(), 6u);
}

TEST_F(ScsiResponderTest, DataCommandsDecodeEveryCdbSize) {
    auto r6 = decide({kRead6, 0x01, 0x02, 0x03, 0, 0});
    EXPECT_EQ(r6.kind, Kind::Read);
    EXPECT_EQ(r6.lba, 0x10203u);
    EXPECT_EQ(r6.blocks, 256u);  // 0 means 256 in the six-byte form
    auto w10 = decide(rw10(kWrite10, 1000, 8, 0x08));
    EXPECT_EQ(w10.kind, Kind::Write);
    EXPECT_EQ(w10.blocks, 8u);
    EXPECT_TRUE(w10.fua);
    std::vector<uint8_t> r12(12, 0);
    r12[0] = kRead12;
    putBe32(&r12[2], 77);
    putBe32(&r12[6], 3);
    auto d12 = decide(r12);
    EXPECT_EQ(d12.lba, 77u);
    EXPECT_EQ(d12.blocks, 3u);
    auto w16 = decide(dataCdb16(kWrite16, kLastLba1 - 7, 8), 1);
    EXPECT_EQ(w16.kind, Kind::Write);
    EXPECT_EQ(w16.lba, kLastLba1 - 7);
    auto zero = decide(rw10(kRead10, uint32_t(kLastLba0), 0));
    EXPECT_EQ(zero.kind, Kind::Read);
    EXPECT_EQ(zero.blocks, 0u);
}

TEST_F(ScsiResponderTest, DataCommandsOutsideTheLunAreRefusedBeforeTheSystem) {
    expectCheck(decide(rw10(kRead10, uint32_t(kLastLba0), 2)), kLbaOutOfRange);
    expectCheck(decide(rw10(kWrite10, uint32_t(kLastLba0 + 1), 0)), kLbaOutOfRange);
    expectCheck(decide(dataCdb16(kRead16, ~0ull, 1)), kLbaOutOfRange);  // no wrap-around
    expectCheck(decide(dataCdb16(kWrite16, kLastLba1, 0xffffffffu), 1), kLbaOutOfRange);
    EXPECT_EQ(decide(rw10(kRead10, uint32_t(kLastLba0), 1)).kind, Kind::Read);
}

TEST_F(ScsiResponderTest, FieldsTheSystemDoesNotSupportAreRefused) {
    expectCheck(decide(rw10(kRead10, 0, kMaxTransferBlocks + 1)), kInvalidFieldInCdb);
    EXPECT_EQ(decide(rw10(kRead10, 0, kMaxTransferBlocks)).kind, Kind::Read);
    expectCheck(decide(rw10(kRead10, 0, 1, 0x20)), kInvalidFieldInCdb);   // RDPROTECT
    expectCheck(decide(rw10(kWrite10, 0, 1, 0x40)), kInvalidFieldInCdb);  // WRPROTECT
    auto naca = rw10(kRead10, 0, 1);
    naca[9] = 0x04;
    expectCheck(decide(naca), kInvalidFieldInCdb);
}

TEST_F(ScsiResponderTest, UnknownOpcodesAreInvalidOperationCodes) {
    expectCheck(decide({0x2f}), kInvalidOpcode);  // VERIFY (10)
    expectCheck(decide({0x42}), kInvalidOpcode);  // UNMAP
    expectCheck(decide({0x5e}), kInvalidOpcode);  // PERSISTENT RESERVE IN
    expectCheck(decide({0xc0}), kInvalidOpcode);  // a vendor group with no known length
}

TEST_F(ScsiResponderTest, ManagementAndCacheCommandsGoToTheSystem) {
    EXPECT_EQ(decide({kModeSense10}).kind, Kind::Management);
    EXPECT_EQ(decide({kModeSelect10}).kind, Kind::Management);
    EXPECT_EQ(decide({kVendorManagement}).kind, Kind::Management);
    auto sync = decide(rw10(kSyncCache10, 0, 0));
    EXPECT_EQ(sync.kind, Kind::SyncCache);
    expectCheck(decide(rw10(kSyncCache10, uint32_t(kLastLba0 + 1), 1)), kLbaOutOfRange);
}

TEST_F(ScsiResponderTest, MediaOffMakesTheUnitNotReady) {
    TargetLunTable::GetInstance().setMediaAccess(false);
    expectCheck(decide({kTestUnitReady}), kMediumNotPresent);
    expectCheck(decide(rw10(kRead10, 0, 1)), kMediumNotPresent);
    EXPECT_EQ(decide({kInquiry, 0, 0, 0, 36, 0}).kind, Kind::Answered);  // identity stays visible
    auto sense = decide({kRequestSense, 0, 0, 0, 18, 0});
    ASSERT_EQ(sense.data.size(), 18u);
    EXPECT_EQ(sense.data[2], kKeyNotReady);
    EXPECT_EQ(sense.data[12], 0x3a);
    TargetLunTable::GetInstance().setMediaAccess(true);
    EXPECT_EQ(decide({kTestUnitReady}).kind, Kind::Answered);
    EXPECT_EQ(decide({kRequestSense, 0, 0, 0, 18, 0}).data[2], kKeyNoSense);
}

TEST_F(ScsiResponderTest, StartStopAndPreventAllowAreAccepted) {
    EXPECT_EQ(decide({kStartStopUnit, 0, 0, 0, 0x01, 0}).kind, Kind::Answered);
    EXPECT_EQ(decide({kPreventAllow, 0, 0, 0, 0x01, 0}).kind, Kind::Answered);
    expectCheck(decide({kPreventAllow, 0, 0, 0, 0x02, 0}), kInvalidFieldInCdb);
}

TEST(SenseForStatus, BackendFailuresMapToWhatTheHostActsOn) {
    EXPECT_EQ(senseForStatus(StatusCode::Success, false), Sense{});
    EXPECT_EQ(senseForStatus(StatusCode::DiskNotReady, false), kNotReadyBecoming);
    EXPECT_EQ(senseForStatus(StatusCode::MediaError, false), kUnrecoveredReadError);
    EXPECT_EQ(senseForStatus(StatusCode::MediaError, true), kWriteError);
    EXPECT_EQ(senseForStatus(StatusCode::OutOfSpace, true), kSpaceExhausted);
    EXPECT_EQ(senseForStatus(StatusCode::InternalError, true), kInternalTargetFailure);
    auto d = fixedSenseData(kLbaOutOfRange);
    EXPECT_EQ(d[0], 0x70);
    EXPECT_EQ(d[2], kKeyIllegalRequest);
    EXPECT_EQ(d[7], 10);
    EXPECT_EQ(d[12], 0x21);
}

TEST(TargetLunTable, BoardCallsCarryTheSystemsLunState) {
    auto& t = TargetLunTable::GetInstance();
    t.reset();
    EXPECT_EQ(t.applyBoardCall(0x1a40, 4, 0, 0), 0);
    EXPECT_EQ(t.lunCount(), 4u);
    EXPECT_EQ(t.applyBoardCall(0x1a49, 3, 0xfffffffe, 0x7), 0);  // 64-bit LBA as two words, low first
    EXPECT_EQ(t.lastLba(3), 0x7fffffffeull);
    EXPECT_FALSE(t.lunPresent(0));  // counted, but no size pushed
    EXPECT_EQ(t.applyBoardCall(0x1a49, TargetLunTable::kMaxLuns, 1, 0), -1);
    EXPECT_EQ(t.applyBoardCall(0x1a41, 3, 0, 0), 0);
    EXPECT_TRUE(t.mediaAccess());
    EXPECT_EQ(t.applyBoardCall(0x1a41, 4, 0, 0), 0);
    EXPECT_FALSE(t.mediaAccess());
    EXPECT_EQ(t.applyBoardCall(0x1a41, 0, 0, 0), 0);
    EXPECT_TRUE(t.transportEnabled());
    const char serial[] = "ESA-777";
    EXPECT_EQ(t.applyBoardCall(0x1a41, 2, intptr_t(serial), 0), 0);
    EXPECT_EQ(t.serialNumber(), "ESA-777");
    EXPECT_EQ(t.applyBoardCall(0x1a41, 9, 0, 0), -1);
    // Lowering the count hides the LUNs above it.
    t.applyBoardCall(0x1a40, 2, 0, 0);
    EXPECT_FALSE(t.lunPresent(3));
}
