#include "util/DebugClass.h"

#include <cstdio>

#include "platform/rtos/Rtos.h"
#include "util/Diagnostics.h"

DebugClass* DebugClass::GetInstance() {
    static DebugClass instance;
    return &instance;
}

void DebugClass::Initialize() {
    // Tasks enter the RTOS task list as they are spawned; the boot thread is
    // registered by main, so there is nothing more to hook here.
    mInitialized = true;
}

void DebugClass::HaltAllTasks(std::ostream& out) {
    taskRtpLock();
    TASK_ID self = taskIdSelf();
    std::vector<TASK_ID> tasks = taskList();
    rtosHaltAllOthers();
    taskRtpUnlock();
    char line[160];
    for (TASK_ID t : tasks) {
        bool suspend = t != self && !taskIsSuspended(t);
        std::snprintf(line, sizeof line, suspend ? "Suspending task 0x%8.8lx (%s)\n" : "NOT Suspending task 0x%8.8lx (%s)\n",
                      (unsigned long)taskNumericId(t), taskName(t).c_str());
        out << line;
    }
}

void DebugClass::registerChecks(const std::string& name, Check internal, Check external) {
    std::lock_guard<std::mutex> g(mLock);
    mChecks.push_back({name, std::move(internal), std::move(external)});
}

bool DebugClass::intConsistencyCheck(std::ostream& out) {
    std::lock_guard<std::mutex> g(mLock);
    bool ok = true;
    for (auto& c : mChecks)
        if (c.internal && !c.internal(out)) ok = false;
    return ok;
}

bool DebugClass::extConsistencyCheck(std::ostream& out) {
    std::lock_guard<std::mutex> g(mLock);
    bool ok = true;
    for (auto& c : mChecks)
        if (c.external && !c.external(out)) ok = false;
    return ok;
}

namespace {
// The task list, first in every dump: it needs nothing but the RTOS.
void dumpTasks(std::ostream& out) {
    for (TASK_ID t : taskList())
        out << "  task " << taskNumericId(t) << " " << taskName(t) << " priority " << taskPriorityGet(t)
            << (taskIsSuspended(t) ? " suspended" : "") << "\n";
}
DiagnosticHandler gTaskDiagnostics(dumpTasks, "Tasks", 0);
}  // namespace
