#include "util/LockTask.h"

#include <cstdio>

#include "platform/rtos/Rtos.h"

LockTask lookUpLockTask(LockTask& cache) {
    if (TASK_ID self = taskIdSelf()) return cache = reinterpret_cast<LockTask>(self);
    // Not remembered: the thread may still register itself as a task.
    thread_local char token;
    return reinterpret_cast<LockTask>(&token) | 1;
}

std::string lockTaskName(LockTask task) {
    if (task == 0) return "none";
    if ((task & 1) == 0) return taskName(reinterpret_cast<TASK_ID>(task));
    char text[32];
    std::snprintf(text, sizeof text, "thread 0x%lx", (unsigned long)task);
    return text;
}
