// RTOS services on the virtual board clock: no test here sleeps in real time
// for a timeout; the clock is advanced instead.
#include "platform/rtos/Rtos.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

#include "platform/rtos/BoardClock.h"

namespace {

// Advances the board clock until the waiter is done. A count of steps is no bound here:
// on a loaded machine the waiter may not even have started its wait before a fixed number
// of steps runs out, and then it waits on a clock nobody advances. The wall-clock limit
// only ends a hang.
void advanceUntil(std::atomic<bool>& done, uint64_t stepTicks) {
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (!done && std::chrono::steady_clock::now() < limit) {
        BoardClock::GetInstance().advance(stepTicks);
        std::this_thread::yield();
    }
}

TEST(Rtos, ResumeThatArrivesFirstIsNotLost) {
    std::atomic<bool> resumed{false};
    std::atomic<TASK_ID> id{nullptr};
    SEM_ID ready = semBCreate(0, SEM_EMPTY);
    SEM_ID go = semBCreate(0, SEM_EMPTY);
    taskSpawn("tSuspender", 120, [&] {
        id = taskIdSelf();
        semGive(ready);
        semTake(go, WAIT_FOREVER);
        taskSuspend(nullptr);  // the resume below already happened
        resumed = true;
    });
    ASSERT_EQ(semTake(ready, WAIT_FOREVER), OK);
    taskResume(id);
    semGive(go);
    for (int i = 0; i < 2000 && !resumed; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(resumed);
}

TEST(Rtos, SemaphoreTimesOutInBoardTime) {
    SEM_ID s = semBCreate(0, SEM_EMPTY);
    std::atomic<bool> done{false};
    std::atomic<STATUS> result{OK};
    uint64_t start = tick64Get();
    std::thread t([&] {
        result = semTake(s, 5 * sysClkRateGet());
        done = true;
    });
    advanceUntil(done, 1);
    t.join();
    EXPECT_EQ(result, ERROR);
    EXPECT_GE(tick64Get() - start, uint64_t(5 * sysClkRateGet()));
    EXPECT_EQ(semTake(s, NO_WAIT), ERROR);
    semGive(s);
    EXPECT_EQ(semTake(s, NO_WAIT), OK);
}

TEST(Rtos, MutexSemaphoreIsRecursiveAndOwned) {
    SEM_ID m = semMCreate(SEM_Q_PRIORITY);
    ASSERT_EQ(semTake(m, WAIT_FOREVER), OK);
    ASSERT_EQ(semTake(m, WAIT_FOREVER), OK);
    STATUS other = OK;
    std::thread([&] { other = semGive(m); }).join();
    EXPECT_EQ(other, ERROR) << "only the owner may give a mutex";
    std::thread([&] { other = semTake(m, NO_WAIT); }).join();
    EXPECT_EQ(other, ERROR);
    EXPECT_EQ(semGive(m), OK);
    EXPECT_EQ(semGive(m), OK);
    std::thread([&] {
        other = semTake(m, NO_WAIT);
        semGive(m);
    }).join();
    EXPECT_EQ(other, OK);
}

TEST(Rtos, MessageQueueIsBoundedAndOrdered) {
    MSG_Q_ID q = msgQCreate(3, 4, 0);
    for (uint32_t v = 1; v <= 3; ++v) ASSERT_EQ(msgQSend(q, &v, 4, NO_WAIT, MSG_PRI_NORMAL), OK);
    uint32_t extra = 99;
    EXPECT_EQ(msgQSend(q, &extra, 4, NO_WAIT, MSG_PRI_NORMAL), ERROR);
    EXPECT_EQ(msgQSend(q, &extra, 8, NO_WAIT, MSG_PRI_NORMAL), ERROR) << "too long";
    uint32_t got = 0;
    for (uint32_t v = 1; v <= 3; ++v) {
        ASSERT_EQ(msgQReceive(q, &got, 4, NO_WAIT), 4);
        EXPECT_EQ(got, v);
    }
    EXPECT_EQ(msgQReceive(q, &got, 4, NO_WAIT), ERROR);
}

TEST(Rtos, DelayFollowsTheVirtualClock) {
    std::atomic<bool> done{false};
    uint64_t start = tick64Get();
    std::thread t([&] {
        taskDelay(30);
        done = true;
    });
    advanceUntil(done, 1);
    t.join();
    EXPECT_GE(tick64Get() - start, 30u);
}

}  // namespace

namespace {
// A wait for ever on the real clock must sleep, not spin: it must neither
// return early nor burn the processor while it waits.
TEST(RtosRealClock, WaitForeverSleeps) {
    BoardClock::GetInstance().configure(BoardClock::Mode::Real);
    SEM_ID s = semBCreate(0, SEM_EMPTY);
    std::atomic<bool> taken{false};
    std::clock_t cpuBefore = std::clock();
    std::thread t([&] {
        semTake(s, WAIT_FOREVER);
        taken = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(taken);
    semGive(s);
    t.join();
    EXPECT_TRUE(taken);
    double cpuSeconds = double(std::clock() - cpuBefore) / CLOCKS_PER_SEC;
    BoardClock::GetInstance().configure(BoardClock::Mode::Virtual);
    EXPECT_LT(cpuSeconds, 0.2) << "the waiting thread spun";
}
}  // namespace

#include "platform/rtos/RtosTimer.h"

namespace {
TEST(RtosTimer, OneShotRepeatingAndCancelOnTheBoardClock) {
    std::atomic<int> fired{0};
    std::atomic<TASK_ID> on{nullptr};
    RtosTimer timer("tTestTimer", 117);
    timer.connect([&] {
        on = taskIdSelf();
        fired++;
    });
    timer.settime(10, 0);
    BoardClock::GetInstance().advance(9);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(fired, 0) << "fired before its time";
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        while (fired < 1) std::this_thread::yield();
        done = true;
    });
    advanceUntil(done, 1);
    waiter.join();
    EXPECT_EQ(taskName(on), "tTestTimer");
    EXPECT_FALSE(timer.armed());

    timer.settime(5, 5);  // repeating
    done = false;
    std::thread waiter2([&] {
        while (fired < 4) std::this_thread::yield();
        done = true;
    });
    advanceUntil(done, 1);
    waiter2.join();
    timer.cancel();
    int now = fired;
    BoardClock::GetInstance().advance(100);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(fired, now) << "a cancelled timer fired";
}
}  // namespace
