#include "util/LockOrderChecker.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "util/ExtendingLockObject.h"
#include "util/IOTracker.h"
#include "util/LockObject.h"
#include "util/ReentrantLockObject.h"

namespace {
// Takes the checker's reports for the length of a test.
class ReportCatcher {
public:
    ReportCatcher() {
        mWasEnabled = LockOrderChecker::enabled();
        LockOrderChecker::setEnabled(true);
        mPrevious = LockOrderChecker::setReporter([this](const std::string& r) { reports.push_back(r); });
    }
    ~ReportCatcher() {
        LockOrderChecker::setReporter(mPrevious);
        LockOrderChecker::setEnabled(mWasEnabled);
    }
    std::vector<std::string> reports;

private:
    LockOrderChecker::Reporter mPrevious;
    bool mWasEnabled;
};
}  // namespace

TEST(LockOrderChecker, TheLockOrderHoldsOverTheDeclaredLevels) {
    int chain, rankFlt, rankDst;
    // The declared levels put lCSFLTContainerLock (11) after the space tables
    // (6); the system's lock order puts the FLT container first.
    ASSERT_TRUE(LockOrderChecker::position("lCSFLTContainerLock", chain, rankFlt));
    ASSERT_TRUE(LockOrderChecker::position("eDeallocatedSpaceTableContainerLock", chain, rankDst));
    EXPECT_LT(rankFlt, rankDst);
    EXPECT_TRUE(LockOrderChecker::position("hlbat set 3", chain, rankFlt)) << "range locks match by prefix";
    EXPECT_FALSE(LockOrderChecker::position("lSomethingElse", chain, rankFlt));
}

TEST(LockOrderChecker, TakingLocksInOrderIsQuiet) {
    ReportCatcher catcher;
    LockObject hotPlug("lDPMhotPlug", 23);
    ExtendingLockObject dis("eGlobalDIS", 35);
    ReentrantLockObject xorLock("rXORLock", 49);
    {
        LockObject::ExclusiveLockInstance a(&hotPlug);
        ExtendingLockObject::ExclusiveLockInstance b(&dis);
        ReentrantLockObject::LockInstance c(&xorLock);
        ReentrantLockObject::LockInstance again(&xorLock);
    }
    EXPECT_TRUE(catcher.reports.empty());
}

TEST(LockOrderChecker, AnInversionNamesBothLocksAndBothHolders) {
    ReportCatcher catcher;
    LockObject hotPlug("lDPMhotPlug", 23);
    ExtendingLockObject dis("eGlobalDIS", 35);
    {
        ExtendingLockObject::ExclusiveLockInstance b(&dis);
        LockObject::ExclusiveLockInstance a(&hotPlug);
    }
    ASSERT_EQ(catcher.reports.size(), 1u);
    const std::string& r = catcher.reports[0];
    EXPECT_NE(r.find("\"lDPMhotPlug\" taken by tUnitTest"), std::string::npos) << r;
    EXPECT_NE(r.find("while \"eGlobalDIS\" is held by tUnitTest"), std::string::npos) << r;
}

TEST(LockOrderChecker, ExtendedLocksAreKeyedByTransactionAcrossForks) {
    ReportCatcher catcher;
    ExtendingLockObject catm("lCATMLock", 19);
    ExtendingLockObject buildList("lJ2BuildList", 38);  // later than lCATMLock in the map chain
    IOTracker t(READ_WRITE);
    // The transaction holds lJ2BuildList extended; its owning function has returned.
    { ExtendingLockObject::ExtendingExclusiveLockInstance x(&buildList, t); }
    // A worker thread on a fork of the same transaction now takes an earlier lock.
    ExtendingLockObject earlier("hlbat range 7", 20);
    std::thread worker([&] {
        IOTracker fork(t);
        ExtendingLockObject::ExtendingExclusiveLockInstance y(&earlier, fork);
    });
    worker.join();
    t.commit();
    ASSERT_EQ(catcher.reports.size(), 1u);
    const std::string& r = catcher.reports[0];
    EXPECT_NE(r.find("\"hlbat range 7\" taken by thread"), std::string::npos) << r;
    EXPECT_NE(r.find("for TransID " + std::to_string(t.getID())), std::string::npos) << r;
    EXPECT_NE(r.find("while \"lJ2BuildList\" is held by transaction for TransID"), std::string::npos) << r;

    // A different transaction on the same thread is not bound by it.
    catcher.reports.clear();
    IOTracker other(READ_WRITE);
    { ExtendingLockObject::ExtendingExclusiveLockInstance x(&catm, other); }
    other.commit();
    EXPECT_TRUE(catcher.reports.empty());
}

TEST(LockOrderCheckerDeath, AViolationStopsATestBuildByDefault) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ::dup2(2, 1);  // the assertion report goes to stdout
            LockOrderChecker::setEnabled(true);
            LockObject tagCache("J1RTagCacheLock", 53);
            LockObject tagList("J1RExTagListLock", 52);
            LockObject::ExclusiveLockInstance a(&tagCache);
            LockObject::ExclusiveLockInstance b(&tagList);
        },
        testing::ExitedWithCode(75), "LOCK ORDER VIOLATION: \"J1RExTagListLock\"");
}
