#include "platform/rtos/Rtos.h"

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/rtos/BoardClock.h"

struct RtosTask {
    std::string name;
    std::atomic<int> priority{100};
    uint64_t number = 0;
    std::mutex lock;
    std::condition_variable cv;
    bool suspended = false;
    int pendingResumes = 0;  // resumes that arrived before their suspend
};

namespace {

std::mutex gTaskListLock;
std::map<uint64_t, RtosTask*> gTasks;
std::atomic<uint64_t> gNextTaskNumber{1};
thread_local RtosTask* tCurrent = nullptr;
thread_local int tErrno = 0;
std::recursive_mutex gRtpLock;
std::atomic<RtosTask*> gHaltOwner{nullptr};
std::atomic<bool> gHalted{false};

RtosTask* newTask(const std::string& name, int priority) {
    auto* t = new RtosTask;
    t->name = name;
    t->priority = priority;
    t->number = gNextTaskNumber++;
    std::lock_guard<std::mutex> g(gTaskListLock);
    gTasks[t->number] = t;
    return t;
}

void nameThread(const std::string& name) {
    std::string shortName = name.substr(0, 15);
    pthread_setname_np(pthread_self(), shortName.c_str());
}

// A halted board parks every task except the one reporting the assertion.
void haltPoint() {
    if (!gHalted.load(std::memory_order_relaxed)) return;
    if (gHaltOwner.load() == tCurrent && tCurrent != nullptr) return;
    for (;;) std::this_thread::sleep_for(std::chrono::seconds(3600));
}

uint64_t deadlineFor(int timeoutTicks) {
    if (timeoutTicks < 0) return UINT64_MAX;
    return BoardClock::GetInstance().nanoseconds() + BoardClock::ticksToNs(uint64_t(timeoutTicks));
}

}  // namespace

TASK_ID taskSpawn(const std::string& name, int priority, std::function<void()> entry) {
    RtosTask* t = newTask(name, priority);
    std::thread([t, entry = std::move(entry)] {
        tCurrent = t;
        nameThread(t->name);
        entry();
        taskExitSelf();
    }).detach();
    return t;
}

TASK_ID taskRegisterSelf(const std::string& name, int priority) {
    if (tCurrent) return tCurrent;
    tCurrent = newTask(name, priority);
    nameThread(name);
    return tCurrent;
}

TASK_ID taskIdSelf() { return tCurrent; }

std::string taskName(TASK_ID id) {
    if (id == nullptr) id = tCurrent;
    return id ? id->name : std::string("(unknown)");
}

STATUS taskPrioritySet(TASK_ID id, int priority) {
    if (id == nullptr) id = tCurrent;
    if (!id) return ERROR;
    id->priority = priority;
    return OK;
}

int taskPriorityGet(TASK_ID id) {
    if (id == nullptr) id = tCurrent;
    return id ? id->priority.load() : -1;
}

uint64_t taskNumericId(TASK_ID id) { return id ? id->number : 0; }

void taskExitSelf() {
    if (!tCurrent) return;
    {
        std::lock_guard<std::mutex> g(gTaskListLock);
        gTasks.erase(tCurrent->number);
    }
    // The task object stays allocated: other threads may still hold its id.
    tCurrent = nullptr;
}

std::vector<TASK_ID> taskList() {
    std::lock_guard<std::mutex> g(gTaskListLock);
    std::vector<TASK_ID> out;
    for (auto& [n, t] : gTasks) out.push_back(t);
    return out;
}

STATUS taskDelay(int ticks) {
    haltPoint();
    if (ticks > 0) BoardClock::GetInstance().sleepTicks(uint64_t(ticks));
    else std::this_thread::yield();
    haltPoint();
    return OK;
}

STATUS taskSuspend(TASK_ID id) {
    if (id == nullptr) id = tCurrent;
    if (!id || id != tCurrent) return ERROR;  // only self-suspension exists here
    std::unique_lock<std::mutex> l(id->lock);
    if (id->pendingResumes > 0) {
        id->pendingResumes--;
        return OK;
    }
    id->suspended = true;
    id->cv.wait(l, [id] { return !id->suspended; });
    return OK;
}

