#pragma once
// Watchdog: the least the start-up and pack load sequence needs for now; it
// watches no threads yet.
#include "util/StatusCode.h"

class Watchdog {
public:
    static Watchdog* GetInstance();

private:
    Watchdog() = default;
};
