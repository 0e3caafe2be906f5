#include "background/IdleMonitor.h"


IdleMonitor* IdleMonitor::GetInstance() {
    static IdleMonitor instance;
    return &instance;
}
