#include "background/Watchdog.h"


Watchdog* Watchdog::GetInstance() {
    static Watchdog instance;
    return &instance;
}
