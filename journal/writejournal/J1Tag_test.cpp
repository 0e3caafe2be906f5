// The tag list: merging of contiguous writes into streams, the exact
// replacement, the limits of a stream and of a set, and the order in which
// overlapping writes reach the disks.
#include <thread>

#include "journal/writejournal/J1TestHarness.h"

using J1TagTest = J1Harness;

TEST_F(J1TagTest, ContiguousWritesMergeIntoOneStreamEitherSide) {
    hostWrite(0, 100, 8, 1);
    hostWrite(0, 108, 8, 2);  // after
    hostWrite(0, 92, 8, 3);   // before
    EXPECT_EQ(tags->numStreams(), 1u);
    EXPECT_EQ(tags->numTags(), 3u);
    EXPECT_EQ(tags->usedCapacity(), 24u * 512);
    ASSERT_TRUE(writeOneSet());
    ASSERT_EQ(lastSet.numTags, 1u);
    EXPECT_EQ(lastSet.items[0].lba, 92u);
    EXPECT_EQ(lastSet.items[0].length, 24u);
    EXPECT_EQ(lastSet.totalTags, 3u);
    // The stream runs in LBA order through its chain.
    EXPECT_EQ(disk.read(0, 92), 3u);
    EXPECT_EQ(disk.read(0, 100), 1u);
    EXPECT_EQ(disk.read(0, 115), 2u);
    EXPECT_EQ(tags->numTagsAllocated(), 0u);
    EXPECT_EQ(replay->countInState(ReplayTagState::EXECUTED), 3u);
}

TEST_F(J1TagTest, AnExactRepeatReplacesTheWaitingStreamAndAbortsItsReplayTags) {
    hostWrite(0, 100, 8, 1);
    hostWrite(0, 108, 8, 2);  // one stream [100, 116)
    hostWrite(0, 100, 16, 3);
    EXPECT_EQ(tags->dups(), 1u);
    EXPECT_EQ(tags->numStreams(), 1u);
    EXPECT_EQ(tags->numTags(), 1u);
    EXPECT_EQ(replay->countInState(ReplayTagState::PENDING), 1u);
    EXPECT_EQ(replay->numFree(), replay->numTags() - 1);
    drain();
    EXPECT_EQ(disk.read(0, 100), 3u);
    EXPECT_EQ(disk.read(0, 115), 3u);
    EXPECT_EQ(disk.cache.size() + disk.medium.size(), 16u) << "the replaced data were written";
}

TEST_F(J1TagTest, AnExactRepeatIsNotTakenOverWhenAnotherWaitingStreamOverlaps) {
    hostWrite(0, 100, 8, 1);
    hostWrite(0, 104, 8, 2);  // partial overlap: its own stream
    hostWrite(0, 100, 8, 3);  // exact of the first, but the second lies between them in time
    EXPECT_EQ(tags->dups(), 0u);
    EXPECT_EQ(tags->numStreams(), 3u);
    drain();
    EXPECT_EQ(disk.read(0, 100), 3u);
    EXPECT_EQ(disk.read(0, 104), 3u) << "the older overlapping write reached the disk after the newer one";
    EXPECT_EQ(disk.read(0, 108), 2u);
}

TEST_F(J1TagTest, APartialOverlapStartsANewStreamAndIsNeverMerged) {
    hostWrite(0, 100, 8, 1);
    hostWrite(0, 96, 8, 2);  // overlaps [100,104) and would be pre-contiguous with nothing else
    hostWrite(0, 108, 4, 3); // contiguous after the first stream, but ...
    EXPECT_EQ(tags->numStreams(), 2u) << "the third merges with the first: no overlap with it";
    hostWrite(0, 112, 8, 4);  // contiguous with [100,112) and overlapping nothing
    hostWrite(0, 98, 16, 5);  // overlaps both streams in part: new stream, merged nowhere
    EXPECT_EQ(tags->numStreams(), 3u);
    drain();
    for (uint64_t l = 98; l < 114; ++l) EXPECT_EQ(disk.read(0, l), 5u) << l;
    EXPECT_EQ(disk.read(0, 96), 2u);
    EXPECT_EQ(disk.read(0, 119), 4u);
}

