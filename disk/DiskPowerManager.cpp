#include "disk/DiskPowerManager.h"


DiskPowerManager* DiskPowerManager::GetInstance() {
    static DiskPowerManager instance;
    return &instance;
}
