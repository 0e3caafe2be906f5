#pragma once
// The real-time process services the system is written against, on Linux.
//
// Tasks are named std::threads with the requested priority kept as an
// attribute (Linux scheduling is left alone). Semaphores, message queues and
// delays measure their timeouts in ticks of the board clock. A task may only
// suspend itself; a resume that arrives before the suspend is kept and makes
// the next suspend return at once. Once the board is halted (an assertion is
// being reported) every task but the reporting one stops at its next RTOS call.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

using STATUS = int;
constexpr STATUS OK = 0;
constexpr STATUS ERROR = -1;
constexpr int WAIT_FOREVER = -1;
constexpr int NO_WAIT = 0;

// errno values the callers test after a failed take or receive.
constexpr int S_objLib_OBJ_TIMEOUT = 0x3d0004;
constexpr int S_objLib_OBJ_UNAVAILABLE = 0x3d0002;

struct RtosTask;
using TASK_ID = RtosTask*;

// ---- tasks
TASK_ID taskSpawn(const std::string& name, int priority, std::function<void()> entry);
// Registers the calling thread (one that the RTOS did not spawn) as a task.
TASK_ID taskRegisterSelf(const std::string& name, int priority);
TASK_ID taskIdSelf();
std::string taskName(TASK_ID id);
STATUS taskPrioritySet(TASK_ID id, int priority);  // id 0: the caller
int taskPriorityGet(TASK_ID id);
STATUS taskDelay(int ticks);
STATUS taskSuspend(TASK_ID id);  // id 0 or self only: blocks until resumed
STATUS taskResume(TASK_ID id);
bool taskIsSuspended(TASK_ID id);
std::vector<TASK_ID> taskList();
uint64_t taskNumericId(TASK_ID id);
// Called by a task before it returns so that the list forgets it.
void taskExitSelf();

// The process-wide preemption lock: a recursive mutex here.
void taskRtpLock();
void taskRtpUnlock();

// Stops every task but the caller at its next RTOS call (assertion reporting).
void rtosHaltAllOthers();
bool rtosHalted();

// ---- time
int sysClkRateGet();
uint32_t tickGet();
uint64_t tick64Get();

// ---- semaphores
struct RtosSemaphore;
using SEM_ID = RtosSemaphore*;
enum SEM_B_STATE { SEM_EMPTY = 0, SEM_FULL = 1 };
constexpr int SEM_Q_FIFO = 0;
constexpr int SEM_Q_PRIORITY = 1;
constexpr int SEM_INVERSION_SAFE = 8;
constexpr int SEM_DELETE_SAFE = 4;

SEM_ID semBCreate(int options, SEM_B_STATE initial);
SEM_ID semCCreate(int options, int initialCount);
SEM_ID semMCreate(int options);  // recursive, owned; only the owner may give
// Named semaphore shared with the board: created on first open.
enum SEM_TYPE { SEM_TYPE_BINARY, SEM_TYPE_COUNTING, SEM_TYPE_MUTEX };
SEM_ID semOpen(const std::string& name, SEM_TYPE type, int initial);
STATUS semTake(SEM_ID sem, int timeoutTicks);
STATUS semGive(SEM_ID sem);
STATUS semFlush(SEM_ID sem);
STATUS semDelete(SEM_ID sem);

// ---- message queues
struct RtosMsgQ;
using MSG_Q_ID = RtosMsgQ*;
constexpr int MSG_PRI_NORMAL = 0;
constexpr int MSG_PRI_URGENT = 1;
MSG_Q_ID msgQCreate(int maxMsgs, int maxMsgLength, int options);
MSG_Q_ID msgQOpen(const std::string& name, int maxMsgs, int maxMsgLength);
STATUS msgQSend(MSG_Q_ID q, const void* buffer, size_t nBytes, int timeoutTicks, int priority);
// Returns the number of bytes received, or ERROR.
int msgQReceive(MSG_Q_ID q, void* buffer, size_t maxBytes, int timeoutTicks);
int msgQNumMsgs(MSG_Q_ID q);
STATUS msgQDelete(MSG_Q_ID q);

int rtosErrno();  // the errno of the calling task's last failed RTOS call
