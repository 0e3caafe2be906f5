#include "background/DiskUtilizationDaemon.h"


DiskUtilizationDaemon* DiskUtilizationDaemon::GetInstance() {
    static DiskUtilizationDaemon instance;
    return &instance;
}
