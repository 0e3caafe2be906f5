#include "scavenger/BitmapBlockUpdatesMonitor.h"


BitmapBlockUpdatesMonitor* BitmapBlockUpdatesMonitor::GetInstance() {
    static BitmapBlockUpdatesMonitor instance;
    return &instance;
}
