#include "cat/CATManager.h"


CATManager* CATManager::GetInstance() {
    static CATManager instance;
    return &instance;
}
