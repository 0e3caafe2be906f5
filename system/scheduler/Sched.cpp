#include "system/scheduler/Sched.h"

#include <algorithm>

#include "platform/rtos/Rtos.h"
#include "util/Assert.h"
#include "util/ConsoleCommand.h"
#include "util/ManagerRegistry.h"
#include "util/PerfAccumulator.h"
#include "system/SystemManager.h"

Sched* Sched::GetInstance() {
    static Sched instance;
    return &instance;
}

Sched::Sched() {
    ManagerRegistry::add(
        "Sched", [this](std::ostream& out) { Dump(out, true, false); }, [this](std::ostream& out) { PerfInfo(out); });
}

JobControlBlock* Sched::current() {
    std::shared_lock<std::shared_mutex> g(mLock);
    return mCurrent;
}

size_t Sched::jobCount() {
    std::shared_lock<std::shared_mutex> g(mLock);
    return mJobs.size();
}

void Sched::insert(JobControlBlock* job) {
    std::unique_lock<std::shared_mutex> g(mLock);
    job->mWeight = JobControlBlock::mapExternalPri(job->mPriority);
    job->mCredit = 1;
    mJobs.push_back(job);
}

void Sched::remove(JobControlBlock* job) {
    bool wasCurrent;
    {
        std::unique_lock<std::shared_mutex> g(mLock);
        mJobs.erase(std::remove(mJobs.begin(), mJobs.end(), job), mJobs.end());
        wasCurrent = mCurrent == job;
        if (wasCurrent) mCurrent = nullptr;
    }
    if (wasCurrent) schedule(nullptr);
}

void Sched::schedule(JobControlBlock* job) {
    std::unique_lock<std::shared_mutex> g(mLock);
    // 1.
    if (mJobs.empty()) {
        mCurrent = nullptr;
        return;
    }
    // 2.
    if (job) {
        if (job->mCredit == 0) job->mCredit = 1;
        if (job == mCurrent) {
            if (job->mTokenPending) {
                // The token reached this job while it was not waiting: its turn starts now.
                job->mTokenPending = false;
                semTake(job->mRunSem, NO_WAIT);
                g.unlock();
                job->noteTurnStart();
                return;
            }
            job->noteTurnEnd();
        } else if (mCurrent) {
            g.unlock();
            semTake(job->mRunSem, WAIT_FOREVER);
            job->mTokenPending = false;
            job->noteTurnStart();
            return;
        }
    }
    // 3. Every active job earns its weight; the richest is chosen (first on a
    //    tie) and pays the round's total, which keeps turns in proportion to
    //    the weights. Credits stay at 1 or more: 0 means paused.
    JobControlBlock* chosen = nullptr;
    int64_t roundWeight = 0;
    for (JobControlBlock* j : mJobs) {
        if (j->mCredit == 0) continue;
        j->mCredit += j->mWeight;
        roundWeight += j->mWeight;
        if (!chosen || j->mCredit > chosen->mCredit) chosen = j;
    }
    // 4.
    if (!chosen) {
        mCriticalRun = 0;
        mCurrent = nullptr;
        return;
    }
    chosen->mCredit = std::max<int64_t>(1, chosen->mCredit - roundWeight);
    // 5.
    uint64_t now = getTimebase();
    if (job && job->mPriority == JobControlBlock::CRITICAL) mCriticalRun += now - mCriticalStart;
    mCriticalStart = now;
    bool criticalDelay = false;
    if (chosen->mPriority == JobControlBlock::CRITICAL) {
        if (mCriticalRun > kCriticalRunLimitUs) {
            criticalDelay = true;
            mCriticalRun = 0;
        }
    } else {
        mCriticalRun = 0;
    }
    // 6.
    if (chosen == job) {
        mCurrent = job;
        g.unlock();
        taskDelay(criticalDelay ? 1 : 0);
        job->noteTurnStart();
        return;
    }
    // 7.
    mCurrent = chosen;
    chosen->mTokenPending = true;
    semGive(chosen->mRunSem);
    g.unlock();
    if (criticalDelay) taskDelay(1);
    if (job) {
        semTake(job->mRunSem, WAIT_FOREVER);
        job->mTokenPending = false;
        job->noteTurnStart();
    }
}

void Sched::adjustOsPriority(JobControlBlock* job) {
    std::shared_lock<std::shared_mutex> g(mLock);
    int count = 0;
    int highest = -1;
    auto settle = [&](JobControlBlock* j) {
        j->mBoosted = false;
        int os = JobControlBlock::osPriorityFor(j->mPriority);
        if (taskPriorityGet(j->mTask) != os) taskPrioritySet(j->mTask, os);
        ++count;
        highest = std::max(highest, int(j->mPriority));
    };
    for (JobControlBlock* j : mJobs)
        if (j->mCredit != 0 || j == job) settle(j);
    if (job && std::find(mJobs.begin(), mJobs.end(), job) == mJobs.end()) settle(job);
    if (highest > JobControlBlock::NORMAL && count >= 2) {
        // A low job that may hold a lock or the token must not be starved by
        // foreground threads while a more urgent job waits for it.
        for (JobControlBlock* j : mJobs) {
            if (j->mCredit == 0 || j->mPriority > JobControlBlock::NORMAL || j->mBoosted) continue;
            taskPrioritySet(j->mTask, 0x78);
            j->mBoosted = true;
        }
    }
}

void Sched::Dump(std::ostream& out, bool verbose, bool perf) {
    std::shared_lock<std::shared_mutex> g(mLock);
    if (!SystemManager::GetInstance()->allowBgThreads()) out << "NO BACKGROUND THREADS\n";
    out << "Sched: " << mJobs.size() << " jobs\n";
    for (JobControlBlock* j : mJobs) {
        out << "  " << JobControlBlock::stringFromPri(j->mPriority) << " " << j->mName
            << (j->mCredit == 0 ? " (PAUSED)  " : "") << (j->mBoosted ? " (BOOSTED) " : "")
            << (j == mCurrent ? " <== ON PROC" : "");
        if (verbose)
            out << " credit=" << j->mCredit << " weight=" << j->mWeight << " os=" << taskPriorityGet(j->mTask)
                << " turns=" << j->mTurns;
        out << "\n";
        if (perf) j->mRunStats.Dump(out);
    }
}

void Sched::PerfInfo(std::ostream& out) { Dump(out, false, true); }

void Sched::suspendIfBackgroundDisabled() {
    if (SystemManager::GetInstance()->allowBgThreads()) return;
    {
        std::unique_lock<std::shared_mutex> g(mLock);
        mSuspendedThreads.push_back(taskIdSelf());
    }
    taskSuspend(nullptr);
}

void Sched::enableBackgroundThreads() {
    SystemManager::GetInstance()->setAllowBgThreads(true);
    std::vector<TASK_ID> threads;
    {
        std::unique_lock<std::shared_mutex> g(mLock);
        threads.swap(mSuspendedThreads);
    }
    for (TASK_ID t : threads) taskResume(t);
}

namespace {
int enableBgThreadsCommand(int, char**, std::ostream& out) {
    Sched::GetInstance()->enableBackgroundThreads();
    out << "Background threads enabled\n";
    return 0;
}
ConsoleCommand gEnableBgThreads("enableBgThreads", "allow disabled background threads to be resumed",
                                enableBgThreadsCommand);
}  // namespace
