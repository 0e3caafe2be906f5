#pragma once
// JobControlBlock: a background thread's scheduling handle. The owner calls
// schedule() at its yield points; only the job holding Sched's token runs
// background work. A job is active (credit > 0) or paused (credit 0); a paused
// job holds no token and must resume() before scheduled work.
#include <cstdint>
#include <string>

#include "platform/rtos/Rtos.h"
#include "util/PerfAccumulator.h"

class JobControlBlock {
public:
    enum Priority { MINIMAL = 0, REDUCED = 1, NORMAL = 2, RELAYOUT = 3, ELEVATED = 4, CRITICAL = 5 };
    static constexpr int kNoPriority = 6;

    JobControlBlock(Priority priority, std::string name);
    ~JobControlBlock();
    JobControlBlock(const JobControlBlock&) = delete;
    JobControlBlock& operator=(const JobControlBlock&) = delete;

    Priority setPri(Priority priority);
    void schedule();
    void pause();
    void resume();

    static int priFromString(const std::string& text);  // a Priority, or kNoPriority
    static const char* stringFromPri(Priority priority);
    static int64_t mapExternalPri(Priority priority);  // the weight earned per round
    static int osPriorityFor(Priority priority);

    const std::string& name() const { return mName; }
    Priority priority() const { return mPriority; }
    bool paused() const { return mCredit == 0; }
    bool boosted() const { return mBoosted; }
    const PerfAccumulator& runStats() const { return mRunStats; }

private:
    friend class Sched;
    void noteTurnStart();
    void noteTurnEnd();

    std::string mName;
    int64_t mWeight;
    int64_t mCredit = 1;
    bool mBoosted = false;
    int mSavedOsPriority;
    Priority mPriority;
    SEM_ID mRunSem;
    TASK_ID mTask;
    bool mTokenPending = false;  // given the token while not waiting for it
    PerfAccumulator mRunStats;
    uint64_t mTurnStart = 0;
    uint64_t mTurns = 0;
};
