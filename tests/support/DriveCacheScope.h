#pragma once
// DriveCacheScope: the simulated drives' cache behaviour for one test (for
// example the ordered mode, where nothing moves before a flush), and the run's
// own settings and seed back at the end.
#include "platform/drive/SimDriveController.h"

class DriveCacheScope {
public:
    DriveCacheScope(DriveCacheMode mode, bool writeBack)
        : mMode(ctl().cacheMode()), mWriteBack(ctl().writeBackOn()), mSeed(ctl().driveSeed()) {
        ctl().setCacheMode(mode, writeBack);
    }
    ~DriveCacheScope() {
        ctl().setCacheMode(mMode, mWriteBack);
        ctl().setDriveSeed(mSeed);
    }
    DriveCacheScope(const DriveCacheScope&) = delete;
    DriveCacheScope& operator=(const DriveCacheScope&) = delete;

private:
    static SimDriveController& ctl() { return SimDriveController::GetInstance(); }
    DriveCacheMode mMode;
    bool mWriteBack;
    uint64_t mSeed;
};
