#include "management/HAManager.h"


HAManager* HAManager::GetInstance() {
    static HAManager instance;
    return &instance;
}
