#include "util/LockObject.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
#include <thread>
#include <vector>

#include "util/ConsoleCommand.h"
#include "util/Eventually.h"
#include "util/ReentrantLockObject.h"

TEST(LockObject, ExclusiveAndSharedHoldsAreExact) {
    LockObject lock("lTestExact", 0);
    EXPECT_FALSE(lock.OwnsLock());
    lock.LockExclusive();
    EXPECT_TRUE(lock.OwnsLock());
    EXPECT_TRUE(lock.isExclusive());
    bool otherOwns = true;
    std::thread([&] { otherOwns = lock.OwnsLock(); }).join();
    EXPECT_FALSE(otherOwns);
    lock.LockRelease();
    EXPECT_FALSE(lock.isLocked());

    lock.LockShared();
    std::thread([&] {
        LockObject::SharedLockInstance s(&lock);
        otherOwns = lock.OwnsLock();
    }).join();
    EXPECT_TRUE(otherOwns);
    EXPECT_TRUE(lock.OwnsLock());
    EXPECT_FALSE(lock.isExclusive());
    lock.LockRelease();
    EXPECT_FALSE(lock.isLocked());
}

TEST(LockObject, AReaderNeverOvertakesAQueuedWriter) {
    LockObject lock("lTestFair", 0);
    lock.LockShared();  // a reader holds it
    std::atomic<int> order{0};
    int writerAt = 0, readerAt = 0;
    std::thread writer([&] {
        LockObject::ExclusiveLockInstance x(&lock);
        writerAt = ++order;
    });
    ASSERT_TRUE(eventually([&] { return lock.waiters() == 1; }));
    std::thread reader([&] {
        LockObject::SharedLockInstance s(&lock);
        readerAt = ++order;
    });
    ASSERT_TRUE(eventually([&] { return lock.waiters() == 2; }))
        << "a reader arriving behind a queued writer must queue, even though only readers hold the lock";
    lock.LockRelease();
    writer.join();
    reader.join();
    EXPECT_EQ(writerAt, 1);
    EXPECT_EQ(readerAt, 2);
}

TEST(LockObject, SharedWaitersBehindAWriterAllGetInAndTheNextWriterWaitsForThem) {
    LockObject lock("lTestChain", 0);
    lock.LockExclusive();
    std::atomic<int> readersIn{0};
    std::atomic<bool> releaseReaders{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i)
        readers.emplace_back([&] {
            LockObject::SharedLockInstance s(&lock);
            readersIn++;
            eventually([&] { return releaseReaders.load(); });
        });
    ASSERT_TRUE(eventually([&] { return lock.waiters() == 3; }));
    std::atomic<bool> writerIn{false};
    std::thread writer([&] {
        LockObject::ExclusiveLockInstance x(&lock);
        writerIn = true;
    });
    ASSERT_TRUE(eventually([&] { return lock.waiters() == 4; }));
    lock.LockRelease();
    ASSERT_TRUE(eventually([&] { return readersIn.load() == 3; })) << "all three readers get in together";
    EXPECT_EQ(lock.sharedCount(), 3);
    EXPECT_FALSE(writerIn.load());
    releaseReaders = true;
    for (auto& r : readers) r.join();
    writer.join();
    EXPECT_TRUE(writerIn.load());
    EXPECT_FALSE(lock.isLocked());
}

namespace {
// Threads hammer one lock; `take(lock, thread, round, holder)` takes it in
// some mode and calls holder.exclusive() or holder.shared() while it holds it.
// Every exclusive holder must be alone, every shared one free of writers, and
// the lock free with nobody queued at the end.
struct Holders {
    std::atomic<int> writersIn{0}, readersIn{0}, violations{0};
    long counter = 0;  // changed by exclusive holders only
    void exclusive() {
        if (writersIn.fetch_add(1) != 0 || readersIn.load() != 0) violations++;
        ++counter;
        writersIn--;
    }
    void shared() {
        readersIn++;
        if (writersIn.load() != 0) violations++;
        readersIn--;
    }
};

template <class Take>
void hammer(LockObject& lock, int threads, int rounds, long exclusiveHolds, Take take) {
    Holders holders;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i) take(lock, t, i, holders);
        });
    for (auto& th : pool) th.join();
    EXPECT_EQ(holders.violations.load(), 0);
    EXPECT_EQ(holders.counter, exclusiveHolds);
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(lock.waiters(), 0u);
}
}  // namespace

TEST(LockObject, HammeredFromManyThreadsKeepsExclusionAndSharing) {
    LockObject lock("lTestHammer", 0);
    constexpr int kThreads = 8, kRounds = 4000;
    long expected = 0;
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kRounds; ++i) expected += (i + t) % 3 == 0;
    hammer(lock, kThreads, kRounds, expected, [](LockObject& l, int t, int i, Holders& h) {
        if ((i + t) % 3 == 0) {
            LockObject::ExclusiveLockInstance x(&l);
            h.exclusive();
        } else {
            LockObject::SharedLockInstance s(&l);
            h.shared();
        }
    });
}

