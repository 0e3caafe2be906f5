#include "background/DeadlockWatchdog.h"


DeadlockWatchdog* DeadlockWatchdog::GetInstance() {
    static DeadlockWatchdog instance;
    return &instance;
}
