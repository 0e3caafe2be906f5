// The replay tags: their states and flush, the replay after a power cut, and
// the start cases (magics, another pack's journal, read-only).
#include <sstream>
#include <thread>

#include "journal/writejournal/J1TestHarness.h"

using J1ReplayTest = J1Harness;

namespace {
bool anyEventHas(const std::vector<std::string>& events, const std::string& text) {
    for (const auto& e : events)
        if (e.find(text) != std::string::npos) return true;
    return false;
}
}  // namespace

TEST_F(J1ReplayTest, TheCacheHoldsTheNumberOfTagsItsSizeAllowsAndTheLayoutIsLittleEndian) {
    EXPECT_EQ(replay->numTags(), 1637u);
    EXPECT_EQ(getLE32(nv.data()), J1Replay::J1_REPLAY_MAGIC);
    EXPECT_EQ(getLE32(nv.data() + 0x10), 1637u);
    EXPECT_EQ(getLE32(nv.data() + 0x08), 7u);
    EXPECT_EQ(replay->flushThreshold(), (kJ1Size - 0xA00000) / 512);
    ClientRequest* r = hostWrite(3, 0x123456789ull, 5, 42);
    const uint8_t* t = reinterpret_cast<const uint8_t*>(r->tag);
    EXPECT_EQ(t - nv.data() - 0x14, 0) << "the first free tag is tag 0";
    EXPECT_EQ(getLE32(t), uint32_t(ReplayTagState::PENDING));
    EXPECT_EQ(getLE64(t + 0x04), 0x123456789ull);
    EXPECT_EQ(getLE32(t + 0x0C), 3u);
    EXPECT_EQ(getLE32(t + 0x10), 0u) << "startOffsst from the start of the journal memory";
    EXPECT_EQ(getLE32(t + 0x14), 5u);
    EXPECT_EQ(getLE32(t + 0x18), 1u);
}

TEST_F(J1ReplayTest, ATagExecutedAfterAFlushBeganSurvivesThatFlush) {
    hostWrite(0, 0, 8, 1);
    hostWrite(0, 64, 8, 2);
    ASSERT_EQ(tags->numStreams(), 2u);
    ASSERT_TRUE(writeOneSet());
    ASSERT_EQ(tags->numStreams(), 1u);
    // The second write finishes while the flush is under way.
    bool once = true;
    replay->hooks.flushAllDrives = [this, &once] {
        disk.flush();
        if (once) {
            EXPECT_TRUE(writeOneSet());
        }
        once = false;
        return StatusCode(StatusCode::Success);
    };
    replay->flushIfNeeded(true);
    EXPECT_EQ(replay->countInState(ReplayTagState::EXECUTED), 1u);
    EXPECT_EQ(replay->executedSpace(), 9u);
    replay->flushIfNeeded(true);
    EXPECT_EQ(replay->countInState(ReplayTagState::EXECUTED), 0u);
    EXPECT_EQ(replay->numFree(), replay->numTags());
}

TEST_F(J1ReplayTest, AFailedFlushFreesNothing) {
    hostWrite(0, 0, 8, 1);
    ASSERT_TRUE(writeOneSet());
    failFlush = true;
    replay->flushIfNeeded(true);
    EXPECT_EQ(replay->countInState(ReplayTagState::EXECUTED), 1u);
    powerCut();
    failFlush = false;
    ASSERT_EQ(start(), StatusCode::Success);
    expectNothingLost("after a failed flush and a cut");
}

TEST_F(J1ReplayTest, FlushComesWhenSpaceIsShortOrTagsAreFewNotBefore) {
    oneAtATime = true;
    hostWrite(0, 0, 8, 1);
    ASSERT_TRUE(writeOneSet());
    EXPECT_EQ(replay->flushes(), 0u) << "plenty of tags and space: no flush";
    // A write as large as the flush threshold: space is short after it.
    hostWrite(0, 1000, replay->flushThreshold(), 2);
    ASSERT_TRUE(writeOneSet());
    EXPECT_EQ(replay->flushes(), 1u);
    EXPECT_EQ(replay->numFree(), replay->numTags());
}

