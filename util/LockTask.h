#pragma once
// LockTask: who holds a lock. For a task the RTOS spawned (or a thread that
// registered itself) it is the task's id; a thread the RTOS does not know gets
// a token of its own, odd so that it never equals a task id. Holder lists,
// owners and dumps use this value.
#include <cstdint>
#include <string>

using LockTask = uintptr_t;

LockTask currentLockTask();
// The task's name, or "thread 0x..." for a thread the RTOS does not know.
std::string lockTaskName(LockTask task);