TEST_F(J1TagTest, AWriteContiguousWithAStreamInProcessingStartsANewStream) {
    hostWrite(0, 0, 8, 1);
    PostWriteElem elem;
    ASSERT_TRUE(tags->Coalesce(elem, 0));
    hostWrite(0, 8, 8, 2);
    EXPECT_EQ(tags->numStreams(), 1u);
    EXPECT_EQ(tags->numTags(), 1u) << "the new write stands alone, not in the stream in processing";
    finishSet(elem);
    drain();
    EXPECT_EQ(disk.read(0, 8), 2u);
}

TEST_F(J1TagTest, AStreamStopsGrowingAt2048Sectors) {
    for (uint32_t i = 0; i < 8; ++i) hostWrite(0, i * 256, 256, i + 1);
    EXPECT_EQ(tags->numStreams(), 1u);
    hostWrite(0, 2048, 8, 9);
    EXPECT_EQ(tags->numStreams(), 2u);
    ASSERT_TRUE(writeOneSet());
    EXPECT_EQ(lastSet.items[0].length, 2048u);
}

TEST_F(J1TagTest, TwoSubClusterWritesOfOneClusterNeverShareASet) {
    oneAtATime = false;
    hostWrite(0, 0, 2, 1);
    hostWrite(0, 4, 2, 2);  // same cluster, not contiguous
    hostWrite(0, 64, 8, 3);
    ASSERT_TRUE(writeOneSet(0x800));
    EXPECT_EQ(lastSet.numTags, 1u) << "the set ends at the stream that shares a cluster";
    ASSERT_TRUE(writeOneSet(0x800));
    EXPECT_EQ(lastSet.numTags, 2u);
}

TEST_F(J1TagTest, EightOneSectorStreamsMakeOneSetAndTheNinthWaits) {
    oneAtATime = false;
    for (uint32_t i = 0; i < 9; ++i) hostWrite(0, i * 16, 1, i + 1);
    ASSERT_TRUE(writeOneSet(0x800));
    EXPECT_EQ(lastSet.numTags, 8u);
    EXPECT_EQ(lastSet.totalLength, 8u);
    ASSERT_TRUE(writeOneSet(0x800));
    EXPECT_EQ(lastSet.numTags, 1u);
}

TEST_F(J1TagTest, ASetEndsAtTheMinimumOrAtASufficientStream) {
    oneAtATime = false;
    hostWrite(0, 0, 0x400, 1);
    hostWrite(0, 0x1000, 8, 2);
    ASSERT_TRUE(writeOneSet(0x800));
    EXPECT_EQ(lastSet.numTags, 1u) << "a stream of 0x400 sectors is enough";
    ASSERT_TRUE(writeOneSet(0x800));
    hostWrite(0, 0x2000, 0x300, 3);
    hostWrite(0, 0x3000, 0x300, 4);
    hostWrite(0, 0x4000, 8, 5);
    ASSERT_TRUE(writeOneSet(0x500));
    EXPECT_EQ(lastSet.numTags, 2u) << "the minimum is reached with the second stream";
}

TEST_F(J1TagTest, LongStreamsGoFirstButNeverAheadOfAnOlderWriteOfTheSameCluster) {
    oneAtATime = false;
    hostWrite(0, 1000, 8, 1);  // the oldest waiting stream keeps its turn
    hostWrite(0, 0, 1, 2);     // short
    hostWrite(0, 8, 8, 3);
    hostWrite(0, 16, 64, 4);   // grows [8, ...): it moves ahead of the short one
    ASSERT_TRUE(writeOneSet(1));
    EXPECT_EQ(lastSet.items[0].lba, 1000u);
    ASSERT_TRUE(writeOneSet(1));
    EXPECT_EQ(lastSet.items[0].lba, 8u) << "the long stream goes before the shorter older one";
    ASSERT_TRUE(writeOneSet(1));
    EXPECT_EQ(lastSet.items[0].lba, 0u);
    // A stream that shares a cluster with a shorter older one stays behind it.
    hostWrite(0, 9000, 1, 5);
    hostWrite(0, 2000, 1, 6);
    hostWrite(0, 2002, 1, 7);
    hostWrite(0, 2003, 64, 8);
    ASSERT_TRUE(writeOneSet(1));
    EXPECT_EQ(lastSet.items[0].lba, 9000u);
    ASSERT_TRUE(writeOneSet(1));
    EXPECT_EQ(lastSet.items[0].lba, 2000u);
    drain();
    EXPECT_EQ(disk.read(0, 2003), 8u);
}

