#pragma once
// Sched: lets one registered background job run at a time. The token passes
// at the points where a job calls schedule(); the next job is the active one
// with the highest credit, every active job earning its weight per round.
//
// Invariants: at most one job holds the token (mCurrent); a job's semaphore is
// given under the lock and taken outside it; a paused job (credit 0) is never
// chosen. The chosen job pays for its turn with the weights of the round, so
// turns follow the weights (a RELAYOUT job runs about half as often as a
// NORMAL one): the rule that only reset the caller's credit to 1 made any two
// jobs of similar weight alternate one to one.
#include <cstdint>
#include <mutex>
#include <ostream>
#include <shared_mutex>
#include <vector>

#include "system/scheduler/JobControlBlock.h"

class Sched {
public:
    static Sched* GetInstance();

    void schedule(JobControlBlock* job);
    void adjustOsPriority(JobControlBlock* job);
    void insert(JobControlBlock* job);
    void remove(JobControlBlock* job);
    void Dump(std::ostream& out, bool verbose, bool perf);
    void PerfInfo(std::ostream& out);

    // Background threads call this when they start: with background threads
    // disabled (flash `nobgthreads`) the thread suspends itself until
    // `enableBgThreads` resumes it.
    void suspendIfBackgroundDisabled();
    void enableBackgroundThreads();

    JobControlBlock* current();
    size_t jobCount();
    // CRITICAL turns in a row that have used more than this much of the
    // processor (microseconds of board time) are followed by a one-tick
    // delay, so that host threads get a look in.
    static constexpr uint64_t kCriticalRunLimitUs = 2000;

private:
    Sched();
    std::shared_mutex mLock;
    std::vector<JobControlBlock*> mJobs;
    JobControlBlock* mCurrent = nullptr;
    uint64_t mCriticalRun = 0;
    uint64_t mCriticalStart = 0;
    std::vector<TASK_ID> mSuspendedThreads;
};
