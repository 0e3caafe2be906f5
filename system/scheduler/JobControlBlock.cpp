#include "system/scheduler/JobControlBlock.h"

#include "system/scheduler/Sched.h"
#include "util/Assert.h"

namespace {
struct PriorityInfo {
    const char* text;
    const char* prefix;
    int64_t weight;
    int osPriority;
};
const PriorityInfo kPriorities[] = {
    {"MINIMAL ", "min", 1, 0x7B},     {"REDUCED ", "red", 0x1FF, 0x7B},  {"NORMAL  ", "nor", 0x3F3, 0x7B},
    {"RELAYOUT", "rel", 0x1FF, 0x78}, {"ELEVATED", "ele", 0x5E7, 0x78}, {"CRITICAL", "cri", 0x7DB, 0x75},
};
const PriorityInfo& info(JobControlBlock::Priority p) {
    ESA_ASSERT_OP(int(p), <, 6);
    return kPriorities[p];
}
}  // namespace

JobControlBlock::JobControlBlock(Priority priority, std::string name)
    : mName(std::move(name)), mWeight(mapExternalPri(priority)), mPriority(priority),
      mRunSem(semBCreate(SEM_Q_FIFO, SEM_EMPTY)), mTask(taskIdSelf()) {
    mSavedOsPriority = taskPriorityGet(mTask);
    Sched::GetInstance()->insert(this);
}

JobControlBlock::~JobControlBlock() {
    Sched::GetInstance()->remove(this);
    semDelete(mRunSem);
}

int64_t JobControlBlock::mapExternalPri(Priority p) { return info(p).weight; }
int JobControlBlock::osPriorityFor(Priority p) { return info(p).osPriority; }

const char* JobControlBlock::stringFromPri(Priority p) {
    if (int(p) < 0 || int(p) > 5) return "UNKNOWN EXTERNAL PRIORITY ON THREAD!";
    return kPriorities[p].text;
}

int JobControlBlock::priFromString(const std::string& text) {
    if (text.size() < 3) return kNoPriority;
    for (int p = 0; p < 6; ++p) {
        std::string full = kPriorities[p].text;
        while (!full.empty() && full.back() == ' ') full.pop_back();
        std::string lower;
        for (char c : text) lower.push_back(char(std::tolower(c)));
        std::string fullLower;
        for (char c : full) fullLower.push_back(char(std::tolower(c)));
        if (lower == fullLower || lower == kPriorities[p].prefix) return p;
    }
    return kNoPriority;
}

JobControlBlock::Priority JobControlBlock::setPri(Priority priority) {
    Priority old = mPriority;
    if (priority == old) return old;
    mPriority = priority;
    mWeight = mapExternalPri(priority);
    Sched::GetInstance()->adjustOsPriority(this);
    return old;
}

void JobControlBlock::schedule() { Sched::GetInstance()->schedule(this); }

void JobControlBlock::noteTurnStart() {
    mTurnStart = getTimebase();
    mTurns++;
}

void JobControlBlock::noteTurnEnd() {
    if (mTurnStart) mRunStats.add(getTimebase() - mTurnStart);
    mTurnStart = 0;
}

void JobControlBlock::pause() {
    Sched* sched = Sched::GetInstance();
    ESA_ASSERT_PTR(sched->current(), ==, this);
    noteTurnEnd();
    mSavedOsPriority = taskPriorityGet(mTask);
    taskPrioritySet(mTask, 0x78);
    mCredit = 0;
    if (mPriority > NORMAL) sched->adjustOsPriority(nullptr);
    sched->schedule(nullptr);
}

void JobControlBlock::resume() {
    taskPrioritySet(mTask, mSavedOsPriority);
    if (mPriority > NORMAL || mBoosted) Sched::GetInstance()->adjustOsPriority(this);
    Sched::GetInstance()->schedule(this);
}