TEST_F(J1TagTest, AStreamWaitsForABatchInHandThatSharesItsCluster) {
    hostWrite(0, 0, 8, 1);
    PostWriteElem first;
    ASSERT_TRUE(tags->Coalesce(first, 0));
    hostWrite(0, 4, 8, 2);  // overlaps the batch in hand
    PostWriteElem second;
    std::atomic<bool> firstDone{false}, started{false};
    std::thread other([&] {
        started = true;
        ASSERT_TRUE(tags->Coalesce(second, 0));
        EXPECT_TRUE(firstDone) << "the newer write was taken while the older one was in hand";
    });
    // The other write thread may not take the newer write before the older
    // one is done: it gets it only once the first batch is destroyed.
    while (!started) std::this_thread::yield();
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    firstDone = true;
    finishSet(first);
    other.join();
    EXPECT_EQ(second.items[0].lba, 4u);
    finishSet(second);
    EXPECT_EQ(disk.read(0, 6), 2u);
}

TEST_F(J1TagTest, With4096TagsAllocatedTheNextSetupTagWaitsForAFreedOne) {
    oneAtATime = false;
    std::vector<WJTAG*> held;
    for (int i = 0; i < 4096; ++i) held.push_back(tags->AllocateTag());
    EXPECT_EQ(tags->numTagsAllocated(), 4096u);
    WJTAG* got = nullptr;
    std::thread waiter([&] { got = tags->AllocateTag(); });
    tags->FreeTag(held[1234]);
    waiter.join();
    EXPECT_EQ(got, held[1234]);
    for (WJTAG* t : held) tags->FreeTag(t);
    EXPECT_EQ(tags->numTagsAllocated(), 0u);
}

TEST_F(J1TagTest, AFailedAcknowledgedWriteIsKeptCountedAndReplayedAtTheNextStart) {
    hostWrite(0, 40, 8, 1);
    ASSERT_TRUE(writeOneSet(0, StatusCode::WriteError));
    EXPECT_EQ(replay->lostWrites(), 1u);
    EXPECT_EQ(replay->numHeld(), 1u);
    EXPECT_EQ(replay->countInState(ReplayTagState::PENDING), 1u);
    ASSERT_FALSE(events.empty());
    EXPECT_NE(events.back().find("acknowledged write failed (StatusCode::WriteError) Lun: 0 LBA: 0x28 Len: 0x8"),
              std::string::npos);
    EXPECT_FALSE(replay->isClean(false));
    {
        J1Ticker ticker;
        EXPECT_EQ(tags->WaitForJ1Empty(), StatusCode::Success) << "the drain does not wait for a held write";
    }
    EXPECT_EQ(replay->countInState(ReplayTagState::PENDING), 1u) << "a flush does not free a held write";
    powerCut();
    ASSERT_EQ(start(), StatusCode::Success);
    EXPECT_EQ(disk.read(0, 47), 1u);
    EXPECT_TRUE(replay->isClean(false));
    expectNothingLost("held write after the start");
}

TEST_F(J1TagTest, AFailedWriteNotYetAcknowledgedGoesBackToTheHost) {
    hostWrite(0, 40, 8, 1);
    requests.back()->clearFlag(ClientRequest::kWriteAcked);
    ASSERT_TRUE(writeOneSet(0, StatusCode::WriteError));
    EXPECT_EQ(replay->lostWrites(), 0u);
    EXPECT_EQ(replay->countInState(ReplayTagState::PENDING), 0u);
    EXPECT_EQ(requests.back()->status, StatusCode::WriteError);
}

TEST_F(J1TagTest, WaitForJ1EmptyLeavesNoTagAllocatedAndEveryExecutedTagFlushedAndFree) {
    oneAtATime = false;
    for (uint32_t i = 0; i < 20; ++i) hostWrite(0, i * 100, 8, i + 1);
    std::thread writer([&] {
        PostWriteElem e;
        while (tags->Coalesce(e, 0x800)) finishSet(e);
    });
    J1Ticker ticker;
    tags->WaitForJ1Empty();
    EXPECT_EQ(tags->numTagsAllocated(), 0u);
    EXPECT_EQ(replay->numFree(), replay->numTags());
    EXPECT_TRUE(disk.cache.empty());
    EXPECT_TRUE(replay->isClean(false));
    tags->Stop();
    writer.join();
}
