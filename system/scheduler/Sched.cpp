#include "system/scheduler/Sched.h"


Sched* Sched::GetInstance() {
    static Sched instance;
    return &instance;
}