TEST_F(J1ReplayTest, AllTagsInUseBlockTheNextAllocationUntilAnAbortFreesOne) {
    std::vector<ClientRequest*> reqs;
    for (uint32_t i = 0; i < replay->numTags(); ++i) reqs.push_back(hostWrite(0, i * 8, 1, i + 1));
    EXPECT_EQ(replay->numFree(), 0u);
    std::vector<uint8_t> data(512, 0xab);
    ClientRequest extra;
    extra.lun = 0;
    extra.lba = 1 << 20;
    extra.len = 1;
    extra.store = new DataStore(j1mem.data() + kJ1Size - 4096, 512);
    J1ReplayTag* got = nullptr;
    std::thread transport([&] { got = replay->allocateTag(extra); });
    {
        J1Ticker ticker;  // the waiting allocation retries a tick at a time
        replay->abortTag(*reqs[5]->tag);
        transport.join();
    }
    EXPECT_EQ(got, reqs[5]->tag);
    EXPECT_EQ(got->state(), ReplayTagState::PENDING);
}

TEST_F(J1ReplayTest, ReplayWritesEveryLiveTagInHostOrderThroughTheInPlacePath) {
    hostWrite(0, 0, 8, 1);
    hostWrite(0, 4, 8, 2);
    hostWrite(1, 100, 3, 3);
    hostWrite(0, 2, 1, 4);
    ASSERT_TRUE(writeOneSet());  // the first reaches the disk's cache, EXECUTED
    disk.rng.seed(3);
    powerCut();
    ASSERT_EQ(start(), StatusCode::Success);
    EXPECT_EQ(replayWrites, 4u);
    EXPECT_EQ(replay->lastReplayedTags(), 4u);
    EXPECT_EQ(replay->lastReplayedSectors(), 20u);
    EXPECT_TRUE(disk.cache.empty()) << "the replay flushes every disk";
    EXPECT_EQ(disk.read(0, 2), 4u);
    EXPECT_EQ(disk.read(0, 4), 2u);
    EXPECT_EQ(disk.read(0, 1), 1u);
    expectNothingLost("after replay");
    EXPECT_TRUE(anyEventHas(events, "J1R::replay GOOD sig 0x4a315201 replayed 4 tags"));
    EXPECT_TRUE(replay->isClean(false));
    EXPECT_EQ(replay->numFree(), replay->numTags());
    // The next start finds nothing to do.
    powerCut();
    events.clear();
    ASSERT_EQ(start(), StatusCode::Success);
    EXPECT_TRUE(anyEventHas(events, "J1R::replay GOOD sig 0x4a315201 NO REPLAY NEEDED"));
}

// A newer write finishes on one write thread while an older overlapping one
// is still PENDING on another; a flush then comes. If the newer tag were
// freed, a cut would replay the older write alone over the newer data.
TEST_F(J1ReplayTest, AnExecutedTagIsNotFreedWhileAnOlderLiveTagOverlapsIt) {
    hostWrite(0, 0, 8, 1);
    ClientRequest* newer = hostWrite(0, 4, 8, 2);
    disk.write(0, 4, j1mem.data() + newer->tag->startOffset(), 8);
    replay->setTagState(*newer->tag, ReplayTagState::EXECUTED);
    replay->flushIfNeeded(true);
    EXPECT_EQ(newer->tag->state(), ReplayTagState::EXECUTED) << "freed under an older overlapping live tag";
    EXPECT_EQ(replay->keptByOverlap(), 1u);
    // The cut at that moment: the replay lays the older write down first.
    powerCut();
    ASSERT_EQ(start(), StatusCode::Success);
    EXPECT_EQ(disk.read(0, 5), 2u);
    EXPECT_EQ(disk.read(0, 1), 1u);
    expectNothingLost("cut with an older overlapping tag live");
}

TEST_F(J1ReplayTest, OnceTheOlderOverlappingTagIsExecutedBothGoAtTheNextFlush) {
    ClientRequest* older = hostWrite(0, 0, 8, 1);
    ClientRequest* newer = hostWrite(0, 4, 8, 2);
    replay->setTagState(*newer->tag, ReplayTagState::EXECUTED);
    replay->flushIfNeeded(true);
    replay->setTagState(*older->tag, ReplayTagState::EXECUTED);
    replay->flushIfNeeded(true);
    EXPECT_EQ(replay->numFree(), replay->numTags());
}

