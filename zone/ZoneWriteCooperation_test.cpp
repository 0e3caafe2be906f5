// Write thread cooperation between threads named as the host write threads:
// the holder of a line takes its neighbours' bytes, a neighbour that arrives
// late wakes the waiter, waits are bounded, and a sixth waiter never sleeps.
#include "zone/ZoneWriteCooperation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/rtos/BoardClock.h"

namespace {

constexpr uint32_t kLine = 3 * 0x1000;  // a line of three data columns

std::thread runAs(const std::string& name, std::function<void()> body) {
    return std::thread([name, body] {
        taskRegisterSelf(name, 120);
        body();
        taskExitSelf();
    });
}

DataWindow bytes(uint32_t offset, uint32_t length) {
    DataWindow w(length, 0, length);
    std::vector<uint8_t> b(length);
    for (uint32_t i = 0; i < length; ++i) b[i] = uint8_t((offset + i) * 31 >> 3);
    DataBuffer buf{length, b.data()};
    w.Write(buf);
    return w;
}

bool holds(const DataWindow& w, uint32_t offset) {
    std::vector<uint8_t> b(w.GetLength());
    DataBuffer buf{uint32_t(b.size()), b.data()};
    w.Read(buf);
    for (uint32_t i = 0; i < b.size(); ++i)
        if (b[i] != uint8_t((offset + i) * 31 >> 3)) return false;
    return true;
}

void waitFor(const std::function<bool()>& pred) {
    while (!pred()) std::this_thread::yield();
}

TEST(ZoneWriteCooperation, SlotOfCallerComesFromTheWriteThreadName) {
    std::vector<int> slots(4, -2);
    std::vector<std::thread> threads;
    const char* names[] = {"tWPThread0", "tWPThread9", "tRPThread1", "tWPThread"};
    for (int i = 0; i < 4; ++i)
        threads.push_back(runAs(names[i], [&, i] { slots[i] = ZoneWriteCooperation::slotOfCaller(); }));
    for (auto& t : threads) t.join();
    EXPECT_EQ(slots, (std::vector<int>{0, 9, -1, -1}));
    EXPECT_EQ(ZoneWriteCooperation::slotOfCaller(), -1) << "the test's own thread is no write thread";
}

TEST(ZoneWriteCooperation, TheHolderTakesBothNeighboursBytesAndTheyFindNothingLeft) {
    ZoneWriteCooperation coop;
    // Three threads hold the start, middle and end of line 4 of Zone 7.
    const uint32_t line = 4 * kLine;
    DataWindow left = bytes(line, 0x800), middle = bytes(line + 0x800, 0x1000),
               right = bytes(line + 0x1800, kLine - 0x1800 + kLine);  // runs on into line 5
    std::atomic<int> recorded{0};
    std::atomic<bool> taken{false};
    uint32_t pos = 0, length = 0;
    DataWindow active;
    bool leftAny = true, rightAny = true;
    uint32_t rightStart = 0, rightEnd = 0;
    auto a = runAs("tWPThread1", [&] {
        coop.record(1, 7, line, 0x800, &left);
        ++recorded;
        waitFor([&] { return taken.load(); });
        uint32_t s, e;
        leftAny = coop.remaining(1, s, e);
        coop.clear(1);
    });
    auto c = runAs("tWPThread2", [&] {
        coop.record(2, 7, line + 0x1800, right.GetLength(), &right);
        ++recorded;
        waitFor([&] { return taken.load(); });
        rightAny = coop.remaining(2, rightStart, rightEnd);
        coop.clear(2);
    });
    auto b = runAs("tWPThread0", [&] {
        waitFor([&] { return recorded.load() == 2; });
        coop.record(0, 7, line + 0x800, 0x1000, &middle);
        pos = line + 0x800, length = 0x1000;
        active = DataWindow(middle, 0, 0x1000);
        coop.completeLine(0, 7, kLine, pos, length, active);
        coop.clear(0);
        taken = true;
    });
    a.join(), b.join(), c.join();
    EXPECT_EQ(pos, line);
    EXPECT_EQ(length, kLine);
    EXPECT_TRUE(holds(active, line)) << "the whole line, in order";
    EXPECT_FALSE(leftAny) << "the left neighbour's piece was taken whole";
    EXPECT_TRUE(rightAny);
    EXPECT_EQ(rightStart, line + kLine) << "the right neighbour keeps only what lies past the line";
    EXPECT_EQ(rightEnd, line + 0x1800 + right.GetLength());
    EXPECT_EQ(coop.bytesTaken(), 0x800u + (kLine - 0x1800));
    EXPECT_EQ(coop.waits(), 0u);
}

TEST(ZoneWriteCooperation, AWaiterIsWokenByTheNeighbourThatCompletesItsLine) {
    ZoneWriteCooperation coop;
    DataWindow first = bytes(0, 0x2000), second = bytes(0x2000, 0x1000);
    uint32_t pos = 0, length = 0x2000;
    DataWindow active(first, 0, 0x2000);
    auto a = runAs("tWPThread3", [&] {
        coop.record(3, 1, 0, 0x2000, &first);
        coop.completeLine(3, 1, kLine, pos, length, active);
        coop.clear(3);
    });
    waitFor([&] { return coop.waiters() == 1; });
    auto b = runAs("tWPThread4", [&] {
        coop.record(4, 1, 0x2000, 0x1000, &second);  // wakes the waiter; no clock moves
    });
    a.join(), b.join();
    EXPECT_EQ(length, kLine);
    EXPECT_TRUE(holds(active, 0));
    EXPECT_EQ(coop.waits(), 1u);
    uint32_t s, e;
    EXPECT_FALSE(coop.remaining(4, s, e)) << "the late neighbour finds its bytes written by the waiter";
}

TEST(ZoneWriteCooperation, AWaitEndsAfterATenthOfASecondAndTheGapIsLeft) {
    ZoneWriteCooperation coop;
    DataWindow piece = bytes(0x1000, 0x1000);
    uint32_t pos = 0x1000, length = 0x1000;
    DataWindow active(piece, 0, 0x1000);
    std::atomic<bool> done{false};
    auto a = runAs("tWPThread5", [&] {
        coop.record(5, 2, pos, length, &piece);
        coop.completeLine(5, 2, kLine, pos, length, active);
        coop.clear(5);
        done = true;
    });
    waitFor([&] { return coop.waiters() == 1; });
    while (!done) {
        BoardClock::GetInstance().advance(1);
        std::this_thread::yield();
    }
    a.join();
    EXPECT_EQ(pos, 0x1000u);
    EXPECT_EQ(length, 0x1000u) << "nothing came: the writer fills the gap from disk";
    EXPECT_EQ(coop.waiters(), 0u);
}

TEST(ZoneWriteCooperation, APieceMissingOnlyItsFrontGoesOnWithoutWaiting) {
    // The piece in front of it was placed earlier and has been written: no
    // one would ever wake a wait for it, so the writer fills it from disk at
    // once, with no clock moving.
    ZoneWriteCooperation coop;
    DataWindow piece = bytes(kLine - 0x1000, 0x1000);
    uint32_t pos = kLine - 0x1000, length = 0x1000;
    DataWindow active(piece, 0, 0x1000);
    auto a = runAs("tWPThread2", [&] {
        coop.record(2, 2, pos, length, &piece);
        coop.completeLine(2, 2, kLine, pos, length, active);
        coop.clear(2);
    });
    a.join();
    EXPECT_EQ(coop.waits(), 0u);
    EXPECT_EQ(pos, kLine - 0x1000);
    EXPECT_EQ(length, 0x1000u);
}

TEST(ZoneWriteCooperation, NoMoreThanFiveThreadsWaitAtOnce) {
    ZoneWriteCooperation coop;
    std::vector<DataWindow> pieces;
    for (unsigned i = 0; i < 6; ++i) pieces.push_back(bytes(i * 4 * kLine, 0x1000));
    std::vector<std::thread> threads;
    std::atomic<int> finished{0};
    for (unsigned i = 0; i < 5; ++i)
        threads.push_back(runAs("tWPThread" + std::to_string(i), [&, i] {
            uint32_t pos = i * 4 * kLine, length = 0x1000;
            DataWindow active(pieces[i], 0, 0x1000);
            coop.record(int(i), 3, pos, length, &pieces[i]);
            coop.completeLine(int(i), 3, kLine, pos, length, active);
            coop.clear(int(i));
            ++finished;
        }));
    waitFor([&] { return coop.waiters() == 5; });
    // The sixth finds five waiting and goes on at once, with no clock moving.
    auto sixth = runAs("tWPThread5", [&] {
        uint32_t pos = 5 * 4 * kLine, length = 0x1000;
        DataWindow active(pieces[5], 0, 0x1000);
        coop.record(5, 3, pos, length, &pieces[5]);
        coop.completeLine(5, 3, kLine, pos, length, active);
        coop.clear(5);
    });
    sixth.join();
    EXPECT_EQ(coop.waits(), 5u);
    while (finished < 5) {
        BoardClock::GetInstance().advance(1);
        std::this_thread::yield();
    }
    for (auto& t : threads) t.join();
}

}  // namespace
