#include "zone/ZoneManager.h"


ZoneManager* ZoneManager::GetInstance() {
    static ZoneManager instance;
    return &instance;
}