TEST_F(J1ReplayTest, ACutInsideTheRebuildFindsNoJournalNeverASubsetOfOldTags) {
    for (const char* at : {"j1r.replay.magic", "j1r.cache.magic"}) {
        SCOPED_TRACE(at);
        hostWrite(0, 0, 8, 1);
        hostWrite(0, 0, 8, 2);  // exact repeat: the first is aborted
        hostWrite(0, 8, 8, 3);
        powerCut();
        J1Replay::setCutHook([at](const char* p) {
            if (std::string(p) == at) throw J1PowerCut();
        });
        EXPECT_THROW(start(), J1PowerCut);
        powerCut();
        // Whatever the magic says now, the replayed data are on the medium.
        ASSERT_EQ(start(), StatusCode::Success);
        expectNothingLost(at);
        EXPECT_EQ(replay->numFree(), replay->numTags());
    }
}

TEST_F(J1ReplayTest, KnownAndBadMagicsStartEmpty) {
    for (uint32_t magic : {0u, 0x55555555u, 0x12345678u}) {
        hostWrite(0, 0, 8, 1);
        powerCut();
        putLE32(nv.data(), magic);
        events.clear();
        ASSERT_EQ(start(), StatusCode::Success);
        std::ostringstream want;
        want << "J1R:replay: " << (magic == 0x12345678u ? "bad" : "known") << " magic [0x" << std::hex << magic
             << "] no J1 replay";
        EXPECT_TRUE(anyEventHas(events, want.str())) << want.str();
        EXPECT_EQ(replayWrites, 0u);
        EXPECT_EQ(getLE32(nv.data()), J1Replay::J1_REPLAY_MAGIC);
        EXPECT_EQ(replay->numFree(), replay->numTags());
        acked.clear();
    }
}

TEST_F(J1ReplayTest, ADirtyJournalOfAnotherPackIsKeptAndWritesNothing) {
    hostWrite(0, 0, 8, 1);
    powerCut();
    events.clear();
    EXPECT_EQ(start(pack(9)), StatusCode::J1_NoTags);
    EXPECT_EQ(replayWrites, 0u);
    EXPECT_TRUE(anyEventHas(events, "J1R:replay: loading pack 00000009fffffff6 does not own J1 00000007fffffff8"));
    EXPECT_TRUE(anyEventHas(events, "1 live tags of pack 00000007fffffff8 kept"));
    EXPECT_EQ(getLE32(nv.data() + 0x14), uint32_t(ReplayTagState::PENDING));
    // Its own pack comes back: the write is replayed.
    powerCut();
    ASSERT_EQ(start(pack(7)), StatusCode::Success);
    EXPECT_EQ(replayWrites, 1u);
    expectNothingLost("own pack back");
}

TEST_F(J1ReplayTest, ACleanJournalOfAnotherPackIsTakenOver) {
    hostWrite(0, 0, 8, 1);
    drain();
    replay->flushIfNeeded(true);
    powerCut();
    events.clear();
    ASSERT_EQ(start(pack(9)), StatusCode::Success);
    EXPECT_TRUE(anyEventHas(events, "does not own J1"));
    EXPECT_EQ(getLE32(nv.data() + 0x08), 9u);
    EXPECT_EQ(replay->numFree(), replay->numTags());
}

TEST_F(J1ReplayTest, AReadOnlyStartWritesNothingAndKeepsTheTags) {
    hostWrite(0, 0, 8, 1);
    hostWrite(0, 64, 8, 2);
    powerCut();
    events.clear();
    ASSERT_EQ(start(pack(7), true), StatusCode::Success);
    EXPECT_EQ(replayWrites, 0u);
    EXPECT_TRUE(anyEventHas(events, "J1R::replay GOOD sig 0x4a315201 -- READ-ONLY mode replay skipped & tags preservered"));
    EXPECT_FALSE(replay->isClean(false));
    EXPECT_EQ(replay->numFree(), replay->numTags() - 2);
    powerCut();
    ASSERT_EQ(start(), StatusCode::Success);
    EXPECT_EQ(replayWrites, 2u);
    expectNothingLost("after a read-only start");
}