// Brief holds keep the protection held and release with a store: mixed with
// lengthened brief holds, ordinary writers and readers they must still
// exclude every other holder.
TEST(LockObject, BriefHoldsExcludeEveryOtherHolder) {
    LockObject lock("lTestBrief", 0);
    constexpr int kThreads = 6, kRounds = 4000;
    hammer(lock, kThreads, kRounds, long(kThreads) * kRounds * 3 / 4, [](LockObject& l, int t, int i, Holders& h) {
        switch ((i + t) % 4) {
            case 0: {
                LockObject::BriefExclusiveLockInstance b(&l);
                h.exclusive();
                break;
            }
            case 1: {
                LockObject::BriefExclusiveLockInstance b(&l);
                if (!l.OwnsLock()) h.violations++;
                b.lengthen();  // others may queue from here
                std::this_thread::yield();
                h.exclusive();
                break;
            }
            case 2: {
                LockObject::ExclusiveLockInstance x(&l);
                h.exclusive();
                break;
            }
            default: {
                LockObject::SharedLockInstance s(&l);
                h.shared();
            }
        }
    });
}

TEST(LockObject, ABriefHolderCanDumpAndAfterLengthenOthersQueue) {
    LockObject lock("lTestBriefQueue", 0);
    lock.LockExclusiveBrief();
    EXPECT_TRUE(lock.OwnsLock());
    std::ostringstream out;
    lock.Dump(out, false);  // the holder has the protection already: must not wait on itself
    EXPECT_NE(out.str().find("LOCKED Exclusive by: tUnitTest"), std::string::npos) << out.str();
    lock.Lengthen();
    bool got = false;
    std::thread waiter([&] {
        LockObject::BriefExclusiveLockInstance b(&lock);  // held: an ordinary queued take
        got = true;
    });
    ASSERT_TRUE(eventually([&] { return lock.waiters() == 1; }));
    EXPECT_FALSE(got);
    lock.LockRelease();
    waiter.join();
    EXPECT_TRUE(got);
    EXPECT_FALSE(lock.isLocked());
}

TEST(LockObject, DumpNamesHoldersAndWaiters) {
    LockObject lock("lTestDump", 7);
    lock.LockExclusive();
    std::thread waiter([&] { LockObject::SharedLockInstance s(&lock); });
    ASSERT_TRUE(eventually([&] { return lock.waiters() == 1; }));
    std::ostringstream out;
    lock.Dump(out, true);
    EXPECT_NE(out.str().find("lTestDump): currently LOCKED Exclusive by: tUnitTest"), std::string::npos) << out.str();
    EXPECT_NE(out.str().find(" There are 1 other tasks blocked on this LockObject"), std::string::npos);
    EXPECT_NE(out.str().find("Blocked Lock type is Shared"), std::string::npos);
    lock.LockRelease();
    waiter.join();
}

TEST(LockObject, BypassMakesEveryOperationReturnAtOnce) {
    LockObject lock("lTestBypass", 0);
    lock.LockExclusive();
    LockObjectBase::bypass = true;
    bool ran = false;
    std::thread([&] {
        LockObject::ExclusiveLockInstance x(&lock);  // would block without the bypass
        ran = lock.OwnsLock();
    }).join();
    LockObjectBase::bypass = false;
    EXPECT_TRUE(ran);
    lock.LockRelease();
}

TEST(LockObjectDeath, ReleaseByATaskThatHoldsNothingIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    LockObject lock("lTestNotHeld", 0);
    lock.LockShared();
    EXPECT_EXIT((::dup2(2, 1), std::thread([&] { lock.LockRelease(); }).join()), testing::ExitedWithCode(75), "Assertion failed");
    lock.LockRelease();
}

TEST(LockObjectDeath, AStuckWaitDumpsTheOwnerInsteadOfHanging) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    LockObject lock("lTestStuck", 0);
    lock.LockExclusive();
    EXPECT_EXIT(
        {
            ::dup2(2, 1);  // the assertion report goes to stdout
            LockObjectBase::setWaitLimitMs(50);
            std::thread([&] { lock.LockExclusive(); }).join();
        },
        testing::ExitedWithCode(75), "Lock wait limit passed(.|\n)*lTestStuck\\): currently LOCKED Exclusive by: tUnitTest");
    lock.LockRelease();
}

TEST(ReentrantLockObject, TheHolderMayReenterAndOthersWait) {
    ReentrantLockObject lock("rTestReentrant", 0);
    std::atomic<bool> otherIn{false};
    std::thread other;
    {
        ReentrantLockObject::LockInstance a(&lock);
        ReentrantLockObject::LockInstance b(&lock);
        EXPECT_TRUE(lock.OwnsLock());
        other = std::thread([&] {
            ReentrantLockObject::LockInstance c(&lock);
            otherIn = true;
        });
        // The other thread cannot get in while we hold it twice.
        for (int i = 0; i < 1000; ++i) std::this_thread::yield();
        EXPECT_FALSE(otherIn.load());
    }
    other.join();
    EXPECT_TRUE(otherIn.load());
    EXPECT_FALSE(lock.OwnsLock());
}

TEST(LockConsole, DumpLockShowsTheNamedLockOrEveryHeldOne) {
    LockObject held("lTestConsoleHeld", 0), idle("lTestConsoleIdle", 0);
    held.LockExclusive();
    std::ostringstream named, all, none;
    ConsoleCommand::ExecuteLine("dumpLock lTestConsoleIdle", named);
    EXPECT_NE(named.str().find("lTestConsoleIdle): currently not locked"), std::string::npos) << named.str();
    ConsoleCommand::ExecuteLine("dumpLock", all);
    EXPECT_NE(all.str().find("lTestConsoleHeld): currently LOCKED Exclusive"), std::string::npos) << all.str();
    EXPECT_EQ(all.str().find("lTestConsoleIdle"), std::string::npos);
    ConsoleCommand::ExecuteLine("dumpLock lNoSuchLock", none);
    EXPECT_NE(none.str().find("No lock named lNoSuchLock"), std::string::npos);
    held.LockRelease();
}
