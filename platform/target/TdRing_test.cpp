// The rings and records of the host data path, as both sides rely on them:
// byte layout, wrap-around at 90 slots, the full ring, the slot that stays
// taken while the system works on it, and wake-ups that are never lost.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "platform/target/TdRing.h"

using namespace td;

TEST(TdRecords, FieldsAreLittleEndianAtTheirOffsets) {
    CommandBlock b = {};
    b.flags = kCmdWrite;
    b.lba = 0x0102030405060708ull;
    b.tag = 0xaabbccdd;
    b.lun = 3;
    const auto* raw = reinterpret_cast<const uint8_t*>(&b);
    EXPECT_EQ(raw[0], 0x01);
    EXPECT_EQ(raw[8], 0x08);   // LBA, low byte first
    EXPECT_EQ(raw[15], 0x01);
    EXPECT_EQ(raw[24], 0xdd);  // tag
    EXPECT_EQ(raw[40], 3);     // LUN
    CmdResp r = {};
    r.sgl = 0x186c;
    EXPECT_EQ(reinterpret_cast<const uint8_t*>(&r)[36], 0x6c);
    EXPECT_EQ(reinterpret_cast<const uint8_t*>(&r)[37], 0x18);
}

namespace {
struct Rings {
    alignas(4096) uint8_t region[kRingRegionSize] = {};
    CommandRing& commands() { return *reinterpret_cast<CommandRing*>(region + kMultiCommandRing); }
    ResponseRing& responses() { return *reinterpret_cast<ResponseRing*>(region + kMultiResponseRing); }
};
CommandBlock command(uint32_t tag) {
    CommandBlock b = {};
    b.flags = kCmdRead;
    b.tag = tag;
    return b;
}
}  // namespace

TEST(TdRing, CommandRingHoldsEightyNineAndWraps) {
    auto r = std::make_unique<Rings>();
    CommandRing& ring = r->commands();
    for (uint32_t i = 0; i < kRingSlots - 1; ++i) ASSERT_TRUE(commandRingPut(ring, command(i)));
    EXPECT_FALSE(commandRingPut(ring, command(999)));  // the 90th waits
    EXPECT_EQ(ringCount(ring.header), kRingSlots - 1);
    // Consume and refill past the end several times: order is kept across the wrap.
    uint32_t next = 0, tag = kRingSlots - 1;
    for (int round = 0; round < 300; ++round) {
        CommandBlock* c = nullptr;
        ASSERT_TRUE(commandRingGetNext(ring, c));
        EXPECT_EQ(c->tag.get(), next++);
        if (round >= 1) {
            ASSERT_TRUE(commandRingPut(ring, command(tag++)));
        }
    }
    EXPECT_LT(ring.header.head.get(), kRingSlots);
}

TEST(TdRing, TheSlotInWorkIsGivenBackOnlyWhenTheNextIsAskedFor) {
    auto r = std::make_unique<Rings>();
    CommandRing& ring = r->commands();
    for (uint32_t i = 0; i < kRingSlots - 1; ++i) ASSERT_TRUE(commandRingPut(ring, command(i)));
    CommandBlock* c = nullptr;
    ASSERT_TRUE(commandRingGetNext(ring, c));
    EXPECT_EQ(c->tag.get(), 0u);
    EXPECT_EQ(ring.header.processing.get(), 1u);
    // Still full: slot 0 is being worked on and must not be overwritten.
    EXPECT_FALSE(commandRingPut(ring, command(500)));
    ASSERT_TRUE(commandRingGetNext(ring, c));  // gives slot 0 back, takes slot 1
    EXPECT_EQ(c->tag.get(), 1u);
    EXPECT_TRUE(commandRingPut(ring, command(500)));
}

TEST(TdRing, AnEmptyRingClearsTheProcessingWord) {
    auto r = std::make_unique<Rings>();
    CommandRing& ring = r->commands();
    CommandBlock* c = reinterpret_cast<CommandBlock*>(1);
    EXPECT_FALSE(commandRingGetNext(ring, c));
    EXPECT_EQ(c, nullptr);
    ASSERT_TRUE(commandRingPut(ring, command(7)));
    ASSERT_TRUE(commandRingGetNext(ring, c));
    EXPECT_FALSE(commandRingGetNext(ring, c));  // gives the last slot back
    EXPECT_EQ(ring.header.processing.get(), 0u);
    EXPECT_EQ(ringCount(ring.header), 0u);
}

TEST(TdRing, ResponsesComeOutInOrderWithTheirLengths) {
    auto r = std::make_unique<Rings>();
    ResponseRing& ring = r->responses();
    ring.header.head = kRingSlots - 1;  // start at the last slot: the next head is 0
    ring.header.tail = kRingSlots - 1;
    for (uint32_t i = 0; i < 3; ++i) {
        CmdResp* slot = nullptr;
        ASSERT_TRUE(responseRingInsertPoint(ring, slot));
        std::memset(slot, 0, sizeof *slot);
        slot->tag = i;
        responseRingFinishInsert(ring, sizeof(CmdResp));
    }
    EXPECT_EQ(ring.header.head.get(), 2u);
    EXPECT_EQ(ring.lengths[kRingSlots - 1].get(), 40u);
    CmdResp out;
    for (uint32_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(responseRingTake(ring, out));
        EXPECT_EQ(out.tag.get(), i);
    }
    EXPECT_FALSE(responseRingTake(ring, out));
}

TEST(TdRing, FullResponseRingRefusesTheInsert) {
    auto r = std::make_unique<Rings>();
    ResponseRing& ring = r->responses();
    CmdResp* slot = nullptr;
    for (uint32_t i = 0; i < kRingSlots - 1; ++i) {
        ASSERT_TRUE(responseRingInsertPoint(ring, slot));
        responseRingFinishInsert(ring, 40);
    }
    EXPECT_FALSE(responseRingInsertPoint(ring, slot));
}

TEST(TdRing, ASleepingConsumerIsWokenAndABusyOneIsNot) {
    auto r = std::make_unique<Rings>();
    CommandRing& ring = r->commands();
    Le32& word = commandRingSleepWord(ring);
    EXPECT_FALSE(consumerSleeping(word));
    ASSERT_TRUE(prepareToSleep(word, ring.header));  // empty: may sleep
    EXPECT_TRUE(consumerSleeping(word));             // a producer now gives the semaphore
    awake(word);
    ASSERT_TRUE(commandRingPut(ring, command(1)));
    EXPECT_FALSE(prepareToSleep(word, ring.header));  // work arrived in between: stay awake
    EXPECT_FALSE(consumerSleeping(word));
    // The words used for sleeping are the ones the rings leave unused.
    EXPECT_EQ(reinterpret_cast<uint8_t*>(&word) - reinterpret_cast<uint8_t*>(&ring), 8);
    ResponseRing& rsp = r->responses();
    EXPECT_EQ(reinterpret_cast<uint8_t*>(&responseRingSleepWord(rsp)) - reinterpret_cast<uint8_t*>(&rsp), 12);
}
