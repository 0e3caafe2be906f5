// The background scheduler: turns in proportion to the weights, one job on the
// processor at a time, pause handing the token over, and boosting.
#include "system/scheduler/Sched.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// Runs one thread per job; each takes turns through schedule() until `turns`
// turns have been taken in all, and records who ran.
std::vector<int> runJobs(const std::vector<JobControlBlock::Priority>& priorities, size_t turns) {
    std::mutex lock;
    std::vector<int> sequence;
    std::atomic<int> onProc{0};
    std::atomic<bool> overlap{false};
    std::atomic<size_t> created{0};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < priorities.size(); ++i) {
        threads.emplace_back([&, i] {
            taskRegisterSelf("tJob" + std::to_string(i), 150);
            JobControlBlock job(priorities[i], "job" + std::to_string(i));
            created++;
            while (created < priorities.size()) std::this_thread::yield();
            for (;;) {
                job.schedule();
                if (onProc.fetch_add(1) != 0) overlap = true;
                bool done;
                {
                    std::lock_guard<std::mutex> g(lock);
                    done = sequence.size() >= turns;
                    if (!done) sequence.push_back(int(i));
                }
                onProc.fetch_sub(1);
                if (done) break;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_FALSE(overlap) << "two background jobs ran at once";
    EXPECT_EQ(Sched::GetInstance()->jobCount(), 0u);
    return sequence;
}

std::map<int, size_t> count(const std::vector<int>& seq) {
    std::map<int, size_t> c;
    for (int j : seq) c[j]++;
    return c;
}

TEST(Sched, TurnsFollowTheWeights) {
    // RELAYOUT (0x1FF) against NORMAL (0x3F3): about one turn in two.
    auto c = count(runJobs({JobControlBlock::NORMAL, JobControlBlock::RELAYOUT}, 3000));
    double ratio = double(c[1]) / double(c[0]);
    EXPECT_GT(ratio, 0.40);
    EXPECT_LT(ratio, 0.60);

    // Three jobs of different priorities share the token by weight.
    c = count(runJobs({JobControlBlock::ELEVATED, JobControlBlock::NORMAL, JobControlBlock::REDUCED}, 6000));
    EXPECT_GT(c[0], c[1]);
    EXPECT_GT(c[1], c[2]);
    EXPECT_NEAR(double(c[0]) / double(c[2]), 0x5E7 / double(0x1FF), 0.6);
}

TEST(Sched, MinimalRunsAboutOnceInAThousandTurns) {
    auto c = count(runJobs({JobControlBlock::NORMAL, JobControlBlock::MINIMAL}, 5100));
    EXPECT_GE(c[1], 3u);
    EXPECT_LE(c[1], 7u);
}

TEST(Sched, PriorityNamesRoundTrip) {
    EXPECT_EQ(JobControlBlock::priFromString("rel"), JobControlBlock::RELAYOUT);
    EXPECT_EQ(JobControlBlock::priFromString("red"), JobControlBlock::REDUCED);
    EXPECT_EQ(JobControlBlock::priFromString("CRITICAL"), JobControlBlock::CRITICAL);
    EXPECT_EQ(JobControlBlock::priFromString(""), JobControlBlock::kNoPriority);
    EXPECT_EQ(JobControlBlock::priFromString("bogus"), JobControlBlock::kNoPriority);
    EXPECT_STREQ(JobControlBlock::stringFromPri(JobControlBlock::NORMAL), "NORMAL  ");
    EXPECT_STREQ(JobControlBlock::stringFromPri(JobControlBlock::Priority(9)), "UNKNOWN EXTERNAL PRIORITY ON THREAD!");
}

TEST(Sched, PauseHandsTheTokenOverAndBoostFollowsTheUrgentJob) {
    std::atomic<int> step{0};
    std::atomic<TASK_ID> minimalTask{nullptr};
    std::atomic<JobControlBlock*> minimalJob{nullptr};
    std::atomic<bool> minimalRan{false};
    std::thread minimal([&] {
        minimalTask = taskRegisterSelf("tMinimal", 150);
        JobControlBlock job(JobControlBlock::MINIMAL, "minimal");
        minimalJob = &job;
        while (step < 1) std::this_thread::yield();
        job.schedule();  // waits until the elevated job pauses
        minimalRan = true;
        while (step < 3) std::this_thread::yield();
    });
    std::thread elevated([&] {
        taskRegisterSelf("tElevated", 150);
        while (!minimalJob) std::this_thread::yield();
        JobControlBlock job(JobControlBlock::ELEVATED, "elevated");
        Sched::GetInstance()->adjustOsPriority(&job);
        EXPECT_TRUE(minimalJob.load()->boosted());
        EXPECT_EQ(taskPriorityGet(minimalTask), 0x78);
        job.schedule();
        EXPECT_EQ(Sched::GetInstance()->current(), &job);
        step = 1;
        job.pause();  // the token goes to the minimal job before pause returns
        EXPECT_EQ(Sched::GetInstance()->current(), minimalJob.load());
        EXPECT_FALSE(minimalJob.load()->boosted());
        EXPECT_EQ(taskPriorityGet(minimalTask), 0x7B);
        step = 2;
        while (!minimalRan) std::this_thread::yield();
        step = 3;
    });
    elevated.join();
    minimal.join();
    EXPECT_TRUE(minimalRan);
}

}  // namespace