STATUS taskResume(TASK_ID id) {
    if (!id) return ERROR;
    std::lock_guard<std::mutex> l(id->lock);
    if (id->suspended) {
        id->suspended = false;
        id->cv.notify_all();
    } else {
        id->pendingResumes++;
    }
    return OK;
}

bool taskIsSuspended(TASK_ID id) {
    if (!id) return false;
    std::lock_guard<std::mutex> l(id->lock);
    return id->suspended;
}

void taskRtpLock() { gRtpLock.lock(); }
void taskRtpUnlock() { gRtpLock.unlock(); }

void rtosHaltAllOthers() {
    gHaltOwner = tCurrent;
    gHalted = true;
}
bool rtosHalted() { return gHalted; }

int sysClkRateGet() { return int(BoardClock::kTicksPerSecond); }
uint32_t tickGet() { return uint32_t(BoardClock::GetInstance().ticks()); }
uint64_t tick64Get() { return BoardClock::GetInstance().ticks(); }
int rtosErrno() { return tErrno; }

// ---- semaphores

struct RtosSemaphore {
    enum Kind { Binary, Counting, Mutex } kind;
    std::mutex lock;
    std::condition_variable cv;
    int count = 0;
    RtosTask* owner = nullptr;        // mutex semaphores
    std::thread::id ownerThread;       // for threads the RTOS did not spawn
    int depth = 0;
    uint64_t flushGeneration = 0;
};

namespace {
std::mutex gNamedLock;
std::map<std::string, RtosSemaphore*> gNamedSems;
std::map<std::string, RtosMsgQ*> gNamedQueues;

SEM_ID newSem(RtosSemaphore::Kind kind, int count) {
    auto* s = new RtosSemaphore;
    s->kind = kind;
    s->count = count;
    return s;
}
}  // namespace

SEM_ID semBCreate(int, SEM_B_STATE initial) { return newSem(RtosSemaphore::Binary, initial == SEM_FULL ? 1 : 0); }
SEM_ID semCCreate(int, int initialCount) { return newSem(RtosSemaphore::Counting, initialCount); }
SEM_ID semMCreate(int) { return newSem(RtosSemaphore::Mutex, 0); }

SEM_ID semOpen(const std::string& name, SEM_TYPE type, int initial) {
    std::lock_guard<std::mutex> g(gNamedLock);
    auto it = gNamedSems.find(name);
    if (it != gNamedSems.end()) return it->second;
    SEM_ID s = type == SEM_TYPE_MUTEX ? semMCreate(0)
             : type == SEM_TYPE_COUNTING ? semCCreate(0, initial)
                                         : semBCreate(0, initial ? SEM_FULL : SEM_EMPTY);
    gNamedSems[name] = s;
    return s;
}

STATUS semTake(SEM_ID s, int timeoutTicks) {
    if (!s) return ERROR;
    haltPoint();
    std::unique_lock<std::mutex> l(s->lock);
    if (s->kind == RtosSemaphore::Mutex) {
        auto self = std::this_thread::get_id();
        if (s->depth > 0 && s->ownerThread == self) {
            s->depth++;
            return OK;
        }
        bool got = timeoutTicks == NO_WAIT ? s->depth == 0
                 : BoardClock::GetInstance().waitUntil(l, s->cv, deadlineFor(timeoutTicks),
                                                       [s] { return s->depth == 0; });
        if (!got) {
            tErrno = timeoutTicks == NO_WAIT ? S_objLib_OBJ_UNAVAILABLE : S_objLib_OBJ_TIMEOUT;
            return ERROR;
        }
        s->depth = 1;
        s->ownerThread = self;
        s->owner = tCurrent;
        return OK;
    }
    uint64_t gen = s->flushGeneration;
    auto ready = [s, gen] { return s->count > 0 || s->flushGeneration != gen; };
    bool got = timeoutTicks == NO_WAIT ? ready()
             : BoardClock::GetInstance().waitUntil(l, s->cv, deadlineFor(timeoutTicks), ready);
    if (!got) {
        tErrno = timeoutTicks == NO_WAIT ? S_objLib_OBJ_UNAVAILABLE : S_objLib_OBJ_TIMEOUT;
        return ERROR;
    }
    if (s->flushGeneration != gen) return OK;
    s->count--;
    return OK;
}

