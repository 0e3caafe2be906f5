#include "background/DiskUtilizationDaemon.h"

#include "host/TopEnd.h"


DiskUtilizationDaemon* DiskUtilizationDaemon::GetInstance() {
    static DiskUtilizationDaemon instance;
    return &instance;
}

StatusCode DiskUtilizationDaemon::LoadDiskPack() {
    TopEnd::GetInstance()->clearOneAtATime();
    return StatusCode::Success;
}
