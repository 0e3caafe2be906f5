#include "region/RegionManager.h"


RegionManager* RegionManager::GetInstance() {
    static RegionManager instance;
    return &instance;
}