STATUS semGive(SEM_ID s) {
    if (!s) return ERROR;
    {
        // The waiter is woken with the lock held: once it has the semaphore it
        // may delete it, so nothing here may touch it after the lock goes.
        std::lock_guard<std::mutex> l(s->lock);
        switch (s->kind) {
        case RtosSemaphore::Mutex:
            if (s->depth == 0 || s->ownerThread != std::this_thread::get_id()) return ERROR;
            if (--s->depth != 0) return OK;
            s->owner = nullptr;
            s->ownerThread = std::thread::id();
            break;
        case RtosSemaphore::Binary:
            s->count = 1;
            break;
        case RtosSemaphore::Counting:
            s->count++;
            break;
        }
        s->cv.notify_one();
    }
    return OK;
}

STATUS semFlush(SEM_ID s) {
    if (!s || s->kind == RtosSemaphore::Mutex) return ERROR;
    std::lock_guard<std::mutex> l(s->lock);
    s->flushGeneration++;
    s->cv.notify_all();
    return OK;
}

STATUS semDelete(SEM_ID s) {
    delete s;
    return OK;
}

// ---- message queues

struct RtosMsgQ {
    size_t maxMsgs;
    size_t maxLength;
    std::mutex lock;
    std::condition_variable notEmpty;
    std::condition_variable notFull;
    std::deque<std::string> messages;
};

MSG_Q_ID msgQCreate(int maxMsgs, int maxMsgLength, int) {
    auto* q = new RtosMsgQ;
    q->maxMsgs = size_t(maxMsgs > 0 ? maxMsgs : 1);
    q->maxLength = size_t(maxMsgLength > 0 ? maxMsgLength : 1);
    return q;
}

MSG_Q_ID msgQOpen(const std::string& name, int maxMsgs, int maxMsgLength) {
    std::lock_guard<std::mutex> g(gNamedLock);
    auto it = gNamedQueues.find(name);
    if (it != gNamedQueues.end()) return it->second;
    MSG_Q_ID q = msgQCreate(maxMsgs, maxMsgLength, 0);
    gNamedQueues[name] = q;
    return q;
}

STATUS msgQSend(MSG_Q_ID q, const void* buffer, size_t nBytes, int timeoutTicks, int priority) {
    if (!q || nBytes > q->maxLength) return ERROR;
    std::unique_lock<std::mutex> l(q->lock);
    auto room = [q] { return q->messages.size() < q->maxMsgs; };
    bool ok = timeoutTicks == NO_WAIT ? room()
            : BoardClock::GetInstance().waitUntil(l, q->notFull, deadlineFor(timeoutTicks), room);
    if (!ok) {
        tErrno = timeoutTicks == NO_WAIT ? S_objLib_OBJ_UNAVAILABLE : S_objLib_OBJ_TIMEOUT;
        return ERROR;
    }
    std::string msg(static_cast<const char*>(buffer), nBytes);
    if (priority == MSG_PRI_URGENT) q->messages.push_front(std::move(msg));
    else q->messages.push_back(std::move(msg));
    q->notEmpty.notify_one();
    return OK;
}

int msgQReceive(MSG_Q_ID q, void* buffer, size_t maxBytes, int timeoutTicks) {
    if (!q) return ERROR;
    haltPoint();
    std::unique_lock<std::mutex> l(q->lock);
    auto ready = [q] { return !q->messages.empty(); };
    bool ok = timeoutTicks == NO_WAIT ? ready()
            : BoardClock::GetInstance().waitUntil(l, q->notEmpty, deadlineFor(timeoutTicks), ready);
    if (!ok) {
        tErrno = timeoutTicks == NO_WAIT ? S_objLib_OBJ_UNAVAILABLE : S_objLib_OBJ_TIMEOUT;
        return ERROR;
    }
    std::string msg = std::move(q->messages.front());
    q->messages.pop_front();
    q->notFull.notify_one();
    size_t n = std::min(maxBytes, msg.size());
    std::memcpy(buffer, msg.data(), n);
    return int(n);
}

int msgQNumMsgs(MSG_Q_ID q) {
    if (!q) return ERROR;
    std::lock_guard<std::mutex> l(q->lock);
    return int(q->messages.size());
}

STATUS msgQDelete(MSG_Q_ID q) {
    delete q;
    return OK;
}
