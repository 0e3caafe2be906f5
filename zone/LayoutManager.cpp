#include "zone/LayoutManager.h"


LayoutManager* LayoutManager::GetInstance() {
    static LayoutManager instance;
    return &instance;
}
