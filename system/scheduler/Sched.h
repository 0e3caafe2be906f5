#pragma once
// Sched: the least the start-up and pack load sequence needs for now; it
// schedules no background jobs yet.
#include "util/StatusCode.h"

class Sched {
public:
    static Sched* GetInstance();

private:
    Sched() = default;
};
