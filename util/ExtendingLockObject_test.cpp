#include "util/ExtendingLockObject.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "util/ErrorInjection/ErrorInjection.h"
#include "util/Eventually.h"
#include "util/IOTracker.h"

TEST(ExtendingLockObject, AnExtendedLockOutlivesItsScopeUntilCommit) {
    ExtendingLockObject lock("eTestExtend", 0);
    IOTracker t(READ_WRITE);
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance x(&lock, t);
        ExtendingLockObject::ExtendingExclusiveLockInstance again(&lock, t);
        EXPECT_EQ(lock.extendCount(), 2u);
        EXPECT_EQ(t.getLockObjects()->size(), 1u) << "one hold, one list entry";
    }
    EXPECT_TRUE(lock.isLocked()) << "the transaction still holds it";
    EXPECT_TRUE(lock.isExtended());
    EXPECT_EQ(lock.transID(), t.getID());

    std::atomic<bool> otherIn{false};
    std::thread other([&] {
        IOTracker t2(READ_WRITE);
        ExtendingLockObject::ExtendingExclusiveLockInstance x(&lock, t2);
        otherIn = true;
        t2.commit();
    });
    ASSERT_TRUE(eventually([&] { return lock.waiters() == 1; }));
    EXPECT_FALSE(otherIn.load()) << "another transaction must not see uncommitted metadata";
    EXPECT_EQ(t.commit(), StatusCode::Success);
    other.join();
    EXPECT_TRUE(otherIn.load());
    EXPECT_FALSE(lock.isLocked());
    EXPECT_TRUE(t.getLockObjects()->empty());
}

TEST(ExtendingLockObject, CommitInsideTheScopeLeavesTheReleaseToTheScope) {
    ExtendingLockObject lock("eTestCommitInScope", 0);
    IOTracker t(READ_WRITE);
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance x(&lock, t);
        t.commit();
        EXPECT_TRUE(lock.isLocked()) << "the function is still inside its scope";
        EXPECT_FALSE(lock.isExtended());
    }
    EXPECT_FALSE(lock.isLocked());
}

TEST(ExtendingLockObject, SharedHoldsOfTheOwningTransactionAreNoOps) {
    ExtendingLockObject lock("eTestSharedOwn", 0);
    IOTracker t(READ_WRITE);
    lock.LockExclusiveExtending(t);
    lock.LockReleaseExtending();
    {
        ExtendingLockObject::SharedLockInstance s(&lock, t);  // would deadlock if it queued
        EXPECT_TRUE(lock.OwnsLock(t));
        EXPECT_EQ(lock.sharedCount(), 0);
    }
    EXPECT_TRUE(lock.isExtended());
    t.commit();
    EXPECT_FALSE(lock.isLocked());
}

TEST(ExtendingLockObject, SharedHoldsNestPerTaskAndTransaction) {
    ExtendingLockObject lock("eTestNest", 0);
    IOTracker t(READ_ONLY);
    lock.LockShared(t);
    // A writer queues; the same task and transaction still nests without queueing.
    std::thread writer([&] { ExtendingLockObject::ExclusiveLockInstance x(&lock); });
    ASSERT_TRUE(eventually([&] { return lock.waiters() == 1; }));
    lock.LockShared(t);
    EXPECT_EQ(lock.sharedCount(), 2);
    lock.LockRelease(t);
    EXPECT_TRUE(lock.OwnsLock(t));
    lock.LockRelease(t);
    writer.join();
    EXPECT_FALSE(lock.isLocked());
}

TEST(ExtendingLockObject, AForkCommitsOnceForTheWholeTransaction) {
    ExtendingLockObject a("eTestForkA", 0), b("eTestForkB", 0);
    auto t = std::make_unique<IOTracker>(READ_WRITE);
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance x(&a, *t);
    }
    std::thread worker([&] {
        IOTracker fork(*t);
        EXPECT_EQ(fork.getID(), t->getID());
        ExtendingLockObject::ExtendingExclusiveLockInstance y(&b, fork);
        // The fork may take the transaction's lock again without waiting.
        ExtendingLockObject::ExtendingExclusiveLockInstance z(&a, fork);
        EXPECT_EQ(fork.commit(), StatusCode::Success);
    });
    worker.join();
    EXPECT_FALSE(a.isLocked());
    EXPECT_FALSE(b.isLocked());
    EXPECT_EQ(t->commitCount(), 1u);
    t.reset();  // the original's destructor finds an empty list
}

TEST(ExtendingLockObject, UnextendLockGivesTheHoldBackToTheScope) {
    ExtendingLockObject lock("eTestUnextend", 0);
    IOTracker t(READ_WRITE);
    {
        ExtendingLockObject::ExtendingExclusiveLockInstance x(&lock, t);
        lock.UnextendLock(t);
        EXPECT_FALSE(lock.isExtended());
        EXPECT_TRUE(t.getLockObjects()->empty());
        EXPECT_TRUE(lock.isLocked());
    }
    EXPECT_FALSE(lock.isLocked());
}

