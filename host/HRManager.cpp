#include "host/HRManager.h"

#include "platform/board/BoardServices.h"

bool HRManager::getBattBootState(bool& onBattery) {
    int rc = boardSyscall(BoardSyscall::BootedOnBattery);
    if (rc < 0) return false;
    onBattery = rc == 1;
    return true;
}

HRManager* HRManager::GetInstance() {
    static HRManager instance;
    return &instance;
}
