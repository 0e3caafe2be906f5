// Header checks, LUN fields and login text as the target reads them from the
// wire: what it must accept from real initiators and what it must refuse.
#include <gtest/gtest.h>

#include "platform/target/IscsiPdu.h"
#include "platform/target/IscsiSessionParams.h"

using namespace iscsi;

TEST(IscsiPdu, LunFieldsRoundTripInBothAddressingForms) {
    uint8_t f[8];
    for (uint32_t lun : {0u, 1u, 31u, 255u, 256u, 0x3fffu}) {
        encodeLun(lun, f);
        EXPECT_EQ(decodeLun(f), lun);
    }
    encodeLun(5, f);
    EXPECT_EQ(f[0], 0);  // peripheral addressing below 256
    EXPECT_EQ(f[1], 5);
}

TEST(IscsiPdu, LunFieldsThatNameNoSingleLevelLunAreInvalid) {
    uint8_t hier[8] = {0x00, 0x01, 0x00, 0x02, 0, 0, 0, 0};  // a second level
    EXPECT_EQ(decodeLun(hier), kInvalidLun);
    uint8_t bus[8] = {0x01, 0x00, 0, 0, 0, 0, 0, 0};  // bus 1
    EXPECT_EQ(decodeLun(bus), kInvalidLun);
    uint8_t extended[8] = {0xc0, 0x00, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(decodeLun(extended), kInvalidLun);
}

TEST(IscsiPdu, HeaderFieldsAreBigEndian) {
    Bhs b;
    b.setOpcode(0x40 | kScsiCommand);
    b.setDataSegmentLength(0x123456);
    b.setItt(0xdeadbeef);
    b.setWord(20, 4096);
    EXPECT_EQ(b.b[5], 0x12);
    EXPECT_EQ(b.b[7], 0x56);
    EXPECT_EQ(b.b[16], 0xde);
    EXPECT_EQ(b.opcode(), kScsiCommand);
    EXPECT_TRUE(b.immediate());
    EXPECT_EQ(b.dataSegmentLength(), 0x123456u);
    EXPECT_EQ(b.itt(), 0xdeadbeefu);
    EXPECT_EQ(b.word20(), 4096u);
}

TEST(IscsiPdu, ValidationRefusesUnknownOpcodesAndOversizedSegments) {
    Bhs b;
    b.setOpcode(0x1f);
    EXPECT_EQ(validateInitiatorBhs(b, 8192), StatusCode::UnknownScsiRequest);
    b.setOpcode(kNopIn);  // a target opcode coming from the initiator
    EXPECT_EQ(validateInitiatorBhs(b, 8192), StatusCode::UnknownScsiRequest);
    b.setOpcode(kScsiCommand);
    b.setDataSegmentLength(8192);
    EXPECT_EQ(validateInitiatorBhs(b, 8192), StatusCode::Success);
    b.setDataSegmentLength(8193);
    EXPECT_EQ(validateInitiatorBhs(b, 8192), StatusCode::BadCommand);
    b.setOpcode(kTaskMgmtRequest);
    b.setDataSegmentLength(4);  // task management carries no data
    EXPECT_EQ(validateInitiatorBhs(b, 8192), StatusCode::BadCommand);
    b.setOpcode(kLoginRequest);
    b.setDataSegmentLength(kMaxBufferedSegment + 1);
    EXPECT_EQ(validateInitiatorBhs(b, 1 << 24), StatusCode::BadCommand);
}

TEST(IscsiPdu, SequenceNumbersCompareAcrossTheWrap) {
    EXPECT_TRUE(snLess(0xfffffff0u, 5u));
    EXPECT_FALSE(snLess(5u, 0xfffffff0u));
    EXPECT_TRUE(snLessEq(7u, 7u));
    EXPECT_FALSE(snLess(7u, 7u));
}

TEST(IscsiPdu, KeyValuesParseKeepOrderAndRejectPairsWithoutKey) {
    const char text[] = "InitiatorName=iqn.x\0SessionType=Normal\0\0\0";
    KeyValues kv;
    ASSERT_TRUE(parseKeyValues(reinterpret_cast<const uint8_t*>(text), sizeof text - 1, kv).ok());
    ASSERT_EQ(kv.size(), 2u);
    EXPECT_EQ(kv[0].first, "InitiatorName");
    EXPECT_EQ(kv[1].second, "Normal");
    auto built = buildKeyValues(kv);
    KeyValues again;
    ASSERT_TRUE(parseKeyValues(built.data(), built.size(), again).ok());
    EXPECT_EQ(again, kv);
    const char bad[] = "NoEqualsSign\0";
    KeyValues none;
    EXPECT_FALSE(parseKeyValues(reinterpret_cast<const uint8_t*>(bad), sizeof bad - 1, none).ok());
    const char empty[] = "=value\0";
    EXPECT_FALSE(parseKeyValues(reinterpret_cast<const uint8_t*>(empty), sizeof empty - 1, none).ok());
}

namespace {
std::string valueOf(const KeyValues& kv, const std::string& key) {
    for (const auto& [k, v] : kv)
        if (k == key) return v;
    return "<absent>";
}
}  // namespace

TEST(IscsiSessionParams, DefaultsHoldForKeysTheInitiatorDoesNotSend) {
    IscsiSessionParams p;
    negotiate(p, {{"InitiatorName", "iqn.i"}}, 1, true);
    EXPECT_TRUE(p.initialR2T);
    EXPECT_TRUE(p.immediateData);
    EXPECT_EQ(p.firstBurstLength, 65536u);
    EXPECT_EQ(p.maxBurstLength, 262144u);
    EXPECT_EQ(p.initiatorMaxRecvDataSegment, 8192u);
}

TEST(IscsiSessionParams, ResultsFollowEachKeysRule) {
    IscsiSessionParams p;
    auto r = negotiate(p,
                       {{"InitialR2T", "No"}, {"ImmediateData", "No"}, {"MaxBurstLength", "16777215"},
                        {"FirstBurstLength", "4096"}, {"MaxRecvDataSegmentLength", "131072"},
                        {"MaxOutstandingR2T", "8"}, {"ErrorRecoveryLevel", "2"}, {"MaxConnections", "4"}},
                       1, true);
    EXPECT_EQ(r.statusClass, 0);
    EXPECT_FALSE(p.initialR2T);  // OR of both sides: the target would go without
    EXPECT_FALSE(p.immediateData);  // AND
    EXPECT_EQ(p.maxBurstLength, IscsiSessionParams::kPreferMaxBurst);  // the smaller
    EXPECT_EQ(p.firstBurstLength, 4096u);
    EXPECT_EQ(p.initiatorMaxRecvDataSegment, 131072u);
    EXPECT_EQ(valueOf(r.response, "MaxOutstandingR2T"), "1");
    EXPECT_EQ(valueOf(r.response, "ErrorRecoveryLevel"), "0");
    EXPECT_EQ(valueOf(r.response, "MaxConnections"), "1");
    EXPECT_EQ(valueOf(r.response, "MaxRecvDataSegmentLength"), std::to_string(p.targetMaxRecvDataSegment));
    EXPECT_EQ(valueOf(r.response, "InitiatorName"), "<absent>");  // declarative keys get no answer
}

TEST(IscsiSessionParams, FirstBurstNeverExceedsMaxBurst) {
    IscsiSessionParams p;
    negotiate(p, {{"MaxBurstLength", "8192"}, {"FirstBurstLength", "65536"}}, 1, false);
    EXPECT_EQ(p.maxBurstLength, 8192u);
    EXPECT_EQ(p.firstBurstLength, 8192u);
}

TEST(IscsiSessionParams, DigestsAndAuthenticationTheTargetCannotDoFailTheLogin) {
    IscsiSessionParams p;
    auto digest = negotiate(p, {{"HeaderDigest", "CRC32C"}}, 1, false);
    EXPECT_EQ(digest.statusClass, 2);
    auto both = negotiate(p, {{"HeaderDigest", "CRC32C,None"}}, 1, false);
    EXPECT_EQ(both.statusClass, 0);
    EXPECT_EQ(valueOf(both.response, "HeaderDigest"), "None");
    auto chap = negotiate(p, {{"AuthMethod", "CHAP"}}, 0, false);
    EXPECT_EQ(chap.statusClass, 2);
    EXPECT_EQ(chap.statusDetail, 1);
    auto none = negotiate(p, {{"AuthMethod", "CHAP,None"}}, 0, false);
    EXPECT_EQ(valueOf(none.response, "AuthMethod"), "None");
    EXPECT_TRUE(p.authMethodNone);
}

TEST(IscsiSessionParams, MalformedAndUnknownKeysAreAnsweredNotObeyed) {
    IscsiSessionParams p;
    auto r = negotiate(p, {{"MaxBurstLength", "12abc"}, {"FirstBurstLength", "10"}, {"X-Vendor-Key", "1"},
                           {"InitialR2T", "Maybe"}, {"SessionType", "Normal"}},
                       1, false);
    EXPECT_EQ(valueOf(r.response, "MaxBurstLength"), "Reject");
    EXPECT_EQ(valueOf(r.response, "FirstBurstLength"), "Reject");  // below 512
    EXPECT_EQ(valueOf(r.response, "X-Vendor-Key"), "NotUnderstood");
    EXPECT_EQ(valueOf(r.response, "InitialR2T"), "Reject");
    EXPECT_EQ(p.maxBurstLength, 262144u);
    EXPECT_TRUE(p.initialR2T);
    auto bad = negotiate(p, {{"SessionType", "Other"}}, 1, false);
    EXPECT_EQ(bad.statusClass, 2);
}

TEST(IscsiSessionParams, WithChapConfiguredOnlyChapIsAccepted) {
    IscsiSessionParams p;
    p.chapRequired = true;
    auto none = negotiate(p, {{"AuthMethod", "None"}}, 0, false);
    EXPECT_EQ(none.statusClass, 2);
    EXPECT_EQ(none.statusDetail, 1);
    IscsiSessionParams q;
    q.chapRequired = true;
    auto both = negotiate(q, {{"AuthMethod", "None,CHAP"}}, 0, false);
    EXPECT_EQ(both.statusClass, 0);
    EXPECT_EQ(valueOf(both.response, "AuthMethod"), "CHAP");
    EXPECT_TRUE(q.authMethodChap);
    EXPECT_FALSE(q.authMethodNone);
}