TEST(IOTracker, IdsNeverRepeatAndAreNeverZero) {
    std::vector<std::thread> threads;
    std::vector<std::vector<uint64_t>> ids(6);
    for (size_t i = 0; i < ids.size(); ++i)
        threads.emplace_back([&, i] {
            for (int n = 0; n < 5000; ++n) {
                IOTracker t(READ_ONLY);
                ids[i].push_back(t.getID());
            }
        });
    for (auto& th : threads) th.join();
    std::set<uint64_t> all;
    for (auto& v : ids) all.insert(v.begin(), v.end());
    EXPECT_EQ(all.size(), 30000u);
    EXPECT_EQ(all.count(0), 0u);
}

TEST(IOTracker, AnInjectedErrorMovesToTheForkAndFiresOnce) {
    IOTracker t(READ_WRITE);
    t.flags |= IOTracker::kPrivate;
    markTrackerForIoError(t);
    EXPECT_TRUE(t.flags & IOTracker::kFailNextIo);
    IOTracker fork(t);
    EXPECT_TRUE(fork.flags & IOTracker::kFailNextIo);
    EXPECT_FALSE(t.flags & IOTracker::kFailNextIo);
    EXPECT_FALSE(fork.flags & IOTracker::kPrivate);
    EXPECT_TRUE(fork.isReadWrite());
    EXPECT_EQ(t.copies(), 2u);
}

TEST(IOTracker, CommitGoesThroughTheJournalOnceOneIsPlugged) {
    static int commits;
    commits = 0;
    IOTracker::journal.commit = [](IOTracker& t) {
        ++commits;
        t.lockRelease();
        return t.dirtyCount() ? StatusCode(StatusCode::Success) : StatusCode(StatusCode::UnknownTransaction);
    };
    ExtendingLockObject lock("eTestJournal", 0);
    {
        IOTracker t(READ_WRITE);
        ExtendingLockObject::ExtendingExclusiveLockInstance x(&lock, t);
        // A read-write transaction that changed nothing has no journal set.
        EXPECT_EQ(t.commit(), StatusCode::UnknownTransaction);
    }
    {
        IOTracker t(READ_WRITE);
        { ExtendingLockObject::ExtendingExclusiveLockInstance x(&lock, t); }
        EXPECT_EQ(t.commitIfDirty(), StatusCode::Success) << "nothing dirty: only the locks are committed";
        EXPECT_FALSE(lock.isLocked());
        t.markDirty();
        EXPECT_EQ(t.commitIfDirty(), StatusCode::Success);
    }
    IOTracker::journal = IOTracker::JournalHooks();
    EXPECT_EQ(commits, 2);
}

TEST(IOTracker, AReadOnlyTrackerCommitsItsLocksWhenItEnds) {
    ExtendingLockObject lock("eTestReadOnlyEnd", 0);
    {
        IOTracker t(READ_ONLY);
        ExtendingLockObject::ExtendingExclusiveLockInstance x(&lock, t);
    }
    EXPECT_FALSE(lock.isLocked());
}

TEST(IOTrackerDeath, AWritingTransactionThatEndsHoldingAnExtendedLockStopsTheSystem) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::dup2(2, 1);  // the assertion report goes to stdout
            ExtendingLockObject lock("eTestLeak", 0);
            IOTracker t(READ_WRITE);
            ExtendingLockObject::ExtendingExclusiveLockInstance x(&lock, t);
        },
        testing::ExitedWithCode(75), "mLockObjectList->empty\\(\\)");
}

TEST(ExtendingLockObjectDeath, ReleasingAnotherTransactionsExtendedLockIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::dup2(2, 1);  // the assertion report goes to stdout
            ExtendingLockObject lock("eTestWrongTrans", 0);
            IOTracker t(READ_WRITE);
            IOTracker other(READ_ONLY);
            lock.LockExclusiveExtending(t);
            lock.LockRelease(other);
        },
        testing::ExitedWithCode(75), "mTransID");
}

TEST(ExtendingLockObject, HammeredByTransactionsFromManyThreads) {
    ExtendingLockObject lock("eTestHammer", 0);
    long counter = 0;
    std::atomic<int> inside{0}, violations{0};
    std::vector<std::thread> threads;
    for (int th = 0; th < 6; ++th)
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                IOTracker t(READ_WRITE);
                if (i % 4 == 0) {
                    ExtendingLockObject::SharedLockInstance s(&lock, t);
                    if (inside.load() != 0) violations++;
                } else {
                    {
                        ExtendingLockObject::ExtendingExclusiveLockInstance x(&lock, t);
                        if (inside.fetch_add(1) != 0) violations++;
                        ++counter;
                    }
                    inside--;  // still held: the extension keeps others out until commit
                    t.commit();
                }
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(counter, 6 * 1500);
    EXPECT_FALSE(lock.isLocked());
}

TEST(ExtendingLockObject, DumpTellsTheTransaction) {
    ExtendingLockObject lock("eTestDump", 3);
    IOTracker t(READ_WRITE);
    lock.LockExclusiveExtending(t);
    std::ostringstream out;
    lock.Dump(out, false);
    EXPECT_NE(out.str().find(" for TransID " + std::to_string(t.getID())), std::string::npos) << out.str();
    EXPECT_NE(out.str().find(" Lock is currently extended for TransID "), std::string::npos);
    EXPECT_NE(out.str().find(" Lock has 1 current explicit user locks"), std::string::npos);
    lock.LockReleaseExtending();
    t.commit();
}
