#pragma once
// LockTask: who holds a lock. For a task the RTOS spawned (or a thread that
// registered itself) it is the task's id; a thread the RTOS does not know gets
// a token of its own, odd so that it never equals a task id. Holder lists,
// owners and dumps use this value.
#include <cstdint>
#include <string>

using LockTask = uintptr_t;

// Finds the caller's identity; a task's id is remembered in `cache`.
LockTask lookUpLockTask(LockTask& cache);

inline LockTask currentLockTask() {
    thread_local LockTask cache = 0;
    return cache ? cache : lookUpLockTask(cache);
}
// The task's name, or "thread 0x..." for a thread the RTOS does not know.
std::string lockTaskName(LockTask task);
